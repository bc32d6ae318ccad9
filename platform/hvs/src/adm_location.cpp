// The C calls of hvsadm.h on a registry location before and after a
// creating open: hvsctl reaches the engines' location work through them.
#include <algorithm>
#include <cstring>

#include "hvs/backend.h"
#include "hvsadm.h"

namespace {

// Copies text into buf (capacity cap, NUL included), cut if need be.
void put_text(char *buf, size_t cap, const std::string &text) {
  if (buf == nullptr || cap == 0)
    return;
  size_t n = std::min(text.size(), cap - 1);
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
}

} // namespace

extern "C" {

void hvsadm_allow_foreign(int allow) { hvs::allow_foreign_location(allow != 0); }

int32_t hvsadm_missing_part(char *part, size_t part_cap, char *msg, size_t msg_cap) {
  if (part == nullptr || part_cap == 0)
    return HVS_ERR_ARGUMENT;
  std::string made;
  hvs::Status st = hvs::missing_part(hvs::resolve_location(), made);
  if (!st.ok()) {
    put_text(msg, msg_cap, st.message);
    return st.code;
  }
  if (made.size() >= part_cap) {
    put_text(msg, msg_cap, "the missing part is longer than the buffer: " + made);
    return HVS_ERR_SMALL_BUFFER;
  }
  put_text(part, part_cap, made);
  return HVS_OK;
}

int32_t hvsadm_remove_created(const char *part, char *msg, size_t msg_cap) {
  if (part == nullptr)
    return HVS_ERR_ARGUMENT;
  hvs::Status st = hvs::remove_created(hvs::resolve_location(), part);
  if (!st.ok())
    put_text(msg, msg_cap, st.message);
  return st.code;
}

} // extern "C"
