// txt.cpp - text utilities. ASCII case mapping only: bytes >= 0x80 pass
// through unchanged whatever the locale.
#include "txt.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#define TXT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
inline char upper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }

constexpr size_t kPrintfCap = 1024;

} // namespace

TXT_EXPORT void txtnlower(char *dst, const char *src, size_t len) {
  if (dst == nullptr || src == nullptr)
    return;
  for (size_t i = 0; i < len; ++i)
    dst[i] = lower(src[i]);
}

TXT_EXPORT void txtnupper(char *dst, const char *src, size_t len) {
  if (dst == nullptr || src == nullptr)
    return;
  for (size_t i = 0; i < len; ++i)
    dst[i] = upper(src[i]);
}

TXT_EXPORT void txtlower(char *dst, const char *src) {
  if (dst == nullptr || src == nullptr)
    return;
  size_t i = 0;
  for (; src[i] != '\0'; ++i)
    dst[i] = lower(src[i]);
  dst[i] = '\0';
}

TXT_EXPORT int32_t txticmp(const char *a, const char *b) {
  if (a == nullptr || b == nullptr)
    return a == b ? 0 : 1;
  for (;; ++a, ++b) {
    int d = static_cast<unsigned char>(lower(*a)) - static_cast<unsigned char>(lower(*b));
    if (d != 0)
      return d;
    if (*a == '\0')
      return 0;
  }
}

// Matches are taken left to right without overlap. When the result is
// shorter than cap a NUL follows it, so a shrunken text stays terminated.
TXT_EXPORT int32_t txtreplace(char *text, size_t len, size_t cap, const char *search,
                              size_t search_len, const char *repl, size_t repl_len,
                              size_t *size_out) {
  if (text == nullptr || search == nullptr || (repl == nullptr && repl_len != 0) || len > cap)
    return -1;
  if (search_len == 0 || search_len > len) {
    if (size_out)
      *size_out = len;
    return 0;
  }
  size_t hits = 0;
  for (size_t i = 0; i + search_len <= len;) {
    if (std::memcmp(text + i, search, search_len) == 0) {
      ++hits;
      i += search_len;
    } else {
      ++i;
    }
  }
  size_t new_len = len - hits * search_len + hits * repl_len;
  if (new_len > cap)
    return -1;
  if (hits != 0) {
    if (repl_len <= search_len) {
      // Shrinking or equal: compact forward, the write never passes the read.
      size_t r = 0, w = 0;
      while (r < len) {
        if (r + search_len <= len && std::memcmp(text + r, search, search_len) == 0) {
          std::memmove(text + w, repl, repl_len);
          w += repl_len;
          r += search_len;
        } else {
          text[w++] = text[r++];
        }
      }
    } else {
      std::string out;
      out.reserve(new_len);
      for (size_t r = 0; r < len;) {
        if (r + search_len <= len && std::memcmp(text + r, search, search_len) == 0) {
          out.append(repl, repl_len);
          r += search_len;
        } else {
          out.push_back(text[r++]);
        }
      }
      std::memcpy(text, out.data(), new_len);
    }
  }
  if (new_len < cap)
    text[new_len] = '\0';
  if (size_out)
    *size_out = new_len;
  return 0;
}

TXT_EXPORT char *txttok(char *text, const char *delims, char **pos) {
  if (pos == nullptr || delims == nullptr)
    return nullptr;
  char *s = text != nullptr ? text : *pos;
  if (s == nullptr)
    return nullptr;
  s += std::strspn(s, delims);
  if (*s == '\0') {
    *pos = s;
    return nullptr;
  }
  char *end = s + std::strcspn(s, delims);
  if (*end != '\0')
    *end++ = '\0';
  *pos = end;
  return s;
}

TXT_EXPORT int32_t txtvformat(void *, char *dst, size_t maxlen, const char *fmt, va_list ap) {
  if (dst == nullptr || fmt == nullptr || maxlen == 0)
    return 0;
  int n = std::vsnprintf(dst, maxlen, fmt, ap);
  if (n < 0) {
    dst[0] = '\0';
    return -1;
  }
  return static_cast<size_t>(n) >= maxlen ? static_cast<int32_t>(maxlen - 1) : n;
}

TXT_EXPORT int32_t txtprintf(char *dst, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int32_t n = txtvformat(nullptr, dst, kPrintfCap, fmt, ap);
  va_end(ap);
  return n;
}
