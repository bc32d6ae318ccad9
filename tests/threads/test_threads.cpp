/* One session shared by several threads: readers, fetchers and writers of
 * one database at once, as a client with a thread pool would use it. The
 * session is read-only after prsr_init(), so every call must succeed (the
 * lock timeout is far above the whole run), and every fetch must see each
 * service-wide write whole: the service's flag and all its instances' flags
 * alike. Run under the thread sanitizer by the tsan preset. */
#include <thread>

#include "testkit.h"

using namespace testkit;

namespace {

constexpr int kRounds = 20;

class SharedSession : public ::testing::TestWithParam<const char *> {
protected:
  void SetUp() override {
    const bool zk = std::string(GetParam()) == "zookeeper";
    if (zk)
      ZK_REQUIRED();
    reg_.emplace(zk ? fresh_location("threads") : "");
    sample_service(*reg_);
    reg_->text("DATABASE.DATABASES.sales.INSTANCE.sales3", "Sales3");
    reg_->text("DATABASE.DATABASES.sales.INSTANCE.sales3.NODE", "node3");
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

} // namespace

TEST_P(SharedSession, ReadsFetchesAndWritesAtOnce) {
  lks_status init_st{};
  prsr_ctx *ctx = nullptr;
  ASSERT_EQ(PRSR_SUCCESS, prsr_init(&init_st, &ctx));
  auto check = [](const char *what, int32_t rc) {
    if (rc != PRSR_SUCCESS)
      ADD_FAILURE() << what << " gave " << rc;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    /* Writers: the service-wide flag and the database's role. */
    threads.emplace_back([&, t] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        check("set_service_enabled",
              prsr_set_service_enabled(&st, ctx, "Sales", "Sales.East", (r + t) % 2));
        check("set_db_role", prsr_set_db_role(&st, ctx, "SALES", (r + t) % 4));
      }
    });
    /* Fetchers of the whole record. */
    threads.emplace_back([&] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        prsr_cfg *cfg = nullptr;
        int32_t rc = prsr_fetch_db_config(&st, ctx, "sales", &cfg);
        check("fetch_db_config", rc);
        /* What a set leaves, or the sample as it was loaded (sales2 off),
         * which a fetch that wins the first lock reads. A set writes the
         * service's flag first, then sales1, sales2, sales3: none of its
         * steps looks like that. */
        const std::string f = rc == PRSR_SUCCESS ? service_flags(cfg) : "0:000";
        if (f != "0:000" && f != "1:111" && f != "1:110")
          ADD_FAILURE() << "a fetch saw a service-wide write half done: " << f;
        check("release_db_config", prsr_release_db_config(&st, ctx, cfg));
      }
    });
    /* Readers: a point read and a listing, each judged on what it read. */
    threads.emplace_back([&] {
      lks_status st{};
      for (int r = 0; r < kRounds; ++r) {
        uint32_t role = 99, n = 0;
        check("get_db_role", prsr_get_db_role(&st, ctx, "sales", &role));
        if (role > PRSR_ROLE_SNAPSHOT_STANDBY)
          ADD_FAILURE() << "role " << role;
        char **list = nullptr;
        check("list_db", prsr_list_db(&st, ctx, &list, &n));
        if (n != 1)
          ADD_FAILURE() << n << " databases";
        check("release_db_list", prsr_release_db_list(&st, ctx, list, n));
      }
    });
  }
  for (auto &t : threads)
    t.join();
  EXPECT_EQ(PRSR_SUCCESS, prsr_terminate(&init_st, ctx));
  /* The last service-wide write is whole as well. */
  auto flag = reg_->value(kSrv + ".ENABLED");
  for (const char *i : {"sales1", "sales2", "sales3"})
    EXPECT_EQ(flag, reg_->value(srv_inst(i) + ".ENABLED")) << i;
}

INSTANTIATE_TEST_SUITE_P(Engines, SharedSession, ::testing::Values("sqlite", "zookeeper"));
