// ID manager: identifier layout, retirement, reuse order, growth, reserve,
// no-randomize walks, allocation failure, stale identifiers and reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <vobrel/id_manager.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

int v[8];

std::vector<std::string> lines()
{
    std::vector<std::string> out;
    for (const auto &l : fake::syslog_lines())
        out.push_back(l.line);
    fake::clear_recordings();
    return out;
}

std::string inv(const char *what, unsigned id)
{
    char b[128];
    snprintf(b, sizeof b, "%%IDMGR-3-INVALID_ID:bad id in %s (id: 0x%X)", what, id);
    return b;
}

constexpr idmgr_id_t make_id(unsigned seq, unsigned slot, unsigned index)
{
    return (seq << 24 | slot << 16 | index) + 1;
}

entry_t &entry(id_table_key_t key, unsigned slot, unsigned index)
{
    return zel_g_id_manager_table[key][slot][index];
}

void *lookup(idmgr_id_t id, id_table_key_t key, id_mgr_ret want)
{
    id_mgr_ret rc = ID_MGR_RET_ERROR;
    void *p = zel_id_to_ptr(id, &rc, key);
    EXPECT_EQ(rc, want) << std::hex << id;
    return p;
}

id_table_key_t norand_table(unsigned slots, unsigned per)
{
    id_table_key_t k = zel_id_create_new_table(slots, per, const_cast<char *>("test"));
    EXPECT_TRUE(zel_id_table_set_no_randomize(k));
    return k;
}

} // namespace

TEST(IdManager, LayoutOfDefaultAndNoRandomizeTables)
{
    srand(7);
    idmgr_id_t a = zel_id_get(&v[0], 0);
    EXPECT_EQ(a & 0xFFFFFF, 1u);
    EXPECT_EQ(a >> 24, entry(0, 0, 0).tableSequence);
    EXPECT_EQ(zel_numTableSlot_max[0], 32u);
    EXPECT_EQ(zel_numIDsPerSLot_max[0], 1024u);
    EXPECT_EQ(zel_id_get(&v[0], 5), 0u);
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_get (unassigned table id)", 0)});

    id_table_key_t k = norand_table(2, 3);
    for (idmgr_id_t want : {1u, 2u, 3u, 0x00010001u})
        EXPECT_EQ(zel_id_get(&v[1], k), want);
    EXPECT_EQ(entry(k, 1, 0).tableSequence, 0x80);
    EXPECT_EQ(entry(k, 1, 0).tableNumber, 1);
    EXPECT_EQ(lookup(0x7F000002, k, ID_MGR_RET_OK), &v[1]); // the top byte is not part of it

    struct Geometry {
        unsigned slots, per;
        bool ok;
    };
    for (auto g : {Geometry{0, 2, false}, Geometry{257, 2, false}, Geometry{1, 1, false},
                   Geometry{1, 65537, false}, Geometry{256, 65536, true}}) {
        id_table_key_t t = zel_id_create_new_table(g.slots, g.per, nullptr);
        EXPECT_EQ(t != 0xFFFF, g.ok) << g.slots << "x" << g.per;
        EXPECT_EQ(lines(), g.ok ? std::vector<std::string>{}
                                : std::vector<std::string>{"%IDMGR-3-INVALID_ID_TABLE_SIZE:bad new ID table size"});
    }
}

TEST(IdManager, DeleteRetiresAndReuseIsOldestFreedFirst)
{
    id_table_key_t k = zel_id_create_new_table(1, 3, const_cast<char *>("t"));
    idmgr_id_t a = zel_id_get(&v[0], k), b = zel_id_get(&v[1], k), c = zel_id_get(&v[2], k);
    zel_id_delete(a, k);
    zel_id_delete(a, k); // silent, changes nothing
    zel_id_delete(c, k);
    idmgr_id_t a2 = zel_id_get(&v[3], k), c2 = zel_id_get(&v[4], k);
    EXPECT_EQ(a2 & 0xFFFFFF, a & 0xFFFFFF);
    EXPECT_EQ(a2 >> 24, ((a >> 24) + 1) & 0xFF);
    EXPECT_EQ(c2 & 0xFFFFFF, c & 0xFFFFFF);
    EXPECT_EQ(lookup(a, k, ID_MGR_RET_RETIRED), nullptr);
    EXPECT_EQ(lookup(a2, k, ID_MGR_RET_OK), &v[3]);
    EXPECT_EQ(lookup(b, k, ID_MGR_RET_OK), &v[1]);
    EXPECT_EQ(zel_id_get(&v[5], k), 0u);
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_get (Out of IDs! out of slots or memory)", 0)});

    // After 256 reuses an old identifier matches again.
    for (int i = 0; i < 255; ++i) {
        zel_id_delete(a2, k);
        a2 = zel_id_get(&v[6], k);
    }
    EXPECT_EQ(a2, a);

    id_table_key_t n = norand_table(1, 2);
    EXPECT_EQ(zel_id_get(&v[0], n), 1u);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(zel_id_get(&v[1], n), 2u);
        zel_id_delete(2, n);
    }
    EXPECT_EQ(entry(n, 0, 1).tableSequence, 200 % 128);
    EXPECT_EQ(lookup(2, n, ID_MGR_RET_RETIRED), nullptr);
    EXPECT_TRUE(lines().empty());
}

TEST(IdManager, GrowthTakesTheLowestNullSlotAndWrapAroundIsKeptOut)
{
    id_table_key_t k = norand_table(3, 2);
    ASSERT_EQ(zel_id_reserve(&v[0], k, make_id(0, 1, 1)), unsigned{ID_MGR_RET_OK});
    for (idmgr_id_t want : {make_id(0, 1, 0), make_id(0, 0, 0), make_id(0, 0, 1), make_id(0, 2, 0)})
        EXPECT_EQ(zel_id_get(&v[1], k), want);

    // Slot 255, index 65535 with sequence 0xFF would give identifier 0.
    id_table_key_t w = zel_id_create_new_table(256, 65536, nullptr);
    ASSERT_EQ(zel_id_reserve(&v[0], w, make_id(0xFF, 255, 0)), unsigned{ID_MGR_RET_OK});
    for (unsigned i = 1; i < 65535; ++i)
        ASSERT_EQ(zel_id_get(&v[1], w), make_id(0xFF, 255, i));
    EXPECT_EQ(zel_id_get(&v[2], w), 0u);
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_get (Out of IDs! Wrap around.)", 0)});
    EXPECT_EQ(zel_id_get(&v[3], w) & 0xFFFFFF, 1u); // off the queue: the next get grows slot 0
    zel_id_destroy_table(w);
    EXPECT_EQ(zel_g_id_manager_table[w], nullptr);
    EXPECT_EQ(zel_numTableSlot_max[w] + zel_numIDsPerSLot_max[w], 0u);
}

TEST(IdManager, ReserveInEveryBranch)
{
    id_table_key_t r = zel_id_create_new_table(4, 4, nullptr);
    id_table_key_t n = norand_table(4, 4);
    idmgr_id_t first = zel_id_get(&v[0], r); // slot 0: three free entries left
    const std::string range = "%IDMGR-3-INVALID_ID:bad id in id_reserve: ID Out of Range. (id: 0x1000001)";
    struct Case {
        id_table_key_t key;
        idmgr_id_t id;
        unsigned want;
        std::vector<std::string> report;
    };
    const std::vector<Case> cases = {
        {r, 0, ID_MGR_INVALID_ID, {inv("id_reserve (bad id)", 0)}},
        {128, 1, ID_MGR_INVALID_ID, {inv("id_reserve (bad id)", 1)}},
        {r, make_id(0, 4, 0), ID_MGR_INVALID_ID, {inv("id_reserve", make_id(0, 4, 0))}},
        {r, make_id(0, 0, 4), ID_MGR_INVALID_ID, {inv("id_reserve", make_id(0, 0, 4))}},
        {99, 1, ID_MGR_INVALID_ID, {inv("id_reserve", 1)}},
        {n, make_id(1, 0, 0), ID_MGR_INVALID_ID, {range}},
        {r, first, ID_IN_USE, {}},
        {r, make_id(0x42, 0, 2), ID_MGR_RET_OK, {}},
        {r, make_id(0x43, 0, 2), ID_IN_USE, {}},
        {r, make_id(0x77, 2, 1), ID_MGR_RET_OK, {}},
        {n, 3, ID_MGR_RET_OK, {}},
        {n, 3, ID_IN_USE, {}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(zel_id_reserve(&v[1], c.key, c.id), c.want) << std::hex << c.id;
        EXPECT_EQ(lines(), c.report) << std::hex << c.id;
    }
    EXPECT_EQ(lookup(make_id(0x42, 0, 2), r, ID_MGR_RET_OK), &v[1]);
    // The new slot's entries carry the requested sequence and queue up behind
    // the free entries of slot 0, in index order.
    std::vector<idmgr_id_t> got;
    for (int i = 0; i < 5; ++i)
        got.push_back(zel_id_get(&v[2], r) & 0xFFFFFF);
    EXPECT_EQ(got, (std::vector<idmgr_id_t>{make_id(0, 0, 1), make_id(0, 0, 3), make_id(0, 2, 0), make_id(0, 2, 2),
                                            make_id(0, 2, 3)}));
    EXPECT_EQ(entry(r, 2, 3).tableSequence, 0x77);

    // Limits without a slot array, and an entry whose mark disagrees with the queue.
    zel_numTableSlot_max[99] = zel_numIDsPerSLot_max[99] = 4;
    EXPECT_EQ(zel_id_reserve(&v[1], 99, 1), unsigned{ID_MGR_UNINITIALIZED});
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_reserve (unassigned table id)", 1)});
    entry(n, 0, 2).tableSequence = 0;
    EXPECT_EQ(zel_id_reserve(&v[1], n, 3), unsigned{ID_IN_USE});
    auto l = lines();
    ASSERT_EQ(l.size(), 2u);
    EXPECT_EQ(l[1], "%IDMGR-3-ID_MANAGER_INTERNAL_ERROR:ID is not in use, but not in free Q!");
}

TEST(IdManager, WalksOfANoRandomizeTable)
{
    id_table_key_t k = norand_table(4, 8);
    const idmgr_id_t a = make_id(0, 0, 3), b = make_id(0, 2, 7);
    ASSERT_EQ(zel_id_reserve(&v[0], k, a), unsigned{ID_MGR_RET_OK});
    ASSERT_EQ(zel_id_reserve(&v[1], k, b), unsigned{ID_MGR_RET_OK});
    struct Step {
        idmgr_id_t from;
        void *p;
        idmgr_id_t next;
        bool wrapped;
    };
    auto walk = [&](const std::vector<Step> &steps) {
        for (const Step &s : steps) {
            idmgr_id_t next = 0xDEAD;
            id_mgr_ret rc = ID_MGR_RET_RETIRED;
            boolean wrapped = 7;
            EXPECT_EQ(zel_id_get_next_id_ptr(s.from, &next, &rc, k, &wrapped), s.p) << std::hex << s.from;
            EXPECT_EQ(next, s.p ? s.next : 0xDEAD) << std::hex << s.from;
            EXPECT_EQ(rc, s.p ? ID_MGR_RET_OK : ID_MGR_RET_RETIRED);
            EXPECT_EQ(wrapped, s.wrapped) << std::hex << s.from;
        }
    };
    walk({{0, &v[0], a, false},
          {a, &v[1], b, false},
          {b, &v[0], a, true},
          {make_id(0, 1, 9), &v[1], b, false},   // index past the slot: from the next slot
          {make_id(0, 9, 0), &v[0], a, true},    // slot past the table: from the start
          {make_id(0, 2, 0xFFFF), &v[0], a, true}});
    zel_id_delete(b, k);
    walk({{a, nullptr, 0, true}, {make_id(0, 0, 0xFFFF), &v[0], a, true}});

    idmgr_id_t next = 0;
    id_mgr_ret rc = ID_MGR_RET_RETIRED;
    boolean wrapped = FALSE;
    EXPECT_EQ(zel_id_get_this_or_next(a, &next, &rc, k, &wrapped), &v[0]);
    EXPECT_EQ(next, a);
    // One slot: a walk from its last entry first passes over the whole slot.
    id_table_key_t one = norand_table(1, 4);
    zel_id_reserve(&v[2], one, 4);
    EXPECT_EQ(zel_id_get_next_id_ptr(4, &next, &rc, one, &wrapped), &v[2]);
    EXPECT_TRUE(wrapped);

    id_table_key_t r = zel_id_create_new_table(1, 4, nullptr);
    idmgr_id_t x = zel_id_get(&v[3], r);
    EXPECT_EQ(zel_id_get_this_or_next(x, &next, &rc, r, &wrapped), &v[3]); // any table
    EXPECT_TRUE(lines().empty());
    rc = ID_MGR_RET_OK;
    EXPECT_EQ(zel_id_get_this_or_next(x + 1, &next, &rc, r, &wrapped), nullptr);
    EXPECT_EQ(rc, ID_MGR_RET_ERROR);
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_get_next_id_ptr (bad table id)", x + 1)});
}

TEST(IdManager, SwitchingAfterUseKeepsLiveIdentifiersAndFreeEntriesFree)
{
    srand(3);
    id_table_key_t k = zel_id_create_new_table(1, 4, nullptr);
    idmgr_id_t a = zel_id_get(&v[0], k), b = zel_id_get(&v[1], k);
    zel_id_delete(a, k);
    ASSERT_TRUE(zel_id_table_set_no_randomize(k));
    EXPECT_EQ(lookup(b, k, ID_MGR_RET_OK), &v[1]);
    idmgr_id_t next = 0;
    id_mgr_ret rc;
    boolean wrapped;
    EXPECT_EQ(zel_id_get_next_id_ptr(0, &next, &rc, k, &wrapped), &v[1]);
    EXPECT_EQ(next, 2u);
    EXPECT_EQ(zel_id_get(&v[2], k), 3u);
    EXPECT_EQ(zel_id_get(&v[2], k), 4u);
    EXPECT_EQ(zel_id_get(&v[2], k), 1u);
    EXPECT_FALSE(zel_id_table_set_no_randomize(128));
    EXPECT_FALSE(zel_id_table_set_no_randomize(9));
}

TEST(IdManager, AllocationFailureLeavesTablesUsable)
{
    id_table_key_t k = zel_id_create_new_table(2, 2, nullptr);
    zel_id_get(&v[0], k);
    zel_id_get(&v[1], k);
    {
        allocfail::Guard g;
        allocfail::fail_nth(0);
        EXPECT_EQ(zel_id_get(&v[2], k), 0u);
        allocfail::fail_nth(0);
        EXPECT_EQ(zel_id_reserve(&v[2], k, make_id(0, 1, 0)), unsigned{ID_MGR_RET_ERROR});
        allocfail::fail_nth(0);
        EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), 0xFFFF);
        allocfail::fail_nth(0);
        EXPECT_EQ(zel_id_get(&v[2], 0), 0u);
    }
    const std::string mi = "%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_manager_module_init";
    EXPECT_EQ(lines(), (std::vector<std::string>{"%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_get",
                                                 inv("id_get (Out of IDs! out of slots or memory)", 0),
                                                 "%IDMGR-3-MALLOC_FAILURE:Malloc failure - id_reserve", mi, mi}));
    EXPECT_EQ(zel_g_id_manager_table[k][1], nullptr);
    int tables = 0;
    for (auto *t : zel_g_id_manager_table)
        tables += t != nullptr;
    EXPECT_EQ(tables, 1);

    // Only growth allocates: one block per slot.
    allocfail::Guard g;
    allocfail::count_from_now();
    idmgr_id_t c = zel_id_get(&v[2], k);
    EXPECT_EQ(allocfail::count(), 1);
    allocfail::count_from_now();
    zel_id_delete(c, k);
    EXPECT_NE(zel_id_get(&v[3], k), 0u);
    EXPECT_EQ(allocfail::count(), 0);
    allocfail::reset();
    EXPECT_NE(zel_id_get(&v[4], 0), 0u);

    // The owner name's copy failing undoes the set-up, where strdup is ours to fail.
    allocfail::count_from_now();
    free(strdup("x"));
    if (allocfail::count() == 0)
        return;
    allocfail::fail_nth(1);
    EXPECT_EQ(zel_id_create_new_table(1, 2, const_cast<char *>("owner")), 0xFFFF);
    allocfail::reset();
    EXPECT_EQ(lines(), std::vector<std::string>{mi});
}

TEST(IdManager, StaleAndNeverIssuedIdentifiersChangeNothing)
{
    srand(11);
    id_table_key_t k = zel_id_create_new_table(3, 4, nullptr);
    idmgr_id_t a = zel_id_get(&v[0], k);
    // Matches free entry 1's next sequence, yet was never handed out.
    const idmgr_id_t ghost = make_id(entry(k, 0, 1).tableSequence, 0, 1);
    EXPECT_EQ(lookup(ghost, k, ID_MGR_RET_RETIRED), nullptr);
    zel_id_delete(ghost, k);
    zel_id_delete(ghost, k);
    zel_id_delete(a + 0x01000000, k); // stale sequence
    EXPECT_EQ(lookup(a, k, ID_MGR_RET_OK), &v[0]);
    EXPECT_EQ(zel_id_get(&v[1], k), ghost);
    EXPECT_EQ(zel_id_get(&v[2], k) & 0xFFFFFF, 3u);
    EXPECT_EQ(zel_id_get(&v[3], k) & 0xFFFFFF, 4u);
    EXPECT_EQ(zel_id_get(&v[4], k) & 0xFFFFFF, 0x10001u); // no entry came back twice
    EXPECT_TRUE(lines().empty());

    const idmgr_id_t far = make_id(0, 1, 4), none = make_id(0, 5, 0), unalloc = make_id(0, 2, 0);
    struct Misuse {
        std::function<void()> call;
        std::string report;
    };
    const std::vector<Misuse> misuses = {
        {[] { EXPECT_EQ(lookup(0, 1, ID_MGR_RET_OK), nullptr); }, inv("id_to_ptr (bad id)", 0)},
        {[] { EXPECT_EQ(lookup(5, 128, ID_MGR_RET_ERROR), nullptr); }, inv("id_to_ptr (bad table id)", 5)},
        {[] { EXPECT_EQ(lookup(5, 77, ID_MGR_RET_ERROR), nullptr); }, inv("id_to_ptr (bad table id)", 5)},
        {[&] { EXPECT_EQ(lookup(far, k, ID_MGR_RET_ERROR), nullptr); }, inv("id_to_ptr", far)},
        {[&] { EXPECT_EQ(lookup(none, k, ID_MGR_RET_ERROR), nullptr); }, inv("id_to_ptr", none)},
        {[&] { EXPECT_EQ(lookup(unalloc, k, ID_MGR_RET_ERROR), nullptr); }, inv("id_to_ptr", unalloc)},
        {[&] { zel_id_delete(unalloc, k); }, inv("id_delete", unalloc - 1)},
        {[] { zel_id_delete(0, 1); }, inv("id_delete (bad id)", 0)},
        {[] { zel_id_delete(5, 200); }, inv("id_delete (bad table key)", 4)},
        {[&] { zel_id_delete(far, k); }, inv("id_delete", far - 1)},
        {[] { EXPECT_EQ(zel_id_get(nullptr, 128), 0u); }, inv("id_get (bad table id)", 0)},
        {[] { zel_id_destroy_table(77); }, inv("id_destroy_table (bad table id)", 0)},
        {[] {
             id_mgr_ret rc = ID_MGR_RET_OK;
             EXPECT_EQ(zel_id_get_next_id_ptr(9, nullptr, &rc, 0, nullptr), nullptr);
             EXPECT_EQ(rc, ID_MGR_RET_ERROR);
         },
         inv("id_get_next_id_ptr (bad table id)", 9)},
    };
    for (const Misuse &m : misuses) {
        m.call();
        EXPECT_EQ(lines(), std::vector<std::string>{m.report});
    }
    EXPECT_EQ(fake::log_messages().back(), "bad id in id_get_next_id_ptr (bad table id) (id: 0x9)");
}

TEST(IdManager, CatalogueEntries)
{
    struct Want {
        const message *m;
        const char *name, *format;
    };
    for (const Want &w : {Want{&msg_IDMGR_MALLOC_FAILURE, "MALLOC_FAILURE", "%s"},
                          Want{&msg_IDMGR_INTERRUPT, "INTERRUPT", "%s"},
                          Want{&msg_IDMGR_INVALID_ID, "INVALID_ID", "bad id in %s (id: 0x%X)"},
                          Want{&msg_IDMGR_INVALID_ID_TABLE_SIZE, "INVALID_ID_TABLE_SIZE", "bad new ID table size"},
                          Want{&msg_IDMGR_ID_MANAGER_INTERNAL_ERROR, "ID_MANAGER_INTERNAL_ERROR", "%s"}}) {
        EXPECT_EQ(w.m->fac, msg_IDMGR_INVALID_ID.fac);
        EXPECT_STREQ(w.m->fac, "IDMGR");
        EXPECT_STREQ(w.m->name, w.name);
        EXPECT_STREQ(w.m->format, w.format);
        EXPECT_EQ(w.m->severity, 3);
        EXPECT_EQ(w.m->flags, 0x0001);
        EXPECT_EQ(w.m->limiter, nullptr);
        ASSERT_NE(w.m->redir_ptr, nullptr);
        EXPECT_EQ(*w.m->redir_ptr, nullptr);
    }
}

TEST(IdManager, KeysRunOutAndComeBackAfterDestroy)
{
    std::vector<id_table_key_t> keys;
    for (int i = 0; i < 127; ++i)
        keys.push_back(zel_id_create_new_table(1, 2, const_cast<char *>("owner")));
    const std::set<id_table_key_t> distinct(keys.begin(), keys.end());
    EXPECT_EQ(distinct.size(), 127u);
    EXPECT_EQ(*distinct.begin(), 1);
    EXPECT_EQ(*distinct.rbegin(), 127);
    EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), 0xFFFF);
    EXPECT_EQ(lines(), std::vector<std::string>{inv("id_create_new_table (no more entry)", 0)});
    zel_id_get(&v[0], keys[40]);
    zel_id_destroy_table(keys[40]);
    EXPECT_EQ(lookup(1, keys[40], ID_MGR_RET_ERROR), nullptr);
    lines();
    EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), keys[40]);
    for (id_table_key_t key : keys)
        zel_id_destroy_table(key);
    EXPECT_TRUE(lines().empty());
}
