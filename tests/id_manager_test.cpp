// ID manager: what its model (fuzz/id_manager_fuzz.cpp) does not reach: every
// key up to the highest, wrap-around and reserve in every branch. Allocation
// failure is swept in alloc_sweep_test.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <vobrel/id_manager.h>

#include "support/fake_platform.h"

namespace {

using Lines = std::vector<std::string>;
using Pair = std::pair<unsigned, unsigned>;
int v[8];

Lines lines()
{
    return fake::take_syslog_texts();
}

std::string inv(const char *what, unsigned id)
{
    char b[128];
    snprintf(b, sizeof b, "%%IDMGR-3-INVALID_ID:bad id in %s (id: 0x%X)", what, id);
    return b;
}

constexpr idmgr_id_t make_id(unsigned seq, unsigned s, unsigned i) { return (seq << 24 | s << 16 | i) + 1; }
uint8_t &seq_of(id_table_key_t k, unsigned s, unsigned i) { return zel_g_id_manager_table[k][s][i].tableSequence; }

void *lookup(idmgr_id_t id, id_table_key_t key, id_mgr_ret want)
{
    id_mgr_ret rc = ID_MGR_RET_ERROR;
    void *p = zel_id_to_ptr(id, &rc, key);
    EXPECT_EQ(rc, want) << std::hex << id;
    return p;
}

id_table_key_t norand(unsigned slots, unsigned per)
{
    id_table_key_t k = zel_id_create_new_table(slots, per, const_cast<char *>("test"));
    EXPECT_TRUE(zel_id_table_set_no_randomize(k));
    return k;
}

} // namespace

TEST(IdManager, KeysOneTo127ThenNoneUntilOneIsFreed)
{
    std::set<unsigned> keys;
    for (int i = 0; i < 127; ++i)
        keys.insert(zel_id_create_new_table(1, 2, nullptr));
    EXPECT_TRUE(keys.size() == 127 && *keys.begin() == 1 && *keys.rbegin() == 127);
    EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), 0xFFFF);
    EXPECT_EQ(lines(), Lines{inv("id_create_new_table (no more entry)", 0)});
    zel_id_destroy_table(40);
    EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), 40);
    // The highest key is a key like any other in every call that takes one.
    idmgr_id_t top = zel_id_get(&keys, 127);
    EXPECT_EQ(lookup(top, 127, ID_MGR_RET_OK), &keys);
    EXPECT_EQ(zel_id_reserve(&keys, 127, top), unsigned(ID_IN_USE));
    zel_id_delete(top, 127);
    EXPECT_EQ(lookup(top, 127, ID_MGR_RET_RETIRED), nullptr);
    EXPECT_TRUE(zel_id_table_set_no_randomize(127) && lines().empty());
    zel_id_destroy_table(127);
    EXPECT_EQ(zel_id_create_new_table(1, 2, nullptr), 127);
}

TEST(IdManager, WrapAroundAndReserveInEveryBranch)
{
    // Slot 255, index 65535 with sequence 0xFF would give identifier 0.
    id_table_key_t w = zel_id_create_new_table(256, 65536, nullptr); // the largest geometry
    ASSERT_EQ(zel_id_reserve(&v[0], w, make_id(0xFF, 255, 0)), unsigned{ID_MGR_RET_OK});
    for (unsigned i = 1; i < 65535; ++i)
        ASSERT_EQ(zel_id_get(&v[1], w), make_id(0xFF, 255, i));
    EXPECT_EQ(zel_id_get(&v[2], w), 0u);
    EXPECT_EQ(lines(), Lines{inv("id_get (Out of IDs! Wrap around.)", 0)});
    EXPECT_EQ(zel_id_get(&v[3], w) & 0xFFFFFF, 1u); // that entry stays off the queue
    ASSERT_TRUE(zel_id_table_set_no_randomize(w));   // and out of use
    EXPECT_EQ(lookup(make_id(0, 255, 0xFFFF), w, ID_MGR_RET_RETIRED), nullptr);

    id_table_key_t r = zel_id_create_new_table(4, 4, nullptr), n = norand(4, 4);
    zel_numTableSlot_max[98] = zel_numIDsPerSLot_max[98] = 4; // limits without a slot array
    idmgr_id_t first = zel_id_get(&v[0], r);
    using Case = std::tuple<id_table_key_t, idmgr_id_t, unsigned, std::string>;
    for (const auto &[key, id, want, report] : std::vector<Case>{
             {r, 0, ID_MGR_INVALID_ID, inv("id_reserve (bad id)", 0)},
             {128, 1, ID_MGR_INVALID_ID, inv("id_reserve (bad id)", 1)},
             {r, make_id(0, 4, 0), ID_MGR_INVALID_ID, inv("id_reserve", make_id(0, 4, 0))},
             {r, make_id(0, 0, 4), ID_MGR_INVALID_ID, inv("id_reserve", make_id(0, 0, 4))},
             {99, 1, ID_MGR_INVALID_ID, inv("id_reserve", 1)},
             {98, 1, ID_MGR_UNINITIALIZED, inv("id_reserve (unassigned table id)", 1)},
             {n, make_id(1, 0, 0), ID_MGR_INVALID_ID, inv("id_reserve: ID Out of Range.", make_id(1, 0, 0))},
             {r, first, ID_IN_USE, ""},
             {r, make_id(0x42, 0, 2), ID_MGR_RET_OK, ""},
             {r, make_id(0x43, 0, 2), ID_IN_USE, ""},
             {r, make_id(0x77, 2, 1), ID_MGR_RET_OK, ""},
             {n, 3, ID_MGR_RET_OK, ""},
             {n, 3, ID_IN_USE, ""}}) {
        EXPECT_EQ(zel_id_reserve(&v[1], key, id), want) << std::hex << id;
        EXPECT_EQ(lines(), report.empty() ? Lines{} : Lines{report}) << std::hex << id;
    }
    EXPECT_EQ(lookup(make_id(0x42, 0, 2), r, ID_MGR_RET_OK), &v[1]);
    // The new slot's entries carry the requested sequence and queue up behind
    // the free entries of slot 0, in index order; then growth takes the lowest null slot.
    EXPECT_EQ(seq_of(r, 2, 3), 0x77);
    for (unsigned want : {0x00001, 0x00003, 0x20000, 0x20002, 0x20003, 0x10000})
        EXPECT_EQ((zel_id_get(&v[2], r) - 1) & 0xFFFFFF, want);
}

