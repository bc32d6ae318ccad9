/* mvlmd.h - re-registers the cluster daemon's resource with or without its
 * dependency on the storage manager. */
#ifndef PRSR_UTIL_MVLMD_H
#define PRSR_UTIL_MVLMD_H
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define U_MVLMD_OK 0
#define U_MVLMD_FAILED 6

/* Sets the start and stop dependencies of tvn.rsmd (with tvn.vlm when
 * with_vlm is nonzero) and registers it; a refused registration is retried
 * once as a queued, asynchronous one. ctx is not read; comp is the trace
 * component to log with. 0 registered or queued, 6 on any failure. */
int32_t u_mvlmd(void *ctx, uintptr_t comp, int32_t with_vlm);

#ifdef __cplusplus
}
#endif
#endif
