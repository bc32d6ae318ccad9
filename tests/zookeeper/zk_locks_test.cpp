// Named locks on ZooKeeper across processes: exclusion, sharing, the order
// of requests, withdrawal on timeout, and writes fenced by a lost lock.
#include "testkit.h"
#include "lock_holder.h"
#include "zk_session.h"

#include <future>
#include <thread>

namespace {

using namespace testkit;

const char *kName = "FLTM.DATABASE.DATABASES.sales";
const char *kSales = "DATABASE.DATABASES.sales";

// A fresh registry on the ensemble holding database "Sales", short lock
// timeouts and short sessions.
class ZooKeeperLocks : public ::testing::Test {
protected:
  void SetUp() override {
    ZK_REQUIRED();
    setenv("HVS_ZK_SESSION_MS", "1500", 1);
    reg_.emplace(fresh_location("locks")); // LKS_TIMEOUT_MS=300
    reg_->text(kSales, "Sales");
  }
  void TearDown() override {
    for (const char *e : {"HVS_REGISTRY", "LKS_TIMEOUT_MS", "HVS_ZK_SESSION_MS"})
      unsetenv(e);
  }
  std::optional<Registry> reg_;
};

// An exclusive holder keeps out both modes, and a request that timed out
// is withdrawn: once the holder goes, nobody waits behind it. Readers share
// the lock; a writer queues behind them, and a reader that comes later
// queues behind the writer rather than overtaking it. Names are
// independent, whatever their shape.
TEST_F(ZooKeeperLocks, ExclusionSharingAndTheOrderOfRequests) {
  void *h = open_ok(), *other = open_ok();
  {
    LockHolder child(kName, false);
    ASSERT_TRUE(child.granted());
    for (bool shared : {false, true}) {
      Attempt a = try_lock(h, kName, shared);
      EXPECT_EQ(LKS_ERR_TIMEOUT, a.code) << shared;
      EXPECT_NE(std::string::npos, a.text.find("withdrawn")) << a.text;
      EXPECT_TRUE(a.ms >= 290 && a.ms < 3000) << a.ms;
    }
    EXPECT_EQ(0, child.release());
  }
  // Behind a request left over, the reader or the writer would wait.
  LockHolder reader(kName, true);
  ASSERT_TRUE(reader.granted());
  EXPECT_EQ(LKS_OK, try_lock(h, kName, true).code);
  setenv("LKS_TIMEOUT_MS", "5000", 1);
  void *patient = open_ok();
  auto writer = std::async(std::launch::async, [&] { return try_lock(patient, kName, false); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  Attempt late = try_lock(other, kName, true);
  EXPECT_EQ(LKS_ERR_TIMEOUT, late.code);
  EXPECT_NE(std::string::npos, late.text.find("exclusive request")) << late.text;
  // Both readers go; the writer is woken, well before its timeout.
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(0, reader.release());
  unlock_ok(h, kName);
  Attempt w = writer.get();
  EXPECT_EQ(LKS_OK, w.code) << w.text;
  EXPECT_LT(ms_since(t0), 2000);
  unlock_ok(patient, kName);
  EXPECT_EQ(LKS_OK, try_lock(h, "a/b c.%41", false).code);
  EXPECT_EQ(LKS_OK, try_lock(other, "a/b c.A", false).code);
  for (void *handle : {h, other, patient})
    term_ok(handle);
}

// A holder whose lock request goes while it holds the lock, with its
// session as it stops answering, or deleted by an administrator under a
// live session: the write it makes then is refused by the ensemble itself,
// even when the holder has not heard of the loss, and never lands, and its
// release reports the loss instead of it believing it held the lock
// throughout. A session gone, another process gets the lock meanwhile.
TEST_F(ZooKeeperLocks, WriteUnderALostLockNeverLandsAndTheReleaseSaysSo) {
  for (bool expiry : {true, false}) {
    setenv("LOCK_HOLDER_WRITE", "DATABASE.DATABASES.sales=late", 1);
    LockHolder child(kName, false);
    unsetenv("LOCK_HOLDER_WRITE");
    ASSERT_TRUE(child.granted());
    void *other = nullptr;
    if (expiry) {
      child.signal(SIGSTOP);
      setenv("LKS_TIMEOUT_MS", "8000", 1);
      other = open_ok();
      Attempt a = try_lock(other, kName, false);
      EXPECT_EQ(LKS_OK, a.code) << a.text;
      child.signal(SIGCONT);
    } else {
      int zrc = 0;
      std::string why, loc = reg_->location();
      auto admin = hvs::zk::Session::open(hvs::zk::Settings::from_env(ensemble()), zrc, why);
      ASSERT_TRUE(admin) << why;
      const std::string queue = loc.substr(loc.find('/', 5)) + "/locks/" + hvs::zk::encode(kName);
      std::vector<std::string> nodes;
      ASSERT_EQ(ZOK, admin->children(queue, nodes));
      ASSERT_EQ(1u, nodes.size());
      ASSERT_EQ(ZOK, admin->remove(queue + "/" + nodes[0]));
    }
    EXPECT_EQ(LKS_ERR_LOST + 16, child.release())
        << (expiry ? "expiry" : "deletion")
        << ": the write must be refused as made under a lost lock, the unlock report the loss";
    EXPECT_EQ(bytes("Sales"), reg_->value(kSales));
    if (other != nullptr) {
      unlock_ok(other, kName);
      term_ok(other);
    }
  }
}

} // namespace
