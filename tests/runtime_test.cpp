// Runtime start-up: the fixed order of vobrel_os_init and a repeated call.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vobrel/list.h>
#include <vobrel/runtime.h>
#include <vobrel/string_db.h>
#include <vobrel/xos.h>

// The tick rate, the list registry and the string database (whose test
// component takes owner id 0) come up; a repeated call runs every step again
// and shutdown changes nothing.
TEST(RuntimeStartUp, BringsUpEveryStepAndARepeatedCallRunsThemAgain)
{
    EXPECT_EQ(vobrel_os_init(), VOBREL_OK);
    EXPECT_EQ(zel_timer_ticks_per_second, sysconf(_SC_CLK_TCK));
    EXPECT_EQ(list_element_chunk, static_cast<int>(sizeof(list_element)));
    EXPECT_EQ(sdb_test_owner_id, 0);
    list_header *l = zel_list_create(nullptr, 0, "first", 0);
    ASSERT_NE(l, nullptr);
    EXPECT_TRUE(l->ID == 1u && zel_list_get_listQ()->count == 1u);
    zel_list_destroy(l);
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_add_block("kept", 4, &h));
    vobrel_os_shutdown();
    EXPECT_EQ(vobrel_os_init(), VOBREL_OK);
    // The database keeps its table and texts; the test component registers again
    // under a new id; the list numbering starts afresh.
    EXPECT_STREQ(sdb_string_addr_ptr(h), "kept");
    EXPECT_EQ(sdb_test_owner_id, 1);
    EXPECT_EQ(zel_list_get_list_ID(), 1u);
    vobrel_os_shutdown();
    vobrel_os_shutdown();
    l = zel_list_create(nullptr, 0, "after shutdown", 0);
    ASSERT_NE(l, nullptr);
    list_element e{};
    EXPECT_TRUE(list_enqueue(l, &e, &h));
    EXPECT_EQ(list_dequeue(l), &h);
    zel_list_destroy(l);
}
