/* hvs/backend.h - the interface a registry engine implements.
 *
 * This is for engine authors, not for clients: clients use hvsapi.h and
 * hvsadm.h. The client layer owns handles, key handles, argument checks,
 * locking and error reporting; an engine only stores keys.
 *
 * The interface is versioned and append-only: a method, once published,
 * keeps its signature and meaning; new methods go at the end of the class,
 * with a default body, and raise kVersion.
 *
 * Rules every engine follows:
 *  - Keys are named by full dotted paths ("DATABASE.DATABASES.sales"). The
 *    empty name is the root: it always exists, never has a value, and its
 *    children are the top-level keys. Names reaching an engine have been
 *    checked with key_name_problem().
 *  - A value is any byte string, length 0 included; "no value" is distinct
 *    from an empty value.
 *  - children() gives a key's components in byte (memcmp) order.
 *  - Failures come back as a Status whose message names the location and
 *    the cause; the client layer passes it on through hvsapi_get_last_error.
 *  - Engines are not thread-safe: the client layer serialises the calls on
 *    one engine object. An engine shared between objects (mem:) guards its
 *    own shared state.
 */
#ifndef HVS_BACKEND_H
#define HVS_BACKEND_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "hvs_location.h"
#include "hvsapi.h"

namespace hvs {

/* Longest key component in bytes. */
inline constexpr std::size_t kMaxComponent = 255;

struct Status {
  int32_t code = HVS_OK;
  std::string message;

  bool ok() const noexcept { return code == HVS_OK; }
  static Status failure(int32_t c, std::string m) {
    return Status{c, std::move(m)};
  }
};

/* What an open key carries. The client layer keeps it in the key handle, so
 * reading the value after an open costs no engine call. */
struct KeyData {
  int64_t id = 0;         /* the engine's identity of the key (row id...) */
  std::string path;       /* engines that address keys by name keep it here */
  bool has_value = false;
  uint32_t type = HVS_TYPE_BINARY;
  std::string value;
};

/* Where an engine reports changes to the stored keys, for the client's
 * cache (docs/cache.md). Both may be called from any thread, the engine's
 * own event threads included. */
class ChangeSink {
public:
  virtual ~ChangeSink() = default;
  /* The key's value, its existence or its list of subkeys may have
   * changed. */
  virtual void changed(std::string_view key) = 0;
  /* Anything may have changed. */
  virtual void changed_all() = 0;
};

/* One key of a walk. */
struct WalkEntry {
  std::string name;
  bool has_value = false;
  uint32_t type = HVS_TYPE_BINARY;
  std::string value;
};

class Backend {
public:
  static constexpr int kVersion = 4;

  virtual ~Backend() = default;
  /* The interface version the engine was written against. */
  virtual int version() const noexcept { return kVersion; }

  /* --- version 1 --- */

  /* Fills out with the key, its value included. HVS_ERR_NO_KEY when the key
   * does not exist. */
  virtual Status open_key(std::string_view name, KeyData &out) = 0;
  /* Replaces the value of an open key. The client layer updates the copy in
   * key after success. HVS_ERR_NO_KEY if the key went away meanwhile. */
  virtual Status set_value(const KeyData &key, uint32_t type,
                           std::string_view bytes) = 0;
  /* The components of the key's children, in byte order. */
  virtual Status children(const KeyData &key,
                          std::vector<std::string> &out) = 0;

  /* Creates a key; HVS_ERR_NO_KEY when the parent is missing,
   * HVS_ERR_EXISTS when the key is there already. */
  virtual Status create_key(std::string_view name, bool has_value,
                            uint32_t type, std::string_view bytes) = 0;
  /* Sets or clears the value of an existing key by name. */
  virtual Status put_value(std::string_view name, bool has_value,
                           uint32_t type, std::string_view bytes) = 0;
  /* Deletes a key; HVS_ERR_NOT_EMPTY when it has children and recursive is
   * false. The root cannot be deleted, but recursive deletion of "" empties
   * the registry. */
  virtual Status delete_key(std::string_view name, bool recursive) = 0;

  /* One transaction at a time per engine object; a nested begin is
   * HVS_ERR_ARGUMENT. A failed commit rolls back. */
  virtual Status begin() = 0;
  virtual Status commit() = 0;
  virtual Status rollback() = 0;

  /* The subtree under name ("" for all), depth first, children in byte
   * order, each key before its children. The default uses open_key() and
   * children(); an engine may do better. */
  virtual Status walk(std::string_view name, std::vector<WalkEntry> &out);

  /* --- version 2 --- */

  /* Properties of the registry itself, beside the key tree (for example
   * "written_by", the version of the program that last wrote it).
   * HVS_ERR_NO_KEY when the property is not set. The defaults keep them in
   * this engine object only; a persistent engine overrides both. */
  virtual Status get_property(std::string_view name, std::string &out);
  virtual Status set_property(std::string_view name, std::string_view value);

  /* --- version 3 --- */

  /* set_value() for a write made under a lock: fence is the lock's evidence
   * (hvs/holds.h), and an engine that can check it in the same request as
   * the write does so, failing with HVS_ERR_LOCK_LOST when it is gone. The
   * default writes without a check. */
  virtual Status set_value_fenced(const KeyData &key, uint32_t type,
                                  std::string_view bytes,
                                  std::string_view fence);
  /* True when the engine makes the writes of an exclusive hold one
   * transaction that ends with the hold. */
  virtual bool batches_under_lock() const noexcept { return false; }

  /* --- version 4 --- */

  /* The client layer keeps a cache of opened keys and subkey lists in front
   * of an engine that can tell when they change (docs/cache.md).
   *
   * follow() hands the engine the sink of that cache; an engine that can
   * keep it told returns true and from then on reports every change it
   * learns of, its own writes included. The default cannot: no cache.
   *
   * current() comes before every read the cache may answer. It returns true
   * when every change that was committed before the call has been reported
   * (the engine may report it right there), so that the cache may answer;
   * false sends this read to the engine and keeps its answer out of the
   * cache (no trustworthy change record, an open transaction...). It is
   * called on the thread of the read, under the client layer's lock.
   *
   * catch_up() is for engines whose change reports come in their own time
   * (ZooKeeper's notifications): it returns once every write that completed
   * anywhere before the call has been reported, or false when it cannot
   * tell. The client layer calls it when the reading thread was told of
   * such a write: a lock was granted to it, or a write returned in this
   * process. The default has nothing to wait for. */
  virtual bool follow(ChangeSink *) { return false; }
  virtual bool current() { return false; }
  virtual bool catch_up() { return true; }

private:
  std::vector<std::pair<std::string, std::string>> properties_;
};

/* Why name is not a valid key name, or nullptr when it is: non-empty
 * components of at most kMaxComponent bytes separated by single dots. */
const char *key_name_problem(std::string_view name) noexcept;

/* The parent's name ("" for a top-level key) and the last component. */
std::string_view parent_of(std::string_view name) noexcept;
std::string_view last_component(std::string_view name) noexcept;

/* Opens the engine that loc names. With create, a missing registry is
 * created (directories included); without, it is an error. On failure
 * returns nullptr and fills st. */
std::unique_ptr<Backend> open_backend(const Location &loc, bool create,
                                      Status &st);

/* The engines. open_backend() picks one by the location's scheme. */
std::unique_ptr<Backend> open_sqlite(const Location &loc, bool create,
                                     Status &st);
std::unique_ptr<Backend> open_memory(const Location &loc, bool create,
                                     Status &st);
std::unique_ptr<Backend> open_zookeeper(const Location &loc, bool create,
                                        Status &st);
/* file:PATH, read-only: create is ignored, the file must exist. */
std::unique_ptr<Backend> open_file(const Location &loc, bool create,
                                   Status &st);

/* A creating open lays a registry out only where nothing else is: an SQLite
 * file with tables that are not the registry's, or a ZooKeeper root with
 * data or children other than a registry's marker, keys and locks, is
 * refused with HVS_ERR_EXISTS, unless the process allowed it first (hvsctl
 * import --force). Off by default. */
void allow_foreign_location(bool allow) noexcept;
bool foreign_location_allowed() noexcept;

/* What a creating open at loc would make, found before it: the outermost
 * part of the location that does not exist yet (the first missing
 * directory of an SQLite path, or the file itself; the first missing znode
 * on the way to a ZooKeeper root). Empty when the registry's file or root
 * exists already, and for mem:. */
Status missing_part(const Location &loc, std::string &part);
/* Takes away what a creating open made at loc where missing_part() gave
 * part: the SQLite file with its -wal, -shm and -journal files and the
 * directories made for it, once empty; on ZooKeeper the znode part and
 * everything under it. Call it with no handle open on loc. */
Status remove_created(const Location &loc, const std::string &part);
/* The engines' halves of the two. */
Status sqlite_missing_part(const Location &loc, std::string &part);
Status sqlite_remove_created(const Location &loc, const std::string &part);
Status zookeeper_missing_part(const Location &loc, std::string &part);
Status zookeeper_remove_created(const Location &loc, const std::string &part);

} // namespace hvs

#endif
