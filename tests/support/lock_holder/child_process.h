// child_process.h - a helper program of the tests (lock_holder,
// registry_agent) in a process of its own, talked to through its stdin and
// stdout. It is started with exec, never as a bare fork of a test, so that
// it starts clean whatever threads the test had running; it never outlives
// the test, and is killed (SIGKILL) when its handle goes.
#ifndef PRSR_TEST_CHILD_PROCESS_H
#define PRSR_TEST_CHILD_PROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

class ChildProcess {
public:
  /* path with args, then more. */
  ChildProcess(const char *path, std::vector<std::string> args,
               const std::vector<std::string> &more = {}) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0)
      return;
    args.insert(args.end(), more.begin(), more.end());
    std::vector<const char *> argv{path};
    for (const auto &a : args)
      argv.push_back(a.c_str());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) { /* only async-signal-safe calls until the exec */
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(down[0], 0);
      dup2(up[1], 1);
      execv(path, const_cast<char *const *>(argv.data()));
      _exit(127);
    }
    close(down[0]);
    close(up[1]);
    to_ = down[1];
    from_ = fdopen(up[0], "r");
  }
  ~ChildProcess() {
    kill_hard();
    if (from_ != nullptr)
      fclose(from_);
  }
  ChildProcess(const ChildProcess &) = delete;
  ChildProcess &operator=(const ChildProcess &) = delete;

  void signal(int sig) {
    if (pid_ > 0)
      kill(pid_, sig);
  }
  /* Still running (not reaped)? */
  bool running() { return !reaped(WNOHANG); }
  /* Closes its stdin and waits for the end; the exit code, -1 when killed. */
  int wait() {
    if (to_ >= 0)
      close(std::exchange(to_, -1));
    reaped(0);
    return exit_;
  }
  void kill_hard() {
    signal(SIGKILL);
    wait();
  }
  /* Writes text to its stdin; false when it is gone. */
  bool say(const std::string &text) {
    return write(to_, text.data(), text.size()) == ssize_t(text.size());
  }
  FILE *from_ = nullptr; /* its stdout */

private:
  /* Reaps it if it has ended (waitpid options); false while it runs. */
  bool reaped(int options) {
    int status = 0;
    const pid_t r = pid_ > 0 ? waitpid(pid_, &status, options) : -1;
    if (r > 0)
      exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = r == 0 ? pid_ : -1;
    return r != 0;
  }
  pid_t pid_ = -1;
  int to_ = -1, exit_ = -1;
};

#endif
