// Resolution and parsing of registry locations (see hvs_location.h).
#include "hvs_location.h"

#include <cstdlib>
#include <filesystem>
#include <string_view>

namespace hvs {
namespace {

constexpr std::string_view kSqlite = "sqlite:";
constexpr std::string_view kZooKeeper = "zk://";
constexpr std::string_view kMemory = "mem:";
constexpr std::string_view kFile = "file:";
constexpr const char *kDefaultZkRoot = "/hvs";

constexpr std::string_view kForms =
    "sqlite:PATH, a plain file path, zk://HOST:PORT[,HOST:PORT...]/ROOT, mem:NAME or "
    "file:PATH (a saved registry file, read-only)";

Location invalid(const std::string &text, std::string why) {
  if (why.find(kForms) == std::string::npos)
    why += " (the forms are " + std::string(kForms) + ")";
  Location loc;
  loc.engine = Engine::Invalid;
  loc.text = text;
  loc.error = std::move(why);
  return loc;
}

// True when text begins with something that looks like "scheme://".
bool has_unknown_scheme(std::string_view text) {
  auto colon = text.find("://");
  if (colon == std::string_view::npos || colon == 0)
    return false;
  for (size_t i = 0; i < colon; ++i) {
    char c = text[i];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
              (i > 0 && ((c >= '0' && c <= '9') || c == '+' || c == '-' ||
                         c == '.'));
    if (!ok)
      return false;
  }
  return true;
}

// Checks "host:port[,host:port...]"; returns an empty string when it is
// well formed, else the reason.
std::string check_hosts(std::string_view hosts) {
  if (hosts.empty())
    return "no host given";
  size_t start = 0;
  while (start <= hosts.size()) {
    size_t comma = hosts.find(',', start);
    std::string_view one = hosts.substr(
        start, comma == std::string_view::npos ? std::string_view::npos
                                               : comma - start);
    auto colon = one.rfind(':');
    if (one.empty())
      return "empty host in the list";
    if (colon == std::string_view::npos || colon == 0)
      return "host \"" + std::string(one) + "\" has no port";
    std::string_view port = one.substr(colon + 1);
    if (port.empty() || port.size() > 5)
      return "host \"" + std::string(one) + "\" has a bad port";
    unsigned value = 0;
    for (char c : port) {
      if (c < '0' || c > '9')
        return "host \"" + std::string(one) + "\" has a bad port";
      value = value * 10 + unsigned(c - '0');
    }
    if (value == 0 || value > 65535)
      return "host \"" + std::string(one) + "\" has a bad port";
    if (comma == std::string_view::npos)
      break;
    start = comma + 1;
  }
  return {};
}

// Why a file path cannot be meant as written, or "" when it can: a typo in
// a scheme ("zk:/h:p", "sqllite:x", "SQLITE:x") would otherwise become a
// relative file name, and "~" is not expanded here as a shell would.
std::string path_problem(std::string_view path) {
  if (path.empty())
    return "no file path";
  if (path.front() == ' ' || path.front() == '\t' || path.back() == ' ' ||
      path.back() == '\t')
    return "the path begins or ends with a blank";
  if (path.front() == '~')
    return "\"~\" is not expanded here: give the path from /";
  auto colon = path.find(':');
  auto slash = path.find('/');
  if (colon != std::string_view::npos && (slash == std::string_view::npos || colon < slash))
    return "\"" + std::string(path.substr(0, colon + 1)) + "\" is not a known scheme";
  return {};
}

// An SQLite path as messages show it: made absolute, "." and ".." resolved.
std::string shown_path(const std::string &path) {
  std::error_code ec;
  auto abs = std::filesystem::absolute(path, ec);
  return ec ? path : abs.lexically_normal().string();
}

} // namespace

Location parse_location(const std::string &text) {
  std::string_view t = text;
  Location loc;
  if (t.starts_with(kSqlite)) {
    loc.engine = Engine::Sqlite;
    loc.path = std::string(t.substr(kSqlite.size()));
    if (loc.path.empty())
      return invalid(text, "sqlite location without a file path");
    if (std::string why = path_problem(loc.path); !why.empty())
      return invalid(text, "registry location \"" + text + "\": " + why);
    loc.text = std::string(kSqlite) + shown_path(loc.path);
    return loc;
  }
  if (t.starts_with(kFile)) {
    loc.engine = Engine::File;
    loc.path = std::string(t.substr(kFile.size()));
    if (loc.path.empty())
      return invalid(text, "file location without a file path");
    if (std::string why = path_problem(loc.path); !why.empty())
      return invalid(text, "registry location \"" + text + "\": " + why);
    loc.text = std::string(kFile) + shown_path(loc.path);
    return loc;
  }
  if (t.starts_with(kMemory)) {
    loc.engine = Engine::Memory;
    loc.path = std::string(t.substr(kMemory.size()));
    if (loc.path.empty())
      return invalid(text, "mem location without a name");
    loc.text = text;
    return loc;
  }
  if (t.starts_with(kZooKeeper)) {
    std::string_view rest = t.substr(kZooKeeper.size());
    auto slash = rest.find('/');
    std::string_view hosts = rest.substr(0, slash);
    std::string why = check_hosts(hosts);
    if (!why.empty())
      return invalid(text, why);
    std::string root;
    if (slash != std::string_view::npos)
      root = std::string(rest.substr(slash));
    while (root.size() > 1 && root.back() == '/')
      root.pop_back();
    if (root.empty() || root == "/")
      root = kDefaultZkRoot;
    if (root.find("//") != std::string::npos)
      return invalid(text, "chroot \"" + root + "\" has an empty segment");
    loc.engine = Engine::ZooKeeper;
    loc.path = std::string(hosts);
    loc.root = root;
    loc.text = text;
    return loc;
  }
  if (t.empty())
    return invalid(text, "empty registry location");
  if (has_unknown_scheme(t))
    return invalid(text, "unknown scheme in registry location \"" + text + "\"");
  if (std::string why = path_problem(t); !why.empty())
    return invalid(text, "registry location \"" + text + "\": " + why);
  // A bare path names an SQLite file.
  loc.engine = Engine::Sqlite;
  loc.path = text;
  loc.text = std::string(kSqlite) + shown_path(text);
  return loc;
}

Location resolve_location() {
  const char *env = std::getenv("HVS_REGISTRY");
  if (env != nullptr && *env != '\0')
    return parse_location(env);
  const char *home = std::getenv("HOME");
  if (home != nullptr && *home != '\0')
    return parse_location(std::string(kSqlite) + home + "/.hvs/registry.db");
  return parse_location(std::string(kSqlite) + "./hvs-registry.db");
}

} // namespace hvs
