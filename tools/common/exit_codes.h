// exit_codes.h - the exit codes of prsrctl and hvsctl: one table for both
// tools (docs/exit-codes.md). A number means the same in both; each tool
// gives the codes that apply to what it does.
#ifndef TOOLS_EXIT_CODES_H
#define TOOLS_EXIT_CODES_H

namespace tools {

enum Exit : int {
  kOk = 0,
  kFailure = 1,       // anything else: out of memory, the session could not be made
  kBadArgument = 2,   // the command line, or an argument refused before or by the
                      // library: a name empty, malformed or too long, bad hex, an
                      // unknown role, an answer that does not fit
  kRegistry = 3,      // the registry cannot be opened or failed
  kLock = 4,          // a configuration lock was refused; nothing was changed
  kFindings = 5,      // hvsctl check found problems, hvsctl diff found differences
  kResources = 6,     // the resource manager failed
  kNotFound = 7,      // what was named does not exist (database, key, node...)
  kNewer = 8,         // not written: a newer hvsctl wrote the registry
  kPartlyWritten = 9, // a write went on past keys it could not write
  kInput = 10,        // a file cannot be read or written or is malformed, or the
                      // request conflicts with what is there (a key that exists,
                      // a key with subkeys, a location that holds something else)
};

} // namespace tools

#endif
