// Named locks on ZooKeeper across processes: exclusion, sharing, the order
// of requests, withdrawal on timeout, and a killed holder's session.
#include "zk_env.h"
#include "lock_holder.h"

#include "lks.h"

#include <csignal>
#include <cstring>
#include <future>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using zktest::ms_since;

lks_status fresh_status() {
  lks_status st;
  std::memset(&st, 0, sizeof st);
  return st;
}

void *open_locks() {
  lks_status st = fresh_status();
  void *h = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = [](void *, uint64_t n) { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  EXPECT_EQ(LKS_OK, lkssinit(&st, &h, &v, &p, 272)) << lks_status_text(&st);
  return h;
}

void close_locks(void *h) {
  lks_status st = fresh_status();
  EXPECT_EQ(LKS_OK, lkssterm(&st, h)) << lks_status_text(&st);
}

struct Attempt {
  int32_t code;
  std::string text;
  long ms;
};

Attempt take(void *h, const char *name, bool shared) {
  lks_status st = fresh_status();
  auto t0 = std::chrono::steady_clock::now();
  int32_t rc = shared ? lksshrlock(&st, h, name) : lksmutexlock(&st, h, name);
  return {rc, lks_status_text(&st), ms_since(t0)};
}

int32_t give(void *h, const char *name) {
  lks_status st = fresh_status();
  return lksunlock(&st, h, name);
}

// A process of its own that takes one lock and holds it until told to go.
class Holder : public LockHolder {
public:
  Holder(const char *name, bool shared) : LockHolder(name, shared) {}
};

const char *kName = "FLTM.DATABASE.DATABASES.sales";

class ZooKeeperLocks : public ::testing::Test {
protected:
  void SetUp() override {
    ZK_REQUIRED();
    setenv("HVS_REGISTRY", zktest::fresh_location("locks").c_str(), 1);
    setenv("LKS_TIMEOUT_MS", "300", 1);
    setenv("HVS_ZK_SESSION_MS", "1500", 1);
  }
  void TearDown() override {
    for (const char *e : {"HVS_REGISTRY", "LKS_TIMEOUT_MS", "HVS_ZK_SESSION_MS"})
      unsetenv(e);
  }
};

TEST_F(ZooKeeperLocks, ExclusiveHolderKeepsOutReadersAndWritersAndTimedOutRequestsAreWithdrawn) {
  Holder child(kName, false);
  ASSERT_TRUE(child.granted());
  void *h = open_locks();
  void *other = open_locks();
  for (bool shared : {false, true}) {
    Attempt a = take(h, kName, shared);
    EXPECT_EQ(LKS_ERR_TIMEOUT, a.code) << shared;
    EXPECT_NE(std::string::npos, a.text.find("not granted within 300 ms")) << a.text;
    EXPECT_NE(std::string::npos, a.text.find("behind the exclusive request")) << a.text;
    EXPECT_NE(std::string::npos, a.text.find("withdrawn")) << a.text;
    EXPECT_GE(a.ms, 290);
    EXPECT_LT(a.ms, 3000);
  }
  EXPECT_EQ(0, child.release());
  // Had a timed-out request stayed in the queue, these would wait behind it.
  EXPECT_EQ(LKS_OK, take(other, kName, true).code);
  EXPECT_EQ(LKS_OK, take(h, kName, true).code);
  EXPECT_EQ(LKS_OK, give(other, kName));
  EXPECT_EQ(LKS_OK, give(h, kName));
  EXPECT_EQ(LKS_OK, take(h, kName, false).code);
  EXPECT_EQ(LKS_OK, give(h, kName));
  // Names are independent, whatever their shape.
  EXPECT_EQ(LKS_OK, take(h, "a/b c.%41", false).code);
  EXPECT_EQ(LKS_OK, take(other, "a/b c.A", false).code);
  close_locks(h);
  close_locks(other);
}

TEST_F(ZooKeeperLocks, SharedHoldersGoTogetherAndAWaitingWriterGoesFirst) {
  Holder reader(kName, true);
  ASSERT_TRUE(reader.granted());
  void *h1 = open_locks();
  void *h2 = open_locks();
  void *h3 = open_locks();
  EXPECT_EQ(LKS_OK, take(h1, kName, true).code);
  // A writer queues behind the two readers; a reader that comes later
  // queues behind the writer rather than overtaking it.
  setenv("LKS_TIMEOUT_MS", "5000", 1);
  void *patient = open_locks();
  auto writer = std::async(std::launch::async, [&] { return take(patient, kName, false); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  Attempt late = take(h2, kName, true);
  EXPECT_EQ(LKS_ERR_TIMEOUT, late.code);
  EXPECT_NE(std::string::npos, late.text.find("exclusive request")) << late.text;
  // Both readers go; the writer is woken, well before its timeout.
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(0, reader.release());
  EXPECT_EQ(LKS_OK, give(h1, kName));
  Attempt w = writer.get();
  EXPECT_EQ(LKS_OK, w.code) << w.text;
  EXPECT_LT(ms_since(t0), 2000);
  EXPECT_EQ(LKS_ERR_TIMEOUT, take(h3, kName, true).code);
  EXPECT_EQ(LKS_OK, give(patient, kName));
  EXPECT_EQ(LKS_OK, take(h3, kName, true).code);
  EXPECT_EQ(LKS_OK, give(h3, kName));
  for (void *h : {h1, h2, h3, patient})
    close_locks(h);
}

TEST_F(ZooKeeperLocks, KilledHolderReleasesWhenItsSessionExpires) {
  Holder child(kName, false);
  ASSERT_TRUE(child.granted());
  child.kill_hard();
  void *h = open_locks();
  // Its session outlives it for up to the session timeout (1.5 s here)...
  EXPECT_EQ(LKS_ERR_TIMEOUT, take(h, kName, false).code);
  // ...and then its request goes, and a waiter is woken by it.
  setenv("LKS_TIMEOUT_MS", "8000", 1);
  void *patient = open_locks();
  Attempt a = take(patient, kName, false);
  EXPECT_EQ(LKS_OK, a.code) << a.text;
  EXPECT_LT(a.ms, 6000);
  EXPECT_EQ(LKS_OK, give(patient, kName));
  close_locks(h);
  close_locks(patient);
}

TEST_F(ZooKeeperLocks, UnlockOfANameNotHeldIsRefused) {
  void *h = open_locks();
  EXPECT_EQ(LKS_ERR_NOT_HELD, give(h, kName));
  EXPECT_EQ(LKS_OK, take(h, kName, false).code);
  EXPECT_EQ(LKS_OK, give(h, kName));
  EXPECT_EQ(LKS_ERR_NOT_HELD, give(h, kName));
  close_locks(h);
}

} // namespace
