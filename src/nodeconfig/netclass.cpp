/* The network classifier: sorts an interface into private, public or
 * unknown from its markers and the RFC 1918 ranges of its address.
 * Self-contained: the standard library is all it uses. */
#include <cstdio>
#include <cstring>

#include "nodeconfig.h"

namespace {

bool same(const char *text, const char *word) {
  return text != nullptr && std::strcmp(text, word) == 0;
}

/* The private ranges: 10/8, 172.16/12, 192.168/16. */
bool private_range(int a, int b) {
  return a == 10 || (a == 172 && b >= 16 && b <= 31) || (a == 192 && b == 168);
}

} // namespace

extern "C" PRSR_INTERNAL int32_t prsr_classify_network(const prsr_net_iface *iface) {
  if (iface == nullptr)
    return PRSR_NET_UNKNOWN;
  if (iface->private_flag == 1)
    return PRSR_NET_PRIVATE;
  if (same(iface->private_marker, "0.0.0.0") || same(iface->private_marker, "255.255.255.255"))
    return PRSR_NET_PRIVATE;
  const char *pub = iface->public_marker;
  if (pub != nullptr && !same(pub, "0.0.0.0") && !same(pub, "UNKNOWN"))
    return PRSR_NET_PUBLIC;
  if (iface->address == nullptr)
    return PRSR_NET_UNKNOWN;
  int a = 0;
  int b = 0;
  /* Both numbers must be there: "10" or "10." decides nothing. */
  if (std::sscanf(iface->address, "%d.%d", &a, &b) != 2)
    return PRSR_NET_UNKNOWN;
  return private_range(a, b) ? PRSR_NET_PRIVATE : PRSR_NET_UNKNOWN;
}

extern "C" PRSR_INTERNAL const char *prsr_net_class_word(int32_t cls) {
  static const char *const words[] = {"UNKNOWN", "PRIVATE", "PUBLIC", "LOCAL"};
  if (cls < 0 || cls >= static_cast<int32_t>(sizeof words / sizeof words[0]))
    return words[0];
  return words[cls];
}
