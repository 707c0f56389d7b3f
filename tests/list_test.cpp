// Lists: registry, default actions on plain and automatic lists (success and
// every failure branch, with the element records accounted for), custom action
// tables, merge, move, excise, the checked walk step and the destroy report.
// Every case runs in a fresh process.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <vector>

#include <vobrel/errmsg.h>
#include <vobrel/list.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/list_private.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

// Bytes in use on the heap, to see that records are released again. The
// allocator keeps small freed blocks in a per-thread cache that it still counts
// as in use, so the tests that measure make every list record (and every record
// they hand over themselves) larger than that cache takes.
constexpr int kLargeRecord = 4096;

void use_large_records()
{
    list_element_chunk = kLargeRecord;
    list_header_chunk = kLargeRecord;
}

list_element *large_record()
{
    return static_cast<list_element *>(calloc(1, kLargeRecord));
}

size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

// Data pointers: addresses of these ints.
int d[8] = {0, 1, 2, 3, 4, 5, 6, 7};

int32_t cmp_int(void *on_list, void *other)
{
    return *static_cast<int *>(on_list) - *static_cast<int *>(other);
}

// The data from head to tail, after checking every link, back-link, label and
// the count against the chain.
std::vector<void *> contents(const list_header *l)
{
    std::vector<void *> out;
    const list_element *prev = nullptr;
    for (const list_element *p = l->head; p; p = p->next) {
        EXPECT_EQ(p->prev, prev);
        EXPECT_EQ(p->list, l);
        out.push_back(p->data);
        prev = p;
        if (out.size() > 1000) {
            ADD_FAILURE() << "cycle";
            break;
        }
    }
    EXPECT_EQ(l->tail, prev);
    EXPECT_EQ(l->count, out.size());
    return out;
}

std::vector<void *> data(std::initializer_list<int> idx)
{
    std::vector<void *> out;
    for (int i : idx)
        out.push_back(&d[i]);
    return out;
}

bool unlinked(const list_element &e)
{
    return !e.next && !e.prev && !e.list;
}

class List : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel_list_init();
        zel_memory_list_init();
    }
};

using Plain = List;

class Automatic : public List {
protected:
    void SetUp() override
    {
        List::SetUp();
        use_large_records();
    }
};

} // namespace

// --- Module set-up and the registry ------------------------------------------

TEST(ListModule, NothingIsAllocatedBeforeTheSizesAreSet)
{
    EXPECT_EQ(list_element_chunk, 0);
    EXPECT_EQ(list_header_chunk, 0);
    zel_list_init();
    EXPECT_EQ(zel_list_create(nullptr, 0, nullptr, 0), nullptr);
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    EXPECT_FALSE(list_enqueue(&l, nullptr, &d[1]));
    EXPECT_EQ(l.count, 0u);

    zel_memory_list_init();
    EXPECT_EQ(list_element_chunk, static_cast<int>(sizeof(list_element)));
    EXPECT_EQ(list_header_chunk, static_cast<int>(sizeof(list_header)));
    EXPECT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    EXPECT_EQ(list_dequeue(&l), &d[1]);
    zel_list_destroy(&l);
}

TEST(ListModule, NamedListBeforeInitFailsWithoutTouchingAnything)
{
    zel_memory_list_init();
    use_large_records();
    list_header l;
    EXPECT_EQ(zel_list_create(&l, 0, "early", 0), nullptr);
    EXPECT_EQ(l.flags & LIST_FLAGS_VALID, 0);
    size_t before = heap_in_use();
    EXPECT_EQ(zel_list_create(nullptr, 0, "early", 0), nullptr);
    EXPECT_EQ(heap_in_use(), before);
    // Unnamed lists need no registry.
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
}

TEST_F(List, RegistryIsListZeroUnnamedAndNotOnItself)
{
    const list_header *q = zel_list_get_listQ();
    EXPECT_EQ(q->ID, 0u);
    EXPECT_STREQ(q->name, "(unknown)");
    EXPECT_EQ(q->flags, LIST_FLAGS_INTERRUPT_SAFE | LIST_FLAGS_VALID);
    EXPECT_EQ(q->count, 0u);
    EXPECT_EQ(q->element.list, nullptr);
    EXPECT_EQ(q->action, &list_action_vectors_default);
    EXPECT_EQ(zel_list_get_list_ID(), 1u);
}

TEST_F(List, NamedListsAreRegisteredInOrderAndDestroyTakesThemOff)
{
    list_header a;
    list_header *b = zel_list_create(nullptr, 0, "bee", 0);
    ASSERT_EQ(zel_list_create(&a, 0, "ay", 0), &a);
    list_header *anon = zel_list_create(nullptr, 0, nullptr, 0);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(anon, nullptr);
    EXPECT_EQ(b->ID, 1u);
    EXPECT_EQ(a.ID, 2u);
    EXPECT_EQ(anon->ID, 3u);
    EXPECT_EQ(zel_list_get_list_ID(), 4u);
    EXPECT_STREQ(anon->name, "(unknown)");
    EXPECT_STREQ(b->name, "bee");

    const list_header *q = zel_list_get_listQ();
    EXPECT_EQ(contents(q), (std::vector<void *>{b, &a}));
    EXPECT_EQ(anon->element.list, nullptr);
    EXPECT_EQ(b->element.data, b);

    zel_list_destroy(b);
    EXPECT_EQ(contents(q), (std::vector<void *>{&a}));
    zel_list_destroy(&a);
    EXPECT_EQ(a.flags, 0); // a caller's header is left invalid
    EXPECT_TRUE(unlinked(a.element));
    EXPECT_EQ(contents(q), std::vector<void *>{});
    zel_list_destroy(anon);
    zel_list_destroy(nullptr);
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST_F(List, CreateKeepsOnlyUserAutomaticAndInterruptSafeFlags)
{
    list_header mine;
    ASSERT_EQ(zel_list_create(&mine, 7, nullptr, 0xffff), &mine);
    EXPECT_EQ(mine.flags, 0xff0d);
    EXPECT_EQ(mine.maximum, 7u);
    list_header *alloc = zel_list_create(nullptr, 0, nullptr, 0xffff);
    ASSERT_NE(alloc, nullptr);
    EXPECT_EQ(alloc->flags, 0xff0f);
    EXPECT_EQ(alloc->info, list_info_default);
    EXPECT_EQ(alloc->context, nullptr);
    zel_list_destroy(alloc);
}

TEST_F(List, CreateZeroFillsACallersHeader)
{
    list_header l;
    memset(&l, 0xa5, sizeof l);
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    EXPECT_EQ(l.head, nullptr);
    EXPECT_EQ(l.context, nullptr);
    EXPECT_TRUE(unlinked(l.element));
    EXPECT_EQ(l.flags, LIST_FLAGS_VALID);
}

TEST_F(List, HeaderAllocationFailureGivesNull)
{
    use_large_records();
    size_t before = heap_in_use();
    allocfail::Guard g;
    allocfail::fail_all();
    EXPECT_EQ(zel_list_create(nullptr, 0, "x", 0), nullptr);
    allocfail::reset();
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(zel_list_get_listQ()->count, 0u);
}

TEST_F(List, FailedRegistrationReleasesTheAllocatedHeader)
{
    use_large_records();
    // A registry that is full refuses the next registration.
    auto *q = const_cast<list_header *>(zel_list_get_listQ());
    q->maximum = 1;
    list_header *first = zel_list_create(nullptr, 0, "first", 0);
    ASSERT_NE(first, nullptr);

    size_t before = heap_in_use();
    EXPECT_EQ(zel_list_create(nullptr, 0, "second", 0), nullptr);
    EXPECT_EQ(heap_in_use(), before);

    list_header mine;
    EXPECT_EQ(zel_list_create(&mine, 3, "third", LIST_FLAGS_AUTOMATIC), nullptr);
    EXPECT_EQ(mine.flags, LIST_FLAGS_AUTOMATIC); // never made valid
    EXPECT_TRUE(unlinked(mine.element));
    EXPECT_EQ(contents(q), (std::vector<void *>{first}));
    zel_list_destroy(first);
}

TEST_F(List, DestroyStopsWhenUnregisteringFails)
{
    list_header other;
    ASSERT_EQ(zel_list_create(&other, 0, nullptr, 0), &other);
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    l.element.list = &other; // claims a registration the registry does not have
    zel_list_destroy(&l);
    EXPECT_EQ(l.flags, LIST_FLAGS_VALID);
}

TEST_F(List, ReinitStartsAFreshRegistryAndNumbering)
{
    list_header *old = zel_list_create(nullptr, 0, "old", 0);
    ASSERT_NE(old, nullptr);
    zel_list_init();
    EXPECT_EQ(zel_list_get_list_ID(), 1u);
    EXPECT_EQ(zel_list_get_listQ()->count, 0u);
    list_header *fresh = zel_list_create(nullptr, 0, "fresh", 0);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->ID, 1u);
    // The old header no longer belongs to any registry; destroying it leaves
    // the new one intact (and releases it: no leak under the sanitizer).
    zel_list_destroy(old);
    EXPECT_EQ(contents(zel_list_get_listQ()), (std::vector<void *>{fresh}));
    zel_list_destroy(fresh);
}

TEST_F(List, DestroyingANonEmptyListReportsAndStillDestroys)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, "busy", 0), &l);
    list_element e[2]{};
    ASSERT_TRUE(list_enqueue(&l, &e[0], &d[0]));
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    zel_list_destroy(&l);

    char want[128];
    snprintf(want, sizeof want, "Removed a non-empty list(%x, name: busy), having 2 elements",
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(&l)));
    auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].line, std::string("%SYS-3-BADLIST_DESTROY:") + want);
    EXPECT_EQ(fake::log_messages(), std::vector<std::string>{want});
    // Destroyed, off the registry, and the elements keep their links.
    EXPECT_EQ(l.flags, 0);
    EXPECT_EQ(zel_list_get_listQ()->count, 0u);
    EXPECT_EQ(e[0].next, &e[1]);
    EXPECT_EQ(e[1].prev, &e[0]);
    EXPECT_EQ(e[0].list, &l);

    // An allocated header is released all the same.
    list_header *a = zel_list_create(nullptr, 0, nullptr, 0);
    list_element f{};
    ASSERT_TRUE(list_enqueue(a, &f, &d[2]));
    zel_list_destroy(a);
    ASSERT_EQ(fake::syslog_lines().size(), 2u);
    EXPECT_NE(fake::syslog_lines()[1].line.find("name: (unknown)), having 1 elements"), std::string::npos);
}

// --- Accessors -----------------------------------------------------------------

TEST_F(List, FlagAndCallbackAccessors)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0x0100), &l);
    EXPECT_EQ(zel_list_set_flags_user(&l, 0x2007), 0x2100); // low bits ignored
    EXPECT_EQ(l.flags, 0x2101);
    EXPECT_EQ(zel_list_get_flags_user(&l, 0xf0ff), 0x2000);
    EXPECT_EQ(zel_list_clear_flags_user(&l, 0x01ff), 0x2000);
    EXPECT_EQ(l.flags, 0x2001); // VALID survives
    EXPECT_EQ(zel_list_set_flags_user(nullptr, 0xff00), 0);
    EXPECT_EQ(zel_list_clear_flags_user(nullptr, 0xff00), 0);
    EXPECT_EQ(zel_list_get_flags_user(nullptr, 0xff00), 0);

    EXPECT_FALSE(zel_list_is_automatic(&l));
    zel_list_set_automatic(&l, TRUE);
    EXPECT_TRUE(zel_list_is_automatic(&l));
    zel_list_set_automatic(&l, FALSE);
    EXPECT_FALSE(zel_list_is_automatic(&l));
    EXPECT_FALSE(zel_list_is_automatic(nullptr));
    zel_list_set_interrupt_safe(&l, TRUE);
    EXPECT_EQ(l.flags, 0x2009);
    zel_list_set_interrupt_safe(&l, FALSE);
    EXPECT_EQ(l.flags, 0x2001);

    auto info = [](const list_header *, const list_element *, char *) -> boolean { return TRUE; };
    EXPECT_TRUE(zel_list_set_info(&l, info));
    EXPECT_EQ(zel_list_get_info(&l), info);
    EXPECT_TRUE(zel_list_set_info(&l, nullptr));
    EXPECT_EQ(zel_list_get_info(&l), list_info_default);
    char buf[4] = "abc";
    EXPECT_FALSE(list_info_default(&l, nullptr, buf));
    EXPECT_STREQ(buf, "abc");
    EXPECT_FALSE(zel_list_set_info(nullptr, nullptr));
    EXPECT_EQ(zel_list_get_info(nullptr), nullptr);
    EXPECT_FALSE(zel_list_set_action(nullptr, nullptr));
    EXPECT_EQ(zel_list_get_action(nullptr), nullptr);
}

// --- Default actions on a plain list ------------------------------------------

TEST_F(Plain, EnqueueRequeueDequeue)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[4]{};
    EXPECT_TRUE(list_requeue(&l, &e[0], &d[0])); // requeue on empty: head and tail
    EXPECT_EQ(l.tail, &e[0]);
    EXPECT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    EXPECT_TRUE(list_enqueue(&l, &e[2], &d[2]));
    EXPECT_TRUE(list_requeue(&l, &e[3], &d[3]));
    EXPECT_EQ(contents(&l), data({3, 0, 1, 2}));

    EXPECT_EQ(list_dequeue(&l), &d[3]);
    EXPECT_TRUE(unlinked(e[3]));
    EXPECT_EQ(e[3].data, &d[3]); // the caller's record keeps its datum
    EXPECT_EQ(list_dequeue(&l), &d[0]);
    EXPECT_EQ(list_dequeue(&l), &d[1]);
    EXPECT_EQ(list_dequeue(&l), &d[2]);
    EXPECT_EQ(contents(&l), std::vector<void *>{});
    EXPECT_EQ(list_dequeue(&l), nullptr);
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST_F(Plain, EnqueueAndRequeueFailures)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 2, nullptr, 0), &l);
    list_element e[3]{};
    ASSERT_TRUE(list_enqueue(&l, &e[0], &d[0]));
    EXPECT_FALSE(list_enqueue(&l, nullptr, &d[5])); // no element on a plain list
    EXPECT_FALSE(list_requeue(&l, nullptr, &d[5]));
    EXPECT_FALSE(list_enqueue(&l, &e[0], &d[5])); // already linked
    EXPECT_FALSE(list_requeue(&l, &e[0], &d[5]));
    EXPECT_EQ(e[0].data, &d[0]);
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    EXPECT_FALSE(list_enqueue(&l, &e[2], &d[2])); // full at maximum 2
    EXPECT_FALSE(list_requeue(&l, &e[2], &d[2]));
    EXPECT_TRUE(unlinked(e[2]));
    EXPECT_EQ(contents(&l), data({0, 1}));

    list_header gone;
    ASSERT_EQ(zel_list_create(&gone, 0, nullptr, 0), &gone);
    zel_list_destroy(&gone); // no longer valid
    EXPECT_FALSE(list_enqueue(&gone, &e[2], &d[2]));
    EXPECT_FALSE(list_requeue(&gone, &e[2], &d[2]));
    EXPECT_EQ(list_dequeue(&gone), nullptr);
    EXPECT_EQ(gone.count, 0u);

    // Null list through the header operations and the defaults.
    EXPECT_FALSE(list_enqueue(nullptr, &e[2], &d[2]));
    EXPECT_EQ(list_dequeue(nullptr), nullptr);
    EXPECT_FALSE(list_enqueue_default(nullptr, &e[2], &d[2]));
    EXPECT_EQ(list_dequeue_default(nullptr), nullptr);
    EXPECT_EQ(list_remove_default(nullptr, &e[2], &d[2]), nullptr);
    EXPECT_FALSE(list_insert_default(nullptr, &e[2], &d[2], cmp_int));
    EXPECT_EQ(list_lookup_default(nullptr, &e[2], &d[2], cmp_int), nullptr);
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST_F(Plain, InsertKeepsAscendingUniqueOrder)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[6]{};
    EXPECT_TRUE(list_insert(&l, &e[0], &d[5], cmp_int));
    EXPECT_TRUE(list_insert(&l, &e[1], &d[1], cmp_int)); // new head
    EXPECT_TRUE(list_insert(&l, &e[2], &d[7], cmp_int)); // new tail
    EXPECT_TRUE(list_insert(&l, &e[3], &d[3], cmp_int)); // middle
    EXPECT_EQ(contents(&l), data({1, 3, 5, 7}));

    int dup = 3;
    EXPECT_FALSE(list_insert(&l, &e[4], &dup, cmp_int));
    EXPECT_TRUE(unlinked(e[4]));
    EXPECT_FALSE(list_insert(&l, &e[4], &d[4], nullptr));
    EXPECT_FALSE(list_insert(&l, nullptr, &d[4], cmp_int));
    EXPECT_FALSE(list_insert(&l, &e[0], &d[4], cmp_int)); // linked
    EXPECT_EQ(contents(&l), data({1, 3, 5, 7}));

    l.maximum = 4;
    EXPECT_FALSE(list_insert(&l, &e[4], &d[4], cmp_int));
    l.maximum = 0;
    l.flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(list_insert(&l, &e[4], &d[4], cmp_int));
    l.flags |= LIST_FLAGS_VALID;
    EXPECT_TRUE(list_insert(&l, &e[4], &d[4], cmp_int));
    EXPECT_EQ(contents(&l), data({1, 3, 4, 5, 7}));
}

TEST_F(Plain, RemoveByElementOrByDatum)
{
    list_header l, other;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    ASSERT_EQ(zel_list_create(&other, 0, nullptr, 0), &other);
    list_element e[5]{};
    ASSERT_TRUE(list_enqueue(&l, &e[0], &d[0]));
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    ASSERT_TRUE(list_enqueue(&l, &e[2], &d[0])); // same datum twice
    ASSERT_TRUE(list_enqueue(&l, &e[3], &d[3]));
    ASSERT_TRUE(list_enqueue(&other, &e[4], &d[4]));

    EXPECT_EQ(list_remove(&l, &e[1], nullptr), &d[1]);
    EXPECT_TRUE(unlinked(e[1]));
    EXPECT_EQ(list_remove(&l, nullptr, &d[0]), &d[0]); // the first one
    EXPECT_TRUE(unlinked(e[0]));
    EXPECT_EQ(e[2].list, &l);
    EXPECT_EQ(contents(&l), data({0, 3}));

    EXPECT_EQ(list_remove(&l, nullptr, &d[6]), nullptr); // not on the list
    EXPECT_EQ(list_remove(&l, nullptr, nullptr), nullptr);
    EXPECT_EQ(list_remove(&l, &e[4], nullptr), nullptr); // on another list
    EXPECT_EQ(list_remove(&l, &e[1], nullptr), nullptr); // on none
    EXPECT_EQ(contents(&l), data({0, 3}));
    EXPECT_EQ(contents(&other), data({4}));

    l.flags = 0;
    EXPECT_EQ(list_remove(&l, &e[3], nullptr), nullptr);
    l.flags = LIST_FLAGS_VALID;
    EXPECT_EQ(list_remove(&l, &e[3], nullptr), &d[3]);
    EXPECT_EQ(list_remove(&l, nullptr, &d[0]), &d[0]);
    EXPECT_EQ(list_remove(&l, &e[3], &d[3]), nullptr); // empty
}

TEST_F(Plain, LookupWritesTheKeyIntoTheCallersElement)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[3]{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(&l, &e[i], &d[i + 1]));
    list_element probe{};
    int key = 2;
    EXPECT_EQ(list_lookup(&l, &probe, &key, cmp_int), &d[2]);
    EXPECT_EQ(probe.data, &key);
    EXPECT_TRUE(unlinked(probe));
    key = 9;
    EXPECT_EQ(list_lookup(&l, &probe, &key, cmp_int), nullptr);
    EXPECT_EQ(list_lookup(&l, nullptr, &key, cmp_int), nullptr); // plain: needs an element
    EXPECT_EQ(list_lookup(&l, &probe, &key, nullptr), nullptr);
    // VALID is not consulted.
    key = 3;
    l.flags = 0;
    EXPECT_EQ(list_lookup(&l, &probe, &key, cmp_int), &d[3]);
    EXPECT_EQ(contents(&l), data({1, 2, 3}));
}

// --- Default actions on an automatic list --------------------------------------

TEST_F(Automatic, EachEntryCostsOneRecordReleasedWhenItLeaves)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, "auto", LIST_FLAGS_AUTOMATIC), &l);
    size_t before = heap_in_use();
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        ASSERT_TRUE(list_enqueue(&l, nullptr, &d[1]));
        EXPECT_EQ(allocfail::count(), 1);
        ASSERT_TRUE(list_requeue(&l, nullptr, &d[0]));
        ASSERT_TRUE(list_enqueue(&l, nullptr, &d[2]));
        ASSERT_TRUE(list_insert(&l, nullptr, &d[3], cmp_int));
        EXPECT_EQ(allocfail::count(), 4);
    }
    EXPECT_GT(heap_in_use(), before);
    EXPECT_EQ(contents(&l), data({0, 1, 2, 3}));
    EXPECT_EQ(list_dequeue(&l), &d[0]);
    EXPECT_EQ(list_remove(&l, nullptr, &d[2]), &d[2]);
    EXPECT_EQ(list_remove(&l, l.tail, nullptr), &d[3]);
    EXPECT_EQ(list_dequeue(&l), &d[1]);
    EXPECT_EQ(heap_in_use(), before);
    zel_list_destroy(&l);
}

TEST_F(Automatic, EveryEnqueueRequeueAndInsertFailureReleasesTheRecord)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 2, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[3]));
    size_t before = heap_in_use();

    // Full: a record is allocated for the attempt and released again.
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        EXPECT_FALSE(list_enqueue(&l, nullptr, &d[5]));
        EXPECT_FALSE(list_requeue(&l, nullptr, &d[5]));
        EXPECT_FALSE(list_insert(&l, nullptr, &d[2], cmp_int));
    }
    EXPECT_EQ(heap_in_use(), before);

    l.maximum = 0;
    EXPECT_FALSE(list_insert(&l, nullptr, &d[3], cmp_int)); // duplicate
    EXPECT_FALSE(list_insert(&l, nullptr, &d[2], nullptr)); // no order
    l.flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(list_enqueue(&l, nullptr, &d[5]));
    EXPECT_FALSE(list_requeue(&l, nullptr, &d[5]));
    EXPECT_FALSE(list_insert(&l, nullptr, &d[2], cmp_int));
    l.flags |= LIST_FLAGS_VALID;
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(contents(&l), data({1, 3}));

    // A record handed to an automatic list belongs to it, and is released on
    // failure too.
    list_header elsewhere;
    for (int round = 0; round < 4; ++round) {
        auto *given = large_record();
        size_t with_given = heap_in_use();
        switch (round) {
        case 0: // full
            l.maximum = 2;
            EXPECT_FALSE(list_enqueue(&l, given, &d[5]));
            break;
        case 1: // not valid
            l.flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
            EXPECT_FALSE(list_requeue(&l, given, &d[5]));
            l.flags |= LIST_FLAGS_VALID;
            break;
        case 2: // duplicate
            l.maximum = 0;
            EXPECT_FALSE(list_insert(&l, given, &d[1], cmp_int));
            break;
        default: // claims to be linked
            given->list = &elsewhere;
            EXPECT_FALSE(list_requeue(&l, given, &d[5]));
            break;
        }
        EXPECT_LT(heap_in_use(), with_given) << round;
    }
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(contents(&l), data({1, 3}));
}

TEST_F(Automatic, AllocationFailureIsAPlainFailure)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    size_t before = heap_in_use();
    int key = 1;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(list_enqueue(&l, nullptr, &d[2]));
        EXPECT_FALSE(list_requeue(&l, nullptr, &d[2]));
        EXPECT_FALSE(list_insert(&l, nullptr, &d[2], cmp_int));
        EXPECT_EQ(list_lookup(&l, nullptr, &key, cmp_int), nullptr);
        EXPECT_EQ(allocfail::count(), 4);
    }
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(contents(&l), data({1}));
    EXPECT_TRUE(fake::syslog_lines().empty());

    // Only the nth allocation fails: the list goes on with the next entry.
    {
        allocfail::Guard g;
        allocfail::fail_nth(1);
        EXPECT_TRUE(list_enqueue(&l, nullptr, &d[2]));
        EXPECT_FALSE(list_enqueue(&l, nullptr, &d[3]));
        EXPECT_TRUE(list_enqueue(&l, nullptr, &d[4]));
    }
    EXPECT_EQ(contents(&l), data({1, 2, 4}));
    while (list_dequeue(&l)) {
    }
    EXPECT_LT(heap_in_use(), before);
}

TEST_F(Automatic, LookupUsesATemporaryRecordOnBothOutcomes)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[2]));
    size_t before = heap_in_use();
    int hit = 2, miss = 6;
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        EXPECT_EQ(list_lookup(&l, nullptr, &hit, cmp_int), &d[2]);
        EXPECT_EQ(list_lookup(&l, nullptr, &miss, cmp_int), nullptr);
        EXPECT_EQ(list_lookup(&l, nullptr, &hit, nullptr), nullptr); // nothing allocated
        EXPECT_EQ(allocfail::count(), 2);
    }
    EXPECT_EQ(heap_in_use(), before);
    // A given record is consumed, found or not, and with no order function.
    for (list_lookup_func_t f : {cmp_int, static_cast<list_lookup_func_t>(nullptr)}) {
        auto *given = large_record();
        EXPECT_EQ(list_lookup(&l, given, &hit, f), f ? &d[2] : nullptr);
        EXPECT_EQ(heap_in_use(), before);
    }
    EXPECT_EQ(contents(&l), data({1, 2}));
}

TEST_F(Automatic, FailedRemoveReleasesNothing)
{
    list_header l, other;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    ASSERT_EQ(zel_list_create(&other, 0, nullptr, LIST_FLAGS_AUTOMATIC), &other);
    ASSERT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    ASSERT_TRUE(list_enqueue(&other, nullptr, &d[2]));
    size_t before = heap_in_use();
    EXPECT_EQ(list_remove(&l, other.head, nullptr), nullptr);
    EXPECT_EQ(list_remove(&l, nullptr, &d[2]), nullptr);
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(contents(&other), data({2}));
    EXPECT_EQ(list_dequeue(&l), &d[1]);
    EXPECT_EQ(list_dequeue(&other), &d[2]);
}

// --- Custom action tables --------------------------------------------------------

namespace {
int custom_enqueues;
boolean counting_enqueue(list_header *l, list_element *e, void *data)
{
    ++custom_enqueues;
    return list_enqueue_default(l, e, data);
}
void *refusing_dequeue(list_header *)
{
    return nullptr;
}
} // namespace

TEST_F(List, CustomTableHasItsNullSlotsFilledInPlaceAndIsDispatchedTo)
{
    list_action_t mine{};
    mine.zel_enqueue = counting_enqueue;
    mine.zel_dequeue = refusing_dequeue;
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    EXPECT_EQ(zel_list_get_action(&l), &list_action_vectors_default);
    EXPECT_TRUE(zel_list_set_action(&l, &mine));
    EXPECT_EQ(zel_list_get_action(&l), &mine);
    EXPECT_EQ(mine.zel_enqueue, counting_enqueue);
    EXPECT_EQ(mine.zel_dequeue, refusing_dequeue);
    EXPECT_EQ(mine.zel_requeue, list_requeue_default);
    EXPECT_EQ(mine.insert, list_insert_default);
    EXPECT_EQ(mine.remove, list_remove_default);
    EXPECT_EQ(mine.lookup, list_lookup_default);
    // The default table itself is untouched.
    EXPECT_EQ(list_action_vectors_default.zel_enqueue, list_enqueue_default);
    EXPECT_EQ(list_action_vectors_default.zel_dequeue, list_dequeue_default);

    list_element e[2]{};
    EXPECT_TRUE(list_enqueue(&l, &e[0], &d[0]));
    EXPECT_TRUE(list_requeue(&l, &e[1], &d[1]));
    EXPECT_EQ(custom_enqueues, 1);
    EXPECT_EQ(list_dequeue(&l), nullptr);
    EXPECT_EQ(list_remove(&l, nullptr, &d[1]), &d[1]);

    EXPECT_TRUE(zel_list_set_action(&l, nullptr));
    EXPECT_EQ(zel_list_get_action(&l), &list_action_vectors_default);
    EXPECT_EQ(list_dequeue(&l), &d[0]);

    // A table whose slot is still null is refused by the header operation
    // rather than followed.
    list_action_t bare{};
    l.action = &bare;
    EXPECT_FALSE(list_enqueue(&l, &e[0], &d[0]));
    EXPECT_EQ(list_dequeue(&l), nullptr);
    l.action = nullptr;
    EXPECT_EQ(list_remove(&l, &e[0], nullptr), nullptr);
}

// --- Raw link operations ----------------------------------------------------------

TEST_F(List, InsertAndRemoveElementLinkWithoutChecks)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[3]{};
    e[0].data = &d[0];
    e[1].data = &d[1];
    e[2].data = &d[2];
    zel_list_insert_element(&l, nullptr, &e[1]);
    zel_list_insert_element(&l, nullptr, &e[0]);
    zel_list_insert_element(&l, &e[1], &e[2]);
    EXPECT_EQ(contents(&l), data({0, 1, 2}));
    zel_list_remove_element(&l, &e[1]);
    EXPECT_TRUE(unlinked(e[1]));
    EXPECT_EQ(contents(&l), data({0, 2}));
    zel_list_remove_element(&l, &e[2]);
    zel_list_remove_element(&l, &e[0]);
    EXPECT_EQ(contents(&l), std::vector<void *>{});
    zel_list_insert_element(nullptr, nullptr, &e[0]);
    zel_list_remove_element(&l, nullptr);
}

// --- Merge ----------------------------------------------------------------------------

TEST_F(List, MergeAppendsAndRelabelsTheSource)
{
    list_header dst, src;
    ASSERT_EQ(zel_list_create(&dst, 0, nullptr, 0), &dst);
    ASSERT_EQ(zel_list_create(&src, 0, nullptr, 0), &src);
    list_element e[4]{};
    ASSERT_TRUE(list_enqueue(&src, &e[2], &d[2]));
    ASSERT_TRUE(list_enqueue(&src, &e[3], &d[3]));
    // Into an empty list.
    EXPECT_TRUE(zel_list_merge(&dst, &src));
    EXPECT_EQ(contents(&dst), data({2, 3}));
    EXPECT_EQ(contents(&src), std::vector<void *>{});
    // An empty source is a success that changes nothing.
    EXPECT_TRUE(zel_list_merge(&dst, &src));
    EXPECT_EQ(contents(&dst), data({2, 3}));
    // Back onto a non-empty list.
    ASSERT_TRUE(list_enqueue(&src, &e[0], &d[0]));
    ASSERT_TRUE(list_enqueue(&src, &e[1], &d[1]));
    EXPECT_TRUE(zel_list_merge(&src, &dst));
    EXPECT_EQ(contents(&src), data({0, 1, 2, 3}));
    EXPECT_EQ(dst.head, nullptr);
}

TEST_F(List, MergeRefusals)
{
    list_header a, b, autol;
    ASSERT_EQ(zel_list_create(&a, 0, nullptr, 0), &a);
    ASSERT_EQ(zel_list_create(&b, 0, nullptr, 0), &b);
    ASSERT_EQ(zel_list_create(&autol, 0, nullptr, LIST_FLAGS_AUTOMATIC), &autol);
    list_element e[3]{};
    ASSERT_TRUE(list_enqueue(&a, &e[0], &d[0]));
    ASSERT_TRUE(list_enqueue(&b, &e[1], &d[1]));
    ASSERT_TRUE(list_enqueue(&autol, nullptr, &d[2]));

    EXPECT_FALSE(zel_list_merge(&a, &autol)); // automatic into plain
    EXPECT_FALSE(zel_list_merge(&autol, &a));
    EXPECT_FALSE(zel_list_merge(&a, &a)); // itself
    EXPECT_FALSE(zel_list_merge(nullptr, &a));
    EXPECT_FALSE(zel_list_merge(&a, nullptr));

    list_action_t copy = list_action_vectors_default; // a copy is not the default
    ASSERT_TRUE(zel_list_set_action(&b, &copy));
    EXPECT_FALSE(zel_list_merge(&a, &b));
    EXPECT_FALSE(zel_list_merge(&b, &a));
    zel_list_set_action(&b, nullptr);

    b.flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(zel_list_merge(&a, &b));
    EXPECT_FALSE(zel_list_merge(&b, &a));
    b.flags |= LIST_FLAGS_VALID;

    a.maximum = 1; // below the sum
    EXPECT_FALSE(zel_list_merge(&a, &b));
    EXPECT_EQ(contents(&a), data({0}));
    EXPECT_EQ(contents(&b), data({1}));
    a.maximum = 2; // reaching it exactly is fine
    EXPECT_TRUE(zel_list_merge(&a, &b));
    EXPECT_EQ(contents(&a), data({0, 1}));
    EXPECT_EQ(list_dequeue(&autol), &d[2]);
}

// --- Move -------------------------------------------------------------------------------

TEST_F(List, MoveToTheTailOfAnotherOrTheSameList)
{
    list_header a, b;
    ASSERT_EQ(zel_list_create(&a, 0, nullptr, 0), &a);
    ASSERT_EQ(zel_list_create(&b, 1, nullptr, LIST_FLAGS_AUTOMATIC), &b);
    list_element e[4]{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(&a, &e[i], &d[i]));
    ASSERT_TRUE(list_enqueue(&b, &e[3], &d[3]));

    EXPECT_TRUE(zel_list_move(&a, &e[0])); // own list: to the tail
    EXPECT_EQ(contents(&a), data({1, 2, 0}));
    EXPECT_TRUE(zel_list_move(&b, &e[2])); // maximum and AUTOMATIC not consulted
    EXPECT_EQ(contents(&a), data({1, 0}));
    EXPECT_EQ(contents(&b), data({3, 2}));
    EXPECT_TRUE(zel_list_move(&a, &e[3]));
    EXPECT_EQ(contents(&a), data({1, 0, 3}));
    EXPECT_EQ(contents(&b), data({2}));

    list_element loose{};
    EXPECT_FALSE(zel_list_move(&a, &loose)); // on no list
    EXPECT_FALSE(zel_list_move(&a, nullptr));
    EXPECT_FALSE(zel_list_move(nullptr, &e[0]));
    b.flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(zel_list_move(&b, &e[0]));
    EXPECT_FALSE(zel_list_move(&a, &e[2]));
    b.flags |= LIST_FLAGS_VALID;
    EXPECT_EQ(contents(&a), data({1, 0, 3}));
    EXPECT_EQ(contents(&b), data({2}));
    EXPECT_TRUE(unlinked(loose));
    zel_list_remove_element(&b, &e[2]); // not b's to release
}

// --- Excise -----------------------------------------------------------------------------

namespace {
// Links that must never be followed: reading through them faults.
list_element *const kGarbage = reinterpret_cast<list_element *>(uintptr_t{0x10});

struct ExciseCase {
    int n;       // elements on the list
    int victim;  // index excised
    std::vector<int> left;
};

void PrintTo(const ExciseCase &c, std::ostream *os)
{
    *os << "element " << c.victim << " of " << c.n;
}

class Excise : public ::testing::TestWithParam<ExciseCase> {
protected:
    void SetUp() override
    {
        zel_list_init();
        zel_memory_list_init();
    }
};
} // namespace

TEST_P(Excise, RepairsAroundAnElementWithGarbageLinks)
{
    const ExciseCase &c = GetParam();
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[4]{};
    for (int i = 0; i < c.n; ++i)
        ASSERT_TRUE(list_enqueue(&l, &e[i], &d[i]));
    list_element &v = e[c.victim];
    v.next = kGarbage;
    v.prev = kGarbage;
    v.list = nullptr;
    list_element snapshot = v;

    zel_list_excise(&l, &v);
    std::vector<void *> want;
    for (int i : c.left)
        want.push_back(&d[i]);
    EXPECT_EQ(contents(&l), want);
    EXPECT_EQ(memcmp(&snapshot, &v, sizeof v), 0); // not written
}

INSTANTIATE_TEST_SUITE_P(List, Excise,
                         ::testing::Values(ExciseCase{1, 0, {}}, ExciseCase{3, 0, {1, 2}}, ExciseCase{3, 1, {0, 2}},
                                           ExciseCase{3, 2, {0, 1}}, ExciseCase{4, 2, {0, 1, 3}},
                                           ExciseCase{2, 1, {0}}),
                         [](const ::testing::TestParamInfo<ExciseCase> &i) {
                             return "of" + std::to_string(i.param.n) + "_cut" + std::to_string(i.param.victim);
                         });

TEST_F(List, ExciseLeavesAListAloneWhenItCannotApply)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[2]{}, stranger{};
    stranger.next = kGarbage;
    stranger.prev = kGarbage;
    zel_list_excise(&l, &stranger); // empty
    ASSERT_TRUE(list_enqueue(&l, &e[0], &d[0]));
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    zel_list_excise(&l, &stranger); // not on this list
    EXPECT_EQ(contents(&l), data({0, 1}));
    l.flags = 0;
    zel_list_excise(&l, &e[0]); // not valid
    l.flags = LIST_FLAGS_VALID;
    EXPECT_EQ(contents(&l), data({0, 1}));
    zel_list_excise(nullptr, &e[0]);
}

// --- The checked walk step ---------------------------------------------------------------

namespace {
// Walks `l` with zel_list_check, calling `during` on each datum before the
// step; returns the data seen and whether the walk ended cleanly.
template <typename F> std::pair<std::vector<void *>, bool> walk(list_header *l, F during)
{
    std::vector<void *> seen;
    list_element *el = l->head;
    if (!el)
        return {seen, true};
    list_element *next = el->next;
    void *datum = el->data;
    bool ok = true;
    while (el) {
        seen.push_back(datum);
        during(el);
        ok = zel_list_check(&el, &next, &datum);
    }
    return {seen, ok};
}
} // namespace

TEST_F(List, CheckedWalkVisitsEveryElement)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[3]{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(&l, &e[i], &d[i]));
    auto [seen, ok] = walk(&l, [](list_element *) {});
    EXPECT_TRUE(ok);
    EXPECT_EQ(seen, data({0, 1, 2}));
}

TEST_F(List, CheckedWalkRefusesAChangedList)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, 0), &l);
    list_element e[3]{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(&l, &e[i], &d[i]));

    // The current element, not the last, removed after it was read.
    auto [seen, ok] = walk(&l, [&](list_element *el) {
        if (el == &e[1])
            list_remove(&l, el, nullptr);
    });
    EXPECT_FALSE(ok);
    EXPECT_EQ(seen, data({0, 1}));

    // Removing the last element is the end of the walk anyway.
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1]));
    auto [seen2, ok2] = walk(&l, [&](list_element *el) {
        if (el == &e[1])
            list_remove(&l, el, nullptr);
    });
    EXPECT_TRUE(ok2);
    EXPECT_EQ(seen2, data({0, 2, 1}));

    // Each condition on its own.
    ASSERT_TRUE(list_enqueue(&l, &e[1], &d[1])); // 0 2 1
    auto step = [&](list_element *cur, void *datum) {
        list_element *el = cur, *next = cur->next;
        void *dt = datum;
        bool r = zel_list_check(&el, &next, &dt);
        EXPECT_EQ(el, r ? cur->next : nullptr);
        return r;
    };
    EXPECT_TRUE(step(&e[0], &d[0]));
    EXPECT_FALSE(step(&e[0], &d[1])); // datum changed
    e[2].prev = nullptr;              // successor's back-link broken
    EXPECT_FALSE(step(&e[0], &d[0]));
    e[2].prev = &e[0];
    e[2].list = nullptr; // successor on another list
    EXPECT_FALSE(step(&e[0], &d[0]));
    e[2].list = &l;
    list_element self{};
    self.next = &self;
    self.prev = &self;
    EXPECT_FALSE(step(&self, nullptr)); // a ring of one

    list_element *none = nullptr, *next = &e[0];
    void *dt = nullptr;
    EXPECT_FALSE(zel_list_check(&none, &next, &dt));
    EXPECT_FALSE(zel_list_check(nullptr, &next, &dt));
    EXPECT_EQ(contents(&l), data({0, 2, 1}));
}
