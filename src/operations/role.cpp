/* A database's role: stored as an upper-case word, handed to clients as a
 * number. */
#include <cstring>

#include "frame/frame.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* The stored words, indexed by role number. */
constexpr const char *kRoles[] = {"PRIMARY", "PHYSICAL_STANDBY", "LOGICAL_STANDBY",
                                  "SNAPSHOT_STANDBY"};
constexpr uint32_t kRoleCount = sizeof kRoles / sizeof kRoles[0];

} // namespace

extern "C" PRSR_API int32_t prsr_get_db_role(lks_status *, prsr_ctx *ctx, const char *dbname,
                                             uint32_t *role) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!name_fits(dbname, kRoleExtra) || role == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_db_role: failed to allocate %d bytes", static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);

  Owned<char> db(meta);
  if (!db.allocate(dn + 1))
    return no_memory(dn + 1);
  Owned<char> upper(meta);
  if (!upper.allocate(kValueMax))
    return no_memory(kValueMax);
  txtnlower(db.get(), dbname, dn);
  Owned<char> key(meta);
  if (!key.allocate(dn + 26))
    return no_memory(dn + 26);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "ROLE"});

  Owned<char> value(meta);
  int32_t rc = prsr_open_get_value(ctx, ctx->hvs_handle, key.get(), value.out());
  if (rc != PRSR_SUCCESS)
    return rc;
  /* A text that does not fit the upper-case buffer with its NUL is no
   * role anyway. */
  size_t vn = std::strlen(value.get());
  if (vn >= kValueMax)
    return PRSR_ERR_ROLE;
  txtnupper(upper.get(), value.get(), vn);
  for (uint32_t r = 0; r < kRoleCount; ++r) {
    if (std::strcmp(upper.get(), kRoles[r]) == 0) {
      *role = r;
      return PRSR_SUCCESS;
    }
  }
  return PRSR_ERR_ROLE;
}

extern "C" PRSR_API int32_t prsr_set_db_role(lks_status *status, prsr_ctx *ctx, const char *dbname,
                                             uint32_t role) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!name_fits(dbname, kRoleExtra))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_set_db_role: failed to allocate %d bytes", static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };
  size_t dn = std::strlen(dbname);

  Owned<char> db(meta);
  if (!db.allocate(dn + 1))
    return no_memory(dn + 1);
  /* The number is looked at before anything touches the registry. */
  if (role >= kRoleCount)
    return PRSR_ERR_ROLE;
  size_t tn = std::strlen(kRoles[role]) + 1;
  Owned<char> text(meta);
  if (!text.allocate(tn))
    return no_memory(tn);
  std::memcpy(text.get(), kRoles[role], tn);

  txtnlower(db.get(), dbname, dn);
  Owned<char> key(meta);
  if (!key.allocate(dn + 26))
    return no_memory(dn + 26);
  key_join(key.get(), {"DATABASE.DATABASES", db.get(), "ROLE"});

  /* Shared: role writers may overlap each other and readers; an exclusive
   * holder keeps them out. */
  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, db.get());
  if (rc != 0)
    return rc;
  OpenKey k(hvs);
  rc = k.open(key.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_set_db_role", "hvsapi_open_key", rc, key.get());
    rc = PRSR_ERR_REGISTRY;
  } else {
    rc = hvsapi_set_value(hvs, k.get(), HVS_TYPE_TEXT, text.get(), static_cast<uint32_t>(tn));
    if (rc != 0) {
      prsr_report_hvs_failure(hvs, comp, "prsr_set_db_role", "hvsapi_set_value", rc, key.get());
      rc = PRSR_ERR_REGISTRY;
    }
  }
  /* The lock goes back before the key is closed. */
  lock.release();
  text.reset();
  k.close();
  return rc;
}
