/* hvsadm.h - registry administration, for the tools (hvsctl). The library
 * libprsr never calls these: it neither creates nor deletes keys. */
#ifndef HVSADM_H
#define HVSADM_H
#include "hvsapi.h"
#ifdef __cplusplus
extern "C" {
#endif

/* Creates the registry at the location HVS_REGISTRY names if it does not
 * exist, and opens a client on it. With create 0 it opens like
 * hvsapi_init_ext. Directories of an SQLite path are created too; a mem:
 * registry exists from its first creating open until the process ends. */
int32_t hvsadm_open(void **handle_out, int create, char *msg, uint64_t *msg_len);

/* Creates a key; its parent must exist (HVS_ERR_NO_KEY), and the key must
 * not (HVS_ERR_EXISTS). has_value 0: a key without value. A value that ends
 * in a NUL is stored with type HVS_TYPE_TEXT, any other with
 * HVS_TYPE_BINARY. */
int32_t hvsadm_create_key(void *handle, const char *name, int has_value,
                          const void *bytes, uint32_t len);
/* Sets or clears (has_value 0) the value of an existing key. */
int32_t hvsadm_put_value(void *handle, const char *name, int has_value,
                         const void *bytes, uint32_t len);
/* Deletes a key; with recursive 0 it must have no subkeys
 * (HVS_ERR_NOT_EMPTY). The name "" with recursive 1 deletes every key. */
int32_t hvsadm_delete_key(void *handle, const char *name, int recursive);

/* Atomic batches: everything between begin and commit lands together or
 * not at all (rollback, or a failed commit). One batch at a time per handle:
 * a nested begin, or a commit or rollback without one, is
 * HVS_ERR_ARGUMENT. */
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

/* Properties of the registry itself, beside the key tree: "written_by"
 * holds the version of the program that last wrote it. get: value (capacity
 * *len, NUL included) and *len its length with the NUL; HVS_ERR_NO_KEY when
 * not set, HVS_ERR_SMALL_BUFFER with *len the size needed. */
int32_t hvsadm_get_property(void *handle, const char *name, char *value, uint32_t *len);
int32_t hvsadm_set_property(void *handle, const char *name, const char *value);

/* The cache of a client handle (hvsapi_init_ext; docs/cache.md): what it
 * holds now, its bound in bytes, and its answers since the handle was
 * opened. HVS_ERR_ARGUMENT for a handle that keeps no cache (HVS_CACHE=off,
 * an engine that cannot tell changes, an administration handle). */
typedef struct hvsadm_cache_info {
  uint64_t entries;   /* keys held (a key and its subkey list count once) */
  uint64_t bytes;     /* bytes they take, bookkeeping included */
  uint64_t limit;     /* HVS_CACHE_MB in bytes */
  uint64_t hits;      /* opens and subkey lists answered from memory */
  uint64_t misses;    /* ... sent to the engine while the cache was usable */
  uint64_t evictions; /* entries pushed out by the bound */
} hvsadm_cache_info;
int32_t hvsadm_cache_stats(void *handle, hvsadm_cache_info *out);

/* Waits for a change to the registry as the cache of a client handle learns
 * of it: a commit anywhere on SQLite, a watch fired on a key this handle
 * read on ZooKeeper. *seen is the count of changes a previous call gave (0
 * before the first: the call then returns at once). HVS_OK: the count moved
 * and *seen holds it now; HVS_ERR_NO_MORE: timeout_ms passed first;
 * HVS_ERR_ARGUMENT: the handle keeps no cache (see hvsadm_cache_stats). */
int32_t hvsadm_wait_change(void *handle, uint64_t *seen, uint32_t timeout_ms);

/* Recording. While a recorder is set, every call of a client handle opened
 * since is handed to it once done, and so is every lock call of the lock
 * service: what the program asked of the registry, in order. With
 * HVSADM_RECORD_DRY_RUN the writes of those handles are recorded and
 * answered with success without being written (a later open of the key on
 * such a handle reads the value as if written), and the lock service grants
 * every lock at once without taking it. hvsadm_record(NULL, NULL, 0) ends
 * it and forgets the unwritten values. The recorder runs on the calling
 * thread; it must not call the registry client. */
#define HVSADM_CALL_OPEN 1   /* hvsapi_open_key: key; result */
#define HVSADM_CALL_READ 2   /* hvsapi_get_value: key; the value read */
#define HVSADM_CALL_LIST 3   /* first hvsapi_enum_subkey of a key: the
                                subkeys, each followed by a NUL */
#define HVSADM_CALL_WRITE 4  /* hvsapi_set_value: key; the value */
#define HVSADM_CALL_LOCK 5   /* lksmutexlock/lksshrlock: the lock's name */
#define HVSADM_CALL_UNLOCK 6 /* lksunlock */
#define HVSADM_RECORD_DRY_RUN 1
typedef struct hvsadm_call {
  int32_t kind;       /* HVSADM_CALL_* */
  int32_t result;     /* the call's result code (a lock: the service's) */
  const char *name;   /* the key or the lock */
  const void *value;  /* READ, WRITE, LIST: the bytes; NULL otherwise */
  uint32_t len;
  int32_t exclusive;  /* LOCK: 1 exclusive, 0 shared */
  int32_t dry;        /* WRITE not written, LOCK not taken */
} hvsadm_call;
typedef void (*hvsadm_record_fn)(void *arg, const hvsadm_call *call);
int32_t hvsadm_record(hvsadm_record_fn fn, void *arg, int32_t flags);

/* For the commands that create a registry (hvsctl import, restore), on the
 * location HVS_REGISTRY names.
 * allow_foreign: a creating open takes over a location that holds something
 * other than a registry only once the process allowed it (hvsctl import
 * --force); off by default.
 * missing_part: what a creating open would make, found before it: the
 * outermost part of the location that does not exist yet (the first
 * missing directory of an SQLite path, or the file itself; the first
 * missing znode on the way to a ZooKeeper root), in part (capacity
 * part_cap); empty when the registry exists already, and for mem:.
 * remove_created: takes away what a creating open made where missing_part
 * gave part (with no handle open on the location).
 * On failure msg (capacity msg_cap) tells the cause. */
void hvsadm_allow_foreign(int allow);
int32_t hvsadm_missing_part(char *part, size_t part_cap, char *msg, size_t msg_cap);
int32_t hvsadm_remove_created(const char *part, char *msg, size_t msg_cap);

#ifdef __cplusplus
}
#endif
#endif
