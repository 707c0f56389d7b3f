// The string database: what its model (fuzz/string_db_fuzz.cpp) does not
// reach: the hash at every length, bad arguments, texts sharing a CRC,
// set-block's release order, and growth. Allocation failure
// is swept in alloc_sweep_test. Every case runs in a fresh process, so the
// database starts without a table in each.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <vobrel/string_db.h>

#include "util/src/string_db_private.h"

using vobrel::detail::sdb_do_crc;

namespace {

// Bit by bit, no table: the definition the database must reproduce.
uint32_t reference_crc(const uchar *p, size_t n, bool upcase)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        crc ^= upcase ? static_cast<uchar>(toupper(p[i])) : p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

// Adds `text` anonymously: the handle, or 0.
sdb_handle add(const std::string &text, sdb_string_types type = SDB_ASCII_STRING_CASE_SENSITIVE)
{
    sdb_handle h = 0;
    return sdb_add_string(text.c_str(), static_cast<int>(text.size()), type, &h, SDB_NO_OWNER, nullptr) ? h : 0;
}

// The structural invariants: placement, counters, terminating zero, and no
// record that nobody holds (the hash itself is checked against the reference).
void expect_consistent()
{
    uint32_t records = 0, collisions = 0;
    for (uint32_t b = 0; sdb_hash_table && b < sdb_hash_table_size; ++b) {
        uint32_t chain = 0;
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string, ++chain)
            EXPECT_TRUE((s->crc & sdb_hash_mask) == b && s->sdb_offset > s->len && (s->owners || s->refcount > 0) &&
                        (reinterpret_cast<const uchar *>(s) - s->sdb_offset)[s->len] == 0);
        records += chain;
        collisions += chain ? chain - 1 : 0;
    }
    EXPECT_TRUE(records == sdb_number_strings && collisions == sdb_total_collision_count);
}

} // namespace

TEST(StringDbCrc, MatchesTheBitwiseReferenceAtEveryLengthAndAlignment)
{
    std::vector<uchar> buf(600);
    for (size_t i = 0; i < buf.size(); ++i)
        buf[i] = static_cast<uchar>(i * 131 + (i >> 8));
    for (int align = 0; align < 8; ++align)
        for (int len = 0; len <= 560; ++len) // folding works in chunks of 256
            for (bool fold : {false, true})
                ASSERT_EQ(sdb_do_crc(&buf[align], len, fold), reference_crc(&buf[align], len, fold)) << len;
}

TEST(StringDbSharing, BadArgumentsAreRefusedAndChangeNothing)
{
    std::string max(255, 'm'), big(256, 'b');
    EXPECT_TRUE(sdb_string_addr_ptr(add(max)) == max && sdb_string_addr_ptr(add(""))[0] == 0);
    sdb_handle real = add("real"), h = 77;
    void *ctx = &h;
    const std::tuple<const char *, int, bool> bad[] = {
        {big.c_str(), 256, true}, {"x", -1, true}, {nullptr, 3, true}, {"abc", 3, false}};
    for (auto [buf, len, out] : bad)
        EXPECT_FALSE(sdb_add_string(buf, len, SDB_BINARY_STRING, out ? &h : nullptr, SDB_NO_OWNER, nullptr) ||
                     sdb_find_string(buf, len, SDB_BINARY_STRING, 0, 0, out ? &ctx : nullptr));
    int len = 9;
    for (sdb_handle wrong : {sdb_handle{0}, sdb_handle{3}, real & ~3}) // no address, or no tag
        EXPECT_FALSE(sdb_remove_string(wrong, nullptr) || sdb_string_addr(wrong, &len) ||
                     sdb_string_addr_ptr(wrong) || sdb_block_addr_ptr(wrong));
    EXPECT_TRUE(h == 77 && ctx == &h && sdb_number_adds == 3 && sdb_number_searchs == 0 && sdb_number_removals == 0);
    // Zero blocks of 2 and 3 bytes share a CRC and are still two texts (the
    // model's texts never share a hash key).
    std::string z2(2, '\0'), z3(3, '\0');
    sdb_handle h2 = add(z2, SDB_BINARY_STRING);
    EXPECT_TRUE(add(z3, SDB_BINARY_STRING) != h2 && add(z2, SDB_BINARY_STRING) == h2);
}

TEST(StringDbSharing, SetBlockReleasesBeforeItAdds)
{
    const char a[] = {'k', 0, 'x'}, b[] = {'k', 0, 'y'};
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block(a, 3, SDB_BINARY_STRING, &h));
    // Differs after a zero byte. The new record may reuse the old one's memory.
    ASSERT_TRUE(sdb_set_block(b, 3, SDB_BINARY_STRING, &h));
    EXPECT_TRUE(sdb_number_strings == 1 && memcmp(sdb_block_addr_ptr(h), b, 3) == 0); // the old one went
    // The only reference goes first: a folded add then stores the new spelling.
    ASSERT_TRUE(sdb_set_block("abc", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &h));
    ASSERT_TRUE(sdb_set_block("ABC", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &h));
    EXPECT_STREQ(sdb_string_addr_ptr(h), "ABC");
    // Bytes taken from the block being released are still what gets added.
    ASSERT_TRUE(sdb_set_block("xhello", 6, SDB_BINARY_STRING, &h));
    ASSERT_TRUE(sdb_set_block(sdb_string_addr_ptr(h) + 1, 4, SDB_BINARY_STRING, &h));
    EXPECT_STREQ(sdb_string_addr_ptr(h), "hell");
    // A refused add still released the old reference and cleared the handle.
    ASSERT_TRUE(sdb_set_block("again", 5, SDB_BINARY_STRING, &h));
    EXPECT_TRUE(!sdb_set_block(nullptr, 3, SDB_BINARY_STRING, &h) && h == 0 && sdb_number_strings == 0);
    EXPECT_FALSE(sdb_set_block(a, 1, SDB_BINARY_STRING, nullptr));
}

// The growth rule sees the release: replacing the last reference of one of
// 1280 texts keeps 1280 records, not more than five a bucket.
TEST(StringDbSharing, SetBlockReplacingALastReferenceDoesNotGrowTheTable)
{
    std::vector<sdb_handle> h(1280);
    for (size_t i = 0; i < h.size(); ++i)
        ASSERT_TRUE(h[i] = add("text" + std::to_string(i)));
    ASSERT_EQ(sdb_hash_table_size, 256u);
    for (int i = 0; i < 300; ++i) { // some replacement lands in a non-empty bucket
        std::string t = "new" + std::to_string(i);
        ASSERT_TRUE(sdb_set_block(t.c_str(), static_cast<int>(t.size()), SDB_BINARY_STRING, &h[0]));
    }
    EXPECT_TRUE(sdb_hash_table_size == 256u && sdb_hash_mask == 255u && sdb_number_strings == 1280u &&
                sdb_maximum_sharing_count == 1u);
    expect_consistent();
}
