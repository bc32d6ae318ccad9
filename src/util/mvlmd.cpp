/* Storage-dependency registration of the cluster daemon's resource. */
#include "util/mvlmd.h"

#include "rsmgr.h"
#include "trc.h"

namespace {

constexpr const char *kResource = "tvn.rsmd";
constexpr uint32_t kInitFlags = 0x88;
constexpr uint32_t kPlain = RSMGR_FLAG_REGISTER;
constexpr uint32_t kQueued = RSMGR_FLAG_REGISTER | RSMGR_FLAG_QUEUE | RSMGR_FLAG_ASYNC;

constexpr const char *kStartWithVlm =
    "hard(tvn.vlm,tvn.qorm,tvn.lutz,tvn.brav)pullup(tvn.vlm,tvn.qorm,tvn.lutz,tvn.brav)";
constexpr const char *kStartWithoutVlm =
    "hard(tvn.qorm,tvn.lutz,tvn.brav)pullup(tvn.qorm,tvn.lutz,tvn.brav)";
constexpr const char *kStopWithVlm =
    "hard(shutdown:tvn.vlm,intermediate:tvn.qorm,intermediate:tvn.brav)";
constexpr const char *kStopWithoutVlm = "hard(intermediate:tvn.qorm,intermediate:tvn.brav)";

} // namespace

extern "C" int32_t u_mvlmd(void *, uintptr_t comp, int32_t with_vlm) {
  void *client = nullptr;
  void *res = nullptr; /* ours until a list takes it */
  void *list = nullptr;
  void *outcome = nullptr;
  int32_t result = U_MVLMD_FAILED;
  int32_t rc;
  const char *start = with_vlm != 0 ? kStartWithVlm : kStartWithoutVlm;
  const char *stop = with_vlm != 0 ? kStopWithVlm : kStopWithoutVlm;

  /* One pass that stops at the first failure; the clean-up below runs on
   * every path. */
  do {
    if ((rc = rsmgr_init_rsm(&client, nullptr, nullptr, kInitFlags)) != 0) {
      client = nullptr;
      trcprintft(comp, 0, "u_mvlmd:2: rsmgr_init_api failed [%d]. Return [%d]", static_cast<int>(rc),
                 U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_res_create(client, kResource, &res)) != 0) {
      res = nullptr;
      trcprintft(comp, 0, "u_mvlmd:3: rsmgr_res_create failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_res_set_attr(res, "START_DEPENDENCIES", start)) != 0) {
      trcprintft(comp, 0, "u_mvlmd:4: rsmgr_res_set_attr START_DEP failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_res_set_attr(res, "STOP_DEPENDENCIES", stop)) != 0) {
      trcprintft(comp, 0, "u_mvlmd:5: rsmgr_res_set_attr STOP_DEP failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_reslist_create(client, &list)) != 0) {
      list = nullptr;
      trcprintft(comp, 0, "u_mvlmd:6: rsmgr_reslist_create failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_reslist_append(list, res)) != 0) {
      trcprintft(comp, 0, "u_mvlmd:8: rsmgr_reslist_append failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    res = nullptr; /* the list owns it now */
    if ((rc = rsmgr_reslist_create(client, &outcome)) != 0) {
      outcome = nullptr;
      trcprintft(comp, 0, "u_mvlmd:9: rsmgr_reslist_create failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_register_resource2(list, kPlain, nullptr, nullptr, outcome)) == 0) {
      result = U_MVLMD_OK;
      trcprintft(comp, 1, "u_mvlmd:11: rsmgr_register_resource2 succeeded [%d]. Return [%d]",
                 static_cast<int>(rc), result);
      break;
    }
    trcprintft(comp, 1,
               "u_mvlmd:11': rsmgr_register_resource2 failed [%d]. Retrying operation with QUEUE "
               "and ASYNC flags.",
               static_cast<int>(rc));
    if (outcome != nullptr)
      rsmgr_reslist_destroy(&outcome);
    outcome = nullptr;
    if ((rc = rsmgr_reslist_create(client, &outcome)) != 0) {
      outcome = nullptr;
      trcprintft(comp, 0, "u_mvlmd:13: rsmgr_reslist_create failed [%d]. Return [%d]",
                 static_cast<int>(rc), U_MVLMD_FAILED);
      break;
    }
    if ((rc = rsmgr_register_resource2(list, kQueued, nullptr, nullptr, outcome)) == 0) {
      result = U_MVLMD_OK;
      trcprintft(comp, 1,
                 "u_mvlmd:15: rsmgr_register_resource2 successfully queued [%d]. Return [%d]",
                 static_cast<int>(rc), result);
      break;
    }
    void *first = nullptr;
    int32_t status = 0;
    const char *message = nullptr;
    rsmgr_reslist_first(outcome, &first);
    rsmgr_res_get_op_status(first, &status, &message);
    trcprintft(comp, 0, "u_mvlmd:14: rsmgr_reg_res op stat [%d] for resource [%s]",
               static_cast<int>(status), kResource);
    trcprintft(comp, 0, "u_mvlmd:15: rsmgr_register_resource2 failed [%d] flags [%x]. Return [%d]",
               static_cast<int>(rc), kQueued, U_MVLMD_FAILED);
  } while (false);

  if (outcome != nullptr)
    rsmgr_reslist_destroy(&outcome);
  if (list != nullptr)
    rsmgr_reslist_destroy(&list);
  /* A resource that never reached the list goes with the client. */
  if (client != nullptr)
    rsmgr_term_rsm(&client);
  return result;
}
