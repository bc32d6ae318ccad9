// The ZooKeeper engine. Under the location's root (zk://hosts/ROOT):
//
//   ROOT              data "hvs-registry 1": the format marker
//   ROOT/keys         the registry's root key; one znode per key component
//                     below it, each component percent-encoded (zk_session.h)
//   ROOT/locks        the lock service's request nodes (liblks)
//
// A key's value is its znode's data: null data is "no value", 0 bytes an
// empty value. The type is not stored: a value that ends in a NUL reads as
// text, any other as binary, which is what the client layer writes.
//
// Transactions collect their writes and send them at commit as one multi-op
// request, so they land together or not at all. Inside a transaction the
// writes are checked against the stored tree as the transaction sees it
// (its own creations and deletions included), so a create of an existing
// key or under a missing parent fails at once, as on SQLite; reads go to the
// ensemble and do not see the pending writes.
#include "hvs/backend.h"

#ifdef HVS_WITH_ZOOKEEPER

#include <algorithm>
#include <set>

#include "zk_session.h"

namespace hvs {
namespace {

constexpr std::string_view kMarker = "hvs-registry ";
constexpr int kFormatVersion = 1;
// Room for a request's header and path besides a value.
constexpr std::size_t kRequestOverhead = 128;
// Deletions of a large subtree go out in batches of this many znodes.
constexpr std::size_t kDeleteBatch = 1000;

bool within(std::string_view name, std::string_view top) {
  if (top.empty())
    return true;
  return name == top ||
         (name.size() > top.size() && name.starts_with(top) &&
          name[top.size()] == '.');
}

uint32_t type_of(std::string_view v) {
  return !v.empty() && v.back() == '\0' ? HVS_TYPE_TEXT : HVS_TYPE_BINARY;
}

class ZkBackend final : public Backend {
public:
  ZkBackend(const Location &loc, zk::Settings s)
      : loc_(loc.text), root_(loc.root), keys_(loc.root + "/keys"),
        settings_(std::move(s)) {}

  ~ZkBackend() override = default;
  ZkBackend(const ZkBackend &) = delete;
  ZkBackend &operator=(const ZkBackend &) = delete;

  // Connects and checks (or, with create, lays out) the registry's root.
  Status start(bool create) {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    Status st = ensure();
    if (!st.ok())
      return st;
    std::string marker;
    bool null = true;
    int rc = session_->get(root_, marker, null);
    if (rc == ZOK && !null && marker.starts_with(kMarker)) {
      int version = std::atoi(marker.c_str() + kMarker.size());
      if (version > kFormatVersion)
        return Status::failure(HVS_ERR_VERSION,
                               loc_ + ": registry format " +
                                   std::to_string(version) +
                                   " is newer than this client reads (" +
                                   std::to_string(kFormatVersion) + ")");
    } else if (rc != ZOK && rc != ZNONODE) {
      return fail(rc, "cannot read the registry root " + root_);
    }
    std::string ignored;
    rc = session_->get(keys_, ignored, null);
    if (rc == ZOK)
      return {};
    if (rc != ZNONODE)
      return fail(rc, "cannot read the registry root " + keys_);
    if (!create)
      return Status::failure(HVS_ERR_UNREACHABLE,
                             loc_ + ": no registry under " + root_ +
                                 " on the ZooKeeper ensemble " +
                                 settings_.hosts +
                                 " (hvsctl import creates one)");
    if (!foreign_location_allowed())
      if (Status foreign = refuse_foreign(); !foreign.ok())
        return foreign;
    return lay_out();
  }

  // The first znode on the way to ROOT that does not exist ("" when ROOT
  // does).
  Status missing_part(std::string &part) {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (Status st = ensure(); !st.ok())
      return st;
    part.clear();
    for (std::size_t slash = root_.find('/', 1);;
         slash = root_.find('/', slash + 1)) {
      std::string p = root_.substr(0, slash), data;
      bool null = true;
      int rc = session_->get(p, data, null);
      if (rc == ZNONODE) {
        part = p;
        return {};
      }
      if (rc != ZOK)
        return fail(rc, "cannot read " + p);
      if (slash == std::string::npos)
        return {};
    }
  }

  // Deletes path and everything under it, children first.
  Status remove_tree(const std::string &path) {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (Status st = ensure(); !st.ok())
      return st;
    std::vector<std::string> kids;
    int rc = session_->children(path, kids);
    if (rc == ZNONODE)
      return {};
    if (rc != ZOK)
      return fail(rc, "cannot list " + path);
    for (const auto &kid : kids)
      if (Status st = remove_tree(path + "/" + kid); !st.ok())
        return st;
    rc = session_->remove(path);
    if (rc != ZOK && rc != ZNONODE)
      return fail(rc, "cannot remove " + path);
    return {};
  }

  Status open_key(std::string_view name, KeyData &out) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    Status st = ensure();
    if (!st.ok())
      return st;
    std::string data;
    bool null = true;
    const std::string path = path_of(name);
    const zk::Deadline asked = zk::Clock::now();
    int rc = session_->get(path, data, null, sink_ != nullptr);
    if (rc == ZOK || rc == ZNONODE)
      heard_ = asked;
    if (rc == ZNONODE) {
      // A read of a missing node leaves no watch: an existence watch tells
      // of its creation. Created meanwhile, or not known: the answer must
      // not stay in the cache.
      bool exists = false;
      if (sink_ != nullptr && (session_->watch_exists(path, exists) != ZOK || exists))
        sink_->changed(name);
      return no_key(name);
    }
    if (rc != ZOK)
      return fail(rc, "open of key " + std::string(name));
    out.id = 0;
    out.path = std::string(name);
    out.has_value = !name.empty() && !null;
    out.value = out.has_value ? std::move(data) : std::string();
    out.type = type_of(out.value);
    return {};
  }

  // A write under no lock is sent once: after a lost connection nobody can
  // tell whether it landed, and the message says so.
  Status set_value(const KeyData &key, uint32_t, std::string_view bytes) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (Status st = writable(key, bytes); !st.ok())
      return st;
    if (Status st = ensure(); !st.ok())
      return st;
    int rc = session_->set(path_of(key.path), bytes.data() ? bytes.data() : "",
                           int(bytes.size()));
    if (rc == ZNONODE)
      return Status::failure(HVS_ERR_NO_KEY,
                             loc_ + ": the key was deleted meanwhile");
    if (rc == ZCONNECTIONLOSS)
      return fail(rc, "write of key " + key.path +
                          " (sent; whether it landed is unknown)");
    if (rc != ZOK)
      return fail(rc, "write of key " + key.path);
    return {};
  }

  // A write under a lock goes with a check that the lock's request node
  // still exists, in one request: the ensemble applies both or neither, so
  // a write can never land after its lock was lost, whatever the client's
  // timing. After a lost connection it is sent again: the check proves that
  // the lock is still held, and the same value written twice leaves what
  // one write leaves.
  Status set_value_fenced(const KeyData &key, uint32_t type, std::string_view bytes,
                          std::string_view fence) override {
    if (fence.empty())
      return set_value(key, type, bytes);
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (Status st = writable(key, bytes); !st.ok())
      return st;
    const std::string fence_path(fence);
    const std::string path = path_of(key.path);
    zoo_op_t ops[2];
    zoo_op_result_t results[2];
    zoo_check_op_init(&ops[0], fence_path.c_str(), -1);
    zoo_set_op_init(&ops[1], path.c_str(), data_of(bytes), int(bytes.size()), -1,
                    nullptr);
    const zk::Deadline deadline = zk::Budget::current(settings_.timeout());
    int rc = ZOK;
    for (int attempt = 0; attempt < 8; ++attempt) {
      if (Status st = ensure(); !st.ok())
        return st;
      results[0].err = results[1].err = ZOK;
      rc = session_->multi(2, ops, results);
      if (rc == ZOK)
        return {};
      if (rc != ZCONNECTIONLOSS && rc != ZSESSIONEXPIRED && rc != ZINVALIDSTATE)
        break;
      // Healed in time (or a new session): send it again.
      if (rc == ZCONNECTIONLOSS && !session_->wait_connected(deadline) &&
          !session_->expired())
        break;
      if (zk::Clock::now() >= deadline)
        break;
    }
    if (rc == ZNONODE && results[0].err == ZNONODE)
      return Status::failure(
          HVS_ERR_LOCK_LOST,
          loc_ + ": write of key " + key.path +
              " refused: the lock it was made under is no longer held (its request " +
              fence_path + " is gone, its session expired); nothing was written");
    if (rc == ZNONODE && results[1].err == ZNONODE)
      return Status::failure(HVS_ERR_NO_KEY, loc_ + ": the key was deleted meanwhile");
    if (rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT)
      return fail(rc, "write of key " + key.path +
                          " (whether it landed is unknown; it cannot land once the lock "
                          "is released)");
    return fail(rc, "write of key " + key.path);
  }

  Status children(const KeyData &key, std::vector<std::string> &out) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    out.clear();
    if (Status st = ensure(); !st.ok())
      return st;
    std::vector<std::string> nodes;
    int rc = session_->children(path_of(key.path), nodes, sink_ != nullptr);
    if (rc == ZNONODE)
      return no_key(key.path);
    if (rc != ZOK)
      return fail(rc, "listing of subkeys of " + shown(key.path));
    out.reserve(nodes.size());
    for (const auto &n : nodes)
      out.push_back(zk::decode(n));
    // The ensemble lists children in no particular order.
    std::sort(out.begin(), out.end());
    return {};
  }

  Status create_key(std::string_view name, bool has_value, uint32_t,
                    std::string_view bytes) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (has_value)
      if (Status st = fits(name, bytes); !st.ok())
        return st;
    if (Status st = ensure(); !st.ok())
      return st;
    if (in_tx_)
      return tx_create(name, has_value, bytes);
    int rc = session_->create(path_of(name), has_value ? data_of(bytes) : nullptr,
                              has_value ? int(bytes.size()) : -1, 0);
    if (rc == ZNONODE)
      return no_parent(name);
    if (rc == ZNODEEXISTS)
      return exists(name);
    if (rc != ZOK)
      return fail(rc, "creation of key " + std::string(name));
    return {};
  }

  Status put_value(std::string_view name, bool has_value, uint32_t,
                   std::string_view bytes) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (has_value)
      if (Status st = fits(name, bytes); !st.ok())
        return st;
    if (Status st = ensure(); !st.ok())
      return st;
    if (in_tx_)
      return tx_put(name, has_value, bytes);
    int rc = session_->set(path_of(name), has_value ? data_of(bytes) : nullptr,
                           has_value ? int(bytes.size()) : -1);
    if (rc == ZNONODE)
      return no_key(name);
    if (rc != ZOK)
      return fail(rc, "write of key " + std::string(name));
    return {};
  }

  Status delete_key(std::string_view name, bool recursive) override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (name.empty() && !recursive)
      return Status::failure(HVS_ERR_NOT_EMPTY,
                             loc_ + ": the root cannot be deleted");
    if (Status st = ensure(); !st.ok())
      return st;
    if (in_tx_)
      return tx_delete(name, recursive);
    if (!recursive) {
      int rc = session_->remove(path_of(name));
      if (rc == ZNONODE)
        return no_key(name);
      if (rc == ZNOTEMPTY)
        return Status::failure(HVS_ERR_NOT_EMPTY, loc_ + ": key " +
                                                      std::string(name) +
                                                      " has subkeys");
      if (rc != ZOK)
        return fail(rc, "deletion of key " + std::string(name));
      return {};
    }
    std::vector<std::string> doomed;
    Status st = subtree(name, doomed);
    if (!st.ok())
      return st;
    // Children come before their parents, so every batch leaves a tree.
    for (std::size_t at = 0; at < doomed.size(); at += kDeleteBatch) {
      std::size_t n = std::min(kDeleteBatch, doomed.size() - at);
      std::vector<zoo_op_t> ops(n);
      std::vector<zoo_op_result_t> results(n);
      std::vector<std::string> paths(n);
      for (std::size_t i = 0; i < n; ++i) {
        paths[i] = path_of(doomed[at + i]);
        zoo_delete_op_init(&ops[i], paths[i].c_str(), -1);
      }
      int rc = session_->multi(int(n), ops.data(), results.data());
      if (rc != ZOK)
        return fail(rc, "deletion of key " + shown(name));
    }
    return {};
  }

  Status begin() override {
    if (in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": a transaction is open already");
    in_tx_ = true;
    return {};
  }

  Status commit() override {
    zk::Budget budget(zk::Clock::now() + settings_.timeout());
    if (!in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": commit without a transaction");
    std::vector<Op> ops = std::move(tx_);
    clear_tx();
    if (ops.empty())
      return {};
    std::size_t bytes = kRequestOverhead;
    for (const auto &op : ops)
      bytes += op.path.size() + op.bytes.size() + 32;
    if (bytes > settings_.max_packet)
      return Status::failure(
          HVS_ERR_TOO_LARGE,
          loc_ + ": transaction of " + std::to_string(ops.size()) +
              " writes (about " + std::to_string(bytes) +
              " bytes) is over the ZooKeeper packet limit of " +
              std::to_string(settings_.max_packet) +
              " bytes, so it cannot be one multi-op request; nothing was "
              "written. Import the tree in parts (one branch at a time), or "
              "raise jute.maxbuffer on every server and HVS_ZK_MAX_PACKET "
              "here");
    if (Status st = ensure(); !st.ok())
      return st;
    std::vector<zoo_op_t> zops(ops.size());
    std::vector<zoo_op_result_t> results(ops.size());
    for (std::size_t i = 0; i < ops.size(); ++i) {
      Op &op = ops[i];
      const char *data = op.has_value ? data_of(op.bytes) : nullptr;
      int len = op.has_value ? int(op.bytes.size()) : -1;
      switch (op.kind) {
      case Op::Create:
        zoo_create_op_init(&zops[i], op.path.c_str(), data, len,
                           session_->acl(), 0, nullptr, 0);
        break;
      case Op::Set:
        zoo_set_op_init(&zops[i], op.path.c_str(), data, len, -1, nullptr);
        break;
      case Op::Delete:
        zoo_delete_op_init(&zops[i], op.path.c_str(), -1);
        break;
      }
    }
    int rc = session_->multi(int(zops.size()), zops.data(), results.data());
    if (rc == ZOK)
      return {};
    if (zk::connection_problem(rc))
      return fail(rc, "commit of " + std::to_string(ops.size()) +
                          " writes (nothing was written, or all of it)");
    for (std::size_t i = 0; i < ops.size(); ++i) {
      int err = results[i].err;
      if (err == ZOK || err == ZRUNTIMEINCONSISTENCY)
        continue;
      const std::string &name = ops[i].name;
      if (err == ZNODEEXISTS)
        return exists(name);
      if (err == ZNONODE)
        return ops[i].kind == Op::Create ? no_parent(name) : no_key(name);
      if (err == ZNOTEMPTY)
        return Status::failure(HVS_ERR_NOT_EMPTY,
                               loc_ + ": commit: key " + name +
                                   " has subkeys");
      return fail(err, "commit: write of key " + name);
    }
    return fail(rc, "commit");
  }

  Status rollback() override {
    if (!in_tx_)
      return Status::failure(HVS_ERR_ARGUMENT,
                             loc_ + ": rollback without a transaction");
    clear_tx();
    return {};
  }

  // The client's cache is kept by watches: every key read with a cache
  // behind leaves one, and its event drops the key from the cache (listen).
  // A lost connection or an expired session drops everything, and until the
  // session is connected again nothing is answered from memory.
  bool follow(ChangeSink *sink) override {
    sink_ = sink;
    listen();
    return true;
  }

  // The client learns that its connection or its session is gone only
  // from its socket: a process that was stopped, or a server that vanished
  // without a word, could serve from memory what another client has
  // changed since. So memory answers only within a lease: a third of the
  // session timeout (the client library's own ping interval) after the
  // asking of the last answer that came back; past it, one round trip
  // first.
  bool current() override {
    if (sink_ == nullptr || in_tx_ || !session_ || session_->broken() || !session_->connected())
      return false;
    return zk::Clock::now() - heard_ < lease() || catch_up();
  }

  // Why a sync is enough after a lock was granted. The lock service runs
  // its own session, perhaps on another server than ours. A writer wrote
  // key K (transaction z1) and then released its lock (z2 > z1); we were
  // granted the lock after z2. Our server may not have applied z1 yet, and
  // then the notification of z1 for our watch on K is not on its way yet:
  // the grant alone does not put it before our next cached read. The sync
  // goes through the leader: our server answers it only once it has
  // applied everything the leader had committed when the sync arrived,
  // which is after the grant, so z1 and z2 included. A server sends a
  // session's notifications and answers in the order it applies them, on
  // one connection, and the client hands them to its one event thread in
  // that order: the notification of z1 has run (and dropped K) before the
  // answer to the read sent behind the sync wakes us.
  bool catch_up() override {
    if (sink_ == nullptr || in_tx_ || !session_ || session_->broken() || !session_->connected())
      return false;
    const zk::Deadline asked = zk::Clock::now();
    zk::Budget budget(asked + settings_.timeout());
    if (session_->sync(keys_) != ZOK)
      return false;
    heard_ = asked;
    return true;
  }

private:
  std::chrono::milliseconds lease() const {
    return std::chrono::milliseconds(std::min(settings_.session_ms, session_->granted_ms()) / 3);
  }

  // Turns the session's events into reports to the cache.
  void listen() {
    if (sink_ == nullptr || !session_)
      return;
    ChangeSink *sink = sink_;
    std::string keys = keys_;
    session_->on_change([sink, keys](int type, int state, const char *path) {
      if (type == ZOO_SESSION_EVENT) {
        if (state != ZOO_CONNECTED_STATE)
          sink->changed_all(); // its watches may miss events from here on
        return;
      }
      try {
        std::string_view p = path != nullptr ? path : "";
        if (!p.starts_with(keys) || (p.size() > keys.size() && p[keys.size()] != '/')) {
          sink->changed_all();
          return;
        }
        p.remove_prefix(keys.size());
        std::string name;
        while (!p.empty()) {
          p.remove_prefix(1); // the slash
          std::size_t slash = p.find('/');
          if (!name.empty())
            name += '.';
          name += zk::decode(p.substr(0, slash));
          p = slash == std::string_view::npos ? std::string_view{} : p.substr(slash);
        }
        sink->changed(name);
      } catch (...) {
        sink->changed_all();
      }
    });
  }

  struct Op {
    enum Kind { Create, Set, Delete } kind;
    std::string name;
    std::string path;
    bool has_value = false;
    std::string bytes;
  };

  static const char *data_of(std::string_view bytes) {
    return bytes.data() ? bytes.data() : "";
  }
  static std::string shown(std::string_view name) {
    return name.empty() ? std::string("the root") : std::string(name);
  }

  std::string path_of(std::string_view name) const {
    std::string p = keys_;
    std::size_t start = 0;
    while (start < name.size()) {
      std::size_t dot = name.find('.', start);
      if (dot == std::string_view::npos)
        dot = name.size();
      p += '/';
      p += zk::encode(name.substr(start, dot - start));
      start = dot + 1;
    }
    return p;
  }

  Status ensure() {
    if (session_ && !session_->broken())
      return {};
    session_.reset();
    int rc = ZOK;
    std::string why;
    session_ = zk::Session::open(settings_, rc, why);
    if (!session_)
      return Status::failure(HVS_ERR_UNREACHABLE, loc_ + ": " + why);
    if (sink_ != nullptr) { // a new session: none of the old watches
      listen();
      sink_->changed_all();
    }
    heard_ = zk::Clock::now();
    return {};
  }

  Status fail(int rc, const std::string &what) const {
    return Status::failure(zk::connection_problem(rc) ? HVS_ERR_UNREACHABLE
                                                      : HVS_ERR_ENGINE,
                           loc_ + ": " + what + ": " +
                               zk::describe(rc, settings_));
  }
  Status no_key(std::string_view name) const {
    return Status::failure(HVS_ERR_NO_KEY, loc_ + ": key " + shown(name) +
                                               " does not exist");
  }
  Status no_parent(std::string_view name) const {
    return Status::failure(HVS_ERR_NO_KEY,
                           loc_ + ": parent " + std::string(parent_of(name)) +
                               " of " + std::string(name) + " does not exist");
  }
  Status exists(std::string_view name) const {
    return Status::failure(HVS_ERR_EXISTS, loc_ + ": key " + std::string(name) +
                                               " exists already");
  }
  // Whether a value can be written to key at all: the root holds none.
  Status writable(const KeyData &key, std::string_view bytes) const {
    if (key.path.empty())
      return Status::failure(HVS_ERR_ARGUMENT, loc_ + ": the root holds no value");
    return fits(key.path, bytes);
  }
  // Refuses, before it is sent, a write the ensemble would answer by
  // dropping the connection.
  Status fits(std::string_view name, std::string_view bytes) const {
    std::size_t need = bytes.size() + path_of(name).size() + kRequestOverhead;
    if (need <= settings_.max_packet)
      return {};
    return Status::failure(
        HVS_ERR_TOO_LARGE,
        loc_ + ": value of " + std::to_string(bytes.size()) + " bytes for key " +
            std::string(name) + " is over the ZooKeeper packet limit of " +
            std::to_string(settings_.max_packet) +
            " bytes (jute.maxbuffer); it was not sent");
  }

  // An existing ROOT is laid out as a registry only when it holds nothing
  // but what a registry has there: no data or the marker, and no children
  // but keys and locks.
  Status refuse_foreign() {
    std::string data;
    bool null = true;
    int rc = session_->get(root_, data, null);
    if (rc != ZOK)
      return rc == ZNONODE ? Status{} : fail(rc, "cannot read " + root_);
    std::vector<std::string> kids, others;
    rc = session_->children(root_, kids);
    if (rc != ZOK)
      return rc == ZNONODE ? Status{} : fail(rc, "cannot list " + root_);
    for (const auto &k : kids)
      if (k != "keys" && k != "locks")
        others.push_back(k);
    const bool foreign_data = !null && !data.empty() && !data.starts_with(kMarker);
    if (!foreign_data && others.empty())
      return {};
    std::string what = foreign_data ? "data that is not a registry's marker" : "";
    if (!others.empty()) {
      what += what.empty() ? "" : " and ";
      what += "children that are not a registry's (";
      for (std::size_t i = 0; i < others.size() && i < 5; ++i)
        what += (i ? ", " : "") + others[i];
      what += others.size() > 5 ? ", ...)" : ")";
    }
    return Status::failure(HVS_ERR_EXISTS, loc_ + ": " + root_ + " holds " + what +
                                               "; a registry is made only in a new "
                                               "or empty place");
  }

  // Creates ROOT (with its parents), its marker, ROOT/keys and ROOT/locks.
  Status lay_out() {
    for (std::size_t slash = root_.find('/', 1);;
         slash = root_.find('/', slash + 1)) {
      std::string part = root_.substr(0, slash);
      int rc = session_->create(part, nullptr, -1, 0);
      if (rc != ZOK && rc != ZNODEEXISTS)
        return fail(rc, "cannot create " + part);
      if (slash == std::string::npos)
        break;
    }
    std::string marker = std::string(kMarker) + std::to_string(kFormatVersion);
    int rc = session_->set(root_, marker.data(), int(marker.size()));
    if (rc != ZOK)
      return fail(rc, "cannot mark " + root_ + " as a registry");
    for (const std::string &p : {keys_, root_ + "/locks"}) {
      rc = session_->create(p, nullptr, -1, 0);
      if (rc != ZOK && rc != ZNODEEXISTS)
        return fail(rc, "cannot create " + p);
    }
    return {};
  }

  // The stored keys under name (its descendants, and name itself unless it
  // is the root), children before parents.
  Status subtree(std::string_view name, std::vector<std::string> &out) {
    std::vector<std::string> kids;
    KeyData key;
    key.path = std::string(name);
    Status st = children(key, kids);
    if (!st.ok())
      return st;
    for (const auto &kid : kids) {
      st = subtree(name.empty() ? kid : std::string(name) + "." + kid, out);
      if (!st.ok())
        return st;
    }
    if (!name.empty())
      out.emplace_back(name);
    return {};
  }

  // --- transactions ---

  void clear_tx() {
    in_tx_ = false;
    tx_.clear();
    created_.clear();
    deleted_.clear();
  }

  // Whether the stored key name is still there as the transaction sees it:
  // not deleted by it, and not under a key that it created.
  bool stored_visible(std::string_view name) const {
    if (created_.count(std::string(name)))
      return false;
    for (const auto &d : deleted_)
      if (within(name, d))
        return false;
    for (const auto &c : created_)
      if (within(name, c))
        return false;
    return true;
  }

  Status exists_in_view(std::string_view name, bool &found) {
    if (name.empty() || created_.count(std::string(name))) {
      found = true;
      return {};
    }
    found = false;
    if (!stored_visible(name))
      return {};
    std::string data;
    bool null = true;
    int rc = session_->get(path_of(name), data, null);
    if (rc == ZOK)
      found = true;
    else if (rc != ZNONODE)
      return fail(rc, "open of key " + std::string(name));
    return {};
  }

  Status tx_create(std::string_view name, bool has_value,
                   std::string_view bytes) {
    bool found = false;
    if (Status st = exists_in_view(name, found); !st.ok())
      return st;
    if (found)
      return exists(name);
    if (Status st = exists_in_view(parent_of(name), found); !st.ok())
      return st;
    if (!found)
      return no_parent(name);
    tx_.push_back(Op{Op::Create, std::string(name), path_of(name), has_value,
                     std::string(bytes)});
    created_.insert(std::string(name));
    return {};
  }

  Status tx_put(std::string_view name, bool has_value, std::string_view bytes) {
    bool found = false;
    if (Status st = exists_in_view(name, found); !st.ok())
      return st;
    if (!found)
      return no_key(name);
    tx_.push_back(Op{Op::Set, std::string(name), path_of(name), has_value,
                     std::string(bytes)});
    return {};
  }

  Status tx_delete(std::string_view name, bool recursive) {
    bool found = false;
    if (Status st = exists_in_view(name, found); !st.ok())
      return st;
    if (!found)
      return no_key(name);
    bool stored = stored_visible(name);
    std::vector<std::string> doomed;
    if (stored) {
      Status st = subtree(name, doomed);
      if (!st.ok())
        return st;
    }
    bool pending_kids = std::any_of(
        created_.begin(), created_.end(), [&](const std::string &c) {
          return c != name && within(c, name);
        });
    std::size_t stored_kids = doomed.size() - (stored && !name.empty() ? 1 : 0);
    if (!recursive && (pending_kids || stored_kids > 0))
      return Status::failure(HVS_ERR_NOT_EMPTY, loc_ + ": key " +
                                                    std::string(name) +
                                                    " has subkeys");
    // Pending writes inside the subtree are dropped; stored keys deleted.
    std::erase_if(tx_, [&](const Op &op) {
      return op.kind != Op::Delete && within(op.name, name);
    });
    std::erase_if(created_,
                  [&](const std::string &c) { return within(c, name); });
    for (const auto &d : doomed)
      tx_.push_back(Op{Op::Delete, d, path_of(d), false, {}});
    deleted_.insert(std::string(name));
    return {};
  }

  std::string loc_;
  std::string root_;
  std::string keys_;
  zk::Settings settings_;
  std::shared_ptr<zk::Session> session_;
  ChangeSink *sink_ = nullptr; // the client's cache, when it has one
  zk::Deadline heard_{};       // when the latest answer was asked for

  bool in_tx_ = false;
  std::vector<Op> tx_;
  std::set<std::string> created_; // keys created by the transaction
  std::set<std::string> deleted_; // subtrees deleted by it ("" for all)
};

} // namespace

std::unique_ptr<Backend> open_zookeeper(const Location &loc, bool create,
                                        Status &st) {
  auto backend = std::make_unique<ZkBackend>(
      loc, zk::Settings::from_env(loc.path));
  st = backend->start(create);
  if (!st.ok())
    return nullptr;
  return backend;
}

Status zookeeper_missing_part(const Location &loc, std::string &part) {
  ZkBackend b(loc, zk::Settings::from_env(loc.path));
  return b.missing_part(part);
}

Status zookeeper_remove_created(const Location &loc, const std::string &part) {
  ZkBackend b(loc, zk::Settings::from_env(loc.path));
  return b.remove_tree(part);
}

} // namespace hvs

#else // !HVS_WITH_ZOOKEEPER

namespace hvs {

std::unique_ptr<Backend> open_zookeeper(const Location &loc, bool /*create*/,
                                        Status &st) {
  st = Status::failure(HVS_ERR_UNREACHABLE,
                       loc.text +
                           ": this build has no ZooKeeper engine (hosts " +
                           loc.path + ", root " + loc.root + ")");
  return nullptr;
}

Status zookeeper_missing_part(const Location &, std::string &part) {
  part.clear();
  return {};
}

Status zookeeper_remove_created(const Location &, const std::string &) {
  return {};
}

} // namespace hvs

#endif
