/* One instance in its role for one service: its enable flag as the
 * service sees it, and whether the service may run there. */
#include <cstring>

#include "frame/frame.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* The lower-cased copies of the three names of a service instance, made in
 * order: the database's, the service's (as a key component), the
 * instance's. */
struct Names {
  explicit Names(const Call &call) : db(call), srv(call), inst(call) {}
  bool copy(const char *dbname, const char *srvname, const char *instname) {
    return db.lower(dbname) && srv.service(srvname) && inst.lower(instname);
  }
  KeyParts key(const char *word) const {
    return keys::service_instance_leaf(db.get(), srv.get(), inst.get(), word);
  }
  NameCopy db, srv, inst;
};

} // namespace

extern "C" PRSR_API int32_t prsr_get_service_instance_enabled(lks_status *, prsr_ctx *ctx,
                                                              const char *dbname,
                                                              const char *srvname,
                                                              const char *instname,
                                                              uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::service_instance_leaf(dbname, srvname, instname, "ENABLED").fits() ||
      enabled == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_service_instance_enabled");
  trcprintf(call.comp, 4,
            "prsr_get_service_instance_enabled: Inside function dbname=%s, servname=%s, "
            "instname=%s",
            dbname, srvname, instname);

  Names n(call);
  if (!n.copy(dbname, srvname, instname))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4,
            "prsr_get_service_instance_enabled: Inside function dbname=%s, servname=%s, "
            "instname=%s",
            n.db.get(), n.srv.get(), n.inst.get());

  KeyBlock key(call);
  if (!key.build(n.key("ENABLED")))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_get_service_instance_enabled: ENABLED KEY NAME = %s", key.get());
  return prsr_get_enabled_key(ctx, key.get(), enabled);
}

extern "C" PRSR_API int32_t prsr_set_service_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                                              const char *dbname,
                                                              const char *srvname,
                                                              const char *instname,
                                                              uint32_t enable) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::service_instance_leaf(dbname, srvname, instname, "ENABLED").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_set_service_instance_enabled");
  Names n(call);
  KeyBlock key(call);
  if (!n.copy(dbname, srvname, instname) || !key.build(n.key("ENABLED")))
    return PRSR_ERR_MEMORY;

  /* Shared: one instance's flag for one service can change beside other
   * shared holders; only an exclusive holder keeps it out. */
  return set_flag_locked(status, ctx, n.db.get(), LockMode::Shared, key.get(), enable);
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
  if (!keys::service_instance_leaf(dbname, srvname, instname, "ENABLED").fits() ||
      supported == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_service_instance_supported");
  Names n(call);
  if (!n.copy(dbname, srvname, instname))
    return PRSR_ERR_MEMORY;
  /* The instance's key; a failed allocation here leaves no line. */
  KeyBlock inst_key(call.meta);
  if (!inst_key.build(keys::service_instance(n.db.get(), n.srv.get(), n.inst.get())))
    return PRSR_ERR_MEMORY;
  Owned<char> key(call.meta);
  if (!key.allocate(kKeyMax))
    return call.no_memory(kKeyMax);

  KeyParts{inst_key.get(), "TYPE"}.join(key.get());
  Owned<char> type(call.meta);
  int32_t rc = prsr_open_get_value(ctx, call.hvs, key.get(), type.out());
  if (rc != PRSR_SUCCESS)
    return rc;
  /* Exactly these words, case included. */
  if (std::strcmp(type.get(), "PREFERRED") != 0 && std::strcmp(type.get(), "AVAILABLE") != 0)
    return PRSR_SUCCESS;

  KeyParts{inst_key.get(), "ENABLED"}.join(key.get());
  uint32_t enabled = 0;
  rc = prsr_get_enabled_key(ctx, key.get(), &enabled);
  if (rc != PRSR_SUCCESS)
    return rc;
  if (enabled == 1)
    *supported = 1;
  return PRSR_SUCCESS;
}
