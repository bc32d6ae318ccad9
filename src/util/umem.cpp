/* Tagged memory: every block of the library is bracketed by a begin tag and
 * a size word in front and an end tag behind its payload, so a release can
 * refuse a wild pointer or an overrun instead of corrupting the heap. */
#include "util/umem.h"

#include <cstring>

#include "mp.h"
#include "trc.h"

namespace {

constexpr uint64_t kHeader = 16; /* begin tag + size word */
constexpr uint64_t kOverhead = 24;

inline uintptr_t util_comp() { return trcgetcompid("HVSUTL"); }

/* The memory-manager context: the word at offset 24 of the meta context
 * points to the variable that holds it. */
inline void *mp_context(void *metactx) {
  void *ref;
  std::memcpy(&ref, static_cast<char *>(metactx) + 24, sizeof ref);
  return ref ? *static_cast<void **>(ref) : nullptr;
}

inline uint64_t load64(const unsigned char *p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store64(unsigned char *p, uint64_t v) { std::memcpy(p, &v, sizeof v); }

inline unsigned addr(const void *p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

} // namespace

extern "C" void *u_allocm(void *metactx, uint64_t size) {
  uintptr_t comp = util_comp();
  if (metactx == nullptr) {
    trcprintft(comp, 0, "u_allocm: meta ctx is null");
    return nullptr;
  }
  void *mp = mp_context(metactx);
  if (mp == nullptr) {
    trcprintft(comp, 0, "u_allocm: mp ctx is null");
    return nullptr;
  }
  void *heap = mptopheap(mp);
  if (heap == nullptr)
    return nullptr;

  uint64_t rounded = (size + 7) & ~uint64_t{7};
  uint64_t total = rounded + kOverhead;
  auto *block = static_cast<unsigned char *>(mpcalloc(mp, heap, total, 1, 0, "HVSAPI", 0));
  if (block == nullptr) {
    trcprintft(comp, 0, "u_allocm: metactx [%x], ptr returned is NULL, size to mpcalloc [%d]",
               addr(metactx), static_cast<int>(total));
    return nullptr;
  }
  trcprintft(comp, 4, "u_allocm: metactx [%x] ACTUAL ptr allocated [%x] size [%d]", addr(metactx),
             addr(block), static_cast<int>(rounded));
  store64(block, HVSU_BEGIN_MEMTAG);
  store64(block + 8, size);
  store64(block + kHeader + rounded, HVSU_END_MEMTAG);
  return block + kHeader;
}

extern "C" void u_freem(void *metactx, void *mem) {
  uintptr_t comp = util_comp();
  trcprintft(comp, 4, "u_freem: metactx [%x], ptr to free [%x]", addr(metactx), addr(mem));
  if (mem == nullptr) {
    trcprintft(comp, 1, "u_freem: mem passed is null");
    return;
  }
  if (metactx == nullptr) {
    trcprintft(comp, 0, "u_freem: meta ctx is null");
    return;
  }
  void *mp = mp_context(metactx);
  if (mp == nullptr) {
    trcprintft(comp, 0, "u_freem: mp ctx is null");
    return;
  }
  void *heap = mptopheap(mp);
  if (heap == nullptr)
    return;

  unsigned char *block = static_cast<unsigned char *>(mem) - kHeader;
  uint64_t begin = load64(block);
  if (begin != HVSU_BEGIN_MEMTAG) {
    trcprintft(comp, 0,
               "u_freem: INVALID HVSU_BEGIN_MEMTAG for memory [%x] Begin tag [%x] Expected begin "
               "tag [%x]",
               addr(mem), static_cast<unsigned>(begin), static_cast<unsigned>(HVSU_BEGIN_MEMTAG));
    return;
  }
  uint64_t size = load64(block + 8);
  trcprintf(comp, 4, "u_freem: ACTUAL ptr freeing [%x], size [%d]", addr(block),
            static_cast<int>(size));
  uint64_t rounded = (size + 7) & ~uint64_t{7};
  uint64_t end = load64(block + kHeader + rounded);
  if (end != HVSU_END_MEMTAG) {
    trcprintft(comp, 0,
               "u_freem: INVALID HVSU_END_MEMTAG for memory [%x] size [%d] End tag [%x] Expected "
               "end tag [%x]",
               addr(mem), static_cast<int>(size), static_cast<unsigned>(end),
               static_cast<unsigned>(HVSU_END_MEMTAG));
    return;
  }
  std::memset(block, 0, rounded + kOverhead);
  mpfree(mp, heap, block, 0);
}

extern "C" void u_set_tag(void *field, const void *tag) {
  std::memcpy(field, tag, 8);
  static_cast<char *>(field)[8] = '\0';
}

extern "C" int32_t u_check_tag(const void *field, const void *tag) {
  if (field == nullptr || tag == nullptr) {
    trcprintf(trcgetcompid("HVSUTL"), 0, "u_check_tag: Parameter passed was NULL");
    return 0;
  }
  const auto *f = static_cast<const unsigned char *>(field);
  const auto *t = static_cast<const unsigned char *>(tag);
  for (int i = 0; i < 8; ++i) {
    if (f[i] != t[i]) {
      trcprintf(trcgetcompid("HVSUTL"), 0,
                "u_check_tag: Tag check failed on %dth comparison for [%s]. Ptr passed was [%x] "
                "Byte was [%d]",
                i, static_cast<const char *>(tag), addr(field), static_cast<int>(f[i]));
      return 0;
    }
  }
  return 1;
}

extern "C" void *u_invalidate_tag(void *field) {
  std::memcpy(field, "INVALID", 8);
  static_cast<char *>(field)[8] = '\0';
  return field;
}
