// rig_worker: one process of the fault rig's workload. It logs every event
// (rig_log.h) for rig_check to judge afterwards.
//
//   rig_worker run --log F --name N [--dbs sales,hr] [--ops N] [--seconds S]
//                  [--mix fetch:4,set:2,xhold:3,shold:1] [--hold-ms MS]
//                  [--pause-ms MS] [--idle-s S]
//       A loop, bounded in count and time, of random operations: fetches of
//       a database's configuration, service-wide enable sets, and bare holds
//       of a database's lock. An exclusive hold reads the database's marker
//       key, writes its own value (name:pid:seq), reads it back, waits a
//       little and reads it again; a shared hold reads it twice. After the
//       loop the worker logs "idle" and waits, holding nothing, until
//       SIGTERM or --idle-s, so that its sessions stay open while the lock
//       queues are inspected.
//   rig_worker hold --log F --name N --db D --ready FILE --go FILE [--wait-s S]
//       Takes the database's lock exclusively, writes the marker, creates
//       FILE ready, waits for FILE go (at most S seconds), then reads,
//       writes (again while the registry is unreachable) and reads the
//       marker again and releases.
//   rig_worker prepare --log F [--dbs sales,hr]
//       Makes every service's flags whole: enables each service with all
//       its instances. Exit 0 when every set succeeded.
//   rig_worker mark --log F WORDS...
//       Appends "<now> mark WORDS..." (the orchestration's own events).
//
// The registry and the locks come from HVS_REGISTRY; timeouts from
// HVS_ZK_TIMEOUT_MS, HVS_ZK_SESSION_MS and LKS_TIMEOUT_MS.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hvsapi.h"
#include "lks.h"
#include "mp.h"
#include "prsr.h"
#include "rig_log.h"

namespace {

std::atomic<bool> g_stop{false};
extern "C" void on_term(int) { g_stop = true; }

using Args = std::map<std::string, std::string>;

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= s.size()) {
    std::size_t end = s.find(sep, start);
    if (end == std::string::npos)
      end = s.size();
    if (end > start)
      out.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

long number(const Args &a, const char *key, long fallback) {
  auto it = a.find(key);
  return it == a.end() ? fallback : std::strtol(it->second.c_str(), nullptr, 10);
}

std::string text(const Args &a, const char *key, const char *fallback = "") {
  auto it = a.find(key);
  return it == a.end() ? fallback : it->second;
}

lks_status fresh_status() {
  lks_status st;
  std::memset(&st, 0, sizeof st);
  return st;
}

std::string lower(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return s;
}

bool file_exists(const std::string &path) {
  struct stat sb {};
  return ::stat(path.c_str(), &sb) == 0;
}

void sleep_ms(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

class Worker {
public:
  Worker(const std::string &log, std::string name) : log_(log), name_(std::move(name)) {
    std::random_device rd;
    rng_.seed(rd() ^ uint32_t(getpid()) ^ uint32_t(rig::now_ns()));
  }
  ~Worker() { shut(); }

  bool ok() const { return log_.ok(); }

  void started(const char *mode) {
    auto env = [](const char *v) { return rig::word(std::getenv(v) ? std::getenv(v) : ""); };
    log_.line(rig::now_ns(), "start",
              " name=" + rig::word(name_) + " pid=" + std::to_string(getpid()) + " mode=" + mode +
                  " registry=" + env("HVS_REGISTRY") + " call_ms=" + env("HVS_ZK_TIMEOUT_MS") +
                  " session_ms=" + env("HVS_ZK_SESSION_MS") + " lock_ms=" + env("LKS_TIMEOUT_MS"));
  }
  void event(const char *what, const std::string &fields = {}) {
    log_.line(rig::now_ns(), what, fields);
  }

  // --- the three client handles, made on first need -------------------

  bool library() {
    if (ctx_ != nullptr)
      return true;
    lks_status st = fresh_status();
    std::string why;
    int32_t rc = call("init", "", [&] {
      int32_t r = prsr_init(&st, &ctx_);
      if (r != 0)
        why = lks_status_text(&st);
      return r;
    }, &why);
    if (rc != 0)
      ctx_ = nullptr;
    return rc == 0;
  }

  bool locks() {
    if (lks_ != nullptr)
      return true;
    lks_status st = fresh_status();
    std::string why;
    int32_t rc = call("lkinit", "", [&] {
      lks_version v{2, 1};
      lks_init_params p{};
      p.metactx = plinit(nullptr);
      p.alloc = [](void *, uint64_t n) -> void * { return std::calloc(1, n); };
      p.release = [](void *, void *m) { std::free(m); };
      p.flags = 192;
      int32_t r = lkssinit(&st, &lks_, &v, &p, 272);
      if (r != 0)
        why = lks_status_text(&st);
      return r;
    }, &why);
    if (rc != 0)
      lks_ = nullptr;
    return rc == 0;
  }

  bool registry() {
    if (hvs_ != nullptr)
      return true;
    std::string why;
    int32_t rc = call("hinit", "", [&] {
      char msg[512] = {0};
      uint64_t len = sizeof msg;
      int32_t r = hvsapi_init_ext(&hvs_, 0, msg, &len, 0);
      if (r != 0)
        why = msg;
      return r;
    }, &why);
    if (rc != 0)
      hvs_ = nullptr;
    return rc == 0;
  }

  void shut() {
    if (ctx_ != nullptr) {
      lks_status st = fresh_status();
      call("term", "", [&] { return prsr_terminate(&st, ctx_); });
      ctx_ = nullptr;
    }
    if (lks_ != nullptr) {
      lks_status st = fresh_status();
      call("lkterm", "", [&] { return lkssterm(&st, lks_); });
      lks_ = nullptr;
    }
    if (hvs_ != nullptr) {
      call("hterm", "", [&] { return hvsapi_terminate(hvs_); });
      hvs_ = nullptr;
    }
  }

  // --- library operations ---------------------------------------------

  // Fetches a database's record and logs what each service's flags are
  // (unless only its services are wanted).
  int32_t fetch(const std::string &db, bool record = true) {
    if (!library())
      return -1;
    prsr_cfg *cfg = nullptr;
    lks_status st = fresh_status();
    std::string why;
    uint64_t id = 0;
    int32_t rc = call("fetch", " db=" + db, [&] {
      int32_t r = prsr_fetch_db_config(&st, ctx_, db.c_str(), &cfg);
      if (r == PRSR_ERR_LOCK)
        why = lks_status_text(&st);
      return r;
    }, &why, &id);
    if (rc != 0 || cfg == nullptr)
      return rc;
    std::string fields = " id=" + std::to_string(id) + " db=" + db;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < cfg->service_count; ++i) {
      const prsr_service_cfg *s = cfg->services[i];
      std::string n = lower(s->service_name ? s->service_name : "?");
      names.push_back(n);
      std::string flags;
      for (uint32_t j = 0; j < s->pref_count; ++j)
        flags += s->pref_enabled[j] ? '1' : '0';
      for (uint32_t j = 0; j < s->avail_count; ++j)
        flags += s->avail_enabled[j] ? '1' : '0';
      fields += " svc=" + rig::word(n) + ":" + (s->enabled ? "1" : "0") + ":" +
                (flags.empty() ? "-" : flags);
    }
    if (record)
      event("fetched", fields);
    services_[db] = names;
    lks_status rst = fresh_status();
    prsr_release_db_config(&rst, ctx_, cfg);
    return rc;
  }

  int32_t set_service(const std::string &db, const std::string &svc, uint32_t value) {
    if (!library())
      return -1;
    lks_status st = fresh_status();
    std::string why;
    return call("set", " db=" + db + " svc=" + rig::word(svc) + " val=" + std::to_string(value),
                [&] {
                  int32_t r = prsr_set_service_enabled(&st, ctx_, db.c_str(), svc.c_str(), value);
                  if (r == PRSR_ERR_LOCK)
                    why = lks_status_text(&st);
                  return r;
                },
                &why);
  }

  const std::vector<std::string> *services(const std::string &db) const {
    auto it = services_.find(db);
    return it == services_.end() ? nullptr : &it->second;
  }

  // --- bare holds of a database's lock --------------------------------

  static std::string lock_of(const std::string &db) { return "FLTM.DATABASE.DATABASES." + db; }
  static std::string marker_of(const std::string &db) {
    return "DATABASE.DATABASES." + db + ".RIG_MARKER";
  }

  // 0 with *hold set when granted.
  int32_t take(const std::string &db, bool exclusive, uint64_t *hold) {
    if (!locks())
      return -1;
    const std::string name = lock_of(db);
    lks_status st = fresh_status();
    std::string why;
    int32_t rc = call(exclusive ? "xlock" : "slock", " lock=" + name, [&] {
      int32_t r = exclusive ? lksmutexlock(&st, lks_, name.c_str())
                            : lksshrlock(&st, lks_, name.c_str());
      if (r != 0)
        why = lks_status_text(&st);
      return r;
    }, &why);
    if (rc != 0)
      return rc;
    *hold = ++holds_;
    event("grant", " hold=" + std::to_string(*hold) + " lock=" + name +
                       " mode=" + (exclusive ? "x" : "s"));
    return 0;
  }

  int32_t give_back(const std::string &db, bool exclusive, uint64_t hold) {
    const std::string name = lock_of(db);
    lks_status st = fresh_status();
    std::string why;
    int64_t t0 = 0;
    int32_t rc = call("unlock", " lock=" + name + " hold=" + std::to_string(hold), [&] {
      t0 = rig::now_ns();
      int32_t r = lksunlock(&st, lks_, name.c_str());
      if (r != 0)
        why = lks_status_text(&st);
      return r;
    }, &why);
    log_.line(rig::now_ns(), "release",
              " hold=" + std::to_string(hold) + " lock=" + name + " mode=" +
                  (exclusive ? "x" : "s") + " rc=" + std::to_string(rc) +
                  " start=" + std::to_string(t0),
              why);
    return rc;
  }

  // Reads the marker; logs "read" with the value ('-' when the read failed).
  void read_marker(const std::string &db, uint64_t hold) {
    if (!registry())
      return;
    const std::string key = marker_of(db);
    int64_t t0 = rig::now_ns();
    std::string value, why;
    int32_t rc = key_call(key, why, [&](void *k) {
      char buf[256] = {0};
      uint32_t type = 0, len = sizeof buf - 1;
      int32_t r = hvsapi_get_value(hvs_, k, &type, buf, &len);
      if (r == 0)
        value.assign(buf, strnlen(buf, len));
      else
        why = "get: " + last_error();
      return r;
    });
    log_.line(rig::now_ns(), "read",
              " hold=" + std::to_string(hold) + " key=" + key + " val=" +
                  (rc == 0 ? rig::word(value) : std::string("-")) + " rc=" + std::to_string(rc) +
                  " start=" + std::to_string(t0),
              why);
  }

  // Writes name:pid:seq to the marker; logs "write" with the result.
  int32_t write_marker(const std::string &db, uint64_t hold) {
    if (!registry())
      return HVS_ERR_UNREACHABLE;
    const std::string key = marker_of(db);
    const std::string value =
        rig::word(name_) + ":" + std::to_string(getpid()) + ":" + std::to_string(++writes_);
    int64_t t0 = rig::now_ns();
    std::string why;
    int32_t rc = key_call(key, why, [&](void *k) {
      int32_t r = hvsapi_set_value(hvs_, k, HVS_TYPE_TEXT, value.c_str(),
                                   uint32_t(value.size() + 1));
      if (r != 0)
        why = "set: " + last_error();
      return r;
    });
    log_.line(rig::now_ns(), "write",
              " hold=" + std::to_string(hold) + " key=" + key + " val=" + value +
                  " rc=" + std::to_string(rc) + " start=" + std::to_string(t0),
              why);
    return rc;
  }

  std::mt19937 &rng() { return rng_; }

private:
  template <class F>
  int32_t call(const char *op, const std::string &fields, F &&fn, std::string *why = nullptr,
               uint64_t *id_out = nullptr) {
    uint64_t id = ++calls_;
    if (id_out != nullptr)
      *id_out = id;
    int64_t t0 = rig::now_ns();
    log_.line(t0, "call", " id=" + std::to_string(id) + " op=" + op + fields);
    int32_t rc = fn();
    int64_t t1 = rig::now_ns();
    log_.line(t1, "end",
              " id=" + std::to_string(id) + " op=" + op + " rc=" + std::to_string(rc) +
                  " dur=" + std::to_string(t1 - t0),
              why ? *why : std::string());
    return rc;
  }

  // open, fn(key), close; the first failure's code.
  int32_t key_call(const std::string &key, std::string &why,
                   const std::function<int32_t(void *)> &fn) {
    void *k = nullptr;
    int32_t rc = hvsapi_open_key(hvs_, &k, key.c_str());
    if (rc != 0) {
      why = "open: " + last_error();
      return rc;
    }
    rc = fn(k);
    int32_t crc = hvsapi_close_key(hvs_, k);
    return rc != 0 ? rc : crc;
  }

  std::string last_error() {
    uint32_t code = 0;
    char msg[512] = {0};
    uint32_t len = sizeof msg;
    if (hvsapi_get_last_error(hvs_, &code, msg, &len) != 0)
      return "?";
    return msg;
  }

  rig::Log log_;
  std::string name_;
  std::mt19937 rng_;
  prsr_ctx *ctx_ = nullptr;
  void *lks_ = nullptr;
  void *hvs_ = nullptr;
  uint64_t calls_ = 0;
  uint64_t holds_ = 0;
  uint64_t writes_ = 0;
  std::map<std::string, std::vector<std::string>> services_;
};

// --- modes ---------------------------------------------------------------

int run(const Args &a) {
  Worker w(text(a, "log"), text(a, "name", "worker"));
  if (!w.ok())
    return 2;
  w.started("run");
  const auto dbs = split(text(a, "dbs", "sales,hr"), ',');
  const long ops = number(a, "ops", 100000);
  const int64_t end = rig::now_ns() + number(a, "seconds", 10) * 1000000000LL;
  const long hold_ms = std::max(1L, number(a, "hold-ms", 30));
  const long pause_ms = std::max(1L, number(a, "pause-ms", 40));
  // Weights of fetch, set, exclusive hold, shared hold.
  std::vector<long> weight{4, 2, 3, 1};
  const char *kinds[] = {"fetch", "set", "xhold", "shold"};
  for (const auto &item : split(text(a, "mix"), ','))
    for (std::size_t i = 0; i < 4; ++i)
      if (item.starts_with(std::string(kinds[i]) + ":"))
        weight[i] = std::strtol(item.c_str() + std::strlen(kinds[i]) + 1, nullptr, 10);
  std::discrete_distribution<int> pick(weight.begin(), weight.end());
  auto &rng = w.rng();
  auto below = [&](long n) { return long(rng() % uint32_t(n)); };

  for (long i = 0; i < ops && rig::now_ns() < end && !g_stop; ++i) {
    const std::string &db = dbs[std::size_t(below(long(dbs.size())))];
    int kind = pick(rng);
    const auto *svcs = w.services(db);
    if (kind == 1 && (svcs == nullptr || svcs->empty()))
      kind = 0; // the services are learnt from a fetch
    if (kind == 0) {
      w.fetch(db);
    } else if (kind == 1) {
      w.set_service(db, (*svcs)[std::size_t(below(long(svcs->size())))], uint32_t(below(2)));
    } else {
      bool exclusive = kind == 2;
      uint64_t hold = 0;
      if (w.take(db, exclusive, &hold) == 0) {
        w.read_marker(db, hold);
        if (exclusive) {
          w.write_marker(db, hold);
          w.read_marker(db, hold);
        }
        sleep_ms(1 + below(hold_ms));
        w.read_marker(db, hold);
        w.give_back(db, exclusive, hold);
      }
    }
    sleep_ms(1 + below(pause_ms));
  }
  if (!g_stop) {
    w.event("idle");
    const int64_t idle_end = rig::now_ns() + number(a, "idle-s", 300) * 1000000000LL;
    while (!g_stop && rig::now_ns() < idle_end)
      sleep_ms(50);
  }
  w.shut();
  w.event("exit");
  return 0;
}

int hold(const Args &a) {
  Worker w(text(a, "log"), text(a, "name", "holder"));
  if (!w.ok())
    return 2;
  w.started("hold");
  const std::string db = text(a, "db", "sales");
  const int64_t end = rig::now_ns() + number(a, "wait-s", 60) * 1000000000LL;
  // The registry client first, so that the hold is not spent connecting.
  while (!w.registry() && rig::now_ns() < end && !g_stop)
    sleep_ms(200);
  uint64_t id = 0;
  if (w.take(db, true, &id) != 0) {
    w.shut();
    w.event("exit");
    return 3;
  }
  w.read_marker(db, id);
  w.write_marker(db, id);
  w.read_marker(db, id);
  if (rig::Log ready(text(a, "ready")); !ready.ok())
    return 2;
  w.event("ready");
  const std::string go = text(a, "go");
  while (!file_exists(go) && rig::now_ns() < end && !g_stop)
    sleep_ms(20);
  w.event("go");
  w.read_marker(db, id);
  // As a late writer would: again while the ensemble cannot be reached, so
  // that the write is made once the connection is back.
  while (w.write_marker(db, id) == HVS_ERR_UNREACHABLE && rig::now_ns() < end && !g_stop)
    sleep_ms(250);
  w.read_marker(db, id);
  w.give_back(db, true, id);
  w.shut();
  w.event("exit");
  return 0;
}

int prepare(const Args &a) {
  Worker w(text(a, "log"), "prepare");
  if (!w.ok())
    return 2;
  w.started("prepare");
  int failures = 0;
  for (const auto &db : split(text(a, "dbs", "sales,hr"), ',')) {
    if (w.fetch(db, false) != 0) {
      ++failures;
      continue;
    }
    for (const auto &svc : *w.services(db)) {
      // Enabled whole: the service and every one of its instances.
      bool whole = false;
      for (int attempt = 0; attempt < 3 && !whole; ++attempt)
        whole = w.set_service(db, svc, 1) == 0;
      failures += whole ? 0 : 1;
    }
  }
  w.shut();
  w.event("exit");
  return failures == 0 ? 0 : 1;
}

int mark(int argc, char **argv) {
  std::string log, fields;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--log") == 0 && i + 1 < argc)
      log = argv[++i];
    else
      fields += std::string(" ") + rig::word(argv[i]);
  }
  rig::Log out(log);
  if (!out.ok())
    return 2;
  out.line(rig::now_ns(), "mark", fields);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: rig_worker run|hold|prepare|mark [--key value]...\n");
    return 2;
  }
  const std::string mode = argv[1];
  if (mode == "mark")
    return mark(argc, argv);
  Args a;
  for (int i = 2; i + 1 < argc; i += 2)
    if (std::strncmp(argv[i], "--", 2) == 0)
      a[argv[i] + 2] = argv[i + 1];
  if (a.find("log") == a.end()) {
    std::fprintf(stderr, "rig_worker: --log FILE is required\n");
    return 2;
  }
  std::signal(SIGTERM, on_term);
  std::signal(SIGINT, on_term);
  std::signal(SIGPIPE, SIG_IGN);
  if (mode == "run")
    return run(a);
  if (mode == "hold")
    return hold(a);
  if (mode == "prepare")
    return prepare(a);
  std::fprintf(stderr, "rig_worker: unknown mode %s\n", mode.c_str());
  return 2;
}
