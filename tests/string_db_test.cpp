// The string database: sharing, matching, owners and their finds, registration,
// growth, and allocation failure at every site. Every case runs in a fresh
// process, so the database starts without a table in each.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <vobrel/string_db.h>

#include "support/alloc_fail.h"
#include "util/src/string_db_private.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Bit by bit, no table: the definition the database must reproduce.
uint32_t reference_crc(const void *data, size_t n, bool upcase)
{
    auto *p = static_cast<const unsigned char *>(data);
    uint32_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        crc ^= upcase ? static_cast<unsigned char>(toupper(p[i])) : p[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

uintptr_t tag_of(sdb_handle h)
{
    return static_cast<uintptr_t>(h) & 3;
}

template <typename T> T *record_of(sdb_handle h)
{
    return reinterpret_cast<T *>(static_cast<uintptr_t>(h) & ~static_cast<uintptr_t>(3));
}

sdb_string *text_of(sdb_handle h)
{
    switch (tag_of(h)) {
    case 1:
        return record_of<sdb_context>(h)->owner->string;
    case 2:
        return record_of<sdb_owner>(h)->string;
    default:
        return record_of<sdb_string>(h);
    }
}

int len_of(const std::string &s)
{
    return static_cast<int>(s.size());
}

// Anonymous add of a NUL-terminated text.
sdb_handle add(const std::string &s, sdb_string_types type = SDB_ASCII_STRING_CASE_SENSITIVE)
{
    sdb_handle h = 0;
    EXPECT_TRUE(sdb_add_string(s.c_str(), len_of(s), type, &h, SDB_NO_OWNER, nullptr)) << s;
    return h;
}

// Checks every structural invariant of the database.
void expect_consistent()
{
    if (!sdb_hash_table) {
        EXPECT_EQ(sdb_number_strings, 0u);
        return;
    }
    ASSERT_EQ(sdb_hash_mask, sdb_hash_table_size - 1);
    ASSERT_EQ(sdb_hash_table_size & sdb_hash_mask, 0u);
    uint32_t records = 0, collisions = 0;
    for (uint32_t b = 0; b < sdb_hash_table_size; ++b) {
        uint32_t chain = 0;
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string) {
            ++chain;
            ++records;
            EXPECT_EQ(s->crc & sdb_hash_mask, b);
            const char *bytes = reinterpret_cast<const char *>(s) - s->sdb_offset;
            EXPECT_GT(s->sdb_offset, s->len);
            EXPECT_EQ(s->sdb_offset % 4, 0);
            for (unsigned i = s->len; i < s->sdb_offset; ++i)
                EXPECT_EQ(bytes[i], 0);
            EXPECT_EQ(s->crc, reference_crc(bytes, s->len, s->string_type == SDB_ASCII_STRING_CASE_INSENSITIVE));
            EXPECT_TRUE(s->owners || s->refcount > 0) << "a record nobody holds";
            std::set<ushort> ids;
            for (sdb_owner *o = s->owners; o; o = o->next_owner) {
                EXPECT_EQ(o->string, s);
                EXPECT_TRUE(ids.insert(o->owner_id).second) << "two records of one owner";
                ASSERT_LT(o->owner_id, sdb_max_users);
                EXPECT_FALSE(sdb_owner_info_array[o->owner_id].unregistered);
                if (o->unique)
                    continue;
                sdb_context *head = o->info.contexts;
                ASSERT_NE(head, nullptr);
                sdb_context *c = head;
                do {
                    EXPECT_EQ(c->owner, o);
                    EXPECT_EQ(c->next_context->prev_context, c);
                    c = c->next_context;
                } while (c != head);
            }
        }
        if (chain)
            collisions += chain - 1;
    }
    EXPECT_EQ(records, sdb_number_strings);
    EXPECT_EQ(collisions, sdb_total_collision_count);
}

// An object of a test component: the callback reports the handle it holds.
struct Obj {
    sdb_handle held = 0;
};

sdb_handle obj_handle(void *o)
{
    return static_cast<Obj *>(o)->held;
}

sdb_handle other_callback(void *)
{
    return 0;
}

ushort register_component(const char *name, bool unique)
{
    ushort id = 0;
    EXPECT_TRUE(sdb_register_component(const_cast<char *>(name), obj_handle, unique, &id));
    return id;
}

// Adds `text` for `obj` of owner `id` and lets the object keep the handle.
bool hold(Obj &obj, const std::string &text, ushort id)
{
    return sdb_add_string(text.c_str(), len_of(text), SDB_ASCII_STRING_CASE_SENSITIVE, &obj.held, id, &obj);
}

void *find(const std::string &text, int index, ushort id, bool *found)
{
    void *ctx = nullptr;
    *found = sdb_find_string(text.c_str(), len_of(text), SDB_ASCII_STRING_CASE_SENSITIVE, index, id, &ctx);
    return ctx;
}

// Distinct texts "name-<i>" of 8 bytes or more.
std::string nth_text(int i)
{
    return "name-" + std::to_string(1000 + i);
}

} // namespace

// --- the hash --------------------------------------------------------------

TEST(StringDbCrc, ExportedTableIsTheStandardReflectedTable)
{
    for (uint32_t i = 0; i < 256; ++i) {
        unsigned char b = static_cast<unsigned char>(i);
        EXPECT_EQ(sdb_crc_ctabl[i], reference_crc(&b, 1, false)) << i;
    }
    EXPECT_EQ(sdb_crc_ctabl[1], 0x77073096u);
    EXPECT_EQ(sdb_crc_ctabl[255], 0x2D02EF8Du);
}

TEST(StringDbCrc, InitialZeroAndNoFinalXor)
{
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("123456789"), 9, FALSE), 0x2DFD2D88u);
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("x"), 0, FALSE), 0u);
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("x"), -5, TRUE), 0u);
    // Zero bytes leave a zero register unchanged.
    const uchar zeros[16] = {};
    EXPECT_EQ(sdb_do_crc(zeros, 16, FALSE), 0u);
}

TEST(StringDbCrc, MatchesBytewiseDefinitionAtEveryLengthAndAlignment)
{
    std::vector<uchar> buf(300 + 16);
    uint32_t x = 12345;
    for (auto &b : buf) {
        x = x * 1103515245u + 12345u;
        b = static_cast<uchar>(x >> 16);
    }
    for (int align = 0; align < 8; ++align)
        for (int len = 0; len <= 300; ++len) {
            const uchar *p = buf.data() + align;
            ASSERT_EQ(sdb_do_crc(p, len, FALSE), reference_crc(p, len, false)) << len << "@" << align;
            ASSERT_EQ(sdb_do_crc(p, len, TRUE), reference_crc(p, len, true)) << len << "@" << align;
        }
}

TEST(StringDbCrc, UpcasingFoldsLetters)
{
    auto crc = [](const char *s, boolean up) {
        return sdb_do_crc(reinterpret_cast<const uchar *>(s), static_cast<int>(strlen(s)), up);
    };
    EXPECT_EQ(crc("Mixed Case 123 text!", TRUE), crc("MIXED CASE 123 TEXT!", FALSE));
    EXPECT_NE(crc("Mixed Case 123 text!", FALSE), crc("MIXED CASE 123 TEXT!", FALSE));
}

// --- sharing and reference counts -----------------------------------------

TEST(StringDbSharing, EqualBytesShareOneRecordUntilTheLastRemove)
{
    sdb_handle a = add("shared text");
    sdb_handle b = add("shared text");
    EXPECT_EQ(a, b);
    EXPECT_EQ(tag_of(a), 3u);
    EXPECT_EQ(record_of<sdb_string>(a)->refcount, 2u);
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_EQ(sdb_number_adds, 2u);
    EXPECT_EQ(sdb_maximum_sharing_count, 2u);

    EXPECT_TRUE(sdb_remove_string(a, nullptr));
    EXPECT_STREQ(sdb_string_addr_ptr(b), "shared text");
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_TRUE(sdb_remove_string(b, reinterpret_cast<void *>(0x1234))); // tag 3 ignores the object
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_removals, 2u);
    EXPECT_EQ(sdb_maximum_sharing_count, 2u);
    expect_consistent();
}

TEST(StringDbSharing, StoredBytesAreACopyFollowedByZeros)
{
    std::string text = "abcd";
    sdb_handle h = add(text);
    text[0] = 'X';
    int len = -1;
    char *p = sdb_string_addr(h, &len);
    EXPECT_EQ(len, 4);
    EXPECT_STREQ(p, "abcd");
    EXPECT_EQ(static_cast<void *>(p), sdb_block_addr_ptr(h));
    sdb_string *s = record_of<sdb_string>(h);
    EXPECT_EQ(reinterpret_cast<char *>(s) - s->sdb_offset, p);
    EXPECT_EQ(s->len, 4);
    EXPECT_EQ(s->string_type, SDB_ASCII_STRING_CASE_SENSITIVE);
    EXPECT_EQ(s->crc, reference_crc("abcd", 4, false));
    EXPECT_GE(s->sdb_offset, 8); // four bytes need a fifth, zero one
    expect_consistent();
}

TEST(StringDbSharing, LengthLimits)
{
    std::string max(255, 'm');
    sdb_handle h = add(max);
    int len = 0;
    EXPECT_EQ(std::string(sdb_string_addr(h, &len)), max);
    EXPECT_EQ(len, 255);

    sdb_handle empty = add("");
    EXPECT_STREQ(sdb_string_addr_ptr(empty), "");
    EXPECT_EQ(sdb_do_crc(nullptr, 0, FALSE), record_of<sdb_string>(empty)->crc);

    std::string big(256, 'b');
    sdb_handle bad = 77;
    uint32_t strings = sdb_number_strings, adds = sdb_number_adds;
    EXPECT_FALSE(sdb_add_string(big.c_str(), 256, SDB_BINARY_STRING, &bad, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_string("x", -1, SDB_BINARY_STRING, &bad, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_block(big.c_str(), 256, &bad));
    EXPECT_EQ(bad, 77);
    void *ctx = nullptr;
    EXPECT_FALSE(sdb_find_string(big.c_str(), 256, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_FALSE(sdb_find_string("x", -1, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_EQ(sdb_number_searchs, 0u);
    EXPECT_EQ(sdb_number_strings, strings);
    EXPECT_EQ(sdb_number_adds, adds);
}

TEST(StringDbSharing, NullArgumentsAndHandlesAreRefused)
{
    sdb_handle h = 5;
    EXPECT_FALSE(sdb_add_string(nullptr, 3, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_string("abc", 3, SDB_BINARY_STRING, nullptr, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_block(nullptr, 1, &h));
    EXPECT_EQ(h, 5);
    void *ctx = nullptr;
    EXPECT_FALSE(sdb_find_string(nullptr, 3, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_FALSE(sdb_find_string("abc", 3, SDB_BINARY_STRING, 0, 0, nullptr));
    EXPECT_EQ(sdb_number_adds, 0u);

    sdb_handle real = add("real");
    EXPECT_FALSE(sdb_remove_string(0, nullptr));
    EXPECT_FALSE(sdb_remove_string(3, nullptr));          // tag without address
    EXPECT_FALSE(sdb_remove_string(real & ~3, nullptr)); // address without tag
    EXPECT_EQ(sdb_number_removals, 0u);

    int len = 99;
    EXPECT_EQ(sdb_string_addr(0, &len), nullptr);
    EXPECT_EQ(sdb_string_addr(real & ~3, &len), nullptr);
    EXPECT_EQ(len, 99);
    EXPECT_EQ(sdb_string_addr_ptr(0), nullptr);
    EXPECT_EQ(sdb_block_addr_ptr(real & ~3), nullptr);
    EXPECT_STREQ(sdb_string_addr(real, nullptr), "real");
    expect_consistent();
}

TEST(StringDbSharing, BlocksKeepEmbeddedZeroBytes)
{
    const char a[] = {'k', 0, 'x', 0};
    const char b[] = {'k', 0, 'y', 0};
    sdb_handle ha = 0, hb = 0, ha2 = 0;
    ASSERT_TRUE(sdb_add_block(a, 4, &ha));
    ASSERT_TRUE(sdb_add_block(b, 4, &hb));
    ASSERT_TRUE(sdb_add_block(a, 4, &ha2));
    EXPECT_NE(ha, hb);
    EXPECT_EQ(ha, ha2);
    EXPECT_EQ(record_of<sdb_string>(ha)->string_type, SDB_BINARY_STRING);
    EXPECT_EQ(memcmp(sdb_block_addr_ptr(hb), b, 4), 0);
    sdb_remove_block(ha);
    sdb_remove_block(ha2);
    sdb_remove_block(hb);
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_removals, 3u);
}

TEST(StringDbSharing, SetBlockKeepsEqualBytesAndReplacesOthers)
{
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block("one", 3, SDB_BINARY_STRING, &h));
    sdb_handle first = h;
    ASSERT_TRUE(sdb_set_block("one", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &h));
    EXPECT_EQ(h, first);
    EXPECT_EQ(record_of<sdb_string>(h)->refcount, 1u);

    ASSERT_TRUE(sdb_set_block("two!", 4, SDB_BINARY_STRING, &h));
    EXPECT_NE(h, first);
    EXPECT_EQ(sdb_number_strings, 1u); // "one" went with its last reference
    EXPECT_EQ(memcmp(sdb_block_addr_ptr(h), "two!", 4), 0);

    // A shared old block stays for its other holder.
    sdb_handle other = add("two!");
    ASSERT_TRUE(sdb_set_block("three", 5, SDB_BINARY_STRING, &h));
    EXPECT_STREQ(sdb_string_addr_ptr(other), "two!");
    EXPECT_EQ(record_of<sdb_string>(other)->refcount, 1u);

    // A prefix is not equal bytes.
    sdb_handle before = h;
    ASSERT_TRUE(sdb_set_block("thre", 4, SDB_BINARY_STRING, &h));
    EXPECT_NE(h, before);

    EXPECT_FALSE(sdb_set_block("x", 1, SDB_BINARY_STRING, nullptr));
    expect_consistent();
}

TEST(StringDbSharing, SetBlockWithNullBytesReleasesAndFails)
{
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block("gone", 4, SDB_BINARY_STRING, &h));
    EXPECT_FALSE(sdb_set_block(nullptr, 4, SDB_BINARY_STRING, &h));
    EXPECT_EQ(h, 0);
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_FALSE(sdb_set_block(nullptr, 0, SDB_BINARY_STRING, &h));
}

TEST(StringDbSharing, SetBlockWithBadLengthChangesNothing)
{
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block("kept", 4, SDB_BINARY_STRING, &h));
    sdb_handle before = h;
    std::string big(256, 'z');
    EXPECT_FALSE(sdb_set_block(big.c_str(), 256, SDB_BINARY_STRING, &h));
    EXPECT_FALSE(sdb_set_block("kept", -1, SDB_BINARY_STRING, &h));
    EXPECT_EQ(h, before);
    EXPECT_STREQ(sdb_string_addr_ptr(h), "kept");
}

// --- case-insensitive and exact matching -----------------------------------

TEST(StringDbMatching, CaseInsensitiveRecordIsFoundOnlyByCaseInsensitiveLookups)
{
    ushort id = register_component("matcher", true);
    Obj o;
    ASSERT_TRUE(sdb_add_string("abc", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &o.held, id, &o));
    EXPECT_EQ(text_of(o.held)->crc, reference_crc("ABC", 3, false));

    void *ctx = nullptr;
    EXPECT_TRUE(sdb_find_string("ABC", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, 0, id, &ctx));
    EXPECT_EQ(ctx, &o);
    EXPECT_FALSE(sdb_find_string("ABC", 3, SDB_ASCII_STRING_CASE_SENSITIVE, 0, id, &ctx));
    // Exact lookups hash the stored bytes as they are, which the record was
    // not hashed on.
    EXPECT_FALSE(sdb_find_string("abc", 3, SDB_ASCII_STRING_CASE_SENSITIVE, 0, id, &ctx));

    sdb_handle exact = add("ABC");
    EXPECT_EQ(sdb_number_strings, 2u);
    EXPECT_NE(text_of(exact), text_of(o.held));
    EXPECT_STREQ(sdb_string_addr_ptr(o.held), "abc");
    expect_consistent();
}

TEST(StringDbMatching, CaseInsensitiveAddsShareAcrossCase)
{
    sdb_handle a = add("Hello World", SDB_ASCII_STRING_CASE_INSENSITIVE);
    sdb_handle b = add("HELLO world", SDB_ASCII_STRING_CASE_INSENSITIVE);
    EXPECT_EQ(a, b);
    EXPECT_STREQ(sdb_string_addr_ptr(a), "Hello World"); // the first spelling is kept
    // An exact record of upper-case bytes is met by a folded lookup: the
    // record's own type plays no part.
    sdb_handle upper = add("QUIET");
    EXPECT_EQ(add("quiet", SDB_ASCII_STRING_CASE_INSENSITIVE), upper);
    // Case-sensitive and binary are the same exact matching.
    EXPECT_EQ(add("QUIET", SDB_BINARY_STRING), upper);
    EXPECT_EQ(sdb_number_strings, 2u);
    EXPECT_NE(add("Quiet"), upper);
}

// --- unique and non-unique owners ------------------------------------------

TEST(StringDbOwners, UniqueOwnerHoldsATextOnce)
{
    ushort id = register_component("unique", true);
    Obj a, b;
    ASSERT_TRUE(hold(a, "interface-1", id));
    EXPECT_EQ(tag_of(a.held), 2u);
    sdb_owner *o = record_of<sdb_owner>(a.held);
    EXPECT_EQ(o->owner_id, id);
    EXPECT_TRUE(o->unique);
    EXPECT_EQ(o->info.owner_context, &a);
    EXPECT_EQ(text_of(a.held)->refcount, 0u);

    EXPECT_FALSE(hold(b, "interface-1", id));
    EXPECT_EQ(b.held, 0);
    EXPECT_EQ(sdb_number_adds, 1u);

    bool found = false;
    EXPECT_EQ(find("interface-1", 0, id, &found), &a);
    EXPECT_TRUE(found);
    find("interface-1", 1, id, &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_number_searchs, 2u);

    EXPECT_FALSE(sdb_remove_string(a.held, &b)); // wrong object
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_TRUE(sdb_remove_string(a.held, &a));
    EXPECT_EQ(sdb_number_strings, 0u);
    expect_consistent();
}

TEST(StringDbOwners, NonUniqueOwnerFindsNewestObjectFirst)
{
    sdb_initialize_subsystem();
    ushort id = sdb_test_owner_id;
    sdb_test_example a{}, b{}, c{};
    for (sdb_test_example *e : {&a, &b, &c})
        ASSERT_TRUE(sdb_add_string("route", 5, SDB_ASCII_STRING_CASE_SENSITIVE, &e->sdb_handle, id, e));
    EXPECT_EQ(tag_of(a.sdb_handle), 1u);
    EXPECT_EQ(std::set<sdb_handle>({a.sdb_handle, b.sdb_handle, c.sdb_handle}).size(), 3u);
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_EQ(record_of<sdb_context>(a.sdb_handle)->owner, record_of<sdb_context>(c.sdb_handle)->owner);
    EXPECT_STREQ(sdb_string_addr_ptr(b.sdb_handle), "route");

    void *expected[] = {&c, &b, &a};
    for (int i = 0; i < 3; ++i) {
        bool found = false;
        EXPECT_EQ(find("route", i, id, &found), expected[i]) << i;
        EXPECT_TRUE(found) << i;
    }
    bool found = true;
    find("route", 3, id, &found);
    EXPECT_FALSE(found);
    find("route", -1, id, &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 0);

    // Removing the middle object closes the gap; the wrong object is refused.
    EXPECT_FALSE(sdb_remove_string(b.sdb_handle, &a));
    EXPECT_TRUE(sdb_remove_string(b.sdb_handle, &b));
    EXPECT_EQ(find("route", 0, id, &found), &c);
    EXPECT_EQ(find("route", 1, id, &found), &a);
    EXPECT_TRUE(found);
    find("route", 2, id, &found);
    EXPECT_FALSE(found);

    // Removing the head and then the last context releases owner and text.
    EXPECT_TRUE(sdb_remove_string(c.sdb_handle, &c));
    EXPECT_EQ(find("route", 0, id, &found), &a);
    EXPECT_TRUE(sdb_remove_string(a.sdb_handle, &a));
    EXPECT_EQ(sdb_number_strings, 0u);
    expect_consistent();
}

TEST(StringDbOwners, OwnersAndAnonymousReferencesShareOneText)
{
    ushort u = register_component("u", true);
    ushort n = register_component("n", false);
    Obj a, b;
    sdb_handle anon = add("common");
    ASSERT_TRUE(hold(a, "common", u));
    ASSERT_TRUE(hold(b, "common", n));
    sdb_string *s = text_of(anon);
    EXPECT_EQ(text_of(a.held), s);
    EXPECT_EQ(text_of(b.held), s);
    ASSERT_NE(s->owners, nullptr);
    EXPECT_EQ(s->owners->owner_id, n); // newest first
    EXPECT_EQ(s->owners->next_owner->owner_id, u);

    EXPECT_TRUE(sdb_remove_string(anon, nullptr));
    EXPECT_FALSE(sdb_remove_string(anon, nullptr)); // no anonymous reference left
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_TRUE(sdb_remove_string(a.held, &a));
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_TRUE(sdb_remove_string(b.held, &b));
    EXPECT_EQ(sdb_number_strings, 0u);
    expect_consistent();
}

TEST(StringDbOwners, OwnerIdsThatWereNeverHandedOutAddAnonymously)
{
    register_component("only", true);
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_add_string("anon", 4, SDB_BINARY_STRING, &h, 4321, &h));
    EXPECT_EQ(tag_of(h), 3u);
    EXPECT_EQ(record_of<sdb_string>(h)->owners, nullptr);
    void *ctx = nullptr;
    EXPECT_FALSE(sdb_find_string("anon", 4, SDB_BINARY_STRING, 0, 4321, &ctx));
    EXPECT_EQ(ctx, nullptr);
}

TEST(StringDbOwners, FindsOfUnknownTextsOrOwnersFail)
{
    void *ctx = nullptr;
    EXPECT_FALSE(sdb_find_string("none", 4, SDB_BINARY_STRING, 0, 0, &ctx)); // no table yet
    EXPECT_EQ(sdb_hash_table, nullptr);
    ushort a = register_component("a", false);
    ushort b = register_component("b", false);
    Obj o;
    ASSERT_TRUE(hold(o, "held", a));
    EXPECT_FALSE(sdb_find_string("held", 4, SDB_ASCII_STRING_CASE_SENSITIVE, 0, b, &ctx));
    EXPECT_FALSE(sdb_find_string("other", 5, SDB_ASCII_STRING_CASE_SENSITIVE, 0, a, &ctx));
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(sdb_number_searchs, 3u);
}

// --- unconfirmed associations ----------------------------------------------

TEST(StringDbUnconfirmed, FindDropsAnAssociationItsOwnerDoesNotConfirm)
{
    ushort id = register_component("stale", false);
    Obj a, b, c;
    for (Obj *o : {&a, &b, &c})
        ASSERT_TRUE(hold(*o, "addr", id));
    c.held = 0; // c no longer reports the text

    bool found = true;
    EXPECT_EQ(find("addr", 0, id, &found), &c);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 1);
    EXPECT_EQ(sdb_number_removals, 1u);

    EXPECT_EQ(find("addr", 0, id, &found), &b);
    EXPECT_TRUE(found);
    EXPECT_EQ(find("addr", 1, id, &found), &a);
    EXPECT_TRUE(found);

    a.held = b.held; // a reports another object's handle
    find("addr", 1, id, &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 2);
    find("addr", 1, id, &found);
    EXPECT_FALSE(found); // only b is left
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 2);
    expect_consistent();
}

TEST(StringDbUnconfirmed, UniqueOwnerLosesItsRecordAndTheTextGoes)
{
    ushort id = register_component("unique-stale", true);
    Obj a;
    ASSERT_TRUE(hold(a, "lonely", id));
    a.held = 0;
    bool found = true;
    EXPECT_EQ(find("lonely", 0, id, &found), &a);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 1);
    EXPECT_EQ(sdb_number_strings, 0u);
    // The owner may hold the text again.
    EXPECT_TRUE(hold(a, "lonely", id));
    EXPECT_EQ(find("lonely", 0, id, &found), &a);
    EXPECT_TRUE(found);
    expect_consistent();
}

// --- registration and reuse of ids -----------------------------------------

TEST(StringDbRegistration, TestComponentTakesIdZero)
{
    sdb_initialize_subsystem();
    ASSERT_NE(sdb_hash_table, nullptr);
    EXPECT_EQ(sdb_hash_table_size, 256u);
    EXPECT_EQ(sdb_test_owner_id, 0);
    EXPECT_EQ(sdb_max_users, 1);
    const sdb_owner_info &info = sdb_owner_info_array[0];
    EXPECT_STREQ(info.owner_name, "SDB Test Driver Code");
    EXPECT_FALSE(info.unique);
    EXPECT_FALSE(info.unregistered);
    EXPECT_EQ(info.get_sdb_handle, &sdb_test_get_sdb_handle_from_struct);
    EXPECT_EQ(sdb_test_get_sdb_handle_from_struct(nullptr), 0);

    char name[] = "first";
    ushort id = 0xABCD;
    ASSERT_TRUE(sdb_register_component(name, obj_handle, TRUE, &id));
    EXPECT_EQ(id, 1);
    EXPECT_EQ(sdb_owner_info_array[1].owner_name, name); // not copied
    ASSERT_TRUE(sdb_unregister_component(1, obj_handle));
    EXPECT_TRUE(sdb_owner_info_array[1].unregistered);
    ASSERT_TRUE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, 1);
    EXPECT_FALSE(sdb_owner_info_array[1].unique);
}

TEST(StringDbRegistration, SecondInitialisationRegistersTheTestComponentAgain)
{
    sdb_initialize_subsystem();
    sdb_string **table = sdb_hash_table;
    sdb_initialize_subsystem();
    EXPECT_EQ(sdb_hash_table, table);
    EXPECT_EQ(sdb_test_owner_id, 1);
    EXPECT_FALSE(sdb_owner_info_array[0].unregistered);
    EXPECT_EQ(sdb_max_users, 2);
}

TEST(StringDbRegistration, LowestFreeIdIsReusedFirst)
{
    ushort ids[5];
    for (ushort &id : ids)
        id = register_component("c", false); // same name and callback: new ids
    EXPECT_EQ(ids[4], 4);
    ASSERT_TRUE(sdb_unregister_component(3, obj_handle));
    ASSERT_TRUE(sdb_unregister_component(1, obj_handle));
    EXPECT_EQ(register_component("x", false), 1);
    EXPECT_EQ(register_component("y", false), 3);
    EXPECT_EQ(register_component("z", false), 5);
    EXPECT_EQ(sdb_max_users, 6);
}

TEST(StringDbRegistration, BadRegistrationsAndUnregistrationsChangeNothing)
{
    char name[] = "n";
    ushort id = 7;
    EXPECT_FALSE(sdb_register_component(nullptr, obj_handle, TRUE, &id));
    EXPECT_FALSE(sdb_register_component(name, nullptr, TRUE, &id));
    EXPECT_FALSE(sdb_register_component(name, obj_handle, TRUE, nullptr));
    EXPECT_EQ(sdb_max_users, 0);

    id = register_component("n", true);
    EXPECT_TRUE(sdb_owner_info_array[id].unique);
    ASSERT_TRUE(sdb_register_component(name, obj_handle, 7, &id));
    EXPECT_EQ(sdb_owner_info_array[id].unique, TRUE);

    EXPECT_FALSE(sdb_unregister_component(SDB_NO_OWNER, obj_handle));
    EXPECT_FALSE(sdb_unregister_component(2, obj_handle)); // never handed out
    EXPECT_FALSE(sdb_unregister_component(0, other_callback));
    EXPECT_FALSE(sdb_unregister_component(0, nullptr));
    EXPECT_FALSE(sdb_owner_info_array[0].unregistered);
    ASSERT_TRUE(sdb_unregister_component(0, obj_handle));
    EXPECT_FALSE(sdb_unregister_component(0, obj_handle)); // already free
    EXPECT_FALSE(sdb_unregister_component(0, nullptr));
    EXPECT_TRUE(sdb_owner_info_array[0].unregistered);
    EXPECT_EQ(sdb_owner_info_array[0].owner_name, nullptr);
}

TEST(StringDbRegistration, UnregisteringReleasesTheComponentsRecordsAtOnce)
{
    ushort gone = register_component("gone", false);
    ushort stays = register_component("stays", true);
    Obj a, b, c, d, e;
    ASSERT_TRUE(hold(a, "only-gone", gone));
    ASSERT_TRUE(hold(b, "only-gone", gone));
    ASSERT_TRUE(hold(c, "shared", gone));
    ASSERT_TRUE(hold(d, "shared", stays));
    ASSERT_TRUE(hold(e, "anon-too", gone));
    sdb_handle anon = add("anon-too");
    EXPECT_EQ(sdb_number_strings, 3u);

    ASSERT_TRUE(sdb_unregister_component(gone, obj_handle));
    EXPECT_EQ(sdb_number_strings, 2u);
    EXPECT_EQ(text_of(anon)->owners, nullptr);
    EXPECT_EQ(text_of(d.held)->owners->owner_id, stays);
    EXPECT_EQ(text_of(d.held)->owners->next_owner, nullptr);
    expect_consistent();

    // The freed id can no longer add, and its successor starts clean.
    EXPECT_FALSE(hold(a, "shared", gone));
    ushort again = register_component("again", false);
    EXPECT_EQ(again, gone);
    bool found = true;
    find("shared", 0, again, &found);
    EXPECT_FALSE(found);
    EXPECT_EQ(sdb_owner_info_array[again].sanity_check_errors, 0);
    expect_consistent();
}

TEST(StringDbRegistration, AllIdsTakenThenAFreedOneIsReused)
{
    if (kSanitized)
        GTEST_SKIP() << "65535 reallocations copy the whole array under a sanitizer";
    char name[] = "many";
    ushort id = 0;
    for (int i = 0; i < 0xFFFF; ++i)
        ASSERT_TRUE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, 0xFFFE);
    EXPECT_EQ(sdb_max_users, 0xFFFF);
    EXPECT_FALSE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, SDB_NO_OWNER);
    ASSERT_TRUE(sdb_unregister_component(1234, obj_handle));
    ASSERT_TRUE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, 1234);
}

// --- growth ------------------------------------------------------------------

TEST(StringDbGrowth, TableDoublesAtTheFirstCollidingInsertPastFivePerBucket)
{
    std::vector<sdb_handle> handles;
    for (int i = 0; i < 1280; ++i)
        handles.push_back(add(nth_text(i)));
    EXPECT_EQ(sdb_hash_table_size, 256u);
    expect_consistent();

    int i = 1280;
    for (;; ++i) {
        std::string t = nth_text(i);
        uint32_t crc = reference_crc(t.data(), t.size(), false);
        bool collides = sdb_hash_table[crc & sdb_hash_mask] != nullptr;
        handles.push_back(add(t));
        if (!collides) {
            EXPECT_EQ(sdb_hash_table_size, 256u) << "grew on an insert into an empty bucket";
            continue;
        }
        break;
    }
    EXPECT_EQ(sdb_hash_table_size, 512u);
    EXPECT_EQ(sdb_hash_mask, 511u);
    // The deepest chain is recounted from the records as they moved.
    uint32_t longest = 0;
    for (uint32_t b = 0; b < sdb_hash_table_size; ++b) {
        uint32_t n = 0;
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string)
            ++n;
        longest = std::max(longest, n);
    }
    EXPECT_EQ(sdb_deepest_collision_count, longest - 1);
    expect_consistent();

    for (int k = i + 1; k < 5000; ++k)
        handles.push_back(add(nth_text(k)));
    EXPECT_EQ(sdb_hash_table_size, 1024u);
    EXPECT_LE(sdb_number_strings, 5 * 2 * sdb_hash_table_size);
    expect_consistent();
    // Every text is still found: adding it again shares its record.
    for (size_t k = 0; k < handles.size(); ++k)
        ASSERT_EQ(add(nth_text(static_cast<int>(k))), handles[k]) << k;
    EXPECT_EQ(sdb_number_strings, handles.size());
    for (size_t k = 0; k < handles.size(); ++k) {
        ASSERT_TRUE(sdb_remove_string(handles[k], nullptr));
        ASSERT_TRUE(sdb_remove_string(handles[k], nullptr));
    }
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_total_collision_count, 0u);
    EXPECT_EQ(sdb_hash_table_size, 1024u); // the table never shrinks
}

TEST(StringDbGrowth, OwnedTextsSurviveGrowth)
{
    ushort id = register_component("grower", false);
    std::vector<Obj> objs(3000);
    for (size_t k = 0; k < objs.size(); ++k)
        ASSERT_TRUE(hold(objs[k], nth_text(static_cast<int>(k)), id));
    EXPECT_GE(sdb_hash_table_size, 512u);
    for (size_t k = 0; k < objs.size(); ++k) {
        bool found = false;
        ASSERT_EQ(find(nth_text(static_cast<int>(k)), 0, id, &found), &objs[k]);
        ASSERT_TRUE(found);
    }
    expect_consistent();
}

// --- allocation failure at each site -----------------------------------------

TEST(StringDbAllocFail, TableSetUpFailureLeavesNoTableAndIsRetried)
{
    sdb_handle h = 9;
    ushort id = 3;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(sdb_add_string("t", 1, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
        EXPECT_FALSE(sdb_register_component(const_cast<char *>("r"), obj_handle, FALSE, &id));
        EXPECT_FALSE(sdb_remove_string(h, nullptr));
        sdb_initialize_subsystem();
    }
    EXPECT_EQ(sdb_hash_table, nullptr);
    EXPECT_EQ(h, 9);
    EXPECT_EQ(id, SDB_NO_OWNER);
    EXPECT_EQ(sdb_test_owner_id, SDB_NO_OWNER);
    EXPECT_EQ(sdb_max_users, 0);
    EXPECT_EQ(sdb_number_adds, 0u);

    sdb_initialize_subsystem();
    EXPECT_NE(sdb_hash_table, nullptr);
    EXPECT_EQ(sdb_test_owner_id, 0);
    EXPECT_STREQ(sdb_string_addr_ptr(add("t")), "t");
}

TEST(StringDbAllocFail, GrowthFailureKeepsTheOldTable)
{
    std::vector<std::string> texts;
    for (int i = 0; i < 1400; ++i)
        texts.push_back(nth_text(i));
    std::vector<sdb_handle> handles;
    int i = 0;
    for (; i < 1280; ++i)
        handles.push_back(add(texts[i]));
    // The next colliding insert would grow; make that allocation fail.
    for (;; ++i) {
        uint32_t crc = reference_crc(texts[i].data(), texts[i].size(), false);
        if (sdb_hash_table[crc & sdb_hash_mask]) {
            sdb_handle h = 0;
            {
                allocfail::Guard g;
                allocfail::fail_nth(1); // the text succeeds, the new table does not
                EXPECT_TRUE(sdb_add_string(texts[i].c_str(), len_of(texts[i]), SDB_ASCII_STRING_CASE_SENSITIVE,
                                           &h, SDB_NO_OWNER, nullptr));
                EXPECT_EQ(allocfail::count(), 2);
            }
            handles.push_back(h);
            break;
        }
        handles.push_back(add(texts[i]));
    }
    EXPECT_EQ(sdb_hash_table_size, 256u);
    expect_consistent();
    for (size_t k = 0; k < handles.size(); ++k)
        ASSERT_EQ(add(texts[k]), handles[k]);
    // A later colliding insert grows after all.
    for (++i; sdb_hash_table_size == 256u; ++i)
        add(texts[i]);
    EXPECT_EQ(sdb_hash_table_size, 512u);
    expect_consistent();
}

TEST(StringDbAllocFail, TextAllocationFailureWritesNullHandle)
{
    sdb_initialize_subsystem();
    sdb_handle h = 1234;
    {
        allocfail::Guard g;
        allocfail::fail_nth(0);
        EXPECT_FALSE(sdb_add_string("new", 3, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
    }
    EXPECT_EQ(h, 0);
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_adds, 0u);

    // Owned adds release the owner record (and context) they had made.
    ushort u = register_component("u", true);
    Obj a;
    a.held = 77;
    {
        allocfail::Guard g;
        allocfail::fail_nth(1); // owner record, then the text
        EXPECT_FALSE(hold(a, "new", u));
    }
    EXPECT_EQ(a.held, 0);
    sdb_test_example e{};
    {
        allocfail::Guard g;
        allocfail::fail_nth(2); // owner record, context, then the text
        EXPECT_FALSE(sdb_add_string("new", 3, SDB_ASCII_STRING_CASE_SENSITIVE, &e.sdb_handle, sdb_test_owner_id, &e));
        EXPECT_EQ(allocfail::count(), 3);
    }
    EXPECT_EQ(e.sdb_handle, 0);
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_adds, 0u);
    expect_consistent();
    // Leaks would show in the sanitizer build; the database still works.
    ASSERT_TRUE(hold(a, "new", u));
    bool found = false;
    EXPECT_EQ(find("new", 0, u, &found), &a);
    EXPECT_TRUE(found);
}

TEST(StringDbAllocFail, OwnerAndContextFailuresChangeNothing)
{
    ushort u = register_component("u", true);
    ushort n = register_component("n", false);
    sdb_handle anon = add("present");
    Obj a, b, c;
    a.held = b.held = c.held = 55;
    {
        allocfail::Guard g;
        allocfail::fail_nth(0); // the owner record
        EXPECT_FALSE(hold(a, "present", u));
        allocfail::fail_nth(0);
        EXPECT_FALSE(hold(a, "absent", u));
        allocfail::fail_nth(1); // the first context of a new owner record
        EXPECT_FALSE(hold(b, "present", n));
    }
    EXPECT_EQ(a.held, 55);
    EXPECT_EQ(b.held, 55);
    EXPECT_EQ(text_of(anon)->owners, nullptr);
    EXPECT_EQ(sdb_number_strings, 1u);

    ASSERT_TRUE(hold(b, "present", n));
    {
        allocfail::Guard g;
        allocfail::fail_nth(0); // a further context
        EXPECT_FALSE(hold(c, "present", n));
    }
    EXPECT_EQ(c.held, 55);
    sdb_owner *o = record_of<sdb_context>(b.held)->owner;
    EXPECT_EQ(o->info.contexts->next_context, o->info.contexts);
    EXPECT_EQ(sdb_number_adds, 2u);
    expect_consistent();
    ASSERT_TRUE(hold(c, "present", n));
    bool found = false;
    EXPECT_EQ(find("present", 1, n, &found), &b);
    EXPECT_TRUE(found);
}

TEST(StringDbAllocFail, OwnerInfoGrowthFailureKeepsTheArray)
{
    ushort first = register_component("first", false);
    sdb_owner_info *array = sdb_owner_info_array;
    ushort id = 42;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(sdb_register_component(const_cast<char *>("second"), obj_handle, FALSE, &id));
    }
    EXPECT_EQ(id, SDB_NO_OWNER);
    EXPECT_EQ(sdb_max_users, 1);
    EXPECT_EQ(sdb_owner_info_array, array);
    EXPECT_STREQ(sdb_owner_info_array[first].owner_name, "first");
    EXPECT_EQ(register_component("second", false), 1);
}

TEST(StringDbAllocFail, SetBlockFailureKeepsTheOldBlock)
{
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block("old", 3, SDB_BINARY_STRING, &h));
    sdb_handle before = h;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(sdb_set_block("new", 3, SDB_BINARY_STRING, &h));
    }
    EXPECT_EQ(h, before);
    EXPECT_EQ(memcmp(sdb_block_addr_ptr(h), "old", 3), 0);
    EXPECT_EQ(sdb_number_strings, 1u);
}

// Every allocation of a mixed workload fails in turn; each failed step changes
// nothing visible and the database stays consistent and usable.
TEST(StringDbAllocFail, EveryAllocationOfAWorkloadFailsCleanly)
{
    sdb_initialize_subsystem();
    ushort u = register_component("u", true);
    ushort n = register_component("n", false);
    std::vector<std::string> texts;
    for (int i = 0; i < 1500; ++i)
        texts.push_back(nth_text(i));
    std::vector<Obj> objs(texts.size() * 2);
    std::vector<sdb_handle> anon(texts.size());

    int failures = 0;
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string &t = texts[i];
        for (int step = 0; step < 3; ++step) {
            Obj &o = step == 1 ? objs[2 * i] : objs[2 * i + 1];
            for (int nth = 0;; ++nth) {
                uint32_t strings = sdb_number_strings, adds = sdb_number_adds;
                bool ok, injected;
                {
                    allocfail::Guard g;
                    allocfail::fail_nth(nth);
                    if (step == 0)
                        ok = sdb_add_string(t.c_str(), len_of(t), SDB_BINARY_STRING, &anon[i], SDB_NO_OWNER, nullptr);
                    else
                        ok = sdb_add_string(t.c_str(), len_of(t), SDB_BINARY_STRING, &o.held, step == 1 ? u : n, &o);
                    injected = allocfail::count() > nth;
                }
                if (ok)
                    break; // nothing failed, or only a growth, which an add survives
                ASSERT_TRUE(injected) << i << "/" << step;
                ++failures;
                ASSERT_EQ(sdb_number_strings, strings);
                ASSERT_EQ(sdb_number_adds, adds);
            }
        }
        if (i % 250 == 0)
            expect_consistent();
    }
    EXPECT_GT(failures, 3000);
    expect_consistent();
    for (size_t i = 0; i < texts.size(); ++i) {
        bool found = false;
        ASSERT_EQ(find(texts[i], 0, u, &found), &objs[2 * i]);
        ASSERT_EQ(find(texts[i], 0, n, &found), &objs[2 * i + 1]);
        ASSERT_TRUE(sdb_remove_string(anon[i], nullptr));
        ASSERT_TRUE(sdb_remove_string(objs[2 * i].held, &objs[2 * i]));
        ASSERT_TRUE(sdb_remove_string(objs[2 * i + 1].held, &objs[2 * i + 1]));
    }
    EXPECT_EQ(sdb_number_strings, 0u);
    expect_consistent();
}
