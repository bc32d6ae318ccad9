/* The same calls on the two registry engines side by side: a point read
 * (prsr_get_db_enabled: one key, no lock) and a whole record
 * (prsr_fetch_db_config: a shared lock and some thirty keys), with the
 * registry client's cache warm (the default) and without it
 * (HVS_CACHE=off), beside a bare lock and unlock of the record's lock. The
 * ZooKeeper side runs on the ensemble HVS_TEST_ZK names (scripts/zk.sh
 * start) and is skipped without it. */
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "bench_support.h"
#include "hvsadm.h"
#include "lks.h"
#include "prsr.h"

namespace {

/* A registry with one database of three instances and two services, and a
 * session on it. */
class Cluster {
public:
  explicit Cluster(const std::string &location) : location_(location) {
    setenv("HVS_REGISTRY", location.c_str(), 1);
    char msg[1024] = "";
    uint64_t len = sizeof msg;
    if (hvsadm_open(&adm_, 1, msg, &len) != 0)
      throw std::runtime_error(msg);
    hvsadm_begin(adm_);
    key("DATABASE");
    key("DATABASE.DATABASES");
    const std::string db = "DATABASE.DATABASES.sales";
    text(db, "Sales");
    for (const char *k : {"ENABLED=true", "ROLE=PRIMARY", "DOMAIN=example.com",
                          "TERVAN_HOME=/opt/tervan", "BOOTCFG=/etc/sales.cfg", "DB_NAME=sales",
                          "START_OPTIONS=open", "POLICY=AUTOMATIC"}) {
      std::string kv = k;
      auto eq = kv.find('=');
      text(db + "." + kv.substr(0, eq), kv.substr(eq + 1));
    }
    key(db + ".INSTANCE");
    for (int i = 1; i <= 3; ++i) {
      std::string inst = db + ".INSTANCE.sales" + std::to_string(i);
      text(inst, "Sales" + std::to_string(i));
      text(inst + ".NODE", "node" + std::to_string(i));
      text(inst + ".ENABLED", "true");
    }
    key(db + ".SERVICE");
    for (const char *srv : {"oltp", "batch"}) {
      std::string s = db + ".SERVICE." + srv;
      text(s, srv);
      text(s + ".ENABLED", "true");
      text(s + ".FOVPOLICY", "BASIC");
      key(s + ".INSTANCES");
      for (int i = 1; i <= 3; ++i) {
        std::string si = s + ".INSTANCES.sales" + std::to_string(i);
        text(si, "Sales" + std::to_string(i));
        text(si + ".TYPE", i == 3 ? "AVAILABLE" : "PREFERRED");
        text(si + ".ENABLED", "true");
      }
    }
    if (hvsadm_commit(adm_) != 0)
      throw std::runtime_error("cannot fill the registry at " + location);
    if (prsr_init(&st_, &ctx_) != PRSR_SUCCESS ||
        prsrbench::with_env("HVS_CACHE", "off", [&] { return prsr_init(&st_, &uncached_); }) !=
            PRSR_SUCCESS)
      throw std::runtime_error("prsr_init failed on " + location);
  }
  ~Cluster() {
    prsr_terminate(&st_, uncached_);
    prsr_terminate(&st_, ctx_);
    hvsadm_delete_key(adm_, "", 1);
    hvsapi_terminate(adm_);
  }
  prsr_ctx *ctx(bool cached = true) { return cached ? ctx_ : uncached_; }
  lks_status *status() { return &st_; }

private:
  void key(const std::string &name) { hvsadm_create_key(adm_, name.c_str(), 0, nullptr, 0); }
  void text(const std::string &name, const std::string &value) {
    hvsadm_create_key(adm_, name.c_str(), 1, value.c_str(), uint32_t(value.size() + 1));
  }
  std::string location_;
  void *adm_ = nullptr;
  prsr_ctx *ctx_ = nullptr;
  prsr_ctx *uncached_ = nullptr;
  lks_status st_{};
};

enum class Engine { Sqlite, ZooKeeper };

/* One cluster per engine for the whole run; nullptr with why set when the
 * engine is not available. */
Cluster *cluster(Engine e, std::string &why) {
  static std::unique_ptr<Cluster> sqlite, zk;
  static std::string dir;
  try {
    if (e == Engine::Sqlite) {
      if (!sqlite) {
        std::string tmpl = "/tmp/prsr-bench-backends-XXXXXX";
        dir = mkdtemp(tmpl.data());
        sqlite = std::make_unique<Cluster>("sqlite:" + dir + "/reg.db");
      }
      return sqlite.get();
    }
    const char *hosts = std::getenv("HVS_TEST_ZK");
    if (hosts == nullptr || *hosts == '\0') {
      why = "HVS_TEST_ZK is not set (scripts/zk.sh start)";
      return nullptr;
    }
    if (!zk)
      zk = std::make_unique<Cluster>(std::string("zk://") + hosts + "/prsr-bench/" +
                                     std::to_string(getpid()));
    return zk.get();
  } catch (const std::exception &ex) {
    why = ex.what();
    return nullptr;
  }
}

void get_db_enabled(benchmark::State &state, Engine e, bool cached) {
  std::string why;
  Cluster *c = cluster(e, why);
  if (c == nullptr) {
    state.SkipWithError(why.c_str());
    return;
  }
  uint32_t flag = 0;
  for (auto _ : state) {
    if (prsr_get_db_enabled(c->status(), c->ctx(cached), "Sales", &flag) != PRSR_SUCCESS) {
      state.SkipWithError("prsr_get_db_enabled failed");
      break;
    }
    benchmark::DoNotOptimize(flag);
  }
}

void fetch_db_config(benchmark::State &state, Engine e, bool cached) {
  std::string why;
  Cluster *c = cluster(e, why);
  if (c == nullptr) {
    state.SkipWithError(why.c_str());
    return;
  }
  hvsadm_cache_info before{}, after{};
  hvsadm_cache_stats(c->ctx(cached)->hvs_handle, &before);
  for (auto _ : state) {
    prsr_cfg *cfg = nullptr;
    if (prsr_fetch_db_config(c->status(), c->ctx(cached), "Sales", &cfg) != PRSR_SUCCESS) {
      state.SkipWithError("prsr_fetch_db_config failed");
      break;
    }
    prsr_release_db_config(c->status(), c->ctx(cached), cfg);
  }
  if (cached && hvsadm_cache_stats(c->ctx(cached)->hvs_handle, &after) == HVS_OK) {
    double n = double(state.iterations());
    state.counters["hits"] = double(after.hits - before.hits) / n;
    state.counters["misses"] = double(after.misses - before.misses) / n;
  }
}

/* The shared lock a fetch takes, and its release, with nothing read. */
void lock_unlock(benchmark::State &state, Engine e) {
  std::string why;
  Cluster *c = cluster(e, why);
  if (c == nullptr) {
    state.SkipWithError(why.c_str());
    return;
  }
  const char *name = "FLTM.DATABASE.DATABASES.sales";
  for (auto _ : state) {
    if (lksshrlock(c->status(), c->ctx()->lock_handle, name) != LKS_OK ||
        lksunlock(c->status(), c->ctx()->lock_handle, name) != LKS_OK) {
      state.SkipWithError("lock or unlock failed");
      break;
    }
  }
}

} // namespace

BENCHMARK_CAPTURE(get_db_enabled, sqlite, Engine::Sqlite, true)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(get_db_enabled, zookeeper, Engine::ZooKeeper, true)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(get_db_enabled, sqlite_cache_off, Engine::Sqlite, false)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(get_db_enabled, zookeeper_cache_off, Engine::ZooKeeper, false)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(fetch_db_config, sqlite, Engine::Sqlite, true)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(fetch_db_config, zookeeper, Engine::ZooKeeper, true)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(fetch_db_config, sqlite_cache_off, Engine::Sqlite, false)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(fetch_db_config, zookeeper_cache_off, Engine::ZooKeeper, false)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(lock_unlock, sqlite, Engine::Sqlite)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(lock_unlock, zookeeper, Engine::ZooKeeper)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

namespace {
[[maybe_unused]] const bool kCompared =
    prsrbench::compare("ZooKeeper point read, cached / SQLite point read, cached",
                       "get_db_enabled/zookeeper/real_time", "get_db_enabled/sqlite", 2.0, true) &&
    prsrbench::compare("ZooKeeper fetch, cached / ZooKeeper shared lock+unlock",
                       "fetch_db_config/zookeeper/real_time", "lock_unlock/zookeeper/real_time",
                       1.5, true) &&
    prsrbench::compare("SQLite fetch, cached / SQLite shared lock+unlock", "fetch_db_config/sqlite",
                       "lock_unlock/sqlite", 0) &&
    prsrbench::compare("ZooKeeper point read, HVS_CACHE=off / cached",
                       "get_db_enabled/zookeeper_cache_off/real_time",
                       "get_db_enabled/zookeeper/real_time", 0, true) &&
    prsrbench::compare("ZooKeeper fetch, HVS_CACHE=off / cached",
                       "fetch_db_config/zookeeper_cache_off/real_time",
                       "fetch_db_config/zookeeper/real_time", 0, true);
} // namespace
