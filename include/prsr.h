/*
 * prsr.h - client interface of libprsr, the cluster configuration reader.
 *
 * A client opens a session with prsr_init() or prsr_init_ext(), calls the
 * flat prsr_ operations and closes the session with prsr_terminate().
 * Records handed out by a fetch live in the session's memory and go back
 * through their release operation before the session ends.
 *
 * Every operation returns one of the PRSR_ result codes below. Those values
 * are part of the ABI and never change. Where an operation says "own", a
 * read that had to retry with a larger buffer and failed again returns the
 * registry client's own code unchanged: any value, above 10 as a rule, but
 * the registry client's "buffer too small" (9) can come back this way and
 * then reads like PRSR_ERR_ROLE. Treat a code you do not expect from an
 * operation as a failure.
 *
 * Environment tables (the "environment" fields) have environment_count
 * slots; an empty string inside the stored list ends it early, and the
 * slots after it are NULL, so test each entry before use.
 *
 * A session is closed once. Any use of a closed session, prsr_terminate()
 * included, is undefined, as freeing memory twice is: the session's memory
 * is gone, and may already belong to a new session.
 *
 * Self-contained; compiles as C11 and as C++.
 */
#ifndef PRSR_H
#define PRSR_H

#include <stddef.h>
#include <stdint.h>

#if defined(PRSR_BUILDING_LIBRARY)
#define PRSR_API __attribute__((visibility("default")))
#else
#define PRSR_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- result codes (ABI: values fixed forever) ------------------------- */
#define PRSR_SUCCESS 0         /* done; also an optional value that is absent */
#define PRSR_ERR_ARGUMENT 1    /* bad or missing argument, buffer too small */
#define PRSR_ERR_MEMORY 2      /* an allocation failed */
#define PRSR_ERR_REGISTRY 3    /* a registry client call failed */
#define PRSR_ERR_SESSION 4     /* NULL session, or its tag check failed */
#define PRSR_ERR_LOCK 5        /* a configuration lock could not be taken */
#define PRSR_ERR_THREAD 6      /* the thread context could not be made */
#define PRSR_ERR_NO_KEY 7      /* database, instance or service not found */
#define PRSR_ERR_NO_VLM 8      /* storage-manager entry not found */
#define PRSR_ERR_ROLE 9        /* not one of the known database roles */
#define PRSR_ERR_NO_NODEAPPS 10 /* node applications entry not found */

/* Database roles, as numbers. */
#define PRSR_ROLE_PRIMARY 0
#define PRSR_ROLE_PHYSICAL_STANDBY 1
#define PRSR_ROLE_LOGICAL_STANDBY 2
#define PRSR_ROLE_SNAPSHOT_STANDBY 3

/* Service failover policies, as numbers. */
#define PRSR_FOV_NONE 1
#define PRSR_FOV_BASIC 2
#define PRSR_FOV_PRECONNECT 3

/* ---- records ---------------------------------------------------------- */

/* The lock service's status record: 216 opaque bytes in which a failed lock
 * call leaves its reason. The library hands it through and never reads it. */
#ifndef LKS_STATUS_DEFINED
#define LKS_STATUS_DEFINED
typedef struct lks_status {
  uint64_t opaque[27];
} lks_status;
#endif

/* A session. Written once by prsr_init()/prsr_init_ext(), read-only after. */
typedef struct prsr_ctx {
  char tag[9]; /* "PRSRCTXA" once the session is complete */
  void *metactx;
  void *hvs_handle;
  void *thread_ctx;
  void *lock_handle;
  uintptr_t trace_comp;
  uint32_t owns_lock_service;
} prsr_ctx;

/* One instance of a database (inside prsr_cfg). */
typedef struct prsr_instance_cfg {
  char *node_name;
  char *instance_name;
  char **environment;
  uint32_t environment_count;
  uint32_t enabled;
} prsr_instance_cfg;

/* One service of a database (inside prsr_cfg). A service without
 * instances has NULL for both lists and their flags. */
typedef struct prsr_service_cfg {
  char *service_name;
  char **avail_instances; /* avail_count + 1 slots, the last NULL */
  uint32_t *avail_enabled;
  uint32_t avail_count;
  char **pref_instances; /* pref_count + 1 slots, the last NULL */
  uint32_t *pref_enabled;
  uint32_t pref_count;
  uint32_t fov_policy; /* 0 not read, else PRSR_FOV_* */
  char **environment;
  uint32_t environment_count;
  uint32_t enabled;
} prsr_service_cfg;

/* The whole configuration of one database. Tag "PRSRCFGB". */
typedef struct prsr_cfg {
  char tag[9];
  char *sp_name;
  char *clu_alias_ip;
  char *tervan_home;
  char *bootcfg;
  char *db_name;
  char *role;
  char *start_options;
  prsr_instance_cfg **instances;
  uint32_t instance_count;
  prsr_service_cfg **services;
  uint32_t service_count;
  char *domain;
  uint32_t enabled;
  char **environment;
  uint32_t environment_count;
  uint32_t fetched;
  char *policy;
} prsr_cfg;

/* One storage-manager entry. Tag "PRSRCFGA". */
typedef struct prsr_vlm_cfg {
  char tag[9];
  char *bootcfg;
  char *tervan_home;
  char *start_options;
  char *version;
  char **environment;
  uint32_t environment_count;
  uint32_t enabled;
} prsr_vlm_cfg;

/* One node's applications. Tag "PRSRCFGC", behind `fetched`. */
typedef struct prsr_nodeapps_cfg {
  uint32_t fetched;
  char tag[9];
  char *node_name;
  char **environment;
  uint32_t environment_count;
  char *tervan_home;
  char *vip;
  char *interfaces;
  char *netmask;
} prsr_nodeapps_cfg;

/* ---- session ---------------------------------------------------------- */

/* Opens a session with its own lock service. *ctx_out receives the session,
 * NULL on failure. Returns 0, 2, 3 (registry unreachable), 5 (lock service
 * failed; reason in *status) or 6. */
PRSR_API int32_t prsr_init(lks_status *status, prsr_ctx **ctx_out);

/* As prsr_init(); with a non-NULL lock_handle the session borrows that lock
 * service and never stops it (status is then unused). Returns 0, 2, 3, 5, 6. */
PRSR_API int32_t prsr_init_ext(lks_status *status, prsr_ctx **ctx_out,
                               void *lock_handle);

/* Closes a session. Returns 0, or 4 for NULL or a pointer that is not a
 * session. Closing a closed session is undefined (see above). */
PRSR_API int32_t prsr_terminate(lks_status *status, prsr_ctx *ctx);

/* ---- database configuration ------------------------------------------- */

/* Reads the whole configuration of a database under its shared lock.
 * *cfg_out is NULL unless the result is 0; free it with
 * prsr_release_db_config(). Returns 0, 2, 3, 4, 5, 7. */
PRSR_API int32_t prsr_fetch_db_config(lks_status *status, prsr_ctx *ctx,
                                      const char *db_name, prsr_cfg **cfg_out);

/* Frees a record from prsr_fetch_db_config(). A NULL record or one with
 * another tag is left alone. Returns 0, or 4 for a bad session. */
PRSR_API int32_t prsr_release_db_config(lks_status *status, prsr_ctx *ctx,
                                        prsr_cfg *cfg);

/* Lists every database with its case preserved. On 0, *list_out holds a
 * table of *count_out names (never NULL); free it with
 * prsr_release_db_list(). Returns 0, 1, 2, 3, 4, 5. */
PRSR_API int32_t prsr_list_db(lks_status *status, prsr_ctx *ctx,
                              char ***list_out, uint32_t *count_out);

/* Frees a table from prsr_list_db(). Returns 0, or 4 for a bad session. */
PRSR_API int32_t prsr_release_db_list(lks_status *status, prsr_ctx *ctx,
                                      char **list, uint32_t count);

/* Lists a service's instances, their nodes, and which are available.
 * *count is set to 0 first; with *count 0 the arrays are untouched. Free
 * with prsr_release_srv_instances(). Returns 0, 1, 2, 3, 4. */
PRSR_API int32_t prsr_get_srv_instances(lks_status *status, prsr_ctx *ctx,
                                        const char *dbname, const char *srvname,
                                        char ***instances, char ***nodes,
                                        uint32_t **avail, uint32_t *count);

/* Frees what prsr_get_srv_instances() handed out. Returns 0 or 4. */
PRSR_API int32_t prsr_release_srv_instances(lks_status *status, prsr_ctx *ctx,
                                            char **instances, char **nodes,
                                            uint32_t *avail, uint32_t count);

/* ---- services --------------------------------------------------------- */

/* Service enable flag; *enabled written only on 0. Returns 0, 2, 3, 4, 7. */
PRSR_API int32_t prsr_get_service_enabled(lks_status *status, prsr_ctx *ctx,
                                          const char *dbname,
                                          const char *srvname,
                                          uint32_t *enabled);

/* Writes the flag of the service and of all its instances under the
 * database's exclusive lock. Returns 0, 2, 3, 4, 5. */
PRSR_API int32_t prsr_set_service_enabled(lks_status *status, prsr_ctx *ctx,
                                          const char *dbname,
                                          const char *srvname, uint32_t enable);

/* A service instance's flag; *enabled written only on 0.
 * Returns 0, 2, 3, 4, 7. */
PRSR_API int32_t prsr_get_service_instance_enabled(
    lks_status *status, prsr_ctx *ctx, const char *dbname, const char *srvname,
    const char *instname, uint32_t *enabled);

/* Writes a service instance's flag under the database's shared lock.
 * Returns 0, 2, 3, 4, 5. */
PRSR_API int32_t prsr_set_service_instance_enabled(
    lks_status *status, prsr_ctx *ctx, const char *dbname, const char *srvname,
    const char *instname, uint32_t enable);

/* Whether an instance is supported for a service. *supported is cleared on
 * entry and set to 1 only on success. Returns 0, 2, 3, 4, 7, or own. */
PRSR_API int32_t prsr_get_service_instance_supported(
    lks_status *status, prsr_ctx *ctx, const char *dbname, const char *srvname,
    const char *instname, uint32_t *supported);

/* A service's failover policy as PRSR_FOV_*; *policy written only on 0.
 * Returns 0, 2, 4, or own. */
PRSR_API int32_t prsr_get_service_fov_policy(lks_status *status, prsr_ctx *ctx,
                                             const char *dbname,
                                             const char *srvname,
                                             uint32_t *policy);

/* ---- databases and instances ------------------------------------------ */

/* Database enable flag: 1 when the stored text is "TRUE" in any case.
 * *enabled written only on 0. Returns 0, 2, 3, 4, 7. */
PRSR_API int32_t prsr_get_db_enabled(lks_status *status, prsr_ctx *ctx,
                                     const char *dbname, uint32_t *enabled);

/* Writes "true" (enable != 0) or "false" under the database's exclusive
 * lock. A missing key is 3. Returns 0, 2, 3, 4, 5. */
PRSR_API int32_t prsr_set_db_enabled(lks_status *status, prsr_ctx *ctx,
                                     const char *dbname, uint32_t enable);

/* Database role as PRSR_ROLE_*; *role written only on 0.
 * Returns 0, 2, 3, 4, 9, or own. */
PRSR_API int32_t prsr_get_db_role(lks_status *status, prsr_ctx *ctx,
                                  const char *dbname, uint32_t *role);

/* Stores a role number as its text under the shared lock.
 * Returns 0, 2, 3, 4, 5, 9. */
PRSR_API int32_t prsr_set_db_role(lks_status *status, prsr_ctx *ctx,
                                  const char *dbname, uint32_t role);

/* Instance enable flag; *enabled written only on 0. Returns 0, 2, 3, 4, 7. */
PRSR_API int32_t prsr_get_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                           const char *dbname,
                                           const char *instname,
                                           uint32_t *enabled);

/* Writes an instance's flag under the database's exclusive lock.
 * Returns 0, 2, 3, 4, 5. */
PRSR_API int32_t prsr_set_instance_enabled(lks_status *status, prsr_ctx *ctx,
                                           const char *dbname,
                                           const char *instname,
                                           uint32_t enable);

/* Case-preserved instance name into name[size]. Never writes past size;
 * a name that does not fit gives 1 and an empty buffer.
 * Returns 0, 1, 2, 3, 4, 7, or own. */
PRSR_API int32_t prsr_get_instance_name(lks_status *status, prsr_ctx *ctx,
                                        const char *dbname,
                                        const char *instname, uint32_t size,
                                        char *name);

/* The case-preserved name of the database's instance on a node, or the
 * empty text when none runs there. Returns 0, 1, 2, 3, 4, 5, or own. */
PRSR_API int32_t prsr_get_node_instance_name(lks_status *status, prsr_ctx *ctx,
                                             const char *dbname,
                                             const char *node, uint32_t size,
                                             char *name);

/* The database's case-preserved name. Returns 0, 1, 2, 3, 4, 7, or own. */
PRSR_API int32_t prsr_get_spname(lks_status *status, prsr_ctx *ctx,
                                 const char *dbname, uint32_t size,
                                 char *name);

/* The database's domain in a text freed with prsr_free_domain().
 * Returns 0, 2, 3, 4, or own. */
PRSR_API int32_t prsr_get_domain(lks_status *status, prsr_ctx *ctx,
                                 const char *dbname, char **domain_out);

/* Frees a text from prsr_get_domain(). Returns 0, or 4 for a NULL
 * argument. */
PRSR_API int32_t prsr_free_domain(prsr_ctx *ctx, char *domain);

/* ---- storage manager and node applications ---------------------------- */

/* Reads a storage-manager entry. *cfg_out NULL unless 0; free with
 * prsr_release_vlm_config(). Returns 0, 2, 3, 4, 5, 8. */
PRSR_API int32_t prsr_fetch_vlm_config(lks_status *status, prsr_ctx *ctx,
                                       const char *first, const char *second,
                                       prsr_vlm_cfg **cfg_out);

/* Frees a prsr_vlm_cfg. Returns 0 or 4. */
PRSR_API int32_t prsr_release_vlm_config(lks_status *status, prsr_ctx *ctx,
                                         prsr_vlm_cfg *cfg);

/* Storage-manager enable flag. Returns 0, 2, 3, 4, 8. */
PRSR_API int32_t prsr_get_vlm_enabled(lks_status *status, prsr_ctx *ctx,
                                      const char *first, const char *second,
                                      uint32_t *enabled);

/* Storage-manager entry's case-preserved name into name[size].
 * Returns 0, 1, 2, 3, 4, 8, or own. */
PRSR_API int32_t prsr_get_vlm_name(lks_status *status, prsr_ctx *ctx,
                                   const char *first, const char *second,
                                   uint32_t size, char *name);

/* Reads one node's applications. *cfg_out NULL unless 0; free with
 * prsr_release_nodeapps_config(). Returns 0, 1, 2, 3, 4, 5, 10. */
PRSR_API int32_t prsr_fetch_nodeapps_config(lks_status *status, prsr_ctx *ctx,
                                            const char *node,
                                            prsr_nodeapps_cfg **cfg_out);

/* Frees a prsr_nodeapps_cfg. Returns 0 or 4. */
PRSR_API int32_t prsr_release_nodeapps_config(lks_status *status,
                                              prsr_ctx *ctx,
                                              prsr_nodeapps_cfg *cfg);

#ifdef __cplusplus
}
#endif

#endif /* PRSR_H */
