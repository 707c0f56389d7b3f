// Lists against <sys/queue.h> tail queues, in the same run: enqueue a batch of
// records and dequeue them again. Plain lists move caller records, as a TAILQ
// of the same records does; automatic lists allocate a record per entry, as a
// TAILQ with malloc/free per entry does. Compare the pairs as ratios.
#ifndef VOBREL_BENCH_CASES_LIST_H
#define VOBREL_BENCH_CASES_LIST_H

#include <cstdlib>
#include <sys/queue.h>
#include <vector>

#include <vobrel/list.h>

#include "cases/loop.h"


namespace vobrel::bench::list {

constexpr int kBatch = 64;

inline void init_lists()
{
    static bool done = false;
    if (!done) {
        zel_list_init();
        zel_memory_list_init();
        done = true;
    }
}

inline int payload[kBatch];

// A TAILQ record shaped like a list element: two links and a datum.
struct Rec {
    TAILQ_ENTRY(Rec) link;
    void *data;
};
TAILQ_HEAD(RecHead, Rec);

template <typename Loop> void BM_List_Plain(Loop &loop)
{
    init_lists();
    list_header l;
    zel_list_create(&l, 0, "bench", 0);
    std::vector<list_element> recs(kBatch);
    for ([[maybe_unused]] auto _ : loop) {
        for (int i = 0; i < kBatch; ++i)
            list_enqueue(&l, &recs[i], &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            keep(list_dequeue(&l));
    }
    processed(loop, loop.iterations() * kBatch);
    zel_list_destroy(&l);
}

template <typename Loop> void BM_Tailq_Plain(Loop &loop)
{
    RecHead head;
    TAILQ_INIT(&head);
    std::vector<Rec> recs(kBatch);
    for ([[maybe_unused]] auto _ : loop) {
        for (int i = 0; i < kBatch; ++i) {
            recs[i].data = &payload[i];
            TAILQ_INSERT_TAIL(&head, &recs[i], link);
        }
        for (int i = 0; i < kBatch; ++i) {
            Rec *r = TAILQ_FIRST(&head);
            TAILQ_REMOVE(&head, r, link);
            keep(r->data);
        }
        clobber();
    }
    processed(loop, loop.iterations() * kBatch);
}

template <typename Loop> void BM_List_Automatic(Loop &loop)
{
    init_lists();
    list_header l;
    zel_list_create(&l, 0, "bench-auto", LIST_FLAGS_AUTOMATIC);
    for ([[maybe_unused]] auto _ : loop) {
        for (int i = 0; i < kBatch; ++i)
            list_enqueue(&l, nullptr, &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            keep(list_dequeue(&l));
    }
    processed(loop, loop.iterations() * kBatch);
    zel_list_destroy(&l);
}

// Each entry allocates and releases its record, as on an automatic list.
// Zero-filled: the same allocation an automatic list makes (calloc).
template <bool Zeroed, typename Loop> void BM_Tailq_Alloc(Loop &loop)
{
    RecHead head;
    TAILQ_INIT(&head);
    for ([[maybe_unused]] auto _ : loop) {
        for (int i = 0; i < kBatch; ++i) {
            auto *r = static_cast<Rec *>(Zeroed ? calloc(1, sizeof(Rec)) : malloc(sizeof(Rec)));
            if (!r)
                break;
            r->data = &payload[i];
            TAILQ_INSERT_TAIL(&head, r, link);
        }
        for (int i = 0; i < kBatch; ++i) {
            Rec *r = TAILQ_FIRST(&head);
            if (!r)
                break;
            TAILQ_REMOVE(&head, r, link);
            keep(r->data);
            free(r);
        }
    }
    processed(loop, loop.iterations() * kBatch);
}

// For reference: the same TAILQ operations behind two out-of-line calls
// through a table of function pointers, which is the least any dispatched
// enqueue/dequeue pair costs without the checks.
struct Dispatched {
    RecHead head;
    boolean (*enqueue)(Dispatched *, Rec *, void *);
    void *(*dequeue)(Dispatched *);
};

__attribute__((noinline)) inline boolean dispatched_enqueue(Dispatched *q, Rec *r, void *data)
{
    r->data = data;
    TAILQ_INSERT_TAIL(&q->head, r, link);
    return TRUE;
}

__attribute__((noinline)) inline void *dispatched_dequeue(Dispatched *q)
{
    Rec *r = TAILQ_FIRST(&q->head);
    if (!r)
        return nullptr;
    TAILQ_REMOVE(&q->head, r, link);
    return r->data;
}

template <typename Loop> void BM_Tailq_Dispatched(Loop &loop)
{
    Dispatched q;
    TAILQ_INIT(&q.head);
    q.enqueue = dispatched_enqueue;
    q.dequeue = dispatched_dequeue;
    Dispatched *volatile hide = &q; // keeps the calls indirect
    std::vector<Rec> recs(kBatch);
    for ([[maybe_unused]] auto _ : loop) {
        Dispatched *p = hide;
        for (int i = 0; i < kBatch; ++i)
            p->enqueue(p, &recs[i], &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            keep(p->dequeue(p));
    }
    processed(loop, loop.iterations() * kBatch);
}

} // namespace vobrel::bench::list

#endif
