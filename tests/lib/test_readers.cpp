/* The shared value readers and the failure report. */
#include <cstring>

#include "testkit.h"
#include "registry/registry.h"

using namespace testkit;

namespace {

struct Readers : ::testing::Test {
  Registry reg;
  Session s;
  prsr_ctx *ctx() { return s.ctx(); }
  void *meta() { return s.ctx()->metactx; }
  void *hvs() { return s.ctx()->hvs_handle; }
  uintptr_t comp() { return s.ctx()->trace_comp; }
};

} // namespace

TEST_F(Readers, OpenGetValueReadsAnyLength) {
  for (size_t n : {0u, 1u, 63u, 64u, 65u, 5000u}) {
    std::string v(n, 'a');
    reg.text("K", v);
    char *out = nullptr;
    ASSERT_EQ(0, prsr_open_get_value(ctx(), hvs(), "K", &out)) << n;
    EXPECT_EQ(v, std::string(out)) << n;
    u_freem(meta(), out);
  }
  Trace trace(reg.dir(), 0);
  /* Unterminated bytes beyond the first buffer are no text: the second
   * block is exactly the reported size, so they are refused rather than
   * handed out without a NUL. */
  reg.raw("K", std::string(64, 'b'));
  char *out = nullptr;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_open_get_value(ctx(), hvs(), "K", &out));
  EXPECT_TRUE(trace.has("prsr_open_get_value: value of key K is not a text (64 bytes, no NUL)"));
  u_freem(meta(), out);

  out = nullptr;
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_open_get_value(ctx(), hvs(), "NOPE", &out));
  EXPECT_TRUE(trace.has("prsr_open_get_value: HVS api hvsapi_open_key failed for key NOPE with 4"));
  EXPECT_TRUE(trace.has("HVS error code : 4"));
  EXPECT_TRUE(trace.has("HVS error msg : "));
  u_freem(meta(), out); /* the caller's to free whatever the result */
}

TEST_F(Readers, MultiStrings) {
  struct Case {
    std::string bytes;
    std::vector<std::string> want;
    uint32_t count; /* count reported, entries past an empty string stay NULL */
  };
  std::string big;
  std::vector<std::string> big_want;
  for (int i = 0; big.size() < 1100; ++i) {
    big_want.push_back("VAR" + std::to_string(i) + "=" + std::string(20, 'x'));
    big += big_want.back() + std::string(1, '\0');
  }
  big += std::string(1, '\0');
  const std::string Z(1, '\0');
  Case cases[] = {
      {"A=1" + Z + "B=2" + Z + Z, {"A=1", "B=2"}, 2},
      {"A=1" + Z, {}, 0},            /* one string, no closing NUL: no list */
      {"A=1" + Z + Z, {"A=1"}, 1},
      {Z, {}, 0},
      {"", {}, 0},
      {"A" + Z + Z + "B" + Z + Z, {"A"}, 3}, /* empty string in the middle ends it */
      {big, big_want, static_cast<uint32_t>(big_want.size())},
  };
  for (auto &c : cases) {
    reg.raw("M", c.bytes);
    char **list = nullptr;
    uint32_t count = 99;
    ASSERT_EQ(0, prsr_get_multivalues(meta(), comp(), hvs(), "M", &list, &count));
    ASSERT_EQ(c.count, count) << c.bytes.size();
    for (uint32_t i = 0; i < count; ++i) {
      if (i < c.want.size())
        EXPECT_STREQ(c.want[i].c_str(), list[i]);
      else
        EXPECT_EQ(nullptr, list[i]);
    }
    if (count == 0) {
      EXPECT_EQ(nullptr, list);
    }
    free_table(meta(), list, count);
  }
  /* A missing key leaves the caller's table variable alone. */
  char **untouched = reinterpret_cast<char **>(0x10);
  uint32_t count = 5;
  EXPECT_EQ(0, prsr_get_multivalues(meta(), comp(), hvs(), "NOPE", &untouched, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(reinterpret_cast<char **>(0x10), untouched);
}

TEST_F(Readers, SubkeysAndCasePreservedNames) {
  char **names = nullptr;
  uint32_t count = 9;
  EXPECT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count)); /* missing */
  EXPECT_EQ(0u, count);

  reg.key("P");
  names = reinterpret_cast<char **>(0x10);
  EXPECT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(nullptr, names);

  reg.text("P.one", "One");
  ASSERT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count));
  ASSERT_EQ(1u, count);
  EXPECT_STREQ("one", names[0]);
  free_table(meta(), names, count);

  reg.text("P.b*c", "B.C");
  reg.text("P.a", "A");
  reg.text("P.zz", "Zz");
  ASSERT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count));
  ASSERT_EQ(4u, count);
  EXPECT_STREQ("a", names[0]); /* byte order */
  EXPECT_STREQ("b*c", names[1]);
  EXPECT_STREQ("one", names[2]);
  EXPECT_STREQ("zz", names[3]);

  char *values[4] = {};
  ASSERT_EQ(0, prsr_get_case_preserved_values(meta(), comp(), hvs(), "P", names, count, values));
  EXPECT_STREQ("A", values[0]);
  EXPECT_STREQ("B.C", values[1]);
  EXPECT_STREQ("One", values[2]);
  EXPECT_STREQ("Zz", values[3]);
  for (auto *v : values)
    u_freem(meta(), v);

  /* A name text longer than its component cannot be read; what was read
   * before stays with the caller. */
  reg.text("P.one", "OneMore");
  char *partial[4] = {};
  EXPECT_EQ(PRSR_ERR_REGISTRY,
            prsr_get_case_preserved_values(meta(), comp(), hvs(), "P", names, count, partial));
  EXPECT_STREQ("A", partial[0]);
  EXPECT_EQ(nullptr, partial[2]);
  for (auto *v : partial)
    if (v)
      u_freem(meta(), v);
  free_table(meta(), names, count);
}
