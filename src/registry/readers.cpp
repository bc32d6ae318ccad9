/* The shared value readers: one value of any length, a multi-string, the
 * subkeys of a key, and the case-preserved names of a list of subkeys. */
#include <cstring>

#include "frame/frame.h"
#include "registry/registry.h"

using namespace prsr;

extern "C" PRSR_INTERNAL int32_t prsr_open_get_value(prsr_ctx *ctx, void *hvs_handle,
                                                     const char *key_name, char **value_out) {
  Call call(ctx->metactx, hvs_handle, ctx->trace_comp, "prsr_open_get_value");
  void *meta = call.meta;
  uintptr_t comp = call.comp;
  constexpr uint32_t kFirst = 64;

  *value_out = static_cast<char *>(u_allocm(meta, kFirst));
  if (*value_out == nullptr) {
    return call.no_memory(kFirst);
  }
  OpenKey key(hvs_handle);
  int32_t rc = key.open(key_name);
  if (rc != 0) {
    call.report("hvsapi_open_key", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }
  uint32_t type = 0;
  uint32_t len = kFirst;
  rc = read_text(hvs_handle, key.get(), &type, *value_out, &len);
  if (rc == HVS_ERR_SMALL_BUFFER) {
    u_freem(meta, *value_out);
    const uint32_t need = len;
    *value_out = static_cast<char *>(u_allocm(meta, need));
    if (*value_out == nullptr) {
      return call.no_memory(need);
    }
    rc = hvsapi_get_value(hvs_handle, key.get(), &type, *value_out, &len);
    if (rc != 0) {
      call.report("hvsapi_get_value", rc, key_name);
      return rc;
    }
    /* The block is exactly the value: a value without its own NUL at the
     * end is no text, and no caller may run off its end. */
    if (len == 0 || len > need || (*value_out)[len - 1] != '\0') {
      trcprintf(comp, 0, "prsr_open_get_value: value of key %s is not a text (%d bytes, no NUL)",
                key_name, static_cast<int>(len));
      return PRSR_ERR_REGISTRY;
    }
  } else if (rc != 0) {
    call.report("hvsapi_get_value", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL int32_t prsr_get_multivalues(void *metactx, uintptr_t trace_comp,
                                                      void *hvs_handle, const char *key_name,
                                                      char ***list_out, uint32_t *count_out) {
  Call call(metactx, hvs_handle, trace_comp, "prsr_get_multivalues");
  constexpr uint32_t kFirst = kValueMax;
  *count_out = 0;
  trcprintf(trace_comp, 4, "prsr_get_multivalues: inkey_name = %s", key_name);

  OpenKey key(hvs_handle);
  if (key.open(key_name) != 0) {
    trcprintf(trace_comp, 4, "prsr_get_multivalues:NO SUBKEYS");
    return PRSR_SUCCESS;
  }
  Owned<char> first(metactx);
  if (!first.allocate(kFirst))
    return call.no_memory(kFirst);
  Owned<char> second(metactx);
  uint32_t type = 0;
  uint32_t len = kFirst;
  char *value = first.get();
  int32_t rc = read_text(hvs_handle, key.get(), &type, value, &len);
  if (rc == HVS_ERR_SMALL_BUFFER) {
    if (!second.allocate(uint64_t{len} + 1))
      return call.no_memory(uint64_t{len} + 1);
    value = second.get();
    rc = hvsapi_get_value(hvs_handle, key.get(), &type, value, &len);
  }
  if (rc != 0) {
    call.report("hvsapi_get_value", rc, key_name);
    return PRSR_SUCCESS;
  }
  trcprintf(trace_comp, 4, "prsr_get_multivalues: SUCCESS in getting value [%s]", value);
  if (len == 0) {
    *list_out = nullptr;
    return PRSR_SUCCESS;
  }
  uint32_t nuls = 0;
  for (uint32_t i = 0; i < len; ++i)
    nuls += value[i] == '\0';
  trcprintf(trace_comp, 4, "prsr_get_multivalues: Number of strings = %d",
            static_cast<int>(nuls) - 1);
  uint32_t count = nuls ? nuls - 1 : 0;
  if (count == 0) {
    *list_out = nullptr;
    return PRSR_SUCCESS;
  }

  uint64_t table_size = uint64_t{count} * sizeof(char *);
  auto **table = static_cast<char **>(u_allocm(metactx, table_size));
  *list_out = table;
  if (table == nullptr) {
    call.no_memory(table_size);
    *count_out = 0;
    return PRSR_ERR_MEMORY;
  }
  *count_out = count;
  uint32_t pos = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const char *s = value + pos;
    if (*s == '\0')
      break; /* an empty string ends the list */
    uint32_t n = static_cast<uint32_t>(std::strlen(s));
    trcprintf(trace_comp, 4, "prsr_get_multivalues: value length = %d", static_cast<int>(n));
    auto *text = static_cast<char *>(u_allocm(metactx, uint64_t{n} + 1));
    if (text == nullptr) {
      call.no_memory(uint64_t{n} + 1);
      key.close();
      free_texts(metactx, table, count);
      *list_out = nullptr;
      *count_out = 0;
      return PRSR_ERR_MEMORY;
    }
    trcprintf(trace_comp, 4, "prsr_get_multivalues: successful memory allocation");
    std::memcpy(text, s, n);
    table[i] = text;
    trcprintf(trace_comp, 4, "prsr_get_multivalues: next string = [%s]", text);
    pos += n + 1;
    if (pos >= len - 1)
      break;
  }
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL int32_t prsr_get_subkeys(void *metactx, uintptr_t trace_comp,
                                                  void *hvs_handle, const char *key_name,
                                                  char ***names_out, uint32_t *count_out) {
  Call call(metactx, hvs_handle, trace_comp, "prsr_get_subkeys");
  *count_out = 0;
  OpenKey key(hvs_handle);
  if (key.open(key_name) != 0) {
    trcprintf(trace_comp, 4, "prsr_get_subkeys:NO SUBKEYS");
    return PRSR_SUCCESS;
  }
  Owned<char> name(metactx);
  if (!name.allocate(kKeyMax))
    return call.no_memory(kKeyMax);
  uint32_t len = kKeyMax;
  int32_t remaining = 0;
  int32_t rc = hvsapi_enum_subkey(hvs_handle, key.get(), name.get(), &len, &remaining);
  if (rc == HVS_ERR_NO_MORE && remaining < 0) {
    *names_out = nullptr;
    return PRSR_SUCCESS;
  }
  if (rc != 0) {
    call.report("hvsapi_enum_subkey", rc, key_name);
    return PRSR_ERR_REGISTRY;
  }

  uint32_t count = static_cast<uint32_t>(remaining) + 1;
  uint64_t table_size = uint64_t{count} * sizeof(char *);
  auto **table = static_cast<char **>(u_allocm(metactx, table_size));
  *names_out = table;
  if (table == nullptr) {
    return call.no_memory(table_size);
  }
  auto fail = [&](int32_t result) {
    free_texts(metactx, table, count);
    *names_out = nullptr;
    *count_out = 0;
    return result;
  };
  for (uint32_t i = 0; i < count; ++i) {
    if (i > 0) {
      int32_t further = 0;
      len = kKeyMax;
      rc = hvsapi_enum_subkey(hvs_handle, key.get(), name.get(), &len, &further);
      if (rc != 0) {
        call.report("hvsapi_enum_subkey", rc, key_name);
        return fail(PRSR_ERR_REGISTRY);
      }
    }
    table[i] = prsr_dup_bytes(metactx, name.get(), static_cast<uint32_t>(strnlen(name.get(), len)));
    if (table[i] == nullptr) {
      call.no_memory(uint64_t{len} + 1);
      return fail(PRSR_ERR_MEMORY);
    }
    if (i > 0)
      trcprintf(trace_comp, 4, " prsr_get_subkeys: out key name is %s", table[i]);
  }
  *count_out = count;
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL int32_t prsr_get_case_preserved_values(void *metactx, uintptr_t trace_comp,
                                                                void *hvs_handle,
                                                                const char *parent_key,
                                                                char **names, uint32_t count,
                                                                char **values_out) {
  Call call(metactx, hvs_handle, trace_comp, "prsr_get_case_preserved_values");
  for (uint32_t i = 0; i < count; ++i) {
    size_t name_len = std::strlen(names[i]);
    KeyBlock joined(call);
    if (!joined.build(KeyParts{parent_key, names[i]}))
      return PRSR_ERR_MEMORY;
    OpenKey key(hvs_handle);
    int32_t rc = key.open(joined.get());
    if (rc != 0) {
      call.report("hvsapi_open_key", rc, joined.get());
      return PRSR_ERR_REGISTRY;
    }
    Owned<char> value(metactx);
    if (!value.allocate(name_len + 1))
      return call.no_memory(uint64_t{name_len} + 1);
    uint32_t type = 0;
    uint32_t len = static_cast<uint32_t>(name_len) + 1;
    rc = read_text(hvs_handle, key.get(), &type, value.get(), &len);
    if (rc != 0) {
      call.report("hvsapi_get_value", rc, joined.get());
      return PRSR_ERR_REGISTRY;
    }
    values_out[i] = value.release();
    key.close();
    trcprintf(trace_comp, 4, "prsr_get_case_preserved_values: CASE PRESERVED NAME = %s",
              values_out[i]);
  }
  return PRSR_SUCCESS;
}

extern "C" PRSR_INTERNAL char *prsr_dup_bytes(void *metactx, const void *bytes, uint32_t length) {
  if (metactx == nullptr)
    return nullptr;
  auto *p = static_cast<char *>(u_allocm(metactx, uint64_t{length} + 1));
  if (p != nullptr && length > 0)
    std::memcpy(p, bytes, length);
  return p;
}
