// holds.cpp - which thread holds which lock, for the writes made under it
// (see hvs/holds.h).
#include "hvs/holds.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "holds_table.h"

namespace hvs::holds {
namespace {

std::mutex g_mu;
std::vector<std::shared_ptr<Hold>> g_holds; // guarded by g_mu

std::atomic<uint64_t> g_marks{0};
thread_local uint64_t t_mark = 0;

bool covers(std::string_view prefix, std::string_view key) {
  return key == prefix || (key.size() > prefix.size() && key.starts_with(prefix) &&
                           key[prefix.size()] == '.');
}

} // namespace

uint64_t next_mark() noexcept { return g_marks.fetch_add(1, std::memory_order_acq_rel) + 1; }
uint64_t last_mark() noexcept { return g_marks.load(std::memory_order_acquire); }
uint64_t thread_mark() noexcept { return t_mark; }

bool covered_key(std::string_view lock, std::string &out) {
  constexpr std::string_view kBranch = "FLTM.";
  constexpr std::string_view kVlm = "FLTM.VLM.";
  if (lock.starts_with(kVlm))
    lock.remove_prefix(kVlm.size());
  else if (lock.starts_with(kBranch))
    lock.remove_prefix(kBranch.size());
  else
    return false;
  if (lock.empty() || key_name_problem(lock) != nullptr)
    return false;
  out.assign(lock);
  return true;
}

std::shared_ptr<Hold> covering(std::string_view key) {
  const auto me = std::this_thread::get_id();
  std::lock_guard lock(g_mu);
  std::shared_ptr<Hold> best;
  for (const auto &h : g_holds)
    if (h->owner == me && covers(h->prefix, key) && (!best || !best->exclusive))
      best = h;
  return best;
}

bool defer(const std::shared_ptr<Hold> &hold, std::function<Status()> fn) {
  std::lock_guard lock(g_mu);
  if (hold->ended)
    return false;
  hold->on_leave.push_back(std::move(fn));
  return true;
}

} // namespace hvs::holds

using hvs::holds::Hold;

extern "C" {

__attribute__((visibility("default"))) hvs_hold *
hvs_hold_enter(const char *lock_name, int exclusive, const char *fence) {
  if (lock_name == nullptr)
    return nullptr;
  // Whatever the lock covers, what this thread reads from now on must not
  // come before the writes made under it by its last holder (cache.cpp).
  hvs::holds::t_mark = hvs::holds::next_mark();
  try {
    auto hold = std::make_shared<Hold>();
    hold->lock = lock_name;
    if (!hvs::holds::covered_key(hold->lock, hold->prefix))
      return nullptr; // covers no key: nothing to tie to it
    hold->exclusive = exclusive != 0;
    hold->fence = fence ? fence : "";
    hold->owner = std::this_thread::get_id();
    auto *ref = new std::shared_ptr<Hold>(hold);
    std::lock_guard lock(hvs::holds::g_mu);
    hvs::holds::g_holds.push_back(std::move(hold));
    return reinterpret_cast<hvs_hold *>(ref);
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

__attribute__((visibility("default"))) int32_t
hvs_hold_leave(hvs_hold *handle, char *msg, size_t cap) {
  if (msg != nullptr && cap > 0)
    msg[0] = '\0';
  if (handle == nullptr)
    return 0;
  std::unique_ptr<std::shared_ptr<Hold>> ref(reinterpret_cast<std::shared_ptr<Hold> *>(handle));
  std::shared_ptr<Hold> hold = *ref;
  std::vector<std::function<hvs::Status()>> todo;
  {
    std::lock_guard lock(hvs::holds::g_mu);
    std::erase(hvs::holds::g_holds, hold);
    todo.swap(hold->on_leave);
    hold->ended = true;
  }
  int32_t first = 0;
  for (auto &fn : todo) {
    hvs::Status st = fn();
    if (!st.ok() && first == 0) {
      first = st.code;
      if (msg != nullptr && cap > 0) {
        std::size_t n = std::min(st.message.size(), cap - 1);
        std::memcpy(msg, st.message.data(), n);
        msg[n] = '\0';
      }
    }
  }
  return first;
}

__attribute__((visibility("default"))) void hvs_hold_lost(hvs_hold *handle) {
  if (handle != nullptr)
    (*reinterpret_cast<std::shared_ptr<Hold> *>(handle))->lost = true;
}

} // extern "C"
