// Text helpers: bounded copy, length test, duration text and delimiter splitting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vobrel/util.h>

#include "support/alloc_fail.h"

// Splits `buf` in place and releases the result as a caller would: the tokens
// (a null slot reads "<null>"), or "rc N" on failure. `fail` is the 0-based
// allocation to fail, if any.
static std::vector<std::string> split(std::string &buf, int len, std::string delim, int fail = -1)
{
    int n = -1;
    char **sentinel = reinterpret_cast<char **>(&n), **strings = sentinel;
    if (fail >= 0)
        allocfail::fail_nth(fail);
    vobrel_rc rc = vobrel_parse_delim_buffer(buf.data(), len, delim.data(), &strings, &n);
    allocfail::reset();
    if (rc != VOBREL_OK) {
        EXPECT_TRUE(n == -1 && strings == (fail >= 0 ? nullptr : sentinel)) << "outputs wrong after failure";
        return {"rc " + std::to_string(rc)};
    }
    std::vector<std::string> out;
    for (int i = 0; i < n; free(strings[i++]))
        out.push_back(strings[i] ? strings[i] : "<null>");
    EXPECT_EQ(strings[n], nullptr) << "array not terminated";
    free(strings);
    return out;
}

TEST(BoundedCopy, TerminatesAndWritesNothingPastTheNul)
{
    char buf[10];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(zel_sstrncpy(buf, "ab", sizeof buf), buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("ab\0xxxxxxx", 10));
    zel_sstrncpy(buf, "abcdef", 4);
    zel_sstrncpy(buf + 5, "abc", 1);
    zel_sstrncpy(buf + 6, nullptr, 3);
    zel_sstrncpy(buf + 7, "abc", 0); // no room, not even for the NUL
    EXPECT_EQ(std::string(buf, 8), std::string("abc\0x\0\0x", 8));

    EXPECT_EQ(check_strlen("abc", 3), 0);
    EXPECT_EQ(check_strlen("abcd", 3), 1);
    EXPECT_EQ(check_strlen("abc", SIZE_MAX), 0); // compared unsigned
}

TEST(Duration, OneAndTwoUnitForms)
{
    struct Row { time_t secs; size_t len; const char *one, *two; };
    const Row rows[] = {
        {0, 64, "0 minutes", "0 minutes"},
        {59, 64, "0 minutes", "0 minutes"}, // seconds never count towards minutes
        {60, 64, "1 minutes", "1 minutes"},
        {3359, 64, "55 minutes", "55 minutes"},
        {3360, 64, "1 hour ", "1 hour "}, // 56 minutes carry to an hour
        {5400, 64, "1 hour ", "1 hour  and 30 minutes"},
        {7800, 64, "2 hours", "2 hours and 10 minutes"},
        {90000, 64, "1 day ", "1 day  and 1 hour "},
        {2 * 86400 + 1800, 64, "2 days", "2 days"}, // minutes under days are not shown
        {604560, 64, "1 week ", "1 week "},         // 6d 23h 56m carried up to a week
        {709200, 64, "1 week ", "1 week  and 1 day "},
        {1483200, 64, "2 weeks", "2 weeks and 3 days"},
        {1483200, 5, "2 we", "2 we"},
    };
    for (const Row &r : rows)
        for (int expired : {0, 1, 2}) { // only exactly 1 selects two units
            std::string buf(64, '#');
            vobrel_convert_time_to_string(static_cast<boolean>(expired), r.secs, buf.data(), r.len);
            EXPECT_STREQ(buf.c_str(), expired == 1 ? r.two : r.one) << r.secs << " expired " << expired;
        }
}

TEST(Split, TokensCutsAndFailures)
{
    // fail: the allocation to fail (scratch copy, array, then one per token);
    // after: the buffer afterwards, NULs shown as |.
    struct Row { const char *text; int len; const char *delim; int fail;
                 std::vector<std::string> tokens; const char *after; };
    const Row rows[] = {
        {"a,,b,", 5, ",", -1, {"a", "b"}, "a|,b|"},
        {",,,,", 4, ",", -1, {}, ",,,,"},
        {" a;b,, c", 8, " ;,", -1, {"a", "b", "c"}, " a|b|, c"},
        {"one,two,three,four", 9, ",", -1, {"one", "two", "t"}, "one|two|three,four"}, // longer than len
        {"a,b", 0, ",", -1, {"rc 1"}, "a,b"},
        {"a,b", -1, ",", -1, {"rc 1"}, "a,b"},
        {"a,b,c", 5, ",", 0, {"rc 1"}, "a,b,c"},
        {"a,b,c", 5, ",", 1, {"rc 1"}, "a,b,c"},
        {"a,b,c", 5, ",", 2, {"<null>", "b", "c"}, "a|b|c"},
    };
    // A caller's own non-re-entrant tokenising keeps its place across splits.
    char outer[] = "x;y";
    strtok(outer, ";");
    for (const Row &r : rows) {
        std::string buf = r.text;
        EXPECT_EQ(split(buf, r.len, r.delim, r.fail), r.tokens) << r.text << " fail " << r.fail;
        std::replace(buf.begin(), buf.end(), '\0', '|');
        EXPECT_EQ(buf, r.after) << r.text << " fail " << r.fail;
    }
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
