/* vobrel: checked intrusive first-in-first-out queues.
 * Sources: util/src/queue.cpp, util/src/queue_private.h (the bodies).
 *
 * A queue threads caller-owned records through their first word; it never
 * allocates, copies or frees an element. An element on no queue has a null
 * link, and every removal clears the removed element's link. Misuse (an
 * element already linked, an element missing from the queue, a count below
 * zero) is reported through the SYS catalogue and the queue is left intact.
 *
 * zel_queue_init, zel_enqueue, zel_requeue, zel_dequeue, zel_unqueue and
 * zel_queue_insert_comp serialise on one process-wide lock, whatever queue
 * they act on. Every other operation takes no lock: its caller serialises. */
#ifndef VOBREL_QUEUE_H
#define VOBREL_QUEUE_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* The queue header. A zero-filled header is an empty queue without limit. */
typedef struct queuetype_ {
    /* read-only: maintained by the queue operations */
    void *qhead;     /* first element, null when empty */
    void *qtail;     /* last element, null when empty */
    int32_t count;   /* elements on the queue */
    /* read-only: set by zel_queue_init */
    int32_t maximum; /* limit tested by queuefull_inline; 0 means none */
} queuetype;

/* An element as the queue sees it: the link word, then the owner's bytes.
 * qhead is the header's first word, so a header can stand in for the
 * predecessor of the head wherever a predecessor is taken. */
typedef struct nexthelper_ {
    /* private: the queues' link word; the owner leaves it null while the
     * element is on no queue */
    struct nexthelper_ *next;
    /* public */
    uchar data[];
} nexthelper;

typedef enum queue_compare_result_ {
    QUEUE_LT = 0,
    QUEUE_EQ = 1,
    QUEUE_GT = 2
} queue_compare_result;

/* Compares the element already queued (first) with the one being inserted.
 * Called with the queue lock held: it must not call a locked operation. */
typedef queue_compare_result (*queue_compare_func)(void *queued, void *inserted);

/* Operation names used in the queue's reports. */
/* read-only: the operation names used in reports */
VOBREL_API extern const char *const queue_badEnqueueStr; /* "bad enqueue" */
VOBREL_API extern const char *const queue_enqueueStr;    /* "enqueue" */
VOBREL_API extern const char *const queue_dequeueStr;    /* "dequeue" */
VOBREL_API extern const char *const queue_unqueueStr;    /* "unqueue" */
VOBREL_API extern const char *const queue_requeueStr;    /* "requeue" */
VOBREL_API extern const char *const queue_swapqueueStr;  /* "swapqueue" */

/* Queries; no lock. */
VOBREL_API int zel_queryqueuedepth(const queuetype *q);
VOBREL_API int zel_queryqueuesize(const queuetype *q);
VOBREL_API void *zel_peekqueuehead(const queuetype *q);
VOBREL_API void *zel_peekqueuetail(const queuetype *q);
/* TRUE if `e` is on `q`; FALSE also for a null `q`. */
VOBREL_API boolean zel_checkqueue(const queuetype *q, const void *e);

/* Empties the header and sets its limit (locked). FALSE, header untouched, for
 * a null `q` or a negative `maximum`. */
VOBREL_API boolean zel_queue_init(queuetype *q, int32_t maximum);

/* Locked operations. Enqueue and requeue refuse (FALSE) an element that is
 * already linked; unqueue refuses one that is not on the queue. Dequeue gives
 * null for a null or empty queue. Ordered insertion keeps the queue ascending
 * by `compfunc`, an element going after its equals, and returns TRUE. */
VOBREL_API boolean zel_enqueue(queuetype *qptr, void *eaddr);
VOBREL_API boolean zel_requeue(queuetype *qptr, void *eaddr);
VOBREL_API void *zel_dequeue(queuetype *qptr);
VOBREL_API boolean zel_unqueue(queuetype *q, void *e);
VOBREL_API boolean zel_queue_insert_comp(queuetype *qptr, void *eaddr, queue_compare_func compfunc);

/* Unlocked twins of the above, same effect and result. */
VOBREL_API boolean zel_p_enqueue(queuetype *qptr, void *eaddr);
VOBREL_API boolean zel_p_requeue(queuetype *qptr, void *eaddr);
VOBREL_API void *zel_p_dequeue(queuetype *qptr);
VOBREL_API boolean zel_p_unqueue(queuetype *q, void *e);

/* Removes the successor of `prev` (an element, or the header for the head);
 * nothing happens when there is none. Always TRUE. */
VOBREL_API boolean zel_unqueuenext(queuetype *q, void *prev);
VOBREL_API boolean zel_p_unqueuenext(queuetype *q, void *prev);
/* Inserts `eaddr` after `paddr` (the header inserts at the head); a null
 * `paddr` is zel_requeue. FALSE if `eaddr` is already linked. */
VOBREL_API boolean zel_insqueue(queuetype *qptr, void *eaddr, void *paddr);
/* Removes `eaddr`, whose predecessor is `paddr`; a null `paddr` with `eaddr`
 * the head is zel_dequeue. `eaddr`, or null when `paddr` does not precede it. */
VOBREL_API void *zel_remqueue(queuetype *qptr, void *eaddr, void *paddr);
/* Puts `enew` (which must be on no queue) in the place of `eold`; `count`
 * does not change. FALSE if `eold` is not on the queue. */
VOBREL_API boolean zel_p_swapqueue(queuetype *qptr, void *enew, void *eold);
/* Removes `e` if it is on `q`: `e`, or null (silently) if it is not. */
VOBREL_API void *zel_p_check_and_unqueue(queuetype *q, void *e);
/* TRUE when `count` agrees with the chain (and, with a limit, does not exceed
 * it). Visits at most count + 1 elements, so a looping chain cannot hold it. */
VOBREL_API boolean zel_validqueue(const queuetype *qptr, boolean print_message);

/* Header operations; no lock. */
static inline boolean queuefull_inline(const queuetype *q)
{
    return (boolean)(q->maximum != 0 && q->count >= q->maximum);
}

static inline boolean queueempty_inline(const queuetype *q)
{
    return (boolean)(q->qhead == NULL);
}

static inline void *queuepeekhead_inline(const queuetype *q)
{
    return q->qhead;
}

static inline void *queueget_next_inline(const void *element)
{
    return ((const nexthelper *)element)->next;
}

VOBREL_END_DECLS

#endif /* VOBREL_QUEUE_H */
