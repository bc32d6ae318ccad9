/* The failures of a library write, gathered from the library's own trace
 * reports: a trace sink receives the lines of the library's component while
 * one write call runs, and the failure reports among them are kept. */
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "prsrctl.h"
#include "trc.h"

namespace prsrctl {

namespace {

/* The component the library registers when a session opens. */
constexpr const char *kLibraryComponent = "PRSR";
/* The level of the library's failure reports. */
constexpr int32_t kReportLevel = 0;

/* Hands the failure reports of the library's component to `out` while it
 * lives. */
class ReportSink {
public:
  explicit ReportSink(WriteResult &out) : out_(out), comp_(trcgetcompid(kLibraryComponent)) {
    trcsetsink(&ReportSink::receive, this, kReportLevel);
  }
  ~ReportSink() { trcsetsink(nullptr, nullptr, -1); }
  ReportSink(const ReportSink &) = delete;
  ReportSink &operator=(const ReportSink &) = delete;

private:
  static void receive(void *arg, uintptr_t comp, int32_t, const char *text) {
    auto *self = static_cast<ReportSink *>(arg);
    if (comp == self->comp_ && text != nullptr)
      self->take(text);
  }

  /* "<op>: HVS api <api> failed for key <KEY> with <code>" opens a report;
   * the "HVS error msg : <text>" line after it gives the registry's words. */
  void take(std::string_view line) noexcept {
    constexpr std::string_view api_mark = ": HVS api ", key_mark = " failed for key ",
                               code_mark = " with ", msg_mark = "HVS error msg : ";
    size_t a = line.find(api_mark);
    size_t k = a == line.npos ? a : line.find(key_mark, a);
    size_t c = line.rfind(code_mark);
    bool opens = k != line.npos && c != line.npos && c > k;
    if (opens)
      ++out_.reports; /* counted before anything that may fail */
    try {
      if (opens) {
        FailedWrite f;
        size_t api_at = a + api_mark.size();
        size_t key_at = k + key_mark.size();
        f.api = line.substr(api_at, k - api_at);
        f.key = line.substr(key_at, c - key_at);
        f.code = static_cast<int32_t>(
            std::strtol(std::string(line.substr(c + code_mark.size())).c_str(), nullptr, 10));
        out_.failed.push_back(std::move(f));
        in_report_ = true;
      } else if (in_report_ && line.starts_with(msg_mark)) {
        out_.failed.back().message = line.substr(msg_mark.size());
        in_report_ = false;
      }
    } catch (...) {
      in_report_ = false; /* out of memory: the report stays counted */
    }
  }

  WriteResult &out_;
  uintptr_t comp_;
  bool in_report_ = false;
};

} // namespace

WriteResult watch_write(const std::function<int32_t()> &write) {
  WriteResult w;
  {
    ReportSink sink(w);
    w.rc = write();
  }
  return w;
}

int report_write(const WriteResult &w, const std::string &what, lks_status *status) {
  int code = kOk;
  if (w.rc != PRSR_SUCCESS)
    code = report(w.rc, what, status);
  else if (w.reports > 0) {
    std::cerr << "prsrctl: " << what << ": partly written in " << registry_location()
              << ": the library went on past keys it could not write\n";
    code = kPartlyWritten;
  }
  for (const FailedWrite &f : w.failed)
    std::cerr << "prsrctl: not written: " << f.key << ": "
              << (f.message.empty() ? "(no message from the registry)" : f.message) << " (" << f.api
              << " failed with " << f.code << ")\n";
  if (w.reports > static_cast<int>(w.failed.size()))
    std::cerr << "prsrctl: not written: " << w.reports - static_cast<int>(w.failed.size())
              << " more key(s) whose report could not be kept\n";
  return code;
}

} // namespace prsrctl
