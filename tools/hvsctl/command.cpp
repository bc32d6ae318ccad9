#include "command.h"
#include "util/version.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "hvs/backend.h"
#include "hvsadm.h"
#include "hvs/registry_file.h"

namespace hvsctl {

namespace {
std::vector<Command> &chosen_list() {
  static std::vector<Command> list;
  return list;
}
} // namespace

std::vector<Registrar> &families() {
  static std::vector<Registrar> list;
  return list;
}

void add_families(CLI::App &app) {
  for (Registrar r : families())
    r(app, chosen_list());
}

int run_chosen() {
  for (const Command &c : chosen_list())
    if (c.sub->parsed())
      return c.run();
  return -1;
}

void manual(CLI::App *sub, const std::string &text) {
  sub->footer(text + "\n");
}

Client::~Client() {
  if (h_ != nullptr)
    hvsapi_terminate(h_);
}

bool Client::open(bool create) {
  char msg[1024] = "";
  uint64_t len = sizeof msg;
  open_rc_ = hvsadm_open(&h_, create ? 1 : 0, msg, &len);
  if (open_rc_ != HVS_OK) {
    h_ = nullptr;
    fmt::print(stderr, "hvsctl: cannot open the registry: {} (code {}){}\n", msg,
               open_rc_,
               open_rc_ == HVS_ERR_EXISTS ? "; hvsctl import --force takes it over" : "");
    return false;
  }
  return true;
}

int creating(const std::function<int()> &command) {
  char made[4096] = "";
  char msg[1024] = "";
  if (hvsadm_missing_part(made, sizeof made, msg, sizeof msg) != HVS_OK) {
    fmt::print(stderr, "hvsctl: cannot look at the registry location: {}\n", msg);
    return kRegistry;
  }
  int rc = command();
  if (rc != kOk && made[0] != '\0')
    if (hvsadm_remove_created(made, msg, sizeof msg) != HVS_OK)
      fmt::print(stderr, "hvsctl: the registry made at {} could not be removed "
                         "again: {}\n",
                 hvs::resolve_location().text, msg);
  return rc;
}

namespace {
// The version hvsctl records as the registry's writer, and compares with the
// recorded one before it writes (MAJOR.MINOR.PATCH, see ver.h).
constexpr const char *kWriterProperty = "written_by";
} // namespace

int Client::open_for_write(bool create) {
  if (!open(create))
    return open_rc_ == HVS_ERR_EXISTS ? kInput : kRegistry;
  char recorded[256] = "";
  uint32_t len = sizeof recorded;
  int32_t rc = hvsadm_get_property(h_, kWriterProperty, recorded, &len);
  if (rc == HVS_ERR_NO_KEY)
    return kOk;
  if (rc != HVS_OK)
    return fail("cannot read the version that wrote the registry");
  switch (u_version_compatible(HVSCTL_VERSION, recorded)) {
  case 0:
    return kOk;
  case 4:
    fmt::print(stderr,
               "hvsctl: the registry at {} was written by version {}, newer than this hvsctl "
               "({}); refusing to change it (use hvsctl {} or later)\n",
               location(), recorded, HVSCTL_VERSION, recorded);
    return kNewer;
  default:
    fmt::print(stderr,
               "hvsctl: the registry at {} names its writer's version as \"{}\", which is not a "
               "version; refusing to change it\n",
               location(), recorded);
    return kNewer;
  }
}

void Client::record_writer() { hvsadm_set_property(h_, kWriterProperty, HVSCTL_VERSION); }

std::string Client::location() const {
  const char *loc = h_ != nullptr ? hvsapi_location(h_) : nullptr;
  return loc != nullptr ? loc : "(no registry)";
}

std::string Client::last_error() const {
  uint32_t code = 0;
  char msg[1024] = "";
  uint32_t len = sizeof msg;
  hvsapi_get_last_error(h_, &code, msg, &len);
  return msg;
}

int Client::fail(const std::string &what) const {
  fmt::print(stderr, "hvsctl: {}: {}\n", what, last_error());
  return kRegistry;
}

Index::Index(const Tree &tree) {
  for (const Entry &e : tree) {
    keys_.emplace(e.name, &e);
    if (!e.name.empty())
      children_[std::string(hvs::parent_of(e.name))].push_back(
          std::string(hvs::last_component(e.name)));
  }
}

int load_live(Client &client, const std::string &root, Tree &out) {
  auto cb = [](void *arg, const char *name, const void *value, uint32_t len,
               int has_value) -> int {
    Entry e;
    e.name = name;
    e.has_value = has_value != 0;
    if (has_value != 0 && len > 0)
      e.bytes.assign(static_cast<const char *>(value), len);
    static_cast<Tree *>(arg)->push_back(std::move(e));
    return 0;
  };
  out.clear();
  int32_t rc = hvsadm_walk(client.get(), root.c_str(), cb, &out);
  if (rc == HVS_ERR_NO_KEY) {
    fmt::print(stderr, "hvsctl: key \"{}\" does not exist in {}\n", root,
               client.location());
    return kNotFound;
  }
  if (rc != HVS_OK)
    return client.fail(root.empty()
                           ? std::string("cannot read the registry")
                           : fmt::format("cannot read key \"{}\"", root));
  return kOk;
}

bool read_text(const std::string &path, std::string &text) {
  if (path == "-") {
    std::ostringstream s;
    s << std::cin.rdbuf();
    text = s.str();
    return !std::cin.bad();
  }
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream s;
  s << in.rdbuf();
  text = s.str();
  return !in.bad();
}

int load_file(const std::string &path, Tree &out, std::string *meta) {
  std::string text;
  const std::string label = path == "-" ? kStdinLabel : path;
  if (!read_text(path, text)) {
    fmt::print(stderr, "hvsctl: cannot read {}: {}\n", label,
               std::strerror(errno));
    return kInput;
  }
  if (meta != nullptr)
    meta->clear();
  std::vector<FileKey> keys;
  std::string error, backup;
  if (!parse_registry_file(label, text, keys, error, &backup)) {
    fmt::print(stderr, "{}\n", error);
    return kInput;
  }
  if (meta != nullptr)
    *meta = std::move(backup);
  out.clear();
  out.reserve(keys.size());
  for (auto &k : keys)
    out.push_back(Entry{std::move(k.name), k.has_value, std::move(k.bytes)});
  return kOk;
}

int write_atomically(const std::string &path, const std::string &text,
                     const std::string &like) {
  if (path == "-") {
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
      return kOk;
    fmt::print(stderr, "hvsctl: cannot write to standard output: {}\n", std::strerror(errno));
    return kInput;
  }
  // Whose the file is and its mode: those of like, with nothing for others.
  mode_t mode = 0600;
  uid_t uid = uid_t(-1);
  gid_t gid = gid_t(-1);
  struct stat st {};
  if (!like.empty() && ::stat(like.c_str(), &st) == 0) {
    mode = (st.st_mode & 0660) | 0600;
    uid = ::geteuid() == 0 ? st.st_uid : uid_t(-1);
    gid = st.st_gid;
  }
  // A private file of this process's beside the target, never through a
  // link, given its final owner and mode before it is renamed into place.
  std::string tmp = fmt::format("{}.tmp.{}", path, ::getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    fmt::print(stderr, "hvsctl: cannot write {}: {}\n", tmp, std::strerror(errno));
    return kInput;
  }
  auto fail = [&](const std::string &what) {
    fmt::print(stderr, "hvsctl: cannot write {}: {}\n", what, std::strerror(errno));
    if (fd >= 0)
      ::close(fd);
    ::unlink(tmp.c_str());
    return kInput;
  };
  for (size_t done = 0; done < text.size();) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return fail(tmp);
    done += size_t(n);
  }
  if (gid != gid_t(-1))
    (void)!::fchown(fd, uid, gid); // the group only where this user may give it
  if (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0)
    return fail(tmp);
  int closed = ::close(fd);
  fd = -1;
  if (closed != 0)
    return fail(tmp);
  if (std::rename(tmp.c_str(), path.c_str()) != 0)
    return fail(path);
  return kOk;
}

std::string render_file(const Tree &tree, const char *format,
                        const std::string &extra_members) {
  std::string text = fmt::format("{{\"format\": \"{}\", \"version\": {}, ",
                                 format, kFormatVersion);
  if (!extra_members.empty())
    text += extra_members + ",\n";
  text += "\"keys\": [\n";
  for (size_t i = 0; i < tree.size(); ++i) {
    text += "  ";
    text += key_line(tree[i].name, tree[i].has_value, tree[i].bytes);
    text += i + 1 < tree.size() ? ",\n" : "\n";
  }
  text += "]}\n";
  return text;
}

} // namespace hvsctl
