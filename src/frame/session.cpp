/* The session: start-up, termination, and the library's load-time step. */
#include <cstring>

#include "frame/frame.h"
#include "lks.h"
#include "mp.h"
#include "thr.h"

using namespace prsr;

namespace {

__attribute__((constructor)) void prsr_on_load() { DisableThreadLibraryCalls(nullptr); }

int32_t session_open(lks_status *status, prsr_ctx **ctx_out, void *lent_lock) {
  if (ctx_out == nullptr)
    return PRSR_ERR_ARGUMENT;
  char msg[1024];
  std::memset(msg, 0, sizeof msg);
  uint64_t msg_len = sizeof msg;

  void *meta = plinit(nullptr);
  auto *ctx = static_cast<prsr_ctx *>(u_allocm(meta, sizeof(prsr_ctx)));
  *ctx_out = ctx;
  if (ctx == nullptr)
    return PRSR_ERR_MEMORY;

  void *hvs = nullptr;
  if (hvsapi_init_ext(&hvs, 3, msg, &msg_len, 0) != 0) {
    u_freem(meta, ctx);
    *ctx_out = nullptr;
    return PRSR_ERR_REGISTRY;
  }

  uintptr_t comp = trccompreg("PRSR component", "PRSR", 1024, 0, 0, 0, 0);
  if (comp != 0)
    trcprintf(comp, 2, "prsr_init_ext: Successfully registered comp [%s] in trc.", "PRSR");
  else
    trcprintft(0, 0, "prsr_init_ext: Unable to register comp [%s] in trc.", "PRSR");

  ctx->hvs_handle = hvs;
  ctx->metactx = meta;
  ctx->trace_comp = comp;
  ctx->owns_lock_service = 0;

  ctx->thread_ctx = thrinit();
  if (ctx->thread_ctx == nullptr) {
    hvsapi_terminate(hvs);
    u_freem(meta, ctx);
    *ctx_out = nullptr;
    return PRSR_ERR_THREAD;
  }

  if (lent_lock != nullptr) {
    ctx->lock_handle = lent_lock;
  } else {
    lks_init_params params{};
    params.metactx = meta;
    params.alloc = &u_allocm;
    params.release = &u_freem;
    params.thread_ctx = ctx->thread_ctx;
    params.reserved0 = 0;
    params.flags = 192;
    lks_version version{2, 1};
    void *lock = nullptr;
    if (lkssinit(status, &lock, &version, &params, 272) != 0) {
      hvsapi_terminate(hvs);
      u_freem(meta, ctx);
      *ctx_out = nullptr;
      return PRSR_ERR_LOCK;
    }
    ctx->lock_handle = lock;
    ctx->owns_lock_service = 1;
  }

  u_set_tag(ctx->tag, kCtxTag);
  return PRSR_SUCCESS;
}

} // namespace

extern "C" PRSR_API int32_t prsr_init(lks_status *status, prsr_ctx **ctx_out) {
  return session_open(status, ctx_out, nullptr);
}

extern "C" PRSR_API int32_t prsr_init_ext(lks_status *status, prsr_ctx **ctx_out,
                                          void *lock_handle) {
  return session_open(status, ctx_out, lock_handle);
}

extern "C" PRSR_API int32_t prsr_terminate(lks_status *status, prsr_ctx *ctx) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (ctx->owns_lock_service != 0)
    lkssterm(status, ctx->lock_handle);
  hvsapi_terminate(ctx->hvs_handle);
  u_freem(ctx->metactx, ctx);
  return PRSR_SUCCESS;
}
