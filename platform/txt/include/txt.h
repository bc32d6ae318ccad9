/* txt.h - text utilities. Lengths and capacities are in bytes. */
#ifndef TXT_H
#define TXT_H
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Writes exactly len bytes of src to dst, lower-cased (ASCII). No NUL is
 * added; a NUL in src is copied like any byte. */
void txtnlower(char *dst, const char *src, size_t len);
/* As txtnlower(), upper-cased. */
void txtnupper(char *dst, const char *src, size_t len);
/* Writes src lower-cased to dst, with its NUL. */
void txtlower(char *dst, const char *src);
/* 0 when a and b are equal ignoring ASCII case, nonzero otherwise. */
int32_t txticmp(const char *a, const char *b);
/* Replaces every occurrence of search by repl in text, in place. text holds
 * len bytes in a buffer of cap bytes; *size_out receives the new length.
 * Returns 0, or -1 when the result would not fit cap (text unchanged). */
int32_t txtreplace(char *text, size_t len, size_t cap, const char *search,
                   size_t search_len, const char *repl, size_t repl_len,
                   size_t *size_out);
/* Tokenizer: first call with text, then NULL; *pos keeps the position.
 * Runs of delimiters produce no empty tokens. Cuts text with NULs. */
char *txttok(char *text, const char *delims, char **pos);
/* sprintf into a 1024-byte destination (never more). Returns the count. */
int32_t txtprintf(char *dst, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* vsnprintf-like: at most maxlen bytes written to dst, the terminator
 * included when it fits. Returns the characters written, no terminator. */
int32_t txtvformat(void *lang, char *dst, size_t maxlen, const char *fmt,
                   va_list ap) __attribute__((format(printf, 4, 0)));

#ifdef __cplusplus
}
#endif
#endif
