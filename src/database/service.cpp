/* Service entries: one service of a database read into its
 * prsr_service_cfg, its instances sorted by TYPE into preferred and
 * available, for the whole-record fetch. */
#include <cstring>

#include "database/database.h"
#include "frame/frame.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_INTERNAL void prsr_free_service_entry(void *metactx, prsr_service_cfg *entry) {
  if (entry == nullptr)
    return;
  if (entry->service_name != nullptr)
    u_freem(metactx, entry->service_name);
  free_texts(metactx, entry->avail_instances, entry->avail_count);
  if (entry->avail_enabled != nullptr)
    u_freem(metactx, entry->avail_enabled);
  free_texts(metactx, entry->pref_instances, entry->pref_count);
  if (entry->pref_enabled != nullptr)
    u_freem(metactx, entry->pref_enabled);
  free_texts(metactx, entry->environment, entry->environment_count);
  u_freem(metactx, entry);
}

namespace {

constexpr const char *kSelf = "prsr_fill_service";

enum class Kind { Missing, Other, Preferred, Available };

/* The subkey names of the service's INSTANCES and their case-preserved
 * names, owned for the length of the fill. */
struct Names {
  void *meta;
  char **subkeys = nullptr;
  uint32_t count = 0;
  char **preserved = nullptr;
  ~Names() { clear(); }
  void clear() {
    free_texts(meta, subkeys, count);
    free_texts(meta, preserved, count);
    subkeys = preserved = nullptr;
    count = 0;
  }
};

} // namespace

extern "C" PRSR_INTERNAL int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname,
                                                   const char *dbkey, prsr_service_cfg **out,
                                                   const char *srvname) {
  Call call(ctx, kSelf);
  void *meta = call.meta;
  void *hvs = call.hvs;
  uintptr_t comp = call.comp;
  trcprintf(comp, 4, "prsr_fill_service: dbname = [%s], dbkey = [%s],  srvname = %s", dbname, dbkey,
            srvname);
  FillBlocks<prsr_service_cfg> b(meta);
  if (int32_t rc = b.allocate(call))
    return rc;
  Owned<prsr_service_cfg> &record = b.entry;
  Owned<char> &value = b.value, &srv_key = b.entry_key, &name = b.key;

  /* <service key>.ENVIRONMENT is the longest key built from the service key
   * alone; the keys of its instances are measured one by one. */
  const KeyParts srv_parts{dbkey, "SERVICE", srvname};
  if (!entry_key(call, srv_key.get(), srv_parts, srv_parts / "ENVIRONMENT", "service", srvname,
                 dbkey))
    return PRSR_ERR_REGISTRY;
  trcprintf(comp, 4, "prsr_fill_service: srv key name = %s", srv_key.get());

  /* Published before anything is read: every later failure leaves it where
   * the release of the record finds it. */
  prsr_service_cfg *e = record.release();
  *out = e;

  size_t srv_len = std::strlen(srvname);
  e->service_name = static_cast<char *>(u_allocm(meta, srv_len + 1));
  if (e->service_name == nullptr)
    return call.no_memory(srv_len + 1);
  OpenKey key(hvs);
  int32_t rc = key.open(srv_key.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, srv_key.get());
    return PRSR_ERR_REGISTRY;
  }
  uint32_t type = 0;
  uint32_t len = static_cast<uint32_t>(srv_len) + 1;
  rc = read_text(hvs, key.get(), &type, e->service_name, &len);
  if (rc != 0) {
    call.report("hvsapi_get_value", rc, srv_key.get());
    return PRSR_ERR_REGISTRY;
  }
  key.close();
  trcprintf(comp, 4, "prsr_fill_service: srvcompname = %s", e->service_name);

  KeyParts{srv_key.get(), "INSTANCES"}.write(name.get());
  trcprintf(comp, 4, "prsr_fill_service: key name = [%s]", name.get());
  Names names{meta};
  if (prsr_get_subkeys(meta, comp, hvs, name.get(), &names.subkeys, &names.count) != 0 ||
      names.count == 0)
    return PRSR_SUCCESS; /* the entry keeps its name only */

  uint64_t table_size = uint64_t{names.count} * sizeof(char *);
  names.preserved = static_cast<char **>(u_allocm(meta, table_size));
  if (names.preserved == nullptr)
    return call.no_memory(table_size);
  rc = prsr_get_case_preserved_values(meta, comp, hvs, name.get(), names.subkeys, names.count,
                                      names.preserved);
  if (rc != 0) {
    trcprintf(comp, 0, "prsr_fill_service: prsr_get_case_preserved_names failed, rc = %d",
              static_cast<int>(rc));
    return rc;
  }

  /* TYPE of subkey i, compared byte for byte; a missing key is reported
   * and the instance passed over. */
  auto read_type = [&](uint32_t i, Kind *kind) -> int32_t {
    if (!KeyParts{srv_key.get(), "INSTANCES", names.subkeys[i], "TYPE"}.write(name.get())) {
      trcprintf(comp, 0, "prsr_fill_service: key name of TYPE of %s exceeds %d bytes",
                names.subkeys[i], static_cast<int>(kKeyMax));
      return PRSR_ERR_REGISTRY;
    }
    int32_t r = key.open(name.get());
    if (r != 0) {
      call.report("hvsapi_open_key", r, name.get());
      if (r != HVS_ERR_NO_KEY)
        return PRSR_ERR_REGISTRY;
      *kind = Kind::Missing;
      return PRSR_SUCCESS;
    }
    std::memset(value.get(), 0, kValueMax);
    uint32_t t = 0;
    uint32_t n = kValueMax;
    r = read_text(hvs, key.get(), &t, value.get(), &n);
    key.close();
    if (r != 0) {
      call.report("hvsapi_get_value", r, name.get());
      return PRSR_ERR_REGISTRY;
    }
    *kind = std::strcmp(value.get(), "PREFERRED") == 0   ? Kind::Preferred
            : std::strcmp(value.get(), "AVAILABLE") == 0 ? Kind::Available
                                                         : Kind::Other;
    return PRSR_SUCCESS;
  };

  /* First pass: count, so that each list is allocated at its size. */
  uint32_t n_pref = 0, n_avail = 0;
  for (uint32_t i = 0; i < names.count; ++i) {
    Kind kind = Kind::Other;
    if ((rc = read_type(i, &kind)) != 0)
      return rc;
    n_pref += kind == Kind::Preferred;
    n_avail += kind == Kind::Available;
  }

  uint64_t size = (uint64_t{n_avail} + 1) * sizeof(char *);
  if ((e->avail_instances = static_cast<char **>(u_allocm(meta, size))) == nullptr)
    return call.no_memory(size);
  size = uint64_t{n_avail} * sizeof(uint32_t);
  if ((e->avail_enabled = static_cast<uint32_t *>(u_allocm(meta, size))) == nullptr)
    return call.no_memory(size);
  e->avail_count = n_avail;
  size = (uint64_t{n_pref} + 1) * sizeof(char *);
  if ((e->pref_instances = static_cast<char **>(u_allocm(meta, size))) == nullptr)
    return call.no_memory(size);
  size = uint64_t{n_pref} * sizeof(uint32_t);
  if ((e->pref_enabled = static_cast<uint32_t *>(u_allocm(meta, size))) == nullptr)
    return call.no_memory(size);
  e->pref_count = n_pref;

  /* Second pass: move each name into its list and read its flag. */
  uint32_t next_pref = 0, next_avail = 0;
  for (uint32_t i = 0; i < names.count; ++i) {
    Kind kind = Kind::Other;
    if ((rc = read_type(i, &kind)) != 0)
      return rc;
    char **list;
    uint32_t *flags;
    uint32_t at;
    if (kind == Kind::Preferred && next_pref < n_pref) {
      list = e->pref_instances, flags = e->pref_enabled, at = next_pref++;
    } else if (kind == Kind::Available && next_avail < n_avail) {
      list = e->avail_instances, flags = e->avail_enabled, at = next_avail++;
    } else {
      continue;
    }
    list[at] = names.preserved[i];
    names.preserved[i] = nullptr;
    KeyBlock enabled_key(call);
    if (!enabled_key.build(
            keys::service_instance_leaf(dbname, srvname, names.subkeys[i], "ENABLED")))
      return PRSR_ERR_MEMORY;
    prsr_get_enabled_key(ctx, enabled_key.get(), &flags[at]);
  }
  names.clear(); /* names that went into neither list go with it */

  KeyParts{srv_key.get(), "ENVIRONMENT"}.write(name.get());
  prsr_get_multivalues(meta, comp, hvs, name.get(), &e->environment, &e->environment_count);

  /* FOVPOLICY: 0 unless read. */
  KeyParts{srv_key.get(), "FOVPOLICY"}.write(name.get());
  rc = key.open(name.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, name.get());
  } else {
    std::memset(value.get(), 0, kValueMax);
    type = 0;
    len = kValueMax;
    rc = read_text(hvs, key.get(), &type, value.get(), &len);
    if (rc != 0) {
      call.report("hvsapi_get_value", rc, name.get());
    } else {
      if (len < kValueMax)
        value[len] = '\0';
      e->fov_policy = policy_code(value.get());
    }
    key.close();
  }

  /* ENABLED of the service: anything but "FALSE" is enabled. */
  KeyParts{srv_key.get(), "ENABLED"}.write(name.get());
  read_flag(call, name.get(), value.get(), &e->enabled);
  return PRSR_SUCCESS;
}
