/* version.h - may a program of one version work with data persisted by
 * another? */
#ifndef PRSR_UTIL_VERSION_H
#define PRSR_UTIL_VERSION_H
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define U_VERSION_COMPATIBLE 0
#define U_VERSION_BAD_TEXT 1
#define U_VERSION_INCOMPATIBLE 4

/* Compares the major (bits 24-31) and then the minor (bits 20-23) field of
 * the two packed versions (see ver.h for the text form): a program works
 * with data of its own level and of any lower one. 0 compatible, 1 a text
 * is NULL or not a version, 4 not compatible. */
int32_t u_version_compatible(const char *program_version, const char *persist_version);

#ifdef __cplusplus
}
#endif
#endif
