// lks.cpp - the named-lock service: handles, the status record, and the
// bookkeeping of which names a handle holds.
//
// A handle is a small record taken from the caller's allocator (so it is
// part of the caller's accounted memory) that points to the service state.
// The state keeps a multimap name -> holds, because one handle is shared by
// the threads of a session and two of them may hold the same name at once.
// The mutex guards the map only: a lock call waits without it, so that
// other threads of the handle can release meanwhile.
#include "lks.h"

#include "lock_engine.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#define LKS_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The status record, as this library lays it out.
constexpr size_t kCodeOffset = 0;
constexpr size_t kErrnoOffset = 4;
constexpr size_t kTextOffset = 50;
constexpr size_t kTextCap = sizeof(lks_status) - kTextOffset;
static_assert(sizeof(lks_status) == 216, "status record size");

constexpr uint16_t kVersionMajor = 2;
constexpr uint16_t kVersionMinor = 1;
constexpr uint32_t kParamsSize = 272;
constexpr long kDefaultTimeoutMs = 20000;
constexpr uint64_t kHandleMagic = 0x4c4b5348444c0001ull; // "LKSHDL"

int32_t report(lks_status *st, int32_t code, int err, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

int32_t report(lks_status *st, int32_t code, int err, const char *fmt, ...) {
  if (st == nullptr)
    return code;
  auto *bytes = reinterpret_cast<unsigned char *>(st);
  std::memcpy(bytes + kCodeOffset, &code, sizeof code);
  int32_t e = err;
  std::memcpy(bytes + kErrnoOffset, &e, sizeof e);
  char *text = reinterpret_cast<char *>(bytes + kTextOffset);
  if (fmt == nullptr) {
    text[0] = '\0';
    return code;
  }
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, kTextCap, fmt, ap);
  va_end(ap);
  return code;
}

int32_t succeed(lks_status *st) { return report(st, LKS_OK, 0, nullptr); }

int32_t report_outcome(lks_status *st, const lks::Outcome &o) {
  return report(st, o.code, o.err, "%s", o.message.c_str());
}

long env_timeout_ms() {
  const char *v = std::getenv("LKS_TIMEOUT_MS");
  if (v == nullptr || *v == '\0')
    return kDefaultTimeoutMs;
  char *end = nullptr;
  errno = 0;
  long ms = std::strtol(v, &end, 10);
  if (errno != 0 || *end != '\0' || ms < 0)
    return kDefaultTimeoutMs;
  return ms;
}

struct Service {
  std::unique_ptr<lks::LockEngine> engine;
  std::chrono::milliseconds timeout{kDefaultTimeoutMs};
  std::mutex mutex; // guards held
  // What one hold is made of: the engine's token, the registry client's
  // record of it, and the thread that took it.
  struct Held {
    lks::Token token;
    hvs_hold *hold;
    std::thread::id owner;
  };
  std::multimap<std::string, Held, std::less<>> held;
};

// What the caller's allocator gives us; the handle is its address.
struct HandleRecord {
  uint64_t magic;
  Service *service;
  void *metactx;
  lks_free_fn release;
};

Service *service_of(void *handle) {
  auto *rec = static_cast<HandleRecord *>(handle);
  if (rec == nullptr || rec->magic != kHandleMagic)
    return nullptr;
  return rec->service;
}

int32_t lock(lks_status *st, void *handle, const char *name, lks::Mode mode) {
  Service *svc = service_of(handle);
  if (svc == nullptr || name == nullptr)
    return report(st, LKS_ERR_ARGUMENT, 0, "lock: %s", svc ? "NULL name" : "not a lock handle");
  try {
    std::string key(name);
    lks::Token token = 0;
    lks::Outcome o = svc->engine->acquire(key, mode, svc->timeout, &token);
    if (o.code != 0)
      return report_outcome(st, o);
    // Writes made under the lock from here on are tied to it.
    hvs_hold *hold = hvs_hold_enter(key.c_str(), mode == lks::Mode::Exclusive,
                                    svc->engine->fence(token).c_str());
    svc->engine->attach(token, hold);
    try {
      std::lock_guard<std::mutex> guard(svc->mutex);
      svc->held.emplace(std::move(key), Service::Held{token, hold, std::this_thread::get_id()});
    } catch (...) {
      hvs_hold_leave(hold, nullptr, 0);
      svc->engine->release(token);
      throw;
    }
    return succeed(st);
  } catch (const std::bad_alloc &) {
    return report(st, LKS_ERR_SYSTEM, ENOMEM, "lock: out of memory");
  } catch (const std::exception &e) {
    return report(st, LKS_ERR_SYSTEM, 0, "lock: %s", e.what());
  }
}

} // namespace

LKS_EXPORT int32_t lkssinit(lks_status *status, void **handle_out, lks_version *version,
                            lks_init_params *params, uint32_t size) {
  if (handle_out == nullptr || version == nullptr || params == nullptr)
    return report(status, LKS_ERR_ARGUMENT, 0, "lkssinit: NULL argument");
  if (version->major != kVersionMajor || version->minor != kVersionMinor || size != kParamsSize)
    return report(status, LKS_ERR_ARGUMENT, 0,
                  "lkssinit: version %u.%u with parameter size %u not supported (want %u.%u, %u)",
                  version->major, version->minor, size, kVersionMajor, kVersionMinor,
                  kParamsSize);
  if (params->alloc == nullptr || params->release == nullptr)
    return report(status, LKS_ERR_ARGUMENT, 0, "lkssinit: no memory callbacks");

  Service *svc = nullptr;
  try {
    lks::Outcome why;
    auto engine = lks::make_engine(&why);
    if (!engine)
      return report(status, why.code, why.err, "lkssinit: %s", why.message.c_str());
    svc = new Service;
    svc->engine = std::move(engine);
    svc->timeout = std::chrono::milliseconds(env_timeout_ms());
  } catch (const std::bad_alloc &) {
    return report(status, LKS_ERR_SYSTEM, ENOMEM, "lkssinit: out of memory");
  }
  auto *rec = static_cast<HandleRecord *>(params->alloc(params->metactx, sizeof(HandleRecord)));
  if (rec == nullptr) {
    delete svc;
    return report(status, LKS_ERR_SYSTEM, ENOMEM, "lkssinit: out of memory for the handle");
  }
  rec->magic = kHandleMagic;
  rec->service = svc;
  rec->metactx = params->metactx;
  rec->release = params->release;
  *handle_out = rec;
  return succeed(status);
}

LKS_EXPORT int32_t lkssterm(lks_status *status, void *handle) {
  Service *svc = service_of(handle);
  if (svc == nullptr)
    return report(status, LKS_ERR_ARGUMENT, 0, "lkssterm: not a lock handle");
  {
    std::lock_guard<std::mutex> guard(svc->mutex);
    for (auto &entry : svc->held) {
      svc->engine->attach(entry.second.token, nullptr);
      hvs_hold_leave(entry.second.hold, nullptr, 0);
      svc->engine->release(entry.second.token);
    }
    svc->held.clear();
  }
  delete svc;
  auto *rec = static_cast<HandleRecord *>(handle);
  rec->magic = 0;
  rec->service = nullptr;
  rec->release(rec->metactx, rec);
  return succeed(status);
}

LKS_EXPORT int32_t lksmutexlock(lks_status *status, void *handle, const char *name) {
  return lock(status, handle, name, lks::Mode::Exclusive);
}

LKS_EXPORT int32_t lksshrlock(lks_status *status, void *handle, const char *name) {
  return lock(status, handle, name, lks::Mode::Shared);
}

LKS_EXPORT int32_t lksunlock(lks_status *status, void *handle, const char *name) {
  Service *svc = service_of(handle);
  if (svc == nullptr || name == nullptr)
    return report(status, LKS_ERR_ARGUMENT, 0, "lksunlock: %s",
                  svc ? "NULL name" : "not a lock handle");
  Service::Held held{};
  {
    std::lock_guard<std::mutex> guard(svc->mutex);
    // Two threads of a handle may hold one name (shared) at once: a release
    // gives back the calling thread's own hold, whose writes and fence are
    // its own, and another thread's only when it holds none itself.
    auto [first, last] = svc->held.equal_range(std::string_view(name));
    if (first == last)
      return report(status, LKS_ERR_NOT_HELD, 0, "lock %.80s%s: not held by this handle", name,
                    std::strlen(name) > 80 ? "..." : "");
    auto it = std::find_if(first, last, [](const auto &e) {
      return e.second.owner == std::this_thread::get_id();
    });
    if (it == last)
      it = first;
    held = it->second;
    svc->held.erase(it);
  }
  // What was written under the lock is committed while it is still held.
  svc->engine->attach(held.token, nullptr);
  char why[160];
  int32_t committed = hvs_hold_leave(held.hold, why, sizeof why);
  lks::Outcome o = svc->engine->release(held.token);
  if (o.code != 0)
    return report_outcome(status, o);
  if (committed != 0)
    return report(status, LKS_ERR_SYSTEM, 0,
                  "lock %.80s released, but the writes made under it were not committed: %s",
                  name, why);
  return succeed(status);
}

LKS_EXPORT int32_t lks_status_code(const lks_status *status) {
  if (status == nullptr)
    return LKS_OK;
  int32_t code;
  std::memcpy(&code, reinterpret_cast<const unsigned char *>(status) + kCodeOffset, sizeof code);
  return code;
}

LKS_EXPORT const char *lks_status_text(const lks_status *status) {
  if (status == nullptr || lks_status_code(status) == LKS_OK)
    return "";
  return reinterpret_cast<const char *>(status) + kTextOffset;
}
