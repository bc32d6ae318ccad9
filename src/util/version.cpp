/* Version compatibility between a program and the data it persisted. */
#include "util/version.h"

#include "util/ucommon.h"
#include "ver.h"

using prsru::comp;

extern "C" int32_t u_version_compatible(const char *program_version,
                                        const char *persist_version) {
  if (program_version == nullptr || persist_version == nullptr) {
    trcprintf(comp(), 0, "u_version_compatible: Null versions strings passed.");
    return U_VERSION_BAD_TEXT;
  }
  uint32_t program = 0;
  if (verparse(&program, program_version) == 0) {
    trcprintf(comp(), 0, "u_version_compatible: Program vsnstr not in correct format.");
    return U_VERSION_BAD_TEXT;
  }
  uint32_t persist = 0;
  if (verparse(&persist, persist_version) == 0) {
    trcprintf(comp(), 0, "u_version_compatible: Persist vsnstr not in correct format.");
    return U_VERSION_BAD_TEXT;
  }
  /* Only the top two fields count; the bits below 20 make no difference. */
  uint32_t pmajor = (program >> 24) & 0xFFu, dmajor = (persist >> 24) & 0xFFu;
  uint32_t pminor = (program >> 20) & 0xFu, dminor = (persist >> 20) & 0xFu;
  bool compatible = pmajor != dmajor ? pmajor > dmajor : pminor >= dminor;
  if (compatible)
    return U_VERSION_COMPATIBLE;
  trcprintf(comp(), 0,
            "u_version_compatible: Versions are not compatible. Program Ver [%s] Persist Ver [%s]",
            program_version, persist_version);
  return U_VERSION_INCOMPATIBLE;
}
