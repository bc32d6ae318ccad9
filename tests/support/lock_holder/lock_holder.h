// lock_holder.h - another process that holds one named lock (see
// lock_holder.cpp). Test targets that include this get LOCK_HOLDER_PATH.
// signal(SIGSTOP) and signal(SIGCONT) stop and resume it, e.g. to let its
// registry session expire while it holds the lock.
#ifndef PRSR_TEST_LOCK_HOLDER_H
#define PRSR_TEST_LOCK_HOLDER_H

#include "child_process.h"

class LockHolder : public ChildProcess {
public:
  /* Starts the holder and waits until it has the lock and has made the
   * writes ("KEY=VALUE", text values) under it (granted()), or was refused.
   * hold_ms >= 0: it releases by itself after that long (wait() for it);
   * otherwise when release() is called. */
  LockHolder(const std::string &name, bool shared, int hold_ms = -1,
             const std::vector<std::string> &writes = {})
      : ChildProcess(LOCK_HOLDER_PATH,
                     {name, shared ? "shared" : "exclusive", std::to_string(hold_ms)}, writes),
        granted_(from_ != nullptr && fgetc(from_) == 'y') {}

  bool granted() const { return granted_; }
  /* Tells it to release and waits for it; its exit status (0: released). */
  int release() { return say("g") ? wait() : -1; }

private:
  bool granted_;
};

#endif
