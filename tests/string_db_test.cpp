// The string database: the hash, sharing, matching, owners and their finds,
// registration, growth, and allocation failure at every site. Every case runs
// in a fresh process, so the database starts without a table in each.
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
    if (tag_of(h) == 1)
        return record_of<sdb_context>(h)->owner->string;
    return tag_of(h) == 2 ? record_of<sdb_owner>(h)->string : record_of<sdb_string>(h);
}

int len_of(const std::string &s)
{
    return static_cast<int>(s.size());
}

sdb_handle add(const std::string &s, sdb_string_types type = SDB_ASCII_STRING_CASE_SENSITIVE)
{
    sdb_handle h = 0;
    EXPECT_TRUE(sdb_add_string(s.c_str(), len_of(s), type, &h, SDB_NO_OWNER, nullptr)) << s;
    return h;
}

std::string nth_text(int i)
{
    return "name-" + std::to_string(1000 + i);
}

bool bucket_taken(const std::string &t)
{
    return sdb_hash_table[reference_crc(t.data(), t.size(), false) & sdb_hash_mask] != nullptr;
}

// Every structural invariant: placement, counters, zero padding, owner and
// context links, and no record that nobody holds.
void expect_consistent()
{
    if (!sdb_hash_table) {
        EXPECT_EQ(sdb_number_strings, 0u);
        return;
    }
    ASSERT_EQ(sdb_hash_mask, sdb_hash_table_size - 1);
    uint32_t records = 0, collisions = 0;
    for (uint32_t b = 0; b < sdb_hash_table_size; ++b) {
        uint32_t chain = 0;
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string, ++chain) {
            const char *bytes = reinterpret_cast<const char *>(s) - s->sdb_offset;
            EXPECT_EQ(s->crc & sdb_hash_mask, b);
            EXPECT_EQ(s->crc, reference_crc(bytes, s->len, s->string_type == SDB_ASCII_STRING_CASE_INSENSITIVE));
            EXPECT_TRUE(s->sdb_offset > s->len && s->sdb_offset % 4 == 0);
            for (unsigned i = s->len; i < s->sdb_offset; ++i)
                EXPECT_EQ(bytes[i], 0);
            EXPECT_TRUE(s->owners || s->refcount > 0) << "a record nobody holds";
            std::set<ushort> ids;
            for (sdb_owner *o = s->owners; o; o = o->next_owner) {
                EXPECT_EQ(o->string, s);
                EXPECT_TRUE(ids.insert(o->owner_id).second) << "two records of one owner";
                ASSERT_LT(o->owner_id, sdb_max_users);
                EXPECT_FALSE(sdb_owner_info_array[o->owner_id].unregistered);
                if (o->unique)
                    continue;
                sdb_context *c = o->info.contexts;
                ASSERT_NE(c, nullptr);
                do {
                    EXPECT_EQ(c->owner, o);
                    EXPECT_EQ(c->next_context->prev_context, c);
                } while ((c = c->next_context) != o->info.contexts);
            }
        }
        records += chain;
        collisions += chain ? chain - 1 : 0;
    }
    EXPECT_EQ(records, sdb_number_strings);
    EXPECT_EQ(collisions, sdb_total_collision_count);
}

// A component's object; the callback reports the handle it keeps.
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

bool hold(Obj &obj, const std::string &text, ushort id)
{
    return sdb_add_string(text.c_str(), len_of(text), SDB_ASCII_STRING_CASE_SENSITIVE, &obj.held, id, &obj);
}

// The object found, or null when the find fails.
void *find(const std::string &text, int index, ushort id)
{
    void *ctx = nullptr;
    if (!sdb_find_string(text.c_str(), len_of(text), SDB_ASCII_STRING_CASE_SENSITIVE, index, id, &ctx))
        return nullptr;
    EXPECT_NE(ctx, nullptr);
    return ctx;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

} // namespace

TEST(StringDbCrc, StandardTableInitialZeroNoFinalXor)
{
    for (uint32_t i = 0; i < 256; ++i) {
        unsigned char b = static_cast<unsigned char>(i);
        EXPECT_EQ(sdb_crc_ctabl[i], reference_crc(&b, 1, false)) << i;
    }
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("123456789"), 9, FALSE), 0x2DFD2D88u);
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("x"), 0, FALSE), 0u);
    EXPECT_EQ(sdb_do_crc(reinterpret_cast<const uchar *>("x"), -5, TRUE), 0u);
}

TEST(StringDbCrc, SlicedMatchesBytewiseAtEveryLengthAndAlignment)
{
    std::vector<uchar> buf(600);
    uint32_t x = 12345;
    for (auto &b : buf)
        b = static_cast<uchar>((x = x * 1103515245u + 12345u) >> 16);
    for (int align = 0; align < 8; ++align)
        for (int len = 0; len <= 560; ++len) {
            const uchar *p = buf.data() + align;
            ASSERT_EQ(sdb_do_crc(p, len, FALSE), reference_crc(p, len, false)) << len << "@" << align;
            ASSERT_EQ(sdb_do_crc(p, len, TRUE), reference_crc(p, len, true)) << len << "@" << align;
        }
}

TEST(StringDbSharing, EqualBytesShareOneRecordUntilTheLastRemove)
{
    sdb_handle a = add("shared text");
    EXPECT_EQ(add("shared text"), a);
    EXPECT_EQ(tag_of(a), 3u);
    EXPECT_EQ(record_of<sdb_string>(a)->refcount, 2u);
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_EQ(sdb_number_adds, 2u);
    EXPECT_EQ(sdb_maximum_sharing_count, 2u);

    EXPECT_TRUE(sdb_remove_string(a, nullptr));
    int len = 0;
    EXPECT_STREQ(sdb_string_addr(a, &len), "shared text");
    EXPECT_EQ(len, 11);
    EXPECT_TRUE(sdb_remove_string(a, &len)); // an anonymous reference ignores the object
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_removals, 2u);
    expect_consistent();
}

TEST(StringDbSharing, BytesAreACopyInOneBlockBeforeTheRecord)
{
    std::string text = "abcd";
    sdb_handle h = add(text);
    text[0] = 'X';
    sdb_string *s = record_of<sdb_string>(h);
    EXPECT_EQ(reinterpret_cast<char *>(s) - s->sdb_offset, sdb_string_addr_ptr(h));
    EXPECT_STREQ(sdb_string_addr_ptr(h), "abcd");
    EXPECT_EQ(sdb_block_addr_ptr(h), static_cast<void *>(sdb_string_addr_ptr(h)));
    EXPECT_EQ(s->sdb_offset, 8); // four bytes need a fifth, zero one
    expect_consistent();
}

TEST(StringDbSharing, LengthsAndNullsOutsideTheRulesAreRefused)
{
    std::string max(255, 'm'), big(256, 'b');
    EXPECT_EQ(std::string(sdb_string_addr_ptr(add(max))), max);
    EXPECT_STREQ(sdb_string_addr_ptr(add("")), "");
    sdb_handle h = 77;
    void *ctx = &h;
    EXPECT_FALSE(sdb_add_string(big.c_str(), 256, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_string("x", -1, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_string(nullptr, 3, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_string("abc", 3, SDB_BINARY_STRING, nullptr, SDB_NO_OWNER, nullptr));
    EXPECT_FALSE(sdb_add_block(big.c_str(), 256, &h));
    EXPECT_FALSE(sdb_find_string(big.c_str(), 256, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_FALSE(sdb_find_string("x", -1, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_FALSE(sdb_find_string(nullptr, 1, SDB_BINARY_STRING, 0, 0, &ctx));
    EXPECT_FALSE(sdb_find_string("x", 1, SDB_BINARY_STRING, 0, 0, nullptr));
    EXPECT_EQ(h, 77);
    EXPECT_EQ(ctx, &h);
    EXPECT_EQ(sdb_number_searchs, 0u);
    EXPECT_EQ(sdb_number_adds, 2u);

    sdb_handle real = add("real");
    EXPECT_FALSE(sdb_remove_string(0, nullptr));
    EXPECT_FALSE(sdb_remove_string(3, nullptr));         // a tag without an address
    EXPECT_FALSE(sdb_remove_string(real & ~3, nullptr)); // an address without a tag
    EXPECT_EQ(sdb_number_removals, 0u);
    int len = 99;
    EXPECT_EQ(sdb_string_addr(0, &len), nullptr);
    EXPECT_EQ(sdb_string_addr(real & ~3, &len), nullptr);
    EXPECT_EQ(len, 99);
    EXPECT_EQ(sdb_block_addr_ptr(0), nullptr);
}

TEST(StringDbSharing, SetBlockKeepsEqualBytesAndReplacesOthers)
{
    const char a[] = {'k', 0, 'x'}, b[] = {'k', 0, 'y'};
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block(a, 3, SDB_BINARY_STRING, &h));
    sdb_handle first = h;
    ASSERT_TRUE(sdb_set_block(a, 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &h));
    EXPECT_EQ(h, first);
    EXPECT_EQ(record_of<sdb_string>(h)->refcount, 1u);
    ASSERT_TRUE(sdb_set_block(b, 3, SDB_BINARY_STRING, &h)); // differs after a zero byte
    EXPECT_NE(h, first);
    EXPECT_EQ(sdb_number_strings, 1u); // the old block went with its last reference
    EXPECT_EQ(memcmp(sdb_block_addr_ptr(h), b, 3), 0);

    sdb_handle other = 0;
    ASSERT_TRUE(sdb_add_block(b, 3, &other)); // a shared old block stays for its other holder
    ASSERT_TRUE(sdb_set_block(b, 2, SDB_BINARY_STRING, &h));
    EXPECT_EQ(record_of<sdb_string>(other)->refcount, 1u);

    sdb_handle before = h;
    std::string big(256, 'z');
    EXPECT_FALSE(sdb_set_block(big.c_str(), 256, SDB_BINARY_STRING, &h));
    EXPECT_FALSE(sdb_set_block(a, -1, SDB_BINARY_STRING, &h));
    EXPECT_FALSE(sdb_set_block(a, 1, SDB_BINARY_STRING, nullptr));
    EXPECT_EQ(h, before);

    EXPECT_FALSE(sdb_set_block(nullptr, 3, SDB_BINARY_STRING, &h)); // releases and fails
    EXPECT_EQ(h, 0);
    EXPECT_EQ(sdb_number_strings, 1u);
    sdb_remove_block(other);
    EXPECT_EQ(sdb_number_strings, 0u);
}

TEST(StringDbMatching, CaseInsensitiveRecordsAndExactLookups)
{
    ushort id = register_component("matcher", true);
    Obj o;
    ASSERT_TRUE(sdb_add_string("abc", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, &o.held, id, &o));
    void *ctx = nullptr;
    EXPECT_TRUE(sdb_find_string("ABC", 3, SDB_ASCII_STRING_CASE_INSENSITIVE, 0, id, &ctx));
    EXPECT_EQ(ctx, &o);
    EXPECT_FALSE(sdb_find_string("ABC", 3, SDB_ASCII_STRING_CASE_SENSITIVE, 0, id, &ctx));
    // The record was hashed on ABC, so an exact lookup of its own bytes misses.
    EXPECT_FALSE(sdb_find_string("abc", 3, SDB_ASCII_STRING_CASE_SENSITIVE, 0, id, &ctx));
    sdb_handle exact = add("ABC");
    EXPECT_NE(text_of(exact), text_of(o.held));
    EXPECT_EQ(sdb_number_strings, 2u);

    // Folded adds share across case and keep the first spelling; a folded
    // lookup meets an exact record of upper-case bytes, whatever its type.
    sdb_handle hello = add("Hello", SDB_ASCII_STRING_CASE_INSENSITIVE);
    EXPECT_EQ(add("hELLO", SDB_ASCII_STRING_CASE_INSENSITIVE), hello);
    EXPECT_STREQ(sdb_string_addr_ptr(hello), "Hello");
    EXPECT_EQ(add("abc", SDB_ASCII_STRING_CASE_INSENSITIVE), exact);
    EXPECT_EQ(add("ABC", SDB_BINARY_STRING), exact);
    expect_consistent();
}

TEST(StringDbOwners, UniqueOwnerHoldsATextOnce)
{
    ushort id = register_component("unique", true);
    Obj a, b;
    ASSERT_TRUE(hold(a, "if-1", id));
    EXPECT_EQ(tag_of(a.held), 2u);
    EXPECT_EQ(record_of<sdb_owner>(a.held)->info.owner_context, &a);
    EXPECT_EQ(text_of(a.held)->refcount, 0u);
    EXPECT_FALSE(hold(b, "if-1", id));
    EXPECT_EQ(b.held, 0);
    EXPECT_EQ(sdb_number_adds, 1u);

    EXPECT_EQ(find("if-1", 0, id), &a);
    EXPECT_EQ(find("if-1", 1, id), nullptr);
    EXPECT_EQ(sdb_number_searchs, 2u);
    EXPECT_FALSE(sdb_remove_string(a.held, &b));
    EXPECT_TRUE(sdb_remove_string(a.held, &a));
    EXPECT_EQ(sdb_number_strings, 0u);
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
    void *ctx = nullptr;
    void *expected[] = {&c, &b, &a};
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(sdb_find_string("route", 5, SDB_ASCII_STRING_CASE_SENSITIVE, i, id, &ctx));
        EXPECT_EQ(ctx, expected[i]) << i;
    }
    EXPECT_FALSE(sdb_find_string("route", 5, SDB_ASCII_STRING_CASE_SENSITIVE, 3, id, &ctx));
    EXPECT_FALSE(sdb_find_string("route", 5, SDB_ASCII_STRING_CASE_SENSITIVE, -1, id, &ctx));
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 0);

    EXPECT_FALSE(sdb_remove_string(b.sdb_handle, &a));
    EXPECT_TRUE(sdb_remove_string(b.sdb_handle, &b));
    EXPECT_TRUE(sdb_find_string("route", 5, SDB_ASCII_STRING_CASE_SENSITIVE, 1, id, &ctx));
    EXPECT_EQ(ctx, &a);
    EXPECT_TRUE(sdb_remove_string(c.sdb_handle, &c)); // the head
    EXPECT_TRUE(sdb_remove_string(a.sdb_handle, &a)); // the last: owner and text go
    EXPECT_EQ(sdb_number_strings, 0u);
}

TEST(StringDbOwners, OwnersAndAnonymousReferencesShareOneText)
{
    ushort u = register_component("u", true), n = register_component("n", false);
    Obj a, b;
    sdb_handle anon = add("common");
    ASSERT_TRUE(hold(a, "common", u));
    ASSERT_TRUE(hold(b, "common", n));
    sdb_string *s = text_of(anon);
    EXPECT_EQ(text_of(b.held), s);
    EXPECT_EQ(s->owners->owner_id, n); // newest first
    EXPECT_EQ(s->owners->next_owner->owner_id, u);
    EXPECT_TRUE(sdb_remove_string(anon, nullptr));
    EXPECT_FALSE(sdb_remove_string(anon, nullptr)); // no anonymous reference left
    EXPECT_TRUE(sdb_remove_string(a.held, &a));
    EXPECT_EQ(sdb_number_strings, 1u);
    EXPECT_TRUE(sdb_remove_string(b.held, &b));
    EXPECT_EQ(sdb_number_strings, 0u);

    // An id that was never handed out adds anonymously and finds nothing.
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_add_string("anon", 4, SDB_BINARY_STRING, &h, 4321, &h));
    EXPECT_EQ(tag_of(h), 3u);
    EXPECT_EQ(find("anon", 0, 4321), nullptr);
    EXPECT_EQ(find("anon", 0, u), nullptr);
    EXPECT_EQ(find("absent", 0, u), nullptr);
}

TEST(StringDbUnconfirmed, FindDropsAnAssociationItsOwnerDoesNotConfirm)
{
    ushort id = register_component("stale", false);
    Obj a, b, c;
    for (Obj *o : {&a, &b, &c})
        ASSERT_TRUE(hold(*o, "addr", id));
    c.held = 0; // c no longer reports the text
    EXPECT_EQ(find("addr", 0, id), nullptr);
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 1);
    EXPECT_EQ(sdb_number_removals, 1u);
    EXPECT_EQ(find("addr", 0, id), &b);
    EXPECT_EQ(find("addr", 1, id), &a);

    a.held = b.held; // a reports another object's handle
    EXPECT_EQ(find("addr", 1, id), nullptr);
    EXPECT_EQ(find("addr", 1, id), nullptr); // only b is left: no further error
    EXPECT_EQ(sdb_owner_info_array[id].sanity_check_errors, 2);
    expect_consistent();

    ushort u = register_component("unique-stale", true);
    Obj lone;
    ASSERT_TRUE(hold(lone, "lonely", u));
    lone.held = 0;
    EXPECT_EQ(find("lonely", 0, u), nullptr);
    EXPECT_EQ(sdb_owner_info_array[u].sanity_check_errors, 1);
    EXPECT_EQ(sdb_number_strings, 1u); // "lonely" went with its only owner
    EXPECT_TRUE(hold(lone, "lonely", u));
}

TEST(StringDbRegistration, TestComponentTakesIdZeroAndFreedIdsAreReusedLowestFirst)
{
    sdb_initialize_subsystem();
    ASSERT_NE(sdb_hash_table, nullptr);
    EXPECT_EQ(sdb_hash_table_size, 256u);
    EXPECT_EQ(sdb_test_owner_id, 0);
    EXPECT_STREQ(sdb_owner_info_array[0].owner_name, "SDB Test Driver Code");
    EXPECT_FALSE(sdb_owner_info_array[0].unique);
    EXPECT_EQ(sdb_owner_info_array[0].get_sdb_handle, &sdb_test_get_sdb_handle_from_struct);
    EXPECT_EQ(sdb_test_get_sdb_handle_from_struct(nullptr), 0);

    char name[] = "first";
    ushort id = 0;
    ASSERT_TRUE(sdb_register_component(name, obj_handle, 7, &id));
    EXPECT_EQ(id, 1);
    EXPECT_EQ(sdb_owner_info_array[1].owner_name, name); // not copied
    EXPECT_EQ(sdb_owner_info_array[1].unique, TRUE);
    ASSERT_TRUE(sdb_unregister_component(1, obj_handle));
    EXPECT_TRUE(sdb_owner_info_array[1].unregistered);
    EXPECT_EQ(register_component("first", false), 1);

    for (int i = 2; i <= 4; ++i)
        EXPECT_EQ(register_component("same", false), i); // no check for an earlier registration
    ASSERT_TRUE(sdb_unregister_component(3, obj_handle));
    ASSERT_TRUE(sdb_unregister_component(2, obj_handle));
    EXPECT_EQ(register_component("x", false), 2);
    EXPECT_EQ(register_component("y", false), 3);
    EXPECT_EQ(register_component("z", false), 5);

    sdb_string **table = sdb_hash_table;
    sdb_initialize_subsystem(); // again: same table, the test component once more
    EXPECT_EQ(sdb_hash_table, table);
    EXPECT_EQ(sdb_test_owner_id, 6);
    EXPECT_FALSE(sdb_owner_info_array[0].unregistered);
}

TEST(StringDbRegistration, BadRegistrationsAndUnregistrationsChangeNothing)
{
    char name[] = "n";
    ushort id = 7;
    EXPECT_FALSE(sdb_register_component(nullptr, obj_handle, TRUE, &id));
    EXPECT_FALSE(sdb_register_component(name, nullptr, TRUE, &id));
    EXPECT_FALSE(sdb_register_component(name, obj_handle, TRUE, nullptr));
    EXPECT_EQ(id, 7); // refused before anything is written
    EXPECT_EQ(sdb_max_users, 0);

    id = register_component("n", true);
    EXPECT_FALSE(sdb_unregister_component(SDB_NO_OWNER, obj_handle));
    EXPECT_FALSE(sdb_unregister_component(1, obj_handle)); // never handed out
    EXPECT_FALSE(sdb_unregister_component(id, other_callback));
    EXPECT_FALSE(sdb_unregister_component(id, nullptr));
    EXPECT_FALSE(sdb_owner_info_array[id].unregistered);
    ASSERT_TRUE(sdb_unregister_component(id, obj_handle));
    EXPECT_FALSE(sdb_unregister_component(id, obj_handle)); // already free
    EXPECT_FALSE(sdb_unregister_component(id, nullptr));
}

TEST(StringDbRegistration, UnregisteringReleasesTheComponentsRecordsAtOnce)
{
    ushort gone = register_component("gone", false), stays = register_component("stays", true);
    Obj a, b, c, d, e;
    ASSERT_TRUE(hold(a, "only-gone", gone));
    ASSERT_TRUE(hold(b, "only-gone", gone));
    ASSERT_TRUE(hold(c, "shared", gone));
    ASSERT_TRUE(hold(d, "shared", stays));
    ASSERT_TRUE(hold(e, "anon-too", gone));
    sdb_handle anon = add("anon-too");

    ASSERT_TRUE(sdb_unregister_component(gone, obj_handle));
    EXPECT_EQ(sdb_number_strings, 2u);
    EXPECT_EQ(text_of(anon)->owners, nullptr);
    EXPECT_EQ(text_of(d.held)->owners->next_owner, nullptr);
    expect_consistent();

    EXPECT_FALSE(hold(a, "shared", gone)); // the freed id adds nothing
    ushort again = register_component("again", false);
    EXPECT_EQ(again, gone);
    EXPECT_EQ(find("shared", 0, again), nullptr); // its successor starts clean
    EXPECT_EQ(sdb_owner_info_array[again].sanity_check_errors, 0);
}

TEST(StringDbRegistration, AllIdsTakenClosesRegistration)
{
    if (kSanitized)
        GTEST_SKIP() << "65535 reallocations copy the whole array under a sanitizer";
    char name[] = "many";
    ushort id = 0;
    for (int i = 0; i < 0xFFFF; ++i)
        ASSERT_TRUE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, 0xFFFE);
    EXPECT_FALSE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, SDB_NO_OWNER);
    ASSERT_TRUE(sdb_unregister_component(1234, obj_handle));
    EXPECT_FALSE(sdb_register_component(name, obj_handle, FALSE, &id));
    EXPECT_EQ(id, SDB_NO_OWNER);
}

TEST(StringDbGrowth, TableDoublesAtTheFirstCollidingInsertPastFivePerBucket)
{
    ushort id = register_component("grower", false);
    std::vector<Obj> objs(5000);
    int i = 0;
    for (; i < 1280; ++i)
        ASSERT_TRUE(hold(objs[i], nth_text(i), id));
    EXPECT_EQ(sdb_hash_table_size, 256u);
    for (;; ++i) {
        bool collides = bucket_taken(nth_text(i));
        ASSERT_TRUE(hold(objs[i], nth_text(i), id));
        if (collides)
            break;
        EXPECT_EQ(sdb_hash_table_size, 256u) << "grew on an insert into an empty bucket";
    }
    EXPECT_EQ(sdb_hash_table_size, 512u);
    // The deepest chain is recounted as the records move.
    uint32_t longest = 0;
    for (uint32_t b = 0; b < sdb_hash_table_size; ++b) {
        uint32_t n = 0;
        for (sdb_string *s = sdb_hash_table[b]; s; s = s->next_string)
            ++n;
        longest = std::max(longest, n);
    }
    EXPECT_EQ(sdb_deepest_collision_count, longest - 1);
    expect_consistent();

    for (++i; i < 5000; ++i)
        ASSERT_TRUE(hold(objs[i], nth_text(i), id));
    EXPECT_EQ(sdb_hash_table_size, 1024u);
    expect_consistent();
    for (int k = 0; k < 5000; ++k)
        ASSERT_EQ(find(nth_text(k), 0, id), &objs[k]) << k;
    for (int k = 0; k < 5000; ++k)
        ASSERT_TRUE(sdb_remove_string(objs[k].held, &objs[k]));
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_total_collision_count, 0u);
    EXPECT_EQ(sdb_hash_table_size, 1024u); // the table never shrinks
}

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
    sdb_initialize_subsystem();
    EXPECT_EQ(sdb_test_owner_id, 0);
    EXPECT_STREQ(sdb_string_addr_ptr(add("t")), "t");
}

TEST(StringDbAllocFail, GrowthFailureKeepsTheOldTable)
{
    std::vector<sdb_handle> handles;
    int i = 0;
    for (; i < 1280 || !bucket_taken(nth_text(i)); ++i)
        handles.push_back(add(nth_text(i)));
    std::string t = nth_text(i++);
    {
        allocfail::Guard g;
        allocfail::fail_nth(1); // the text succeeds, the doubled table does not
        handles.push_back(0);
        EXPECT_TRUE(sdb_add_string(t.c_str(), len_of(t), SDB_ASCII_STRING_CASE_SENSITIVE, &handles.back(),
                                   SDB_NO_OWNER, nullptr));
        EXPECT_EQ(allocfail::count(), 2);
    }
    EXPECT_EQ(sdb_hash_table_size, 256u);
    expect_consistent();
    for (size_t k = 0; k < handles.size(); ++k)
        ASSERT_EQ(add(nth_text(static_cast<int>(k))), handles[k]);
    for (; sdb_hash_table_size == 256u; ++i)
        add(nth_text(i)); // a later colliding insert grows after all
    EXPECT_EQ(sdb_hash_table_size, 512u);
    expect_consistent();
}

TEST(StringDbAllocFail, EachSiteOfAnAddFailsCleanly)
{
    sdb_initialize_subsystem();
    ushort u = register_component("u", true), n = sdb_test_owner_id;
    Obj a;
    a.held = 1234;
    sdb_test_example e{};
    e.sdb_handle = 1234;
    sdb_handle h = 1234;
    auto attempt = [&](int nth, auto &&op) {
        allocfail::Guard g;
        allocfail::fail_nth(nth);
        EXPECT_FALSE(op());
        EXPECT_EQ(allocfail::count(), nth + 1);
    };
    auto anon = [&] { return sdb_add_string("new", 3, SDB_BINARY_STRING, &h, SDB_NO_OWNER, nullptr); };
    auto unique = [&] { return hold(a, "new", u); };
    auto plural = [&] { return sdb_add_string("new", 3, SDB_BINARY_STRING, &e.sdb_handle, n, &e); };
    // Sites in order: owner record, context (non-unique owners), text.
    attempt(0, unique);
    attempt(0, plural);
    attempt(1, plural);
    EXPECT_EQ(a.held, 1234); // handles are not written before the text
    EXPECT_EQ(e.sdb_handle, 1234);
    attempt(1, unique);
    attempt(2, plural);
    attempt(0, anon);
    EXPECT_EQ(a.held, 0); // a failed text writes the null handle
    EXPECT_EQ(e.sdb_handle, 0);
    EXPECT_EQ(h, 0);
    EXPECT_EQ(sdb_number_strings, 0u);
    EXPECT_EQ(sdb_number_adds, 0u);

    // A further context of an owner record that exists.
    ASSERT_TRUE(plural());
    sdb_test_example f{};
    attempt(0, [&] { return sdb_add_string("new", 3, SDB_BINARY_STRING, &f.sdb_handle, n, &f); });
    EXPECT_EQ(find("new", 1, n), nullptr);
    EXPECT_EQ(find("new", 0, n), &e);
    expect_consistent();
    ASSERT_TRUE(unique());
    ASSERT_TRUE(anon());
    EXPECT_EQ(sdb_number_adds, 3u);
}

TEST(StringDbAllocFail, OwnerInfoAndSetBlockFailuresKeepWhatWasThere)
{
    ushort first = register_component("first", false);
    sdb_owner_info *array = sdb_owner_info_array;
    sdb_handle h = 0;
    ASSERT_TRUE(sdb_set_block("old", 3, SDB_BINARY_STRING, &h));
    sdb_handle before = h;
    ushort id = 42;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(sdb_register_component(const_cast<char *>("second"), obj_handle, FALSE, &id));
        EXPECT_FALSE(sdb_set_block("new", 3, SDB_BINARY_STRING, &h));
    }
    EXPECT_EQ(id, SDB_NO_OWNER);
    EXPECT_EQ(sdb_max_users, 1);
    EXPECT_EQ(sdb_owner_info_array, array);
    EXPECT_STREQ(sdb_owner_info_array[first].owner_name, "first");
    EXPECT_EQ(register_component("second", false), 1);
    EXPECT_EQ(h, before);
    EXPECT_STREQ(sdb_string_addr_ptr(h), "old");
    EXPECT_EQ(sdb_number_strings, 1u);
}

// Every allocation of a workload that grows the table fails in turn: each
// failed add changes nothing and the database stays consistent and usable.
TEST(StringDbAllocFail, EveryAllocationOfAWorkloadFailsCleanly)
{
    ushort u = register_component("u", true), n = register_component("n", false);
    constexpr int kTexts = 1500;
    std::vector<Obj> objs(2 * kTexts);
    std::vector<sdb_handle> anon(kTexts);
    int failures = 0;
    for (int i = 0; i < kTexts; ++i) {
        std::string t = nth_text(i);
        // Every other text goes in without failures, so the table does grow.
        if (i % 2 == 0)
            anon[i] = add(t, SDB_BINARY_STRING);
        for (int step = i % 2 == 0; step < 3; ++step) {
            Obj &o = objs[2 * i + (step == 2)];
            for (int nth = 0;; ++nth) {
                uint32_t strings = sdb_number_strings, adds = sdb_number_adds;
                bool ok, injected;
                {
                    allocfail::Guard g;
                    allocfail::fail_nth(nth);
                    ok = step == 0 ? sdb_add_string(t.c_str(), len_of(t), SDB_BINARY_STRING, &anon[i],
                                                    SDB_NO_OWNER, nullptr)
                                   : hold(o, t, step == 1 ? u : n);
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
    }
    EXPECT_EQ(failures, 3 * kTexts + kTexts / 2);
    EXPECT_EQ(sdb_hash_table_size, 512u);
    expect_consistent();
    for (int i = 0; i < kTexts; ++i) {
        ASSERT_EQ(find(nth_text(i), 0, u), &objs[2 * i]);
        ASSERT_EQ(find(nth_text(i), 0, n), &objs[2 * i + 1]);
        ASSERT_TRUE(sdb_remove_string(anon[i], nullptr));
        ASSERT_TRUE(sdb_remove_string(objs[2 * i].held, &objs[2 * i]));
        ASSERT_TRUE(sdb_remove_string(objs[2 * i + 1].held, &objs[2 * i + 1]));
    }
    EXPECT_EQ(sdb_number_strings, 0u);
}
