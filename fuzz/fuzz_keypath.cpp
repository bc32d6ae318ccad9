/* Key-name tools of the utility layer on arbitrary text.
 *
 * Input: a key name, optionally followed by a NUL and a second text. The
 * name goes to u_check_keycomp, u_keydepth and u_get_keydepth; u_ator takes
 * the name as parent and the second text as subkey (the name again when
 * there is none). Output buffers have exactly the size the tools ask of
 * their callers and start out as garbage.
 * Results are checked against the rules stated on the tools, computed here
 * with plain string operations, and no block may be left behind. */
#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "mp.h"
#include "prsr_fault.h"
#include "util/keypath.h"

namespace {

/* The non-empty components of a dotted name. */
std::vector<std::string> components(const std::string &s) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= s.size()) {
    size_t dot = s.find('.', start);
    if (dot == std::string::npos)
      dot = s.size();
    if (dot > start)
      out.push_back(s.substr(start, dot - start));
    start = dot + 1;
  }
  return out;
}

bool well_formed(const std::string &s) {
  if (s.empty() || s.front() == '.' || s.back() == '.' || s.find("..") != std::string::npos)
    return false;
  for (const auto &c : components(s))
    if (c.size() > U_KEYCOMP_MAX)
      return false;
  return true;
}

void check_keydepth(void *meta, const std::string &name) {
  const auto comps = components(name);
  uint32_t depth = 0xFFFFFFFFu;
  FUZZ_CHECK(u_keydepth(meta, name.c_str(), &depth) == 0);
  FUZZ_CHECK(depth == comps.size());

  /* The prefix of an empty name is a single blank: 2 bytes at least. */
  fuzz::Buffer subkey(name.size() + 1), prefix(std::max<size_t>(name.size() + 1, 2));
  depth = 0xFFFFFFFFu;
  FUZZ_CHECK(u_get_keydepth(meta, name.c_str(), &depth, subkey.p, prefix.p) == 0);
  FUZZ_CHECK(depth == comps.size());
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) {
    FUZZ_CHECK(subkey.text() == name);
    FUZZ_CHECK(prefix.text() == " ");
  } else {
    FUZZ_CHECK(subkey.text() == (comps.empty() ? std::string() : comps.back()));
    FUZZ_CHECK(prefix.text() == name.substr(0, dot));
  }
}

void check_ator(void *meta, const std::string &parent, const std::string &subkey) {
  const auto pc = components(parent), sc = components(subkey);
  int32_t want_rc = 1;
  std::string want;
  if (!pc.empty() && !sc.empty()) {
    if (pc.front() != sc.front()) {
      want_rc = 0;
      want = subkey;
    } else if (subkey.find(parent) != std::string::npos && subkey != parent) {
      want_rc = 0;
      want = subkey.substr(parent.size() + 1);
    }
  }
  fuzz::Buffer rel(subkey.size() + 1);
  FUZZ_CHECK(u_ator(meta, parent.c_str(), subkey.c_str(), rel.p) == want_rc);
  FUZZ_CHECK(rel.text() == want);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static void *meta = [] {
    fuzz::trace_everything();
    return plinit(nullptr);
  }();
  const auto texts = fuzz::split_texts(data, size, 2);
  const std::string &name = texts[0];
  const std::string &other = texts.size() > 1 ? texts[1] : texts[0];
  long blocks = fault_live_blocks();

  FUZZ_CHECK(u_check_keycomp(meta, name.c_str()) == (well_formed(name) ? 0 : 1));
  check_keydepth(meta, name);
  check_ator(meta, name, other);

  FUZZ_CHECK(fault_live_blocks() == blocks);
  return 0;
}
