// ver.cpp - the version parser.
#include "ver.h"

#define VER_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int kMaxDigits = 5;
constexpr uint32_t kLimit[4] = {255, 15, 255, 4095};
constexpr int kShift[4] = {24, 20, 12, 0};

} // namespace

VER_EXPORT int32_t verparse(uint32_t *out, const char *text) {
  if (out == nullptr || text == nullptr)
    return 0;
  uint32_t packed = 0;
  int field = 0;
  const char *p = text;
  for (;;) {
    if (field == 4)
      return 0;
    uint32_t value = 0;
    int digits = 0;
    while (*p >= '0' && *p <= '9') {
      if (++digits > kMaxDigits)
        return 0;
      value = value * 10 + static_cast<uint32_t>(*p - '0');
      ++p;
    }
    if (digits == 0 || value > kLimit[field])
      return 0;
    packed |= value << kShift[field];
    ++field;
    if (*p == '\0')
      break;
    if (*p != '.')
      return 0;
    ++p;
  }
  if (field < 2)
    return 0;
  *out = packed;
  return 1;
}
