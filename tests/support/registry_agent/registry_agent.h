// registry_agent.h - another process with a registry client of its own
// (see registry_agent.cpp). Test targets that include this get
// REGISTRY_AGENT_PATH.
#ifndef PRSR_TEST_REGISTRY_AGENT_H
#define PRSR_TEST_REGISTRY_AGENT_H

#include "../lock_holder/child_process.h"

class RegistryAgent : public ChildProcess {
public:
  /* Starts registry_agent with args; "serve" agents are talked to with
   * ask(). The environment is the test's. */
  explicit RegistryAgent(const std::vector<std::string> &args)
      : ChildProcess(REGISTRY_AGENT_PATH, args) {}

  /* One command line, one answer line ("" when the agent is gone). */
  std::string ask(const std::string &line) {
    char buf[4096];
    if (!say(line + "\n") || from_ == nullptr || fgets(buf, sizeof buf, from_) == nullptr)
      return "";
    std::string answer(buf);
    if (!answer.empty() && answer.back() == '\n')
      answer.pop_back();
    return answer;
  }
};

#endif
