/* hvsapi.h - the cluster registry client.
 *
 * A registry is a tree of keys named by dotted paths from the root
 * ("DATABASE.DATABASES.sales"). A key has subkeys and at most one value, a
 * byte string of any length (0 included); a key without a value is distinct
 * from a key with an empty one. Subkeys enumerate in byte order of their
 * component.
 *
 * Where the registry lives is named by HVS_REGISTRY (see hvs_location.h):
 *   sqlite:PATH          embedded SQLite file (the default engine)
 *   zk://h:p[,h:p]/root  a ZooKeeper ensemble
 *   mem:NAME             process-local in-memory registry (tests)
 */
#ifndef HVSAPI_H
#define HVSAPI_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. 4, 9 and 16 are the ones a client tells apart; every code
 * above 10 is a failure of the client or of its engine. */
#define HVS_OK 0
#define HVS_ERR_NO_KEY 4        /* open: the key does not exist */
#define HVS_ERR_SMALL_BUFFER 9  /* buffer too small; length word = needed */
#define HVS_ERR_NO_MORE 16      /* enumeration: no subkey to give */
#define HVS_ERR_ARGUMENT 17     /* bad handle, NULL pointer, bad key name */
#define HVS_ERR_ENGINE 18       /* the engine failed (I/O, SQL, network) */
#define HVS_ERR_UNREACHABLE 19  /* the registry location cannot be reached */
#define HVS_ERR_CORRUPT 20      /* the location holds no valid registry */
#define HVS_ERR_MEMORY 21       /* out of memory in the client */
#define HVS_ERR_EXISTS 22       /* create: the key exists already */
#define HVS_ERR_NOT_EMPTY 23    /* delete: the key has subkeys */
#define HVS_ERR_TOO_LARGE 24    /* value or transaction over an engine limit */
#define HVS_ERR_VERSION 25      /* registry written by a newer format */
#define HVS_ERR_LOCK_LOST 26    /* write refused: the lock it was made under
                                   is no longer held; nothing was written */

#define HVS_TYPE_BINARY 0
#define HVS_TYPE_TEXT 3

/* Opens a client on the registry that HVS_REGISTRY names. On failure msg
 * (capacity *msg_len) receives a text naming the location and the cause.
 * mode and flags are accepted and not interpreted. */
int32_t hvsapi_init_ext(void **handle_out, int32_t mode, char *msg,
                        uint64_t *msg_len, int32_t flags);
int32_t hvsapi_terminate(void *handle);

/* Opens a key by full name. HVS_ERR_NO_KEY when it does not exist. Several
 * keys may be open at once; each must be closed. */
int32_t hvsapi_open_key(void *handle, void **key_out, const char *name);
int32_t hvsapi_close_key(void *handle, void *key);

/* Reads a key's value into buf (capacity *len). On 0, *len is the value's
 * length. HVS_ERR_SMALL_BUFFER: *len is the length needed. A key without a
 * value reads as length 0. *type receives the stored type. */
int32_t hvsapi_get_value(void *handle, void *key, uint32_t *type, void *buf,
                         uint32_t *len);
/* Replaces a key's value. */
int32_t hvsapi_set_value(void *handle, void *key, uint32_t type,
                         const void *bytes, uint32_t len);

/* Gives the next subkey of an open key. name (capacity *len, the NUL
 * included) receives the component; *len its length without NUL;
 * *remaining how many follow. HVS_ERR_NO_MORE with *remaining < 0 on the
 * first call of a key without subkeys; with *remaining >= 0 at the end. */
int32_t hvsapi_enum_subkey(void *handle, void *key, char *name, uint32_t *len,
                           int32_t *remaining);

/* Detail of the last failed call on the handle (per thread). */
int32_t hvsapi_get_last_error(void *handle, uint32_t *code, char *msg,
                              uint32_t *len);

/* The location this handle is connected to (for messages). */
const char *hvsapi_location(void *handle);

#ifdef __cplusplus
}
#endif
#endif
