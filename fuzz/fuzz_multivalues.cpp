/* The multi-string reader on arbitrary value bytes.
 *
 * Input: the value itself, stored as the value of one key of an in-memory
 * registry (no value at all for an empty input) and read back through
 * prsr_get_multivalues. The table must hold the strings as the reader's
 * rules give them: one entry per NUL but the last, filled in stored order up
 * to the first empty string or the end of the value, NULL after that. Every
 * block is freed here again, and the reader must keep no block or key. */
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_common.h"
#include "hvsadm.h"
#include "mp.h"
#include "prsr_fault.h"
#include "registry/registry.h"
#include "util/umem.h"

namespace {

constexpr const char *kKey = "FUZZ";

struct Registry {
  void *handle = nullptr;
  void *meta = nullptr;
  uintptr_t comp = 0;

  Registry() {
    fuzz::trace_everything();
    setenv("HVS_REGISTRY", "mem:prsr-fuzz-multivalues", 1);
    char msg[1024] = {0};
    uint64_t len = sizeof msg;
    if (hvsadm_open(&handle, 1, msg, &len) != 0) {
      std::fprintf(stderr, "cannot create the registry: %s\n", msg);
      std::abort();
    }
    FUZZ_CHECK(hvsadm_create_key(handle, kKey, 0, nullptr, 0) == 0);
    meta = plinit(nullptr);
    comp = trccompreg("multi-string fuzzing", "PRSR", 1024, 0, 0, 0, 0);
  }
};

/* What the reader is to give for a value. */
struct Expected {
  uint32_t count = 0;
  std::vector<std::string> strings; /* the entries that are not NULL */
};

Expected expected(const std::string &v) {
  Expected e;
  uint32_t nuls = 0;
  for (char c : v)
    nuls += c == '\0';
  e.count = nuls ? nuls - 1 : 0;
  size_t pos = 0;
  for (uint32_t i = 0; i < e.count; ++i) {
    size_t nul = v.find('\0', pos);
    if (nul == pos)
      break;
    e.strings.push_back(v.substr(pos, nul - pos));
    pos = nul + 1;
    if (pos >= v.size() - 1)
      break;
  }
  return e;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Registry reg;
  const std::string value(reinterpret_cast<const char *>(data), size);
  FUZZ_CHECK(hvsadm_put_value(reg.handle, kKey, size > 0, data, static_cast<uint32_t>(size)) == 0);

  long blocks = fault_live_blocks(), keys = fault_open_keys();
  char **list = nullptr;
  uint32_t count = 0xFFFFFFFFu;
  int32_t rc = prsr_get_multivalues(reg.meta, reg.comp, reg.handle, kKey, &list, &count);
  FUZZ_CHECK(rc == PRSR_SUCCESS);
  FUZZ_CHECK(fault_open_keys() == keys);

  const Expected want = expected(value);
  FUZZ_CHECK(count == want.count);
  FUZZ_CHECK((list == nullptr) == (count == 0));
  for (uint32_t i = 0; i < count; ++i) {
    if (i < want.strings.size()) {
      FUZZ_CHECK(list[i] != nullptr);
      FUZZ_CHECK(list[i] == want.strings[i]);
    } else {
      FUZZ_CHECK(list[i] == nullptr);
    }
    if (list[i] != nullptr)
      u_freem(reg.meta, list[i]);
  }
  if (list != nullptr)
    u_freem(reg.meta, list);
  FUZZ_CHECK(fault_live_blocks() == blocks);
  return 0;
}
