// Data queues: wrappers on the way in and out, the limit, allocation failure,
// search by datum and the walk.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vobrel/data_queue.h>
#include <vobrel/logger.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

int d1, d2, d3;

// The data in queue order, read through the wrappers.
std::vector<void *> data_of(const queuetype &q)
{
    std::vector<void *> out;
    for (auto *w = static_cast<elementtype *>(q.qhead); w && out.size() < 100; w = w->next)
        out.push_back(w->pakptr);
    return out;
}

queuetype *walked_queue;
std::vector<void *> walked;
void record(void *d)
{
    walked.push_back(d);
}
void record_and_unqueue(void *d)
{
    walked.push_back(d);
    zel_data_unqueue(walked_queue, d);
}

} // namespace

TEST(DataQueue, WrappersCarryDataInOrder)
{
    queuetype q{};
    EXPECT_EQ(zel_data_enqueue(&q, &d1), &d1);
    EXPECT_EQ(zel_data_enqueue(&q, &d2), &d2);
    EXPECT_EQ(zel_data_requeue(&q, &d3), &d3);
    EXPECT_EQ(zel_data_enqueue(&q, nullptr), nullptr); // a null datum is carried too
    EXPECT_EQ(data_of(q), (std::vector<void *>{&d3, &d1, &d2, nullptr}));
    EXPECT_EQ(q.count, 4);
    EXPECT_TRUE(zel_validqueue(&q, TRUE));
    EXPECT_TRUE(zel_data_isinqueue(&q, &d2));
    EXPECT_TRUE(zel_data_isinqueue(&q, nullptr));
    EXPECT_EQ(zel_data_dequeue(&q), &d3);
    EXPECT_EQ(zel_data_dequeue(&q), &d1);
    EXPECT_EQ(zel_data_dequeue(&q), &d2);
    EXPECT_EQ(zel_data_dequeue(&q), nullptr); // the null datum
    EXPECT_EQ(q.count, 0);
    EXPECT_EQ(zel_data_dequeue(&q), nullptr);
    EXPECT_EQ(zel_data_dequeue(nullptr), nullptr);
    EXPECT_FALSE(zel_data_isinqueue(&q, &d1));
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST(DataQueue, UnqueueTakesTheFirstWrapperOfADatum)
{
    queuetype q{};
    EXPECT_EQ(zel_data_unqueue(nullptr, &d1), nullptr);
    EXPECT_EQ(zel_data_unqueue(&q, &d1), nullptr);
    for (int *d : {&d1, &d2, &d1, &d3})
        zel_data_enqueue(&q, d);
    EXPECT_EQ(zel_data_unqueue(&q, &d1), &d1);
    EXPECT_EQ(data_of(q), (std::vector<void *>{&d2, &d1, &d3}));
    EXPECT_EQ(zel_data_unqueue(&q, &q), nullptr); // not carried
    EXPECT_EQ(data_of(q), (std::vector<void *>{&d2, &d1, &d3}));
    EXPECT_EQ(zel_data_unqueue(&q, &d3), &d3);
    EXPECT_EQ(q.qtail, q.qhead ? static_cast<elementtype *>(q.qhead)->next : nullptr);
    EXPECT_EQ(q.count, 2);
    EXPECT_TRUE(fake::syslog_lines().empty());
    while (zel_data_dequeue(&q)) {
    }
}

TEST(DataQueue, LimitRefusesWithoutAllocatingOrReporting)
{
    queuetype q{};
    ASSERT_TRUE(zel_queue_init(&q, 1));
    ASSERT_EQ(zel_data_enqueue(&q, &d1), &d1);
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        EXPECT_EQ(zel_data_enqueue(&q, &d2), nullptr);
        EXPECT_EQ(zel_data_requeue(&q, &d2), nullptr);
        EXPECT_EQ(allocfail::count(), 0);
    }
    EXPECT_EQ(data_of(q), std::vector<void *>{&d1});
    EXPECT_EQ(q.count, 1);
    EXPECT_TRUE(fake::syslog_lines().empty());

    // One allocation per datum in, none out.
    queuetype u{};
    allocfail::Guard g;
    allocfail::count_from_now();
    zel_data_enqueue(&u, &d1);
    zel_data_requeue(&u, &d2);
    EXPECT_EQ(allocfail::count(), 2);
    allocfail::count_from_now();
    zel_data_dequeue(&u);
    zel_data_unqueue(&u, &d1);
    zel_data_dequeue(&q);
    EXPECT_EQ(allocfail::count(), 0);
}

TEST(DataQueue, NoWrapperMeansNullAndOnlyEnqueueReports)
{
    vobrel_write_to_log(nullptr, 0, "warm-up"); // the log file's own allocations
    queuetype q{};
    zel_data_enqueue(&q, &d1);
    {
        allocfail::Guard g;
        allocfail::fail_nth(0); // the wrapper; the report's own buffer is had
        EXPECT_EQ(zel_data_enqueue(&q, &d2), nullptr);
        allocfail::fail_nth(0);
        EXPECT_EQ(zel_data_requeue(&q, &d2), nullptr);
    }
    EXPECT_EQ(data_of(q), std::vector<void *>{&d1});
    EXPECT_EQ(q.count, 1);
    auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].line, "%SYS-3-NOELEMENT:data_enqueue:Ran out of buffer elements for enqueue");
    EXPECT_EQ(fake::log_messages().back(), "data_enqueue:Ran out of buffer elements for enqueue");
    zel_data_dequeue(&q);
}

TEST(DataQueue, WalkSurvivesRemovalOfTheCurrentDatum)
{
    queuetype q{};
    for (int *d : {&d1, &d2, &d3, &d2})
        zel_data_enqueue(&q, d);
    zel_data_walklist(&q, record);
    EXPECT_EQ(walked, (std::vector<void *>{&d1, &d2, &d3, &d2}));
    walked.clear();
    walked_queue = &q;
    zel_data_walklist(&q, record_and_unqueue);
    EXPECT_EQ(walked, (std::vector<void *>{&d1, &d2, &d3, &d2}));
    EXPECT_EQ(q.qhead, nullptr);
    EXPECT_EQ(q.qtail, nullptr);
    EXPECT_EQ(q.count, 0);
}
