/* Storage-manager entries, DATABASE.VLM.<parent>.<name>: the whole entry
 * under its shared lock, and the enable flag and case-preserved name read
 * alone without a lock. */
#include <cstring>

#include "frame/frame.h"
#include "lks.h"
#include "operations/enabled.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* Frees a record and everything it points to. */
void free_vlm(void *meta, prsr_vlm_cfg *cfg) {
  free_text(meta, cfg->bootcfg);
  free_text(meta, cfg->tervan_home);
  free_text(meta, cfg->start_options);
  free_text(meta, cfg->version);
  free_texts(meta, cfg->environment, cfg->environment_count);
  u_freem(meta, cfg);
}

/* The two lower-cased name copies of the storage-manager operations, made
 * first first. */
struct VlmNames {
  explicit VlmNames(const Call &call) : first(call), second(call) {}
  bool copy(const char *a, const char *b) { return first.lower(a) && second.lower(b); }
  KeyParts entry() const { return keys::vlm_entry(first.get(), second.get()); }
  NameCopy first, second;
};

} // namespace

extern "C" PRSR_API int32_t prsr_fetch_vlm_config(lks_status *status, prsr_ctx *ctx,
                                                  const char *first, const char *second,
                                                  prsr_vlm_cfg **cfg_out) {
  if (cfg_out != nullptr)
    *cfg_out = nullptr;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* START_OPTIONS is the longest leaf word read. */
  if (cfg_out == nullptr || !(keys::vlm_entry(first, second) / "START_OPTIONS").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_fetch_vlm_config");
  void *meta = call.meta;
  void *hvs = call.hvs;
  uintptr_t comp = call.comp;

  VlmNames names(call);
  if (!names.copy(first, second))
    return PRSR_ERR_MEMORY;

  auto *raw = static_cast<prsr_vlm_cfg *>(u_allocm(meta, sizeof(prsr_vlm_cfg)));
  if (raw == nullptr)
    return call.no_memory(sizeof(prsr_vlm_cfg));
  std::memset(raw, 0, sizeof *raw);
  u_set_tag(raw->tag, kVlmTag);
  /* Whatever ends the call before the hand-over gives the record up. */
  Draft cfg(raw, [meta](prsr_vlm_cfg *c) { free_vlm(meta, c); });

  KeyBlock entry(call);
  if (!entry.build(names.entry()))
    return PRSR_ERR_MEMORY;

  /* The entry must exist; this is asked before the lock and not again. */
  {
    OpenKey key(hvs);
    int32_t hrc = key.open(entry.get());
    if (hrc == HVS_ERR_NO_KEY)
      return PRSR_ERR_NO_VLM;
    if (hrc != 0) {
      call.report("hvsapi_open_key", hrc, entry.get());
      return PRSR_ERR_REGISTRY;
    }
  }

  KeyBlock lock_name(call);
  if (!lock_name.build(keys::vlm_lock(entry.get())))
    return PRSR_ERR_MEMORY;
  Owned<char> work(meta);
  if (!work.allocate(kKeyMax))
    return call.no_memory(kKeyMax);

  /* This lock goes back with the caller's status record, and a failed
   * release fails the fetch, so it is not held through BranchLock. */
  if (lksshrlock(status, ctx->lock_handle, lock_name.get()) != 0)
    return PRSR_ERR_LOCK;

  struct Leaf {
    const char *word;
    char **field;
  } leaves[] = {{"BOOTCFG", &cfg->bootcfg},
                {"TERVAN_HOME", &cfg->tervan_home},
                {"START_OPTIONS", &cfg->start_options},
                {"VERSION", &cfg->version}};
  for (const Leaf &leaf : leaves) {
    std::memset(work.get(), 0, kKeyMax);
    KeyParts{entry.get(), leaf.word}.join(work.get());
    /* A value that cannot be read has been reported inside; the field keeps
     * what the reader left there (an empty text, or NULL without memory). */
    prsr_open_get_value(ctx, hvs, work.get(), leaf.field);
  }

  std::memset(work.get(), 0, kKeyMax);
  KeyParts{entry.get(), "ENVIRONMENT"}.join(work.get());
  int32_t rc =
      prsr_get_multivalues(meta, comp, hvs, work.get(), &cfg->environment, &cfg->environment_count);
  if (rc == PRSR_SUCCESS) {
    std::memset(work.get(), 0, kKeyMax);
    KeyParts{entry.get(), "ENABLED"}.join(work.get());
    /* A missing or unreadable flag is reported inside and stays 0. */
    prsr_get_enabled_key(ctx, work.get(), &cfg->enabled);
  }

  if (lksunlock(status, ctx->lock_handle, lock_name.get()) != 0)
    rc = PRSR_ERR_LOCK;
  if (rc == PRSR_SUCCESS)
    *cfg_out = cfg.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_release_vlm_config(lks_status *, prsr_ctx *ctx,
                                                    prsr_vlm_cfg *cfg) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (cfg == nullptr || u_check_tag(cfg->tag, kVlmTag) == 0)
    return PRSR_SUCCESS;
  free_vlm(ctx->metactx, cfg);
  return PRSR_SUCCESS;
}

extern "C" PRSR_API int32_t prsr_get_vlm_enabled(lks_status *, prsr_ctx *ctx, const char *first,
                                                 const char *second, uint32_t *enabled) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (enabled == nullptr || !(keys::vlm_entry(first, second) / "ENABLED").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_vlm_enabled");
  VlmNames names(call);
  KeyBlock key(call);
  if (!names.copy(first, second) || !key.build(names.entry() / "ENABLED", kKeyMax))
    return PRSR_ERR_MEMORY;
  int32_t rc = prsr_get_enabled_key(ctx, key.get(), enabled);
  /* A missing entry reads as missing, as in the fetch. */
  return rc == PRSR_ERR_NO_KEY ? PRSR_ERR_NO_VLM : rc;
}

extern "C" PRSR_API int32_t prsr_get_vlm_name(lks_status *, prsr_ctx *ctx, const char *first,
                                              const char *second, uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* The first byte of the buffer is written on every path past the open. */
  if (name == nullptr || size == 0 || !keys::vlm_entry(first, second).fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_vlm_name");
  VlmNames names(call);
  KeyBlock entry(call);
  if (!names.copy(first, second) || !entry.build(names.entry(), kKeyMax))
    return PRSR_ERR_MEMORY;

  OpenKey key(call.hvs);
  int32_t rc = key.open(entry.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, entry.get());
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_VLM : PRSR_ERR_REGISTRY;
  }
  Owned<char> value(call.meta);
  rc = prsr_open_get_value(ctx, call.hvs, entry.get(), value.out());
  return deliver_name(rc, value.get(), size, name);
}
