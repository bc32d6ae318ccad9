// zk_env.h - the test ensemble (HVS_TEST_ZK, started by scripts/zk.sh) and
// a fresh registry root on it per test.
#ifndef TEST_ZK_ENV_H
#define TEST_ZK_ENV_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace zktest {

inline std::string ensemble() {
  const char *zk = std::getenv("HVS_TEST_ZK");
  return zk != nullptr ? zk : "";
}

// zk://ENSEMBLE/prsr-test/<what>-<pid>-<n>: nothing of one test is seen by
// another, nor by an earlier run against the same server.
inline std::string fresh_location(const std::string &what, const std::string &hosts = ensemble()) {
  static int serial = 0;
  return "zk://" + hosts + "/prsr-test/" + what + "-" + std::to_string(getpid()) + "-" +
         std::to_string(++serial);
}

#define ZK_REQUIRED()                                                                         \
  do {                                                                                        \
    if (zktest::ensemble().empty())                                                           \
      GTEST_SKIP() << "HVS_TEST_ZK is not set (scripts/zk.sh start)";                         \
  } while (0)

inline long ms_since(std::chrono::steady_clock::time_point t0) {
  return long(std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - t0)
                  .count());
}

} // namespace zktest

#endif
