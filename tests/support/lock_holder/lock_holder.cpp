// lock_holder: takes one named lock in a process of its own and holds it,
// for tests that need another process to hold a lock (child_process.h).
//
//   lock_holder NAME shared|exclusive [HOLD_MS [KEY=VALUE...]]
//
// Takes the lock, then writes each VALUE (as text) to its KEY through the
// registry client, under the lock. Writes 'y' to stdout once that is done
// ('n' if the lock or a write was refused), then holds the lock for HOLD_MS
// milliseconds, or, without HOLD_MS or with a negative one, until a byte
// (or end of file) arrives on stdin; then releases it and exits with the
// code of the release (0 when it went well).
//
// With LOCK_HOLDER_WRITE=KEY=VALUE it also writes VALUE to KEY just before
// the release, as a late writer under the lock does; 16 is added to the
// exit code when that write was refused because the lock was lost, 32 when
// it failed otherwise.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "hvsapi.h"
#include "lks.h"
#include "mp.h"

namespace {

// KEY=VALUE: VALUE written to KEY as text.
int32_t write_text(void *hvs, const std::string &assignment) {
  const auto eq = assignment.find('=');
  const std::string value = assignment.substr(eq + 1);
  void *k = nullptr;
  int32_t rc = eq == std::string::npos ? HVS_ERR_ARGUMENT
                                       : hvsapi_open_key(hvs, &k, assignment.substr(0, eq).c_str());
  if (rc != HVS_OK)
    return rc;
  rc = hvsapi_set_value(hvs, k, HVS_TYPE_TEXT, value.c_str(), uint32_t(value.size() + 1));
  hvsapi_close_key(hvs, k);
  return rc;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 3)
    return 2;
  const char *name = argv[1];
  const bool shared = std::strcmp(argv[2], "shared") == 0;
  const int hold_ms = argc > 3 ? std::atoi(argv[3]) : -1;
  lks_status st{};
  void *h = nullptr, *hvs = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.metactx = plinit(nullptr);
  p.alloc = [](void *, uint64_t n) -> void * { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  int32_t rc = lkssinit(&st, &h, &v, &p, 272);
  if (rc == 0)
    rc = shared ? lksshrlock(&st, h, name) : lksmutexlock(&st, h, name);
  for (int i = 4; rc == 0 && i < argc; ++i) {
    uint64_t len = 0;
    rc = hvs != nullptr ? 0 : hvsapi_init_ext(&hvs, 3, nullptr, &len, 0);
    rc = rc != 0 ? rc : write_text(hvs, argv[i]);
  }
  char c = rc == 0 ? 'y' : 'n';
  if (write(1, &c, 1) != 1 || rc != 0)
    return 3;
  if (hold_ms >= 0)
    usleep(static_cast<useconds_t>(hold_ms) * 1000);
  else if (read(0, &c, 1) < 0)
    return 4;
  int wrote = 0;
  if (const char *late = getenv("LOCK_HOLDER_WRITE")) {
    void *reg = nullptr;
    int32_t hrc = hvsapi_init_ext(&reg, 0, nullptr, nullptr, 0);
    hrc = hrc != 0 ? hrc : write_text(reg, late);
    if (reg != nullptr)
      hvsapi_terminate(reg);
    wrote = hrc == 0 ? 0 : hrc == HVS_ERR_LOCK_LOST ? 16 : 32;
  }
  rc = lksunlock(&st, h, name);
  const int code = rc == 0 ? 0 : lks_status_code(&st);
  lkssterm(&st, h);
  if (hvs != nullptr)
    hvsapi_terminate(hvs);
  return code + wrote;
}
