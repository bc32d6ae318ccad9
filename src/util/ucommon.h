/* ucommon.h - helpers shared by the sources of the utility object. */
#ifndef PRSR_UTIL_UCOMMON_H
#define PRSR_UTIL_UCOMMON_H
#include <cstdint>

#include "trc.h"

namespace prsru {

/* The utility object's trace component, asked for anew at each use. */
inline uintptr_t comp() { return trcgetcompid("HVSUTL"); }

/* Low 32 bits of an address, for the "%x" of log lines. */
inline unsigned addr(const void *p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

} // namespace prsru
#endif
