// Named locks on ZooKeeper across processes: exclusion, sharing, the order
// of requests, withdrawal on timeout, and a killed holder's session.
#include "testkit.h"
#include "lock_holder.h"
#include "hvsadm.h"
#include "hvsapi.h"
#include "zk_session.h"

#include <future>
#include <thread>

namespace {

using namespace testkit;
using testkit::ms_since;
using Holder = LockHolder;

const char *kName = "FLTM.DATABASE.DATABASES.sales";

// The text value of a key, "" when it cannot be read.
std::string value_of(void *reg, const char *name) {
  void *k = nullptr;
  if (hvsapi_open_key(reg, &k, name) != 0)
    return {};
  char buf[256] = {};
  uint32_t type = 0, len = sizeof buf - 1;
  int32_t rc = hvsapi_get_value(reg, k, &type, buf, &len);
  hvsapi_close_key(reg, k);
  return rc == 0 ? std::string(buf) : std::string();
}

class ZooKeeperLocks : public ::testing::Test {
protected:
  void SetUp() override {
    ZK_REQUIRED();
    setenv("HVS_REGISTRY", testkit::fresh_location("locks").c_str(), 1);
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
  void *h = open_ok();
  void *other = open_ok();
  for (bool shared : {false, true}) {
    Attempt a = try_lock(h, kName, shared);
    EXPECT_EQ(LKS_ERR_TIMEOUT, a.code) << shared;
    EXPECT_NE(std::string::npos, a.text.find("not granted within 300 ms")) << a.text;
    EXPECT_NE(std::string::npos, a.text.find("behind the exclusive request")) << a.text;
    EXPECT_NE(std::string::npos, a.text.find("withdrawn")) << a.text;
    EXPECT_GE(a.ms, 290);
    EXPECT_LT(a.ms, 3000);
  }
  EXPECT_EQ(0, child.release());
  // Had a timed-out request stayed in the queue, these would wait behind it.
  EXPECT_EQ(LKS_OK, try_lock(other, kName, true).code);
  EXPECT_EQ(LKS_OK, try_lock(h, kName, true).code);
  EXPECT_EQ(LKS_OK, unlock(other, kName));
  EXPECT_EQ(LKS_OK, unlock(h, kName));
  EXPECT_EQ(LKS_OK, try_lock(h, kName, false).code);
  EXPECT_EQ(LKS_OK, unlock(h, kName));
  // Names are independent, whatever their shape.
  EXPECT_EQ(LKS_OK, try_lock(h, "a/b c.%41", false).code);
  EXPECT_EQ(LKS_OK, try_lock(other, "a/b c.A", false).code);
  term_ok(h);
  term_ok(other);
}

TEST_F(ZooKeeperLocks, SharedHoldersGoTogetherAndAWaitingWriterGoesFirst) {
  Holder reader(kName, true);
  ASSERT_TRUE(reader.granted());
  void *h1 = open_ok();
  void *h2 = open_ok();
  void *h3 = open_ok();
  EXPECT_EQ(LKS_OK, try_lock(h1, kName, true).code);
  // A writer queues behind the two readers; a reader that comes later
  // queues behind the writer rather than overtaking it.
  setenv("LKS_TIMEOUT_MS", "5000", 1);
  void *patient = open_ok();
  auto writer = std::async(std::launch::async, [&] { return try_lock(patient, kName, false); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  Attempt late = try_lock(h2, kName, true);
  EXPECT_EQ(LKS_ERR_TIMEOUT, late.code);
  EXPECT_NE(std::string::npos, late.text.find("exclusive request")) << late.text;
  // Both readers go; the writer is woken, well before its timeout.
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(0, reader.release());
  EXPECT_EQ(LKS_OK, unlock(h1, kName));
  Attempt w = writer.get();
  EXPECT_EQ(LKS_OK, w.code) << w.text;
  EXPECT_LT(ms_since(t0), 2000);
  EXPECT_EQ(LKS_ERR_TIMEOUT, try_lock(h3, kName, true).code);
  EXPECT_EQ(LKS_OK, unlock(patient, kName));
  EXPECT_EQ(LKS_OK, try_lock(h3, kName, true).code);
  EXPECT_EQ(LKS_OK, unlock(h3, kName));
  for (void *h : {h1, h2, h3, patient})
    term_ok(h);
}

TEST_F(ZooKeeperLocks, KilledHolderReleasesWhenItsSessionExpires) {
  Holder child(kName, false);
  ASSERT_TRUE(child.granted());
  child.kill_hard();
  void *h = open_ok();
  // Its session outlives it for up to the session timeout (1.5 s here)...
  EXPECT_EQ(LKS_ERR_TIMEOUT, try_lock(h, kName, false).code);
  // ...and then its request goes, and a waiter is woken by it.
  setenv("LKS_TIMEOUT_MS", "8000", 1);
  void *patient = open_ok();
  Attempt a = try_lock(patient, kName, false);
  EXPECT_EQ(LKS_OK, a.code) << a.text;
  EXPECT_LT(a.ms, 6000);
  EXPECT_EQ(LKS_OK, unlock(patient, kName));
  term_ok(h);
  term_ok(patient);
}

// A holder that stops answering loses its session and with it the lock:
// another process gets the lock, and the holder, resumed, is told so at its
// release instead of believing it held the lock throughout; the write it
// makes under the lost lock is refused by the ensemble and never lands.
TEST_F(ZooKeeperLocks, HolderWhoseSessionExpiredCannotWriteAndIsToldAtRelease) {
  void *reg = nullptr;
  ASSERT_EQ(0, hvsadm_open(&reg, 1, nullptr, nullptr));
  for (const char *k : {"DATABASE", "DATABASE.DATABASES"})
    ASSERT_EQ(0, hvsadm_create_key(reg, k, 0, nullptr, 0));
  ASSERT_EQ(0, hvsadm_create_key(reg, "DATABASE.DATABASES.sales", 1, "Sales", 6));
  setenv("LOCK_HOLDER_WRITE", "DATABASE.DATABASES.sales=late", 1);
  LockHolder child(kName, false);
  unsetenv("LOCK_HOLDER_WRITE");
  ASSERT_TRUE(child.granted());
  child.signal(SIGSTOP);
  setenv("LKS_TIMEOUT_MS", "8000", 1);
  void *other = open_ok();
  Attempt a = try_lock(other, kName, false);
  EXPECT_EQ(LKS_OK, a.code) << a.text;
  child.signal(SIGCONT);
  EXPECT_EQ(LKS_ERR_LOST + 16, child.release())
      << "the write must be refused as made under a lost lock, the unlock report the loss";
  EXPECT_EQ("Sales", value_of(reg, "DATABASE.DATABASES.sales"));
  hvsapi_terminate(reg);
  EXPECT_EQ(LKS_OK, unlock(other, kName));
  term_ok(other);
}

// The ensemble itself refuses a write whose lock request is gone, even when
// the writer has not heard of the loss: here an administrator deleted the
// request node under a live session.
TEST_F(ZooKeeperLocks, WriteUnderALockWhoseRequestIsGoneNeverLands) {
  const std::string loc = std::getenv("HVS_REGISTRY");
  const std::string root = loc.substr(loc.find('/', 5));
  void *reg = nullptr;
  ASSERT_EQ(0, hvsadm_open(&reg, 1, nullptr, nullptr));
  for (const char *k : {"DATABASE", "DATABASE.DATABASES"})
    ASSERT_EQ(0, hvsadm_create_key(reg, k, 0, nullptr, 0));
  ASSERT_EQ(0, hvsadm_create_key(reg, "DATABASE.DATABASES.sales", 1, "Sales", 6));
  void *h = open_ok();
  ASSERT_EQ(LKS_OK, try_lock(h, kName, false).code);

  int zrc = 0;
  std::string why;
  auto admin = hvs::zk::Session::open(hvs::zk::Settings::from_env(testkit::ensemble()), zrc, why);
  ASSERT_TRUE(admin) << why;
  const std::string queue = root + "/locks/" + hvs::zk::encode(kName);
  std::vector<std::string> nodes;
  ASSERT_EQ(ZOK, admin->children(queue, nodes));
  ASSERT_EQ(1u, nodes.size());
  ASSERT_EQ(ZOK, admin->remove(queue + "/" + nodes[0]));

  void *k = nullptr;
  ASSERT_EQ(0, hvsapi_open_key(reg, &k, "DATABASE.DATABASES.sales"));
  EXPECT_EQ(HVS_ERR_LOCK_LOST, hvsapi_set_value(reg, k, 3, "late", 5));
  hvsapi_close_key(reg, k);
  EXPECT_EQ("Sales", value_of(reg, "DATABASE.DATABASES.sales"));
  EXPECT_EQ(LKS_ERR_LOST, unlock(h, kName));
  hvsapi_terminate(reg);
  term_ok(h);
}

} // namespace
