// Lists against <sys/queue.h> tail queues, in the same run: enqueue a batch of
// records and dequeue them again. Plain lists move caller records, as a TAILQ
// of the same records does; automatic lists allocate a record per entry, as a
// TAILQ with malloc/free per entry does. Compare the pairs as ratios.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <sys/queue.h>
#include <vector>

#include <vobrel/list.h>

namespace {

constexpr int kBatch = 64;

void init_lists()
{
    static bool done = false;
    if (!done) {
        zel_list_init();
        zel_memory_list_init();
        done = true;
    }
}

int payload[kBatch];

// A TAILQ record shaped like a list element: two links and a datum.
struct Rec {
    TAILQ_ENTRY(Rec) link;
    void *data;
};
TAILQ_HEAD(RecHead, Rec);

void BM_List_Plain(benchmark::State &state)
{
    init_lists();
    list_header l;
    zel_list_create(&l, 0, "bench", 0);
    std::vector<list_element> recs(kBatch);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            list_enqueue(&l, &recs[i], &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            benchmark::DoNotOptimize(list_dequeue(&l));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    zel_list_destroy(&l);
}
BENCHMARK(BM_List_Plain);

void BM_Tailq_Plain(benchmark::State &state)
{
    RecHead head;
    TAILQ_INIT(&head);
    std::vector<Rec> recs(kBatch);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            recs[i].data = &payload[i];
            TAILQ_INSERT_TAIL(&head, &recs[i], link);
        }
        for (int i = 0; i < kBatch; ++i) {
            Rec *r = TAILQ_FIRST(&head);
            TAILQ_REMOVE(&head, r, link);
            benchmark::DoNotOptimize(r->data);
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_Tailq_Plain);

void BM_List_Automatic(benchmark::State &state)
{
    init_lists();
    list_header l;
    zel_list_create(&l, 0, "bench-auto", LIST_FLAGS_AUTOMATIC);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            list_enqueue(&l, nullptr, &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            benchmark::DoNotOptimize(list_dequeue(&l));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    zel_list_destroy(&l);
}
BENCHMARK(BM_List_Automatic);

// Each entry allocates and releases its record, as on an automatic list.
// Zero-filled: the same allocation an automatic list makes (calloc).
template <bool Zeroed> void BM_Tailq_Alloc(benchmark::State &state)
{
    RecHead head;
    TAILQ_INIT(&head);
    for (auto _ : state) {
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
            benchmark::DoNotOptimize(r->data);
            free(r);
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_Tailq_Alloc<false>)->Name("BM_Tailq_Malloc");
BENCHMARK(BM_Tailq_Alloc<true>)->Name("BM_Tailq_Calloc");

// For reference: the same TAILQ operations behind two out-of-line calls
// through a table of function pointers, which is the least any dispatched
// enqueue/dequeue pair costs without the checks.
struct Dispatched {
    RecHead head;
    boolean (*enqueue)(Dispatched *, Rec *, void *);
    void *(*dequeue)(Dispatched *);
};

__attribute__((noinline)) boolean dispatched_enqueue(Dispatched *q, Rec *r, void *data)
{
    r->data = data;
    TAILQ_INSERT_TAIL(&q->head, r, link);
    return TRUE;
}

__attribute__((noinline)) void *dispatched_dequeue(Dispatched *q)
{
    Rec *r = TAILQ_FIRST(&q->head);
    if (!r)
        return nullptr;
    TAILQ_REMOVE(&q->head, r, link);
    return r->data;
}

void BM_Tailq_Dispatched(benchmark::State &state)
{
    Dispatched q;
    TAILQ_INIT(&q.head);
    q.enqueue = dispatched_enqueue;
    q.dequeue = dispatched_dequeue;
    Dispatched *volatile hide = &q; // keeps the calls indirect
    std::vector<Rec> recs(kBatch);
    for (auto _ : state) {
        Dispatched *p = hide;
        for (int i = 0; i < kBatch; ++i)
            p->enqueue(p, &recs[i], &payload[i]);
        for (int i = 0; i < kBatch; ++i)
            benchmark::DoNotOptimize(p->dequeue(p));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_Tailq_Dispatched);

} // namespace
