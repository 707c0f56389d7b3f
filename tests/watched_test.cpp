// Watched booleans, queues and read-write locks: waking, time-outs, counting,
// refusals, contention and the lock's give-up.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/debug.h>
#include <vobrel/watched.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }
void nap(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

struct Rec { Rec *next; int producer, seq; }; // a linkable record

} // namespace

TEST(WatchedBoolean, LevelTimeOutsAndNullHandles)
{
    const std::string line = "process_wait_on_boolean, timeout\n";
    vobrel_debug_errors = TRUE;
    watched_boolean *wb = create_watched_boolean("b", 0);
    EXPECT_FALSE(process_wait_on_boolean(wb, 999)); // below a second: already passed
    EXPECT_EQ(fake::log_messages(), Lines{line});
    EXPECT_EQ(fake::buginf_texts(), Lines{"DBG:" + line});
    process_set_boolean(wb, 5);
    EXPECT_EQ(process_get_boolean(wb), 5);
    EXPECT_TRUE(process_wait_on_boolean(wb, 0)); // set: at once, nothing logged
    EXPECT_EQ(fake::log_messages().size(), 1u);

    process_set_boolean(wb, FALSE);
    auto t0 = Clock::now();
    EXPECT_FALSE(process_wait_on_boolean(wb, 2500));
    double waited = seconds_since(t0);
    EXPECT_TRUE(waited > 0.99 && waited < 2.1) << waited;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_LT(now.tv_nsec, 250'000'000) << "ends at the start of a wall-clock second";

    process_set_boolean(nullptr, TRUE);
    EXPECT_FALSE(process_wait_on_boolean(nullptr, 0) || process_get_boolean(nullptr));
    EXPECT_TRUE(delete_watched_boolean(&wb));
    EXPECT_FALSE(wb || delete_watched_boolean(&wb));
}

TEST(WatchedBoolean, OnlyARisingSetWakesAndOnlyOneWaiter)
{
    watched_boolean *wb = create_watched_boolean("b", 0);
    std::atomic<int> woken{0};
    auto waiter = [&] { woken += process_wait_on_boolean(wb, 0xFFFFFFFFul); };
    std::thread a(waiter), b(waiter);
    nap(300); // both asleep on the clear flag
    process_set_boolean(wb, TRUE);
    process_set_boolean(wb, 7); // already set: no second signal
    nap(300);
    EXPECT_EQ(woken, 1);
    process_set_boolean(wb, FALSE);
    process_set_boolean(wb, TRUE); // rising again: wakes the other
    a.join();
    b.join();
    EXPECT_EQ(woken, 2);
    delete_watched_boolean(&wb);
}

// Four producers, one consumer in the documented pattern, with either pair:
// every item comes out once, each producer's items in their order.
TEST(WatchedQueue, ProducersAndOneConsumerLoseNothing)
{
    constexpr int kProducers = 4, kEach = 5000;
    for (bool data : {false, true}) {
        std::vector<Rec> recs;
        for (int i = 0; i < kProducers * kEach; ++i)
            recs.push_back({nullptr, i / kEach, i % kEach});
        watched_queue *wq = create_watched_queue("pc", 0, 0);
        std::vector<std::thread> producers;
        for (Rec *mine = recs.data(); mine < recs.data() + recs.size(); mine += kEach)
            producers.emplace_back([=] {
                for (Rec *r = mine; r < mine + kEach; ++r)
                    EXPECT_TRUE(data ? process_data_enqueue(wq, r) : process_enqueue(wq, r));
            });
        std::vector<int> next_seq(kProducers, 0);
        int disorder = 0;
        for (int got = 0; got < kProducers * kEach;) {
            process_wait_on_queue(wq);
            for (void *it; (it = data ? process_data_dequeue(wq) : process_dequeue(wq)) != nullptr; ++got)
                disorder += static_cast<Rec *>(it)->seq != next_seq[static_cast<Rec *>(it)->producer]++;
        }
        for (auto &t : producers)
            t.join();
        EXPECT_EQ(disorder + wq->event_count, 0);
        delete_watched_queue(&wq);
    }
}

TEST(WatchedQueue, LimitsRefusalsAndCounting)
{
    int d1, d2, d3;
    watched_queue *wq = create_watched_queue("q", 0, 2);
    EXPECT_TRUE(process_data_enqueue(wq, &d1));
    process_wait_on_queue(wq); // pending: returns at once
    EXPECT_TRUE(process_data_enqueue(wq, &d2));
    EXPECT_FALSE(process_data_enqueue(wq, &d3));
    EXPECT_EQ(process_data_dequeue(wq), &d1);
    allocfail::fail_nth(0); // no wrapper
    boolean queued = process_data_enqueue(wq, &d3);
    allocfail::reset();
    EXPECT_FALSE(queued);
    EXPECT_EQ(wq->event_count, 1);
    EXPECT_EQ(process_data_dequeue(wq), &d2);
    EXPECT_EQ(process_data_dequeue(wq), nullptr);
    EXPECT_EQ(wq->event_count, 0);
    delete_watched_queue(&wq);

    Rec r1{}, r2{}, r3{};
    wq = create_watched_queue("q", 0, -1); // no limit
    for (Rec *r : {&r1, &r2, &r3})
        EXPECT_TRUE(process_enqueue(wq, r));
    EXPECT_FALSE(process_enqueue(wq, &r3)); // the tail, already linked
    EXPECT_EQ(wq->event_count, 3);
    for (Rec *r : {&r1, &r2, &r3})
        EXPECT_EQ(process_dequeue(wq), r);
    delete_watched_queue(&wq);

    process_wait_on_queue(nullptr); // null handles: refused, no crash
    EXPECT_FALSE(process_enqueue(nullptr, &r1) || process_data_dequeue(nullptr) || delete_watched_queue(&wq));
}

TEST(WatchedRwlock, ContentionDeadlockAndDelete)
{
    watched_rwlock *rw = create_watched_rwlock(nullptr, RW_FIFO);
    EXPECT_EQ(process_rwlock_wrlock(rw), RWOK);
    EXPECT_EQ(process_rwlock_wrlock(rw), RWDEADLK);
    EXPECT_EQ(process_rwlock_rdlock(rw), RWDEADLK);
    EXPECT_EQ(fake::log_messages(), Lines{"Read Lock Error: failed to acquire read lock :35\n"});
    std::atomic<bool> released{false};
    std::thread writer([&] {
        EXPECT_EQ(process_rwlock_wrlock(rw), RWOK);
        EXPECT_TRUE(released); // held off until this thread let go
        EXPECT_EQ(process_rwlock_unlock(rw), RWOK);
    });
    nap(200);
    released = true;
    EXPECT_EQ(process_rwlock_unlock(rw), RWOK);
    writer.join();

    EXPECT_EQ(process_rwlock_rdlock(nullptr), RWINVALID);
    EXPECT_EQ(delete_watched_rwlock(nullptr), RWNOTOK);
    EXPECT_EQ(delete_watched_rwlock(&rw), RWOK);
    EXPECT_EQ(delete_watched_rwlock(&rw), RWNOTOK); // the handle was cleared
}

// The one slow case: a read and a write lock wait out their 15 seconds side by
// side while this thread holds the write lock.
TEST(WatchedRwlock, GivesUpAfterFifteenSeconds)
{
    vobrel_debug_errors = TRUE;
    watched_rwlock *rw = create_watched_rwlock(nullptr, RW_PRIO);
    EXPECT_EQ(process_rwlock_wrlock(rw), RWOK);
    auto t0 = Clock::now();
    std::thread reader([&] { EXPECT_EQ(process_rwlock_rdlock(rw), RWTIMEOUT); });
    std::thread writer([&] { EXPECT_EQ(process_rwlock_wrlock(rw), RWTIMEOUT); });
    reader.join();
    writer.join();
    EXPECT_GT(seconds_since(t0), 14.9);
    const std::string line = "Read Lock Error: failed to acquire read lock :110\n";
    EXPECT_EQ(fake::log_messages(), Lines{line});
    EXPECT_EQ(fake::buginf_texts(), Lines{"DBG:" + line});
    EXPECT_EQ(process_rwlock_unlock(rw), RWOK);
    delete_watched_rwlock(&rw);
}
