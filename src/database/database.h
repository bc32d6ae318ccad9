/* database.h - the database configuration: the whole record of a database
 * with its instance and service entries, and the helpers the fetch, the
 * fills and the listings share. */
#ifndef PRSR_DATABASE_DATABASE_H
#define PRSR_DATABASE_DATABASE_H

#include <stdint.h>

#include "prsr.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Builds the entry of one instance (db_key.INSTANCE.key_name) into *slot.
 * Result 0, 2 (slot left NULL) or 3 (the entry stays in the slot with what
 * it has so far; the release of the record frees it). */
int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key, prsr_instance_cfg **slot,
                           const char *key_name);

/* Builds the entry of one service (dbkey.SERVICE.srvname, srvname as
 * enumerated) into *out. Result 0, 2, 3 or the code of the case-preserved
 * read; once published the entry stays in *out whatever the result. */
int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname, const char *dbkey,
                          prsr_service_cfg **out, const char *srvname);

/* Free an entry with everything that hangs from it; NULL is fine. */
void prsr_free_instance_entry(void *metactx, prsr_instance_cfg *entry);
void prsr_free_service_entry(void *metactx, prsr_service_cfg *entry);

#ifdef __cplusplus
}

#include <initializer_list>

#include "frame/frame.h"

namespace prsr {

/* Joins a key name into a fixed kKeyMax buffer after measuring it. A name
 * that would not fit leaves dst empty and gives false; nothing is written
 * past the buffer. */
inline bool key_build(char *dst, std::initializer_list<const char *> parts) {
  if (key_length(parts) + 1 > kKeyMax) {
    dst[0] = '\0';
    return false;
  }
  key_join(dst, parts);
  return true;
}

/* Frees a table of texts with `count` slots (NULL slots skipped) and the
 * table itself. */
inline void free_texts(void *meta, char **table, uint32_t count) {
  if (table == nullptr)
    return;
  for (uint32_t i = 0; i < count; ++i)
    if (table[i] != nullptr)
      u_freem(meta, table[i]);
  u_freem(meta, table);
}

} // namespace prsr
#endif
#endif
