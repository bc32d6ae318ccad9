/* Backup files as hvsctl restore and diff read them, on arbitrary text.
 *
 * Input: the file. It goes through load_file, as a file on disk, and
 * through parse_registry_file with a backup argument; both must agree, and
 * nothing may throw. A file refused comes with "FILE:LINE: problem", the
 * line one of the file's. A file taken gives keys with good names, each
 * once, and the restore's count check answers without a throw. Written
 * back as a backup (render_file, the backup's own writer) with the
 * metadata it had, it must read again to the same keys, values and
 * metadata. */
#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

#include "command.h"
#include "fuzz_common.h"
#include "hvs/backend.h"
#include "hvs/registry_file.h"

namespace {

/* The scratch file load_file reads, in a directory of this run removed at
 * exit. */
const std::string &scratch() {
  static const std::string path = [] {
    static char dir[] = "/tmp/prsr-fuzz-backup-XXXXXX";
    FUZZ_CHECK(mkdtemp(dir) != nullptr);
    std::atexit([] {
      std::remove((std::string(dir) + "/backup.json").c_str());
      std::remove(dir);
    });
    return std::string(dir) + "/backup.json";
  }();
  return path;
}

/* A refusal names the file and a line of text. */
void check_refusal(const std::string &file, const std::string &text, const std::string &error) {
  FUZZ_CHECK(error.rfind(file + ":", 0) == 0);
  size_t at = file.size() + 1;
  size_t colon = error.find(':', at);
  FUZZ_CHECK(colon != std::string::npos && colon > at);
  size_t line = std::stoul(error.substr(at, colon - at));
  FUZZ_CHECK(line >= 1 && line <= hvs::line_of(text, text.size()));
  FUZZ_CHECK(error.size() > colon + 2);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const std::string &path = scratch();
  {
    FILE *f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(std::fwrite(text.data(), 1, text.size(), f) == text.size());
    FUZZ_CHECK(std::fclose(f) == 0);
  }

  std::vector<hvs::FileKey> keys;
  std::string error, backup = "(unset)";
  const bool ok = hvs::parse_registry_file("fuzz.json", text, keys, error, &backup);
  hvsctl::Tree tree;
  std::string meta = "(unset)";
  const int rc = hvsctl::load_file(path, tree, &meta);
  FUZZ_CHECK(rc == (ok ? hvsctl::kOk : hvsctl::kInput));
  if (!ok) {
    check_refusal("fuzz.json", text, error);
    return 0;
  }
  FUZZ_CHECK(error.empty() && meta == backup);

  std::set<std::string> names;
  FUZZ_CHECK(tree.size() == keys.size());
  for (size_t i = 0; i < tree.size(); ++i) {
    const hvsctl::Entry &e = tree[i];
    FUZZ_CHECK(hvs::key_name_problem(e.name) == nullptr);
    FUZZ_CHECK(e.name.find('\0') == std::string::npos);
    FUZZ_CHECK(names.insert(e.name).second);
    FUZZ_CHECK(e.has_value || e.bytes.empty());
    FUZZ_CHECK(e.name == keys[i].name && e.bytes == keys[i].bytes);
    FUZZ_CHECK(keys[i].line >= 1 && keys[i].line <= hvs::line_of(text, text.size()));
  }
  (void)hvs::backup_count_mismatch(meta, tree.size());

  /* Written back as the backup writer writes it. */
  const bool is_backup = !meta.empty();
  const std::string again =
      hvsctl::render_file(tree, is_backup ? hvs::kBackupFormatName : hvs::kFormatName,
                          is_backup ? "\"backup\": " + meta : "");
  std::vector<hvs::FileKey> back;
  std::string error2, meta2;
  if (!hvs::parse_registry_file("again.json", again, back, error2, &meta2)) {
    std::fprintf(stderr, "written back, the backup does not parse: %s\n%s\n", error2.c_str(),
                 again.c_str());
    std::abort();
  }
  FUZZ_CHECK(meta2 == meta);
  FUZZ_CHECK(back.size() == tree.size());
  for (size_t i = 0; i < back.size(); ++i) {
    FUZZ_CHECK(back[i].name == tree[i].name);
    FUZZ_CHECK(back[i].has_value == tree[i].has_value);
    FUZZ_CHECK(back[i].bytes == tree[i].bytes);
  }
  return 0;
}
