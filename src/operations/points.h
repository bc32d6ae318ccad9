/* points.h - what the point operations on services, service instances,
 * databases and instances share: name checks, the service key component,
 * and the delivery of a name into a caller's buffer. */
#ifndef PRSR_OPERATIONS_POINTS_H
#define PRSR_OPERATIONS_POINTS_H

#include <cstring>
#include <initializer_list>

#include "frame/frame.h"

namespace prsr {

/* Whether every name is present and a key made of all of them plus
 * `overhead` fixed bytes (without the NUL) still fits a key buffer. */
inline bool names_fit(std::initializer_list<const char *> names, size_t overhead) {
  size_t total = overhead;
  for (const char *n : names) {
    if (n == nullptr)
      return false;
    total += std::strlen(n);
  }
  return total < kKeyMax;
}

/* A service name as a key component: lower case, every "." as "*", in a
 * zero-filled block of strlen + 2 bytes. NULL when memory is exhausted. */
inline char *copy_service(void *meta, const char *name) {
  size_t n = std::strlen(name);
  char *p = copy_lower(meta, name, 1);
  if (p != nullptr) {
    size_t out = 0;
    txtreplace(p, std::strlen(p), n + 2, ".", 1, "*", 1, &out);
  }
  return p;
}

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

/* Fixed parts of the keys, without the NUL:
 *   "DATABASE.DATABASES." db ".SERVICE." srv ... */
inline constexpr size_t kServiceEnabledExtra = 36;   /* ".ENABLED" */
inline constexpr size_t kServiceInstancesExtra = 38; /* ".INSTANCES" */
inline constexpr size_t kServicePolicyExtra = 38;    /* ".FOVPOLICY" */
/* ... ".INSTANCES." inst ".ENABLED" (".TYPE" is shorter) */
inline constexpr size_t kServiceInstEnabledExtra = 47;
/* "DATABASE.DATABASES." db ".INSTANCE." inst ... */
inline constexpr size_t kInstanceExtra = 29;
inline constexpr size_t kInstanceEnabledExtra = 37; /* ".ENABLED" */
inline constexpr size_t kInstanceNodeExtra = 34;    /* ".NODE" */
/* "DATABASE.DATABASES." db ... */
inline constexpr size_t kDatabaseExtra = 19;
inline constexpr size_t kRoleExtra = 24;   /* ".ROLE" */
inline constexpr size_t kDomainExtra = 26; /* ".DOMAIN" */

} // namespace prsr

#endif
