// Catalogue reports, debug output and return codes.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <utility>
#include <string>

#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/rc.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

message_stats *test_stats;
// Same shape as the IDMGR entries, owned by the test.
const message msg_TEST_ID = {"IDMGR", "INVALID_ID", "bad id in %s (id: 0x%X)", nullptr, 0x0001, 3, &test_stats};
const message msg_TEST_TEXT = {"TST", "TEXT", "%s", nullptr, 0, 5, &test_stats};

} // namespace

TEST(CatalogueReport, GoesToSyslogWithPrefixAndToTheLogWithout)
{
    xos_errmsg("f", 1, &msg_TEST_ID, "id_delete", 0x12u);
    xos_errmsg("f", 1, &msg_SYS_QCOUNT, "dequeue", 0xabcdu, 3);
    auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].line, "%IDMGR-3-INVALID_ID:bad id in id_delete (id: 0x12)");
    EXPECT_EQ(lines[1].severity, 2);
    EXPECT_EQ(lines[1].line, "%SYS-2-QCOUNT:Bad dequeue abcd count 3");
    EXPECT_EQ(fake::log_messages(),
              (std::vector<std::string>{"bad id in id_delete (id: 0x12)", "Bad dequeue abcd count 3"}));
}

TEST(CatalogueReport, EveryCallReportsAndTheLimiterIsNeverTouched)
{
    for (int i = 0; i < 20; ++i)
        xos_errmsg("f", 1, &msg_SYS_NOELEMENT, "data_enqueue");
    EXPECT_EQ(fake::syslog_lines().size(), 20u);
    EXPECT_EQ(fake::log_messages().size(), 20u);
    EXPECT_EQ(fake::log_messages()[0], "data_enqueue:Ran out of buffer elements for enqueue");
    EXPECT_EQ(msg_SYS_NOELEMENT.limiter->rate_limit, 10u);
    EXPECT_EQ(msg_SYS_NOELEMENT.limiter->last_time, 0);
}

TEST(CatalogueReport, PercentInTheTextIsNotAConversion)
{
    xos_errmsg("f", 1, &msg_TEST_TEXT, "100% %s %d done");
    EXPECT_EQ(fake::log_messages().at(0), "100% %s %d done");
    EXPECT_EQ(fake::syslog_lines().at(0).line, "%TST-5-TEXT:100% %s %d done");
}

TEST(CatalogueReport, LongTextReachesSyslogWholeAndTheLogCutTo199)
{
    // 198 bytes fit the stack buffer; 199 and more need the second heap buffer.
    for (size_t n : {198u, 199u, 250u, 1000u}) {
        fake::clear_recordings();
        std::string text(n, 'a');
        text[n - 1] = 'Z';
        xos_errmsg("f", 1, &msg_TEST_TEXT, text.c_str());
        EXPECT_EQ(fake::syslog_lines().at(0).line, "%TST-5-TEXT:" + text) << n;
        EXPECT_EQ(fake::log_messages().back(), text.substr(0, 199)) << n;
    }
}

TEST(CatalogueReport, HeapUseIsOneExactBufferOrTwoForLongTexts)
{
    vobrel_write_to_log(nullptr, 0, "warm-up"); // the log file's own allocations
    const std::string short_text(100, 'b'), long_text(300, 'b');
    allocfail::Guard g;
    allocfail::count_from_now();
    xos_errmsg("f", 1, &msg_TEST_TEXT, short_text.c_str());
    EXPECT_EQ(allocfail::count(), 1);
    allocfail::count_from_now();
    xos_errmsg("f", 1, &msg_TEST_TEXT, long_text.c_str());
    EXPECT_EQ(allocfail::count(), 2);
}

TEST(CatalogueReport, WithoutMemoryTheSyslogLineIsCutTo199)
{
    vobrel_write_to_log(nullptr, 0, "warm-up"); // the log file's own allocations
    std::string text(250, 'c');
    for (int nth : {0, 1}) { // no output buffer; no buffer for the full text
        fake::clear_recordings();
        allocfail::Guard g;
        allocfail::fail_nth(nth);
        xos_errmsg("f", 1, &msg_TEST_TEXT, text.c_str());
        allocfail::reset();
        std::string line = fake::syslog_lines().at(0).line;
        EXPECT_EQ(line.size(), 199u) << nth;
        EXPECT_EQ(line, ("%TST-5-TEXT:" + text).substr(0, 199)) << nth;
        EXPECT_EQ(fake::log_messages().back(), text.substr(0, 199)) << nth;
    }
    // A short text without memory still reaches both, whole.
    fake::clear_recordings();
    allocfail::Guard g;
    allocfail::fail_all();
    xos_errmsg("f", 1, &msg_TEST_TEXT, "short");
    allocfail::reset();
    EXPECT_EQ(fake::syslog_lines().at(0).line, "%TST-5-TEXT:short");
}

TEST(DebugOutput, PrefixAndLeadingWhiteSpaceSkipped)
{
    buginf("\nabc");
    buginf(" \t\n%d-%s", 7, "x");
    const char *empty = "";
    buginf("%s", empty);
    EXPECT_EQ(fake::buginf_texts(), (std::vector<std::string>{"DBG:abc", "DBG:7-x", "DBG:"}));
    testing::internal::CaptureStdout();
    xos_print_debug("50% %s\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "50% %s\n");
}

TEST(DebugOutput, ShortTextsUseTheStackAndLongOnesTheHeap)
{
    allocfail::Guard g;
    for (size_t n : {100u, 194u, 195u, 300u}) {
        const std::string text(n, 'd');
        allocfail::count_from_now();
        buginf("%s", text.c_str());
        EXPECT_EQ(allocfail::count(), n < 195 ? 0 : 1) << n;
        allocfail::reset();
        EXPECT_EQ(fake::buginf_texts().back(), "DBG:" + text);
    }
}

TEST(DebugOutput, LongTextWithoutMemoryKeepsFirst195Bytes)
{
    std::string text(300, 'q');
    text[0] = 'A';
    allocfail::Guard g;
    allocfail::fail_all();
    buginf("%s", text.c_str());
    allocfail::reset();
    EXPECT_EQ(fake::buginf_texts().at(0), "DBG:" + text.substr(0, 195));
}

TEST(ReturnCodes, EveryCodeHasItsOwnTextAndOutOfRangeIsUnknown)
{
    const std::pair<vobrel_rc, const char *> named[] = {
        {VOBREL_OK, "No Error"},
        {VOBREL_INVALID_ARGS, "Invalid Argument"},
        {VOBREL_NOT_ENOUGH_BUFFER, "Buffer space is small"},
        {VOBREL_INVALID_FILE, "Invalid file"},
        {VOBREL_FSWRITE_FAILED, "File write failed"},
        {VOBREL_FSOPEN_FAILED, "File open failed"},
        {VOBREL_LOCK_FAILED, "Vobrel read-write lock failed"},
        {VOBREL_UNLOCK_FAILED, "Vobrel read-write unlock failed"},
        {VOBREL_NULL_POINTER, "Null pointer detected"},
        {VOBREL_TIMEOUT, "Operation timed out"}};
    for (auto &[rc, text] : named)
        EXPECT_STREQ(vobrel_decode_rc(rc), text);
    std::set<std::string> seen;
    for (int rc = 0; rc < VOBREL_END_OF_ERROR_CODE; ++rc) {
        const char *t = vobrel_decode_rc(static_cast<vobrel_rc>(rc));
        EXPECT_STRNE(t, "Unknown Error") << rc;
        EXPECT_GT(strlen(t), 0u) << rc;
        seen.insert(t);
    }
    EXPECT_EQ(seen.size(), 142u);
    for (int rc : {142, -1, 1000})
        EXPECT_STREQ(vobrel_decode_rc(static_cast<vobrel_rc>(rc)), "Unknown Error");
}
