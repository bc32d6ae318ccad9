// Version compatibility and the version texts behind it.
#include "util/version.h"
#include "testkit.h"
#include "ver.h"

namespace {

TEST(Version, Compatibility) {
  struct {
    const char *program, *persist;
    int32_t rc;
  } cases[] = {
      {"2.3", "2.3", 0},
      {"2.3.0.1", "2.3.255.4095", 0}, // below bit 20 nothing counts ...
      {"2.3.255.4095", "2.3.0.1", 0}, // ... in either direction
      {"3.0", "2.15", 0},             // higher major whatever the minors
      {"2.4", "2.3.9", 0},
      {"2.3", "2.4", 4},
      {"2.15", "3.0", 4},
      {"255.15", "0.0", 0}, // the major field is unsigned
      {"0.0", "255.0", 4},
      {"2", "2.0", 1},
      {"2.0", "2.16", 1},
      {"x", "2.0", 1},
  };
  for (const auto &c : cases)
    EXPECT_EQ(c.rc, u_version_compatible(c.program, c.persist)) << c.program << " vs " << c.persist;
}

TEST(Version, LogsWhatItRefuses) {
  testkit::TempDir s;
  testkit::Trace t(s, 0);
  EXPECT_EQ(4, u_version_compatible("1.2", "1.3"));
  EXPECT_TRUE(t.has("HVSUTL", 0,
                    "u_version_compatible: Versions are not compatible. Program Ver [1.2] Persist "
                    "Ver [1.3]"));
  EXPECT_EQ(1, u_version_compatible(nullptr, "1.0"));
  EXPECT_EQ(1, u_version_compatible("1.0", nullptr));
  EXPECT_TRUE(t.has("u_version_compatible: Null versions strings passed."));
  // A bad program text stops before the persisted one is looked at.
  EXPECT_EQ(1, u_version_compatible("bad", "also bad"));
  EXPECT_TRUE(t.has("u_version_compatible: Program vsnstr not in correct format."));
  EXPECT_FALSE(t.has("Persist vsnstr"));
  EXPECT_EQ(1, u_version_compatible("1.0", "also bad"));
  EXPECT_TRUE(t.has("u_version_compatible: Persist vsnstr not in correct format."));
}

TEST(Version, ParseTexts) {
  struct {
    const char *text;
    int32_t ok;
    uint32_t packed;
  } cases[] = {
      {"12.1.0.2", 1, 0x0C100002},  {"2.0", 1, 0x02000000},   {"255.15.255.4095", 1, 0xFFFFFFFF},
      {"0.0", 1, 0},                {"007.01", 1, 0x07100000}, {"256.0", 0, 0},
      {"1.16", 0, 0},               {"1.0.256", 0, 0},        {"1.0.0.4096", 0, 0},
      {"1", 0, 0},                  {"1.2.3.4.5", 0, 0},      {"1..2", 0, 0},
      {".1.2", 0, 0},               {"1.2.", 0, 0},           {" 1.2", 0, 0},
      {"1.2 ", 0, 0},               {"-1.2", 0, 0},           {"", 0, 0},
      {"000001.0", 0, 0},
  };
  for (const auto &c : cases) {
    uint32_t out = 0xdeadbeef;
    EXPECT_EQ(c.ok, verparse(&out, c.text)) << c.text;
    EXPECT_EQ(c.ok ? c.packed : 0xdeadbeef, out) << c.text;
  }
  uint32_t out = 0;
  EXPECT_EQ(0, verparse(&out, nullptr));
  EXPECT_EQ(0, verparse(nullptr, "1.0"));
}

} // namespace
