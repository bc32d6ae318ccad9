/* database.h - the database configuration: the whole record of a database
 * with its instance and service entries, and the helpers the fetch, the
 * fills and the listings share. Internal (see internal.h). */
#ifndef PRSR_DATABASE_DATABASE_H
#define PRSR_DATABASE_DATABASE_H

#include <stdint.h>

#include "internal.h"
#include "prsr.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Builds the entry of one instance (db_key.INSTANCE.key_name) into *slot.
 * Result 0, 2 (slot left NULL) or 3 (the entry stays in the slot with what
 * it has so far; the release of the record frees it). */
PRSR_INTERNAL int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key,
                                         prsr_instance_cfg **slot, const char *key_name);

/* Builds the entry of one service (dbkey.SERVICE.srvname, srvname as
 * enumerated) into *out. Result 0, 2, 3 or the code of the case-preserved
 * read; once published the entry stays in *out whatever the result. */
PRSR_INTERNAL int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname, const char *dbkey,
                                        prsr_service_cfg **out, const char *srvname);

/* Free an entry with everything that hangs from it; NULL is fine. */
PRSR_INTERNAL void prsr_free_instance_entry(void *metactx, prsr_instance_cfg *entry);
PRSR_INTERNAL void prsr_free_service_entry(void *metactx, prsr_service_cfg *entry);

#ifdef __cplusplus
}

#include "frame/frame.h"

namespace prsr {

/* What an entry fill works in, allocated in this order: the entry, a
 * value buffer, and two fixed key buffers (the entry's own key and the key
 * of the moment). Each failure leaves the call's line; result 0 or 2. */
template <class Entry> struct FillBlocks {
  explicit FillBlocks(void *meta) : entry(meta), value(meta), entry_key(meta), key(meta) {}
  int32_t allocate(const Call &call) {
    if (!entry.allocate(sizeof(Entry)))
      return call.no_memory(sizeof(Entry));
    if (!value.allocate(kValueMax))
      return call.no_memory(kValueMax);
    if (!entry_key.allocate(kKeyMax) || !key.allocate(kKeyMax))
      return call.no_memory(kKeyMax);
    return PRSR_SUCCESS;
  }
  Owned<Entry> entry;
  Owned<char> value, entry_key, key;
};

/* Writes the entry's key into dst (kKeyMax bytes) when every key of the entry
 * fits: `longest` is the longest of them. Otherwise leaves the call's
 * line and gives false. */
inline bool entry_key(const Call &call, char *dst, const KeyParts &entry, const KeyParts &longest,
                      const char *what, const char *name, const char *under) {
  if (!longest.fits()) {
    trcprintf(call.comp, 0, "%s: key names of %s %s under %s exceed %d bytes", call.name, what,
              name, under, static_cast<int>(kKeyMax));
    return false;
  }
  entry.write(dst);
  return true;
}

/* Reads key_name as an entry's flag: anything but "FALSE" (in any case) is
 * 1. A key that does not open or read is reported under the call's name
 * and leaves *flag as it is. value is a scratch buffer of kValueMax bytes;
 * the key is closed on return. */
void read_flag(const Call &call, const char *key_name, char *value, uint32_t *flag);

} // namespace prsr
#endif
#endif
