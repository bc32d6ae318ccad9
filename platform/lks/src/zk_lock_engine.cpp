// zk_lock_engine.cpp - the shared/exclusive lock recipe on ZooKeeper.
#include "zk_lock_engine.h"

#include "lks.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

namespace lks {

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char *kRead = "read-";
constexpr const char *kWrite = "write-";
constexpr std::size_t kSeqDigits = 10; // what ZooKeeper appends

struct Request {
  long long seq;
  bool write;
  std::string node;
};

// The queue's requests in sequence order; nodes that are not requests
// (none should be there) are left out.
std::vector<Request> parse(const std::vector<std::string> &nodes) {
  std::vector<Request> out;
  for (const auto &n : nodes) {
    bool write = n.starts_with(kWrite);
    if (!write && !n.starts_with(kRead))
      continue;
    if (n.size() < kSeqDigits)
      continue;
    long long seq = 0;
    bool digits = true;
    for (std::size_t i = n.size() - kSeqDigits; i < n.size(); ++i) {
      if (n[i] < '0' || n[i] > '9')
        digits = false;
      seq = seq * 10 + (n[i] - '0');
    }
    if (digits)
      out.push_back(Request{seq, write, n});
  }
  std::sort(out.begin(), out.end(),
            [](const Request &a, const Request &b) { return a.seq < b.seq; });
  return out;
}

std::string basename(const std::string &path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string shown(const std::string &name) {
  return name.size() > 120 ? name.substr(0, 120) + "..." : name;
}

} // namespace

struct ZkLockEngine::Hold {
  std::shared_ptr<hvs::zk::Session> session;
  std::string node;
  std::string name;
};

ZkLockEngine::ZkLockEngine(const hvs::Location &loc)
    : locks_(loc.root + "/locks"), settings_(hvs::zk::Settings::from_env(loc.path)) {}

ZkLockEngine::~ZkLockEngine() = default;

std::string ZkLockEngine::queue_of(const std::string &name) const {
  return locks_ + "/" + hvs::zk::encode(name);
}

Outcome ZkLockEngine::failure(int rc, const std::string &what) const {
  Outcome o;
  o.code = LKS_ERR_SYSTEM;
  o.message = what + ": " + hvs::zk::describe(rc, settings_);
  return o;
}

Outcome ZkLockEngine::session(std::shared_ptr<hvs::zk::Session> &out) {
  std::lock_guard lock(mu_);
  if (!current_ || current_->broken()) {
    current_.reset();
    int rc = 0;
    std::string why;
    current_ = hvs::zk::Session::open(settings_, rc, why);
    if (!current_) {
      Outcome o;
      o.code = LKS_ERR_SYSTEM;
      o.message = "lock service on ZooKeeper: " + why;
      return o;
    }
  }
  out = current_;
  return Outcome::ok();
}

Outcome ZkLockEngine::connect() {
  std::shared_ptr<hvs::zk::Session> s;
  return session(s);
}

Outcome ZkLockEngine::acquire(const std::string &name, Mode mode,
                              std::chrono::milliseconds timeout, Token *token) {
  const auto deadline = Clock::now() + timeout;
  const bool write = mode == Mode::Exclusive;
  const char *what = write ? "exclusive" : "shared";
  std::shared_ptr<hvs::zk::Session> s;
  if (Outcome o = session(s); o.code != 0)
    return o;

  // The request: unique per call, so that one lost in a dropped connection
  // can be found again and withdrawn.
  const std::string queue = queue_of(name);
  char tag[64];
  std::snprintf(tag, sizeof tag, "%llx-%llu-", static_cast<unsigned long long>(s->id()),
                static_cast<unsigned long long>(++serial_));
  const std::string prefix = std::string(write ? kWrite : kRead) + tag;
  std::string mine;
  int rc = ZNONODE;
  for (int attempt = 0; attempt < 4 && rc == ZNONODE; ++attempt) {
    rc = s->create(queue + "/" + prefix, nullptr, -1, ZOO_EPHEMERAL_SEQUENTIAL, &mine);
    if (rc != ZNONODE)
      break;
    // No queue yet (or the ensemble removed an empty one meanwhile): make
    // it, and the lock root above it on first use.
    int qrc = s->create(queue, nullptr, -1, ZOO_CONTAINER);
    if (qrc == ZNONODE) {
      for (std::size_t slash = locks_.find('/', 1);; slash = locks_.find('/', slash + 1)) {
        int prc = s->create(locks_.substr(0, slash), nullptr, -1, 0);
        if (prc != ZOK && prc != ZNODEEXISTS)
          return failure(prc, "lock " + shown(name) + ": cannot create " + locks_);
        if (slash == std::string::npos)
          break;
      }
    } else if (qrc != ZOK && qrc != ZNODEEXISTS) {
      return failure(qrc, "lock " + shown(name) + ": cannot create its queue");
    }
  }
  if (rc != ZOK) {
    if (rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT) {
      // The request may have landed: withdraw whatever carries our prefix.
      std::vector<std::string> nodes;
      if (s->children(queue, nodes) == ZOK)
        for (const auto &n : nodes)
          if (n.starts_with(prefix))
            s->remove(queue + "/" + n);
    }
    return failure(rc, "lock " + shown(name) + ": " + what + " request not placed");
  }
  const std::string me = basename(mine);
  auto withdraw = [&] { s->remove(mine); };

  for (;;) {
    std::vector<std::string> nodes;
    rc = s->children(queue, nodes);
    if (rc != ZOK) {
      withdraw();
      return failure(rc, "lock " + shown(name) + ": listing of requests failed");
    }
    std::vector<Request> queue_now = parse(nodes);
    auto self = std::find_if(queue_now.begin(), queue_now.end(),
                             [&](const Request &r) { return r.node == me; });
    if (self == queue_now.end()) {
      Outcome o;
      o.code = LKS_ERR_LOST;
      o.message = "lock " + shown(name) + ": the " + what +
                  " request vanished while waiting (its ZooKeeper session expired)";
      return o;
    }
    // The nearest earlier request that keeps us out.
    const Request *blocker = nullptr;
    for (auto it = queue_now.begin(); it != self; ++it)
      if (write || it->write)
        blocker = &*it;
    if (blocker == nullptr) {
      auto *hold = new Hold{s, mine, name};
      *token = reinterpret_cast<Token>(hold);
      return Outcome::ok();
    }
    const std::string blocker_node = blocker->node;
    const bool blocker_write = blocker->write;
    uint64_t seen = s->events();
    bool present = false;
    rc = s->watch_exists(queue + "/" + blocker_node, present);
    if (rc != ZOK) {
      withdraw();
      return failure(rc, "lock " + shown(name) + ": watch of " + blocker_node + " failed");
    }
    if (!present)
      continue; // gone already: look again
    if (Clock::now() >= deadline) {
      withdraw();
      Outcome o;
      o.code = LKS_ERR_TIMEOUT;
      o.message = "lock " + shown(name) + ": " + what + " request not granted within " +
                  std::to_string(timeout.count()) + " ms (behind the " +
                  (blocker_write ? "exclusive" : "shared") + " request " + blocker_node +
                  "); request withdrawn";
      return o;
    }
    s->wait_event(seen, deadline);
    if (s->expired()) {
      Outcome o;
      o.code = LKS_ERR_LOST;
      o.message = "lock " + shown(name) + ": the ZooKeeper session expired while the " +
                  what + " request waited";
      return o;
    }
  }
}

Outcome ZkLockEngine::release(Token token) {
  std::unique_ptr<Hold> hold(reinterpret_cast<Hold *>(token));
  if (!hold)
    return Outcome::ok();
  auto lost = [&] {
    Outcome o;
    o.code = LKS_ERR_LOST;
    o.message = "lock " + shown(hold->name) +
                " was lost while held: its ZooKeeper session expired, so other "
                "clients may have taken it meanwhile";
    return o;
  };
  const auto deadline = Clock::now() + std::chrono::milliseconds(settings_.timeout_ms);
  for (;;) {
    if (hold->session->expired())
      return lost();
    int rc = hold->session->remove(hold->node);
    if (rc == ZOK)
      return Outcome::ok();
    if (rc == ZNONODE || rc == ZSESSIONEXPIRED)
      return lost();
    if (!hvs::zk::connection_problem(rc) || Clock::now() >= deadline)
      return failure(rc, "unlock of " + shown(hold->name) +
                             " failed (its request goes when the session ends)");
    // Connection lost, session perhaps still alive: try again shortly.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

} // namespace lks
