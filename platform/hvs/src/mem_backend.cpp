// The in-memory engine: mem:NAME. One store per name per process, shared by
// every handle opened on that name, alive until the process ends. Meant for
// tests: a transaction is a copy of the store taken at begin and put back at
// rollback, so other handles see uncommitted writes.
#include <atomic>
#include <map>
#include <mutex>
#include <optional>

#include "hvs/backend.h"
#include "node_tree.h"

namespace hvs {
namespace {

struct Store {
  std::mutex mu;
  Nodes nodes{{std::string(), Node{}}}; // the root
  std::map<std::string, std::string, std::less<>> properties;
  // Moves with every change of the keys, after it, under mu.
  std::atomic<uint64_t> version{0};
};

std::mutex g_stores_mu;
std::map<std::string, std::shared_ptr<Store>> &stores() {
  static auto *all = new std::map<std::string, std::shared_ptr<Store>>();
  return *all;
}

class MemBackend final : public Backend {
public:
  MemBackend(std::shared_ptr<Store> store, std::string loc)
      : store_(std::move(store)), loc_(std::move(loc)) {}

  Status open_key(std::string_view name, KeyData &out) override {
    std::lock_guard lock(store_->mu);
    return open_node(store_->nodes, loc_, name, out);
  }

  Status get_property(std::string_view name, std::string &out) override {
    std::lock_guard lock(store_->mu);
    auto it = store_->properties.find(name);
    if (it == store_->properties.end())
      return Status::failure(HVS_ERR_NO_KEY,
                             loc_ + ": registry property " + std::string(name) + " is not set");
    out = it->second;
    return {};
  }

  Status set_property(std::string_view name, std::string_view value) override {
    std::lock_guard lock(store_->mu);
    store_->properties[std::string(name)] = std::string(value);
    return {};
  }

  Status set_value(const KeyData &key, uint32_t type,
                   std::string_view bytes) override {
    if (key.path.empty())
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": the root holds no value");
    return put_value(key.path, true, type, bytes);
  }

  Status children(const KeyData &key,
                  std::vector<std::string> &out) override {
    std::lock_guard lock(store_->mu);
    return node_children(store_->nodes, loc_, key.path, out);
  }

  Status create_key(std::string_view name, bool has_value, uint32_t type,
                    std::string_view bytes) override {
    std::lock_guard lock(store_->mu);
    auto &nodes = store_->nodes;
    if (nodes.find(name) != nodes.end())
      return Status::failure(HVS_ERR_EXISTS, loc_ + ": key " +
                                                 std::string(name) +
                                                 " exists already");
    auto parent = nodes.find(parent_of(name));
    if (parent == nodes.end())
      return Status::failure(HVS_ERR_NO_KEY,
                             loc_ + ": parent " +
                                 std::string(parent_of(name)) + " of " +
                                 std::string(name) + " does not exist");
    parent->second.kids.emplace(last_component(name));
    Node n;
    n.has_value = has_value;
    n.type = has_value ? type : HVS_TYPE_BINARY;
    if (has_value)
      n.value.assign(bytes);
    nodes.emplace(std::string(name), std::move(n));
    store_->version.fetch_add(1, std::memory_order_release);
    return {};
  }

  Status put_value(std::string_view name, bool has_value, uint32_t type,
                   std::string_view bytes) override {
    std::lock_guard lock(store_->mu);
    auto it = store_->nodes.find(name);
    if (it == store_->nodes.end() || name.empty())
      return no_such_key(loc_, name);
    it->second.has_value = has_value;
    it->second.type = has_value ? type : HVS_TYPE_BINARY;
    it->second.value.assign(has_value ? bytes : std::string_view{});
    store_->version.fetch_add(1, std::memory_order_release);
    return {};
  }

  Status delete_key(std::string_view name, bool recursive) override {
    std::lock_guard lock(store_->mu);
    auto &nodes = store_->nodes;
    auto it = nodes.find(name);
    if (it == nodes.end())
      return no_such_key(loc_, name);
    if (!it->second.kids.empty() && !recursive)
      return Status::failure(HVS_ERR_NOT_EMPTY, loc_ + ": key " +
                                                    std::string(name) +
                                                    " has subkeys");
    store_->version.fetch_add(1, std::memory_order_release);
    if (name.empty()) { // empty the registry
      nodes.clear();
      nodes.emplace(std::string(), Node{});
      return {};
    }
    erase_subtree(std::string(name));
    nodes.find(parent_of(name))->second.kids.erase(
        std::string(last_component(name)));
    return {};
  }

  Status begin() override {
    if (saved_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": a transaction is open already");
    std::lock_guard lock(store_->mu);
    saved_ = store_->nodes;
    return {};
  }

  Status commit() override {
    if (!saved_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": commit without a transaction");
    saved_.reset();
    return {};
  }

  Status rollback() override {
    if (!saved_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": rollback without a transaction");
    std::lock_guard lock(store_->mu);
    store_->nodes = std::move(*saved_);
    store_->version.fetch_add(1, std::memory_order_release);
    saved_.reset();
    return {};
  }

  // The store's version tells of every change, by any handle.
  bool follow(ChangeSink *sink) override {
    sink_ = sink;
    return true;
  }
  bool current() override {
    uint64_t v = store_->version.load(std::memory_order_acquire);
    if (v != seen_) {
      sink_->changed_all();
      seen_ = v;
    }
    return true;
  }

private:

  void erase_subtree(const std::string &name) {
    auto it = store_->nodes.find(name);
    for (const auto &kid : it->second.kids)
      erase_subtree(name + "." + kid);
    store_->nodes.erase(name);
  }

  std::shared_ptr<Store> store_;
  std::string loc_;
  std::optional<Nodes> saved_;
  ChangeSink *sink_ = nullptr;
  uint64_t seen_ = ~uint64_t{0};
};

} // namespace

std::unique_ptr<Backend> open_memory(const Location &loc, bool create,
                                     Status &st) {
  std::lock_guard lock(g_stores_mu);
  auto &all = stores();
  auto it = all.find(loc.path);
  if (it == all.end()) {
    if (!create) {
      st = Status::failure(HVS_ERR_UNREACHABLE,
                           loc.text + ": no such in-memory registry in "
                                      "this process (create it first)");
      return nullptr;
    }
    it = all.emplace(loc.path, std::make_shared<Store>()).first;
  }
  return std::make_unique<MemBackend>(it->second, loc.text);
}

} // namespace hvs
