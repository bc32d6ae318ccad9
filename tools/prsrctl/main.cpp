/* prsrctl - the client command over libprsr: shows and changes the
 * configuration of the clustered databases kept in the registry. */
#include <cstdlib>
#include <iostream>

#include "../common/cli_docs.h"
#include "prsrctl.h"
#include "trc.h"

int main(int argc, char **argv) {
  using namespace prsrctl;
  CLI::App app{"prsrctl - show and change cluster database configuration"};
  app.require_subcommand(1);
  // Global options count wherever they stand, before or after a command;
  // the commands made below inherit this.
  app.fallthrough();
  Globals g;
  int exit_code = kOk;
  app.add_flag("--json", g.json, "Print one JSON document instead of a report");
  app.add_flag("-v,--verbose", g.verbose, "Show the library's trace lines on stderr (-vv: all)");
  app.add_option("--registry", g.registry,
                 "Registry location (overrides HVS_REGISTRY), e.g. sqlite:/path/registry.db");
  app.set_version_flag("--version", [&g] {
    if (!g.registry.empty())
      setenv("HVS_REGISTRY", g.registry.c_str(), 1);
    return "prsrctl " PRSR_TOOLS_VERSION " (libprsr " PRSR_TOOLS_VERSION ")\nregistry: " +
           registry_location();
  });
  app.parse_complete_callback([&g] {
    if (!g.registry.empty())
      setenv("HVS_REGISTRY", g.registry.c_str(), 1);
    if (g.verbose > 0) {
      trcsetdest("stderr");
      trcsetlevel(g.verbose > 1 ? 5 : 4);
    }
  });

  for (Registrar r : families())
    r(app, g, exit_code);
  if (int rc = tools::print_docs(app, "prsrctl", PRSR_TOOLS_VERSION, argc, argv); rc >= 0)
    return rc;

  /* Name an unknown command rather than only asking for one. */
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--registry") {
      ++i;
      continue;
    }
    if (a.empty() || a[0] == '-')
      continue;
    auto known = app.get_subcommands([&a](CLI::App *c) { return c->get_name() == a; });
    if (known.empty()) {
      std::cerr << "prsrctl: unknown command '" << a << "' (see prsrctl --help)\n";
      return kBadArgument;
    }
    break;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    int rc = app.exit(e);
    return rc == 0 ? kOk : kBadArgument;
  }
  return exit_code;
}
