/* bench_support.h - a throwaway registry for the benchmarks. */
#ifndef PRSR_BENCH_SUPPORT_H
#define PRSR_BENCH_SUPPORT_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "hvsadm.h"

namespace prsrbench {

/* A ratio the report prints at the end: the time of benchmark `num` over
 * that of `den`, both of this run, against the most it may be (0: shown
 * only). CPU time suits work done on this machine; real time includes the
 * waits for a server. */
struct Comparison {
  std::string label, num, den;
  double most;
  bool real_time;
};

inline std::vector<Comparison> &comparisons() {
  static std::vector<Comparison> all;
  return all;
}

/* For use at namespace scope: static const bool x = compare(...); */
inline bool compare(std::string label, std::string num, std::string den, double most,
                    bool real_time = false) {
  comparisons().push_back({std::move(label), std::move(num), std::move(den), most, real_time});
  return true;
}

/* Runs fn with the environment variable name set to value (unset for
 * nullptr), and puts it back after. */
template <class F> auto with_env(const char *name, const char *value, F &&fn) {
  const char *old = std::getenv(name);
  std::string saved = old ? old : "";
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
  struct Restore {
    const char *name;
    bool had;
    std::string value;
    ~Restore() {
      if (had)
        setenv(name, value.c_str(), 1);
      else
        unsetenv(name);
    }
  } restore{name, old != nullptr, saved};
  return fn();
}

/* A fresh SQLite registry in a temporary folder; HVS_REGISTRY names it. */
class Registry {
public:
  explicit Registry(const std::string &tag) {
    std::string tmpl = "/tmp/prsr-bench-" + tag + "-XXXXXX";
    dir_ = mkdtemp(tmpl.data());
    path_ = dir_ + "/reg.db";
    setenv("HVS_REGISTRY", ("sqlite:" + path_).c_str(), 1);
    char msg[1024] = {0};
    uint64_t len = sizeof msg;
    if (hvsadm_open(&adm_, 1, msg, &len) != 0)
      throw std::runtime_error(msg);
  }
  ~Registry() {
    hvsapi_terminate(adm_);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  const std::string &path() const { return path_; }
  void begin() { hvsadm_begin(adm_); }
  void commit() { hvsadm_commit(adm_); }
  void key(const std::string &name) { hvsadm_create_key(adm_, name.c_str(), 0, nullptr, 0); }
  void text(const std::string &name, const std::string &value) {
    hvsadm_create_key(adm_, name.c_str(), 1, value.c_str(),
                      static_cast<uint32_t>(value.size() + 1));
  }
  void *handle() const { return adm_; }

private:
  std::string dir_, path_;
  void *adm_ = nullptr;
};

} // namespace prsrbench
#endif
