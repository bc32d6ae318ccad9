/* The per-thread error table: each thread entered in the table keeps its
 * own registry and component error; all others share the global record.
 * The table itself guards its own inserts and searches; each thread writes
 * only its own record, so nothing here takes a lock. */
#include "util/errtab.h"

#include <cstdarg>
#include <cstring>

#include "txt.h"
#include "util/ucommon.h"
#include "util/umem.h"

using prsru::comp;

namespace {

constexpr uint32_t kGolden = 0x9E3779B9u;
constexpr size_t kWork = 512;

inline void mix(uint32_t &a, uint32_t &b, uint32_t &c) {
  a -= b; a -= c; a ^= (c >> 13);
  b -= c; b -= a; b ^= (a << 8);
  c -= a; c -= b; c ^= (b >> 13);
  a -= b; a -= c; a ^= (c >> 12);
  b -= c; b -= a; b ^= (a << 16);
  c -= a; c -= b; c ^= (b >> 5);
  a -= b; a -= c; a ^= (c >> 3);
  b -= c; b -= a; b ^= (a << 10);
  c -= a; c -= b; c ^= (b >> 15);
}

inline uint32_t le32(const unsigned char *k) {
  return uint32_t{k[0]} | (uint32_t{k[1]} << 8) | (uint32_t{k[2]} << 16) | (uint32_t{k[3]} << 24);
}

bool incomplete(const hvs_util_ctx *ctx) {
  return ctx->error_table == nullptr || ctx->nls_state == nullptr ||
         ctx->format_handle == nullptr;
}

/* The text of a catalogue message into dst; the outputs beyond the text
 * are not used. */
void catalogue_text(hvs_util_ctx *ctx, uint32_t msgno, char *dst, size_t size) {
  char work[kWork];
  uint64_t len = 0;
  uint32_t found = 0, status = 0;
  uintptr_t r = msggettext(&ctx->msg_catalogue, msgno, dst, size, &len, work, kWork, &found,
                           &status);
  (void)r;
}

/* Ends the formatted text at count unless it ends there already. */
void terminate_at(char *text, int32_t count, uint32_t size) {
  if (count > 0 && static_cast<uint32_t>(count) < size && text[count - 1] != '\0')
    text[count] = '\0';
}

/* The facility with every "%" doubled, so that it passes a printf format
 * as plain text; cut short to fit cap. */
void escape_percent(const char *in, char *out, size_t cap) {
  size_t w = 0;
  for (; in != nullptr && *in != '\0' && w + 2 < cap; ++in) {
    if (*in == '%')
      out[w++] = '%';
    out[w++] = *in;
  }
  out[w] = '\0';
}

} // namespace

extern "C" uint32_t u_lookup2(const void *key, uint32_t length, uint32_t initval) {
  const auto *k = static_cast<const unsigned char *>(key);
  uint32_t a = kGolden, b = kGolden, c = initval;
  uint32_t len = length;
  while (len >= 12) {
    a += le32(k);
    b += le32(k + 4);
    c += le32(k + 8);
    mix(a, b, c);
    k += 12;
    len -= 12;
  }
  c += length;
  /* The lowest byte of c is taken by the length. */
  switch (len) {
  case 11: c += uint32_t{k[10]} << 24; [[fallthrough]];
  case 10: c += uint32_t{k[9]} << 16; [[fallthrough]];
  case 9: c += uint32_t{k[8]} << 8; [[fallthrough]];
  case 8: b += uint32_t{k[7]} << 24; [[fallthrough]];
  case 7: b += uint32_t{k[6]} << 16; [[fallthrough]];
  case 6: b += uint32_t{k[5]} << 8; [[fallthrough]];
  case 5: b += k[4]; [[fallthrough]];
  case 4: a += uint32_t{k[3]} << 24; [[fallthrough]];
  case 3: a += uint32_t{k[2]} << 16; [[fallthrough]];
  case 2: a += uint32_t{k[1]} << 8; [[fallthrough]];
  case 1: a += k[0]; break;
  default: break;
  }
  mix(a, b, c);
  return c;
}

extern "C" uint32_t u_error_hash(void *, const char *key, uint32_t buckets) {
  if (key == nullptr || buckets == 0)
    return 0;
  uint32_t h = u_lookup2(key, static_cast<uint32_t>(std::strlen(key)), U_ERROR_HASH_INIT);
  return (h & 0xFFFFu) % buckets;
}

extern "C" int32_t u_error_delete(void *metactx, const char *, void *value) {
  u_freem(metactx, value);
  return 1;
}

extern "C" void *u_error_alloc(void *metactx, uint32_t size) { return u_allocm(metactx, size); }

extern "C" int32_t u_error_free(void *metactx, void *block) {
  u_freem(metactx, block);
  return 1;
}

extern "C" void u_get_error(hvs_util_ctx *ctx, const thr_id *thread, hvs_error_rec **rec_out) {
  if (rec_out == nullptr)
    return;
  *rec_out = nullptr;
  if (ctx == nullptr || ctx->error_table == nullptr)
    return;
  hvs_error_table *table = ctx->error_table;
  char key[U_THREADKEY_MAX];
  if (thread != nullptr) {
    std::memset(key, 0, sizeof key);
    thridprint(ctx->thread_ctx, thread, key, U_THREADKEY_MAX);
  } else {
    thr_id self;
    if (thridinit(ctx->thread_ctx, &self) != 0) {
      trcprintf(comp(), 4,
                "u_get_error: Failed to initialize the thread id. Using the global error element.");
      *rec_out = table->global_error;
      return;
    }
    thrgetid(ctx->thread_ctx, &self);
    std::memset(key, 0, sizeof key);
    thridprint(ctx->thread_ctx, &self, key, U_THREADKEY_MAX);
    thriddestroy(ctx->thread_ctx, &self);
  }
  key[U_THREADKEY_MAX - 1] = '\0';
  void *found = nullptr;
  if (StrTabSearch(table->thread_table, key, &found) >= 0) {
    trcprintf(comp(), 4, "u_get_error: Using thread [%s]", key);
    *rec_out = static_cast<hvs_error_rec *>(found);
  } else {
    trcprintf(comp(), 4, "u_get_error: Thread [%s] not in table. Using main thread", key);
    *rec_out = table->global_error;
  }
}

extern "C" int32_t u_insert_error(hvs_util_ctx *ctx, const char *key) {
  if (ctx == nullptr || ctx->error_table == nullptr || key == nullptr)
    return 1;
  auto *rec = static_cast<hvs_error_rec *>(u_allocm(ctx->metactx, sizeof(hvs_error_rec)));
  if (rec == nullptr) {
    trcprintf(comp(), 0, "u_insert_error: Alloc returned NULL");
    return 1;
  }
  int32_t r = StrTabInsert(ctx->error_table->thread_table, key, rec);
  if (r > 0) {
    trcprintf(comp(), 5, "u_insert_error: Hashkey %s insert successful", key);
    return 0;
  }
  trcprintf(comp(), 0, "u_insert_error: Hashkey %s insert failed with retval %d", key,
            static_cast<int>(r));
  u_freem(ctx->metactx, rec);
  return 1;
}

extern "C" void u_delete_error(hvs_util_ctx *ctx, const char *key) {
  if (ctx == nullptr || ctx->error_table == nullptr || key == nullptr)
    return;
  void *removed = nullptr;
  int32_t r = StrTabRemove(ctx->error_table->thread_table, key, &removed);
  if (r > 0) {
    trcprintf(comp(), 5, "u_delete_error: Hashkey %s remove successful", key);
    u_error_delete(ctx->metactx, key, removed);
  } else {
    trcprintf(comp(), 1, "u_delete_error: Hashkey %s remove failed with retval %d", key,
              static_cast<int>(r));
  }
}

extern "C" void u_clear_error(hvs_util_ctx *ctx, const thr_id *thread) {
  hvs_error_rec *rec = nullptr;
  u_get_error(ctx, thread, &rec);
  if (rec == nullptr)
    return;
  rec->hvs_error = 0;
  rec->comp_type = 0;
  rec->comp_error = 0;
  std::memset(rec->hvs_text, 0, sizeof rec->hvs_text);
  std::memset(rec->comp_text, 0, sizeof rec->comp_text);
}

extern "C" void u_copy_error(hvs_error_rec *dst, const hvs_error_rec *src) {
  if (dst == nullptr || src == nullptr)
    return;
  dst->hvs_error = src->hvs_error;
  std::memcpy(dst->hvs_text, src->hvs_text, sizeof dst->hvs_text);
  dst->comp_type = src->comp_type;
  dst->comp_error = src->comp_error;
  std::memcpy(dst->comp_text, src->comp_text, sizeof dst->comp_text);
}

extern "C" void u_set_hvs_error(hvs_util_ctx *ctx, const thr_id *thread, int32_t err, ...) {
  if (ctx == nullptr || incomplete(ctx)) {
    trcprintf(comp(), 0, "u_set_hvs_error: Parameter was NULL");
    return;
  }
  hvs_error_rec *rec = nullptr;
  u_get_error(ctx, thread, &rec);
  if (rec == nullptr)
    return;
  trcprintft(comp(), 4, "u_set_hvs_error: Setting hvs error [%d]", static_cast<int>(err));
  rec->hvs_error = err;
  if (ctx->cat_state == nullptr)
    trcprintft(comp(), 1, "u_set_hvs_error: CAT/NLS not initialized");
  std::memset(rec->hvs_text, 0, sizeof rec->hvs_text);

  /* The prefix is written first and then passes the format as plain text,
   * while the catalogue text behind it takes the caller's arguments. */
  char format[U_ERRTEXT_MAX];
  char facility[U_ERRTEXT_MAX / 2];
  std::memset(format, 0, sizeof format);
  escape_percent(ctx->facility, facility, sizeof facility);
  txtprintf(format, "%s-%d: ", facility, static_cast<int>(err));
  size_t n = std::strlen(format);
  catalogue_text(ctx, static_cast<uint32_t>(err), format + n, sizeof format - n);

  va_list ap;
  va_start(ap, err);
  int32_t c = txtvformat(ctx->format_handle, rec->hvs_text, U_ERRTEXT_MAX - 1, format, ap);
  va_end(ap);
  terminate_at(rec->hvs_text, c, U_ERRTEXT_MAX);
}

extern "C" void u_set_comp_error(hvs_util_ctx *ctx, const thr_id *thread, int32_t comp_type,
                                 int32_t comp_error, va_list ap) {
  if (ctx == nullptr || incomplete(ctx)) {
    trcprintf(comp(), 0, "u_set_comp_error: Parameter was NULL");
    return;
  }
  hvs_error_rec *rec = nullptr;
  u_get_error(ctx, thread, &rec);
  if (rec == nullptr)
    return;
  trcprintft(comp(), 4, "u_set_comp_error: Setting comp error [%d] for comp type [%d]",
             static_cast<int>(comp_error), static_cast<int>(comp_type));
  rec->comp_type = comp_type;
  rec->comp_error = comp_error;
  std::memset(rec->comp_text, 0, sizeof rec->comp_text);
  char format[U_ERRTEXT_MAX];
  std::memset(format, 0, sizeof format);
  const char *fmt = format;
  if (comp_type == U_MSG_PLAIN_TEXT)
    fmt = "%s";
  else
    catalogue_text(ctx, static_cast<uint32_t>(comp_type), format, sizeof format);
  va_list copy;
  va_copy(copy, ap);
  int32_t c = txtvformat(ctx->format_handle, rec->comp_text, U_ERRTEXT_MAX - 1, fmt, copy);
  va_end(copy);
  terminate_at(rec->comp_text, c, U_ERRTEXT_MAX);
}

extern "C" void u_set_comp_error_thr(hvs_util_ctx *ctx, const thr_id *thread, int32_t comp_type,
                                     int32_t comp_error, ...) {
  va_list ap;
  va_start(ap, comp_error);
  u_set_comp_error(ctx, thread, comp_type, comp_error, ap);
  va_end(ap);
}

extern "C" void u_set_comp_error_cur(hvs_util_ctx *ctx, int32_t comp_type, int32_t comp_error,
                                     ...) {
  va_list ap;
  va_start(ap, comp_error);
  u_set_comp_error(ctx, nullptr, comp_type, comp_error, ap);
  va_end(ap);
}

extern "C" void u_fill_errorbuf(hvs_util_ctx *ctx, char *dst, uint32_t size, uint32_t msgno,
                                ...) {
  if (ctx == nullptr || incomplete(ctx) || dst == nullptr || size == 0)
    return;
  dst[0] = '\0';
  char format[U_ERRTEXT_MAX];
  std::memset(format, 0, sizeof format);
  catalogue_text(ctx, msgno, format, sizeof format);
  va_list ap;
  va_start(ap, msgno);
  int32_t c = txtvformat(ctx->format_handle, dst, size - 1, format, ap);
  va_end(ap);
  terminate_at(dst, c, size);
  trcprintf(comp(), 0, "u_fill_errorbuf: Error Info : [%s]", dst);
}
