/* The multi-string reader on arbitrary value bytes.
 *
 * Input: the value itself, stored as the value of one key of an in-memory
 * registry (no value at all for an empty input) and read back through
 * prsr_get_multivalues. The table has no more entries than the value has
 * NULs, each a string of the value's bytes, and once one is NULL all after
 * it are. Every block is freed here again, and the reader must keep no
 * block or key. */
#include <algorithm>
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

  FUZZ_CHECK(count <= static_cast<uint32_t>(std::count(value.begin(), value.end(), '\0')));
  FUZZ_CHECK((list == nullptr) == (count == 0));
  bool ended = false;
  for (uint32_t i = 0; i < count; ++i) {
    FUZZ_CHECK(!(ended && list[i] != nullptr));
    ended = list[i] == nullptr;
    if (list[i] != nullptr) {
      FUZZ_CHECK(value.find(list[i]) != std::string::npos);
      u_freem(reg.meta, list[i]);
    }
  }
  if (list != nullptr)
    u_freem(reg.meta, list);
  FUZZ_CHECK(fault_live_blocks() == blocks);
  return 0;
}
