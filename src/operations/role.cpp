/* A database's role: stored as an upper-case word, handed to clients as a
 * number. */
#include <cstring>

#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_API int32_t prsr_get_db_role(lks_status *, prsr_ctx *ctx, const char *dbname,
                                             uint32_t *role) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::database_leaf(dbname, "ROLE").fits() || role == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_db_role");
  NameCopy db(call);
  if (!db.lower(dbname))
    return PRSR_ERR_MEMORY;
  Owned<char> upper(call.meta);
  if (!upper.allocate(kValueMax))
    return call.no_memory(kValueMax);
  KeyBlock key(call);
  if (!key.build(keys::database_leaf(db.get(), "ROLE")))
    return PRSR_ERR_MEMORY;

  Owned<char> value(call.meta);
  int32_t rc = prsr_open_get_value(ctx, call.hvs, key.get(), value.out());
  if (rc != PRSR_SUCCESS)
    return rc;
  /* A text that does not fit the upper-case buffer with its NUL is no
   * role anyway. */
  size_t vn = std::strlen(value.get());
  if (vn >= kValueMax)
    return PRSR_ERR_ROLE;
  txtnupper(upper.get(), value.get(), vn);
  for (uint32_t r = 0; r < kRoleCount; ++r) {
    if (std::strcmp(upper.get(), kRoleWords[r]) == 0) {
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
  if (!keys::database_leaf(dbname, "ROLE").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_set_db_role");
  NameCopy db(call);
  if (!db.lower(dbname))
    return PRSR_ERR_MEMORY;
  /* The number is looked at before anything touches the registry. */
  if (role >= kRoleCount)
    return PRSR_ERR_ROLE;
  size_t tn = std::strlen(kRoleWords[role]) + 1;
  Owned<char> text(call.meta);
  if (!text.allocate(tn))
    return call.no_memory(tn);
  std::memcpy(text.get(), kRoleWords[role], tn);
  KeyBlock key(call);
  if (!key.build(keys::database_leaf(db.get(), "ROLE")))
    return PRSR_ERR_MEMORY;

  /* Shared: role writers may overlap each other and readers; an exclusive
   * holder keeps them out. */
  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, db.get());
  if (rc != 0)
    return rc;
  OpenKey k(call.hvs);
  rc = k.open(key.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key.get());
    rc = PRSR_ERR_REGISTRY;
  } else {
    rc = hvsapi_set_value(call.hvs, k.get(), HVS_TYPE_TEXT, text.get(), static_cast<uint32_t>(tn));
    if (rc != 0) {
      call.report("hvsapi_set_value", rc, key.get());
      rc = PRSR_ERR_REGISTRY;
    }
  }
  /* The lock goes back before the key is closed. */
  lock.release();
  text.reset();
  k.close();
  return rc;
}
