/* msg.h - the message catalogue.
 *
 * A catalogue is a text file of numbered printf formats, one a line:
 *
 *   # comment
 *   NUMBER TEXT
 *
 * NUMBER is decimal (0-4294967295), TEXT runs from the first non-blank
 * after it to the end of the line, trailing blanks and CR cut off; "\n",
 * "\t" and "\\" in TEXT stand for a newline, a tab and a backslash. Blank
 * lines and lines whose first non-blank is "#" are ignored. A number may
 * stand once only.
 *
 * Which file: the path given to msgopen(); with NULL, the file named by
 * HVS_MSG_CATALOGUE when it is set and not empty; else the installed
 * catalogue (<datadir>/hvs/hvs.msg) when it exists; else the catalogue of
 * the source tree the library was built from.
 *
 * An open catalogue is never changed, so any number of threads may read
 * from it at once.
 */
#ifndef MSG_H
#define MSG_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* The handle record; zero-filled means "not open". Callers may keep it
 * inside their own records. */
typedef struct msgcat {
  void *impl;
  uint64_t reserved;
} msgcat;

#define MSG_OK 0
#define MSG_ERR_ARGUMENT 1 /* NULL record */
#define MSG_ERR_OPEN 2     /* the file cannot be read */
#define MSG_ERR_FORMAT 3   /* a line is not NUMBER TEXT, or a number repeats */
#define MSG_ERR_MEMORY 4
#define MSG_ERR_NO_TEXT 5  /* msggettext: the number has no text */
#define MSG_ERR_NOT_OPEN 6 /* msggettext: the record was never opened */

/* Reads a catalogue into cat (closing what it held). On a failure cat is
 * left closed and, when detail is not NULL, detail (capacity detail_len)
 * receives "PATH:LINE: problem" or "PATH: reason". */
int32_t msgopen(msgcat *cat, const char *path, char *detail, size_t detail_len);
/* Releases a catalogue; a closed or zeroed record is fine. */
void msgclose(msgcat *cat);
/* The number of messages in an open catalogue, 0 otherwise. */
uint32_t msgcount(const msgcat *cat);

/* Writes the text of message msgno into dst (capacity dst_size, always
 * NUL-terminated when dst_size > 0, cut short when it does not fit).
 *   len_out    the length of the full text (without NUL), 0 when none
 *   work       scratch of work_size bytes: receives "PATH:LINE" of the
 *              message's definition, or "" (may be NULL with work_size 0)
 *   found_out  1 when the number has text, else 0
 *   status_out MSG_OK, MSG_ERR_NO_TEXT, MSG_ERR_NOT_OPEN or
 *              MSG_ERR_ARGUMENT
 * Any of the out pointers may be NULL. A number without text leaves dst
 * as it was. Returns dst as an integer when the text was written, else 0. */
uintptr_t msggettext(msgcat *cat, uint32_t msgno, char *dst, size_t dst_size,
                     uint64_t *len_out, char *work, uint64_t work_size, uint32_t *found_out,
                     uint32_t *status_out);

#ifdef __cplusplus
}
#endif
#endif
