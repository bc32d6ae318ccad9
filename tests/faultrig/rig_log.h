// rig_log.h - the event log of the fault rig, shared by the worker that
// writes it and the checker that reads it.
//
// One file per process, one event per line, written with one write(2) so a
// process killed with SIGKILL leaves at most its last line unfinished:
//
//   <CLOCK_MONOTONIC ns> <event> key=value ... [text=free text to the end]
//
// Values never hold spaces; the free text, when there is one, comes last.
// Every network namespace shares CLOCK_MONOTONIC, so the lines of all the
// processes of a run can be put in one order.
#ifndef PRSR_FAULTRIG_LOG_H
#define PRSR_FAULTRIG_LOG_H

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace rig {

// CLOCK_MONOTONIC in nanoseconds (the steady clock's, on Linux).
inline int64_t now_ns() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// A value fit for key=value: spaces and controls become '_', an empty one '-'.
inline std::string word(std::string_view v) {
  std::string out(v.empty() ? "-" : v);
  for (char &c : out)
    c = static_cast<unsigned char>(c) <= ' ' ? '_' : c;
  return out;
}

class Log {
public:
  explicit Log(const std::string &path)
      : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
  ~Log() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Log(const Log &) = delete;
  Log &operator=(const Log &) = delete;
  bool ok() const { return fd_ >= 0; }

  // fields: " key=value key=value"; text: free text, may be empty. A line
  // that cannot be written is left out: the checker sees the gap.
  void line(int64_t t, std::string_view event, std::string_view fields,
            std::string_view text = {}) const {
    std::string s = std::to_string(t) + ' ' + std::string(event) + std::string(fields);
    if (!text.empty())
      s += " text=";
    for (char c : text)
      s += c == '\n' || c == '\r' ? ' ' : c;
    s += '\n';
    [[maybe_unused]] const ssize_t n = fd_ >= 0 ? ::write(fd_, s.data(), s.size()) : 0;
  }

private:
  int fd_ = -1;
};

} // namespace rig

#endif
