// lock_engine.cpp - choosing the lock store from the registry location.
#include "lock_engine.h"

#include "file_lock_engine.h"
#ifdef HVS_WITH_ZOOKEEPER
#include "zk_lock_engine.h"
#endif
#include "hvs_location.h"
#include "lks.h"

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unistd.h>

namespace lks {

namespace {

// Locks for a registry that no other process writes (file:, a saved copy):
// held in this process only, so nothing is locked or written anywhere else.
// Shared and exclusive holds exclude each other across the handles and
// threads of the process as they would across processes, and a waiting
// writer goes before the readers that come after it.
class InProcessLockEngine final : public LockEngine {
public:
  explicit InProcessLockEngine(std::string scope) : scope_(std::move(scope)) {}

  Outcome acquire(const std::string &name, Mode mode, std::chrono::milliseconds timeout,
                  Token *token) override {
    auto hold = std::make_unique<Hold>(Hold{scope_ + '\n' + name, mode});
    Table &t = table();
    std::unique_lock lock(t.mu);
    State &s = t.names[hold->key];
    auto free = [&] {
      return mode == Mode::Shared ? !s.writer && s.writers_waiting == 0
                                  : !s.writer && s.readers == 0;
    };
    ++s.waiting;
    if (mode == Mode::Exclusive)
      ++s.writers_waiting;
    bool got = t.changed.wait_for(lock, timeout, free);
    --s.waiting;
    if (mode == Mode::Exclusive)
      --s.writers_waiting;
    if (!got) {
      if (s.unused())
        t.names.erase(hold->key);
      t.changed.notify_all(); // readers held back by this writer may go
      return {LKS_ERR_TIMEOUT, 0,
              "lock " + name + " not granted within " + std::to_string(timeout.count()) +
                  " ms: another holder in this process keeps it"};
    }
    if (mode == Mode::Exclusive)
      s.writer = true;
    else
      ++s.readers;
    *token = reinterpret_cast<Token>(hold.release());
    return Outcome::ok();
  }

  Outcome release(Token token) override {
    std::unique_ptr<Hold> hold(reinterpret_cast<Hold *>(token));
    Table &t = table();
    {
      std::lock_guard lock(t.mu);
      auto it = t.names.find(hold->key);
      if (it != t.names.end()) {
        if (hold->mode == Mode::Exclusive)
          it->second.writer = false;
        else
          --it->second.readers;
        if (it->second.unused())
          t.names.erase(it);
      }
    }
    t.changed.notify_all();
    return Outcome::ok();
  }

private:
  struct Hold {
    std::string key;
    Mode mode;
  };
  struct State {
    int readers = 0;
    bool writer = false;
    int writers_waiting = 0;
    int waiting = 0; // writers included: each keeps a reference to this
    bool unused() const { return !writer && readers == 0 && waiting == 0; }
  };
  struct Table {
    std::mutex mu;
    std::condition_variable changed;
    std::map<std::string, State> names;
  };
  static Table &table() {
    static auto *t = new Table; // outlives every handle, even at exit
    return *t;
  }

  std::string scope_;
};

bool plain_component(const std::string &s) {
  if (s.empty() || s == "." || s == ".." || s.size() > 64)
    return false;
  for (char c : s)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == '.' || c == '_' || c == '-'))
      return false;
  return true;
}

std::string temp_dir() {
  const char *t = std::getenv("TMPDIR");
  std::string d = (t != nullptr && *t == '/') ? t : "/tmp";
  while (d.size() > 1 && d.back() == '/')
    d.pop_back();
  return d;
}

} // namespace

std::unique_ptr<LockEngine> make_engine(Outcome *why) {
  hvs::Location loc = hvs::resolve_location();
  switch (loc.engine) {
  case hvs::Engine::Sqlite:
    // Beside the registry file, so every process of a cluster that shares
    // the file shares the locks.
    return std::make_unique<FileLockEngine>(loc.path + ".locks", loc.path);
  case hvs::Engine::Memory: {
    // An in-memory registry is private to a process, but tests fork and
    // expect the locks to reach across; they live in a per-user directory.
    std::string name =
        plain_component(loc.path) ? loc.path : FileLockEngine::file_name(loc.path);
    return std::make_unique<FileLockEngine>(
        temp_dir() + "/hvs-mem-locks-" + std::to_string(::getuid()) + "/" + name, "");
  }
  case hvs::Engine::ZooKeeper: {
#ifdef HVS_WITH_ZOOKEEPER
    // On the ensemble that holds the registry, beside it under its root.
    auto engine = std::make_unique<ZkLockEngine>(loc);
    Outcome o = engine->connect();
    if (o.code == 0)
      return engine;
    *why = o;
#else
    why->code = LKS_ERR_SYSTEM;
    why->message = "registry location " + loc.text + ": this build has no ZooKeeper locks";
#endif
    return nullptr;
  }
  case hvs::Engine::File:
    return std::make_unique<InProcessLockEngine>(loc.text);
  case hvs::Engine::Invalid:
    break;
  }
  why->code = LKS_ERR_SYSTEM;
  why->message = "registry location " + loc.text + ": " + loc.error;
  return nullptr;
}

} // namespace lks
