// Temporary places for registries in tests; nothing outside them is touched.
#ifndef TEST_REGISTRY_UTIL_H
#define TEST_REGISTRY_UTIL_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

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

} // namespace hvstest

#endif
