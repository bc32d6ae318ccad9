/* prsrctl watch database|service|nodeapps: every change to one object, in
 * the terms of its configuration, as it happens, until interrupted.
 *
 * The object is fetched through the library as `config` fetches it. The
 * keys that fetch read (the registry client's record of its calls) are then
 * read again through a client handle of prsrctl's own, whose cache learns
 * of changes: on SQLite any commit, on ZooKeeper a watch on one of those
 * keys. A wait on that handle ends when one comes; the object is fetched
 * again and the two records are compared. */
#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>

#include <fmt/format.h>

#include "hvsadm.h"
#include "prsrctl.h"
#include "../common/json_text.h"

namespace prsrctl {
namespace {

using nlohmann::json;

std::atomic<bool> g_stop{false};

extern "C" void on_stop(int) { g_stop = true; }

/* How long one wait lasts before the stop flag is looked at again. */
constexpr uint32_t kWaitMs = 250;

enum class Object { Database, Service, Nodeapps };

struct Target {
  Object kind;
  std::string db, srv, node;

  std::string title() const {
    switch (kind) {
    case Object::Database:
      return "database " + db;
    case Object::Service:
      return "service " + srv + " of database " + db;
    case Object::Nodeapps:
      return "node " + node;
    }
    return {};
  }
};

/* A client handle of prsrctl's own, closed on destruction. */
struct OwnHandle {
  void *h = nullptr;
  ~OwnHandle() {
    if (h != nullptr)
      hvsapi_terminate(h);
  }
  bool exists(const std::string &key) const {
    void *k = nullptr;
    int32_t rc = hvsapi_open_key(h, &k, key.c_str());
    if (rc == 0)
      hvsapi_close_key(h, k);
    return rc != HVS_ERR_NO_KEY;
  }
};

/* The object now: its record, null when it is not there. The library's
 * result code otherwise. */
int32_t fetch(Session &s, const OwnHandle &own, const Target &t, json &doc) {
  int32_t rc = PRSR_SUCCESS;
  switch (t.kind) {
  case Object::Database:
    rc = fetch_database(s, t.db, doc);
    break;
  case Object::Nodeapps:
    rc = fetch_nodeapps(s, t.node, doc);
    break;
  case Object::Service: {
    char **insts = nullptr, **nodes = nullptr;
    uint32_t *avail = nullptr;
    uint32_t count = 0;
    rc = prsr_get_srv_instances(s.status(), s.ctx(), t.db.c_str(), t.srv.c_str(), &insts, &nodes,
                                &avail, &count);
    if (rc == PRSR_SUCCESS) {
      json a = json::array();
      for (uint32_t i = 0; i < count; ++i)
        a.push_back({{"instance", tools::text_json(insts[i])},
                     {"node", tools::text_json(nodes[i])},
                     {"role", avail[i] ? "available" : "preferred"}});
      doc = {{"instances", a}};
      prsr_release_srv_instances(s.status(), s.ctx(), insts, nodes, avail, count);
    } else if (rc == PRSR_ERR_REGISTRY) {
      /* The library answers a missing database or service with 3 too. */
      std::string comp = lower(t.srv);
      std::replace(comp.begin(), comp.end(), '.', '*');
      const std::string db_key = "DATABASE.DATABASES." + lower(t.db);
      if (!own.exists(db_key) || !own.exists(db_key + ".SERVICE." + comp + ".INSTANCES"))
        rc = PRSR_ERR_NO_KEY;
    }
    break;
  }
  }
  if (rc == PRSR_ERR_NO_KEY || rc == PRSR_ERR_NO_NODEAPPS) {
    doc = nullptr;
    return PRSR_SUCCESS;
  }
  return rc;
}

/* Reads again through own what the fetch read. True when an answer differs
 * (a change came between the fetch and this read: fetch again). On
 * ZooKeeper these reads leave the watches the wait is woken by. */
bool reread(const OwnHandle &own, const std::vector<Call> &calls) {
  for (size_t i = 0; i < calls.size(); ++i) {
    const Call &c = calls[i];
    if (c.kind != HVSADM_CALL_OPEN && c.kind != HVSADM_CALL_LIST)
      continue;
    void *k = nullptr;
    int32_t rc = hvsapi_open_key(own.h, &k, c.name.c_str());
    if (c.kind == HVSADM_CALL_OPEN) {
      if ((rc == 0) != (c.result == 0))
        return true;
      if (rc == 0 && i + 1 < calls.size() && calls[i + 1].kind == HVSADM_CALL_READ &&
          calls[i + 1].name == c.name) {
        std::string v(calls[i + 1].value.size() + 1, '\0');
        uint32_t type = 0, len = static_cast<uint32_t>(v.size());
        int32_t r = hvsapi_get_value(own.h, k, &type, v.data(), &len);
        if (r != 0 || std::string_view(v.data(), len) != calls[i + 1].value) {
          hvsapi_close_key(own.h, k);
          return true;
        }
      }
    } else if (rc == 0) {
      std::string all;
      for (;;) {
        char name[512] = {0};
        uint32_t n = sizeof name;
        int32_t left = 0;
        if (hvsapi_enum_subkey(own.h, k, name, &n, &left) != 0)
          break;
        all.append(name, n).push_back('\0');
      }
      if (c.result == 0 && all != c.value) {
        hvsapi_close_key(own.h, k);
        return true;
      }
    }
    if (rc == 0)
      hvsapi_close_key(own.h, k);
  }
  return false;
}

/* One change: the part of the object (what), the member that changed
 * (empty for a part added or removed), and the two values (null: absent). */
struct Change {
  std::string what, field;
  json from, to;
};

std::string word(const std::string &field, const json &v) {
  if (v.is_null())
    return "-";
  if (v.is_boolean())
    return field == "enabled" ? (v.get<bool>() ? "enabled" : "disabled")
                              : (v.get<bool>() ? "yes" : "no");
  if (v.is_string())
    return v.get<std::string>().empty() ? "(empty)" : v.get<std::string>();
  if (v.is_array()) {
    std::string out;
    for (const auto &e : v)
      out += (out.empty() ? "" : ", ") + (e.is_string() ? e.get<std::string>() : tools::dump_safe(e));
    return "[" + out + "]";
  }
  return tools::dump_safe(v);
}

std::string text_of(const Change &c) {
  if (c.field.empty())
    return c.what + ": " + (c.to.is_null() ? "removed" : "added");
  if (c.field == "enabled")
    return c.what + ": " + word(c.field, c.from) + " -> " + word(c.field, c.to);
  return c.what + ": " + c.field + " " + word(c.field, c.from) + " -> " + word(c.field, c.to);
}

/* The member that names the entries of a list of parts. */
const char *naming(const std::string &list) {
  if (list == "instances" || list == "preferred" || list == "available")
    return "instance";
  if (list == "services")
    return "service";
  return nullptr;
}

void compare(const std::string &what, const json &a, const json &b, std::vector<Change> &out) {
  std::vector<std::string> members;
  for (const json *doc : {&a, &b})
    for (auto it = doc->begin(); it != doc->end(); ++it)
      if (std::find(members.begin(), members.end(), it.key()) == members.end())
        members.push_back(it.key());
  for (const std::string &m : members) {
    if (m == "defaults" || m == "schema")
      continue;
    const json x = a.contains(m) ? a[m] : json(nullptr);
    const json y = b.contains(m) ? b[m] : json(nullptr);
    if (x == y)
      continue;
    const char *key = naming(m);
    if (key != nullptr && x.is_array() && y.is_array()) {
      /* Parts by name: added, removed, or compared member by member. */
      const std::string kind = m == "preferred" || m == "available" ? m + " instance" : key;
      auto find = [key](const json &list, const json &name) -> const json * {
        for (const auto &e : list)
          if (e.is_object() && e.contains(key) && e[key] == name)
            return &e;
        return nullptr;
      };
      for (const auto &e : x)
        if (const json *other = find(y, e[key]); other == nullptr)
          out.push_back({what + " " + kind + " " + word("", e[key]), "", e, nullptr});
        else
          compare(what + " " + kind + " " + word("", e[key]), e, *other, out);
      for (const auto &e : y)
        if (find(x, e[key]) == nullptr)
          out.push_back({what + " " + kind + " " + word("", e[key]), "", nullptr, e});
      continue;
    }
    out.push_back({what, m, x, y});
  }
}

std::string now_text() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
  return buf;
}

void print_changes(const Globals &g, const Target &t, const json &prev, const json &doc) {
  std::vector<Change> changes;
  if (prev.is_null() != doc.is_null())
    changes.push_back({t.title(), "", prev, doc});
  else if (!doc.is_null())
    compare(t.title(), prev, doc, changes);
  for (const Change &c : changes) {
    if (g.json) {
      json line = {{"time", static_cast<int64_t>(std::time(nullptr))},
                   {"what", c.what},
                   {"change", c.field.empty() ? (c.to.is_null() ? "removed" : "added") : "changed"},
                   {"from", c.from},
                   {"to", c.to},
                   {"text", text_of(c)}};
      if (!c.field.empty())
        line["field"] = c.field;
      emit_line(line);
    } else {
      std::cout << now_text() << "  " << text_of(c) << std::endl;
    }
  }
}

int watch(const Globals &g, const Target &t) {
  if (g.explain) {
    std::cerr << "prsrctl: watch runs until interrupted; explain the config command instead\n";
    return kBadArgument;
  }
  /* Opened before the recording starts: its reads are not the fetch's. */
  OwnHandle own;
  char msg[1024] = {0};
  uint64_t len = sizeof msg;
  if (hvsapi_init_ext(&own.h, 3, msg, &len, 0) != 0) {
    std::cerr << "prsrctl: cannot open the registry at " << registry_location() << ": " << msg
              << "\n";
    return kRegistry;
  }
  start_recording(false);
  Session s(g);
  if (s.error())
    return s.error();
  uint64_t seen = 0;
  if (hvsadm_wait_change(own.h, &seen, 0) != HVS_OK) {
    std::cerr << "prsrctl: watch: the registry client learns of no change at "
              << registry_location() << " (an in-process mem: registry, or HVS_CACHE=off)\n";
    return kFailure;
  }

  struct sigaction sa {};
  sa.sa_handler = on_stop;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  json prev;
  bool first = true;
  bool again = false; /* this fetch came of a difference found by reread() */
  while (!g_stop) {
    forget_recorded_calls();
    json doc;
    if (int32_t rc = fetch(s, own, t, doc); rc != PRSR_SUCCESS) {
      if (first)
        return report(rc, t.title(), s.status());
      report(rc, t.title(), s.status()); /* passing, as a rule: watch on */
    } else if (first) {
      if (doc.is_null())
        return report(PRSR_ERR_NO_KEY, t.title());
      std::cerr << "prsrctl: watching " << t.title() << " in " << registry_location()
                << " (interrupt to end)" << std::endl;
      prev = doc;
      first = false;
    } else {
      print_changes(g, t, prev, doc);
      prev = doc;
    }
    /* Once in a row at most: answers that kept differing would otherwise
     * make this loop spin. */
    const bool differs = reread(own, recorded_calls());
    if (differs && !again) {
      again = true;
      continue;
    }
    again = false;
    int32_t rc;
    while ((rc = hvsadm_wait_change(own.h, &seen, kWaitMs)) == HVS_ERR_NO_MORE && !g_stop) {
    }
    if (rc != HVS_OK && rc != HVS_ERR_NO_MORE) {
      std::cerr << "prsrctl: watch: waiting for a change failed (registry code " << rc << ")\n";
      return kRegistry;
    }
  }
  return kOk;
}

void register_watch(CLI::App &app, Globals &g, int &exit_code) {
  CLI::App *grp = group(app, "watch");
  auto t = std::make_shared<Target>();

  auto *db = grp->add_subcommand("database", "Print every change to a database's configuration");
  db->add_option("-d,--db", t->db, "Database name (any case)")->required()->check(kNonEmpty);
  db->callback([&g, &exit_code, t] {
    t->kind = Object::Database;
    exit_code = watch(g, *t);
  });

  auto *srv = grp->add_subcommand("service", "Print every change to a service's instances and roles");
  srv->add_option("-d,--db", t->db, "Database name (any case)")->required()->check(kNonEmpty);
  srv->add_option("-s,--service", t->srv, "Service name (any case, dots allowed)")
      ->required()
      ->check(kNonEmpty);
  srv->callback([&g, &exit_code, t] {
    t->kind = Object::Service;
    exit_code = watch(g, *t);
  });

  auto *apps = grp->add_subcommand("nodeapps", "Print every change to a node's applications");
  apps->add_option("-n,--node", t->node, "Node name (any case)")->required()->check(kNonEmpty);
  apps->callback([&g, &exit_code, t] {
    t->kind = Object::Nodeapps;
    exit_code = watch(g, *t);
  });
}

Family family(&register_watch);

} // namespace
} // namespace prsrctl
