/* zk_session.h - one ZooKeeper session, shared by the registry engine and
 * the lock engine.
 *
 * Every call is asynchronous underneath and waits for its answer at most
 * the configured time, so no call hangs past HVS_ZK_TIMEOUT_MS whatever
 * the ensemble does. A session that timed out a call, or that the ensemble
 * expired, is "broken": its owner drops it and opens a new one on the next
 * call.
 *
 * Settings, from the environment:
 *   HVS_ZK_TIMEOUT_MS   wait for a connection or an answer (default 5000)
 *   HVS_ZK_SESSION_MS   session timeout asked of the ensemble (default
 *                       10000); a dead client's ephemeral nodes (its locks)
 *                       go that long after it dies
 *   HVS_ZK_MAX_PACKET   the ensemble's packet limit, jute.maxbuffer
 *                       (default 1048575, ZooKeeper's own default)
 *   HVS_ZK_DEBUG        log level of the C client, 0 (default) to 4
 */
#ifndef HVS_ZK_SESSION_H
#define HVS_ZK_SESSION_H

#include <zookeeper/zookeeper.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace hvs::zk {

struct Settings {
  std::string hosts;          // "host:port,host:port"
  int timeout_ms = 5000;      // connection and answer wait
  int session_ms = 10000;     // session timeout asked of the ensemble
  std::size_t max_packet = 1048575;

  static Settings from_env(const std::string &hosts);
};

/* Reversible encoding of one name component as one znode name: letters,
 * digits, "_" and "-" stand as they are, every other byte as "%XX". */
std::string encode(std::string_view component);
/* The way back; a name that is not a valid encoding comes back unchanged. */
std::string decode(std::string_view node);

/* True for the codes that mean the ensemble could not be asked. */
bool connection_problem(int rc);
/* A sentence for a ZooKeeper code, naming the ensemble where it helps. */
std::string describe(int rc, const Settings &s);

class Session {
public:
  /* Connects and waits for the session to be established; nullptr with rc
   * and why filled when no server answered in time. */
  static std::shared_ptr<Session> open(const Settings &s, int &rc,
                                       std::string &why);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const Settings &settings() const { return settings_; }
  /* Expired by the ensemble, or a call went unanswered: open a new one. */
  bool broken() const { return expired_.load() || timed_out_.load(); }
  bool expired() const { return expired_.load(); }
  int64_t id() const;

  /* null: the node has no data (distinct from 0 bytes). */
  int get(const std::string &path, std::string &data, bool &null);
  int children(const std::string &path, std::vector<std::string> &out);
  /* data NULL with len -1: no data. created receives the node's path
   * (differs from path for sequential nodes). */
  int create(const std::string &path, const char *data, int len, int mode,
             std::string *created = nullptr);
  int set(const std::string &path, const char *data, int len);
  int remove(const std::string &path);
  /* Sets a watch on path; any event on it bumps events(). */
  int watch_exists(const std::string &path, bool &exists);
  int multi(int count, const zoo_op_t *ops, zoo_op_result_t *results);

  /* Watch events and state changes seen so far. wait_event() returns when
   * the count moves past seen, the session breaks, or deadline passes. */
  uint64_t events() const;
  template <class Clock, class Dur>
  void wait_event(uint64_t seen,
                  const std::chrono::time_point<Clock, Dur> &deadline) {
    std::unique_lock lock(mu_);
    cv_.wait_until(lock, deadline,
                   [&] { return events_ != seen || expired_.load(); });
  }

private:
  explicit Session(const Settings &s) : settings_(s) {}
  static void on_event(zhandle_t *zh, int type, int state, const char *path,
                       void *ctx);
  template <class Call> int finish(int rc, std::shared_ptr<Call> call);

  Settings settings_;
  zhandle_t *zh_ = nullptr;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  int state_ = 0;
  uint64_t events_ = 0;
  std::atomic<bool> expired_{false};
  std::atomic<bool> timed_out_{false};
};

} // namespace hvs::zk

#endif
