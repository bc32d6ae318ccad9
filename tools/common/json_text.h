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

#include "hvs/registry_file.h"

namespace tools {

// The registry file format's own rules for both (hvs/registry_file.h).
using hvs::to_hex;
using hvs::valid_utf8;

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
