/* Node applications, DATABASE.NODEAPPS.<node>: one node's entry read whole
 * under the node's shared lock, and its release. */
#include <cstring>

#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* Frees a record and everything it points to. */
void free_nodeapps(void *meta, prsr_nodeapps_cfg *cfg) {
  free_text(meta, cfg->node_name);
  free_text(meta, cfg->tervan_home);
  free_text(meta, cfg->vip);
  free_text(meta, cfg->interfaces);
  free_text(meta, cfg->netmask);
  free_texts(meta, cfg->environment, cfg->environment_count);
  u_freem(meta, cfg);
}

/* The working state of one fetch: the entry key and the two fixed
 * buffers through which the optional values are read. */
class Reader {
public:
  Reader(const Call &call, const char *entry, char *key, char *value)
      : call_(call), hvs_(call.hvs), comp_(call.comp), entry_(entry), key_(key), value_(value) {}

  /* Reads entry.<leaf> into *field. A key that does not open leaves the
   * field NULL; one that opens but does not read gives the empty text.
   * With vip_fallback, an empty value sends the read to <leaf>.IP. Result
   * 0, or 2 when the field could not be allocated. */
  int32_t optional(const char *leaf, char **field, bool vip_fallback = false) {
    build(leaf, nullptr);
    OpenKey key(hvs_);
    int32_t rc = key.open(key_);
    if (rc != 0) {
      call_.report("hvsapi_open_key", rc, key_);
      return PRSR_SUCCESS;
    }
    uint32_t len = 0;
    bool read = get(key, &len);
    if (read && len == 0 && vip_fallback) {
      key.close();
      build(leaf, "IP");
      if (key.open(key_) != 0)
        return store(field, 0); /* no address anywhere: the empty text */
      read = get(key, &len);
    }
    return store(field, read ? len : 0);
  }

private:
  void build(const char *leaf, const char *sub) {
    std::memset(key_, 0, kKeyMax);
    (sub != nullptr ? KeyParts{entry_, leaf, sub} : KeyParts{entry_, leaf}).join(key_);
  }

  /* Reads the open key's value into the value buffer; reports a failure. */
  bool get(const OpenKey &key, uint32_t *len) {
    std::memset(value_, 0, kValueMax);
    uint32_t type = 0;
    *len = kValueMax;
    int32_t rc = hvsapi_get_value(hvs_, key.get(), &type, value_, len);
    if (rc != 0) {
      call_.report("hvsapi_get_value", rc, key_);
      return false;
    }
    return true;
  }

  /* The field as the first len bytes of the value buffer and a NUL. */
  int32_t store(char **field, uint32_t len) {
    *field = prsr_dup_bytes(call_.meta, value_, len);
    return *field != nullptr ? PRSR_SUCCESS : call_.no_memory(uint64_t{len} + 1);
  }

  const Call &call_;
  void *hvs_;
  uintptr_t comp_;
  const char *entry_;
  char *key_;
  char *value_;
};

} // namespace

extern "C" PRSR_API int32_t prsr_fetch_nodeapps_config(lks_status *status, prsr_ctx *ctx,
                                                       const char *node,
                                                       prsr_nodeapps_cfg **cfg_out) {
  if (cfg_out != nullptr)
    *cfg_out = nullptr;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* VIP.INTERFACES is the longest leaf read. */
  if (cfg_out == nullptr || node == nullptr || node[0] == '\0' ||
      !(keys::nodeapps_entry(node) / "VIP.INTERFACES").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_fetch_nodeapps_config");
  void *meta = call.meta;
  void *hvs = call.hvs;
  uintptr_t comp = call.comp;
  size_t n = std::strlen(node);

  NameCopy copy(call);
  if (!copy.lower(node))
    return PRSR_ERR_MEMORY;

  auto *raw = static_cast<prsr_nodeapps_cfg *>(u_allocm(meta, sizeof(prsr_nodeapps_cfg)));
  if (raw == nullptr)
    return call.no_memory(sizeof(prsr_nodeapps_cfg));
  std::memset(raw, 0, sizeof *raw);
  u_set_tag(raw->tag, kNodeappsTag);
  raw->fetched = 1;
  /* Whatever ends the call before the hand-over gives the record up. */
  Draft cfg(raw, [meta](prsr_nodeapps_cfg *c) { free_nodeapps(meta, c); });

  KeyBlock entry(call);
  if (!entry.build(keys::nodeapps_entry(copy.get())))
    return PRSR_ERR_MEMORY;

  /* Declared before the lock: on a failed read of the entry the key is
   * closed after the lock has gone back. */
  OpenKey key(hvs);
  BranchLock lock(ctx);
  int32_t rc = lock.nodeapps(status, copy.get());
  if (rc != PRSR_SUCCESS)
    return rc;

  int32_t hrc = key.open(entry.get());
  if (hrc == HVS_ERR_NO_KEY) {
    trcprintf(comp, 4, "prsr_fetch_nodeapps_config: %s Key does not exist", entry.get());
    return PRSR_ERR_NO_NODEAPPS;
  }
  if (hrc != 0) {
    call.report("hvsapi_open_key", hrc, entry.get());
    return PRSR_ERR_REGISTRY;
  }
  /* The stored name has the length of the key component. */
  if ((cfg->node_name = static_cast<char *>(u_allocm(meta, n + 1))) == nullptr)
    return call.no_memory(n + 1);
  uint32_t type = 0;
  uint32_t len = static_cast<uint32_t>(n) + 1;
  hrc = read_text(hvs, key.get(), &type, cfg->node_name, &len);
  if (hrc != 0) {
    call.report("hvsapi_get_value", hrc, entry.get());
    return PRSR_ERR_REGISTRY;
  }
  key.close();

  Owned<char> key_buf(meta);
  if (!key_buf.allocate(kKeyMax))
    return call.no_memory(kKeyMax);
  Owned<char> value_buf(meta);
  if (!value_buf.allocate(kValueMax))
    return call.no_memory(kValueMax);

  Reader reader(call, entry.get(), key_buf.get(), value_buf.get());
  if ((rc = reader.optional("TERVAN_HOME", &cfg->tervan_home)) != PRSR_SUCCESS ||
      (rc = reader.optional("VIP", &cfg->vip, true)) != PRSR_SUCCESS ||
      (rc = reader.optional("VIP.NETMASK", &cfg->netmask)) != PRSR_SUCCESS ||
      (rc = reader.optional("VIP.INTERFACES", &cfg->interfaces)) != PRSR_SUCCESS)
    return rc;

  std::memset(key_buf.get(), 0, kKeyMax);
  KeyParts{entry.get(), "ENVIRONMENT"}.join(key_buf.get());
  rc = prsr_get_multivalues(meta, comp, hvs, key_buf.get(), &cfg->environment,
                            &cfg->environment_count);
  lock.release();
  if (rc == PRSR_SUCCESS)
    *cfg_out = cfg.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_release_nodeapps_config(lks_status *, prsr_ctx *ctx,
                                                         prsr_nodeapps_cfg *cfg) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* The tag stands behind `fetched`: it is checked where it stands. */
  if (cfg == nullptr || u_check_tag(cfg->tag, kNodeappsTag) == 0)
    return PRSR_SUCCESS;
  free_nodeapps(ctx->metactx, cfg);
  return PRSR_SUCCESS;
}
