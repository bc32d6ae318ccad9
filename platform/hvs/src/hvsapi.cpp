// The client layer: handles, key handles, argument checks, the per-thread
// last error, and the serialisation of calls on one handle. Everything that
// stores keys is behind hvs::Backend.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "cache.h"
#include "holds_table.h"
#include "hvs/backend.h"
#include "hvsadm.h"

namespace {

using hvs::Backend;
using hvs::KeyData;
using hvs::Status;

constexpr uint64_t kHandleMagic = 0x48565348414e444cULL; // "HVSHANDL"
constexpr uint64_t kKeyMagic = 0x4856534b45594844ULL;    // "HVSKEYHD"

// How long a write waits for another thread's transaction on its handle:
// as long as the embedded engine waits for another connection's.
constexpr std::chrono::seconds kTransactionWait{10};

// What a handle's calls run on. The commit that an exclusive hold runs when
// it ends (hvs/holds.h) keeps a weak reference, so it finds the core gone
// when the handle was terminated first.
//
// Lock order: mu before the holds table's mutex. The table never calls back
// with its mutex held (hvs_hold_leave runs the deferred commits after
// letting it go), so the commit may take mu.
struct Core {
  std::mutex mu;
  std::unique_ptr<Backend> backend; // guarded by mu, as is all below
  // The transaction of the exclusive holds of one thread, open on the
  // backend until the first of them ends. That thread's writes join it;
  // another thread's write waits for its end. Reads and admin calls of any
  // thread run inside it.
  bool held_tx = false;
  std::thread::id tx_thread;
  uint64_t tx_number = 0;
  std::vector<const hvs::holds::Hold *> tx_holds; // those that will commit it
  std::condition_variable tx_over;
};

struct Handle {
  uint64_t magic = kHandleMagic;
  uint64_t serial = 0;
  std::shared_ptr<Core> core;
  std::string location;
};

struct Key {
  uint64_t magic = kKeyMagic;
  Handle *owner = nullptr;
  KeyData data;
  bool listed = false; // children snapshot taken
  std::vector<std::string> kids;
  size_t next = 0;
};

std::atomic<uint64_t> g_serial{0};

// A closed key object kept by its thread for the next open, with the
// capacity of its buffers: a point read then allocates nothing here.
thread_local std::unique_ptr<Key> t_spare_key;

Key *take_key(Handle *h) {
  Key *k = t_spare_key.release();
  if (k == nullptr) {
    k = new (std::nothrow) Key;
    if (k == nullptr)
      return nullptr;
  } else {
    k->data.id = 0;
    k->data.path.clear();
    k->data.has_value = false;
    k->data.type = HVS_TYPE_BINARY;
    k->data.value.clear();
    k->listed = false;
    k->kids.clear();
    k->next = 0;
  }
  k->magic = kKeyMagic;
  k->owner = h;
  return k;
}

void give_key(Key *k) {
  k->magic = 0;
  k->owner = nullptr;
  if (t_spare_key == nullptr && k->data.value.capacity() <= 4096)
    t_spare_key.reset(k);
  else
    delete k;
}

struct LastError {
  int32_t code = HVS_OK;
  std::string message;
};

// Errors of calls made without a valid handle are kept under serial 0.
thread_local std::unordered_map<uint64_t, LastError> t_errors;

int32_t record(uint64_t serial, int32_t code, std::string message) {
  auto &e = t_errors[serial];
  e.code = code;
  e.message = std::move(message);
  return code;
}

int32_t record(Handle *h, const Status &st) {
  return record(h->serial, st.code, st.message);
}

// Copies text into buf (capacity cap), NUL-terminated and cut to fit.
// Returns the bytes written, the NUL included.
size_t copy_text(char *buf, uint64_t cap, const std::string &text) {
  if (buf == nullptr || cap == 0)
    return 0;
  size_t n = text.size() < cap - 1 ? text.size() : size_t(cap - 1);
  std::memcpy(buf, text.data(), n);
  buf[n] = '\0';
  return n + 1;
}

Handle *as_handle(void *p) {
  auto *h = static_cast<Handle *>(p);
  return (h != nullptr && h->magic == kHandleMagic) ? h : nullptr;
}

int32_t bad_handle(const char *op) {
  return record(0, HVS_ERR_ARGUMENT,
                std::string(op) + ": NULL or invalid registry handle");
}

int32_t bad_arg(Handle *h, const char *op, const char *what) {
  return record(h->serial, HVS_ERR_ARGUMENT,
                h->location + ": " + op + ": " + what);
}

// Checks key against handle h; nullptr when it is not a key of h.
Key *as_key(Handle *h, void *p) {
  auto *k = static_cast<Key *>(p);
  return (k != nullptr && k->magic == kKeyMagic && k->owner == h) ? k
                                                                  : nullptr;
}

int32_t open_handle(void **handle_out, bool create, bool client, char *msg,
                    uint64_t *msg_len) {
  auto report = [&](const std::string &text) {
    if (msg_len != nullptr)
      *msg_len = copy_text(msg, *msg_len, text);
  };
  if (handle_out == nullptr) {
    report("registry open: NULL handle pointer");
    return record(0, HVS_ERR_ARGUMENT, "registry open: NULL handle pointer");
  }
  *handle_out = nullptr;
  hvs::Location loc = hvs::resolve_location();
  Status st;
  std::unique_ptr<Backend> backend;
  try {
    backend = hvs::open_backend(loc, create, st);
    // Client handles answer from memory what they may (cache.h).
    if (backend != nullptr)
      backend = hvs::cache::wrap(std::move(backend), loc.text, client);
  } catch (const std::bad_alloc &) {
    st = Status::failure(HVS_ERR_MEMORY, loc.text + ": out of memory");
  } catch (const std::exception &e) {
    st = Status::failure(HVS_ERR_ENGINE, loc.text + ": " + e.what());
  }
  if (backend == nullptr) {
    if (st.ok())
      st = Status::failure(HVS_ERR_ENGINE, loc.text + ": cannot open");
    report(st.message);
    return record(0, st.code, st.message);
  }
  auto *h = new (std::nothrow) Handle;
  try {
    if (h != nullptr)
      h->core = std::make_shared<Core>();
  } catch (const std::bad_alloc &) {
  }
  if (h == nullptr || h->core == nullptr) {
    delete h;
    report(loc.text + ": out of memory");
    return record(0, HVS_ERR_MEMORY, loc.text + ": out of memory");
  }
  h->serial = ++g_serial;
  h->core->backend = std::move(backend);
  h->location = loc.text;
  *handle_out = h;
  if (msg_len != nullptr)
    *msg_len = copy_text(msg, *msg_len, std::string());
  return HVS_OK;
}

// Runs an engine call under the handle's lock; turns exceptions (out of
// memory in the client layer, mostly) into codes.
template <class F> int32_t guarded(Handle *h, F &&f) {
  try {
    std::lock_guard lock(h->core->mu);
    Status st = f(*h->core->backend);
    return st.ok() ? HVS_OK : record(h, st);
  } catch (const std::bad_alloc &) {
    return record(h->serial, HVS_ERR_MEMORY, h->location + ": out of memory");
  } catch (const std::exception &e) {
    return record(h->serial, HVS_ERR_ENGINE, h->location + ": " + e.what());
  }
}

// Ends the held transaction of core (mu held); nothing when number names
// one that has ended already.
Status end_held_tx(Core &core, uint64_t number) {
  if (!core.held_tx || core.tx_number != number)
    return {};
  core.held_tx = false;
  core.tx_holds.clear();
  core.tx_over.notify_all();
  return core.backend->commit();
}

// What an exclusive hold runs when it ends: the commit of the transaction
// its writes joined, unless the handle ended it first.
Status commit_at_leave(const std::weak_ptr<Core> &weak, uint64_t number) noexcept {
  try {
    std::shared_ptr<Core> core = weak.lock();
    if (core == nullptr)
      return {}; // terminated: committed then
    std::lock_guard lock(core->mu);
    return end_held_tx(*core, number);
  } catch (...) { // the message alone could not be had
    return Status{HVS_ERR_MEMORY, {}};
  }
}

// Makes a write of this thread under hold part of the hold's transaction
// (core's mu held). The first such write begins it, and each exclusive hold
// that writes into it commits it when it ends, whichever ends first.
Status join_held_tx(const std::shared_ptr<Core> &core,
                    const std::shared_ptr<hvs::holds::Hold> &hold) {
  if (!core->held_tx) {
    Status st = core->backend->begin();
    if (st.code == HVS_ERR_ARGUMENT)
      return {}; // the caller's own transaction (hvsadm_begin): the write goes into it
    if (!st.ok())
      return st;
    core->held_tx = true;
    core->tx_thread = std::this_thread::get_id();
    ++core->tx_number;
  }
  for (const auto *h : core->tx_holds)
    if (h == hold.get())
      return {};
  std::weak_ptr<Core> weak = core;
  const uint64_t number = core->tx_number;
  bool deferred = false;
  try {
    deferred = hvs::holds::defer(hold, [weak, number] { return commit_at_leave(weak, number); });
  } catch (...) {
    end_held_tx(*core, number); // no hold would end it
    throw;
  }
  if (!deferred) // the hold ended meanwhile: nothing to wait for
    return end_held_tx(*core, number);
  core->tx_holds.push_back(hold.get()); // on failure the hold's end still commits
  return {};
}

// Admin calls take a checked key name.
int32_t check_name(Handle *h, const char *op, const char *name) {
  if (name == nullptr)
    return bad_arg(h, op, "NULL key name");
  if (const char *why = hvs::key_name_problem(name))
    return record(h->serial, HVS_ERR_ARGUMENT,
                  h->location + ": " + op + ": key \"" + name + "\": " + why);
  return HVS_OK;
}

// Values ending in a NUL are stored as text.
uint32_t type_of(const void *bytes, uint32_t len) {
  return len > 0 && static_cast<const char *>(bytes)[len - 1] == '\0'
             ? HVS_TYPE_TEXT
             : HVS_TYPE_BINARY;
}

} // namespace

extern "C" {

int32_t hvsapi_init_ext(void **handle_out, int32_t /*mode*/, char *msg,
                        uint64_t *msg_len, int32_t /*flags*/) {
  return open_handle(handle_out, false, true, msg, msg_len);
}

int32_t hvsapi_terminate(void *handle) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_terminate");
  t_errors.erase(h->serial);
  Status st;
  {
    std::lock_guard lock(h->core->mu);
    h->magic = 0;
    // Writes made under a lock still held are committed now: after this
    // the lock's end finds nothing to commit.
    st = end_held_tx(*h->core, h->core->tx_number);
    h->core->backend.reset();
  }
  std::string location = std::move(h->location);
  delete h;
  if (!st.ok())
    return record(0, st.code,
                  location + ": hvsapi_terminate: the writes made under a lock were not "
                             "committed: " + st.message);
  return HVS_OK;
}

int32_t hvsapi_open_key(void *handle, void **key_out, const char *name) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_open_key");
  if (key_out == nullptr)
    return bad_arg(h, "hvsapi_open_key", "NULL key pointer");
  *key_out = nullptr;
  if (name == nullptr)
    return bad_arg(h, "hvsapi_open_key", "NULL key name");
  std::string_view sv(name);
  if (!sv.empty()) { // "" opens the root
    if (const char *why = hvs::key_name_problem(sv))
      return record(h->serial, HVS_ERR_ARGUMENT,
                    h->location + ": hvsapi_open_key: key \"" + name +
                        "\": " + why);
  }
  Key *k = take_key(h);
  if (k == nullptr)
    return record(h->serial, HVS_ERR_MEMORY, h->location + ": out of memory");
  int32_t rc =
      guarded(h, [&](Backend &b) { return b.open_key(sv, k->data); });
  if (rc != HVS_OK) {
    give_key(k);
    return rc;
  }
  *key_out = k;
  return HVS_OK;
}

int32_t hvsapi_close_key(void *handle, void *key) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_close_key");
  Key *k = as_key(h, key);
  if (k == nullptr)
    return bad_arg(h, "hvsapi_close_key", "NULL or invalid key handle");
  give_key(k);
  return HVS_OK;
}

int32_t hvsapi_get_value(void *handle, void *key, uint32_t *type, void *buf,
                         uint32_t *len) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_get_value");
  Key *k = as_key(h, key);
  if (k == nullptr)
    return bad_arg(h, "hvsapi_get_value", "NULL or invalid key handle");
  if (type == nullptr || len == nullptr || (buf == nullptr && *len != 0))
    return bad_arg(h, "hvsapi_get_value", "NULL output pointer");
  const std::string &v = k->data.value;
  if (v.size() > UINT32_MAX)
    return record(h->serial, HVS_ERR_TOO_LARGE,
                  h->location + ": value of more than 4 GiB");
  if (v.size() > *len) {
    uint32_t cap = *len;
    *len = uint32_t(v.size());
    return record(h->serial, HVS_ERR_SMALL_BUFFER,
                  h->location + ": value of " + std::to_string(v.size()) +
                      " bytes does not fit a buffer of " +
                      std::to_string(cap));
  }
  if (!v.empty())
    std::memcpy(buf, v.data(), v.size());
  *len = uint32_t(v.size());
  *type = k->data.type;
  return HVS_OK;
}

int32_t hvsapi_set_value(void *handle, void *key, uint32_t type,
                         const void *bytes, uint32_t len) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_set_value");
  Key *k = as_key(h, key);
  if (k == nullptr)
    return bad_arg(h, "hvsapi_set_value", "NULL or invalid key handle");
  if (bytes == nullptr && len != 0)
    return bad_arg(h, "hvsapi_set_value", "NULL value");
  std::string_view v(static_cast<const char *>(bytes), bytes ? len : 0);
  // A write under a lock is tied to the lock (hvs/holds.h).
  std::shared_ptr<hvs::holds::Hold> hold;
  try {
    hold = hvs::holds::covering(k->data.path);
  } catch (const std::bad_alloc &) {
    return record(h->serial, HVS_ERR_MEMORY, h->location + ": out of memory");
  }
  if (hold && hold->lost)
    return record(h->serial, HVS_ERR_LOCK_LOST,
                  h->location + ": write of key " + k->data.path + " refused: lock " +
                      hold->lock +
                      " was lost (its session with the lock service ended); nothing was written");
  std::shared_ptr<Core> core = h->core;
  try {
    std::unique_lock lock(core->mu);
    if (core->held_tx && core->tx_thread != std::this_thread::get_id() &&
        !core->tx_over.wait_for(lock, kTransactionWait, [&] { return !core->held_tx; }))
      return record(h->serial, HVS_ERR_ENGINE,
                    h->location + ": write of key " + k->data.path +
                        " refused: another thread's writes under a lock kept the handle for " +
                        std::to_string(kTransactionWait.count()) + " s");
    Backend &b = *core->backend;
    Status st;
    if (hold && hold->exclusive && b.batches_under_lock())
      st = join_held_tx(core, hold);
    if (st.ok())
      st = hold ? b.set_value_fenced(k->data, type, v, hold->fence)
                : b.set_value(k->data, type, v);
    if (!st.ok())
      return record(h, st);
    k->data.value.assign(v);
    k->data.has_value = true;
    k->data.type = type;
    return HVS_OK;
  } catch (const std::bad_alloc &) {
    return record(h->serial, HVS_ERR_MEMORY, h->location + ": out of memory");
  } catch (const std::exception &e) {
    return record(h->serial, HVS_ERR_ENGINE, h->location + ": " + e.what());
  }
}

int32_t hvsapi_enum_subkey(void *handle, void *key, char *name, uint32_t *len,
                           int32_t *remaining) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsapi_enum_subkey");
  Key *k = as_key(h, key);
  if (k == nullptr)
    return bad_arg(h, "hvsapi_enum_subkey", "NULL or invalid key handle");
  if (name == nullptr || len == nullptr || remaining == nullptr)
    return bad_arg(h, "hvsapi_enum_subkey", "NULL output pointer");
  bool first = !k->listed;
  if (first) {
    int32_t rc =
        guarded(h, [&](Backend &b) { return b.children(k->data, k->kids); });
    if (rc != HVS_OK)
      return rc;
    k->listed = true;
    k->next = 0;
  }
  if (k->next >= k->kids.size()) {
    *remaining = first ? -1 : 0;
    return record(h->serial, HVS_ERR_NO_MORE,
                  h->location + ": no more subkeys");
  }
  const std::string &c = k->kids[k->next];
  int32_t left = int32_t(k->kids.size() - k->next - 1);
  if (c.size() + 1 > *len) {
    uint32_t cap = *len;
    *len = uint32_t(c.size() + 1);
    *remaining = left;
    return record(h->serial, HVS_ERR_SMALL_BUFFER,
                  h->location + ": subkey name of " +
                      std::to_string(c.size()) +
                      " bytes does not fit a buffer of " +
                      std::to_string(cap));
  }
  std::memcpy(name, c.data(), c.size());
  name[c.size()] = '\0';
  *len = uint32_t(c.size());
  *remaining = left;
  ++k->next;
  return HVS_OK;
}

int32_t hvsapi_get_last_error(void *handle, uint32_t *code, char *msg,
                              uint32_t *len) {
  Handle *h = as_handle(handle);
  uint64_t serial = h ? h->serial : 0;
  LastError e;
  auto it = t_errors.find(serial);
  if (it != t_errors.end())
    e = it->second;
  if (code != nullptr)
    *code = uint32_t(e.code);
  if (len != nullptr)
    *len = uint32_t(copy_text(msg, *len, e.message));
  if (h == nullptr)
    return HVS_ERR_ARGUMENT;
  return (code == nullptr && msg == nullptr) ? HVS_ERR_ARGUMENT : HVS_OK;
}

const char *hvsapi_location(void *handle) {
  Handle *h = as_handle(handle);
  return h ? h->location.c_str() : "";
}

int32_t hvsadm_open(void **handle_out, int create, char *msg,
                    uint64_t *msg_len) {
  return open_handle(handle_out, create != 0, false, msg, msg_len);
}

int32_t hvsadm_create_key(void *handle, const char *name, int has_value,
                          const void *bytes, uint32_t len) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_create_key");
  if (int32_t rc = check_name(h, "hvsadm_create_key", name))
    return rc;
  if (has_value && bytes == nullptr && len != 0)
    return bad_arg(h, "hvsadm_create_key", "NULL value");
  std::string_view v(static_cast<const char *>(bytes),
                     has_value && bytes ? len : 0);
  return guarded(h, [&](Backend &b) {
    return b.create_key(name, has_value != 0, type_of(bytes, len), v);
  });
}

int32_t hvsadm_put_value(void *handle, const char *name, int has_value,
                         const void *bytes, uint32_t len) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_put_value");
  if (int32_t rc = check_name(h, "hvsadm_put_value", name))
    return rc;
  if (has_value && bytes == nullptr && len != 0)
    return bad_arg(h, "hvsadm_put_value", "NULL value");
  std::string_view v(static_cast<const char *>(bytes),
                     has_value && bytes ? len : 0);
  return guarded(h, [&](Backend &b) {
    return b.put_value(name, has_value != 0, type_of(bytes, len), v);
  });
}

int32_t hvsadm_delete_key(void *handle, const char *name, int recursive) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_delete_key");
  if (name == nullptr)
    return bad_arg(h, "hvsadm_delete_key", "NULL key name");
  if (*name != '\0') // "" with recursive empties the registry
    if (int32_t rc = check_name(h, "hvsadm_delete_key", name))
      return rc;
  return guarded(
      h, [&](Backend &b) { return b.delete_key(name, recursive != 0); });
}

int32_t hvsadm_begin(void *handle) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_begin");
  return guarded(h, [](Backend &b) { return b.begin(); });
}

int32_t hvsadm_commit(void *handle) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_commit");
  return guarded(h, [](Backend &b) { return b.commit(); });
}

int32_t hvsadm_rollback(void *handle) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_rollback");
  return guarded(h, [](Backend &b) { return b.rollback(); });
}

int32_t hvsadm_walk(void *handle, const char *name, hvsadm_walk_fn fn,
                    void *arg) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_walk");
  if (fn == nullptr)
    return bad_arg(h, "hvsadm_walk", "NULL callback");
  std::string_view root = name ? name : "";
  if (!root.empty())
    if (int32_t rc = check_name(h, "hvsadm_walk", name))
      return rc;
  // Collect under the lock, call back without it, so that the callback may
  // use the handle.
  std::vector<hvs::WalkEntry> entries;
  int32_t rc = guarded(h, [&](Backend &b) { return b.walk(root, entries); });
  if (rc != HVS_OK)
    return rc;
  for (const auto &e : entries) {
    const void *value = e.has_value ? e.value.data() : nullptr;
    if (fn(arg, e.name.c_str(), value, uint32_t(e.value.size()),
           e.has_value ? 1 : 0) != 0)
      break;
  }
  return HVS_OK;
}

int32_t hvsadm_get_property(void *handle, const char *name, char *value, uint32_t *len) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_get_property");
  if (name == nullptr || value == nullptr || len == nullptr)
    return bad_arg(h, "hvsadm_get_property", "NULL argument");
  std::string v;
  int32_t rc = guarded(h, [&](Backend &b) { return b.get_property(name, v); });
  if (rc != HVS_OK)
    return rc;
  uint32_t cap = *len;
  *len = uint32_t(v.size() + 1);
  if (v.size() + 1 > cap)
    return record(h->serial, HVS_ERR_SMALL_BUFFER,
                  h->location + ": property " + name + " needs " + std::to_string(*len) +
                      " bytes");
  std::memcpy(value, v.c_str(), v.size() + 1);
  return HVS_OK;
}

int32_t hvsadm_set_property(void *handle, const char *name, const char *value) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_set_property");
  if (name == nullptr || value == nullptr)
    return bad_arg(h, "hvsadm_set_property", "NULL argument");
  return guarded(h, [&](Backend &b) { return b.set_property(name, value); });
}

int32_t hvsadm_cache_stats(void *handle, hvsadm_cache_info *out) {
  Handle *h = as_handle(handle);
  if (h == nullptr)
    return bad_handle("hvsadm_cache_stats");
  if (out == nullptr)
    return bad_arg(h, "hvsadm_cache_stats", "NULL output pointer");
  std::lock_guard lock(h->core->mu);
  if (!hvs::cache::stats_of(*h->core->backend, *out))
    return bad_arg(h, "hvsadm_cache_stats", "this handle keeps no cache");
  return HVS_OK;
}

} // extern "C"
