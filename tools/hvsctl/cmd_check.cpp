// hvsctl check: the key tree held against what the library reads, so that an
// administrator sees a bad tree before the library trips on it.
#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <span>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../common/json_text.h"

#include "command.h"
#include "hvs/backend.h"

namespace hvsctl {
namespace {

// The library reads plain texts and ENABLED into a buffer of this size, the
// terminating NUL included.
constexpr size_t kValueBuffer = 1024;

struct Finding {
  std::string key;
  std::string problem;
};

// What a key's value must look like.
enum class Form {
  Container, // the value is never read
  Text,      // text with its NUL, read into the value buffer
  Boolean,   // "true" or "false", any case
  Role,      // one of the four role words
  FovPolicy, // a failover policy word
  Type,      // PREFERRED or AVAILABLE, exactly
  Multi,     // a multi-string
  Vip,       // text, or length 0 when the IP child holds the address
};

struct Child {
  const char *word;
  Form form;
  bool required;
};

// The fixed words under each kind of named key.
constexpr Child kDatabase[] = {
    {"DB_CLU_ALIAS", Form::Container, false}, {"TERVAN_HOME", Form::Text, false},
    {"BOOTCFG", Form::Text, false},           {"DB_NAME", Form::Text, false},
    {"ROLE", Form::Role, false},              {"START_OPTIONS", Form::Text, false},
    {"POLICY", Form::Text, false},            {"DOMAIN", Form::Text, false},
    {"ENABLED", Form::Boolean, false},        {"ENVIRONMENT", Form::Multi, false},
    {"INSTANCE", Form::Container, true},      {"SERVICE", Form::Container, true},
};
constexpr Child kAlias[] = {{"IP", Form::Text, false}};
constexpr Child kInstance[] = {
    {"NODE", Form::Text, true},
    {"ENVIRONMENT", Form::Multi, false},
    {"ENABLED", Form::Boolean, false},
};
constexpr Child kService[] = {
    {"ENABLED", Form::Boolean, false},
    {"ENVIRONMENT", Form::Multi, false},
    {"FOVPOLICY", Form::FovPolicy, false},
    {"INSTANCES", Form::Container, false},
};
constexpr Child kServiceInstance[] = {
    {"TYPE", Form::Type, true},
    {"ENABLED", Form::Boolean, false},
};
constexpr Child kVlm[] = {
    {"BOOTCFG", Form::Text, false},      {"TERVAN_HOME", Form::Text, false},
    {"START_OPTIONS", Form::Text, false}, {"VERSION", Form::Text, false},
    {"ENVIRONMENT", Form::Multi, false}, {"ENABLED", Form::Boolean, false},
};
constexpr Child kNode[] = {
    {"TERVAN_HOME", Form::Text, false},
    {"VIP", Form::Vip, false},
    {"ENVIRONMENT", Form::Multi, false},
};
constexpr Child kVip[] = {
    {"IP", Form::Text, false},
    {"NETMASK", Form::Text, false},
    {"INTERFACES", Form::Text, false},
};

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
    const std::string dbs = "DATABASE.DATABASES";
    if (!find(dbs))
      add(dbs, "missing: the library lists and reads databases under it");
    for (const auto &db : subkeys(dbs))
      database(dbs + "." + db, db);
    const std::string vlm = "DATABASE.VLM";
    for (const auto &parent : subkeys(vlm)) {
      std::string pkey = vlm + "." + parent;
      lower_component(pkey, parent);
      for (const auto &name : subkeys(pkey)) {
        std::string key = pkey + "." + name;
        named(key, name, false, true);
        children(key, kVlm);
      }
    }
    const std::string nodes = "DATABASE.NODEAPPS";
    for (const auto &node : subkeys(nodes)) {
      std::string key = nodes + "." + node;
      named(key, node, false, true);
      children(key, kNode);
      if (find(key + ".VIP"))
        children(key + ".VIP", kVip);
    }
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
    findings_.push_back({key, std::move(problem)});
  }

  void database(const std::string &key, const std::string &db) {
    named(key, db, false, true);
    children(key, kDatabase);
    if (find(key + ".DB_CLU_ALIAS"))
      children(key + ".DB_CLU_ALIAS", kAlias);
    std::set<std::string> instances;
    for (const auto &inst : subkeys(key + ".INSTANCE")) {
      std::string ikey = key + ".INSTANCE." + inst;
      instances.insert(inst);
      named(ikey, inst, false, true);
      children(ikey, kInstance);
    }
    for (const auto &srv : subkeys(key + ".SERVICE")) {
      std::string skey = key + ".SERVICE." + srv;
      named(skey, srv, true, true);
      children(skey, kService);
      for (const auto &inst : subkeys(skey + ".INSTANCES")) {
        std::string ikey = skey + ".INSTANCES." + inst;
        named(ikey, inst, false, true);
        children(ikey, kServiceInstance);
        if (!instances.contains(inst))
          add(ikey, fmt::format("the service names instance \"{}\", which "
                                "is not under {}.INSTANCE",
                                inst, key));
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
      std::replace(expected.begin(), expected.end(), '*', '.');
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
    }
    for (const auto &sub : subkeys(key)) {
      bool fixed = std::any_of(known.begin(), known.end(), [&](const Child &c) {
        return sub == c.word;
      });
      // The named children are walked by the callers; anything else under a
      // key with fixed words is a word the library does not know.
      bool named_container = sub == "INSTANCE" || sub == "SERVICE" ||
                             sub == "INSTANCES";
      if (!fixed && !named_container)
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
    auto one_of = [&](std::initializer_list<std::string_view> words,
                      bool any_case) {
      return std::any_of(words.begin(), words.end(), [&](std::string_view w) {
        return any_case ? iequal(text, w) : text == w;
      });
    };
    switch (form) {
    case Form::Boolean:
      if (!one_of({"true", "false"}, true))
        add(key, fmt::format("\"{}\" is not a boolean text (\"true\" or "
                             "\"false\")",
                             text));
      break;
    case Form::Role:
      if (!one_of({"PRIMARY", "PHYSICAL_STANDBY", "LOGICAL_STANDBY",
                   "SNAPSHOT_STANDBY"},
                  true))
        add(key, fmt::format("\"{}\" is not a role (PRIMARY, "
                             "PHYSICAL_STANDBY, LOGICAL_STANDBY, "
                             "SNAPSHOT_STANDBY)",
                             text));
      break;
    case Form::FovPolicy:
      if (!one_of({"NONE", "BASIC", "PRECONNECT", "AVAILABLE", "MUTUAL"}, true))
        add(key, fmt::format("\"{}\" is not a failover policy (NONE, BASIC, "
                             "PRECONNECT, AVAILABLE, MUTUAL)",
                             text));
      break;
    case Form::Type:
      if (!one_of({"PREFERRED", "AVAILABLE"}, false))
        add(key, fmt::format("\"{}\" is not PREFERRED or AVAILABLE (upper "
                             "case exactly): the instance is in neither list",
                             text));
      break;
    default:
      break;
    }
  }

  void vip_empty(const std::string &key) {
    if (find(key + ".IP") == nullptr)
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
    where = file;
  } else {
    Client c;
    if (!c.open())
      return kRegistry;
    if (int rc = load_live(c, "", tree))
      return rc;
    where = c.location();
  }
  std::vector<Finding> found = Checker(tree).run();
  if (json) {
    nlohmann::json doc = {{"source", where},
                          {"keys", tree.size()},
                          {"findings", nlohmann::json::array()}};
    for (const auto &f : found)
      doc["findings"].push_back({{"key", f.key}, {"problem", f.problem}});
    fmt::print("{}\n", tools::dump_safe(doc, 2));
  } else {
    for (const auto &f : found)
      fmt::print("{}: {}\n", f.key, f.problem);
    fmt::print("{}: {} keys, {} finding{}\n", where, tree.size(), found.size(),
               found.size() == 1 ? "" : "s");
  }
  return found.empty() ? kOk : kFindings;
}

void register_check(CLI::App &app, std::vector<Command> &out) {
  static std::string file;
  static bool json = false;
  auto *check = app.add_subcommand(
      "check", "validate the key tree against what the library reads");
  check->add_option("FILE", file,
                    "check an exported or backup file instead of the registry");
  check->add_flag("--json", json, "one JSON document: source, keys, findings");
  manual(check, R"(DESCRIPTION
  Reads the whole registry (or FILE) and lists every finding with its key:
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
     entries and nodes.
  Keys outside DATABASE.DATABASES, DATABASE.VLM and DATABASE.NODEAPPS are
  not looked at.

OUTPUT
  One line "KEY: problem" per finding, then a summary line. With --json:
  {"source": ..., "keys": N, "findings": [{"key": ..., "problem": ...}]}.

EXIT STATUS
  0 no findings, 3 registry failure, 5 findings, 10 FILE unreadable or
  malformed (docs/exit-codes.md).)");
  out.push_back({check, [] { return do_check(file, json); }});
}

Family family(&register_check);

} // namespace
} // namespace hvsctl
