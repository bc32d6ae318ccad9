// Key-path tools: relative names, depth and parts, well-formedness, and
// the sleep and clearing helpers.
#include <chrono>
#include <cstring>
#include <string>

#include "util/keypath.h"
#include "testkit.h"

using testkit::metactx;

namespace {

struct AtorCase {
  const char *parent, *subkey;
  int32_t rc;
  const char *rel;
};

TEST(KeyPath, AtorRelativeNames) {
  const AtorCase cases[] = {
      {"DATABASE.VLM", "DATABASE.VLM.one.two", 0, "one.two"},
      // another root: the subkey is relative already
      {"DATABASE.VLM", "one.two", 0, "one.two"},
      {"DATABASE.VLM", "database.VLM.one", 0, "database.VLM.one"}, // roots compare with case
      {"DATABASE.VLM", "DATABASE.VLM", 1, ""},
      // the parent need not end at a separator of the subkey
      {"DATABASE.VLM", "DATABASE.VLMX.one", 0, ".one"},
      {"DATABASE.VLM", "DATABASE.OTHER", 1, ""},
      // found elsewhere than at the start: the position still comes from
      // the parent's length
      {"A.B", "A.XA.B", 0, ".B"},
      {"DATABASE.VLM", "DATABASE.VLM.", 0, ""},
      {"", "DATABASE.VLM", 1, ""},
      {"...", "DATABASE.VLM", 1, ""},
      {"DATABASE", "", 1, ""},
  };
  for (const auto &c : cases) {
    char rel[64];
    std::memset(rel, 'x', sizeof rel);
    long before = fault_live_blocks();
    EXPECT_EQ(c.rc, u_ator(metactx(), c.parent, c.subkey, rel)) << c.parent << " / " << c.subkey;
    EXPECT_STREQ(c.rel, rel) << c.parent << " / " << c.subkey;
    EXPECT_EQ(before, fault_live_blocks()) << "copies leaked for " << c.subkey;
  }
}

TEST(KeyPath, AtorRefusesNullAndFailedCopies) {
  char rel[32] = "untouched";
  EXPECT_EQ(1, u_ator(metactx(), nullptr, "A.B", rel));
  EXPECT_EQ(1, u_ator(metactx(), "A", nullptr, rel));
  EXPECT_EQ(1, u_ator(metactx(), "A", "A.B", nullptr));
  EXPECT_STREQ("untouched", rel);

  for (long n = 1; n <= 2; ++n) {
    long before = fault_live_blocks();
    fault_arm_alloc(n, 0);
    EXPECT_EQ(1, u_ator(metactx(), "A", "A.B", rel)) << "allocation " << n;
    EXPECT_TRUE(fault_fired());
    fault_reset();
    EXPECT_EQ(before, fault_live_blocks()) << "allocation " << n;
  }
}

struct DepthCase {
  const char *name;
  uint32_t depth;
  const char *subkey, *prefix;
};

TEST(KeyPath, DepthAndParts) {
  const DepthCase cases[] = {
      {"DATABASE.DATABASES.one", 3, "one", "DATABASE.DATABASES"},
      {"DATABASE", 1, "DATABASE", " "},
      {"", 0, "", " "},
      {"a..b", 2, "b", "a."},
      {".a.", 1, "a", ".a"},
  };
  for (const auto &c : cases) {
    char subkey[64] = "junk", prefix[64] = "junk";
    uint32_t depth = 99;
    EXPECT_EQ(0, u_get_keydepth(metactx(), c.name, &depth, subkey, prefix)) << c.name;
    EXPECT_EQ(c.depth, depth) << c.name;
    EXPECT_STREQ(c.subkey, subkey) << c.name;
    EXPECT_STREQ(c.prefix, prefix) << c.name;

    depth = 99;
    EXPECT_EQ(0, u_keydepth(metactx(), c.name, &depth));
    EXPECT_EQ(c.depth, depth) << c.name;
  }
}

TEST(KeyPath, DepthLeavesBuffersAloneWithoutBoth) {
  char subkey[16] = "keep";
  uint32_t depth = 0;
  EXPECT_EQ(0, u_get_keydepth(metactx(), "a.b", &depth, subkey, nullptr));
  EXPECT_EQ(2u, depth);
  EXPECT_STREQ("keep", subkey);
  EXPECT_EQ(1, u_get_keydepth(metactx(), nullptr, &depth, nullptr, nullptr));
  EXPECT_EQ(1, u_get_keydepth(metactx(), "a", nullptr, nullptr, nullptr));
}

TEST(KeyPath, CheckKeyComp) {
  const std::string c255(255, 'c'), c256(256, 'c');
  struct {
    std::string name;
    int32_t rc;
  } cases[] = {
      {"one.two", 0},       {"one", 0},         {"", 1},
      {".", 1},             {".one", 1},        {"one.", 1},
      {"one..two", 1},      {c255, 0},          {"a." + c255, 0},
      {c256, 1},            {"a." + c256, 1},   {c256 + ".a", 1},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.rc, u_check_keycomp(metactx(), c.name.c_str())) << "[" << c.name << "]";
  EXPECT_EQ(1, u_check_keycomp(metactx(), nullptr));
}

TEST(KeyPath, CheckKeyCompLogsBothCasesForLongInnerComponent) {
  testkit::TempDir s;
  testkit::Trace t(s, 0);
  std::string name = std::string(256, 'c') + ".a";
  EXPECT_EQ(1, u_check_keycomp(metactx(), name.c_str()));
  EXPECT_TRUE(t.has("HVSUTL", 0, "u_check_keycomp:3': Case 2"));
  EXPECT_TRUE(t.has("HVSUTL", 0, "u_check_keycomp:3': Case 3 or 4"));
}

TEST(KeyPath, SleepAndBlank) {
  auto start = std::chrono::steady_clock::now();
  u_sleep(20);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  u_sleep(0);

  char buf[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  EXPECT_EQ(buf, u_blank(nullptr, buf, 5));
  EXPECT_EQ(0, std::memcmp(buf, "\0\0\0\0\0fgh", 8));
  EXPECT_EQ(nullptr, u_blank(nullptr, nullptr, 5));
}

} // namespace
