// hvsctl get, set, create, delete and ls: one key at a time.
#include <cstdio>

#include <fmt/format.h>

#include "command.h"
#include "hvs/backend.h"
#include "hvsadm.h"
#include "hvs/registry_file.h"

namespace hvsctl {
namespace {

// The value of set and create, from exactly one of its spellings.
struct ValueArgs {
  std::string text;
  std::vector<std::string> multi;
  std::string hex;
  bool no_value = false;

  CLI::Option *text_opt = nullptr, *multi_opt = nullptr, *hex_opt = nullptr,
              *none_opt = nullptr;

  void add(CLI::App *sub, bool optional) {
    text_opt = sub->add_option("VALUE", text,
                               "the value as text; stored with a final NUL");
    if (!optional)
      text_opt->description("the value as text; stored with a final NUL "
                            "(or give --multi, --hex or --no-value)");
    multi_opt = sub->add_option("-m,--multi", multi,
                                "a multi-string: each STRING and a NUL, then "
                                "one more NUL")
                    ->expected(1, -1)
                    ->type_name("STRING...");
    hex_opt = sub->add_option("-x,--hex", hex,
                              "the exact bytes, as hex digits (\"\" for an "
                              "empty value)")
                  ->type_name("HEX");
    none_opt = sub->add_flag("--no-value", no_value,
                             "no value at all (a container key)");
    text_opt->excludes(multi_opt)->excludes(hex_opt)->excludes(none_opt);
    multi_opt->excludes(hex_opt)->excludes(none_opt);
    hex_opt->excludes(none_opt);
  }

  bool given() const {
    return text_opt->count() + multi_opt->count() + hex_opt->count() +
               none_opt->count() >
           0;
  }

  // The bytes to store; false after printing why they cannot be.
  bool bytes(std::string &out, bool &has_value) const {
    has_value = !no_value;
    out.clear();
    if (multi_opt->count() > 0) {
      for (const auto &s : multi) {
        if (s.empty()) {
          fmt::print(stderr, "hvsctl: a multi-string holds no empty string\n");
          return false;
        }
        out += s;
        out += '\0';
      }
      out += '\0';
      return true;
    }
    if (hex_opt->count() > 0) {
      if (hex.size() % 2 != 0 ||
          hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        fmt::print(stderr, "hvsctl: --hex wants an even number of hex digits, "
                           "not \"{}\"\n",
                   hex);
        return false;
      }
      for (size_t i = 0; i < hex.size(); i += 2)
        out += char(std::stoi(hex.substr(i, 2), nullptr, 16));
      return true;
    }
    if (text_opt->count() > 0) {
      out = text;
      out += '\0';
    }
    return true;
  }
};

std::string hex_of(std::string_view bytes) {
  std::string out;
  for (char c : bytes)
    out += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return out;
}

// Refuses a malformed key name before the registry sees it.
bool key_ok(const std::string &key, bool root_allowed = false) {
  if (root_allowed && key.empty())
    return true;
  if (const char *why = hvs::key_name_problem(key)) {
    fmt::print(stderr, "hvsctl: \"{}\" is not a key name: {}\n", key, why);
    return false;
  }
  return true;
}

// Names a failed write: a missing key or parent, an existing key, a key with
// subkeys, or the registry's own failure.
int write_failed(const Client &c, int32_t rc, const std::string &key,
                 const std::string &what) {
  switch (rc) {
  case HVS_ERR_NO_KEY:
    fmt::print(stderr, "hvsctl: {}: key \"{}\"{} does not exist in {}\n", what,
               key,
               what == "create" ? fmt::format(": its parent \"{}\"",
                                              hvs::parent_of(key))
                                : "",
               c.location());
    return kNotFound;
  case HVS_ERR_EXISTS:
    fmt::print(stderr, "hvsctl: create: key \"{}\" exists already in {}\n",
               key, c.location());
    return kInput;
  case HVS_ERR_NOT_EMPTY:
    fmt::print(stderr,
               "hvsctl: delete: key \"{}\" has subkeys in {} (use "
               "--recursive to delete them too)\n",
               key, c.location());
    return kInput;
  default:
    return c.fail(fmt::format("{} \"{}\"", what, key));
  }
}

int do_get(const std::string &key, bool hex) {
  if (!key_ok(key))
    return kBadArgument;
  Client c;
  if (!c.open())
    return kRegistry;
  Tree t;
  if (int rc = load_live(c, key, t))
    return rc;
  const Entry &e = t.front();
  if (hex)
    fmt::print("{}\n", e.has_value ? hex_of(e.bytes) : "");
  else
    fmt::print("{}\n", e.has_value ? display_value(e.bytes) : "(no value)");
  return kOk;
}

int do_set(const std::string &key, const ValueArgs &v) {
  if (!key_ok(key))
    return kBadArgument;
  if (!v.given()) {
    fmt::print(stderr, "hvsctl: set: give VALUE, --multi, --hex or "
                       "--no-value\n");
    return kBadArgument;
  }
  std::string bytes;
  bool has_value = true;
  if (!v.bytes(bytes, has_value))
    return kBadArgument;
  Client c;
  if (int rc = c.open_for_write())
    return rc;
  int32_t rc = hvsadm_put_value(c.get(), key.c_str(), has_value ? 1 : 0,
                                bytes.data(), uint32_t(bytes.size()));
  if (rc != HVS_OK)
    return write_failed(c, rc, key, "set");
  c.record_writer();
  return kOk;
}

int do_create(const std::string &key, const ValueArgs &v) {
  if (!key_ok(key))
    return kBadArgument;
  std::string bytes;
  bool has_value = true;
  if (!v.bytes(bytes, has_value))
    return kBadArgument;
  if (!v.given())
    has_value = false;
  Client c;
  if (int rc = c.open_for_write())
    return rc;
  int32_t rc = hvsadm_create_key(c.get(), key.c_str(), has_value ? 1 : 0,
                                 bytes.data(), uint32_t(bytes.size()));
  if (rc != HVS_OK)
    return write_failed(c, rc, key, "create");
  c.record_writer();
  return kOk;
}

int do_delete(const std::string &key, bool recursive) {
  if (!key_ok(key))
    return kBadArgument;
  Client c;
  if (int rc = c.open_for_write())
    return rc;
  int32_t rc = hvsadm_delete_key(c.get(), key.c_str(), recursive ? 1 : 0);
  if (rc != HVS_OK)
    return write_failed(c, rc, key, "delete");
  c.record_writer();
  return kOk;
}

int do_ls(const std::string &key) {
  if (!key_ok(key, true))
    return kBadArgument;
  Client c;
  if (!c.open())
    return kRegistry;
  void *k = nullptr;
  int32_t rc = hvsapi_open_key(c.get(), &k, key.c_str());
  if (rc == HVS_ERR_NO_KEY) {
    fmt::print(stderr, "hvsctl: ls: key \"{}\" does not exist in {}\n", key,
               c.location());
    return kNotFound;
  }
  if (rc != HVS_OK)
    return c.fail(fmt::format("ls \"{}\"", key));
  int result = kOk;
  for (;;) {
    char name[hvs::kMaxComponent + 1];
    uint32_t len = sizeof name;
    int32_t remaining = 0;
    rc = hvsapi_enum_subkey(c.get(), k, name, &len, &remaining);
    if (rc == HVS_ERR_NO_MORE)
      break;
    if (rc != HVS_OK) {
      result = c.fail(fmt::format("ls \"{}\"", key));
      break;
    }
    fmt::print("{}\n", std::string_view(name, len));
  }
  hvsapi_close_key(c.get(), k);
  return result;
}

void register_edit(CLI::App &app, std::vector<Command> &out) {
  static std::string key;
  static bool hex = false, recursive = false;
  static ValueArgs set_value, create_value;

  auto *get = app.add_subcommand("get", "print the value of one key");
  get->add_option("KEY", key, "full key name")->required();
  get->add_flag("-x,--hex", hex, "print the bytes as hex digits");
  manual(get, R"(DESCRIPTION
  Prints the value of KEY as dump shows it: "text" for a text with its NUL,
  ["a", "b"] for a multi-string, hex:0a0b for other bytes, (empty) for a
  value of length 0 and (no value) for a key without one. With --hex the
  exact bytes are printed as hex digits (an empty line for no value).

EXIT STATUS
  0 printed, 2 bad key name, 3 registry failure, 7 no such key.

EXAMPLE
  hvsctl get DATABASE.DATABASES.sales.ROLE)");
  out.push_back({get, [] { return do_get(key, hex); }});

  auto *set = app.add_subcommand("set", "replace the value of an existing key");
  set->add_option("KEY", key, "full key name")->required();
  set_value.add(set, false);
  manual(set, R"(DESCRIPTION
  Replaces the value of KEY, which must exist (set never creates a key).
  VALUE is stored as text with its final NUL, the form of every text the
  library reads. --multi STRING... stores a multi-string (ENVIRONMENT keys),
  --hex the exact bytes, --no-value removes the value.

EXIT STATUS
  0 set, 2 usage, 3 registry failure, 7 no such key, 8 a newer hvsctl
  wrote the registry.

EXAMPLES
  hvsctl set DATABASE.DATABASES.sales.ENABLED false
  hvsctl set DATABASE.DATABASES.sales.ENVIRONMENT --multi TZ=UTC LANG=C)");
  out.push_back({set, [] { return do_set(key, set_value); }});

  auto *create = app.add_subcommand("create", "create a key, with or without "
                                              "a value");
  create->add_option("KEY", key, "full key name")->required();
  create_value.add(create, true);
  manual(create, R"(DESCRIPTION
  Creates KEY. Its parent must exist and KEY must not. Without VALUE,
  --multi or --hex the key has no value (a container such as INSTANCE).

EXIT STATUS
  0 created, 2 usage, 3 registry failure, 7 the parent does not exist,
  8 a newer hvsctl wrote the registry, 10 the key exists already.

EXAMPLE
  hvsctl create DATABASE.DATABASES.sales.INSTANCE.sales4 Sales4)");
  out.push_back({create, [] { return do_create(key, create_value); }});

  auto *del = app.add_subcommand("delete", "delete a key");
  del->add_option("KEY", key, "full key name")->required();
  del->add_flag("-r,--recursive", recursive, "delete its subkeys too");
  manual(del, R"(DESCRIPTION
  Deletes KEY. A key with subkeys is deleted only with --recursive, and then
  with everything under it, in one transaction.

EXIT STATUS
  0 deleted, 2 usage, 3 registry failure, 7 no such key, 8 a newer
  hvsctl wrote the registry, 10 the key has subkeys.)");
  out.push_back({del, [] { return do_delete(key, recursive); }});

  auto *ls = app.add_subcommand("ls", "list the subkeys of a key");
  ls->add_option("KEY", key, "full key name (default: the top level)");
  manual(ls, R"(DESCRIPTION
  Prints the components of the subkeys of KEY, one a line, in the order the
  registry enumerates them (byte order). Without KEY, the top-level keys.

EXIT STATUS
  0 listed (nothing for a key without subkeys), 2 bad key name,
  3 registry failure, 7 no such key.

EXAMPLE
  hvsctl ls DATABASE.DATABASES)");
  out.push_back({ls, [] { return do_ls(key); }});
}

Family family(&register_edit);

} // namespace
} // namespace hvsctl
