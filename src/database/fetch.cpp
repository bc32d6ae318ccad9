/* The whole configuration of one database, read under its shared lock into
 * one prsr_cfg, and its release. */
#include <cstring>

#include "database/database.h"
#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

constexpr const char *kSelf = "prsr_fetch_db_config";

/* What the fetch works with: the session's handles and its reused buffers. */
struct Work : Call {
  explicit Work(prsr_ctx *c) : Call(c, kSelf) {}
  const char *db_key = nullptr;
  char *key = nullptr;   /* kKeyMax */
  char *value = nullptr; /* kValueMax */

  /* The report of a failed registry call on the key of the moment. */
  void failed(const char *api, int32_t rc) const { report(api, rc, key); }
};

/* How a single value that cannot be had is answered. */
enum class Missing { Report, Policy };

/* Reads <db key>.<comp> into *field. An open failure leaves the field NULL
 * (POLICY: a missing key is "AUTOMATIC"); an unreadable value is the empty
 * text. A failed allocation is 2, or nothing with `optional_block`. */
int32_t read_single(const Work &w, const char *component, char **field, Missing missing,
                    bool optional_block) {
  std::memset(w.key, 0, kKeyMax);
  KeyParts{w.db_key, component}.write(w.key);
  if (std::strcmp(component, "TERVAN_HOME") == 0)
    trcprintf(w.comp, 4, "prsr_fetch_db_config: name of the TERVAN_HOME key = %s", w.key);
  std::memset(w.value, 0, kValueMax);
  uint32_t len = kValueMax;
  OpenKey key(w.hvs);
  int32_t rc = key.open(w.key);
  if (rc == HVS_ERR_NO_KEY && missing == Missing::Policy) {
    static constexpr char kAutomatic[] = "AUTOMATIC";
    *field = prsr_dup_bytes(w.meta, kAutomatic, sizeof kAutomatic - 1);
    if (*field == nullptr && !optional_block)
      return w.no_memory(sizeof kAutomatic);
    return PRSR_SUCCESS;
  }
  if (rc != 0) {
    w.failed("hvsapi_open_key", rc);
    return PRSR_SUCCESS;
  }
  uint32_t type = 0;
  rc = hvsapi_get_value(w.hvs, key.get(), &type, w.value, &len);
  uint64_t size;
  if (rc != 0) {
    w.failed("hvsapi_get_value", rc);
    size = 1;
    *field = static_cast<char *>(u_allocm(w.meta, size));
  } else {
    size = uint64_t{len} + 1;
    *field = prsr_dup_bytes(w.meta, w.value, len);
  }
  if (*field == nullptr && !optional_block)
    return w.no_memory(size);
  return PRSR_SUCCESS;
}

/* Walks the subkeys of the branch key in w.key and fills one entry per
 * subkey. Failing to open the branch or its first enumeration leaves no
 * entries; a later enumeration failure or a failed fill (*fill_rc) ends the
 * fetch. */
template <class Entry, class Fill>
int32_t read_branch(const Work &w, char *subkey, Entry ***table, uint32_t *count, bool count_line,
                    int32_t *fill_rc, Fill fill) {
  OpenKey key(w.hvs);
  int32_t rc = key.open(w.key);
  if (rc != 0) {
    w.failed("hvsapi_open_key", rc);
    return PRSR_SUCCESS;
  }
  std::memset(subkey, 0, kKeyMax);
  uint32_t len = kKeyMax;
  int32_t remaining = 0;
  rc = hvsapi_enum_subkey(w.hvs, key.get(), subkey, &len, &remaining);
  if (count_line)
    trcprintf(w.comp, 4, "prsr_fetch_db_config: Number of Instances = %d",
              static_cast<int>(remaining) + 1);
  if (rc == HVS_ERR_NO_MORE || (rc == 0 && remaining < 0))
    return PRSR_SUCCESS;
  if (rc != 0) {
    w.failed("hvsapi_enum_subkey", rc);
    return PRSR_SUCCESS;
  }
  uint32_t n = static_cast<uint32_t>(remaining) + 1;
  uint64_t size = uint64_t{n} * sizeof(Entry *);
  if ((*table = static_cast<Entry **>(u_allocm(w.meta, size))) == nullptr)
    return w.no_memory(size);
  *count = n; /* before the slots are filled: a partial table is walked whole */
  for (uint32_t i = 0; i < n; ++i) {
    if (i > 0) {
      std::memset(subkey, 0, kKeyMax);
      len = kKeyMax;
      int32_t further = 0;
      rc = hvsapi_enum_subkey(w.hvs, key.get(), subkey, &len, &further);
      if (rc != 0) {
        w.failed("hvsapi_enum_subkey", rc);
        return PRSR_ERR_REGISTRY;
      }
    }
    if ((*fill_rc = fill(&(*table)[i], subkey)) != 0)
      return *fill_rc;
  }
  return PRSR_SUCCESS;
}

} // namespace

extern "C" PRSR_API int32_t prsr_fetch_db_config(lks_status *status, prsr_ctx *ctx,
                                                 const char *db_name, prsr_cfg **cfg_out) {
  if (cfg_out != nullptr)
    *cfg_out = nullptr;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* DB_CLU_ALIAS.IP is the longest key built from the database name alone. */
  if (cfg_out == nullptr || !keys::database_alias_ip(db_name).fits())
    return PRSR_ERR_ARGUMENT;
  Work w(ctx);
  void *meta = w.meta;
  uintptr_t comp = w.comp;

  /* The record under construction: released as a whole unless handed out. */
  Draft cfg(static_cast<prsr_cfg *>(nullptr),
            [status, ctx](prsr_cfg *c) { prsr_release_db_config(status, ctx, c); });
  if ((*cfg.out() = static_cast<prsr_cfg *>(u_allocm(meta, sizeof(prsr_cfg)))) == nullptr)
    return w.no_memory(sizeof(prsr_cfg));
  cfg->fetched = 1;
  u_set_tag(cfg->tag, kCfgTag);
  trcprintf(comp, 4, "prsr_fetch_db_config:initialized memory for prsr_cfg");

  size_t n = std::strlen(db_name);
  NameCopy db(w);
  if (!db.lower(db_name))
    return PRSR_ERR_MEMORY;
  const KeyParts db_key_parts = keys::database(db.get());
  trcprintf(comp, 4, "prsr_fetch_db_config:length is %d",
            static_cast<int>(db_key_parts.block_size()));
  KeyBlock db_key(w);
  if (!db_key.build(db_key_parts))
    return PRSR_ERR_MEMORY;
  w.db_key = db_key.get();
  trcprintf(comp, 4, "prsr_fetch_db_config: DB key is %s", db_key.get());

  /* Declared before the lock so that the lock goes back before they do. */
  Owned<char> key_buf(meta), value_buf(meta), subkey_buf(meta);
  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, db.get());
  if (rc != 0)
    return rc;

  OpenKey key(w.hvs);
  rc = key.open(db_key.get());
  if (rc == HVS_ERR_NO_KEY) {
    trcprintf(comp, 4, "prsr_fetch_db_config: %s Key does not exist", db_key.get());
    return PRSR_ERR_NO_KEY;
  }
  if (rc != 0) {
    w.report("hvsapi_open_key", rc, db_key.get());
    return PRSR_ERR_REGISTRY;
  }
  if ((cfg->sp_name = static_cast<char *>(u_allocm(meta, n + 1))) == nullptr)
    return w.no_memory(n + 1);
  uint32_t type = 0;
  uint32_t len = static_cast<uint32_t>(n) + 1;
  rc = read_text(w.hvs, key.get(), &type, cfg->sp_name, &len);
  if (rc != 0) {
    w.report("hvsapi_get_value", rc, db_key.get());
    return PRSR_ERR_REGISTRY;
  }
  trcprintf(comp, 4, "prsr_fetch_db_config: Database service provider(sp) name is %s",
            cfg->sp_name);
  key.close();
  trcprintf(comp, 4, "prsr_fetch_db_config: opened the DB key %s\n", db_key.get());

  if (!key_buf.allocate(kKeyMax))
    return w.no_memory(kKeyMax);
  if (!value_buf.allocate(kValueMax))
    return w.no_memory(kValueMax);
  w.key = key_buf.get();
  w.value = value_buf.get();

  /* DB_CLU_ALIAS.IP: optional, a missing key is no failure. */
  KeyParts{db_key.get(), "DB_CLU_ALIAS", "IP"}.write(w.key);
  rc = key.open(w.key);
  if (rc == HVS_ERR_NO_KEY) {
    trcprintf(comp, 4, "prsr_fetch_db_config: key %s not found", w.key);
  } else if (rc != 0) {
    w.failed("hvsapi_open_key", rc);
  } else {
    type = 0;
    len = kValueMax;
    rc = hvsapi_get_value(w.hvs, key.get(), &type, w.value, &len);
    if (rc != 0) {
      w.failed("hvsapi_get_value", rc);
    } else if ((cfg->clu_alias_ip = prsr_dup_bytes(meta, w.value, len)) == nullptr) {
      return w.no_memory(uint64_t{len} + 1);
    }
    key.close();
  }

  const struct {
    const char *component;
    char **field;
    Missing missing;
  } singles[] = {
      {"TERVAN_HOME", &cfg->tervan_home, Missing::Report},
      {"BOOTCFG", &cfg->bootcfg, Missing::Report},
      {"DB_NAME", &cfg->db_name, Missing::Report},
      {"ROLE", &cfg->role, Missing::Report},
      {"START_OPTIONS", &cfg->start_options, Missing::Report},
      {"POLICY", &cfg->policy, Missing::Policy},
  };
  for (const auto &s : singles)
    if ((rc = read_single(w, s.component, s.field, s.missing, false)) != 0)
      return rc;

  if (!subkey_buf.allocate(kKeyMax))
    return w.no_memory(kKeyMax);
  KeyParts{db_key.get(), "INSTANCE"}.write(w.key);
  trcprintf(comp, 4, "prsr_fetch_db_config: Instance KEY = %s\n", w.key);
  int32_t fill_rc = 0;
  rc = read_branch(w, subkey_buf.get(), &cfg->instances, &cfg->instance_count, true, &fill_rc,
                   [&](prsr_instance_cfg **slot, const char *sub) {
                     return prsr_fill_instance(ctx, db_key.get(), slot, sub);
                   });
  if (fill_rc != 0)
    trcprintf(comp, 0, "prsr_fetch_db_config: prsr_fill_instance failed, rc = %d",
              static_cast<int>(fill_rc));
  if (rc != 0)
    return rc;

  KeyParts{db_key.get(), "SERVICE"}.write(w.key);
  rc = read_branch(w, subkey_buf.get(), &cfg->services, &cfg->service_count, false, &fill_rc,
                   [&](prsr_service_cfg **slot, const char *sub) {
                     return prsr_fill_service(ctx, db.get(), db_key.get(), slot, sub);
                   });
  if (fill_rc != 0)
    trcprintf(comp, 0, "prsr_fetch_db_config: prsr_fill_service failed, rc = %d",
              static_cast<int>(fill_rc));
  if (rc != 0)
    return rc;

  read_single(w, "DOMAIN", &cfg->domain, Missing::Report, true);

  /* ENABLED: anything but "FALSE" is enabled; unreadable stays 0. */
  std::memset(w.key, 0, kKeyMax);
  KeyParts{db_key.get(), "ENABLED"}.write(w.key);
  trcprintf(comp, 4, "prsr_fetch_db_config: db_key = %s, key_name = %s", db_key.get(), w.key);
  rc = key.open(w.key);
  if (rc != 0) {
    w.failed("hvsapi_open_key", rc);
  } else {
    std::memset(w.value, 0, kValueMax);
    type = 0;
    len = kValueMax;
    rc = read_text(w.hvs, key.get(), &type, w.value, &len);
    trcprintf(comp, 4, "prsr_fetch_db_config: value size is : %d", static_cast<int>(len));
    if (rc != 0) {
      w.failed("hvsapi_get_value", rc);
    } else {
      trcprintf(comp, 4, "prsr_fetch_db_config: value is : %s", w.value);
      cfg->enabled = txticmp(w.value, "FALSE") != 0 ? 1 : 0;
    }
    key.close();
  }

  KeyParts{db_key.get(), "ENVIRONMENT"}.write(w.key);
  prsr_get_multivalues(meta, comp, w.hvs, w.key, &cfg->environment, &cfg->environment_count);

  lock.release();
  *cfg_out = cfg.release();
  return PRSR_SUCCESS;
}

extern "C" PRSR_API int32_t prsr_release_db_config(lks_status *, prsr_ctx *ctx, prsr_cfg *cfg) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (cfg == nullptr || u_check_tag(cfg->tag, kCfgTag) == 0)
    return PRSR_SUCCESS;
  void *meta = ctx->metactx;
  for (char **text : {&cfg->sp_name, &cfg->clu_alias_ip, &cfg->tervan_home, &cfg->bootcfg,
                      &cfg->domain, &cfg->db_name, &cfg->role, &cfg->start_options, &cfg->policy}) {
    if (*text != nullptr)
      u_freem(meta, *text);
    *text = nullptr;
  }
  if (cfg->instances != nullptr) {
    for (uint32_t i = 0; i < cfg->instance_count; ++i) {
      prsr_free_instance_entry(meta, cfg->instances[i]);
      cfg->instances[i] = nullptr;
    }
    u_freem(meta, cfg->instances);
  }
  cfg->instances = nullptr;
  cfg->instance_count = 0;
  if (cfg->services != nullptr) {
    for (uint32_t i = 0; i < cfg->service_count; ++i) {
      prsr_free_service_entry(meta, cfg->services[i]);
      cfg->services[i] = nullptr;
    }
    u_freem(meta, cfg->services);
  }
  cfg->services = nullptr;
  cfg->service_count = 0;
  free_texts(meta, cfg->environment, cfg->environment_count);
  u_freem(meta, cfg);
  return PRSR_SUCCESS;
}
