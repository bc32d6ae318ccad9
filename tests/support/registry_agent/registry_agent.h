// registry_agent.h - another process with a registry client of its own
// (see registry_agent.cpp). Test targets that include this get
// REGISTRY_AGENT_PATH.
#ifndef PRSR_TEST_REGISTRY_AGENT_H
#define PRSR_TEST_REGISTRY_AGENT_H

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

class RegistryAgent {
public:
  /* Starts registry_agent with args; "serve" agents are talked to with
   * ask(). The environment is the test's. */
  explicit RegistryAgent(const std::vector<std::string> &args) {
    int down[2], up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0)
      return;
    std::vector<const char *> argv{REGISTRY_AGENT_PATH};
    for (const auto &a : args)
      argv.push_back(a.c_str());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {                    /* only async-signal-safe calls until the exec */
      prctl(PR_SET_PDEATHSIG, SIGKILL); /* never outlives the test */
      dup2(down[0], 0);
      dup2(up[1], 1);
      execv(REGISTRY_AGENT_PATH, const_cast<char *const *>(argv.data()));
      _exit(127);
    }
    close(down[0]);
    close(up[1]);
    to_ = down[1];
    from_ = fdopen(up[0], "r");
  }
  ~RegistryAgent() {
    kill_hard();
    if (from_ != nullptr)
      fclose(from_);
  }
  RegistryAgent(const RegistryAgent &) = delete;
  RegistryAgent &operator=(const RegistryAgent &) = delete;

  /* One command line, one answer line ("" when the agent is gone). */
  std::string ask(const std::string &line) {
    std::string out = line + "\n";
    if (write(to_, out.data(), out.size()) != ssize_t(out.size()))
      return "";
    char buf[4096];
    if (from_ == nullptr || fgets(buf, sizeof buf, from_) == nullptr)
      return "";
    std::string answer(buf);
    if (!answer.empty() && answer.back() == '\n')
      answer.pop_back();
    return answer;
  }
  void signal(int sig) {
    if (pid_ > 0)
      kill(pid_, sig);
  }
  /* Still running (not reaped)? */
  bool running() {
    if (pid_ <= 0)
      return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == 0)
      return true;
    exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return false;
  }
  /* Waits for the end; the exit code, -1 when killed. */
  int wait() {
    if (to_ >= 0)
      close(to_);
    to_ = -1;
    if (pid_ > 0) {
      int status = 0;
      waitpid(pid_, &status, 0);
      exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      pid_ = -1;
    }
    return exit_;
  }
  void kill_hard() {
    signal(SIGKILL);
    wait();
  }

private:
  pid_t pid_ = -1;
  int to_ = -1;
  FILE *from_ = nullptr;
  int exit_ = -1;
};

#endif
