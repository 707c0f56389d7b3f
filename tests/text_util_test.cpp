// Text helpers: bounded copy, length test, duration text and delimiter splitting.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vobrel/util.h>

#include "support/alloc_fail.h"

namespace {

// Takes the array apart and releases it as a caller would.
std::vector<std::string> take_strings(char **strings, int n)
{
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i) {
        out.push_back(strings[i] ? strings[i] : "<null>");
        free(strings[i]);
    }
    EXPECT_EQ(strings[n], nullptr) << "array not terminated";
    free(strings);
    return out;
}

std::string duration(int expired, time_t secs, size_t len = 64)
{
    char buf[64];
    memset(buf, '#', sizeof buf);
    vobrel_convert_time_to_string(static_cast<boolean>(expired), secs, buf, len);
    return buf;
}

} // namespace

TEST(BoundedCopy, TerminatesAndWritesNothingPastTheNul)
{
    char buf[10];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(zel_sstrncpy(buf, "abcdef", 4), buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("abc\0xxxxxx", 10));

    memset(buf, 'x', sizeof buf);
    zel_sstrncpy(buf, "ab", sizeof buf);
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("ab\0xxxxxxx", 10));

    memset(buf, 'x', sizeof buf);
    zel_sstrncpy(buf, "abc", 4); // exact fit
    EXPECT_EQ(std::string(buf, 5), std::string("abc\0x", 5));

    for (const char *src : {"abc", static_cast<const char *>(nullptr)}) {
        memset(buf, 'x', sizeof buf);
        zel_sstrncpy(buf, src, src ? 1 : sizeof buf);
        EXPECT_EQ(std::string(buf, 2), std::string("\0x", 2));
    }
}

TEST(BoundedCopy, ZeroSizeAndNullDestinationWriteNothing)
{
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(zel_sstrncpy(buf, "abc", 0), buf);
    EXPECT_EQ(std::string(buf, 4), "xxxx");
    EXPECT_EQ(zel_sstrncpy(nullptr, "abc", 4), nullptr);
}

TEST(LengthTest, MoreThanLenCharacters)
{
    EXPECT_EQ(check_strlen("abc", 3), 0);
    EXPECT_EQ(check_strlen("abcd", 3), 1);
    EXPECT_EQ(check_strlen("ab", 3), 0);
    EXPECT_EQ(check_strlen("", 0), 0);
    EXPECT_EQ(check_strlen("a", 0), 1);
    EXPECT_EQ(check_strlen("abc", SIZE_MAX), 0);
    EXPECT_EQ(check_strlen(nullptr, 0), 0);
}

TEST(Duration, OneAndTwoUnitTable)
{
    struct Row {
        time_t secs;
        const char *one;
        const char *two;
    };
    const Row rows[] = {
        {0, "0 minutes", "0 minutes"},
        {59, "0 minutes", "0 minutes"}, // seconds never count towards minutes
        {60, "1 minutes", "1 minutes"},
        {3359, "55 minutes", "55 minutes"},
        {3360, "1 hour ", "1 hour "}, // 56 minutes carry to an hour
        {3600, "1 hour ", "1 hour "},
        {5400, "1 hour ", "1 hour  and 30 minutes"},
        {7800, "2 hours", "2 hours and 10 minutes"},
        {86340, "1 day ", "1 day "}, // 23:59 -> 24 hours -> a day
        {90000, "1 day ", "1 day  and 1 hour "},
        {2 * 86400 + 1800, "2 days", "2 days"}, // minutes under days are not shown
        {2 * 86400 + 23 * 3600 + 56 * 60, "3 days", "3 days"},
        {604560, "1 week ", "1 week "}, // 6d 23h 56m carried up to a week
        {604800 + 5 * 3600, "1 week ", "1 week "},
        {709200, "1 week ", "1 week  and 1 day "},
        {1209600 - 240, "2 weeks", "2 weeks"},
        {1483200, "2 weeks", "2 weeks and 3 days"},
        {1000000000, "1653 weeks", "1653 weeks and 3 days"},
        {-5, "0 minutes", "0 minutes"},
    };
    for (const Row &r : rows) {
        EXPECT_EQ(duration(0, r.secs), r.one) << r.secs;
        EXPECT_EQ(duration(1, r.secs), r.two) << r.secs;
        EXPECT_EQ(duration(2, r.secs), r.one) << r.secs << " (only exactly 1 selects two units)";
    }
}

TEST(Duration, CutToTheBuffer)
{
    EXPECT_EQ(duration(0, 1483200, 5), "2 we");
    EXPECT_EQ(duration(1, 1483200, 5), "2 we");
    EXPECT_EQ(duration(1, 5400, 6), "1 hou");
    EXPECT_EQ(duration(1, 5400, 1), "");

    char buf[4] = {'x', 'x', 'x', 'x'};
    vobrel_convert_time_to_string(0, 60, buf, 0);
    EXPECT_EQ(std::string(buf, 4), "xxxx");
    vobrel_convert_time_to_string(0, 60, nullptr, 10);
}

TEST(Split, CutsTheCallersBufferInPlace)
{
    char buf[] = {'a', ',', ',', 'b', ',', '\0'};
    char delim[] = ",";
    char **strings = nullptr;
    int n = -1;
    ASSERT_EQ(vobrel_parse_delim_buffer(buf, 5, delim, &strings, &n), VOBREL_OK);
    ASSERT_EQ(n, 2);
    EXPECT_NE(strings[0], buf); // copies, not pointers into the buffer
    EXPECT_EQ(take_strings(strings, n), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(std::string(buf, 6), std::string("a\0,b\0\0", 6));
}

TEST(Split, TokenShapes)
{
    struct Row {
        const char *text;
        const char *delim;
        std::vector<std::string> tokens;
        const char *after; // the buffer afterwards, NULs shown as |
    };
    const Row rows[] = {
        {",,,,", ",", {}, ",,,,"},
        {"hello", ",", {"hello"}, "hello"},
        {" a;b,, c\t", " ;,\t", {"a", "b", "c"}, " a|b|, c|"},
        {"x", "", {"x"}, "x"},
    };
    for (const Row &r : rows) {
        std::string text = r.text;
        std::vector<char> buf(text.begin(), text.end());
        buf.push_back('\0');
        std::vector<char> delim(r.delim, r.delim + strlen(r.delim) + 1);
        char **strings = nullptr;
        int n = -1;
        ASSERT_EQ(vobrel_parse_delim_buffer(buf.data(), static_cast<int>(text.size()), delim.data(), &strings, &n),
                  VOBREL_OK)
            << r.text;
        EXPECT_EQ(take_strings(strings, n), r.tokens) << r.text;
        std::string after(buf.data(), text.size());
        for (char &c : after)
            if (c == '\0')
                c = '|';
        EXPECT_EQ(after, r.after) << r.text;
    }
}

TEST(Split, TextLongerThanLenGivesTheTokensOfItsFirstLenCharacters)
{
    char buf[] = "one,two,three,four";
    char delim[] = ",";
    char **strings = nullptr;
    int n = -1;
    ASSERT_EQ(vobrel_parse_delim_buffer(buf, 9, delim, &strings, &n), VOBREL_OK);
    EXPECT_EQ(take_strings(strings, n), (std::vector<std::string>{"one", "two", "t"}));
    // Cut only within the first 9 characters; the rest is as it was.
    EXPECT_EQ(std::string(buf, sizeof buf), std::string("one\0two\0three,four\0", 19));

    char buf2[] = "ab,cd,ef";
    ASSERT_EQ(vobrel_parse_delim_buffer(buf2, 3, delim, &strings, &n), VOBREL_OK);
    EXPECT_EQ(take_strings(strings, n), (std::vector<std::string>{"ab"}));
    EXPECT_EQ(std::string(buf2, sizeof buf2), std::string("ab\0cd,ef\0", 9));
}

TEST(Split, BadArgumentsTouchNothing)
{
    char buf[] = "a,b";
    char delim[] = ",";
    char **sentinel = reinterpret_cast<char **>(&buf);
    struct Row {
        char *buffer;
        int len;
        char *delim;
        bool strings_null;
        bool n_null;
    };
    for (const Row &r : {Row{nullptr, 3, delim, false, false}, Row{buf, 3, nullptr, false, false},
                         Row{buf, 0, delim, false, false}, Row{buf, -1, delim, false, false},
                         Row{buf, INT_MIN, delim, false, false}, Row{buf, 3, delim, true, false},
                         Row{buf, 3, delim, false, true}}) {
        char **strings = sentinel;
        int n = 77;
        EXPECT_EQ(vobrel_parse_delim_buffer(r.buffer, r.len, r.delim, r.strings_null ? nullptr : &strings,
                                            r.n_null ? nullptr : &n),
                  VOBREL_INVALID_ARGS);
        EXPECT_EQ(strings, sentinel);
        EXPECT_EQ(n, 77);
        EXPECT_STREQ(buf, "a,b");
    }
}

TEST(Split, AllocationFailures)
{
    char delim[] = ",";
    // Allocations: the scratch copy, the array, then one per token.
    for (int nth = 0; nth < 5; ++nth) {
        char buf[] = "a,b,c";
        char **strings = reinterpret_cast<char **>(&buf);
        int n = 77;
        vobrel_rc rc;
        {
            allocfail::Guard g;
            allocfail::fail_nth(nth);
            rc = vobrel_parse_delim_buffer(buf, 5, delim, &strings, &n);
        }
        if (nth < 2) {
            EXPECT_EQ(rc, VOBREL_INVALID_ARGS) << nth;
            EXPECT_EQ(strings, nullptr) << nth;
            EXPECT_EQ(n, 77) << nth;
            EXPECT_STREQ(buf, "a,b,c") << nth; // nothing cut before the array exists
            continue;
        }
        EXPECT_EQ(rc, VOBREL_OK) << nth;
        ASSERT_EQ(n, 3) << nth;
        std::vector<std::string> want = {"a", "b", "c"};
        want[static_cast<size_t>(nth - 2)] = "<null>";
        EXPECT_EQ(take_strings(strings, n), want) << nth;
    }
}

TEST(Split, KeepsNoTokeniserStateOfItsOwn)
{
    // A caller in the middle of its own non-re-entrant tokenising loop must be
    // able to split each piece without losing its place.
    char text[] = "a,b;c,d,e;f";
    char delim[] = ",";
    std::vector<int> counts;
    for (char *piece = strtok(text, ";"); piece; piece = strtok(nullptr, ";")) {
        char **strings = nullptr;
        int n = 0;
        ASSERT_EQ(vobrel_parse_delim_buffer(piece, static_cast<int>(strlen(piece)), delim, &strings, &n), VOBREL_OK);
        counts.push_back(n);
        take_strings(strings, n);
    }
    EXPECT_EQ(counts, (std::vector<int>{2, 3, 1}));
}
