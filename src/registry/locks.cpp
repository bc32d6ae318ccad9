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

extern "C" PRSR_INTERNAL int32_t prsr_lock_branch(lks_status *status, prsr_ctx *ctx,
                                                  const char *name, uint32_t shared,
                                                  char **lock_out) {
  *lock_out = nullptr;
  KeyBlock lock(ctx->metactx);
  if (!lock.build(keys::database_lock(name)))
    return Call(ctx, "prsr_lock_branch").no_memory(lock.size());
  int32_t rc = shared ? lksshrlock(status, ctx->lock_handle, lock.get())
                      : lksmutexlock(status, ctx->lock_handle, lock.get());
  if (rc != 0)
    return PRSR_ERR_LOCK;
  *lock_out = lock.release();
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL void prsr_unlock_branch(prsr_ctx *ctx, char *lock) {
  unlock_name(ctx, lock);
}

extern "C" PRSR_INTERNAL int32_t prsr_lock_nodeapps(lks_status *status, prsr_ctx *ctx,
                                                    const char *node, char **lock_out) {
  *lock_out = nullptr;
  KeyBlock lock(ctx->metactx);
  if (!lock.build(keys::nodeapps_lock(node)))
    return Call(ctx, "prsr_lock_nodeapps").no_memory(lock.size());
  if (lksshrlock(status, ctx->lock_handle, lock.get()) != 0)
    return PRSR_ERR_LOCK;
  *lock_out = lock.release();
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL void prsr_unlock_nodeapps(prsr_ctx *ctx, char *lock) {
  unlock_name(ctx, lock);
}
