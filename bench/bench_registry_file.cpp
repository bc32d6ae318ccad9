/* Reading a registry file as import, restore, check and diff do: the
 * cost per key must stay flat from a thousand keys to a hundred thousand
 * (a file of 100,000 keys reads in well under a second). The per-key time
 * is the "s_per_key" counter (in ns as printed); compare it across the three sizes. */
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "hvs/registry_file.h"

namespace {

std::string registry_text(int databases) {
  std::string text = "{\"format\": \"hvs-registry\", \"version\": 1, \"keys\": [\n";
  text += hvs::key_line("DATABASE", false, {}) + ",\n";
  text += hvs::key_line("DATABASE.DATABASES", false, {});
  for (int d = 0; d < databases; ++d) {
    const std::string db = "DATABASE.DATABASES.db" + std::to_string(d);
    for (const auto &[k, v] : std::vector<std::pair<std::string, std::string>>{
             {"", "Db"}, {".ENABLED", "true"}, {".ROLE", "PRIMARY"}, {".DOMAIN", "example.com"},
             {".POLICY", "AUTOMATIC"}, {".DB_NAME", "db"}, {".TERVAN_HOME", "/opt/tervan"},
             {".BOOTCFG", "/etc/db.cfg"}, {".START_OPTIONS", "open"}, {".INSTANCE", ""}}) {
      std::string value = v.empty() ? std::string() : v + std::string(1, '\0');
      text += ",\n" + hvs::key_line(db + k, !v.empty(), value);
    }
  }
  return text + "\n]}\n";
}

void BM_ReadRegistryFile(benchmark::State &state) {
  const int databases = int(state.range(0)) / 10;
  const std::string text = registry_text(databases);
  std::vector<hvs::FileKey> keys;
  std::string error;
  for (auto _ : state) {
    if (!hvs::parse_registry_file("bench.json", text, keys, error))
      state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(keys.data());
  }
  state.counters["keys"] = double(keys.size());
  // Seconds per key, shown in ns by the reporter's own scaling.
  state.counters["s_per_key"] = benchmark::Counter(
      double(keys.size()), benchmark::Counter::kIsIterationInvariantRate |
                               benchmark::Counter::kInvert);
}
BENCHMARK(BM_ReadRegistryFile)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace
