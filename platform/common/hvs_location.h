/* hvs_location.h - where the registry lives, shared by the registry client
 * and the lock service so that they never disagree.
 *
 * Resolution order:
 *   1. HVS_REGISTRY, when set and not empty;
 *   2. sqlite:$HOME/.hvs/registry.db, when HOME is set;
 *   3. sqlite:./hvs-registry.db.
 * A bare path (no scheme) is taken as sqlite:PATH. file:PATH names an export
 * or backup file written by hvsctl, served read-only.
 */
#ifndef HVS_LOCATION_H
#define HVS_LOCATION_H
#include <string>

namespace hvs {

enum class Engine { Sqlite, ZooKeeper, Memory, File, Invalid };

struct Location {
  Engine engine = Engine::Invalid;
  std::string text;  // the full location as resolved, for messages
  std::string path;  // sqlite:, file: file path; zk: "host:port,..."; mem: name
  std::string root;  // zk: chroot ("/hvs" by default)
  std::string error; // why it is Invalid
};

Location resolve_location();
Location parse_location(const std::string &text);

} // namespace hvs
#endif
