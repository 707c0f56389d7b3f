// Data queues: one wrapper per datum, order, the limit, removal by datum,
// allocation failure and the walk.
#include <gtest/gtest.h>

#include <vector>

#include <vobrel/data_queue.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

using Data = std::vector<void *>;
int d1, d2, d3;
queuetype q;
Data walked;

void record(void *d) { walked.push_back(d); }
void record_unqueued(void *d) { walked.push_back(zel_data_unqueue(&q, d)); }

// The data from the head, through the walk.
Data walk(void (*rtn)(void *) = record)
{
    walked.clear();
    zel_data_walklist(&q, rtn);
    return walked;
}

} // namespace

TEST(DataQueue, OneWrapperPerDatumInOrderUpToTheLimit)
{
    ASSERT_TRUE(zel_queue_init(&q, 5));
    allocfail::count_from_now();
    void *in[] = {zel_data_enqueue(&q, &d1), zel_data_requeue(&q, &d2), zel_data_enqueue(&q, nullptr),
                  zel_data_enqueue(&q, &d3), zel_data_enqueue(&q, &d2),  zel_data_enqueue(&q, &d1),
                  zel_data_requeue(&q, &d1)};
    EXPECT_EQ(allocfail::count(), 5); // none for a full queue
    allocfail::reset();
    EXPECT_EQ(Data(in, in + 7), (Data{&d1, &d2, nullptr, &d3, &d2, nullptr, nullptr}));
    EXPECT_EQ(walk(), (Data{&d2, &d1, nullptr, &d3, &d2}));
    EXPECT_TRUE(zel_validqueue(&q, TRUE) && zel_data_isinqueue(&q, nullptr) && !zel_data_isinqueue(&q, &q));
    EXPECT_EQ(zel_data_unqueue(&q, &d2), &d2); // the wrapper nearest the head
    EXPECT_FALSE(zel_data_unqueue(&q, &q) || zel_data_unqueue(nullptr, &d1));
    EXPECT_EQ(walk(), (Data{&d1, nullptr, &d3, &d2}));
    for (void *d : walk())
        EXPECT_EQ(zel_data_dequeue(&q), d);
    EXPECT_TRUE(q.count == 0 && !zel_data_dequeue(&q) && !zel_data_dequeue(nullptr) && !zel_data_unqueue(&q, &d1));
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST(DataQueue, NoWrapperMeansNullAndOnlyEnqueueReports)
{
    allocfail::fail_nth(0);
    EXPECT_EQ(zel_data_enqueue(&q, &d1), nullptr);
    allocfail::fail_nth(0);
    EXPECT_EQ(zel_data_requeue(&q, &d1), nullptr);
    allocfail::reset();
    EXPECT_TRUE(q.count == 0 && !q.qhead && !q.qtail);
    ASSERT_EQ(fake::syslog_lines().size(), 1u);
    EXPECT_EQ(fake::syslog_lines()[0].line, "%SYS-3-NOELEMENT:data_enqueue:Ran out of buffer elements for enqueue");
}

TEST(DataQueue, WalkSurvivesRemovalOfTheCurrentDatum)
{
    for (int *d : {&d1, &d2, &d3, &d2})
        zel_data_enqueue(&q, d);
    EXPECT_EQ(walk(record_unqueued), (Data{&d1, &d2, &d3, &d2}));
    EXPECT_TRUE(!q.qhead && !q.qtail && q.count == 0);
}
