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
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <pthread.h>
#include <sys/queue.h>

#include <vobrel/data_queue.h>
#include <vobrel/queue.h>

#include "util/src/queue_private.h"

using namespace vobrel::detail;

namespace {

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

pthread_mutex_t floor_mutex = PTHREAD_MUTEX_INITIALIZER;

// --- element queues --------------------------------------------------------

void Locked_zel(benchmark::State &state)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        zel_enqueue(&q, &e);
    for (auto _ : state) {
        void *e = zel_dequeue(&q);
        zel_enqueue(&q, e);
        benchmark::DoNotOptimize(e);
    }
}

void Locked_floor_stailq(benchmark::State &state)
{
    SHead h = STAILQ_HEAD_INITIALIZER(h);
    SElem el[kDepth]{};
    for (auto &e : el)
        STAILQ_INSERT_TAIL(&h, &e, link);
    // A queue behind a mutex is shared: the lock calls may see it.
    benchmark::DoNotOptimize(&h);
    for (auto _ : state) {
        pthread_mutex_lock(&floor_mutex);
        SElem *e = STAILQ_FIRST(&h);
        if (e)
            STAILQ_REMOVE_HEAD(&h, link);
        pthread_mutex_unlock(&floor_mutex);
        pthread_mutex_lock(&floor_mutex);
        STAILQ_INSERT_TAIL(&h, e, link);
        pthread_mutex_unlock(&floor_mutex);
        benchmark::DoNotOptimize(e);
    }
}

void Locked_inline_bodies(benchmark::State &state)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_body(&q, &e, QueueCaller::zel_p_enqueue);
    benchmark::DoNotOptimize(&q);
    for (auto _ : state) {
        void *e;
        {
            QueueLock lock;
            e = dequeue_body(&q, QueueCaller::zel_p_dequeue);
        }
        {
            QueueLock lock;
            enqueue_body(&q, e, QueueCaller::zel_p_enqueue);
        }
        benchmark::DoNotOptimize(e);
    }
}

void Unlocked_zel_p(benchmark::State &state)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        zel_p_enqueue(&q, &e);
    for (auto _ : state) {
        void *e = zel_p_dequeue(&q);
        zel_p_enqueue(&q, e);
        benchmark::DoNotOptimize(e);
    }
}

void Unlocked_inline_bodies(benchmark::State &state)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_body(&q, &e, QueueCaller::zel_p_enqueue);
    benchmark::DoNotOptimize(&q);
    for (auto _ : state) {
        void *e = dequeue_body(&q, QueueCaller::zel_p_dequeue);
        enqueue_body(&q, e, QueueCaller::zel_p_enqueue);
        benchmark::DoNotOptimize(e);
        benchmark::ClobberMemory();
    }
}

// The same bodies behind two plain out-of-line calls: what any call boundary
// costs, so the gap of Unlocked_zel_p splits into the call and the rest.
[[gnu::noinline]] void *dequeue_called(queuetype *q)
{
    return dequeue_body(q, QueueCaller::zel_p_dequeue);
}

[[gnu::noinline]] boolean enqueue_called(queuetype *q, void *e)
{
    return enqueue_body(q, e, QueueCaller::zel_p_enqueue);
}

void Unlocked_called_bodies(benchmark::State &state)
{
    queuetype q{};
    Elem el[kDepth]{};
    for (auto &e : el)
        enqueue_called(&q, &e);
    benchmark::DoNotOptimize(&q);
    for (auto _ : state) {
        void *e = dequeue_called(&q);
        enqueue_called(&q, e);
        benchmark::DoNotOptimize(e);
    }
}

// The queue lives in memory that others may see: the compiler must not keep
// it in registers across iterations, as no real caller could.
void Unlocked_floor_stailq(benchmark::State &state)
{
    SHead h = STAILQ_HEAD_INITIALIZER(h);
    SElem el[kDepth]{};
    for (auto &e : el)
        STAILQ_INSERT_TAIL(&h, &e, link);
    benchmark::DoNotOptimize(&h);
    for (auto _ : state) {
        SElem *e = STAILQ_FIRST(&h);
        if (e)
            STAILQ_REMOVE_HEAD(&h, link);
        STAILQ_INSERT_TAIL(&h, e, link);
        benchmark::DoNotOptimize(e);
        benchmark::ClobberMemory();
    }
}

// --- data queues -------------------------------------------------------------

long data[kDepth];

void Data_zel(benchmark::State &state)
{
    queuetype q{};
    for (auto &d : data)
        zel_data_enqueue(&q, &d);
    for (auto _ : state) {
        void *d = zel_data_dequeue(&q);
        zel_data_enqueue(&q, d);
        benchmark::DoNotOptimize(d);
    }
    while (zel_data_dequeue(&q)) {
    }
}

template <bool kLocked, bool kCalloc = false>
void data_floor(benchmark::State &state)
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
    benchmark::DoNotOptimize(&h);
    for (auto _ : state) {
        void *d = take();
        put(d);
        benchmark::DoNotOptimize(d);
        benchmark::ClobberMemory();
    }
    while (take()) {
    }
}

void Data_floor_stailq_malloc(benchmark::State &state)
{
    data_floor<false>(state);
}

void Data_floor_locked_stailq_malloc(benchmark::State &state)
{
    data_floor<true>(state);
}

void Data_floor_locked_stailq_calloc(benchmark::State &state)
{
    data_floor<true, true>(state);
}

} // namespace

BENCHMARK(Locked_zel);
BENCHMARK(Locked_floor_stailq);
BENCHMARK(Locked_inline_bodies);
BENCHMARK(Unlocked_zel_p);
BENCHMARK(Unlocked_floor_stailq);
BENCHMARK(Unlocked_inline_bodies);
BENCHMARK(Unlocked_called_bodies);
BENCHMARK(Data_zel);
BENCHMARK(Data_floor_stailq_malloc);
BENCHMARK(Data_floor_locked_stailq_malloc);
BENCHMARK(Data_floor_locked_stailq_calloc);
