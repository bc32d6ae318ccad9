/* prsr_fault.h - fault injection and resource counting for tests.
 *
 * libprsr_fault.so defines the memory, registry and lock operations that
 * the library calls, counts them, and fails the one a test armed; every
 * other call goes on to the real operation. A test executable links it
 * first (prsr_fault_link() in CMake), so that its definitions come first
 * in the process's lookup order, for the shared library and for library
 * objects linked into the test alike.
 *
 * A countdown is armed "from now": n = 1 is the next call of its kind.
 * Arming clears the fired flag; fault_reset() disarms everything and
 * clears the call counts, never the live counts.
 */
#ifndef PRSR_FAULT_H
#define PRSR_FAULT_H
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

void fault_reset(void);

/* The n-th mpcalloc from now returns NULL; with sticky, every later one as
 * well until fault_reset(). */
void fault_arm_alloc(long n, int sticky);
/* The n-th hvsapi_open_key, _get_value, _set_value or _enum_subkey from now
 * returns code without reaching the registry. Closes are not counted. */
void fault_arm_registry(long n, int32_t code);
/* The n-th lksmutexlock or lksshrlock from now fails with LKS_ERR_TIMEOUT,
 * written to its status record as well. */
void fault_arm_lock(long n);

/* Every ZooKeeper session of the process hands its watch events to its
 * watcher ms milliseconds late (0: on time), on its event thread, so that
 * the completions behind them wait as well: notifications that come late,
 * as from a server that lags behind the leader. */
void fault_delay_zk_events(int ms);

/* Nonzero once the armed fault has fired since it was armed. */
int fault_fired(void);

/* What is held right now: blocks from mpcalloc not yet given to mpfree;
 * keys opened and not closed; locks granted and not released. */
long fault_live_blocks(void);
long fault_open_keys(void);
long fault_held_locks(void);

/* Calls seen since the last fault_reset(), injected failures included. */
long fault_count_alloc(void);
long fault_count_registry(void);
long fault_count_lock(void);

#ifdef __cplusplus
}
#endif
#endif
