/* frame.h - what every operation of the library is built from: the session
 * check, owned blocks of tagged memory, open keys, key names. */
#ifndef PRSR_FRAME_FRAME_H
#define PRSR_FRAME_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "hvsapi.h"
#include "prsr.h"
#include "trc.h"
#include "txt.h"
#include "util/umem.h"

namespace prsr {

inline constexpr char kCtxTag[] = "PRSRCTXA";
inline constexpr char kCfgTag[] = "PRSRCFGB";
inline constexpr char kVlmTag[] = "PRSRCFGA";
inline constexpr char kNodeappsTag[] = "PRSRCFGC";

/* Fixed work buffers: a key or subkey name with its NUL, and a value. */
inline constexpr uint32_t kKeyMax = 2048;
inline constexpr uint32_t kValueMax = 1024;

inline bool session_ok(const prsr_ctx *ctx) {
  return ctx != nullptr && u_check_tag(ctx->tag, kCtxTag) != 0;
}

/* Low 32 bits of an address, for the "%x" of log lines. */
inline unsigned addr(const void *p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

/* A block of tagged memory that the current call owns. */
template <class T = char> class Owned {
public:
  explicit Owned(void *meta) : meta_(meta) {}
  ~Owned() { reset(); }
  Owned(const Owned &) = delete;
  Owned &operator=(const Owned &) = delete;

  /* Allocates bytes; false (and nothing held) when memory is exhausted. */
  bool allocate(uint64_t bytes) {
    reset();
    p_ = static_cast<T *>(u_allocm(meta_, bytes));
    return p_ != nullptr;
  }
  T *get() const { return p_; }
  T **out() { return &p_; }
  T *release() {
    T *p = p_;
    p_ = nullptr;
    return p;
  }
  void reset() {
    if (p_ != nullptr)
      u_freem(meta_, p_);
    p_ = nullptr;
  }
  T &operator[](size_t i) const { return p_[i]; }

private:
  void *meta_;
  T *p_ = nullptr;
};

/* A registry key open for the current call; closed on every exit unless
 * closed earlier on purpose (see close()). */
class OpenKey {
public:
  explicit OpenKey(void *hvs) : hvs_(hvs) {}
  ~OpenKey() { close(); }
  OpenKey(const OpenKey &) = delete;
  OpenKey &operator=(const OpenKey &) = delete;

  int32_t open(const char *name) {
    close();
    void *k = nullptr;
    int32_t rc = hvsapi_open_key(hvs_, &k, name);
    key_ = rc == 0 ? k : nullptr;
    return rc;
  }
  void close() {
    if (key_ != nullptr)
      hvsapi_close_key(hvs_, key_);
    key_ = nullptr;
  }
  void *get() const { return key_; }
  bool is_open() const { return key_ != nullptr; }

private:
  void *hvs_;
  void *key_ = nullptr;
};

/* Length of root and components joined by ".", without the NUL. */
inline size_t key_length(std::initializer_list<const char *> parts) {
  size_t n = 0;
  for (const char *p : parts)
    n += std::strlen(p) + 1;
  return parts.size() ? n - 1 : 0;
}

/* Writes root and components joined by "." into dst, which the caller has
 * sized (key_length() + 1). Returns dst. */
inline char *key_join(char *dst, std::initializer_list<const char *> parts) {
  char *w = dst;
  bool first = true;
  for (const char *p : parts) {
    if (!first)
      *w++ = '.';
    size_t n = std::strlen(p);
    std::memcpy(w, p, n);
    w += n;
    first = false;
  }
  *w = '\0';
  return dst;
}

/* Whether a caller's name is present and short enough that a key built from
 * it with `overhead` further bytes still fits a fixed key buffer. */
inline bool name_fits(const char *name, size_t overhead) {
  return name != nullptr && std::strlen(name) + overhead < kKeyMax;
}

/* Copies a caller's name into a fresh zero-filled block of strlen + 1 +
 * extra bytes, lower-cased. NULL when memory is exhausted. */
inline char *copy_lower(void *meta, const char *name, size_t extra = 0) {
  size_t n = std::strlen(name);
  auto *p = static_cast<char *>(u_allocm(meta, n + 1 + extra));
  if (p != nullptr)
    txtnlower(p, name, n);
  return p;
}

/* hvsapi_get_value into a fixed buffer that is later used as text: a value
 * that fills the whole buffer without a NUL does not fit as a text, and is
 * answered like a value longer than the buffer. */
inline int32_t read_text(void *hvs, void *key, uint32_t *type, char *buf, uint32_t *len) {
  uint32_t cap = *len;
  int32_t rc = hvsapi_get_value(hvs, key, type, buf, len);
  if (rc == 0 && cap > 0 && *len >= cap && buf[cap - 1] != '\0') {
    *len = cap + 1;
    return HVS_ERR_SMALL_BUFFER;
  }
  return rc;
}

} // namespace prsr

#endif
