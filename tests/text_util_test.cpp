// Delimiter splitting; the bounded copy, length test and duration text are
// checked against a model (tests/fuzz/text_util_fuzz.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include <vobrel/util.h>

#include "support/alloc_fail.h"

TEST(Split, TokensCutsAndFailures)
{
    // fail: the allocation to fail (scratch copy, array, then one per token; 9: none);
    // out: the tokens, each ended by |, or "rc N"; after: the buffer, NULs shown as |.
    // (Tokens and cuts are the model's; these rows are about the text's edge and failures.)
    struct Row { const char *in; int len; const char *delim; int fail; const char *out, *after; };
    const Row rows[] = {
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
    EXPECT_EQ(check_strlen("abc", SIZE_MAX), 0); // compared unsigned
    EXPECT_EQ(check_strlen(nullptr, 0), 0);        // no text is longer than anything
}
