// prsr_fault.cpp - the fault-injecting interposer.
//
// Each interposed operation counts the call, fails it when its countdown
// says so, and otherwise hands it to the next definition in lookup order
// (the real library), keeping the live counts from what the real call
// returned. All state is atomic: the library is called from many threads.
#include <cstdlib>
#include "prsr_fault.h"

#include "hvsapi.h"
#include "lks.h"
#include "mp.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>
#ifdef PRSR_FAULT_ZOOKEEPER
#include <zookeeper/zookeeper.h>

#include <map>
#include <mutex>
#endif

namespace {

struct Countdown {
  std::atomic<long> armed{0}; // 0: disarmed
  std::atomic<long> seen{0};  // calls since it was armed
  std::atomic<bool> sticky{false};
  std::atomic<long> total{0}; // calls since the last reset

  void arm(long n, bool stick) {
    armed.store(0);
    seen.store(0);
    sticky.store(stick);
    armed.store(n > 0 ? n : 0);
  }
  void disarm() {
    armed.store(0);
    seen.store(0);
    sticky.store(false);
  }
  // Counts one call; true when this one is to fail.
  bool fire();
};

std::atomic<bool> g_fired{false};
Countdown g_alloc, g_registry, g_lock;
std::atomic<long> g_live_blocks{0}, g_open_keys{0}, g_held_locks{0};
std::atomic<int32_t> g_registry_code{HVS_ERR_ENGINE};

bool Countdown::fire() {
  total.fetch_add(1);
  long k = seen.fetch_add(1) + 1;
  long n = armed.load();
  if (n == 0 || (k != n && !(sticky.load() && k > n)))
    return false;
  g_fired.store(true);
  return true;
}

// The real operation, looked up once. A race only looks it up twice.
template <typename Fn> Fn next(const char *name, std::atomic<void *> &cache) {
  void *p = cache.load(std::memory_order_acquire);
  if (p == nullptr) {
    p = dlsym(RTLD_NEXT, name);
    cache.store(p, std::memory_order_release);
  }
  return reinterpret_cast<Fn>(p);
}

#define NEXT(fn)                                                                                   \
  static std::atomic<void *> cache_##fn{nullptr};                                                  \
  auto real_##fn = next<decltype(&fn)>(#fn, cache_##fn)

void write_lock_status(lks_status *st, const char *name) {
  if (st == nullptr)
    return;
  auto *bytes = reinterpret_cast<unsigned char *>(st);
  int32_t code = LKS_ERR_TIMEOUT, err = 0;
  std::memcpy(bytes, &code, sizeof code);
  std::memcpy(bytes + 4, &err, sizeof err);
  std::snprintf(reinterpret_cast<char *>(bytes + 50), sizeof(lks_status) - 50,
                "lock %.80s: not granted (injected fault)", name ? name : "(null)");
}

} // namespace

extern "C" {

void fault_reset(void) {
  g_alloc.disarm();
  g_registry.disarm();
  g_lock.disarm();
  g_alloc.total.store(0);
  g_registry.total.store(0);
  g_lock.total.store(0);
  g_fired.store(false);
}

void fault_arm_alloc(long n, int sticky) {
  g_fired.store(false);
  g_alloc.arm(n, sticky != 0);
}

void fault_arm_registry(long n, int32_t code) {
  g_fired.store(false);
  g_registry_code = code;
  g_registry.arm(n, false);
}

void fault_arm_lock(long n) {
  g_fired.store(false);
  g_lock.arm(n, false);
}

// Preloaded into a program (LD_PRELOAD), the interposer is armed from the
// environment: PRSR_FAULT_ALLOC=N fails the N-th allocation and every later
// one.
__attribute__((constructor)) static void arm_from_environment() {
  if (const char *n = std::getenv("PRSR_FAULT_ALLOC"); n != nullptr && *n != '\0')
    fault_arm_alloc(std::atol(n), 1);
}

int fault_fired(void) { return g_fired.load() ? 1 : 0; }
long fault_live_blocks(void) { return g_live_blocks.load(); }
long fault_open_keys(void) { return g_open_keys.load(); }
long fault_held_locks(void) { return g_held_locks.load(); }
long fault_count_alloc(void) { return g_alloc.total.load(); }
long fault_count_registry(void) { return g_registry.total.load(); }
long fault_count_lock(void) { return g_lock.total.load(); }

// Memory manager.

void *mpcalloc(void *mpctx, void *heap, uint64_t size, uint32_t count, uint32_t flags,
               const char *tag, uint32_t flags2) {
  if (g_alloc.fire())
    return nullptr;
  NEXT(mpcalloc);
  if (real_mpcalloc == nullptr)
    return nullptr;
  void *p = real_mpcalloc(mpctx, heap, size, count, flags, tag, flags2);
  if (p != nullptr)
    g_live_blocks.fetch_add(1);
  return p;
}

void mpfree(void *mpctx, void *heap, void *block, uint32_t flags) {
  NEXT(mpfree);
  if (block != nullptr)
    g_live_blocks.fetch_sub(1);
  if (real_mpfree != nullptr)
    real_mpfree(mpctx, heap, block, flags);
}

// Registry client.

int32_t hvsapi_open_key(void *handle, void **key_out, const char *name) {
  if (g_registry.fire())
    return g_registry_code;
  NEXT(hvsapi_open_key);
  if (real_hvsapi_open_key == nullptr)
    return HVS_ERR_ENGINE;
  int32_t rc = real_hvsapi_open_key(handle, key_out, name);
  if (rc == HVS_OK)
    g_open_keys.fetch_add(1);
  return rc;
}

int32_t hvsapi_close_key(void *handle, void *key) {
  NEXT(hvsapi_close_key);
  if (real_hvsapi_close_key == nullptr)
    return HVS_ERR_ENGINE;
  int32_t rc = real_hvsapi_close_key(handle, key);
  if (rc == HVS_OK)
    g_open_keys.fetch_sub(1);
  return rc;
}

int32_t hvsapi_get_value(void *handle, void *key, uint32_t *type, void *buf, uint32_t *len) {
  if (g_registry.fire())
    return g_registry_code;
  NEXT(hvsapi_get_value);
  if (real_hvsapi_get_value == nullptr)
    return HVS_ERR_ENGINE;
  return real_hvsapi_get_value(handle, key, type, buf, len);
}

int32_t hvsapi_set_value(void *handle, void *key, uint32_t type, const void *bytes,
                         uint32_t len) {
  if (g_registry.fire())
    return g_registry_code;
  NEXT(hvsapi_set_value);
  if (real_hvsapi_set_value == nullptr)
    return HVS_ERR_ENGINE;
  return real_hvsapi_set_value(handle, key, type, bytes, len);
}

int32_t hvsapi_enum_subkey(void *handle, void *key, char *name, uint32_t *len,
                           int32_t *remaining) {
  if (g_registry.fire())
    return g_registry_code;
  NEXT(hvsapi_enum_subkey);
  if (real_hvsapi_enum_subkey == nullptr)
    return HVS_ERR_ENGINE;
  return real_hvsapi_enum_subkey(handle, key, name, len, remaining);
}

// Lock service.

int32_t lksmutexlock(lks_status *status, void *handle, const char *name) {
  if (g_lock.fire()) {
    write_lock_status(status, name);
    return LKS_ERR_TIMEOUT;
  }
  NEXT(lksmutexlock);
  if (real_lksmutexlock == nullptr)
    return LKS_ERR_SYSTEM;
  int32_t rc = real_lksmutexlock(status, handle, name);
  if (rc == LKS_OK)
    g_held_locks.fetch_add(1);
  return rc;
}

int32_t lksshrlock(lks_status *status, void *handle, const char *name) {
  if (g_lock.fire()) {
    write_lock_status(status, name);
    return LKS_ERR_TIMEOUT;
  }
  NEXT(lksshrlock);
  if (real_lksshrlock == nullptr)
    return LKS_ERR_SYSTEM;
  int32_t rc = real_lksshrlock(status, handle, name);
  if (rc == LKS_OK)
    g_held_locks.fetch_add(1);
  return rc;
}

int32_t lksunlock(lks_status *status, void *handle, const char *name) {
  NEXT(lksunlock);
  if (real_lksunlock == nullptr)
    return LKS_ERR_SYSTEM;
  int32_t rc = real_lksunlock(status, handle, name);
  if (rc == LKS_OK)
    g_held_locks.fetch_sub(1);
  return rc;
}

#ifdef PRSR_FAULT_ZOOKEEPER
// Sessions get a watcher of ours in front of theirs, which waits before
// passing on a watch event.
namespace {
std::atomic<int> g_zk_delay_ms{0};
struct Watcher {
  watcher_fn fn;
  void *context;
};
std::mutex g_watchers_mu;
std::map<zhandle_t *, Watcher *> g_watchers; // guarded by g_watchers_mu

void late(zhandle_t *zh, int type, int state, const char *path, void *ctx) {
  auto *w = static_cast<Watcher *>(ctx);
  int ms = g_zk_delay_ms.load();
  if (type != ZOO_SESSION_EVENT && ms > 0)
    usleep(useconds_t(ms) * 1000);
  if (w->fn != nullptr)
    w->fn(zh, type, state, path, w->context);
}
} // namespace

void fault_delay_zk_events(int ms) { g_zk_delay_ms.store(ms); }

zhandle_t *zookeeper_init(const char *host, watcher_fn fn, int recv_timeout,
                          const clientid_t *clientid, void *context, int flags) {
  NEXT(zookeeper_init);
  if (real_zookeeper_init == nullptr)
    return nullptr;
  auto *w = new Watcher{fn, context};
  zhandle_t *zh = real_zookeeper_init(host, late, recv_timeout, clientid, w, flags);
  if (zh == nullptr) {
    delete w;
    return nullptr;
  }
  std::lock_guard lock(g_watchers_mu);
  g_watchers[zh] = w;
  return zh;
}

int zookeeper_close(zhandle_t *zh) {
  NEXT(zookeeper_close);
  int rc = real_zookeeper_close != nullptr ? real_zookeeper_close(zh) : ZSYSTEMERROR;
  std::lock_guard lock(g_watchers_mu);
  if (auto it = g_watchers.find(zh); it != g_watchers.end()) {
    delete it->second;
    g_watchers.erase(it);
  }
  return rc;
}
#else
void fault_delay_zk_events(int) {}
#endif

} // extern "C"
