// Trace and text utilities.
#include "trc.h"
#include "txt.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> read_lines(const std::string &path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);)
    lines.push_back(l);
  return lines;
}

} // namespace

class Trace : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/trc-test-XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = tmpl;
    ASSERT_EQ(trcsetdest(path_.c_str()), 0);
  }
  void TearDown() override {
    trcsetdest("none");
    trcsetlevel(0);
    unlink(path_.c_str());
  }
  std::string path_;
};

TEST_F(Trace, ComponentsAreRegisteredOnceAndLookedUpByName) {
  uintptr_t a = trccompreg("test", "TRCA", 1024, 0, 0, 0, 0);
  uintptr_t b = trccompreg("test", "TRCB", 1024, 0, 0, 0, 0);
  EXPECT_NE(a, 0u);
  EXPECT_NE(a, b);
  EXPECT_EQ(trccompreg("again", "TRCA", 1024, 0, 0, 0, 0), a);
  EXPECT_EQ(trcgetcompid("TRCA"), a);
  EXPECT_EQ(trcgetcompid("NEVER"), 0u);
  EXPECT_EQ(trcgetcompid(nullptr), 0u);

  // Concurrent registration of one name still gives one handle.
  std::vector<uintptr_t> got(8);
  std::vector<std::thread> ts;
  for (size_t i = 0; i < got.size(); ++i)
    ts.emplace_back([&, i] { got[i] = trccompreg("race", "TRCRACE", 1024, 0, 0, 0, 0); });
  for (auto &t : ts)
    t.join();
  for (uintptr_t h : got)
    EXPECT_EQ(h, got[0]);
}

TEST_F(Trace, LevelFiltersAndLinesHaveOneShape) {
  uintptr_t comp = trccompreg("test", "TRCLVL", 1024, 0, 0, 0, 0);
  trcsetlevel(2);
  EXPECT_EQ(trcgetlevel(), 2);
  trcprintf(comp, 3, "dropped %d", 3);
  trcprintf(comp, 2, "kept %s", "two");
  trcprintft(0, 0, "no component\n");
  // Above the level nothing is formatted: a bad argument goes unread.
  trcprintf(comp, 9, "%s", reinterpret_cast<const char *>(uintptr_t{1}));
  trcsetlevel(-1);
  trcprintf(comp, 0, "nothing passes");
  trcsetlevel(4);
  trcsetdest("none");
  trcprintf(comp, 0, "nowhere to go");

  auto lines = read_lines(path_);
  ASSERT_EQ(lines.size(), 2u);
  const std::regex shape(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (\S+) (\d+): (.*))");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, shape)) << lines[0];
  EXPECT_EQ(m[1], "TRCLVL");
  EXPECT_EQ(m[2], "2");
  EXPECT_EQ(m[3], "kept two");
  ASSERT_TRUE(std::regex_match(lines[1], m, shape)) << lines[1];
  EXPECT_EQ(m[1], "-");
  EXPECT_EQ(m[3], "no component"); // the caller's newline is not doubled

  // A sink takes the lines up to its own level as formatted, while the
  // destination is "none"; what it traces itself does not come back to it.
  struct Got {
    uintptr_t comp;
    std::vector<std::string> texts;
    int nested = 0;
  } got{comp, {}};
  ASSERT_EQ(0, trcsetsink(
                   [](void *arg, uintptr_t c, int32_t, const char *text) {
                     auto *g = static_cast<Got *>(arg);
                     if (c != g->comp)
                       return;
                     g->texts.emplace_back(text);
                     trcprintf(c, 0, "from the sink");
                     g->nested += trcsetsink(nullptr, nullptr, -1);
                   },
                   &got, 1));
  trcprintf(comp, 1, "to the sink %d\n", 1);
  trcprintf(comp, 2, "above the sink");
  EXPECT_EQ(0, trcsetsink(nullptr, nullptr, -1));
  trcprintf(comp, 0, "after removal");
  EXPECT_EQ(got.texts, std::vector<std::string>{"to the sink 1"});
  EXPECT_EQ(got.nested, -1) << "no sink is set from inside the sink";
}

TEST_F(Trace, LinesOfManyThreadsDoNotInterleave) {
  uintptr_t comp = trccompreg("test", "TRCMT", 1024, 0, 0, 0, 0);
  std::string big(3000, 'z'); // past the stack buffer
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t)
    ts.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i)
        trcprintf(comp, 0, "thread %d line %d %s end", t, i, big.c_str());
    });
  for (auto &t : ts)
    t.join();
  auto lines = read_lines(path_);
  ASSERT_EQ(lines.size(), 800u);
  const std::regex shape(R"(\S+ TRCMT 0: thread \d line \d+ z{3000} end)");
  for (const auto &l : lines)
    ASSERT_TRUE(std::regex_match(l, shape)) << l.substr(0, 80);
}

TEST(Text, ReplaceEveryOccurrenceWithinCapacity) {
  struct Case {
    const char *in;
    size_t cap_extra;
    const char *search, *repl;
    int32_t rc;
    const char *out;
  };
  const Case cases[] = {
      {"a.b.c", 2, ".", "*", 0, "a*b*c"},
      {"...", 2, ".", "*", 0, "***"},
      {"..x..", 0, ".", "*", 0, "**x**"}, // a full buffer, same length
      {"no dots", 2, ".", "*", 0, "no dots"},
      {"a.b", 0, ".", "::", -1, "a.b"},  // would grow past cap: unchanged
      {"a.b.c", 2, ".", "::", 0, "a::b::c"},
      {"a::b::c", 1, "::", ".", 0, "a.b.c"},
      {"aaa", 2, "aa", "b", 0, "ba"},    // left to right, no overlap
      {"x.y", 2, ".", "", 0, "xy"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.in);
    size_t len = std::strlen(c.in);
    std::vector<char> buf(len + c.cap_extra + 1, '#');
    std::memcpy(buf.data(), c.in, len);
    size_t out_len = 999;
    EXPECT_EQ(txtreplace(buf.data(), len, len + c.cap_extra, c.search, std::strlen(c.search),
                         c.repl, std::strlen(c.repl), &out_len),
              c.rc);
    size_t want = std::strlen(c.out);
    EXPECT_EQ(std::string(buf.data(), c.rc == 0 ? out_len : len), c.out);
    if (c.rc == 0) {
      EXPECT_EQ(out_len, want);
      if (want < len + c.cap_extra) {
        EXPECT_EQ(buf[want], '\0');
      }
    }
    EXPECT_EQ(buf.back(), '#'); // nothing past cap
  }
}

TEST(Text, TokensCaseAndFormatting) {
  char text[] = ",,alpha,, beta ,gamma,,";
  char *pos = nullptr;
  std::vector<std::string> toks;
  for (char *t = txttok(text, ", ", &pos); t != nullptr; t = txttok(nullptr, ", ", &pos))
    toks.push_back(t);
  EXPECT_EQ(toks, (std::vector<std::string>{"alpha", "beta", "gamma"}));
  char only[] = ",,,";
  pos = nullptr;
  EXPECT_EQ(txttok(only, ",", &pos), nullptr);

  char dst[8] = "#######";
  txtnlower(dst, "AbC\xC9", 4);
  EXPECT_EQ(std::string(dst, 5), "abc\xC9#"); // no terminator, high bytes kept
  txtnupper(dst, "xyZ", 3);
  EXPECT_EQ(std::string(dst, 3), "XYZ");
  char ldst[16];
  std::memset(ldst, 'q', sizeof ldst);
  txtlower(ldst, "MiXeD");
  EXPECT_STREQ(ldst, "mixed");
  EXPECT_EQ(txticmp("Sales", "sALES"), 0);
  EXPECT_NE(txticmp("Sales", "Sale"), 0);

  char big[2048];
  std::memset(big, '#', sizeof big);
  std::string longarg(1500, 'w');
  EXPECT_EQ(txtprintf(big, "%s", longarg.c_str()), 1023);
  EXPECT_EQ(big[1023], '\0');
  EXPECT_EQ(big[1024], '#');
  char small[6];
  EXPECT_EQ(txtprintf(small, "%d", 42), 2);
}
