/* nodeconfig.h - internal declarations of the storage-manager and node
 * applications readers: the network classifier. Internal (see internal.h).
 * It depends on nothing in the library (no session, registry, memory or
 * trace), so a tool may build it in as it stands. */
#ifndef PRSR_NODECONFIG_NODECONFIG_H
#define PRSR_NODECONFIG_NODECONFIG_H
#include <stdint.h>

#include "internal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The class of a network interface. */
typedef enum prsr_net_class {
  PRSR_NET_UNKNOWN = 0,
  PRSR_NET_PRIVATE = 1,
  PRSR_NET_PUBLIC = 2,
  PRSR_NET_LOCAL = 3 /* has a word, never a result of the classifier */
} prsr_net_class;

/* What the classifier reads of an interface. The caller fills it; a NULL
 * text is taken as absent and decides nothing. */
typedef struct prsr_net_iface {
  int32_t private_flag;       /* 1: private outright */
  const char *address;        /* dotted IPv4; its first two numbers count */
  const char *private_marker; /* "0.0.0.0" or "255.255.255.255": private */
  const char *public_marker;  /* anything but "0.0.0.0"/"UNKNOWN": public */
} prsr_net_iface;

/* The class of an interface: PRSR_NET_UNKNOWN, _PRIVATE or _PUBLIC. An
 * address that does not begin with two dotted numbers gives UNKNOWN. */
PRSR_INTERNAL int32_t prsr_classify_network(const prsr_net_iface *iface);

/* The constant word of a class ("UNKNOWN", "PRIVATE", "PUBLIC", "LOCAL");
 * "UNKNOWN" for any other number. */
PRSR_INTERNAL const char *prsr_net_class_word(int32_t cls);

#ifdef __cplusplus
}
#endif
#endif
