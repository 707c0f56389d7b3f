// Queues: what their model (fuzz/queue_fuzz.cpp) cannot see: the queue lock
// held while reporting and comparing, and locked operations racing on shared
// queues.
#include <gtest/gtest.h>

#include <cerrno>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/queue.h>

#include "support/fake_platform.h"
#include "util/src/queue_private.h"

namespace {

struct Elem { Elem *next; int key; };

queue_compare_result by_key(void *queued, void *inserted)
{
    int d = static_cast<Elem *>(queued)->key - static_cast<Elem *>(inserted)->key;
    return d < 0 ? QUEUE_LT : d == 0 ? QUEUE_EQ : QUEUE_GT;
}

// pthread_mutex_trylock's answer on the queue lock, each time it is asked.
std::vector<int> lock_seen;
void probe_lock()
{
    int rc = pthread_mutex_trylock(&vobrel::detail::queue_func_mutex);
    lock_seen.push_back(rc == 0 ? pthread_mutex_unlock(&vobrel::detail::queue_func_mutex) : rc); // 0 when it was free
}

} // namespace

// The reports (their texts are the model's) and the comparator run under the
// queue lock for the locked operations, outside it for the unlocked twins.
TEST(Queue, LockedOperationsReportAndCompareUnderTheLock)
{
    // Without a log store every report asks the platform again: the hook probes the lock inside each.
    fake::set_log_store_status(1, VOBREL_PLATFORM_UNSUPPORTED);
    fake::set_log_store_hook(probe_lock);
    for (bool locked : {true, false}) {
        auto enq = locked ? zel_enqueue : zel_p_enqueue, req = locked ? zel_requeue : zel_p_requeue;
        auto unq = locked ? zel_unqueue : zel_p_unqueue;
        auto deq = locked ? zel_dequeue : zel_p_dequeue;
        queuetype q{}, empty{};
        Elem a{};
        lock_seen.clear();
        EXPECT_TRUE(enq(&q, &a) && !enq(&q, &a) && !req(&q, &a) && !unq(&empty, &a)); // linked twice, missing
        for (bool by_unqueue : {false, true}) {
            q = {&a, &a, 0, 5}; // one element counted as none: repaired and reported
            EXPECT_TRUE(by_unqueue ? unq(&q, &a) : deq(&q) == &a);
        }
        EXPECT_EQ(fake::take_syslog_texts().size(), 5u);
        EXPECT_EQ(lock_seen, std::vector<int>(5, locked ? EBUSY : 0)) << locked;
    }
    // A result beyond GT, read unsigned, inserts before.
    Elem h{nullptr, 1}, m{nullptr, -1}, n{};
    queuetype o{};
    EXPECT_TRUE(zel_enqueue(&o, &h) && zel_enqueue(&o, &m));
    lock_seen.clear();
    zel_queue_insert_comp(&o, &n, [](void *queued, void *) {
        probe_lock();
        return static_cast<queue_compare_result>(static_cast<Elem *>(queued)->key);
    });
    EXPECT_TRUE(o.qhead == &h && h.next == &n && n.next == &m && o.qtail == &m && o.count == 3);
    EXPECT_EQ(lock_seen, std::vector<int>(2, EBUSY));
}

// Threads move elements between shared queues with the locked operations only.
// Whoever takes an element off holds it alone until it puts it back, so at the
// end every element is on exactly one queue, once.
TEST(Queue, ThreadsMovingElementsKeepEveryElementExactlyOnce)
{
    queuetype qs[4]{};
    Elem el[16]{};
    for (unsigned i = 0; i < 16; ++i) // the last queue stays ordered
        zel_queue_insert_comp(&qs[i % 4], &(el[i] = {nullptr, int(i % 5)}), by_key);
    std::vector<std::thread> ts;
    for (unsigned t = 1; t <= 4; ++t)
        ts.emplace_back([&qs, t] {
            std::minstd_rand rng(t);
            for (int r = 0; r < 100000; ++r) {
                auto *e = static_cast<Elem *>(zel_dequeue(&qs[rng() % 4]));
                for (unsigned d = rng() % 4; e; d = rng() % 4) {
                    ASSERT_TRUE(d == 3         ? zel_queue_insert_comp(&qs[d], e, by_key)
                                : (rng() & 1) ? zel_enqueue(&qs[d], e)
                                              : zel_requeue(&qs[d], e));
                    // Taking it straight back may lose to another thread: then it is theirs.
                    if (rng() % 8 || !zel_unqueue(&qs[d], e))
                        e = nullptr;
                }
            }
        });
    for (auto &t : ts)
        t.join();
    std::vector<int> seen(16);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(zel_validqueue(&qs[i], TRUE)) << i;
        for (auto *e = static_cast<Elem *>(qs[i].qhead); e && ++seen[e - el] == 1; e = e->next)
            EXPECT_TRUE((e->next || qs[i].qtail == e) && (i < 3 || !e->next || e->key <= e->next->key));
    }
    EXPECT_EQ(seen, std::vector<int>(16, 1));
    for (const auto &l : fake::take_syslog_texts()) // only failed take-backs may report
        EXPECT_EQ(l.rfind("%SYS-2-NOTQ:unqueue didn't find ", 0), 0u) << l;
}
