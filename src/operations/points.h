/* points.h - what the point operations share beyond the frame: the
 * delivery of a name into a caller's buffer. */
#ifndef PRSR_OPERATIONS_POINTS_H
#define PRSR_OPERATIONS_POINTS_H

#include <cstring>

#include "frame/frame.h"

namespace prsr {

/* Hands a value read with result rc to the caller's buffer of size bytes
 * (size >= 1): the whole text with its NUL when it fits, otherwise the
 * empty text and 1; after a failed read the empty text and rc. */
inline int32_t deliver_name(int32_t rc, const char *value, uint32_t size, char *name) {
  if (rc != PRSR_SUCCESS) {
    name[0] = '\0';
    return rc;
  }
  size_t n = std::strlen(value);
  if (n >= size) {
    name[0] = '\0';
    return PRSR_ERR_ARGUMENT;
  }
  std::memcpy(name, value, n + 1);
  return PRSR_SUCCESS;
}

} // namespace prsr

#endif
