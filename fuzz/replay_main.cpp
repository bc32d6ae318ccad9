/* replay_main.cpp - runs a fuzz entry point over files, without libFuzzer:
 * each argument is a file or a directory whose files (sorted by name) are
 * fed in turn. Fails when it was given nothing to run. */
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    fs::path p(argv[i]);
    std::error_code ec;
    if (fs::is_directory(p, ec)) {
      for (const auto &e : fs::directory_iterator(p))
        if (e.is_regular_file())
          files.push_back(e.path());
    } else if (fs::is_regular_file(p, ec)) {
      files.push_back(p);
    } else {
      std::fprintf(stderr, "%s: no such file or directory\n", argv[i]);
      return 2;
    }
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR|FILE...  (no input found)\n", argv[0]);
    return 2;
  }
  for (const auto &f : files) {
    std::ifstream in(f, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "running %s (%zu bytes)\n", f.c_str(), bytes.size());
    /* A copy of exactly the input's size, so that a read past it shows. */
    auto *copy = new uint8_t[bytes.size()];
    std::copy(bytes.begin(), bytes.end(), copy);
    LLVMFuzzerTestOneInput(copy, bytes.size());
    delete[] copy;
  }
  std::printf("%zu inputs ran clean\n", files.size());
  return 0;
}
