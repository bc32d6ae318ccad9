/* Storage manager and node applications: prsrctl config vlm|nodeapps. */
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>

#include "hvsapi.h"
#include "prsrctl.h"

/* The classifier is internal to the library, which exports only its client
 * interface; it needs nothing of the library, so it is built in here. */
#include "nodeconfig/nodeconfig.h"

namespace prsrctl {
namespace {

using nlohmann::json;

json text_or_null(const char *s) { return s ? json(s) : json(nullptr); }

json string_list(char **list, uint32_t count) {
  json a = json::array();
  for (uint32_t i = 0; i < count && list != nullptr; ++i)
    if (list[i] != nullptr)
      a.push_back(list[i]);
  return a;
}

/* One aligned "Label  value" row, as the database report has them: a value
 * that is not there shows as "-", an empty one as "(empty)". */
void line(const char *label, const char *value) {
  std::cout << std::left << std::setw(16) << label
            << (value == nullptr ? "-" : (*value ? value : "(empty)")) << "\n";
}

/* A list on one row, comma-separated; "-" when empty. */
void list_lines(const char *label, char **list, uint32_t count) {
  std::string joined;
  for (uint32_t i = 0; i < count && list != nullptr; ++i) {
    if (list[i] == nullptr)
      continue;
    joined += joined.empty() ? "" : ", ";
    joined += list[i];
  }
  line(label, joined.empty() ? nullptr : joined.c_str());
}

int show_vlm(const Globals &g, const std::string &parent, const std::string &name,
             bool show_defaults) {
  Session s(g);
  if (s.error())
    return s.error();
  const std::string what = "storage manager entry " + parent + "/" + name;
  const size_t from = recorded_count();
  prsr_vlm_cfg *cfg = nullptr;
  int32_t rc = prsr_fetch_vlm_config(s.status(), s.ctx(), parent.c_str(), name.c_str(), &cfg);
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  std::unique_ptr<prsr_vlm_cfg, std::function<void(prsr_vlm_cfg *)>> held(
      cfg, [&s](prsr_vlm_cfg *c) { prsr_release_vlm_config(s.status(), s.ctx(), c); });

  char stored[2048] = {0};
  rc = prsr_get_vlm_name(s.status(), s.ctx(), parent.c_str(), name.c_str(), sizeof stored, stored);
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());

  json doc = {{"parent", parent},
              {"name", stored},
              {"enabled", cfg->enabled != 0},
              {"bootcfg", text_or_null(cfg->bootcfg)},
              {"tervan_home", text_or_null(cfg->tervan_home)},
              {"start_options", text_or_null(cfg->start_options)},
              {"version", text_or_null(cfg->version)},
              {"environment", string_list(cfg->environment, cfg->environment_count)}};
  doc["defaults"] = defaults_of(recorded_calls(from), "DATABASE.VLM." + lower(parent) + "." + lower(name),
                                [&doc](const std::vector<std::string> &rel) {
                                  return member_for(doc, rel.back());
                                });
  if (g.json) {
    emit(doc);
    return kOk;
  }
  line("Storage manager", stored);
  line("Parent", parent.c_str());
  line("Enabled", cfg->enabled ? "yes" : "no");
  line("Version", cfg->version);
  line("Software home", cfg->tervan_home);
  line("Boot config", cfg->bootcfg);
  line("Start options", cfg->start_options);
  list_lines("Environment", cfg->environment, cfg->environment_count);
  if (show_defaults)
    print_defaults(doc["defaults"]);
  return kOk;
}

/* The class of a node's VIP address: no flag and markers that decide
 * nothing, so the address ranges alone decide. */
const char *vip_class(const char *vip) {
  prsr_net_iface iface{};
  iface.private_flag = 0;
  iface.address = vip;
  iface.private_marker = "";
  iface.public_marker = "UNKNOWN";
  return prsr_net_class_word(prsr_classify_network(&iface));
}

}  // namespace

int32_t fetch_nodeapps(Session &s, const std::string &node, json &doc) {
  const size_t from = recorded_count();
  prsr_nodeapps_cfg *cfg = nullptr;
  int32_t rc = prsr_fetch_nodeapps_config(s.status(), s.ctx(), node.c_str(), &cfg);
  if (rc != PRSR_SUCCESS)
    return rc;
  const char *cls = cfg->vip ? vip_class(cfg->vip) : nullptr;
  doc = {{"node", text_or_null(cfg->node_name)},
         {"tervan_home", text_or_null(cfg->tervan_home)},
         {"vip", text_or_null(cfg->vip)},
         {"vip_class", text_or_null(cls)},
         {"netmask", text_or_null(cfg->netmask)},
         {"interfaces", text_or_null(cfg->interfaces)},
         {"environment", string_list(cfg->environment, cfg->environment_count)}};
  prsr_release_nodeapps_config(s.status(), s.ctx(), cfg);
  doc["defaults"] = defaults_of(recorded_calls(from), "DATABASE.NODEAPPS." + lower(node),
                                [&doc](const std::vector<std::string> &rel) {
                                  return rel.size() == 2 && rel[0] == "VIP" && rel[1] == "IP"
                                             ? doc["vip"]
                                             : member_for(doc, rel.back());
                                });
  return PRSR_SUCCESS;
}

namespace {

int show_nodeapps(const Globals &g, const std::string &node, bool show_defaults) {
  Session s(g);
  if (s.error())
    return s.error();
  json doc;
  if (int32_t rc = fetch_nodeapps(s, node, doc); rc != PRSR_SUCCESS)
    return report(rc, "node applications of node " + node, s.status());
  if (g.json) {
    emit(doc);
    return kOk;
  }
  auto text = [&doc](const char *member) -> std::optional<std::string> {
    const json &v = doc[member];
    if (v.is_string())
      return v.get<std::string>();
    return std::nullopt;
  };
  auto row = [](const char *label, const std::optional<std::string> &v) {
    line(label, v ? v->c_str() : nullptr);
  };
  row("Node", text("node") ? text("node") : node);
  row("Software home", text("tervan_home"));
  std::optional<std::string> vip = text("vip");
  if (vip && !vip->empty())
    vip = *vip + " (" + text("vip_class").value_or("?") + ")";
  row("VIP", vip);
  row("Netmask", text("netmask"));
  row("Interfaces", text("interfaces"));
  std::string env;
  for (const auto &e : doc["environment"])
    env += (env.empty() ? "" : ", ") + (e.is_string() ? e.get<std::string>() : e.dump());
  row("Environment", env.empty() ? std::nullopt : std::optional<std::string>(env));
  if (show_defaults)
    print_defaults(doc["defaults"]);
  return kOk;
}

/* config vlm and config nodeapps without names: the entries, read from the
 * registry (the library lists only databases). */
int list_entries(const Globals &g, bool vlm) {
  const std::string top = vlm ? "DATABASE.VLM" : "DATABASE.NODEAPPS";
  std::vector<Subkey> first;
  int32_t rc = registry_subkeys(top, first);
  if (rc == HVS_ERR_NO_KEY)
    rc = 0; /* no entries at all */
  json list = json::array();
  std::vector<std::string> shown;
  for (const Subkey &p : first) {
    if (rc != 0)
      break;
    if (!vlm) {
      std::string spelled = p.value.empty() ? p.name : p.value;
      list.push_back(spelled);
      shown.push_back(spelled);
      continue;
    }
    std::vector<Subkey> second;
    rc = registry_subkeys(top + "." + p.name, second);
    for (const Subkey &n : second) {
      std::string spelled = n.value.empty() ? n.name : n.value;
      list.push_back({{"parent", p.name}, {"name", spelled}});
      shown.push_back(p.name + "/" + spelled);
    }
  }
  if (rc != 0) {
    std::cerr << "prsrctl: list of " << (vlm ? "storage manager entries" : "nodes")
              << ": the registry at " << registry_location() << " failed (registry code " << rc
              << ")\n";
    return kRegistry;
  }
  if (g.json) {
    emit({{vlm ? "vlm" : "nodeapps", list}});
  } else if (shown.empty()) {
    std::cout << "no " << (vlm ? "storage manager entries" : "node applications") << " in "
              << registry_location() << "\n";
  } else {
    for (const auto &e : shown)
      std::cout << e << "\n";
  }
  return kOk;
}

void register_config_node(CLI::App &app, Globals &g, int &exit_code) {
  CLI::App *config = group(app, "config");
  const char *kDefaultsHelp =
      "Also list the keys that were absent or unreadable, and what was used instead";

  auto *vlm = config->add_subcommand(
      "vlm", "List the storage manager entries, or show one (-p -n; shared lock)");
  auto parent = std::make_shared<std::string>();
  auto name = std::make_shared<std::string>();
  auto vdefaults = std::make_shared<bool>(false);
  auto *p_opt = vlm->add_option("-p,--parent", *parent, "First name of the entry (any case)")
                    ->check(kNonEmpty);
  auto *n_opt = vlm->add_option("-n,--name", *name, "Second name of the entry (any case)")
                    ->check(kNonEmpty);
  p_opt->needs(n_opt);
  n_opt->needs(p_opt);
  vlm->add_flag("--show-defaults", *vdefaults, kDefaultsHelp);
  vlm->callback([&g, &exit_code, parent, name, p_opt, vdefaults] {
    exit_code = p_opt->count() == 0 ? list_entries(g, true) : show_vlm(g, *parent, *name, *vdefaults);
  });

  auto *nodeapps = config->add_subcommand(
      "nodeapps", "List the nodes with applications, or show one node's and its VIP class "
                  "(-n; shared lock)");
  auto node = std::make_shared<std::string>();
  auto ndefaults = std::make_shared<bool>(false);
  auto *node_opt = nodeapps->add_option("-n,--node", *node, "Node name (any case)")->check(kNonEmpty);
  nodeapps->add_flag("--show-defaults", *ndefaults, kDefaultsHelp);
  nodeapps->callback([&g, &exit_code, node, node_opt, ndefaults] {
    exit_code = node_opt->count() == 0 ? list_entries(g, false) : show_nodeapps(g, *node, *ndefaults);
  });
}

Family family(&register_config_node);

} // namespace
} // namespace prsrctl
