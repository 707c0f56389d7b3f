// A failure at every allocation: each operation that allocates is run with
// its 1st, 2nd, ... allocation failing until a run completes with none
// failed. Every run must give the failure result, leave the structure valid
// and usable, report what it reports, and leak nothing (ASan's leak check at
// exit). Process-wide state (the log file, the registry) cannot be rewound, so
// later runs see it as the earlier ones left it: that is part of the check.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <vobrel/data_queue.h>
#include <vobrel/errmsg.h>
#include <vobrel/id_manager.h>
#include <vobrel/list.h>
#include <vobrel/logger.h>
#include <vobrel/rc.h>
#include <vobrel/string_db.h>
#include <vobrel/util.h>
#include <vobrel/watched.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/string_db_private.h"

using vobrel::detail::sdb_test_get_sdb_handle_from_struct;

namespace {

using Lines = std::vector<std::string>;

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
        if (::testing::Test::HasFatalFailure())
            return n;
        if (!failed) {
            std::printf("sweep %s: %d failure points\n", what, n);
            return n;
        }
    }
    ADD_FAILURE() << what << " never completed";
    return -1;
}

bool has_line(const std::string &text)
{
    for (const auto &l : fake::syslog_lines())
        if (l.line == text)
            return true;
    return false;
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
        int points = sweep(
            "data enqueue",
            [&] { return requeue ? zel_data_requeue(&q, &d[1]) : zel_data_enqueue(&q, &d[1]); },
            [&](bool failed, void *r) {
                EXPECT_EQ(r == nullptr, failed);
                EXPECT_TRUE(zel_validqueue(&q, FALSE));
                EXPECT_EQ(q.count, failed ? 1 : 2);
                // Only enqueue reports the missing wrapper.
                EXPECT_EQ(has_line("%SYS-3-NOELEMENT:data_enqueue:Ran out of buffer elements for enqueue"),
                          failed && !requeue);
            });
        EXPECT_EQ(points, 1);
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
                if (l) {
                    EXPECT_TRUE(list_enqueue(l, nullptr, &d[0]));
                    EXPECT_EQ(list_dequeue(l), &d[0]);
                    zel_list_destroy(l);
                }
            });
    }
    list_header *autol = zel_list_create(nullptr, 0, nullptr, LIST_FLAGS_AUTOMATIC);
    ASSERT_TRUE(autol && list_enqueue(autol, nullptr, &d[0]));
    const int points = sweep(
        "automatic list element", [&] { return list_requeue(autol, nullptr, &d[1]); },
        [&](bool failed, boolean ok) {
            EXPECT_EQ(!ok, failed);
            EXPECT_EQ(autol->count, failed ? 1u : 2u);
            EXPECT_EQ(autol->head->data, failed ? &d[0] : &d[1]);
        });
    EXPECT_EQ(points, 1);
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
            EXPECT_EQ(key == ID_MGR_NO_TABLE_KEY, failed);
            k = key;
            EXPECT_EQ(has_line("%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_manager_module_init"), failed);
        });
    ASSERT_NE(k, ID_MGR_NO_TABLE_KEY);
    idmgr_id_t got = 0;
    sweep(
        "id get", [&] { return zel_id_get(&d[0], k); },
        [&](bool failed, idmgr_id_t id) {
            EXPECT_EQ(id == 0, failed);
            EXPECT_EQ(has_line("%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_get"), failed);
            got = id;
        });
    id_mgr_ret rc;
    EXPECT_EQ(zel_id_to_ptr(got, &rc, k), &d[0]);
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

std::string text(int i) { return "text-" + std::to_string(i); }

bool add(const std::string &t, sdb_handle *h, ushort owner = SDB_NO_OWNER, void *ctx = nullptr)
{
    return sdb_add_string(t.c_str(), static_cast<int>(t.size()), SDB_ASCII_STRING_CASE_SENSITIVE, h, owner, ctx);
}

} // namespace

TEST_F(Sweep, StringDatabaseAddRegisterSetBlockAndGrowth)
{
    sdb_initialize_subsystem();
    ushort owner = SDB_NO_OWNER;
    sweep(
        "sdb register",
        [&] {
            return sdb_register_component(const_cast<char *>("swept"), sdb_test_get_sdb_handle_from_struct, FALSE,
                                          &owner);
        },
        [&](bool failed, boolean ok) { EXPECT_TRUE(!ok == failed && (owner == SDB_NO_OWNER) == failed); });
    sdb_test_example obj{};
    for (ushort who : {ushort{SDB_NO_OWNER}, owner}) {
        const uint32_t before = sdb_number_strings;
        sweep(
            "sdb add", [&] { return add("shared", &obj.sdb_handle, who, &obj); },
            [&](bool failed, boolean ok) {
                EXPECT_EQ(!ok, failed);
                expect_sdb_consistent();
                // The owner's add shares the text the anonymous one stored.
                EXPECT_EQ(sdb_number_strings, before + (failed || who != SDB_NO_OWNER ? 0 : 1));
            });
    }
    EXPECT_TRUE(sdb_remove_string(obj.sdb_handle, &obj));
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
    while (sdb_number_strings < 5 * sdb_hash_table_size) {
        handles.emplace_back();
        ASSERT_TRUE(add(text(i++), &handles.back()));
    }
    const uint32_t size = sdb_hash_table_size;
    while (sdb_hash_table_size == size && i < 20000) {
        sweep(
            "sdb add near growth",
            [&] {
                handles.emplace_back();
                return add(text(i++), &handles.back());
            },
            [&](bool failed, boolean ok) {
                EXPECT_TRUE((ok || failed) && ok == (handles.back() != 0)); // a failed growth still adds
                expect_sdb_consistent();
            });
    }
    EXPECT_EQ(sdb_hash_table_size, 2 * size);
    for (sdb_handle h : handles)
        sdb_remove_block(h);
    expect_sdb_consistent();
    EXPECT_TRUE(sdb_unregister_component(owner, sdb_test_get_sdb_handle_from_struct));
}

TEST_F(Sweep, WatchedObjectsAndDataEnqueue)
{
    sweep(
        "watched boolean", [] { return create_watched_boolean("b", 0); },
        [](bool failed, watched_boolean *wb) {
            EXPECT_EQ(wb == nullptr, failed);
            if (wb) {
                process_set_boolean(wb, TRUE);
                EXPECT_TRUE(process_get_boolean(wb) && delete_watched_boolean(&wb) && !wb);
            }
        });
    sweep(
        "watched rwlock", [] { return create_watched_rwlock(const_cast<char *>("rw"), RW_WRITE_FRIENDLY); },
        [](bool failed, watched_rwlock *rw) {
            EXPECT_EQ(rw == nullptr, failed);
            if (rw) {
                EXPECT_EQ(process_rwlock_wrlock(rw), RWOK);
                EXPECT_EQ(process_rwlock_unlock(rw), RWOK);
                EXPECT_EQ(delete_watched_rwlock(&rw), RWOK);
            }
        });
    watched_queue *wq = nullptr;
    sweep(
        "watched queue", [] { return create_watched_queue("q", 0, 0); },
        [&](bool failed, watched_queue *q) {
            EXPECT_EQ(q == nullptr, failed);
            wq = q;
        });
    ASSERT_TRUE(wq && process_data_enqueue(wq, &d[0]));
    sweep(
        "watched data enqueue", [&] { return process_data_enqueue(wq, &d[1]); },
        [&](bool failed, boolean ok) { EXPECT_EQ(!ok, failed); });
    EXPECT_TRUE(process_data_dequeue(wq) == &d[0] && process_data_dequeue(wq) == &d[1] && !process_data_dequeue(wq));
    EXPECT_TRUE(delete_watched_queue(&wq));
}

// The logger's set-up: a failure either drops the record unnumbered (the
// next call sets up again) or, past the set-up, still writes it whole.
TEST(SweepLogger, InitialisationRetriesAfterEveryFailure)
{
    int n = 0;
    size_t written = 0;
    sweep(
        "logger init", [&] { return vobrel_write_to_log(nullptr, 0, "try %d", n); },
        [&](bool failed, int) {
            const Lines m = fake::log_messages();
            ASSERT_TRUE(m.size() == written || (m.size() == written + 1 && m.back() == "try " + std::to_string(n)));
            EXPECT_TRUE(failed || m.size() == written + 1);
            written = m.size();
            ++n;
        });
    vobrel_write_to_log(nullptr, 0, "after");
    const auto records = fake::log_records();
    ASSERT_EQ(records.size(), written + 1);
    for (size_t i = 1; i < records.size(); ++i)
        EXPECT_EQ(records[i].number, records[i - 1].number + 1);
    EXPECT_EQ(fake::log_header_number(), records.back().number);
}

TEST_F(Sweep, ReportsAlwaysReachTheSystemLogAndDebugChannel)
{
    static message_stats *stats;
    static const message msg = {"TST", "TEXT", "%s", nullptr, 0, 5, &stats};
    const std::string text(300, 'r');
    sweep(
        "xos_errmsg", [&] { xos_errmsg("f", 1, &msg, text.c_str()); return 0; },
        [&](bool, int) {
            const auto lines = fake::take_syslog_texts();
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].substr(0, 199), ("%TST-5-TEXT:" + text).substr(0, 199));
        });
    sweep(
        "buginf", [&] { buginf("%s", text.c_str()); return 0; },
        [&](bool failed, int) {
            EXPECT_EQ(fake::buginf_texts(), Lines{"DBG:" + text.substr(0, failed ? 195 : 300)});
        });
}

TEST_F(Sweep, TextAndFileUtilities)
{
    const std::string path = fake::log_dir() + "/swept.txt";
    sweep(
        "parse_delim",
        [&] {
            char buf[] = "alpha beta gamma";
            char **strings = nullptr;
            int num = -1;
            vobrel_rc rc = vobrel_parse_delim_buffer(buf, 16, const_cast<char *>(" "), &strings, &num);
            // Tokens that found no memory leave a NULL and the call succeeds.
            int whole = 0;
            for (int i = 0; strings && i < num; ++i) {
                whole += strings[i] != nullptr;
                free(strings[i]);
            }
            EXPECT_TRUE(rc != VOBREL_OK || num == 3);
            EXPECT_TRUE(rc == VOBREL_OK || (!strings && num == -1));
            free(strings);
            return rc == VOBREL_OK ? whole : -1;
        },
        [](bool failed, int whole) { EXPECT_TRUE(failed || whole == 3); });
    int32_t written = 0;
    ASSERT_EQ(vobrel_write_data_to_url(path.c_str(), const_cast<char *>("0123456789"), 10, &written, "t", 0),
              VOBREL_OK);
    char *buf = nullptr;
    sweep(
        "read_input_file", [&] { return vobrel_read_input_vobrel_file(path.c_str(), &buf); },
        [&](bool failed, vobrel_rc rc) {
            EXPECT_EQ(rc == VOBREL_OK, !failed);
            if (rc == VOBREL_OK) {
                EXPECT_STREQ(buf, "0123456789");
            } else {
                EXPECT_TRUE(rc == VOBREL_NO_MEMORY && !buf);
            }
            free(buf);
            buf = nullptr;
        });
}
