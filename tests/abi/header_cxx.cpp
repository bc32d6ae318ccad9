/* The public header alone, as C++ with warnings as errors, and the layout
 * that clients depend on. */
#include "prsr.h"

#include <stddef.h>

static_assert(sizeof(void *) == 8, "a 64-bit library");
static_assert(sizeof(lks_status) == 216, "the lock status record is 216 bytes");
static_assert(offsetof(prsr_ctx, tag) == 0, "session tag first");
static_assert(offsetof(prsr_cfg, tag) == 0, "database record tag first");
static_assert(offsetof(prsr_vlm_cfg, tag) == 0, "storage manager record tag first");
static_assert(offsetof(prsr_nodeapps_cfg, fetched) == 0, "fetched first");
static_assert(offsetof(prsr_nodeapps_cfg, tag) == 4, "tag behind fetched");
static_assert(offsetof(prsr_cfg, sp_name) == 16, "pointers are 8-byte aligned");

int main(void) {
  prsr_ctx *ctx = 0;
  lks_status st;
  return prsr_terminate(&st, ctx) == PRSR_ERR_SESSION ? 0 : 1;
}
