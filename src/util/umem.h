/* umem.h - tagged memory and record tags of the utility object. */
#ifndef PRSR_UTIL_UMEM_H
#define PRSR_UTIL_UMEM_H
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HVSU_BEGIN_MEMTAG 0x5072426DULL
#define HVSU_END_MEMTAG 0x456D5072ULL

/* A zero-filled payload of at least size bytes, tagged before and after,
 * or NULL. */
void *u_allocm(void *metactx, uint64_t size);
/* Releases a payload from u_allocm(); a block whose tags are damaged is
 * logged and kept. */
void u_freem(void *metactx, void *mem);
/* Copies 8 tag bytes to field and NUL-terminates it at byte 8. */
void u_set_tag(void *field, const void *tag);
/* 1 when the first 8 bytes of field and tag agree, else 0. */
int32_t u_check_tag(const void *field, const void *tag);
/* Overwrites the tag field with "INVALID" and returns it. */
void *u_invalidate_tag(void *field);

#ifdef __cplusplus
}
#endif
#endif
