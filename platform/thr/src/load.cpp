/* Module load notifications. This platform tells a shared library nothing
 * of thread starts and ends, so there is nothing to switch off. */
#include "thr.h"

extern "C" __attribute__((visibility("default"))) int32_t DisableThreadLibraryCalls(void *) {
  return 1;
}
