/* Registry contents read through the exported operations.
 *
 * Each input builds the whole in-memory registry afresh and then reads it
 * back through every fetch, listing and point read of the library. The
 * input is two header bytes and a list of edits:
 *
 *   flags    bit 0: start from the small cluster below, else from nothing
 *   bufsize  the size of the caller's buffer for the name reads
 *   edits    op base times fan name NUL len_lo len_hi bytes[len]
 *
 * An edit names a key relative to one of the bases below (base modulo
 * their count; base 0 is the root, so the name is absolute); an empty name
 * is the base itself. op & 3: 0 deletes the key with its subtree, 1 makes
 * it a key without value, 2 gives it the bytes as value, 3 the bytes and a
 * NUL. The value is the bytes repeated `times` times (0 as 1). With fan n,
 * the edit goes to the n keys <name>0 .. <name>{n-1} instead. Missing
 * parents are created without value; names the registry refuses are
 * passed over.
 *
 * Every operation must answer with one of its own result codes, hand out
 * records whose tables are as long as they say and whose texts end, and
 * leave no block, open key or lock behind once the records are released.
 * A listing and a fetch must find what the registry holds. */
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fuzz_session.h"

namespace {

const std::string kDatabases = "DATABASE.DATABASES";
const std::string kDb = kDatabases + ".sales";
const std::string kService = kDb + ".SERVICE.crm";
const std::string kVlm = "DATABASE.VLM.storage.vlm1";
const std::string kNode = "DATABASE.NODEAPPS.node1";

const std::string kBases[] = {
    "",
    kDatabases,
    kDb,
    kDb + ".INSTANCE",
    kDb + ".INSTANCE.sales1",
    kDb + ".SERVICE",
    kService,
    kService + ".INSTANCES",
    kService + ".INSTANCES.sales1",
    kVlm,
    kNode,
    kNode + ".VIP",
};
constexpr size_t kBaseCount = sizeof kBases / sizeof kBases[0];

/* Bounds that keep one input fast. */
constexpr size_t kMaxKeys = 800;      /* keys an input may create */
constexpr size_t kMaxValue = 1 << 14; /* bytes of one value */
constexpr size_t kMaxNames = 4;       /* names of one kind read back */

std::string text(const char *s) { return std::string(s, std::strlen(s) + 1); }

/* A caller's name as the library looks it up: ASCII lower case. */
std::string lower(std::string s) {
  for (char &c : s)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c + 32);
  return s;
}

/* The small cluster: one database with two instances and one service, a
 * storage-manager entry and two nodes. kNone marks a key without value;
 * node2 keeps its address in VIP.IP under an empty VIP. */
void build_cluster(void *h) {
  const std::string env("TZ=UTC\0LANG=C\0\0", 15);
  const std::string kNone = "(none)";
  const std::pair<std::string, std::string> keys[] = {
      {"DATABASE", kNone},
      {kDatabases, kNone},
      {kDb, text("Sales")},
      {kDb + ".BOOTCFG", text("/srv/tervan/sales/bootcfg.ini")},
      {kDb + ".DB_CLU_ALIAS", kNone},
      {kDb + ".DB_CLU_ALIAS.IP", text("10.20.0.50")},
      {kDb + ".DB_NAME", text("sales")},
      {kDb + ".DOMAIN", text("example.com")},
      {kDb + ".ENABLED", text("true")},
      {kDb + ".ENVIRONMENT", env},
      {kDb + ".INSTANCE", kNone},
      {kDb + ".INSTANCE.sales1", text("Sales1")},
      {kDb + ".INSTANCE.sales1.ENABLED", text("true")},
      {kDb + ".INSTANCE.sales1.ENVIRONMENT", env},
      {kDb + ".INSTANCE.sales1.NODE", text("node1")},
      {kDb + ".INSTANCE.sales2", text("Sales2")},
      {kDb + ".INSTANCE.sales2.ENABLED", text("false")},
      {kDb + ".INSTANCE.sales2.NODE", text("node2")},
      {kDb + ".POLICY", text("AUTOMATIC")},
      {kDb + ".ROLE", text("PRIMARY")},
      {kDb + ".SERVICE", kNone},
      {kService, text("CRM")},
      {kService + ".ENABLED", text("true")},
      {kService + ".ENVIRONMENT", std::string("TZ=America/New_York\0\0", 21)},
      {kService + ".FOVPOLICY", text("BASIC")},
      {kService + ".INSTANCES", kNone},
      {kService + ".INSTANCES.sales1", text("Sales1")},
      {kService + ".INSTANCES.sales1.ENABLED", text("true")},
      {kService + ".INSTANCES.sales1.TYPE", text("PREFERRED")},
      {kService + ".INSTANCES.sales2", text("Sales2")},
      {kService + ".INSTANCES.sales2.ENABLED", text("true")},
      {kService + ".INSTANCES.sales2.TYPE", text("AVAILABLE")},
      {kDb + ".START_OPTIONS", text("open")},
      {kDb + ".TERVAN_HOME", text("/opt/tervan/19.0/dbhome_1")},
      {"DATABASE.NODEAPPS", kNone},
      {kNode, text("Node1")},
      {kNode + ".ENVIRONMENT", env},
      {kNode + ".TERVAN_HOME", text("/opt/tervan/19.0/grid")},
      {kNode + ".VIP", text("192.0.2.11")},
      {kNode + ".VIP.INTERFACES", text("eth0")},
      {kNode + ".VIP.NETMASK", text("255.255.255.0")},
      {"DATABASE.NODEAPPS.node2", text("Node2")},
      {"DATABASE.NODEAPPS.node2.VIP", std::string()},
      {"DATABASE.NODEAPPS.node2.VIP.IP", text("192.0.2.12")},
      {"DATABASE.VLM", kNone},
      {"DATABASE.VLM.storage", kNone},
      {kVlm, text("VLM1")},
      {kVlm + ".BOOTCFG", text("/srv/tervan/vlm/bootcfg.ini")},
      {kVlm + ".ENABLED", text("true")},
      {kVlm + ".ENVIRONMENT", env},
      {kVlm + ".START_OPTIONS", text("mount")},
      {kVlm + ".TERVAN_HOME", text("/opt/tervan/19.0/grid")},
      {kVlm + ".VERSION", text("19.0.0.0")},
  };
  for (const auto &[name, value] : keys) {
    const bool has_value = value != kNone;
    FUZZ_CHECK(hvsadm_create_key(h, name.c_str(), has_value, value.data(),
                                 has_value ? static_cast<uint32_t>(value.size()) : 0) == 0);
  }
}

/* Reads the input's edits and applies them. */
class Builder {
public:
  Builder(void *h, const uint8_t *data, size_t size) : h_(h), p_(data), end_(data + size) {}

  void run() {
    while (p_ + 4 <= end_ && created_ < kMaxKeys) {
      const uint8_t op = p_[0], base = p_[1], times = p_[2], fan = p_[3];
      p_ += 4;
      std::string rel = take_text();
      size_t len = 0;
      if (p_ < end_)
        len = *p_++;
      if (p_ < end_)
        len |= size_t{*p_++} << 8;
      len = std::min<size_t>(len, end_ - p_);
      std::string bytes(reinterpret_cast<const char *>(p_), len);
      p_ += len;

      std::string value;
      for (unsigned i = 0; i < std::max(1u, unsigned{times}) && value.size() < kMaxValue; ++i)
        value += bytes;
      if (value.size() > kMaxValue)
        value.resize(kMaxValue);
      if ((op & 3) == 3)
        value += '\0';

      const std::string &b = kBases[base % kBaseCount];
      std::string name = b.empty() ? rel : rel.empty() ? b : b + "." + rel;
      if (fan == 0) {
        apply(op & 3, name, value);
      } else {
        for (unsigned i = 0; i < fan; ++i)
          apply(op & 3, name + std::to_string(i), value);
      }
    }
  }

private:
  std::string take_text() {
    const uint8_t *nul = std::find(p_, end_, uint8_t{0});
    std::string s(reinterpret_cast<const char *>(p_), nul - p_);
    p_ = nul < end_ ? nul + 1 : end_;
    return s;
  }

  void apply(int op, const std::string &name, const std::string &value) {
    if (name.empty() || created_ >= kMaxKeys)
      return;
    if (op == 0) {
      hvsadm_delete_key(h_, name.c_str(), 1);
      parents_.clear();
      return;
    }
    /* Parents first, each without value. */
    for (size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1))
      if (parents_.insert(name.substr(0, dot)).second)
        create(name.substr(0, dot), false, {});
    const bool has_value = op != 1;
    if (!create(name, has_value, value))
      hvsadm_put_value(h_, name.c_str(), has_value, value.data(),
                       static_cast<uint32_t>(value.size()));
  }

  /* False when the key exists already. */
  bool create(const std::string &name, bool has_value, const std::string &value) {
    int32_t rc = hvsadm_create_key(h_, name.c_str(), has_value, value.data(),
                                   static_cast<uint32_t>(value.size()));
    created_ += rc == 0;
    return rc != HVS_ERR_EXISTS;
  }

  void *h_;
  const uint8_t *p_;
  const uint8_t *end_;
  size_t created_ = 0;
  std::set<std::string> parents_; /* made sure of once */
};

/* One key of the registry as the admin interface sees it. */
struct Stored {
  bool has_value = false;
  std::string value;
};

/* The whole registry, read back after the edits. */
std::map<std::string, Stored> snapshot(void *h) {
  std::map<std::string, Stored> out;
  auto cb = [](void *arg, const char *name, const void *value, uint32_t len, int has_value) -> int {
    Stored s;
    s.has_value = has_value != 0;
    if (has_value != 0 && len > 0)
      s.value.assign(static_cast<const char *>(value), len);
    (*static_cast<std::map<std::string, Stored> *>(arg))[name] = s;
    return 0;
  };
  FUZZ_CHECK(hvsadm_walk(h, "", cb, &out) == 0);
  return out;
}

/* The components directly under key, in registry order. */
std::vector<std::string> children(const std::map<std::string, Stored> &reg,
                                  const std::string &key) {
  std::vector<std::string> out;
  const std::string prefix = key + ".";
  for (auto it = reg.lower_bound(prefix); it != reg.end() && it->first.starts_with(prefix); ++it)
    if (it->first.find('.', prefix.size()) == std::string::npos)
      out.push_back(it->first.substr(prefix.size()));
  return out;
}

std::vector<std::string> first(std::vector<std::string> v, size_t n) {
  if (v.size() > n)
    v.resize(n);
  return v;
}

/* A text the library handed out: it must end inside its block (the
 * sanitizer sees a read past it). */
void check_text(const char *s) {
  if (s != nullptr)
    (void)std::strlen(s);
}

/* An environment table: count slots, NULL from the first empty string on. */
void check_environment(char **env, uint32_t count) {
  FUZZ_CHECK((env == nullptr) == (count == 0));
  bool ended = false;
  for (uint32_t i = 0; i < count; ++i) {
    if (env[i] == nullptr)
      ended = true;
    else
      FUZZ_CHECK(!ended && env[i][0] != '\0');
  }
}

/* A list of a service entry: count names and a NULL after them, or no list
 * at all for a service without instances. */
void check_members(char **names, const uint32_t *flags, uint32_t count) {
  if (names == nullptr) {
    FUZZ_CHECK(count == 0);
    return;
  }
  for (uint32_t i = 0; i < count; ++i) {
    FUZZ_CHECK(names[i] != nullptr);
    check_text(names[i]);
    FUZZ_CHECK(flags[i] <= 1);
  }
  FUZZ_CHECK(names[count] == nullptr);
}

struct Env : fuzz::Session {
  Env() : Session("prsr-fuzz-fetch") { start(); }
};

using fuzz::one_of;

/* The database operations on database `db` (a key component). */
void read_database(Env &env, const std::map<std::string, Stored> &reg, const std::string &db,
                   uint32_t bufsize, std::set<std::string> &nodes) {
  prsr_ctx *ctx = env.ctx;
  lks_status *st = &env.status;
  const std::string key = kDatabases + "." + lower(db);
  const bool exists = reg.count(key) != 0;
  const auto instances = children(reg, key + ".INSTANCE");
  const auto services = children(reg, key + ".SERVICE");

  prsr_cfg *cfg = reinterpret_cast<prsr_cfg *>(&nodes); /* must be replaced */
  int32_t rc = prsr_fetch_db_config(st, ctx, db.c_str(), &cfg);
  FUZZ_CHECK(one_of(rc, {0, 2, 3, 5, 7}));
  FUZZ_CHECK((rc == 0) == (cfg != nullptr));
  FUZZ_CHECK(rc != 7 || !exists);
  std::vector<std::string> service_names;
  if (cfg != nullptr) {
    FUZZ_CHECK(exists);
    for (const char *s : {cfg->sp_name, cfg->clu_alias_ip, cfg->tervan_home, cfg->bootcfg,
                          cfg->db_name, cfg->role, cfg->start_options, cfg->domain, cfg->policy})
      check_text(s);
    FUZZ_CHECK(cfg->sp_name != nullptr && cfg->policy != nullptr);
    FUZZ_CHECK(cfg->instance_count == instances.size());
    FUZZ_CHECK((cfg->instances == nullptr) == (cfg->instance_count == 0));
    for (uint32_t i = 0; i < cfg->instance_count; ++i) {
      const prsr_instance_cfg *e = cfg->instances[i];
      FUZZ_CHECK(e != nullptr && e->instance_name != nullptr && e->enabled <= 1);
      check_text(e->instance_name);
      check_text(e->node_name);
      check_environment(e->environment, e->environment_count);
    }
    FUZZ_CHECK(cfg->service_count == services.size());
    FUZZ_CHECK((cfg->services == nullptr) == (cfg->service_count == 0));
    for (uint32_t i = 0; i < cfg->service_count; ++i) {
      const prsr_service_cfg *e = cfg->services[i];
      FUZZ_CHECK(e != nullptr && e->service_name != nullptr && e->enabled <= 1);
      FUZZ_CHECK(e->fov_policy <= PRSR_FOV_PRECONNECT);
      check_text(e->service_name);
      check_members(e->pref_instances, e->pref_enabled, e->pref_count);
      check_members(e->avail_instances, e->avail_enabled, e->avail_count);
      check_environment(e->environment, e->environment_count);
      if (service_names.size() < kMaxNames)
        service_names.push_back(e->service_name);
    }
    FUZZ_CHECK(cfg->enabled <= 1);
    check_environment(cfg->environment, cfg->environment_count);
    FUZZ_CHECK(prsr_release_db_config(st, ctx, cfg) == 0);
  }

  uint32_t word = 0xFFu;
  rc = prsr_get_db_enabled(st, ctx, db.c_str(), &word);
  FUZZ_CHECK(one_of(rc, {0, 2, 3, 7}));
  FUZZ_CHECK(rc != 0 || word <= 1);
  word = 0xFFu;
  rc = prsr_get_db_role(st, ctx, db.c_str(), &word);
  FUZZ_CHECK(one_of(rc, {0, 2, 3, 9}, true));
  FUZZ_CHECK(rc != 0 || word <= PRSR_ROLE_SNAPSHOT_STANDBY);
  {
    fuzz::Buffer buf(bufsize);
    rc = prsr_get_spname(st, ctx, db.c_str(), bufsize, buf.p);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}, true));
    if (rc == 0)
      (void)buf.text();
  }
  char *domain = nullptr;
  rc = prsr_get_domain(st, ctx, db.c_str(), &domain);
  FUZZ_CHECK(one_of(rc, {0, 2, 3}, true));
  FUZZ_CHECK((rc == 0) == (domain != nullptr));
  if (domain != nullptr) {
    check_text(domain);
    FUZZ_CHECK(prsr_free_domain(ctx, domain) == 0);
  }

  for (const auto &inst : first(instances, kMaxNames)) {
    rc = prsr_get_instance_enabled(st, ctx, db.c_str(), inst.c_str(), &word);
    FUZZ_CHECK(one_of(rc, {0, 2, 3, 7}));
    fuzz::Buffer buf(bufsize);
    rc = prsr_get_instance_name(st, ctx, db.c_str(), inst.c_str(), bufsize, buf.p);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 7}, true));
    if (rc == 0)
      (void)buf.text();
    auto node = reg.find(key + ".INSTANCE." + inst + ".NODE");
    if (node != reg.end() && nodes.size() < kMaxNames)
      nodes.insert(node->second.value.substr(0, node->second.value.find('\0')));
  }
  for (const auto &node : nodes) {
    fuzz::Buffer buf(bufsize);
    rc = prsr_get_node_instance_name(st, ctx, db.c_str(), node.c_str(), bufsize, buf.p);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 5}, true));
    if (rc == 0)
      (void)buf.text();
  }

  /* Services by key component and by the name the fetch gave. */
  for (const auto &srv : first(services, kMaxNames))
    service_names.push_back(srv);
  for (const auto &srv : service_names) {
    char **inst = nullptr, **node = nullptr;
    uint32_t *avail = nullptr;
    uint32_t count = 0xFFu;
    rc = prsr_get_srv_instances(st, ctx, db.c_str(), srv.c_str(), &inst, &node, &avail, &count);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3}));
    FUZZ_CHECK(rc == 0 || count == 0);
    for (uint32_t i = 0; i < count; ++i) {
      FUZZ_CHECK(inst[i] != nullptr && node[i] != nullptr && avail[i] <= 1);
      check_text(inst[i]);
      check_text(node[i]);
    }
    FUZZ_CHECK(prsr_release_srv_instances(st, ctx, inst, node, avail, count) == 0);

    rc = prsr_get_service_enabled(st, ctx, db.c_str(), srv.c_str(), &word);
    FUZZ_CHECK(one_of(rc, {0, 2, 3, 7}));
    word = 0xFFu;
    rc = prsr_get_service_fov_policy(st, ctx, db.c_str(), srv.c_str(), &word);
    FUZZ_CHECK(one_of(rc, {0, 2}, true));
    FUZZ_CHECK(rc != 0 || (word >= PRSR_FOV_NONE && word <= PRSR_FOV_PRECONNECT));
  }
  for (const auto &srv : first(services, kMaxNames)) {
    for (const auto &inst :
         first(children(reg, key + ".SERVICE." + srv + ".INSTANCES"), kMaxNames)) {
      rc = prsr_get_service_instance_enabled(st, ctx, db.c_str(), srv.c_str(), inst.c_str(), &word);
      FUZZ_CHECK(one_of(rc, {0, 2, 3, 7}));
      word = 0xFFu;
      rc = prsr_get_service_instance_supported(st, ctx, db.c_str(), srv.c_str(), inst.c_str(),
                                               &word);
      FUZZ_CHECK(one_of(rc, {0, 2, 3, 7}, true));
      FUZZ_CHECK(word <= 1 && (rc == 0 || word == 0));
    }
  }
}

/* prsr_list_db: every database, each name as stored up to its first NUL. */
void list_databases(Env &env, const std::map<std::string, Stored> &reg) {
  prsr_ctx *ctx = env.ctx;
  lks_status *st = &env.status;
  const auto dbs = children(reg, kDatabases);
  char **list = nullptr;
  uint32_t count = 0xFFu;
  int32_t rc = prsr_list_db(st, ctx, &list, &count);
  FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 5}));
  if (rc == 0) {
    FUZZ_CHECK(list != nullptr && count == dbs.size());
    for (uint32_t i = 0; i < count; ++i) {
      FUZZ_CHECK(list[i] != nullptr);
      const std::string &v = reg.at(kDatabases + "." + dbs[i]).value;
      FUZZ_CHECK(list[i] == v.substr(0, v.find('\0')));
    }
  }
  FUZZ_CHECK(prsr_release_db_list(st, ctx, list, list ? count : 0) == 0);
}

void read_vlm(Env &env, const std::map<std::string, Stored> &reg, uint32_t bufsize) {
  prsr_ctx *ctx = env.ctx;
  lks_status *st = &env.status;
  for (const auto &parent : first(children(reg, "DATABASE.VLM"), kMaxNames)) {
    for (const auto &name : first(children(reg, "DATABASE.VLM." + parent), kMaxNames)) {
      const char *a = parent.c_str(), *b = name.c_str();
      prsr_vlm_cfg *cfg = reinterpret_cast<prsr_vlm_cfg *>(&env); /* must be replaced */
      int32_t rc = prsr_fetch_vlm_config(st, ctx, a, b, &cfg);
      FUZZ_CHECK(one_of(rc, {0, 2, 3, 5, 8}));
      FUZZ_CHECK((rc == 0) == (cfg != nullptr));
      if (cfg != nullptr) {
        for (const char *s : {cfg->bootcfg, cfg->tervan_home, cfg->start_options, cfg->version})
          check_text(s);
        check_environment(cfg->environment, cfg->environment_count);
        FUZZ_CHECK(cfg->enabled <= 1);
        FUZZ_CHECK(prsr_release_vlm_config(st, ctx, cfg) == 0);
      }
      uint32_t word = 0xFFu;
      rc = prsr_get_vlm_enabled(st, ctx, a, b, &word);
      FUZZ_CHECK(one_of(rc, {0, 2, 3, 8}));
      FUZZ_CHECK(rc != 0 || word <= 1);
      fuzz::Buffer buf(bufsize);
      rc = prsr_get_vlm_name(st, ctx, a, b, bufsize, buf.p);
      FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 8}, true));
      if (rc == 0)
        (void)buf.text();
    }
  }
}

void read_nodeapps(Env &env, const std::map<std::string, Stored> &reg,
                   std::set<std::string> nodes) {
  prsr_ctx *ctx = env.ctx;
  lks_status *st = &env.status;
  for (const auto &node : first(children(reg, "DATABASE.NODEAPPS"), kMaxNames))
    nodes.insert(node);
  for (const auto &node : nodes) {
    prsr_nodeapps_cfg *cfg = reinterpret_cast<prsr_nodeapps_cfg *>(&env); /* must be replaced */
    int32_t rc = prsr_fetch_nodeapps_config(st, ctx, node.c_str(), &cfg);
    FUZZ_CHECK(one_of(rc, {0, 1, 2, 3, 5, 10}));
    FUZZ_CHECK((rc == 0) == (cfg != nullptr));
    if (cfg != nullptr) {
      FUZZ_CHECK(cfg->node_name != nullptr);
      for (const char *s :
           {cfg->node_name, cfg->tervan_home, cfg->vip, cfg->interfaces, cfg->netmask})
        check_text(s);
      check_environment(cfg->environment, cfg->environment_count);
      FUZZ_CHECK(prsr_release_nodeapps_config(st, ctx, cfg) == 0);
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Env env;
  const uint8_t flags = size > 0 ? data[0] : 0;
  const uint32_t bufsize = size > 1 ? data[1] : 0;
  FUZZ_CHECK(hvsadm_delete_key(env.admin, "", 1) == 0);
  if (flags & 1)
    build_cluster(env.admin);
  if (size > 2)
    Builder(env.admin, data + 2, size - 2).run();
  const auto reg = snapshot(env.admin);
  const fuzz::Held before;

  list_databases(env, reg);
  std::set<std::string> nodes;
  auto dbs = first(children(reg, kDatabases), kMaxNames);
  if (std::find(dbs.begin(), dbs.end(), "sales") == dbs.end())
    dbs.push_back("sales"); /* the fetch of a database that is not there */
  for (const auto &db : dbs)
    read_database(env, reg, db, bufsize, nodes);
  read_vlm(env, reg, bufsize);
  read_nodeapps(env, reg, nodes);

  FUZZ_CHECK(fuzz::Held() == before);
  return 0;
}
