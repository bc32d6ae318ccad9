/* Runs the benchmarks and prints, for every pair named "<what>:prsr" and
 * "<what>:raw", how the library's time compares with the raw registry work
 * it stands for; then every comparison the benchmark files declared
 * (bench_support.h), against its bound. */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "bench_support.h"

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
        times_[name] = {r.GetAdjustedCPUTime(), r.GetAdjustedRealTime()};
        medians_.insert(name);
      } else if (r.run_type == Run::RT_Iteration && !medians_.count(name)) {
        times_[name] = {r.GetAdjustedCPUTime(), r.GetAdjustedRealTime()};
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
      if (it == times_.end() || it->second.cpu <= 0)
        continue;
      if (!header) {
        std::printf("\n%-50s %12s %12s %8s\n", "library against raw registry work (cpu)", "prsr",
                    "raw", "ratio");
        header = true;
      }
      std::printf("%-50s %12.0f %12.0f %7.2fx\n", name.substr(0, pos).c_str(), t.cpu,
                  it->second.cpu, t.cpu / it->second.cpu);
    }
    header = false;
    for (const auto &c : prsrbench::comparisons()) {
      auto num = times_.find(c.num), den = times_.find(c.den);
      if (num == times_.end() || den == times_.end())
        continue; /* filtered out or skipped */
      double a = c.real_time ? num->second.real : num->second.cpu;
      double b = c.real_time ? den->second.real : den->second.cpu;
      if (b <= 0)
        continue;
      if (!header) {
        std::printf("\n%-62s %10s %10s %8s %8s\n", "comparison", "time", "against", "ratio",
                    "bound");
        header = true;
      }
      double ratio = a / b;
      std::printf("%-62s %10.0f %10.0f %7.2fx", c.label.c_str(), a, b, ratio);
      if (c.most > 0)
        std::printf(" %7.2fx %s", c.most, ratio <= c.most ? "ok" : "OVER");
      std::printf("%s\n", c.real_time ? "  (real time)" : "");
    }
  }

private:
  struct Times {
    double cpu = 0, real = 0;
  };
  std::map<std::string, Times> times_;
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
