// Trace and text stand-ins.
#include "testkit.h"
#include "txt.h"

#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

// The level filters; lines of many threads, longer than the stack buffer,
// come out whole and in one shape.
TEST(Trace, LevelFiltersAndLinesOfManyThreadsDoNotInterleave) {
  testkit::TempDir dir;
  {
    testkit::Trace trace(dir.dir(), 2);
    uintptr_t comp = trccompreg("test", "TRCMT", 1024, 0, 0, 0, 0);
    EXPECT_EQ(trccompreg("again", "TRCMT", 1024, 0, 0, 0, 0), comp);
    trcprintf(comp, 3, "dropped");
    const std::string big(3000, 'z');
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t)
      ts.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i)
          trcprintf(comp, 2, "thread %d line %d %s end", t, i, big.c_str());
      });
    for (auto &t : ts)
      t.join();
  }
  std::istringstream in(testkit::slurp(dir.path("trace.log")));
  const std::regex shape(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z TRCMT 2: thread \d line \d+ z{3000} end)");
  int n = 0;
  for (std::string l; std::getline(in, l); ++n)
    ASSERT_TRUE(std::regex_match(l, shape)) << l.substr(0, 80);
  EXPECT_EQ(n, 800);
}

TEST(Text, ReplaceEveryOccurrenceWithinCapacity) {
  const struct {
    const char *in;
    size_t cap_extra;
    const char *search, *repl;
    int32_t rc;
    const char *out;
  } cases[] = {
      {"..x..", 0, ".", "*", 0, "**x**"}, // a full buffer, same length
      {"a.b", 0, ".", "::", -1, "a.b"},   // would grow past cap: unchanged
      {"a.b.c", 2, ".", "::", 0, "a::b::c"}, {"a::b::c", 1, "::", ".", 0, "a.b.c"},
      {"aaa", 2, "aa", "b", 0, "ba"}, // left to right, no overlap
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.in);
    size_t len = std::strlen(c.in), out_len = 999;
    std::vector<char> buf(len + c.cap_extra + 1, '#');
    std::memcpy(buf.data(), c.in, len);
    EXPECT_EQ(txtreplace(buf.data(), len, len + c.cap_extra, c.search, std::strlen(c.search),
                         c.repl, std::strlen(c.repl), &out_len),
              c.rc);
    EXPECT_EQ(std::string(buf.data(), c.rc == 0 ? out_len : len), c.out);
    EXPECT_EQ(buf.back(), '#'); // nothing past cap
  }
}
