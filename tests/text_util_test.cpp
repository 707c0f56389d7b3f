// Text helpers: bounded copy, length test, duration text and delimiter splitting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include <vobrel/util.h>

#include "support/alloc_fail.h"

TEST(BoundedCopy, TerminatesAndWritesNothingPastTheNul)
{
    char buf[11] = "xxxxxxxxxx";
    EXPECT_EQ(zel_sstrncpy(buf, "ab", 9), buf);
    zel_sstrncpy(buf + 4, "abcdef", 3);
    zel_sstrncpy(buf + 7, "abc", 1);
    zel_sstrncpy(buf + 8, nullptr, 3);
    zel_sstrncpy(buf + 9, "abc", 0); // no room, not even for the NUL
    EXPECT_EQ(std::string(buf, 10), std::string("ab\0xab\0\0\0x", 10));

    EXPECT_EQ(check_strlen("abc", 3), 0);
    EXPECT_EQ(check_strlen("abcd", 3), 1);
    EXPECT_EQ(check_strlen("abc", SIZE_MAX), 0); // compared unsigned
}

TEST(Duration, OneAndTwoUnitForms)
{
    // `two` (when it differs from `one`) is the text with a second unit.
    struct Row { time_t secs; const char *one, *two = nullptr; size_t len = 64; };
    const Row rows[] = {
        {0, "0 minutes"}, {59, "0 minutes"}, {60, "1 minutes"}, // seconds never count towards minutes
        {3359, "55 minutes"}, {3360, "1 hour "},                // 56 minutes carry to an hour
        {5400, "1 hour ", "1 hour  and 30 minutes"}, {7800, "2 hours", "2 hours and 10 minutes"},
        {90000, "1 day ", "1 day  and 1 hour "}, {2 * 86400 + 1800, "2 days"}, // minutes under days are not shown
        {604560, "1 week "}, {709200, "1 week ", "1 week  and 1 day "},     // 6d 23h 56m carry up to a week
        {1483200, "2 weeks", "2 weeks and 3 days"}, {1483200, "2 we", nullptr, 5},
    };
    for (const Row &r : rows)
        for (int expired : {0, 1, 2}) { // only exactly 1 selects two units
            std::string buf(64, '#');
            vobrel_convert_time_to_string(static_cast<boolean>(expired), r.secs, buf.data(), r.len);
            EXPECT_STREQ(buf.c_str(), expired == 1 && r.two ? r.two : r.one) << r.secs << "s, expired " << expired;
        }
}

TEST(Split, TokensCutsAndFailures)
{
    // fail: the allocation to fail (scratch copy, array, then one per token; 9: none);
    // out: the tokens, each ended by |, or "rc N"; after: the buffer, NULs shown as |.
    struct Row { const char *in; int len; const char *delim; int fail; const char *out, *after; };
    const Row rows[] = {
        {"a,,b,", 5, ",", 9, "a|b|", "a|,b|"},
        {",,,,", 4, ",", 9, "", ",,,,"},
        {" a;b,, c", 8, " ;,", 9, "a|b|c|", " a|b|, c"},
        {"one,two,three,four", 9, ",", 9, "one|two|t|", "one|two|three,four"}, // longer than len
        {"a,b", 0, ",", 9, "rc 1", "a,b"},
        {"a,b", -1, ",", 9, "rc 1", "a,b"},
        {"a,b,c", 5, ",", 0, "rc 1", "a,b,c"},
        {"a,b,c", 5, ",", 1, "rc 1", "a,b,c"},
        {"a,b,c", 5, ",", 2, "<null>|b|c|", "a|b|c"},
    };
    // A caller's own non-re-entrant tokenising keeps its place across splits.
    char outer[] = "x;y";
    strtok(outer, ";");
    // Each text goes, unterminated, right before an unreadable page: nothing
    // at or after buffer[len] may be read or written.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *pages = static_cast<char *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_TRUE(pages != MAP_FAILED && mprotect(pages + page, page, PROT_NONE) == 0);
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << r.in << " fail " << r.fail);
        char *edge = static_cast<char *>(memcpy(pages + page - strlen(r.in), r.in, strlen(r.in)));
        std::string delim = r.delim;
        int n = -1;
        char **strings = reinterpret_cast<char **>(&n); // a value no call would store
        allocfail::fail_nth(r.fail);
        vobrel_rc rc = vobrel_parse_delim_buffer(edge, r.len, delim.data(), &strings, &n);
        allocfail::reset();
        std::string got; // tokens each ended by |, released as a caller would
        for (int i = 0; i < n; free(strings[i++]))
            got += std::string(strings[i] ? strings[i] : "<null>") + "|";
        // The array ends in a null slot; a bad length leaves the outputs alone, no memory clears them.
        EXPECT_TRUE(rc ? n == -1 && strings == (r.len > 0 ? nullptr : reinterpret_cast<char **>(&n)) : !strings[n]);
        free(rc == VOBREL_OK ? strings : nullptr);
        EXPECT_EQ(rc != VOBREL_OK ? "rc " + std::to_string(rc) : got, r.out);
        std::string after(edge, strlen(r.in));
        std::replace(after.begin(), after.end(), '\0', '|');
        EXPECT_EQ(after, r.after);
    }
    munmap(pages, 2 * page);
    EXPECT_STREQ(strtok(nullptr, ";"), "y");

    // Null arguments are refused and touch nothing.
    char buf[] = "a,b", delim[] = ",", **strings = nullptr;
    int n = 77;
    EXPECT_EQ(vobrel_parse_delim_buffer(nullptr, 3, delim, &strings, &n), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_parse_delim_buffer(buf, 3, nullptr, &strings, &n), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_parse_delim_buffer(buf, 3, delim, nullptr, &n), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_parse_delim_buffer(buf, 3, delim, &strings, nullptr), VOBREL_INVALID_ARGS);
    EXPECT_TRUE(!strings && n == 77 && !strcmp(buf, "a,b"));
}
