// lock_env.h - a private registry location and a short lock timeout per
// test, and helpers to open lock handles on it.
#ifndef TEST_PLATFORM_LOCK_ENV_H
#define TEST_PLATFORM_LOCK_ENV_H

#include "lks.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace test_platform {

// Memory callbacks as a client gives them: counted, so a test sees the
// handle's record come back.
inline long g_blocks_out = 0;
inline void *counted_alloc(void *, uint64_t size) {
  ++g_blocks_out;
  return std::calloc(1, size);
}
inline void counted_free(void *, void *mem) {
  --g_blocks_out;
  std::free(mem);
}

inline lks_status fresh_status() {
  lks_status st;
  std::memset(&st, 0xA5, sizeof st); // callers only zero two places
  std::memset(&st, 0, sizeof(int32_t));
  std::memset(reinterpret_cast<char *>(&st) + 50, 0, 1);
  return st;
}

// Opens a lock handle, or returns the failure code with *handle NULL.
inline int32_t open_handle(void **handle, lks_status *st) {
  lks_version v{2, 1};
  lks_init_params p{};
  p.metactx = &g_blocks_out;
  p.alloc = counted_alloc;
  p.release = counted_free;
  p.flags = 192;
  *handle = nullptr;
  return lkssinit(st, handle, &v, &p, 272);
}

// A handle that must open.
inline void *open_ok() {
  lks_status st = fresh_status();
  void *h = nullptr;
  EXPECT_EQ(open_handle(&h, &st), LKS_OK) << lks_status_text(&st);
  EXPECT_NE(h, nullptr);
  return h;
}

// One lock request: its code, the status text and how long it took.
struct Attempt {
  int32_t code;
  std::string text;
  long ms;
};

inline Attempt try_lock(void *h, const char *name, bool shared) {
  lks_status st = fresh_status();
  auto t0 = std::chrono::steady_clock::now();
  int32_t rc = shared ? lksshrlock(&st, h, name) : lksmutexlock(&st, h, name);
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - t0)
                .count();
  EXPECT_EQ(lks_status_code(&st), rc);
  return {rc, lks_status_text(&st), static_cast<long>(ms)};
}

inline int32_t unlock(void *h, const char *name) {
  lks_status st = fresh_status();
  int32_t rc = lksunlock(&st, h, name);
  EXPECT_EQ(rc == LKS_OK, std::string(lks_status_text(&st)).empty()) << lks_status_text(&st);
  return rc;
}

inline void unlock_ok(void *h, const char *name) { EXPECT_EQ(unlock(h, name), LKS_OK); }

inline void term_ok(void *h) {
  lks_status st = fresh_status();
  EXPECT_EQ(lkssterm(&st, h), LKS_OK) << lks_status_text(&st);
}

class LockTest : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/lks-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("HVS_REGISTRY", ("sqlite:" + dir_ + "/reg.db").c_str(), 1);
    setenv("LKS_TIMEOUT_MS", "200", 1);
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  void *open() { return open_ok(); }
  std::string dir_;
};

} // namespace test_platform
#endif
