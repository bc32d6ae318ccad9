/* Single values of services, service instances, databases and instances:
 *   prsrctl enable|disable instance|service|service-instance
 *   prsrctl get supported|policy|role|instance|spname|domain
 *   prsrctl set role
 * and the -s/-i forms of prsrctl get enabled (registered in flags.cpp). */
#include <algorithm>
#include <cctype>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>

#include "frame/words.h"
#include "points.h"

namespace prsrctl {

namespace {

/* Large enough for any name the registry holds in practice; a longer one
 * is reported as not fitting. */
constexpr uint32_t kNameBuffer = 4096;

} // namespace

int32_t refine(int32_t rc, const std::function<int32_t()> &probe) {
  return rc == PRSR_ERR_REGISTRY && probe() == PRSR_ERR_NO_KEY ? PRSR_ERR_NO_KEY : rc;
}

int32_t probe_database(Session &s, const std::string &db) {
  std::string buf(kNameBuffer, '\0');
  return prsr_get_spname(s.status(), s.ctx(), db.c_str(), kNameBuffer, buf.data());
}

namespace {

using prsr::kRoleCount;
using prsr::kRoleWords;

/* A role word in any case, with "-" for "_", as its number. */
std::optional<uint32_t> parse_role(std::string word) {
  for (char &c : word)
    c = c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (uint32_t r = 0; r < kRoleCount; ++r)
    if (word == kRoleWords[r])
      return r;
  return std::nullopt;
}

std::string role_word(uint32_t role) {
  std::string w = role < kRoleCount ? kRoleWords[role] : "unknown";
  std::transform(w.begin(), w.end(), w.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return w;
}

std::string policy_word(uint32_t policy) {
  switch (policy) {
  case PRSR_FOV_BASIC:
    return "basic";
  case PRSR_FOV_PRECONNECT:
    return "preconnect";
  default:
    return "none";
  }
}

/* "service S of database D", "instance I of database D", ... */
std::string object(const std::string &db, const std::string &srv, const std::string &inst) {
  std::string what;
  if (!srv.empty())
    what = "service " + srv + (inst.empty() ? "" : " instance " + inst);
  else if (!inst.empty())
    what = "instance " + inst;
  return what.empty() ? "database " + db : what + " of database " + db;
}

nlohmann::json names_json(const std::string &db, const std::string &srv, const std::string &inst) {
  nlohmann::json doc = {{"database", db}};
  if (!srv.empty())
    doc["service"] = srv;
  if (!inst.empty())
    doc["instance"] = inst;
  return doc;
}

int set_point_enabled(const Globals &g, const std::string &db, const std::string &srv,
                      const std::string &inst, bool enable) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t v = enable ? 1 : 0;
  WriteResult written = watch_write([&] {
    if (!srv.empty() && !inst.empty())
      return prsr_set_service_instance_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(),
                                               inst.c_str(), v);
    if (!srv.empty())
      return prsr_set_service_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(), v);
    return prsr_set_instance_enabled(s.status(), s.ctx(), db.c_str(), inst.c_str(), v);
  });
  written.rc = refine(written.rc, [&] {
    uint32_t w = 0;
    if (!srv.empty() && !inst.empty())
      return prsr_get_service_instance_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(),
                                               inst.c_str(), &w);
    if (!srv.empty())
      return prsr_get_service_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(), &w);
    return prsr_get_instance_enabled(s.status(), s.ctx(), db.c_str(), inst.c_str(), &w);
  });
  std::string what = object(db, srv, inst);
  if (int code = report_write(written, what, s.status()); code != kOk)
    return code;
  if (g.json) {
    auto doc = names_json(db, srv, inst);
    doc["enabled"] = enable;
    doc["changed"] = true;
    emit(doc);
  } else {
    std::cout << what << ": " << (enable ? "enabled" : "disabled")
              << (!srv.empty() && inst.empty() ? " (with all its instances)" : "") << "\n";
  }
  return kOk;
}

int show_supported(const Globals &g, const std::string &db, const std::string &srv,
                   const std::string &inst) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t supported = 0;
  int32_t rc = prsr_get_service_instance_supported(s.status(), s.ctx(), db.c_str(), srv.c_str(),
                                                   inst.c_str(), &supported);
  std::string what = object(db, srv, inst);
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  if (g.json) {
    auto doc = names_json(db, srv, inst);
    doc["supported"] = supported != 0;
    emit(doc);
  } else {
    std::cout << what << ": " << (supported ? "supported" : "not supported") << "\n";
  }
  return kOk;
}

int show_policy(const Globals &g, const std::string &db, const std::string &srv) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t policy = 0;
  int32_t rc = prsr_get_service_fov_policy(s.status(), s.ctx(), db.c_str(), srv.c_str(), &policy);
  std::string what = object(db, srv, "");
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  if (g.json) {
    auto doc = names_json(db, srv, "");
    doc["policy"] = policy_word(policy);
    doc["code"] = policy;
    emit(doc);
  } else {
    std::cout << what << ": failover policy " << policy_word(policy) << "\n";
  }
  return kOk;
}

int show_role(const Globals &g, const std::string &db) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t role = 0;
  int32_t rc = prsr_get_db_role(s.status(), s.ctx(), db.c_str(), &role);
  rc = refine(rc, [&] { return probe_database(s, db); });
  if (rc != PRSR_SUCCESS)
    return report(rc, "role of database " + db, s.status());
  if (g.json)
    emit({{"database", db}, {"role", role_word(role)}, {"code", role}});
  else
    std::cout << "database " << db << ": " << role_word(role) << "\n";
  return kOk;
}

int set_role(const Globals &g, const std::string &db, const std::string &word) {
  std::optional<uint32_t> role = parse_role(word);
  if (!role) {
    std::cerr << "prsrctl: " << word
              << ": not a role (primary, physical_standby, logical_standby, snapshot_standby)\n";
    return kBadArgument;
  }
  Session s(g);
  if (s.error())
    return s.error();
  WriteResult written =
      watch_write([&] { return prsr_set_db_role(s.status(), s.ctx(), db.c_str(), *role); });
  written.rc = refine(written.rc, [&] { return probe_database(s, db); });
  if (int code = report_write(written, "role of database " + db, s.status()); code != kOk)
    return code;
  if (g.json)
    emit({{"database", db}, {"role", role_word(*role)}, {"code", *role}, {"changed", true}});
  else
    std::cout << "database " << db << ": role " << role_word(*role) << "\n";
  return kOk;
}

/* The instance on a node (node given) or an instance's own spelling. */
int show_instance(const Globals &g, const std::string &db, const std::string &node,
                  const std::string &inst) {
  Session s(g);
  if (s.error())
    return s.error();
  std::string buf(kNameBuffer, '\0');
  int32_t rc;
  std::string what;
  if (!node.empty()) {
    rc = prsr_get_node_instance_name(s.status(), s.ctx(), db.c_str(), node.c_str(), kNameBuffer,
                                     buf.data());
    what = "instance of database " + db + " on node " + node;
  } else {
    rc = prsr_get_instance_name(s.status(), s.ctx(), db.c_str(), inst.c_str(), kNameBuffer,
                                buf.data());
    what = object(db, "", inst);
  }
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  std::string name = buf.c_str();
  if (name.empty()) {
    /* The node search answers "none there" with the empty name. */
    std::cerr << "prsrctl: " << what << ": not found in " << registry_location() << "\n";
    return kNotFound;
  }
  if (g.json) {
    nlohmann::json doc = {{"database", db}, {"instance", name}};
    if (!node.empty())
      doc["node"] = node;
    emit(doc);
  } else if (!node.empty()) {
    std::cout << "node " << node << ": instance " << name << " of database " << db << "\n";
  } else {
    std::cout << "instance " << inst << " of database " << db << ": " << name << "\n";
  }
  return kOk;
}

int show_spname(const Globals &g, const std::string &db) {
  Session s(g);
  if (s.error())
    return s.error();
  std::string buf(kNameBuffer, '\0');
  int32_t rc = prsr_get_spname(s.status(), s.ctx(), db.c_str(), kNameBuffer, buf.data());
  if (rc != PRSR_SUCCESS)
    return report(rc, "database " + db, s.status());
  std::string name = buf.c_str();
  if (g.json)
    emit({{"database", db}, {"spname", name}});
  else
    std::cout << "database " << db << ": " << name << "\n";
  return kOk;
}

int show_domain(const Globals &g, const std::string &db) {
  Session s(g);
  if (s.error())
    return s.error();
  char *domain = nullptr;
  int32_t rc = prsr_get_domain(s.status(), s.ctx(), db.c_str(), &domain);
  rc = refine(rc, [&] { return probe_database(s, db); });
  if (rc != PRSR_SUCCESS)
    return report(rc, "domain of database " + db, s.status());
  std::string text = domain;
  prsr_free_domain(s.ctx(), domain);
  if (g.json)
    emit({{"database", db}, {"domain", text}});
  else
    std::cout << "database " << db << ": domain " << text << "\n";
  return kOk;
}

/* Options of one subcommand, kept alive with it. */
struct Names {
  std::string db, srv, inst, node, role;
};

CLI::Option *db_option(CLI::App *cmd, Names &n) {
  return cmd->add_option("-d,--db", n.db, "Database name (any case)")->required()->check(kNonEmpty);
}

void register_points(CLI::App &app, Globals &g, int &exit_code) {
  for (bool enable : {true, false}) {
    const char *verb = enable ? "enable" : "disable";
    const std::string Verb = enable ? "Enable" : "Disable";
    CLI::App *grp = group(app, verb);

    auto n = std::make_shared<Names>();
    auto *cmd = grp->add_subcommand("instance", Verb + " an instance (exclusive lock)");
    db_option(cmd, *n);
    cmd->add_option("-i,--instance", n->inst, "Instance name (any case)")->required()->check(kNonEmpty);
    cmd->callback([&g, &exit_code, n, enable] {
      exit_code = set_point_enabled(g, n->db, "", n->inst, enable);
    });

    n = std::make_shared<Names>();
    cmd = grp->add_subcommand("service",
                              Verb + " a service and all its instances (exclusive lock)");
    db_option(cmd, *n);
    cmd->add_option("-s,--service", n->srv, "Service name (any case, dots allowed)")->required()->check(kNonEmpty);
    cmd->callback([&g, &exit_code, n, enable] {
      exit_code = set_point_enabled(g, n->db, n->srv, "", enable);
    });

    n = std::make_shared<Names>();
    cmd = grp->add_subcommand("service-instance",
                              Verb + " one instance of a service (shared lock)");
    db_option(cmd, *n);
    cmd->add_option("-s,--service", n->srv, "Service name (any case, dots allowed)")->required()->check(kNonEmpty);
    cmd->add_option("-i,--instance", n->inst, "Instance name (any case)")->required()->check(kNonEmpty);
    cmd->callback([&g, &exit_code, n, enable] {
      exit_code = set_point_enabled(g, n->db, n->srv, n->inst, enable);
    });
  }

  CLI::App *get = group(app, "get");
  auto n = std::make_shared<Names>();
  auto *cmd = get->add_subcommand("supported",
                                  "Show whether a service may run on an instance "
                                  "(preferred or available, and enabled)");
  db_option(cmd, *n);
  cmd->add_option("-s,--service", n->srv, "Service name (any case, dots allowed)")->required()->check(kNonEmpty);
  cmd->add_option("-i,--instance", n->inst, "Instance name (any case)")->required()->check(kNonEmpty);
  cmd->callback([&g, &exit_code, n] { exit_code = show_supported(g, n->db, n->srv, n->inst); });

  n = std::make_shared<Names>();
  cmd = get->add_subcommand("policy", "Show a service's failover policy: none, basic, preconnect");
  db_option(cmd, *n);
  cmd->add_option("-s,--service", n->srv, "Service name (any case, dots allowed)")->required()->check(kNonEmpty);
  cmd->callback([&g, &exit_code, n] { exit_code = show_policy(g, n->db, n->srv); });

  n = std::make_shared<Names>();
  cmd = get->add_subcommand("role", "Show a database's role");
  db_option(cmd, *n);
  cmd->callback([&g, &exit_code, n] { exit_code = show_role(g, n->db); });

  n = std::make_shared<Names>();
  cmd = get->add_subcommand("instance",
                            "Show the instance running on a node (-n), or an instance's "
                            "name as spelled (-i)");
  db_option(cmd, *n);
  auto *node = cmd->add_option("-n,--node", n->node, "Node name (any case)");
  auto *inst = cmd->add_option("-i,--instance", n->inst, "Instance name (any case)");
  node->excludes(inst);
  cmd->callback([&g, &exit_code, n] {
    if (n->node.empty() == n->inst.empty()) {
      std::cerr << "prsrctl: get instance: give either -n NODE or -i INSTANCE\n";
      exit_code = kBadArgument;
      return;
    }
    exit_code = show_instance(g, n->db, n->node, n->inst);
  });

  n = std::make_shared<Names>();
  cmd = get->add_subcommand("spname", "Show a database's name as spelled");
  db_option(cmd, *n);
  cmd->callback([&g, &exit_code, n] { exit_code = show_spname(g, n->db); });

  n = std::make_shared<Names>();
  cmd = get->add_subcommand("domain", "Show a database's domain");
  db_option(cmd, *n);
  cmd->callback([&g, &exit_code, n] { exit_code = show_domain(g, n->db); });

  n = std::make_shared<Names>();
  cmd = group(app, "set")->add_subcommand("role", "Change a database's role (shared lock)");
  db_option(cmd, *n);
  cmd->add_option("role", n->role,
                  "primary, physical_standby, logical_standby or snapshot_standby (any case, "
                  "- for _)")
      ->required();
  cmd->callback([&g, &exit_code, n] { exit_code = set_role(g, n->db, n->role); });
}

Family family(&register_points);

} // namespace

int show_point_enabled(const Globals &g, const std::string &db, const std::string &srv,
                       const std::string &inst) {
  Session s(g);
  if (s.error())
    return s.error();
  uint32_t enabled = 0;
  int32_t rc;
  if (!srv.empty() && !inst.empty())
    rc = prsr_get_service_instance_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(),
                                           inst.c_str(), &enabled);
  else if (!srv.empty())
    rc = prsr_get_service_enabled(s.status(), s.ctx(), db.c_str(), srv.c_str(), &enabled);
  else
    rc = prsr_get_instance_enabled(s.status(), s.ctx(), db.c_str(), inst.c_str(), &enabled);
  std::string what = object(db, srv, inst);
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  if (g.json) {
    auto doc = names_json(db, srv, inst);
    doc["enabled"] = enabled != 0;
    emit(doc);
  } else {
    std::cout << what << ": " << (enabled ? "enabled" : "disabled") << "\n";
  }
  return kOk;
}

} // namespace prsrctl
