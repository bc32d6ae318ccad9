/* fuzz_common.h - what every fuzz entry point shares: a hard check that
 * stops the run with the failing condition, and a trace that formats every
 * line (so that the texts handed to the log are read) and throws it away. */
#ifndef PRSR_FUZZ_COMMON_H
#define PRSR_FUZZ_COMMON_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "trc.h"

#define FUZZ_CHECK(cond)                                                                           \
  do {                                                                                             \
    if (!(cond)) {                                                                                 \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);               \
      std::abort();                                                                                \
    }                                                                                              \
  } while (0)

namespace fuzz {

/* Every trace line is formatted and written to /dev/null. */
inline void trace_everything() {
  trcsetdest("/dev/null");
  trcsetlevel(5);
}

/* The input cut at its NUL bytes into at most `parts` texts; the last one
 * takes the rest, NULs and all cut off at its own first NUL. */
inline std::vector<std::string> split_texts(const uint8_t *data, size_t size, size_t parts) {
  std::vector<std::string> out;
  std::string cur;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      out.push_back(cur);
      cur.clear();
      if (out.size() == parts)
        return out;
    } else {
      cur += static_cast<char>(data[i]);
    }
  }
  out.push_back(cur);
  return out;
}

/* A buffer of exactly n bytes, filled with garbage as an uninitialised
 * caller's buffer would be; the sanitizers see any byte past it. */
struct Buffer {
  explicit Buffer(size_t n) : p(new char[n]), size(n) {
    for (size_t i = 0; i < size; ++i)
      p[i] = '\xAA';
  }
  ~Buffer() { delete[] p; }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  /* The text in it, checked to end inside it. */
  std::string text() const {
    for (size_t i = 0; i < size; ++i)
      if (p[i] == '\0')
        return std::string(p, i);
    std::fprintf(stderr, "buffer of %zu bytes holds no terminated text\n", size);
    std::abort();
  }
  char *p;
  size_t size;
};

} // namespace fuzz

#endif
