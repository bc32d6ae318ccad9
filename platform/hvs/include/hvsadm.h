/* hvsadm.h - registry administration, for the tools (hvsctl). The library
 * libprsr never calls these: it neither creates nor deletes keys. */
#ifndef HVSADM_H
#define HVSADM_H
#include "hvsapi.h"
#ifdef __cplusplus
extern "C" {
#endif

/* Creates the registry at the location HVS_REGISTRY names if it does not
 * exist, and opens a client on it. */
int32_t hvsadm_open(void **handle_out, int create, char *msg, uint64_t *msg_len);

/* Creates a key; its parent must exist. has_value 0: a key without value. */
int32_t hvsadm_create_key(void *handle, const char *name, int has_value,
                          const void *bytes, uint32_t len);
/* Sets or clears (has_value 0) the value of an existing key. */
int32_t hvsadm_put_value(void *handle, const char *name, int has_value,
                         const void *bytes, uint32_t len);
/* Deletes a key; with recursive 0 it must have no subkeys. */
int32_t hvsadm_delete_key(void *handle, const char *name, int recursive);

/* Atomic batches: everything between begin and commit lands together or
 * not at all (rollback, or a failed commit). */
int32_t hvsadm_begin(void *handle);
int32_t hvsadm_commit(void *handle);
int32_t hvsadm_rollback(void *handle);

/* Walks the subtree under name (NULL or "" for the whole registry) in
 * depth-first byte order, the key itself first. The callback returns 0 to
 * go on. value is NULL for a key without value. */
typedef int (*hvsadm_walk_fn)(void *arg, const char *name, const void *value,
                              uint32_t len, int has_value);
int32_t hvsadm_walk(void *handle, const char *name, hvsadm_walk_fn fn,
                    void *arg);

#ifdef __cplusplus
}
#endif
#endif
