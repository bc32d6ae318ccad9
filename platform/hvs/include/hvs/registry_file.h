/* hvs/registry_file.h - the registry file format (docs/registry-format.md):
 * reading an export or backup file into a checked list of keys, and writing
 * keys and values back. One parser for everything that reads such a file:
 * hvsctl import, restore, diff and check, and the read-only file: engine.
 */
#ifndef HVS_REGISTRY_FILE_H
#define HVS_REGISTRY_FILE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace hvs {

inline constexpr const char *kFormatName = "hvs-registry";
inline constexpr const char *kBackupFormatName = "hvs-backup";
inline constexpr int kFormatVersion = 1;

struct FileKey {
  std::string name;
  bool has_value = false;
  std::string bytes;
  std::size_t line = 0; // where the key's object stands in the file
};

// Parses and checks the text of a registry file. On failure returns false
// and sets error to "FILE:LINE: problem", the line being one of text as
// given. Checks key names, duplicate keys and duplicate members; whether
// parents exist is the registry's business. With backup, a backup file is
// read too, and its "backup" member is left there as JSON text ("" for a
// plain export).
bool parse_registry_file(const std::string &file, const std::string &text,
                         std::vector<FileKey> &keys, std::string &error,
                         std::string *backup = nullptr);

// For a restore: the "key_count" of a backup's metadata (the text
// parse_registry_file left in *backup) when it is not the number of keys
// the file holds, "" when it is or when there is none.
std::string backup_count_mismatch(const std::string &backup, std::size_t keys);

// How a value is written so that it reads back to the same bytes.
enum class Form { Text, Multi, Hex };
Form form_of(std::string_view bytes);

// One key as a line of the file, without separator: {"key": ..., ...}.
std::string key_line(std::string_view name, bool has_value,
                     std::string_view bytes);

// A value for people: "text", ["a", "b"], hex:0a0b or (empty).
std::string display_value(std::string_view bytes);

bool valid_utf8(std::string_view s) noexcept;

// Lower-case hex digits of bytes.
std::string to_hex(std::string_view bytes);

// The 1-based line of a byte offset in text.
std::size_t line_of(std::string_view text, std::size_t offset);

} // namespace hvs

#endif
