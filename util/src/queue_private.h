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

// Who reports and what. A body names its caller and its problem with small
// constants, never with the address of a text or a message: on 32-bit x86,
// position-independent code reaches any global through a register that each
// function sets up on entry (a call and a push or two), and a fast path that
// names no global leaves that set-up to the out-of-line report.
#define VOBREL_QUEUE_CALLERS(X)                                                                                        \
    X(zel_enqueue) X(zel_requeue) X(zel_dequeue) X(zel_unqueue) X(zel_queue_insert_comp) X(zel_p_enqueue)             \
        X(zel_p_requeue) X(zel_p_dequeue) X(zel_p_unqueue) X(zel_p_swapqueue) X(zel_unqueuenext) X(zel_insqueue)      \
            X(zel_remqueue) X(zel_validqueue) X(zel_data_enqueue) X(zel_data_requeue) X(zel_data_dequeue)            \
                X(zel_data_unqueue)

enum class QueueCaller : unsigned char {
#define VOBREL_QUEUE_CALLER_ENUM(name) name,
    VOBREL_QUEUE_CALLERS(VOBREL_QUEUE_CALLER_ENUM)
#undef VOBREL_QUEUE_CALLER_ENUM
};

// Each problem is one catalogue message with one operation name in its text:
// (problem, message, operation).
#define VOBREL_QUEUE_PROBLEMS(X)                                                                                       \
    X(enqueue_linked, msg_SYS_LINKED, "enqueue")                                                                     \
    X(requeue_linked, msg_SYS_LINKED, "requeue")                                                                     \
    X(unqueue_notq, msg_SYS_NOTQ, "unqueue")                                                                         \
    X(swapqueue_notq, msg_SYS_NOTQ, "swapqueue")                                                                     \
    X(insqueue_linked, msg_SYS_LINKED, "insqueue")                                                                   \
    X(remqueue_linked, msg_SYS_LINKED, "remqueue")                                                                   \
    X(validqueue_bad, msg_SYS_LINKED, "validqueue")                                                                  \
    X(dequeue_count, msg_SYS_QCOUNT, "dequeue")                                                                      \
    X(unqueue_count, msg_SYS_QCOUNT, "unqueue")                                                                      \
    X(unqueuenext_count, msg_SYS_QCOUNT, "p_unqueuenext")                                                            \
    X(remqueue_count, msg_SYS_QCOUNT, "remqueue")

enum class QueueProblem : unsigned char {
#define VOBREL_QUEUE_PROBLEM_ENUM(name, msg, op) name,
    VOBREL_QUEUE_PROBLEMS(VOBREL_QUEUE_PROBLEM_ENUM)
#undef VOBREL_QUEUE_PROBLEM_ENUM
};

// Reports `what` about element `a` of queue `b` (queue.cpp).
[[gnu::cold, gnu::noinline]] void queue_report(QueueCaller who, int lno, QueueProblem what, const void *a,
                                               const void *b);

// Reports a count that fell below zero and sets it to 0 (queue.cpp).
[[gnu::cold, gnu::noinline]] void queue_repair_count(QueueCaller who, int lno, QueueProblem what, queuetype *q);

// A negative count is repaired (and reported) only on a queue with a limit.
inline void queue_count_down(queuetype *q, QueueProblem what, QueueCaller who)
{
    if (--q->count < 0 && q->maximum != 0)
        queue_repair_count(who, __LINE__, what, q);
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

inline boolean enqueue_body(queuetype *q, void *e, QueueCaller who)
{
    if (queue_linked(q, e)) {
        queue_report(who, __LINE__, QueueProblem::enqueue_linked, e, q);
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

inline boolean requeue_body(queuetype *q, void *e, QueueCaller who)
{
    if (queue_linked(q, e)) {
        queue_report(who, __LINE__, QueueProblem::requeue_linked, e, q);
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

inline void *dequeue_body(queuetype *q, QueueCaller who)
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
    queue_count_down(q, QueueProblem::dequeue_count, who);
    return e;
}

inline boolean unqueue_body(queuetype *q, void *e, QueueCaller who)
{
    void *pred = q->qhead ? queue_find_pred(q, e) : nullptr;
    if (!pred) {
        queue_report(who, __LINE__, QueueProblem::unqueue_notq, e, q);
        return FALSE;
    }
    queue_unlink_after(q, pred, e);
    queue_count_down(q, QueueProblem::unqueue_count, who);
    return TRUE;
}

inline boolean swapqueue_body(queuetype *q, void *enew, void *eold, QueueCaller who)
{
    void *pred = q->qhead ? queue_find_pred(q, eold) : nullptr;
    if (!pred) {
        queue_report(who, __LINE__, QueueProblem::swapqueue_notq, eold, q);
        return FALSE;
    }
    // Swapping an element for itself would cut the chain behind it.
    if (enew == eold)
        return TRUE;
    // Not checked, and not reported: the caller passes an element on no queue
    // (a debug build must not trap on what the release build tolerates).
    qlink(pred) = enew;
    qlink(enew) = qlink(eold);
    qlink(eold) = nullptr;
    if (q->qtail == eold)
        q->qtail = enew;
    return TRUE;
}

// Ascending by `compfunc`; an element goes after all of its equals. Only the
// empty queue checks `e` for being linked (through enqueue).
inline boolean queue_insert_comp_body(queuetype *q, void *e, queue_compare_func compfunc, QueueCaller who)
{
    if (queueempty_inline(q)) {
        enqueue_body(q, e, who);
        return TRUE;
    }
    // Not checked here, and not reported: the caller passes an element on no
    // queue.
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
