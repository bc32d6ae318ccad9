// rsmgr.cpp - the resource manager client over a SQLite store.
#include "rsmgr.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <sqlite3.h>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "hvs_location.h"

#define RSMGR_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int kBusyTimeoutMs = 10000;

constexpr const char *kSchema = R"sql(
CREATE TABLE IF NOT EXISTS rsm_resource(
  name          TEXT PRIMARY KEY,
  registered_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS rsm_attr(
  resource TEXT NOT NULL,
  name     TEXT NOT NULL,
  value    TEXT NOT NULL,
  PRIMARY KEY(resource, name));
CREATE TABLE IF NOT EXISTS rsm_queue(
  id        INTEGER PRIMARY KEY,
  resource  TEXT NOT NULL,
  name      TEXT NOT NULL,
  value     TEXT NOT NULL,
  flags     INTEGER NOT NULL,
  queued_at TEXT NOT NULL);
)sql";

enum Op { kCreate, kSetAttr, kResList, kAppend, kRegister, kOpCount };

// Injected failures, per operation: the first `left` calls fail, and the
// call numbered `at` (from 1) fails.
struct FailPlan {
  long left[kOpCount] = {};
  long at[kOpCount] = {};
  long calls[kOpCount] = {};
  bool init = false;
};

FailPlan read_fail_plan() {
  FailPlan plan;
  const char *env = std::getenv("HVS_RSM_FAIL");
  if (env == nullptr)
    return plan;
  std::string s(env);
  size_t pos = 0;
  while (pos <= s.size()) {
    size_t comma = s.find(',', pos);
    std::string item = s.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    size_t sep = item.find_first_of(":@");
    if (sep != std::string::npos) {
      std::string op = item.substr(0, sep);
      long n = std::strtol(item.c_str() + sep + 1, nullptr, 10);
      int which = op == "create"     ? kCreate
                  : op == "set_attr" ? kSetAttr
                  : op == "reslist"  ? kResList
                  : op == "append"   ? kAppend
                  : op == "register" ? kRegister
                                     : -1;
      if (op == "init")
        plan.init = n > 0;
      else if (which >= 0 && item[sep] == ':')
        plan.left[which] = n;
      else if (which >= 0)
        plan.at[which] = n;
    }
    if (comma == std::string::npos)
      break;
    pos = comma + 1;
  }
  return plan;
}

struct Resource;

struct Client {
  sqlite3 *db = nullptr;
  std::string path;
  FailPlan fail;
  // Resources made and not (yet) given to a list: the client owns them and
  // frees them when it ends, as its callers have no operation to.
  std::set<Resource *> loose;
  ~Client();
  bool inject(Op op) {
    long n = ++fail.calls[op];
    return n <= fail.left[op] || n == fail.at[op];
  }
};

struct Resource {
  Client *client;
  std::string name;
  std::vector<std::pair<std::string, std::string>> attrs;
  int32_t status = 0;
  std::string message;
};

struct ResList {
  Client *client;
  std::vector<std::unique_ptr<Resource>> items;
};

Client::~Client() {
  for (Resource *r : loose)
    delete r;
  if (db != nullptr)
    sqlite3_close_v2(db);
}

bool store_path(std::string &out) {
  const char *env = std::getenv("HVS_RSM_STORE");
  if (env != nullptr && *env != '\0') {
    out = env;
    return true;
  }
  hvs::Location loc = hvs::resolve_location();
  if (loc.engine != hvs::Engine::Sqlite)
    return false;
  out = loc.path + ".rsm";
  return true;
}

// A statement, finalized on scope exit.
class Stmt {
public:
  Stmt(sqlite3 *db, const char *sql) { ok_ = sqlite3_prepare_v2(db, sql, -1, &s_, nullptr) == SQLITE_OK; }
  ~Stmt() { sqlite3_finalize(s_); }
  Stmt(const Stmt &) = delete;
  Stmt &operator=(const Stmt &) = delete;
  bool ok() const { return ok_; }
  sqlite3_stmt *get() const { return s_; }
  void text(int i, const std::string &v) {
    sqlite3_bind_text(s_, i, v.c_str(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
  }
  bool run() {
    int rc = sqlite3_step(s_);
    sqlite3_reset(s_);
    return rc == SQLITE_DONE;
  }

private:
  sqlite3_stmt *s_ = nullptr;
  bool ok_ = false;
};

bool exec(sqlite3 *db, const char *sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

int32_t apply(Client *c, const ResList &list, uint32_t flags) {
  bool queue = (flags & RSMGR_FLAG_QUEUE) != 0;
  if (!exec(c->db, "BEGIN IMMEDIATE"))
    return RSMGR_ERR_STORE;
  bool ok = true;
  if (queue) {
    Stmt ins(c->db, "INSERT INTO rsm_queue(resource, name, value, flags, queued_at) "
                    "VALUES(?1, ?2, ?3, ?4, datetime('now'))");
    ok = ins.ok();
    for (size_t i = 0; ok && i < list.items.size(); ++i) {
      const Resource &r = *list.items[i];
      auto one = [&](const std::string &n, const std::string &v) {
        ins.text(1, r.name);
        ins.text(2, n);
        ins.text(3, v);
        sqlite3_bind_int64(ins.get(), 4, static_cast<sqlite3_int64>(flags));
        return ins.run();
      };
      if (r.attrs.empty())
        ok = one("", "");
      for (size_t a = 0; ok && a < r.attrs.size(); ++a)
        ok = one(r.attrs[a].first, r.attrs[a].second);
    }
  } else {
    Stmt res(c->db, "INSERT INTO rsm_resource(name, registered_at) VALUES(?1, datetime('now')) "
                    "ON CONFLICT(name) DO UPDATE SET registered_at = excluded.registered_at");
    Stmt attr(c->db, "INSERT INTO rsm_attr(resource, name, value) VALUES(?1, ?2, ?3) "
                     "ON CONFLICT(resource, name) DO UPDATE SET value = excluded.value");
    ok = res.ok() && attr.ok();
    for (size_t i = 0; ok && i < list.items.size(); ++i) {
      const Resource &r = *list.items[i];
      res.text(1, r.name);
      ok = res.run();
      for (size_t a = 0; ok && a < r.attrs.size(); ++a) {
        attr.text(1, r.name);
        attr.text(2, r.attrs[a].first);
        attr.text(3, r.attrs[a].second);
        ok = attr.run();
      }
    }
  }
  if (!ok || !exec(c->db, "COMMIT")) {
    exec(c->db, "ROLLBACK");
    return RSMGR_ERR_STORE;
  }
  return RSMGR_OK;
}

} // namespace

RSMGR_EXPORT int32_t rsmgr_init_rsm(void **ctx_out, void *a, void *b, uint32_t) {
  if (ctx_out == nullptr)
    return RSMGR_ERR_ARGUMENT;
  *ctx_out = nullptr;
  if (a != nullptr || b != nullptr)
    return RSMGR_ERR_ARGUMENT;
  try {
    auto c = std::make_unique<Client>();
    c->fail = read_fail_plan();
    if (c->fail.init)
      return RSMGR_ERR_INJECTED;
    if (!store_path(c->path))
      return RSMGR_ERR_STORE;
    if (sqlite3_open_v2(c->path.c_str(), &c->db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK)
      return RSMGR_ERR_STORE;
    sqlite3_busy_timeout(c->db, kBusyTimeoutMs);
    if (!exec(c->db, kSchema))
      return RSMGR_ERR_STORE;
    *ctx_out = c.release();
    return RSMGR_OK;
  } catch (const std::bad_alloc &) {
    return RSMGR_ERR_MEMORY;
  }
}

RSMGR_EXPORT int32_t rsmgr_term_rsm(void **ctx) {
  if (ctx == nullptr || *ctx == nullptr)
    return RSMGR_ERR_ARGUMENT;
  delete static_cast<Client *>(*ctx);
  *ctx = nullptr;
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_res_create(void *ctx, const char *name, void **res_out) {
  if (res_out != nullptr)
    *res_out = nullptr;
  if (ctx == nullptr || name == nullptr || *name == '\0' || res_out == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *c = static_cast<Client *>(ctx);
  if (c->inject(kCreate))
    return RSMGR_ERR_INJECTED;
  try {
    auto r = std::make_unique<Resource>(Resource{c, name, {}, 0, {}});
    c->loose.insert(r.get());
    *res_out = r.release();
  } catch (const std::bad_alloc &) {
    return RSMGR_ERR_MEMORY;
  }
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_res_set_attr(void *res, const char *name, const char *value) {
  if (res == nullptr || name == nullptr || *name == '\0' || value == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *r = static_cast<Resource *>(res);
  if (r->client->inject(kSetAttr))
    return RSMGR_ERR_INJECTED;
  try {
    for (auto &a : r->attrs) {
      if (a.first == name) {
        a.second = value;
        return RSMGR_OK;
      }
    }
    r->attrs.emplace_back(name, value);
    return RSMGR_OK;
  } catch (const std::bad_alloc &) {
    return RSMGR_ERR_MEMORY;
  }
}

RSMGR_EXPORT const char *rsmgr_res_name(void *res) {
  return res == nullptr ? nullptr : static_cast<Resource *>(res)->name.c_str();
}

RSMGR_EXPORT int32_t rsmgr_res_get_op_status(void *res, int32_t *status, const char **msg) {
  if (res == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *r = static_cast<Resource *>(res);
  if (status != nullptr)
    *status = r->status;
  if (msg != nullptr)
    *msg = r->message.c_str();
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_reslist_create(void *ctx, void **list_out) {
  if (list_out != nullptr)
    *list_out = nullptr;
  if (ctx == nullptr || list_out == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *c = static_cast<Client *>(ctx);
  if (c->inject(kResList))
    return RSMGR_ERR_INJECTED;
  auto *l = new (std::nothrow) ResList{c, {}};
  if (l == nullptr)
    return RSMGR_ERR_MEMORY;
  *list_out = l;
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_reslist_append(void *list, void *res) {
  if (list == nullptr || res == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *l = static_cast<ResList *>(list);
  if (l->client->inject(kAppend))
    return RSMGR_ERR_INJECTED;
  auto *r = static_cast<Resource *>(res);
  try {
    l->items.emplace_back(r);
  } catch (const std::bad_alloc &) {
    return RSMGR_ERR_MEMORY; // the resource stays with the client
  }
  r->client->loose.erase(r);
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_reslist_first(void *list, void **res_out) {
  if (res_out != nullptr)
    *res_out = nullptr;
  if (list == nullptr || res_out == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *l = static_cast<ResList *>(list);
  if (!l->items.empty())
    *res_out = l->items.front().get();
  return RSMGR_OK;
}

RSMGR_EXPORT uint32_t rsmgr_reslist_count(void *list) {
  return list == nullptr ? 0 : static_cast<uint32_t>(static_cast<ResList *>(list)->items.size());
}

RSMGR_EXPORT int32_t rsmgr_reslist_destroy(void **list) {
  if (list == nullptr || *list == nullptr)
    return RSMGR_ERR_ARGUMENT;
  delete static_cast<ResList *>(*list);
  *list = nullptr;
  return RSMGR_OK;
}

RSMGR_EXPORT int32_t rsmgr_register_resource2(void *list, uint32_t flags, void *a, void *b,
                                              void *outcome) {
  if (list == nullptr || a != nullptr || b != nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *l = static_cast<ResList *>(list);
  if (l->items.empty())
    return RSMGR_ERR_ARGUMENT;
  Client *c = l->client;
  int32_t rc = c->inject(kRegister) ? RSMGR_ERR_INJECTED : apply(c, *l, flags);
  if (outcome != nullptr) {
    auto *out = static_cast<ResList *>(outcome);
    try {
      for (const auto &r : l->items) {
        auto o = std::make_unique<Resource>(Resource{c, r->name, {}, rc, {}});
        o->message = rc == RSMGR_OK                ? ((flags & RSMGR_FLAG_QUEUE) ? "queued" : "registered")
                     : rc == RSMGR_ERR_INJECTED ? "injected failure"
                                                : std::string("store failure: ") + sqlite3_errmsg(c->db);
        out->items.push_back(std::move(o));
      }
    } catch (const std::bad_alloc &) {
      return rc == RSMGR_OK ? RSMGR_OK : rc;
    }
  }
  return rc;
}

RSMGR_EXPORT const char *rsmgr_store_path(void *ctx) {
  return ctx == nullptr ? nullptr : static_cast<Client *>(ctx)->path.c_str();
}

RSMGR_EXPORT int32_t rsmgr_store_walk(void *ctx, int32_t queue, rsmgr_walk_fn fn, void *arg) {
  if (ctx == nullptr || fn == nullptr)
    return RSMGR_ERR_ARGUMENT;
  auto *c = static_cast<Client *>(ctx);
  Stmt s(c->db, queue ? "SELECT resource, name, value, flags, queued_at FROM rsm_queue ORDER BY id"
                      : "SELECT a.resource, a.name, a.value, 0, r.registered_at FROM rsm_attr a "
                        "JOIN rsm_resource r ON r.name = a.resource ORDER BY a.resource, a.name");
  if (!s.ok())
    return RSMGR_ERR_STORE;
  int rc;
  while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
    auto col = [&](int i) {
      const unsigned char *t = sqlite3_column_text(s.get(), i);
      return t ? reinterpret_cast<const char *>(t) : "";
    };
    if (fn(arg, col(0), col(1), col(2), static_cast<uint32_t>(sqlite3_column_int64(s.get(), 3)),
           col(4)) != 0)
      return RSMGR_OK;
  }
  return rc == SQLITE_DONE ? RSMGR_OK : RSMGR_ERR_STORE;
}
