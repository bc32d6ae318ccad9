/* Storage-manager entries, DATABASE.VLM.<parent>.<name>: the whole entry
 * under its shared lock, and the enable flag and case-preserved name read
 * alone without a lock. */
#include <cstring>

#include "frame/frame.h"
#include "lks.h"
#include "operations/enabled.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* "DATABASE.VLM" and the two separators of the entry key. */
constexpr size_t kEntryOverhead = 12 + 2;
/* The entry key, ".", and the longest leaf word (START_OPTIONS). */
constexpr size_t kLeafOverhead = kEntryOverhead + 1 + 13;
/* The entry key, ".ENABLED". */
constexpr size_t kEnabledOverhead = kEntryOverhead + 8;

/* Whether both names are given and a key built from them with `overhead`
 * further bytes still fits a fixed key buffer with its NUL. */
bool names_fit(const char *first, const char *second, size_t overhead) {
  return first != nullptr && second != nullptr &&
         std::strlen(first) + std::strlen(second) + overhead < kKeyMax;
}

void free_text(void *meta, char *&text) {
  if (text != nullptr)
    u_freem(meta, text);
  text = nullptr;
}

/* Frees a record and everything it points to. */
void free_vlm(void *meta, prsr_vlm_cfg *cfg) {
  free_text(meta, cfg->bootcfg);
  free_text(meta, cfg->tervan_home);
  free_text(meta, cfg->start_options);
  free_text(meta, cfg->version);
  if (cfg->environment != nullptr) {
    for (uint32_t i = 0; i < cfg->environment_count; ++i)
      free_text(meta, cfg->environment[i]);
    u_freem(meta, cfg->environment);
    cfg->environment = nullptr;
  }
  u_freem(meta, cfg);
}

/* The two lower-cased name copies of the storage-manager operations. */
struct VlmNames {
  Owned<char> first, second;
  explicit VlmNames(void *meta) : first(meta), second(meta) {}

  /* Copies both names, first first. Returns 0, or the size of the block
   * that could not be allocated. */
  size_t copy(void *meta, const char *a, const char *b) {
    if ((*first.out() = copy_lower(meta, a)) == nullptr)
      return std::strlen(a) + 1;
    if ((*second.out() = copy_lower(meta, b)) == nullptr)
      return std::strlen(b) + 1;
    return 0;
  }
};

} // namespace

extern "C" PRSR_API int32_t prsr_fetch_vlm_config(lks_status *status, prsr_ctx *ctx,
                                                  const char *first, const char *second,
                                                  prsr_vlm_cfg **cfg_out) {
  if (cfg_out != nullptr)
    *cfg_out = nullptr;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (cfg_out == nullptr || !names_fit(first, second, kLeafOverhead))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](size_t size) {
    trcprintf(comp, 0, "prsr_fetch_vlm_config: failed to allocate %d bytes",
              static_cast<int>(size));
    return PRSR_ERR_MEMORY;
  };

  VlmNames names(meta);
  if (size_t failed = names.copy(meta, first, second))
    return no_memory(failed);

  auto *cfg = static_cast<prsr_vlm_cfg *>(u_allocm(meta, sizeof(prsr_vlm_cfg)));
  if (cfg == nullptr)
    return no_memory(sizeof(prsr_vlm_cfg));
  std::memset(cfg, 0, sizeof *cfg);
  u_set_tag(cfg->tag, kVlmTag);
  *cfg_out = cfg;
  /* Whatever ends the call with a nonzero result gives the record up. */
  int32_t rc = PRSR_SUCCESS;
  struct Handout {
    void *meta;
    prsr_vlm_cfg **out;
    const int32_t &rc;
    ~Handout() {
      if (rc != PRSR_SUCCESS && *out != nullptr) {
        free_vlm(meta, *out);
        *out = nullptr;
      }
    }
  } handout{meta, cfg_out, rc};

  size_t entry_size = std::strlen(names.first.get()) + std::strlen(names.second.get()) + 15;
  Owned<char> entry(meta);
  if (!entry.allocate(entry_size))
    return rc = no_memory(entry_size);
  key_join(entry.get(), {"DATABASE.VLM", names.first.get(), names.second.get()});

  /* The entry must exist; this is asked before the lock and not again. */
  {
    OpenKey key(hvs);
    int32_t hrc = key.open(entry.get());
    if (hrc == HVS_ERR_NO_KEY)
      return rc = PRSR_ERR_NO_VLM;
    if (hrc != 0) {
      prsr_report_hvs_failure(hvs, comp, "prsr_fetch_vlm_config", "hvsapi_open_key", hrc,
                              entry.get());
      return rc = PRSR_ERR_REGISTRY;
    }
  }

  size_t lock_size = std::strlen(entry.get()) + 11;
  Owned<char> lock_name(meta);
  if (!lock_name.allocate(lock_size))
    return rc = no_memory(lock_size);
  key_join(lock_name.get(), {"FLTM.VLM", entry.get()});
  Owned<char> work(meta);
  if (!work.allocate(kKeyMax))
    return rc = no_memory(kKeyMax);

  /* This lock goes back with the caller's status record, and a failed
   * release fails the fetch, so it is not held through BranchLock. */
  if (lksshrlock(status, ctx->lock_handle, lock_name.get()) != 0)
    return rc = PRSR_ERR_LOCK;

  struct Leaf {
    const char *word;
    char **field;
  } leaves[] = {{"BOOTCFG", &cfg->bootcfg},
                {"TERVAN_HOME", &cfg->tervan_home},
                {"START_OPTIONS", &cfg->start_options},
                {"VERSION", &cfg->version}};
  for (const Leaf &leaf : leaves) {
    std::memset(work.get(), 0, kKeyMax);
    key_join(work.get(), {entry.get(), leaf.word});
    /* A value that cannot be read has been reported inside; the field keeps
     * what the reader left there (an empty text, or NULL without memory). */
    prsr_open_get_value(ctx, hvs, work.get(), leaf.field);
  }

  std::memset(work.get(), 0, kKeyMax);
  key_join(work.get(), {entry.get(), "ENVIRONMENT"});
  rc =
      prsr_get_multivalues(meta, comp, hvs, work.get(), &cfg->environment, &cfg->environment_count);
  if (rc == PRSR_SUCCESS) {
    std::memset(work.get(), 0, kKeyMax);
    key_join(work.get(), {entry.get(), "ENABLED"});
    /* A missing or unreadable flag is reported inside and stays 0. */
    prsr_get_enabled_key(ctx, work.get(), &cfg->enabled);
  }

  if (lksunlock(status, ctx->lock_handle, lock_name.get()) != 0)
    rc = PRSR_ERR_LOCK;
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
  if (enabled == nullptr || !names_fit(first, second, kEnabledOverhead))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_vlm_enabled: failed to allocate %d bytes",
              static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };

  VlmNames names(meta);
  if (size_t failed = names.copy(meta, first, second))
    return no_memory(failed);
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return no_memory(kKeyMax);
  key_join(key.get(), {"DATABASE.VLM", names.first.get(), names.second.get(), "ENABLED"});
  int32_t rc = prsr_get_enabled_key(ctx, key.get(), enabled);
  /* A missing entry reads as missing, as in the fetch. */
  return rc == PRSR_ERR_NO_KEY ? PRSR_ERR_NO_VLM : rc;
}

extern "C" PRSR_API int32_t prsr_get_vlm_name(lks_status *, prsr_ctx *ctx, const char *first,
                                              const char *second, uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* The first byte of the buffer is written on every path past the open. */
  if (name == nullptr || size == 0 || !names_fit(first, second, kEntryOverhead))
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  void *hvs = ctx->hvs_handle;
  uintptr_t comp = ctx->trace_comp;
  auto no_memory = [comp](uint64_t bytes) {
    trcprintf(comp, 0, "prsr_get_vlm_name: failed to allocate %d bytes", static_cast<int>(bytes));
    return PRSR_ERR_MEMORY;
  };

  VlmNames names(meta);
  if (size_t failed = names.copy(meta, first, second))
    return no_memory(failed);
  Owned<char> entry(meta);
  if (!entry.allocate(kKeyMax))
    return no_memory(kKeyMax);
  key_join(entry.get(), {"DATABASE.VLM", names.first.get(), names.second.get()});

  OpenKey key(hvs);
  int32_t rc = key.open(entry.get());
  if (rc != 0) {
    prsr_report_hvs_failure(hvs, comp, "prsr_get_vlm_name", "hvsapi_open_key", rc, entry.get());
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_VLM : PRSR_ERR_REGISTRY;
  }
  Owned<char> value(meta);
  rc = prsr_open_get_value(ctx, hvs, entry.get(), value.out());
  if (rc != PRSR_SUCCESS) {
    name[0] = '\0';
    return rc;
  }
  size_t n = std::strlen(value.get());
  if (n >= size) {
    name[0] = '\0';
    return PRSR_ERR_ARGUMENT;
  }
  std::memcpy(name, value.get(), n + 1);
  return PRSR_SUCCESS;
}
