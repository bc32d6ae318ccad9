/* registry.h - the library's access to the registry: the failure report,
 * the configuration locks and the shared value readers. Internal (see
 * internal.h): nothing here is exported. */
#ifndef PRSR_REGISTRY_REGISTRY_H
#define PRSR_REGISTRY_REGISTRY_H

#include <stdint.h>

#include "internal.h"
#include "prsr.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Three level-0 lines after a failed registry call: what failed, and the
 * registry client's own code and text for it. */
PRSR_INTERNAL void prsr_report_hvs_failure(void *hvs_handle, uintptr_t trace_comp,
                                           const char *caller, const char *api, int32_t code,
                                           const char *key);

/* Named configuration locks. *lock_out receives the held lock (its name),
 * NULL on failure. Result 0, 2 (no memory for the name) or 5 (refused). */
PRSR_INTERNAL int32_t prsr_lock_branch(lks_status *status, prsr_ctx *ctx, const char *name,
                                       uint32_t shared, char **lock_out);
PRSR_INTERNAL void prsr_unlock_branch(prsr_ctx *ctx, char *lock);
PRSR_INTERNAL int32_t prsr_lock_nodeapps(lks_status *status, prsr_ctx *ctx, const char *node,
                                         char **lock_out);
PRSR_INTERNAL void prsr_unlock_nodeapps(prsr_ctx *ctx, char *lock);

/* Reads a value of any length into a new block (*value_out, the caller's
 * to free whatever the result). Result 0, 2, 3 or the client's own code. */
PRSR_INTERNAL int32_t prsr_open_get_value(prsr_ctx *ctx, void *hvs_handle, const char *key_name,
                                          char **value_out);
/* Reads a multi-string value into a table of texts. Result 0 or 2; a
 * missing or unreadable value is the empty list. */
PRSR_INTERNAL int32_t prsr_get_multivalues(void *metactx, uintptr_t trace_comp, void *hvs_handle,
                                           const char *key_name, char ***list_out,
                                           uint32_t *count_out);
/* Lists the subkeys of a key. Result 0, 2 or 3; a missing key has none. */
PRSR_INTERNAL int32_t prsr_get_subkeys(void *metactx, uintptr_t trace_comp, void *hvs_handle,
                                       const char *key_name, char ***names_out,
                                       uint32_t *count_out);
/* Reads the case-preserved name held by parent_key.<name> for each name.
 * Result 0, 2 or 3; entries read before a failure stay in values_out. */
PRSR_INTERNAL int32_t prsr_get_case_preserved_values(void *metactx, uintptr_t trace_comp,
                                                     void *hvs_handle, const char *parent_key,
                                                     char **names, uint32_t count,
                                                     char **values_out);
/* A new block of length + 1 bytes holding the bytes and a NUL, or NULL. */
PRSR_INTERNAL char *prsr_dup_bytes(void *metactx, const void *bytes, uint32_t length);

#ifdef __cplusplus
}

namespace prsr {

/* A configuration lock held for the current call. The operation releases it
 * where its order of release says (release()); the destructor releases it
 * on every other exit. */
class BranchLock {
public:
  explicit BranchLock(prsr_ctx *ctx) : ctx_(ctx) {}
  ~BranchLock() { release(); }
  BranchLock(const BranchLock &) = delete;
  BranchLock &operator=(const BranchLock &) = delete;

  int32_t shared(lks_status *status, const char *db) {
    return prsr_lock_branch(status, ctx_, db, 1, &name_);
  }
  int32_t exclusive(lks_status *status, const char *db) {
    return prsr_lock_branch(status, ctx_, db, 0, &name_);
  }
  int32_t nodeapps(lks_status *status, const char *node) {
    return prsr_lock_nodeapps(status, ctx_, node, &name_);
  }
  void release() {
    if (name_ != nullptr)
      prsr_unlock_branch(ctx_, name_);
    name_ = nullptr;
  }
  bool held() const { return name_ != nullptr; }

private:
  prsr_ctx *ctx_;
  char *name_ = nullptr;
};

} // namespace prsr
#endif
#endif
