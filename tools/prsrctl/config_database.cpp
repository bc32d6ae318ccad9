/* Database configuration: prsrctl config database [-d NAME],
 * prsrctl config service -d DB -s SRV. */
#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>

#include <fmt/format.h>

#include "hvsapi.h"
#include "prsrctl.h"

namespace prsrctl {
namespace {

using nlohmann::json;

json text_or_null(const char *s) { return s ? json(s) : json(nullptr); }

json texts(char **table, uint32_t count) {
  json a = json::array();
  for (uint32_t i = 0; i < count; ++i)
    if (table != nullptr && table[i] != nullptr)
      a.push_back(table[i]);
  return a;
}

const char *failover_word(uint32_t code) {
  switch (code) {
  case 0:
    return "unset";
  case PRSR_FOV_NONE:
    return "none";
  case PRSR_FOV_BASIC:
    return "basic";
  case PRSR_FOV_PRECONNECT:
    return "preconnect";
  default:
    return "unknown";
  }
}

/* A field for the readable report: "-" when the key is missing, "(empty)"
 * when it is there but could not be read or holds nothing. */
std::string shown(const char *s) {
  if (s == nullptr)
    return "-";
  return *s ? std::string(s) : std::string("(empty)");
}

std::string joined(char **table, uint32_t count, const char *sep = ", ") {
  std::string out;
  for (uint32_t i = 0; i < count; ++i) {
    if (table == nullptr || table[i] == nullptr)
      continue;
    if (!out.empty())
      out += sep;
    out += table[i];
  }
  return out.empty() ? "-" : out;
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

/* Whether a registry key exists, asked of the registry directly: used only
 * to tell "not found" from other failures where the library answers 3. */
bool key_exists(const std::string &name) {
  void *h = nullptr;
  char msg[1024] = {0};
  uint64_t len = sizeof msg;
  if (hvsapi_init_ext(&h, 3, msg, &len, 0) != 0)
    return true; /* cannot tell: leave it a registry failure */
  void *k = nullptr;
  int32_t rc = hvsapi_open_key(h, &k, name.c_str());
  if (rc == 0)
    hvsapi_close_key(h, k);
  hvsapi_terminate(h);
  return rc != HVS_ERR_NO_KEY;
}

json db_json(const prsr_cfg *c) {
  json doc = {
      {"database", text_or_null(c->sp_name)},
      {"db_name", text_or_null(c->db_name)},
      {"domain", text_or_null(c->domain)},
      {"enabled", c->enabled != 0},
      {"role", text_or_null(c->role)},
      {"policy", text_or_null(c->policy)},
      {"cluster_alias_ip", text_or_null(c->clu_alias_ip)},
      {"tervan_home", text_or_null(c->tervan_home)},
      {"bootcfg", text_or_null(c->bootcfg)},
      {"start_options", text_or_null(c->start_options)},
      {"environment", texts(c->environment, c->environment_count)},
  };
  json insts = json::array();
  for (uint32_t i = 0; i < c->instance_count; ++i) {
    const prsr_instance_cfg *in = c->instances[i];
    insts.push_back({{"instance", text_or_null(in->instance_name)},
                     {"node", text_or_null(in->node_name)},
                     {"enabled", in->enabled != 0},
                     {"environment", texts(in->environment, in->environment_count)}});
  }
  doc["instances"] = insts;
  json svcs = json::array();
  for (uint32_t i = 0; i < c->service_count; ++i) {
    const prsr_service_cfg *s = c->services[i];
    auto members = [](char **names, const uint32_t *flags, uint32_t n) {
      json a = json::array();
      for (uint32_t j = 0; j < n; ++j)
        a.push_back({{"instance", text_or_null(names[j])}, {"enabled", flags[j] != 0}});
      return a;
    };
    svcs.push_back({{"service", text_or_null(s->service_name)},
                    {"enabled", s->enabled != 0},
                    {"failover", failover_word(s->fov_policy)},
                    {"preferred", members(s->pref_instances, s->pref_enabled, s->pref_count)},
                    {"available", members(s->avail_instances, s->avail_enabled, s->avail_count)},
                    {"environment", texts(s->environment, s->environment_count)}});
  }
  doc["services"] = svcs;
  return doc;
}

void print_db(const prsr_cfg *c) {
  auto row = [](const char *label, const std::string &v) {
    std::cout << fmt::format("{:<15} {}\n", label, v);
  };
  row("Database", shown(c->sp_name));
  row("DB name", shown(c->db_name));
  row("Domain", shown(c->domain));
  row("Enabled", c->enabled ? "yes" : "no");
  row("Role", shown(c->role));
  row("Policy", shown(c->policy));
  row("Cluster alias", shown(c->clu_alias_ip));
  row("Software home", shown(c->tervan_home));
  row("Boot config", shown(c->bootcfg));
  row("Start options", shown(c->start_options));
  row("Environment", joined(c->environment, c->environment_count));

  std::cout << fmt::format("\nInstances ({})\n", c->instance_count);
  if (c->instance_count > 0) {
    size_t wn = 8, wd = 4;
    for (uint32_t i = 0; i < c->instance_count; ++i) {
      wn = std::max(wn, shown(c->instances[i]->instance_name).size());
      wd = std::max(wd, shown(c->instances[i]->node_name).size());
    }
    std::cout << fmt::format("  {:<{}}  {:<{}}  {:<7}  {}\n", "INSTANCE", wn, "NODE", wd,
                             "ENABLED", "ENVIRONMENT");
    for (uint32_t i = 0; i < c->instance_count; ++i) {
      const prsr_instance_cfg *in = c->instances[i];
      std::cout << fmt::format("  {:<{}}  {:<{}}  {:<7}  {}\n", shown(in->instance_name), wn,
                               shown(in->node_name), wd, in->enabled ? "yes" : "no",
                               joined(in->environment, in->environment_count));
    }
  }

  std::cout << fmt::format("\nServices ({})\n", c->service_count);
  for (uint32_t i = 0; i < c->service_count; ++i) {
    const prsr_service_cfg *s = c->services[i];
    auto members = [](char **names, const uint32_t *flags, uint32_t n) {
      std::string out;
      for (uint32_t j = 0; j < n; ++j)
        out += (j ? ", " : "") + shown(names[j]) + (flags[j] ? " (enabled)" : " (disabled)");
      return out.empty() ? std::string("-") : out;
    };
    std::cout << "  " << shown(s->service_name) << "\n";
    std::cout << fmt::format("    {:<12} {}\n", "enabled", s->enabled ? "yes" : "no");
    std::cout << fmt::format("    {:<12} {}\n", "failover", failover_word(s->fov_policy));
    std::cout << fmt::format("    {:<12} {}\n", "preferred",
                             members(s->pref_instances, s->pref_enabled, s->pref_count));
    std::cout << fmt::format("    {:<12} {}\n", "available",
                             members(s->avail_instances, s->avail_enabled, s->avail_count));
    std::cout << fmt::format("    {:<12} {}\n", "environment",
                             joined(s->environment, s->environment_count));
  }
}

int show_database(const Globals &g, const std::string &db) {
  Session s(g);
  if (s.error())
    return s.error();
  prsr_cfg *cfg = nullptr;
  int32_t rc = prsr_fetch_db_config(s.status(), s.ctx(), db.c_str(), &cfg);
  if (rc != PRSR_SUCCESS)
    return report(rc, "database " + db, s.status());
  if (g.json)
    emit(db_json(cfg));
  else
    print_db(cfg);
  prsr_release_db_config(s.status(), s.ctx(), cfg);
  return kOk;
}

int list_databases(const Globals &g) {
  Session s(g);
  if (s.error())
    return s.error();
  char **list = nullptr;
  uint32_t count = 0;
  int32_t rc = prsr_list_db(s.status(), s.ctx(), &list, &count);
  if (rc != PRSR_SUCCESS) {
    prsr_release_db_list(s.status(), s.ctx(), list, count);
    return report(rc, "list of databases", s.status());
  }
  if (g.json) {
    emit({{"databases", texts(list, count)}});
  } else if (count == 0) {
    std::cout << "no databases in " << registry_location() << "\n";
  } else {
    for (uint32_t i = 0; i < count; ++i)
      std::cout << (list[i] ? list[i] : "-") << "\n";
  }
  prsr_release_db_list(s.status(), s.ctx(), list, count);
  return kOk;
}

int show_service(const Globals &g, const std::string &db, const std::string &srv) {
  Session s(g);
  if (s.error())
    return s.error();
  char **insts = nullptr, **nodes = nullptr;
  uint32_t *avail = nullptr;
  uint32_t count = 0;
  int32_t rc = prsr_get_srv_instances(s.status(), s.ctx(), db.c_str(), srv.c_str(), &insts,
                                      &nodes, &avail, &count);
  if (rc == PRSR_ERR_REGISTRY) {
    /* The library answers a missing database or service with 3 as well. */
    std::string db_key = "DATABASE.DATABASES." + lower(db);
    std::string comp = lower(srv);
    std::replace(comp.begin(), comp.end(), '.', '*');
    if (!key_exists(db_key))
      return report(PRSR_ERR_NO_KEY, "database " + db);
    if (!key_exists(db_key + ".SERVICE." + comp) ||
        !key_exists(db_key + ".SERVICE." + comp + ".INSTANCES"))
      return report(PRSR_ERR_NO_KEY, "service " + srv + " of database " + db);
  }
  if (rc != PRSR_SUCCESS)
    return report(rc, "service " + srv + " of database " + db, s.status());
  if (g.json) {
    json a = json::array();
    for (uint32_t i = 0; i < count; ++i)
      a.push_back({{"instance", insts[i]},
                   {"node", nodes[i]},
                   {"role", avail[i] ? "available" : "preferred"}});
    emit({{"database", db}, {"service", srv}, {"instances", a}});
  } else if (count == 0) {
    std::cout << "service " << srv << " of database " << db << ": no instances\n";
  } else {
    size_t wi = 8, wn = 4;
    for (uint32_t i = 0; i < count; ++i) {
      wi = std::max(wi, std::string(insts[i]).size());
      wn = std::max(wn, std::string(nodes[i]).size());
    }
    std::cout << fmt::format("{:<{}}  {:<{}}  {}\n", "INSTANCE", wi, "NODE", wn, "ROLE");
    for (uint32_t i = 0; i < count; ++i)
      std::cout << fmt::format("{:<{}}  {:<{}}  {}\n", insts[i], wi, nodes[i], wn,
                               avail[i] ? "available" : "preferred");
  }
  prsr_release_srv_instances(s.status(), s.ctx(), insts, nodes, avail, count);
  return kOk;
}

void register_config_database(CLI::App &app, Globals &g, int &exit_code) {
  auto *cfg = group(app, "config");

  auto *dbcmd = cfg->add_subcommand(
      "database", "List the databases, or show one database's whole configuration");
  auto db = std::make_shared<std::string>();
  auto *db_opt = dbcmd->add_option("-d,--db", *db, "Database name (any case); without it, list all")
                    ->check(kNonEmpty);
  dbcmd->callback([&g, &exit_code, db, db_opt] {
    exit_code = db_opt->count() == 0 ? list_databases(g) : show_database(g, *db);
  });

  auto *srvcmd = cfg->add_subcommand(
      "service", "Show a service's instances with their nodes and roles (preferred/available)");
  auto sdb = std::make_shared<std::string>();
  auto srv = std::make_shared<std::string>();
  srvcmd->add_option("-d,--db", *sdb, "Database name (any case)")->required()->check(kNonEmpty);
  srvcmd->add_option("-s,--service", *srv, "Service name (any case, dots allowed)")->required()->check(kNonEmpty);
  srvcmd->callback(
      [&g, &exit_code, sdb, srv] { exit_code = show_service(g, *sdb, *srv); });
}

Family family(&register_config_database);

} // namespace
} // namespace prsrctl
