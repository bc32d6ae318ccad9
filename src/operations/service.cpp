/* A service's own enable flag, the write of that flag together with the
 * flags of all its instances, and the service's failover policy. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_service_enabled(lks_status *, prsr_ctx *ctx,
                                                     const char *dbname, const char *srvname,
                                                     uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname}, kServiceEnabledExtra) || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);

  Owned<char> db(meta);
  if ((*db.out() = copy_lower(meta, dbname)) == nullptr) {
    trcprintf(comp, 0, "prsr_get_service_enabled: failed to allocate %d bytes",
              static_cast<int>(dn + 1));
    return PRSR_ERR_MEMORY;
  }
  Owned<char> srv(meta);
  if ((*srv.out() = copy_service(meta, srvname)) == nullptr) {
    trcprintf(comp, 0, "prsr_get_service_enabled: failed to allocate %d bytes",
              static_cast<int>(sn + 2));
    return PRSR_ERR_MEMORY;
  }
  Owned<char> key(meta);
  if (!key.allocate(dn + sn + 39)) {
    trcprintf(comp, 0, "prsr_get_service_enabled: failed to allocate %d bytes",
              static_cast<int>(dn + sn + 39));
    return PRSR_ERR_MEMORY;
  }
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "SERVICE", srv.get(), "ENABLED"});
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

namespace {

/* Writes `enable` to the ENABLED key of every subkey of the open INSTANCES
 * key, in enumeration order; stops at the first failure. `sub` is a zeroed
 * buffer of kKeyMax bytes for the subkey names. */
int32_t set_instance_flags(prsr_ctx *ctx, void *instances, const char *instances_key,
                           const char *db, const char *srv, char *sub, uint32_t enable) {
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;

  uint32_t len = kKeyMax;
  int32_t count = 0;
  int32_t rc = hvsapi_enum_subkey(hvs, instances, sub, &len, &count);
  if (rc == HVS_ERR_NO_MORE && count < 0)
    return PRSR_SUCCESS; /* a service without instances */
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_set_service_enabled", "hvsapi_enum_subkey", rc,
                            instances_key);
    return PRSR_ERR_REGISTRY;
  }
  size_t dn = std::strlen(db);
  size_t sn = std::strlen(srv);
  for (int32_t i = 0; i <= count; ++i) {
    size_t size = dn + sn + std::strlen(sub) + 50;
    Owned<char> key(meta);
    if (!key.allocate(size)) {
      trcprintf(comp, 0, "prsr_set_service_enabled: failed to allocate %d bytes",
                static_cast<int>(size));
      return PRSR_ERR_MEMORY;
    }
    key_join(key.get(), {"DATABASE.DATABASES", db, "SERVICE", srv, "INSTANCES", sub, "ENABLED"});
    rc = prsr_set_enabled_key(ctx, key.get(), enable);
    key.reset();
    if (rc != PRSR_SUCCESS)
      return rc;
    if (i == count)
      break;
    std::memset(sub, 0, kKeyMax);
    len = kKeyMax;
    int32_t scratch = 0;
    rc = hvsapi_enum_subkey(hvs, instances, sub, &len, &scratch);
    if (rc != 0) {
      prsr_report_hvs_failure(hvs, comp, "prsr_set_service_enabled", "hvsapi_enum_subkey", rc,
                              instances_key);
      return PRSR_ERR_REGISTRY;
    }
  }
  return PRSR_SUCCESS;
}

} // namespace

extern "C" PRSR_API int32_t prsr_set_service_enabled(lks_status *status, prsr_ctx *ctx,
                                                     const char *dbname, const char *srvname,
                                                     uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname}, kServiceInstancesExtra))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_set_service_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);

  Owned<char> db(meta);
  if ((*db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  Owned<char> srv(meta);
  if ((*srv.out() = copy_service(meta, srvname)) == nullptr)
    return no_memory(sn + 2);
  size_t key_size = dn + sn + 41;
  Owned<char> key(meta);
  if (!key.allocate(key_size))
    return no_memory(key_size);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "SERVICE", srv.get(), "ENABLED"});

  BranchLock lock(ctx);
  int32_t rc = lock.exclusive(status, db.get());
  if (rc != 0)
    return rc;

  /* The service's own flag first; its failure is reported and the
   * instances are written all the same. */
  (void)prsr_set_enabled_key(ctx, key.get(), enable);

  std::memset(key.get(), 0, key_size);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "SERVICE", srv.get(), "INSTANCES"});
  OpenKey instances(hvs);
  Owned<char> sub(meta);
  rc = instances.open(key.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_set_service_enabled", "hvsapi_open_key", rc,
                            key.get());
    rc = PRSR_ERR_REGISTRY;
  } else if (!sub.allocate(kKeyMax)) {
    trcprintf(comp, 0, "prsr_set_service_enabled: failed to allocate %d bytes",
              static_cast<int>(kKeyMax));
    rc = PRSR_ERR_MEMORY;
  } else {
    rc =
        set_instance_flags(ctx, instances.get(), key.get(), db.get(), srv.get(), sub.get(), enable);
  }
  instances.close();
  lock.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_get_service_fov_policy(lks_status *, prsr_ctx *ctx,
                                                        const char *dbname, const char *srvname,
                                                        uint32_t *policy) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname}, kServicePolicyExtra) || policy == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_service_fov_policy: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);

  Owned<char> db(meta);
  if ((*db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  Owned<char> srv(meta);
  if ((*srv.out() = copy_service(meta, srvname)) == nullptr)
    return no_memory(sn + 2);
  Owned<char> key(meta);
  if (!key.allocate(dn + sn + 41))
    return no_memory(dn + sn + 41);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "SERVICE", srv.get(), "FOVPOLICY"});

  Owned<char> value(meta);
  int32_t rc = prsr_open_get_value(ctx, ctx->hvs_handle, key.get(), value.out());
  if (rc == PRSR_ERR_REGISTRY) {
    /* No policy stored, or none readable. */
    *policy = PRSR_FOV_NONE;
    return PRSR_SUCCESS;
  }
  if (rc != PRSR_SUCCESS)
    return rc;
  const char *text = value.get();
  if (txticmp(text, "BASIC") == 0)
    *policy = PRSR_FOV_BASIC;
  else if (txticmp(text, "PRECONNECT") == 0 || txticmp(text, "AVAILABLE") == 0 ||
           txticmp(text, "MUTUAL") == 0)
    *policy = PRSR_FOV_PRECONNECT;
  else
    *policy = PRSR_FOV_NONE;
  return PRSR_SUCCESS;
}
