// file_lock_engine.h - named locks as flock(2) locks on files of one
// directory. Every acquire opens its own descriptor, and so its own open
// file description: two holds in one process exclude each other exactly as
// two processes do, and a process that dies releases all it held. A waiting
// writer goes before the readers that come after it.
#ifndef LKS_FILE_LOCK_ENGINE_H
#define LKS_FILE_LOCK_ENGINE_H

#include "lock_engine.h"

#include <string>

namespace lks {

class FileLockEngine final : public LockEngine {
public:
  // dir is created on first use with the given mode. private_dir: the
  // directory's parent is shared with other users (the temporary
  // directory), so the directory must be ours and not a link.
  FileLockEngine(std::string dir, unsigned mode, bool private_dir);

  Outcome acquire(const std::string &name, Mode mode, std::chrono::milliseconds timeout,
                  Token *token) override;
  Outcome release(Token token) override;

  // The file, inside the lock directory, that stands for a lock name:
  // a readable prefix of the name and a 128-bit hash of all of it.
  static std::string file_name(const std::string &name);

  const std::string &directory() const { return dir_; }

private:
  Outcome ensure_directory();

  std::string dir_;
  unsigned mode_;
  bool private_;
};

} // namespace lks
#endif
