/* errtab.h - the per-thread error records of a registry client.
 *
 * Each thread that was entered in the table has a record of its own; every
 * other thread shares the global record. Records hold the registry's error
 * and a component error, each with a text formatted from the message
 * catalogue.
 */
#ifndef PRSR_UTIL_ERRTAB_H
#define PRSR_UTIL_ERRTAB_H
#include <stdarg.h>
#include <stdint.h>

#include "msg.h"
#include "strtab.h"
#include "thr.h"

#ifdef __cplusplus
extern "C" {
#endif

#define U_ERRTEXT_MAX 1024
/* Size of a thread key: thridprint() output with its NUL. */
#define U_THREADKEY_MAX 256
/* The component message whose text the caller gives whole. */
#define U_MSG_PLAIN_TEXT 108
/* Initial value of the thread-key hash. */
#define U_ERROR_HASH_INIT 0x3E6B2FCFu

typedef struct hvs_error_rec {
  int32_t hvs_error;             /* the registry error number */
  char hvs_text[U_ERRTEXT_MAX];  /* "FACILITY-NUMBER: " + catalogue text */
  int32_t comp_type;             /* message number of the component text */
  int32_t comp_error;            /* the component's own error number */
  char comp_text[U_ERRTEXT_MAX]; /* formatted catalogue text of comp_type */
} hvs_error_rec;

typedef struct hvs_error_table {
  hvs_error_rec *global_error; /* threads without an entry share this one */
  strtab *thread_table;        /* thread id text -> hvs_error_rec * */
} hvs_error_table;

/* What the error operations read of the utility context. Whoever builds
 * it owns every member; error_table, nls_state and format_handle must be
 * non-NULL for anything to be recorded. */
typedef struct hvs_util_ctx {
  void *metactx;
  void *thread_ctx;
  void *nls_state;
  msgcat msg_catalogue;
  void *cat_state; /* NULL: the catalogue is taken as not ready (a notice) */
  hvs_error_table *error_table;
  void *format_handle; /* first argument of txtvformat() */
  const char *facility;
} hvs_util_ctx;

/* The record of thread (NULL: the calling thread), or the global one. */
void u_get_error(hvs_util_ctx *ctx, const thr_id *thread, hvs_error_rec **rec_out);
/* Enters a zeroed record under key (thridprint() text): 0, or 1 when it
 * cannot be allocated or the table refuses it. */
int32_t u_insert_error(hvs_util_ctx *ctx, const char *key);
/* Removes and frees the record under key. */
void u_delete_error(hvs_util_ctx *ctx, const char *key);
/* Zeroes the numbers and texts of the thread's record. */
void u_clear_error(hvs_util_ctx *ctx, const thr_id *thread);
/* Copies all fields; NULL on either side does nothing. */
void u_copy_error(hvs_error_rec *dst, const hvs_error_rec *src);

/* Records a registry error: hvs_error and hvs_text, whose catalogue
 * message (number err) takes the arguments that follow. */
void u_set_hvs_error(hvs_util_ctx *ctx, const thr_id *thread, int32_t err, ...);
/* Records a component error; message comp_type takes ap, except 108 whose
 * one argument is the whole text. */
void u_set_comp_error(hvs_util_ctx *ctx, const thr_id *thread, int32_t comp_type,
                      int32_t comp_error, va_list ap);
void u_set_comp_error_thr(hvs_util_ctx *ctx, const thr_id *thread, int32_t comp_type,
                          int32_t comp_error, ...);
void u_set_comp_error_cur(hvs_util_ctx *ctx, int32_t comp_type, int32_t comp_error, ...);
/* Formats catalogue message msgno into dst (size bytes) and logs it. */
void u_fill_errorbuf(hvs_util_ctx *ctx, char *dst, uint32_t size, uint32_t msgno, ...);

/* Callbacks for the creator of thread_table (StrTabCreate). */
int32_t u_error_delete(void *metactx, const char *key, void *value);
uint32_t u_error_hash(void *unused, const char *key, uint32_t buckets);
void *u_error_alloc(void *metactx, uint32_t size);
int32_t u_error_free(void *metactx, void *block);

/* The 32-bit lookup2 hash of length bytes at k. */
uint32_t u_lookup2(const void *k, uint32_t length, uint32_t initval);

#ifdef __cplusplus
}
#endif
#endif
