/* A service's own enable flag, the write of that flag together with the
 * flags of all its instances, and the service's failover policy. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_service_enabled(lks_status *, prsr_ctx *ctx,
                                                     const char *dbname, const char *srvname,
                                                     uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::service_leaf(dbname, srvname, "ENABLED").fits() || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_service_enabled");
  NameCopy db(call), srv(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !srv.service(srvname) ||
      !key.build(keys::service_leaf(db.get(), srv.get(), "ENABLED")))
    return PRSR_ERR_MEMORY;
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

namespace {

/* Writes `enable` to the ENABLED key of every subkey of the open INSTANCES
 * key, in enumeration order; stops at the first failure. `sub` is a zeroed
 * buffer of kKeyMax bytes for the subkey names. */
int32_t set_instance_flags(const Call &call, void *instances, const char *instances_key,
                           const char *db, const char *srv, char *sub, uint32_t enable) {
  void *hvs = call.hvs;

  uint32_t len = kKeyMax;
  int32_t count = 0;
  int32_t rc = hvsapi_enum_subkey(hvs, instances, sub, &len, &count);
  if (rc == HVS_ERR_NO_MORE && count < 0)
    return PRSR_SUCCESS; /* a service without instances */
  if (rc != 0) {
    call.report("hvsapi_enum_subkey", rc, instances_key);
    return PRSR_ERR_REGISTRY;
  }
  for (int32_t i = 0; i <= count; ++i) {
    KeyBlock key(call);
    /* This walk's blocks have always kept one spare byte less. */
    if (!key.build(keys::service_instance_leaf(db, srv, sub, "ENABLED").spare(2)))
      return PRSR_ERR_MEMORY;
    rc = prsr_set_enabled_key(call.ctx, key.get(), enable);
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
      call.report("hvsapi_enum_subkey", rc, instances_key);
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
  if (!keys::service_leaf(dbname, srvname, "INSTANCES").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_set_service_enabled");
  void *meta = call.meta;
  void *hvs = call.hvs;
  NameCopy db(call), srv(call);
  if (!db.lower(dbname) || !srv.service(srvname))
    return PRSR_ERR_MEMORY;
  /* One block for the service's ENABLED key and then its INSTANCES key,
   * sized for the longer. */
  const KeyParts instances_key = keys::service_leaf(db.get(), srv.get(), "INSTANCES");
  KeyBlock key(call);
  if (!key.build(instances_key))
    return PRSR_ERR_MEMORY;
  keys::service_leaf(db.get(), srv.get(), "ENABLED").write(key.get(), key.size());

  BranchLock lock(ctx);
  int32_t rc = lock.exclusive(status, db.get());
  if (rc != 0)
    return rc;

  /* The service's own flag first; its failure is reported and the
   * instances are written all the same. */
  (void)prsr_set_enabled_key(ctx, key.get(), enable);

  std::memset(key.get(), 0, key.size());
  instances_key.join(key.get());
  OpenKey instances(hvs);
  Owned<char> sub(meta);
  rc = instances.open(key.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key.get());
    rc = PRSR_ERR_REGISTRY;
  } else if (!sub.allocate(kKeyMax)) {
    rc = call.no_memory(kKeyMax);
  } else {
    rc = set_instance_flags(call, instances.get(), key.get(), db.get(), srv.get(), sub.get(),
                            enable);
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
  if (!keys::service_leaf(dbname, srvname, "FOVPOLICY").fits() || policy == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_service_fov_policy");
  NameCopy db(call), srv(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !srv.service(srvname) ||
      !key.build(keys::service_leaf(db.get(), srv.get(), "FOVPOLICY")))
    return PRSR_ERR_MEMORY;

  Owned<char> value(call.meta);
  int32_t rc = prsr_open_get_value(ctx, call.hvs, key.get(), value.out());
  if (rc == PRSR_ERR_REGISTRY) {
    /* No policy stored, or none readable. */
    *policy = PRSR_FOV_NONE;
    return PRSR_SUCCESS;
  }
  if (rc != PRSR_SUCCESS)
    return rc;
  *policy = policy_code(value.get());
  return PRSR_SUCCESS;
}
