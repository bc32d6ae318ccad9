// holds_table.h - the registry client's side of hvs/holds.h.
#ifndef HVS_HOLDS_TABLE_H
#define HVS_HOLDS_TABLE_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "hvs/backend.h"

namespace hvs::holds {

struct Hold {
  std::string lock;   // the lock's name
  std::string prefix; // the key it covers, with the keys below it
  bool exclusive = false;
  std::string fence;  // engine evidence of the hold ("" for none)
  std::thread::id owner;
  std::atomic<bool> lost{false};
  // Run when the hold ends, in order; both guarded by the table's mutex.
  std::vector<std::function<Status()>> on_leave;
  bool ended = false;
};

// The hold of the calling thread that covers key, or nullptr. With several,
// the exclusive one, else the latest.
std::shared_ptr<Hold> covering(std::string_view key);

// Adds fn to what hold runs when it ends; false, and fn never runs, when it
// has ended already.
bool defer(const std::shared_ptr<Hold> &hold, std::function<Status()> fn);

// Ordering marks, for the client layer's cache: one process-wide count
// that goes up by one for every hold entered (hvs_hold_enter) and for every
// write the client layer makes. A reading thread whose latest hold (or a
// write it may have been told of) carries a mark later than the last
// catch-up of its engine makes the engine catch up first (cache.cpp).
uint64_t next_mark() noexcept;   // takes the next mark
uint64_t last_mark() noexcept;   // the latest mark taken
uint64_t thread_mark() noexcept; // this thread's latest hold's mark, or 0

// The key a lock name covers ("FLTM.X" and "FLTM.VLM.X": X); nullopt-like
// empty view with ok=false when the name follows no such form.
bool covered_key(std::string_view lock, std::string &out);

} // namespace hvs::holds

#endif
