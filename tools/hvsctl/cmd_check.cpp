// hvsctl check: the key tree held against what the library reads, so that an
// administrator sees a bad tree before the library trips on it.
#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <optional>
#include <set>
#include <span>

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

struct Finding {
  std::string key;
  std::string problem;
  std::vector<std::string> keys; // every key involved, key first
  std::string fix;               // the hvsctl command that fixes it, or ""
  bool notice = false;           // worth knowing, but nothing the library trips on
};

// An argument as a shell reads it back unchanged ("*" of a service key).
std::string quoted(const std::string &arg) {
  bool plain = !arg.empty() && std::all_of(arg.begin(), arg.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' ||
           c == '-' || c == '/' || c == ':' || c == '=';
  });
  if (plain)
    return arg;
  std::string out = "'";
  for (char c : arg)
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string command(std::initializer_list<std::string> args) {
  std::string out = "hvsctl";
  for (const auto &a : args)
    out += " " + quoted(a);
  return out;
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return s;
}

bool iequal(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

class Checker {
public:
  explicit Checker(const Tree &tree) {
    for (const Entry &e : tree) {
      keys_.emplace(e.name, &e);
      if (!e.name.empty())
        children_[std::string(hvs::parent_of(e.name))].push_back(
            std::string(hvs::last_component(e.name)));
    }
  }

  std::vector<Finding> run() {
    const std::string dbs = kDatabases;
    if (!find(dbs))
      add(dbs, "missing: the library lists and reads databases under it");
    for (const auto &db : subkeys(dbs))
      database(dbs + "." + db, db);
    const std::string vlm = kVlm;
    for (const auto &parent : subkeys(vlm)) {
      std::string pkey = vlm + "." + parent;
      lower_component(pkey, parent);
      for (const auto &name : subkeys(pkey)) {
        std::string key = pkey + "." + name;
        named(key, name, false, true);
        children(key, kVlmWords);
      }
    }
    const std::string nodes = kNodes;
    for (const auto &node : subkeys(nodes)) {
      std::string key = nodes + "." + node;
      named(key, node, false, true);
      children(key, kNodeWords);
    }
    across();
    return std::move(findings_);
  }

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
  void add(const std::string &key, std::string problem) {
    findings_.push_back({key, std::move(problem), {key}, {}, false});
  }

  // A text value without its NUL, or nullopt when the key holds none.
  std::optional<std::string> text_of(const std::string &key) const {
    const Entry *e = find(key);
    if (e == nullptr || !e->has_value || e->bytes.empty() || e->bytes.back() != '\0' ||
        e->bytes.find('\0') != e->bytes.size() - 1)
      return std::nullopt;
    return e->bytes.substr(0, e->bytes.size() - 1);
  }

  // What only shows across branches: instances and the nodes they name,
  // services and their preferred instances.
  void across() {
    const std::string nodes = kNodes;
    std::set<std::string> known(subkeys(nodes).begin(), subkeys(nodes).end()), used;
    for (const auto &db : subkeys(kDatabases)) {
      const std::string dkey = std::string(kDatabases) + "." + db;
      std::map<std::string, std::string> on_node; // node -> its first NODE key
      for (const auto &inst : subkeys(dkey + "." + kInstance)) {
        const std::string nkey = dkey + "." + kInstance + "." + inst + "." + kNode;
        auto named = text_of(nkey);
        if (!named || named->empty())
          continue; // told above
        const std::string node = lower(*named);
        used.insert(node);
        if (!known.contains(node))
          findings_.push_back(
              {nkey,
               fmt::format("the instance's node \"{}\" has no entry {}.{}", *named, nodes, node),
               {nkey, nodes + "." + node},
               command({"create", nodes + "." + node, *named}),
               false});
        auto [first, fresh] = on_node.emplace(node, nkey);
        if (fresh)
          continue;
        // A node of the cluster that holds no instance of this database yet.
        std::string free;
        for (const auto &n : known)
          if (free.empty() && std::none_of(subkeys(dkey + "." + kInstance).begin(),
                                           subkeys(dkey + "." + kInstance).end(),
                                           [&](const std::string &i) {
                                             auto t = text_of(dkey + "." + kInstance + "." +
                                                              i + "." + kNode);
                                             return t && lower(*t) == n;
                                           }))
            free = n;
        findings_.push_back(
            {nkey,
             fmt::format("a second instance of database \"{}\" on node \"{}\" (the first: "
                         "{})",
                         db, node, first->second),
             {nkey, first->second},
             free.empty() ? std::string() : command({"set", nkey, free}),
             false});
      }
      for (const auto &srv : subkeys(dkey + "." + kService)) {
        const std::string skey = dkey + "." + kService + "." + srv;
        const std::string ikey = skey + "." + kInstances;
        std::string fix;
        bool preferred = false;
        for (const auto &inst : subkeys(ikey)) {
          auto type = text_of(ikey + "." + inst + "." + kType);
          preferred = preferred || type == kPreferred;
          if (fix.empty() && type == kAvailable)
            fix = command({"set", ikey + "." + inst + "." + kType, std::string(kPreferred)});
        }
        if (!preferred)
          findings_.push_back({skey,
                               fmt::format("the service has no {} instance to run on",
                                           kPreferred),
                               {skey, ikey}, fix, false});
      }
    }
    for (const auto &node : known)
      if (!used.contains(node)) {
        const std::string nkey = nodes + "." + node;
        findings_.push_back({nkey, "no instance runs on this node", {nkey},
                             command({"delete", "--recursive", nkey}), true});
      }
  }

  void database(const std::string &key, const std::string &db) {
    named(key, db, false, true);
    children(key, kDatabaseWords);
    std::set<std::string> instances;
    for (const auto &inst : subkeys(key + "." + kInstance)) {
      std::string ikey = key + "." + kInstance + "." + inst;
      instances.insert(inst);
      named(ikey, inst, false, true);
      children(ikey, kInstanceWords);
    }
    for (const auto &srv : subkeys(key + "." + kService)) {
      std::string skey = key + "." + kService + "." + srv;
      named(skey, srv, true, true);
      children(skey, kServiceWords);
      for (const auto &inst : subkeys(skey + "." + kInstances)) {
        std::string ikey = skey + "." + kInstances + "." + inst;
        named(ikey, inst, false, true);
        children(ikey, kServiceInstanceWords);
        if (!instances.contains(inst))
          add(ikey, fmt::format("the service names instance \"{}\", which "
                                "is not under {}.{}",
                                inst, key, kInstance));
      }
    }
  }

  // A name component must be lower case, since callers' names are
  // lower-cased before a key is built.
  bool lower_component(const std::string &key, const std::string &comp) {
    if (std::any_of(comp.begin(), comp.end(), [](char c) {
          return std::isupper(static_cast<unsigned char>(c)) != 0;
        })) {
      add(key, "the name component is not lower case, so no caller's name "
               "leads to this key");
      return false;
    }
    return true;
  }

  // A named key: its component is lower case and its value is the name
  // with its case, as long as the component; "*" in a service component
  // stands for ".".
  void named(const std::string &key, const std::string &comp, bool service,
             bool required) {
    lower_component(key, comp);
    const Entry *e = find(key);
    if (e == nullptr)
      return;
    if (!e->has_value) {
      if (required)
        add(key, "no value: the key's value holds the name with its case");
      return;
    }
    if (!text_form(key, *e))
      return;
    std::string expected = comp;
    if (service)
      std::transform(expected.begin(), expected.end(), expected.begin(), service_char);
    std::string_view name(e->bytes.data(), e->bytes.size() - 1);
    if (!iequal(name, expected))
      add(key, fmt::format("name text \"{}\" is not the component \"{}\" "
                           "with its case{}",
                           name, expected,
                           name.size() != expected.size()
                               ? " (its length differs, so the library "
                                 "cannot read it)"
                               : ""));
  }

  // A text: the characters and one NUL at the end, none before.
  bool text_form(const std::string &key, const Entry &e) {
    if (e.bytes.empty() || e.bytes.back() != '\0') {
      add(key, "the value is not a text: it does not end in a NUL");
      return false;
    }
    if (e.bytes.find('\0') != e.bytes.size() - 1) {
      add(key, "the text holds a NUL before its end");
      return false;
    }
    return true;
  }

  void children(const std::string &key, std::span<const Child> known) {
    for (const Child &c : known) {
      std::string ckey = key + "." + c.word;
      const Entry *e = find(ckey);
      if (e == nullptr) {
        if (c.required)
          add(ckey, "missing (required)");
        continue;
      }
      value(ckey, *e, c.form);
      if (!c.sub.empty())
        children(ckey, c.sub);
    }
    for (const auto &sub : subkeys(key)) {
      bool fixed = std::any_of(known.begin(), known.end(), [&](const Child &c) {
        return sub == c.word;
      });
      // The named children are walked by the callers; anything else under a
      // key with fixed words is a word the library does not know.
      if (!fixed && !named_container(sub))
        add(key + "." + sub, "unknown key: the library reads no such word here");
    }
  }

  void value(const std::string &key, const Entry &e, Form form) {
    if (form == Form::Container)
      return;
    if (form == Form::Multi) {
      multi(key, e);
      return;
    }
    if (!e.has_value) {
      if (form == Form::Vip) {
        vip_empty(key);
        return;
      }
      add(key, "no value: the library reads a text here");
      return;
    }
    if (form == Form::Vip && e.bytes.empty()) {
      vip_empty(key);
      return;
    }
    if (!text_form(key, e))
      return;
    if (e.bytes.size() > kValueBuffer) {
      add(key, fmt::format("the text is {} bytes with its NUL; the library "
                           "reads at most {}",
                           e.bytes.size(), kValueBuffer));
      return;
    }
    std::string_view text(e.bytes.data(), e.bytes.size() - 1);
    auto one_of = [&](std::span<const std::string_view> words, bool any_case) {
      return std::any_of(words.begin(), words.end(), [&](std::string_view w) {
        return any_case ? iequal(text, w) : text == w;
      });
    };
    switch (form) {
    case Form::Boolean:
      if (!one_of(std::array<std::string_view, 2>{"true", "false"}, true))
        add(key, fmt::format("\"{}\" is not a boolean text (\"true\" or "
                             "\"false\")",
                             text));
      break;
    case Form::Role:
      if (!one_of(kRoles, true))
        add(key, fmt::format("\"{}\" is not a role ({})", text, fmt::join(kRoles, ", ")));
      break;
    case Form::FovPolicy:
      if (!one_of(kFovPolicies, true))
        add(key, fmt::format("\"{}\" is not a failover policy ({})", text,
                             fmt::join(kFovPolicies, ", ")));
      break;
    case Form::Type:
      if (!one_of(kTypes, false))
        add(key, fmt::format("\"{}\" is not {} (upper case exactly): the instance is in "
                             "neither list",
                             text, fmt::join(kTypes, " or ")));
      break;
    default:
      break;
    }
  }

  void vip_empty(const std::string &key) {
    if (find(key + "." + kIp) == nullptr)
      add(key, "VIP is empty and has no IP subkey: the node has no address");
  }

  // Length 0, a single NUL, or non-empty strings each with its NUL and one
  // more NUL at the end.
  void multi(const std::string &key, const Entry &e) {
    const std::string &b = e.bytes;
    if (!e.has_value || b.empty() || b == std::string(1, '\0'))
      return;
    if (b.size() < 3 || b[b.size() - 1] != '\0' || b[b.size() - 2] != '\0') {
      add(key, "malformed multi-string: it does not end in two NULs");
      return;
    }
    if (b.front() == '\0' ||
        b.find(std::string(2, '\0')) != b.size() - 2)
      add(key, "malformed multi-string: it holds an empty string");
  }

  std::map<std::string, const Entry *> keys_;
  std::map<std::string, std::vector<std::string>> children_;
  std::vector<Finding> findings_;
};

int do_check(const std::string &file, bool json) {
  Tree tree;
  std::string where;
  if (!file.empty()) {
    if (int rc = load_file(file, tree))
      return rc;
    where = file == "-" ? kStdinLabel : file;
  } else {
    Client c;
    if (!c.open())
      return kRegistry;
    if (int rc = load_live(c, "", tree))
      return rc;
    where = c.location();
  }
  std::vector<Finding> found = Checker(tree).run();
  size_t notices = size_t(std::count_if(found.begin(), found.end(),
                                        [](const Finding &f) { return f.notice; }));
  if (json) {
    nlohmann::json doc = {{"schema", kJsonSchema},
                          {"source", where},
                          {"keys", tree.size()},
                          {"findings", nlohmann::json::array()}};
    for (const auto &f : found) {
      nlohmann::json one = {{"key", f.key},
                            {"problem", f.problem},
                            {"severity", f.notice ? "notice" : "error"},
                            {"keys", f.keys}};
      if (!f.fix.empty())
        one["fix"] = f.fix;
      doc["findings"].push_back(std::move(one));
    }
    fmt::print("{}\n", tools::dump_safe(doc, 2));
  } else {
    for (const auto &f : found)
      fmt::print("{}: {}{}{}\n", f.key, f.notice ? "notice: " : "", f.problem,
                 f.fix.empty() ? "" : "\n  fix: " + f.fix);
    fmt::print("{}: {} keys, {} finding{}{}\n", where, tree.size(), found.size() - notices,
               found.size() - notices == 1 ? "" : "s",
               notices == 0 ? "" : fmt::format(", {} notice{}", notices, notices == 1 ? "" : "s"));
  }
  return found.size() == notices ? kOk : kFindings;
}

void register_check(CLI::App &app, std::vector<Command> &out) {
  static std::string file;
  static bool json = false;
  auto *check = app.add_subcommand(
      "check", "validate the key tree against what the library reads");
  check->add_option("FILE", file,
                    "check an exported or backup file (- for standard input) instead "
                    "of the registry");
  check->add_flag("--json", json, "one JSON document: source, keys, findings");
  manual(check, R"(DESCRIPTION
  Reads the whole registry (or FILE, "-" for standard input) and lists
  every finding with its key:
   - required keys: the value of each database key, INSTANCE and SERVICE
     under each database, NODE of each instance, TYPE of each service
     instance;
   - name texts: the value of a database, instance, service, service
     instance, storage-manager entry or node key is its name with its case,
     equal to the key component ignoring case ("*" in a service component
     stands for "."), and so as long as the component;
   - name components in lower case;
   - ENABLED holds "true" or "false" (any case); ROLE one of PRIMARY,
     PHYSICAL_STANDBY, LOGICAL_STANDBY, SNAPSHOT_STANDBY; FOVPOLICY one of
     NONE, BASIC, PRECONNECT, AVAILABLE, MUTUAL; TYPE exactly PREFERRED or
     AVAILABLE;
   - texts end in their only NUL and fit the library's 1024-byte buffer;
     ENVIRONMENT values are well-formed multi-strings; an empty VIP has an
     IP subkey;
   - a service instance names an instance of its database;
   - no unknown words under databases, instances, services, storage-manager
     entries and nodes;
   - across branches: each instance's NODE names a node with an entry under
     DATABASE.NODEAPPS; no two instances of one database on one node; each
     service has a PREFERRED instance; and, as a notice only, each node
     entry is used by some instance.
  A finding across branches names every key involved and, where there is
  one, the hvsctl command that fixes it.
  Keys outside DATABASE.DATABASES, DATABASE.VLM and DATABASE.NODEAPPS are
  not looked at.

OUTPUT
  One line "KEY: problem" per finding ("KEY: notice: ..." for a notice),
  followed by "  fix: COMMAND" where there is one, then a summary line.
  With --json one document (docs/json-schema.md): {"schema": 1, "source":
  ..., "keys": N, "findings": [{"key": ..., "problem": ..., "severity":
  "error"|"notice", "keys": [...], "fix": ...}]}.

EXIT STATUS
  0 no findings (notices alone included), 3 registry failure, 5 findings,
  10 FILE unreadable or malformed (docs/exit-codes.md).)");
  out.push_back({check, [] { return do_check(file, json); }});
}

Family family(&register_check);

} // namespace
} // namespace hvsctl
