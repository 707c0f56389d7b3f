/* vobrel: data queues: plain pointers carried in wrapper elements.
 * Sources: util/src/data_queue.cpp.
 *
 * A data queue is a queuetype whose elements are wrappers owned by these
 * operations: one is taken from the heap per datum on the way in and given
 * back on the way out. The data themselves are never released. Only the
 * append, prepend, removal of the head and removal by datum run under the
 * queue lock; the full test, searches and the walk do not, so callers that
 * share a data queue between threads serialise these operations themselves. */
#ifndef VOBREL_DATA_QUEUE_H
#define VOBREL_DATA_QUEUE_H

#include <vobrel/queue.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* The wrapper: the queue link, then the caller's datum. */
typedef struct elementtype_ {
    /* private */
    struct elementtype_ *next;
    /* read-only: maintained by the library */
    void *pakptr;
} elementtype;

/* Append or prepend `data`: `data`, or null when the queue is full (no report)
 * or no wrapper can be had (enqueue reports NOELEMENT, requeue does not). */
VOBREL_API void *zel_data_enqueue(queuetype *queue, void *data);
VOBREL_API void *zel_data_requeue(queuetype *queue, void *data);
/* The datum at the head, or null when the queue is empty (or carries null). */
VOBREL_API void *zel_data_dequeue(queuetype *queue);
/* Removes the wrapper nearest the head that carries `data`: `data`, or null
 * when `queue` is null, empty or carries no such wrapper. */
VOBREL_API void *zel_data_unqueue(queuetype *queue, void *data);
VOBREL_API boolean zel_data_isinqueue(queuetype *queue, void *data);
/* Calls `rtn` with each datum from the head. `rtn` may unqueue the datum it is
 * given, but not the one after it. */
VOBREL_API void zel_data_walklist(queuetype *queue, void (*rtn)(void *data));

VOBREL_END_DECLS

#endif /* VOBREL_DATA_QUEUE_H */
