/* fuzz_session.h - a library session on an in-memory registry for the
 * targets that call the exported operations, and the resources they must
 * give back. */
#ifndef PRSR_FUZZ_SESSION_H
#define PRSR_FUZZ_SESSION_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>

#include "fuzz_common.h"
#include "hvsadm.h"
#include "prsr.h"
#include "prsr_fault.h"

namespace fuzz {

/* The registry mem:<name>, an admin handle on it and a session. Every name
 * the library locks leaves a lock file behind: they all go into a directory
 * of this run (TMPDIR), removed at exit. */
struct Session {
  lks_status status{};
  prsr_ctx *ctx = nullptr;
  void *admin = nullptr;

  explicit Session(const char *registry) {
    trace_everything();
    static char dir[] = "/tmp/prsr-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(dir) != nullptr);
    setenv("TMPDIR", dir, 1);
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
    });
    setenv("HVS_REGISTRY", (std::string("mem:") + registry).c_str(), 1);
    setenv("LKS_TIMEOUT_MS", "300", 1);
    char msg[1024] = {0};
    uint64_t len = sizeof msg;
    if (hvsadm_open(&admin, 1, msg, &len) != 0) {
      std::fprintf(stderr, "cannot create the registry: %s\n", msg);
      std::abort();
    }
  }
  /* Opens the session once the registry holds what it should. */
  void start() { FUZZ_CHECK(prsr_init(&status, &ctx) == PRSR_SUCCESS); }
};

/* What is held right now: blocks, open keys, locks. */
struct Held {
  long blocks = fault_live_blocks(), keys = fault_open_keys(), locks = fault_held_locks();
  bool operator==(const Held &) const = default;
};

/* A result code the operation may give; own: also the registry client's
 * codes of a failed second read. */
inline bool one_of(int32_t rc, std::initializer_list<int32_t> codes, bool own = false) {
  for (int32_t c : codes)
    if (rc == c)
      return true;
  return own && (rc == HVS_ERR_SMALL_BUFFER || rc > HVS_ERR_NO_MORE);
}

} // namespace fuzz

#endif
