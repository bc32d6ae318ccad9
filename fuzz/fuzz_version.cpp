/* The version parser and the compatibility check on arbitrary text.
 *
 * Input: the program's version text, a NUL, the persisted version text
 * (without a NUL both are the same text). verparse is checked against the
 * text form that ver.h states, field by field; u_version_compatible against
 * the two top fields of what verparse packed. */
#include <cstring>
#include <optional>
#include <string>

#include "fuzz_common.h"
#include "util/version.h"
#include "ver.h"

namespace {

/* MAJOR.MINOR[.PATCH[.BUILD]], 1 to 5 digits a field, within its range. */
std::optional<uint32_t> expected_version(const std::string &text) {
  static constexpr uint32_t kLimit[4] = {255, 15, 255, 4095};
  static constexpr int kShift[4] = {24, 20, 12, 0};
  std::vector<std::string> fields;
  size_t start = 0;
  for (;;) {
    size_t dot = text.find('.', start);
    fields.push_back(text.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
    if (dot == std::string::npos)
      break;
    start = dot + 1;
  }
  if (fields.size() < 2 || fields.size() > 4)
    return std::nullopt;
  uint32_t packed = 0;
  for (size_t i = 0; i < fields.size(); ++i) {
    const std::string &f = fields[i];
    if (f.empty() || f.size() > 5 || f.find_first_not_of("0123456789") != std::string::npos)
      return std::nullopt;
    uint32_t v = static_cast<uint32_t>(std::stoul(f));
    if (v > kLimit[i])
      return std::nullopt;
    packed |= v << kShift[i];
  }
  return packed;
}

std::optional<uint32_t> parsed(const std::string &text) {
  uint32_t out = 0xDEADBEEFu;
  int32_t rc = verparse(&out, text.c_str());
  FUZZ_CHECK(rc == 0 || rc == 1);
  if (rc == 0) {
    FUZZ_CHECK(out == 0xDEADBEEFu); /* left alone */
    return std::nullopt;
  }
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool ready = (fuzz::trace_everything(), true);
  (void)ready;
  const auto texts = fuzz::split_texts(data, size, 2);
  const std::string &program = texts[0];
  const std::string &persist = texts.size() > 1 ? texts[1] : texts[0];

  auto p = parsed(program), d = parsed(persist);
  FUZZ_CHECK(p == expected_version(program));
  FUZZ_CHECK(d == expected_version(persist));

  int32_t want = U_VERSION_BAD_TEXT;
  if (p && d) {
    bool ok = VER_MAJOR(*p) != VER_MAJOR(*d) ? VER_MAJOR(*p) > VER_MAJOR(*d)
                                             : VER_MINOR(*p) >= VER_MINOR(*d);
    want = ok ? U_VERSION_COMPATIBLE : U_VERSION_INCOMPATIBLE;
  }
  FUZZ_CHECK(u_version_compatible(program.c_str(), persist.c_str()) == want);
  return 0;
}
