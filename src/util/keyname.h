/* keyname.h - a key name as its parts: the fixed words and the names it is
 * made of, joined by ".". The one place where a key is measured, checked
 * against a buffer and written, so that the size of a block, the text put
 * into it and the check that a caller's name fits all come from the same
 * parts. Header only: the library and the utility object both use it. */
#ifndef PRSR_UTIL_KEYNAME_H
#define PRSR_UTIL_KEYNAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace prsr {

/* Fixed work buffers: a key or subkey name with its NUL, and a value. */
inline constexpr uint32_t kKeyMax = 2048;
inline constexpr uint32_t kValueMax = 1024;

class KeyParts {
public:
  static constexpr size_t kMaxParts = 8;

  /* `spare`: bytes a block for this key keeps beyond the text and its NUL. */
  KeyParts(std::initializer_list<const char *> parts, uint32_t spare = 0) : spare_(spare) {
    for (const char *p : parts)
      if (n_ < kMaxParts)
        parts_[n_++] = p;
  }

  /* The same key with one part more at the end. */
  KeyParts operator/(const char *leaf) const {
    KeyParts k = *this;
    if (k.n_ < kMaxParts)
      k.parts_[k.n_++] = leaf;
    return k;
  }
  /* The same key with another number of spare bytes. */
  KeyParts spare(uint32_t bytes) const {
    KeyParts k = *this;
    k.spare_ = bytes;
    return k;
  }

  /* Every part is given (a caller's name may be NULL). */
  bool complete() const {
    for (size_t i = 0; i < n_; ++i)
      if (parts_[i] == nullptr)
        return false;
    return true;
  }
  /* Length of the text without its NUL; a NULL part counts as empty. */
  size_t length() const {
    size_t len = n_ > 0 ? n_ - 1 : 0;
    for (size_t i = 0; i < n_; ++i)
      if (parts_[i] != nullptr)
        len += std::strlen(parts_[i]);
    return len;
  }
  /* Whether every part is given and the text with its NUL fits `cap`. */
  bool fits(size_t cap = kKeyMax) const { return complete() && length() < cap; }
  /* For a key with an empty part: the longest text, with its NUL, that
   * the part may take so that the key still fits kKeyMax bytes (0: none). */
  size_t room() const {
    size_t len = length();
    return len < kKeyMax ? kKeyMax - len : 0;
  }
  /* The block this key is built in: its text, the NUL and the spare bytes. */
  uint64_t block_size() const { return uint64_t{length()} + 1 + spare_; }

  /* Writes the text into dst, which holds at least length() + 1 bytes. */
  char *join(char *dst) const {
    char *w = dst;
    for (size_t i = 0; i < n_; ++i) {
      if (i > 0)
        *w++ = '.';
      size_t len = std::strlen(parts_[i]);
      std::memcpy(w, parts_[i], len);
      w += len;
    }
    *w = '\0';
    return dst;
  }
  /* Writes the text into a buffer of cap bytes when it fits there; else
   * leaves dst empty and gives false, writing nothing past the buffer. */
  bool write(char *dst, size_t cap = kKeyMax) const {
    if (!fits(cap)) {
      dst[0] = '\0';
      return false;
    }
    join(dst);
    return true;
  }

private:
  std::array<const char *, kMaxParts> parts_{};
  size_t n_ = 0;
  uint32_t spare_ = 0;
};

} // namespace prsr
#endif
