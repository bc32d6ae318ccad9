/* Configuration locks: one named lock per branch of the tree, held for one
 * call. A held lock is its name, in a block of tagged memory. */
#include <cstring>

#include "frame/frame.h"
#include "lks.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* A fresh status record for a release: first word and byte 50 cleared. */
void fresh_status(lks_status *st) {
  unsigned char *b = reinterpret_cast<unsigned char *>(st);
  std::memset(b, 0, 4);
  b[50] = 0;
}

void unlock_name(prsr_ctx *ctx, char *lock) {
  if (lock == nullptr)
    return;
  lks_status st;
  fresh_status(&st);
  lksunlock(&st, ctx->lock_handle, lock);
  u_freem(ctx->metactx, lock);
}

} // namespace

extern "C" int32_t prsr_lock_branch(lks_status *status, prsr_ctx *ctx, const char *name,
                                    uint32_t shared, char **lock_out) {
  *lock_out = nullptr;
  size_t size = (name ? std::strlen(name) : 0) + 25;
  auto *lock = static_cast<char *>(u_allocm(ctx->metactx, size));
  if (lock == nullptr) {
    trcprintf(ctx->trace_comp, 0, "prsr_lock_branch: failed to allocate %d bytes",
              static_cast<int>(size));
    return PRSR_ERR_MEMORY;
  }
  if (name != nullptr)
    key_join(lock, {"FLTM", "DATABASE.DATABASES", name});
  else
    key_join(lock, {"FLTM", "DATABASE.DATABASES"});
  int32_t rc = shared ? lksshrlock(status, ctx->lock_handle, lock)
                      : lksmutexlock(status, ctx->lock_handle, lock);
  if (rc != 0) {
    u_freem(ctx->metactx, lock);
    return PRSR_ERR_LOCK;
  }
  *lock_out = lock;
  return PRSR_SUCCESS;
}

extern "C" void prsr_unlock_branch(prsr_ctx *ctx, char *lock) { unlock_name(ctx, lock); }

extern "C" int32_t prsr_lock_nodeapps(lks_status *status, prsr_ctx *ctx, const char *node,
                                      char **lock_out) {
  *lock_out = nullptr;
  size_t size = std::strlen(node) + 24;
  auto *lock = static_cast<char *>(u_allocm(ctx->metactx, size));
  if (lock == nullptr) {
    trcprintf(ctx->trace_comp, 0, "prsr_lock_nodeapps: failed to allocate %d bytes",
              static_cast<int>(size));
    return PRSR_ERR_MEMORY;
  }
  key_join(lock, {"FLTM", "DATABASE.NODEAPPS", node});
  if (lksshrlock(status, ctx->lock_handle, lock) != 0) {
    u_freem(ctx->metactx, lock);
    return PRSR_ERR_LOCK;
  }
  *lock_out = lock;
  return PRSR_SUCCESS;
}

extern "C" void prsr_unlock_nodeapps(prsr_ctx *ctx, char *lock) { unlock_name(ctx, lock); }
