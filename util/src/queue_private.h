// Internal interface of the queues: the lock and the bodies shared by each
// locked operation and its unlocked twin. Callers of these bodies either hold
// queue_func_mutex or serialise access to the queue themselves. The bodies are
// named *_body so that they are not taken for the public *_inline helpers of
// <vobrel/queue.h>, which any caller may use.
#ifndef VOBREL_QUEUE_PRIVATE_H
#define VOBREL_QUEUE_PRIVATE_H

#include <vobrel/errmsg.h>
#include <vobrel/queue.h>

#include <pthread.h>
#include <stdint.h>

#include "common/src/library_private.h"

namespace vobrel::detail {

// The one lock of the six locked operations, across every queue of the
// process. Statically initialised, default (non-recursive) attributes.
extern pthread_mutex_t queue_func_mutex;

// Holds queue_func_mutex for a whole operation body, reports included.
class QueueLock {
public:
    QueueLock() { pthread_mutex_lock(&queue_func_mutex); }
    ~QueueLock() { pthread_mutex_unlock(&queue_func_mutex); }
    QueueLock(const QueueLock &) = delete;
    QueueLock &operator=(const QueueLock &) = delete;
};

// The link word of an element, or qhead when `e` is a header standing in for
// the head's predecessor.
inline void *&qlink(void *e)
{
    return *static_cast<void **>(e);
}

// Addresses are reported as 32-bit values.
inline unsigned qaddr(const void *p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// Reports stay out of line so the common paths remain short.
[[gnu::cold, gnu::noinline]] inline void queue_report(const char *fname, int lno, const message *msg, const char *op,
                                                      const void *a, const void *b)
{
    xos_errmsg(fname, lno, msg, op, qaddr(a), qaddr(b));
}

// Reports a count that fell below zero and sets it to 0.
[[gnu::cold, gnu::noinline]] inline void queue_repair_count(const char *fname, int lno, const char *op, queuetype *q)
{
    xos_errmsg(fname, lno, &msg_SYS_QCOUNT, op, qaddr(q), static_cast<int>(q->count));
    q->count = 0;
}

// A negative count is repaired (and reported) only on a queue with a limit.
inline void queue_count_down(queuetype *q, const char *op, const char *fname)
{
    if (--q->count < 0 && q->maximum != 0)
        queue_repair_count(fname, __LINE__, op, q);
}

// Already linked: a non-null link, or the tail of this very queue.
inline bool queue_linked(const queuetype *q, void *e)
{
    return qlink(e) != nullptr || q->qtail == e;
}

// The predecessor of `e` (the header when `e` is the head), or null when the
// walk from the head does not reach `e`.
inline void *queue_find_pred(queuetype *q, const void *e)
{
    void *pred = q;
    for (void *n = q->qhead; n; n = qlink(n)) {
        if (n == e)
            return pred;
        pred = n;
    }
    return nullptr;
}

// Unlinks `e`, the successor of `pred`; the caller lowers count.
inline void queue_unlink_after(queuetype *q, void *pred, void *e)
{
    void *next = qlink(e);
    qlink(pred) = next;
    if (!next)
        q->qtail = pred == q ? nullptr : pred;
    qlink(e) = nullptr;
}

inline boolean enqueue_body(queuetype *q, void *e, const char *fname)
{
    if (queue_linked(q, e)) {
        queue_report(fname, __LINE__, &msg_SYS_LINKED, queue_enqueueStr, e, q);
        return FALSE;
    }
    if (q->qtail)
        qlink(q->qtail) = e;
    else
        q->qhead = e;
    ++q->count;
    q->qtail = e;
    return TRUE;
}

inline boolean requeue_body(queuetype *q, void *e, const char *fname)
{
    if (queue_linked(q, e)) {
        queue_report(fname, __LINE__, &msg_SYS_LINKED, queue_requeueStr, e, q);
        return FALSE;
    }
    if (q->qhead)
        qlink(e) = q->qhead;
    else
        q->qtail = e;
    ++q->count;
    q->qhead = e;
    return TRUE;
}

inline void *dequeue_body(queuetype *q, const char *fname)
{
    if (!q)
        return nullptr;
    void *e = q->qhead;
    if (!e)
        return nullptr;
    q->qhead = qlink(e);
    if (!q->qhead)
        q->qtail = nullptr;
    qlink(e) = nullptr;
    queue_count_down(q, queue_dequeueStr, fname);
    return e;
}

inline boolean unqueue_body(queuetype *q, void *e, const char *fname)
{
    void *pred = q->qhead ? queue_find_pred(q, e) : nullptr;
    if (!pred) {
        queue_report(fname, __LINE__, &msg_SYS_NOTQ, queue_unqueueStr, e, q);
        return FALSE;
    }
    queue_unlink_after(q, pred, e);
    queue_count_down(q, queue_unqueueStr, fname);
    return TRUE;
}

inline boolean swapqueue_body(queuetype *q, void *enew, void *eold, const char *fname)
{
    void *pred = q->qhead ? queue_find_pred(q, eold) : nullptr;
    if (!pred) {
        queue_report(fname, __LINE__, &msg_SYS_NOTQ, queue_swapqueueStr, eold, q);
        return FALSE;
    }
    // Swapping an element for itself would cut the chain behind it.
    if (enew == eold)
        return TRUE;
    // Not checked, and not reported: the caller passes an element on no queue.
    VOBREL_ASSERT(!queue_linked(q, enew));
    qlink(pred) = enew;
    qlink(enew) = qlink(eold);
    qlink(eold) = nullptr;
    if (q->qtail == eold)
        q->qtail = enew;
    return TRUE;
}

// Ascending by `compfunc`; an element goes after all of its equals. Only the
// empty queue checks `e` for being linked (through enqueue).
inline boolean queue_insert_comp_body(queuetype *q, void *e, queue_compare_func compfunc, const char *fname)
{
    if (queueempty_inline(q)) {
        enqueue_body(q, e, fname);
        return TRUE;
    }
    // Not checked here, and not reported: the caller passes an element on no
    // queue.
    VOBREL_ASSERT(!queue_linked(q, e));
    void *pred = q;
    for (void *p = q->qhead; p; p = qlink(p)) {
        // LT and EQ move on; anything else, read unsigned, inserts before p.
        if (static_cast<unsigned>(compfunc(p, e)) > static_cast<unsigned>(QUEUE_EQ)) {
            qlink(e) = p;
            qlink(pred) = e;
            ++q->count;
            return TRUE;
        }
        pred = p;
    }
    qlink(e) = nullptr;
    qlink(pred) = e;
    q->qtail = e;
    ++q->count;
    return TRUE;
}

} // namespace vobrel::detail

#endif // VOBREL_QUEUE_PRIVATE_H
