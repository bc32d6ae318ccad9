/* trc.h - trace library.
 *
 * Lines carry a timestamp, the component name and the level. Where they go
 * and which levels pass is read once per process from the environment:
 *   TRC_LEVEL  highest level that passes (default 0; -1 passes nothing)
 *   TRC_DEST   "none" (default), "stderr", or a file path (appended to)
 * A program may also receive lines itself, in-process, through a sink
 * (trcsetsink), whatever the environment says. A call above both the
 * active level and the sink's level returns before any formatting.
 */
#ifndef TRC_H
#define TRC_H
#include <stdarg.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/* Registers a component; returns its handle (never 0 here). Registering the
 * same name again gives the same handle. */
uintptr_t trccompreg(const char *description, const char *name, uint32_t size,
                     int32_t a, int32_t b, uint64_t c, int32_t d);

/* Handle of a component by name, 0 when the name was never registered. */
uintptr_t trcgetcompid(const char *name);

int32_t trcprintf(uintptr_t comp, int32_t level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int32_t trcprintft(uintptr_t comp, int32_t level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int32_t trcprft(uintptr_t comp, int32_t level, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

/* Administration, for tools and tests: change the active level and the
 * destination at run time ("none", "stderr" or a path). */
void trcsetlevel(int32_t level);
int32_t trcgetlevel(void);
int32_t trcsetdest(const char *dest);

/* A program's own receiver of trace lines: called in the tracing thread with
 * the component handle, the level and the message as formatted (no time or
 * component prefix, no trailing newline), for every line of a level up to
 * max_level, whether or not the line also goes to the destination. */
typedef void (*trc_sink_fn)(void *arg, uintptr_t comp, int32_t level, const char *text);

/* Sets the process's one sink, replacing any other; fn NULL (or max_level
 * below 0) removes it. Returns 0. Calls of the sink never overlap, and once
 * this returns no call of the sink replaced is running or will start, so its
 * arg may be freed. From inside the sink this returns -1 and changes
 * nothing, and lines the sink traces itself are not handed back to it. */
int32_t trcsetsink(trc_sink_fn fn, void *arg, int32_t max_level);

#ifdef __cplusplus
}
#endif
#endif
