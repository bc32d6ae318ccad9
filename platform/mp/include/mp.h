/* mp.h - memory manager and meta context. */
#ifndef MP_H
#define MP_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Returns the process's meta context. Its 64-bit word at offset 24 points to
 * a variable that holds the memory-manager context. One per process: every
 * call gives the same one, and nothing is ever released. */
void *plinit(void *arg);

/* The top heap of a memory-manager context; NULL when none can be had. */
void *mptopheap(void *mpctx);

/* A zero-filled block of size * count bytes from heap, or NULL. */
void *mpcalloc(void *mpctx, void *heap, uint64_t size, uint32_t count,
               uint32_t flags, const char *tag, uint32_t flags2);

/* Gives a block from mpcalloc() back. */
void mpfree(void *mpctx, void *heap, void *block, uint32_t flags);

#ifdef __cplusplus
}
#endif
#endif
