/* The database enable flag: reads and writes. */
#include "testkit.h"

using namespace testkit;

namespace {
struct DbEnabled : ::testing::Test {
  Registry reg;
  void SetUp() override { reg.sample_db(); }
};
} // namespace

TEST_F(DbEnabled, ReadsAnyCaseOfNameAndValue) {
  Session s;
  struct {
    const char *stored;
    uint32_t want;
  } values[] = {{"true", 1}, {"TRUE", 1}, {"True", 1}, {"false", 0}, {"", 0}, {"yes", 0},
                {"true ", 0}};
  for (auto &v : values) {
    reg.text("DATABASE.DATABASES.sales.ENABLED", v.stored);
    for (const char *name : {"sales", "SALES", "SaLeS"}) {
      uint32_t flag = 77;
      ASSERT_EQ(PRSR_SUCCESS, prsr_get_db_enabled(s.status(), s.ctx(), name, &flag));
      EXPECT_EQ(v.want, flag) << v.stored << " via " << name;
    }
  }
}

TEST_F(DbEnabled, MissingAndUnreadableKeys) {
  Session s;
  Trace trace(reg.dir(), 0);
  uint32_t flag = 77;
  EXPECT_EQ(PRSR_ERR_NO_KEY, prsr_get_db_enabled(s.status(), s.ctx(), "nodb", &flag));
  EXPECT_EQ(77u, flag);
  EXPECT_TRUE(trace.has("prsr_get_enabled_key: HVS api hvsapi_open_key failed for key "
                        "DATABASE.DATABASES.nodb.ENABLED with 4"));
  /* An empty name is asked for as it is, and the registry's answer (a key
   * name with an empty component) decides. */
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_db_enabled(s.status(), s.ctx(), "", &flag));
  EXPECT_TRUE(trace.has("DATABASE.DATABASES..ENABLED"));

  reg.text("DATABASE.DATABASES.sales.ENABLED", std::string(1100, 't'));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_db_enabled(s.status(), s.ctx(), "sales", &flag));
  EXPECT_EQ(77u, flag);
  EXPECT_TRUE(trace.has("prsr_get_enabled_key: HVS api hvsapi_get_value failed"));
  /* Exactly 1024 bytes without a NUL is no text either. */
  reg.raw("DATABASE.DATABASES.sales.ENABLED", std::string(1024, 't'));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_get_db_enabled(s.status(), s.ctx(), "sales", &flag));
}

TEST_F(DbEnabled, WritesLowerCaseWordsWithTheirNul) {
  Session s;
  for (uint32_t v : {7u, 0u, 1u, 0xFFFFFFFFu}) {
    ASSERT_EQ(PRSR_SUCCESS, prsr_set_db_enabled(s.status(), s.ctx(), "SALES", v));
    EXPECT_EQ(v ? bytes("true") : bytes("false"), reg.value("DATABASE.DATABASES.sales.ENABLED"));
    uint32_t flag = 9;
    ASSERT_EQ(PRSR_SUCCESS, prsr_get_db_enabled(s.status(), s.ctx(), "sales", &flag));
    EXPECT_EQ(v ? 1u : 0u, flag);
  }
  /* A write never creates a key: 3 where the read says 7. */
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_set_db_enabled(s.status(), s.ctx(), "nodb", 1));
  EXPECT_EQ(std::nullopt, reg.value("DATABASE.DATABASES.nodb.ENABLED"));
  EXPECT_EQ(0, fault_held_locks());
}
