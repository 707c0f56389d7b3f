// Watched booleans, queues and read-write locks: waking, time-outs, counting,
// refusals, deadlock and the lock's give-up.
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

struct Rec { Rec *next; int producer, seq; }; // a linkable record

} // namespace

TEST(WatchedBoolean, LevelTimeOutsRisingEdgeAndNullHandles)
{
    watched_boolean *wb = create_watched_boolean("b", 0);
    EXPECT_FALSE(process_wait_on_boolean(wb, 999)); // below a second: already passed
    EXPECT_EQ(fake::log_messages(), Lines{"process_wait_on_boolean, timeout\n"});
    auto t0 = Clock::now();
    EXPECT_FALSE(process_wait_on_boolean(wb, 2000)); // ends at the start of the second after next
    EXPECT_NEAR(seconds_since(t0), 1.55, 0.55); // over a second, the most of which has not passed
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_LT(now.tv_nsec, 250'000'000);

    std::atomic<int> woken{0};
    auto waiter = [&] { woken += process_wait_on_boolean(wb, 0xFFFFFFFFul); };
    std::thread a(waiter), b(waiter);
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // both asleep on the clear flag
    process_set_boolean(wb, TRUE);
    process_set_boolean(wb, 5); // already set: stored, but no second signal
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(woken, 1);
    EXPECT_EQ(process_get_boolean(wb), 5);
    process_set_boolean(wb, FALSE);
    process_set_boolean(wb, TRUE); // rising again: wakes the other
    a.join();
    b.join();
    EXPECT_TRUE(woken == 2 && process_wait_on_boolean(wb, 0)); // set: at once
    EXPECT_EQ(fake::log_messages().size(), 2u);

    process_set_boolean(nullptr, TRUE);
    EXPECT_FALSE(process_wait_on_boolean(nullptr, 0) || process_get_boolean(nullptr));
    EXPECT_TRUE(delete_watched_boolean(&wb));
    EXPECT_FALSE(wb || delete_watched_boolean(&wb));
}

// Four producers, one consumer in the documented pattern, with either pair
// and a limit that keeps refusing: every item comes out once, each
// producer's items in their order.
TEST(WatchedQueue, ProducersAndOneConsumerLoseNothing)
{
    constexpr int kProducers = 4, kEach = 5000;
    for (bool data : {false, true}) {
        std::vector<Rec> recs;
        for (int i = 0; i < kProducers * kEach; ++i)
            recs.push_back({nullptr, i / kEach, i % kEach});
        watched_queue *wq = create_watched_queue("pc", 0, 64);
        std::vector<std::thread> producers;
        for (Rec *mine = recs.data(); mine < recs.data() + recs.size(); mine += kEach)
            producers.emplace_back([=] {
                for (Rec *r = mine; r < mine + kEach; ++r)
                    while (!(data ? process_data_enqueue(wq, r) : process_enqueue(wq, r)))
                        std::this_thread::yield(); // full
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

TEST(WatchedQueue, RefusedItemsAreNotCounted)
{
    int d1, d3;
    Rec r1{}, r2{};
    watched_queue *wq = create_watched_queue("q", 0, 2), *plain = create_watched_queue("p", 0, -1); // no limit
    EXPECT_TRUE(process_data_enqueue(wq, &d1));
    process_wait_on_queue(wq); // pending: returns at once
    EXPECT_TRUE(process_data_enqueue(wq, nullptr) && !process_data_enqueue(wq, &d3)); // a null datum counts too
    EXPECT_EQ(process_data_dequeue(wq), &d1);
    allocfail::fail_nth(0); // no wrapper
    EXPECT_FALSE(process_data_enqueue(wq, &d3));
    allocfail::reset();
    std::thread consumer([&] { process_wait_on_queue(plain); }); // woken by the first pending item
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(process_enqueue(plain, &r1));
    consumer.join();
    EXPECT_TRUE(process_enqueue(plain, &r2));
    EXPECT_FALSE(process_enqueue(plain, &r2)); // the tail, already linked
    EXPECT_EQ(std::pair(wq->event_count, plain->event_count), std::pair(1, 2));
    EXPECT_TRUE(!process_data_dequeue(wq) && wq->event_count == 0); // the null datum
    EXPECT_TRUE(process_dequeue(plain) == &r1 && process_dequeue(plain) == &r2 && plain->event_count == 0);
    EXPECT_TRUE(delete_watched_queue(&wq) && delete_watched_queue(&plain));
    process_wait_on_queue(nullptr); // null handles: refused, no crash
    EXPECT_FALSE(process_enqueue(nullptr, &r1) || process_data_dequeue(nullptr) || delete_watched_queue(&wq));
}

// The one slow case: while this thread holds the write lock, the same requests
// from it deadlock, and a read and a write lock from two others wait out their
// 15 seconds side by side.
TEST(WatchedRwlock, DeadlockAndGivingUpAfterFifteenSeconds)
{
    vobrel_debug_errors = TRUE;
    watched_rwlock *rw = create_watched_rwlock(nullptr, RW_PRIO);
    EXPECT_EQ(process_rwlock_wrlock(rw), RWOK);
    EXPECT_EQ(process_rwlock_wrlock(rw), RWDEADLK);
    EXPECT_EQ(process_rwlock_rdlock(rw), RWDEADLK);
    auto t0 = Clock::now();
    std::thread reader([&] { EXPECT_EQ(process_rwlock_rdlock(rw), RWTIMEOUT); });
    std::thread writer([&] { EXPECT_EQ(process_rwlock_wrlock(rw), RWTIMEOUT); });
    reader.join();
    writer.join();
    EXPECT_GT(seconds_since(t0), 14.9);
    auto line = [](int e) { return "Read Lock Error: failed to acquire read lock :" + std::to_string(e) + "\n"; };
    EXPECT_EQ(fake::log_messages(), (Lines{line(35), line(110)}));
    EXPECT_EQ(fake::buginf_texts(), (Lines{"DBG:" + line(35), "DBG:" + line(110)})); // errors being debugged
    EXPECT_EQ(process_rwlock_unlock(rw), RWOK);
    EXPECT_TRUE(process_rwlock_rdlock(nullptr) == RWINVALID && process_rwlock_wrlock(nullptr) == RWINVALID &&
                process_rwlock_unlock(nullptr) == RWINVALID);
    EXPECT_EQ(delete_watched_rwlock(&rw), RWOK);
    EXPECT_TRUE(!rw && delete_watched_rwlock(&rw) == RWNOTOK && delete_watched_rwlock(nullptr) == RWNOTOK);
}
