// The fault interposer: each armed countdown fires once, at exactly the
// n-th call of its kind, and the live counts follow the real calls.
#include "hvsapi.h"
#include "testkit.h"
#include "mp.h"
#include "prsr_fault.h"

#include <vector>

using namespace testkit;

namespace {

struct Heap {
  void *ctx;
  void *heap;
};

Heap top_heap() {
  void *meta = plinit(nullptr);
  void **slot = nullptr;
  std::memcpy(&slot, static_cast<char *>(meta) + 24, sizeof slot);
  return {*slot, mptopheap(*slot)};
}

} // namespace

TEST(Fault, AllocCountdownFiresAtNOnceOrFromThenOn) {
  Heap h = top_heap();
  for (int sticky : {0, 1}) {
    SCOPED_TRACE(sticky);
    fault_reset();
    long live = fault_live_blocks();
    fault_arm_alloc(3, sticky);
    std::vector<void *> got;
    for (int i = 0; i < 5; ++i)
      got.push_back(mpcalloc(h.ctx, h.heap, 16, 1, 0, "T", 0));
    EXPECT_NE(got[0], nullptr);
    EXPECT_NE(got[1], nullptr);
    EXPECT_EQ(got[2], nullptr);
    EXPECT_EQ(got[3] == nullptr, sticky == 1);
    EXPECT_EQ(got[4] == nullptr, sticky == 1);
    EXPECT_TRUE(fault_fired());
    EXPECT_EQ(fault_count_alloc(), 5);
    EXPECT_EQ(fault_live_blocks(), live + (sticky ? 2 : 4));
    for (void *p : got)
      mpfree(h.ctx, h.heap, p, 0); // NULL too: not counted
    EXPECT_EQ(fault_live_blocks(), live);
  }
  // Arming past the end: nothing fires.
  fault_reset();
  fault_arm_alloc(10, 0);
  mpfree(h.ctx, h.heap, mpcalloc(h.ctx, h.heap, 8, 1, 0, "T", 0), 0);
  EXPECT_FALSE(fault_fired());
  fault_reset();
  EXPECT_EQ(fault_count_alloc(), 0);
}

TEST(Fault, RegistryCountdownSkipsClosesAndReturnsTheCode) {
  fault_reset();
  fault_arm_registry(3, 77);
  uint32_t type = 0, len = 0;
  void *key = nullptr;
  // Whatever the real client says to a NULL handle, it is not 77.
  EXPECT_NE(hvsapi_open_key(nullptr, &key, "A"), 77);
  hvsapi_close_key(nullptr, nullptr);
  EXPECT_NE(hvsapi_get_value(nullptr, nullptr, &type, nullptr, &len), 77);
  EXPECT_FALSE(fault_fired());
  EXPECT_EQ(hvsapi_set_value(nullptr, nullptr, 3, "x", 2), 77);
  EXPECT_TRUE(fault_fired());
  int32_t remaining = 0;
  char name[8];
  EXPECT_NE(hvsapi_enum_subkey(nullptr, nullptr, name, &len, &remaining), 77);
  EXPECT_EQ(fault_count_registry(), 4);
  EXPECT_EQ(fault_open_keys(), 0);
  fault_reset();
}

class FaultLock : public LockTest {};

TEST_F(FaultLock, LockCountdownFailsWithTimeoutAndHeldCountFollows) {
  void *h = open();
  fault_reset();
  long held = fault_held_locks();
  fault_arm_lock(2);
  lks_status st = fresh_status();
  EXPECT_EQ(lksshrlock(&st, h, "first"), LKS_OK);
  EXPECT_EQ(fault_held_locks(), held + 1);
  EXPECT_EQ(lksmutexlock(&st, h, "second"), LKS_ERR_TIMEOUT);
  EXPECT_EQ(lks_status_code(&st), LKS_ERR_TIMEOUT);
  EXPECT_NE(std::string(lks_status_text(&st)).find("second"), std::string::npos);
  EXPECT_EQ(lksmutexlock(nullptr, h, "third"), LKS_OK);
  EXPECT_TRUE(fault_fired());
  EXPECT_EQ(fault_count_lock(), 3);
  EXPECT_EQ(fault_held_locks(), held + 2);
  EXPECT_EQ(lksunlock(&st, h, "second"), LKS_ERR_NOT_HELD); // not counted
  EXPECT_EQ(lksunlock(&st, h, "first"), LKS_OK);
  EXPECT_EQ(lksunlock(&st, h, "third"), LKS_OK);
  EXPECT_EQ(fault_held_locks(), held);
  EXPECT_EQ(lkssterm(&st, h), LKS_OK);
  fault_reset();
}
