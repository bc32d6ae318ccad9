/* lks.h - named-lock service.
 *
 * Named locks, shared or exclusive, across processes and across sessions of
 * one process; a name is any text. A lock call waits until the lock is
 * granted or until LKS_TIMEOUT_MS (environment, default 20000) has passed,
 * then fails with the reason in the lks_status. A holder that dies releases
 * its locks. The locks follow HVS_REGISTRY: file locks beside an SQLite
 * registry, ZooKeeper locks on an ensemble, and locks inside the process
 * only for a saved registry file (file:), which no other process writes.
 */
#ifndef LKS_H
#define LKS_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

#ifndef LKS_STATUS_DEFINED
#define LKS_STATUS_DEFINED
typedef struct lks_status {
  uint64_t opaque[27];
} lks_status;
#endif

typedef struct lks_version {
  uint16_t major;
  uint16_t minor;
} lks_version;

typedef void *(*lks_alloc_fn)(void *metactx, uint64_t size);
typedef void (*lks_free_fn)(void *metactx, void *mem);

typedef struct lks_init_params {
  void *metactx;
  lks_alloc_fn alloc;
  lks_free_fn release;
  void *thread_ctx;
  uint64_t reserved0;
  uint64_t flags; /* 192 */
  uint64_t reserved1;
  uint64_t reserved2;
} lks_init_params;

/* Failure codes, also kept in the status record. */
#define LKS_OK 0
#define LKS_ERR_TIMEOUT 1   /* not granted within the timeout */
#define LKS_ERR_ARGUMENT 2  /* NULL handle or name, bad parameters */
#define LKS_ERR_SYSTEM 3    /* the lock store failed (I/O, network) */
#define LKS_ERR_NOT_HELD 4  /* unlock of a name this handle does not hold */
#define LKS_ERR_LOST 5      /* the lock was lost (session expired) */

int32_t lkssinit(lks_status *status, void **handle_out, lks_version *version,
                 lks_init_params *params, uint32_t size);
int32_t lkssterm(lks_status *status, void *handle);
int32_t lksmutexlock(lks_status *status, void *handle, const char *name);
int32_t lksshrlock(lks_status *status, void *handle, const char *name);
int32_t lksunlock(lks_status *status, void *handle, const char *name);

/* Reading a status record: the failure code and its text ("" when none). */
int32_t lks_status_code(const lks_status *status);
const char *lks_status_text(const lks_status *status);

#ifdef __cplusplus
}
#endif
#endif
