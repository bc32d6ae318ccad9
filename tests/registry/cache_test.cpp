// The registry client's cache (docs/cache.md), against writers it does not
// see coming: another process writing under a lock, one killed in the
// middle, hvsctl, the sqlite3 shell; and its memory bound.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hvsadm.h"
#include "prsr_fault.h"
#include "registry_agent.h"
#include "testkit.h"

namespace {

using testkit::last_error;
using testkit::TempDir;
using Clock = std::chrono::steady_clock;

constexpr const char *kLock = "FLTM.DATABASE.DATABASES.sales";
const std::vector<std::string> kKeys = {"DATABASE.DATABASES.sales.ENABLED",
                                        "DATABASE.DATABASES.sales.ROLE",
                                        "DATABASE.DATABASES.sales.INSTANCE.s1.NODE"};

// The value of name through handle h, "<missing>" or "<error N>".
std::string read(void *h, const std::string &name) {
  void *key = nullptr;
  int32_t rc = hvsapi_open_key(h, &key, name.c_str());
  if (rc == HVS_ERR_NO_KEY)
    return "<missing>";
  if (rc != HVS_OK)
    return "<error " + std::to_string(rc) + ": " + last_error(h) + ">";
  char buf[256];
  uint32_t type = 0, len = sizeof buf;
  rc = hvsapi_get_value(h, key, &type, buf, &len);
  hvsapi_close_key(h, key);
  if (rc != HVS_OK)
    return "<error " + std::to_string(rc) + ">";
  return std::string(buf, len > 0 && buf[len - 1] == '\0' ? len - 1 : len);
}

std::vector<std::string> subkeys(void *h, const std::string &name) {
  std::vector<std::string> out;
  void *key = nullptr;
  if (hvsapi_open_key(h, &key, name.c_str()) != HVS_OK)
    return {"<error>"};
  char buf[256];
  uint32_t len = sizeof buf;
  int32_t left = 0;
  while (hvsapi_enum_subkey(h, key, buf, &len, &left) == HVS_OK) {
    out.emplace_back(buf, len);
    len = sizeof buf;
  }
  hvsapi_close_key(h, key);
  return out;
}

long number(const std::string &v) { return v.empty() || v[0] == '<' ? -1 : std::stol(v); }

// The last round a writer agent finished, lock given back (8 bytes of
// shared memory).
class Published {
public:
  explicit Published(const std::string &path) : path_(path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, 8) != 0)
      std::abort();
    map_ = static_cast<uint64_t *>(::mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ::close(fd);
  }
  ~Published() { ::munmap(map_, 8); }
  long get() const { return long(__atomic_load_n(map_, __ATOMIC_SEQ_CST)); }
  const std::string &path() const { return path_; }

private:
  std::string path_;
  uint64_t *map_;
};

// A registry holding database "sales" (the keys of kKeys at "0"), a
// cached client on it, an uncached one that tells what is stored, and the
// lock service, on the engine of the parameter.
class CacheAgainst : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override {
    static int counter = 0;
    if (zk()) {
      const char *hosts = std::getenv("HVS_TEST_ZK");
      if (hosts == nullptr || *hosts == '\0')
        GTEST_SKIP() << "HVS_TEST_ZK is not set (scripts/zk.sh start)";
      loc_ = std::string("zk://") + hosts + "/prsr-test/cache-" + std::to_string(::getpid()) + "-" +
             std::to_string(++counter);
    } else {
      loc_ = "sqlite:" + dir_.path("registry.db");
    }
    env_ = std::make_unique<testkit::RegistryEnv>(loc_);
    ASSERT_EQ(HVS_OK, hvsadm_open(&adm_, 1, nullptr, nullptr));
    for (const char *k :
         {"DATABASE", "DATABASE.DATABASES", "DATABASE.DATABASES.sales",
          "DATABASE.DATABASES.sales.INSTANCE", "DATABASE.DATABASES.sales.INSTANCE.s1"})
      ASSERT_EQ(HVS_OK, hvsadm_create_key(adm_, k, 0, nullptr, 0)) << last_error(adm_);
    for (const auto &k : kKeys)
      ASSERT_EQ(HVS_OK, hvsadm_create_key(adm_, k.c_str(), 1, "0", 2)) << last_error(adm_);
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h_, 3, nullptr, nullptr, 0));
    setenv("HVS_CACHE", "off", 1);
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&stored_, 3, nullptr, nullptr, 0));
    unsetenv("HVS_CACHE");
    ASSERT_EQ(LKS_OK, testkit::open_handle(&locks_, &st_)) << lks_status_text(&st_);
  }
  void TearDown() override {
    if (locks_ != nullptr)
      lkssterm(&st_, locks_);
    for (void *h : {h_, stored_})
      if (h != nullptr)
        hvsapi_terminate(h);
    if (adm_ != nullptr) {
      if (zk())
        hvsadm_delete_key(adm_, "", 1);
      hvsapi_terminate(adm_);
    }
  }
  bool zk() const { return GetParam() == "zk"; }

  // Under the shared lock: what the cached client reads of every key, and
  // what is stored.
  void read_locked(std::vector<std::string> &cached, std::vector<std::string> &stored) {
    cached.clear();
    stored.clear();
    ASSERT_EQ(LKS_OK, lksshrlock(&st_, locks_, kLock)) << lks_status_text(&st_);
    for (const auto &k : kKeys) {
      cached.push_back(read(h_, k));
      stored.push_back(read(stored_, k));
    }
    ASSERT_EQ(LKS_OK, lksunlock(&st_, locks_, kLock)) << lks_status_text(&st_);
  }

  // A tool wrote value to name: the next read sees it. On ZooKeeper a read
  // without a lock sees another client's write once its notification is in
  // (docs/cache.md), a read under a lock at once.
  void expect_seen(const std::string &name, const std::string &value) {
    if (zk()) {
      ASSERT_EQ(LKS_OK, lksshrlock(&st_, locks_, kLock)) << lks_status_text(&st_);
      EXPECT_EQ(value, read(h_, name)) << name << " under a lock";
      ASSERT_EQ(LKS_OK, lksunlock(&st_, locks_, kLock));
      return;
    }
    EXPECT_EQ(value, read(h_, name)) << name;
  }
  testkit::Result hvsctl(const std::string &args) {
    return testkit::run_shell(dir_, std::string(HVSCTL_PATH) + " " + args);
  }
  hvsadm_cache_info stats() {
    hvsadm_cache_info info{};
    EXPECT_EQ(HVS_OK, hvsadm_cache_stats(h_, &info)) << last_error(h_);
    return info;
  }

  TempDir dir_;
  std::string loc_;
  std::unique_ptr<testkit::RegistryEnv> env_;
  void *adm_ = nullptr, *h_ = nullptr, *stored_ = nullptr, *locks_ = nullptr;
  lks_status st_{};
};

// Thousands of turns of a writer in another process (exclusive lock, every
// key, unlock) and this reader (shared lock, every key) at random moments:
// under the lock the cached values are the stored ones, never older than
// the last round whose lock was given back before the reader asked for
// its own. On SQLite a read without a lock is never older either.
TEST_P(CacheAgainst, ReaderUnderSharedLockSeesEveryWriteOfTheLastWriter) {
  Published pub(dir_.path("published"));
  const int rounds = zk() ? 1000 : 6000; // long enough for 100 turns on a busy machine
  std::vector<std::string> args = {"write", kLock, "1", std::to_string(rounds), pub.path()};
  args.insert(args.end(), kKeys.begin(), kKeys.end());
  RegistryAgent writer(args);
  std::minstd_rand rng(42);
  int checks = 0, failures = 0;
  const auto t0 = Clock::now();
  while (writer.running() && Clock::now() - t0 < std::chrono::seconds(120) && failures < 5) {
    const long before = pub.get();
    if (!zk()) {
      long v = number(read(h_, kKeys[0]));
      if (v < before && ++failures)
        ADD_FAILURE() << "read without lock: " << v << " after round " << before;
    }
    std::vector<std::string> cached, stored;
    read_locked(cached, stored);
    if (HasFatalFailure())
      break;
    if ((cached != stored || cached[0] != cached[1] || cached[0] != cached[2] ||
         number(cached[0]) < before) &&
        ++failures)
      ADD_FAILURE() << "under the lock after round " << before << ": cached " << cached[0] << " "
                    << cached[1] << " " << cached[2] << ", stored " << stored[0] << " " << stored[1]
                    << " " << stored[2];
    ++checks;
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));
  }
  EXPECT_EQ(0, writer.wait());
  EXPECT_EQ(rounds, pub.get());
  EXPECT_GT(checks, 100);
  // With the writer gone, the same reads come from memory. (While it ran,
  // every one of its rounds may have fallen between two of ours.)
  std::vector<std::string> cached, stored;
  read_locked(cached, stored);
  const uint64_t hits = stats().hits;
  read_locked(cached, stored);
  EXPECT_EQ(stored, cached);
  EXPECT_GE(stats().hits, hits + kKeys.size());
}

// A writer killed (SIGKILL) at random moments of its rounds, in the middle
// of a write or of a commit: afterwards every read, under the lock or
// without, gives what is stored.
TEST_P(CacheAgainst, WriterKilledAnywhereLeavesNoStaleRead) {
  Published pub(dir_.path("published"));
  setenv("HVS_ZK_SESSION_MS", "2000", 1); // the dead writer's lock goes with its session
  std::minstd_rand rng(7);
  long next = 1;
  for (int kill = 0; kill < (zk() ? 3 : 12) && !HasFailure(); ++kill) {
    std::vector<std::string> args = {"write", kLock, std::to_string(next),
                                     std::to_string(next + 1000000), pub.path()};
    args.insert(args.end(), kKeys.begin(), kKeys.end());
    RegistryAgent writer(args);
    const auto until = Clock::now() + std::chrono::milliseconds(20 + rng() % 200);
    while (Clock::now() < until) {
      if (zk()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        continue;
      }
      const long before = pub.get();
      EXPECT_GE(number(read(h_, kKeys[0])), before);
    }
    writer.kill_hard();

    std::vector<std::string> cached, stored;
    read_locked(cached, stored);
    EXPECT_EQ(stored, cached) << "under the lock, kill " << kill;
    for (std::size_t i = 0; i < kKeys.size(); ++i)
      EXPECT_EQ(stored[i], read(h_, kKeys[i])) << "without the lock, kill " << kill;
    next = number(stored[0]) + 2;
  }
  unsetenv("HVS_ZK_SESSION_MS");
}

// Writers that are not this client: another handle of this process,
// hvsctl's set, create, delete and restore, and on SQLite its own shell.
// On ZooKeeper the notifications come late, as from a server that lags:
// the reads that must see the writes at once (under a lock, or after a
// write of this process) wait for them, the others need not.
TEST_P(CacheAgainst, OtherWritersAreSeenByTheNextRead) {
  if (zk())
    fault_delay_zk_events(100);
  struct OnTime {
    ~OnTime() { fault_delay_zk_events(0); }
  } on_time;
  const std::string role = kKeys[1], added = "DATABASE.DATABASES.sales.ADDED";
  ASSERT_EQ("0", read(h_, role));
  ASSERT_EQ("<missing>", read(h_, added));
  ASSERT_EQ((std::vector<std::string>{"ENABLED", "INSTANCE", "ROLE"}),
            subkeys(h_, "DATABASE.DATABASES.sales"));
  const uint64_t hits = stats().hits;
  ASSERT_EQ("0", read(h_, role));
  ASSERT_EQ("<missing>", read(h_, added));
  EXPECT_EQ(hits + 2, stats().hits); // held in memory, the absence too

  ASSERT_EQ(HVS_OK, hvsadm_put_value(adm_, role.c_str(), 1, "ADM", 4)) << last_error(adm_);
  EXPECT_EQ("ADM", read(h_, role)); // no lock: a write of this process
  ASSERT_EQ(0, hvsctl("set " + role + " PRIMARY").status);
  expect_seen(role, "PRIMARY");
  ASSERT_EQ(0, hvsctl("create " + added + " yes").status);
  expect_seen(added, "yes");
  EXPECT_EQ((std::vector<std::string>{"ADDED", "ENABLED", "INSTANCE", "ROLE"}),
            subkeys(h_, "DATABASE.DATABASES.sales"));
  ASSERT_EQ(0, hvsctl("backup " + dir_.path("backup.json")).status);
  ASSERT_EQ(0, hvsctl("delete " + added).status);
  expect_seen(added, "<missing>");
  ASSERT_EQ(0, hvsctl("restore " + dir_.path("backup.json")).status);
  expect_seen(added, "yes");
  if (!zk()) {
    std::string db = loc_.substr(std::string("sqlite:").size());
    auto shell = testkit::run_shell(
        dir_, "sqlite3 " + db +
                  " \"UPDATE hvs_key SET value = CAST('SHELL' AS BLOB) || x'00' WHERE path = "
                  "CAST('" +
                  role + "' AS BLOB)\"");
    ASSERT_EQ(0, shell.status) << shell.err;
    expect_seen(role, "SHELL");
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, CacheAgainst, ::testing::Values("sqlite", "zk"),
                         [](const auto &param_info) { return param_info.param; });

// Reading SQLite's index must not cost SQLite its claim on it: a process
// that finds no claim takes the index for abandoned and truncates it, under
// the mappings of every other process (a bus error at their next read).
TEST(Cache, KeepsSqlitesClaimOnItsSharedMemory) {
  TempDir dir;
  testkit::RegistryEnv env("sqlite:" + dir.path("registry.db"));
  void *adm = nullptr, *h = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 1, "v", 2));
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  ASSERT_EQ("v", read(h, "K"));
  ASSERT_EQ("v", read(h, "K"));
  hvsadm_cache_info info{};
  ASSERT_EQ(HVS_OK, hvsadm_cache_stats(h, &info));
  ASSERT_GT(info.hits, 0u); // the index was read

  // Another process asks whether it could take the "last one out" byte of
  // the index (offset 128) for itself.
  const std::string shm = dir.path("registry.db-shm");
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int fd = ::open(shm.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 128;
    fl.l_len = 1;
    ::_exit(fd < 0 ? 2 : ::fcntl(fd, F_GETLK, &fl) != 0 ? 3 : fl.l_type == F_UNLCK ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, WIFEXITED(status) ? WEXITSTATUS(status) : -1)
      << "1: this process no longer holds its claim on " << shm;
  hvsapi_terminate(h);
  hvsapi_terminate(adm);
}

// On by default for every engine, off with HVS_CACHE=off; HVS_CACHE_MB
// bounds it: thousands of keys through a cache of one megabyte read back
// right, twice, and it keeps within the megabyte.
TEST(Cache, StaysWithinItsBoundAndReadsRightThroughEvictions) {
  TempDir dir;
  testkit::RegistryEnv env("sqlite:" + dir.path("registry.db"));
  void *adm = nullptr, *h = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  hvsadm_cache_info info{};
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_cache_stats(adm, &info)); // tools keep none
  const int n = 8000;
  auto value = [](int i) { return std::to_string(i) + std::string(100, 'v'); };
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 0, nullptr, 0));
  for (int i = 0; i < n; ++i) {
    std::string v = value(i);
    ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, ("K.k" + std::to_string(i)).c_str(), 1, v.c_str(),
                                        uint32_t(v.size() + 1)));
  }
  ASSERT_EQ(HVS_OK, hvsadm_commit(adm));

  setenv("HVS_CACHE_MB", "1", 1);
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  unsetenv("HVS_CACHE_MB");
  for (int pass = 0; pass < 2; ++pass)
    for (int i = 0; i < n; ++i)
      ASSERT_EQ(value(i), read(h, "K.k" + std::to_string(i))) << i;
  ASSERT_EQ(HVS_OK, hvsadm_cache_stats(h, &info));
  EXPECT_EQ(1u << 20, info.limit);
  EXPECT_LE(info.bytes, info.limit);
  EXPECT_GT(info.entries, 1000u); // it did keep what fits
  EXPECT_LT(info.entries, uint64_t(n));
  EXPECT_GT(info.evictions, uint64_t(n));
  hvsapi_terminate(h);

  setenv("HVS_CACHE", "off", 1);
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  unsetenv("HVS_CACHE");
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_cache_stats(h, &info));
  hvsapi_terminate(h);
  hvsapi_terminate(adm);

  testkit::RegistryEnv mem("mem:cache-" + std::to_string(::getpid()));
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  EXPECT_EQ(HVS_OK, hvsadm_cache_stats(h, &info));
  hvsapi_terminate(h);
  hvsapi_terminate(adm);
}

} // namespace
