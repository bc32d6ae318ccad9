// zk_lock_engine.cpp - the shared/exclusive lock recipe on ZooKeeper.
#include "zk_lock_engine.h"

#include "lks.h"

#include <algorithm>
#include <set>
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

// The grants made on one session, so that its expiry marks them lost.
struct ZkLockEngine::Holds {
  std::mutex mu;
  bool expired = false;
  std::set<Hold *> grants;
};

struct ZkLockEngine::Hold {
  Live live;
  std::string node; // full path of the request node
  std::string name;
  hvs_hold *registry = nullptr; // guarded by live.holds->mu
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

Outcome ZkLockEngine::session(Live &out) {
  std::lock_guard lock(mu_);
  if (!current_.session || current_.session->broken()) {
    current_ = Live{};
    int rc = 0;
    std::string why;
    auto s = hvs::zk::Session::open(settings_, rc, why);
    if (!s) {
      Outcome o;
      o.code = LKS_ERR_SYSTEM;
      o.message = "lock service on ZooKeeper: " + why;
      return o;
    }
    auto holds = std::make_shared<Holds>();
    s->on_expiry([holds] {
      std::lock_guard g(holds->mu);
      holds->expired = true;
      for (Hold *h : holds->grants)
        hvs_hold_lost(h->registry);
    });
    current_ = Live{std::move(s), std::move(holds)};
  }
  out = current_;
  return Outcome::ok();
}

Outcome ZkLockEngine::connect() {
  hvs::zk::Budget budget(hvs::zk::Clock::now() + settings_.timeout());
  Live live;
  return session(live);
}

Outcome ZkLockEngine::acquire(const std::string &name, Mode mode,
                              std::chrono::milliseconds timeout, Token *token) {
  const auto deadline = Clock::now() + timeout;
  hvs::zk::Budget budget(deadline);
  const bool write = mode == Mode::Exclusive;
  // A session that expires while its request waits takes the request with
  // it; the wait goes on with a new session while there is time.
  for (int round = 0;; ++round) {
    Live live;
    if (Outcome o = session(live); o.code != 0)
      return o;
    bool expired = false;
    Outcome o = attempt(live, name, write, deadline, long(timeout.count()), token, expired);
    if (!expired || round == 2 || Clock::now() >= deadline)
      return o;
  }
}

Outcome ZkLockEngine::attempt(const Live &live, const std::string &name, bool write,
                              hvs::zk::Deadline deadline, long wait_ms, Token *token, bool &expired) {
  const char *what = write ? "exclusive" : "shared";
  hvs::zk::Session &s = *live.session;
  auto gone = [&](int rc) {
    expired = s.expired();
    Outcome o;
    o.code = LKS_ERR_LOST;
    o.message = "lock " + shown(name) + ": the " + what + " request went with its session (" +
                hvs::zk::describe(rc == ZOK ? ZSESSIONEXPIRED : rc, settings_) + ")";
    return o;
  };

  // The request: unique per call, so that one whose answer was lost with
  // the connection can be found again.
  const std::string queue = queue_of(name);
  char tag[64];
  std::snprintf(tag, sizeof tag, "%llx-%llu-", static_cast<unsigned long long>(s.id()),
                static_cast<unsigned long long>(++serial_));
  const std::string prefix = std::string(write ? kWrite : kRead) + tag;
  std::string mine;
  for (int attempt = 0; mine.empty(); ++attempt) {
    int rc = s.create(queue + "/" + prefix, nullptr, -1, ZOO_EPHEMERAL_SEQUENTIAL, &mine);
    if (rc == ZOK)
      break;
    if (s.expired())
      return gone(rc);
    if (attempt >= 8) {
      s.remove_later(queue, prefix);
      return failure(rc, "lock " + shown(name) + ": " + what + " request not placed");
    }
    if (rc == ZNONODE) {
      // No queue yet (or the ensemble removed an empty one meanwhile): make
      // it, and the lock root above it on first use.
      int qrc = s.create(queue, nullptr, -1, ZOO_CONTAINER);
      if (qrc == ZNONODE) {
        for (std::size_t slash = locks_.find('/', 1);; slash = locks_.find('/', slash + 1)) {
          int prc = s.create(locks_.substr(0, slash), nullptr, -1, 0);
          if (prc != ZOK && prc != ZNODEEXISTS)
            return failure(prc, "lock " + shown(name) + ": cannot create " + locks_);
          if (slash == std::string::npos)
            break;
        }
      } else if (qrc != ZOK && qrc != ZNODEEXISTS && !hvs::zk::connection_problem(qrc)) {
        return failure(qrc, "lock " + shown(name) + ": cannot create its queue");
      }
      continue;
    }
    if (rc == ZCONNECTIONLOSS && s.wait_connected(deadline)) {
      // The request may have landed before the connection went: look for it.
      std::vector<std::string> nodes;
      if (s.children(queue, nodes) == ZOK)
        for (const auto &n : nodes)
          if (n.starts_with(prefix))
            mine = queue + "/" + n;
      continue;
    }
    if (!hvs::zk::connection_problem(rc))
      return failure(rc, "lock " + shown(name) + ": " + what + " request not placed");
    // Out of time with the connection down: the request, if it landed, is
    // deleted when the connection returns, or goes with the session.
    if (s.expired())
      return gone(rc);
    s.remove_later(queue, prefix);
    Outcome o = failure(rc, "lock " + shown(name) + ": " + what + " request not placed");
    o.code = Clock::now() >= deadline ? LKS_ERR_TIMEOUT : LKS_ERR_SYSTEM;
    return o;
  }
  const std::string me = basename(mine);
  // Given up: deleted now if the session is connected, else on its return.
  auto withdraw = [&] { s.remove_later(mine); };

  constexpr int kMaxRounds = 100000; // far beyond any real queue's churn
  std::string blocker_node;
  bool blocker_write = false;
  auto too_late = [&] {
    withdraw();
    Outcome o;
    o.code = LKS_ERR_TIMEOUT;
    o.message = "lock " + shown(name) + ": " + what + " request not granted within " +
                std::to_string(wait_ms) + " ms (behind the " +
                (blocker_write ? "exclusive" : "shared") + " request " + blocker_node +
                "); request withdrawn";
    return o;
  };
  for (int round = 0; round < kMaxRounds; ++round) {
    if (round > 0 && Clock::now() >= deadline)
      return too_late();
    std::vector<std::string> nodes;
    int rc = s.children(queue, nodes);
    if (rc != ZOK) {
      if (s.expired())
        return gone(rc);
      withdraw();
      Outcome o = failure(rc, "lock " + shown(name) + ": listing of requests failed");
      if (Clock::now() >= deadline)
        o.code = LKS_ERR_TIMEOUT;
      return o;
    }
    std::vector<Request> queue_now = parse(nodes);
    auto self = std::find_if(queue_now.begin(), queue_now.end(),
                             [&](const Request &r) { return r.node == me; });
    if (self == queue_now.end()) {
      if (s.expired())
        return gone(ZSESSIONEXPIRED);
      Outcome o;
      o.code = LKS_ERR_LOST;
      o.message = "lock " + shown(name) + ": the " + what +
                  " request was deleted by another client while it waited";
      return o;
    }
    // The nearest earlier request that keeps us out.
    const Request *blocker = nullptr;
    for (auto it = queue_now.begin(); it != self; ++it)
      if (write || it->write)
        blocker = &*it;
    if (blocker == nullptr) {
      auto hold = std::make_unique<Hold>(Hold{live, mine, name, nullptr});
      {
        std::lock_guard g(live.holds->mu);
        if (live.holds->expired)
          return gone(ZSESSIONEXPIRED);
        live.holds->grants.insert(hold.get());
      }
      *token = reinterpret_cast<Token>(hold.release());
      return Outcome::ok();
    }
    blocker_node = blocker->node;
    blocker_write = blocker->write;
    uint64_t seen = s.events();
    bool present = false;
    rc = s.watch_exists(queue + "/" + blocker_node, present);
    if (rc != ZOK) {
      if (s.expired())
        return gone(rc);
      withdraw();
      Outcome o = failure(rc, "lock " + shown(name) + ": watch of " + blocker_node + " failed");
      if (Clock::now() >= deadline)
        o.code = LKS_ERR_TIMEOUT;
      return o;
    }
    if (!present)
      continue; // gone already: look again
    s.wait_event(seen, deadline);
    if (s.expired())
      return gone(ZSESSIONEXPIRED);
  }
  withdraw();
  return failure(ZSYSTEMERROR, "lock " + shown(name) + ": the queue changed too often");
}

std::string ZkLockEngine::fence(Token token) const {
  const auto *hold = reinterpret_cast<const Hold *>(token);
  return hold ? hold->node : std::string();
}

void ZkLockEngine::attach(Token token, hvs_hold *registry) {
  auto *hold = reinterpret_cast<Hold *>(token);
  if (hold == nullptr)
    return;
  std::lock_guard g(hold->live.holds->mu);
  hold->registry = registry;
  if (registry != nullptr && hold->live.holds->expired)
    hvs_hold_lost(registry);
}

Outcome ZkLockEngine::release(Token token) {
  std::unique_ptr<Hold> hold(reinterpret_cast<Hold *>(token));
  if (!hold)
    return Outcome::ok();
  {
    std::lock_guard g(hold->live.holds->mu);
    hold->live.holds->grants.erase(hold.get());
    hold->registry = nullptr;
  }
  hvs::zk::Session &s = *hold->live.session;
  // Said the same way however the loss came to light.
  auto lost = [&] {
    Outcome o;
    o.code = LKS_ERR_LOST;
    o.message = "lock " + shown(hold->name) +
                " was lost while held: its ZooKeeper session expired (out of the ensemble's "
                "sight for more than " +
                std::to_string(settings_.session_ms) +
                " ms), so others may have taken it; writes made under it since were refused";
    return o;
  };
  const auto deadline = Clock::now() + settings_.timeout();
  hvs::zk::Budget budget(deadline);
  bool resent = false;
  for (int attempt = 0; attempt < 16; ++attempt) {
    if (s.expired())
      return lost();
    int rc = s.remove(hold->node);
    if (rc == ZOK)
      return Outcome::ok();
    if (rc == ZNONODE && !s.expired())
      // Ours went with the first deletion if its answer was lost; never
      // sent, somebody else deleted it.
      return resent ? Outcome::ok() : lost();
    if (rc == ZNONODE || rc == ZSESSIONEXPIRED || rc == ZINVALIDSTATE)
      return lost();
    if (rc != ZCONNECTIONLOSS || !s.wait_connected(deadline))
      break;
    resent = true;
  }
  if (s.expired())
    return lost();
  // Out of time with the connection down: deleted when it returns, or gone
  // with the session.
  s.remove_later(hold->node);
  Outcome o;
  o.code = LKS_ERR_SYSTEM;
  o.message = "unlock of " + shown(hold->name) + " not confirmed: " +
              hvs::zk::describe(ZCONNECTIONLOSS, settings_) +
              "; the request is deleted when the connection returns, or with the session";
  return o;
}

} // namespace lks
