// Named-lock service: exclusion across processes and across handles of one
// process, writers before later readers, the writes made under a lock, names
// of any shape, the status record, and clean-up.
#include "testkit.h"
#include "lock_holder.h"

#include "hvsadm.h"
#include "hvsapi.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace testkit;
namespace fs = std::filesystem;

namespace {

using Holder = LockHolder; // another process, exec'd

const char *kName = "FLTM.DATABASE.DATABASES.sales";
const char *kEnabled = "DATABASE.DATABASES.sales.ENABLED";
const char *kRole = "DATABASE.DATABASES.sales.ROLE";

// The registry of the test, with the two keys the lock kName covers.
void make_registry() {
  void *adm = nullptr;
  uint64_t len = 0;
  ASSERT_EQ(hvsadm_open(&adm, 1, nullptr, &len), HVS_OK);
  for (const char *k : {"DATABASE", "DATABASE.DATABASES", "DATABASE.DATABASES.sales"})
    ASSERT_EQ(hvsadm_create_key(adm, k, 0, nullptr, 0), HVS_OK);
  ASSERT_EQ(hvsadm_create_key(adm, kEnabled, 1, "true", 5), HVS_OK);
  ASSERT_EQ(hvsadm_create_key(adm, kRole, 1, "PRIMARY", 8), HVS_OK);
  hvsapi_terminate(adm);
}

void *open_registry() {
  void *h = nullptr;
  uint64_t len = 0;
  EXPECT_EQ(hvsapi_init_ext(&h, 3, nullptr, &len, 0), HVS_OK);
  return h;
}

std::string read_text(void *hvs, const char *key) {
  void *k = nullptr;
  if (hvsapi_open_key(hvs, &k, key) != HVS_OK)
    return "(no key)";
  char buf[64] = "";
  uint32_t type = 0, len = sizeof buf - 1;
  int32_t rc = hvsapi_get_value(hvs, k, &type, buf, &len);
  hvsapi_close_key(hvs, k);
  return rc == HVS_OK ? buf : "(unreadable)";
}

int32_t write_text(void *hvs, const char *key, const std::string &value) {
  void *k = nullptr;
  int32_t rc = hvsapi_open_key(hvs, &k, key);
  if (rc != HVS_OK)
    return rc;
  rc = hvsapi_set_value(hvs, k, HVS_TYPE_TEXT, value.c_str(), uint32_t(value.size() + 1));
  hvsapi_close_key(hvs, k);
  return rc;
}

// The lock file of kName shows a writer waiting for it (file_lock_engine.cpp:
// a lock on its byte 0 that a writer posts while it waits).
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

TEST_F(LockTest, ExclusiveHolderInAnotherProcessBlocksEveryModeUntilReleased) {
  void *h = open();
  Holder child(kName, false);
  ASSERT_TRUE(child.granted());

  for (bool shared : {false, true}) {
    Attempt a = try_lock(h, kName, shared);
    EXPECT_EQ(a.code, LKS_ERR_TIMEOUT);
    EXPECT_EQ(a.text, std::string("lock ") + kName +
                          ": not granted within 200 ms (held by another process)");
    EXPECT_GE(a.ms, 190);
    EXPECT_LT(a.ms, 2000);
  }
  EXPECT_EQ(child.release(), 0);
  Attempt a = try_lock(h, kName, false);
  EXPECT_EQ(a.code, LKS_OK) << a.text;
  EXPECT_EQ(a.text, "");
  unlock_ok(h, kName);
  term_ok(h);
}

TEST_F(LockTest, SharedHoldersGoTogetherAndKeepWritersOut) {
  Holder reader(kName, true);
  ASSERT_TRUE(reader.granted());
  void *h1 = open();
  void *h2 = open();
  EXPECT_EQ(try_lock(h1, kName, true).code, LKS_OK);
  EXPECT_EQ(try_lock(h2, kName, false).code, LKS_ERR_TIMEOUT);
  EXPECT_EQ(reader.release(), 0);
  // The other process is gone, but h1 of this one still reads.
  EXPECT_EQ(try_lock(h2, kName, false).code, LKS_ERR_TIMEOUT);
  unlock_ok(h1, kName);
  EXPECT_EQ(try_lock(h2, kName, false).code, LKS_OK);
  unlock_ok(h2, kName);
  term_ok(h1);
  term_ok(h2);
}

// Readers that hold the lock by turns, never all letting go at once, do not
// keep a writer out: it waits for those in when it came, and no reader that
// came after it gets in before it.
TEST_F(LockTest, WriterGoesBeforeReadersThatCameAfterIt) {
  setenv("LKS_TIMEOUT_MS", "10000", 1);
  std::atomic<long> clock{0}; // orders the events of all threads
  struct Read {
    long came, got;
  };
  std::mutex mu;
  std::vector<Read> reads;
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i)
    readers.emplace_back([&, i] {
      void *h = open();
      std::this_thread::sleep_for(std::chrono::milliseconds(12 * i));
      for (int n = 0; n < 500 && !stop; ++n) {
        long came = clock++;
        if (try_lock(h, kName, true).code != LKS_OK)
          break;
        long got = clock++;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        unlock_ok(h, kName);
        std::lock_guard lock(mu);
        reads.push_back({came, got});
      }
      term_ok(h);
    });
  auto done_reads = [&] {
    std::lock_guard lock(mu);
    return reads.size();
  };
  for (int i = 0; i < 500 && done_reads() < 8; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));

  void *w = open();
  Attempt a{};
  std::atomic<long> got{-1};
  std::thread writer([&] {
    a = try_lock(w, kName, false);
    got = clock++;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (a.code == LKS_OK)
      unlock_ok(w, kName);
  });
  for (int i = 0; i < 5000 && !writer_waits(dir_ + "/reg.db.locks") && got < 0; ++i)
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  long waiting = clock++;
  writer.join();
  stop = true;
  for (auto &t : readers)
    t.join();
  term_ok(w);

  ASSERT_EQ(a.code, LKS_OK) << a.text;
  ASSERT_LT(waiting, got) << "the writer was not seen waiting";
  size_t later = 0;
  for (const Read &r : reads)
    if (r.came > waiting) {
      ++later;
      EXPECT_GT(r.got, got) << "a reader that came after the writer got in first";
    }
  EXPECT_GT(later, 0u);
}

// The writes made under an exclusive lock land together when it is given
// back, and not at all when its holder dies first.
TEST_F(LockTest, WritesUnderAnExclusiveLockLandTogetherAtItsRelease) {
  make_registry();
  void *reader = open_registry();
  const std::vector<std::string> writes = {std::string(kEnabled) + "=false",
                                           std::string(kRole) + "=STANDBY"};
  {
    Holder dies(kName, false, -1, writes);
    ASSERT_TRUE(dies.granted());
    EXPECT_EQ(read_text(reader, kEnabled), "true");
    dies.kill_hard();
  }
  EXPECT_EQ(read_text(reader, kEnabled), "true");
  EXPECT_EQ(read_text(reader, kRole), "PRIMARY");
  void *h = open();
  EXPECT_EQ(try_lock(h, kName, false).code, LKS_OK); // the dead holder's lock is free
  unlock_ok(h, kName);
  term_ok(h);

  Holder lives(kName, false, -1, writes);
  ASSERT_TRUE(lives.granted());
  EXPECT_EQ(read_text(reader, kRole), "PRIMARY");
  EXPECT_EQ(lives.release(), 0);
  EXPECT_EQ(read_text(reader, kEnabled), "false");
  EXPECT_EQ(read_text(reader, kRole), "STANDBY");
  hvsapi_terminate(reader);
}

// Within one process: the writing handle reads its own writes at once,
// other handles at the release; a shared lock's write lands at once;
// another thread's write on the handle waits for the release; a handle
// terminated under the lock commits then; an explicit transaction of the
// handle takes the writes in.
TEST_F(LockTest, WritesUnderALockFromOneProcess) {
  make_registry();
  void *lk = open();
  void *a = open_registry();
  void *b = open_registry();

  ASSERT_EQ(try_lock(lk, kName, true).code, LKS_OK);
  ASSERT_EQ(write_text(a, kEnabled, "shared"), HVS_OK);
  EXPECT_EQ(read_text(b, kEnabled), "shared");
  unlock_ok(lk, kName);

  ASSERT_EQ(try_lock(lk, kName, false).code, LKS_OK);
  ASSERT_EQ(write_text(a, kEnabled, "one"), HVS_OK);
  EXPECT_EQ(read_text(a, kEnabled), "one");
  EXPECT_EQ(read_text(b, kEnabled), "shared");
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

  ASSERT_EQ(try_lock(lk, kName, false).code, LKS_OK);
  ASSERT_EQ(hvsadm_begin(b), HVS_OK);
  ASSERT_EQ(write_text(b, kEnabled, "three"), HVS_OK);
  ASSERT_EQ(hvsadm_rollback(b), HVS_OK);
  EXPECT_EQ(read_text(b, kEnabled), "two");
  unlock_ok(lk, kName);
  hvsapi_terminate(b);
  term_ok(lk);
}

TEST_F(LockTest, TwoHandlesOfOneProcessExcludeEachOther) {
  void *h1 = open();
  void *h2 = open();
  EXPECT_EQ(try_lock(h1, kName, false).code, LKS_OK);
  EXPECT_EQ(try_lock(h2, kName, false).code, LKS_ERR_TIMEOUT);
  EXPECT_EQ(try_lock(h2, kName, true).code, LKS_ERR_TIMEOUT);
  // A waiter is granted as soon as the holder lets go.
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    unlock_ok(h1, kName);
  });
  Attempt a = try_lock(h2, kName, false);
  releaser.join();
  EXPECT_EQ(a.code, LKS_OK);
  EXPECT_LT(a.ms, 190);
  unlock_ok(h2, kName);
  term_ok(h1);
  term_ok(h2);
}

TEST_F(LockTest, NamesOfAnyShapeStayInsideTheLockDirectoryAndStayDistinct) {
  std::string long_name(5000, 'x');
  long_name[4999] = 'y';
  std::string long_twin(5000, 'x'); // differs only past any prefix
  const std::vector<std::pair<std::string, std::string>> cases = {
      {long_name, long_twin},
      {"../../escape", "_._.._escape"},
      {"a/b", "a_b"},
      {"..", "_."},
      {"", " "},
      {"DATABASE.NODEAPPS.\xc3\xa9t\xc3\xa9", "DATABASE.NODEAPPS.__t__"},
  };
  void *h1 = open();
  void *h2 = open();
  for (const auto &[name, twin] : cases) {
    SCOPED_TRACE(name.substr(0, 40));
    ASSERT_EQ(try_lock(h1, name.c_str(), false).code, LKS_OK);
    EXPECT_EQ(try_lock(h2, name.c_str(), false).code, LKS_ERR_TIMEOUT);
    // Same readable prefix, different name: a different lock.
    EXPECT_EQ(try_lock(h2, twin.c_str(), false).code, LKS_OK);
    unlock_ok(h2, twin.c_str());
    unlock_ok(h1, name.c_str());
  }
  term_ok(h1);
  term_ok(h2);

  // Only the registry's lock directory was written, with one plain file
  // per name.
  std::vector<fs::path> top;
  for (const auto &e : fs::directory_iterator(dir_))
    top.push_back(e.path().filename());
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(top[0], "reg.db.locks");
  size_t files = 0;
  for (const auto &e : fs::directory_iterator(fs::path(dir_) / "reg.db.locks")) {
    EXPECT_TRUE(e.is_regular_file()) << e.path();
    EXPECT_LT(e.path().filename().string().size(), 100u);
    ++files;
  }
  EXPECT_EQ(files, 2 * cases.size());
}

TEST_F(LockTest, UnlockCountsHoldsPerName) {
  void *h = open();
  lks_status st = fresh_status();
  EXPECT_EQ(lksunlock(&st, h, kName), LKS_ERR_NOT_HELD);
  EXPECT_EQ(lks_status_code(&st), LKS_ERR_NOT_HELD);
  EXPECT_NE(std::string(lks_status_text(&st)).find("not held"), std::string::npos);

  // Two threads of one session read under the same name at once.
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] { EXPECT_EQ(try_lock(h, kName, true).code, LKS_OK); });
  for (auto &t : readers)
    t.join();
  unlock_ok(h, kName);
  void *other = open();
  EXPECT_EQ(try_lock(other, kName, false).code, LKS_ERR_TIMEOUT); // one hold left
  unlock_ok(h, kName);
  EXPECT_EQ(lksunlock(&st, h, kName), LKS_ERR_NOT_HELD);
  EXPECT_EQ(try_lock(other, kName, false).code, LKS_OK);
  // A name held by another handle is not this handle's to release.
  EXPECT_EQ(lksunlock(&st, h, kName), LKS_ERR_NOT_HELD);
  term_ok(h);
  term_ok(other);
}

TEST_F(LockTest, TermReleasesEverythingAndGivesTheRecordBack) {
  long before = g_blocks_out;
  void *h1 = open();
  EXPECT_EQ(g_blocks_out, before + 1);
  EXPECT_EQ(try_lock(h1, "one", false).code, LKS_OK);
  EXPECT_EQ(try_lock(h1, "two", true).code, LKS_OK);
  EXPECT_EQ(try_lock(h1, "two", true).code, LKS_OK);
  term_ok(h1);
  EXPECT_EQ(g_blocks_out, before);
  void *h2 = open();
  EXPECT_EQ(try_lock(h2, "one", false).code, LKS_OK);
  EXPECT_EQ(try_lock(h2, "two", false).code, LKS_OK);
  term_ok(h2);
}

TEST_F(LockTest, EngineFollowsTheRegistryLocation) {
  // In-memory registries lock in a private directory under TMPDIR.
  setenv("TMPDIR", dir_.c_str(), 1);
  setenv("HVS_REGISTRY", "mem:locktest", 1);
  void *h1 = open();
  void *h2 = open();
  EXPECT_EQ(try_lock(h1, kName, false).code, LKS_OK);
  EXPECT_EQ(try_lock(h2, kName, true).code, LKS_ERR_TIMEOUT);
  fs::path mem_dir = fs::path(dir_) / ("hvs-mem-locks-" + std::to_string(getuid())) / "locktest";
  EXPECT_TRUE(fs::is_directory(mem_dir));
  EXPECT_EQ(fs::status(mem_dir.parent_path()).permissions() & fs::perms::all,
            fs::perms::owner_all);
  term_ok(h1);
  term_ok(h2);
  unsetenv("TMPDIR");

  // An ensemble that cannot be reached (nothing listens on that loopback
  // port): refused at start, nothing handed out.
  setenv("HVS_REGISTRY", "zk://127.0.0.1:1/hvs", 1);
  setenv("HVS_ZK_TIMEOUT_MS", "500", 1);
  lks_status st = fresh_status();
  void *h = nullptr;
  EXPECT_EQ(open_handle(&h, &st), LKS_ERR_SYSTEM);
  EXPECT_EQ(h, nullptr);
  EXPECT_NE(std::string(lks_status_text(&st)).find("ZooKeeper"), std::string::npos);

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
  auto mode = [](const std::string &p) {
    struct stat st {};
    EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
    return unsigned(st.st_mode & 07777);
  };
  auto only_file = [](const std::string &d) {
    std::vector<std::string> files;
    for (const auto &e : fs::directory_iterator(d))
      files.push_back(e.path());
    EXPECT_EQ(files.size(), 1u) << d;
    return files.empty() ? std::string() : files[0];
  };
  const bool root = ::geteuid() == 0;

  // Made under umask 000 before the registry exists: this user's, 0770/0660.
  mode_t old_umask = ::umask(0);
  void *h = open();
  EXPECT_EQ(try_lock(h, kName, true).code, LKS_OK);
  unlock_ok(h, kName);
  ::umask(old_umask);
  EXPECT_EQ(mode(locks), 0770u);
  const std::string lock_file = only_file(locks);
  EXPECT_EQ(mode(lock_file), 0660u);
  // A file made before files were kept from others loses their access.
  ASSERT_EQ(::chmod(lock_file.c_str(), 0644), 0);
  EXPECT_EQ(try_lock(h, kName, false).code, LKS_OK);
  unlock_ok(h, kName);
  EXPECT_EQ(mode(lock_file), 0640u);

  struct Case {
    const char *what;
    std::function<void()> make;
    const char *why;
    bool needs_root;
  } cases[] = {
      {"a link", [&] { fs::create_directory(elsewhere); fs::create_directory_symlink(elsewhere, locks); },
       "symbolic link", false},
      {"writable by others", [&] { fs::create_directory(locks); ::chmod(locks.c_str(), 0777); },
       "writable by others", false},
      {"another user's", [&] { fs::create_directory(locks); ASSERT_EQ(::chown(locks.c_str(), 65534, 65534), 0); },
       "owned by uid 65534", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    if (c.needs_root && !root)
      continue; // another user is simulated by chown
    fs::remove_all(locks);
    c.make();
    Attempt a = try_lock(h, kName, false);
    EXPECT_EQ(a.code, LKS_ERR_SYSTEM);
    EXPECT_NE(a.text.find(c.why), std::string::npos) << a.text;
    EXPECT_TRUE(fs::is_empty(fs::is_symlink(locks) ? elsewhere : locks)) << "nothing made in it";
  }
  fs::remove(locks);

  // Root locking for another user's registry hands the directory and the
  // files to that user and the registry's group.
  if (root) {
    const std::string reg = dir_ + "/reg.db";
    ASSERT_TRUE(std::ofstream(reg).good());
    ASSERT_EQ(::chmod(reg.c_str(), 0600), 0);
    ASSERT_EQ(::chown(reg.c_str(), 65534, 65534), 0);
    EXPECT_EQ(try_lock(h, kName, false).code, LKS_OK);
    unlock_ok(h, kName);
    struct stat st {};
    for (const std::string &p : {locks, only_file(locks)}) {
      ASSERT_EQ(::stat(p.c_str(), &st), 0);
      EXPECT_EQ(st.st_uid, 65534u) << p;
      EXPECT_EQ(st.st_gid, 65534u) << p;
    }
    EXPECT_EQ(mode(locks), 0700u);
    EXPECT_EQ(mode(only_file(locks)), 0600u);
  }
  term_ok(h);
}
