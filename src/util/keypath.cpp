/* Key-path tools: relative names, depth and parts, well-formedness, plus
 * the sleep, byte-clearing and trace helpers of the utility object. */
#include "util/keypath.h"

#include <cstdarg>
#include <cstring>

#include "thr.h"
#include "txt.h"
#include "util/ucommon.h"
#include "util/umem.h"

using prsru::addr;
using prsru::comp;

namespace {

/* A copy of text in a block of its length plus 1, or NULL. */
char *dup_text(void *metactx, const char *text) {
  size_t len = std::strlen(text);
  auto *copy = static_cast<char *>(u_allocm(metactx, len + 1));
  if (copy != nullptr)
    std::memcpy(copy, text, len + 1);
  return copy;
}

} // namespace

extern "C" int32_t u_ator(void *metactx, const char *parent_key_name, const char *subkey,
                          char *rel_key_path) {
  if (rel_key_path == nullptr || parent_key_name == nullptr || subkey == nullptr) {
    trcprintft(comp(), 0, "u_ator: One of the passes strings was NULL");
    return 1;
  }
  rel_key_path[0] = '\0';
  trcprintft(comp(), 4, "ou_ator: parent_key_name [%s], subkey [%s], rel_key_path [%s]",
             parent_key_name, subkey, rel_key_path);

  char *parent_copy = dup_text(metactx, parent_key_name);
  if (parent_copy == nullptr) {
    trcprintft(comp(), 0, "u_ator:1': Alloc temp parent key returned NULL");
    return 1;
  }
  char *sub_copy = dup_text(metactx, subkey);
  if (sub_copy == nullptr) {
    trcprintft(comp(), 0, "u_ator:2': Alloc temp sub key returned NULL");
    u_freem(metactx, parent_copy);
    return 1;
  }

  int32_t rc = 1;
  char *parent_pos = nullptr;
  char *sub_pos = nullptr;
  const char *parent_root = txttok(parent_copy, ".", &parent_pos);
  const char *sub_first = txttok(sub_copy, ".", &sub_pos);
  if (parent_root == nullptr || sub_first == nullptr) {
    /* Nothing but separators, or nothing at all: no first component to
     * compare, so no relative name can be told. */
    trcprintf(comp(), 0, "u_ator: parent key name [%s] or subkey [%s] has no component",
              parent_key_name, subkey);
  } else {
    trcprintf(comp(), 4, "u_ator: parent_key_root [%s], subkey_comp_first [%s]", parent_root,
              sub_first);
    if (std::strcmp(parent_root, sub_first) != 0) {
      /* Another root: the subkey is relative already. */
      std::strcpy(rel_key_path, subkey);
      rc = 0;
    } else {
      trcprintf(comp(), 4, "u_ator: checking; parent_key_name [%s] for subkey [%s]",
                parent_key_name, subkey);
      if (std::strstr(subkey, parent_key_name) == nullptr) {
        trcprintf(comp(), 0,
                  "u_ator: ERROR parent key name [%s] is not a substring of child key name [%s]",
                  parent_key_name, subkey);
      } else if (std::strcmp(subkey, parent_key_name) == 0) {
        trcprintf(comp(), 0,
                  "u_ator: ERROR parent key name [%s] is not a substring of the child key name "
                  "[%s]",
                  parent_key_name, subkey);
      } else {
        /* The parent occurs and the subkey is longer, so the position lies
         * inside the subkey or on its NUL. It comes from the parent's length
         * alone, not from where the parent was found. */
        const char *rel = subkey + std::strlen(parent_key_name) + 1;
        trcprintf(comp(), 4, "u_ator: the temp key path is [%s], length [%d]", rel,
                  static_cast<int>(std::strlen(rel)));
        std::strcpy(rel_key_path, rel);
        rc = 0;
      }
    }
  }

  u_freem(metactx, parent_copy);
  u_freem(metactx, sub_copy);
  if (rc == 0)
    trcprintf(comp(), 4, "u_ator: the relative key name is %s", rel_key_path);
  return rc;
}

extern "C" int32_t u_get_keydepth(void *metactx, const char *keyname, uint32_t *depth,
                                  char *subkey, char *prefix) {
  if (keyname == nullptr) {
    trcprintft(comp(), 0, "u_get_keydepth: keyname passed was NULL");
    return 1;
  }
  if (depth == nullptr) {
    trcprintft(comp(), 0, "u_get_keydepth: depth passed was NULL");
    return 1;
  }
  bool parts = subkey != nullptr && prefix != nullptr;
  trcprintft(comp(), 4, "u_get_keydepth: keyname [%s], keyname ptr [%x]", keyname, addr(keyname));

  char *copy = dup_text(metactx, keyname);
  if (copy == nullptr) {
    trcprintft(comp(), 0, "u_get_keydepth:1' alloc returned NULL");
    return 1;
  }

  *depth = 0;
  if (parts)
    subkey[0] = '\0'; /* a name of separators only has no last component */
  char *pos = nullptr;
  for (char *tok = txttok(copy, ".", &pos); tok != nullptr; tok = txttok(nullptr, ".", &pos)) {
    ++*depth;
    if (parts)
      std::strcpy(subkey, tok);
  }
  std::strcpy(copy, keyname); /* txttok cut it up */

  if (parts) {
    char *dot = std::strrchr(copy, '.');
    if (dot != nullptr) {
      size_t n = static_cast<size_t>(dot - copy);
      std::memcpy(prefix, copy, n);
      prefix[n] = '\0';
    } else {
      std::strcpy(subkey, keyname);
      std::strcpy(prefix, " ");
    }
    trcprintf(comp(), 4, "u_get_keydepth: The keyname [%s] has depth %d. subkey [%s] and prefix [%s]",
              keyname, static_cast<int>(*depth), subkey, prefix);
  } else {
    trcprintf(comp(), 4, "u_get_keydepth: The keyname [%s] has depth %d. ", keyname,
              static_cast<int>(*depth));
  }
  u_freem(metactx, copy);
  return 0;
}

extern "C" int32_t u_keydepth(void *metactx, const char *keyname, uint32_t *depth) {
  return u_get_keydepth(metactx, keyname, depth, nullptr, nullptr);
}

extern "C" int32_t u_check_keycomp(void *metactx, const char *keyname) {
  if (keyname == nullptr) {
    trcprintft(comp(), 0, "u_check_keycomp: keyname passed was NULL");
    return 1;
  }
  trcprintft(comp(), 4, "u_check_keycomp: keyname passed [%s]", keyname);
  char *copy = dup_text(metactx, keyname);
  if (copy == nullptr) {
    trcprintft(comp(), 0, "u_check_keycomp: alloc returned NULL");
    return 1;
  }
  char *pos = nullptr;
  char *tok = txttok(copy, ".", &pos);
  if (tok == nullptr) {
    trcprintf(comp(), 0, "u_check_keycomp:2': Case 1");
    u_freem(metactx, copy);
    return 1;
  }
  /* Each component counts with one separator. A well-formed name of n
   * components sums to its length plus 1; an empty component (leading,
   * trailing or doubled ".") leaves the sum short. */
  bool failed = false;
  size_t sum = 0;
  while (tok != nullptr) {
    size_t len = std::strlen(tok);
    sum += len + 1;
    if (len > U_KEYCOMP_MAX) {
      trcprintf(comp(), 0, "u_check_keycomp:3': Case 2");
      failed = true;
      break;
    }
    tok = txttok(nullptr, ".", &pos);
  }
  if (sum < std::strlen(keyname) + 1) {
    trcprintf(comp(), 0, "u_check_keycomp:3': Case 3 or 4");
    failed = true;
  }
  u_freem(metactx, copy);
  return failed ? 1 : 0;
}

extern "C" void u_sleep(uint32_t ms) {
  unsigned char status[16];
  uint64_t remaining = static_cast<uint64_t>(ms) * 1000u;
  uint32_t slept = 0;
  for (;;) {
    uint32_t chunk = remaining > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(remaining);
    thrusleep(status, chunk, &slept);
    if (slept >= remaining)
      break;
    remaining -= slept;
  }
}

extern "C" void *u_blank(void *, void *text, uint64_t count) {
  if (text == nullptr || count == 0)
    return text;
  auto *p = static_cast<volatile unsigned char *>(text);
  for (uint64_t i = 0; i < count; ++i)
    p[i] = 0;
  return text;
}

extern "C" int32_t u_log(uintptr_t comp_handle, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int32_t rc = trcprft(comp_handle, 0, fmt, ap);
  va_end(ap);
  return rc;
}
