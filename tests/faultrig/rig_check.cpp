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
//  - no call waited past its limit (kLimits below; the timeouts are read
//    from the environment as the library reads them).
//  - the SQLite file passed its integrity check (a mark of the rig).
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <zookeeper/zookeeper.h>

#include "rig_log.h"

namespace {

// ---- limits: every margin in one place -------------------------------------

constexpr int64_t kMs = 1000000;
constexpr int64_t kLockMargin = 1000 * kMs;     // lock and unlock calls
constexpr int64_t kLibraryMargin = 1000 * kMs;  // whole library calls
constexpr int64_t kRegistryMargin = 1000 * kMs; // one registry client call
constexpr std::size_t kShownPerKind = 12;       // violations printed per kind

long env_ms(const char *name, long fallback) {
  const char *v = std::getenv(name);
  if (v == nullptr || *v == '\0')
    return fallback;
  char *end = nullptr;
  long n = std::strtol(v, &end, 10);
  return (*end != '\0' || n < 0) ? fallback : n;
}

struct Limits {
  // The library's defaults when unset.
  int64_t call_ns = env_ms("HVS_ZK_TIMEOUT_MS", 8000) * kMs;
  int64_t session_ns = env_ms("HVS_ZK_SESSION_MS", 6000) * kMs;
  int64_t lock_ns = env_ms("LKS_TIMEOUT_MS", 20000) * kMs;

  // Which limit an operation of the worker has.
  int64_t of(const std::string &op) const {
    if (op == "xlock" || op == "slock" || op == "unlock")
      return lock_ns + kLockMargin;
    if (op == "init" || op == "fetch" || op == "set" || op == "term")
      return lock_ns + call_ns + kLibraryMargin;
    return call_ns + kRegistryMargin; // hinit, lkinit, read, write, ...
  }
};

std::string secs(int64_t ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f s", double(ns) / 1e9);
  return buf;
}

// ---- the logs ---------------------------------------------------------------

struct Line {
  std::string where; // file:line
  std::string raw;
  int64_t t = 0;
  std::string event;
  std::map<std::string, std::string> f;
  std::string text;

  std::string get(const char *k) const {
    auto it = f.find(k);
    return it == f.end() ? std::string() : it->second;
  }
  long long num(const char *k, long long fallback = -1) const {
    auto it = f.find(k);
    if (it == f.end())
      return fallback;
    return std::strtoll(it->second.c_str(), nullptr, 10);
  }
};

bool parse(const std::string &raw, Line &out) {
  std::size_t pos = 0;
  auto next = [&]() -> std::string {
    std::size_t end = raw.find(' ', pos);
    std::string w = raw.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    pos = end == std::string::npos ? raw.size() : end + 1;
    return w;
  };
  std::string t = next();
  if (t.empty() || t.find_first_not_of("0123456789") != std::string::npos)
    return false;
  out.t = std::strtoll(t.c_str(), nullptr, 10);
  out.event = next();
  if (out.event.empty())
    return false;
  while (pos < raw.size()) {
    if (raw.compare(pos, 5, "text=") == 0) {
      out.text = raw.substr(pos + 5);
      break;
    }
    std::string w = next();
    auto eq = w.find('=');
    if (eq == std::string::npos)
      out.f[w] = "";
    else if (w.substr(0, eq) == "svc")
      out.f["svc"] += (out.f["svc"].empty() ? "" : " ") + w.substr(eq + 1);
    else
      out.f[w.substr(0, eq)] = w.substr(eq + 1);
  }
  out.raw = raw;
  return true;
}

struct Proc;

struct Call {
  Proc *proc = nullptr;
  std::string op;
  const Line *start = nullptr;
  const Line *end = nullptr; // null: never returned
  int rc() const { return end ? int(end->num("rc")) : -1; }
  int64_t dur() const { return end ? end->num("dur") : -1; }
};

struct Hold {
  Proc *proc = nullptr;
  std::string lock;
  bool exclusive = false;
  const Line *grant = nullptr;
  const Line *release = nullptr; // null: the process died holding it
  std::vector<const Line *> reads, writes;
  int64_t from = 0, to = 0; // the inner interval
  bool lost() const { return release && release->num("rc") == 5; }
};

struct Proc {
  std::string file, name;
  long pid = 0;
  std::vector<std::unique_ptr<Line>> lines;
  bool exited = false;
  int64_t last = 0;
};

struct Violation {
  std::string kind, what;
  std::vector<const Line *> events;
};

struct Scenario {
  std::string name, dir;
  std::vector<std::unique_ptr<Proc>> procs;
  std::unique_ptr<Proc> marks, queues;
  std::vector<Call> calls;
  std::vector<Hold> holds;
  std::vector<const Line *> fetched;
  std::map<std::string, const Line *> writer_of; // marker value -> write
  std::vector<Violation> violations;

  void flag(const std::string &kind, const std::string &what, std::vector<const Line *> ev) {
    violations.push_back({kind, what, std::move(ev)});
  }
};

std::unique_ptr<Proc> load(const std::string &path, const std::string &shown) {
  std::ifstream in(path);
  if (!in)
    return nullptr;
  auto p = std::make_unique<Proc>();
  p->file = shown;
  std::string raw;
  int n = 0;
  while (std::getline(in, raw)) {
    ++n;
    auto line = std::make_unique<Line>();
    if (!parse(raw, *line))
      continue; // the last line of a killed process may be cut short
    line->where = shown + ":" + std::to_string(n);
    if (line->event == "start") {
      p->name = line->get("name");
      p->pid = long(line->num("pid", 0));
    }
    if (line->event == "exit")
      p->exited = true;
    p->last = std::max(p->last, line->t);
    p->lines.push_back(std::move(line));
  }
  return p;
}

bool read_scenario(const std::string &dir, Scenario &s) {
  s.dir = dir;
  std::string base = dir;
  while (base.size() > 1 && base.back() == '/')
    base.pop_back();
  s.name = base.substr(base.rfind('/') + 1);
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) {
    std::fprintf(stderr, "rig_check: cannot read %s: %s\n", dir.c_str(), std::strerror(errno));
    return false;
  }
  std::vector<std::string> names;
  while (dirent *e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 4 && n.ends_with(".log"))
      names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const auto &n : names) {
    auto p = load(dir + "/" + n, s.name + "/" + n);
    if (!p)
      continue;
    if (n == "marks.log")
      s.marks = std::move(p);
    else if (n == "queues.log")
      s.queues = std::move(p);
    else if (!p->lines.empty())
      s.procs.push_back(std::move(p));
  }
  return true;
}

// Calls, holds and fetched records out of each process's events.
void index(Scenario &s) {
  for (auto &p : s.procs) {
    std::map<long long, std::size_t> open_calls;
    std::map<long long, std::size_t> open_holds;
    for (auto &lp : p->lines) {
      const Line *l = lp.get();
      if (l->event == "call") {
        Call c;
        c.proc = p.get();
        c.op = l->get("op");
        c.start = l;
        open_calls[l->num("id")] = s.calls.size();
        s.calls.push_back(c);
      } else if (l->event == "end") {
        auto it = open_calls.find(l->num("id"));
        if (it != open_calls.end()) {
          s.calls[it->second].end = l;
          open_calls.erase(it);
        }
      } else if (l->event == "grant") {
        Hold h;
        h.proc = p.get();
        h.lock = l->get("lock");
        h.exclusive = l->get("mode") == "x";
        h.grant = l;
        h.from = l->t;
        h.to = p->last; // until a release says otherwise
        open_holds[l->num("hold")] = s.holds.size();
        s.holds.push_back(h);
      } else if (l->event == "read" || l->event == "write" || l->event == "release") {
        if (l->event == "write" && l->num("rc") == 0)
          s.writer_of[l->get("val")] = l;
        auto it = open_holds.find(l->num("hold"));
        if (it == open_holds.end())
          continue;
        Hold &h = s.holds[it->second];
        if (l->event == "read")
          h.reads.push_back(l);
        else if (l->event == "write")
          h.writes.push_back(l);
        else {
          h.release = l;
          h.to = l->num("start", l->t);
          open_holds.erase(it);
        }
      } else if (l->event == "fetched") {
        s.fetched.push_back(l);
      }
    }
  }
}

// ---- the checks ----------------------------------------------------------

void check_overlaps(Scenario &s) {
  std::map<std::string, std::vector<const Hold *>> by_lock;
  for (const auto &h : s.holds)
    by_lock[h.lock].push_back(&h);
  for (auto &[lock, hs] : by_lock) {
    std::sort(hs.begin(), hs.end(), [](const Hold *a, const Hold *b) { return a->from < b->from; });
    for (std::size_t i = 0; i < hs.size(); ++i)
      for (std::size_t j = i + 1; j < hs.size() && hs[j]->from < hs[i]->to; ++j) {
        const Hold *a = hs[i], *b = hs[j];
        if (a->proc == b->proc || (!a->exclusive && !b->exclusive) || a->lost() || b->lost())
          continue;
        std::vector<const Line *> ev{a->grant, b->grant};
        if (a->release)
          ev.push_back(a->release);
        if (b->release)
          ev.push_back(b->release);
        s.flag(a->exclusive && b->exclusive ? "exclusive holds overlap"
                                            : "shared hold inside an exclusive one",
               lock + ": " + a->proc->name + " and " + b->proc->name + " held it together for " +
                   secs(std::min(a->to, b->to) - b->from),
               ev);
      }
  }
}

void check_values(Scenario &s) {
  for (const auto &h : s.holds) {
    if (h.lost()) {
      // Listed apart: what matters is that no write of theirs landed once
      // someone else had the lock.
      const Hold *taker = nullptr;
      for (const auto &o : s.holds)
        if (o.proc != h.proc && o.lock == h.lock && o.from > h.from &&
            (taker == nullptr || o.from < taker->from))
          taker = &o;
      for (const Line *w : h.writes) {
        if (w->num("rc") != 0 || taker == nullptr || w->num("start", w->t) <= taker->from)
          continue;
        s.flag("write landed after the lock was lost",
               h.lock + ": " + h.proc->name + " wrote " + w->get("val") + " " +
                   secs(w->num("start", w->t) - taker->from) + " after " + taker->proc->name +
                   " was granted the lock",
               {h.grant, taker->grant, w, h.release});
      }
      continue;
    }
    if (h.exclusive) {
      std::set<std::string> mine;
      bool wrote = false, landed = false;
      std::string before;
      std::vector<const Line *> seq(h.reads);
      seq.insert(seq.end(), h.writes.begin(), h.writes.end());
      std::sort(seq.begin(), seq.end(), [](const Line *a, const Line *b) { return a->t < b->t; });
      for (const Line *l : seq) {
        if (l->event == "write") {
          wrote = true;
          mine.insert(l->get("val"));
          landed = landed || l->num("rc") == 0;
          continue;
        }
        if (l->num("rc") != 0)
          continue;
        const std::string v = l->get("val");
        if (!wrote) {
          before = v;
          continue;
        }
        if (mine.count(v) || (!landed && v == before))
          continue;
        std::vector<const Line *> ev{h.grant, l};
        auto w = s.writer_of.find(v);
        if (w != s.writer_of.end())
          ev.push_back(w->second);
        s.flag("foreign marker value in an exclusive hold",
               h.lock + ": " + h.proc->name + " read " + v + " after writing its own", ev);
      }
    } else {
      const Line *first = nullptr;
      for (const Line *r : h.reads) {
        if (r->num("rc") != 0)
          continue;
        if (first == nullptr) {
          first = r;
        } else if (r->get("val") != first->get("val")) {
          std::vector<const Line *> ev{h.grant, first, r};
          auto w = s.writer_of.find(r->get("val"));
          if (w != s.writer_of.end())
            ev.push_back(w->second);
          s.flag("marker changed in a shared hold",
                 h.lock + ": " + h.proc->name + " read " + first->get("val") + " then " +
                     r->get("val"),
                 ev);
        }
      }
    }
  }
}

// An inconsistent service in a fetched record is explained only by a
// service-wide set that did not finish with no complete one after it.
void check_records(Scenario &s, int &inconsistent, int &explained) {
  struct Set {
    const Call *c;
    int64_t start;
  };
  std::map<std::string, std::vector<Set>> sets; // db/svc
  for (const auto &c : s.calls)
    if (c.op == "set")
      sets[c.start->get("db") + "/" + c.start->get("svc")].push_back({&c, c.start->t});
  for (const Line *f : s.fetched) {
    // The fetch call's own start: the record reflects the registry between
    // the two.
    int64_t fetch_end = f->t;
    std::string db = f->get("db");
    std::string all = f->get("svc");
    std::size_t pos = 0;
    while (pos < all.size()) {
      std::size_t sp = all.find(' ', pos);
      std::string item = all.substr(pos, sp == std::string::npos ? std::string::npos : sp - pos);
      pos = sp == std::string::npos ? all.size() : sp + 1;
      auto c2 = item.rfind(':');
      if (c2 == std::string::npos || c2 == 0)
        continue;
      auto c1 = item.rfind(':', c2 - 1);
      if (c1 == std::string::npos || c1 + 2 != c2)
        continue;
      std::string svc = item.substr(0, c1);
      char flag = item[c1 + 1];
      std::string inst = item.substr(c2 + 1);
      if (inst == "-" || inst.find_first_not_of(flag) == std::string::npos)
        continue;
      ++inconsistent;
      // The last complete set before the fetch, and anything unfinished
      // or failed after its start.
      const Call *complete = nullptr;
      const Call *broken = nullptr;
      for (const Set &st : sets[db + "/" + svc]) {
        if (st.start >= fetch_end)
          continue;
        if (st.c->end && st.c->rc() == 0 && st.c->end->t < fetch_end) {
          if (!complete || st.c->end->t > complete->end->t)
            complete = st.c;
        }
      }
      for (const Set &st : sets[db + "/" + svc]) {
        if (st.start >= fetch_end || (st.c->end && st.c->rc() == 0))
          continue;
        if (!complete || st.start > complete->start->t)
          broken = st.c;
      }
      if (broken != nullptr) {
        ++explained;
        continue;
      }
      std::vector<const Line *> ev{f};
      if (complete)
        ev.push_back(complete->end);
      s.flag("inconsistent record",
             db + " service " + svc + ": service flag " + flag + ", instances " + inst +
                 (complete ? ", after a complete set" : ", with no set before it"),
             ev);
    }
  }
}

void check_calls(Scenario &s, const Limits &lim) {
  // When the rig killed a process (mark kill pid=...).
  std::map<long, int64_t> killed;
  if (s.marks)
    for (auto &l : s.marks->lines)
      if (l->get("what") == "kill" || l->get("what") == "stuck")
        killed[long(l->num("pid", 0))] = l->t;
  for (const auto &c : s.calls) {
    int64_t limit = lim.of(c.op);
    if (c.end) {
      if (c.dur() > limit)
        s.flag("call past its limit",
               c.proc->name + " " + c.op + " took " + secs(c.dur()) + " (limit " + secs(limit) +
                   ", rc " + std::to_string(c.rc()) + ")",
               {c.start, c.end});
      continue;
    }
    auto k = killed.find(c.proc->pid);
    int64_t until = k != killed.end() ? k->second : c.proc->last;
    if (until - c.start->t > limit || (k == killed.end() && !c.proc->exited))
      s.flag("call never returned",
             c.proc->name + " " + c.op + " still waiting after " + secs(until - c.start->t) +
                 (k != killed.end() ? " when the rig killed it" : " when its log ends"),
             {c.start});
  }
  // Registry reads and writes of the holds: one line each, with start=.
  for (const auto &h : s.holds)
    for (const auto *group : {&h.reads, &h.writes})
      for (const Line *l : *group) {
        int64_t dur = l->t - l->num("start", l->t);
        int64_t limit = lim.of(l->event);
        if (dur > limit)
          s.flag("call past its limit",
                 h.proc->name + " " + l->event + " of the marker took " + secs(dur) + " (limit " +
                     secs(limit) + ")",
                 {l});
      }
}

void check_queues(Scenario &s) {
  if (!s.queues)
    return;
  for (auto &l : s.queues->lines) {
    if (l->event == "queues-failed")
      s.flag("lock queues not inspected", l->text, {l.get()});
    if (l->event != "queue")
      continue;
    // A live holder's request: a hold granted before the listing, not
    // released before it, by a process that was still running.
    const std::string lock = l->get("lock");
    bool live = false;
    for (const auto &h : s.holds)
      if (h.lock == lock && h.from < l->t && (!h.release || h.to > l->t) && h.proc->last > l->t)
        live = true;
    if (!live)
      s.flag("lock request left behind",
             lock + ": " + l->get("node") + " (session " + l->get("owner") + ") with no holder",
             {l.get()});
  }
}

void check_marks(Scenario &s) {
  if (!s.marks)
    return;
  for (auto &l : s.marks->lines) {
    if (l->get("what") == "integrity" && l->get("result") != "ok")
      s.flag("SQLite integrity check failed", l->get("detail"), {l.get()});
    if (l->get("what") != "failed")
      continue;
    // A process that ended with a failure: its last events say why.
    std::vector<const Line *> ev{l.get()};
    std::string who = "pid " + l->get("pid");
    for (const auto &p : s.procs)
      if (p->pid == l->num("pid", 0)) {
        who = p->name + " (" + who + ")";
        for (std::size_t i = p->lines.size() > 3 ? p->lines.size() - 3 : 0; i < p->lines.size();
             ++i)
          ev.push_back(p->lines[i].get());
      }
    s.flag("process failed", who + " ended with status " + l->get("status"), ev);
  }
}

// ---- the report ---------------------------------------------------------

void summary(const Scenario &s, int inconsistent, int explained) {
  std::printf("\n== %s: %zu processes\n", s.name.c_str(), s.procs.size());
  struct Ops {
    long n = 0;
    std::map<int, long> fails;
    long open = 0;
    int64_t longest = 0;
  };
  std::map<std::string, Ops> ops;
  for (const auto &c : s.calls) {
    Ops &o = ops[c.op];
    ++o.n;
    if (!c.end)
      ++o.open;
    else if (c.rc() != 0)
      ++o.fails[c.rc()];
    o.longest = std::max(o.longest, c.dur());
  }
  // The marker's reads and writes inside the holds, as calls of their own.
  for (const auto &h : s.holds)
    for (const auto *group : {&h.reads, &h.writes})
      for (const Line *l : *group) {
        Ops &o = ops[l->event];
        ++o.n;
        if (l->num("rc") != 0)
          ++o.fails[int(l->num("rc"))];
        o.longest = std::max(o.longest, int64_t(l->t - l->num("start", l->t)));
      }
  for (const auto &[op, o] : ops) {
    std::string fails;
    for (const auto &[rc, n] : o.fails)
      fails += " rc" + std::to_string(rc) + "=" + std::to_string(n);
    std::printf("  %-7s %6ld calls, failures:%s, unfinished %ld, longest %s\n", op.c_str(), o.n,
                fails.empty() ? " none" : fails.c_str(), o.open, secs(o.longest).c_str());
  }
  long x = 0, sh = 0, lost = 0, died = 0;
  for (const auto &h : s.holds) {
    (h.exclusive ? x : sh)++;
    lost += h.lost();
    died += h.release == nullptr;
  }
  std::printf("  holds: %ld exclusive, %ld shared, %ld lost, %ld ended by a kill; "
              "fetched records %zu, inconsistent services %d (%d explained by an unfinished set)\n",
              x, sh, lost, died, s.fetched.size(), inconsistent, explained);
  if (!s.marks)
    return;
  // After each fault: how long until each lock was granted again.
  for (auto &m : s.marks->lines) {
    std::string what = m->get("what");
    if (what != "fault" && what != "kill")
      continue;
    std::map<std::string, int64_t> first; // every lock held in the scenario
    for (const auto &h : s.holds)
      first.emplace(h.lock, -1);
    for (const auto &h : s.holds)
      if (h.from > m->t && (first[h.lock] < 0 || h.from < first[h.lock]))
        first[h.lock] = h.from;
    std::string free;
    for (const auto &[lock, t] : first)
      free += " " + lock.substr(lock.rfind('.') + 1) + " " + (t < 0 ? "never" : secs(t - m->t));
    std::printf("  %s %s: lock granted again after:%s\n", what.c_str(),
                m->get("detail").empty() ? m->get("pid").c_str() : m->get("detail").c_str(),
                free.c_str());
  }
  for (auto &m : s.marks->lines)
    if (m->get("what") == "heal" || m->get("what") == "restart") {
      int64_t ok = -1;
      for (const auto &c : s.calls)
        if (c.end && c.rc() == 0 && c.start->t > m->t && (ok < 0 || c.end->t < ok))
          ok = c.end->t;
      std::printf("  %s %s: first call to succeed after it ended %s later\n",
                  m->get("what").c_str(), m->get("detail").c_str(),
                  ok < 0 ? "(none)" : secs(ok - m->t).c_str());
    }
}

int check(int argc, char **argv) {
  Limits lim;
  std::printf("limits: lock calls %s, library calls %s, registry calls %s "
              "(HVS_ZK_TIMEOUT_MS %lld, HVS_ZK_SESSION_MS %lld, LKS_TIMEOUT_MS %lld)\n",
              secs(lim.of("xlock")).c_str(), secs(lim.of("fetch")).c_str(),
              secs(lim.of("read")).c_str(), (long long)(lim.call_ns / kMs),
              (long long)(lim.session_ns / kMs), (long long)(lim.lock_ns / kMs));
  std::size_t total = 0;
  std::vector<std::string> lines;
  for (int i = 1; i < argc; ++i) {
    Scenario s;
    if (!read_scenario(argv[i], s))
      return 2;
    index(s);
    int inconsistent = 0, explained = 0;
    check_overlaps(s);
    check_values(s);
    check_records(s, inconsistent, explained);
    check_calls(s, lim);
    check_queues(s);
    check_marks(s);
    std::map<std::string, std::size_t> shown;
    for (const auto &v : s.violations) {
      if (shown[v.kind]++ >= kShownPerKind)
        continue;
      std::printf("\nVIOLATION [%s] %s: %s\n", s.name.c_str(), v.kind.c_str(), v.what.c_str());
      for (const Line *l : v.events)
        if (l)
          std::printf("    %s  %s\n", l->where.c_str(), l->raw.c_str());
    }
    for (const auto &[kind, n] : shown)
      if (n > kShownPerKind)
        std::printf("\n  [%s] %s: %zu more not shown\n", s.name.c_str(), kind.c_str(),
                    n - kShownPerKind);
    summary(s, inconsistent, explained);
    std::string counts;
    for (const auto &[kind, n] : shown)
      counts += (counts.empty() ? "" : ", ") + std::to_string(n) + " " + kind;
    std::printf("  violations: %s\n", counts.empty() ? "none" : counts.c_str());
    lines.push_back(s.name + ": " + (counts.empty() ? "ok" : counts));
    total += s.violations.size();
  }
  std::printf("\n== result\n");
  for (const auto &l : lines)
    std::printf("  %s\n", l.c_str());
  std::printf("%zu violation(s)\n", total);
  return total == 0 ? 0 : 1;
}

// ---- the lock queues on the ensemble ---------------------------------------

std::string decode(const std::string &node) {
  std::string out;
  for (std::size_t i = 0; i < node.size(); ++i) {
    if (node[i] == '%' && i + 2 < node.size()) {
      out += char(std::strtol(node.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      out += node[i];
    }
  }
  return out;
}

int queues(int argc, char **argv) {
  std::string hosts, root, out;
  for (int i = 2; i + 1 < argc; i += 2) {
    std::string k = argv[i];
    if (k == "--zk")
      hosts = argv[i + 1];
    else if (k == "--root")
      root = argv[i + 1];
    else if (k == "--out")
      out = argv[i + 1];
  }
  if (hosts.empty() || root.empty() || out.empty()) {
    std::fprintf(stderr, "usage: rig_check queues --zk HOSTS --root ROOT --out FILE\n");
    return 2;
  }
  rig::Log log(out);
  if (!log.ok())
    return 2;
  zoo_set_debug_level(ZooLogLevel(0));
  zhandle_t *zh = zookeeper_init(hosts.c_str(), nullptr, 10000, nullptr, nullptr, 0);
  auto failed = [&](const std::string &why) {
    log.line(rig::now_ns(), "queues-failed", "", why + " (" + hosts + ")");
    if (zh)
      zookeeper_close(zh);
    return 1;
  };
  if (zh == nullptr)
    return failed("cannot start a ZooKeeper client");
  // The synchronous calls wait for the connection themselves; retry while
  // the ensemble is still settling.
  const std::string base = root + "/locks";
  String_vector queues_now{};
  int rc = ZCONNECTIONLOSS;
  for (int attempt = 0; attempt < 40 && rc != ZOK && rc != ZNONODE; ++attempt) {
    rc = zoo_get_children(zh, base.c_str(), 0, &queues_now);
    if (rc != ZOK && rc != ZNONODE)
      rig::Log(out).line(rig::now_ns(), "queues-retry", " rc=" + std::to_string(rc));
    if (rc != ZOK && rc != ZNONODE) {
      struct timespec ts{0, 250000000};
      nanosleep(&ts, nullptr);
    }
  }
  if (rc == ZNONODE) {
    log.line(rig::now_ns(), "queues", " count=0");
    zookeeper_close(zh);
    return 0;
  }
  if (rc != ZOK)
    return failed(std::string("listing of ") + base + ": " + zerror(rc));
  int count = 0;
  for (int32_t i = 0; i < queues_now.count; ++i) {
    const std::string q = base + "/" + queues_now.data[i];
    String_vector reqs{};
    if (zoo_get_children(zh, q.c_str(), 0, &reqs) != ZOK)
      continue; // removed meanwhile: an empty container
    for (int32_t j = 0; j < reqs.count; ++j) {
      Stat st{};
      char owner[32] = "?";
      if (zoo_exists(zh, (q + "/" + reqs.data[j]).c_str(), 0, &st) == ZOK)
        std::snprintf(owner, sizeof owner, "0x%llx", (unsigned long long)st.ephemeralOwner);
      log.line(rig::now_ns(), "queue",
               " lock=" + rig::word(decode(queues_now.data[i])) + " node=" + reqs.data[j] +
                   " owner=" + owner);
      ++count;
    }
    deallocate_String_vector(&reqs);
  }
  deallocate_String_vector(&queues_now);
  log.line(rig::now_ns(), "queues", " count=" + std::to_string(count));
  zookeeper_close(zh);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && std::strcmp(argv[1], "queues") == 0)
    return queues(argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: rig_check DIR... | rig_check queues --zk HOSTS --root ROOT "
                         "--out FILE\n");
    return 2;
  }
  return check(argc, argv);
}
