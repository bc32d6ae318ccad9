// mp.cpp - the memory manager and the process's meta context.
//
// One meta context per process, built at compile time: plinit() hands out
// its address and never allocates. The memory-manager context and its one
// heap are likewise static. Allocation is a thin layer over calloc/free;
// these two sit on every allocation of every client, so they do nothing
// beyond their argument checks.
#include "mp.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

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

MP_EXPORT void *mpcalloc(void *mpctx, void *heap, uint64_t size, uint32_t count,
                         uint32_t, const char *, uint32_t) {
  if (mpctx == nullptr || heap == nullptr)
    return nullptr;
  if (count != 0 && size > SIZE_MAX / count)
    return nullptr;
  size_t total = static_cast<size_t>(size) * count;
  // calloc(0) may legally return NULL; a zero-sized block is still a block.
  return std::calloc(total == 0 ? 1 : total, 1);
}

MP_EXPORT void mpfree(void *, void *, void *block, uint32_t) { std::free(block); }
