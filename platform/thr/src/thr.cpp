// thr.cpp - thread utilities. A thread id keeps the pthread handle in its
// first word and the kernel thread id in its second; the printed form is
// the kernel id, which is what ps and the trace lines of other tools show.
#include "thr.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#define THR_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
struct ThreadContext {
  uint64_t magic;
};
ThreadContext g_thrctx{0x5448524354580001ull};

uint64_t now_us() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}
} // namespace

THR_EXPORT void *thrinit(void) { return &g_thrctx; }

THR_EXPORT int32_t thrusleep(void *, uint32_t usec, uint32_t *slept_out) {
  uint64_t start = now_us();
  timespec req{static_cast<time_t>(usec / 1000000u), static_cast<long>(usec % 1000000u) * 1000L};
  // One sleep: a signal cuts it short and the caller learns how long it was.
  nanosleep(&req, nullptr);
  if (slept_out != nullptr) {
    uint64_t slept = now_us() - start;
    *slept_out = slept > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(slept);
  }
  return 0;
}

THR_EXPORT int32_t thridinit(void *, thr_id *id) {
  if (id == nullptr)
    return -1;
  id->opaque[0] = 0;
  id->opaque[1] = 0;
  return 0;
}

THR_EXPORT int32_t thrgetid(void *, thr_id *id) {
  if (id == nullptr)
    return -1;
  static_assert(sizeof(pthread_t) <= sizeof(uint64_t), "pthread_t fits a word");
  id->opaque[0] = static_cast<uint64_t>(pthread_self());
  id->opaque[1] = static_cast<uint64_t>(syscall(SYS_gettid));
  return 0;
}

THR_EXPORT int32_t thridprint(void *, const thr_id *id, char *dst, uint32_t size) {
  if (id == nullptr || dst == nullptr || size == 0)
    return -1;
  int n = std::snprintf(dst, size, "%llu", static_cast<unsigned long long>(id->opaque[1]));
  return (n < 0 || static_cast<uint32_t>(n) >= size) ? -1 : 0;
}

THR_EXPORT int32_t thriddestroy(void *, thr_id *id) { return thridinit(nullptr, id); }
