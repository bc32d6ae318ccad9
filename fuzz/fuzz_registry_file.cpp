/* The registry file parser of hvsctl on arbitrary text.
 *
 * A text it refuses must come with a "FILE:LINE: problem" message. A text it
 * accepts must give keys with good names, each listed once, and writing
 * those keys back as a file (key_line, the export form) must parse again to
 * the very same keys and values. Nothing may throw. */
#include <set>
#include <string>

#include "fuzz_common.h"
#include "hvs/backend.h"
#include "hvs/registry_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<hvs::FileKey> keys;
  std::string error;
  if (!hvs::parse_registry_file("fuzz.json", text, keys, error)) {
    FUZZ_CHECK(error.rfind("fuzz.json:", 0) == 0);
    FUZZ_CHECK(error.size() > 10);
    return 0;
  }
  FUZZ_CHECK(error.empty());

  std::set<std::string> names;
  std::string again = "{\"format\": \"hvs-registry\", \"version\": 1, \"keys\": [\n";
  for (size_t i = 0; i < keys.size(); ++i) {
    const auto &k = keys[i];
    FUZZ_CHECK(hvs::key_name_problem(k.name) == nullptr);
    FUZZ_CHECK(names.insert(k.name).second);
    FUZZ_CHECK(k.has_value || k.bytes.empty());
    (void)hvs::display_value(k.bytes);
    again += (i ? ",\n" : "") + hvs::key_line(k.name, k.has_value, k.bytes);
  }
  again += "\n]}\n";

  std::vector<hvs::FileKey> back;
  std::string error2;
  if (!hvs::parse_registry_file("again.json", again, back, error2)) {
    std::fprintf(stderr, "written back, the keys do not parse: %s\n%s\n", error2.c_str(),
                 again.c_str());
    std::abort();
  }
  FUZZ_CHECK(back.size() == keys.size());
  for (size_t i = 0; i < keys.size(); ++i) {
    FUZZ_CHECK(back[i].name == keys[i].name);
    FUZZ_CHECK(back[i].has_value == keys[i].has_value);
    FUZZ_CHECK(back[i].bytes == keys[i].bytes);
    FUZZ_CHECK(back[i].line == i + 2);
  }
  return 0;
}
