/* Listings: every database with its case preserved, and the instances of
 * one service with their nodes. */
#include <cstring>

#include "database/database.h"
#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

using keys::kDatabases;

extern "C" PRSR_API int32_t prsr_list_db(lks_status *status, prsr_ctx *ctx, char ***list_out,
                                         uint32_t *count_out) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (list_out == nullptr || count_out == nullptr)
    return PRSR_ERR_ARGUMENT;
  void *meta = ctx->metactx;
  uintptr_t comp = ctx->trace_comp;
  trcprintf(comp, 4, "prsr_list_db: Listing the databases");
  trcprintf(comp, 4, "prsr_list_db: Listing the databases under key %s", kDatabases);

  BranchLock lock(ctx);
  int32_t rc = lock.shared(status, nullptr);
  if (rc != 0)
    return rc;

  /* An enumeration that fails is in the log and lists nothing. */
  char **names = nullptr;
  prsr_get_subkeys(meta, comp, ctx->hvs_handle, kDatabases, &names, count_out);
  uint32_t count = *count_out;

  uint64_t size = uint64_t{count} * sizeof(char *);
  auto **table = static_cast<char **>(u_allocm(meta, size));
  *list_out = table;
  if (table == nullptr) {
    trcprintf(comp, 0, "prsr_listdb: failed to allocate %d byte", static_cast<int>(size));
    free_texts(meta, names, count);
    lock.release();
    return PRSR_ERR_ARGUMENT;
  }
  /* On a failure the table stays with the caller, its entries NULL from the
   * failing one on. */
  rc = prsr_get_case_preserved_values(meta, comp, ctx->hvs_handle, kDatabases, names, count, table);
  for (uint32_t i = 0; i < count; ++i)
    if (names[i] != nullptr)
      u_freem(meta, names[i]);
  u_freem(meta, names);
  lock.release();
  return rc;
}

extern "C" PRSR_API int32_t prsr_release_db_list(lks_status *, prsr_ctx *ctx, char **list,
                                                 uint32_t count) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (list == nullptr)
    return PRSR_SUCCESS;
  for (uint32_t i = 0; i < count; ++i) {
    if (list[i] != nullptr)
      u_freem(ctx->metactx, list[i]);
    list[i] = nullptr;
  }
  u_freem(ctx->metactx, list);
  return PRSR_SUCCESS;
}

namespace {

/* The three arrays of a service-instance listing. */
struct SrvArrays {
  uint32_t count = 0;
  char **instances = nullptr;
  char **nodes = nullptr;
  uint32_t *avail = nullptr;
};

/* Frees the arrays as prsr_release_srv_instances does. */
void free_arrays(void *meta, SrvArrays *a) {
  free_texts(meta, a->instances, a->count);
  free_texts(meta, a->nodes, a->count);
  if (a->avail != nullptr)
    u_freem(meta, a->avail);
}

} // namespace

extern "C" PRSR_API int32_t prsr_get_srv_instances(lks_status *status, prsr_ctx *ctx,
                                                   const char *dbname, const char *srvname,
                                                   char ***instances, char ***nodes,
                                                   uint32_t **avail, uint32_t *count) {
  if (count != nullptr)
    *count = 0;
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (dbname == nullptr || srvname == nullptr || instances == nullptr || nodes == nullptr ||
      avail == nullptr || count == nullptr)
    return PRSR_ERR_ARGUMENT;
  /* The keys below the INSTANCES key are measured as they are built. */
  if (!keys::service_leaf(dbname, srvname, "INSTANCES").fits())
    return PRSR_ERR_ARGUMENT;
  Call call(ctx, "prsr_get_srv_instances");
  void *meta = call.meta;
  void *hvs = call.hvs;
  uintptr_t comp = call.comp;
  trcprintf(comp, 4, "prsr_get_srv_instances: List of instances for db %s srv %s", dbname, srvname);

  /* Every failure from here on leaves the caller's arrays NULL. */
  auto fail = [&](int32_t rc) {
    *instances = nullptr;
    *nodes = nullptr;
    *avail = nullptr;
    *count = 0;
    return rc;
  };
  auto no_memory = [&](uint64_t size) {
    call.no_memory(size);
    return fail(PRSR_ERR_MEMORY);
  };
  NameCopy db(call), srv(call);
  if (!db.lower(dbname) || !srv.service(srvname))
    return fail(PRSR_ERR_MEMORY);

  char first[kKeyMax];  /* the INSTANCES key, later the INSTANCE branch */
  char second[kKeyMax]; /* the key of the moment */
  char subkey[kKeyMax];
  char value[kValueMax + 1];
  keys::service_leaf(db.get(), srv.get(), "INSTANCES").write(first);

  /* Declared before the lock: the walk's key is closed after the release. */
  OpenKey walk(hvs);
  SrvArrays arrays;
  /* Released as a whole unless handed out. */
  Draft out(&arrays, [meta](SrvArrays *a) { free_arrays(meta, a); });
  BranchLock lock(ctx);
  if (lock.shared(status, db.get()) != 0)
    return fail(PRSR_ERR_REGISTRY);

  int32_t rc = walk.open(first);
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, first);
    return fail(PRSR_ERR_REGISTRY);
  }
  subkey[0] = '\0';
  uint32_t len = kKeyMax;
  int32_t remaining = 0;
  rc = hvsapi_enum_subkey(hvs, walk.get(), subkey, &len, &remaining);
  if (rc == HVS_ERR_NO_MORE && remaining < 0)
    return PRSR_SUCCESS; /* no instances: count 0, arrays untouched */
  if (rc != 0) {
    call.report("hvsapi_enum_key", rc, first);
    return fail(PRSR_ERR_REGISTRY);
  }

  uint32_t n = static_cast<uint32_t>(remaining) + 1;
  uint64_t size = uint64_t{n} * sizeof(char *);
  if ((out->instances = static_cast<char **>(u_allocm(meta, size))) == nullptr)
    return no_memory(size);
  out->count = n;
  if ((out->nodes = static_cast<char **>(u_allocm(meta, size))) == nullptr)
    return no_memory(size);
  size = uint64_t{n} * sizeof(uint32_t);
  if ((out->avail = static_cast<uint32_t *>(u_allocm(meta, size))) == nullptr)
    return no_memory(size);

  /* Reads the text of `name` into value; 0, or the failure already reported. */
  OpenKey key(hvs);
  auto read = [&](const char *name) -> int32_t {
    int32_t r = key.open(name);
    if (r != 0) {
      call.report("hvsapi_open_key", r, name);
      return PRSR_ERR_REGISTRY;
    }
    std::memset(value, 0, sizeof value);
    uint32_t type = 0;
    len = kValueMax;
    r = hvsapi_get_value(hvs, key.get(), &type, value, &len);
    key.close();
    if (r != 0) {
      call.report("hvsapi_get_value", r, name);
      return PRSR_ERR_REGISTRY;
    }
    return PRSR_SUCCESS;
  };
  auto too_long = [&](const char *what) {
    trcprintf(comp, 0, "prsr_get_srv_instances: key name for %s exceeds %d bytes", what,
              static_cast<int>(kKeyMax));
    return fail(PRSR_ERR_REGISTRY);
  };

  /* Name pass, in enumeration order. The first enumeration bounds it; a
   * walk that ends before every entry has its name is a failure, since the
   * node pass needs a name in each. */
  for (uint32_t i = 0; i < n; ++i) {
    if (!KeyParts{first, subkey, "TYPE"}.fits())
      return too_long(subkey);
    KeyParts{first, subkey}.write(second);
    if (read(second) != 0)
      return fail(PRSR_ERR_REGISTRY);
    if ((out->instances[i] = prsr_dup_bytes(meta, value, len)) == nullptr)
      return no_memory(uint64_t{len} + 1);
    KeyParts{first, subkey, "TYPE"}.write(second);
    if (read(second) != 0)
      return fail(PRSR_ERR_REGISTRY);
    out->avail[i] = std::strcmp(value, "AVAILABLE") == 0 ? 1 : 0;

    subkey[0] = '\0';
    len = kKeyMax;
    int32_t further = 0;
    rc = hvsapi_enum_subkey(hvs, walk.get(), subkey, &len, &further);
    if (rc == HVS_ERR_NO_MORE && i + 1 == n)
      break;
    if (rc != 0) {
      call.report("hvsapi_enum_subkey", rc, first);
      return fail(PRSR_ERR_REGISTRY);
    }
  }

  /* Node pass: each instance's NODE under the database's INSTANCE branch. */
  keys::instance_branch(db.get()).write(first);
  for (uint32_t i = 0; i < n; ++i) {
    const char *inst = out->instances[i];
    if (!KeyParts{first, inst, "NODE"}.fits())
      return too_long(inst);
    txtlower(subkey, inst); /* the component as stored: lower case */
    KeyParts{first, subkey, "NODE"}.write(second);
    if (read(second) != 0)
      return fail(PRSR_ERR_REGISTRY);
    if ((out->nodes[i] = prsr_dup_bytes(meta, value, len)) == nullptr)
      return no_memory(uint64_t{len} + 1);
    trcprintf(comp, 4, "\tPRSR %d: inst=%s on node %s, avail=%d", static_cast<int>(i), inst,
              out->nodes[i], static_cast<int>(out->avail[i]));
  }

  lock.release();
  walk.close();
  out.release();
  *instances = arrays.instances;
  *nodes = arrays.nodes;
  *avail = arrays.avail;
  *count = n;
  return PRSR_SUCCESS;
}

extern "C" PRSR_API int32_t prsr_release_srv_instances(lks_status *, prsr_ctx *ctx,
                                                       char **instances, char **nodes,
                                                       uint32_t *avail, uint32_t count) {
  if (!session_ok(ctx))
    return PRSR_ERR_SESSION;
  if (count == 0)
    return PRSR_SUCCESS;
  free_texts(ctx->metactx, instances, count);
  free_texts(ctx->metactx, nodes, count);
  if (avail != nullptr)
    u_freem(ctx->metactx, avail);
  return PRSR_SUCCESS;
}
