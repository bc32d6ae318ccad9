// hvsctl: the registry administration tool.
//
//   hvsctl [--registry LOC] import [--replace] FILE
//   hvsctl [--registry LOC] export [-o FILE] [KEY]
//   hvsctl [--registry LOC] dump [KEY [--relative]]
//   hvsctl [--registry LOC] storage-dependency on|off
//   hvsctl [--registry LOC] resources
//
// The other commands live in cmd_*.cpp, one family a file. Exit codes are
// those of command.h (docs/hvsctl.md).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "hvs/backend.h"
#include "hvsadm.h"
#include "mp.h"
#include "../common/cli_docs.h"
#include "command.h"
#include "hvs_location.h"
#include "hvs/registry_file.h"
#include "rsmgr.h"
#include "trc.h"
#include "util/keypath.h"
#include "util/mvlmd.h"

namespace {

using hvsctl::Client;
constexpr int kExitUsage = hvsctl::kBadArgument;
constexpr int kExitInput = hvsctl::kInput;
constexpr int kExitRegistry = hvsctl::kRegistry;
constexpr int kExitResources = hvsctl::kResources;

int import_keys(const std::string &file, const std::vector<hvsctl::FileKey> &keys,
                bool replace);

int do_import(const std::string &path, bool replace) {
  const std::string file = path == "-" ? hvsctl::kStdinLabel : path;
  std::string text;
  if (!hvsctl::read_text(path, text)) {
    fmt::print(stderr, "hvsctl: cannot read {}: {}\n", file,
               std::strerror(errno));
    return kExitInput;
  }
  std::vector<hvsctl::FileKey> keys;
  std::string error;
  if (!hvsctl::parse_registry_file(file, text, keys, error)) {
    fmt::print(stderr, "{}\n", error);
    return kExitInput;
  }
  // The same rule the library's key tools apply: no empty component, no
  // leading or trailing ".", no component over 255 bytes.
  for (const auto &k : keys) {
    if (u_check_keycomp(plinit(nullptr), k.name.c_str()) != 0) {
      fmt::print(stderr,
                 "{}:{}: key \"{}\" is not a well-formed key name (empty "
                 "component, leading or trailing \".\", or a component over "
                 "{} bytes)\n",
                 file, k.line, k.name, U_KEYCOMP_MAX);
      return kExitInput;
    }
  }

  return hvsctl::creating([&] { return import_keys(file, keys, replace); });
}

int import_keys(const std::string &file, const std::vector<hvsctl::FileKey> &keys,
                bool replace) {
  Client reg;
  if (int rc = reg.open_for_write(true))
    return rc;
  void *h = reg.get();
  if (hvsadm_begin(h) != HVS_OK)
    return reg.fail("cannot start the import");
  // Everything lands at commit or nothing does.
  auto abandon = [&](int code) {
    hvsadm_rollback(h);
    return code;
  };
  if (replace && hvsadm_delete_key(h, "", 1) != HVS_OK)
    return abandon(reg.fail("cannot empty the registry"));
  for (const auto &k : keys) {
    int32_t rc = hvsadm_create_key(h, k.name.c_str(), k.has_value ? 1 : 0,
                                   k.bytes.data(), uint32_t(k.bytes.size()));
    if (rc == HVS_OK)
      continue;
    std::string parent(hvs::parent_of(k.name));
    if (rc == HVS_ERR_EXISTS)
      fmt::print(stderr,
                 "{}:{}: key \"{}\" exists already in {} (use --replace to "
                 "replace the whole registry)\n",
                 file, k.line, k.name, reg.location());
    else if (rc == HVS_ERR_NO_KEY)
      fmt::print(stderr,
                 "{}:{}: key \"{}\": parent \"{}\" does not exist (a parent "
                 "comes before its children)\n",
                 file, k.line, k.name, parent);
    else
      return abandon(reg.fail(fmt::format("{}:{}: cannot create key \"{}\"",
                                          file, k.line, k.name)));
    return abandon(kExitInput);
  }
  reg.record_writer();
  if (hvsadm_commit(h) != HVS_OK)
    return reg.fail("cannot commit the import");
  fmt::print("imported {} keys from {} into {}\n", keys.size(), file,
             reg.location());
  return 0;
}

int do_export(const std::string &root, const std::string &out_file) {
  Client reg;
  if (!reg.open(false))
    return kExitRegistry;
  hvsctl::Tree tree;
  if (int rc = hvsctl::load_live(reg, root, tree))
    return rc;
  std::string text = hvsctl::render_file(tree, hvsctl::kFormatName);
  if (out_file.empty() || out_file == "-") {
    std::fwrite(text.data(), 1, text.size(), stdout);
    return std::fflush(stdout) == 0 ? 0 : kExitInput;
  }
  std::ofstream out(out_file, std::ios::binary | std::ios::trunc);
  out.write(text.data(), std::streamsize(text.size()));
  out.close();
  if (!out) {
    fmt::print(stderr, "hvsctl: cannot write {}: {}\n", out_file,
               std::strerror(errno));
    return kExitInput;
  }
  return 0;
}

// Every key under root by its name relative to root, the root itself by
// its full name.
int dump_relative(const std::string &root, const hvsctl::Tree &tree) {
  for (size_t i = 0; i < tree.size(); ++i) {
    const std::string &name = tree[i].name;
    std::string rel(name.size() + 1, '\0');
    std::string shown = name;
    if (i != 0) {
      if (u_ator(plinit(nullptr), root.c_str(), name.c_str(), rel.data()) != 0) {
        fmt::print(stderr, "hvsctl: cannot name key \"{}\" relative to \"{}\"\n",
                   name, root);
        return kExitRegistry;
      }
      shown = rel.c_str();
    }
    if (tree[i].has_value)
      shown += " = " + hvsctl::display_value(tree[i].bytes);
    fmt::print("{}\n", shown);
  }
  return 0;
}

int do_dump(const std::string &root, bool relative) {
  Client reg;
  if (!reg.open(false))
    return kExitRegistry;
  hvsctl::Tree tree;
  if (int rc = hvsctl::load_live(reg, root, tree))
    return rc;
  if (relative)
    return dump_relative(root, tree);
  auto depth = [](std::string_view name) {
    return size_t(std::count(name.begin(), name.end(), '.'));
  };
  size_t base = root.empty() ? 0 : depth(root);
  for (size_t i = 0; i < tree.size(); ++i) {
    const std::string &name = tree[i].name;
    std::string shown =
        (!root.empty() && i == 0) ? name : std::string(hvs::last_component(name));
    std::string line(2 * (depth(name) - base), ' ');
    line += shown;
    if (tree[i].has_value)
      line += " = " + hvsctl::display_value(tree[i].bytes);
    fmt::print("{}\n", line);
  }
  return 0;
}

int do_storage_dependency(bool on) {
  uintptr_t comp = trccompreg("hvsctl", "HVSCTL", 1024, 0, 0, 0, 0);
  if (u_mvlmd(nullptr, comp, on ? 1 : 0) != U_MVLMD_OK) {
    fmt::print(stderr,
               "hvsctl: the resource manager did not take the dependencies of "
               "tvn.rsmd (TRC_LEVEL=1 TRC_DEST=stderr shows why)\n");
    return kExitResources;
  }
  fmt::print("tvn.rsmd: storage manager dependency {} (registered, or queued "
             "if the manager was busy)\n",
             on ? "on" : "off");
  return 0;
}

int do_resources() {
  void *client = nullptr;
  int32_t rc = rsmgr_init_rsm(&client, nullptr, nullptr, 0x88);
  if (rc != RSMGR_OK) {
    fmt::print(stderr, "hvsctl: cannot open the resource manager store (code {}); "
                       "set HVS_RSM_STORE or use a sqlite: registry\n", rc);
    return kExitResources;
  }
  struct Row {
    std::string resource, name, value, when;
    uint32_t flags;
  };
  auto collect = [](void *arg, const char *r, const char *n, const char *v,
                    uint32_t f, const char *w) {
    static_cast<std::vector<Row> *>(arg)->push_back({r, n, v, w, f});
    return 0;
  };
  std::vector<Row> applied, queued;
  rc = rsmgr_store_walk(client, 0, collect, &applied);
  if (rc == RSMGR_OK)
    rc = rsmgr_store_walk(client, 1, collect, &queued);
  std::string store = rsmgr_store_path(client);
  rsmgr_term_rsm(&client);
  if (rc != RSMGR_OK) {
    fmt::print(stderr, "hvsctl: cannot read the resource manager store {}\n", store);
    return kExitResources;
  }
  auto print = [](const char *title, const std::vector<Row> &rows, bool flags) {
    size_t wr = 8, wn = 9;
    for (const auto &r : rows) {
      wr = std::max(wr, r.resource.size());
      wn = std::max(wn, r.name.size());
    }
    fmt::print("{} ({})\n", title, rows.size());
    for (const auto &r : rows) {
      if (flags)
        fmt::print("  {:<{}}  {:<{}}  {}  flags 0x{:x}  {}\n", r.resource, wr,
                   r.name, wn, r.when, r.flags, r.value);
      else
        fmt::print("  {:<{}}  {:<{}}  {}  {}\n", r.resource, wr, r.name, wn,
                   r.when, r.value);
    }
  };
  fmt::print("store: {}\n", store);
  print("resources", applied, false);
  print("queue", queued, true);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  CLI::App app{"hvsctl - administer the cluster registry"};
  app.require_subcommand(1);
  // Global options count wherever they stand, before or after a command;
  // the commands made below inherit this.
  app.fallthrough();
  std::string registry;
  app.add_option("--registry", registry,
                 "registry location (sqlite:PATH, mem:NAME, zk://..., or file:PATH "
                 "for a saved export or backup, read-only); "
                 "overrides HVS_REGISTRY");
  app.set_version_flag("--version", [&registry] {
    return "hvsctl " HVSCTL_VERSION "\nregistry: " +
           (registry.empty() ? hvs::resolve_location() : hvs::parse_location(registry)).text;
  });

  bool replace = false;
  std::string import_file;
  auto *imp = app.add_subcommand("import", "load keys from a registry file");
  imp->add_option("FILE", import_file, "registry file (JSON), - for standard input")->required();
  imp->add_flag("--replace", replace,
                "empty the registry first, in the same transaction");
  bool force = false;
  imp->add_flag("--force", force,
                "make the registry in an SQLite file or ZooKeeper root that "
                "holds something else (its other data stays)");

  std::string export_key, export_out;
  auto *exp = app.add_subcommand("export", "write keys as a registry file");
  exp->add_option("KEY", export_key, "subtree to export (default: all)");
  exp->add_option("-o,--output", export_out, "output file (default, or -: standard output)");

  std::string dump_key;
  auto *dump = app.add_subcommand("dump", "print the key tree");
  dump->add_option("KEY", dump_key, "subtree to print (default: all)");
  bool dump_relative = false;
  dump->add_flag("--relative", dump_relative,
                 "print full names relative to KEY instead of a tree")
      ->needs(dump->get_option("KEY"));

  std::string dep_state;
  auto *dep = app.add_subcommand(
      "storage-dependency",
      "register tvn.rsmd with or without its dependency on tvn.vlm");
  dep->add_option("STATE", dep_state, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));

  auto *res = app.add_subcommand(
      "resources", "list the resource manager's resources and queue");

  // The other commands register themselves from their own files.
  hvsctl::add_families(app);
  if (int rc = tools::print_docs(app, "hvsctl", HVSCTL_VERSION, argc, argv); rc >= 0)
    return rc;

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : kExitUsage;
  }
  if (!registry.empty())
    ::setenv("HVS_REGISTRY", registry.c_str(), 1);

  if (int rc = hvsctl::run_chosen(); rc >= 0)
    return rc;
  if (*imp) {
    hvsadm_allow_foreign(force);
    return do_import(import_file, replace);
  }
  if (*exp)
    return do_export(export_key, export_out);
  if (*dep)
    return do_storage_dependency(dep_state == "on");
  if (*res)
    return do_resources();
  return do_dump(dump_key, dump_relative);
}
