/* One instance in its role for one service: its enable flag as the
 * service sees it, and whether the service may run there. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* The lower-cased copies of the three names of a service instance. */
struct Names {
  explicit Names(void *meta) : db(meta), srv(meta), inst(meta) {}
  Owned<char> db, srv, inst;
};

} // namespace

extern "C" PRSR_API int32_t prsr_get_service_instance_enabled(lks_status *, prsr_ctx *ctx,
                                                              const char *dbname,
                                                              const char *srvname,
                                                              const char *instname,
                                                              uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname, instname}, kServiceInstEnabledExtra) || enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_service_instance_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);
  size_t in = std::strlen(instname);
  trcprintf(comp, 4,
            "prsr_get_service_instance_enabled: Inside function dbname=%s, servname=%s, "
            "instname=%s",
            dbname, srvname, instname);

  Names n(meta);
  if ((*n.db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  if ((*n.srv.out() = copy_service(meta, srvname)) == nullptr)
    return no_memory(sn + 2);
  if ((*n.inst.out() = copy_lower(meta, instname)) == nullptr)
    return no_memory(in + 1);
  trcprintf(comp, 4,
            "prsr_get_service_instance_enabled: Inside function dbname=%s, servname=%s, "
            "instname=%s",
            n.db.get(), n.srv.get(), n.inst.get());

  Owned<char> key(meta);
  if (!key.allocate(dn + sn + in + 51))
    return no_memory(dn + sn + in + 51);
  key_join(key.get(), {"DATABASE.DATABASES", n.db.get(), "SERVICE", n.srv.get(), "INSTANCES",
                       n.inst.get(), "ENABLED"});
  trcprintf(comp, 4, "prsr_get_service_instance_enabled: ENABLED KEY NAME = %s", key.get());
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

extern "C" PRSR_API int32_t prsr_set_service_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                                              const char *dbname,
                                                              const char *srvname,
                                                              const char *instname,
                                                              uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname, instname}, kServiceInstEnabledExtra))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_set_service_instance_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);
  size_t in = std::strlen(instname);

  Names n(meta);
  if ((*n.db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  if ((*n.srv.out() = copy_service(meta, srvname)) == nullptr)
    return no_memory(sn + 2);
  if ((*n.inst.out() = copy_lower(meta, instname)) == nullptr)
    return no_memory(in + 1);
  Owned<char> key(meta);
  if (!key.allocate(dn + sn + in + 51))
    return no_memory(dn + sn + in + 51);
  key_join(key.get(), {"DATABASE.DATABASES", n.db.get(), "SERVICE", n.srv.get(), "INSTANCES",
                       n.inst.get(), "ENABLED"});

  /* Shared: one instance's flag for one service can change beside other
   * shared holders; only an exclusive holder keeps it out. */
  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, n.db.get());
  if (rc != 0)
    return rc;
  rc = prsr_set_enabled_key(ctx, key.get(), enable);
  lock.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_get_service_instance_supported(lks_status *, prsr_ctx *ctx,
                                                                const char *dbname,
                                                                const char *srvname,
                                                                const char *instname,
                                                                uint32_t *supported) {
  if (supported != nullptr)
    *supported = 0;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!names_fit({dbname, srvname, instname}, kServiceInstEnabledExtra) || supported == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_service_instance_supported: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);
  size_t sn = std::strlen(srvname);
  size_t in = std::strlen(instname);

  Names n(meta);
  if ((*n.db.out() = copy_lower(meta, dbname)) == nullptr)
    return no_memory(dn + 1);
  if ((*n.srv.out() = copy_service(meta, srvname)) == nullptr)
    return no_memory(sn + 2);
  if ((*n.inst.out() = copy_lower(meta, instname)) == nullptr)
    return no_memory(in + 1);
  /* The instance's key; a failed allocation here leaves no line. */
  Owned<char> inst_key(meta);
  if (!inst_key.allocate(dn + sn + in + 43))
    return PRSR_ERR_MEMORY;
  key_join(inst_key.get(),
           {"DATABASE.DATABASES", n.db.get(), "SERVICE", n.srv.get(), "INSTANCES", n.inst.get()});
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return no_memory(kKeyMax);

  key_join(key.get(), {inst_key.get(), "TYPE"});
  Owned<char> type(meta);
  int32_t rc = prsr_open_get_value(ctx, ctx->hvs_handle, key.get(), type.out());
  if (rc != PRSR_SUCCESS)
    return rc;
  /* Exactly these words, case included. */
  if (std::strcmp(type.get(), "PREFERRED") != 0 && std::strcmp(type.get(), "AVAILABLE") != 0)
    return PRSR_SUCCESS;

  key_join(key.get(), {inst_key.get(), "ENABLED"});
  uint32_t enabled = 0;
  rc = prsr_get_enabled_key(ctx, key.get(), &enabled);
  if (rc != PRSR_SUCCESS)
    return rc;
  if (enabled == 1)
    *supported = 1;
  return PRSR_SUCCESS;
}
