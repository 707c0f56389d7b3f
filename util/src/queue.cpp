// Checked intrusive FIFO queues. The operation bodies live in queue_private.h;
// here they are wrapped once under queue_func_mutex and once without it.
#include <vobrel/errmsg.h>
#include <vobrel/queue.h>

#include <pthread.h>

#include "util/src/queue_private.h"

namespace vobrel::detail {

pthread_mutex_t queue_func_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

const char *const caller_names[] = {
#define VOBREL_QUEUE_CALLER_NAME(name) #name,
    VOBREL_QUEUE_CALLERS(VOBREL_QUEUE_CALLER_NAME)
#undef VOBREL_QUEUE_CALLER_NAME
};

struct Said {
    const message *msg;
    const char *op;
};

const Said said[] = {
#define VOBREL_QUEUE_PROBLEM_SAID(name, msg, op) {&msg, op},
    VOBREL_QUEUE_PROBLEMS(VOBREL_QUEUE_PROBLEM_SAID)
#undef VOBREL_QUEUE_PROBLEM_SAID
};

} // namespace

void queue_report(QueueCaller who, int lno, QueueProblem what, const void *a, const void *b)
{
    const Said &s = said[static_cast<int>(what)];
    xos_errmsg(caller_names[static_cast<int>(who)], lno, s.msg, s.op, qaddr(a), qaddr(b));
}

void queue_repair_count(QueueCaller who, int lno, QueueProblem what, queuetype *q)
{
    const Said &s = said[static_cast<int>(what)];
    xos_errmsg(caller_names[static_cast<int>(who)], lno, s.msg, s.op, qaddr(q), static_cast<int>(q->count));
    q->count = 0;
}

} // namespace vobrel::detail

using namespace vobrel::detail;

extern "C" {

const char *const queue_badEnqueueStr = "bad enqueue";
const char *const queue_enqueueStr = "enqueue";
const char *const queue_dequeueStr = "dequeue";
const char *const queue_unqueueStr = "unqueue";
const char *const queue_requeueStr = "requeue";
const char *const queue_swapqueueStr = "swapqueue";

int zel_queryqueuedepth(const queuetype *q)
{
    return q->count;
}

int zel_queryqueuesize(const queuetype *q)
{
    return q->maximum;
}

void *zel_peekqueuehead(const queuetype *q)
{
    return q->qhead;
}

void *zel_peekqueuetail(const queuetype *q)
{
    return q->qtail;
}

boolean zel_checkqueue(const queuetype *q, const void *e)
{
    if (!q)
        return FALSE;
    for (void *n = q->qhead; n; n = qlink(n))
        if (n == e)
            return TRUE;
    return FALSE;
}

boolean zel_queue_init(queuetype *q, int32_t maximum)
{
    if (!q || maximum < 0)
        return FALSE;
    QueueLock lock;
    q->qhead = nullptr;
    q->qtail = nullptr;
    q->count = 0;
    q->maximum = maximum;
    return TRUE;
}

boolean zel_enqueue(queuetype *qptr, void *eaddr)
{
    QueueLock lock;
    return enqueue_body(qptr, eaddr, QueueCaller::zel_enqueue);
}

boolean zel_requeue(queuetype *qptr, void *eaddr)
{
    QueueLock lock;
    return requeue_body(qptr, eaddr, QueueCaller::zel_requeue);
}

void *zel_dequeue(queuetype *qptr)
{
    QueueLock lock;
    return dequeue_body(qptr, QueueCaller::zel_dequeue);
}

boolean zel_unqueue(queuetype *q, void *e)
{
    QueueLock lock;
    return unqueue_body(q, e, QueueCaller::zel_unqueue);
}

boolean zel_queue_insert_comp(queuetype *qptr, void *eaddr, queue_compare_func compfunc)
{
    QueueLock lock;
    return queue_insert_comp_body(qptr, eaddr, compfunc, QueueCaller::zel_queue_insert_comp);
}

boolean zel_p_enqueue(queuetype *qptr, void *eaddr)
{
    return enqueue_body(qptr, eaddr, QueueCaller::zel_p_enqueue);
}

boolean zel_p_requeue(queuetype *qptr, void *eaddr)
{
    return requeue_body(qptr, eaddr, QueueCaller::zel_p_requeue);
}

void *zel_p_dequeue(queuetype *qptr)
{
    return dequeue_body(qptr, QueueCaller::zel_p_dequeue);
}

boolean zel_p_unqueue(queuetype *q, void *e)
{
    return unqueue_body(q, e, QueueCaller::zel_p_unqueue);
}

boolean zel_p_swapqueue(queuetype *qptr, void *enew, void *eold)
{
    return swapqueue_body(qptr, enew, eold, QueueCaller::zel_p_swapqueue);
}

boolean zel_unqueuenext(queuetype *q, void *prev)
{
    void *victim = qlink(prev);
    if (!victim)
        return TRUE;
    queue_unlink_after(q, prev, victim);
    queue_count_down(q, QueueProblem::unqueuenext_count, QueueCaller::zel_unqueuenext);
    return TRUE;
}

boolean zel_p_unqueuenext(queuetype *q, void *prev)
{
    return zel_unqueuenext(q, prev);
}

boolean zel_insqueue(queuetype *qptr, void *eaddr, void *paddr)
{
    if (!paddr)
        return zel_requeue(qptr, eaddr);
    if (queue_linked(qptr, eaddr)) {
        queue_report(QueueCaller::zel_insqueue, __LINE__, QueueProblem::insqueue_linked, eaddr, qptr);
        return FALSE;
    }
    qlink(eaddr) = qlink(paddr);
    qlink(paddr) = eaddr;
    if (!qlink(eaddr))
        qptr->qtail = eaddr;
    ++qptr->count;
    return TRUE;
}

void *zel_remqueue(queuetype *qptr, void *eaddr, void *paddr)
{
    if (!paddr && eaddr == qptr->qhead)
        return zel_dequeue(qptr);
    if (!paddr || !eaddr || qlink(paddr) != eaddr) {
        queue_report(QueueCaller::zel_remqueue, __LINE__, QueueProblem::remqueue_linked, eaddr, qptr);
        return nullptr;
    }
    queue_unlink_after(qptr, paddr, eaddr);
    queue_count_down(qptr, QueueProblem::remqueue_count, QueueCaller::zel_remqueue);
    return eaddr;
}

void *zel_p_check_and_unqueue(queuetype *q, void *e)
{
    void *pred = q->qhead ? queue_find_pred(q, e) : nullptr;
    if (!pred)
        return nullptr;
    queue_unlink_after(q, pred, e);
    if (--q->count < 0 && q->maximum != 0)
        q->count = 0;
    return e;
}

boolean zel_validqueue(const queuetype *qptr, boolean print_message)
{
    int32_t n = qptr->count;
    const void *named = nullptr;
    bool damaged = n < 0 || (qptr->maximum > 0 && n > qptr->maximum);
    if (!damaged) {
        // n never falls below -1, so at most count + 1 elements are visited.
        for (void *e = qptr->qhead; e; e = qlink(e)) {
            if (--n == -1) {
                named = e;
                break;
            }
        }
        damaged = n != 0;
    }
    if (!damaged)
        return TRUE;
    if (print_message)
        queue_report(QueueCaller::zel_validqueue, __LINE__, QueueProblem::validqueue_bad, named, qptr);
    return FALSE;
}

} // extern "C"
