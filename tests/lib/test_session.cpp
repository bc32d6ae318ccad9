/* Session life cycle and tagged memory. */
#include "lks.h"
#include "mp.h"
#include "testkit.h"
#include "util/umem.h"

using namespace testkit;

/* A session with its own lock service, and one that borrows a lock
 * service: that one outlives the session, still usable by its owner. A
 * start-up that fails leaves nothing: no memory for the context (the first
 * block), an unreachable registry, or the lock service's own allocation
 * through our callbacks (the second). */
TEST(Session, StartsAndEnds) {
  Registry reg;
  Held before = Held::now();
  lks_status st{};
  void *lock = open_ok();
  for (void *lent : {static_cast<void *>(nullptr), lock}) {
    prsr_ctx *ctx = nullptr;
    ASSERT_EQ(PRSR_SUCCESS, prsr_init_ext(lent ? nullptr : &st, &ctx, lent));
    EXPECT_EQ(lent ? 0u : 1u, ctx->owns_lock_service);
    EXPECT_NE(nullptr, ctx->lock_handle);
    EXPECT_TRUE(lent == nullptr || lent == ctx->lock_handle);
    EXPECT_EQ(PRSR_SUCCESS, prsr_terminate(&st, ctx));
  }
  EXPECT_EQ(LKS_OK, try_lock(lock, "FLTM.test", false).code);
  unlock_ok(lock, "FLTM.test");
  term_ok(lock);
  for (auto [alloc, want] : {std::pair{1, PRSR_ERR_MEMORY}, std::pair{0, PRSR_ERR_REGISTRY},
                             std::pair{2, PRSR_ERR_LOCK}}) {
    if (alloc)
      fault_arm_alloc(alloc, 0);
    else
      setenv("HVS_REGISTRY", ("sqlite:" + reg.dir() + "/missing/none.db").c_str(), 1);
    prsr_ctx *ctx = reinterpret_cast<prsr_ctx *>(0x1);
    EXPECT_EQ(want, prsr_init(&st, &ctx));
    fault_reset();
    setenv("HVS_REGISTRY", reg.location().c_str(), 1);
    EXPECT_EQ(nullptr, ctx);
  }
  EXPECT_EQ(before, Held::now());
}

/* A block written past its end, and a pointer that is no block, are kept
 * rather than released, and logged. */
TEST(TaggedMemory, DamagedBlocksAreKeptAndLogged) {
  Registry reg;
  Trace trace(reg.dir(), 1);
  void *meta = plinit(nullptr);
  long blocks = fault_live_blocks();
  auto *p = static_cast<unsigned char *>(u_allocm(meta, 8));
  p[8] = 0xAA; /* one byte past the rounded payload */
  u_freem(meta, p);
  EXPECT_EQ(blocks + 1, fault_live_blocks()) << "an overrun block must not be released";
  EXPECT_TRUE(trace.has("u_freem: INVALID HVSU_END_MEMTAG for memory"));
  p[8] = 0x72; /* repair (little-endian low byte of the end tag) and release */
  u_freem(meta, p);
  EXPECT_EQ(blocks, fault_live_blocks());
  unsigned char fake[64] = {0};
  u_freem(meta, fake + 16);
  EXPECT_TRUE(trace.has("u_freem: INVALID HVSU_BEGIN_MEMTAG for memory"));
  u_freem(nullptr, nullptr);
  EXPECT_EQ(nullptr, u_allocm(nullptr, 8));
}
