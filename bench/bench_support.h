/* bench_support.h - a throwaway registry for the benchmarks. */
#ifndef PRSR_BENCH_SUPPORT_H
#define PRSR_BENCH_SUPPORT_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "hvsadm.h"

namespace prsrbench {

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
