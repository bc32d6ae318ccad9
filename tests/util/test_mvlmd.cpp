// Storage-dependency registration against the resource manager's store.
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "rsmgr.h"
#include "util/mvlmd.h"
#include "testkit.h"

namespace {

struct Row {
  std::string resource, name, value;
  uint32_t flags;
};

class Mvlmd : public ::testing::Test {
protected:
  void SetUp() override {
    setenv("HVS_RSM_STORE", scratch_.path("store.rsm").c_str(), 1);
    unsetenv("HVS_RSM_FAIL");
    comp_ = trccompreg("test component", "MVLMDTEST", 1024, 0, 0, 0, 0);
  }
  void TearDown() override {
    unsetenv("HVS_RSM_FAIL");
    unsetenv("HVS_RSM_STORE");
  }
  std::vector<Row> rows(int queue) {
    std::vector<Row> out;
    void *c = nullptr;
    EXPECT_EQ(0, rsmgr_init_rsm(&c, nullptr, nullptr, 0));
    rsmgr_store_walk(
        c, queue,
        [](void *arg, const char *r, const char *n, const char *v, uint32_t f, const char *) {
          static_cast<std::vector<Row> *>(arg)->push_back({r, n, v, f});
          return 0;
        },
        &out);
    rsmgr_term_rsm(&c);
    return out;
  }
  std::map<std::string, std::string> attrs() {
    std::map<std::string, std::string> m;
    for (auto &r : rows(0)) {
      EXPECT_EQ("tvn.rsmd", r.resource);
      m[r.name] = r.value;
    }
    return m;
  }

  testkit::TempDir scratch_;
  uintptr_t comp_ = 0;
};

TEST_F(Mvlmd, OneSwitchDecidesBothAttributes) {
  ASSERT_EQ(0, u_mvlmd(nullptr, comp_, 1));
  auto with = attrs();
  EXPECT_EQ("hard(tvn.vlm,tvn.qorm,tvn.lutz,tvn.brav)pullup(tvn.vlm,tvn.qorm,tvn.lutz,tvn.brav)",
            with["START_DEPENDENCIES"]);
  EXPECT_EQ("hard(shutdown:tvn.vlm,intermediate:tvn.qorm,intermediate:tvn.brav)",
            with["STOP_DEPENDENCIES"]);

  ASSERT_EQ(0, u_mvlmd(nullptr, comp_, 0));
  auto without = attrs();
  EXPECT_EQ(2u, without.size());
  EXPECT_EQ("hard(tvn.qorm,tvn.lutz,tvn.brav)pullup(tvn.qorm,tvn.lutz,tvn.brav)",
            without["START_DEPENDENCIES"]);
  EXPECT_EQ("hard(intermediate:tvn.qorm,intermediate:tvn.brav)", without["STOP_DEPENDENCIES"]);
  EXPECT_TRUE(rows(1).empty());

  ASSERT_EQ(0, u_mvlmd(nullptr, comp_, -5)); // any nonzero value
  EXPECT_EQ(with, attrs());
}

TEST_F(Mvlmd, FailedRegistrationIsQueued) {
  testkit::Trace t(scratch_, 5);
  setenv("HVS_RSM_FAIL", "register:1", 1);
  EXPECT_EQ(0, u_mvlmd(nullptr, comp_, 1));
  EXPECT_TRUE(t.has("MVLMDTEST", 1,
                    "u_mvlmd:11': rsmgr_register_resource2 failed [4]. Retrying operation with "
                    "QUEUE and ASYNC flags."));
  EXPECT_TRUE(t.has("MVLMDTEST", 1,
                    "u_mvlmd:15: rsmgr_register_resource2 successfully queued [0]. Return [0]"));
  EXPECT_EQ(2, t.count("MVLMDTEST", 1));
  EXPECT_EQ(0, t.count("MVLMDTEST", 0));
  unsetenv("HVS_RSM_FAIL");

  EXPECT_TRUE(rows(0).empty()) << "nothing applied at once";
  auto queued = rows(1);
  ASSERT_EQ(2u, queued.size());
  for (auto &r : queued) {
    EXPECT_EQ("tvn.rsmd", r.resource);
    EXPECT_EQ(0x51u, r.flags);
  }
}

TEST_F(Mvlmd, RegistrationFailingTwiceGivesSix) {
  testkit::Trace t(scratch_, 5);
  setenv("HVS_RSM_FAIL", "register:2", 1);
  EXPECT_EQ(6, u_mvlmd(nullptr, comp_, 0));
  EXPECT_TRUE(t.has("MVLMDTEST", 1, "u_mvlmd:11': rsmgr_register_resource2 failed [4]."));
  EXPECT_TRUE(t.has("MVLMDTEST", 0, "u_mvlmd:14: rsmgr_reg_res op stat [4] for resource [tvn.rsmd]"));
  EXPECT_TRUE(t.has("MVLMDTEST", 0,
                    "u_mvlmd:15: rsmgr_register_resource2 failed [4] flags [51]. Return [6]"));
  unsetenv("HVS_RSM_FAIL");
  EXPECT_TRUE(rows(0).empty());
  EXPECT_TRUE(rows(1).empty());
}

TEST_F(Mvlmd, EachStepFailureGivesSixAndItsLine) {
  struct {
    const char *fail, *line;
  } cases[] = {
      {"init:1", "u_mvlmd:2: rsmgr_init_api failed [4]. Return [6]"},
      {"create:1", "u_mvlmd:3: rsmgr_res_create failed [4]. Return [6]"},
      {"set_attr:1", "u_mvlmd:4: rsmgr_res_set_attr START_DEP failed [4]. Return [6]"},
      {"set_attr@2", "u_mvlmd:5: rsmgr_res_set_attr STOP_DEP failed [4]. Return [6]"},
      {"reslist:1", "u_mvlmd:6: rsmgr_reslist_create failed [4]. Return [6]"},
      {"append:1", "u_mvlmd:8: rsmgr_reslist_append failed [4]. Return [6]"},
      {"reslist@2", "u_mvlmd:9: rsmgr_reslist_create failed [4]. Return [6]"},
      {"register:1,reslist@3", "u_mvlmd:13: rsmgr_reslist_create failed [4]. Return [6]"},
  };
  for (const auto &c : cases) {
    testkit::Trace t(scratch_, 0);
    setenv("HVS_RSM_FAIL", c.fail, 1);
    EXPECT_EQ(6, u_mvlmd(nullptr, comp_, 1)) << c.fail;
    EXPECT_TRUE(t.has("MVLMDTEST", 0, c.line)) << c.fail << "\n" << t.text();
    EXPECT_EQ(1, t.count("MVLMDTEST", 0)) << c.fail;
    std::remove(scratch_.path("trace.log").c_str());
  }
  unsetenv("HVS_RSM_FAIL");
  EXPECT_TRUE(rows(0).empty());
  EXPECT_TRUE(rows(1).empty());
}

TEST_F(Mvlmd, StoreBesideSqliteRegistry) {
  unsetenv("HVS_RSM_STORE");
  std::string old = getenv("HVS_REGISTRY") ? getenv("HVS_REGISTRY") : "";
  setenv("HVS_REGISTRY", ("sqlite:" + scratch_.path("reg.db")).c_str(), 1);
  void *c = nullptr;
  ASSERT_EQ(0, rsmgr_init_rsm(&c, nullptr, nullptr, 0x88));
  EXPECT_EQ(scratch_.path("reg.db") + ".rsm", rsmgr_store_path(c));
  rsmgr_term_rsm(&c);
  setenv("HVS_REGISTRY", "mem:x", 1);
  EXPECT_EQ(RSMGR_ERR_STORE, rsmgr_init_rsm(&c, nullptr, nullptr, 0x88));
  EXPECT_EQ(nullptr, c);
  if (old.empty())
    unsetenv("HVS_REGISTRY");
  else
    setenv("HVS_REGISTRY", old.c_str(), 1);
}

} // namespace
