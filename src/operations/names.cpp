/* Names with their case preserved: an instance's, the instance's on a
 * node, the database's; and the database's domain. */
#include <algorithm>
#include <cstring>

#include "frame/frame.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_instance_name(lks_status *, prsr_ctx *ctx, const char *dbname,
                                                   const char *instname, uint32_t size,
                                                   char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, instname}, kInstanceExtra) || size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_instance_name: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t in = std::strlen(instname);

  Owned<char> db(meta);
  if (!db.allocate(dn + 1))
    return no_memory(dn + 1);
  Owned<char> inst(meta);
  if (!inst.allocate(in + 1))
    return no_memory(in + 1);
  txtnlower(db.get(), dbname, dn);
  txtnlower(inst.get(), instname, in);
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return no_memory(kKeyMax);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "INSTANCE", inst.get()});

  OpenKey k(hvs);
  int32_t rc = k.open(key.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_instance_name", "hvsapi_open_key", rc, key.get());
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_KEY : PRSR_ERR_REGISTRY;
  }
  Owned<char> value(meta);
  rc = prsr_open_get_value(ctx, hvs, key.get(), value.out());
  rc = deliver_name(rc, value.get(), size, name);
  k.close();
  return rc;
}

extern "C" PRSR_API int32_t prsr_get_spname(lks_status *, prsr_ctx *ctx, const char *dbname,
                                            uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!name_fits(dbname, kDatabaseExtra) || size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_spname: failed to allocate %d bytes", static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);

  Owned<char> db(meta);
  if ((*db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return no_memory(kKeyMax);
  key_join(key.get(), {"DATABASE.DATABASES", db.get()});

  OpenKey k(hvs);
  int32_t rc = k.open(key.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_spname", "hvsapi_open_key", rc, key.get());
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_KEY : PRSR_ERR_REGISTRY;
  }
  Owned<char> value(meta);
  rc = prsr_open_get_value(ctx, hvs, key.get(), value.out());
  rc = deliver_name(rc, value.get(), size, name);
  k.close();
  return rc;
}

extern "C" PRSR_API int32_t prsr_get_domain(lks_status *, prsr_ctx *ctx, const char *dbname,
                                            char **domain_out) {
  if (ctx == nullptr || dbname == nullptr || !session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!name_fits(dbname, kDomainExtra) || domain_out == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_domain: failed to allocate %d bytes", static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);

  Owned<char> db(meta);
  if ((*db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  Owned<char> key(meta);
  if (!key.allocate(dn + 28))
    return no_memory(dn + 28);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "DOMAIN"});
  trcprintf(comp, 4, "prsr_get_domain: key_name = [%s]", key.get());

  /* From here on the caller's pointer is only ever NULL or the domain. */
  *domain_out = nullptr;
  int32_t rc = prsr_open_get_value(ctx, ctx->hvs_handle, key.get(), domain_out);
  if (rc != PRSR_SUCCESS) {
    if (*domain_out != nullptr)
      u_freem(meta, *domain_out);
    *domain_out = nullptr;
  }
  return rc;
}

extern "C" PRSR_API int32_t prsr_free_domain(prsr_ctx *ctx, char *domain) {
  if (ctx == nullptr || domain == nullptr)
    return PRSR_ERR_SESSION;
  u_freem(ctx->metactx, domain);
  return PRSR_SUCCESS;
}

namespace {

/* The walk of prsr_get_node_instance_name over the open INSTANCE key: the
 * caller's buffer receives each key component in turn (at most `cap`
 * bytes), and on a match the instance's case-preserved name. `key` is the
 * fixed key buffer, `value` holds the last value read. */
int32_t find_node_instance(prsr_ctx *ctx, void *instances, const char *db, const char *node,
                           char *key, Owned<char> &value, uint32_t cap, uint32_t size, char *name) {
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;

  while (true) {
    uint32_t len = cap;
    int32_t remaining = 0;
    int32_t rc = hvsapi_enum_subkey(hvs, instances, name, &len, &remaining);
    if (rc == HVS_ERR_NO_MORE) {
      name[0] = '\0';
      return PRSR_SUCCESS;
    }
    if (rc != 0) {
      name[0] = '\0';
      key_join(key, {"DATABASE.DATABASES", db, "INSTANCE"});
      prsr_report_hvs_failure(hvs, comp, "prsr_get_node_instance_name", "hvsapi_enum_subkey", rc,
                              key);
      return PRSR_ERR_REGISTRY;
    }
    key_join(key, {"DATABASE.DATABASES", db, "INSTANCE", name, "NODE"});
    value.reset();
    rc = prsr_open_get_value(ctx, hvs, key, value.out());
    if (rc != PRSR_SUCCESS) {
      name[0] = '\0';
      return rc;
    }
    /* Byte for byte: a node stored with a capital never matches. */
    if (std::strcmp(value.get(), node) == 0)
      break;
    if (remaining <= 0) {
      name[0] = '\0';
      return PRSR_SUCCESS;
    }
  }
  value.reset();
  key_join(key, {"DATABASE.DATABASES", db, "INSTANCE", name});
  int32_t rc = prsr_open_get_value(ctx, hvs, key, value.out());
  return deliver_name(rc, value.get(), size, name);
}

} // namespace

extern "C" PRSR_API int32_t prsr_get_node_instance_name(lks_status *status, prsr_ctx *ctx,
                                                        const char *dbname, const char *node,
                                                        uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* Room for the NODE key of an instance with at least a one-byte name. */
  if (!name_fits(dbname, kInstanceNodeExtra + 1) || node == nullptr || size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_node_instance_name: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t nn = std::strlen(node);
  /* A component longer than this would not fit the key buffer: the
   * enumeration refuses it as too long for the buffer. */
  uint32_t cap = std::min<uint32_t>(size, static_cast<uint32_t>(kKeyMax - dn - kInstanceNodeExtra));

  Owned<char> db(meta);
  if (!db.allocate(dn + 1))
    return no_memory(dn + 1);
  Owned<char> nd(meta);
  if (!nd.allocate(nn + 1))
    return no_memory(nn + 1);
  txtnlower(db.get(), dbname, dn);
  txtnlower(nd.get(), node, nn);
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return no_memory(kKeyMax);

  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, db.get());
  if (rc != 0)
    return rc;
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "INSTANCE"});
  OpenKey instances(hvs);
  Owned<char> value(meta);
  rc = instances.open(key.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_node_instance_name", "hvsapi_open_key", rc,
                            key.get());
    rc = PRSR_ERR_REGISTRY;
  } else {
    rc = find_node_instance(ctx, instances.get(), db.get(), nd.get(), key.get(), value, cap, size,
                            name);
  }
  /* The lock goes back before the INSTANCE key is closed. */
  lock.release();
  instances.close();
  return rc;
}
