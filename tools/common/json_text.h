// json_text.h - registry bytes in the tools' JSON.
//
// JSON strings hold UTF-8 only, and registry names and values are bytes.
// Both tools write a string that is not valid UTF-8 as {"hex": "..."}, the
// form that registry files use for such names and values, so that every
// value comes out, and an import reads back exactly what an export wrote.
#ifndef TOOLS_JSON_TEXT_H
#define TOOLS_JSON_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace tools {

inline bool valid_utf8(std::string_view s) {
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

inline std::string to_hex(std::string_view bytes) {
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

// A name or text as JSON: a string, or {"hex": "..."} when it is not UTF-8.
inline nlohmann::json text_json(std::string_view s) {
  if (valid_utf8(s))
    return std::string(s);
  return nlohmann::json{{"hex", to_hex(s)}};
}

// Whether a member name is written as "hex:" and the hex of its bytes: a
// name that is not UTF-8, and one that reads like such a form already, so
// that no two members come out under one name.
inline bool hex_member_name(std::string_view name) {
  return !valid_utf8(name) || name.starts_with("hex:");
}

// Rewrites, in place, every string of doc that is not UTF-8 into the hex
// form, and member names as hex_member_name says, so that dump() cannot
// fail and loses nothing.
inline void make_dumpable(nlohmann::json &doc) {
  if (doc.is_string()) {
    const auto &s = doc.get_ref<const std::string &>();
    if (!valid_utf8(s))
      doc = text_json(s);
    return;
  }
  if (doc.is_array()) {
    for (auto &item : doc)
      make_dumpable(item);
    return;
  }
  if (!doc.is_object())
    return;
  bool odd_name = false;
  for (auto it = doc.begin(); it != doc.end(); ++it) {
    make_dumpable(it.value());
    odd_name = odd_name || hex_member_name(it.key());
  }
  if (odd_name) {
    nlohmann::json fixed = nlohmann::json::object();
    for (auto it = doc.begin(); it != doc.end(); ++it)
      fixed[hex_member_name(it.key()) ? "hex:" + to_hex(it.key()) : it.key()] =
          std::move(it.value());
    doc = std::move(fixed);
  }
}

// dump() that never throws on bytes that are not UTF-8.
inline std::string dump_safe(nlohmann::json doc, int indent = -1) {
  make_dumpable(doc);
  return doc.dump(indent);
}

} // namespace tools

#endif
