/* thr.h - thread utilities. */
#ifndef THR_H
#define THR_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* The process's thread context (non-NULL); one per process. */
void *thrinit(void);

typedef struct thr_id {
  uint64_t opaque[2];
} thr_id;

/* Sleeps up to usec microseconds; *slept_out receives the time slept.
 * status is 16 bytes of caller storage, not read. Returns 0. */
int32_t thrusleep(void *status, uint32_t usec, uint32_t *slept_out);
int32_t thridinit(void *thrctx, thr_id *id);
int32_t thrgetid(void *thrctx, thr_id *id);
int32_t thridprint(void *thrctx, const thr_id *id, char *dst, uint32_t size);
int32_t thriddestroy(void *thrctx, thr_id *id);

/* Asks the system not to report thread starts and ends to a module. The
 * library calls it once, on load; on this platform it has nothing to do
 * and returns 1 (success). */
int32_t DisableThreadLibraryCalls(void *module);

#ifdef __cplusplus
}
#endif
#endif
