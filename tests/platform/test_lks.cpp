// Named-lock service: exclusion across processes and across handles of one
// process, names of any shape, the status record, and clean-up.
#include "lock_env.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace test_platform;
namespace fs = std::filesystem;

namespace {

// A child process that takes one lock and holds it until told to go.
class Holder {
public:
  Holder(const char *name, bool shared) {
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0)
      std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(up[0]);
      close(down[1]);
      lks_status st = fresh_status();
      void *h = nullptr;
      if (open_handle(&h, &st) != LKS_OK)
        _exit(2);
      int32_t rc = shared ? lksshrlock(&st, h, name) : lksmutexlock(&st, h, name);
      char c = rc == LKS_OK ? 'y' : 'n';
      if (write(up[1], &c, 1) != 1 || rc != LKS_OK)
        _exit(3);
      if (read(down[0], &c, 1) != 1) // parent gone or told us to go
        _exit(4);
      _exit(lksunlock(&st, h, name) == LKS_OK && lkssterm(&st, h) == LKS_OK ? 0 : 5);
    }
    close(up[1]);
    close(down[0]);
    char c = 0;
    granted_ = read(up[0], &c, 1) == 1 && c == 'y';
    close(up[0]);
    go_ = down[1];
  }
  ~Holder() {
    if (pid_ > 0)
      kill_hard();
  }
  bool granted() const { return granted_; }
  // Lets the child release and exit; its exit status.
  int release() {
    char c = 'g';
    EXPECT_EQ(write(go_, &c, 1), 1);
    return reap();
  }
  void kill_hard() {
    kill(pid_, SIGKILL);
    reap();
  }

private:
  int reap() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    close(go_);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid_ = -1;
  int go_ = -1;
  bool granted_ = false;
};

const char *kName = "FLTM.DATABASE.DATABASES.sales";

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

TEST_F(LockTest, HolderKilledReleasesItsLocks) {
  void *h = open();
  Holder child(kName, false);
  ASSERT_TRUE(child.granted());
  EXPECT_EQ(try_lock(h, kName, false).code, LKS_ERR_TIMEOUT);
  child.kill_hard();
  EXPECT_EQ(try_lock(h, kName, false).code, LKS_OK);
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

TEST_F(LockTest, BadArgumentsAreRefusedWithoutCrashing) {
  lks_status st = fresh_status();
  void *h = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = counted_alloc;
  p.release = counted_free;
  EXPECT_EQ(lkssinit(&st, &h, &v, &p, 271), LKS_ERR_ARGUMENT);
  EXPECT_NE(std::string(lks_status_text(&st)), "");
  lks_version old{2, 0};
  EXPECT_EQ(lkssinit(&st, &h, &old, &p, 272), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lkssinit(nullptr, &h, &old, &p, 272), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lkssinit(&st, nullptr, &v, &p, 272), LKS_ERR_ARGUMENT);
  lks_init_params no_alloc{};
  EXPECT_EQ(lkssinit(&st, &h, &v, &no_alloc, 272), LKS_ERR_ARGUMENT);
  EXPECT_EQ(h, nullptr);

  void *live = open();
  EXPECT_EQ(lksmutexlock(&st, nullptr, kName), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lksshrlock(&st, live, nullptr), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lksunlock(&st, live, nullptr), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lksmutexlock(nullptr, nullptr, nullptr), LKS_ERR_ARGUMENT);
  EXPECT_EQ(lkssterm(nullptr, nullptr), LKS_ERR_ARGUMENT);
  int not_a_handle[16] = {};
  EXPECT_EQ(lksshrlock(&st, not_a_handle, kName), LKS_ERR_ARGUMENT);
  // A success after a failure clears the record.
  EXPECT_EQ(lksmutexlock(&st, live, kName), LKS_OK);
  EXPECT_EQ(lks_status_code(&st), LKS_OK);
  EXPECT_STREQ(lks_status_text(&st), "");
  EXPECT_EQ(lksunlock(nullptr, live, kName), LKS_OK);
  term_ok(live);
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
