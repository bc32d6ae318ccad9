/* The whole-record fetch and the database listing: the library (with the
 * registry client's cache, and without) beside raw SQLite reads of the
 * same keys, and their growth with the number of entries. */
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "hvsapi.h"
#include "prsr.h"

namespace {

/* A registry with a session, one without cache, and a raw SQLite
 * connection on it. */
struct Fixture {
  prsrbench::Registry reg;
  prsr_ctx *ctx = nullptr;
  prsr_ctx *uncached = nullptr;
  lks_status st{};
  sqlite3 *raw = nullptr;
  sqlite3_stmt *read = nullptr;
  std::vector<std::string> read_keys; /* every key whose value a fetch reads */

  explicit Fixture(const std::string &tag) : reg(tag) {}
  void open() {
    prsr_init(&st, &ctx);
    prsrbench::with_env("HVS_CACHE", "off", [&] { return prsr_init(&st, &uncached); });
    sqlite3_open_v2(reg.path().c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_prepare_v2(raw, "SELECT value FROM hvs_key WHERE path = ?1", -1, &read, nullptr);
  }
  ~Fixture() {
    sqlite3_finalize(read);
    sqlite3_close(raw);
    if (uncached)
      prsr_terminate(&st, uncached);
    if (ctx)
      prsr_terminate(&st, ctx);
  }
  void text(const std::string &k, const std::string &v) {
    reg.text(k, v);
    read_keys.push_back(k);
  }
  void multi(const std::string &k, const std::vector<std::string> &vs) {
    std::string bytes;
    for (auto &s : vs)
      bytes += s + '\0';
    bytes += '\0';
    hvsadm_create_key(reg.handle(), k.c_str(), 1, bytes.data(),
                      static_cast<uint32_t>(bytes.size()));
    read_keys.push_back(k);
  }

  /* Database "Sales" with `instances` instances and `services` services,
   * each service running on `per_service` of the instances. */
  void database(int instances, int services, int per_service) {
    reg.begin();
    reg.key("DATABASE");
    reg.key("DATABASE.DATABASES");
    const std::string db = "DATABASE.DATABASES.sales";
    text(db, "Sales");
    reg.key(db + ".DB_CLU_ALIAS");
    text(db + ".DB_CLU_ALIAS.IP", "10.0.0.5");
    for (const char *k : {"TERVAN_HOME", "BOOTCFG", "DB_NAME", "ROLE", "START_OPTIONS", "POLICY",
                          "DOMAIN", "ENABLED"})
      text(db + "." + k, std::string(k) == "ENABLED" ? "true" : "/some/value");
    multi(db + ".ENVIRONMENT", {"TZ=UTC", "LANG=C"});
    reg.key(db + ".INSTANCE");
    for (int i = 0; i < instances; ++i) {
      std::string comp = "sales" + std::to_string(i);
      std::string k = db + ".INSTANCE." + comp;
      text(k, "Sales" + std::to_string(i));
      text(k + ".NODE", "node" + std::to_string(i));
      text(k + ".ENABLED", "true");
      multi(k + ".ENVIRONMENT", {"A=1"});
    }
    reg.key(db + ".SERVICE");
    for (int s = 0; s < services; ++s) {
      std::string k = db + ".SERVICE.svc" + std::to_string(s);
      text(k, "Svc" + std::to_string(s));
      reg.key(k + ".INSTANCES");
      for (int j = 0; j < per_service; ++j) {
        std::string comp = "sales" + std::to_string(j % (instances ? instances : 1));
        text(k + ".INSTANCES." + comp, "Sales" + std::to_string(j % (instances ? instances : 1)));
        text(k + ".INSTANCES." + comp + ".TYPE", j % 2 ? "AVAILABLE" : "PREFERRED");
        text(k + ".INSTANCES." + comp + ".ENABLED", "true");
      }
      text(k + ".FOVPOLICY", "BASIC");
      text(k + ".ENABLED", "true");
      multi(k + ".ENVIRONMENT", {"S=1"});
    }
    reg.commit();
    open();
  }

  void databases(int n) {
    reg.begin();
    reg.key("DATABASE");
    reg.key("DATABASE.DATABASES");
    for (int i = 0; i < n; ++i)
      text("DATABASE.DATABASES.db" + std::to_string(100000 + i), "Db" + std::to_string(100000 + i));
    reg.commit();
    open();
  }
};

/* Fixtures live for the whole run: building them is not what is measured. */
Fixture &fetch_fixture(int instances, int services, int per_service) {
  static std::map<std::string, std::unique_ptr<Fixture>> all;
  std::string tag = std::to_string(instances) + "i" + std::to_string(services) + "s";
  auto &f = all[tag];
  if (!f) {
    f = std::make_unique<Fixture>("fetch" + tag);
    f->database(instances, services, per_service);
  }
  return *f;
}

Fixture &list_fixture(int n) {
  static std::map<int, std::unique_ptr<Fixture>> all;
  auto &f = all[n];
  if (!f) {
    f = std::make_unique<Fixture>("list" + std::to_string(n));
    f->databases(n);
  }
  return *f;
}

void fetch(benchmark::State &state, Fixture &f, bool cached = true) {
  for (auto _ : state) {
    prsr_cfg *cfg = nullptr;
    if (prsr_fetch_db_config(&f.st, cached ? f.ctx : f.uncached, "Sales", &cfg) != PRSR_SUCCESS) {
      state.SkipWithError("prsr_fetch_db_config failed");
      break;
    }
    benchmark::DoNotOptimize(cfg);
    prsr_release_db_config(&f.st, f.ctx, cfg);
  }
}

/* The same values read straight from SQLite: one prepared lookup per key,
 * as the registry client makes them, nothing kept. */
void raw_reads(benchmark::State &state, Fixture &f) {
  std::vector<char> buf(1 << 16);
  for (auto _ : state) {
    for (const std::string &k : f.read_keys) {
      sqlite3_bind_blob(f.read, 1, k.data(), int(k.size()), SQLITE_STATIC);
      if (sqlite3_step(f.read) != SQLITE_ROW) {
        state.SkipWithError("raw lookup failed");
        return;
      }
      int n = sqlite3_column_bytes(f.read, 0);
      std::memcpy(buf.data(), sqlite3_column_blob(f.read, 0), size_t(n));
      benchmark::DoNotOptimize(buf.data());
      sqlite3_reset(f.read);
    }
  }
}

void fetch_typical_prsr(benchmark::State &state) { fetch(state, fetch_fixture(8, 4, 4)); }
void fetch_typical_raw(benchmark::State &state) { raw_reads(state, fetch_fixture(8, 4, 4)); }
void fetch_typical_uncached(benchmark::State &state) {
  fetch(state, fetch_fixture(8, 4, 4), false);
}
BENCHMARK(fetch_typical_prsr)->Name("fetch_8_instances_4_services:prsr");
BENCHMARK(fetch_typical_raw)->Name("fetch_8_instances_4_services:raw");
BENCHMARK(fetch_typical_uncached)->Name("fetch_8_instances_4_services/cache_off");

[[maybe_unused]] const bool kCompared =
    prsrbench::compare("SQLite fetch 8 instances 4x4 services, cached / raw reads",
                       "fetch_8_instances_4_services:prsr", "fetch_8_instances_4_services:raw",
                       0.15) &&
    prsrbench::compare("SQLite fetch 8 instances 4x4 services, HVS_CACHE=off / raw reads",
                       "fetch_8_instances_4_services/cache_off",
                       "fetch_8_instances_4_services:raw", 1.6 /* 1.1x the 1.45x before */);

/* Growth: n services of one instance each, n instances, n databases. */
void fetch_services(benchmark::State &state) {
  int n = static_cast<int>(state.range(0));
  fetch(state, fetch_fixture(1, n, 1));
  state.SetItemsProcessed(state.iterations() * n);
}
void fetch_instances(benchmark::State &state) {
  int n = static_cast<int>(state.range(0));
  fetch(state, fetch_fixture(n, 0, 0));
  state.SetItemsProcessed(state.iterations() * n);
}
void list_db(benchmark::State &state) {
  int n = static_cast<int>(state.range(0));
  Fixture &f = list_fixture(n);
  for (auto _ : state) {
    char **list = nullptr;
    uint32_t count = 0;
    if (prsr_list_db(&f.st, f.ctx, &list, &count) != PRSR_SUCCESS ||
        count != static_cast<uint32_t>(n)) {
      state.SkipWithError("prsr_list_db failed");
      break;
    }
    prsr_release_db_list(&f.st, f.ctx, list, count);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(fetch_services)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(fetch_instances)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(list_db)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

} // namespace
