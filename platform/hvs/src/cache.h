// cache.h - the registry client's cache of opened keys and subkey lists
// (docs/cache.md).
//
// A client handle's engine sits behind a Cached engine that answers
// open_key() and children() from memory when it may, and sends everything
// else on. Whether it may is the engine's word (Backend::follow, current,
// catch_up in hvs/backend.h): the engine reports changes to the Store,
// which drops what they touch.
//
// A read that misses goes to the engine, and its answer enters the store
// only if no change was reported between the moment the store was found
// current and the moment the answer is put in (the ticket): an answer that
// may be older than a reported change never stays.
#ifndef HVS_CACHE_H
#define HVS_CACHE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "hvs/backend.h"
#include "hvsadm.h"

namespace hvs::cache {

struct Settings {
  bool on = true;                            // HVS_CACHE=off turns it off
  std::size_t limit = std::size_t(64) << 20; // HVS_CACHE_MB, per handle

  static Settings from_env();
};

// Keys and subkey lists by key name, within a bound on the bytes they take.
// An open-addressing table of (hash, entry) slots; each entry holds its
// name, so a hit reads the slot and the entry and nothing else. The bound
// is kept by the clock algorithm over the slots: a hit marks its entry, the
// hand passes marked entries once (unmarking them) and takes the others.
// Thread-safe: engines report changes from their own threads.
class Store final : public ChangeSink {
public:
  explicit Store(std::size_t limit) : limit_(limit) {}
  ~Store() override;
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  enum class Known : uint8_t { Nothing, Present, Absent };

  // What the store holds of key name; Present fills out's value part.
  // ticket receives what a put after a miss must present.
  Known find_key(std::string_view name, KeyData &out, uint64_t &ticket);
  bool find_kids(std::string_view name, std::vector<std::string> &out, uint64_t &ticket);
  // Puts an engine's answer in, unless a change was reported since ticket
  // was given. data nullptr: the key does not exist.
  void put_key(uint64_t ticket, std::string_view name, const KeyData *data);
  void put_kids(uint64_t ticket, std::string_view name, const std::vector<std::string> &kids);

  void changed(std::string_view key) override;
  void changed_all() override;

  hvsadm_cache_info stats() const;

private:
  struct Entry;
  struct Slot {
    uint64_t hash = 0;
    Entry *entry = nullptr; // nullptr: free
  };
  static constexpr std::size_t kNone = ~std::size_t{0};

  std::size_t find(std::string_view name, uint64_t hash) const noexcept;
  Entry *fresh(std::string_view name, uint64_t hash); // found or made, this generation
  void grow();
  void erase_at(std::size_t i) noexcept;
  void recost(Entry &e) noexcept;
  void trim(const Entry *kept) noexcept;

  mutable std::mutex mu_;
  std::vector<Slot> slots_; // a power of two long, at most half full
  std::size_t count_ = 0;
  std::size_t hand_ = 0;
  std::size_t limit_;
  std::size_t bytes_ = 0;
  uint64_t gen_ = 1; // changed_all() moves it: older entries are void
  uint64_t seq_ = 1; // every reported change moves it (tickets)
  uint64_t hits_ = 0, misses_ = 0, evictions_ = 0;
};

// Puts the client layer's cache in front of engine, as settings say. With
// caching false (administration handles) nothing is cached, but the writes
// are still counted, so that the cached handles of the process catch up
// with them. With HVS_CACHE=off the engine comes back as it is.
std::unique_ptr<Backend> wrap(std::unique_ptr<Backend> engine, const std::string &location,
                              bool caching);

// The statistics of a handle's cache; false when it has none.
bool stats_of(Backend &backend, hvsadm_cache_info &out);

} // namespace hvs::cache

#endif
