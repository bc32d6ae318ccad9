/* The point operations across processes: the lock modes against a holder
 * in another process; a service flipped by some processes while others
 * look at it. */
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "lks.h"
#include "lock_holder.h"
#include "testkit.h"

using namespace testkit;

namespace {
const std::string kDb = "DATABASE.DATABASES.sales";
}

/* Which operations a shared and an exclusive holder of the database's lock
 * keep out, and that the refused ones change nothing. */
TEST(PointFaults, LockModesAgainstAnotherProcess) {
  Registry reg;
  for (bool shared : {true, false}) {
    SCOPED_TRACE(shared ? "shared holder" : "exclusive holder");
    sample_service(reg);
    LockHolder holder("FLTM.DATABASE.DATABASES.sales", shared);
    ASSERT_TRUE(holder.granted());
    Session s;
    lks_status *st = s.status();
    prsr_ctx *c = s.ctx();
    char buf[64];
    uint32_t w = 0;
    const char *D = "sales", *S = "sales.east";
    constexpr int32_t OK = PRSR_SUCCESS, LOCK = PRSR_ERR_LOCK;
#define OP(fn, ...) #fn, [&] { return fn(st, c, __VA_ARGS__); }
    const struct {
      int32_t beside_shared, beside_exclusive;
      const char *op;
      std::function<int32_t()> call;
    } ops[] = {
        {LOCK, LOCK, OP(prsr_set_service_enabled, D, S, 0)},
        {OK, LOCK, OP(prsr_set_service_instance_enabled, D, S, "sales2", 1)},
        {OK, LOCK, OP(prsr_set_db_role, D, 2)},
        {LOCK, LOCK, OP(prsr_set_instance_enabled, D, "sales1", 0)},
        {OK, LOCK, OP(prsr_get_node_instance_name, D, "node1", 64, buf)},
        {OK, OK, OP(prsr_get_service_enabled, D, S, &w)},
        {LOCK, LOCK, OP(prsr_set_db_enabled, D, 0)},
        {OK, OK, OP(prsr_get_db_enabled, D, &w)},
    };
#undef OP
    for (auto &o : ops) {
      int32_t want = shared ? o.beside_shared : o.beside_exclusive;
      EXPECT_EQ(want, o.call()) << o.op;
      EXPECT_TRUE(want != LOCK || lks_status_code(st) == LKS_ERR_TIMEOUT) << o.op;
    }
    EXPECT_EQ(bytes(shared ? "LOGICAL_STANDBY" : "PRIMARY"), reg.value(kDb + ".ROLE"));
    EXPECT_EQ(bytes(shared ? "true" : "false"), reg.value(srv_inst("sales2") + ".ENABLED"));
    for (std::string k : {kSrv, kDb, kDb + ".INSTANCE.sales1"})
      EXPECT_EQ(bytes("true"), reg.value(k + ".ENABLED")) << k;
    EXPECT_EQ(0, fault_held_locks());
  }
}

/* Writers in some processes flip the service on and off while readers in
 * others fetch the whole record: a reader never sees the service's flag
 * differ from one of its instances' flags. A child's exit status: 1 a torn
 * view, 3 a failed write, 4 never got through, 5 a failed fetch. */
TEST(PointFaults, ServiceFlipSeenWholeAcrossProcesses) {
  Registry reg;
  sample_service(reg);
  for (const char *i : {"sales1", "sales2", "sales3"})
    reg.text(srv_inst(i) + ".ENABLED", "true");
  setenv("LKS_TIMEOUT_MS", "5000", 1);
  auto child = [](int k) {
    lks_status st{};
    prsr_ctx *ctx = nullptr;
    if (prsr_init(&st, &ctx) != PRSR_SUCCESS)
      _exit(2);
    int through = 0;
    for (int r = 0; r < 50; ++r) {
      if (k % 2 == 0) { /* a writer */
        int32_t rc = prsr_set_service_enabled(&st, ctx, "SALES", "Sales.East", (r + k / 2) % 2);
        if (rc != PRSR_SUCCESS && rc != PRSR_ERR_LOCK)
          _exit(3);
        through += rc == PRSR_SUCCESS;
        continue;
      }
      prsr_cfg *cfg = nullptr;
      int32_t rc = prsr_fetch_db_config(&st, ctx, "sales", &cfg);
      if (rc == PRSR_ERR_LOCK)
        continue;
      if (rc != PRSR_SUCCESS)
        _exit(5);
      ++through;
      prsr_service_cfg *sv = cfg->service_count == 1 ? cfg->services[0] : nullptr;
      bool same = sv != nullptr && sv->pref_count + sv->avail_count == 3;
      for (uint32_t j = 0; same && j < sv->pref_count; ++j)
        same = sv->pref_enabled[j] == sv->enabled;
      for (uint32_t j = 0; same && j < sv->avail_count; ++j)
        same = sv->avail_enabled[j] == sv->enabled;
      prsr_release_db_config(&st, ctx, cfg);
      if (!same)
        _exit(1);
    }
    prsr_terminate(&st, ctx);
    _exit(through > 0 ? 0 : 4);
  };
  std::vector<pid_t> kids;
  for (int k = 0; k < 4; ++k) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
      child(k);
    kids.push_back(pid);
  }
  for (size_t k = 0; k < kids.size(); ++k) {
    int wst = 0;
    waitpid(kids[k], &wst, 0);
    EXPECT_TRUE(WIFEXITED(wst) && WEXITSTATUS(wst) == 0)
        << (k % 2 == 0 ? "writer " : "reader ") << k << ", wait status " << wst;
  }
  /* The last writes left a whole state as well. (The next registry sets the
   * short lock timeout again.) */
  auto v = reg.value(kSrv + ".ENABLED");
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(v, reg.value(srv_inst(i) + ".ENABLED")) << i;
}
