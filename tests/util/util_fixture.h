/* util_fixture.h - a scratch directory, captured trace lines and the meta
 * context for the utility-layer tests. */
#ifndef PRSR_TEST_UTIL_FIXTURE_H
#define PRSR_TEST_UTIL_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "mp.h"
#include "prsr_fault.h"
#include "trc.h"

namespace utiltest {

inline void *metactx() { return plinit(nullptr); }

/* The utility layer's component, registered so that its lines are named. */
inline uintptr_t hvsutl() { return trccompreg("utility layer", "HVSUTL", 1024, 0, 0, 0, 0); }

class Scratch {
public:
  Scratch() {
    char tmpl[] = "/tmp/prsr-util-XXXXXX";
    dir_ = mkdtemp(tmpl);
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  const std::string &dir() const { return dir_; }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  void write(const std::string &name, const std::string &text) const {
    std::ofstream(path(name)) << text;
  }

private:
  std::string dir_;
};

/* Trace lines written while it lives, at the given level and below. */
class Trace {
public:
  Trace(const Scratch &s, int level = 5) : path_(s.path("trace.log")), old_(trcgetlevel()) {
    hvsutl();
    trcsetdest(path_.c_str());
    trcsetlevel(level);
  }
  ~Trace() {
    trcsetlevel(old_);
    trcsetdest("none");
  }
  std::string text() const {
    std::ifstream in(path_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  /* True when a line of that component and level ends in (or holds) the
   * message; the line head is "TIME COMP LEVEL: ". */
  bool has(const std::string &comp, int level, const std::string &msg) const {
    return text().find(" " + comp + " " + std::to_string(level) + ": " + msg) !=
           std::string::npos;
  }
  bool has(const std::string &msg) const { return text().find(msg) != std::string::npos; }
  int count(const std::string &comp, int level) const {
    std::string t = text(), needle = " " + comp + " " + std::to_string(level) + ": ";
    int n = 0;
    for (size_t p = t.find(needle); p != std::string::npos; p = t.find(needle, p + 1))
      ++n;
    return n;
  }

private:
  std::string path_;
  int old_;
};

} // namespace utiltest
#endif
