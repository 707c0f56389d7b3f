// Queues: order and links after every kind of operation, refusals and their
// reports, count repair, predecessors, ordered insertion, validation, the
// queue lock, and locked operations racing on shared queues.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/queue.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/queue_private.h"

namespace {

struct Elem {
    Elem *next;
    int key;
    int id;
};

std::string hex(const void *p)
{
    char b[16];
    snprintf(b, sizeof b, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return b;
}

std::vector<std::string> syslog()
{
    std::vector<std::string> out;
    for (const auto &l : fake::syslog_lines())
        out.push_back(l.line);
    return out;
}

std::string linked(const char *op, const void *e, const void *q)
{
    return std::string("%SYS-2-LINKED:Bad ") + op + " of " + hex(e) + " in queue " + hex(q);
}

std::string notq(const char *op, const void *e, const void *q)
{
    return std::string("%SYS-2-NOTQ:") + op + " didn't find " + hex(e) + " in queue " + hex(q);
}

std::string qcount(const char *op, const void *q, int n)
{
    return std::string("%SYS-2-QCOUNT:Bad ") + op + " " + hex(q) + " count " + std::to_string(n);
}

// The queue holds exactly `want`, in order, with consistent head, tail, count
// and a null link behind the last element.
void expect_queue(const queuetype &q, std::vector<Elem *> want)
{
    std::vector<Elem *> got;
    for (auto *e = static_cast<Elem *>(q.qhead); e && got.size() <= want.size(); e = e->next)
        got.push_back(e);
    EXPECT_EQ(got, want);
    EXPECT_EQ(q.count, static_cast<int>(want.size()));
    EXPECT_EQ(q.qtail, want.empty() ? nullptr : want.back());
    EXPECT_EQ(q.qhead, want.empty() ? nullptr : want.front());
}

struct Ops {
    const char *name;
    boolean (*enq)(queuetype *, void *);
    boolean (*req)(queuetype *, void *);
    void *(*deq)(queuetype *);
    boolean (*unq)(queuetype *, void *);
};

void PrintTo(const Ops &o, std::ostream *os)
{
    *os << o.name;
}

class LockedAndUnlocked : public ::testing::TestWithParam<Ops> {
protected:
    queuetype q{};
    Elem a{}, b{}, c{};
};

} // namespace

TEST(QueueHeader, ZeroFilledIsEmptyWithoutLimitAndInitRefusesBadInput)
{
    queuetype q{};
    EXPECT_EQ(zel_dequeue(&q), nullptr);
    EXPECT_EQ(zel_dequeue(nullptr), nullptr);
    EXPECT_EQ(zel_p_dequeue(nullptr), nullptr);
    EXPECT_FALSE(queuefull_inline(&q));
    EXPECT_TRUE(queueempty_inline(&q));
    EXPECT_TRUE(zel_validqueue(&q, TRUE));
    EXPECT_TRUE(syslog().empty());

    Elem a{}, b{};
    q = {&a, &b, 2, 7};
    EXPECT_FALSE(zel_queue_init(&q, -1));
    EXPECT_FALSE(zel_queue_init(nullptr, 3));
    EXPECT_EQ(q.qhead, &a);
    EXPECT_EQ(q.count, 2);
    EXPECT_EQ(q.maximum, 7);
    EXPECT_TRUE(zel_queue_init(&q, 2));
    expect_queue(q, {});
    EXPECT_EQ(zel_queryqueuesize(&q), 2);

    // Enqueue does not stop at the limit; the full test and validation do.
    Elem c{};
    for (Elem *e : {&a, &b, &c})
        ASSERT_TRUE(zel_enqueue(&q, e));
    EXPECT_TRUE(queuefull_inline(&q));
    EXPECT_EQ(zel_queryqueuedepth(&q), 3);
    EXPECT_EQ(zel_peekqueuehead(&q), &a);
    EXPECT_EQ(queuepeekhead_inline(&q), &a);
    EXPECT_EQ(zel_peekqueuetail(&q), &c);
    EXPECT_EQ(queueget_next_inline(&a), &b);
    EXPECT_FALSE(zel_validqueue(&q, FALSE));
    EXPECT_TRUE(zel_queue_init(&q, 0));
    EXPECT_FALSE(queuefull_inline(&q));

    // The other operation names show in the reports checked below.
    EXPECT_STREQ(queue_badEnqueueStr, "bad enqueue");
}

TEST_P(LockedAndUnlocked, OrderAndLinks)
{
    const Ops &o = GetParam();
    EXPECT_TRUE(o.enq(&q, &a));
    EXPECT_TRUE(o.enq(&q, &b));
    EXPECT_TRUE(o.req(&q, &c));
    expect_queue(q, {&c, &a, &b});
    EXPECT_TRUE(o.unq(&q, &a)); // middle
    EXPECT_EQ(a.next, nullptr);
    expect_queue(q, {&c, &b});
    EXPECT_TRUE(o.unq(&q, &b)); // tail: the predecessor becomes the tail
    expect_queue(q, {&c});
    EXPECT_TRUE(o.enq(&q, &b));
    EXPECT_EQ(o.deq(&q), &c);
    EXPECT_EQ(c.next, nullptr);
    EXPECT_TRUE(o.unq(&q, &b)); // the only element
    expect_queue(q, {});
    EXPECT_TRUE(o.req(&q, &a)); // requeue onto an empty queue sets the tail too
    expect_queue(q, {&a});
    EXPECT_EQ(o.deq(&q), &a);
    EXPECT_EQ(o.deq(&q), nullptr);
    expect_queue(q, {});
    EXPECT_TRUE(syslog().empty());
}

TEST_P(LockedAndUnlocked, RefusalsReportAndChangeNothing)
{
    const Ops &o = GetParam();
    Elem stray{&c, 0, 0};
    ASSERT_TRUE(o.enq(&q, &a));
    ASSERT_TRUE(o.enq(&q, &b));
    EXPECT_FALSE(o.enq(&q, &b)); // the tail, again
    EXPECT_FALSE(o.enq(&q, &stray));
    EXPECT_FALSE(o.req(&q, &a));
    EXPECT_FALSE(o.unq(&q, &c));
    expect_queue(q, {&a, &b});
    EXPECT_EQ(stray.next, &c);
    queuetype empty{};
    EXPECT_FALSE(o.unq(&empty, &a));
    EXPECT_EQ(syslog(), (std::vector<std::string>{linked("enqueue", &b, &q), linked("enqueue", &stray, &q),
                                                   linked("requeue", &a, &q), notq("unqueue", &c, &q),
                                                   notq("unqueue", &a, &empty)}));
    EXPECT_EQ(fake::log_messages().at(0), "Bad enqueue of " + hex(&b) + " in queue " + hex(&q));
}

TEST_P(LockedAndUnlocked, NegativeCountIsRepairedOnlyWithALimit)
{
    const Ops &o = GetParam();
    for (int maximum : {5, 0}) {
        for (bool by_unqueue : {false, true}) {
            fake::clear_recordings();
            q = {&a, &a, 0, maximum}; // one element, counted as none
            if (by_unqueue)
                EXPECT_TRUE(o.unq(&q, &a));
            else
                EXPECT_EQ(o.deq(&q), &a);
            EXPECT_EQ(q.qhead, nullptr);
            EXPECT_EQ(q.qtail, nullptr);
            const char *op = by_unqueue ? "unqueue" : "dequeue";
            if (maximum) {
                EXPECT_EQ(q.count, 0);
                EXPECT_EQ(syslog(), std::vector<std::string>{qcount(op, &q, -1)});
            } else {
                EXPECT_EQ(q.count, -1);
                EXPECT_TRUE(syslog().empty());
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Queue, LockedAndUnlocked,
                         ::testing::Values(Ops{"Locked", zel_enqueue, zel_requeue, zel_dequeue, zel_unqueue},
                                           Ops{"Unlocked", zel_p_enqueue, zel_p_requeue, zel_p_dequeue,
                                               zel_p_unqueue}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(QueuePredecessor, InsertAfterAndInsertAtHead)
{
    queuetype q{};
    Elem a{}, b{}, c{}, d{};
    EXPECT_TRUE(zel_insqueue(&q, &b, &q)); // the header on an empty queue
    expect_queue(q, {&b});
    EXPECT_TRUE(zel_insqueue(&q, &d, &b)); // after the tail
    EXPECT_TRUE(zel_insqueue(&q, &c, &b)); // in the middle
    EXPECT_TRUE(zel_insqueue(&q, &a, nullptr)); // null: requeue
    expect_queue(q, {&a, &b, &c, &d});
    EXPECT_FALSE(zel_insqueue(&q, &b, &d));
    EXPECT_FALSE(zel_insqueue(&q, &d, &a));
    EXPECT_FALSE(zel_insqueue(&q, &c, nullptr));
    expect_queue(q, {&a, &b, &c, &d});
    EXPECT_EQ(syslog(), (std::vector<std::string>{linked("insqueue", &b, &q), linked("insqueue", &d, &q),
                                                   linked("requeue", &c, &q)}));
}

TEST(QueuePredecessor, RemoveWithKnownPredecessor)
{
    queuetype q{};
    Elem a{}, b{}, c{}, d{};
    for (Elem *e : {&a, &b, &c, &d})
        zel_enqueue(&q, e);
    EXPECT_EQ(zel_remqueue(&q, &b, nullptr), nullptr); // not the head
    EXPECT_EQ(zel_remqueue(&q, &c, &a), nullptr);      // wrong predecessor
    EXPECT_EQ(zel_remqueue(&q, nullptr, &a), nullptr);
    expect_queue(q, {&a, &b, &c, &d});
    EXPECT_EQ(syslog(), (std::vector<std::string>{linked("remqueue", &b, &q), linked("remqueue", &c, &q),
                                                   linked("remqueue", nullptr, &q)}));
    EXPECT_EQ(zel_remqueue(&q, &d, &c), &d); // the tail: its predecessor takes over
    expect_queue(q, {&a, &b, &c});
    EXPECT_EQ(zel_remqueue(&q, &b, &a), &b);
    EXPECT_EQ(b.next, nullptr);
    EXPECT_EQ(zel_remqueue(&q, &a, &q), &a); // the header for the head
    EXPECT_EQ(zel_remqueue(&q, &c, nullptr), &c);
    expect_queue(q, {});

    // Removing the successor of a predecessor.
    for (Elem *e : {&a, &b, &c})
        zel_enqueue(&q, e);
    EXPECT_TRUE(zel_unqueuenext(&q, &c)); // no successor: nothing happens
    expect_queue(q, {&a, &b, &c});
    EXPECT_TRUE(zel_unqueuenext(&q, &b));
    expect_queue(q, {&a, &b});
    EXPECT_TRUE(zel_p_unqueuenext(&q, &q));
    EXPECT_TRUE(zel_unqueuenext(&q, &q));
    expect_queue(q, {});
    EXPECT_TRUE(zel_unqueuenext(&q, &q));
    expect_queue(q, {});

    // Count repair by the operation names of these two.
    q = {&a, &a, 0, 1};
    a.next = nullptr;
    fake::clear_recordings();
    EXPECT_TRUE(zel_unqueuenext(&q, &q));
    q = {&a, &a, 0, 1};
    EXPECT_EQ(zel_remqueue(&q, &a, &q), &a);
    expect_queue(q, {});
    EXPECT_EQ(syslog(), (std::vector<std::string>{qcount("p_unqueuenext", &q, -1), qcount("remqueue", &q, -1)}));
}

TEST(QueuePredecessor, SwapAndSilentUnqueue)
{
    queuetype q{};
    Elem a{}, b{}, c{}, x{}, y{}, z{};
    EXPECT_FALSE(zel_p_swapqueue(&q, &x, &a)); // empty
    for (Elem *e : {&a, &b, &c})
        zel_enqueue(&q, e);
    EXPECT_FALSE(zel_p_swapqueue(&q, &x, &y)); // not on it
    EXPECT_EQ(syslog(), (std::vector<std::string>{notq("swapqueue", &a, &q), notq("swapqueue", &y, &q)}));
    EXPECT_TRUE(zel_p_swapqueue(&q, &x, &a));
    EXPECT_TRUE(zel_p_swapqueue(&q, &y, &b));
    EXPECT_TRUE(zel_p_swapqueue(&q, &z, &c));
    EXPECT_TRUE(zel_p_swapqueue(&q, &z, &z)); // with itself: unchanged
    expect_queue(q, {&x, &y, &z});
    EXPECT_EQ(a.next, nullptr);
    EXPECT_EQ(b.next, nullptr);

    fake::clear_recordings();
    EXPECT_TRUE(zel_checkqueue(&q, &y));
    EXPECT_FALSE(zel_checkqueue(&q, &a));
    EXPECT_FALSE(zel_checkqueue(nullptr, &a));
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &a), nullptr);
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &y), &y);
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &z), &z);
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &x), &x);
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &x), nullptr);
    expect_queue(q, {});
    q = {&a, &a, 0, 3};
    EXPECT_EQ(zel_p_check_and_unqueue(&q, &a), &a);
    expect_queue(q, {});
    EXPECT_TRUE(syslog().empty());
}

namespace {

queue_compare_result by_key(void *queued, void *inserted)
{
    int l = static_cast<Elem *>(queued)->key, r = static_cast<Elem *>(inserted)->key;
    return l < r ? QUEUE_LT : l == r ? QUEUE_EQ : QUEUE_GT;
}
queue_compare_result always_eq(void *, void *)
{
    return QUEUE_EQ;
}
queue_compare_result always_gt(void *, void *)
{
    return QUEUE_GT;
}
queue_compare_result out_of_range(void *queued, void *)
{
    return static_cast<queue_compare_result>(static_cast<Elem *>(queued)->key);
}

int lock_busy_in_compare;
queue_compare_result checks_lock(void *, void *)
{
    if (pthread_mutex_trylock(&vobrel::queue_func_mutex) == 0)
        pthread_mutex_unlock(&vobrel::queue_func_mutex);
    else
        ++lock_busy_in_compare;
    return QUEUE_LT;
}

std::vector<int> ids(const queuetype &q)
{
    std::vector<int> out;
    for (auto *e = static_cast<Elem *>(q.qhead); e; e = e->next)
        out.push_back(e->id);
    return out;
}

} // namespace

TEST(QueueOrdered, AscendingAndFirstInFirstOutAmongEquals)
{
    std::vector<Elem> el(7);
    const int keys[] = {3, 1, 2, 1, 3, 2, 0};
    queuetype q{};
    for (int i = 0; i < 7; ++i) {
        el[i] = {nullptr, keys[i], i};
        EXPECT_TRUE(zel_queue_insert_comp(&q, &el[i], by_key));
    }
    EXPECT_EQ(ids(q), (std::vector<int>{6, 1, 3, 2, 5, 0, 4}));
    EXPECT_EQ(q.qtail, &el[4]);
    EXPECT_TRUE(zel_validqueue(&q, TRUE));

    for (auto [cmp, want] : {std::pair{&always_eq, std::vector<int>{0, 1, 2, 3}},
                             std::pair{&always_gt, std::vector<int>{3, 2, 1, 0}}}) {
        queuetype o{};
        std::vector<Elem> e(4);
        for (int i = 0; i < 4; ++i) {
            e[i] = {nullptr, 0, i};
            zel_queue_insert_comp(&o, &e[i], cmp);
        }
        EXPECT_EQ(ids(o), want);
        EXPECT_EQ(o.qtail, &e[want.back()]);
        EXPECT_EQ(o.count, 4);
    }

    // Results other than LT and EQ, read unsigned, insert before.
    Elem h{nullptr, 1, 0}, m{nullptr, -1, 1}, n{nullptr, 9, 2};
    queuetype o{};
    zel_enqueue(&o, &h);
    zel_enqueue(&o, &m);
    zel_queue_insert_comp(&o, &n, out_of_range);
    EXPECT_EQ(ids(o), (std::vector<int>{0, 2, 1}));

    // The comparator runs under the queue lock.
    Elem probe{};
    zel_queue_insert_comp(&o, &probe, checks_lock);
    EXPECT_EQ(lock_busy_in_compare, 3);
    EXPECT_TRUE(syslog().empty());
}

TEST(QueueOrdered, EmptyQueueChecksForLinkedElementButStillSaysTrue)
{
    queuetype q{}, other{};
    Elem a{}, b{};
    zel_enqueue(&other, &a);
    zel_enqueue(&other, &b);
    EXPECT_TRUE(zel_queue_insert_comp(&q, &a, by_key));
    expect_queue(q, {});
    expect_queue(other, {&a, &b});
    EXPECT_EQ(syslog(), std::vector<std::string>{linked("enqueue", &a, &q)});
}

TEST(QueueValidation, CountAgainstChainLimitAndLoops)
{
    Elem a{}, b{}, c{};
    a.next = &b;
    b.next = &c;
    queuetype q{&a, &c, 3, 0};
    EXPECT_TRUE(zel_validqueue(&q, TRUE));
    q.qtail = &a; // the tail is not examined
    EXPECT_TRUE(zel_validqueue(&q, TRUE));
    q.count = 2;
    EXPECT_FALSE(zel_validqueue(&q, FALSE));
    EXPECT_FALSE(zel_validqueue(&q, TRUE)); // names the first element beyond count
    q.count = 4;
    EXPECT_FALSE(zel_validqueue(&q, TRUE));
    q.count = -1;
    EXPECT_FALSE(zel_validqueue(&q, TRUE));
    q = {&a, &c, 3, 2};
    EXPECT_FALSE(zel_validqueue(&q, TRUE));
    c.next = &a; // a loop
    q = {&a, &c, 100000, 0};
    EXPECT_FALSE(zel_validqueue(&q, TRUE));
    EXPECT_EQ(syslog(), (std::vector<std::string>{linked("validqueue", &c, &q), linked("validqueue", nullptr, &q),
                                                   linked("validqueue", nullptr, &q),
                                                   linked("validqueue", nullptr, &q),
                                                   linked("validqueue", &b, &q)}));
}

namespace {

// The first report of a process initialises the log file, which asks the
// platform for the store: the hook sees whether the queue lock is held then.
int lock_seen = -1;
void probe_lock()
{
    if (lock_seen != -1)
        return;
    lock_seen = pthread_mutex_trylock(&vobrel::queue_func_mutex);
    if (lock_seen == 0)
        pthread_mutex_unlock(&vobrel::queue_func_mutex);
}

struct LockCase {
    const char *name;
    void (*provoke)();
    bool locked;
};

void PrintTo(const LockCase &c, std::ostream *os)
{
    *os << c.name;
}

class QueueLockDuringReport : public ::testing::TestWithParam<LockCase> {};

Elem pa{}, pb{}, pc{};
queuetype pq{}, pq_limited{nullptr, nullptr, 0, 1};

} // namespace

TEST_P(QueueLockDuringReport, LockedOperationsReportUnderTheLock)
{
    fake::set_log_store_hook(probe_lock);
    zel_p_enqueue(&pq, &pa);
    zel_p_enqueue(&pq, &pb);
    GetParam().provoke();
    EXPECT_EQ(syslog().size(), 1u);
    EXPECT_EQ(lock_seen, GetParam().locked ? EBUSY : 0);
    fake::set_log_store_hook(nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Queue, QueueLockDuringReport,
    ::testing::Values(LockCase{"Enqueue", [] { zel_enqueue(&pq, &pa); }, true},
                      LockCase{"Unqueue", [] { zel_unqueue(&pq, &pc); }, true},
                      LockCase{"InsertComp", [] { zel_queue_insert_comp(&pq_limited, &pa, always_eq); }, true},
                      LockCase{"Dequeue",
                               [] {
                                   pq_limited = {&pc, &pc, 0, 1};
                                   zel_dequeue(&pq_limited);
                               },
                               true},
                      LockCase{"UnlockedTwin", [] { zel_p_enqueue(&pq, &pa); }, false}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(QueueLocking, NoOperationAllocates)
{
    queuetype q{}, r{};
    Elem a{}, b{}, c{}, x{}, y{};
    allocfail::Guard g;
    allocfail::count_from_now();
    zel_queue_init(&q, 4);
    zel_enqueue(&q, &a);
    zel_requeue(&q, &b);
    zel_p_enqueue(&q, &c);
    zel_queue_insert_comp(&q, &x, always_eq); // b a c x
    zel_p_swapqueue(&q, &y, &x);              // b a c y
    zel_checkqueue(&q, &c);
    zel_validqueue(&q, TRUE);
    zel_unqueue(&q, &a);
    zel_p_unqueue(&q, &c);
    zel_insqueue(&q, &a, &q);      // a b y
    zel_remqueue(&q, &a, nullptr); // b y
    zel_unqueuenext(&q, &q);       // y
    zel_p_check_and_unqueue(&q, &y);
    zel_p_requeue(&r, &a);
    zel_p_dequeue(&r);
    zel_dequeue(&r);
    int n = allocfail::count();
    allocfail::reset();
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(syslog().empty());
    expect_queue(q, {});
    expect_queue(r, {});
}

// Threads move elements between shared queues with the locked operations
// only. Whoever takes an element off a queue holds it alone until it puts it
// back, so at the end every element is on exactly one queue, once.
TEST(QueueLocking, ThreadsMovingElementsKeepEveryElementExactlyOnce)
{
    constexpr int kQueues = 4, kElems = 16, kThreads = 4, kRounds = 100000;
    queuetype qs[kQueues];
    for (auto &q : qs)
        zel_queue_init(&q, 0);
    std::vector<Elem> el(kElems);
    for (int i = 0; i < kElems; ++i) {
        el[i] = {nullptr, i % 5, i};
        zel_queue_insert_comp(&qs[i % kQueues], &el[i], by_key); // the last queue stays ordered
    }
    std::atomic<int> ready{0};
    auto worker = [&](unsigned stream) {
        std::minstd_rand rng(stream);
        ready.fetch_add(1);
        while (ready.load() < kThreads) {
        }
        for (int r = 0; r < kRounds; ++r) {
            auto *e = static_cast<Elem *>(zel_dequeue(&qs[rng() % kQueues]));
            if (!e)
                continue;
            for (bool placed = false; !placed;) {
                unsigned d = rng() % kQueues;
                if (d == kQueues - 1)
                    placed = zel_queue_insert_comp(&qs[d], e, by_key);
                else
                    placed = (rng() & 1) ? zel_enqueue(&qs[d], e) : zel_requeue(&qs[d], e);
                ASSERT_TRUE(placed);
                // Take it straight back now and then; another thread may have
                // taken it first, and then it is that thread's.
                if (rng() % 8 == 0 && zel_unqueue(&qs[d], e))
                    placed = false;
            }
        }
    };
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back(worker, 1234u + t);
    for (auto &t : ts)
        t.join();

    std::vector<int> seen(kElems);
    for (int i = 0; i < kQueues; ++i) {
        EXPECT_TRUE(zel_validqueue(&qs[i], TRUE)) << i;
        int n = 0, last_key = -1;
        for (auto *e = static_cast<Elem *>(qs[i].qhead); e && n <= kElems; e = e->next, ++n) {
            ++seen[e->id];
            if (i == kQueues - 1) {
                EXPECT_LE(last_key, e->key);
                last_key = e->key;
            }
            if (!e->next) {
                EXPECT_EQ(qs[i].qtail, e);
            }
        }
        EXPECT_EQ(qs[i].count, n);
    }
    EXPECT_EQ(seen, std::vector<int>(kElems, 1));
    for (const auto &l : syslog()) // only failed take-backs may report
        EXPECT_EQ(l.rfind("%SYS-2-NOTQ:unqueue didn't find ", 0), 0u) << l;
}
