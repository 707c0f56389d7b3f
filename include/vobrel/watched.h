/* vobrel: watched booleans, queues and read-write locks.
 * Sources: common/src/vobrel_event_mgmt.cpp.
 *
 * Primitives on which the threads of one process wait for one another. Each
 * is one zero-filled heap block made by its create operation and handed
 * around as a pointer; its delete operation takes the address of the caller's
 * handle and clears it. Names, flags and policies given at creation are
 * accepted and not used.
 *
 * Locks, outermost first: a primitive's own mutex, then the queue lock, then
 * the log file's lock. Condition variables are signalled only on transitions
 * (a boolean going from clear to set, a queue going from no pending item to
 * one), and signalled rather than broadcast: each primitive serves one waiter.
 *
 * Problem lines go to the log file and, while vobrel_debug_errors is on, to
 * buginf as well.
 *
 * Misuse, settled here:
 * - A null handle is refused cleanly: the operation does nothing and returns
 *   FALSE, null, or RWINVALID (the lock operations, without a log line). A
 *   delete of a null handle, or through a null address, returns FALSE
 *   (RWNOTOK for the lock).
 * - event_count counts only items that are really on eventQ. An enqueue that
 *   does not get its item onto the queue (the queue full, a plain record that
 *   is already linked, no memory for a data wrapper) returns FALSE and counts
 *   nothing. A dequeue that finds the queue empty once it holds the mutex (a
 *   second consumer was quicker) returns null and lowers nothing.
 * - The data pair applies the limit again under the mutex, so a data queue
 *   never exceeds its maximum; racing plain enqueues may pass it by up to one
 *   less than the number of producers.
 *
 * Needs the POSIX 2001 feature set (pthread_rwlock_t). */
#ifndef VOBREL_WATCHED_H
#define VOBREL_WATCHED_H

#include <pthread.h>

#include <vobrel/queue.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

typedef enum ENABLESTATE_ { DISABLE = 0, ENABLE = 1 } ENABLESTATE;

typedef enum ONESHOTTYPE_ { RECURRING = 0, ONE_SHOT = 1 } ONESHOTTYPE;

/* Accepted by create_watched_rwlock and not used: the platform's default
 * preference between readers and writers applies. */
typedef enum RWPOLICY_ {
    RW_WRITE_FRIENDLY = 0,
    RW_READ_FRIENDLY = 1,
    RW_FIFO = 2,
    RW_PRIO = 3
} RWPOLICY;

/* RWNOMEM, RWNOTOWNER and RWORPHAN are never produced. All values are
 * non-negative, so the type is an unsigned 32-bit integer. */
typedef enum RWRETVAL_ {
    RWOK = 0,
    RWNOTOK = 1,
    RWNOMEM = 2,
    RWNOTOWNER = 3,
    RWTOOMANY = 4,
    RWINVALID = 5,
    RWTIMEOUT = 6,
    RWDEADLK = 7,
    RWORPHAN = 8
} RWRETVAL;

/* A flag one thread sets and another waits on. `value` is a level, not a
 * pulse: waiting never clears it. Guarded by `mutex`. */
typedef struct watched_boolean_ {
    /* private */
    pthread_cond_t cv;
    pthread_mutex_t mutex;
    /* read-only: set with process_set_boolean */
    boolean value;
} watched_boolean;

/* A queue of items with the count of those pending; any number of producers,
 * one consumer. `mutex` guards event_count and every change to eventQ.
 * event_count always equals eventQ.count while `mutex` is free, and is what
 * the unlocked full and empty tests read (atomically). */
typedef struct watched_queue_ {
    /* read-only: maintained by the library */
    queuetype eventQ;
    int32_t event_count;
    /* private */
    pthread_cond_t cv;
    pthread_mutex_t mutex;
} watched_queue;

/* A POSIX read-write lock whose lock operations give up after 15 seconds.
 * Strict ISO C builds without POSIX feature macros do not see pthread_rwlock_t
 * (glibc declares it only with the X/Open 2001 or UNIX 98 feature sets); such
 * clients get an incomplete type instead, which is all they need, since a lock
 * is only ever handled through the pointer that create_watched_rwlock returns. */
#if defined(__USE_XOPEN2K) || defined(__USE_UNIX98)
typedef pthread_rwlock_t watched_rwlock;
#else
typedef struct watched_rwlock_ watched_rwlock;
#endif

/* Watched boolean. Create gives null when no memory. */
VOBREL_API watched_boolean *create_watched_boolean(const char *name, int flags);
VOBREL_API boolean delete_watched_boolean(watched_boolean **wb);
/* Stores `value` unchanged; wakes one waiter only when a clear flag is set. */
VOBREL_API void process_set_boolean(watched_boolean *wb, boolean value);
VOBREL_API boolean process_get_boolean(watched_boolean *wb);
/* TRUE once the flag is set (at once if it already is), FALSE on time-out or
 * failure. `timeout` is in milliseconds; 0xFFFFFFFF (or more, where ulong is
 * wider) waits without limit. Otherwise the wait ends at the start of the
 * wall-clock second timeout / 1000 seconds after the current one: anything
 * below 1000 ms has already passed. A time-out is logged as
 * "process_wait_on_boolean, timeout". */
VOBREL_API boolean process_wait_on_boolean(watched_boolean *wb, ulong timeout);
/* Has no effect. */
VOBREL_API void process_watch_boolean(watched_boolean *wb, ENABLESTATE watch, ONESHOTTYPE one_shot);

/* Watched queue. `max` bounds the pending items; 0 or a negative value sets
 * no limit. Delete leaves items still queued where they are (data wrappers
 * included): drain the queue first. */
VOBREL_API watched_queue *create_watched_queue(const char *name, int flags, int max);
VOBREL_API boolean delete_watched_queue(watched_queue **wq);
/* Plain pair: `ptr` is the caller's record, beginning with its link word. */
VOBREL_API boolean process_enqueue(watched_queue *wq, void *ptr);
VOBREL_API void *process_dequeue(watched_queue *wq);
/* Data pair: `ptr` is any pointer, carried in a wrapper of the queue's own. A
 * null datum comes back as null, like an empty queue. Use one pair per queue. */
VOBREL_API boolean process_data_enqueue(watched_queue *wq, void *ptr);
VOBREL_API void *process_data_dequeue(watched_queue *wq);
/* Returns at once while items are pending; otherwise sleeps until woken once
 * (no loop), so the next dequeue may find nothing. The consumer's pattern:
 * wait, dequeue until null, wait again. */
VOBREL_API void process_wait_on_queue(watched_queue *wq);
/* Has no effect. */
VOBREL_API void process_watch_queue(watched_queue *wq, ENABLESTATE watch, ONESHOTTYPE one_shot);

/* Watched read-write lock. Create gives null when no memory; delete gives
 * RWNOTOK for a null address or handle, else RWOK, and clears the handle. */
VOBREL_API watched_rwlock *create_watched_rwlock(char *name, RWPOLICY policy);
VOBREL_API RWRETVAL delete_watched_rwlock(watched_rwlock **rwlock);
/* Both give up after 15 seconds with RWTIMEOUT. A read lock that is not
 * granted is logged as "Read Lock Error: failed to acquire read lock :<errno>";
 * a write lock is not. Asked for by the thread holding the write lock: RWDEADLK. */
VOBREL_API RWRETVAL process_rwlock_rdlock(watched_rwlock *rwlock);
VOBREL_API RWRETVAL process_rwlock_wrlock(watched_rwlock *rwlock);
VOBREL_API RWRETVAL process_rwlock_unlock(watched_rwlock *rwlock);

VOBREL_END_DECLS

#endif /* VOBREL_WATCHED_H */
