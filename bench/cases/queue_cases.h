// Queue and data-queue costs beside their floors, in one run.
//
// Every case keeps kDepth elements queued and, per iteration, takes the head
// and appends it again (the data queues take a datum and put it back), so each
// iteration is one enqueue + dequeue pair on a queue in steady state.
//
//   Locked/*:   zel_enqueue + zel_dequeue   vs  two uncontended mutex
//               lock/unlock pairs around the same STAILQ operations
//   Unlocked/*: zel_p_enqueue + zel_p_dequeue  vs  bare STAILQ macros
//   Data/*:     zel_data_enqueue + zel_data_dequeue  vs  STAILQ with a
//               malloc'd/freed wrapper, with and without the two lock pairs
//
// Further rows explain the gaps: the shared bodies expanded in place, with
// and without the queue lock (the pairs without the call boundary of an
// exported function), the bodies behind plain out-of-line calls (the price of
// any call boundary), and the locked data floor with calloc in place of
// malloc (the price of calloc for a small block).
//
// Compare each case with its baseline as a ratio.
#ifndef VOBREL_BENCH_CASES_QUEUE_H
#define VOBREL_BENCH_CASES_QUEUE_H

#include <cstdlib>
#include <pthread.h>
#include <sys/queue.h>

#include <vobrel/data_queue.h>
#include <vobrel/queue.h>

#include "util/src/queue_private.h"

#ifdef VOBREL_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "cases/loop.h"

namespace vobrel::bench::queue {

using namespace vobrel::detail;

constexpr int kDepth = 16;

struct Elem {
    Elem *next;
    long payload;
};

struct SElem {
    STAILQ_ENTRY(SElem) link;
    long payload;
};
STAILQ_HEAD(SHead, SElem);

struct SWrap {
    STAILQ_ENTRY(SWrap) link;
    void *pakptr;
};
STAILQ_HEAD(SWrapHead, SWrap);

inline pthread_mutex_t floor_mutex = PTHREAD_MUTEX_INITIALIZER;

// --- element queues --------------------------------------------------------

template <typename Loop> void Locked_zel(Loop &loop)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        zel_enqueue(&q, &e);
    for ([[maybe_unused]] auto _ : loop) {
        void *e = zel_dequeue(&q);
        zel_enqueue(&q, e);
        keep(e);
    }
}

template <typename Loop> void Locked_floor_stailq(Loop &loop)
{
    SHead h = STAILQ_HEAD_INITIALIZER(h);
    SElem el[kDepth]{};
    for (auto &e : el)
        STAILQ_INSERT_TAIL(&h, &e, link);
    // A queue behind a mutex is shared: the lock calls may see it.
    keep(&h);
    for ([[maybe_unused]] auto _ : loop) {
        pthread_mutex_lock(&floor_mutex);
        SElem *e = STAILQ_FIRST(&h);
        if (e)
            STAILQ_REMOVE_HEAD(&h, link);
        pthread_mutex_unlock(&floor_mutex);
        pthread_mutex_lock(&floor_mutex);
        STAILQ_INSERT_TAIL(&h, e, link);
        pthread_mutex_unlock(&floor_mutex);
        keep(e);
    }
}

template <typename Loop> void Locked_inline_bodies(Loop &loop)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_body(&q, &e, QueueCaller::zel_p_enqueue);
    keep(&q);
    for ([[maybe_unused]] auto _ : loop) {
        void *e;
        {
            QueueLock lock;
            e = dequeue_body(&q, QueueCaller::zel_p_dequeue);
        }
        {
            QueueLock lock;
            enqueue_body(&q, e, QueueCaller::zel_p_enqueue);
        }
        keep(e);
    }
}

template <typename Loop> void Unlocked_zel_p(Loop &loop)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        zel_p_enqueue(&q, &e);
    for ([[maybe_unused]] auto _ : loop) {
        void *e = zel_p_dequeue(&q);
        zel_p_enqueue(&q, e);
        keep(e);
    }
}

template <typename Loop> void Unlocked_inline_bodies(Loop &loop)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_body(&q, &e, QueueCaller::zel_p_enqueue);
    keep(&q);
    for ([[maybe_unused]] auto _ : loop) {
        void *e = dequeue_body(&q, QueueCaller::zel_p_dequeue);
        enqueue_body(&q, e, QueueCaller::zel_p_enqueue);
        keep(e);
        clobber();
    }
}

// The same bodies behind two plain out-of-line calls: what any call boundary
// costs, so the gap of Unlocked_zel_p splits into the call and the rest.
// noipa: like an exported function, compiled without knowing its callers (a
// return value they ignore is still computed).
VOBREL_BENCH_OPAQUE inline void *dequeue_called(queuetype *q)
{
    return dequeue_body(q, QueueCaller::zel_p_dequeue);
}

VOBREL_BENCH_OPAQUE inline boolean enqueue_called(queuetype *q, void *e)
{
    return enqueue_body(q, e, QueueCaller::zel_p_enqueue);
}

template <typename Loop> void Unlocked_called_bodies(Loop &loop)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_called(&q, &e);
    keep(&q);
    for ([[maybe_unused]] auto _ : loop) {
        void *e = dequeue_called(&q);
        enqueue_called(&q, e);
        keep(e);
    }
}

// The queue lives in memory that others may see: the compiler must not keep
// it in registers across iterations, as no real caller could.
template <typename Loop> void Unlocked_floor_stailq(Loop &loop)
{
    SHead h = STAILQ_HEAD_INITIALIZER(h);
    SElem el[kDepth]{};
    for (auto &e : el)
        STAILQ_INSERT_TAIL(&h, &e, link);
    keep(&h);
    for ([[maybe_unused]] auto _ : loop) {
        SElem *e = STAILQ_FIRST(&h);
        if (e)
            STAILQ_REMOVE_HEAD(&h, link);
        STAILQ_INSERT_TAIL(&h, e, link);
        keep(e);
        clobber();
    }
}

#ifdef VOBREL_BENCH_HAVE_GLIB
// The peer a user would pick: glib's queue through its exported calls. It
// allocates a link per element (from its slice allocator).
template <typename Loop> void Unlocked_gqueue(Loop &loop)
{
    GQueue *q = g_queue_new();
    Elem el[kDepth]{};
    for (auto &e : el)
        g_queue_push_tail(q, &e);
    for ([[maybe_unused]] auto _ : loop) {
        void *e = g_queue_pop_head(q);
        g_queue_push_tail(q, e);
        keep(e);
    }
    g_queue_free(q);
}
#endif

// --- data queues -------------------------------------------------------------

inline long data[kDepth];

template <typename Loop> void Data_zel(Loop &loop)
{
    queuetype q{};
    for (auto &d : data)
        zel_data_enqueue(&q, &d);
    for ([[maybe_unused]] auto _ : loop) {
        void *d = zel_data_dequeue(&q);
        zel_data_enqueue(&q, d);
        keep(d);
    }
    while (zel_data_dequeue(&q)) {
    }
}

template <bool kLocked, bool kCalloc = false, typename Loop> void data_floor(Loop &loop)
{
    SWrapHead h = STAILQ_HEAD_INITIALIZER(h);
    auto put = [&h](void *d) {
        auto *w = static_cast<SWrap *>(kCalloc ? calloc(1, sizeof(SWrap)) : malloc(sizeof(SWrap)));
        if (!w)
            return;
        w->pakptr = d;
        if (kLocked)
            pthread_mutex_lock(&floor_mutex);
        STAILQ_INSERT_TAIL(&h, w, link);
        if (kLocked)
            pthread_mutex_unlock(&floor_mutex);
    };
    auto take = [&h]() -> void * {
        if (kLocked)
            pthread_mutex_lock(&floor_mutex);
        SWrap *w = STAILQ_FIRST(&h);
        if (w)
            STAILQ_REMOVE_HEAD(&h, link);
        if (kLocked)
            pthread_mutex_unlock(&floor_mutex);
        if (!w)
            return nullptr;
        void *d = w->pakptr;
        free(w);
        return d;
    };
    for (auto &d : data)
        put(&d);
    keep(&h);
    for ([[maybe_unused]] auto _ : loop) {
        void *d = take();
        put(d);
        keep(d);
        clobber();
    }
    while (take()) {
    }
}

template <typename Loop> void Data_floor_stailq_malloc(Loop &loop)
{
    data_floor<false>(loop);
}

template <typename Loop> void Data_floor_locked_stailq_malloc(Loop &loop)
{
    data_floor<true>(loop);
}

template <typename Loop> void Data_floor_locked_stailq_calloc(Loop &loop)
{
    data_floor<true, true>(loop);
}

} // namespace vobrel::bench::queue

#endif
