// node_tree.h - keys held in process memory by name: the tree of the mem:
// and file: engines, and the two reads they answer from it alike.
#ifndef HVS_NODE_TREE_H
#define HVS_NODE_TREE_H

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "hvs/backend.h"

namespace hvs {

struct Node {
  bool has_value = false;
  uint32_t type = HVS_TYPE_BINARY;
  std::string value;
  std::set<std::string> kids; // std::string orders bytes like memcmp
};

using Nodes = std::map<std::string, Node, std::less<>>; // "" is the root

inline Status no_such_key(const std::string &loc, std::string_view name) {
  return Status::failure(HVS_ERR_NO_KEY, loc + ": key " + std::string(name) + " does not exist");
}

// What open_key answers for name.
inline Status open_node(const Nodes &nodes, const std::string &loc, std::string_view name,
                        KeyData &out) {
  auto it = nodes.find(name);
  if (it == nodes.end())
    return no_such_key(loc, name);
  out.id = 0;
  out.path.assign(name);
  out.has_value = it->second.has_value;
  out.type = it->second.type;
  out.value = it->second.value;
  return {};
}

// What children answers for the key at path.
inline Status node_children(const Nodes &nodes, const std::string &loc, const std::string &path,
                            std::vector<std::string> &out) {
  auto it = nodes.find(path);
  if (it == nodes.end())
    return no_such_key(loc, path);
  out.assign(it->second.kids.begin(), it->second.kids.end());
  return {};
}

} // namespace hvs

#endif
