/* The failure report that follows every failed registry call. */
#include "frame/frame.h"
#include "registry/registry.h"

extern "C" PRSR_INTERNAL void prsr_report_hvs_failure(void *hvs_handle, uintptr_t trace_comp,
                                                      const char *caller, const char *api,
                                                      int32_t code, const char *key) {
  char msg[1024];
  msg[0] = '\0';
  uint32_t len = sizeof msg;
  uint32_t last = 0;
  hvsapi_get_last_error(hvs_handle, &last, msg, &len);
  msg[sizeof msg - 1] = '\0';
  trcprintf(trace_comp, 0, "%s: HVS api %s failed for key %s with %d", caller, api, key, code);
  trcprintf(trace_comp, 0, "HVS error code : %d", static_cast<int>(last));
  trcprintf(trace_comp, 0, "HVS error msg : %s", msg);
}
