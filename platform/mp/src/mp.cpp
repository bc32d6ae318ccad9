// mp.cpp - the memory manager and the process's meta context.
//
// One meta context per process, built at compile time: plinit() hands out
// its address and never allocates. The memory-manager context and its one
// heap are likewise static.
//
// mpcalloc and mpfree sit on every allocation of every client. Small blocks
// are kept, once freed, in a per-thread cache of size classes and handed out
// again without a trip to the C allocator; each block carries a 16-byte
// header with its class. Under the address sanitizer the cache is off, so
// that every use after release is still caught.
#include "mp.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#define MP_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct MpContext {
  uint64_t magic;
};
struct MpHeap {
  uint64_t magic;
};

// Layout a client relies on: the fourth 64-bit word holds the address of
// the variable that holds the memory-manager context.
struct MetaContext {
  uint64_t reserved[3];
  void **mpctx_slot;
  uint64_t spare[4];
};
static_assert(offsetof(MetaContext, mpctx_slot) == 24, "meta context layout");
static_assert(sizeof(void *) == 8, "64-bit only");

constexpr uint64_t kMpMagic = 0x4d50435458000001ull;   // "MPCTX"
constexpr uint64_t kHeapMagic = 0x4d50485000000001ull; // "MPHP"

MpContext g_mpctx{kMpMagic};
MpHeap g_top_heap{kHeapMagic};
void *g_mpctx_slot = &g_mpctx;
MetaContext g_meta{{0, 0, 0}, &g_mpctx_slot, {0, 0, 0, 0}};

} // namespace

MP_EXPORT void *plinit(void *) { return &g_meta; }

MP_EXPORT void *mptopheap(void *mpctx) {
  // Only the context this library handed out has a heap; anything else is
  // a caller's mistake and gets no memory.
  return mpctx == &g_mpctx ? &g_top_heap : nullptr;
}

namespace {

// GCC names the address sanitizer with a macro; older clang only
// through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define MP_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MP_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(MP_ADDRESS_SANITIZER)
constexpr bool kCache = false;
#else
constexpr bool kCache = true;
#endif

constexpr size_t kHeader = 16;     // keeps the payload 16-byte aligned
constexpr size_t kGranule = 16;
constexpr size_t kClasses = 32;    // payloads up to 512 bytes are cached
constexpr unsigned kPerClass = 32; // blocks kept per class and thread
constexpr uint64_t kLarge = 0;     // class word of a block never cached

struct FreeBlock {
  FreeBlock *next;
};

struct Cache {
  FreeBlock *head[kClasses + 1] = {};
  unsigned count[kClasses + 1] = {};
  ~Cache();
};

__attribute__((tls_model("initial-exec"))) thread_local bool t_cache_gone = false;
__attribute__((tls_model("initial-exec"))) thread_local Cache t_cache;

Cache::~Cache() {
  t_cache_gone = true;
  for (size_t c = 1; c <= kClasses; ++c)
    while (FreeBlock *b = head[c]) {
      head[c] = b->next;
      std::free(reinterpret_cast<char *>(b) - kHeader);
    }
}

} // namespace

MP_EXPORT void *mpcalloc(void *mpctx, void *heap, uint64_t size, uint32_t count,
                         uint32_t, const char *, uint32_t) {
  if (mpctx == nullptr || heap == nullptr)
    return nullptr;
  if (count != 0 && size > SIZE_MAX / count)
    return nullptr;
  size_t total = static_cast<size_t>(size) * count;
  if (total > SIZE_MAX - kHeader - kGranule)
    return nullptr;
  uint64_t cls = (total + kGranule - 1) / kGranule;
  if (cls == 0)
    cls = 1; // a zero-sized block is still a block
  if (kCache && cls <= kClasses && !t_cache_gone) {
    if (FreeBlock *b = t_cache.head[cls]) {
      t_cache.head[cls] = b->next;
      --t_cache.count[cls];
      std::memset(b, 0, cls * kGranule);
      return b;
    }
  }
  bool cacheable = kCache && cls <= kClasses;
  size_t bytes = cacheable ? cls * kGranule : total;
  auto *raw = static_cast<char *>(std::calloc(kHeader + bytes, 1));
  if (raw == nullptr)
    return nullptr;
  uint64_t word = cacheable ? cls : kLarge;
  std::memcpy(raw, &word, sizeof word);
  return raw + kHeader;
}

MP_EXPORT void mpfree(void *, void *, void *block, uint32_t) {
  if (block == nullptr)
    return;
  char *raw = static_cast<char *>(block) - kHeader;
  uint64_t cls;
  std::memcpy(&cls, raw, sizeof cls);
  if (kCache && cls != kLarge && cls <= kClasses && !t_cache_gone &&
      t_cache.count[cls] < kPerClass) {
    auto *b = static_cast<FreeBlock *>(block);
    b->next = t_cache.head[cls];
    t_cache.head[cls] = b;
    ++t_cache.count[cls];
    return;
  }
  std::free(raw);
}
