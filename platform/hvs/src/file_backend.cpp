// The read-only engine: file:PATH, an export or backup file that hvsctl
// wrote. The file is read once, when the engine is opened, through the same
// parser that hvsctl import and restore use; every read is then answered
// from memory, so a saved configuration reads exactly like the registry it
// was taken from. Every write is refused with HVS_ERR_ENGINE and a message
// that names the file: nothing is ever written beside it.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "hvs/backend.h"
#include "hvs/registry_file.h"
#include "node_tree.h"

namespace hvs {
namespace {

class FileBackend final : public Backend {
public:
  FileBackend(Nodes nodes, std::string loc)
      : nodes_(std::move(nodes)), loc_(std::move(loc)) {}

  Status open_key(std::string_view name, KeyData &out) override {
    return open_node(nodes_, loc_, name, out);
  }
  Status children(const KeyData &key, std::vector<std::string> &out) override {
    return node_children(nodes_, loc_, key.path, out);
  }

  Status set_value(const KeyData &, uint32_t, std::string_view) override { return refused(); }
  Status create_key(std::string_view, bool, uint32_t, std::string_view) override {
    return refused();
  }
  Status put_value(std::string_view, bool, uint32_t, std::string_view) override {
    return refused();
  }
  Status delete_key(std::string_view, bool) override { return refused(); }
  Status set_property(std::string_view, std::string_view) override { return refused(); }
  // No transaction can hold a write, so none is begun.
  Status begin() override { return refused(); }
  Status commit() override {
    return Status::failure(HVS_ERR_ARGUMENT, loc_ + ": commit without a transaction");
  }
  Status rollback() override {
    return Status::failure(HVS_ERR_ARGUMENT, loc_ + ": rollback without a transaction");
  }

  // Nothing changes once the file is read: the client's cache may answer
  // every read.
  bool follow(ChangeSink *) override { return true; }
  bool current() override { return true; }

private:
  Status refused() const {
    return Status::failure(HVS_ERR_ENGINE,
                           loc_ + ": a saved registry file is read-only; nothing was "
                                  "changed (restore it into a registry to change it)");
  }

  Nodes nodes_;
  std::string loc_;
};

} // namespace

std::unique_ptr<Backend> open_file(const Location &loc, bool /*create*/, Status &st) {
  // "-" is a file here, not standard input: a registry location names
  // something every process of a cluster can open.
  std::ifstream in(loc.path, std::ios::binary);
  std::ostringstream text;
  if (in)
    text << in.rdbuf();
  if (!in || in.bad()) {
    st = Status::failure(HVS_ERR_UNREACHABLE,
                         loc.text + ": cannot read the file: " + std::strerror(errno));
    return nullptr;
  }
  std::vector<FileKey> keys;
  std::string error, backup;
  if (!parse_registry_file(loc.path, text.str(), keys, error, &backup)) {
    st = Status::failure(HVS_ERR_CORRUPT, loc.text + ": " + error);
    return nullptr;
  }
  if (std::string said = backup_count_mismatch(backup, keys.size()); !said.empty()) {
    st = Status::failure(HVS_ERR_CORRUPT,
                         loc.text + ": holds " + std::to_string(keys.size()) +
                             " keys but its metadata says " + said +
                             ": the file is incomplete or was edited");
    return nullptr;
  }
  Nodes nodes{{std::string(), Node{}}};
  for (FileKey &k : keys) {
    auto parent = nodes.find(parent_of(k.name));
    if (parent == nodes.end()) {
      st = Status::failure(HVS_ERR_CORRUPT,
                           loc.text + ":" + std::to_string(k.line) + ": key " + k.name +
                               " comes before its parent " + std::string(parent_of(k.name)));
      return nullptr;
    }
    parent->second.kids.emplace(last_component(k.name));
    Node n;
    n.has_value = k.has_value;
    // The types an import gives: text for a value that ends in a NUL.
    n.type = k.has_value && !k.bytes.empty() && k.bytes.back() == '\0' ? HVS_TYPE_TEXT
                                                                       : HVS_TYPE_BINARY;
    n.value = std::move(k.bytes);
    nodes.emplace(std::move(k.name), std::move(n));
  }
  return std::make_unique<FileBackend>(std::move(nodes), loc.text);
}

} // namespace hvs
