/* One session shared by several threads: readers, fetchers and writers of
 * one database at once, as a client with a thread pool would use it. The
 * session is read-only after prsr_init(), so every call must succeed (the
 * lock timeout is far above the whole run), and every fetch must see each
 * service-wide write whole: the service's flag and all its instances' flags
 * alike. Run under the thread sanitizer by the tsan preset. */
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "testkit.h"

using namespace testkit;

namespace {

constexpr int kRounds = 20;

class SharedSession : public ::testing::TestWithParam<const char *> {
protected:
  void SetUp() override {
    if (std::string(GetParam()) == "zookeeper") {
      ZK_REQUIRED();
      reg_.emplace(fresh_location("threads"));
    } else {
      reg_.emplace("");
    }
    sample_service(*reg_);
    reg_->text("DATABASE.DATABASES.sales.INSTANCE.sales3", "Sales3");
    reg_->text("DATABASE.DATABASES.sales.INSTANCE.sales3.NODE", "node3");
    reg_->text("DATABASE.VLM.storage.vlm1", "VLM1");
    reg_->text("DATABASE.VLM.storage.vlm1.ENABLED", "true");
    reg_->text("DATABASE.NODEAPPS.node1", "Node1");
    reg_->text("DATABASE.NODEAPPS.node1.VIP", "10.0.0.9");
    setenv("LKS_TIMEOUT_MS", "60000", 1);
  }
  std::optional<Registry> reg_;
};

/* Sales.East's flags in a fetched record: the service's, then those of its
 * preferred and available instances, e.g. "1:111". */
std::string service_flags(const prsr_cfg *cfg) {
  for (uint32_t i = 0; i < cfg->service_count; ++i) {
    const prsr_service_cfg *sv = cfg->services[i];
    if (std::string(sv->service_name) != "Sales.East")
      continue;
    std::string f = std::to_string(sv->enabled) + ":";
    for (uint32_t k = 0; k < sv->pref_count; ++k)
      f += std::to_string(sv->pref_enabled[k]);
    for (uint32_t k = 0; k < sv->avail_count; ++k)
      f += std::to_string(sv->avail_enabled[k]);
    return f;
  }
  return "(no Sales.East)";
}

/* What a set leaves, or the sample as it was loaded (sales2 off), which a
 * fetch that wins the first lock reads. A set writes the service's flag
 * first, then sales1, sales2, sales3: none of its steps looks like that. */
bool whole(const std::string &flags) {
  return flags == "0:000" || flags == "1:111" || flags == "1:110";
}

} // namespace

TEST_P(SharedSession, ReadsFetchesAndWritesAtOnce) {
  lks_status init_st{};
  prsr_ctx *ctx = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_init(&init_st, &ctx));
  std::atomic<int> failures{0}, torn{0};
  auto check = [&](const char *what, int32_t rc) {
    if (rc != PRSR_SUCCESS) {
      ++failures;
      ADD_FAILURE() << what << " gave " << rc;
    }
  };

  std::vector<std::thread> threads;
  /* Writers: the service-wide flag, the database flag and role, an
   * instance's flag and a service instance's flag. */
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([&, w] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        check("set_service_enabled",
              prsr_set_service_enabled(&st, ctx, "Sales", "Sales.East", (r + w) % 2));
        check("set_db_enabled", prsr_set_db_enabled(&st, ctx, "sales", r % 2));
        check("set_db_role", prsr_set_db_role(&st, ctx, "SALES", (r + w) % 4));
        check("set_instance_enabled", prsr_set_instance_enabled(&st, ctx, "sales", "sales1", r % 2));
      }
    });
  /* Fetchers: the whole record, the service's instances, the storage
   * manager and the node applications. */
  for (int f = 0; f < 2; ++f)
    threads.emplace_back([&] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        prsr_cfg *cfg = nullptr;
        int32_t rc = prsr_fetch_db_config(&st, ctx, "sales", &cfg);
        check("fetch_db_config", rc);
        if (rc == PRSR_SUCCESS && !whole(service_flags(cfg))) {
          ++torn;
          std::printf("fetched Sales.East flags %s\n", service_flags(cfg).c_str());
        }
        check("release_db_config", prsr_release_db_config(&st, ctx, cfg));
        char **inst = nullptr, **nodes = nullptr;
        uint32_t *avail = nullptr, n = 0;
        check("get_srv_instances",
              prsr_get_srv_instances(&st, ctx, "sales", "sales.east", &inst, &nodes, &avail, &n));
        check("release_srv_instances",
              prsr_release_srv_instances(&st, ctx, inst, nodes, avail, n));
        prsr_vlm_cfg *vlm = nullptr;
        check("fetch_vlm_config", prsr_fetch_vlm_config(&st, ctx, "storage", "vlm1", &vlm));
        check("release_vlm_config", prsr_release_vlm_config(&st, ctx, vlm));
        prsr_nodeapps_cfg *node = nullptr;
        check("fetch_nodeapps_config", prsr_fetch_nodeapps_config(&st, ctx, "node1", &node));
        check("release_nodeapps_config", prsr_release_nodeapps_config(&st, ctx, node));
      }
    });
  /* Readers: point reads and listings, each judged on what it read. */
  for (int q = 0; q < 2; ++q)
    threads.emplace_back([&] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        uint32_t v = 99;
        check("get_db_enabled", prsr_get_db_enabled(&st, ctx, "sales", &v));
        check("get_db_role", prsr_get_db_role(&st, ctx, "sales", &v));
        if (v > PRSR_ROLE_SNAPSHOT_STANDBY)
          ADD_FAILURE() << "role " << v;
        check("get_service_instance_enabled",
              prsr_get_service_instance_enabled(&st, ctx, "sales", "sales.east", "sales3", &v));
        char name[64];
        check("get_instance_name", prsr_get_instance_name(&st, ctx, "sales", "sales2", 64, name));
        if (std::string(name) != "SALES2")
          ADD_FAILURE() << "instance name " << name;
        check("get_node_instance_name",
              prsr_get_node_instance_name(&st, ctx, "sales", "node2", 64, name));
        char **list = nullptr;
        uint32_t n = 0;
        check("list_db", prsr_list_db(&st, ctx, &list, &n));
        if (n != 1)
          ADD_FAILURE() << n << " databases";
        check("release_db_list", prsr_release_db_list(&st, ctx, list, n));
        char *domain = nullptr;
        check("get_domain", prsr_get_domain(&st, ctx, "sales", &domain));
        check("free_domain", prsr_free_domain(ctx, domain));
      }
    });
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(0, torn.load()) << "fetches saw a service-wide write half done";
  EXPECT_EQ(PRSR_SUCCESS, prsr_terminate(&init_st, ctx));
  /* The last service-wide write is whole as well. */
  auto flag = reg_->value(kSrv + ".ENABLED");
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(flag, reg_->value(srv_inst(i) + ".ENABLED")) << i;
}

INSTANTIATE_TEST_SUITE_P(Engines, SharedSession, ::testing::Values("sqlite", "zookeeper"));
