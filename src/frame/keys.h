/* keys.h - the keys of the configuration tree that the library reads and
 * locks, as parts (util/keyname.h). An operation checks the caller's names
 * with the same function it later builds its key with, so the check, the
 * block and the text cannot drift apart.
 *
 * Spare bytes: the point operations have always allocated a few bytes more
 * than their key needs (1 beside a database's leaves, 2 beside an
 * instance's or a service's, 3 beside a service instance's), and their
 * failure lines print those sizes; the spare keeps them as they are. */
#ifndef PRSR_FRAME_KEYS_H
#define PRSR_FRAME_KEYS_H

#include "util/keyname.h"

namespace prsr::keys {

inline constexpr char kDatabases[] = "DATABASE.DATABASES";
inline constexpr char kVlm[] = "DATABASE.VLM";
inline constexpr char kNodeapps[] = "DATABASE.NODEAPPS";
inline constexpr char kLockRoot[] = "FLTM";

/* DATABASE.DATABASES.<db> */
inline KeyParts database(const char *db) { return {kDatabases, db}; }
/* DATABASE.DATABASES.<db>.<word>: ROLE, DOMAIN, ENABLED */
inline KeyParts database_leaf(const char *db, const char *word) {
  return KeyParts{kDatabases, db, word}.spare(1);
}
/* DATABASE.DATABASES.<db>.DB_CLU_ALIAS.IP: the longest key of a fetch
 * built from the database name alone. */
inline KeyParts database_alias_ip(const char *db) { return {kDatabases, db, "DB_CLU_ALIAS", "IP"}; }

/* DATABASE.DATABASES.<db>.INSTANCE */
inline KeyParts instance_branch(const char *db) { return {kDatabases, db, "INSTANCE"}; }
/* DATABASE.DATABASES.<db>.INSTANCE.<inst> */
inline KeyParts instance(const char *db, const char *inst) {
  return {kDatabases, db, "INSTANCE", inst};
}
/* DATABASE.DATABASES.<db>.INSTANCE.<inst>.<word>: ENABLED, NODE */
inline KeyParts instance_leaf(const char *db, const char *inst, const char *word) {
  return (instance(db, inst) / word).spare(2);
}

/* DATABASE.DATABASES.<db>.SERVICE.<srv>.<word>: ENABLED, INSTANCES,
 * FOVPOLICY (srv as a key component) */
inline KeyParts service_leaf(const char *db, const char *srv, const char *word) {
  return KeyParts{kDatabases, db, "SERVICE", srv, word}.spare(2);
}
/* DATABASE.DATABASES.<db>.SERVICE.<srv>.INSTANCES.<inst> */
inline KeyParts service_instance(const char *db, const char *srv, const char *inst) {
  return KeyParts{kDatabases, db, "SERVICE", srv, "INSTANCES", inst}.spare(3);
}
/* ... .INSTANCES.<inst>.<word>: ENABLED, TYPE */
inline KeyParts service_instance_leaf(const char *db, const char *srv, const char *inst,
                                      const char *word) {
  return service_instance(db, srv, inst) / word;
}

/* DATABASE.VLM.<first>.<second> */
inline KeyParts vlm_entry(const char *first, const char *second) { return {kVlm, first, second}; }
/* DATABASE.NODEAPPS.<node> */
inline KeyParts nodeapps_entry(const char *node) { return {kNodeapps, node}; }

/* Lock names: FLTM.DATABASE.DATABASES[.<db>] (the block keeps the room of
 * the separator when there is no database), FLTM.DATABASE.NODEAPPS.<node>,
 * FLTM.VLM.<entry key>. */
inline KeyParts database_lock(const char *db) {
  return db != nullptr ? KeyParts{kLockRoot, kDatabases, db}
                       : KeyParts{kLockRoot, kDatabases}.spare(1);
}
inline KeyParts nodeapps_lock(const char *node) { return {kLockRoot, kNodeapps, node}; }
inline KeyParts vlm_lock(const char *entry) { return KeyParts{"FLTM.VLM", entry}.spare(1); }

} // namespace prsr::keys
#endif
