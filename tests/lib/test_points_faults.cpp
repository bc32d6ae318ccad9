/* The point operations across processes: the lock modes against a holder
 * in another process; a service flipped by some processes while others
 * look at it. */
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "lks.h"
#include "lock_holder.h"
#include "testkit.h"
#include "registry/registry.h"

using namespace testkit;

namespace {
struct PointFaults : ::testing::Test {
  Registry reg;
  void SetUp() override {
    sample_service(reg);
  }
};

} // namespace

/* Which writers a shared and an exclusive holder of the database's lock
 * keep out, and that the refused ones change nothing. */
TEST_F(PointFaults, LockModesAgainstAnotherProcess) {
  struct {
    const char *op;
    int32_t beside_shared, beside_exclusive;
  } expect[] = {{"set_service_enabled", PRSR_ERR_LOCK, PRSR_ERR_LOCK},
                {"set_service_instance_enabled", PRSR_SUCCESS, PRSR_ERR_LOCK},
                {"set_db_role", PRSR_SUCCESS, PRSR_ERR_LOCK},
                {"set_instance_enabled", PRSR_ERR_LOCK, PRSR_ERR_LOCK},
                {"get_node_instance_name", PRSR_SUCCESS, PRSR_ERR_LOCK},
                {"get_service_enabled", PRSR_SUCCESS, PRSR_SUCCESS},
                {"set_db_enabled", PRSR_ERR_LOCK, PRSR_ERR_LOCK},
                {"get_db_enabled", PRSR_SUCCESS, PRSR_SUCCESS}};
  for (bool shared : {true, false}) {
    SCOPED_TRACE(shared ? "shared holder" : "exclusive holder");
    sample_service(reg);
    LockHolder holder("FLTM.DATABASE.DATABASES.sales", shared);
    ASSERT_TRUE(holder.granted());
    Session s;
    char buf[64];
    uint32_t w = 0;
    std::function<int32_t()> ops[] = {
        [&] { return prsr_set_service_enabled(s.status(), s.ctx(), "sales", "sales.east", 0); },
        [&] { return prsr_set_service_instance_enabled(s.status(), s.ctx(), "sales", "sales.east", "sales2", 1); },
        [&] { return prsr_set_db_role(s.status(), s.ctx(), "sales", 2); },
        [&] { return prsr_set_instance_enabled(s.status(), s.ctx(), "sales", "sales1", 0); },
        [&] { return prsr_get_node_instance_name(s.status(), s.ctx(), "sales", "node1", 64, buf); },
        [&] { return prsr_get_service_enabled(s.status(), s.ctx(), "sales", "sales.east", &w); },
        [&] { return prsr_set_db_enabled(s.status(), s.ctx(), "sales", 0); },
        [&] { return prsr_get_db_enabled(s.status(), s.ctx(), "sales", &w); },
    };
    for (size_t i = 0; i < std::size(ops); ++i) {
      int32_t want = shared ? expect[i].beside_shared : expect[i].beside_exclusive;
      EXPECT_EQ(want, ops[i]()) << expect[i].op;
      if (want == PRSR_ERR_LOCK) {
        EXPECT_EQ(LKS_ERR_TIMEOUT, lks_status_code(s.status())) << expect[i].op;
      }
    }
    EXPECT_EQ(bytes(shared ? "LOGICAL_STANDBY" : "PRIMARY"), reg.value("DATABASE.DATABASES.sales.ROLE"));
    EXPECT_EQ(bytes(shared ? "true" : "false"), reg.value(srv_inst("sales2") + ".ENABLED"));
    EXPECT_EQ(bytes("true"), reg.value(kSrv + ".ENABLED"));
    EXPECT_EQ(bytes("true"), reg.value("DATABASE.DATABASES.sales.ENABLED"));
    EXPECT_EQ(bytes("true"), reg.value("DATABASE.DATABASES.sales.INSTANCE.sales1.ENABLED"));
    EXPECT_EQ(0, fault_held_locks());
  }
}

/* Writers in some processes flip the service on and off while readers in
 * others fetch the whole record or look under the shared lock: a reader
 * never sees the service's flag differ from one of its instances' flags. */
TEST_F(PointFaults, ServiceFlipSeenWholeAcrossProcesses) {
  for (const char *i : {"sales1", "sales2", "sales3"})
    reg.text(srv_inst(i) + ".ENABLED", "true");
  reg.text("DATABASE.DATABASES.sales.SERVICE.sales*east.ENABLED", "true");
  setenv("LKS_TIMEOUT_MS", "5000", 1);
  constexpr int kRounds = 50;

  auto writer = [](int seed) {
    lks_status st{};
    prsr_ctx *ctx = nullptr;
    if (prsr_init(&st, &ctx) != PRSR_SUCCESS)
      _exit(2);
    int done = 0;
    for (int r = 0; r < kRounds; ++r) {
      int32_t rc = prsr_set_service_enabled(&st, ctx, "SALES", "Sales.East", (r + seed) % 2);
      if (rc == PRSR_SUCCESS)
        ++done;
      else if (rc != PRSR_ERR_LOCK)
        _exit(3);
    }
    prsr_terminate(&st, ctx);
    _exit(done > 0 ? 0 : 4);
  };
  /* A reader alternates the whole-record fetch with point reads under the
   * shared lock of the database. */
  auto reader = [] {
    lks_status st{};
    prsr_ctx *ctx = nullptr;
    if (prsr_init(&st, &ctx) != PRSR_SUCCESS)
      _exit(2);
    int seen = 0;
    for (int r = 0; r < kRounds; ++r) {
      bool same = true;
      if (r % 2 == 0) {
        prsr_cfg *cfg = nullptr;
        int32_t rc = prsr_fetch_db_config(&st, ctx, "sales", &cfg);
        if (rc == PRSR_ERR_LOCK)
          continue;
        if (rc != PRSR_SUCCESS)
          _exit(5);
        ++seen;
        uint32_t flags = 0;
        for (uint32_t i = 0; i < cfg->service_count; ++i) {
          prsr_service_cfg *sv = cfg->services[i];
          if (std::string(sv->service_name) != "Sales.East")
            continue;
          flags = sv->pref_count + sv->avail_count;
          for (uint32_t k = 0; k < sv->pref_count; ++k)
            same = same && sv->pref_enabled[k] == sv->enabled;
          for (uint32_t k = 0; k < sv->avail_count; ++k)
            same = same && sv->avail_enabled[k] == sv->enabled;
        }
        same = same && flags == 3;
        prsr_release_db_config(&st, ctx, cfg);
      } else {
        char *lock = nullptr;
        if (prsr_lock_branch(&st, ctx, "sales", 1, &lock) != PRSR_SUCCESS)
          continue;
        ++seen;
        uint32_t service = 9, inst = 9;
        same = prsr_get_service_enabled(&st, ctx, "sales", "sales.east", &service) == 0;
        for (const char *i : {"sales1", "sales2", "sales3"})
          same = same &&
                 prsr_get_service_instance_enabled(&st, ctx, "sales", "sales.east", i, &inst) == 0 &&
                 inst == service;
        prsr_unlock_branch(ctx, lock);
      }
      if (!same)
        _exit(1);
    }
    prsr_terminate(&st, ctx);
    _exit(seen > 0 ? 0 : 4);
  };

  std::vector<pid_t> kids;
  for (int k = 0; k < 4; ++k) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      if (k % 2 == 0)
        writer(k / 2);
      else
        reader();
    }
    kids.push_back(pid);
  }
  for (size_t k = 0; k < kids.size(); ++k) {
    int wst = 0;
    waitpid(kids[k], &wst, 0);
    EXPECT_TRUE(WIFEXITED(wst)) << "process " << k;
    EXPECT_EQ(0, WEXITSTATUS(wst)) << (k % 2 == 0 ? "writer " : "reader ") << k
                                   << " (1: a torn view, 3: a failed write, 4: never got through, 5: a failed fetch)";
  }
  setenv("LKS_TIMEOUT_MS", "300", 1);
  /* The last writes left a whole state as well. */
  auto v = reg.value(kSrv + ".ENABLED");
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(v, reg.value(srv_inst(i) + ".ENABLED")) << i;
}
