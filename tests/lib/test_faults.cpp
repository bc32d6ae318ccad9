/* Failure sweeps, one row per operation: every allocation, registry call and
 * lock call it makes is failed in turn (the shared readers' through the
 * operations that use them). The result must be one the row
 * allows for that kind of failure (an empty list: the operation makes no
 * such call), nothing may be left held, and a failed fetch hands out no
 * record. Failed writes leave whole values behind. */
#include <functional>

#include "testkit.h"

using namespace testkit;

namespace {

using Codes = std::vector<int32_t>;

struct Row {
  Codes alloc, registry, lock;
  const char *what;
  std::function<int32_t()> op;
};

const Codes kGet = {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY};
const Codes kSet = {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY, PRSR_ERR_LOCK};
const Codes kAny = {0, 2, 3, 5}, kMem = {PRSR_ERR_MEMORY}, kReg = {PRSR_ERR_REGISTRY};


} // namespace

TEST(Faults, EveryFailureLeavesNothingBehind) {
  Registry reg;
  sample_service(reg);
  reg.sample_db("hr", "HR");
  const std::string db = "DATABASE.DATABASES.sales", vlm = "DATABASE.VLM.storage.vlm1",
                    node = "DATABASE.NODEAPPS.node1";
  const std::string long_vlm(100, 'v'); /* a name longer than a first read */
  const std::string texts[][2] = {
      {db + ".BOOTCFG", std::string(300, 'b')}, /* longer than a first read */
      {db + ".DB_CLU_ALIAS.IP", "10.0.0.1"},    {db + ".POLICY", "MANUAL"},
      {db + ".INSTANCE.sales3", "Sales3"},      {db + ".INSTANCE.sales3.NODE", "node3"},
      {vlm, "VLM1"},                            {vlm + ".BOOTCFG", "/srv/boot.ini"},
      {vlm + ".ENABLED", "TRUE"},               {"DATABASE.VLM.storage." + long_vlm, long_vlm},
      {node, "Node1"},                          {node + ".TERVAN_HOME", "/opt/tv"},
      {node + ".VIP.IP", "10.9.9.9"},           {node + ".VIP.NETMASK", "255.0.0.0"}};
  for (auto &t : texts)
    reg.text(t[0], t[1]);
  reg.raw(node + ".VIP", ""); /* falls back to VIP.IP */
  for (auto &k : {db, db + ".INSTANCE.sales1", kSrv, vlm, node})
    reg.multi(k + ".ENVIRONMENT", {"A=1", "B=2"});

  Session s;
  ASSERT_EQ(PRSR_SUCCESS, s.rc());
  auto *st = s.status();
  auto *c = s.ctx();
  uint32_t w = 0;
  char buf[128];
  const char *D = "Sales", *S = "Sales.East", *I = "Sales1"; /* names in their stored case */
#define OP(fn, ...) #fn, [&] { return fn(st, c, __VA_ARGS__); }
/* A fetch: a record exactly when it succeeded, released. */
#define FETCH(fn, release, Cfg, ...) #fn, [&] {                                                    \
    Cfg *cfg = nullptr;                                                                            \
    int32_t rc = fn(st, c, __VA_ARGS__, &cfg);                                                     \
    EXPECT_EQ(rc == PRSR_SUCCESS, cfg != nullptr) << "record and result disagree: " << rc;         \
    return release(st, c, cfg), rc;                                                                \
  }
  const Row rows[] = {
      {{PRSR_ERR_MEMORY, PRSR_ERR_LOCK}, {}, {}, "prsr_init",
       [] {
         lks_status ist{};
         prsr_ctx *ctx = nullptr;
         int32_t rc = prsr_init(&ist, &ctx);
         return rc == PRSR_SUCCESS ? prsr_terminate(&ist, ctx), rc : rc;
       }},
      {kMem, kReg, {}, OP(prsr_get_db_enabled, D, &w)},
      {kSet, kSet, kSet, OP(prsr_set_db_enabled, D, 1)},
      /* The service's own flag may fail without failing the call. */
      {{0, 2, 3}, {0, 2, 3}, {5}, OP(prsr_set_service_enabled, D, S, 1)},
      {kGet, kGet, {}, OP(prsr_get_service_enabled, D, S, &w)},
      {kGet, kGet, {}, OP(prsr_get_service_instance_enabled, D, S, I, &w)},
      {kSet, kSet, kSet, OP(prsr_set_service_instance_enabled, D, S, I, 1)},
      {kGet, kGet, {}, OP(prsr_get_service_instance_supported, D, S, I, &w)},
      {kGet, kGet, {}, OP(prsr_get_db_role, D, &w)},
      {kSet, kSet, kSet, OP(prsr_set_db_role, D, 0)},
      {kGet, kGet, {}, OP(prsr_get_instance_enabled, D, I, &w)},
      {kSet, kSet, kSet, OP(prsr_set_instance_enabled, D, I, 1)},
      {kGet, kGet, {}, OP(prsr_get_instance_name, D, I, 128, buf)},
      {kGet, kGet, {}, OP(prsr_get_spname, D, sizeof buf, buf)},
      {kSet, kSet, kSet, OP(prsr_get_node_instance_name, D, "node2", sizeof buf, buf)},
      {kGet, kGet, {}, "prsr_get_domain",
       [&] {
         char *d = nullptr;
         int32_t rc = prsr_get_domain(st, c, D, &d);
         if (rc == PRSR_SUCCESS)
           prsr_free_domain(c, d);
         return rc != PRSR_SUCCESS && d != nullptr ? -1 : rc; /* a failed read hands nothing out */
       }},
      {kAny, kAny, kAny, FETCH(prsr_fetch_db_config, prsr_release_db_config, prsr_cfg, D)},
      {{0, 1, 2, 3, 5}, {0, 1, 2, 3, 5}, {0, 1, 2, 3, 5}, "prsr_list_db",
       [&] {
         char **list = nullptr;
         uint32_t count = 0;
         int32_t rc = prsr_list_db(st, c, &list, &count);
         EXPECT_TRUE((rc != PRSR_ERR_ARGUMENT && rc != PRSR_ERR_LOCK) || list == nullptr);
         return prsr_release_db_list(st, c, list, count), rc;
       }},
      /* A refused lock is 3 here, not 5. */
      {kGet, kGet, kGet, "prsr_get_srv_instances",
       [&] {
         char **i = nullptr, **n = nullptr;
         uint32_t *a = nullptr, count = 9;
         int32_t rc = prsr_get_srv_instances(st, c, "sales", S, &i, &n, &a, &count);
         EXPECT_TRUE(rc == PRSR_SUCCESS || (count == 0 && !i && !n && !a)) << "handed out on " << rc;
         return prsr_release_srv_instances(st, c, i, n, a, count), rc;
       }},
      /* The fetch takes a value that could not be read as it is, so it may
       * still succeed under an allocation or registry failure. */
      {{0, 2}, {0, 3}, {PRSR_ERR_LOCK},
       FETCH(prsr_fetch_vlm_config, prsr_release_vlm_config, prsr_vlm_cfg, "Storage", "VLM1")},
      {kMem, kReg, {}, OP(prsr_get_vlm_enabled, "storage", "vlm1", &w)},
      {kMem, {PRSR_ERR_REGISTRY, 18}, {},
       OP(prsr_get_vlm_name, "storage", long_vlm.c_str(), sizeof buf, buf)},
      {kMem, {0, 3}, {PRSR_ERR_LOCK},
       FETCH(prsr_fetch_nodeapps_config, prsr_release_nodeapps_config, prsr_nodeapps_cfg, "Node1")},
  };
#undef OP
#undef FETCH
  for (const Row &r : rows) {
    long alloc = sweep(r.what, Fault::Alloc, r.alloc, r.op);
    long registry = sweep(r.what, Fault::Registry, r.registry, r.op);
    sweep(r.what, Fault::Lock, r.lock, r.op);
    EXPECT_GT(alloc, 0) << r.what;
    EXPECT_TRUE(r.registry.empty() || registry > 0) << r.what;
  }
  /* Failed writes left whole values behind. */
  EXPECT_EQ(bytes("true"), reg.value(db + ".ENABLED"));
  EXPECT_EQ(bytes("true"), reg.value(kSrv + ".ENABLED"));
  EXPECT_EQ(bytes("PRIMARY"), reg.value(db + ".ROLE"));
}
