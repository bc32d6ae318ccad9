// rig_check: judges the logs of a fault-rig run.
//
//   rig_check DIR...
//       Each DIR is one scenario: the workers' logs (*.log, rig_log.h), the
//       orchestration's marks (marks.log) and the lock queues as they were
//       once the faults were over (queues.log). Prints every violation with
//       the events involved, then per scenario a summary with figures.
//       Exit 0 when there is no violation, 1 otherwise, 2 on bad input.
//   rig_check queues --zk HOSTS --root ROOT --out FILE
//       Lists every lock request under ROOT/locks on the ensemble (with its
//       owner's session) into FILE, for a later rig_check DIR.
//
// What is held against the logs:
//  - no two exclusive holds of one lock overlap, and no shared hold overlaps
//    an exclusive one. A hold is taken from the return of its lock call to
//    the start of its unlock call (or the last event of a process that
//    died holding it), inside the real hold, so an overlap is certain.
//    Holds whose release reported the lock lost (LKS_ERR_LOST) are listed
//    apart: for them, no write of theirs may land after another process
//    was granted the lock.
//  - an exclusive holder, once it has written the marker, only reads back
//    values it wrote itself; a shared holder reads one value throughout.
//  - every fetched record has each service's flag equal to all of its
//    instances' flags, unless the last service-wide set of that service
//    before the fetch did not finish (killed or failed) and no complete one
//    followed.
//  - no lock request is left in a queue but those of live holders.
//  - no call waited past its limit (limit_of below; the timeouts are read
//    from the environment as the library reads them).
//  - every process ended well, and the SQLite file passed its integrity
//    check (marks of the rig).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <deque>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <ranges>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>
#include <zookeeper/zookeeper.h>

#include "rig_log.h"

namespace {

constexpr int64_t kMs = 1000000;
// The margins on top of the limits of lock and unlock calls, of whole
// library calls and of one registry client call.
constexpr int64_t kLockMargin = 1000 * kMs, kLibraryMargin = 1000 * kMs,
                  kRegistryMargin = 1000 * kMs;
constexpr std::size_t kShownPerKind = 12; // violations printed per kind

int64_t env_ms(const char *name, long fallback) {
  const char *v = std::getenv(name);
  char *end = nullptr;
  const long n = v != nullptr ? std::strtol(v, &end, 10) : -1;
  return (n < 0 || *v == '\0' || *end != '\0' ? fallback : n) * kMs;
}

// The timeouts, read as the library reads them (its defaults when unset).
const int64_t kCallNs = env_ms("HVS_ZK_TIMEOUT_MS", 8000),
              kSessionNs = env_ms("HVS_ZK_SESSION_MS", 6000),
              kLockNs = env_ms("LKS_TIMEOUT_MS", 20000);

// Which limit an operation of the worker has.
int64_t limit_of(const std::string &op) {
  if (op == "xlock" || op == "slock" || op == "unlock")
    return kLockNs + kLockMargin;
  if (op == "init" || op == "fetch" || op == "set" || op == "term")
    return kLockNs + kCallNs + kLibraryMargin;
  return kCallNs + kRegistryMargin; // hinit, lkinit, read, write, ...
}

std::string secs(int64_t ns) { return fmt::format("{:.3f} s", double(ns) / 1e9); }

// ---- the logs ---------------------------------------------------------------

struct Line {
  std::string where, raw; // file:line, and the line itself
  int64_t t = 0;
  std::string event{};
  std::map<std::string, std::string> f{}; // key=value; svc=, repeated, joined by spaces

  std::string get(const std::string &k) const { return f.contains(k) ? f.at(k) : ""; }
  long long num(const std::string &k, long long fallback = -1) const {
    return f.contains(k) ? std::strtoll(f.at(k).c_str(), nullptr, 10) : fallback;
  }
};

struct Proc {
  std::deque<Line> lines; // in time order; a worker's starts with its start event
  std::string name() const { return lines.front().get("name"); }
  long pid() const { return long(lines.front().num("pid", 0)); }
  bool exited() const { return lines.back().event == "exit"; }
  int64_t last() const { return lines.back().t; }
};

// A call of the library, the lock service or the registry client; the
// marker's reads and writes are one line each, start and end in one.
struct Call {
  const Proc *proc;
  std::string op;
  const Line *start, *end; // end null: never returned
  int64_t t0;
  int rc() const { return end ? int(end->num("rc")) : -1; }
  int64_t dur() const { return !end ? -1 : end == start ? end->t - t0 : end->num("dur"); }
};

struct Hold {
  const Proc *proc;
  std::string lock;
  bool exclusive;
  const Line *grant, *release = nullptr; // release null: the process died holding it
  std::vector<const Line *> marker{};    // its reads and writes, in order
  bool lost() const { return release && release->num("rc") == 5; }
  // The inner interval: from the lock call's return to the unlock call's start.
  int64_t from() const { return grant->t; }
  int64_t to() const { return release ? release->num("start", release->t) : proc->last(); }
};

struct Scenario {
  std::string name;
  std::deque<Proc> procs;
  Proc marks, queues;
  std::deque<Call> calls;
  std::deque<Hold> holds;
  std::vector<const Line *> fetched;
  std::map<std::string, const Line *> writer_of; // marker value -> write
  std::vector<std::tuple<std::string, std::string, std::vector<const Line *>>> violations;
  int inconsistent = 0, explained = 0; // services of fetched records

  void flag(const std::string &kind, const std::string &what, std::vector<const Line *> ev) {
    violations.emplace_back(kind, what, std::move(ev)); // kind, what, the events involved
  }
  // ev and, when the value is a marker written in the run, its write.
  std::vector<const Line *> with_writer(std::vector<const Line *> ev, const std::string &v) const {
    if (auto w = writer_of.find(v); w != writer_of.end())
      ev.push_back(w->second);
    return ev;
  }
};

bool read_scenario(const std::string &dir, Scenario &s) {
  namespace fs = std::filesystem;
  s.name = (fs::path(dir) / "").parent_path().filename();
  std::error_code ec;
  std::set<fs::path> files;
  for (const auto &e : fs::directory_iterator(dir, ec))
    if (e.path().extension() == ".log")
      files.insert(e.path());
  if (ec) {
    fmt::print(stderr, "rig_check: cannot read {}: {}\n", dir, ec.message());
    return false;
  }
  for (const auto &path : files) {
    const std::string f = path.filename();
    Proc &p = f == "marks.log" ? s.marks : f == "queues.log" ? s.queues : s.procs.emplace_back();
    std::ifstream in(path);
    std::string raw;
    // One Line per event; a last line cut short by a kill is left out.
    for (int n = 1; std::getline(in, raw) && !in.eof(); ++n) {
      Line l{.where = fmt::format("{}/{}:{}", s.name, f, n), .raw = raw};
      std::istringstream words(raw);
      if (!(words >> l.t >> l.event))
        continue;
      for (std::string w, rest; words >> w;) {
        const auto eq = w.find('=');
        const std::string key = w.substr(0, eq);
        std::string value = eq == w.npos ? "" : w.substr(eq + 1);
        if (key == "text" && std::getline(words, rest)) // free text, to the end
          value += rest;
        l.f[key] = key == "svc" && l.f.contains(key) ? l.f[key] + " " + value : value;
      }
      p.lines.push_back(std::move(l));
    }
  }
  std::erase_if(s.procs, [](const Proc &p) { return p.lines.empty(); });
  return true;
}

// Calls, holds and fetched records out of each process's events.
void index(Scenario &s) {
  for (const Proc &p : s.procs) {
    std::map<long long, Call *> calls; // the open ones, by id
    std::map<long long, Hold *> holds;
    for (const Line &l : p.lines) {
      const long long id = l.num("id"), hold = l.num("hold");
      if (l.event == "write" && l.num("rc") == 0)
        s.writer_of[l.get("val")] = &l;
      if (l.event == "call")
        calls[id] = &s.calls.emplace_back(&p, l.get("op"), &l, nullptr, l.t);
      else if (l.event == "end" && calls.contains(id))
        calls.extract(id).mapped()->end = &l;
      else if (l.event == "grant")
        holds[hold] = &s.holds.emplace_back(&p, l.get("lock"), l.get("mode") == "x", &l);
      else if (l.event == "release" && holds.contains(hold))
        holds.extract(hold).mapped()->release = &l;
      else if ((l.event == "read" || l.event == "write") && holds.contains(hold)) {
        holds[hold]->marker.push_back(&l);
        s.calls.emplace_back(&p, l.event, &l, &l, l.num("start", l.t));
      } else if (l.event == "fetched")
        s.fetched.push_back(&l);
    }
  }
}

// ---- the checks ----------------------------------------------------------

// Holds of one lock by two processes at once, and writes of a lost hold
// (listed apart) made once another process had the lock.
void check_overlaps(Scenario &s) {
  std::map<std::string, std::vector<const Hold *>> by_lock;
  for (const Hold &h : s.holds)
    by_lock[h.lock].push_back(&h);
  for (auto &[lock, hs] : by_lock) {
    std::sort(hs.begin(), hs.end(),
              [](const Hold *a, const Hold *b) { return a->from() < b->from(); });
    for (std::size_t i = 0; i < hs.size(); ++i) {
      const Hold &a = *hs[i], *taker = nullptr; // the first other process's hold after a's
      for (std::size_t j = i + 1; j < hs.size(); ++j) {
        const Hold &b = *hs[j];
        if (!taker && b.proc != a.proc && b.from() > a.from())
          taker = &b;
        if (b.from() < a.to() && a.proc != b.proc && (a.exclusive || b.exclusive) && !a.lost() &&
            !b.lost())
          s.flag(a.exclusive && b.exclusive ? "exclusive holds overlap"
                                            : "shared hold inside an exclusive one",
                 fmt::format("{}: {} and {} held it together for {}", lock, a.proc->name(),
                             b.proc->name(), secs(std::min(a.to(), b.to()) - b.from())),
                 {a.grant, b.grant, a.release, b.release});
      }
      for (const Line *w : a.marker)
        if (a.lost() && taker && w->event == "write" && w->num("rc") == 0 &&
            w->num("start", w->t) > taker->from())
          s.flag("write landed after the lock was lost",
                 fmt::format("{}: {} wrote {} {} after {} was granted the lock", lock,
                             a.proc->name(), w->get("val"),
                             secs(w->num("start", w->t) - taker->from()), taker->proc->name()),
                 {a.grant, taker->grant, w, a.release});
    }
  }
}

// What a hold read of the marker (lost holds are judged by their writes).
void check_values(Scenario &s) {
  for (const Hold &h : s.holds) {
    if (h.lost())
      continue;
    std::set<std::string> mine;
    bool wrote = false, landed = false;
    const Line *before = nullptr; // a shared hold's first read, an exclusive one's last unwritten
    for (const Line *l : h.marker) {
      const std::string v = l->get("val");
      if (l->event == "write") {
        wrote = true;
        mine.insert(v);
        landed = landed || l->num("rc") == 0;
      } else if (l->num("rc") != 0) {
        continue;
      } else if (!h.exclusive && before && v != before->get("val")) {
        s.flag("marker changed in a shared hold",
               fmt::format("{}: {} read {} then {}", h.lock, h.proc->name(), before->get("val"), v),
               s.with_writer({h.grant, before, l}, v));
      } else if (h.exclusive && wrote && !mine.contains(v) &&
                 (landed || !before || v != before->get("val"))) {
        s.flag("foreign marker value in an exclusive hold",
               fmt::format("{}: {} read {} after writing its own", h.lock, h.proc->name(), v),
               s.with_writer({h.grant, l}, v));
      } else if (h.exclusive ? !wrote : !before) {
        before = l;
      }
    }
  }
}

// An inconsistent service in a fetched record is explained only by a
// service-wide set that did not finish with no complete one after it.
void check_records(Scenario &s) {
  std::map<std::string, std::vector<const Call *>> sets; // by db/svc
  for (const Call &c : s.calls)
    if (c.op == "set")
      sets[c.start->get("db") + "/" + c.start->get("svc")].push_back(&c);
  for (const Line *f : s.fetched)
    for (std::istringstream items(f->get("svc")); // name:flag:instance flags, each
         const std::string &item : std::ranges::istream_view<std::string>(items)) {
      const auto c2 = item.rfind(':');
      if (c2 == item.npos || c2 < 2 || item[c2 - 2] != ':' || item[c2 - 1] == ':')
        continue;
      const std::string svc = item.substr(0, c2 - 2), inst = item.substr(c2 + 1);
      const char flag = item[c2 - 1];
      if (inst == "-" || inst.find_first_not_of(flag) == inst.npos)
        continue;
      ++s.inconsistent;
      // The record reflects the registry before the fetched line: the last
      // complete set before it, and anything unfinished or failed since.
      const auto &all = sets[f->get("db") + "/" + svc];
      const Call *complete = nullptr;
      bool broken = false;
      for (const Call *c : all)
        if (c->t0 < f->t && c->rc() == 0 && c->end->t < f->t &&
            (!complete || c->end->t > complete->end->t))
          complete = c;
      for (const Call *c : all)
        broken = broken || (c->t0 < f->t && c->rc() != 0 && (!complete || c->t0 > complete->t0));
      if (broken)
        ++s.explained;
      else
        s.flag("inconsistent record",
               fmt::format("{} service {}: service flag {}, instances {}, {}", f->get("db"), svc,
                           flag, inst, complete ? "after a complete set" : "with no set before it"),
               {f, complete ? complete->end : nullptr});
    }
}

void check_calls(Scenario &s) {
  std::map<long, int64_t> killed; // when the rig killed a process
  for (const Line &l : s.marks.lines)
    if (l.get("what") == "kill" || l.get("what") == "stuck")
      killed[long(l.num("pid", 0))] = l.t;
  for (const Call &c : s.calls) {
    const int64_t limit = limit_of(c.op);
    if (c.end && c.dur() > limit)
      s.flag("call past its limit",
             fmt::format("{} {} took {} (limit {}, rc {})", c.proc->name(), c.op, secs(c.dur()),
                         secs(limit), c.rc()),
             {c.start, c.end == c.start ? nullptr : c.end});
    auto k = killed.find(c.proc->pid());
    const int64_t until = k != killed.end() ? k->second : c.proc->last();
    if (!c.end && (until - c.t0 > limit || (k == killed.end() && !c.proc->exited())))
      s.flag("call never returned",
             fmt::format("{} {} still waiting after {} {}", c.proc->name(), c.op,
                         secs(until - c.t0),
                         k != killed.end() ? "when the rig killed it" : "when its log ends"),
             {c.start});
  }
}

// The rig's marks (a process that failed, the SQLite integrity check) and
// its listing of the lock queues.
void check_marks(Scenario &s) {
  for (const Proc *log : {&s.marks, &s.queues})
    for (const Line &l : log->lines) {
      // A live holder's request: a hold granted before the listing, not
      // released before it, by a process that was still running.
      const auto live = [&](const Hold &h) {
        return h.lock == l.get("lock") && h.from() < l.t && h.to() > l.t && h.proc->last() > l.t;
      };
      if (l.event == "queues-failed")
        s.flag("lock queues not inspected", l.get("text"), {&l});
      if (l.event == "queue" && std::none_of(s.holds.begin(), s.holds.end(), live))
        s.flag("lock request left behind",
               fmt::format("{}: {} (session {}) with no holder", l.get("lock"), l.get("node"),
                           l.get("owner")),
               {&l});
      if (l.get("what") == "integrity" && l.get("result") != "ok")
        s.flag("SQLite integrity check failed", l.get("detail"), {&l});
      if (l.get("what") != "failed")
        continue;
      // A process that ended with a failure: its last events say why.
      std::vector<const Line *> ev{&l};
      std::string who = "pid " + l.get("pid");
      for (const Proc &p : s.procs)
        if (p.pid() == l.num("pid", 0)) {
          who = p.name() + " (" + who + ")";
          for (std::size_t i = std::max<std::size_t>(p.lines.size(), 3) - 3; i < p.lines.size();
               ++i)
            ev.push_back(&p.lines[i]);
        }
      s.flag("process failed", who + " ended with status " + l.get("status"), ev);
    }
}

// ---- the report ---------------------------------------------------------

void summary(const Scenario &s) {
  fmt::print("\n== {}: {} processes\n", s.name, s.procs.size());
  struct Ops {
    long n = 0, open = 0;
    std::map<int, long> fails;
    int64_t longest = 0;
  };
  std::map<std::string, Ops> ops;
  for (const Call &c : s.calls) {
    Ops &o = ops[c.op];
    ++o.n;
    o.open += c.end == nullptr;
    if (c.end && c.rc() != 0)
      ++o.fails[c.rc()];
    o.longest = std::max(o.longest, c.dur());
  }
  for (const auto &[op, o] : ops) {
    std::string fails;
    for (const auto &[rc, n] : o.fails)
      fails += fmt::format(" rc{}={}", rc, n);
    fmt::print("  {:<7} {:6} calls, failures:{}, unfinished {}, longest {}\n", op, o.n,
               fails.empty() ? " none" : fails, o.open, secs(o.longest));
  }
  long x = 0, lost = 0, died = 0;
  for (const Hold &h : s.holds) {
    x += h.exclusive;
    lost += h.lost();
    died += h.release == nullptr;
  }
  fmt::print("  holds: {} exclusive, {} shared, {} lost, {} ended by a kill; fetched records {}, "
             "inconsistent services {} ({} explained by an unfinished set)\n",
             x, long(s.holds.size()) - x, lost, died, s.fetched.size(), s.inconsistent,
             s.explained);
  for (const Line &m : s.marks.lines) {
    const std::string what = m.get("what");
    if (what != "fault" && what != "kill" && what != "heal" && what != "restart")
      continue;
    // How long until each lock was granted again, and until a call that
    // started after it succeeded.
    std::map<std::string, int64_t> first{{"call", -1}};
    for (const Hold &h : s.holds)
      if (int64_t &t = first.emplace(h.lock.substr(h.lock.rfind('.') + 1), -1).first->second;
          h.from() > m.t && (t < 0 || h.from() < t))
        t = h.from();
    for (const Call &c : s.calls)
      if (int64_t &t = first["call"];
          c.end && c.end != c.start && c.rc() == 0 && c.t0 > m.t && (t < 0 || c.end->t < t))
        t = c.end->t;
    std::string again;
    for (const auto &[name, t] : first)
      again +=
          fmt::format("{} {} {}", again.empty() ? "" : ",", name, t < 0 ? "never" : secs(t - m.t));
    fmt::print("  {} {}: again after:{}\n", what,
               m.get("detail").empty() ? m.get("pid") : m.get("detail"), again);
  }
}

int check(const std::vector<std::string> &dirs) {
  fmt::print("limits: lock calls {}, library calls {}, registry calls {} (HVS_ZK_TIMEOUT_MS {}, "
             "HVS_ZK_SESSION_MS {}, LKS_TIMEOUT_MS {})\n",
             secs(limit_of("xlock")), secs(limit_of("fetch")), secs(limit_of("read")),
             kCallNs / kMs, kSessionNs / kMs, kLockNs / kMs);
  std::size_t total = 0;
  std::string results;
  for (const auto &dir : dirs) {
    Scenario s;
    if (!read_scenario(dir, s))
      return 2;
    for (auto *fn : {index, check_overlaps, check_values, check_records, check_calls, check_marks})
      fn(s); // index first: calls, holds and fetched records
    std::map<std::string, std::size_t> shown;
    for (const auto &[kind, what, events] : s.violations) {
      if (shown[kind]++ >= kShownPerKind)
        continue;
      fmt::print("\nVIOLATION [{}] {}: {}\n", s.name, kind, what);
      for (const Line *l : events)
        if (l != nullptr)
          fmt::print("    {}  {}\n", l->where, l->raw);
    }
    std::string counts;
    for (const auto &[kind, n] : shown) {
      if (n > kShownPerKind)
        fmt::print("\n  [{}] {}: {} more not shown\n", s.name, kind, n - kShownPerKind);
      counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", n, kind);
    }
    summary(s);
    fmt::print("  violations: {}\n", counts.empty() ? "none" : counts);
    results += fmt::format("  {}: {}\n", s.name, counts.empty() ? "ok" : counts);
    total += s.violations.size();
  }
  fmt::print("\n== result\n{}{} violation(s)\n", results, total);
  return total == 0 ? 0 : 1;
}

// ---- the lock queues on the ensemble ---------------------------------------

std::string decode(std::string node) { // %XX escapes
  for (std::size_t i = 0; (i = node.find('%', i)) != node.npos && i + 2 < node.size(); ++i)
    node.replace(i, 3, 1, char(std::strtol(node.substr(i + 1, 2).c_str(), nullptr, 16)));
  return node;
}

int queues(const std::string &hosts, const std::string &root, const std::string &out) {
  rig::Log log(out);
  if (!log.ok())
    return 2;
  zoo_set_debug_level(ZooLogLevel(0));
  zhandle_t *zh = zookeeper_init(hosts.c_str(), nullptr, 10000, nullptr, nullptr, 0);
  const std::string base = root + "/locks";
  String_vector locks{};
  int rc = ZCONNECTIONLOSS;
  // The synchronous calls wait for the connection themselves; retried
  // while the ensemble is still settling.
  for (int attempt = 0; zh && attempt < 40 && rc != ZOK && rc != ZNONODE; ++attempt)
    if ((rc = zoo_get_children(zh, base.c_str(), 0, &locks)) != ZOK && rc != ZNONODE) {
      log.line(rig::now_ns(), "queues-retry", fmt::format(" rc={}", rc));
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
  int count = 0;
  for (int32_t i = 0; rc == ZOK && i < locks.count; ++i) {
    const std::string q = base + "/" + locks.data[i];
    String_vector reqs{};
    if (zoo_get_children(zh, q.c_str(), 0, &reqs) != ZOK)
      continue; // removed meanwhile: an empty container
    for (int32_t j = 0; j < reqs.count; ++j, ++count) {
      Stat st{};
      const bool known = zoo_exists(zh, (q + "/" + reqs.data[j]).c_str(), 0, &st) == ZOK;
      log.line(rig::now_ns(), "queue",
               fmt::format(" lock={} node={} owner={}", rig::word(decode(locks.data[i])),
                           reqs.data[j],
                           known ? fmt::format("{:#x}", uint64_t(st.ephemeralOwner)) : "?"));
    }
    deallocate_String_vector(&reqs);
  }
  if (rc == ZOK)
    deallocate_String_vector(&locks);
  if (rc == ZOK || rc == ZNONODE)
    log.line(rig::now_ns(), "queues", fmt::format(" count={}", count));
  else
    log.line(rig::now_ns(), "queues-failed", "",
             fmt::format("{} ({})",
                         zh ? "listing of " + base + ": " + zerror(rc)
                            : std::string("cannot start a ZooKeeper client"),
                         hosts));
  if (zh)
    zookeeper_close(zh);
  return rc == ZOK || rc == ZNONODE ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  CLI::App app{"rig_check: judges the logs of a fault-rig run"};
  std::vector<std::string> dirs;
  std::string hosts, root, out;
  app.add_option("dirs", dirs, "one directory of logs per scenario");
  auto *q = app.add_subcommand("queues", "lists the lock requests under ROOT/locks into FILE");
  q->add_option("--zk", hosts)->required();
  q->add_option("--root", root)->required();
  q->add_option("--out", out)->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (q->parsed())
    return queues(hosts, root, out);
  if (dirs.empty())
    return app.exit(CLI::RequiredError("dirs")), 2;
  return check(dirs);
}
