/* Growth with the size of the registry: a point read and a whole-record
 * fetch on registries of 100, 1,000 and 10,000 databases, the reads spread
 * over every database, the registry client's cache warm; and what one
 * cached key takes in memory, as the cache counts it and as the heap
 * grew. */
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "prsr.h"

namespace {

/* n databases of two instances and one service on both: 27 keys each. */
struct Grown {
  prsrbench::Registry reg;
  prsr_ctx *ctx = nullptr;
  lks_status st{};
  std::vector<std::string> names;
  double bytes_per_key = 0; /* as the cache counts it */
  double heap_per_key = 0;  /* heap growth while it filled, per key */

  explicit Grown(int n) : reg("growth" + std::to_string(n)) {
    reg.begin();
    reg.key("DATABASE");
    reg.key("DATABASE.DATABASES");
    for (int i = 0; i < n; ++i) {
      std::string name = "Db" + std::to_string(100000 + i);
      std::string db = "DATABASE.DATABASES.db" + std::to_string(100000 + i);
      names.push_back(name);
      reg.text(db, name);
      for (const char *k : {"ENABLED", "ROLE", "DOMAIN", "TERVAN_HOME", "BOOTCFG", "DB_NAME",
                            "START_OPTIONS", "POLICY"})
        reg.text(db + "." + k, std::string(k) == "ENABLED" ? "true" : "/some/value");
      reg.key(db + ".INSTANCE");
      for (int j = 1; j <= 2; ++j) {
        std::string inst = db + ".INSTANCE.i" + std::to_string(j);
        reg.text(inst, "I" + std::to_string(j));
        reg.text(inst + ".NODE", "node" + std::to_string(j));
        reg.text(inst + ".ENABLED", "true");
      }
      reg.key(db + ".SERVICE");
      std::string svc = db + ".SERVICE.s1";
      reg.text(svc, "S1");
      reg.text(svc + ".ENABLED", "true");
      reg.text(svc + ".FOVPOLICY", "BASIC");
      reg.key(svc + ".INSTANCES");
      for (int j = 1; j <= 2; ++j) {
        std::string si = svc + ".INSTANCES.i" + std::to_string(j);
        reg.text(si, "I" + std::to_string(j));
        reg.text(si + ".TYPE", "PREFERRED");
        reg.text(si + ".ENABLED", "true");
      }
    }
    reg.commit();
    /* Room for every key: growth here is about the registry's size, not
     * about the bound (HVS_CACHE_MB, 64 by default). */
    prsrbench::with_env("HVS_CACHE_MB", "1024", [&] { return prsr_init(&st, &ctx); });
    /* Warm: every database fetched once, which reads every key. */
    size_t heap_before = mallinfo2().uordblks;
    for (const auto &name : names) {
      prsr_cfg *cfg = nullptr;
      if (prsr_fetch_db_config(&st, ctx, name.c_str(), &cfg) == PRSR_SUCCESS)
        prsr_release_db_config(&st, ctx, cfg);
    }
    size_t heap_after = mallinfo2().uordblks;
    hvsadm_cache_info info{};
    if (hvsadm_cache_stats(ctx->hvs_handle, &info) == HVS_OK && info.entries > 0) {
      bytes_per_key = double(info.bytes) / double(info.entries);
      heap_per_key = double(heap_after - heap_before) / double(info.entries);
    }
  }
  ~Grown() { prsr_terminate(&st, ctx); }
};

Grown &grown(int n) {
  static std::map<int, std::unique_ptr<Grown>> all;
  auto &g = all[n];
  if (!g)
    g = std::make_unique<Grown>(n);
  return *g;
}

void report_memory(benchmark::State &state, const Grown &g) {
  state.counters["cache_B_per_key"] = g.bytes_per_key;
  state.counters["heap_B_per_key"] = g.heap_per_key;
}

void growth_point(benchmark::State &state) {
  Grown &g = grown(int(state.range(0)));
  size_t i = 0;
  uint32_t flag = 0;
  for (auto _ : state) {
    const std::string &name = g.names[i++ % g.names.size()];
    if (prsr_get_db_enabled(&g.st, g.ctx, name.c_str(), &flag) != PRSR_SUCCESS) {
      state.SkipWithError("prsr_get_db_enabled failed");
      break;
    }
    benchmark::DoNotOptimize(flag);
  }
  report_memory(state, g);
}

void growth_fetch(benchmark::State &state) {
  Grown &g = grown(int(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    const std::string &name = g.names[i++ % g.names.size()];
    prsr_cfg *cfg = nullptr;
    if (prsr_fetch_db_config(&g.st, g.ctx, name.c_str(), &cfg) != PRSR_SUCCESS) {
      state.SkipWithError("prsr_fetch_db_config failed");
      break;
    }
    prsr_release_db_config(&g.st, g.ctx, cfg);
  }
  report_memory(state, g);
}

} // namespace

BENCHMARK(growth_point)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(growth_fetch)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

namespace {
[[maybe_unused]] const bool kCompared =
    prsrbench::compare("SQLite point read, cached: 1,000 / 100 databases", "growth_point/1000",
                       "growth_point/100", 1.5) &&
    prsrbench::compare("SQLite point read, cached: 10,000 / 100 databases", "growth_point/10000",
                       "growth_point/100", 1.5) &&
    prsrbench::compare("SQLite fetch, cached: 1,000 / 100 databases", "growth_fetch/1000",
                       "growth_fetch/100", 1.5) &&
    prsrbench::compare("SQLite fetch, cached: 10,000 / 100 databases", "growth_fetch/10000",
                       "growth_fetch/100", 1.5);
} // namespace
