// The embedded engine: one SQLite file in WAL mode, shared by any number of
// processes. Each key is a row; the full path is unique and indexed, so an
// open is one lookup that also fetches the value, and (parent, component)
// is unique and indexed, so children come out in byte order of the
// component. Paths and components are BLOBs: SQLite compares them with
// memcmp. A NULL value is "no value"; X'' is an empty one.
#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hvs/backend.h"
#include "wal_index.h"

namespace hvs {
namespace {

constexpr int kFormatVersion = 1;
constexpr int kBusyTimeoutMs = 10000;

constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS hvs_format(version INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS hvs_property(name TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS hvs_key(
  id        INTEGER PRIMARY KEY,
  parent    INTEGER NOT NULL,          -- 0: a top-level key
  component BLOB NOT NULL,
  path      BLOB NOT NULL UNIQUE,
  type      INTEGER NOT NULL DEFAULT 0,
  value     BLOB,                      -- NULL: the key has no value
  UNIQUE(parent, component));
INSERT INTO hvs_format(version)
  SELECT 1 WHERE NOT EXISTS (SELECT 1 FROM hvs_format);
)sql";

int32_t map_code(int rc) {
  switch (rc & 0xff) {
  case SQLITE_NOTADB:
  case SQLITE_CORRUPT:
    return HVS_ERR_CORRUPT;
  case SQLITE_CANTOPEN:
    return HVS_ERR_UNREACHABLE;
  case SQLITE_NOMEM:
    return HVS_ERR_MEMORY;
  case SQLITE_TOOBIG:
    return HVS_ERR_TOO_LARGE;
  default:
    return HVS_ERR_ENGINE;
  }
}

int bind_bytes(sqlite3_stmt *s, int col, std::string_view b) {
  // A zero-length blob, not NULL, for an empty value.
  if (b.empty())
    return sqlite3_bind_zeroblob(s, col, 0);
  return sqlite3_bind_blob64(s, col, b.data(), b.size(), SQLITE_STATIC);
}

std::string_view column_bytes(sqlite3_stmt *s, int col) {
  const void *p = sqlite3_column_blob(s, col);
  int n = sqlite3_column_bytes(s, col);
  return p ? std::string_view(static_cast<const char *>(p), size_t(n))
           : std::string_view{};
}

// Resets a cached statement on every way out of a call.
class Use {
public:
  explicit Use(sqlite3_stmt *s) : s_(s) {}
  ~Use() {
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }
  Use(const Use &) = delete;
  Use &operator=(const Use &) = delete;
  sqlite3_stmt *get() const { return s_; }

private:
  sqlite3_stmt *s_;
};

enum StmtId {
  kOpen,
  kSetById,
  kChildren,
  kInsert,
  kPutByPath,
  kHasChildren,
  kDeleteOne,
  kDeleteTree,
  kDeleteAll,
  kStmtCount
};

constexpr const char *kSql[kStmtCount] = {
    "SELECT id, type, value FROM hvs_key WHERE path = ?1",
    "UPDATE hvs_key SET type = ?2, value = ?3 WHERE id = ?1",
    "SELECT component FROM hvs_key WHERE parent = ?1 ORDER BY component",
    "INSERT INTO hvs_key(parent, component, path, type, value) "
    "VALUES(?1, ?2, ?3, ?4, ?5)",
    "UPDATE hvs_key SET type = ?2, value = ?3 WHERE path = ?1",
    "SELECT 1 FROM hvs_key WHERE parent = ?1 LIMIT 1",
    "DELETE FROM hvs_key WHERE id = ?1",
    "WITH RECURSIVE sub(id) AS (VALUES(?1) UNION ALL "
    "SELECT k.id FROM hvs_key k JOIN sub ON k.parent = sub.id) "
    "DELETE FROM hvs_key WHERE id IN sub",
    "DELETE FROM hvs_key",
};

class SqliteBackend final : public Backend {
public:
  SqliteBackend(sqlite3 *db, std::string loc) : db_(db), loc_(std::move(loc)) {}
  ~SqliteBackend() override {
    for (auto *s : stmts_)
      sqlite3_finalize(s);
    if (in_tx_)
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close_v2(db_);
  }
  SqliteBackend(const SqliteBackend &) = delete;
  SqliteBackend &operator=(const SqliteBackend &) = delete;

  // Checks the schema and prepares every statement.
  Status prepare() {
    sqlite3_stmt *s = nullptr;
    int rc = sqlite3_prepare_v2(db_, "SELECT version FROM hvs_format", -1, &s,
                                nullptr);
    if (rc != SQLITE_OK) {
      Status st = rc == SQLITE_ERROR
                      ? Status::failure(HVS_ERR_CORRUPT,
                                        loc_ + ": no registry in this "
                                               "database (" +
                                            sqlite3_errmsg(db_) + ")")
                      : fail(rc, "cannot read the registry");
      sqlite3_finalize(s);
      return st;
    }
    rc = sqlite3_step(s);
    int version = rc == SQLITE_ROW ? sqlite3_column_int(s, 0) : -1;
    sqlite3_finalize(s);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE)
      return fail(rc, "cannot read the registry format");
    if (version < 1)
      return Status::failure(HVS_ERR_CORRUPT,
                             loc_ + ": registry format version missing");
    if (version > kFormatVersion)
      return Status::failure(
          HVS_ERR_VERSION, loc_ + ": registry format " +
                               std::to_string(version) +
                               " is newer than this client reads (" +
                               std::to_string(kFormatVersion) + ")");
    for (int i = 0; i < kStmtCount; ++i) {
      rc = sqlite3_prepare_v3(db_, kSql[i], -1, SQLITE_PREPARE_PERSISTENT,
                              &stmts_[i], nullptr);
      if (rc != SQLITE_OK)
        return rc == SQLITE_ERROR
                   ? Status::failure(HVS_ERR_CORRUPT,
                                     loc_ + ": registry schema damaged (" +
                                         sqlite3_errmsg(db_) + ")")
                   : fail(rc, "cannot prepare a statement");
    }
    return {};
  }

  Status open_key(std::string_view name, KeyData &out) override {
    out.path.assign(name); // what a write is matched against the locks held by
    if (name.empty()) {    // the root
      out.id = 0;
      out.has_value = false;
      out.type = HVS_TYPE_BINARY;
      out.value.clear();
      return {};
    }
    Use u(stmts_[kOpen]);
    sqlite3_bind_blob64(u.get(), 1, name.data(), name.size(), SQLITE_STATIC);
    int rc = sqlite3_step(u.get());
    if (rc == SQLITE_DONE)
      return no_key(name);
    if (rc != SQLITE_ROW)
      return fail(rc, "open of key " + std::string(name));
    out.id = sqlite3_column_int64(u.get(), 0);
    out.type = uint32_t(sqlite3_column_int64(u.get(), 1));
    out.has_value = sqlite3_column_type(u.get(), 2) != SQLITE_NULL;
    out.value.assign(column_bytes(u.get(), 2));
    return {};
  }

  Status set_value(const KeyData &key, uint32_t type,
                   std::string_view bytes) override {
    if (key.id == 0)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": the root holds no value");
    if (Status st = tx_intact(); !st.ok())
      return st;
    Use u(stmts_[kSetById]);
    sqlite3_bind_int64(u.get(), 1, key.id);
    sqlite3_bind_int64(u.get(), 2, type);
    bind_bytes(u.get(), 3, bytes);
    int rc = sqlite3_step(u.get());
    if (rc != SQLITE_DONE)
      return fail(rc, "write of a value");
    if (sqlite3_changes(db_) == 0)
      return Status::failure(HVS_ERR_NO_KEY,
                             loc_ + ": the key was deleted meanwhile");
    return {};
  }

  Status children(const KeyData &key,
                  std::vector<std::string> &out) override {
    out.clear();
    Use u(stmts_[kChildren]);
    sqlite3_bind_int64(u.get(), 1, key.id);
    int rc;
    while ((rc = sqlite3_step(u.get())) == SQLITE_ROW)
      out.emplace_back(column_bytes(u.get(), 0));
    if (rc != SQLITE_DONE)
      return fail(rc, "listing of subkeys");
    return {};
  }

  Status create_key(std::string_view name, bool has_value, uint32_t type,
                    std::string_view bytes) override {
    if (Status st = tx_intact(); !st.ok())
      return st;
    KeyData parent;
    std::string_view pname = parent_of(name);
    Status st = open_key(pname, parent);
    if (st.code == HVS_ERR_NO_KEY)
      return Status::failure(HVS_ERR_NO_KEY, loc_ + ": parent " +
                                                 std::string(pname) + " of " +
                                                 std::string(name) +
                                                 " does not exist");
    if (!st.ok())
      return st;
    std::string_view comp = last_component(name);
    Use u(stmts_[kInsert]);
    sqlite3_bind_int64(u.get(), 1, parent.id);
    sqlite3_bind_blob64(u.get(), 2, comp.data(), comp.size(), SQLITE_STATIC);
    sqlite3_bind_blob64(u.get(), 3, name.data(), name.size(), SQLITE_STATIC);
    sqlite3_bind_int64(u.get(), 4, has_value ? type : HVS_TYPE_BINARY);
    if (has_value)
      bind_bytes(u.get(), 5, bytes);
    int rc = sqlite3_step(u.get());
    if (rc == SQLITE_CONSTRAINT || (rc & 0xff) == SQLITE_CONSTRAINT)
      return Status::failure(HVS_ERR_EXISTS, loc_ + ": key " +
                                                 std::string(name) +
                                                 " exists already");
    if (rc != SQLITE_DONE)
      return fail(rc, "creation of key " + std::string(name));
    return {};
  }

  Status put_value(std::string_view name, bool has_value, uint32_t type,
                   std::string_view bytes) override {
    if (Status st = tx_intact(); !st.ok())
      return st;
    Use u(stmts_[kPutByPath]);
    sqlite3_bind_blob64(u.get(), 1, name.data(), name.size(), SQLITE_STATIC);
    sqlite3_bind_int64(u.get(), 2, has_value ? type : HVS_TYPE_BINARY);
    if (has_value)
      bind_bytes(u.get(), 3, bytes);
    int rc = sqlite3_step(u.get());
    if (rc != SQLITE_DONE)
      return fail(rc, "write of key " + std::string(name));
    if (sqlite3_changes(db_) == 0)
      return no_key(name);
    return {};
  }

  Status delete_key(std::string_view name, bool recursive) override {
    if (Status st = tx_intact(); !st.ok())
      return st;
    if (name.empty()) {
      if (!recursive)
        return Status::failure(HVS_ERR_NOT_EMPTY,
                               loc_ + ": the root cannot be deleted");
      return step_done(stmts_[kDeleteAll], "emptying the registry");
    }
    KeyData key;
    Status st = open_key(name, key);
    if (!st.ok())
      return st;
    if (!recursive) {
      Use u(stmts_[kHasChildren]);
      sqlite3_bind_int64(u.get(), 1, key.id);
      int rc = sqlite3_step(u.get());
      if (rc == SQLITE_ROW)
        return Status::failure(HVS_ERR_NOT_EMPTY, loc_ + ": key " +
                                                      std::string(name) +
                                                      " has subkeys");
      if (rc != SQLITE_DONE)
        return fail(rc, "deletion of key " + std::string(name));
    }
    sqlite3_stmt *s = stmts_[recursive ? kDeleteTree : kDeleteOne];
    sqlite3_bind_int64(s, 1, key.id);
    return step_done(s, "deletion of key " + std::string(name));
  }

  Status begin() override {
    if (in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": a transaction is open already");
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
      return fail(rc, "begin of a transaction");
    in_tx_ = true;
    return {};
  }

  Status commit() override {
    if (!in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": commit without a transaction");
    if (Status st = tx_intact(); !st.ok()) {
      in_tx_ = false;
      return st;
    }
    in_tx_ = false;
    int rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      Status st = fail(rc, "commit");
      if (!sqlite3_get_autocommit(db_))
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
      return st;
    }
    return {};
  }

  Status rollback() override {
    if (!in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": rollback without a transaction");
    in_tx_ = false;
    if (sqlite3_get_autocommit(db_))
      return {}; // SQLite rolled it back already
    int rc = sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
      return fail(rc, "rollback");
    return {};
  }

  Status get_property(std::string_view name, std::string &out) override {
    // Registries made before properties existed have no table: nothing set.
    sqlite3_stmt *s = nullptr;
    int rc = sqlite3_prepare_v2(db_, "SELECT value FROM hvs_property WHERE name = ?1", -1, &s,
                                nullptr);
    if (rc != SQLITE_OK) {
      sqlite3_finalize(s);
      return Status::failure(HVS_ERR_NO_KEY, loc_ + ": registry property " +
                                                 std::string(name) + " is not set");
    }
    sqlite3_bind_text(s, 1, name.data(), int(name.size()), SQLITE_STATIC);
    rc = sqlite3_step(s);
    Status st;
    if (rc == SQLITE_ROW)
      out.assign(reinterpret_cast<const char *>(sqlite3_column_text(s, 0)),
                 size_t(sqlite3_column_bytes(s, 0)));
    else if (rc == SQLITE_DONE)
      st = Status::failure(HVS_ERR_NO_KEY,
                           loc_ + ": registry property " + std::string(name) + " is not set");
    else
      st = fail(rc, "read of registry property " + std::string(name));
    sqlite3_finalize(s);
    return st;
  }

  Status set_property(std::string_view name, std::string_view value) override {
    sqlite3_exec(db_, "CREATE TABLE IF NOT EXISTS hvs_property(name TEXT PRIMARY KEY, "
                      "value TEXT NOT NULL)", nullptr, nullptr, nullptr);
    sqlite3_stmt *s = nullptr;
    int rc = sqlite3_prepare_v2(
        db_, "INSERT INTO hvs_property(name, value) VALUES(?1, ?2) "
             "ON CONFLICT(name) DO UPDATE SET value = excluded.value", -1, &s, nullptr);
    if (rc != SQLITE_OK) {
      sqlite3_finalize(s);
      return fail(rc, "write of registry property " + std::string(name));
    }
    sqlite3_bind_text(s, 1, name.data(), int(name.size()), SQLITE_STATIC);
    sqlite3_bind_text(s, 2, value.data(), int(value.size()), SQLITE_STATIC);
    rc = sqlite3_step(s);
    sqlite3_finalize(s);
    if (rc != SQLITE_DONE)
      return fail(rc, "write of registry property " + std::string(name));
    return {};
  }

  // The writes under an exclusive lock are one transaction (hvs/holds.h).
  bool batches_under_lock() const noexcept override { return true; }

  // Changes are told by SQLite's WAL-index header (wal_index.h): any commit,
  // by any connection of any process, moves it.
  bool follow(ChangeSink *sink) override {
    std::string why;
    if (!wal_.open(db_, why))
      return false; // not in WAL mode: no cache
    sink_ = sink;
    return true;
  }

  bool current() override {
    // A transaction open on this connection: its pending writes are seen
    // only through it.
    if (sink_ == nullptr || !sqlite3_get_autocommit(db_))
      return false;
    WalIndex::Header now;
    if (!wal_.read(now))
      return false; // a writer is updating it, or it needs recovery
    if (!(now == seen_)) {
      sink_->changed_all();
      seen_ = now;
    }
    return true;
  }

private:
  // Some failures (a full disk, an I/O error) make SQLite roll the whole
  // transaction back. What follows must not land on its own, outside it.
  Status tx_intact() const {
    if (!in_tx_ || !sqlite3_get_autocommit(db_))
      return {};
    return Status::failure(HVS_ERR_ENGINE, loc_ + ": the transaction was rolled back after an "
                                                  "earlier failure; nothing of it was written");
  }
  Status fail(int rc, const std::string &what) const {
    return Status::failure(map_code(rc), loc_ + ": " + what + ": " +
                                             sqlite3_errmsg(db_));
  }
  Status no_key(std::string_view name) const {
    return Status::failure(HVS_ERR_NO_KEY, loc_ + ": key " +
                                               std::string(name) +
                                               " does not exist");
  }
  Status step_done(sqlite3_stmt *s, const std::string &what) {
    Use u(s);
    int rc = sqlite3_step(s);
    return rc == SQLITE_DONE ? Status{} : fail(rc, what);
  }

  sqlite3 *db_;
  std::string loc_;
  sqlite3_stmt *stmts_[kStmtCount] = {};
  bool in_tx_ = false;
  WalIndex wal_;
  WalIndex::Header seen_{};
  ChangeSink *sink_ = nullptr;
};

Status create_schema(sqlite3 *db, const std::string &loc) {
  // WAL persists in the file; it lets readers run beside one writer.
  sqlite3_exec(db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
  std::string sql = std::string("BEGIN IMMEDIATE;") + kSchema + "COMMIT;";
  char *err = nullptr;
  int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
  if (rc != SQLITE_OK) {
    std::string why = err ? err : sqlite3_errstr(rc);
    sqlite3_free(err);
    if (!sqlite3_get_autocommit(db))
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return Status::failure(map_code(rc),
                           loc + ": cannot create the registry: " + why);
  }
  return {};
}

// A creating open of a file that holds tables of another application
// leaves it alone.
Status refuse_foreign(sqlite3 *db, const std::string &loc) {
  sqlite3_stmt *s = nullptr;
  int rc = sqlite3_prepare_v2(
      db,
      "SELECT name FROM sqlite_master WHERE type IN ('table', 'view') AND "
      "name NOT IN ('hvs_format', 'hvs_property', 'hvs_key') AND "
      "name NOT LIKE 'sqlite\\_%' ESCAPE '\\' ORDER BY name",
      -1, &s, nullptr);
  std::string names;
  if (rc == SQLITE_OK)
    while ((rc = sqlite3_step(s)) == SQLITE_ROW)
      names += (names.empty() ? "" : ", ") +
               std::string(reinterpret_cast<const char *>(sqlite3_column_text(s, 0)));
  sqlite3_finalize(s);
  if (rc != SQLITE_DONE)
    return Status::failure(map_code(rc), loc + ": cannot create the registry: " +
                                             sqlite3_errstr(rc));
  if (names.empty())
    return {};
  return Status::failure(HVS_ERR_EXISTS,
                         loc + ": the file holds tables that are not a registry's (" +
                             names + "); a registry is made only in a new or empty file");
}

// mkdir -p with mode 0770 for each directory made; 0 or the errno.
int make_directories(const std::string &dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    std::string part = dir.substr(0, slash);
    if (!part.empty() && ::mkdir(part.c_str(), 0770) != 0 && errno != EEXIST)
      return errno;
    if (slash == std::string::npos)
      return 0;
  }
}

} // namespace

std::unique_ptr<Backend> open_sqlite(const Location &loc, bool create,
                                     Status &st) {
  const std::string &path = loc.path;
  struct stat sb {};
  const bool existed = ::stat(path.c_str(), &sb) == 0;
  if (!existed) {
    int err = errno;
    if (err != ENOENT || !create) {
      st = Status::failure(HVS_ERR_UNREACHABLE,
                           loc.text + ": " + std::strerror(err));
      return nullptr;
    }
    // A new registry is its owner's and group's only, whatever the umask:
    // directories 0770 and the file 0660 at most (SQLite gives its -wal and
    // -shm files the mode of the file).
    std::string dir = std::filesystem::path(path).parent_path().string();
    if (int e = make_directories(dir); e != 0) {
      st = Status::failure(HVS_ERR_UNREACHABLE,
                           loc.text + ": cannot create directory " + dir +
                               ": " + std::strerror(e));
      return nullptr;
    }
    int fd = ::open(path.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660);
    if (fd < 0 && errno != EEXIST) {
      st = Status::failure(HVS_ERR_UNREACHABLE, loc.text + ": cannot create: " +
                                                    std::strerror(errno));
      return nullptr;
    }
    if (fd >= 0)
      ::close(fd);
  } else if (S_ISDIR(sb.st_mode)) {
    st = Status::failure(HVS_ERR_UNREACHABLE, loc.text + ": is a directory");
    return nullptr;
  }

  sqlite3 *db = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  if (create)
    flags |= SQLITE_OPEN_CREATE;
  int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    st = Status::failure(map_code(rc) == HVS_ERR_ENGINE ? HVS_ERR_UNREACHABLE
                                                        : map_code(rc),
                         loc.text + ": cannot open: " +
                             (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc)));
    sqlite3_close_v2(db);
    return nullptr;
  }
  sqlite3_extended_result_codes(db, 0);
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (create) {
    st = existed && !foreign_location_allowed() ? refuse_foreign(db, loc.text)
                                                : Status{};
    if (st.ok())
      st = create_schema(db, loc.text);
    if (!st.ok()) {
      sqlite3_close_v2(db);
      return nullptr;
    }
  }
  auto backend = std::make_unique<SqliteBackend>(db, loc.text);
  st = backend->prepare();
  if (!st.ok())
    return nullptr;
  return backend;
}

Status sqlite_missing_part(const Location &loc, std::string &part) {
  part.clear();
  for (std::filesystem::path q = loc.path; !q.empty();) {
    struct stat sb {};
    if (::lstat(q.c_str(), &sb) == 0)
      return {};
    if (errno != ENOENT)
      return Status::failure(HVS_ERR_UNREACHABLE, loc.text + ": " + q.string() +
                                                      ": " + std::strerror(errno));
    part = q.string();
    std::filesystem::path up = q.parent_path();
    if (up == q)
      break;
    q = up;
  }
  return {};
}

Status sqlite_remove_created(const Location &loc, const std::string &part) {
  std::string failed;
  for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
    std::string f = loc.path + suffix;
    // (A directory of that name is not the open's.)
    if (::unlink(f.c_str()) != 0 && errno != ENOENT && errno != EISDIR && failed.empty())
      failed = f + ": " + std::strerror(errno);
  }
  // The directories made for the file, innermost first, as far as part.
  if (part != loc.path)
    for (std::filesystem::path d = std::filesystem::path(loc.path).parent_path();
         d.string().size() >= part.size(); d = d.parent_path())
      if (::rmdir(d.c_str()) != 0 || d.string() == part)
        break;
  if (!failed.empty())
    return Status::failure(HVS_ERR_ENGINE, loc.text + ": cannot remove " + failed);
  return {};
}

} // namespace hvs
