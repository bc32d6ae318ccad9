// Engine-independent parts: the default walk, engine choice (the key-name
// helpers are in key_names.cpp).
#include "hvs/backend.h"

#include <atomic>

namespace hvs {

namespace {

Status walk_from(Backend &b, const KeyData &key, std::vector<WalkEntry> &out) {
  if (!key.path.empty() || key.has_value)
    out.push_back(WalkEntry{key.path, key.has_value, key.type, key.value});
  std::vector<std::string> kids;
  Status st = b.children(key, kids);
  if (!st.ok())
    return st;
  for (const auto &kid : kids) {
    std::string child =
        key.path.empty() ? kid : key.path + "." + kid;
    KeyData data;
    st = b.open_key(child, data);
    if (st.code == HVS_ERR_NO_KEY)
      continue; // deleted by someone else meanwhile
    if (!st.ok())
      return st;
    data.path = child; // engines need not fill it
    st = walk_from(b, data, out);
    if (!st.ok())
      return st;
  }
  return {};
}

} // namespace

Status Backend::walk(std::string_view name, std::vector<WalkEntry> &out) {
  KeyData root;
  Status st = open_key(name, root);
  if (!st.ok())
    return st;
  root.path = std::string(name);
  return walk_from(*this, root, out);
}

std::unique_ptr<Backend> open_backend(const Location &loc, bool create,
                                      Status &st) {
  switch (loc.engine) {
  case Engine::Sqlite:
    return open_sqlite(loc, create, st);
  case Engine::Memory:
    return open_memory(loc, create, st);
  case Engine::ZooKeeper:
    return open_zookeeper(loc, create, st);
  case Engine::File:
    return open_file(loc, create, st);
  case Engine::Invalid:
    break;
  }
  st = Status::failure(HVS_ERR_UNREACHABLE,
                       loc.text + ": bad registry location: " + loc.error);
  return nullptr;
}

namespace {
std::atomic<bool> g_allow_foreign{false};
} // namespace

void allow_foreign_location(bool allow) noexcept { g_allow_foreign = allow; }
bool foreign_location_allowed() noexcept { return g_allow_foreign; }

Status missing_part(const Location &loc, std::string &part) {
  part.clear();
  switch (loc.engine) {
  case Engine::Sqlite:
    return sqlite_missing_part(loc, part);
  case Engine::ZooKeeper:
    return zookeeper_missing_part(loc, part);
  default:
    return {};
  }
}

Status remove_created(const Location &loc, const std::string &part) {
  if (part.empty())
    return {};
  switch (loc.engine) {
  case Engine::Sqlite:
    return sqlite_remove_created(loc, part);
  case Engine::ZooKeeper:
    return zookeeper_remove_created(loc, part);
  default:
    return {};
  }
}

} // namespace hvs

namespace hvs {

Status Backend::get_property(std::string_view name, std::string &out) {
  for (auto &[k, v] : properties_)
    if (k == name) {
      out = v;
      return {};
    }
  return Status::failure(HVS_ERR_NO_KEY, "registry property " + std::string(name) + " is not set");
}

Status Backend::set_property(std::string_view name, std::string_view value) {
  for (auto &[k, v] : properties_)
    if (k == name) {
      v.assign(value);
      return {};
    }
  properties_.emplace_back(std::string(name), std::string(value));
  return {};
}

Status Backend::set_value_fenced(const KeyData &key, uint32_t type, std::string_view bytes,
                                 std::string_view /*fence*/) {
  return set_value(key, type, bytes);
}

} // namespace hvs
