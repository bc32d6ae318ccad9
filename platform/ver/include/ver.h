/* ver.h - version texts.
 *
 * A version text is MAJOR.MINOR[.PATCH[.BUILD]]: two to four fields of
 * decimal digits (at least one digit each, at most 5 digits, no sign, no
 * blanks) separated by single dots, with nothing before or after. Ranges:
 *
 *   field   range    bits of the packed number
 *   MAJOR   0-255    24-31
 *   MINOR   0-15     20-23
 *   PATCH   0-255    12-19   (0 when absent)
 *   BUILD   0-4095    0-11   (0 when absent)
 *
 * So "12.1.0.2" packs to 0x0C100002 and "2.0" to 0x02000000.
 */
#ifndef VER_H
#define VER_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Packs text into *out. Returns 1 for a version text, 0 for anything else
 * (a NULL text or out included), *out then being left alone. */
int32_t verparse(uint32_t *out, const char *text);

/* The fields of a packed number. */
#define VER_MAJOR(v) (((v) >> 24) & 0xffu)
#define VER_MINOR(v) (((v) >> 20) & 0xfu)
#define VER_PATCH(v) (((v) >> 12) & 0xffu)
#define VER_BUILD(v) ((v) & 0xfffu)

#ifdef __cplusplus
}
#endif
#endif
