/* strtab.h - a hash table of text keys and pointer values.
 *
 * The table never allocates on its own: its header, its bucket array, its
 * nodes and its copies of the keys all come from the allocation callback
 * and go back through the release callback, both called with the ctx given
 * at creation. The hash callback picks the bucket of a key; the delete
 * callback disposes of a value that is still in the table when it is
 * destroyed.
 *
 * Searches may run from several threads at once; an insert, a removal or
 * the destruction excludes everything else (a reader-writer lock).
 *
 * Results:
 *   StrTabCreate   0 created; -1 bad argument or no memory
 *   StrTabSearch   0 or more: found (the bucket), *value_out holds the
 *                  value; -1 not found or bad argument
 *   StrTabInsert   1 inserted; 0 the key is there already (nothing
 *                  changed); -1 bad argument or no memory
 *   StrTabRemove   1 removed, *value_out holds the value that was stored
 *                  (not disposed of); 0 no such key; -1 bad argument
 *   StrTabDestroy  the number of values handed to the delete callback, or
 *                  -1 for a NULL table
 */
#ifndef STRTAB_H
#define STRTAB_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* The bucket of key among buckets (the result is taken modulo buckets
 * once more, so a stray value cannot index out of the array). */
typedef uint32_t (*strtab_hash_fn)(void *ctx, const char *key, uint32_t buckets);
/* A zero-filled block of size bytes, or NULL. */
typedef void *(*strtab_alloc_fn)(void *ctx, uint32_t size);
/* Gives a block of the allocation callback back; the result is not read. */
typedef int32_t (*strtab_free_fn)(void *ctx, void *block);
/* Disposes of a value left in the table at its destruction; not read. */
typedef int32_t (*strtab_delete_fn)(void *ctx, const char *key, void *value);

typedef struct strtab strtab;

/* Keys longer than this (without NUL) are refused by insert. */
#define STRTAB_KEY_MAX 4095u

int32_t StrTabCreate(void *ctx, uint32_t buckets, strtab_hash_fn hash,
                     strtab_alloc_fn alloc, strtab_free_fn release,
                     strtab_delete_fn del, strtab **table_out);
int32_t StrTabSearch(strtab *table, const char *key, void **value_out);
int32_t StrTabInsert(strtab *table, const char *key, void *value);
int32_t StrTabRemove(strtab *table, const char *key, void **value_out);
/* The number of entries. */
uint32_t StrTabCount(strtab *table);
int32_t StrTabDestroy(strtab *table);

#ifdef __cplusplus
}
#endif
#endif
