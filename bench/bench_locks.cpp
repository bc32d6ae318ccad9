/* The lock service under a mix of many readers and a few writers on one
 * name (file locks beside an SQLite registry): 16 reader threads that hold
 * the lock by turns, so that it is never free of readers, and 2 writers.
 * Reports how many writes were granted and refused (LKS_TIMEOUT_MS, here
 * 1 s) in about 3 s, and the longest wait of a granted writer. */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "lks.h"

namespace {

using Clock = std::chrono::steady_clock;

void *open_locks() {
  lks_status st{};
  void *h = nullptr;
  lks_version v{2, 1};
  lks_init_params p{};
  p.alloc = [](void *, uint64_t n) -> void * { return std::calloc(1, n); };
  p.release = [](void *, void *m) { std::free(m); };
  p.flags = 192;
  return lkssinit(&st, &h, &v, &p, 272) == 0 ? h : nullptr;
}

void lock_mix(benchmark::State &state) {
  prsrbench::Registry reg("locks");
  setenv("LKS_TIMEOUT_MS", "1000", 1);
  const char *name = "FLTM.DATABASE.DATABASES.sales";
  const auto run_for = std::chrono::seconds(3);
  for (auto _ : state) {
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0}, writes{0}, refused{0}, worst_us{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
      threads.emplace_back([&] {
        void *h = open_locks();
        lks_status st{};
        while (h != nullptr && !stop) {
          if (lksshrlock(&st, h, name) == 0) {
            ++reads;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            lksunlock(&st, h, name);
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        lkssterm(&st, h);
      });
    for (int i = 0; i < 2; ++i)
      threads.emplace_back([&] {
        void *h = open_locks();
        lks_status st{};
        while (h != nullptr && !stop) {
          auto t0 = Clock::now();
          if (lksmutexlock(&st, h, name) == 0) {
            long us =
                std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
            ++writes;
            long w = worst_us;
            while (us > w && !worst_us.compare_exchange_weak(w, us)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            lksunlock(&st, h, name);
          } else {
            ++refused;
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        lkssterm(&st, h);
      });
    std::this_thread::sleep_for(run_for);
    stop = true;
    for (auto &t : threads)
      t.join();
    state.counters["writes"] = double(writes);
    state.counters["refused"] = double(refused);
    state.counters["reads"] = double(reads);
    state.counters["worst_write_wait_ms"] = double(worst_us) / 1000.0;
  }
  unsetenv("LKS_TIMEOUT_MS");
}

} // namespace

BENCHMARK(lock_mix)
    ->Name("file_locks_16_readers_2_writers_3s")
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
