// hvsctl diff: the differences between two key trees, each an exported file
// or the live registry.
#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../common/json_text.h"

#include "command.h"
#include "registry_file.h"

namespace hvsctl {
namespace {

std::string shown(const Entry &e) {
  return e.has_value ? display_value(e.bytes) : "(no value)";
}

// Loads one side: "-" is the live registry.
int load_side(const std::string &what, Tree &tree, std::string &label) {
  if (what != "-") {
    label = what;
    return load_file(what, tree);
  }
  Client c;
  if (!c.open())
    return kRegistry;
  label = c.location();
  return load_live(c, "", tree);
}

int do_diff(std::string a, std::string b, bool live, bool json) {
  if (live) {
    if (!b.empty()) {
      fmt::print(stderr, "hvsctl: diff: --live takes the place of B\n");
      return kBadArgument;
    }
    b = "-";
  }
  if (b.empty()) {
    fmt::print(stderr, "hvsctl: diff: give B, or - or --live for the "
                       "registry\n");
    return kBadArgument;
  }
  if (a == "-" && b == "-") {
    fmt::print(stderr, "hvsctl: diff: at most one side is the registry\n");
    return kBadArgument;
  }
  Tree ta, tb;
  std::string la, lb;
  if (int rc = load_side(a, ta, la))
    return rc;
  if (int rc = load_side(b, tb, lb))
    return rc;

  std::map<std::string, const Entry *> in_b;
  for (const Entry &e : tb)
    in_b.emplace(e.name, &e);
  std::map<std::string, const Entry *> in_a;
  for (const Entry &e : ta)
    in_a.emplace(e.name, &e);

  // Each key once, in the order of A, then the keys only B has in B's order.
  nlohmann::json changes = nlohmann::json::array();
  std::vector<std::string> lines;
  auto value_json = [](const Entry &e) -> nlohmann::json {
    if (!e.has_value)
      return nullptr;
    return display_value(e.bytes);
  };
  for (const Entry &e : ta) {
    auto it = in_b.find(e.name);
    if (it == in_b.end()) {
      lines.push_back(fmt::format("- {} = {}", e.name, shown(e)));
      changes.push_back({{"change", "removed"}, {"key", e.name},
                         {"a", value_json(e)}});
    } else if (it->second->has_value != e.has_value ||
               it->second->bytes != e.bytes) {
      lines.push_back(fmt::format("~ {}: {} -> {}", e.name, shown(e),
                                  shown(*it->second)));
      changes.push_back({{"change", "changed"}, {"key", e.name},
                         {"a", value_json(e)}, {"b", value_json(*it->second)}});
    }
  }
  for (const Entry &e : tb)
    if (!in_a.contains(e.name)) {
      lines.push_back(fmt::format("+ {} = {}", e.name, shown(e)));
      changes.push_back({{"change", "added"}, {"key", e.name},
                         {"b", value_json(e)}});
    }

  if (json) {
    nlohmann::json doc = {{"a", la}, {"b", lb}, {"changes", changes}};
    fmt::print("{}\n", tools::dump_safe(doc, 2));
  } else {
    if (!lines.empty())
      fmt::print("--- {}\n+++ {}\n", la, lb);
    for (const auto &l : lines)
      fmt::print("{}\n", l);
  }
  return lines.empty() ? kOk : kFindings;
}

void register_diff(CLI::App &app, std::vector<Command> &out) {
  static std::string a, b;
  static bool live = false, json = false;
  auto *diff = app.add_subcommand("diff", "compare two exported files, or a "
                                          "file and the registry");
  diff->add_option("A", a, "exported or backup file, or - for the registry")
      ->required();
  diff->add_option("B", b, "exported or backup file, or - for the registry");
  diff->add_flag("--live", live, "compare A with the live registry (B = -)");
  diff->add_flag("--json", json, "one JSON document of the changes");
  manual(diff, R"(DESCRIPTION
  Compares two key trees key by key. A and B are files written by export or
  backup; "-" (or --live in place of B) stands for the registry that
  --registry or HVS_REGISTRY names. Values are compared byte for byte, and a
  key without a value differs from a key with an empty one.

OUTPUT
  A header "--- A" and "+++ B", then one line a difference:
    - KEY = VALUE          only in A
    + KEY = VALUE          only in B
    ~ KEY: OLD -> NEW      in both, values differ
  Values are shown as dump shows them. With --json:
  {"a": ..., "b": ..., "changes": [{"change": "removed"|"added"|"changed",
  "key": ..., "a": VALUE, "b": VALUE}]}, VALUE being the shown form or null
  for no value.

EXIT STATUS
  0 no differences, 2 usage, 3 registry failure, 5 differences,
  10 a file unreadable or malformed (docs/exit-codes.md).

EXAMPLES
  hvsctl diff before.json after.json
  hvsctl diff backup.json --live)");
  out.push_back({diff, [] { return do_diff(a, b, live, json); }});
}

Family family(&register_diff);

} // namespace
} // namespace hvsctl
