/* The shared value readers and the failure report. */
#include "registry/registry.h"
#include "testkit.h"

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
  char *out = nullptr;
  for (size_t n : {0u, 63u, 64u, 5000u}) { /* a first read takes 64 bytes */
    std::string v(n, 'a');
    reg.text("K", v);
    ASSERT_EQ(0, prsr_open_get_value(ctx(), hvs(), "K", &out)) << n;
    EXPECT_EQ(v, std::string(out)) << n;
    u_freem(meta(), out);
  }
  Trace trace(reg.dir(), 0);
  /* Unterminated bytes beyond the first buffer are no text: the second
   * block is exactly the reported size, so they are refused rather than
   * handed out without a NUL. The caller frees the block whatever the
   * result. */
  reg.raw("K", std::string(64, 'b'));
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_open_get_value(ctx(), hvs(), "K", &out));
  u_freem(meta(), out);
  EXPECT_EQ(PRSR_ERR_REGISTRY, prsr_open_get_value(ctx(), hvs(), "NOPE", &out));
  EXPECT_TRUE(trace.has("prsr_open_get_value: HVS api hvsapi_open_key failed for key NOPE with 4"));
  u_freem(meta(), out);
}

TEST_F(Readers, MultiStrings) {
  const std::string Z(1, '\0');
  std::vector<std::string> big_want(40, "VAR=" + std::string(30, 'x')); /* beyond a first read */
  std::string big;
  for (auto &v : big_want)
    big += v + Z;
  /* The bytes stored, and the entries listed: "<null>" for those past an
   * empty string, which stay NULL though counted. */
  std::pair<std::string, std::vector<std::string>> cases[] = {
      {"A=1" + Z + "B=2" + Z + Z, {"A=1", "B=2"}},
      {"A=1" + Z, {}}, /* one string, no closing NUL: no list */
      {Z, {}},
      {"", {}},
      {"A" + Z + Z + "B" + Z + Z, {"A", "<null>", "<null>"}}, /* an empty string ends it */
      {big + Z, big_want},
  };
  for (auto &[bytes, want] : cases) {
    reg.raw("M", bytes);
    char **list = nullptr;
    uint32_t count = 99;
    ASSERT_EQ(0, prsr_get_multivalues(meta(), comp(), hvs(), "M", &list, &count));
    EXPECT_EQ(count == 0, list == nullptr);
    std::vector<std::string> got;
    for (uint32_t i = 0; i < count; ++i)
      got.push_back(str(list[i]));
    EXPECT_EQ(want, got) << bytes.size();
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
  char **names = reinterpret_cast<char **>(0x10);
  uint32_t count = 9;
  EXPECT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count)); /* missing */
  EXPECT_EQ(0u, count);
  reg.key("P");
  names = reinterpret_cast<char **>(0x10);
  EXPECT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(nullptr, names);

  for (auto [k, v] : {std::pair{"P.one", "One"}, std::pair{"P.b*c", "B.C"}, std::pair{"P.a", "A"},
                      std::pair{"P.zz", "Zz"}})
    reg.text(k, v);
  ASSERT_EQ(0, prsr_get_subkeys(meta(), comp(), hvs(), "P", &names, &count));
  /* The result of the case-preserved read, and "name=value" per subkey. */
  auto preserved = [&] {
    std::vector<char *> values(count);
    int32_t rc =
        prsr_get_case_preserved_values(meta(), comp(), hvs(), "P", names, count, values.data());
    std::vector<std::string> got{std::to_string(rc)};
    for (uint32_t i = 0; i < count; ++i) {
      got.push_back(std::string(names[i]) + "=" + str(values[i]));
      if (values[i])
        u_freem(meta(), values[i]);
    }
    return got;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ((V{"0", "a=A", "b*c=B.C", "one=One", "zz=Zz"}), preserved()); /* byte order */
  /* A name text longer than its component cannot be read; what was read
   * before stays with the caller. */
  reg.text("P.one", "OneMore");
  EXPECT_EQ((V{"3", "a=A", "b*c=B.C", "one=<null>", "zz=<null>"}), preserved());
  free_table(meta(), names, count);
}
