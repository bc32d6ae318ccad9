/* Storage manager and node applications: prsrctl config vlm|nodeapps. */
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>

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

int show_vlm(const Globals &g, const std::string &parent, const std::string &name) {
  Session s(g);
  if (s.error())
    return s.error();
  const std::string what = "storage manager entry " + parent + "/" + name;
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

  if (g.json) {
    emit({{"parent", parent},
          {"name", stored},
          {"enabled", cfg->enabled != 0},
          {"bootcfg", text_or_null(cfg->bootcfg)},
          {"tervan_home", text_or_null(cfg->tervan_home)},
          {"start_options", text_or_null(cfg->start_options)},
          {"version", text_or_null(cfg->version)},
          {"environment", string_list(cfg->environment, cfg->environment_count)}});
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

int show_nodeapps(const Globals &g, const std::string &node) {
  Session s(g);
  if (s.error())
    return s.error();
  const std::string what = "node applications of node " + node;
  prsr_nodeapps_cfg *cfg = nullptr;
  int32_t rc = prsr_fetch_nodeapps_config(s.status(), s.ctx(), node.c_str(), &cfg);
  if (rc != PRSR_SUCCESS)
    return report(rc, what, s.status());
  std::unique_ptr<prsr_nodeapps_cfg, std::function<void(prsr_nodeapps_cfg *)>> held(
      cfg, [&s](prsr_nodeapps_cfg *c) { prsr_release_nodeapps_config(s.status(), s.ctx(), c); });

  const char *cls = cfg->vip ? vip_class(cfg->vip) : nullptr;
  if (g.json) {
    emit({{"node", text_or_null(cfg->node_name)},
          {"tervan_home", text_or_null(cfg->tervan_home)},
          {"vip", text_or_null(cfg->vip)},
          {"vip_class", text_or_null(cls)},
          {"netmask", text_or_null(cfg->netmask)},
          {"interfaces", text_or_null(cfg->interfaces)},
          {"environment", string_list(cfg->environment, cfg->environment_count)}});
    return kOk;
  }
  line("Node", cfg->node_name ? cfg->node_name : node.c_str());
  line("Software home", cfg->tervan_home);
  std::string vip = cfg->vip && *cfg->vip ? std::string(cfg->vip) + " (" + cls + ")" : "";
  line("VIP", cfg->vip ? vip.c_str() : nullptr);
  line("Netmask", cfg->netmask);
  line("Interfaces", cfg->interfaces);
  list_lines("Environment", cfg->environment, cfg->environment_count);
  return kOk;
}

void register_config_node(CLI::App &app, Globals &g, int &exit_code) {
  CLI::App *config = group(app, "config");

  auto *vlm = config->add_subcommand("vlm", "Show a storage manager entry (shared lock)");
  auto parent = std::make_shared<std::string>();
  auto name = std::make_shared<std::string>();
  vlm->add_option("-p,--parent", *parent, "First name of the entry (any case)")->required()->check(kNonEmpty);
  vlm->add_option("-n,--name", *name, "Second name of the entry (any case)")->required()->check(kNonEmpty);
  vlm->callback([&g, &exit_code, parent, name] { exit_code = show_vlm(g, *parent, *name); });

  auto *nodeapps =
      config->add_subcommand("nodeapps", "Show a node's applications and its VIP class (shared lock)");
  auto node = std::make_shared<std::string>();
  nodeapps->add_option("-n,--node", *node, "Node name (any case)")->required()->check(kNonEmpty);
  nodeapps->callback([&g, &exit_code, node] { exit_code = show_nodeapps(g, *node); });
}

Family family(&register_config_node);

} // namespace
} // namespace prsrctl
