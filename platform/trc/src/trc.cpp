// trc.cpp - the trace library.
//
// Hot path: a line above the active level and the sink's level costs two
// relaxed atomic loads and compares, and so does any line while the
// destination is "none" and no sink is set. Only a line that goes somewhere
// is formatted, once; it goes out in one write() under the destination
// mutex, so lines of several threads never interleave and a destination
// change never races a write. The sink is called under its own mutex, so its
// calls never overlap and a change of sink waits for the call under way.
//
// Components live in a fixed open-addressed table of immutable records:
// lookups (trcgetcompid runs on every allocation of a client) read it
// without a lock; registration takes a mutex. A handle is the slot index
// plus one, so a stale or foreign handle is caught by a range check rather
// than dereferenced.
#include "trc.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

#define TRC_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr size_t kSlots = 1024; // power of two
constexpr size_t kMaxName = 64;

struct Component {
  char name[kMaxName];
};

std::atomic<const Component *> g_table[kSlots];
std::mutex g_reg_mutex;

uint64_t name_hash(const char *s) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (; *s; ++s)
    h = (h ^ static_cast<unsigned char>(*s)) * 0x100000001b3ull;
  return h;
}

// Bumped by every new registration, so that remembered answers of
// trcgetcompid() are asked again.
std::atomic<uint64_t> g_generation{1};

// Slot of name, or of the empty slot where it would go; kSlots when the
// table is full and the name is absent.
size_t probe(const char *name) {
  size_t i = name_hash(name) & (kSlots - 1);
  for (size_t n = 0; n < kSlots; ++n, i = (i + 1) & (kSlots - 1)) {
    const Component *c = g_table[i].load(std::memory_order_acquire);
    if (c == nullptr || std::strncmp(c->name, name, kMaxName - 1) == 0)
      return i;
  }
  return kSlots;
}

const char *component_name(uintptr_t comp) {
  if (comp == 0 || comp > kSlots)
    return "-";
  const Component *c = g_table[comp - 1].load(std::memory_order_acquire);
  return c ? c->name : "-";
}

// Level and destination, from the environment once at load.
constexpr int kDestNone = -1;
constexpr int kDestFailed = -2;

int32_t env_level() {
  const char *v = std::getenv("TRC_LEVEL");
  if (v == nullptr || *v == '\0')
    return 0;
  char *end = nullptr;
  long l = std::strtol(v, &end, 10);
  if (*end != '\0' || l < -1 || l > 1000)
    return 0;
  return static_cast<int32_t>(l);
}

int open_dest(const char *dest, bool *owned) {
  *owned = false;
  if (dest == nullptr || *dest == '\0' || std::strcmp(dest, "none") == 0)
    return kDestNone;
  if (std::strcmp(dest, "stderr") == 0)
    return STDERR_FILENO;
  int fd = ::open(dest, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return kDestFailed;
  *owned = true;
  return fd;
}

// At load an unusable TRC_DEST means no trace rather than a failure.
int initial_dest(bool *owned) {
  int fd = open_dest(std::getenv("TRC_DEST"), owned);
  return fd == kDestFailed ? kDestNone : fd;
}

std::atomic<int32_t> g_level{env_level()};
std::mutex g_dest_mutex; // guards g_fd_owned and every write
bool g_fd_owned = false;
std::atomic<int> g_fd{initial_dest(&g_fd_owned)};

// The program's sink; g_sink_level is -1 while there is none. Both change
// only under g_sink_mutex, which every call of the sink holds.
std::mutex g_sink_mutex;
trc_sink_fn g_sink = nullptr;
void *g_sink_arg = nullptr;
std::atomic<int32_t> g_sink_level{-1};
// Set while this thread runs the sink: its own lines are not handed back.
__attribute__((tls_model("initial-exec"))) thread_local bool t_in_sink = false;

bool to_dest(int32_t level) {
  return level <= g_level.load(std::memory_order_relaxed) &&
         g_fd.load(std::memory_order_relaxed) != kDestNone;
}

bool to_sink(int32_t level) { return level <= g_sink_level.load(std::memory_order_relaxed); }

bool passes(int32_t level) { return to_dest(level) || to_sink(level); }

void deliver(uintptr_t comp, int32_t level, const char *text) {
  if (t_in_sink)
    return;
  std::lock_guard<std::mutex> guard(g_sink_mutex);
  if (g_sink == nullptr || level > g_sink_level.load(std::memory_order_relaxed))
    return; // removed or narrowed since the line was let through
  t_in_sink = true;
  g_sink(g_sink_arg, comp, level, text);
  t_in_sink = false;
}

int32_t emit(uintptr_t comp, int32_t level, const char *fmt, va_list ap) {
  // The time and component prefix only for a line the destination takes.
  const bool dest = to_dest(level);
  char head[128] = {};
  int hl = 0;
  if (dest) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm utc{};
    gmtime_r(&ts.tv_sec, &utc);
    hl = std::snprintf(head, sizeof head,
                       "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ %s %d: ", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                       ts.tv_nsec / 1000000L, component_name(comp), static_cast<int>(level));
    if (hl < 0)
      return -1;
    if (static_cast<size_t>(hl) >= sizeof head)
      hl = sizeof head - 1;
  }

  char stack[2048];
  std::vector<char> heap;
  char *line = stack;
  size_t room = sizeof stack - static_cast<size_t>(hl) - 1; // keep room for '\n'
  std::memcpy(line, head, static_cast<size_t>(hl));
  va_list copy;
  va_copy(copy, ap);
  int ml = std::vsnprintf(line + hl, room + 1, fmt ? fmt : "", copy);
  va_end(copy);
  if (ml < 0)
    return -1;
  if (static_cast<size_t>(ml) > room) {
    heap.resize(static_cast<size_t>(hl) + static_cast<size_t>(ml) + 2);
    line = heap.data();
    std::memcpy(line, head, static_cast<size_t>(hl));
    std::vsnprintf(line + hl, static_cast<size_t>(ml) + 1, fmt, ap);
  }
  size_t len = static_cast<size_t>(hl) + static_cast<size_t>(ml);
  if (len > static_cast<size_t>(hl) && line[len - 1] == '\n')
    --len; // the caller's own newline; every line gets exactly one
  if (to_sink(level)) {
    line[len] = '\0';
    deliver(comp, level, line + hl);
  }
  if (!dest)
    return 0;
  line[len++] = '\n';

  std::lock_guard<std::mutex> guard(g_dest_mutex);
  int fd = g_fd.load(std::memory_order_relaxed);
  if (fd == kDestNone)
    return 0;
  size_t off = 0;
  while (off < len) {
    ssize_t w = ::write(fd, line + off, len - off);
    if (w < 0 && errno == EINTR)
      continue;
    if (w <= 0)
      return -1;
    off += static_cast<size_t>(w);
  }
  return static_cast<int32_t>(len);
}

} // namespace

TRC_EXPORT uintptr_t trccompreg(const char *, const char *name, uint32_t, int32_t, int32_t,
                                uint64_t, int32_t) {
  if (name == nullptr || *name == '\0')
    return 0;
  std::lock_guard<std::mutex> guard(g_reg_mutex);
  size_t i = probe(name);
  if (i == kSlots)
    return 0;
  if (g_table[i].load(std::memory_order_relaxed) == nullptr) {
    // Components last as long as the process; each name is stored once.
    auto *c = new (std::nothrow) Component{};
    if (c == nullptr)
      return 0;
    std::strncpy(c->name, name, kMaxName - 1);
    g_table[i].store(c, std::memory_order_release);
    g_generation.fetch_add(1, std::memory_order_acq_rel);
  }
  return i + 1;
}

TRC_EXPORT uintptr_t trcgetcompid(const char *name) {
  if (name == nullptr || *name == '\0')
    return 0;
  // Callers ask with the same constant text again and again: remember the
  // last answer this thread got, found or not. It stays right while the text
  // is unchanged and no component has been registered since.
  /* initial-exec: no call into the dynamic linker to find them. */
  static __attribute__((tls_model("initial-exec"))) thread_local const char *last_text = nullptr;
  static __attribute__((tls_model("initial-exec"))) thread_local char last_name[kMaxName] = {};
  static __attribute__((tls_model("initial-exec"))) thread_local uintptr_t last_handle = 0;
  static __attribute__((tls_model("initial-exec"))) thread_local uint64_t last_generation = 0;
  uint64_t generation = g_generation.load(std::memory_order_acquire);
  if (name == last_text && generation == last_generation &&
      std::strncmp(name, last_name, kMaxName - 1) == 0)
    return last_handle;
  size_t i = probe(name);
  uintptr_t handle =
      (i == kSlots || g_table[i].load(std::memory_order_acquire) == nullptr) ? 0 : i + 1;
  last_text = name;
  std::strncpy(last_name, name, kMaxName - 1);
  last_handle = handle;
  last_generation = generation;
  return handle;
}

TRC_EXPORT int32_t trcprft(uintptr_t comp, int32_t level, const char *fmt, va_list ap) {
  if (!passes(level))
    return 0;
  return emit(comp, level, fmt, ap);
}

TRC_EXPORT int32_t trcprintf(uintptr_t comp, int32_t level, const char *fmt, ...) {
  if (!passes(level))
    return 0;
  va_list ap;
  va_start(ap, fmt);
  int32_t r = emit(comp, level, fmt, ap);
  va_end(ap);
  return r;
}

TRC_EXPORT int32_t trcprintft(uintptr_t comp, int32_t level, const char *fmt, ...) {
  if (!passes(level))
    return 0;
  va_list ap;
  va_start(ap, fmt);
  int32_t r = emit(comp, level, fmt, ap);
  va_end(ap);
  return r;
}

TRC_EXPORT void trcsetlevel(int32_t level) {
  g_level.store(level < -1 ? -1 : level, std::memory_order_relaxed);
}

TRC_EXPORT int32_t trcgetlevel(void) { return g_level.load(std::memory_order_relaxed); }

TRC_EXPORT int32_t trcsetdest(const char *dest) {
  bool owned = false;
  int fd = open_dest(dest, &owned);
  if (fd == kDestFailed)
    return -1; // the old destination stays
  std::lock_guard<std::mutex> guard(g_dest_mutex);
  int old = g_fd.exchange(fd, std::memory_order_relaxed);
  if (g_fd_owned && old >= 0)
    ::close(old);
  g_fd_owned = owned;
  return 0;
}

TRC_EXPORT int32_t trcsetsink(trc_sink_fn fn, void *arg, int32_t max_level) {
  if (t_in_sink)
    return -1; // the sink's own mutex is held by this very thread
  if (fn == nullptr || max_level < 0) {
    fn = nullptr;
    arg = nullptr;
    max_level = -1;
  }
  std::lock_guard<std::mutex> guard(g_sink_mutex);
  g_sink = fn;
  g_sink_arg = arg;
  g_sink_level.store(max_level, std::memory_order_relaxed);
  return 0;
}
