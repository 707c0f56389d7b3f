// Data queues: each datum rides in its own heap wrapper on an ordinary queue.
// Appending, prepending and removing run the queue's own bodies under the
// queue lock, exactly as zel_enqueue, zel_requeue, zel_dequeue and zel_unqueue
// do, without a second call layer.
#include <vobrel/data_queue.h>
#include <vobrel/errmsg.h>
#include <vobrel/queue.h>

#include <stdlib.h>

#include "util/src/queue_private.h"

using namespace vobrel::detail;

namespace {

// Wrappers come from the heap one at a time and are never pooled. Every field
// is cleared here, so the block is zero-filled as calloc would leave it; plain
// malloc is used because calloc of a block this small is markedly slower in
// the C library (it bypasses the per-thread cache).
inline elementtype *element_alloc_inline()
{
    auto *w = static_cast<elementtype *>(malloc(sizeof(elementtype)));
    if (w) {
        w->next = nullptr;
        w->pakptr = nullptr;
    }
    return w;
}

// The datum is cleared before release (and the store kept: a plain one would
// be dropped as dead), so a stale wrapper never leads back to it.
inline void element_free_inline(elementtype *w)
{
    *static_cast<void *volatile *>(&w->pakptr) = nullptr;
    free(w);
}

elementtype *find_wrapper(const queuetype *queue, const void *data)
{
    for (auto *w = static_cast<elementtype *>(queue->qhead); w; w = w->next)
        if (w->pakptr == data)
            return w;
    return nullptr;
}

} // namespace

extern "C" {

void *zel_data_enqueue(queuetype *queue, void *data)
{
    if (queuefull_inline(queue))
        return nullptr;
    elementtype *w = element_alloc_inline();
    if (!w) {
        xos_errmsg(__func__, __LINE__, &msg_SYS_NOELEMENT, "data_enqueue");
        return nullptr;
    }
    w->pakptr = data;
    QueueLock lock;
    // A fresh wrapper is linked nowhere, so it is never refused.
    [[maybe_unused]] const boolean queued = enqueue_body(queue, w, QueueCaller::zel_data_enqueue);
    VOBREL_ASSERT(queued);
    return data;
}

void *zel_data_requeue(queuetype *queue, void *data)
{
    if (queuefull_inline(queue))
        return nullptr;
    elementtype *w = element_alloc_inline();
    if (!w)
        return nullptr;
    w->pakptr = data;
    QueueLock lock;
    [[maybe_unused]] const boolean queued = requeue_body(queue, w, QueueCaller::zel_data_requeue);
    VOBREL_ASSERT(queued);
    return data;
}

void *zel_data_dequeue(queuetype *queue)
{
    elementtype *w;
    {
        QueueLock lock;
        w = static_cast<elementtype *>(dequeue_body(queue, QueueCaller::zel_data_dequeue));
    }
    if (!w)
        return nullptr;
    void *data = w->pakptr;
    element_free_inline(w);
    return data;
}

void *zel_data_unqueue(queuetype *queue, void *data)
{
    if (!queue || !queue->qhead)
        return nullptr;
    elementtype *w = find_wrapper(queue, data);
    if (!w)
        return nullptr;
    {
        QueueLock lock;
        // A wrapper another thread took in between stays with that thread.
        if (!unqueue_body(queue, w, QueueCaller::zel_data_unqueue))
            return nullptr;
    }
    element_free_inline(w);
    return data;
}

boolean zel_data_isinqueue(queuetype *queue, void *data)
{
    return find_wrapper(queue, data) ? TRUE : FALSE;
}

void zel_data_walklist(queuetype *queue, void (*rtn)(void *data))
{
    // The successor is read before the call, so rtn may unqueue its own datum.
    elementtype *next;
    for (auto *w = static_cast<elementtype *>(queue->qhead); w; w = next) {
        next = w->next;
        rtn(w->pakptr);
    }
}

} // extern "C"
