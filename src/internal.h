/* internal.h - what the library exports, and what it does not.
 *
 * Exported: exactly the PRSR_API declarations of include/prsr.h. The link's
 * version script is made from that list (src/CMakeLists.txt) and the ABI
 * test checks it; nothing else leaves the shared library.
 *
 * Everything declared under src/ is internal, whatever its prefix. A few
 * internal helpers keep C linkage and a prsr_ name (the registry readers,
 * the configuration locks, the entry fills, the enable-flag reads and
 * writes, the network classifier): those are declared with PRSR_INTERNAL,
 * which gives them hidden visibility, so that a reader can tell them from
 * the client interface at a glance and no build can export them. The u_
 * functions of src/util belong to the utility object (prsrutil); inside
 * the library they are hidden like the rest. */
#ifndef PRSR_INTERNAL_H
#define PRSR_INTERNAL_H

#define PRSR_INTERNAL __attribute__((visibility("hidden")))

#endif
