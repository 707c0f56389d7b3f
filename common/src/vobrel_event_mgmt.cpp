// Watched booleans, queues and read-write locks, on POSIX threads.
#include <vobrel/data_queue.h>
#include <vobrel/debug.h>
#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/queue.h>
#include <vobrel/watched.h>

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "common/src/library_private.h"

namespace {

constexpr ulong kWaitForever = 0xFFFFFFFFul;
constexpr time_t kRwlockPatience = 15; // seconds

const char kBooleanTimeout[] = "process_wait_on_boolean, timeout\n";

// Holds a primitive's mutex for a scope.
class Hold {
public:
    explicit Hold(pthread_mutex_t *m) : m_(m) { pthread_mutex_lock(m_); }
    ~Hold() { pthread_mutex_unlock(m_); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

private:
    pthread_mutex_t *m_;
};

// event_count is written only under the queue's mutex, always with an atomic
// store, so the full and empty tests may read it without the mutex. They do
// not read eventQ itself there: the queue writes its header with plain stores.
inline int32_t pending(const watched_queue *wq)
{
    return __atomic_load_n(&wq->event_count, __ATOMIC_RELAXED);
}

inline void set_pending(watched_queue *wq, int32_t n)
{
    __atomic_store_n(&wq->event_count, n, __ATOMIC_RELAXED);
}

// queuefull_inline, on the count that may be read unlocked. maximum is fixed
// from creation on.
inline bool watched_full(const watched_queue *wq)
{
    return wq->eventQ.maximum != 0 && pending(wq) >= wq->eventQ.maximum;
}

// Counts an item that reached eventQ; the first pending item wakes the
// consumer. Called with the mutex held.
inline void count_in(watched_queue *wq)
{
    int32_t before = wq->event_count;
    set_pending(wq, before + 1);
    if (before == 0)
        pthread_cond_signal(&wq->cv);
}

// The shared body of both enqueues: `add` puts the item on eventQ and tells
// whether it got there.
template <typename Add> boolean watched_enqueue(watched_queue *wq, Add add)
{
    if (!wq || watched_full(wq))
        return FALSE;
    Hold hold(&wq->mutex);
    if (!add(&wq->eventQ))
        return FALSE;
    count_in(wq);
    return TRUE;
}

// The shared body of both dequeues. Under the mutex nothing else changes
// eventQ, so a non-empty queue there yields its head.
template <typename Take> void *watched_dequeue(watched_queue *wq, Take take)
{
    if (!wq || pending(wq) == 0)
        return nullptr;
    Hold hold(&wq->mutex);
    if (queueempty_inline(&wq->eventQ))
        return nullptr;
    // event_count is not asserted positive: eventQ is a public field, and a
    // caller that fills it directly leaves the count behind.
    void *item = take(&wq->eventQ);
    set_pending(wq, wq->event_count - 1);
    return item;
}

// The real-time clock `seconds` from now.
timespec deadline_in(time_t seconds)
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_sec += seconds;
    return ts;
}

RWRETVAL pthread_rc_to_rwlock_rc(int rc)
{
    switch (rc) {
    case 0:
        return RWOK;
    case EAGAIN:
        return RWTOOMANY;
    case EINVAL:
        return RWINVALID;
    case EDEADLK:
        return RWDEADLK;
    case ETIMEDOUT:
        return RWTIMEOUT;
    default:
        return RWNOTOK;
    }
}

// Frees a boolean or queue record after destroying its cv and mutex.
template <typename T> boolean delete_watched(T **handle)
{
    if (!handle || !*handle)
        return FALSE;
    pthread_cond_destroy(&(*handle)->cv);
    pthread_mutex_destroy(&(*handle)->mutex);
    free(*handle);
    *handle = nullptr;
    return TRUE;
}

// Initialises cv then mutex; on failure releases the record and gives null.
template <typename T> T *init_watched(T *rec)
{
    if (!rec)
        return nullptr;
    if (pthread_cond_init(&rec->cv, nullptr) != 0) {
        free(rec);
        return nullptr;
    }
    if (pthread_mutex_init(&rec->mutex, nullptr) != 0) {
        pthread_cond_destroy(&rec->cv);
        free(rec);
        return nullptr;
    }
    return rec;
}

} // namespace

extern "C" {

watched_boolean *create_watched_boolean(const char *, int)
{
    auto *wb = static_cast<watched_boolean *>(calloc(1, sizeof(watched_boolean)));
    if (wb)
        wb->value = FALSE;
    return init_watched(wb);
}

boolean delete_watched_boolean(watched_boolean **wb)
{
    return delete_watched(wb);
}

void process_set_boolean(watched_boolean *wb, boolean value)
{
    if (!wb)
        return;
    Hold hold(&wb->mutex);
    bool rising = !wb->value && value;
    wb->value = value;
    if (rising)
        pthread_cond_signal(&wb->cv);
}

boolean process_get_boolean(watched_boolean *wb)
{
    if (!wb)
        return FALSE;
    Hold hold(&wb->mutex);
    return wb->value;
}

boolean process_wait_on_boolean(watched_boolean *wb, ulong timeout)
{
    if (!wb)
        return FALSE;
    Hold hold(&wb->mutex);
    if (wb->value)
        return TRUE;
    int rc = 0;
    if (timeout >= kWaitForever) {
        while (!wb->value && rc == 0)
            rc = pthread_cond_wait(&wb->cv, &wb->mutex);
        return rc == 0 ? TRUE : FALSE;
    }
    // Whole seconds only, from the start of the current second: the wait ends
    // on a second boundary, and anything under a second has already passed.
    timespec deadline = deadline_in(static_cast<time_t>(timeout / 1000));
    deadline.tv_nsec = 0;
    while (!wb->value && rc == 0)
        rc = pthread_cond_timedwait(&wb->cv, &wb->mutex, &deadline);
    if (rc == ETIMEDOUT)
        vobrel::detail::log_problem("%s", kBooleanTimeout); // still under the mutex: the log lock nests inside
    return rc == 0 ? TRUE : FALSE;
}

void process_watch_boolean(watched_boolean *, ENABLESTATE, ONESHOTTYPE) {}

watched_queue *create_watched_queue(const char *, int, int max)
{
    auto *wq = static_cast<watched_queue *>(calloc(1, sizeof(watched_queue)));
    if (!wq)
        return nullptr;
    // A negative max is refused here and leaves the zero-filled header: no limit.
    zel_queue_init(&wq->eventQ, max);
    return init_watched(wq);
}

boolean delete_watched_queue(watched_queue **wq)
{
    return delete_watched(wq);
}

boolean process_enqueue(watched_queue *wq, void *ptr)
{
    return watched_enqueue(wq, [ptr](queuetype *q) { return ptr && zel_enqueue(q, ptr); });
}

boolean process_data_enqueue(watched_queue *wq, void *ptr)
{
    return watched_enqueue(wq, [ptr](queuetype *q) {
        // A null datum is carried too, so success shows in the queue's count.
        int32_t before = q->count;
        zel_data_enqueue(q, ptr);
        return q->count != before;
    });
}

void *process_dequeue(watched_queue *wq)
{
    return watched_dequeue(wq, zel_dequeue);
}

void *process_data_dequeue(watched_queue *wq)
{
    return watched_dequeue(wq, zel_data_dequeue);
}

void process_wait_on_queue(watched_queue *wq)
{
    if (!wq)
        return;
    Hold hold(&wq->mutex);
    // One wait, no loop: the consumer's dequeues find out what is there.
    if (wq->event_count == 0)
        pthread_cond_wait(&wq->cv, &wq->mutex);
}

void process_watch_queue(watched_queue *, ENABLESTATE, ONESHOTTYPE) {}

watched_rwlock *create_watched_rwlock(char *, RWPOLICY)
{
    auto *rw = static_cast<watched_rwlock *>(calloc(1, sizeof(watched_rwlock)));
    if (rw && pthread_rwlock_init(rw, nullptr) != 0) {
        free(rw);
        return nullptr;
    }
    return rw;
}

RWRETVAL delete_watched_rwlock(watched_rwlock **rwlock)
{
    if (!rwlock || !*rwlock)
        return RWNOTOK;
    pthread_rwlock_destroy(*rwlock);
    free(*rwlock);
    *rwlock = nullptr;
    return RWOK;
}

RWRETVAL process_rwlock_rdlock(watched_rwlock *rwlock)
{
    if (!rwlock)
        return RWINVALID;
    timespec deadline = deadline_in(kRwlockPatience);
    int rc = pthread_rwlock_timedrdlock(rwlock, &deadline);
    if (rc != 0) {
        char line[64];
        snprintf(line, sizeof line, "Read Lock Error: failed to acquire read lock :%d\n", rc);
        vobrel::detail::log_problem("%s", line);
    }
    return pthread_rc_to_rwlock_rc(rc);
}

RWRETVAL process_rwlock_wrlock(watched_rwlock *rwlock)
{
    if (!rwlock)
        return RWINVALID;
    timespec deadline = deadline_in(kRwlockPatience);
    return pthread_rc_to_rwlock_rc(pthread_rwlock_timedwrlock(rwlock, &deadline));
}

RWRETVAL process_rwlock_unlock(watched_rwlock *rwlock)
{
    if (!rwlock)
        return RWINVALID;
    return pthread_rc_to_rwlock_rc(pthread_rwlock_unlock(rwlock));
}

} // extern "C"
