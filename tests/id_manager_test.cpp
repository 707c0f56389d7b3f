// ID manager: what its model (fuzz/id_manager_fuzz.cpp) does not reach: the
// largest geometry wrapping around to identifier 0, and limits recorded for a
// key without a slot array. Allocation failure is swept in alloc_sweep_test.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <vobrel/id_manager.h>

#include "support/fake_platform.h"

namespace {

using Lines = std::vector<std::string>;
int v[4];

std::string inv(const char *what, unsigned id)
{
    char b[128];
    snprintf(b, sizeof b, "%%IDMGR-3-INVALID_ID:bad id in %s (id: 0x%X)", what, id);
    return b;
}

constexpr idmgr_id_t make_id(unsigned seq, unsigned s, unsigned i) { return (seq << 24 | s << 16 | i) + 1; }

} // namespace

TEST(IdManager, WrapAroundAndAKeyWithLimitsButNoSlots)
{
    // Slot 255, index 65535 with sequence 0xFF would give identifier 0.
    id_table_key_t w = zel_id_create_new_table(256, 65536, nullptr); // the largest geometry
    ASSERT_EQ(zel_id_reserve(&v[0], w, make_id(0xFF, 255, 0)), unsigned{ID_MGR_RET_OK});
    for (unsigned i = 1; i < 65535; ++i)
        ASSERT_EQ(zel_id_get(&v[1], w), make_id(0xFF, 255, i));
    EXPECT_EQ(zel_id_get(&v[2], w), 0u);
    EXPECT_EQ(fake::take_syslog_texts(), Lines{inv("id_get (Out of IDs! Wrap around.)", 0)});
    EXPECT_EQ(zel_id_get(&v[3], w) & 0xFFFFFF, 1u); // that entry stays off the queue
    ASSERT_TRUE(zel_id_table_set_no_randomize(w));   // and out of use
    id_mgr_ret rc = ID_MGR_RET_ERROR;
    EXPECT_TRUE(zel_id_to_ptr(make_id(0, 255, 0xFFFF), &rc, w) == nullptr && rc == ID_MGR_RET_RETIRED);
    // Limits recorded for a key without a slot array: reserve refuses it as unassigned.
    zel_numTableSlot_max[98] = zel_numIDsPerSLot_max[98] = 4;
    EXPECT_EQ(zel_id_reserve(&v[1], 98, 1), unsigned{ID_MGR_UNINITIALIZED});
    EXPECT_EQ(fake::take_syslog_texts(), Lines{inv("id_reserve (unassigned table id)", 1)});
}
