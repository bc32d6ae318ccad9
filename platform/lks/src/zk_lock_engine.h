// zk_lock_engine.h - named locks on a ZooKeeper ensemble.
//
// The shared/exclusive recipe with ephemeral sequential znodes: a request
// is a node ROOT/locks/<encoded name>/read-<seq> or write-<seq> of this
// engine's session. A read request is granted when no write request has a
// lower sequence number, a write request when no request at all has; a
// waiter watches only the nearest request that blocks it, so a release
// wakes one waiter, not all. A request that is not granted in time is
// deleted. Request nodes are ephemeral: a process that dies gives its locks
// back when its session expires (HVS_ZK_SESSION_MS), and a hold whose
// session expired is reported as lost when it is given back.
//
// A request's name carries the session id and a serial number of its own,
// so that after a connection loss the engine finds it again and keeps
// waiting on it, or, when it gives up, has it deleted as soon as the
// connection returns (the session's expiry deletes it otherwise): no request
// outlives its wait by more than one session timeout. The request node of a
// granted lock is the fence that the registry client checks with each write
// made under the lock (hvs/holds.h).
#ifndef LKS_ZK_LOCK_ENGINE_H
#define LKS_ZK_LOCK_ENGINE_H

#include "lock_engine.h"

#include "hvs_location.h"
#include "zk_session.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace lks {

class ZkLockEngine final : public LockEngine {
public:
  explicit ZkLockEngine(const hvs::Location &loc);
  ~ZkLockEngine() override;

  // Connects; a failure leaves the engine usable (it retries on the next
  // call) and is told in the outcome.
  Outcome connect();

  Outcome acquire(const std::string &name, Mode mode, std::chrono::milliseconds timeout,
                  Token *token) override;
  Outcome release(Token token) override;
  std::string fence(Token token) const override;
  void attach(Token token, hvs_hold *hold) override;

  // The znode under which requests for name queue.
  std::string queue_of(const std::string &name) const;

private:
  struct Hold;
  struct Holds;
  struct Live {
    std::shared_ptr<hvs::zk::Session> session;
    std::shared_ptr<Holds> holds; // the grants on that session
  };
  Outcome session(Live &out);
  Outcome attempt(const Live &live, const std::string &name, bool write,
                  hvs::zk::Deadline deadline, long wait_ms, Token *token, bool &expired);
  Outcome failure(int rc, const std::string &what) const;

  std::string locks_;
  hvs::zk::Settings settings_;
  std::mutex mu_; // guards current_
  Live current_;
  std::atomic<uint64_t> serial_{0};
};

} // namespace lks
#endif
