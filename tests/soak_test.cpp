// Soak: the thread-facing operations hammered from many threads for a while,
// everything counted afterwards. Worth most under the thread sanitizer. Each
// case runs for VOBREL_SOAK_SECONDS (default 2) seconds.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/queue.h>
#include <vobrel/watched.h>

#include "support/fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

double soak_seconds()
{
    const char *s = std::getenv("VOBREL_SOAK_SECONDS");
    return s ? std::atof(s) : 2.0;
}

Clock::time_point deadline()
{
    return Clock::now() + std::chrono::milliseconds(static_cast<long>(soak_seconds() * 1000));
}

struct Item {
    void *next; // the link word
    int producer;
    int seq;
};

// Producers until the deadline, then a sentinel from the test thread; the
// consumer follows the documented wait / drain pattern and checks each
// producer's items arrive once and in order.
void soak_queue(bool data)
{
    constexpr int kProducers = 3;
    watched_queue *wq = create_watched_queue("soak", 0, 64);
    ASSERT_TRUE(wq);
    const auto end = deadline();
    std::atomic<long> refused{0};
    std::vector<int> produced(kProducers, 0), next(kProducers, 0);
    Item sentinel{nullptr, -1, 0};
    long consumed = 0, disorder = 0;
    std::thread consumer([&] {
        for (bool done = false; !done;) {
            process_wait_on_queue(wq);
            while (auto *it = static_cast<Item *>(data ? process_data_dequeue(wq) : process_dequeue(wq))) {
                if (it == &sentinel) {
                    done = true;
                    continue;
                }
                disorder += it->seq != next[it->producer]++;
                ++consumed;
                delete it;
            }
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int seq = 0; Clock::now() < end; ++seq) {
                auto *it = new Item{nullptr, p, seq};
                while (!(data ? process_data_enqueue(wq, it) : process_enqueue(wq, it))) { // full
                    ++refused;
                    std::this_thread::yield();
                }
                produced[p] = seq + 1;
            }
        });
    for (auto &t : producers)
        t.join();
    while (!(data ? process_data_enqueue(wq, &sentinel) : process_enqueue(wq, &sentinel)))
        std::this_thread::yield();
    consumer.join();
    long total = 0;
    for (int p = 0; p < kProducers; ++p) {
        EXPECT_EQ(next[p], produced[p]) << p;
        total += produced[p];
    }
    EXPECT_TRUE(consumed == total && disorder == 0 && wq->event_count == 0 && !wq->eventQ.qhead);
    std::printf("soak %s queue: %ld items, %ld refusals while full\n", data ? "data" : "plain", total, refused.load());
    EXPECT_TRUE(delete_watched_queue(&wq));
}

} // namespace

TEST(Soak, WatchedQueuePlainPair) { soak_queue(false); }
TEST(Soak, WatchedQueueDataPair) { soak_queue(true); }

// Rounds of four waiters and one setter. Every waiter returns; each FALSE is a
// time-out, and each time-out is logged once.
TEST(Soak, BooleanWaitersWithTimeOuts)
{
    watched_boolean *wb = create_watched_boolean("soak", 0);
    ASSERT_TRUE(wb);
    const auto end = deadline();
    std::atomic<int> woken{0}, timed_out{0};
    int rounds = 0;
    do {
        process_set_boolean(wb, FALSE);
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i)
            waiters.emplace_back([&] { ++(process_wait_on_boolean(wb, 1000) ? woken : timed_out); });
        std::this_thread::sleep_for(std::chrono::milliseconds(rounds % 3 * 20));
        process_set_boolean(wb, TRUE);
        for (auto &t : waiters)
            t.join();
        EXPECT_TRUE(process_wait_on_boolean(wb, 0)); // a level: waiting never clears it
        ++rounds;
    } while (Clock::now() < end);
    EXPECT_EQ(woken + timed_out, 4 * rounds);
    EXPECT_GE(woken.load(), rounds); // the set wakes at least one
    int logged = 0;
    for (const auto &m : fake::log_messages())
        logged += m == "process_wait_on_boolean, timeout\n";
    EXPECT_EQ(logged, timed_out.load());
    std::printf("soak booleans: %d rounds, %d woken, %d timed out\n", rounds, woken.load(), timed_out.load());
    EXPECT_TRUE(delete_watched_boolean(&wb));
}

// Writers keep two counters equal under the write lock; readers must never
// see them differ.
TEST(Soak, ReadersAndWritersOnAWatchedLock)
{
    watched_rwlock *rw = create_watched_rwlock(const_cast<char *>("soak"), RW_WRITE_FRIENDLY);
    ASSERT_TRUE(rw);
    const auto end = deadline();
    long a = 0, b = 0;
    std::atomic<long> reads{0}, writes{0}, torn{0}, errors{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 5; ++i)
        threads.emplace_back([&, writer = i < 2] {
            while (Clock::now() < end) {
                if ((writer ? process_rwlock_wrlock(rw) : process_rwlock_rdlock(rw)) != RWOK) {
                    ++errors;
                    continue;
                }
                if (writer) {
                    ++a, ++b;
                    ++writes;
                } else {
                    torn += a != b;
                    ++reads;
                }
                errors += process_rwlock_unlock(rw) != RWOK;
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_TRUE(torn == 0 && errors == 0 && a == writes && b == writes);
    std::printf("soak rwlock: %ld reads, %ld writes\n", reads.load(), writes.load());
    EXPECT_EQ(delete_watched_rwlock(&rw), RWOK);
}

// Eight threads log and raise catalogue messages at once: every record is
// whole, numbered once in sequence, and each thread's records keep its order.
TEST(Soak, EightThreadsLogAndReport)
{
    static message_stats *stats;
    static const message msg_soak = {"TST", "SOAK", "raised %d-%d", nullptr, 0, 5, &stats};
    fake::set_log_file_size(1 << 30); // no wrap: every record stays readable
    const auto end = deadline();
    // Bounded too: reading the file back is what takes long under TSan.
    constexpr int kThreads = 8;
    const int max_each = static_cast<int>(2000 * soak_seconds());
    std::vector<int> written(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            int i = 0;
            for (; i < max_each && Clock::now() < end; ++i) {
                if (i % 4 == 3)
                    xos_errmsg("soak", 1, &msg_soak, t, i);
                else
                    vobrel_write_to_log(nullptr, 0, "logged %d-%d", t, i);
            }
            written[t] = i;
        });
    for (auto &t : threads)
        t.join();
    const auto records = fake::log_records();
    std::vector<int> next(kThreads, 0);
    long bad = 0;
    for (size_t r = 0; r < records.size(); ++r) {
        int t = -1, i = -1;
        char kind[8] = "";
        const bool parsed = std::sscanf(records[r].message.c_str(), "%7[a-z] %d-%d", kind, &t, &i) == 3 &&
                            t >= 0 && t < kThreads && records[r].message == std::string(kind) + " " +
                            std::to_string(t) + "-" + std::to_string(i);
        bad += !parsed || i != next[t]++ || std::string(kind) != (i % 4 == 3 ? "raised" : "logged") ||
               (r > 0 && records[r].number != records[r - 1].number + 1);
        if (!parsed)
            std::printf("bad record: [%s]\n", records[r].message.c_str());
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(next[t], written[t]) << t;
    EXPECT_EQ(bad, 0);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(fake::log_header_number(), records.back().number);
    long raised = 0;
    for (int w : written)
        raised += w / 4;
    EXPECT_EQ(static_cast<long>(fake::syslog_lines().size()), raised);
    std::printf("soak log: %zu records, %ld raised\n", records.size(), raised);
}

// Locked operations moving a fixed population between two queues from many
// threads: at the end every item is on exactly one queue, both valid.
TEST(Soak, LockedQueueOperationsFromManyThreads)
{
    constexpr int kItems = 256;
    queuetype q[2];
    ASSERT_TRUE(zel_queue_init(&q[0], 2 * kItems) && zel_queue_init(&q[1], 2 * kItems));
    std::vector<Item> items(kItems);
    for (auto &it : items)
        ASSERT_TRUE(zel_enqueue(&q[0], &it));
    const auto end = deadline();
    std::atomic<long> moves{0}, lost_races{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            for (long n = 0; Clock::now() < end; ++n) {
                queuetype &from = q[(t + n) & 1], &to = q[(t + n + 1) & 1];
                auto *it = static_cast<Item *>(zel_dequeue(&from));
                if (!it)
                    continue;
                // Now and then back to the head, or out and in again by
                // unqueue, which may lose the item to another thread's
                // dequeue: that is reported as not on the queue.
                const bool ok = n % 3 == 0 ? zel_requeue(&to, it) : zel_enqueue(&to, it);
                if (ok && n % 5 == 0) {
                    if (zel_unqueue(&to, it))
                        zel_enqueue(&to, it);
                    else
                        ++lost_races;
                }
                moves += ok;
                EXPECT_TRUE(ok);
            }
        });
    for (auto &t : threads)
        t.join();
    std::map<void *, int> seen;
    for (auto &qq : q) {
        EXPECT_TRUE(zel_validqueue(&qq, FALSE));
        for (void *p = qq.qhead; p; p = static_cast<Item *>(p)->next)
            ++seen[p];
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kItems));
    EXPECT_EQ(q[0].count + q[1].count, kItems);
    const auto lines = fake::syslog_lines();
    EXPECT_EQ(static_cast<long>(lines.size()), lost_races.load());
    for (const auto &l : lines)
        EXPECT_EQ(l.line.rfind("%SYS-2-NOTQ:", 0), 0u) << l.line;
    std::printf("soak locked queues: %ld moves, %ld unqueues lost to a dequeue\n", moves.load(), lost_races.load());
}
