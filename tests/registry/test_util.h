// Temporary places for registries in tests; nothing outside them is touched.
#ifndef TEST_REGISTRY_UTIL_H
#define TEST_REGISTRY_UTIL_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#if __has_include("hvsapi.h")
#include "hvsapi.h"
#endif
#if __has_include("lks.h")
#include "lks.h"
#endif

namespace hvstest {

// A fresh directory under the system's temporary directory, removed at the
// end of the test.
class TempDir {
public:
  TempDir() {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "hvs-test-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr)
      std::abort();
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  std::string file(const std::string &name) const {
    return (path_ / name).string();
  }

private:
  std::filesystem::path path_;
};

// Points HVS_REGISTRY at loc for the life of the object.
class RegistryEnv {
public:
  explicit RegistryEnv(const std::string &loc) {
    ::setenv("HVS_REGISTRY", loc.c_str(), 1);
  }
  ~RegistryEnv() { ::unsetenv("HVS_REGISTRY"); }
  RegistryEnv(const RegistryEnv &) = delete;
  RegistryEnv &operator=(const RegistryEnv &) = delete;
};

// The whole content of a file, bytes as they are.
inline std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A command's exit status and what it wrote.
struct Result {
  int status;
  std::string out, err;
};

// Runs a shell command with its output caught in files under dir.
inline Result run_shell(const TempDir &dir, const std::string &cmd) {
  std::string out = dir.file("out.txt"), err = dir.file("err.txt");
  int rc = std::system((cmd + " >" + out + " 2>" + err).c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(out), slurp(err)};
}

#if __has_include("hvsapi.h")
// The last failure's text on a registry handle (and its code).
inline std::string last_error(void *h, uint32_t *code = nullptr) {
  uint32_t c = 0;
  char msg[1024] = "";
  uint32_t len = sizeof msg;
  hvsapi_get_last_error(h, &c, msg, &len);
  if (code)
    *code = c;
  return msg;
}
#endif

#if __has_include("lks.h")
// A lock-service handle of this process on the current HVS_REGISTRY, with
// the client's own memory callbacks.
inline int32_t open_locks(lks_status *st, void **h) {
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = [](void *, uint64_t n) { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  *h = nullptr;
  return lkssinit(st, h, &v, &p, 272);
}

// One named lock held exclusively by this process while the object lives
// (or until release()).
class HeldLock {
public:
  explicit HeldLock(const std::string &name) : name_(name) {
    if (open_locks(&st_, &h_) == LKS_OK)
      held_ = lksmutexlock(&st_, h_, name_.c_str()) == LKS_OK;
  }
  ~HeldLock() {
    release();
    if (h_ != nullptr)
      lkssterm(&st_, h_);
  }
  HeldLock(const HeldLock &) = delete;
  HeldLock &operator=(const HeldLock &) = delete;
  bool held() const { return held_; }
  void release() {
    if (held_)
      lksunlock(&st_, h_, name_.c_str());
    held_ = false;
  }

private:
  std::string name_;
  lks_status st_{};
  void *h_ = nullptr;
  bool held_ = false;
};
#endif

} // namespace hvstest

#endif
