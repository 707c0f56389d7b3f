// Catalogue reports, debug output and return codes.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <type_traits>

#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/rc.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

using Lines = std::vector<std::string>;
static message_stats *test_stats;
// Same shape as the IDMGR entries, owned by the test.
static const message msg_TEST_ID = {"IDMGR", "INVALID_ID", "bad id in %s (id: 0x%X)", nullptr, 0x0001, 3, &test_stats};
static const message msg_TEST_TEXT = {"TST", "TEXT", "%s", nullptr, 0, 5, &test_stats};

// Every call reports, never rate-limited: the limiter is not even touched.
TEST(CatalogueReport, EveryCallGoesToSyslogWithPrefixAndToTheLogWithout)
{
    xos_errmsg("f", 1, &msg_TEST_ID, "id_delete", 0x12u);
    xos_errmsg("f", 1, &msg_SYS_QCOUNT, "dequeue", 0xabcdu, 3);
    xos_errmsg("f", 1, &msg_TEST_TEXT, "100% %s %d done"); // a per cent in the text is no conversion
    for (int i = 0; i < 20; ++i)
        xos_errmsg("f", 1, &msg_SYS_NOELEMENT, "data_enqueue");
    const auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 23u);
    EXPECT_TRUE(lines[0].severity == 3 && lines[1].severity == 2 && lines[2].severity == 5 && lines[22].severity == 3);
    Lines log{"bad id in id_delete (id: 0x12)", "Bad dequeue abcd count 3", "100% %s %d done"};
    log.resize(23, "data_enqueue:Ran out of buffer elements for enqueue");
    Lines sys{"%IDMGR-3-INVALID_ID:" + log[0], "%SYS-2-QCOUNT:" + log[1], "%TST-5-TEXT:" + log[2]};
    sys.resize(23, "%SYS-3-NOELEMENT:" + log[3]);
    EXPECT_EQ(fake::take_syslog_texts(), sys);
    EXPECT_EQ(fake::log_messages(), log);
    EXPECT_TRUE(msg_SYS_NOELEMENT.limiter->rate_limit == 10 && msg_SYS_NOELEMENT.limiter->last_time == 0);
}

TEST(CatalogueReport, LongTextReachesSyslogWholeOrCutWithoutMemoryAndTheLogCut)
{
    vobrel_write_to_log(nullptr, 0, "warm-up"); // the log file's own allocations
    // One exact heap buffer; from 199 bytes on, a second one for the full text.
    // Without the second the syslog line is cut like the log's; without the
    // first, or with no memory at all, too. fail: -2 none, -1 every one, else the nth.
    for (auto [n, fail] :
         {std::pair{100, -2}, {198, -2}, {199, -2}, {250, -2}, {1000, -2}, {250, 0}, {250, 1}, {5, -1}}) {
        std::string text(static_cast<size_t>(n), 'a');
        text[n - 1] = 'Z';
        fail == -2 ? allocfail::count_from_now() : fail == -1 ? allocfail::fail_all() : allocfail::fail_nth(fail);
        xos_errmsg("f", 1, &msg_TEST_TEXT, text.c_str());
        const int allocs = allocfail::count();
        allocfail::reset();
        EXPECT_TRUE(fail != -2 || allocs == (n < 199 ? 1 : 2)) << n << ": " << allocs;
        const std::string line = "%TST-5-TEXT:" + text;
        EXPECT_EQ(fake::take_syslog_texts(), Lines{fail == -2 ? line : line.substr(0, 199)}) << n << " " << fail;
        EXPECT_EQ(fake::log_messages().back(), text.substr(0, 199)) << n;
    }
}

TEST(DebugOutput, PrefixedShortTextsOnTheStackLongOnesOnTheHeapOrCutTo195)
{
    buginf("\nabc");
    buginf(" \t\n%d-%s", 7, "x");
    buginf("%s", "");
    EXPECT_EQ(fake::buginf_texts(), (Lines{"DBG:abc", "DBG:7-x", "DBG:"}));
    testing::internal::CaptureStdout();
    xos_print_debug("50% %s\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "50% %s\n");
    fake::clear_recordings();
    for (size_t n : {100u, 194u, 195u, 300u}) {
        std::string text(n, 'd');
        text[0] = 'A';
        allocfail::count_from_now();
        buginf("%s", text.c_str());
        EXPECT_EQ(allocfail::count(), n < 195 ? 0 : 1) << n;
        allocfail::fail_all();
        buginf("%s", text.c_str());
        allocfail::reset();
        EXPECT_EQ(fake::buginf_texts(), (Lines{"DBG:" + text, "DBG:" + text.substr(0, 195)})) << n;
        fake::clear_recordings();
    }
}

// C++ callers see the same representation as C ones (tests/abi/strict_c11.c).
static_assert(sizeof(vobrel_rc) == 4 && std::is_signed_v<std::underlying_type_t<vobrel_rc>>);

TEST(ReturnCodes, EveryCodeHasItsOwnTextAndOutOfRangeIsUnknown)
{
    EXPECT_TRUE(!strcmp(vobrel_decode_rc(VOBREL_OK), "No Error") && VOBREL_END_OF_ERROR_CODE == 142);
    // Codes run from 0 to 141 (c_client checks one text); none shares a text, none is empty or unknown.
    std::set<std::string> seen{"", "Unknown Error"};
    for (int rc = 0; rc < VOBREL_END_OF_ERROR_CODE; ++rc)
        EXPECT_TRUE(seen.insert(vobrel_decode_rc(static_cast<vobrel_rc>(rc))).second) << rc;
    for (int rc : {142, -1, 1000})
        EXPECT_STREQ(vobrel_decode_rc(static_cast<vobrel_rc>(rc)), "Unknown Error");
}
