/* An instance's own enable flag. The instance has no lock of its own: a
 * write holds the database's lock. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_instance_enabled(lks_status *, prsr_ctx *ctx,
                                                      const char *dbname, const char *instname,
                                                      uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, instname}, kInstanceEnabledExtra) || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_instance_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  trcprintf(comp, 4, "prsr_get_instance_enabled: Inside function %s, %s", dbname, instname);
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
  trcprintf(comp, 4, "prsr_get_instance_enabled: dbname = %s, instname = %s", db.get(), inst.get());

  Owned<char> key(meta);
  if (!key.allocate(dn + in + 40))
    return no_memory(dn + in + 40);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "INSTANCE", inst.get(), "ENABLED"});
  trcprintf(comp, 4, "prsr_get_instance_enabled: key_name = [%s]", key.get());
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

extern "C" PRSR_API int32_t prsr_set_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                                      const char *dbname, const char *instname,
                                                      uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, instname}, kInstanceEnabledExtra))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_set_instance_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  /* Every write of an instance flag leaves this line in the log. */
  trcprintf(comp, 0, "prsr_set_instance_enabled: Inside function %s, %s", dbname, instname);
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
  if (!key.allocate(dn + in + 40))
    return no_memory(dn + in + 40);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "INSTANCE", inst.get(), "ENABLED"});
  trcprintf(comp, 4, "prsr_set_instance_enabled: key_name = [%s]", key.get());

  BranchLock lock(ctx);
  int32_t rc = lock.exclusive(status, db.get());
  if (rc != 0)
    return rc;
  rc = prsr_set_enabled_key(ctx, key.get(), enable);
  lock.release();
  return rc;
}
