/* frame.h - what every operation of the library is built from: the session
 * check, owned blocks of tagged memory, open keys, key names, caller's
 * names copied for keys, records under construction. */
#ifndef PRSR_FRAME_FRAME_H
#define PRSR_FRAME_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "frame/keys.h"
#include "frame/words.h"
#include "hvsapi.h"
#include "internal.h"
#include "prsr.h"
#include "registry/registry.h"
#include "trc.h"
#include "txt.h"
#include "util/keyname.h"
#include "util/umem.h"

namespace prsr {

inline constexpr char kCtxTag[] = "PRSRCTXA";
inline constexpr char kCfgTag[] = "PRSRCFGB";
inline constexpr char kVlmTag[] = "PRSRCFGA";
inline constexpr char kNodeappsTag[] = "PRSRCFGC";

inline bool session_ok(const prsr_ctx *ctx) {
  return ctx != nullptr && u_check_tag(ctx->tag, kCtxTag) != 0;
}

/* Low 32 bits of an address, for the "%x" of log lines. */
inline unsigned addr(const void *p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

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

/* The start of an operation: the session's handles, and the line that a
 * failed allocation leaves, under the operation's name. */
struct Call {
  Call(prsr_ctx *c, const char *who)
      : ctx(c), meta(c->metactx), hvs(c->hvs_handle), comp(c->trace_comp), name(who) {}
  /* For a helper that is handed the handles rather than the session. */
  Call(void *m, void *h, uintptr_t t, const char *who)
      : ctx(nullptr), meta(m), hvs(h), comp(t), name(who) {}
  prsr_ctx *ctx;
  void *meta;
  void *hvs;
  uintptr_t comp;
  const char *name;

  int32_t no_memory(uint64_t bytes) const {
    trcprintf(comp, 0, "%s: failed to allocate %d bytes", name, static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  }
  /* The report of a failed registry call on `key`. */
  void report(const char *api, int32_t code, const char *key) const {
    prsr_report_hvs_failure(hvs, comp, name, api, code, key);
  }
};

/* A block of the current call that, made with the Call, leaves the call's
 * line when it cannot be allocated; made with the memory context alone, it
 * fails without a line. size() is the block last asked for. */
class CallBlock : public Owned<char> {
public:
  explicit CallBlock(const Call &call) : Owned(call.meta), call_(&call) {}
  explicit CallBlock(void *meta) : Owned(meta) {}
  uint64_t size() const { return size_; }

protected:
  bool take(uint64_t bytes) {
    size_ = bytes;
    if (allocate(bytes))
      return true;
    if (call_ != nullptr)
      call_->no_memory(bytes);
    return false;
  }

private:
  const Call *call_ = nullptr;
  uint64_t size_ = 0;
};

/* A caller's name copied for use as a key component, in a block of its
 * own: lower-cased (strlen + 1 bytes), or as a service name. */
class NameCopy : public CallBlock {
public:
  using CallBlock::CallBlock;
  bool lower(const char *name) {
    size_t n = std::strlen(name);
    if (!take(n + 1))
      return false;
    txtnlower(get(), name, n);
    return true;
  }
  /* Lower case with every "." as "*", in a block of strlen + 2 bytes. */
  bool service(const char *name) {
    size_t n = std::strlen(name);
    if (!take(n + 2))
      return false;
    txtnlower(get(), name, n);
    size_t out = 0;
    txtreplace(get(), n, n + 2, ".", 1, "*", 1, &out);
    return true;
  }
};

/* Frees a text and clears the pointer; NULL is fine. */
inline void free_text(void *meta, char *&text) {
  if (text != nullptr)
    u_freem(meta, text);
  text = nullptr;
}

/* Frees a table of texts with `count` slots (NULL slots skipped) and the
 * table itself; NULL is fine. */
inline void free_texts(void *meta, char **table, uint32_t count) {
  if (table == nullptr)
    return;
  for (uint32_t i = 0; i < count; ++i)
    if (table[i] != nullptr)
      u_freem(meta, table[i]);
  u_freem(meta, table);
}

/* A key name in a block of its own: the block its parts ask for, or the
 * fixed `block` bytes an operation works in. The text is written at once. */
class KeyBlock : public CallBlock {
public:
  using CallBlock::CallBlock;
  bool build(const KeyParts &parts, uint64_t block = 0) {
    if (!take(block != 0 ? block : parts.block_size()))
      return false;
    parts.write(get(), size());
    return true;
  }
};

/* A record under construction, given up with `drop` on every exit unless
 * handed over (release()). */
template <class T, class Drop> class Draft {
public:
  Draft(T *record, Drop drop) : p_(record), drop_(drop) {}
  ~Draft() {
    if (p_ != nullptr)
      drop_(p_);
  }
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;
  T **out() { return &p_; }
  T *get() const { return p_; }
  T *operator->() const { return p_; }
  T *release() {
    T *p = p_;
    p_ = nullptr;
    return p;
  }

private:
  T *p_;
  Drop drop_;
};

/* The number of a failover policy word (words.h), in any case;
 * PRSR_FOV_NONE for any other text. */
inline uint32_t policy_code(const char *text) {
  for (const PolicyWord &p : kPolicyWords)
    if (txticmp(text, p.word) == 0)
      return p.code;
  return PRSR_FOV_NONE;
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
