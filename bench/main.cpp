/* Runs the benchmarks and, for every pair named "<what>:prsr" and
 * "<what>:raw", prints how the library's time compares with the raw
 * registry work it stands for. */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run> &runs) override {
    /* With repetitions, the median stands for the benchmark. */
    for (const Run &r : runs) {
      if (r.error_occurred)
        continue;
      std::string name = r.run_name.str();
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
        times_[name] = r.GetAdjustedCPUTime();
        medians_.insert(name);
      } else if (r.run_type == Run::RT_Iteration && !medians_.count(name)) {
        times_[name] = r.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    bool header = false;
    for (auto &[name, t] : times_) {
      auto pos = name.find(":prsr");
      if (pos == std::string::npos)
        continue;
      std::string raw = name.substr(0, pos) + ":raw" + name.substr(pos + 5);
      auto it = times_.find(raw);
      if (it == times_.end() || it->second <= 0)
        continue;
      if (!header) {
        std::printf("\n%-50s %12s %12s %8s\n", "library against raw registry work", "prsr",
                    "raw", "ratio");
        header = true;
      }
      std::printf("%-50s %12.0f %12.0f %7.2fx\n", name.substr(0, pos).c_str(), t, it->second,
                  t / it->second);
    }
  }

private:
  std::map<std::string, double> times_;
  std::set<std::string> medians_;
};

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
