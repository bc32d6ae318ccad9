// What the command files of hvsctl share: the exit codes, self-registering
// command families, a registry handle for one command, and the key tree of a
// file or of the live registry as one list.
#ifndef HVSCTL_COMMAND_H
#define HVSCTL_COMMAND_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "../common/exit_codes.h"
#include "hvs/registry_file.h"

namespace hvsctl {

// Exit codes: the table both tools share (docs/exit-codes.md).
using tools::Exit;
using enum tools::Exit;

// The registry file format is the registry client's (hvs/registry_file.h).
using hvs::backup_count_mismatch;
using hvs::display_value;
using hvs::FileKey;
using hvs::key_line;
using hvs::kBackupFormatName;
using hvs::kFormatName;
using hvs::kFormatVersion;
using hvs::parse_registry_file;

// Every JSON document that hvsctl prints carries this number as its
// "schema" member; a change of any document's shape raises it
// (docs/json-schema.md).
inline constexpr int kJsonSchema = 1;

// What standard input ("-" in place of a file) is called in messages.
inline constexpr const char *kStdinLabel = "(stdin)";

// A command family adds its subcommands to the application and returns, for
// each, what to run when that subcommand was chosen. The runner is called
// after the command line is parsed and --registry applied.
using Runner = std::function<int()>;
struct Command {
  CLI::App *sub;
  Runner run;
};
using Registrar = void (*)(CLI::App &app, std::vector<Command> &out);
std::vector<Registrar> &families();
struct Family {
  explicit Family(Registrar r) { families().push_back(r); }
};

// Called by main: adds every family's subcommands, and later runs the chosen
// one. run_chosen() returns -1 when the chosen subcommand is not a family's.
void add_families(CLI::App &app);
int run_chosen();

// A man-page-like footer for a subcommand's --help.
void manual(CLI::App *sub, const std::string &text);

// An open registry client, closed on destruction.
class Client {
public:
  Client() = default;
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  // False after printing why the registry cannot be opened.
  bool open(bool create = false);
  // Opens for a change: refuses (kNewer) a registry that a newer version of
  // this tool wrote, which this one cannot know how to keep consistent, and
  // (kInput) with create a location that holds something else.
  // Returns kOk or the exit code, after printing why.
  int open_for_write(bool create = false);
  // Records this tool's version as the registry's writer; inside a
  // transaction it lands with the change.
  void record_writer();
  void *get() const { return h_; }
  std::string location() const;
  std::string last_error() const;
  // Prints "hvsctl: WHAT: cause" and returns kRegistry.
  int fail(const std::string &what) const;

private:
  void *h_ = nullptr;
  int32_t open_rc_ = 0;
};

// Runs a command that may create the registry: when it fails where no
// registry was before, what it made there (the SQLite file and the
// directories made for it, or the ZooKeeper root) is removed again, so a
// failed import leaves nothing behind. Returns the command's exit code.
int creating(const std::function<int()> &command);

// One key with its value, as a walk or a file gives it.
struct Entry {
  std::string name;
  bool has_value = false;
  std::string bytes;
};
using Tree = std::vector<Entry>; // parents before their children

// The whole live registry (or the subtree under root). Returns an exit code.
int load_live(Client &client, const std::string &root, Tree &out);

// A registry file (export) or a backup file, "-" for standard input; meta
// receives the backup's
// "backup" object as JSON text ("" for a plain export). Returns an exit code
// after printing the problem as FILE:LINE: problem.
int load_file(const std::string &path, Tree &out, std::string *meta = nullptr);

// The text of a file, "-" for standard input; false with errno set when it
// cannot be read.
bool read_text(const std::string &path, std::string &text);

// Writes text to path through a temporary file and a rename, so a reader
// never sees half a file; "-" writes it to standard output. The file gets the owner's group of like (a
// registry file; "" for this user's) and its mode less anything for others,
// 0600 without like, whatever the umask. Returns an exit code after
// printing the problem.
int write_atomically(const std::string &path, const std::string &text,
                     const std::string &like = "");

// The export format of a tree (what `hvsctl export` writes), with extra
// top-level members placed before "keys".
std::string render_file(const Tree &tree, const char *format,
                        const std::string &extra_members = "");

} // namespace hvsctl

#endif
