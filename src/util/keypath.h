/* keypath.h - tools on dotted registry key names, and three small
 * companions (a sleep, a byte clearer, a level-0 trace front).
 *
 * The key-path operations return 0 for success and 1 for failure; they
 * touch no registry and take no lock. metactx is the meta context their
 * temporary copies come from. Output buffers carry no size: rel_key_path
 * must hold the subkey text, subkey and prefix must each hold the keyname
 * text, and prefix at least 2 bytes (the blank given for an empty name).
 */
#ifndef PRSR_UTIL_KEYPATH_H
#define PRSR_UTIL_KEYPATH_H
#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The longest key-name component, in bytes. */
#define U_KEYCOMP_MAX 255

/* Writes subkey relative to parent_key_name into rel_key_path: the text
 * behind the parent and the separator that follows it. A subkey whose
 * first component differs from the parent's is taken as relative already
 * and copied whole. Fails when the parent does not occur in the subkey,
 * when both are equal, or when either has no component. */
int32_t u_ator(void *metactx, const char *parent_key_name, const char *subkey,
               char *rel_key_path);

/* Counts the components of keyname (empty components are not counted).
 * With both subkey and prefix given, subkey receives the last component
 * and prefix everything before the last "." (a single blank " " when there
 * is no "."); with either NULL neither is touched. */
int32_t u_get_keydepth(void *metactx, const char *keyname, uint32_t *depth, char *subkey,
                       char *prefix);
/* u_get_keydepth() without the parts. */
int32_t u_keydepth(void *metactx, const char *keyname, uint32_t *depth);

/* 0 when keyname is well formed: at least one component, none empty, none
 * longer than U_KEYCOMP_MAX bytes, no leading or trailing ".". */
int32_t u_check_keycomp(void *metactx, const char *keyname);

/* Sleeps at least ms milliseconds. */
void u_sleep(uint32_t ms);

/* Sets count bytes of text to NUL, one at a time (not optimised away), and
 * returns text. */
void *u_blank(void *unused, void *text, uint64_t count);

/* trcprft() at level 0 on comp; returns its result. */
int32_t u_log(uintptr_t comp, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif
#endif
