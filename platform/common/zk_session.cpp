// One ZooKeeper session with bounded waits (see zk_session.h).
#include "zk_session.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hvs::zk {
namespace {

long env_number(const char *name, long fallback, long lo, long hi) {
  const char *v = std::getenv(name);
  if (v == nullptr || *v == '\0')
    return fallback;
  char *end = nullptr;
  errno = 0;
  long n = std::strtol(v, &end, 10);
  if (errno != 0 || *end != '\0' || n < lo || n > hi)
    return fallback;
  return n;
}

void quiet_client_log() {
  static std::once_flag once;
  std::call_once(once, [] {
    // The C client writes to stderr on its own; keep it quiet unless asked.
    long level = env_number("HVS_ZK_DEBUG", 0, 0, 4);
    zoo_set_debug_level(static_cast<ZooLogLevel>(level));
  });
}

bool plain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || c == '_' || c == '-';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1; // lower case is never written, so never read either
}

// What one asynchronous call hands back to the waiting thread. It is shared
// with the completion, so an answer that comes after its caller gave up
// lands here and nowhere else.
struct Call {
  std::mutex mu;
  std::condition_variable cv;
  bool done = false;
  int rc = ZOK;
  bool null = false;
  std::string data;
  std::vector<std::string> strings;
  std::vector<zoo_op_result_t> results;
};
using Holder = std::shared_ptr<Call>;

Holder *hold(const Holder &call) { return new Holder(call); }

template <class Fill> void complete(const void *ctx, int rc, Fill &&fill) {
  auto *holder = static_cast<Holder *>(const_cast<void *>(ctx));
  Call &c = **holder;
  {
    std::lock_guard lock(c.mu);
    c.rc = rc;
    if (rc == ZOK)
      fill(c);
    c.done = true;
  }
  c.cv.notify_all();
  delete holder;
}

void data_done(int rc, const char *value, int len, const Stat *,
               const void *ctx) {
  complete(ctx, rc, [&](Call &c) {
    c.null = value == nullptr || len < 0;
    if (!c.null)
      c.data.assign(value, std::size_t(len));
  });
}

void strings_done(int rc, const String_vector *sv, const void *ctx) {
  complete(ctx, rc, [&](Call &c) {
    if (sv != nullptr)
      for (int32_t i = 0; i < sv->count; ++i)
        c.strings.emplace_back(sv->data[i]);
  });
}

void string_done(int rc, const char *value, const void *ctx) {
  complete(ctx, rc, [&](Call &c) {
    if (value != nullptr)
      c.data = value;
  });
}

void stat_done(int rc, const Stat *, const void *ctx) {
  complete(ctx, rc, [](Call &) {});
}

void void_done(int rc, const void *ctx) { complete(ctx, rc, [](Call &) {}); }

// Waits for the answer to a call that was submitted with result rc.
int finish(int rc, const Holder &call, Deadline deadline) {
  if (rc != ZOK)
    return rc; // never submitted: the completion will not run
  std::unique_lock lock(call->mu);
  if (!call->cv.wait_until(lock, deadline, [&] { return call->done; }))
    return ZOPERATIONTIMEOUT;
  return call->rc;
}

thread_local Deadline t_deadline{};
thread_local bool t_budget = false;

// Most reads of one call, whatever the connection does.
constexpr int kReadAttempts = 16;

} // namespace

namespace {

// Reads the credential; refuses a file that others may read, as a
// password there would be everybody's.
void read_auth(Settings &s) {
  const char *file = std::getenv("HVS_ZK_AUTH_FILE");
  if (file == nullptr || *file == '\0')
    return;
  int fd = ::open(file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    s.auth_problem = std::string("HVS_ZK_AUTH_FILE ") + file + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    return;
  }
  char buf[1024];
  ssize_t n = (st.st_mode & 0077) ? -1 : ::read(fd, buf, sizeof buf - 1);
  ::close(fd);
  if (st.st_mode & 0077) {
    s.auth_problem = std::string("HVS_ZK_AUTH_FILE ") + file +
                     ": readable or writable by others (chmod 600 it)";
    return;
  }
  std::string text(buf, n > 0 ? std::size_t(n) : 0);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
    text.pop_back();
  if (text.find(':') == std::string::npos || text.front() == ':' || text.find('\n') != std::string::npos)
    s.auth_problem = std::string("HVS_ZK_AUTH_FILE ") + file +
                     ": expected one line \"user:password\"";
  else
    s.auth = std::move(text);
}

} // namespace

Settings Settings::from_env(const std::string &hosts) {
  Settings s;
  read_auth(s);
  s.hosts = hosts;
  s.timeout_ms = int(env_number("HVS_ZK_TIMEOUT_MS", 8000, 100, 600000));
  s.session_ms = int(env_number("HVS_ZK_SESSION_MS", 6000, 1000, 600000));
  s.max_packet = std::size_t(
      env_number("HVS_ZK_MAX_PACKET", 1048575, 4096, 1L << 30));
  return s;
}

Budget::Budget(Deadline d) : outer_(!t_budget) {
  if (outer_) {
    t_budget = true;
    t_deadline = d;
  }
}

Budget::~Budget() {
  if (outer_)
    t_budget = false;
}

Deadline Budget::current(std::chrono::milliseconds fallback) {
  return t_budget ? t_deadline : Clock::now() + fallback;
}

std::string encode(std::string_view component) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(component.size());
  for (char ch : component) {
    auto c = static_cast<unsigned char>(ch);
    if (plain(c)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string decode(std::string_view node) {
  std::string out;
  out.reserve(node.size());
  for (std::size_t i = 0; i < node.size(); ++i) {
    if (node[i] != '%') {
      out.push_back(node[i]);
      continue;
    }
    int hi = i + 2 < node.size() ? hex_value(node[i + 1]) : -1;
    int lo = hi >= 0 ? hex_value(node[i + 2]) : -1;
    if (lo < 0)
      return std::string(node); // not ours: shown as it stands
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return out;
}

bool connection_problem(int rc) {
  return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT ||
         rc == ZSESSIONEXPIRED || rc == ZINVALIDSTATE || rc == ZCLOSING ||
         rc == ZSESSIONMOVED;
}

std::string describe(int rc, const Settings &s) {
  switch (rc) {
  case ZCONNECTIONLOSS:
    return "connection to the ZooKeeper ensemble " + s.hosts + " lost";
  case ZOPERATIONTIMEOUT:
    return "no answer from the ZooKeeper ensemble " + s.hosts + " within " +
           std::to_string(s.timeout_ms) + " ms";
  case ZSESSIONEXPIRED:
  case ZINVALIDSTATE:
    return "ZooKeeper session on " + s.hosts +
           " expired (the ensemble was out of reach for longer than " +
           std::to_string(s.session_ms) + " ms)";
  case ZCLOSING:
    return "ZooKeeper client for " + s.hosts + " is closing";
  case ZNOAUTH:
    return "not allowed by the access rights of the node on " + s.hosts +
           (s.auth.empty() ? " (this client gives no credential: set HVS_ZK_AUTH_FILE)"
                           : " (the credential of HVS_ZK_AUTH_FILE has no rights there)");
  default:
    return std::string("ZooKeeper error: ") + zerror(rc) + " (" +
           std::to_string(rc) + ")";
  }
}

void Session::on_event(zhandle_t *, int type, int state, const char *path,
                       void *ctx) {
  auto *self = static_cast<Session *>(ctx);
  bool connected = false;
  std::vector<std::function<void()>> expiry;
  std::shared_ptr<const Listener> listener;
  {
    std::lock_guard lock(self->mu_);
    listener = self->listener_;
    if (type == ZOO_SESSION_EVENT) {
      self->up_.store(state == ZOO_CONNECTED_STATE, std::memory_order_release);
      if (state == ZOO_CONNECTED_STATE) {
        connected = self->state_ != ZOO_CONNECTED_STATE && !self->orphans_.empty();
        self->lost_at_ = {};
      } else if (self->state_ == ZOO_CONNECTED_STATE) {
        self->lost_at_ = Clock::now();
      }
      self->state_ = state;
      if ((state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE) &&
          !self->expired_.exchange(true)) {
        expiry.swap(self->expiry_);
        self->orphans_.clear(); // the ensemble removed the session's nodes
      }
    }
    ++self->events_;
  }
  self->cv_.notify_all();
  if (listener)
    (*listener)(type, state, path);
  for (auto &fn : expiry)
    fn();
  if (connected)
    self->flush_orphans();
}

std::shared_ptr<Session> Session::open(const Settings &s, int &rc,
                                       std::string &why) {
  quiet_client_log();
  if (!s.auth_problem.empty()) {
    rc = ZAUTHFAILED;
    why = s.auth_problem;
    return nullptr;
  }
  const Deadline deadline = Budget::current(s.timeout());
  std::shared_ptr<Session> self(new Session(s));
  errno = 0;
  self->zh_ = zookeeper_init(s.hosts.c_str(), &Session::on_event,
                             s.session_ms, nullptr, self.get(), 0);
  if (self->zh_ == nullptr) {
    rc = ZSYSTEMERROR;
    why = "cannot start a ZooKeeper client for " + s.hosts + ": " +
          (errno ? std::strerror(errno) : "bad host list");
    return nullptr;
  }
  std::unique_lock lock(self->mu_);
  bool up = self->cv_.wait_until(lock, deadline, [&] {
    return self->state_ == ZOO_CONNECTED_STATE || self->expired_.load();
  });
  if (!up || self->state_ != ZOO_CONNECTED_STATE) {
    lock.unlock();
    rc = ZOPERATIONTIMEOUT;
    why = "no server of the ZooKeeper ensemble " + s.hosts +
          " answered within " + std::to_string(s.timeout_ms) + " ms";
    return nullptr;
  }
  lock.unlock();
  if (!s.auth.empty()) {
    auto call = std::make_shared<Call>();
    Holder *ctx = hold(call);
    int submitted = zoo_add_auth(self->zh_, "digest", s.auth.data(), int(s.auth.size()),
                                 void_done, ctx);
    if (submitted != ZOK)
      delete ctx;
    rc = finish(submitted, call, deadline);
    if (rc != ZOK) {
      why = "ZooKeeper ensemble " + s.hosts + " refused the credential of HVS_ZK_AUTH_FILE (" +
            zerror(rc) + ")";
      return nullptr;
    }
  }
  return self;
}

const ACL_vector *Session::acl() const {
  return settings_.auth.empty() ? &ZOO_OPEN_ACL_UNSAFE : &ZOO_CREATOR_ALL_ACL;
}

Session::~Session() {
  if (zh_ != nullptr)
    zookeeper_close(zh_);
}

int64_t Session::id() const {
  const clientid_t *cid = zh_ ? zoo_client_id(zh_) : nullptr;
  return cid ? cid->client_id : 0;
}

int Session::granted_ms() const {
  int ms = zh_ != nullptr ? zoo_recv_timeout(zh_) : 0;
  return ms > 0 ? ms : settings_.session_ms;
}

uint64_t Session::events() const {
  std::lock_guard lock(mu_);
  return events_;
}

void Session::wait_event(uint64_t seen, Deadline deadline) {
  std::unique_lock lock(mu_);
  cv_.wait_until(lock, deadline,
                 [&] { return events_ != seen || expired_.load(); });
}

bool Session::wait_connected(Deadline deadline) {
  std::unique_lock lock(mu_);
  for (;;) {
    if (expired_.load())
      return false;
    if (state_ == ZOO_CONNECTED_STATE)
      return true;
    // A lost connection is waited out for one timeout, shared by the calls
    // made meanwhile.
    Deadline until = deadline;
    if (lost_at_ != Deadline{} && lost_at_ + settings_.timeout() < until)
      until = lost_at_ + settings_.timeout();
    if (cv_.wait_until(lock, until) == std::cv_status::timeout &&
        Clock::now() >= until)
      return state_ == ZOO_CONNECTED_STATE && !expired_.load();
  }
}

void Session::on_change(Listener fn) {
  auto listener = std::make_shared<const Listener>(std::move(fn));
  std::lock_guard lock(mu_);
  listener_ = std::move(listener);
}

void Session::on_expiry(std::function<void()> fn) {
  std::unique_lock lock(mu_);
  if (!expired_.load()) {
    expiry_.push_back(std::move(fn));
    return;
  }
  lock.unlock();
  fn();
}

// Sends again after a connection loss, while the session can still heal.
template <class Submit> int Session::read(Submit &&submit) {
  const Deadline deadline = Budget::current(settings_.timeout());
  int rc = ZOK;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    rc = submit(deadline);
    if (rc != ZCONNECTIONLOSS || !wait_connected(deadline))
      return rc;
  }
  return rc;
}

// Submits with a holder that the completion frees, or frees it here when the
// client refused the call outright.
#define HVS_ZK_SUBMIT(call, deadline, expr)                                    \
  do {                                                                         \
    Holder *ctx = hold(call);                                                  \
    int submitted = (expr);                                                    \
    if (submitted != ZOK)                                                      \
      delete ctx;                                                              \
    rc = finish(submitted, call, deadline);                                    \
  } while (0)

int Session::get(const std::string &path, std::string &data, bool &null, bool watch) {
  return read([&](Deadline deadline) {
    auto call = std::make_shared<Call>();
    int rc;
    HVS_ZK_SUBMIT(call, deadline, zoo_aget(zh_, path.c_str(), watch, data_done, ctx));
    if (rc == ZOK) {
      std::lock_guard lock(call->mu);
      data = std::move(call->data);
      null = call->null;
    }
    return rc;
  });
}

int Session::children(const std::string &path, std::vector<std::string> &out, bool watch) {
  return read([&](Deadline deadline) {
    auto call = std::make_shared<Call>();
    int rc;
    HVS_ZK_SUBMIT(call, deadline,
                  zoo_aget_children(zh_, path.c_str(), watch, strings_done, ctx));
    if (rc == ZOK) {
      std::lock_guard lock(call->mu);
      out = std::move(call->strings);
    }
    return rc;
  });
}

int Session::watch_exists(const std::string &path, bool &exists) {
  int found = read([&](Deadline deadline) {
    auto call = std::make_shared<Call>();
    int rc;
    HVS_ZK_SUBMIT(call, deadline, zoo_aexists(zh_, path.c_str(), 1, stat_done, ctx));
    return rc;
  });
  exists = found == ZOK;
  return found == ZNONODE ? ZOK : found;
}

int Session::sync(const std::string &path) {
  return read([&](Deadline deadline) {
    auto synced = std::make_shared<Call>();
    Holder *sync_ctx = hold(synced);
    int rc = zoo_async(zh_, path.c_str(), string_done, sync_ctx);
    if (rc != ZOK) {
      delete sync_ctx;
      return rc;
    }
    auto call = std::make_shared<Call>();
    HVS_ZK_SUBMIT(call, deadline, zoo_aexists(zh_, path.c_str(), 0, stat_done, ctx));
    // Completions run in the order of the answers: the sync's came first.
    int synced_rc = finish(ZOK, synced, deadline);
    if (synced_rc != ZOK)
      return synced_rc;
    return rc == ZNONODE ? ZOK : rc;
  });
}

int Session::create(const std::string &path, const char *data, int len,
                    int mode, std::string *created) {
  const Deadline deadline = Budget::current(settings_.timeout());
  auto call = std::make_shared<Call>();
  int rc;
  HVS_ZK_SUBMIT(call, deadline,
                zoo_acreate(zh_, path.c_str(), data, len, acl(), mode, string_done, ctx));
  if (rc == ZOK && created != nullptr) {
    std::lock_guard lock(call->mu);
    *created = call->data;
  }
  return rc;
}

int Session::set(const std::string &path, const char *data, int len) {
  const Deadline deadline = Budget::current(settings_.timeout());
  auto call = std::make_shared<Call>();
  int rc;
  HVS_ZK_SUBMIT(call, deadline,
                zoo_aset(zh_, path.c_str(), data, len, -1, stat_done, ctx));
  return rc;
}

int Session::remove(const std::string &path) {
  const Deadline deadline = Budget::current(settings_.timeout());
  auto call = std::make_shared<Call>();
  int rc;
  HVS_ZK_SUBMIT(call, deadline, zoo_adelete(zh_, path.c_str(), -1, void_done, ctx));
  return rc;
}

int Session::multi(int count, const zoo_op_t *ops, zoo_op_result_t *results) {
  const Deadline deadline = Budget::current(settings_.timeout());
  auto call = std::make_shared<Call>();
  // The client writes the results when the answer comes, perhaps after we
  // gave up: they live in the call, and are copied out when in time.
  call->results.resize(std::size_t(count));
  int rc;
  HVS_ZK_SUBMIT(call, deadline,
                zoo_amulti(zh_, count, ops, call->results.data(), void_done, ctx));
  if (rc != ZOPERATIONTIMEOUT && rc != ZINVALIDSTATE && results != nullptr) {
    std::lock_guard lock(call->mu);
    if (call->done)
      std::copy(call->results.begin(), call->results.end(), results);
  }
  return rc;
}

#undef HVS_ZK_SUBMIT

namespace {

struct OrphanCall {
  Session *session;
  std::string path;
  std::string prefix;
};

// Failures after which a deletion is worth sending again on reconnection;
// after the others the node is gone or the client is going.
bool worth_again(int rc) {
  return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT;
}

} // namespace

void Session::remove_later(const std::string &path, const std::string &prefix) {
  {
    std::lock_guard lock(mu_);
    if (expired_.load())
      return;
    orphans_.push_back(Orphan{path, prefix});
    if (state_ != ZOO_CONNECTED_STATE)
      return; // sent when the session is connected again
  }
  flush_orphans();
}

// Sends the deletions of the requests that their callers gave up; one that
// fails for want of a connection comes back to the list, to go out on the
// next reconnection. Runs on the caller's thread or the client's event
// thread; the completions run on the latter.
void Session::flush_orphans() {
  std::vector<Orphan> todo;
  {
    std::lock_guard lock(mu_);
    todo.swap(orphans_);
  }
  // Back to the list, unless the session ended meanwhile.
  static void (*const requeue)(OrphanCall *, int) = [](OrphanCall *c, int rc) {
    if (worth_again(rc)) {
      std::lock_guard lock(c->session->mu_);
      if (!c->session->expired_.load())
        c->session->orphans_.push_back(Orphan{c->path, c->prefix});
    }
    delete c;
  };
  static void (*const deleted)(int, const void *) = [](int rc, const void *ctx) {
    requeue(static_cast<OrphanCall *>(const_cast<void *>(ctx)), rc);
  };
  static void (*const listed)(int, const String_vector *, const void *) =
      [](int rc, const String_vector *sv, const void *ctx) {
        auto *c = static_cast<OrphanCall *>(const_cast<void *>(ctx));
        if (rc != ZOK || sv == nullptr)
          return requeue(c, rc);
        for (int32_t i = 0; i < sv->count; ++i)
          if (std::string_view(sv->data[i]).starts_with(c->prefix)) {
            auto *d = new OrphanCall{c->session, c->path + "/" + sv->data[i], {}};
            if (zoo_adelete(c->session->zh_, d->path.c_str(), -1, deleted, d) != ZOK)
              requeue(d, ZCONNECTIONLOSS);
          }
        delete c;
      };
  for (auto &o : todo) {
    auto *c = new OrphanCall{this, o.path, o.prefix};
    int rc = o.prefix.empty() ? zoo_adelete(zh_, o.path.c_str(), -1, deleted, c)
                              : zoo_aget_children(zh_, o.path.c_str(), 0, listed, c);
    if (rc != ZOK)
      requeue(c, ZCONNECTIONLOSS);
  }
}

} // namespace hvs::zk
