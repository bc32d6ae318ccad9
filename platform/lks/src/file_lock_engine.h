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
  // dir is created on first use. Its owner and group, and those of its
  // files, are those of owner_file (the registry) when it exists, else this
  // process's: the directory must be owned by them (or root), must not be
  // writable by others and must not be a link, or no lock is taken.
  // owner_file empty: a private directory (mode 0700, files 0600) whose
  // parent is shared with other users (the temporary directory), so the
  // parent must be this user's too.
  FileLockEngine(std::string dir, std::string owner_file);

  Outcome acquire(const std::string &name, Mode mode, std::chrono::milliseconds timeout,
                  Token *token) override;
  Outcome release(Token token) override;

  // The file, inside the lock directory, that stands for a lock name:
  // a readable prefix of the name and a 128-bit hash of all of it.
  static std::string file_name(const std::string &name);

  const std::string &directory() const { return dir_; }

private:
  struct Owner;
  Outcome owner(Owner &out) const;
  Outcome open_directory(const Owner &o, int *fd) const;

  std::string dir_;
  std::string owner_file_;
};

} // namespace lks
#endif
