/* zk_session.h - one ZooKeeper session, as the registry engine and the lock
 * engine use it.
 *
 * Every call is asynchronous underneath and waits for its answer at most
 * until the deadline of the call in progress (see Budget), so no call hangs
 * past its timeout whatever the ensemble does. A connection that the
 * ZooKeeper client heals within the session (a leader election, a server
 * restart, a move to another server) is waited out: reads are sent again
 * once the session is connected; writes are sent once and their callers
 * decide. Only an expired session is dropped; its owner opens a new one on
 * the next call.
 *
 * Settings, from the environment (docs/zookeeper.md tells how they relate):
 *   HVS_ZK_TIMEOUT_MS   the longest a call waits, for a connection or for an
 *                       answer (default 8000); after a connection loss the
 *                       calls of the next HVS_ZK_TIMEOUT_MS share that wait,
 *                       so a disconnected client fails its calls within one
 *                       timeout of the loss, not one per call
 *   HVS_ZK_SESSION_MS   session timeout asked of the ensemble (default
 *                       6000); a dead client's ephemeral nodes (its locks)
 *                       go that long after it died, and a client notices a
 *                       silent server after two thirds of it
 *   HVS_ZK_MAX_PACKET   the ensemble's packet limit, jute.maxbuffer
 *                       (default 1048575, ZooKeeper's own default)
 *   HVS_ZK_DEBUG        log level of the C client, 0 (default) to 4
 *   HVS_ZK_AUTH_FILE    a file holding "user:password": the session
 *                       authenticates with ZooKeeper's digest scheme, and
 *                       every node it creates gives all rights to that
 *                       identity and none to anybody else. The file must
 *                       not be readable by others. Without it, nodes are
 *                       open to every client of the ensemble.
 */
#ifndef HVS_ZK_SESSION_H
#define HVS_ZK_SESSION_H

#include <zookeeper/zookeeper.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace hvs::zk {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

struct Settings {
  std::string hosts;          // "host:port,host:port"
  int timeout_ms = 8000;      // connection and answer wait
  int session_ms = 6000;      // session timeout asked of the ensemble
  std::size_t max_packet = 1048575;
  std::string auth;           // "user:password" for the digest scheme, or ""
  std::string auth_problem;   // why HVS_ZK_AUTH_FILE could not be used

  static Settings from_env(const std::string &hosts);
  std::chrono::milliseconds timeout() const {
    return std::chrono::milliseconds(timeout_ms);
  }
};

/* The deadline of the call in progress on this thread. The outermost Budget
 * sets it; inner ones (a helper of the same call) keep it, so that one call
 * of the registry client or of the lock service waits at most once. */
class Budget {
public:
  explicit Budget(Deadline d);
  ~Budget();
  Budget(const Budget &) = delete;
  Budget &operator=(const Budget &) = delete;
  /* The deadline of this thread's call; fallback when none is open. */
  static Deadline current(std::chrono::milliseconds fallback);

private:
  bool outer_;
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
  /* Connects and waits, at most until the current Budget's deadline, for
   * the session to be established; nullptr with rc and why filled when no
   * server answered in time. */
  static std::shared_ptr<Session> open(const Settings &s, int &rc,
                                       std::string &why);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const Settings &settings() const { return settings_; }
  /* Expired (or refused) by the ensemble: open a new one. */
  bool broken() const { return expired_.load(); }
  /* The rights given to the nodes this session creates. */
  const ACL_vector *acl() const;
  bool expired() const { return expired_.load(); }
  int64_t id() const;

  /* Waits until the session is connected; false when it expired or the
   * deadline (shortened to one timeout after the connection was lost)
   * passed first. */
  bool wait_connected(Deadline deadline);

  /* Reads; sent again after a connection loss that heals in time.
   * null: the node has no data (distinct from 0 bytes). With watch, the
   * read leaves a watch whose event goes to the on_change() listener. */
  int get(const std::string &path, std::string &data, bool &null, bool watch = false);
  int children(const std::string &path, std::vector<std::string> &out, bool watch = false);
  /* Sets a watch on path; any event on it bumps events(). */
  int watch_exists(const std::string &path, bool &exists);

  /* Writes, sent once. data NULL with len -1: no data. created receives
   * the node's path (differs from path for sequential nodes). */
  int create(const std::string &path, const char *data, int len, int mode,
             std::string *created = nullptr);
  int set(const std::string &path, const char *data, int len);
  int remove(const std::string &path);
  /* results (count entries) are filled when the answer came in time. */
  int multi(int count, const zoo_op_t *ops, zoo_op_result_t *results);

  /* Deletes path now if the session is connected, else as soon as it is
   * connected again; with prefix, every child of path whose name starts
   * with it (a request whose name the ensemble never told us). Expiry
   * deletes ephemeral nodes anyway, so nothing outlives the session. */
  void remove_later(const std::string &path, const std::string &prefix = {});

  /* Called once, on the client's event thread, when the session expires. */
  void on_expiry(std::function<void()> fn);

  /* Connected right now, as far as the client knows. */
  bool connected() const { return up_.load(std::memory_order_acquire); }
  /* The session timeout the ensemble granted (it may differ from the one
   * asked), in milliseconds. */
  int granted_ms() const;

  /* Every event of the session, watch events (type, path) and state
   * changes (ZOO_SESSION_EVENT, state), on the client's event thread: in
   * the order the server sent them, between the completions of the calls
   * answered before and after them. One listener; set it before the first
   * watched read. */
  using Listener = std::function<void(int type, int state, const char *path)>;
  void on_change(Listener fn);

  /* Returns once the server this session talks to has caught up with the
   * leader as it was at the call, and the events the server sent before
   * (the notifications of every write before the call, for this session's
   * watches) have been through the listener: a sync of path and a read of
   * it, sent together; the read's answer comes after the sync's, and after
   * the notifications sent before either. */
  int sync(const std::string &path);

  /* Watch events and state changes seen so far. wait_event() returns when
   * the count moves past seen, the session expires, or deadline passes. */
  uint64_t events() const;
  void wait_event(uint64_t seen, Deadline deadline);

private:
  explicit Session(const Settings &s) : settings_(s) {}
  static void on_event(zhandle_t *zh, int type, int state, const char *path,
                       void *ctx);
  struct Orphan {
    std::string path;
    std::string prefix;
  };
  void flush_orphans(); // mu_ not held
  template <class Submit> int read(Submit &&submit);

  Settings settings_;
  zhandle_t *zh_ = nullptr;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  int state_ = 0;
  Deadline lost_at_{};   // when the connection was last lost; {} when up
  uint64_t events_ = 0;
  std::atomic<bool> expired_{false};
  std::atomic<bool> up_{false};
  std::shared_ptr<const Listener> listener_; // guarded by mu_
  std::vector<Orphan> orphans_;              // guarded by mu_
  std::vector<std::function<void()>> expiry_; // guarded by mu_
};

} // namespace hvs::zk

#endif
