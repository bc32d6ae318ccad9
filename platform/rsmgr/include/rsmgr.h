/* rsmgr.h - client of the cluster resource manager.
 *
 * Resources are named objects with text attributes. A client builds
 * resource objects, sets attributes on them, collects them in a list and
 * registers the list: the attributes then persist in the manager's store.
 *
 * The store is a SQLite file:
 *   - HVS_RSM_STORE, when set and not empty, names it;
 *   - otherwise it stands beside a SQLite registry (see hvs_location.h) as
 *     "<registry path>.rsm";
 *   - with any other registry engine and no HVS_RSM_STORE, rsmgr_init_rsm
 *     fails with RSMGR_ERR_STORE.
 * Tables: rsm_resource(name, registered_at), rsm_attr(resource, name,
 * value), rsm_queue(id, resource, name, value, flags, queued_at).
 *
 * Registration flags:
 *   RSMGR_FLAG_QUEUE 0x01, RSMGR_FLAG_ASYNC 0x40: with QUEUE the change is
 *   not applied but appended to rsm_queue (one row per attribute, or one row
 *   with empty name and value for a resource without attributes), and the
 *   call gives 0 once it is stored. Without QUEUE the attributes are written
 *   to rsm_attr at once, replacing earlier values of the same names. Other
 *   bits (0x10 among them) are accepted and not interpreted.
 *
 * Failures for tests: HVS_RSM_FAIL holds comma-separated OP:N and OP@K
 * items. Each client (from rsmgr_init_rsm to rsmgr_term_rsm) fails the
 * first N calls of OP, and the K-th call of OP (counted from 1), with
 * RSMGR_ERR_INJECTED; OP is one of
 *   init      rsmgr_init_rsm (any N > 0 fails every init)
 *   create    rsmgr_res_create
 *   set_attr  rsmgr_res_set_attr
 *   reslist   rsmgr_reslist_create
 *   append    rsmgr_reslist_append
 *   register  rsmgr_register_resource2, plain and queued calls alike
 * so "register:1" fails the first registration and lets a retry through,
 * "register:2" fails a registration and its retry, and "reslist@2" fails
 * only the second list creation. A failed
 * registration gives each resource in the outcome list the status
 * RSMGR_ERR_INJECTED and the message "injected failure".
 *
 * Handles are not shared between threads; several clients and processes
 * may use one store at once.
 */
#ifndef RSMGR_H
#define RSMGR_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

#define RSMGR_OK 0
#define RSMGR_ERR_ARGUMENT 1 /* NULL handle or text, empty resource list */
#define RSMGR_ERR_STORE 2    /* the store cannot be found, opened or written */
#define RSMGR_ERR_MEMORY 3
#define RSMGR_ERR_INJECTED 4 /* HVS_RSM_FAIL asked for this failure */

#define RSMGR_FLAG_QUEUE 0x01u
#define RSMGR_FLAG_REGISTER 0x10u
#define RSMGR_FLAG_ASYNC 0x40u

/* Starts a client: *ctx_out receives its context. a and b must be NULL;
 * flags are accepted and not interpreted. */
int32_t rsmgr_init_rsm(void **ctx_out, void *a, void *b, uint32_t flags);
/* Ends a client and sets *ctx to NULL. Lists must be destroyed before; a
 * resource that never went into a list is freed with the client. */
int32_t rsmgr_term_rsm(void **ctx);

/* A new resource object without attributes. */
int32_t rsmgr_res_create(void *ctx, const char *name, void **res_out);
/* Sets (or replaces) one attribute of a resource object. */
int32_t rsmgr_res_set_attr(void *res, const char *name, const char *value);
/* The resource's name. */
const char *rsmgr_res_name(void *res);
/* The outcome of the registration a resource of an outcome list stands
 * for: *status receives 0 or a RSMGR_ERR_ code, *msg a text owned by the
 * resource (either may be NULL). */
int32_t rsmgr_res_get_op_status(void *res, int32_t *status, const char **msg);

/* An empty list. */
int32_t rsmgr_reslist_create(void *ctx, void **list_out);
/* Appends a resource, which the list owns from then on. */
int32_t rsmgr_reslist_append(void *list, void *res);
/* The first resource of a list (NULL for an empty one). */
int32_t rsmgr_reslist_first(void *list, void **res_out);
/* The number of resources in a list. */
uint32_t rsmgr_reslist_count(void *list);
/* Frees a list with what it owns and sets *list to NULL. */
int32_t rsmgr_reslist_destroy(void **list);

/* Registers every resource of list. outcome, when not NULL, receives one
 * resource per registered resource, with its status. a and b must be
 * NULL. */
int32_t rsmgr_register_resource2(void *list, uint32_t flags, void *a, void *b, void *outcome);

/* Store inspection for tools. The path of the client's store. */
const char *rsmgr_store_path(void *ctx);
/* Calls fn for each stored attribute (queue 0: rsm_attr, ordered by
 * resource and name; queue 1: rsm_queue in arrival order). when is the
 * time of registration or queuing (UTC, "YYYY-MM-DD HH:MM:SS"), flags 0
 * for applied attributes. A nonzero result from fn stops the walk. */
typedef int (*rsmgr_walk_fn)(void *arg, const char *resource, const char *name,
                             const char *value, uint32_t flags, const char *when);
int32_t rsmgr_store_walk(void *ctx, int32_t queue, rsmgr_walk_fn fn, void *arg);

#ifdef __cplusplus
}
#endif
#endif
