/* Names with their case preserved: an instance's, the instance's on a
 * node, the database's; and the database's domain. */
#include <algorithm>
#include <cstring>

#include "frame/frame.h"
#include "operations/points.h"
#include "registry/registry.h"

using namespace prsr;

namespace {

/* The case-preserved name held by `key`, into the caller's buffer: the key
 * is opened first, so that a missing one reads as missing (7), and closed
 * after the value is handed over. */
int32_t read_name(const Call &call, const char *key, uint32_t size, char *name) {
  OpenKey k(call.hvs);
  int32_t rc = k.open(key);
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key);
    return rc == HVS_ERR_NO_KEY ? PRSR_ERR_NO_KEY : PRSR_ERR_REGISTRY;
  }
  Owned<char> value(call.meta);
  rc = prsr_open_get_value(call.ctx, call.hvs, key, value.out());
  rc = deliver_name(rc, value.get(), size, name);
  k.close();
  return rc;
}

} // namespace

extern "C" PRSR_API int32_t prsr_get_instance_name(lks_status *, prsr_ctx *ctx, const char *dbname,
                                                   const char *instname, uint32_t size,
                                                   char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::instance(dbname, instname).fits() || size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_instance_name");
  NameCopy db(call), inst(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !inst.lower(instname) ||
      !key.build(keys::instance(db.get(), inst.get()), kKeyMax))
    return PRSR_ERR_MEMORY;
  return read_name(call, key.get(), size, name);
}

extern "C" PRSR_API int32_t prsr_get_spname(lks_status *, prsr_ctx *ctx, const char *dbname,
                                            uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::database(dbname).fits() || size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_spname");
  NameCopy db(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !key.build(keys::database(db.get()), kKeyMax))
    return PRSR_ERR_MEMORY;
  return read_name(call, key.get(), size, name);
}

extern "C" PRSR_API int32_t prsr_get_domain(lks_status *, prsr_ctx *ctx, const char *dbname,
                                            char **domain_out) {
  if (ctx == nullptr || dbname == nullptr || !session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (!keys::database_leaf(dbname, "DOMAIN").fits() || domain_out == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_domain");
  NameCopy db(call);
  KeyBlock key(call);
  if (!db.lower(dbname) || !key.build(keys::database_leaf(db.get(), "DOMAIN")))
    return PRSR_ERR_MEMORY;
  trcprintf(call.comp, 4, "prsr_get_domain: key_name = [%s]", key.get());

  /* From here on the caller's pointer is only ever NULL or the domain. */
  *domain_out = nullptr;
  int32_t rc = prsr_open_get_value(ctx, call.hvs, key.get(), domain_out);
  if (rc != PRSR_SUCCESS) {
    if (*domain_out != nullptr)
      u_freem(call.meta, *domain_out);
    *domain_out = nullptr;
  }
  return rc;
}

extern "C" PRSR_API int32_t prsr_free_domain(prsr_ctx *ctx, char *domain) {
  if (ctx == nullptr || domain == nullptr)
    return PRSR_ERR_SESSION;
  u_freem(ctx->metactx, domain);
  return PRSR_SUCCESS;
}

namespace {

/* The walk of prsr_get_node_instance_name over the open INSTANCE key: the
 * caller's buffer receives each key component in turn (at most `cap`
 * bytes), and on a match the instance's case-preserved name. `key` is the
 * fixed key buffer, `value` holds the last value read. */
int32_t find_node_instance(const Call &call, void *instances, const char *db, const char *node,
                           char *key, Owned<char> &value, uint32_t cap, uint32_t size, char *name) {
  prsr_ctx *ctx = call.ctx;
  void *hvs = call.hvs;

  while (true) {
    uint32_t len = cap;
    int32_t remaining = 0;
    int32_t rc = hvsapi_enum_subkey(hvs, instances, name, &len, &remaining);
    if (rc == HVS_ERR_NO_MORE) {
      name[0] = '\0';
      return PRSR_SUCCESS;
    }
    if (rc != 0) {
      name[0] = '\0';
      keys::instance_branch(db).join(key);
      call.report("hvsapi_enum_subkey", rc, key);
      return PRSR_ERR_REGISTRY;
    }
    keys::instance_leaf(db, name, "NODE").join(key);
    value.reset();
    rc = prsr_open_get_value(ctx, hvs, key, value.out());
    if (rc != PRSR_SUCCESS) {
      name[0] = '\0';
      return rc;
    }
    /* Byte for byte: a node stored with a capital never matches. */
    if (std::strcmp(value.get(), node) == 0)
      break;
    if (remaining <= 0) {
      name[0] = '\0';
      return PRSR_SUCCESS;
    }
  }
  value.reset();
  keys::instance(db, name).join(key);
  int32_t rc = prsr_open_get_value(ctx, hvs, key, value.out());
  return deliver_name(rc, value.get(), size, name);
}

} // namespace

extern "C" PRSR_API int32_t prsr_get_node_instance_name(lks_status *status, prsr_ctx *ctx,
                                                        const char *dbname, const char *node,
                                                        uint32_t size, char *name) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  /* Room for the NODE key of an instance with at least a one-byte name. */
  if (dbname == nullptr || keys::instance_leaf(dbname, "", "NODE").room() <= 1 || node == nullptr ||
      size == 0 || name == nullptr)
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_node_instance_name");
  void *meta = call.meta;
  void *hvs = call.hvs;
  /* A component longer than this would not fit the key buffer: the
   * enumeration refuses it as too long for the buffer. */
  uint32_t cap = std::min<uint32_t>(
      size, static_cast<uint32_t>(keys::instance_leaf(dbname, "", "NODE").room()));

  NameCopy db(call), nd(call);
  if (!db.lower(dbname) || !nd.lower(node))
    return PRSR_ERR_MEMORY;
  Owned<char> key(meta);
  if (!key.allocate(kKeyMax))
    return call.no_memory(kKeyMax);

  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, db.get());
  if (rc != 0)
    return rc;
  keys::instance_branch(db.get()).join(key.get());
  OpenKey instances(hvs);
  Owned<char> value(meta);
  rc = instances.open(key.get());
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key.get());
    rc = PRSR_ERR_REGISTRY;
  } else {
    rc = find_node_instance(call, instances.get(), db.get(), nd.get(), key.get(), value, cap, size,
                            name);
  }
  /* The lock goes back before the INSTANCE key is closed. */
  lock.release();
  instances.close();
  return rc;
}
