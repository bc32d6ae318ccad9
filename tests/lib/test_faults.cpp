/* Failure sweeps, one row per operation: every allocation, registry call and
 * lock call it makes is failed in turn. The result must be one the row
 * allows for that kind of failure (an empty list: the operation makes no
 * such call), nothing may be left held, and a failed fetch hands out no
 * record. Failed writes leave whole values behind. */
#include <functional>

#include "registry/registry.h"
#include "testkit.h"

using namespace testkit;

namespace {

using Codes = std::vector<int32_t>;

struct Row {
  const char *what;
  Codes alloc, registry, lock;
  std::function<int32_t()> op;
};

const Codes kGet = {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY};
const Codes kSet = {PRSR_ERR_MEMORY, PRSR_ERR_REGISTRY, PRSR_ERR_LOCK};

template <class Cfg, class Release>
int32_t fetched(int32_t rc, Cfg *cfg, Release release) {
  EXPECT_EQ(rc == PRSR_SUCCESS, cfg != nullptr) << "record and result disagree: " << rc;
  release(cfg);
  return rc;
}

} // namespace

TEST(Faults, EveryFailureLeavesNothingBehind) {
  Registry reg;
  sample_service(reg);
  const std::string db = "DATABASE.DATABASES.sales";
  reg.sample_db("hr", "HR");
  reg.multi(db + ".ENVIRONMENT", {"A=1", "B=2", "C=3"});
  reg.text(db + ".BOOTCFG", std::string(300, 'b')); /* longer than a first read */
  reg.text(db + ".DB_CLU_ALIAS.IP", "10.0.0.1");
  reg.text(db + ".POLICY", "MANUAL");
  reg.multi(db + ".INSTANCE.sales1.ENVIRONMENT", {"C=3"});
  reg.text(db + ".INSTANCE.sales3", "Sales3");
  reg.text(db + ".INSTANCE.sales3.NODE", "node3");
  reg.multi(kSrv + ".ENVIRONMENT", {"D=4"});
  const std::string vlm = "DATABASE.VLM.storage.vlm1", node = "DATABASE.NODEAPPS.node1";
  reg.text(vlm, "VLM1");
  reg.text(vlm + ".BOOTCFG", "/srv/boot.ini");
  reg.text(vlm + ".ENABLED", "TRUE");
  reg.multi(vlm + ".ENVIRONMENT", {"TZ=UTC", "LANG=C"});
  const std::string long_vlm(100, 'v'); /* a name longer than a first read */
  reg.text("DATABASE.VLM.storage." + long_vlm, std::string(100, 'V'));
  reg.text(node, "Node1");
  reg.text(node + ".TERVAN_HOME", "/opt/tv");
  reg.raw(node + ".VIP", ""); /* falls back to VIP.IP */
  reg.text(node + ".VIP.IP", "10.9.9.9");
  reg.text(node + ".VIP.NETMASK", "255.0.0.0");
  reg.multi(node + ".ENVIRONMENT", {"A=1"});

  Session s;
  ASSERT_EQ(PRSR_SUCCESS, s.rc());
  auto *st = s.status();
  auto *c = s.ctx();
  void *meta = c->metactx;
  uint32_t w = 0;
  char buf[128];
  const Row rows[] = {
      {"prsr_init", {PRSR_ERR_MEMORY, PRSR_ERR_LOCK}, {}, {},
       [] {
         lks_status ist{};
         prsr_ctx *ctx = nullptr;
         int32_t rc = prsr_init(&ist, &ctx);
         if (rc == PRSR_SUCCESS)
           prsr_terminate(&ist, ctx);
         return rc;
       }},
      {"prsr_open_get_value", kGet, {PRSR_ERR_REGISTRY, 18}, {},
       [&] {
         char *v = nullptr;
         int32_t rc = prsr_open_get_value(c, c->hvs_handle, (db + ".BOOTCFG").c_str(), &v);
         if (v)
           u_freem(meta, v);
         return rc;
       }},
      {"prsr_get_multivalues", {PRSR_SUCCESS, PRSR_ERR_MEMORY}, {PRSR_SUCCESS, PRSR_ERR_MEMORY}, {},
       [&] {
         char **list = nullptr;
         uint32_t n = 0;
         int32_t rc = prsr_get_multivalues(meta, c->trace_comp, c->hvs_handle,
                                           (db + ".ENVIRONMENT").c_str(), &list, &n);
         free_table(meta, list, n);
         return rc;
       }},
      {"prsr_get_subkeys", {PRSR_SUCCESS, PRSR_ERR_MEMORY}, {PRSR_SUCCESS, PRSR_ERR_REGISTRY}, {},
       [&] {
         char **names = nullptr;
         uint32_t n = 0;
         int32_t rc = prsr_get_subkeys(meta, c->trace_comp, c->hvs_handle,
                                       (db + ".INSTANCE").c_str(), &names, &n);
         free_table(meta, names, n);
         return rc;
       }},
      {"prsr_get_db_enabled", {PRSR_ERR_MEMORY}, {PRSR_ERR_REGISTRY}, {},
       [&] { return prsr_get_db_enabled(st, c, "Sales", &w); }},
      {"prsr_set_db_enabled", kSet, kSet, kSet, [&] { return prsr_set_db_enabled(st, c, "Sales", 1); }},
      /* The service's own flag may fail without failing the call. */
      {"prsr_set_service_enabled", {0, 2, 3}, {0, 2, 3}, {PRSR_ERR_LOCK},
       [&] { return prsr_set_service_enabled(st, c, "Sales", "Sales.East", 1); }},
      {"prsr_get_service_enabled", kGet, kGet, {},
       [&] { return prsr_get_service_enabled(st, c, "Sales", "Sales.East", &w); }},
      {"prsr_get_service_instance_enabled", kGet, kGet, {},
       [&] { return prsr_get_service_instance_enabled(st, c, "Sales", "Sales.East", "Sales1", &w); }},
      {"prsr_set_service_instance_enabled", kSet, kSet, kSet,
       [&] { return prsr_set_service_instance_enabled(st, c, "Sales", "Sales.East", "Sales1", 1); }},
      {"prsr_get_service_instance_supported", kGet, kGet, {},
       [&] { return prsr_get_service_instance_supported(st, c, "Sales", "Sales.East", "Sales1", &w); }},
      {"prsr_get_db_role", kGet, kGet, {}, [&] { return prsr_get_db_role(st, c, "Sales", &w); }},
      {"prsr_set_db_role", kSet, kSet, kSet, [&] { return prsr_set_db_role(st, c, "Sales", 0); }},
      {"prsr_get_instance_enabled", kGet, kGet, {},
       [&] { return prsr_get_instance_enabled(st, c, "Sales", "Sales1", &w); }},
      {"prsr_set_instance_enabled", kSet, kSet, kSet,
       [&] { return prsr_set_instance_enabled(st, c, "Sales", "Sales1", 1); }},
      {"prsr_get_instance_name", kGet, kGet, {},
       [&] { return prsr_get_instance_name(st, c, "Sales", "Sales1", sizeof buf, buf); }},
      {"prsr_get_spname", kGet, kGet, {}, [&] { return prsr_get_spname(st, c, "Sales", sizeof buf, buf); }},
      {"prsr_get_node_instance_name", kSet, kSet, kSet,
       [&] { return prsr_get_node_instance_name(st, c, "Sales", "node2", sizeof buf, buf); }},
      {"prsr_get_domain", kGet, kGet, {},
       [&] {
         char *d = nullptr;
         int32_t rc = prsr_get_domain(st, c, "Sales", &d);
         if (rc == PRSR_SUCCESS)
           prsr_free_domain(c, d);
         else if (d != nullptr)
           return -1; /* a failed read hands nothing out */
         return rc;
       }},
      {"prsr_fetch_db_config", {0, 2, 3, 5}, {0, 2, 3, 5}, {0, 2, 3, 5},
       [&] {
         prsr_cfg *cfg = nullptr;
         int32_t rc = prsr_fetch_db_config(st, c, "Sales", &cfg);
         return fetched(rc, cfg,
                        [&](prsr_cfg *p) { prsr_release_db_config(st, c, p); });
       }},
      {"prsr_list_db", {0, 1, 2, 3, 5}, {0, 1, 2, 3, 5}, {0, 1, 2, 3, 5},
       [&] {
         char **list = nullptr;
         uint32_t count = 0;
         int32_t rc = prsr_list_db(st, c, &list, &count);
         if (rc == PRSR_ERR_ARGUMENT || rc == PRSR_ERR_LOCK) {
           EXPECT_EQ(nullptr, list);
         }
         prsr_release_db_list(st, c, list, count);
         return rc;
       }},
      /* A refused lock is 3 here, not 5. */
      {"prsr_get_srv_instances", kGet, kGet, kGet,
       [&] {
         char **i = nullptr, **n = nullptr;
         uint32_t *a = nullptr, count = 9;
         int32_t rc = prsr_get_srv_instances(st, c, "sales", "Sales.East", &i, &n, &a, &count);
         if (rc != PRSR_SUCCESS) {
           EXPECT_TRUE(count == 0 && i == nullptr && n == nullptr && a == nullptr);
         }
         prsr_release_srv_instances(st, c, i, n, a, count);
         return rc;
       }},
      /* The fetch takes a value that could not be read as it is, so it may
       * still succeed under an allocation or registry failure. */
      {"prsr_fetch_vlm_config", {0, 2}, {0, 3}, {PRSR_ERR_LOCK},
       [&] {
         prsr_vlm_cfg *cfg = nullptr;
         int32_t rc = prsr_fetch_vlm_config(st, c, "Storage", "VLM1", &cfg);
         return fetched(rc, cfg,
                        [&](prsr_vlm_cfg *p) { prsr_release_vlm_config(st, c, p); });
       }},
      {"prsr_get_vlm_enabled", {PRSR_ERR_MEMORY}, {PRSR_ERR_REGISTRY}, {},
       [&] { return prsr_get_vlm_enabled(st, c, "storage", "vlm1", &w); }},
      {"prsr_get_vlm_name", {PRSR_ERR_MEMORY}, {PRSR_ERR_REGISTRY, 18}, {},
       [&] { return prsr_get_vlm_name(st, c, "storage", long_vlm.c_str(), sizeof buf, buf); }},
      {"prsr_fetch_nodeapps_config", {PRSR_ERR_MEMORY}, {0, 3}, {PRSR_ERR_LOCK},
       [&] {
         prsr_nodeapps_cfg *cfg = nullptr;
         int32_t rc = prsr_fetch_nodeapps_config(st, c, "Node1", &cfg);
         return fetched(rc, cfg,
                        [&](prsr_nodeapps_cfg *p) { prsr_release_nodeapps_config(st, c, p); });
       }},
  };
  for (const Row &r : rows) {
    long alloc = sweep(r.what, Fault::Alloc, r.alloc, r.op);
    long registry = sweep(r.what, Fault::Registry, r.registry, r.op);
    sweep(r.what, Fault::Lock, r.lock, r.op);
    EXPECT_GT(alloc, 0) << r.what;
    if (!r.registry.empty()) {
      EXPECT_GT(registry, 0) << r.what;
    }
  }
  /* Failed writes left whole values behind. */
  EXPECT_EQ(bytes("true"), reg.value(db + ".ENABLED"));
  EXPECT_EQ(bytes("true"), reg.value(kSrv + ".ENABLED"));
  EXPECT_EQ(bytes("PRIMARY"), reg.value(db + ".ROLE"));
}
