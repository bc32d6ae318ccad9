// prsr_fault.cpp - the fault-injecting interposer.
//
// Each interposed operation counts the call, fails it when its countdown
// says so, and otherwise hands it to the next definition in lookup order
// (the real library), keeping the live counts from what the real call
// returned. All state is atomic: the library is called from many threads.
#include "prsr_fault.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hvsapi.h"
#include "lks.h"
#include "mp.h"
#ifdef PRSR_FAULT_ZOOKEEPER
#include <zookeeper/zookeeper.h>

#include <deque>
#include <mutex>
#endif

namespace {

std::atomic<bool> g_fired{false};

struct Countdown {
  std::atomic<long> total{0};      // calls since the last reset
  std::atomic<long> target{0};     // the one of them to fail; 0: none
  std::atomic<bool> sticky{false}; // and every later one

  void arm(long n, bool stick) { // n = 1: the next call
    g_fired = false;
    target = 0;
    sticky = stick;
    target = n > 0 ? total + n : 0;
  }
  // Counts one call; true when this one is to fail.
  bool fire() {
    const long k = ++total, n = target;
    if (n == 0 || (k != n && !(sticky && k > n)))
      return false;
    g_fired = true;
    return true;
  }
} g_alloc, g_registry, g_lock;

std::atomic<long> g_live_blocks{0}, g_open_keys{0}, g_held_locks{0}, g_uncounted{0};
std::atomic<int32_t> g_registry_code{HVS_ERR_ENGINE};

// An armed lock fault: the status record says what a refused lock says.
bool lock_refused(lks_status *st, const char *name) {
  if (!g_lock.fire())
    return false;
  if (st != nullptr) {
    auto *bytes = reinterpret_cast<unsigned char *>(st);
    const int32_t code = LKS_ERR_TIMEOUT, err = 0;
    std::memcpy(bytes, &code, sizeof code);
    std::memcpy(bytes + 4, &err, sizeof err);
    std::snprintf(reinterpret_cast<char *>(bytes + 50), sizeof(lks_status) - 50,
                  "lock %.80s: not granted (injected fault)", name ? name : "(null)");
  }
  return true;
}

// The next definition of fn in lookup order (the real one), looked up once.
#define REAL(fn) static const auto real = reinterpret_cast<decltype(&fn)>(dlsym(RTLD_NEXT, #fn))

// fn, interposed: when refused, it answers refusal; otherwise the real fn
// answers (missing when there is none), and its success (0: HVS_OK, LKS_OK)
// moves the live count by delta.
#define INTERPOSE(fn, params, args, refused, refusal, missing, live, delta)                        \
  int32_t fn params {                                                                              \
    if (refused)                                                                                   \
      return refusal;                                                                              \
    REAL(fn);                                                                                      \
    const int32_t rc = real != nullptr ? real args : missing;                                      \
    if (real != nullptr && rc == 0)                                                                \
      live += delta;                                                                               \
    return rc;                                                                                     \
  }

} // namespace

extern "C" {

void fault_reset(void) {
  for (Countdown *c : {&g_alloc, &g_registry, &g_lock}) {
    c->arm(0, false);
    c->total = 0;
  }
}

void fault_arm_alloc(long n, int sticky) { g_alloc.arm(n, sticky != 0); }

void fault_arm_registry(long n, int32_t code) {
  g_registry_code = code;
  g_registry.arm(n, false);
}

void fault_arm_lock(long n) { g_lock.arm(n, false); }

// Preloaded into a program (LD_PRELOAD), the interposer is armed from the
// environment: PRSR_FAULT_ALLOC=N fails the N-th allocation and every later
// one.
__attribute__((constructor)) static void arm_from_environment() {
  if (const char *n = std::getenv("PRSR_FAULT_ALLOC"); n != nullptr && *n != '\0')
    fault_arm_alloc(std::atol(n), 1);
}

int fault_fired(void) { return g_fired ? 1 : 0; }
long fault_live_blocks(void) { return g_live_blocks; }
long fault_open_keys(void) { return g_open_keys; }
long fault_held_locks(void) { return g_held_locks; }
long fault_count_alloc(void) { return g_alloc.total; }
long fault_count_registry(void) { return g_registry.total; }
long fault_count_lock(void) { return g_lock.total; }

// Memory manager.

void *mpcalloc(void *mpctx, void *heap, uint64_t size, uint32_t count, uint32_t flags,
               const char *tag, uint32_t flags2) {
  REAL(mpcalloc);
  void *p = !g_alloc.fire() && real ? real(mpctx, heap, size, count, flags, tag, flags2) : nullptr;
  g_live_blocks += p != nullptr;
  return p;
}

void mpfree(void *mpctx, void *heap, void *block, uint32_t flags) {
  REAL(mpfree);
  g_live_blocks -= block != nullptr;
  if (real != nullptr)
    real(mpctx, heap, block, flags);
}

// Registry client: closes are neither counted nor failed.
INTERPOSE(hvsapi_open_key, (void *h, void **key_out, const char *name), (h, key_out, name),
          g_registry.fire(), g_registry_code, HVS_ERR_ENGINE, g_open_keys, 1)
INTERPOSE(hvsapi_close_key, (void *h, void *key), (h, key), false, 0, HVS_ERR_ENGINE, g_open_keys,
          -1)
INTERPOSE(hvsapi_get_value, (void *h, void *key, uint32_t *type, void *buf, uint32_t *len),
          (h, key, type, buf, len), g_registry.fire(), g_registry_code, HVS_ERR_ENGINE, g_uncounted,
          0)
INTERPOSE(hvsapi_set_value, (void *h, void *key, uint32_t type, const void *bytes, uint32_t len),
          (h, key, type, bytes, len), g_registry.fire(), g_registry_code, HVS_ERR_ENGINE,
          g_uncounted, 0)
INTERPOSE(hvsapi_enum_subkey, (void *h, void *key, char *name, uint32_t *len, int32_t *remaining),
          (h, key, name, len, remaining), g_registry.fire(), g_registry_code, HVS_ERR_ENGINE,
          g_uncounted, 0)

// Lock service.
INTERPOSE(lksmutexlock, (lks_status * st, void *h, const char *name), (st, h, name),
          lock_refused(st, name), LKS_ERR_TIMEOUT, LKS_ERR_SYSTEM, g_held_locks, 1)
INTERPOSE(lksshrlock, (lks_status * st, void *h, const char *name), (st, h, name),
          lock_refused(st, name), LKS_ERR_TIMEOUT, LKS_ERR_SYSTEM, g_held_locks, 1)
INTERPOSE(lksunlock, (lks_status * st, void *h, const char *name), (st, h, name), false, 0,
          LKS_ERR_SYSTEM, g_held_locks, -1)

#ifdef PRSR_FAULT_ZOOKEEPER
// Sessions get a watcher of ours in front of theirs, which waits before
// passing on a watch event. Ours are kept to the end of the process: the
// client may still call one after zookeeper_close() returned, and closes
// itself from its own threads too.
namespace {
std::atomic<int> g_zk_delay_ms{0};
struct Watcher {
  watcher_fn fn;
  void *context;
};
std::mutex g_watchers_mu;
std::deque<Watcher> g_watchers; // guarded by g_watchers_mu

void late(zhandle_t *zh, int type, int state, const char *path, void *ctx) {
  auto *w = static_cast<Watcher *>(ctx);
  if (const int ms = g_zk_delay_ms; type != ZOO_SESSION_EVENT && ms > 0)
    usleep(useconds_t(ms) * 1000);
  if (w->fn != nullptr)
    w->fn(zh, type, state, path, w->context);
}
} // namespace

void fault_delay_zk_events(int ms) { g_zk_delay_ms = ms; }

zhandle_t *zookeeper_init(const char *host, watcher_fn fn, int recv_timeout,
                          const clientid_t *clientid, void *context, int flags) {
  REAL(zookeeper_init);
  std::unique_lock lock(g_watchers_mu);
  Watcher *w = &g_watchers.emplace_back(Watcher{fn, context});
  lock.unlock();
  return real ? real(host, late, recv_timeout, clientid, w, flags) : nullptr;
}
#else
void fault_delay_zk_events(int) {}
#endif

} // extern "C"
