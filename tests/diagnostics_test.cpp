// Catalogue reports, debug output and return codes.
#include <gtest/gtest.h>

#include <set>
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
    auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].line, "%IDMGR-3-INVALID_ID:bad id in id_delete (id: 0x12)");
    EXPECT_EQ(fake::log_messages(), std::vector<std::string>{"bad id in id_delete (id: 0x12)"});
}

TEST(CatalogueReport, SysEntriesCarryTheirFields)
{
    xos_errmsg("f", 1, &msg_SYS_QCOUNT, "dequeue", 0xabcdu, 3);
    EXPECT_EQ(fake::syslog_lines().at(0).line, "%SYS-2-QCOUNT:Bad dequeue abcd count 3");
    EXPECT_EQ(fake::syslog_lines().at(0).severity, 2);

    struct Want {
        const message *m;
        const char *name;
        int sev;
        const char *fmt;
        bool limited;
    };
    for (const Want &w : {Want{&msg_SYS_LINKED, "LINKED", 2, "Bad %s of %x in queue %x", false},
                          Want{&msg_SYS_QCOUNT, "QCOUNT", 2, "Bad %s %x count %d", false},
                          Want{&msg_SYS_NOTQ, "NOTQ", 2, "%s didn't find %x in queue %x", false},
                          Want{&msg_SYS_NOELEMENT, "NOELEMENT", 3, "%s:Ran out of buffer elements for enqueue", true},
                          Want{&msg_SYS_BADLIST_DESTROY, "BADLIST_DESTROY", 3,
                               "Removed a non-empty list(%x, name: %s), having %lu elements", false},
                          Want{&msg_SYS_MGDTIMER, "MGDTIMER", 3, "%s%s, timer = %x.", true}}) {
        EXPECT_STREQ(w.m->fac, "SYS");
        EXPECT_STREQ(w.m->name, w.name);
        EXPECT_EQ(w.m->severity, w.sev) << w.name;
        EXPECT_STREQ(w.m->format, w.fmt);
        EXPECT_EQ(w.m->flags, 0x0003) << w.name;
        EXPECT_EQ(w.m->limiter != nullptr, w.limited) << w.name;
        ASSERT_NE(w.m->redir_ptr, nullptr);
        EXPECT_EQ(*w.m->redir_ptr, nullptr);
    }
    EXPECT_EQ(msg_SYS_LINKED.fac, msg_SYS_NOTQ.fac); // one shared facility text
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
    buginf("no newline added");
    const char *empty = "";
    buginf("%s", empty);
    auto t = fake::buginf_texts();
    ASSERT_EQ(t.size(), 4u);
    EXPECT_EQ(t[0], "DBG:abc");
    EXPECT_EQ(t[1], "DBG:7-x");
    EXPECT_EQ(t[2], "DBG:no newline added");
    EXPECT_EQ(t[3], "DBG:");
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

TEST(DebugOutput, PrintDebugWritesTheStringUnchanged)
{
    testing::internal::CaptureStdout();
    xos_print_debug("50% %s\n");
    xos_print_debug("");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "50% %s\n");
}

TEST(ReturnCodes, NamedCodesAndBounds)
{
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_OK), "No Error");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_INVALID_ARGS), "Invalid Argument");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_NOT_ENOUGH_BUFFER), "Buffer space is small");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_INVALID_FILE), "Invalid file");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_FSWRITE_FAILED), "File write failed");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_FSOPEN_FAILED), "File open failed");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_LOCK_FAILED), "Vobrel read-write lock failed");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_UNLOCK_FAILED), "Vobrel read-write unlock failed");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_NULL_POINTER), "Null pointer detected");
    EXPECT_STREQ(vobrel_decode_rc(VOBREL_TIMEOUT), "Operation timed out");
    EXPECT_EQ(VOBREL_NO_ENTRIES, 42);
    EXPECT_EQ(VOBREL_END_OF_ERROR_CODE, 142);
    EXPECT_STREQ(vobrel_decode_rc(static_cast<vobrel_rc>(142)), "Unknown Error");
    EXPECT_STREQ(vobrel_decode_rc(static_cast<vobrel_rc>(-1)), "Unknown Error");
    EXPECT_STRNE(vobrel_decode_rc(static_cast<vobrel_rc>(141)), "Unknown Error");
}

TEST(ReturnCodes, EveryCodeHasItsOwnText)
{
    std::set<std::string> seen;
    for (int rc = 0; rc < VOBREL_END_OF_ERROR_CODE; ++rc) {
        const char *t = vobrel_decode_rc(static_cast<vobrel_rc>(rc));
        ASSERT_NE(t, nullptr);
        EXPECT_GT(strlen(t), 0u) << rc;
        EXPECT_STRNE(t, "Unknown Error") << rc;
        seen.insert(t);
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(VOBREL_END_OF_ERROR_CODE));
}
