// The registry file format: the parser and the writer's forms.
#include "hvs/registry_file.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "hvs/backend.h"

namespace hvs {

using nlohmann::json;

bool valid_utf8(std::string_view s) noexcept {
  std::size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    std::size_t n;
    uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xe0) == 0xc0) {
      n = 1;
      cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      n = 2;
      cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      n = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + n >= s.size()) // truncated sequence
      return false;
    for (std::size_t k = 1; k <= n; ++k) {
      auto d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xc0) != 0x80)
        return false;
      cp = (cp << 6) | (d & 0x3f);
    }
    // No overlong forms, no surrogates, nothing above U+10FFFF.
    static constexpr uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))
      return false;
    i += n + 1;
  }
  return true;
}

std::string to_hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char c : bytes) {
    auto b = static_cast<unsigned char>(c);
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

size_t line_of(std::string_view text, size_t offset) {
  offset = std::min(offset, text.size());
  return 1 + size_t(std::count(text.begin(), text.begin() + long(offset), '\n'));
}

namespace {

// Splits a multi-string (each string + NUL, then one more NUL) into its
// strings. False when bytes is not one with at least one string, or a
// string is empty or not UTF-8.
bool split_multi(std::string_view bytes, std::vector<std::string_view> &out) {
  if (bytes.size() < 3 || bytes[bytes.size() - 1] != '\0' ||
      bytes[bytes.size() - 2] != '\0')
    return false;
  std::string_view body = bytes.substr(0, bytes.size() - 1);
  size_t pos = 0;
  while (pos < body.size()) {
    size_t nul = body.find('\0', pos);
    std::string_view one = body.substr(pos, nul - pos);
    if (one.empty() || !valid_utf8(one))
      return false;
    out.push_back(one);
    pos = nul + 1;
  }
  return !out.empty();
}

bool from_hex(std::string_view hex, std::string &out) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    return -1;
  };
  if (hex.size() % 2 != 0)
    return false;
  out.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    int hi = digit(hex[i]), lo = digit(hex[i + 1]);
    if (hi < 0 || lo < 0)
      return false;
    out += char(hi * 16 + lo);
  }
  return true;
}

std::string json_string(std::string_view s) {
  return json(std::string(s)).dump();
}

std::string text_of(std::string_view bytes) {
  return std::string(bytes.substr(0, bytes.size() - 1));
}

// Finds the 1-based line of each key object: the next "key" member name
// after the previous one. The export format writes one object per line, and
// any layout works as long as "key" is not spelt with escapes. Lines are
// counted as the search moves on, so a file is read in linear time.
class KeyLocator {
public:
  KeyLocator(std::string_view text, size_t start)
      : text_(text), cursor_(start), counted_to_(0), line_(1) {}

  size_t next() {
    for (;;) {
      size_t at = text_.find("\"key\"", cursor_);
      if (at == std::string_view::npos)
        return last_line_;
      cursor_ = at + 5;
      if (at > 0 && text_[at - 1] == '\\')
        continue;
      size_t p = text_.find_first_not_of(" \t\r\n", cursor_);
      if (p != std::string_view::npos && text_[p] == ':') {
        line_ += size_t(std::count(text_.begin() + long(counted_to_),
                                   text_.begin() + long(at), '\n'));
        counted_to_ = at;
        last_line_ = line_;
        return last_line_;
      }
    }
  }

private:
  std::string_view text_;
  size_t cursor_;
  size_t counted_to_;
  size_t line_;
  size_t last_line_ = 1;
};

// A member name given twice in one object: JSON readers disagree on which
// one counts, so the file is refused.
struct DuplicateMember {
  std::string name;
  bool in_keys; // inside an entry of "keys"; else told at the name itself
  size_t entry; // then the index of that entry
};

// A second, linear pass over a file that parsed, looking only at member
// names: one set of names per open object, and a count of the entries of
// "keys" so that a duplicate inside one can be given its line. (The DOM
// parser's callback would do it in the same pass, but costs time
// quadratic in the length of an array.)
class DuplicateFinder : public nlohmann::json_sax<json> {
public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t &) override { return true; }
  bool string(string_t &) override { return true; }
  bool binary(binary_t &) override { return true; }
  bool start_object(std::size_t) override {
    names_.emplace_back();
    if (depth_++ == 2 && in_keys_) // an entry of "keys"
      ++entries_;
    return true;
  }
  bool key(string_t &name) override {
    if (!names_.back().insert(name).second)
      throw DuplicateMember{name, in_keys_ && depth_ > 2,
                            entries_ ? entries_ - 1 : 0};
    if (depth_ == 1)
      in_keys_ = name == "keys";
    return true;
  }
  bool end_object() override {
    names_.pop_back();
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    ++depth_;
    return true;
  }
  bool end_array() override {
    --depth_;
    return true;
  }
  bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &) override {
    return false;
  }

private:
  std::vector<std::set<std::string>> names_;
  int depth_ = 0;
  bool in_keys_ = false; // the document's member of the moment is "keys"
  size_t entries_ = 0;
};

// The line of the nth (0-based) occurrence of "member" followed by a colon.
size_t member_line(std::string_view text, std::string_view member, int nth = 0) {
  const std::string quoted = fmt::format("\"{}\"", member);
  size_t at = 0;
  for (;; at += quoted.size()) {
    at = text.find(quoted, at);
    if (at == std::string_view::npos)
      return 1;
    size_t p = text.find_first_not_of(" \t\r\n", at + quoted.size());
    if (p != std::string_view::npos && text[p] == ':' && nth-- == 0)
      return line_of(text, at);
  }
}

// A registry file nests four levels deep, a backup's metadata a few more.
// Past this depth a file is refused before it is read: what handles the
// document later (dump() of the metadata, among others) recurses once per
// level, and a thousand levels can exhaust the stack.
constexpr int kMaxDepth = 64;

// The offset of the bracket that opens level kMaxDepth + 1, or npos. Only
// brackets outside strings count; the text need not be valid JSON.
size_t too_deep(std::string_view text) {
  int depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (in_string) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth)
        return i;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return std::string_view::npos;
}

// The text of a parse error without nlohmann's prefix and position.
std::string parse_problem(const json::parse_error &e) {
  std::string what = e.what();
  auto col = what.find("column ");
  if (col != std::string::npos) {
    auto colon = what.find(": ", col);
    if (colon != std::string::npos)
      return what.substr(colon + 2);
  }
  auto bracket = what.find("] ");
  return bracket == std::string::npos ? what : what.substr(bracket + 2);
}

// Reads a value member into bytes; returns the problem or "".
std::string read_value(const json &v, std::string &bytes) {
  if (v.is_string()) {
    const auto &s = v.get_ref<const std::string &>();
    if (s.find('\0') != std::string::npos)
      return "text value holds a NUL byte; write it as {\"hex\": ...}";
    bytes = s;
    bytes += '\0';
    return {};
  }
  if (v.is_array()) {
    bytes.clear();
    for (const auto &item : v) {
      if (!item.is_string())
        return "multi-string holds something other than a string";
      const auto &s = item.get_ref<const std::string &>();
      if (s.empty())
        return "multi-string holds an empty string";
      if (s.find('\0') != std::string::npos)
        return "multi-string holds a NUL byte; write it as {\"hex\": ...}";
      bytes += s;
      bytes += '\0';
    }
    bytes += '\0';
    return {};
  }
  if (v.is_object() && v.size() == 1 && v.contains("hex") &&
      v["hex"].is_string()) {
    if (!from_hex(v["hex"].get_ref<const std::string &>(), bytes))
      return "hex value is not an even number of hex digits";
    return {};
  }
  return "value must be a string, an array of strings or {\"hex\": "
         "\"...\"}";
}

} // namespace

Form form_of(std::string_view bytes) {
  if (!bytes.empty() && bytes.back() == '\0' &&
      bytes.find('\0') == bytes.size() - 1 &&
      valid_utf8(bytes.substr(0, bytes.size() - 1)))
    return Form::Text;
  std::vector<std::string_view> parts;
  if (split_multi(bytes, parts))
    return Form::Multi;
  return Form::Hex;
}

namespace {

std::string value_json(std::string_view bytes) {
  switch (form_of(bytes)) {
  case Form::Text:
    return json_string(text_of(bytes));
  case Form::Multi: {
    std::vector<std::string_view> parts;
    split_multi(bytes, parts);
    std::string out = "[";
    for (size_t i = 0; i < parts.size(); ++i)
      out += (i ? ", " : "") + json_string(parts[i]);
    return out + "]";
  }
  case Form::Hex:
    break;
  }
  return fmt::format("{{\"hex\": \"{}\"}}", to_hex(bytes));
}

} // namespace

std::string key_line(std::string_view name, bool has_value,
                     std::string_view bytes) {
  std::string key = valid_utf8(name)
                        ? json_string(name)
                        : fmt::format("{{\"hex\": \"{}\"}}", to_hex(name));
  if (!has_value)
    return fmt::format("{{\"key\": {}}}", key);
  return fmt::format("{{\"key\": {}, \"value\": {}}}", key, value_json(bytes));
}

std::string display_value(std::string_view bytes) {
  if (bytes.empty())
    return "(empty)";
  if (form_of(bytes) == Form::Hex)
    return "hex:" + to_hex(bytes);
  return value_json(bytes);
}

std::string backup_count_mismatch(const std::string &backup, size_t keys) {
  if (backup.empty())
    return {};
  json meta = json::parse(backup, nullptr, false);
  if (!meta.is_object() || !meta.contains("key_count") ||
      meta["key_count"] == json(keys))
    return {};
  return meta["key_count"].dump();
}

bool parse_registry_file(const std::string &file, const std::string &text,
                         std::vector<FileKey> &keys, std::string &error,
                         std::string *backup) {
  auto fail = [&](size_t line, const std::string &problem) {
    error = fmt::format("{}:{}: {}", file, line, problem);
    return false;
  };
  if (backup != nullptr)
    backup->clear();
  if (size_t at = too_deep(text); at != std::string::npos)
    return fail(line_of(text, at),
                fmt::format("nested more than {} levels deep", kMaxDepth));

  json doc;
  try {
    doc = json::parse(text);
    DuplicateFinder finder;
    json::sax_parse(text, &finder);
  } catch (const DuplicateMember &d) {
    if (!d.in_keys)
      return fail(member_line(text, d.name, 1),
                  fmt::format("member \"{}\" is given twice", d.name));
    size_t keys_at = text.find("\"keys\"");
    KeyLocator locate(text, keys_at == std::string::npos ? 0 : keys_at + 6);
    size_t line = 1;
    for (size_t i = 0; i <= d.entry; ++i)
      line = locate.next();
    return fail(line, fmt::format("member \"{}\" is given twice", d.name));
  } catch (const json::parse_error &e) {
    // e.byte counts from 1 and points at the character that went wrong.
    return fail(line_of(text, e.byte > 0 ? e.byte - 1 : 0), parse_problem(e));
  } catch (const json::out_of_range &e) {
    // A number beyond a double (406, "number overflow parsing '1e999'")
    // comes without a position: the line is where that number stands.
    std::string what = e.what();
    auto open = what.find(" '"), bracket = what.find("] ");
    size_t at = open == std::string::npos
                    ? std::string::npos
                    : text.find(what.substr(open + 2, what.size() - open - 3));
    return fail(at == std::string::npos ? 1 : line_of(text, at),
                bracket == std::string::npos ? what : what.substr(bracket + 2));
  }

  if (!doc.is_object())
    return fail(1, "the file must hold one JSON object");
  // A backup is an export with a "backup" member and its own format name.
  const bool is_backup = backup != nullptr && doc.contains("format") &&
                         doc["format"] == kBackupFormatName;
  for (const auto &[member, v] : doc.items()) {
    (void)v;
    if (member != "format" && member != "version" && member != "keys" &&
        !(is_backup && member == "backup"))
      return fail(member_line(text, member),
                  fmt::format("unknown member \"{}\"", member));
  }
  if (is_backup) {
    if (!doc.contains("backup") || !doc["backup"].is_object())
      return fail(1, "backup without its \"backup\" member");
    *backup = doc["backup"].dump();
  } else if (!doc.contains("format") || doc["format"] != kFormatName) {
    return fail(member_line(text, "format"),
                fmt::format("\"format\" must be \"{}\"", kFormatName));
  }
  if (!doc.contains("version") || !doc["version"].is_number_integer())
    return fail(member_line(text, "version"),
                "\"version\" must be an integer");
  if (doc["version"].get<long long>() != kFormatVersion)
    return fail(member_line(text, "version"),
                fmt::format("format version {} is not one this tool reads "
                            "(it reads {})",
                            doc["version"].dump(), kFormatVersion));
  if (!doc.contains("keys") || !doc["keys"].is_array())
    return fail(member_line(text, "keys"), "\"keys\" must be an array");

  size_t keys_at = text.find("\"keys\"");
  KeyLocator locate(text, keys_at == std::string::npos ? 0 : keys_at + 6);
  std::map<std::string, size_t> seen; // name -> line
  keys.clear();
  for (const auto &item : doc["keys"]) {
    size_t line = locate.next();
    if (!item.is_object())
      return fail(line, "each entry of \"keys\" must be an object");
    for (const auto &[member, v] : item.items()) {
      (void)v;
      if (member != "key" && member != "value")
        return fail(line, fmt::format("unknown member \"{}\"", member));
    }
    if (!item.contains("key"))
      return fail(line, "entry without \"key\"");
    FileKey k;
    k.line = line;
    const json &name = item["key"];
    if (name.is_string()) {
      k.name = name.get<std::string>();
    } else if (!(name.is_object() && name.size() == 1 &&
                 name.contains("hex") && name["hex"].is_string() &&
                 from_hex(name["hex"].get<std::string>(), k.name))) {
      return fail(line, "\"key\" must be a string or {\"hex\": \"...\"}");
    }
    std::string shown = json_string(valid_utf8(k.name) ? k.name : "hex:" + to_hex(k.name));
    if (k.name.find('\0') != std::string::npos)
      return fail(line, fmt::format("key {}: NUL byte in the name", shown));
    if (const char *why = hvs::key_name_problem(k.name))
      return fail(line, fmt::format("key {}: {}", shown, why));
    if (auto [it, fresh] = seen.emplace(k.name, line); !fresh)
      return fail(line, fmt::format("key {} is listed twice (first on line "
                                    "{})",
                                    shown, it->second));
    if (item.contains("value")) {
      std::string problem = read_value(item["value"], k.bytes);
      if (!problem.empty())
        return fail(line, fmt::format("key {}: {}", shown, problem));
      k.has_value = true;
    }
    keys.push_back(std::move(k));
  }
  return true;
}

} // namespace hvs
