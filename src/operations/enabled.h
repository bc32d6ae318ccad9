/* enabled.h - read and write of a boolean text on a full key name.
 * Internal (see internal.h). */
#ifndef PRSR_OPERATIONS_ENABLED_H
#define PRSR_OPERATIONS_ENABLED_H
#include <stdint.h>

#include "internal.h"
#include "prsr.h"

#ifdef __cplusplus
extern "C" {
#endif

/* *enabled_out = 1 when the key's text is "TRUE" in any case, else 0;
 * written only on 0. Result 0, 3, or 7 for a missing key. No lock. */
PRSR_INTERNAL int32_t prsr_get_enabled_key(prsr_ctx *ctx, const char *key_name,
                                           uint32_t *enabled_out);
/* Stores "true" (enabled != 0) or "false" in an existing key. Result 0 or
 * 3. The caller holds the lock. */
PRSR_INTERNAL int32_t prsr_set_enabled_key(prsr_ctx *ctx, const char *key_name, uint32_t enabled);

#ifdef __cplusplus
}

namespace prsr {

enum class LockMode { Shared, Exclusive };

/* prsr_set_enabled_key() under the lock of database db, taken in `mode`
 * and given back after the write. Result that of the lock, or of the write. */
int32_t set_flag_locked(lks_status *status, prsr_ctx *ctx, const char *db, LockMode mode,
                        const char *key_name, uint32_t enabled);

} // namespace prsr
#endif
#endif
