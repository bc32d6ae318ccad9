/* Instance entries: one instance of a database read into its
 * prsr_instance_cfg, for the whole-record fetch. */
#include <cstring>

#include "database/database.h"
#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_INTERNAL void prsr_free_instance_entry(void *metactx, prsr_instance_cfg *entry) {
  if (entry == nullptr)
    return;
  if (entry->node_name != nullptr)
    u_freem(metactx, entry->node_name);
  if (entry->instance_name != nullptr)
    u_freem(metactx, entry->instance_name);
  free_texts(metactx, entry->environment, entry->environment_count);
  u_freem(metactx, entry);
}

extern "C" PRSR_INTERNAL int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key,
                                                    prsr_instance_cfg **slot,
                                                    const char *key_name) {
  Call call(ctx, "prsr_fill_instance");
  void *meta = call.meta;
  void *hvs = call.hvs;
  uintptr_t comp = call.comp;
  trcprintf(comp, 4, "prsr_fill_instance: db_key = %s key name = %s", db_key, key_name);
  FillBlocks<prsr_instance_cfg> b(meta);
  if (int32_t rc = b.allocate(call))
    return rc;
  Owned<prsr_instance_cfg> &entry = b.entry;
  Owned<char> &value = b.value, &name = b.key, &inst_key = b.entry_key;

  /* The longest key read here is <instance key>.ENVIRONMENT: once that is
   * known to fit, every other key of the instance fits as well. */
  const KeyParts inst_parts{db_key, "INSTANCE", key_name};
  if (!entry_key(call, inst_key.get(), inst_parts, inst_parts / "ENVIRONMENT", "instance", key_name,
                 db_key))
    return PRSR_ERR_REGISTRY;
  trcprintf(comp, 4, "prsr_fill_instance: Instance Key = %s", inst_key.get());

  /* From here on the entry belongs to the table. */
  prsr_instance_cfg *e = entry.release();
  *slot = e;
  auto unpublish = [&] {
    prsr_free_instance_entry(meta, e);
    *slot = nullptr;
    return PRSR_ERR_MEMORY;
  };

  uint32_t name_size = static_cast<uint32_t>(std::strlen(key_name)) + 1;
  e->instance_name = static_cast<char *>(u_allocm(meta, name_size));
  if (e->instance_name == nullptr) {
    call.no_memory(name_size);
    return unpublish();
  }
  OpenKey key(hvs);
  int32_t rc = key.open(inst_key.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, inst_key.get());
    return PRSR_ERR_REGISTRY;
  }
  uint32_t type = 0;
  uint32_t len = name_size;
  rc = read_text(hvs, key.get(), &type, e->instance_name, &len);
  if (rc != 0) {
    call.report("hvsapi_get_value", rc, inst_key.get());
    return PRSR_ERR_REGISTRY;
  }
  key.close();

  /* NODE: optional; the entry goes on without it. */
  KeyParts{inst_key.get(), "NODE"}.write(name.get());
  trcprintf(comp, 4, "prsr_fill_instance: inst_key_name = %s  Node Name key = %s", inst_key.get(),
            name.get());
  rc = key.open(name.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, name.get());
  } else {
    std::memset(value.get(), 0, kValueMax);
    type = 0;
    len = kValueMax;
    rc = hvsapi_get_value(hvs, key.get(), &type, value.get(), &len);
    if (rc != 0) {
      call.report("hvsapi_get_value", rc, name.get());
    } else {
      e->node_name = prsr_dup_bytes(meta, value.get(), len);
      if (e->node_name == nullptr) {
        call.no_memory(uint64_t{len} + 1);
        key.close();
        return unpublish();
      }
      trcprintf(comp, 4, "prsr_fill_instance: Node Name = %s , val_size = %d", e->node_name,
                static_cast<int>(len));
    }
    key.close();
  }

  KeyParts{inst_key.get(), "ENVIRONMENT"}.write(name.get());
  prsr_get_multivalues(meta, comp, hvs, name.get(), &e->environment, &e->environment_count);

  /* ENABLED: anything but "FALSE" is enabled; unreadable stays 0. */
  KeyParts{inst_key.get(), "ENABLED"}.write(name.get());
  read_flag(call, name.get(), value.get(), &e->enabled);
  return PRSR_SUCCESS;
}

void prsr::read_flag(const Call &call, const char *key_name, char *value, uint32_t *flag) {
  OpenKey key(call.hvs);
  int32_t rc = key.open(key_name);
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key_name);
    return;
  }
  std::memset(value, 0, kValueMax);
  uint32_t type = 0;
  uint32_t len = kValueMax;
  rc = read_text(call.hvs, key.get(), &type, value, &len);
  if (rc != 0)
    call.report("hvsapi_get_value", rc, key_name);
  else
    *flag = txticmp(value, "FALSE") != 0 ? 1 : 0;
}
