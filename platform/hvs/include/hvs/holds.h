/* hvs/holds.h - the locks a thread holds, as the lock service tells the
 * registry client about them.
 *
 * The lock service announces each granted lock on the thread that got it
 * and ends the announcement before it gives the lock back. The registry
 * client ties the writes made under a lock to it:
 *  - a hold of "FLTM.X" (and of "FLTM.VLM.X") covers key X and the keys
 *    below it;
 *  - on ZooKeeper a covered write is fenced: it is sent together with a
 *    check that the lock's request node still exists, so a write made
 *    after the lock was lost can never land;
 *  - on SQLite the writes made under an exclusive hold are one transaction,
 *    committed when the hold ends, before the lock is given back (or when
 *    the handle is terminated first). The transaction is the handle's: the
 *    holding thread's other writes on it join it, another thread's wait
 *    for its end, and reads on the handle see it. Writes under a shared
 *    hold, or under none, are committed at once.
 *
 * Not part of the client interface: only the lock service calls these.
 */
#ifndef HVS_HOLDS_H
#define HVS_HOLDS_H
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

typedef struct hvs_hold hvs_hold;

/* A lock was granted to the calling thread. fence names the engine's
 * evidence of the hold that a fenced write checks (on ZooKeeper the full
 * path of the request node), or NULL where there is none. NULL when out of
 * memory: the hold is then simply not known. */
hvs_hold *hvs_hold_enter(const char *lock_name, int exclusive,
                         const char *fence);

/* The hold ends; the lock is still held. Runs what the registry client
 * deferred to this point (the commit of the hold's writes). Returns 0, or
 * the registry client's code of the first failure with its text in msg
 * (capacity cap). The hold is gone afterwards whatever the result. */
int32_t hvs_hold_leave(hvs_hold *hold, char *msg, size_t cap);

/* The lock service learnt that the lock is gone (its session expired):
 * every later write under the hold is refused without being sent. */
void hvs_hold_lost(hvs_hold *hold);

/* Recording (hvsadm_record): the lock service tells of each lock call it
 * answered (unlock 1 for lksunlock), and asks whether the process runs dry,
 * when it grants locks without taking them. */
void hvs_hold_record(const char *lock_name, int unlock, int exclusive, int32_t result, int dry);
int hvs_hold_dry_run(void);

#ifdef __cplusplus
}
#endif
#endif
