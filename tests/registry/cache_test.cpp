// The registry client's cache (docs/cache.md), against writers it does not
// see coming: another process writing under a lock, one killed in the
// middle, hvsctl, the sqlite3 shell; and its memory bound.
#include <fcntl.h>
#include <sys/mman.h>

#include <random>
#include <thread>

#include "registry_agent.h"
#include "testkit.h"

namespace {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr const char *kLock = "FLTM.DATABASE.DATABASES.sales";
const Strings kKeys = {"DATABASE.DATABASES.sales.ENABLED", "DATABASE.DATABASES.sales.ROLE",
                       "DATABASE.DATABASES.sales.INSTANCE.s1.NODE"};

// The value of name through handle h, "<missing>" or "<error N>".
std::string read(void *h, const std::string &name) {
  void *key = nullptr;
  char buf[256];
  uint32_t type = 0, len = sizeof buf;
  int32_t rc = hvsapi_open_key(h, &key, name.c_str());
  if (rc == HVS_OK) {
    rc = hvsapi_get_value(h, key, &type, buf, &len);
    hvsapi_close_key(h, key);
  }
  if (rc != HVS_OK)
    return rc == HVS_ERR_NO_KEY ? "<missing>" : "<error " + std::to_string(rc) + ">";
  return std::string(buf, len > 0 && buf[len - 1] == '\0' ? len - 1 : len);
}

Strings subkeys(void *h, const std::string &name) {
  Strings out;
  void *key = nullptr;
  char buf[256];
  if (hvsapi_open_key(h, &key, name.c_str()) != HVS_OK)
    return {"<error>"};
  int32_t left = 0;
  for (uint32_t len = sizeof buf; hvsapi_enum_subkey(h, key, buf, &len, &left) == HVS_OK;
       len = sizeof buf)
    out.emplace_back(buf, len);
  hvsapi_close_key(h, key);
  return out;
}

long number(const std::string &v) { return v.empty() || v[0] == '<' ? -1 : std::stol(v); }

// A registry holding database "sales" (the keys of kKeys at "0"), a cached
// client on it, an uncached one that tells what is stored, and the lock
// service, on the engine of the parameter.
class CacheAgainst : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override {
    if (zk())
      ZK_REQUIRED();
    reg_.emplace(zk() ? testkit::fresh_location("cache") : "");
    unsetenv("LKS_TIMEOUT_MS"); // the default: the writer may be slow on a busy machine
    for (const auto &k : kKeys)
      reg_->text(k, "0");
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h_, 3, nullptr, nullptr, 0));
    setenv("HVS_CACHE", "off", 1);
    ASSERT_EQ(HVS_OK, hvsapi_init_ext(&stored_, 3, nullptr, nullptr, 0));
    unsetenv("HVS_CACHE");
    hvsadm_cache_info info{};
    ASSERT_EQ(HVS_ERR_ARGUMENT, hvsadm_cache_stats(stored_, &info)) << "HVS_CACHE=off keeps none";
    ASSERT_EQ(LKS_OK, testkit::open_handle(&locks_, &st_)) << lks_status_text(&st_);
    // The last round a writer agent finished, lock given back.
    dir_.write("published", std::string(8, '\0'));
    int fd = ::open(dir_.path("published").c_str(), O_RDWR | O_CLOEXEC);
    void *map = ::mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(MAP_FAILED, map);
    published_ = static_cast<uint64_t *>(map);
  }
  void TearDown() override {
    if (published_ != nullptr)
      ::munmap(published_, 8);
    if (locks_ != nullptr)
      lkssterm(&st_, locks_);
    for (void *h : {h_, stored_})
      if (h != nullptr)
        hvsapi_terminate(h);
    unsetenv("HVS_REGISTRY");
  }
  bool zk() const { return GetParam() == "zk"; }
  long published() const { return long(__atomic_load_n(published_, __ATOMIC_SEQ_CST)); }

  // Under the shared lock: what the cached client reads of every key, and
  // what is stored.
  void read_locked(Strings &cached, Strings &stored) {
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
    EXPECT_TRUE(!zk() || lksshrlock(&st_, locks_, kLock) == LKS_OK) << lks_status_text(&st_);
    EXPECT_EQ(value, read(h_, name)) << name;
    EXPECT_TRUE(!zk() || lksunlock(&st_, locks_, kLock) == LKS_OK) << lks_status_text(&st_);
  }
  int hvsctl(const std::string &args) {
    return testkit::run_shell(dir_, std::string(HVSCTL_PATH) + " " + args).status;
  }
  uint64_t hits() {
    hvsadm_cache_info info{};
    EXPECT_EQ(HVS_OK, hvsadm_cache_stats(h_, &info)) << testkit::last_error(h_);
    return info.hits;
  }

  testkit::TempDir dir_;
  std::optional<testkit::Registry> reg_;
  void *h_ = nullptr, *stored_ = nullptr, *locks_ = nullptr;
  lks_status st_{};
  uint64_t *published_ = nullptr;
};

// Writers in another process (exclusive lock, every key, unlock, round
// after round) and this reader (shared lock, every key) at random moments:
// under the lock the cached values are the stored ones, never older than
// the last round whose lock was given back before the reader asked for its
// own; on SQLite not even without the lock. All but the last writer are
// killed (SIGKILL) anywhere, in a write or a commit: afterwards every read,
// under the lock or without, gives what is stored. The last one runs to its
// end, long enough for a hundred turns on a busy machine.
TEST_P(CacheAgainst, ReaderNeverSeesAnOldValueOfALiveOrKilledWriter) {
  setenv("HVS_ZK_SESSION_MS", "2000", 1); // a killed writer's lock goes with its session
  const int kills = zk() ? 3 : 12, rounds = zk() ? 1000 : 6000;
  std::minstd_rand rng(42);
  int checks = 0;
  long next = 1;
  Strings cached, stored;
  for (int w = 0; w <= kills && !HasFailure(); ++w) {
    const bool last = w == kills;
    const long end = last ? next + rounds - 1 : next + 1000000;
    Strings args = {"write", kLock, std::to_string(next), std::to_string(end),
                    dir_.path("published")};
    args.insert(args.end(), kKeys.begin(), kKeys.end());
    RegistryAgent writer(args);
    const auto until = Clock::now() + std::chrono::milliseconds(last ? 120000 : 20 + rng() % 200);
    while (writer.running() && Clock::now() < until && !HasFailure()) {
      const long before = published();
      if (!zk()) {
        EXPECT_GE(number(read(h_, kKeys[0])), before) << "without the lock";
      }
      read_locked(cached, stored);
      if (HasFailure())
        break;
      EXPECT_TRUE(cached == stored && cached == Strings(kKeys.size(), stored[0]) &&
                  number(stored[0]) >= before)
          << "under the lock after round " << before << ": cached "
          << testing::PrintToString(cached) << ", stored " << testing::PrintToString(stored);
      ++checks;
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));
    }
    if (last) {
      EXPECT_EQ(0, writer.wait());
      EXPECT_EQ(end, published());
    }
    writer.kill_hard();
    read_locked(cached, stored);
    EXPECT_EQ(stored, cached) << "under the lock, writer " << w;
    for (std::size_t i = 0; i < kKeys.size(); ++i)
      EXPECT_EQ(stored[i], read(h_, kKeys[i])) << "without the lock, writer " << w;
    next = number(stored[0]) + 2;
  }
  unsetenv("HVS_ZK_SESSION_MS");
  EXPECT_GT(checks, 100);
  // With no writer left, the same reads come from memory (while they ran,
  // every one of their rounds may have fallen between two of ours).
  const uint64_t before = hits();
  read_locked(cached, stored);
  EXPECT_EQ(stored, cached);
  EXPECT_GE(hits(), before + kKeys.size());
}

// Writers that are not this client: another handle of this process,
// hvsctl's set, create and delete, and on SQLite its own shell.
// On ZooKeeper the notifications come late, as from a server that lags:
// the reads that must see the writes at once (under a lock, or after a
// write of this process) wait for them, the others need not.
TEST_P(CacheAgainst, OtherWritersAreSeenByTheNextRead) {
  if (zk())
    fault_delay_zk_events(100);
  struct OnTime {
    ~OnTime() { fault_delay_zk_events(0); }
  } on_time;
  const std::string sales = "DATABASE.DATABASES.sales", role = kKeys[1], added = sales + ".ADDED";
  ASSERT_EQ("0", read(h_, role));
  ASSERT_EQ("<missing>", read(h_, added));
  ASSERT_EQ((Strings{"ENABLED", "INSTANCE", "ROLE"}), subkeys(h_, sales));
  const uint64_t before = hits();
  ASSERT_EQ("0", read(h_, role));
  ASSERT_EQ("<missing>", read(h_, added));
  EXPECT_EQ(before + 2, hits()); // held in memory, the absence too

  reg_->text(role, "ADM");
  EXPECT_EQ("ADM", read(h_, role)); // no lock: a write of this process
  ASSERT_EQ(0, hvsctl("set " + role + " PRIMARY"));
  expect_seen(role, "PRIMARY");
  ASSERT_EQ(0, hvsctl("create " + added + " yes"));
  expect_seen(added, "yes");
  EXPECT_EQ((Strings{"ADDED", "ENABLED", "INSTANCE", "ROLE"}), subkeys(h_, sales));
  ASSERT_EQ(0, hvsctl("delete " + added));
  expect_seen(added, "<missing>");
  if (!zk()) {
    auto shell = testkit::run_shell(dir_, "sqlite3 " + reg_->location().substr(7) +
        " \"UPDATE hvs_key SET value = CAST('SHELL' AS BLOB) || x'00' WHERE path = CAST('" +
        role + "' AS BLOB)\"");
    ASSERT_EQ(0, shell.status) << shell.err;
    expect_seen(role, "SHELL");
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, CacheAgainst, ::testing::Values("sqlite", "zk"),
                         [](const auto &param_info) { return param_info.param; });

// HVS_CACHE_MB bounds the cache: thousands of keys through one megabyte
// read back right, twice, and it keeps within the megabyte. Reading
// SQLite's index must not cost SQLite its claim on it: a process that finds
// no claim takes the index for abandoned and truncates it, under the
// mappings of every other process (a bus error at their next read). Tools
// keep no cache.
TEST(Cache, StaysWithinItsBoundAndKeepsSqlitesClaimOnItsIndex) {
  testkit::TempDir dir;
  testkit::RegistryEnv env("sqlite:" + dir.path("registry.db"));
  void *adm = nullptr, *h = nullptr;
  ASSERT_EQ(HVS_OK, hvsadm_open(&adm, 1, nullptr, nullptr));
  hvsadm_cache_info info{};
  EXPECT_EQ(HVS_ERR_ARGUMENT, hvsadm_cache_stats(adm, &info));
  const int n = 8000;
  auto value = [](int i) { return std::to_string(i) + std::string(100, 'v'); };
  ASSERT_EQ(HVS_OK, hvsadm_begin(adm));
  ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, "K", 0, nullptr, 0));
  for (int i = 0; i < n; ++i)
    ASSERT_EQ(HVS_OK, hvsadm_create_key(adm, ("K.k" + std::to_string(i)).c_str(), 1,
                                        value(i).c_str(), uint32_t(value(i).size() + 1)));
  ASSERT_EQ(HVS_OK, hvsadm_commit(adm));
  hvsapi_terminate(adm);

  setenv("HVS_CACHE_MB", "1", 1);
  ASSERT_EQ(HVS_OK, hvsapi_init_ext(&h, 3, nullptr, nullptr, 0));
  unsetenv("HVS_CACHE_MB");
  for (int pass = 0; pass < 2; ++pass)
    for (int i = 0; i < n; ++i)
      ASSERT_EQ(value(i), read(h, "K.k" + std::to_string(i))) << i;
  ASSERT_EQ(HVS_OK, hvsadm_cache_stats(h, &info));
  EXPECT_LE(info.bytes, 1u << 20);
  EXPECT_GT(info.entries, 1000u); // it did keep what fits
  EXPECT_LT(info.entries, uint64_t(n));
  EXPECT_GT(info.evictions, uint64_t(n));

  // Could another process take the "last one out" byte of the index
  // (offset 128) for itself?
  const std::string shm = dir.path("registry.db-shm");
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int fd = ::open(shm.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock fl = {
        .l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 128, .l_len = 1, .l_pid = 0};
    ::_exit(fd < 0 ? 2 : ::fcntl(fd, F_GETLK, &fl) != 0 ? 3 : fl.l_type == F_UNLCK ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, WIFEXITED(status) ? WEXITSTATUS(status) : -1)
      << "1: this process no longer holds its claim on " << shm;
  hvsapi_terminate(h);
}

} // namespace
