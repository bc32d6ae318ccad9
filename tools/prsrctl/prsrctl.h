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
  bool explain = false; /* prsrctl explain COMMAND: a dry run, recorded */
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

/* Writes one JSON document to stdout, with "schema": kSchema in it when it
 * is an object (docs/json-schema.md); emit_line() writes it on one line. */
inline constexpr int kSchema = 1;
void emit(const nlohmann::json &doc);
void emit_line(const nlohmann::json &doc);

/* One call to the registry client or the lock service, as the client
 * recorded it (hvsadm_record): every session prsrctl opens is recorded. */
struct Call {
  int kind = 0;       /* HVSADM_CALL_* */
  int32_t result = 0; /* the call's result code */
  std::string name;   /* key or lock */
  std::string value;  /* READ, WRITE: the bytes; LIST: subkeys, NUL after each */
  bool exclusive = false;
  bool dry = false;   /* a write not written, a lock not taken */
};

/* Starts recording (dry: explain's dry run); sessions and client handles
 * opened from then on are recorded. A restart leaves out what was opened
 * before it. */
void start_recording(bool dry);
/* How many calls were recorded so far; the calls from the from-th on; and
 * forgetting them all. */
size_t recorded_count();
std::vector<Call> recorded_calls(size_t from = 0);
void forget_recorded_calls();
/* A call as a JSON object, and as one line of text. */
nlohmann::json call_json(const Call &c);
std::string call_text(const Call &c);

/* The keys under `under` (a full key name) that the calls found absent, or
 * could not read, with what the record holds instead: a list of
 *   {"key": KEY below `under`, "used": VALUE, "reason": "absent"|"unreadable"}
 * where used(components of KEY) finds the record's value (null: nothing). */
nlohmann::json defaults_of(const std::vector<Call> &calls, const std::string &under,
                           const std::function<nlohmann::json(const std::vector<std::string> &)> &used);
/* The same list for the readable report, under a heading. */
void print_defaults(const nlohmann::json &defaults);
/* A record's member for a key's last component ("POLICY" -> "policy"). */
nlohmann::json member_for(const nlohmann::json &record, const std::string &component);
/* The subkeys of a registry key with their values as text (without a
 * closing NUL), read through a client handle of its own, under no lock:
 * for the listings the library has no call for. Returns the registry's
 * code: 0, HVS_ERR_NO_KEY when the key is not there, or a failure. */
struct Subkey {
  std::string name, value;
};
int32_t registry_subkeys(const std::string &key, std::vector<Subkey> &out);

/* A database's whole record, as `config database --json` shows it (with
 * its defaults); also hands the library's record to `also`. The library's
 * result code. */
int32_t fetch_database(Session &s, const std::string &db, nlohmann::json &doc,
                       const std::function<void(const prsr_cfg *)> &also = {});

/* A node's applications, as `config nodeapps --json` shows them. */
int32_t fetch_nodeapps(Session &s, const std::string &node, nlohmann::json &doc);

/* Lower case, for names compared as the library compares them. */
std::string lower(std::string s);

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
