/* prsrctl - the client command over libprsr: shows and changes the
 * configuration of the clustered databases kept in the registry. */
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <fmt/format.h>

#include "hvsadm.h"
#include "../common/cli_docs.h"
#include "prsrctl.h"
#include "trc.h"

namespace {

using namespace prsrctl;

const char *exit_word(int code) {
  switch (code) {
  case kOk:
    return "success";
  case kBadArgument:
    return "bad argument";
  case kRegistry:
    return "registry failure";
  case kLock:
    return "lock refused";
  case kNotFound:
    return "not found";
  case kPartlyWritten:
    return "partly written";
  default:
    return "failure";
  }
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    out.push_back(line);
  return out;
}

/* What `prsrctl explain COMMAND` prints: the calls the command made in its
 * dry run, in order, then its exit code and what it printed. */
void print_explanation(const Globals &g, const std::vector<std::string> &command, int code,
                       const std::string &out, const std::string &err) {
  std::vector<Call> calls = recorded_calls();
  if (g.json) {
    nlohmann::json all = nlohmann::json::array(), locks = nlohmann::json::array(),
                   writes = nlohmann::json::array();
    for (const Call &c : calls) {
      nlohmann::json j = call_json(c);
      all.push_back(j);
      if (c.kind == HVSADM_CALL_LOCK)
        locks.push_back({{"lock", j["lock"]}, {"mode", j["mode"]}});
      if (c.kind == HVSADM_CALL_WRITE)
        writes.push_back({{"key", j["key"]}, {"value", j["value"]}});
    }
    nlohmann::json output;
    try {
      output = out.empty() ? nlohmann::json(nullptr) : nlohmann::json::parse(out);
    } catch (const nlohmann::json::exception &) {
      output = out; /* a report, or output cut short */
    }
    emit({{"command", command},
          {"dry_run", true},
          {"calls", all},
          {"locks", locks},
          {"writes", writes},
          {"exit", code},
          {"output", output},
          {"messages", lines_of(err)}});
    return;
  }
  std::string shown;
  for (const auto &a : command)
    shown += " " + a;
  std::cout << "explain: prsrctl" << shown << "\n"
            << "dry run: nothing is written and no lock is taken\n\n"
            << "Calls (" << calls.size() << ")\n";
  for (size_t i = 0; i < calls.size(); ++i)
    std::cout << fmt::format("  {:>3}  {}\n", i + 1, call_text(calls[i]));
  std::cout << "\nResult: exit " << code << " (" << exit_word(code) << ")\n";
  for (const auto &l : lines_of(out))
    std::cout << "  " << l << "\n";
  for (const auto &l : lines_of(err))
    std::cout << "  " << l << "\n";
}

} // namespace

int main(int argc, char **argv) {
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
  // Taken off the command line before parsing (what follows it runs dry);
  // here for --help.
  app.add_subcommand("explain", "Show what a command would read, write and lock, and its "
                                "result, changing nothing: prsrctl explain COMMAND ...");

  for (Registrar r : families())
    r(app, g, exit_code);
  if (int rc = tools::print_docs(app, "prsrctl", PRSR_TOOLS_VERSION, argc, argv); rc >= 0)
    return rc;

  /* explain COMMAND: the command runs dry, recorded. */
  std::vector<char *> args(argv, argv + argc);
  for (size_t i = 1; i < args.size(); ++i) {
    std::string a = args[i];
    if (a == "--registry") {
      ++i;
      continue;
    }
    if (a.empty() || a[0] == '-')
      continue;
    if (a == "explain") {
      g.explain = true;
      args.erase(args.begin() + static_cast<long>(i));
    }
    break;
  }
  argc = static_cast<int>(args.size());
  argv = args.data();
  const std::vector<std::string> command(argv + 1, argv + argc);
  start_recording(g.explain);

  /* Name an unknown command rather than only asking for one. */
  bool named = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--registry") {
      ++i;
      continue;
    }
    if (a.empty() || a[0] == '-')
      continue;
    auto known = app.get_subcommands([&a](CLI::App *c) { return c->get_name() == a; });
    if (known.empty() || a == "explain") {
      std::cerr << "prsrctl: unknown command '" << a << "' (see prsrctl --help)\n";
      return kBadArgument;
    }
    named = true;
    break;
  }
  if (g.explain && !named) {
    std::cerr << "prsrctl: explain: name the command to explain, e.g. "
                 "prsrctl explain set role -d DB primary\n";
    return kBadArgument;
  }

  std::ostringstream out, err;
  std::streambuf *old_out = nullptr, *old_err = nullptr;
  if (g.explain) {
    old_out = std::cout.rdbuf(out.rdbuf());
    old_err = std::cerr.rdbuf(err.rdbuf());
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    int rc = app.exit(e);
    exit_code = rc == 0 ? kOk : kBadArgument;
  }
  if (g.explain) {
    std::cout.rdbuf(old_out);
    std::cerr.rdbuf(old_err);
    print_explanation(g, command, exit_code, out.str(), err.str());
  }
  return exit_code;
}
