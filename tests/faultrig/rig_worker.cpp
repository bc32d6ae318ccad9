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

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hvsapi.h"
#include "lks.h"
#include "mp.h"
#include "prsr.h"
#include "rig_log.h"

namespace {

std::atomic<bool> g_stop{false};
extern "C" void on_term(int) { g_stop = true; }

struct Options {
  std::string log, name, db = "sales", ready, go;
  std::vector<std::string> dbs{"sales", "hr"}, mix, words;
  long ops = 100000, seconds = 10, hold_ms = 30, pause_ms = 40, idle_s = 300, wait_s = 60;
};

void sleep_ms(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
int64_t after_s(long s) { return rig::now_ns() + s * 1000000000LL; }
bool before(int64_t end) { return !g_stop && rig::now_ns() < end; }

struct Worker {
  Worker(const std::string &log, const std::string &name, const std::string &mode)
      : log_(log), name_(rig::word(name)) {
    auto env = [](const char *v) { return rig::word(std::getenv(v) ? std::getenv(v) : ""); };
    event("start", fmt::format(" name={} pid={} mode={} registry={} call_ms={} session_ms={} "
                               "lock_ms={}",
                               name_, getpid(), mode, env("HVS_REGISTRY"), env("HVS_ZK_TIMEOUT_MS"),
                               env("HVS_ZK_SESSION_MS"), env("LKS_TIMEOUT_MS")));
  }
  ~Worker() {
    shut();
    event("exit");
  }

  void event(const char *what, const std::string &fields = {}) {
    log_.line(rig::now_ns(), what, fields);
  }

  // --- the three client handles, made on first need -------------------

  // Whether handle is made, by a logged call of init if need be.
  template <class T, class F> bool made(T *&handle, const char *op, F &&init) {
    if (!handle && call(op, "", init) != 0)
      handle = nullptr;
    return handle != nullptr;
  }
  bool library() {
    return made(ctx_, "init", [&] { return prsr_init(&st_, &ctx_); });
  }
  bool locks() {
    return made(lks_, "lkinit", [&] {
      lks_version v{2, 1};
      lks_init_params p{};
      p.metactx = plinit(nullptr);
      p.alloc = [](void *, uint64_t n) -> void * { return std::calloc(1, n); };
      p.release = [](void *, void *m) { std::free(m); };
      p.flags = 192;
      return lkssinit(&st_, &lks_, &v, &p, 272);
    });
  }
  bool registry() {
    return made(hvs_, "hinit", [&] {
      char msg[512] = {0};
      uint64_t len = sizeof msg;
      const int32_t r = hvsapi_init_ext(&hvs_, 0, msg, &len, 0);
      why_ = msg;
      return r;
    });
  }

  void shut() {
    if (ctx_)
      call("term", "", [&] { return prsr_terminate(&st_, std::exchange(ctx_, {})); });
    if (lks_)
      call("lkterm", "", [&] { return lkssterm(&st_, std::exchange(lks_, {})); });
    if (hvs_)
      call("hterm", "", [&] { return hvsapi_terminate(std::exchange(hvs_, {})); });
  }

  // --- library operations ---------------------------------------------

  // Fetches a database's record, learns its services and logs what each
  // one's flags are (unless only its services are wanted).
  int32_t fetch(const std::string &db, bool record = true) {
    prsr_cfg *cfg = nullptr;
    if (!library())
      return -1;
    int32_t rc = call("fetch", " db=" + db,
                      [&] { return prsr_fetch_db_config(&st_, ctx_, db.c_str(), &cfg); });
    if (rc != 0 || cfg == nullptr)
      return rc;
    std::string fields = fmt::format(" id={} db={}", calls_, db); // the fetch call's id
    auto &names = services[db];
    names.clear();
    for (uint32_t i = 0; i < cfg->service_count; ++i) {
      const prsr_service_cfg *s = cfg->services[i];
      std::string n = s->service_name ? s->service_name : "?", flags;
      for (char &c : n)
        c = char(std::tolower(static_cast<unsigned char>(c)));
      for (uint32_t j = 0; j < s->pref_count; ++j)
        flags += s->pref_enabled[j] ? '1' : '0';
      for (uint32_t j = 0; j < s->avail_count; ++j)
        flags += s->avail_enabled[j] ? '1' : '0';
      fields += fmt::format(" svc={}:{}:{}", rig::word(n), s->enabled ? 1 : 0, rig::word(flags));
      names.push_back(n);
    }
    if (record)
      event("fetched", fields);
    lks_status rst{};
    prsr_release_db_config(&rst, ctx_, cfg);
    return rc;
  }

  int32_t set_service(const std::string &db, const std::string &svc, uint32_t value) {
    if (!library())
      return -1;
    return call("set", fmt::format(" db={} svc={} val={}", db, rig::word(svc), value), [&] {
      return prsr_set_service_enabled(&st_, ctx_, db.c_str(), svc.c_str(), value);
    });
  }

  // --- bare holds of a database's lock --------------------------------

  // A bare hold: reads the marker and, if exclusive, writes its own value
  // and reads it back; then between(hold), reads it again and releases.
  // The lock call's result: 0 when granted.
  template <class F> int32_t hold(const std::string &db, bool x, F &&between) {
    const std::string name = "FLTM.DATABASE.DATABASES." + db;
    if (!locks())
      return -1;
    int32_t rc = call(x ? "xlock" : "slock", " lock=" + name, [&] {
      return x ? lksmutexlock(&st_, lks_, name.c_str()) : lksshrlock(&st_, lks_, name.c_str());
    });
    if (rc != 0)
      return rc;
    const uint64_t id = ++holds_;
    const char mode = x ? 'x' : 's';
    event("grant", fmt::format(" hold={} lock={} mode={}", id, name, mode));
    marker(db, id, false);
    if (x) {
      marker(db, id, true);
      marker(db, id, false);
    }
    between(id);
    marker(db, id, false);
    int64_t t0 = 0;
    rc = call("unlock", fmt::format(" lock={} hold={}", name, id), [&] {
      t0 = rig::now_ns();
      return lksunlock(&st_, lks_, name.c_str());
    });
    log_.line(rig::now_ns(), "release",
              fmt::format(" hold={} lock={} mode={} rc={} start={}", id, name, mode, rc, t0), why_);
    return 0;
  }

  // Reads the marker, or writes name:pid:seq to it; logs "read" or "write"
  // with the value ('-' for a read that failed), the result and the start.
  int32_t marker(const std::string &db, uint64_t hold, bool write) {
    if (!registry())
      return HVS_ERR_UNREACHABLE;
    const std::string key = "DATABASE.DATABASES." + db + ".RIG_MARKER";
    std::string value = write ? fmt::format("{}:{}:{}", name_, getpid(), ++writes_) : "", why;
    const int64_t t0 = rig::now_ns();
    char buf[256] = {0};
    uint32_t type = 0, len = sizeof buf - 1;
    void *k = nullptr;
    int32_t rc = 0;
    // One step's result: the first failure is kept, with the client's text.
    const auto step = [&](const char *what, int32_t r) {
      char msg[512] = {0};
      uint32_t code = 0, n = sizeof msg;
      if (r != 0 && rc == 0 && (rc = r) != 0)
        why = what + std::string(hvsapi_get_last_error(hvs_, &code, msg, &n) == 0 ? msg : "?");
      return r == 0;
    };
    if (step("open: ", hvsapi_open_key(hvs_, &k, key.c_str()))) {
      step(write ? "set: " : "get: ",
           write
               ? hvsapi_set_value(hvs_, k, HVS_TYPE_TEXT, value.c_str(), uint32_t(value.size() + 1))
               : hvsapi_get_value(hvs_, k, &type, buf, &len));
      step("close: ", hvsapi_close_key(hvs_, k));
    }
    if (rc == 0 && !write)
      value = rig::word(std::string(buf, strnlen(buf, len)));
    log_.line(rig::now_ns(), write ? "write" : "read",
              fmt::format(" hold={} key={} val={} rc={} start={}", hold, key,
                          write || rc == 0 ? value : "-", rc, t0),
              why);
    return rc;
  }

  std::map<std::string, std::vector<std::string>> services; // learnt by fetch

  // fn() as one logged call: "call" before, "end" with the result after.
  // A failure's text is what fn left in why_, else the status record's.
  template <class F> int32_t call(const char *op, const std::string &fields, F &&fn) {
    const uint64_t id = ++calls_;
    st_ = {};
    why_.clear();
    const int64_t t0 = rig::now_ns();
    log_.line(t0, "call", fmt::format(" id={} op={}{}", id, op, fields));
    const int32_t rc = fn();
    const int64_t t1 = rig::now_ns();
    why_ = rc == 0 ? "" : why_.empty() ? lks_status_text(&st_) : why_;
    log_.line(t1, "end", fmt::format(" id={} op={} rc={} dur={}", id, op, rc, t1 - t0), why_);
    return rc;
  }

  rig::Log log_;
  std::string name_, why_; // why_: the text of the last call's failure
  lks_status st_{};        // the status record of the call under way
  prsr_ctx *ctx_ = nullptr;
  void *lks_ = nullptr;
  void *hvs_ = nullptr;
  uint64_t calls_ = 0, holds_ = 0, writes_ = 0;
};

// --- modes ---------------------------------------------------------------

int run(Worker &w, const Options &o) {
  const int64_t end = after_s(o.seconds);
  const long hold_ms = std::max(1L, o.hold_ms), pause_ms = std::max(1L, o.pause_ms);
  // Weights of fetch, set, exclusive hold, shared hold.
  std::vector<long> weight{4, 2, 3, 1};
  const std::string kinds[] = {"fetch:", "set:", "xhold:", "shold:"};
  for (const auto &item : o.mix)
    for (std::size_t i = 0; i < 4; ++i)
      if (item.starts_with(kinds[i]))
        weight[i] = std::strtol(item.c_str() + kinds[i].size(), nullptr, 10);
  std::discrete_distribution<int> pick(weight.begin(), weight.end());
  std::mt19937 rng(std::random_device{}() ^ uint32_t(getpid()) ^ uint32_t(rig::now_ns()));
  auto below = [&](std::size_t n) { return std::size_t(rng() % uint32_t(n)); };

  for (long i = 0; i < o.ops && before(end); ++i) {
    const std::string &db = o.dbs[below(o.dbs.size())];
    const auto &svcs = w.services[db];
    int kind = pick(rng);
    if (kind == 1 && svcs.empty())
      kind = 0; // the services are learnt from a fetch
    if (kind == 0) {
      w.fetch(db);
    } else if (kind == 1) {
      w.set_service(db, svcs[below(svcs.size())], uint32_t(below(2)));
    } else {
      w.hold(db, kind == 2, [&](uint64_t) { sleep_ms(1 + long(below(std::size_t(hold_ms)))); });
    }
    sleep_ms(1 + long(below(std::size_t(pause_ms))));
  }
  if (!g_stop) {
    w.event("idle");
    for (const int64_t idle_end = after_s(o.idle_s); before(idle_end);)
      sleep_ms(50);
  }
  return 0;
}

int hold(Worker &w, const Options &o) {
  const int64_t end = after_s(o.wait_s);
  bool ready = false;
  // The registry client first, so that the hold is not spent connecting.
  while (!w.registry() && before(end))
    sleep_ms(200);
  const int32_t rc = w.hold(o.db, true, [&](uint64_t id) {
    struct stat sb {};
    if (!(ready = rig::Log(o.ready).ok()))
      return;
    w.event("ready");
    while (::stat(o.go.c_str(), &sb) != 0 && before(end))
      sleep_ms(20);
    w.event("go");
    w.marker(o.db, id, false);
    // As a late writer would: again while the ensemble cannot be reached,
    // so that the write is made once the connection is back.
    while (w.marker(o.db, id, true) == HVS_ERR_UNREACHABLE && before(end))
      sleep_ms(250);
  });
  return rc != 0 ? 3 : ready ? 0 : 2;
}

int prepare(Worker &w, const Options &o) {
  int failures = 0;
  for (const auto &db : o.dbs) {
    failures += w.fetch(db, false) != 0; // which also learns the services
    // Enabled whole: the service and every one of its instances.
    for (const auto &svc : w.services[db]) {
      int32_t rc = -1;
      for (int attempt = 0; attempt < 3 && rc != 0; ++attempt)
        rc = w.set_service(db, svc, 1);
      failures += rc != 0;
    }
  }
  return failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  Options o;
  CLI::App app{"rig_worker: one process of the fault rig's workload"};
  app.fallthrough()->require_subcommand(1);
  app.add_option("--log", o.log, "the event log, appended to")->required();
  app.add_option("--name", o.name);
  app.add_option("--db", o.db);
  app.add_option("--ready", o.ready);
  app.add_option("--go", o.go);
  app.add_option("--dbs", o.dbs)->delimiter(',');
  app.add_option("--mix", o.mix)->delimiter(',');
  app.add_option("--ops", o.ops);
  app.add_option("--seconds", o.seconds);
  app.add_option("--hold-ms", o.hold_ms);
  app.add_option("--pause-ms", o.pause_ms);
  app.add_option("--idle-s", o.idle_s);
  app.add_option("--wait-s", o.wait_s);
  for (const char *mode : {"run", "hold", "prepare"})
    app.add_subcommand(mode);
  app.add_subcommand("mark")->add_option("words", o.words);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  const std::string mode = app.get_subcommands().front()->get_name();
  if (mode == "mark") {
    std::string fields;
    for (const auto &word : o.words)
      fields += " " + rig::word(word);
    rig::Log out(o.log);
    out.line(rig::now_ns(), "mark", fields);
    return out.ok() ? 0 : 2;
  }
  for (int sig : {SIGTERM, SIGINT, SIGPIPE})
    std::signal(sig, sig == SIGPIPE ? SIG_IGN : on_term);
  Worker w(o.log, o.name.empty() ? mode : o.name, mode);
  if (!w.log_.ok())
    return 2;
  return mode == "run" ? run(w, o) : mode == "hold" ? hold(w, o) : prepare(w, o);
}
