// registry_agent: a registry client in a process of its own, for tests of
// what one process sees of another's writes. Started with exec, never as a
// bare fork of a test (see lock_holder.cpp).
//
//   registry_agent write LOCK FIRST LAST PUBLISH KEY...
//       For r = FIRST..LAST: takes LOCK exclusively, writes the text of r
//       to every KEY, releases LOCK, then stores r in the 8-byte file
//       PUBLISH (shared memory: the last round whose lock was given back),
//       and waits up to 200 us. Exits 0, or 1 at the first failure, saying
//       why on stderr.
//
//   registry_agent serve
//       Answers one line per command line on stdin:
//         get KEY          "= VALUE" or "- CODE"
//         set KEY VALUE    "ok" or "- CODE"
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "hvsapi.h"
#include "lks.h"

namespace {

std::string get(void *reg, const std::string &name) {
  void *key = nullptr;
  int32_t rc = hvsapi_open_key(reg, &key, name.c_str());
  if (rc != HVS_OK)
    return "- " + std::to_string(rc);
  char buf[4096];
  uint32_t type = 0, len = sizeof buf;
  rc = hvsapi_get_value(reg, key, &type, buf, &len);
  hvsapi_close_key(reg, key);
  if (rc != HVS_OK)
    return "- " + std::to_string(rc);
  return "= " + std::string(buf, len && buf[len - 1] == '\0' ? len - 1 : len);
}

int32_t set(void *reg, const std::string &name, const std::string &value) {
  void *key = nullptr;
  int32_t rc = hvsapi_open_key(reg, &key, name.c_str());
  if (rc != HVS_OK)
    return rc;
  rc = hvsapi_set_value(reg, key, HVS_TYPE_TEXT, value.c_str(), uint32_t(value.size() + 1));
  hvsapi_close_key(reg, key);
  return rc;
}

int write_rounds(void *reg, int argc, char **argv) {
  if (argc < 7)
    return 2;
  const char *lock = argv[2];
  long first = std::atol(argv[3]), last = std::atol(argv[4]);
  std::vector<std::string> keys(argv + 6, argv + argc);
  int fd = ::open(argv[5], O_RDWR | O_CLOEXEC);
  void *map = fd >= 0 ? ::mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (map == MAP_FAILED) {
    std::perror(argv[5]);
    return 1;
  }
  auto *published = static_cast<uint64_t *>(map);

  lks_status st{};
  void *locks = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = [](void *, uint64_t n) { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  if (lkssinit(&st, &locks, &v, &p, 272) != LKS_OK) {
    std::fprintf(stderr, "lkssinit: %s\n", lks_status_text(&st));
    return 1;
  }
  std::minstd_rand rng(unsigned(::getpid()));
  for (long r = first; r <= last; ++r) {
    if (lksmutexlock(&st, locks, lock) != LKS_OK) {
      std::fprintf(stderr, "lock %s: %s\n", lock, lks_status_text(&st));
      return 1;
    }
    for (const auto &k : keys)
      if (int32_t rc = set(reg, k, std::to_string(r)); rc != HVS_OK) {
        std::fprintf(stderr, "write of %s: %d\n", k.c_str(), rc);
        return 1;
      }
    if (lksunlock(&st, locks, lock) != LKS_OK) {
      std::fprintf(stderr, "unlock %s: %s\n", lock, lks_status_text(&st));
      return 1;
    }
    __atomic_store_n(published, uint64_t(r), __ATOMIC_SEQ_CST);
    ::usleep(useconds_t(rng() % 200));
  }
  lkssterm(&st, locks);
  return 0;
}

int serve(void *reg) {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::string verb = line.substr(0, line.find(' '));
    std::string rest = line.size() > verb.size() ? line.substr(verb.size() + 1) : "";
    std::string name = rest.substr(0, rest.find(' '));
    if (verb == "get") {
      std::cout << get(reg, name) << std::endl;
    } else if (verb == "set") {
      std::string value = rest.size() > name.size() ? rest.substr(name.size() + 1) : "";
      int32_t rc = set(reg, name, value);
      std::cout << (rc == HVS_OK ? std::string("ok") : "- " + std::to_string(rc)) << std::endl;
    } else {
      std::cout << "- unknown command" << std::endl;
    }
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 2)
    return 2;
  void *reg = nullptr;
  char msg[512] = "";
  uint64_t len = sizeof msg;
  if (hvsapi_init_ext(&reg, 0, msg, &len, 0) != HVS_OK) {
    std::fprintf(stderr, "registry: %s\n", msg);
    return 1;
  }
  std::string mode = argv[1];
  int rc = mode == "write" ? write_rounds(reg, argc, argv) : mode == "serve" ? serve(reg) : 2;
  hvsapi_terminate(reg);
  return rc;
}
