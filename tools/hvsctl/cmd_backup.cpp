// hvsctl backup and restore: the whole registry to a file with its metadata,
// and back, atomically and under the writers' locks.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <set>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../common/json_text.h"

#include "command.h"
#include "hvs/registry_file.h"
#include "hvs/backend.h"
#include "hvsadm.h"
#include "lks.h"

namespace hvsctl {
namespace {

constexpr const char *kBackupFormat = kBackupFormatName;

std::string now_utc() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::string host_name() {
  char buf[256] = "";
  if (::gethostname(buf, sizeof buf - 1) != 0)
    return "";
  return buf;
}

// The components directly under prefix ("DATABASE.DATABASES." -> db names).
std::set<std::string> components_under(const Tree &tree,
                                       const std::string &prefix) {
  std::set<std::string> out;
  for (const Entry &e : tree)
    if (e.name.size() > prefix.size() && e.name.starts_with(prefix) &&
        e.name.find('.', prefix.size()) == std::string::npos)
      out.insert(e.name.substr(prefix.size()));
  return out;
}

int do_backup(const std::string &file) {
  Client c;
  if (!c.open())
    return kRegistry;
  Tree tree;
  if (int rc = load_live(c, "", tree))
    return rc;
  uint64_t bytes = 0;
  for (const Entry &e : tree)
    bytes += e.bytes.size();
  std::set<std::string> dbs = components_under(tree, "DATABASE.DATABASES.");
  nlohmann::json meta = {
      {"created", now_utc()},
      {"host", host_name()},
      {"location", c.location()},
      {"tool", "hvsctl"},
      {"key_count", tree.size()},
      {"value_bytes", bytes},
      {"databases", std::vector<std::string>(dbs.begin(), dbs.end())},
  };
  std::string text =
      render_file(tree, kBackupFormat, "\"backup\": " + tools::dump_safe(meta));
  hvs::Location loc = hvs::resolve_location();
  if (int rc = write_atomically(file, text,
                                loc.engine == hvs::Engine::Sqlite ? loc.path : ""))
    return rc;
  // On standard output the backup is all there is.
  if (file != "-")
    fmt::print("backed up {} keys of {} to {}\n", tree.size(), c.location(), file);
  return kOk;
}

// The lock service for the length of a restore: every lock taken is given
// back, and the service closed, on every path.
class Locks {
public:
  ~Locks() {
    for (auto it = held_.rbegin(); it != held_.rend(); ++it) {
      lks_status st{};
      lksunlock(&st, handle_, it->c_str());
    }
    if (handle_ != nullptr) {
      lks_status st{};
      lkssterm(&st, handle_);
    }
  }
  bool start() {
    lks_init_params params{};
    params.alloc = [](void *, uint64_t size) { return std::calloc(1, size); };
    params.release = [](void *, void *mem) { std::free(mem); };
    params.flags = 192;
    lks_version version{2, 1};
    if (lkssinit(&status_, &handle_, &version, &params, 272) != 0) {
      handle_ = nullptr;
      fmt::print(stderr, "hvsctl: restore: cannot start the lock service: "
                         "{}\n",
                 lks_status_text(&status_));
      return false;
    }
    return true;
  }
  bool exclusive(const std::string &name) {
    if (lksmutexlock(&status_, handle_, name.c_str()) != 0) {
      fmt::print(stderr,
                 "hvsctl: restore: lock {} refused: {} (a writer or reader "
                 "holds it; LKS_TIMEOUT_MS sets how long to wait)\n",
                 name, lks_status_text(&status_));
      return false;
    }
    held_.push_back(name);
    return true;
  }

private:
  void *handle_ = nullptr;
  lks_status status_{};
  std::vector<std::string> held_;
};

int do_restore(const std::string &path) {
  const std::string file = path == "-" ? kStdinLabel : path;
  Tree tree;
  std::string meta_text;
  if (int rc = load_file(path, tree, &meta_text))
    return rc;
  if (std::string said = backup_count_mismatch(meta_text, tree.size());
      !said.empty()) {
    fmt::print(stderr,
               "hvsctl: restore: {} holds {} keys but its metadata says "
               "{}: the file is incomplete or was edited\n",
               file, tree.size(), said);
    return kInput;
  }

  Client c;
  if (int rc = c.open_for_write(true))
    return rc;
  Tree live;
  if (int rc = load_live(c, "", live))
    return rc;

  // The locks a writer takes: the branch of all databases and each
  // database's own, for every database before or after the restore; then
  // those of the readers of nodes and storage-manager entries, so that no
  // reader of any branch sees a half-restored tree. Always taken in this
  // order, so two restores cannot deadlock.
  std::set<std::string> names;
  for (const Tree *t : {&live, &tree}) {
    for (const auto &db : components_under(*t, "DATABASE.DATABASES."))
      names.insert("FLTM.DATABASE.DATABASES." + db);
    for (const auto &node : components_under(*t, "DATABASE.NODEAPPS."))
      names.insert("FLTM.DATABASE.NODEAPPS." + node);
    for (const auto &parent : components_under(*t, "DATABASE.VLM."))
      for (const auto &name :
           components_under(*t, "DATABASE.VLM." + parent + "."))
        names.insert("FLTM.VLM.DATABASE.VLM." + parent + "." + name);
  }
  Locks locks;
  if (!locks.start())
    return kLock;
  if (!locks.exclusive("FLTM.DATABASE.DATABASES"))
    return kLock;
  for (const auto &n : names)
    if (!locks.exclusive(n))
      return kLock;

  void *h = c.get();
  if (hvsadm_begin(h) != HVS_OK)
    return c.fail("restore: cannot start the transaction");
  auto abandon = [&](int code) {
    hvsadm_rollback(h);
    return code;
  };
  if (hvsadm_delete_key(h, "", 1) != HVS_OK)
    return abandon(c.fail("restore: cannot empty the registry"));
  for (const Entry &e : tree) {
    int32_t rc = hvsadm_create_key(h, e.name.c_str(), e.has_value ? 1 : 0,
                                   e.bytes.data(), uint32_t(e.bytes.size()));
    if (rc == HVS_ERR_NO_KEY) {
      fmt::print(stderr,
                 "hvsctl: restore: {}: key \"{}\" comes before its parent "
                 "\"{}\"; nothing was changed\n",
                 file, e.name, hvs::parent_of(e.name));
      return abandon(kInput);
    }
    if (rc != HVS_OK)
      return abandon(c.fail(fmt::format("restore: cannot create key \"{}\"",
                                        e.name)));
  }
  c.record_writer();
  if (hvsadm_commit(h) != HVS_OK)
    return c.fail("restore: cannot commit; nothing was changed");
  fmt::print("restored {} keys from {} into {}\n", tree.size(), file,
             c.location());
  return kOk;
}

void register_backup(CLI::App &app, std::vector<Command> &out) {
  static std::string file;
  auto *backup =
      app.add_subcommand("backup", "save the whole registry with metadata");
  backup->add_option("FILE", file, "the backup file to write, - for standard output")
      ->required();
  manual(backup, R"(DESCRIPTION
  Writes every key of the registry to FILE: the export format with the
  format name "hvs-backup" and a "backup" member that records when and from
  where it was taken:
    {"format": "hvs-backup", "version": 1,
     "backup": {"created": "2024-05-01T10:00:00Z", "host": ...,
                "location": "sqlite:/var/lib/hvs/registry.db",
                "tool": "hvsctl", "key_count": 140, "value_bytes": 3120,
                "databases": ["hr", "sales"]},
     "keys": [{"key": ...}, ...]}
  The file is written beside FILE and renamed into place, so FILE is either
  the old file or the complete new one. It gets the group and the mode of
  an SQLite registry file with nothing for others (0600 for other
  registries), whatever the umask. The backup reads one consistent
  snapshot and takes no lock. FILE "-" writes the backup to standard
  output, and nothing else there.

EXIT STATUS
  0 written, 3 registry failure, 10 FILE cannot be written
  (docs/exit-codes.md).)");
  out.push_back({backup, [] { return do_backup(file); }});

  auto *restore = app.add_subcommand(
      "restore", "replace the whole registry with a backup, atomically");
  restore->add_option("FILE", file, "a backup (or an export) file, - for standard input")
      ->required();
  manual(restore, R"(DESCRIPTION
  Replaces every key of the registry with the keys of FILE, in one
  transaction: afterwards the registry holds exactly the file, or, on any
  failure, what it held before. FILE is a backup or a plain export; a
  backup whose key count disagrees with its metadata is refused. FILE "-"
  reads standard input.

  While it writes, restore holds the locks a writer of the library takes,
  exclusively: FLTM.DATABASE.DATABASES, then FLTM.DATABASE.DATABASES.<db>
  for every database in the registry or in FILE; and also the locks that
  readers of nodes and storage-manager entries take, so no client sees a
  half-restored tree. Each lock waits up to LKS_TIMEOUT_MS milliseconds
  (default 10000).

EXIT STATUS
  0 restored, 3 registry failure, 4 a lock was refused (nothing was
  changed), 8 a newer hvsctl wrote the registry, 10 FILE unreadable,
  malformed or incomplete (docs/exit-codes.md).)");
  out.push_back({restore, [] { return creating([] { return do_restore(file); }); }});
}

Family family(&register_backup);

} // namespace
} // namespace hvsctl
