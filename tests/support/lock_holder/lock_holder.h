// lock_holder.h - another process that holds one named lock (see
// lock_holder.cpp). Test targets that include this get LOCK_HOLDER_PATH.
#ifndef PRSR_TEST_LOCK_HOLDER_H
#define PRSR_TEST_LOCK_HOLDER_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

class LockHolder {
public:
  /* Starts the holder and waits until it has the lock and has made the
   * writes ("KEY=VALUE", text values) under it (granted()), or was refused.
   * hold_ms >= 0: it releases by itself after that long; otherwise when
   * release() is called. */
  LockHolder(const std::string &name, bool shared, int hold_ms = -1,
             const std::vector<std::string> &writes = {}) {
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0)
      return;
    std::string mode = shared ? "shared" : "exclusive";
    std::string ms = std::to_string(hold_ms);
    std::vector<const char *> args = {LOCK_HOLDER_PATH, name.c_str(), mode.c_str(), ms.c_str()};
    for (const auto &w : writes)
      args.push_back(w.c_str());
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) { /* only async-signal-safe calls until the exec */
      dup2(down[0], 0);
      dup2(up[1], 1);
      close(up[0]);
      close(down[1]);
      execv(LOCK_HOLDER_PATH, const_cast<char *const *>(args.data()));
      _exit(127);
    }
    close(up[1]);
    close(down[0]);
    char c = 0;
    granted_ = pid_ > 0 && read(up[0], &c, 1) == 1 && c == 'y';
    close(up[0]);
    go_ = down[1];
  }
  ~LockHolder() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      reap();
    }
  }
  LockHolder(const LockHolder &) = delete;
  LockHolder &operator=(const LockHolder &) = delete;

  bool granted() const { return granted_; }
  /* Tells it to release and waits for it; its exit status (0: released). */
  int release() {
    char c = 'g';
    if (write(go_, &c, 1) != 1)
      return -1;
    return reap();
  }
  /* Waits for a holder that releases by itself. */
  int wait() { return reap(); }
  /* Stops (SIGSTOP) or resumes (SIGCONT) the holder, e.g. to let its
   * registry session expire while it holds the lock. */
  void signal(int sig) { kill(pid_, sig); }
  void kill_hard() {
    kill(pid_, SIGKILL);
    reap();
  }

private:
  int reap() {
    int status = 0;
    if (pid_ > 0)
      waitpid(pid_, &status, 0);
    pid_ = -1;
    if (go_ >= 0)
      close(go_);
    go_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid_ = -1;
  int go_ = -1;
  bool granted_ = false;
};

#endif
