// Named-lock service: exclusion across processes and across handles of one
// process, writers before later readers, the writes made under a lock, names
// of any shape, clean-up, and whose the lock directory is.
#include "lock_holder.h"
#include "testkit.h"

#include "hvsadm.h"
#include "hvsapi.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

using namespace testkit;
namespace fs = std::filesystem;

namespace {

const char *kName = "FLTM.DATABASE.DATABASES.sales";
const std::string kEnabled = "DATABASE.DATABASES.sales.ENABLED";
const std::string kRole = "DATABASE.DATABASES.sales.ROLE";

void *open_registry() {
  void *h = nullptr;
  uint64_t len = 0;
  EXPECT_EQ(hvsapi_init_ext(&h, 3, nullptr, &len, 0), HVS_OK);
  return h;
}

std::string read_text(void *hvs, const std::string &key) {
  void *k = nullptr;
  char buf[64] = "";
  uint32_t type = 0, len = sizeof buf - 1;
  if (hvsapi_open_key(hvs, &k, key.c_str()) != HVS_OK)
    return "(no key)";
  int32_t rc = hvsapi_get_value(hvs, k, &type, buf, &len);
  hvsapi_close_key(hvs, k);
  return rc == HVS_OK ? buf : "(unreadable)";
}

int32_t write_text(void *hvs, const std::string &key, const std::string &value) {
  void *k = nullptr;
  int32_t rc = hvsapi_open_key(hvs, &k, key.c_str());
  if (rc == HVS_OK)
    rc = hvsapi_set_value(hvs, k, HVS_TYPE_TEXT, value.c_str(), uint32_t(value.size() + 1));
  hvsapi_close_key(hvs, k);
  return rc;
}

// A lock file of the directory shows a writer waiting for it: the lock on
// its byte 0 that a writer posts while it waits.
bool writer_waits(const std::string &lock_dir) {
  for (const auto &e : fs::directory_iterator(lock_dir)) {
    int fd = ::open(e.path().c_str(), O_RDONLY | O_CLOEXEC);
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_len = 1;
    bool waits = fd >= 0 && fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
    if (fd >= 0)
      ::close(fd);
    if (waits)
      return true;
  }
  return false;
}

} // namespace

// Another process's hold keeps out the modes it excludes, for the timeout and
// no longer; a share of this process outlives the other's.
TEST_F(LockTest, AnotherProcessExcludesWhatItsModeExcludes) {
  void *h = open(), *h2 = open();
  for (bool held_shared : {false, true}) {
    LockHolder other(kName, held_shared);
    ASSERT_TRUE(other.granted());
    for (bool shared : {false, true}) {
      Attempt a = try_lock(h, kName, shared);
      if (held_shared && shared) {
        EXPECT_EQ(a.code, LKS_OK) << a.text;
        continue;
      }
      EXPECT_EQ(a.code, LKS_ERR_TIMEOUT);
      EXPECT_EQ(a.text, std::string("lock ") + kName +
                            ": not granted within 200 ms (held by another process)");
      EXPECT_TRUE(a.ms >= 190 && a.ms < 2000) << a.ms << " ms";
    }
    EXPECT_EQ(other.release(), 0);
    if (held_shared) {
      EXPECT_EQ(try_lock(h2, kName, false).code, LKS_ERR_TIMEOUT);
      unlock_ok(h, kName);
    }
    Attempt a = try_lock(h2, kName, false);
    EXPECT_EQ(a.code, LKS_OK) << a.text;
    EXPECT_EQ(a.text, "");
    unlock_ok(h2, kName);
  }
  term_ok(h);
  term_ok(h2);
}

// A waiting writer keeps out the readers that come after it, and gets in as
// soon as those that were in when it came have gone.
TEST_F(LockTest, WriterGoesBeforeReadersThatCameAfterIt) {
  void *early = open(), *late = open();
  setenv("LKS_TIMEOUT_MS", "10000", 1);
  void *w = open();
  ASSERT_EQ(try_lock(early, kName, true).code, LKS_OK);
  Attempt a{};
  std::thread writer([&] { a = try_lock(w, kName, false); });
  for (int i = 0; i < 500 && !writer_waits(dir_ + "/reg.db.locks"); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(try_lock(late, kName, true).code, LKS_ERR_TIMEOUT) << "a later reader got in first";
  unlock_ok(early, kName);
  writer.join();
  EXPECT_EQ(a.code, LKS_OK) << a.text;
  EXPECT_LT(a.ms, 5000);
  unlock_ok(w, kName);
  EXPECT_EQ(try_lock(late, kName, true).code, LKS_OK);
  unlock_ok(late, kName);
  for (void *h : {early, late, w})
    term_ok(h);
}

// The writes made under an exclusive lock land together when it is given
// back, and not at all when its holder dies first. Within one process the
// writing handle reads its own writes at once; another thread's write on it
// waits for the release; a handle terminated under the lock commits then; a
// shared lock's write lands at once.
TEST_F(LockTest, WritesUnderAnExclusiveLockLandTogetherAtItsRelease) {
  Registry reg("sqlite:" + dir_ + "/reg.db");
  reg.text(kEnabled, "true");
  reg.text(kRole, "PRIMARY");
  void *lk = open(), *a = open_registry(), *b = open_registry();
  const std::vector<std::string> writes = {kEnabled + "=false", kRole + "=STANDBY"};
  {
    LockHolder dies(kName, false, -1, writes);
    ASSERT_TRUE(dies.granted());
    dies.kill_hard();
  }
  EXPECT_EQ(read_text(b, kEnabled), "true");
  EXPECT_EQ(read_text(b, kRole), "PRIMARY");
  LockHolder lives(kName, false, -1, writes); // the dead holder's lock is free
  ASSERT_TRUE(lives.granted());
  EXPECT_EQ(read_text(b, kRole), "PRIMARY");
  EXPECT_EQ(lives.release(), 0);
  EXPECT_EQ(read_text(b, kEnabled), "false");
  EXPECT_EQ(read_text(b, kRole), "STANDBY");

  ASSERT_EQ(try_lock(lk, kName, false).code, LKS_OK);
  ASSERT_EQ(write_text(a, kEnabled, "one"), HVS_OK);
  EXPECT_EQ(read_text(a, kEnabled), "one");
  EXPECT_EQ(read_text(b, kEnabled), "false");
  std::atomic<bool> other_wrote{false};
  std::thread other([&] {
    EXPECT_EQ(write_text(a, kRole, "other"), HVS_OK);
    other_wrote = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(other_wrote);
  unlock_ok(lk, kName);
  other.join();
  EXPECT_EQ(read_text(b, kEnabled), "one");
  EXPECT_EQ(read_text(b, kRole), "other");

  ASSERT_EQ(try_lock(lk, kName, false).code, LKS_OK);
  ASSERT_EQ(write_text(a, kEnabled, "two"), HVS_OK);
  EXPECT_EQ(hvsapi_terminate(a), HVS_OK);
  EXPECT_EQ(read_text(b, kEnabled), "two");
  unlock_ok(lk, kName);
  ASSERT_EQ(try_lock(lk, kName, true).code, LKS_OK);
  ASSERT_EQ(write_text(b, kEnabled, "shared"), HVS_OK);
  EXPECT_EQ(reg.value(kEnabled), bytes("shared")); // another handle sees it at once
  unlock_ok(lk, kName);
  hvsapi_terminate(b);
  term_ok(lk);
}

// Names of any length and bytes are distinct locks, each one plain file in
// the registry's lock directory and nowhere else.
TEST_F(LockTest, NamesOfAnyShapeStayInsideTheLockDirectoryAndStayDistinct) {
  std::string long_name(5000, 'x'), long_twin(5000, 'x'); // differ only past any prefix
  long_name[4999] = 'y';
  const std::pair<std::string, std::string> cases[] = {
      {long_name, long_twin},
      {"../../escape", "_._.._escape"},
      {"", " "},
      {"DATABASE.NODEAPPS.\xc3\xa9t\xc3\xa9", "DATABASE.NODEAPPS.__t__"},
  };
  void *h1 = open(), *h2 = open();
  for (const auto &[name, twin] : cases) {
    SCOPED_TRACE(name.substr(0, 40));
    ASSERT_EQ(try_lock(h1, name.c_str(), false).code, LKS_OK);
    EXPECT_EQ(try_lock(h2, name.c_str(), false).code, LKS_ERR_TIMEOUT);
    EXPECT_EQ(try_lock(h2, twin.c_str(), false).code, LKS_OK);
    unlock_ok(h2, twin.c_str());
    unlock_ok(h1, name.c_str());
  }
  term_ok(h1);
  term_ok(h2);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
  size_t files = 0;
  for (const auto &e : fs::directory_iterator(dir_ + "/reg.db.locks")) {
    EXPECT_TRUE(e.is_regular_file() && e.path().filename().string().size() < 100) << e.path();
    ++files;
  }
  EXPECT_EQ(files, 2 * std::size(cases));
}

// Holds are counted per name; a handle gives back only its own; its end
// gives back all it held.
TEST_F(LockTest, HoldsAreCountedAndGivenBackAtTheEnd) {
  void *h = open(), *other = open();
  std::vector<std::thread> readers; // two threads of one handle read at once
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] { EXPECT_EQ(try_lock(h, kName, true).code, LKS_OK); });
  for (auto &t : readers)
    t.join();
  unlock_ok(h, kName);
  EXPECT_EQ(try_lock(other, kName, false).code, LKS_ERR_TIMEOUT); // one hold left
  unlock_ok(h, kName);
  EXPECT_EQ(unlock(h, kName), LKS_ERR_NOT_HELD);
  EXPECT_EQ(try_lock(other, kName, false).code, LKS_OK);
  EXPECT_EQ(unlock(h, kName), LKS_ERR_NOT_HELD); // the other handle's

  EXPECT_EQ(try_lock(h, "one", false).code, LKS_OK);
  EXPECT_EQ(try_lock(h, "two", true).code, LKS_OK);
  EXPECT_EQ(try_lock(h, "two", true).code, LKS_OK);
  term_ok(h);
  EXPECT_EQ(try_lock(other, "one", false).code, LKS_OK);
  EXPECT_EQ(try_lock(other, "two", false).code, LKS_OK);
  term_ok(other);
}

TEST_F(LockTest, EngineFollowsTheRegistryLocation) {
  // In-memory registries lock in a private directory under TMPDIR.
  setenv("TMPDIR", dir_.c_str(), 1);
  setenv("HVS_REGISTRY", "mem:locktest", 1);
  void *h1 = open(), *h2 = open();
  EXPECT_EQ(try_lock(h1, kName, false).code, LKS_OK);
  EXPECT_EQ(try_lock(h2, kName, true).code, LKS_ERR_TIMEOUT);
  fs::path mem_dir = fs::path(dir_) / ("hvs-mem-locks-" + std::to_string(getuid()));
  EXPECT_TRUE(fs::is_directory(mem_dir / "locktest"));
  EXPECT_EQ(fs::status(mem_dir).permissions() & fs::perms::all, fs::perms::owner_all);
  term_ok(h1);
  term_ok(h2);
  unsetenv("TMPDIR");

  // A lock directory that cannot be made fails the lock, not the process.
  setenv("HVS_REGISTRY", "sqlite:/proc/no/such/reg.db", 1);
  void *bad = open();
  Attempt a = try_lock(bad, kName, false);
  EXPECT_EQ(a.code, LKS_ERR_SYSTEM);
  EXPECT_NE(a.text.find("/proc/no/such/reg.db.locks"), std::string::npos) << a.text;
  term_ok(bad);
}

// The lock directory beside an SQLite registry is trusted only when it is a
// directory (not a link) of the registry's owner that others cannot write;
// its files are kept from others whatever the umask, so that no other user
// can hold a lock and keep every writer out.
TEST_F(LockTest, LockDirectoryAndFilesAreTheRegistryOwnersOnly) {
  const std::string locks = dir_ + "/reg.db.locks", elsewhere = dir_ + "/elsewhere";
  auto stat_of = [](const std::string &p) {
    struct stat st {};
    EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
    return st;
  };
  void *h = open();
  auto lock_once = [&] {
    EXPECT_EQ(try_lock(h, kName, false).code, LKS_OK);
    unlock_ok(h, kName);
  };
  auto lock_file = [&] {
    fs::directory_iterator it(locks);
    return it == fs::directory_iterator() ? std::string() : it->path().string();
  };
  const bool root = ::geteuid() == 0;

  // Made under umask 000 before the registry exists: this user's, 0770/0660;
  // a file that others could read loses their access.
  mode_t old_umask = ::umask(0);
  lock_once();
  ::umask(old_umask);
  EXPECT_EQ(stat_of(locks).st_mode & 07777, 0770u);
  EXPECT_EQ(stat_of(lock_file()).st_mode & 07777, 0660u);
  ASSERT_EQ(::chmod(lock_file().c_str(), 0644), 0);
  lock_once();
  EXPECT_EQ(stat_of(lock_file()).st_mode & 07777, 0640u);

  const struct {
    const char *why;
    bool link;
    mode_t mode;
    uid_t uid; // -1: this user's
  } cases[] = {{"symbolic link", true, 0770, uid_t(-1)},
               {"writable by others", false, 0777, uid_t(-1)},
               {"owned by uid 65534", false, 0770, 65534}};
  for (const auto &c : cases) {
    if (c.uid != uid_t(-1) && !root)
      continue; // another user is simulated by chown
    fs::remove_all(locks);
    fs::create_directory(c.link ? elsewhere : locks);
    if (c.link)
      fs::create_directory_symlink(elsewhere, locks);
    ASSERT_EQ(::chmod(locks.c_str(), c.mode), 0);
    ASSERT_EQ(::lchown(locks.c_str(), c.uid, gid_t(-1)), 0);
    Attempt a = try_lock(h, kName, false);
    EXPECT_EQ(a.code, LKS_ERR_SYSTEM);
    EXPECT_NE(a.text.find(c.why), std::string::npos) << a.text;
    EXPECT_TRUE(fs::is_empty(c.link ? elsewhere : locks)) << "nothing made in it";
  }
  fs::remove(locks);

  // Root locking for another user's registry hands the directory and the
  // files to that user and the registry's group.
  if (root) {
    const std::string reg = dir_ + "/reg.db";
    ASSERT_TRUE(std::ofstream(reg).good());
    ASSERT_EQ(::chmod(reg.c_str(), 0600), 0);
    ASSERT_EQ(::chown(reg.c_str(), 65534, 65534), 0);
    lock_once();
    for (const auto &[path, mode] : {std::pair{locks, 0700u}, std::pair{lock_file(), 0600u}}) {
      struct stat st = stat_of(path);
      EXPECT_EQ(std::tuple(st.st_uid, st.st_gid, st.st_mode & 07777),
                std::tuple(65534u, 65534u, mode))
          << path;
    }
  }
  term_ok(h);
}
