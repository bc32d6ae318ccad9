// The ZooKeeper engine. Not built yet: a zk:// location is reported as
// unreachable. The engine goes here, as a Backend subclass returned by
// open_zookeeper(); its build switch is PRSR_WITH_ZOOKEEPER.
#include "hvs/backend.h"

namespace hvs {

std::unique_ptr<Backend> open_zookeeper(const Location &loc, bool /*create*/,
                                        Status &st) {
  st = Status::failure(HVS_ERR_UNREACHABLE,
                       loc.text +
                           ": this build has no ZooKeeper engine (hosts " +
                           loc.path + ", root " + loc.root + ")");
  return nullptr;
}

} // namespace hvs
