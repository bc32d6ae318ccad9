/* Enable flags: the read and write of a boolean text on a full key name,
 * and the database's flag built on them. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_INTERNAL int32_t prsr_get_enabled_key(prsr_ctx *ctx, const char *key_name,
                                                      uint32_t *enabled_out) {
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  trcprintf(comp, 4, "prsr_get_enabled_key: ENETERED FUNCTION %s", key_name);

  OpenKey key(hvs);
  int32_t rc = key.open(key_name);
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_enabled_key", "hvsapi_open_key", rc, key_name);
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_KEY : PRSR_ERR_REGISTRY;
  }
  char value[kValueMax + 1];
  std::memset(value, 0, sizeof value);
  uint32_t type = HVS_TYPE_TEXT;
  uint32_t len = kValueMax;
  rc = read_text(hvs, key.get(), &type, value, &len);
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_enabled_key", "hvsapi_get_value", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }
  trcprintf(comp, 4, "prsr_get_enabled_key: key name [%s] value [%s]", key_name, value);
  key.close();
  *enabled_out = txticmp(value, "TRUE") == 0 ? 1 : 0;
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL int32_t prsr_set_enabled_key(prsr_ctx *ctx, const char *key_name,
                                                      uint32_t enabled) {
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  trcprintf(comp, 4, "prsr_set_enabled_key: entered function");

  OpenKey key(hvs);
  int32_t rc = key.open(key_name);
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_set_enabled_key", "hvsapi_open_key", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }
  char value[6];
  std::memset(value, 0, sizeof value);
  uint32_t len;
  if (enabled != 0) {
    txtlower(value, "TRUE");
    len = 5;
  } else {
    txtlower(value, "FALSE");
    len = 6;
  }
  trcprintf(comp, 4, "prsr_set_enabled_key: Setting value to %s", value);
  rc = hvsapi_set_value(hvs, key.get(), HVS_TYPE_TEXT, value, len);
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_set_enabled_key", "hvsapi_set_value", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }
  trcprintf(comp, 4, "prsr_set_enabled_key: key name [%s] value [%s]", key_name, value);
  return PRSR_SUCCESS;
}

int32_t prsr::set_flag_locked(lks_status *status, prsr_ctx *ctx, const char *db, LockMode mode,
                              const char *key_name, uint32_t enabled) {
  BranchLock lock(ctx);
  int32_t rc = mode == LockMode::Shared ? lock.shared(status, db) : lock.exclusive(status, db);
  if (rc != 0)
    return rc;
  rc = prsr_set_enabled_key(ctx, key_name, enabled);
  lock.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_get_db_enabled(lks_status *, prsr_ctx *ctx, const char *dbname,
                                                uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::database_leaf(dbname, "ENABLED").fits() || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_db_enabled");
  NameCopy db(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !key.build(keys::database_leaf(db.get(), "ENABLED")))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_get_db_enabled: key_name = [%s]", key.get());
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

extern "C" PRSR_API int32_t prsr_set_db_enabled(lks_status *status, prsr_ctx *ctx,
                                                const char *dbname, uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::database_leaf(dbname, "ENABLED").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_set_db_enabled");
  NameCopy db(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !key.build(keys::database_leaf(db.get(), "ENABLED")))
    return PRSR_ERR_MEMORY;

  return set_flag_locked(status, ctx, db.get(), LockMode::Exclusive, key.get(), enable);
}
