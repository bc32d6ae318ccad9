// hvsctl diff: the differences between two key trees, each a saved file or
// the live registry, told in the terms of the objects the keys make up
// (databases, instances, services, nodes, storage-manager entries) where
// the registry's layout (layout.h) knows the key, and key by key elsewhere.
#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "../common/json_text.h"

#include "command.h"
#include "hvs/backend.h"
#include "layout.h"

namespace hvsctl {
namespace {

using namespace layout;
using Shown = std::optional<std::string>; // nullopt: the key is not there

std::string shown(const Entry &e) {
  return e.has_value ? display_value(e.bytes) : "(no value)";
}

bool iequal(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// One value of an object as people read it, and the keys it is read from.
struct Attribute {
  std::string label;
  Form form;
  Shown value;
  std::vector<std::string> keys;
};

struct Object {
  const char *kind;
  std::string name;
  std::vector<Attribute> attributes; // in the layout's order, on both sides
};

// The objects of one tree by their key.
class Model {
public:
  explicit Model(const Tree &tree) {
    for (const Entry &e : tree) {
      keys_.emplace(e.name, &e);
      if (!e.name.empty())
        children_[std::string(hvs::parent_of(e.name))].push_back(
            std::string(hvs::last_component(e.name)));
    }
    const std::string dbs = kDatabases;
    for (const auto &db : subkeys(dbs)) {
      std::string key = dbs + "." + db;
      if (add(key, "database", db, kDatabaseWords)) {
        for (const auto &inst : subkeys(key + "." + kInstance)) {
          std::string ikey = key + "." + kInstance + "." + inst;
          add(ikey, "instance", name_text(ikey, inst), kInstanceWords);
        }
        for (const auto &srv : subkeys(key + "." + kService))
          service(key + "." + kService + "." + srv, srv);
      }
    }
    for (const auto &node : subkeys(kNodes))
      add(std::string(kNodes) + "." + node, "node", node, kNodeWords);
    for (const auto &parent : subkeys(kVlm))
      for (const auto &name : subkeys(std::string(kVlm) + "." + parent))
        add(std::string(kVlm) + "." + parent + "." + name, "storage manager",
            parent + "." + name, kVlmWords);
  }

  const std::map<std::string, Object> &objects() const { return objects_; }

private:
  const Entry *find(const std::string &key) const {
    auto it = keys_.find(key);
    return it == keys_.end() ? nullptr : it->second;
  }
  const std::vector<std::string> &subkeys(const std::string &key) const {
    static const std::vector<std::string> none;
    auto it = children_.find(key);
    return it == children_.end() ? none : it->second;
  }

  // A text without its NUL, or the value as dump shows it.
  static std::string text(const Entry &e) {
    if (!e.has_value)
      return "(no value)";
    if (hvs::form_of(e.bytes) == hvs::Form::Text)
      return e.bytes.substr(0, e.bytes.size() - 1);
    return display_value(e.bytes);
  }
  std::string name_text(const std::string &key, const std::string &comp) const {
    const Entry *e = find(key);
    return e != nullptr && e->has_value && hvs::form_of(e->bytes) == hvs::Form::Text
               ? text(*e)
               : comp;
  }

  Shown value(const std::string &key, Form form) const {
    const Entry *e = find(key);
    if (e == nullptr)
      return std::nullopt;
    switch (form) {
    case Form::Boolean:
      if (e->has_value && hvs::form_of(e->bytes) == hvs::Form::Text) {
        std::string t = text(*e);
        if (iequal(t, "true"))
          return "enabled";
        if (iequal(t, "false"))
          return "disabled";
      }
      return text(*e);
    case Form::Multi: {
      if (!e->has_value)
        return text(*e);
      if (e->bytes.empty() || e->bytes == std::string(1, '\0'))
        return "[]";
      if (hvs::form_of(e->bytes) != hvs::Form::Multi)
        return text(*e);
      std::vector<std::string_view> parts;
      std::string_view body(e->bytes.data(), e->bytes.size() - 2);
      for (size_t pos = 0; pos <= body.size();) {
        size_t nul = std::min(body.find('\0', pos), body.size());
        parts.push_back(body.substr(pos, nul - pos));
        pos = nul + 1;
      }
      return fmt::format("[{}]", fmt::join(parts, ", "));
    }
    case Form::Vip: {
      // The address is the VIP's text, or its IP's when the VIP is empty.
      if (e->has_value && !e->bytes.empty())
        return text(*e);
      const Entry *ip = find(key + "." + kIp);
      return ip != nullptr ? text(*ip) : text(*e);
    }
    default:
      return text(*e);
    }
  }

  void attributes(Object &o, const std::string &key, std::span<const Child> words,
                  const std::string &prefix) {
    for (const Child &c : words) {
      std::string ckey = key + "." + c.word;
      if (c.label != nullptr && c.form != Form::Container) {
        Attribute a{prefix + c.label, c.form, value(ckey, c.form), {ckey}};
        if (c.form == Form::Vip)
          a.keys.push_back(ckey + "." + kIp);
        o.attributes.push_back(std::move(a));
      }
      if (!c.sub.empty())
        attributes(o, ckey, c.sub, c.label != nullptr ? prefix + c.label + " " : prefix);
    }
    // A container with words of its own goes with them.
    for (const Child &c : words)
      if (c.form == Form::Container && !c.sub.empty())
        for (Attribute &a : o.attributes)
          if (a.keys.front().starts_with(key + "." + c.word + "."))
            a.keys.push_back(key + "." + c.word);
  }

  Object *add(const std::string &key, const char *kind, const std::string &name,
              std::span<const Child> words) {
    const Entry *e = find(key);
    if (e == nullptr)
      return nullptr;
    Object o{kind, name, {}};
    o.attributes.push_back({"name", Form::Text, text(*e), {key}});
    attributes(o, key, words, "");
    return &objects_.insert_or_assign(key, std::move(o)).first->second;
  }

  // A service, with its preferred and available instances as two lists.
  void service(const std::string &key, const std::string &comp) {
    std::string name = comp;
    std::transform(name.begin(), name.end(), name.begin(), service_char);
    Object *o = add(key, "service", name, kServiceWords);
    if (o == nullptr)
      return;
    const std::string container = key + "." + kInstances;
    std::vector<std::string> keys{container}, preferred, available;
    for (const auto &inst : subkeys(container)) {
      std::string ikey = container + "." + inst;
      std::string type = ikey + "." + kType, enabled = ikey + "." + kEnabled;
      keys.insert(keys.end(), {ikey, type, enabled});
      const Entry *t = find(type);
      if (t == nullptr || !t->has_value)
        continue;
      std::string member = name_text(ikey, inst);
      if (value(enabled, Form::Boolean) == "disabled")
        member += " (disabled)";
      if (text(*t) == kPreferred)
        preferred.push_back(member);
      else if (text(*t) == kAvailable)
        available.push_back(member);
    }
    o->attributes.push_back(
        {"preferred", Form::Text, fmt::format("[{}]", fmt::join(preferred, ", ")), keys});
    o->attributes.push_back(
        {"available", Form::Text, fmt::format("[{}]", fmt::join(available, ", ")), keys});
  }

  std::map<std::string, const Entry *> keys_;
  std::map<std::string, std::vector<std::string>> children_;
  std::map<std::string, Object> objects_;
};

// One line of the readable output, placed by the key it is about.
struct Line {
  std::string anchor;
  std::string text;
};

std::string either(const Shown &v) { return v ? *v : "(none)"; }

// The object-level changes between a and b, each with the changed keys it
// accounts for; those keys are taken out of changed.
void describe(const Model &a, const Model &b, std::set<std::string> &changed,
              std::vector<Line> &lines, nlohmann::json &out) {
  const std::set<std::string> all = changed;
  auto take = [&](const std::vector<std::string> &keys, nlohmann::json &list) {
    for (const auto &k : std::set<std::string>(keys.begin(), keys.end()))
      if (all.contains(k)) {
        changed.erase(k);
        list.push_back(k);
      }
  };
  // Added or removed objects take every changed key of their subtree; an
  // object inside one added or removed is told by the outer one.
  std::string outer;
  auto whole = [&](const std::string &key, const Object &o, const char *change) {
    if (!outer.empty() && key.starts_with(outer + "."))
      return;
    outer = key;
    std::vector<std::string> keys;
    for (auto it = all.lower_bound(key);
         it != all.end() && (*it == key || it->starts_with(key + ".")); ++it)
      keys.push_back(*it);
    std::string text = fmt::format("{} {}: {}", o.kind, o.name, change);
    nlohmann::json entry = {{"object", o.kind}, {"name", tools::text_json(o.name)},
                            {"change", change}, {"text", tools::text_json(text)},
                            {"keys", nlohmann::json::array()}};
    take(keys, entry["keys"]);
    out.push_back(std::move(entry));
    lines.push_back({key, text});
  };
  std::map<std::string, std::pair<const Object *, const Object *>> both;
  for (const auto &[key, o] : a.objects())
    both[key].first = &o;
  for (const auto &[key, o] : b.objects())
    both[key].second = &o;
  for (const auto &[key, sides] : both) {
    const auto [oa, ob] = sides;
    if (ob == nullptr) {
      whole(key, *oa, "removed");
      continue;
    }
    if (oa == nullptr) {
      whole(key, *ob, "added");
      continue;
    }
    for (size_t i = 0; i < oa->attributes.size() && i < ob->attributes.size(); ++i) {
      const Attribute &x = oa->attributes[i], &y = ob->attributes[i];
      if (x.value == y.value)
        continue;
      std::string text =
          x.form == Form::Boolean && x.label == "enabled"
              ? fmt::format("{} {}: {} -> {}", ob->kind, ob->name, either(x.value),
                            either(y.value))
              : fmt::format("{} {}: {} {} -> {}", ob->kind, ob->name, x.label, either(x.value),
                            either(y.value));
      auto json_of = [](const Shown &v) -> nlohmann::json {
        return v ? tools::text_json(*v) : nlohmann::json(nullptr);
      };
      nlohmann::json entry = {{"object", ob->kind},     {"name", tools::text_json(ob->name)},
                              {"change", "changed"},    {"what", x.label},
                              {"a", json_of(x.value)},  {"b", json_of(y.value)},
                              {"text", tools::text_json(text)}, {"keys", nlohmann::json::array()}};
      std::vector<std::string> keys = x.keys;
      keys.insert(keys.end(), y.keys.begin(), y.keys.end());
      take(keys, entry["keys"]);
      out.push_back(std::move(entry));
      lines.push_back({key, text});
    }
  }
}

// Loads one side: a file, "-" for standard input, or (live) the registry.
int load_side(const std::string &what, bool live, Tree &tree, std::string &label) {
  if (!live) {
    label = what == "-" ? kStdinLabel : what;
    return load_file(what, tree);
  }
  Client c;
  if (!c.open())
    return kRegistry;
  label = c.location();
  return load_live(c, "", tree);
}

int do_diff(const std::string &a, std::string b, bool live, bool keys_only, bool json) {
  if (live && !b.empty()) {
    fmt::print(stderr, "hvsctl: diff: --live takes the place of B\n");
    return kBadArgument;
  }
  if (!live && b.empty()) {
    fmt::print(stderr, "hvsctl: diff: give B, or --live for the registry\n");
    return kBadArgument;
  }
  if (a == "-" && b == "-") {
    fmt::print(stderr, "hvsctl: diff: at most one side is standard input\n");
    return kBadArgument;
  }
  Tree ta, tb;
  std::string la, lb;
  if (int rc = load_side(a, false, ta, la))
    return rc;
  if (int rc = load_side(b, live, tb, lb))
    return rc;

  std::map<std::string, const Entry *> in_b;
  for (const Entry &e : tb)
    in_b.emplace(e.name, &e);
  std::map<std::string, const Entry *> in_a;
  for (const Entry &e : ta)
    in_a.emplace(e.name, &e);

  // Each key once, in the order of A, then the keys only B has in B's order.
  nlohmann::json changes = nlohmann::json::array();
  std::vector<Line> key_lines;
  auto value_json = [](const Entry &e) -> nlohmann::json {
    if (!e.has_value)
      return nullptr;
    return display_value(e.bytes);
  };
  for (const Entry &e : ta) {
    auto it = in_b.find(e.name);
    if (it == in_b.end()) {
      key_lines.push_back({e.name, fmt::format("- {} = {}", e.name, shown(e))});
      changes.push_back({{"change", "removed"}, {"key", e.name}, {"a", value_json(e)}});
    } else if (it->second->has_value != e.has_value || it->second->bytes != e.bytes) {
      key_lines.push_back(
          {e.name, fmt::format("~ {}: {} -> {}", e.name, shown(e), shown(*it->second))});
      changes.push_back({{"change", "changed"},
                         {"key", e.name},
                         {"a", value_json(e)},
                         {"b", value_json(*it->second)}});
    }
  }
  for (const Entry &e : tb)
    if (!in_a.contains(e.name)) {
      key_lines.push_back({e.name, fmt::format("+ {} = {}", e.name, shown(e))});
      changes.push_back({{"change", "added"}, {"key", e.name}, {"b", value_json(e)}});
    }
  const bool differ = !key_lines.empty();

  std::vector<Line> lines;
  nlohmann::json objects = nlohmann::json::array();
  if (keys_only) {
    lines = std::move(key_lines);
  } else {
    std::set<std::string> changed;
    for (const Line &l : key_lines)
      changed.insert(l.anchor);
    describe(Model(ta), Model(tb), changed, lines, objects);
    // What no object accounts for stays a key change, beside its object.
    for (Line &l : key_lines)
      if (changed.contains(l.anchor))
        lines.push_back(std::move(l));
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line &x, const Line &y) { return x.anchor < y.anchor; });
  }

  if (json) {
    nlohmann::json doc = {{"schema", kJsonSchema}, {"a", la}, {"b", lb}};
    if (!keys_only)
      doc["objects"] = std::move(objects);
    doc["changes"] = std::move(changes);
    fmt::print("{}\n", tools::dump_safe(doc, 2));
  } else {
    if (differ)
      fmt::print("--- {}\n+++ {}\n", la, lb);
    for (const auto &l : lines)
      fmt::print("{}\n", l.text);
  }
  return differ ? kFindings : kOk;
}

void register_diff(CLI::App &app, std::vector<Command> &out) {
  static std::string a, b;
  static bool live = false, keys = false, json = false;
  auto *diff = app.add_subcommand("diff", "compare two saved files, or a file and the registry");
  diff->add_option("A", a, "exported or backup file, - for standard input")->required();
  diff->add_option("B", b, "exported or backup file, - for standard input");
  diff->add_flag("--live", live, "compare A with the registry (in place of B)");
  diff->add_flag("--keys", keys, "tell every change key by key");
  diff->add_flag("--json", json, "one JSON document of the changes");
  manual(diff, R"(DESCRIPTION
  Compares two key trees. A and B are files written by export or backup,
  "-" being standard input; --live in place of B stands for the registry
  that --registry or HVS_REGISTRY names. Values are compared byte for byte,
  and a key without a value differs from a key with an empty one.

OUTPUT
  A header "--- A" and "+++ B", then one line a difference. Where the keys
  make up a database, instance, service, node or storage-manager entry, the
  change is told in its terms:
    database sales: role PRIMARY -> PHYSICAL_STANDBY
    service sales.east: preferred [Sales1] -> [Sales1, Sales2]
    instance Sales3: disabled -> enabled
    node node3: VIP 192.0.2.13 -> 192.0.2.23
    database hr: removed
  Every other change, and every change with --keys, is told key by key:
    - KEY = VALUE          only in A
    + KEY = VALUE          only in B
    ~ KEY: OLD -> NEW      in both, values differ
  With --json one document (docs/json-schema.md): {"schema": 1, "a": ...,
  "b": ..., "objects": [...], "changes": [...]}; "changes" lists every key
  change, "objects" (left out with --keys) the object-level ones with the
  keys each accounts for.

EXIT STATUS
  0 no differences, 2 usage, 3 registry failure, 5 differences,
  10 a file unreadable or malformed (docs/exit-codes.md).

EXAMPLES
  hvsctl diff before.json after.json
  hvsctl diff backup.json --live
  ssh db1 hvsctl export | hvsctl diff - --live)");
  out.push_back({diff, [] { return do_diff(a, b, live, keys, json); }});
}

Family family(&register_diff);

} // namespace
} // namespace hvsctl
