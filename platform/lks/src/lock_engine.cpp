// lock_engine.cpp - choosing the lock store from the registry location.
#include "lock_engine.h"

#include "file_lock_engine.h"
#ifdef HVS_WITH_ZOOKEEPER
#include "zk_lock_engine.h"
#endif
#include "hvs_location.h"
#include "lks.h"

#include <cstdlib>
#include <unistd.h>

namespace lks {

namespace {

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
  case hvs::Engine::Invalid:
    break;
  }
  why->code = LKS_ERR_SYSTEM;
  why->message = "registry location " + loc.text + ": " + loc.error;
  return nullptr;
}

} // namespace lks
