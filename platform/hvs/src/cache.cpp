// cache.cpp - the registry client's cache (cache.h, docs/cache.md).
#include "cache.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "holds_table.h"

namespace hvs::cache {

Settings Settings::from_env() {
  Settings s;
  if (const char *v = std::getenv("HVS_CACHE"); v != nullptr && *v != '\0') {
    std::string t(v);
    for (char &c : t)
      c = char(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (t == "off" || t == "0" || t == "no" || t == "false")
      s.on = false;
  }
  if (const char *v = std::getenv("HVS_CACHE_MB"); v != nullptr && *v != '\0') {
    char *end = nullptr;
    errno = 0;
    long mb = std::strtol(v, &end, 10);
    if (errno == 0 && *end == '\0' && mb >= 0 && mb <= (1L << 20)) {
      if (mb == 0)
        s.on = false;
      else
        s.limit = std::size_t(mb) << 20;
    }
  }
  return s;
}

// --- the store ---

// The fields a hit reads first, then the rest; the name follows the
// structure in the same block.
struct Store::Entry {
  uint64_t gen = 0;
  uint32_t name_len = 0;
  Known key = Known::Nothing;
  bool has_value = false;
  bool kids_known = false;
  bool marked = false; // used since the clock's hand last passed
  std::string value;
  uint32_t type = HVS_TYPE_BINARY;
  int64_t id = 0;
  std::size_t cost = 0;
  std::vector<std::string> kids;

  char *name() noexcept { return reinterpret_cast<char *>(this + 1); }
  bool is(std::string_view n) noexcept {
    return name_len == n.size() && std::memcmp(name(), n.data(), n.size()) == 0;
  }
  static Entry *make(std::string_view n) {
    void *mem = ::operator new(sizeof(Entry) + n.size());
    auto *e = new (mem) Entry;
    e->name_len = uint32_t(n.size());
    std::memcpy(e->name(), n.data(), n.size());
    return e;
  }
  static void destroy(Entry *e) noexcept {
    e->~Entry();
    ::operator delete(e);
  }
};

namespace {

// Heap blocks of a string beyond its inline buffer, with the allocator's
// header.
std::size_t heap_of(const std::string &s) noexcept {
  return s.capacity() > 15 ? s.capacity() + 1 + 16 : 0;
}

uint64_t hash_of(std::string_view s) noexcept { return std::hash<std::string_view>{}(s); }

} // namespace

Store::~Store() {
  for (Slot &s : slots_)
    if (s.entry != nullptr)
      Entry::destroy(s.entry);
}

std::size_t Store::find(std::string_view name, uint64_t hash) const noexcept {
  if (slots_.empty())
    return kNone;
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const Slot &s = slots_[i];
    if (s.entry == nullptr)
      return kNone;
    if (s.hash == hash && s.entry->is(name))
      return i;
  }
}

void Store::grow() {
  std::vector<Slot> bigger(slots_.empty() ? 64 : slots_.size() * 2);
  const std::size_t mask = bigger.size() - 1;
  for (const Slot &s : slots_) {
    if (s.entry == nullptr)
      continue;
    std::size_t i = s.hash & mask;
    while (bigger[i].entry != nullptr)
      i = (i + 1) & mask;
    bigger[i] = s;
  }
  bytes_ += (bigger.size() - slots_.size()) * sizeof(Slot);
  slots_.swap(bigger);
  hand_ = 0;
}

// Frees slot i and moves up the entries after it that would no longer be
// found past the gap (linear probing without tombstones).
void Store::erase_at(std::size_t i) noexcept {
  Entry *e = slots_[i].entry;
  bytes_ -= e->cost;
  Entry::destroy(e);
  --count_;
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t j = (i + 1) & mask; slots_[j].entry != nullptr; j = (j + 1) & mask) {
    const std::size_t home = slots_[j].hash & mask;
    const bool reachable = i <= j ? (i < home && home <= j) : (i < home || home <= j);
    if (reachable)
      continue;
    slots_[i] = slots_[j];
    i = j;
  }
  slots_[i] = Slot{};
}

void Store::recost(Entry &e) noexcept {
  std::size_t c =
      sizeof(Entry) + e.name_len + 16 + heap_of(e.value) + e.kids.capacity() * sizeof(std::string);
  for (const auto &k : e.kids)
    c += heap_of(k);
  bytes_ = bytes_ - e.cost + c;
  e.cost = c;
}

Store::Entry *Store::fresh(std::string_view name, uint64_t hash) {
  std::size_t i = find(name, hash);
  if (i != kNone) {
    Entry *e = slots_[i].entry;
    if (e->gen != gen_) {
      e->gen = gen_;
      e->key = Known::Nothing;
      e->kids_known = false;
      e->value.clear();
      e->kids.clear();
    }
    e->marked = true;
    return e;
  }
  if (2 * (count_ + 1) > slots_.size())
    grow();
  Entry *e = Entry::make(name);
  e->gen = gen_;
  e->marked = true;
  const std::size_t mask = slots_.size() - 1;
  for (i = hash & mask; slots_[i].entry != nullptr; i = (i + 1) & mask) {
  }
  slots_[i] = Slot{hash, e};
  ++count_;
  return e;
}

// The clock: the hand takes unmarked (and outdated) entries and unmarks the
// others, until the store is within its bound. The entry just put goes
// last, and only when it alone is over the bound.
void Store::trim(const Entry *kept) noexcept {
  while (bytes_ > limit_ && count_ > 0) {
    hand_ &= slots_.size() - 1;
    Entry *e = slots_[hand_].entry;
    if (e == nullptr || (e == kept && count_ > 1)) {
      ++hand_;
      continue;
    }
    if (e->marked && e->gen == gen_ && e != kept) {
      e->marked = false;
      ++hand_;
      continue;
    }
    erase_at(hand_); // the slot may now hold a moved entry: look again
    ++evictions_;
  }
}

Store::Known Store::find_key(std::string_view name, KeyData &out, uint64_t &ticket) {
  const uint64_t hash = hash_of(name);
  std::lock_guard lock(mu_);
  ticket = seq_;
  std::size_t i = find(name, hash);
  Entry *e = i == kNone ? nullptr : slots_[i].entry;
  if (e == nullptr || e->gen != gen_ || e->key == Known::Nothing) {
    ++misses_;
    return Known::Nothing;
  }
  ++hits_;
  e->marked = true;
  if (e->key == Known::Present) {
    out.id = e->id;
    out.has_value = e->has_value;
    out.type = e->type;
    out.value.assign(e->value);
  }
  return e->key;
}

bool Store::find_kids(std::string_view name, std::vector<std::string> &out, uint64_t &ticket) {
  const uint64_t hash = hash_of(name);
  std::lock_guard lock(mu_);
  ticket = seq_;
  std::size_t i = find(name, hash);
  Entry *e = i == kNone ? nullptr : slots_[i].entry;
  if (e == nullptr || e->gen != gen_ || !e->kids_known) {
    ++misses_;
    return false;
  }
  ++hits_;
  e->marked = true;
  out = e->kids;
  return true;
}

void Store::put_key(uint64_t ticket, std::string_view name, const KeyData *data) {
  const uint64_t hash = hash_of(name);
  std::lock_guard lock(mu_);
  if (ticket != seq_)
    return; // a change was reported meanwhile: the answer may predate it
  Entry *e = fresh(name, hash);
  if (data != nullptr) {
    e->value.assign(data->value);
    e->id = data->id;
    e->has_value = data->has_value;
    e->type = data->type;
    e->key = Known::Present;
  } else {
    e->value.clear();
    e->key = Known::Absent;
  }
  recost(*e);
  trim(e);
}

void Store::put_kids(uint64_t ticket, std::string_view name, const std::vector<std::string> &kids) {
  const uint64_t hash = hash_of(name);
  std::lock_guard lock(mu_);
  if (ticket != seq_)
    return;
  Entry *e = fresh(name, hash);
  e->kids = kids;
  e->kids_known = true;
  recost(*e);
  trim(e);
}

void Store::changed(std::string_view key) {
  const uint64_t hash = hash_of(key);
  std::lock_guard lock(mu_);
  ++seq_;
  if (std::size_t i = find(key, hash); i != kNone)
    erase_at(i);
}

// Everything is void at once; the entries' memory goes as they are put
// again or taken by the clock, so that this costs the same whatever the
// size.
void Store::changed_all() {
  std::lock_guard lock(mu_);
  ++seq_;
  ++gen_;
}

hvsadm_cache_info Store::stats() const {
  std::lock_guard lock(mu_);
  hvsadm_cache_info s{};
  s.entries = count_;
  s.bytes = bytes_;
  s.limit = limit_;
  s.hits = hits_;
  s.misses = misses_;
  s.evictions = evictions_;
  return s;
}

// --- the engine in front ---

namespace {

// The mark (holds_table.h) of the latest write that returned in this
// process, through any handle.
std::atomic<uint64_t> g_last_write{0};

void publish_write(uint64_t mark) {
  uint64_t seen = g_last_write.load(std::memory_order_relaxed);
  while (seen < mark && !g_last_write.compare_exchange_weak(seen, mark, std::memory_order_release,
                                                            std::memory_order_relaxed)) {
  }
}

// The engine's calls go through; open_key() and children() are answered
// from the store when the engine says it is current.
//
// Order of a read, and why a cached answer is never older than it may be:
//  1. engine current(): it reports every change committed before this call
//     (SQLite: the WAL-index header moved; ZooKeeper: the notifications
//     delivered so far; memory: the store's version moved);
//  2. catch_up() when this thread took a lock, or a write returned in this
//     process, since the engine last caught up: the engine then reports
//     every write completed anywhere before, including those made by the
//     lock's last holder (ZooKeeper: hvs/backend.h, zk_backend.cpp);
//  3. the store answers, or gives a ticket; the engine's answer goes in only
//     if no change was reported since the ticket, so an answer read before
//     a change that was reported during the read never stays.
// A write through this handle drops what it touches itself, so that the
// next read here needs no report from the engine.
class Cached final : public Backend {
public:
  Cached(std::unique_ptr<Backend> engine, std::string location, std::size_t limit, bool caching)
      : store_(limit), engine_(std::move(engine)), loc_(std::move(location)) {
    caching_ = caching && engine_->follow(&store_);
  }
  // The engine goes first (members in reverse order): it reports to the
  // store until it is closed.
  ~Cached() override = default;
  Cached(const Cached &) = delete;
  Cached &operator=(const Cached &) = delete;

  bool stats(hvsadm_cache_info &out) const {
    if (!caching_)
      return false;
    out = store_.stats();
    return true;
  }

  Status open_key(std::string_view name, KeyData &out) override {
    uint64_t ticket = 0;
    const bool usable = ready();
    if (usable) {
      switch (store_.find_key(name, out, ticket)) {
      case Store::Known::Present:
        out.path.assign(name);
        return {};
      case Store::Known::Absent:
        return Status::failure(HVS_ERR_NO_KEY,
                               loc_ + ": key " + std::string(name) + " does not exist");
      case Store::Known::Nothing:
        break;
      }
    }
    Status st = engine_->open_key(name, out);
    out.path.assign(name); // set_value() and children() find the entry by it
    if (usable && (st.ok() || st.code == HVS_ERR_NO_KEY)) {
      try {
        store_.put_key(ticket, name, st.ok() ? &out : nullptr);
      } catch (const std::bad_alloc &) {
        // not kept: the answer stands
      }
    }
    return st;
  }

  Status children(const KeyData &key, std::vector<std::string> &out) override {
    uint64_t ticket = 0;
    const bool usable = ready();
    if (usable && store_.find_kids(key.path, out, ticket))
      return {};
    Status st = engine_->children(key, out);
    if (usable && st.ok()) {
      try {
        store_.put_kids(ticket, key.path, out);
      } catch (const std::bad_alloc &) {
      }
    }
    return st;
  }

  Status set_value(const KeyData &key, uint32_t type, std::string_view bytes) override {
    Status st = engine_->set_value(key, type, bytes);
    wrote(key.path);
    return st;
  }

  Status set_value_fenced(const KeyData &key, uint32_t type, std::string_view bytes,
                          std::string_view fence) override {
    Status st = engine_->set_value_fenced(key, type, bytes, fence);
    wrote(key.path);
    return st;
  }

  Status create_key(std::string_view name, bool has_value, uint32_t type,
                    std::string_view bytes) override {
    Status st = engine_->create_key(name, has_value, type, bytes);
    if (caching_)
      store_.changed(parent_of(name)); // its subkey list
    wrote(name);
    return st;
  }

  Status put_value(std::string_view name, bool has_value, uint32_t type,
                   std::string_view bytes) override {
    Status st = engine_->put_value(name, has_value, type, bytes);
    wrote(name);
    return st;
  }

  Status delete_key(std::string_view name, bool recursive) override {
    Status st = engine_->delete_key(name, recursive);
    wrote_all();
    return st;
  }

  // While a transaction is open on this handle, its reads go to the engine,
  // which alone sees the transaction's pending writes.
  Status begin() override {
    Status st = engine_->begin();
    if (st.ok())
      in_tx_ = true;
    return st;
  }
  Status commit() override {
    Status st = engine_->commit();
    in_tx_ = false;
    wrote_all();
    return st;
  }
  Status rollback() override {
    Status st = engine_->rollback();
    in_tx_ = false;
    wrote_all();
    return st;
  }

  // A walk reads everything once: straight from the engine, kept nowhere.
  Status walk(std::string_view name, std::vector<WalkEntry> &out) override {
    return engine_->walk(name, out);
  }
  Status get_property(std::string_view name, std::string &out) override {
    return engine_->get_property(name, out);
  }
  Status set_property(std::string_view name, std::string_view value) override {
    return engine_->set_property(name, value);
  }
  bool batches_under_lock() const noexcept override { return engine_->batches_under_lock(); }

private:
  bool ready() {
    if (!caching_ || in_tx_ || !engine_->current())
      return false;
    const uint64_t need =
        std::max(holds::thread_mark(), g_last_write.load(std::memory_order_acquire));
    if (need > synced_) {
      const uint64_t now = holds::last_mark();
      if (!engine_->catch_up())
        return false;
      synced_ = now;
    }
    return true;
  }

  // After a write through this handle, whether it landed or not.
  void wrote(std::string_view key) {
    if (caching_) {
      if (key.empty())
        store_.changed_all();
      else
        store_.changed(key);
    }
    counted();
  }
  void wrote_all() {
    if (caching_)
      store_.changed_all();
    counted();
  }
  // The other handles of the process catch up with this write before they
  // answer from memory again. This one needs not: its engine orders its own
  // reads after its own writes, and it dropped what the write touched. So
  // when every earlier mark was caught up with, so is this one.
  void counted() {
    const uint64_t mark = holds::next_mark();
    publish_write(mark);
    if (mark - 1 <= synced_)
      synced_ = mark;
  }

  // Declared before the engine, so that it outlives the engine's reports.
  Store store_;
  std::unique_ptr<Backend> engine_;
  std::string loc_;
  bool caching_ = false;
  bool in_tx_ = false;
  uint64_t synced_ = 0; // the mark the engine last caught up with
};

} // namespace

std::unique_ptr<Backend> wrap(std::unique_ptr<Backend> engine, const std::string &location,
                              bool caching) {
  const Settings s = Settings::from_env();
  if (!s.on || engine == nullptr)
    return engine;
  return std::make_unique<Cached>(std::move(engine), location, s.limit, caching);
}

bool stats_of(Backend &backend, hvsadm_cache_info &out) {
  auto *c = dynamic_cast<Cached *>(&backend);
  return c != nullptr && c->stats(out);
}

} // namespace hvs::cache
