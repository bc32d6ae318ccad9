// registry_agent: a registry client in a process of its own, for tests of
// what one process sees of another's writes (child_process.h).
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

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>

#include "hvsapi.h"
#include "lks.h"

namespace {

// Opens the key, get or set, closes it: the result, and the value read.
int32_t with_key(void *reg, const std::string &name, std::string *value, bool set) {
  void *key = nullptr;
  int32_t rc = hvsapi_open_key(reg, &key, name.c_str());
  if (rc != HVS_OK)
    return rc;
  char buf[4096];
  uint32_t type = 0, len = sizeof buf;
  rc = set ? hvsapi_set_value(reg, key, HVS_TYPE_TEXT, value->c_str(), uint32_t(value->size() + 1))
           : hvsapi_get_value(reg, key, &type, buf, &len);
  hvsapi_close_key(reg, key);
  if (!set && rc == HVS_OK)
    value->assign(buf, len && buf[len - 1] == '\0' ? len - 1 : len);
  return rc;
}

// Says why it failed on stderr; 1.
int fail(const std::string &why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  return 1;
}

int write_rounds(void *reg, int argc, char **argv) {
  if (argc < 7)
    return 2;
  const char *lock = argv[2];
  const long first = std::atol(argv[3]), last = std::atol(argv[4]);
  const int fd = ::open(argv[5], O_RDWR | O_CLOEXEC);
  void *map = fd >= 0 ? ::mmap(nullptr, 8, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
  if (map == MAP_FAILED)
    return fail(std::string(argv[5]) + ": " + std::strerror(errno));
  lks_status st{};
  void *locks = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = [](void *, uint64_t n) { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  if (lkssinit(&st, &locks, &v, &p, 272) != LKS_OK)
    return fail(std::string("lkssinit: ") + lks_status_text(&st));
  std::minstd_rand rng(unsigned(::getpid()));
  for (long r = first; r <= last; ++r) {
    if (lksmutexlock(&st, locks, lock) != LKS_OK)
      return fail("lock " + std::string(lock) + ": " + lks_status_text(&st));
    for (int k = 6; k < argc; ++k)
      if (std::string text = std::to_string(r); int32_t rc = with_key(reg, argv[k], &text, true))
        return fail("write of " + std::string(argv[k]) + ": " + std::to_string(rc));
    if (lksunlock(&st, locks, lock) != LKS_OK)
      return fail("unlock " + std::string(lock) + ": " + lks_status_text(&st));
    __atomic_store_n(static_cast<uint64_t *>(map), uint64_t(r), __ATOMIC_SEQ_CST);
    ::usleep(useconds_t(rng() % 200));
  }
  lkssterm(&st, locks);
  return 0;
}

int serve(void *reg) {
  for (std::string line; std::getline(std::cin, line);) {
    const std::string verb = line.substr(0, line.find(' '));
    const std::string rest = line.size() > verb.size() ? line.substr(verb.size() + 1) : "";
    const std::string name = rest.substr(0, rest.find(' '));
    std::string value = rest.size() > name.size() ? rest.substr(name.size() + 1) : "";
    const int32_t rc = verb == "get" || verb == "set" ? with_key(reg, name, &value, verb == "set")
                                                      : HVS_ERR_ARGUMENT;
    std::cout << (verb != "get" && verb != "set" ? "- unknown command"
                  : rc != HVS_OK                 ? "- " + std::to_string(rc)
                  : verb == "get"                ? "= " + value
                                                 : "ok")
              << std::endl;
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
  if (hvsapi_init_ext(&reg, 0, msg, &len, 0) != HVS_OK)
    return fail(std::string("registry: ") + msg);
  const std::string mode = argv[1];
  const int rc = mode == "write" ? write_rounds(reg, argc, argv) : mode == "serve" ? serve(reg) : 2;
  hvsapi_terminate(reg);
  return rc;
}
