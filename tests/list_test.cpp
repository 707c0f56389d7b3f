// Lists: registry, default actions on plain and automatic lists (success and
// failure branches, element records accounted for), custom action tables,
// merge, move, excise, the checked walk step and the destroy report. Every
// case runs in a fresh process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <malloc.h>
#include <string>
#include <vector>

#include <vobrel/list.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/list_private.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

// Heap bytes in use, to see records released. The allocator counts small
// freed blocks parked in its per-thread cache as in use, so tests that measure
// use records larger than that cache takes, and allocate nothing small of
// their own while measuring.
constexpr int kLarge = 4096;

size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

list_element *large_record()
{
    return static_cast<list_element *>(calloc(1, kLarge));
}

int d[8];

int32_t cmp_int(void *on_list, void *other)
{
    return static_cast<int32_t>(static_cast<int *>(on_list) - static_cast<int *>(other));
}

std::vector<void *> data(std::initializer_list<int> idx)
{
    std::vector<void *> out;
    for (int i : idx)
        out.push_back(&d[i]);
    return out;
}

// The data head to tail, after checking links, back-links, labels and count.
std::vector<void *> contents(const list_header *l)
{
    std::vector<void *> out;
    const list_element *prev = nullptr;
    for (const list_element *p = l->head; p && out.size() < 100; prev = p, p = p->next) {
        EXPECT_EQ(p->prev, prev);
        EXPECT_EQ(p->list, l);
        out.push_back(p->data);
    }
    EXPECT_EQ(l->tail, prev);
    EXPECT_EQ(l->count, out.size());
    return out;
}

bool unlinked(const list_element &e)
{
    return !e.next && !e.prev && !e.list;
}

void drain(list_header *l)
{
    while (list_dequeue(l)) {
    }
}

class List : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel_list_init();
        zel_memory_list_init();
    }
    list_header *plain(uint16_t maximum = 0, uint16_t flags = 0)
    {
        headers_.emplace_back();
        return zel_list_create(&headers_.back(), maximum, nullptr, flags);
    }
    std::list<list_header> headers_;
};

// Lists whose records are large enough for heap_in_use() to see them go.
class Measured : public List {
protected:
    void SetUp() override
    {
        List::SetUp();
        list_element_chunk = kLarge;
        list_header_chunk = kLarge;
    }
};
using Automatic = Measured;

} // namespace

// --- Set-up and the registry ----------------------------------------------------

TEST(ListModule, NothingIsAllocatedOrRegisteredBeforeSetUp)
{
    EXPECT_EQ(list_element_chunk, 0);
    EXPECT_EQ(list_header_chunk, 0);
    list_header l;
    EXPECT_EQ(zel_list_create(&l, 0, "early", 0), nullptr); // no registry yet
    EXPECT_EQ(l.flags & LIST_FLAGS_VALID, 0);
    EXPECT_EQ(zel_list_create(nullptr, 0, nullptr, 0), nullptr); // no header size yet
    ASSERT_EQ(zel_list_create(&l, 0, nullptr, LIST_FLAGS_AUTOMATIC), &l);
    EXPECT_FALSE(list_enqueue(&l, nullptr, &d[1])); // no element size yet

    zel_memory_list_init();
    EXPECT_EQ(list_element_chunk, static_cast<int>(sizeof(list_element)));
    EXPECT_EQ(list_header_chunk, static_cast<int>(sizeof(list_header)));
    EXPECT_TRUE(list_enqueue(&l, nullptr, &d[1]));
    EXPECT_EQ(list_dequeue(&l), &d[1]);
}

TEST_F(List, NamedListsAreNumberedAndRegisteredUntilDestroyed)
{
    const list_header *q = zel_list_get_listQ();
    EXPECT_EQ(q->ID, 0u);
    EXPECT_STREQ(q->name, "(unknown)");
    EXPECT_EQ(q->flags, LIST_FLAGS_INTERRUPT_SAFE | LIST_FLAGS_VALID);
    EXPECT_EQ(q->element.list, nullptr);

    list_header mine;
    memset(&mine, 0xa5, sizeof mine);
    list_header *b = zel_list_create(nullptr, 0, "bee", 0xffff);
    ASSERT_EQ(zel_list_create(&mine, 7, "mine", 0xffff), &mine);
    list_header *anon = zel_list_create(nullptr, 0, nullptr, 0);
    ASSERT_TRUE(b && anon);
    EXPECT_EQ(b->ID, 1u);
    EXPECT_EQ(mine.ID, 2u);
    EXPECT_EQ(zel_list_get_list_ID(), 4u);
    EXPECT_EQ(b->flags, 0xff0f);
    EXPECT_EQ(mine.flags, 0xff0d);
    EXPECT_EQ(mine.maximum, 7u);
    EXPECT_EQ(mine.context, nullptr);
    EXPECT_EQ(mine.info, list_info_default);
    EXPECT_EQ(mine.action, &list_action_vectors_default);
    EXPECT_STREQ(anon->name, "(unknown)");
    EXPECT_EQ(contents(q), (std::vector<void *>{b, &mine})); // headers as data
    EXPECT_EQ(anon->element.list, nullptr);

    zel_list_destroy(b);
    EXPECT_EQ(contents(q), std::vector<void *>{&mine});
    zel_list_destroy(&mine);
    EXPECT_EQ(mine.flags, 0);
    EXPECT_TRUE(unlinked(mine.element));
    EXPECT_EQ(q->count, 0u);
    zel_list_destroy(anon);
    zel_list_destroy(nullptr);
    EXPECT_TRUE(fake::syslog_lines().empty());
}

TEST_F(Measured, FailedCreateReleasesTheHeaderItAllocated)
{
    size_t before = heap_in_use();
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_EQ(zel_list_create(nullptr, 0, "x", 0), nullptr);
    }
    // A full registry refuses the next registration.
    auto *q = const_cast<list_header *>(zel_list_get_listQ());
    q->maximum = 1;
    list_header *first = zel_list_create(nullptr, 0, "first", 0);
    ASSERT_NE(first, nullptr);
    size_t with_first = heap_in_use();
    EXPECT_EQ(zel_list_create(nullptr, 0, "second", 0), nullptr);
    EXPECT_EQ(heap_in_use(), with_first);
    list_header mine;
    EXPECT_EQ(zel_list_create(&mine, 3, "third", LIST_FLAGS_AUTOMATIC), nullptr);
    EXPECT_EQ(mine.flags, LIST_FLAGS_AUTOMATIC); // never made valid
    EXPECT_TRUE(q->count == 1 && q->head->data == first);
    zel_list_destroy(first);
    EXPECT_EQ(heap_in_use(), before);
}

TEST_F(List, ReinitStartsAFreshRegistryThatOldListsLeaveAlone)
{
    list_header *old = zel_list_create(nullptr, 0, "old", 0);
    zel_list_init();
    EXPECT_EQ(zel_list_get_list_ID(), 1u);
    list_header *fresh = zel_list_create(nullptr, 0, "fresh", 0);
    ASSERT_TRUE(old && fresh);
    EXPECT_EQ(fresh->ID, 1u);
    zel_list_destroy(old); // released (the leak checker would see it otherwise)
    EXPECT_EQ(contents(zel_list_get_listQ()), std::vector<void *>{fresh});
    zel_list_destroy(fresh);
}

TEST_F(List, DestroyingANonEmptyListReportsAndStillDestroys)
{
    list_header l;
    ASSERT_EQ(zel_list_create(&l, 0, "busy", 0), &l);
    list_element e[2]{};
    ASSERT_TRUE(list_enqueue(&l, &e[0], &d[0]) && list_enqueue(&l, &e[1], &d[1]));
    zel_list_destroy(&l);

    char want[128];
    snprintf(want, sizeof want, "Removed a non-empty list(%x, name: busy), having 2 elements",
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(&l)));
    auto lines = fake::syslog_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].line, std::string("%SYS-3-BADLIST_DESTROY:") + want);
    EXPECT_EQ(fake::log_messages(), std::vector<std::string>{want});
    EXPECT_EQ(l.flags, 0);
    EXPECT_EQ(zel_list_get_listQ()->count, 0u);
    EXPECT_TRUE(e[0].next == &e[1] && e[1].prev == &e[0] && e[0].list == &l); // links kept
}

TEST_F(List, UserFlagsStayInTheUserMask)
{
    list_header *l = plain(0, 0x0100);
    EXPECT_EQ(zel_list_set_flags_user(l, 0x2007), 0x2100); // low bits ignored
    EXPECT_EQ(zel_list_get_flags_user(l, 0xf0ff), 0x2000);
    EXPECT_EQ(zel_list_clear_flags_user(l, 0x01ff), 0x2000);
    zel_list_set_automatic(l, TRUE);
    zel_list_set_interrupt_safe(l, TRUE);
    EXPECT_EQ(l->flags, 0x200d);
    zel_list_set_automatic(l, FALSE);
    EXPECT_EQ(l->flags, 0x2009);
    EXPECT_TRUE(zel_list_set_info(l, nullptr) && l->info == list_info_default);
}

// --- Default actions on a plain list -----------------------------------------------

TEST_F(List, PlainEnqueueRequeueDequeueAndTheirFailures)
{
    list_header *l = plain(3);
    list_element e[4]{};
    EXPECT_TRUE(list_requeue(l, &e[0], &d[0])); // on an empty list: head and tail
    EXPECT_TRUE(list_enqueue(l, &e[1], &d[1]));
    EXPECT_TRUE(list_requeue(l, &e[2], &d[2]));
    EXPECT_EQ(contents(l), data({2, 0, 1}));
    EXPECT_FALSE(list_enqueue(l, &e[3], &d[3])); // full
    EXPECT_FALSE(list_requeue(l, &e[3], &d[3]));
    l->maximum = 0;
    EXPECT_FALSE(list_enqueue(l, nullptr, &d[3])); // plain lists allocate nothing
    EXPECT_FALSE(list_requeue(l, &e[0], &d[3]));   // already linked
    EXPECT_EQ(e[0].data, &d[0]);
    l->flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(list_enqueue(l, &e[3], &d[3]));
    EXPECT_EQ(list_dequeue(l), nullptr);
    l->flags |= LIST_FLAGS_VALID;
    EXPECT_TRUE(unlinked(e[3]));
    EXPECT_EQ(contents(l), data({2, 0, 1}));

    EXPECT_EQ(list_dequeue(l), &d[2]);
    EXPECT_TRUE(unlinked(e[2]));
    EXPECT_EQ(list_dequeue(l), &d[0]);
    EXPECT_EQ(list_dequeue(l), &d[1]);
    EXPECT_EQ(list_dequeue(l), nullptr);
    EXPECT_FALSE(list_enqueue(nullptr, &e[3], &d[3]) || list_enqueue_default(nullptr, &e[3], &d[3]));
    EXPECT_EQ(list_dequeue_default(nullptr), nullptr);
}

TEST_F(List, PlainInsertKeepsAscendingUniqueOrder)
{
    list_header *l = plain();
    list_element e[6]{};
    int n = 0;
    for (int i : {5, 1, 7, 3}) // tail, head, tail, middle
        EXPECT_TRUE(list_insert(l, &e[n++], &d[i], cmp_int));
    EXPECT_EQ(contents(l), data({1, 3, 5, 7}));
    EXPECT_FALSE(list_insert(l, &e[4], &d[3], cmp_int)); // equal key
    EXPECT_FALSE(list_insert(l, &e[4], &d[4], nullptr));
    EXPECT_FALSE(list_insert(l, nullptr, &d[4], cmp_int));
    EXPECT_FALSE(list_insert(l, &e[0], &d[4], cmp_int)); // linked
    l->maximum = 4;
    EXPECT_FALSE(list_insert(l, &e[4], &d[4], cmp_int));
    l->maximum = 0;
    EXPECT_TRUE(unlinked(e[4]));
    EXPECT_EQ(contents(l), data({1, 3, 5, 7}));
    EXPECT_TRUE(list_insert(l, &e[4], &d[4], cmp_int));
    EXPECT_EQ(contents(l), data({1, 3, 4, 5, 7}));
}

TEST_F(List, PlainRemoveByElementOrByDatum)
{
    list_header *l = plain(), *other = plain();
    list_element e[5]{};
    for (int i : {0, 1, 0, 3})
        ASSERT_TRUE(list_enqueue(l, &e[l->count], &d[i]));
    ASSERT_TRUE(list_enqueue(other, &e[4], &d[4]));
    EXPECT_EQ(list_remove(l, &e[1], nullptr), &d[1]);
    EXPECT_TRUE(unlinked(e[1]));
    EXPECT_EQ(list_remove(l, nullptr, &d[0]), &d[0]); // the first of two
    EXPECT_TRUE(unlinked(e[0]));
    EXPECT_EQ(list_remove(l, nullptr, &d[6]), nullptr);
    EXPECT_EQ(list_remove(l, nullptr, nullptr), nullptr);
    EXPECT_EQ(list_remove(l, &e[4], nullptr), nullptr); // another list's
    EXPECT_EQ(list_remove(l, &e[1], nullptr), nullptr); // on none
    EXPECT_EQ(contents(l), data({0, 3}));
    EXPECT_EQ(contents(other), data({4}));
}

TEST_F(List, PlainLookupWritesTheKeyAndIgnoresValid)
{
    list_header *l = plain();
    list_element e[3]{}, probe{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(l, &e[i], &d[i]));
    EXPECT_EQ(list_lookup(l, &probe, &d[2], cmp_int), &d[2]);
    EXPECT_EQ(probe.data, &d[2]);
    EXPECT_TRUE(unlinked(probe));
    EXPECT_EQ(list_lookup(l, &probe, &d[5], cmp_int), nullptr);
    EXPECT_EQ(list_lookup(l, nullptr, &d[1], cmp_int), nullptr); // needs an element
    EXPECT_EQ(list_lookup(l, &probe, &d[1], nullptr), nullptr);
    l->flags = 0;
    EXPECT_EQ(list_lookup(l, &probe, &d[1], cmp_int), &d[1]);
}

// --- Default actions on an automatic list ---------------------------------------------

TEST_F(Automatic, EachEntryCostsOneRecordReleasedWhenItLeaves)
{
    list_header *l = plain(0, LIST_FLAGS_AUTOMATIC);
    size_t before = heap_in_use();
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        ASSERT_TRUE(list_enqueue(l, nullptr, &d[1]) && list_requeue(l, nullptr, &d[0]));
        ASSERT_TRUE(list_enqueue(l, nullptr, &d[2]) && list_insert(l, nullptr, &d[3], cmp_int));
        EXPECT_EQ(allocfail::count(), 4);
    }
    EXPECT_EQ(l->count, 4u); // (no test-side allocation while measuring)
    EXPECT_EQ(list_dequeue(l), &d[0]);
    EXPECT_EQ(list_remove(l, nullptr, &d[2]), &d[2]);
    EXPECT_EQ(list_remove(l, l->tail, nullptr), &d[3]);
    EXPECT_EQ(list_dequeue(l), &d[1]);
    EXPECT_EQ(heap_in_use(), before);
}

TEST_F(Automatic, EveryEnqueueRequeueAndInsertFailureReleasesTheRecord)
{
    list_header *l = plain(2, LIST_FLAGS_AUTOMATIC);
    ASSERT_TRUE(list_enqueue(l, nullptr, &d[1]) && list_enqueue(l, nullptr, &d[3]));
    size_t before = heap_in_use();
    // Full: a record is allocated for the attempt and released again.
    EXPECT_FALSE(list_enqueue(l, nullptr, &d[5]) || list_requeue(l, nullptr, &d[5]) ||
                 list_insert(l, nullptr, &d[2], cmp_int));
    l->maximum = 0;
    EXPECT_FALSE(list_insert(l, nullptr, &d[3], cmp_int) || list_insert(l, nullptr, &d[2], nullptr));
    l->flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(list_enqueue(l, nullptr, &d[5]) || list_requeue(l, nullptr, &d[5]) ||
                 list_insert(l, nullptr, &d[2], cmp_int));
    l->flags |= LIST_FLAGS_VALID;
    EXPECT_EQ(heap_in_use(), before);

    // A record handed over belongs to the list: released on failure too.
    list_header elsewhere;
    for (int round = 0; round < 3; ++round) {
        list_element *given = large_record();
        size_t with_given = heap_in_use();
        switch (round) {
        case 0:
            EXPECT_FALSE(list_insert(l, given, &d[1], cmp_int)); // duplicate
            break;
        case 1:
            l->maximum = 2;
            EXPECT_FALSE(list_enqueue(l, given, &d[5])); // full
            l->maximum = 0;
            break;
        default:
            given->list = &elsewhere;
            EXPECT_FALSE(list_requeue(l, given, &d[5])); // claims a list
        }
        EXPECT_LT(heap_in_use(), with_given) << round;
    }
    EXPECT_EQ(contents(l), data({1, 3}));
    drain(l);
}

TEST_F(Automatic, AllocationFailureIsAPlainFailure)
{
    list_header *l = plain(0, LIST_FLAGS_AUTOMATIC);
    ASSERT_TRUE(list_enqueue(l, nullptr, &d[1]));
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_FALSE(list_enqueue(l, nullptr, &d[2]) || list_requeue(l, nullptr, &d[2]) ||
                     list_insert(l, nullptr, &d[2], cmp_int));
        EXPECT_EQ(list_lookup(l, nullptr, &d[1], cmp_int), nullptr);
        EXPECT_EQ(allocfail::count(), 4);
        allocfail::fail_nth(1);
        EXPECT_TRUE(list_enqueue(l, nullptr, &d[2]));
        EXPECT_FALSE(list_enqueue(l, nullptr, &d[3]));
        EXPECT_TRUE(list_enqueue(l, nullptr, &d[4]));
    }
    EXPECT_EQ(contents(l), data({1, 2, 4}));
    EXPECT_TRUE(fake::syslog_lines().empty());
    drain(l);
}

TEST_F(Automatic, LookupUsesATemporaryRecordAndRemoveReleasesOnlyOnSuccess)
{
    list_header *l = plain(0, LIST_FLAGS_AUTOMATIC), *other = plain(0, LIST_FLAGS_AUTOMATIC);
    ASSERT_TRUE(list_enqueue(l, nullptr, &d[1]) && list_enqueue(l, nullptr, &d[2]));
    ASSERT_TRUE(list_enqueue(other, nullptr, &d[3]));
    size_t before = heap_in_use();
    {
        allocfail::Guard g;
        allocfail::count_from_now();
        EXPECT_EQ(list_lookup(l, nullptr, &d[2], cmp_int), &d[2]);
        EXPECT_EQ(list_lookup(l, nullptr, &d[6], cmp_int), nullptr);
        EXPECT_EQ(list_lookup(l, nullptr, &d[2], nullptr), nullptr);
        EXPECT_EQ(allocfail::count(), 2);
    }
    for (list_lookup_func_t f : {cmp_int, static_cast<list_lookup_func_t>(nullptr)})
        EXPECT_EQ(list_lookup(l, large_record(), &d[2], f), f ? &d[2] : nullptr); // consumed either way
    // A failed remove keeps its element: it may be on another list.
    EXPECT_EQ(list_remove(l, other->head, nullptr), nullptr);
    EXPECT_EQ(list_remove(l, nullptr, &d[3]), nullptr);
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_EQ(contents(other), data({3}));
    drain(l);
    drain(other);
}

// --- Custom action tables -----------------------------------------------------------------

namespace {
int custom_enqueues;
boolean counting_enqueue(list_header *l, list_element *e, void *p)
{
    ++custom_enqueues;
    return list_enqueue_default(l, e, p);
}
void *refusing_dequeue(list_header *)
{
    return nullptr;
}
} // namespace

TEST_F(List, CustomTableHasNullSlotsFilledInPlaceAndIsDispatchedTo)
{
    list_action_t mine{};
    mine.zel_enqueue = counting_enqueue;
    mine.zel_dequeue = refusing_dequeue;
    list_header *l = plain();
    EXPECT_TRUE(zel_list_set_action(l, &mine));
    EXPECT_EQ(zel_list_get_action(l), &mine);
    EXPECT_TRUE(mine.zel_enqueue == counting_enqueue && mine.zel_dequeue == refusing_dequeue);
    EXPECT_TRUE(mine.zel_requeue == list_requeue_default && mine.insert == list_insert_default &&
                mine.remove == list_remove_default && mine.lookup == list_lookup_default);
    EXPECT_EQ(list_action_vectors_default.zel_enqueue, list_enqueue_default);

    list_element e[2]{};
    EXPECT_TRUE(list_enqueue(l, &e[0], &d[0]) && list_requeue(l, &e[1], &d[1]));
    EXPECT_EQ(custom_enqueues, 1);
    EXPECT_EQ(list_dequeue(l), nullptr);
    EXPECT_TRUE(zel_list_set_action(l, nullptr));
    EXPECT_EQ(zel_list_get_action(l), &list_action_vectors_default);
    EXPECT_EQ(list_dequeue(l), &d[1]);

    // A slot left null (table set without zel_list_set_action) is refused.
    list_action_t bare{};
    l->action = &bare;
    EXPECT_FALSE(list_enqueue(l, &e[1], &d[1]));
    EXPECT_EQ(list_remove(l, &e[0], nullptr), nullptr);
}

// --- Raw links, merge, move ---------------------------------------------------------------

TEST_F(List, RawInsertAndRemoveElement)
{
    list_header *l = plain();
    list_element e[3]{{nullptr, nullptr, &d[0], nullptr}, {nullptr, nullptr, &d[1], nullptr},
                      {nullptr, nullptr, &d[2], nullptr}};
    zel_list_insert_element(l, nullptr, &e[1]);
    zel_list_insert_element(l, nullptr, &e[0]);
    zel_list_insert_element(l, &e[1], &e[2]);
    EXPECT_EQ(contents(l), data({0, 1, 2}));
    zel_list_remove_element(l, &e[1]);
    EXPECT_TRUE(unlinked(e[1]));
    EXPECT_EQ(contents(l), data({0, 2}));
    // Unchecked: the count dropped is that of the list the element names.
    list_header *other = plain();
    other->count = 5;
    e[2].list = other;
    zel_list_remove_element(l, &e[2]);
    EXPECT_EQ(other->count, 4u);
    EXPECT_EQ(l->count, 2u);
    EXPECT_TRUE(l->head == &e[0] && l->tail == &e[0] && !e[0].next);
}

TEST_F(List, MergeAppendsAndRelabels)
{
    list_header *dst = plain(), *src = plain();
    list_element e[4]{};
    ASSERT_TRUE(list_enqueue(src, &e[2], &d[2]) && list_enqueue(src, &e[3], &d[3]));
    EXPECT_TRUE(zel_list_merge(dst, src)); // into an empty list
    EXPECT_EQ(contents(dst), data({2, 3}));
    EXPECT_EQ(contents(src), std::vector<void *>{});
    EXPECT_TRUE(zel_list_merge(dst, src)); // empty source
    ASSERT_TRUE(list_enqueue(src, &e[0], &d[0]) && list_enqueue(src, &e[1], &d[1]));
    src->maximum = 4; // reaching the maximum exactly is fine
    EXPECT_TRUE(zel_list_merge(src, dst));
    EXPECT_EQ(contents(src), data({0, 1, 2, 3}));
    EXPECT_EQ(dst->head, nullptr);
}

TEST_F(List, MergeRefusals)
{
    list_header *a = plain(1), *b = plain(), *autol = plain(0, LIST_FLAGS_AUTOMATIC);
    list_element e[2]{};
    ASSERT_TRUE(list_enqueue(a, &e[0], &d[0]) && list_enqueue(b, &e[1], &d[1]));
    ASSERT_TRUE(list_enqueue(autol, nullptr, &d[2]));
    EXPECT_FALSE(zel_list_merge(b, autol) || zel_list_merge(autol, b)); // automatic vs plain
    EXPECT_FALSE(zel_list_merge(b, b) || zel_list_merge(nullptr, b));
    EXPECT_FALSE(zel_list_merge(a, b)); // above a's maximum
    list_action_t copy = list_action_vectors_default; // a copy is not the default
    zel_list_set_action(b, &copy);
    a->maximum = 0;
    EXPECT_FALSE(zel_list_merge(a, b) || zel_list_merge(b, a));
    zel_list_set_action(b, nullptr);
    b->flags = 0;
    EXPECT_FALSE(zel_list_merge(a, b) || zel_list_merge(b, a));
    b->flags = LIST_FLAGS_VALID;
    EXPECT_EQ(contents(a), data({0}));
    EXPECT_EQ(contents(b), data({1}));
    EXPECT_TRUE(zel_list_merge(a, b));
    drain(autol);
}

TEST_F(List, MoveToTheTailOfAnotherOrTheSameList)
{
    list_header *a = plain(), *b = plain(1, LIST_FLAGS_AUTOMATIC);
    list_element e[3]{}, loose{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(a, &e[i], &d[i]));
    EXPECT_TRUE(zel_list_move(a, &e[0])); // own list: to the tail
    EXPECT_EQ(contents(a), data({1, 2, 0}));
    EXPECT_TRUE(zel_list_move(b, &e[2]) && zel_list_move(b, &e[1])); // maximum not consulted
    EXPECT_EQ(contents(a), data({0}));
    EXPECT_EQ(contents(b), data({2, 1}));
    EXPECT_FALSE(zel_list_move(a, &loose) || zel_list_move(a, nullptr) || zel_list_move(nullptr, &e[0]));
    b->flags &= static_cast<uint16_t>(~LIST_FLAGS_VALID);
    EXPECT_FALSE(zel_list_move(b, &e[0]) || zel_list_move(a, &e[2]));
    EXPECT_EQ(contents(a), data({0}));
    EXPECT_TRUE(unlinked(loose));
}

// --- Excise ---------------------------------------------------------------------------------

namespace {
// Links that fault if followed.
list_element *const kGarbage = reinterpret_cast<list_element *>(uintptr_t{0x10});
} // namespace

TEST_F(List, ExciseRepairsAroundAnElementWithGarbageLinks)
{
    struct Case {
        int n, cut;
        std::vector<void *> left;
    };
    for (const Case &c : {Case{1, 0, {}}, Case{3, 0, data({1, 2})}, Case{3, 1, data({0, 2})},
                          Case{3, 2, data({0, 1})}, Case{4, 2, data({0, 1, 3})}}) {
        list_header *l = plain();
        list_element e[4]{};
        for (int i = 0; i < c.n; ++i)
            ASSERT_TRUE(list_enqueue(l, &e[i], &d[i]));
        e[c.cut].next = e[c.cut].prev = kGarbage;
        list_element snapshot = e[c.cut];
        zel_list_excise(l, &e[c.cut]);
        EXPECT_EQ(contents(l), c.left) << c.cut << " of " << c.n;
        EXPECT_EQ(memcmp(&snapshot, &e[c.cut], sizeof snapshot), 0); // not written
    }
    list_header *l = plain();
    list_element e[2]{}, stranger{kGarbage, kGarbage, nullptr, nullptr};
    zel_list_excise(l, &stranger); // empty
    ASSERT_TRUE(list_enqueue(l, &e[0], &d[0]) && list_enqueue(l, &e[1], &d[1]));
    zel_list_excise(l, &stranger); // not on the list
    l->flags = 0;
    zel_list_excise(l, &e[0]); // not valid
    l->flags = LIST_FLAGS_VALID;
    EXPECT_EQ(contents(l), data({0, 1}));
}

// --- The checked walk step --------------------------------------------------------------------

TEST_F(List, CheckedWalkRefusesAChangedList)
{
    list_header *l = plain();
    list_element e[3]{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(l, &e[i], &d[i]));
    // Walks, removing the element `cut` once it has been read.
    auto walk = [&](list_element *cut, std::vector<void *> &seen) {
        list_element *el = l->head, *next = el->next;
        void *datum = el->data;
        bool ok = true;
        while (el) {
            seen.push_back(datum);
            if (el == cut)
                list_remove(l, el, nullptr);
            ok = zel_list_check(&el, &next, &datum);
        }
        return ok;
    };
    std::vector<void *> seen;
    EXPECT_TRUE(walk(nullptr, seen));
    EXPECT_EQ(seen, data({0, 1, 2}));
    seen.clear();
    EXPECT_FALSE(walk(&e[1], seen)); // the current element, not the last
    EXPECT_EQ(seen, data({0, 1}));
    seen.clear();
    EXPECT_TRUE(walk(&e[2], seen)); // the last: the walk is over anyway
    EXPECT_EQ(seen, data({0, 2}));

    ASSERT_TRUE(list_enqueue(l, &e[1], &d[1])); // 0 1
    auto step = [](list_element *cur, void *datum) {
        list_element *el = cur, *next = cur->next;
        bool ok = zel_list_check(&el, &next, &datum);
        EXPECT_EQ(el, ok ? cur->next : nullptr);
        return ok;
    };
    EXPECT_TRUE(step(&e[0], &d[0]));
    EXPECT_FALSE(step(&e[0], &d[2])); // datum changed
    e[1].prev = nullptr;
    EXPECT_FALSE(step(&e[0], &d[0])); // back-link broken
    e[1].prev = &e[0];
    e[1].list = nullptr;
    EXPECT_FALSE(step(&e[0], &d[0])); // on another list
    e[1].list = l;
    list_element ring{};
    ring.next = ring.prev = &ring;
    EXPECT_FALSE(step(&ring, nullptr));
}
