/* prsrctl.h - what the command families of prsrctl share: the global
 * options, the session, the exit codes and the output. */
#ifndef PRSRCTL_H
#define PRSRCTL_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "prsr.h"
#include "../common/exit_codes.h"

namespace prsrctl {

/* Exit codes: the table both tools share (docs/exit-codes.md). */
using tools::Exit;
using enum tools::Exit;

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

/* One registry call that failed inside a library write, as the library
 * reports it on its trace component at level 0:
 *   "<op>: HVS api <api> failed for key <KEY> with <code>"
 *   "HVS error code : <n>"  and  "HVS error msg : <text>" */
struct FailedWrite {
  std::string key, api, message;
  int32_t code = 0;
};

/* A library write's result and the failures it reported while it ran. Some
 * writes go on past a failed key and still return success (a service's own
 * flag, for one): the reports are how prsrctl learns of those. */
struct WriteResult {
  int32_t rc = PRSR_SUCCESS;
  int reports = 0;                 /* failure reports seen */
  std::vector<FailedWrite> failed; /* their keys (fewer only when memory ran out) */
};

/* Runs one library write of an open session and collects its reports. */
WriteResult watch_write(const std::function<int32_t()> &write);

/* The exit code of a write: report()'s for a failed call, kPartlyWritten
 * for success over failed keys; either way the keys not written are listed
 * on stderr with the registry's message. kOk when all was written. */
int report_write(const WriteResult &w, const std::string &what, lks_status *status);

/* Checks a name option: an empty name is a bad argument (exit 2), refused
 * before the library sees it. */
inline const CLI::Validator kNonEmpty(
    [](std::string &name) { return name.empty() ? std::string("the name is empty") : std::string(); },
    "");

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
