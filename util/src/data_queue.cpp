// Data queues: each datum rides in its own heap wrapper on an ordinary queue.
#include <vobrel/data_queue.h>
#include <vobrel/errmsg.h>
#include <vobrel/queue.h>

#include <stdlib.h>

namespace {

// Wrappers come zero-filled from the heap one at a time and are never pooled.
inline elementtype *element_alloc_inline()
{
    return static_cast<elementtype *>(calloc(1, sizeof(elementtype)));
}

inline void element_free_inline(elementtype *w)
{
    w->pakptr = nullptr;
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
    zel_enqueue(queue, w); // a fresh wrapper is never refused
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
    zel_requeue(queue, w);
    return data;
}

void *zel_data_dequeue(queuetype *queue)
{
    auto *w = static_cast<elementtype *>(zel_dequeue(queue));
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
    // A wrapper another thread took in between stays with that thread.
    if (!w || !zel_unqueue(queue, w))
        return nullptr;
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
