// Soak: the thread-facing operations hammered from many threads for a while
// (the queues' own threaded cases are in queue_test and watched_test),
// everything counted afterwards. Worth most under the thread sanitizer. Each
// case runs for VOBREL_SOAK_SECONDS (default 2) seconds.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/watched.h>

#include "support/fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

const double kSeconds = std::getenv("VOBREL_SOAK_SECONDS") ? std::atof(std::getenv("VOBREL_SOAK_SECONDS")) : 2.0;

Clock::time_point deadline() { return Clock::now() + std::chrono::milliseconds(static_cast<long>(kSeconds * 1000)); }

} // namespace

// Rounds of four waiters and one setter. Every waiter returns; each FALSE is a
// time-out, and each time-out is logged once.
TEST(Soak, BooleanWaitersWithTimeOuts)
{
    watched_boolean *wb = create_watched_boolean("soak", 0);
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
    EXPECT_TRUE(woken + timed_out == 4 * rounds && woken >= rounds); // the set wakes at least one
    const auto logged = fake::log_messages();
    EXPECT_EQ(std::count(logged.begin(), logged.end(), "process_wait_on_boolean, timeout\n"), timed_out.load());
    EXPECT_TRUE(delete_watched_boolean(&wb));
}

// Writers keep two counters equal under the write lock; readers must never
// see them differ.
TEST(Soak, ReadersAndWritersOnAWatchedLock)
{
    watched_rwlock *rw = create_watched_rwlock(const_cast<char *>("soak"), RW_WRITE_FRIENDLY);
    const auto end = deadline();
    long a = 0, b = 0;
    std::atomic<long> writes{0}, torn{0}, errors{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 5; ++i)
        threads.emplace_back([&, writer = i < 2] {
            while (Clock::now() < end) {
                if ((writer ? process_rwlock_wrlock(rw) : process_rwlock_rdlock(rw)) != RWOK && ++errors)
                    continue;
                writer ? (++a, ++b, ++writes) : torn += a != b;
                errors += process_rwlock_unlock(rw) != RWOK;
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_TRUE(torn == 0 && errors == 0 && a == writes && b == writes);
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
    const int max_each = static_cast<int>(2000 * kSeconds);
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
    ASSERT_FALSE(records.empty());
    std::vector<int> next(kThreads, 0);
    long bad = 0, raised = 0;
    for (size_t r = 0; r < records.size(); ++r) {
        int t = 0, i = -1;
        std::sscanf(records[r].message.c_str(), "%*[a-z] %d-%d", &t, &i);
        t = std::clamp(t, 0, kThreads - 1);
        const std::string want = (i % 4 == 3 ? "raised " : "logged ") + std::to_string(t) + "-" + std::to_string(i);
        bad += records[r].message != want || i != next[t]++ ||
               (r > 0 && records[r].number != records[r - 1].number + 1);
        raised += i % 4 == 3;
    }
    EXPECT_TRUE(next == written && bad == 0);
    EXPECT_EQ(fake::log_header_number(), records.back().number);
    EXPECT_EQ(static_cast<long>(fake::syslog_lines().size()), raised); // one line per raised message
}
