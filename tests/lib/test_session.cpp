/* Session life cycle, tagged memory and record tags. */
#include <cstring>

#include "testkit.h"
#include "lks.h"
#include "mp.h"
#include "util/umem.h"

using namespace testkit;

TEST(Session, OpensAndClosesAndRefusesAClosedOne) {
  Registry reg;
  Held before = Held::now();
  lks_status st{};
  prsr_ctx *ctx = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_init(&st, &ctx));
  ASSERT_NE(nullptr, ctx);
  EXPECT_EQ(0, std::memcmp(ctx->tag, "PRSRCTXA", 9));
  EXPECT_EQ(1u, ctx->owns_lock_service);
  EXPECT_NE(nullptr, ctx->lock_handle);
  EXPECT_EQ(PRSR_SUCCESS, prsr_terminate(&st, ctx));
  /* The cleared block no longer carries the tag (the memory manager has not
   * handed it out again in between). */
  EXPECT_EQ(before, Held::now());
  EXPECT_EQ(PRSR_ERR_SESSION, prsr_terminate(&st, nullptr));
}

TEST(Session, BorrowedLockServiceOutlivesTheSession) {
  Registry reg;
  lks_status st{};
  void *lock = nullptr;
  lks_version v{2, 1};
  lks_init_params params{};
  params.metactx = plinit(nullptr);
  params.alloc = &u_allocm;
  params.release = &u_freem;
  params.flags = 192;
  ASSERT_EQ(0, lkssinit(&st, &lock, &v, &params, 272));

  prsr_ctx *ctx = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_init_ext(nullptr, &ctx, lock));
  EXPECT_EQ(lock, ctx->lock_handle);
  EXPECT_EQ(0u, ctx->owns_lock_service);
  EXPECT_EQ(PRSR_SUCCESS, prsr_terminate(&st, ctx));
  /* Still usable by its owner. */
  EXPECT_EQ(0, lksmutexlock(&st, lock, "FLTM.test"));
  EXPECT_EQ(0, lksunlock(&st, lock, "FLTM.test"));
  lkssterm(&st, lock);
}

TEST(Session, FailedStartUpsLeaveNothing) {
  Registry reg;
  Held before = Held::now();
  lks_status st{};
  prsr_ctx *ctx = reinterpret_cast<prsr_ctx *>(0x1);

  /* No memory for the context. */
  fault_arm_alloc(1, 0);
  EXPECT_EQ(PRSR_ERR_MEMORY, prsr_init(&st, &ctx));
  EXPECT_EQ(nullptr, ctx);
  fault_reset();

  /* An unreachable registry. */
  setenv("HVS_REGISTRY", ("sqlite:" + reg.dir() + "/missing/none.db").c_str(), 1);
  ctx = reinterpret_cast<prsr_ctx *>(0x1);
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_init(&st, &ctx));
  EXPECT_EQ(nullptr, ctx);
  setenv("HVS_REGISTRY", reg.location().c_str(), 1);

  /* The lock service refuses: its own allocation through our callbacks
   * fails (the context is the first block, the service's state the second). */
  fault_arm_alloc(2, 0);
  ctx = reinterpret_cast<prsr_ctx *>(0x1);
  int32_t rc = prsr_init(&st, &ctx);
  fault_reset();
  EXPECT_EQ(PRSR_ERR_LOCK, rc);
  EXPECT_EQ(nullptr, ctx);
  EXPECT_EQ(before, Held::now());
  EXPECT_EQ(PRSR_ERR_ARGUMENT, prsr_init(&st, nullptr));
}

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
  EXPECT_TRUE(trace.has("u_freem: mem passed is null"));
  EXPECT_EQ(nullptr, u_allocm(nullptr, 8));
  EXPECT_TRUE(trace.has("u_allocm: meta ctx is null"));
}
