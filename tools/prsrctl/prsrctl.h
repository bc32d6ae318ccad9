/* prsrctl.h - what the command families of prsrctl share: the global
 * options, the session, the exit codes and the output. */
#ifndef PRSRCTL_H
#define PRSRCTL_H

#include <cstdint>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "prsr.h"

namespace prsrctl {

/* Exit codes, documented in docs/prsrctl.md. */
enum Exit : int {
  kOk = 0,
  kFailure = 1,     /* memory, session or any other failure */
  kBadArgument = 2, /* usage, or an argument the library refused */
  kRegistry = 3,    /* the registry failed or cannot be reached */
  kLock = 4,        /* a configuration lock was refused */
  kNotFound = 7,    /* database, instance, service, entry or node not found */
};

struct Globals {
  bool json = false;
  int verbose = 0;
  std::string registry;
};

/* An open session for one command; closes on destruction. */
class Session {
public:
  explicit Session(const Globals &g);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  prsr_ctx *ctx() const { return ctx_; }
  lks_status *status() { return &status_; }
  /* 0 when the session is open; otherwise the exit code, message printed. */
  int error() const { return error_; }

private:
  prsr_ctx *ctx_ = nullptr;
  lks_status status_{};
  int error_ = 0;
};

/* The registry location in force, for messages. */
std::string registry_location();

/* Maps a library result to an exit code and prints what went wrong with the
 * object named, e.g. "database sales: not found in sqlite:/x.db". Returns the
 * exit code (kOk for 0). */
int report(int32_t rc, const std::string &what, lks_status *status = nullptr);

/* Writes one JSON document to stdout. */
void emit(const nlohmann::json &doc);

/* The group subcommand ("config", "get", "set", "enable", "disable") under
 * which a family adds its commands; made on first use. */
CLI::App *group(CLI::App &app, const std::string &name);

/* Each command family registers itself from its own file:
 *   static prsrctl::Family family(&register_xyz);
 * and main() calls every registered family once the globals exist. */
using Registrar = void (*)(CLI::App &app, Globals &g, int &exit_code);
std::vector<Registrar> &families();
struct Family {
  explicit Family(Registrar r) { families().push_back(r); }
};

} // namespace prsrctl
#endif
