// Queues beside their model (fuzz/queue_fuzz.cpp): the queue lock held while
// reporting and comparing, count repair, and locked operations racing on
// shared queues.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/queue.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/queue_private.h"

namespace {

using Lines = std::vector<std::string>;
struct Elem { Elem *next; int key; };

Lines lines()
{
    return fake::take_syslog_texts();
}

const char kLinked[] = "%%SYS-2-LINKED:Bad %s of %x in queue %x";
const char kNotq[] = "%%SYS-2-NOTQ:%s didn't find %x in queue %x";
const char kQcount[] = "%%SYS-2-QCOUNT:Bad %s %x count -1"; // the queue goes where the element would
std::string rep(const char *fmt, const char *op, const void *e, const void *q = nullptr)
{
    char b[128];
    snprintf(b, sizeof b, fmt, op, (unsigned)(uintptr_t)e, (unsigned)(uintptr_t)q);
    return b;
}

// Exactly `want`, in order, with consistent tail and count.
void expect_queue(const queuetype &q, std::vector<Elem *> want)
{
    std::vector<Elem *> got;
    for (auto *e = static_cast<Elem *>(q.qhead); e && got.size() <= want.size(); e = e->next)
        got.push_back(e);
    EXPECT_EQ(got, want);
    EXPECT_EQ(q.count, static_cast<int>(want.size()));
    EXPECT_EQ(q.qtail, want.empty() ? nullptr : want.back());
}

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

TEST(Queue, TwinsKeepOrderRefuseMisuseAndRepairCounts)
{
    // Without a log store every report asks the platform again: the hook probes the lock inside each.
    fake::set_log_store_status(1, VOBREL_PLATFORM_UNSUPPORTED);
    fake::set_log_store_hook(probe_lock);
    for (bool locked : {true, false}) {
        SCOPED_TRACE(locked ? "locked" : "unlocked");
        auto enq = locked ? zel_enqueue : zel_p_enqueue, req = locked ? zel_requeue : zel_p_requeue;
        auto unq = locked ? zel_unqueue : zel_p_unqueue;
        auto deq = locked ? zel_dequeue : zel_p_dequeue;
        queuetype q{}, empty{};
        Elem a{}, b{}, c{}, stray{&c, 0};
        lock_seen.clear();
        EXPECT_TRUE(!deq(nullptr) && enq(&q, &a) && enq(&q, &b) && req(&q, &c));
        // The tail (its link is null) twice, a linked stray; missing, and an empty queue.
        EXPECT_FALSE(enq(&q, &b) || enq(&q, &stray) || req(&q, &b) || unq(&q, &stray) || unq(&empty, &a));
        expect_queue(q, {&c, &a, &b});
        EXPECT_EQ(lines(), (Lines{rep(kLinked, "enqueue", &b, &q), rep(kLinked, "enqueue", &stray, &q),
                                  rep(kLinked, "requeue", &b, &q), rep(kNotq, "unqueue", &stray, &q),
                                  rep(kNotq, "unqueue", &a, &empty)}));
        EXPECT_TRUE(unq(&q, &a) && unq(&q, &b)); // the middle, then the tail
        expect_queue(q, {&c});
        EXPECT_TRUE(deq(&q) == &c && req(&q, &a)); // onto an empty queue: the tail too
        expect_queue(q, {&a});
        EXPECT_TRUE(unq(&q, &a) && !deq(&q) && !a.next && !b.next && !c.next && stray.next == &c);
        expect_queue(q, {});
        for (int maximum : {5, 0}) // one element counted as none: repaired and reported only with a limit
            for (bool by_unqueue : {false, true}) {
                q = {&a, &a, 0, maximum};
                EXPECT_TRUE(by_unqueue ? unq(&q, &a) : deq(&q) == &a);
                EXPECT_TRUE(!q.qhead && !q.qtail && q.count == (maximum ? 0 : -1)) << q.count;
                EXPECT_EQ(lines(), maximum ? Lines{rep(kQcount, by_unqueue ? "unqueue" : "dequeue", &q)} : Lines{});
            }
        EXPECT_EQ(lock_seen, std::vector<int>(7, locked ? EBUSY : 0)); // locked ones report under the lock
    }
}

TEST(Queue, OrderedInsertion)
{
    Elem e[7] = {{nullptr, 3}, {nullptr, 1}, {nullptr, 2}, {nullptr, 1}, {nullptr, 3}, {nullptr, 2}, {nullptr, 0}};
    Elem h{nullptr, 1}, m{nullptr, -1}, n{};
    queuetype q{}, o{}, empty{};
    for (Elem &x : e)
        EXPECT_TRUE(zel_queue_insert_comp(&q, &x, by_key));
    expect_queue(q, {&e[6], &e[1], &e[3], &e[2], &e[5], &e[0], &e[4]}); // equals: first in, first out
    // A result beyond GT, read unsigned, inserts before; the comparator runs under the lock.
    EXPECT_TRUE(zel_enqueue(&o, &h) && zel_enqueue(&o, &m));
    zel_queue_insert_comp(&o, &n, [](void *queued, void *) {
        probe_lock();
        return static_cast<queue_compare_result>(static_cast<Elem *>(queued)->key);
    });
    expect_queue(o, {&h, &n, &m});
    // Only the empty queue checks for a link: refused and reported, yet TRUE.
    EXPECT_TRUE(zel_queue_insert_comp(&empty, &h, by_key));
    expect_queue(empty, {});
    EXPECT_EQ(lines(), Lines{rep(kLinked, "enqueue", &h, &empty)});
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
    for (const auto &l : lines()) // only failed take-backs may report
        EXPECT_EQ(l.rfind("%SYS-2-NOTQ:unqueue didn't find ", 0), 0u) << l;
}
