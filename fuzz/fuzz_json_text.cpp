/* Registry bytes in the tools' JSON, on arbitrary bytes.
 *
 * Input: records of a flags byte, a name and a value, each of the two
 * behind its length (2 bytes, little-endian), lengths cut at the end of
 * the input. flags bit 0: the key has a value.
 *
 * The keys, each written with key_line into one registry file, must parse
 * back to the very same names and bytes, or, when a name is one the file
 * format refuses (empty, NUL, bad dots, a component over 255 bytes, listed
 * twice), be refused at the line of that key. display_value must take
 * every value. The same names and values, put into a JSON document as
 * member names and strings, must come out of dump_safe without a throw, as
 * JSON that reads back with every UTF-8 text as it was and every other one
 * in its hex form, no member lost; text_json and valid_utf8 must agree
 * with the JSON reader on what is UTF-8. */
#include <map>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../tools/common/json_text.h"
#include "fuzz_common.h"
#include "hvs/backend.h"
#include "hvs/registry_file.h"

namespace {

using nlohmann::json;

struct Record {
  bool has_value;
  std::string name;
  std::string bytes;
};

std::vector<Record> records(const uint8_t *data, size_t size) {
  std::vector<Record> out;
  const uint8_t *p = data, *end = data + size;
  auto take = [&](size_t n) {
    n = std::min<size_t>(n, end - p);
    std::string s(reinterpret_cast<const char *>(p), n);
    p += n;
    return s;
  };
  auto length = [&] {
    size_t n = p < end ? *p++ : 0;
    if (p < end)
      n |= size_t{*p++} << 8;
    return n;
  };
  while (p < end) {
    Record r;
    r.has_value = (*p++ & 1) != 0;
    r.name = take(length());
    r.bytes = take(length());
    out.push_back(std::move(r));
  }
  return out;
}

/* The bytes a text_json result stands for. */
std::string bytes_of(const json &j) {
  if (j.is_string())
    return j.get<std::string>();
  FUZZ_CHECK(j.is_object() && j.size() == 1 && j.contains("hex") && j["hex"].is_string());
  const std::string &hex = j["hex"].get_ref<const std::string &>();
  FUZZ_CHECK(hex.size() % 2 == 0);
  std::string out;
  for (size_t i = 0; i < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

/* UTF-8 as the JSON reader sees it: a string of these bytes is accepted.
 * Only asked of bytes that need no escape. */
bool reader_accepts(const std::string &s) { return json::accept("\"" + s + "\""); }

bool needs_escape(const std::string &s) {
  for (unsigned char c : s)
    if (c < 0x20 || c == '"' || c == '\\')
      return true;
  return false;
}

void check_text(const std::string &s) {
  const bool valid = tools::valid_utf8(s);
  if (!needs_escape(s))
    FUZZ_CHECK(valid == reader_accepts(s));
  const json j = tools::text_json(s);
  FUZZ_CHECK(j.is_string() == valid);
  FUZZ_CHECK(bytes_of(json::parse(j.dump())) == s);
}

/* The registry file of the records; refused at the first key the format
 * does not take, or read back byte for byte. */
void check_file(const std::vector<Record> &recs) {
  std::string text = "{\"format\": \"hvs-registry\", \"version\": 1, \"keys\": [\n";
  size_t bad_line = 0;
  std::set<std::string> names;
  for (size_t i = 0; i < recs.size(); ++i) {
    const Record &r = recs[i];
    text += (i ? ",\n" : "") + hvs::key_line(r.name, r.has_value, r.bytes);
    const bool good = r.name.find('\0') == std::string::npos &&
                      hvs::key_name_problem(r.name) == nullptr && names.insert(r.name).second;
    if (!good && bad_line == 0)
      bad_line = i + 2;
    (void)hvs::display_value(r.bytes);
  }
  text += "\n]}\n";

  std::vector<hvs::FileKey> keys;
  std::string error;
  const bool ok = hvs::parse_registry_file("f.json", text, keys, error);
  if (bad_line != 0) {
    if (ok || error.rfind("f.json:" + std::to_string(bad_line) + ": ", 0) != 0) {
      std::fprintf(stderr, "a bad key on line %zu, and the parser says: %s\n%s\n", bad_line,
                   ok ? "(nothing)" : error.c_str(), text.c_str());
      std::abort();
    }
    return;
  }
  if (!ok) {
    std::fprintf(stderr, "written with key_line, the keys do not parse: %s\n%s\n", error.c_str(),
                 text.c_str());
    std::abort();
  }
  FUZZ_CHECK(keys.size() == recs.size());
  for (size_t i = 0; i < keys.size(); ++i) {
    FUZZ_CHECK(keys[i].name == recs[i].name);
    FUZZ_CHECK(keys[i].has_value == recs[i].has_value);
    FUZZ_CHECK(keys[i].bytes == (recs[i].has_value ? recs[i].bytes : std::string()));
    FUZZ_CHECK(keys[i].line == i + 2);
  }
}

/* A member name as dump_safe writes it. */
std::string shown_name(const std::string &name) {
  const bool hex = !tools::valid_utf8(name) || name.rfind("hex:", 0) == 0;
  return hex ? "hex:" + tools::to_hex(name) : name;
}

/* A document of the records as a tool would build one: an object with a
 * member for each name, an array of the value and a nested object, and
 * the names in an array beside it. */
void check_dump(const std::vector<Record> &recs) {
  json members = json::object();
  json names = json::array();
  std::map<std::string, std::string> last; /* name -> the value it keeps */
  for (const Record &r : recs) {
    members[r.name] = json::array({r.bytes, {{r.name, r.bytes}}, r.has_value});
    names.push_back(r.name);
    last[r.name] = r.bytes;
  }
  json doc = json::array({members, names});
  const json original = doc;

  std::string out;
  try {
    out = tools::dump_safe(doc, recs.size() % 2 ? 2 : -1);
  } catch (const std::exception &e) {
    std::fprintf(stderr, "dump_safe threw: %s\n", e.what());
    std::abort();
  }
  FUZZ_CHECK(doc == original); /* it works on its own copy */
  const json back = json::parse(out);
  FUZZ_CHECK(back.is_array() && back.size() == 2 && back[0].is_object());
  FUZZ_CHECK(back[0].size() == last.size()); /* no member lost */
  for (const auto &[name, bytes] : last) {
    const std::string shown = shown_name(name);
    FUZZ_CHECK(back[0].contains(shown));
    const json &member = back[0][shown];
    FUZZ_CHECK(member.is_array() && member.size() == 3);
    FUZZ_CHECK(bytes_of(member[0]) == bytes);
    FUZZ_CHECK(member[1].is_object() && member[1].size() == 1);
    FUZZ_CHECK(member[1].begin().key() == shown);
    FUZZ_CHECK(bytes_of(member[1].begin().value()) == bytes);
  }
  FUZZ_CHECK(back[1].is_array() && back[1].size() == recs.size());
  for (size_t i = 0; i < recs.size(); ++i)
    FUZZ_CHECK(bytes_of(back[1][i]) == recs[i].name);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto recs = records(data, size);
  for (const Record &r : recs) {
    check_text(r.name);
    check_text(r.bytes);
  }
  check_file(recs);
  check_dump(recs);
  return 0;
}
