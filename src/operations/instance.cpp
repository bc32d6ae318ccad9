/* An instance's own enable flag. The instance has no lock of its own: a
 * write holds the database's lock. */
#include "frame/frame.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_instance_enabled(lks_status *, prsr_ctx *ctx,
                                                      const char *dbname, const char *instname,
                                                      uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::instance_leaf(dbname, instname, "ENABLED").fits() || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_instance_enabled");
  trcprintf(call.comp, 4, "prsr_get_instance_enabled: Inside function %s, %s", dbname, instname);
  NameCopy db(call), inst(call);
  if (!db.lower(dbname) || !inst.lower(instname))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_get_instance_enabled: dbname = %s, instname = %s", db.get(),
            inst.get());

  KeyBlock key(call);
  if (!key.build(keys::instance_leaf(db.get(), inst.get(), "ENABLED")))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_get_instance_enabled: key_name = [%s]", key.get());
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

extern "C" PRSR_API int32_t prsr_set_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                                      const char *dbname, const char *instname,
                                                      uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::instance_leaf(dbname, instname, "ENABLED").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_set_instance_enabled");
  /* Every write of an instance flag leaves this line in the log. */
  trcprintf(call.comp, 0, "prsr_set_instance_enabled: Inside function %s, %s", dbname, instname);
  NameCopy db(call), inst(call);
  if (!db.lower(dbname) || !inst.lower(instname))
    return PRSR_ERR_MEMORY;

  KeyBlock key(call);
  if (!key.build(keys::instance_leaf(db.get(), inst.get(), "ENABLED")))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_set_instance_enabled: key_name = [%s]", key.get());

  return set_flag_locked(status, ctx, db.get(), LockMode::Exclusive, key.get(), enable);
}
