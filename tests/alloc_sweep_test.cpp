// A failure at every allocation: each operation that allocates is run with
// its 1st, 2nd, ... allocation failing until a run completes with none
// failed. Every run must give the failure result, leave the structure valid
// and usable, report what it reports, and leak nothing (ASan's leak check at
// exit). Process-wide state (the log file, the registry) cannot be rewound, so
// later runs see it as the earlier ones left it: that is part of the check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <vobrel/data_queue.h>
#include <vobrel/id_manager.h>
#include <vobrel/list.h>
#include <vobrel/logger.h>
#include <vobrel/rc.h>
#include <vobrel/string_db.h>
#include <vobrel/watched.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/string_db_private.h"

using vobrel::detail::sdb_test_get_sdb_handle_from_struct;

namespace {

// Runs op() with allocation n = 0, 1, ... failing until a run sees no failure;
// check(failed, result) after each run, with the recordings of that run.
// Returns the number of failure points.
template <class Op, class Check> int sweep(const char *what, Op op, Check check)
{
    for (int n = 0; n < 10000; ++n) {
        fake::clear_recordings();
        allocfail::fail_nth(n);
        const auto result = op();
        const bool failed = allocfail::count() > n;
        allocfail::reset();
        check(failed, result);
        if (!failed)
            std::printf("sweep %s: %d failure points\n", what, n);
        if (!failed || ::testing::Test::HasFatalFailure())
            return n;
    }
    ADD_FAILURE() << what << " never completed";
    return -1;
}

bool has_line(const std::string &text)
{
    const auto lines = fake::syslog_lines();
    return std::any_of(lines.begin(), lines.end(), [&](const auto &l) { return l.line == text; });
}

struct Sweep : ::testing::Test {
    // The log file's own first allocations are swept in their own case.
    void SetUp() override { vobrel_write_to_log(nullptr, 0, "warm-up"); }
};

int d[4];

} // namespace

TEST_F(Sweep, DataQueueEnqueueAndRequeue)
{
    queuetype q;
    ASSERT_TRUE(zel_queue_init(&q, 0));
    zel_data_enqueue(&q, &d[0]);
    for (bool requeue : {false, true}) {
        EXPECT_EQ(sweep(
            "data enqueue",
            [&] { return requeue ? zel_data_requeue(&q, &d[1]) : zel_data_enqueue(&q, &d[1]); },
            [&](bool failed, void *r) {
                EXPECT_EQ(r == nullptr, failed);
                EXPECT_TRUE(zel_validqueue(&q, FALSE));
                EXPECT_EQ(q.count, failed ? 1 : 2);
                // Only enqueue reports the missing wrapper.
                EXPECT_EQ(has_line("%SYS-3-NOELEMENT:data_enqueue:Ran out of buffer elements for enqueue"),
                          failed && !requeue);
            }), 1);
        EXPECT_EQ(zel_data_unqueue(&q, &d[1]), &d[1]);
    }
    EXPECT_EQ(zel_data_dequeue(&q), &d[0]);
}

TEST_F(Sweep, ListsNamedCreateAndAutomaticElements)
{
    zel_list_init();
    zel_memory_list_init();
    const uint32_t registered = zel_list_get_listQ()->count;
    list_header mine;
    for (bool caller_header : {false, true}) {
        sweep(
            "list create",
            [&] { return zel_list_create(caller_header ? &mine : nullptr, 0, "swept", LIST_FLAGS_AUTOMATIC); },
            [&](bool failed, list_header *l) {
                EXPECT_EQ(l == nullptr, failed);
                EXPECT_EQ(zel_list_get_listQ()->count, registered + (failed ? 0 : 1));
                if (l)
                    zel_list_destroy(l);
            });
    }
    list_header *autol = zel_list_create(nullptr, 0, nullptr, LIST_FLAGS_AUTOMATIC);
    ASSERT_TRUE(autol && list_enqueue(autol, nullptr, &d[0]));
    EXPECT_EQ(sweep("automatic list element", [&] { return list_requeue(autol, nullptr, &d[1]); },
                    [&](bool failed, boolean ok) {
                        EXPECT_TRUE(!ok == failed && autol->count == (failed ? 1u : 2u));
                        EXPECT_EQ(autol->head->data, failed ? &d[0] : &d[1]);
                    }),
              1);
    EXPECT_TRUE(list_dequeue(autol) == &d[1] && list_dequeue(autol) == &d[0] && !autol->head);
    zel_list_destroy(autol);
    EXPECT_EQ(zel_list_get_listQ()->count, registered);
}

TEST_F(Sweep, IdManagerTableCreateGetAndReserve)
{
    id_table_key_t k = ID_MGR_NO_TABLE_KEY;
    sweep(
        "id table create", [&] { return zel_id_create_new_table(2, 4, const_cast<char *>("owner")); },
        [&](bool failed, id_table_key_t key) {
            EXPECT_EQ((k = key) == ID_MGR_NO_TABLE_KEY, failed);
            EXPECT_EQ(has_line("%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_manager_module_init"), failed);
        });
    ASSERT_NE(k, ID_MGR_NO_TABLE_KEY);
    idmgr_id_t got = 0;
    sweep(
        "id get", [&] { return zel_id_get(&d[0], k); },
        [&](bool failed, idmgr_id_t id) {
            EXPECT_EQ((got = id) == 0, failed);
            EXPECT_EQ(has_line("%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_get"), failed);
        });
    id_mgr_ret rc;
    const idmgr_id_t want = (1u << 16) + 1; // entry 0 of slot 1, which is not allocated yet
    sweep(
        "id reserve", [&] { return zel_id_reserve(&d[1], k, want); },
        [&](bool failed, unsigned r) {
            EXPECT_EQ(r, failed ? unsigned{ID_MGR_RET_ERROR} : unsigned{ID_MGR_RET_OK});
            EXPECT_EQ(has_line("%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_reserve"), failed);
            EXPECT_EQ(zel_id_to_ptr(got, &rc, k), &d[0]);
        });
    EXPECT_EQ(zel_id_to_ptr(want, &rc, k), &d[1]);
    zel_id_destroy_table(k);
}

namespace {

// Every record in the bucket its hash names, and as many as counted.
void expect_sdb_consistent()
{
    uint32_t records = 0;
    for (uint32_t b = 0; b < sdb_hash_table_size; ++b)
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string, ++records)
            ASSERT_TRUE((s->crc & sdb_hash_mask) == b && (s->owners || s->refcount > 0));
    EXPECT_EQ(records, sdb_number_strings);
}

bool add(const std::string &t, sdb_handle *h, ushort owner = SDB_NO_OWNER, void *ctx = nullptr)
{
    return sdb_add_string(t.c_str(), static_cast<int>(t.size()), SDB_ASCII_STRING_CASE_SENSITIVE, h, owner, ctx);
}

} // namespace

TEST_F(Sweep, StringDatabaseAddRegisterSetBlockAndGrowth)
{
    sdb_initialize_subsystem();
    ushort owner = SDB_NO_OWNER;
    const auto cb = sdb_test_get_sdb_handle_from_struct;
    sweep(
        "sdb register", [&] { return sdb_register_component(const_cast<char *>("swept"), cb, FALSE, &owner); },
        [&](bool failed, boolean ok) { EXPECT_TRUE(!ok == failed && (owner == SDB_NO_OWNER) == failed); });
    sdb_test_example obj{};
    sdb_handle anon = 0;
    for (ushort who : {owner, ushort{SDB_NO_OWNER}}) {
        sdb_handle *h = who == owner ? &obj.sdb_handle : &anon;
        const uint32_t before = sdb_number_strings;
        sweep(
            "sdb add", [&] { return add("shared", h, who, &obj); },
            [&](bool failed, boolean ok) {
                expect_sdb_consistent();
                // The owner's add stores the text; the anonymous one shares it.
                EXPECT_TRUE(!ok == failed && (ok || *h == 0) &&
                            sdb_number_strings == before + (failed || who != owner ? 0 : 1));
            });
    }
    EXPECT_TRUE(sdb_remove_string(obj.sdb_handle, &obj) && sdb_remove_string(anon, nullptr));
    // Whichever order the old reference is released in, a failed set gives
    // FALSE and the database stays whole.
    sdb_handle block = 0;
    ASSERT_TRUE(sdb_add_block("old", 3, &block));
    int run = 0;
    sweep(
        "sdb set_block",
        [&] {
            const std::string t = "new" + std::to_string(run++);
            return sdb_set_block(t.data(), static_cast<int>(t.size()), SDB_BINARY_STRING, &block);
        },
        [&](bool failed, boolean ok) {
            EXPECT_EQ(!ok, failed);
            expect_sdb_consistent();
        });
    if (block)
        sdb_remove_block(block);

    // Growth: fill to the threshold, then add new texts until the table
    // doubles, with every allocation on the way failed once.
    std::vector<sdb_handle> handles;
    int i = 0;
    auto add_next = [&] {
        handles.emplace_back();
        return add("text-" + std::to_string(i++), &handles.back());
    };
    while (sdb_number_strings < 5 * sdb_hash_table_size)
        ASSERT_TRUE(add_next());
    const uint32_t size = sdb_hash_table_size;
    while (sdb_hash_table_size == size && i < 20000)
        sweep("sdb add near growth", add_next, [&](bool failed, boolean ok) {
            EXPECT_TRUE((ok || failed) && ok == (handles.back() != 0)); // a failed growth still adds
            expect_sdb_consistent();
        });
    EXPECT_EQ(sdb_hash_table_size, 2 * size);
    for (sdb_handle h : handles)
        sdb_remove_block(h);
    expect_sdb_consistent();
    EXPECT_TRUE(sdb_unregister_component(owner, cb));
}

// A watched object's creation releases what it had taken; their use, and a
// failed data enqueue, are tested in watched_test.
TEST_F(Sweep, WatchedObjectCreation)
{
    sweep(
        "watched boolean", [] { return create_watched_boolean("b", 0); },
        [](bool failed, watched_boolean *wb) { EXPECT_TRUE(failed ? !wb : delete_watched_boolean(&wb)); });
    sweep(
        "watched rwlock", [] { return create_watched_rwlock(const_cast<char *>("rw"), RW_WRITE_FRIENDLY); },
        [](bool failed, watched_rwlock *rw) { EXPECT_TRUE(failed ? !rw : delete_watched_rwlock(&rw) == RWOK); });
    sweep(
        "watched queue", [] { return create_watched_queue("q", 0, 0); },
        [](bool failed, watched_queue *q) { EXPECT_TRUE(failed ? !q : delete_watched_queue(&q)); });
}
