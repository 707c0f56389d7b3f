// Lists: what their model (fuzz/list_fuzz.cpp) does not reach: records
// released on failure and refusal, invalid and full lists, custom tables with
// null slots, null arguments and the checked walk refusing a changed list.
// Every case runs in a fresh process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <malloc.h>
#include <vector>

#include <vobrel/list.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"
#include "util/src/list_private.h"

// Heap bytes in use, to see records released. The allocator counts small
// freed blocks parked in its per-thread cache as in use, so the fixture makes
// records larger than that cache takes, and tests allocate nothing small of
// their own while measuring.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
static size_t heap_in_use() { return __sanitizer_get_current_allocated_bytes(); }
#else
static size_t heap_in_use() { return mallinfo2().uordblks; }
#endif

namespace {

using V = std::vector<void *>;
constexpr int kLarge = 4096;
int d[8];
list_header headers[16];
int made;

list_header *make(uint16_t max = 0, uint16_t flags = 0)
{
    return zel_list_create(&headers[made++], max, nullptr, flags);
}
list_element *large_record() { return static_cast<list_element *>(calloc(1, kLarge)); }
bool unlinked(const list_element &e) { return !e.next && !e.prev && !e.list; }
int32_t cmp_int(void *a, void *b) { return static_cast<int32_t>(static_cast<int *>(a) - static_cast<int *>(b)); }

// The data head to tail, after checking links, back-links, labels and count.
V contents(const list_header *l)
{
    V out;
    const list_element *prev = nullptr;
    for (const list_element *p = l->head; p && out.size() < 100; prev = p, p = p->next) {
        EXPECT_TRUE(p->prev == prev && p->list == l) << out.size();
        out.push_back(p->data);
    }
    EXPECT_TRUE(l->tail == prev && l->count == out.size());
    return out;
}

// Enqueue, requeue and insert of d[2]; then inserts refused on any list
// holding d[1] (duplicate key, no order function).
using Add = boolean (*)(list_header *, list_element *);
const Add kAdds[] = {[](list_header *l, list_element *e) { return list_enqueue(l, e, &d[2]); },
                     [](list_header *l, list_element *e) { return list_requeue(l, e, &d[2]); },
                     [](list_header *l, list_element *e) { return list_insert(l, e, &d[2], cmp_int); }};
const Add kAlwaysRefused[] = {[](list_header *l, list_element *e) { return list_insert(l, e, &d[1], cmp_int); },
                              [](list_header *l, list_element *e) { return list_insert(l, e, &d[2], nullptr); }};

struct List : ::testing::Test {
    void SetUp() override
    {
        zel_list_init();
        zel_memory_list_init();
        list_element_chunk = vobrel::detail::list_header_chunk = kLarge;
        made = 0;
        fake::clear_recordings();
    }
};

} // namespace

// (A failed allocation is swept in alloc_sweep_test.)
TEST_F(List, FailedCreateReleasesTheHeaderItAllocated)
{
    size_t before = heap_in_use();
    auto *q = const_cast<list_header *>(zel_list_get_listQ());
    q->maximum = 1; // a full registry refuses the next registration
    list_header *first = zel_list_create(nullptr, 0, "first", 0), mine;
    EXPECT_EQ(zel_list_create(nullptr, 0, "second", 0), nullptr);
    EXPECT_EQ(zel_list_create(&mine, 3, "third", LIST_FLAGS_AUTOMATIC), nullptr);
    EXPECT_EQ(mine.flags, LIST_FLAGS_AUTOMATIC); // never made valid
    ASSERT_TRUE(q->count == 1 && q->head->data == first);
    zel_list_destroy(first);
    EXPECT_EQ(heap_in_use(), before);
}

TEST_F(List, RefusalsChangeNothingAndReleaseTheRecordTheyHold)
{
    list_header *plain = make(), *autol = make(0, LIST_FLAGS_AUTOMATIC), elsewhere;
    list_element on{}, e{};
    ASSERT_TRUE(list_enqueue(plain, &on, &d[1]) && list_enqueue(autol, nullptr, &d[1]));
    size_t before = heap_in_use();
    // An element free to take: on the automatic list a record handed over.
    auto free_el = [&](list_header *l) { return l == plain ? &e : large_record(); };
    // Refused by any list: an element already on a list, and by the plain one
    // none. By a full or invalid one also an element free to take, and none
    // (the automatic list's own).
    auto refused = [&](list_header *l, Add add, bool any) {
        list_element *linked = l == plain ? &on : large_record();
        linked->list = l == plain ? plain : &elsewhere;
        EXPECT_FALSE(add(l, linked) || (any && add(l, free_el(l))) || ((any || l == plain) && add(l, nullptr)));
    };
    for (list_header *l : {plain, autol}) {
        for (int state : {0, 1, 2}) { // full, not valid, as it was
            l->maximum = state == 0;
            l->flags = static_cast<uint16_t>(state == 1 ? l->flags & ~LIST_FLAGS_VALID : l->flags | LIST_FLAGS_VALID);
            for (Add add : kAdds)
                refused(l, add, state < 2);
            EXPECT_TRUE(state != 1 || (!list_dequeue(l) && !list_remove(l, l->head, nullptr)));
        }
        for (Add add : kAlwaysRefused)
            refused(l, add, true);
        // Not removed, and kept: an element on no list or on another list.
        for (list_element *x : {&e, (l == plain ? autol : plain)->head, static_cast<list_element *>(nullptr)})
            EXPECT_EQ(list_remove(l, x, nullptr), nullptr);
        EXPECT_TRUE(!list_remove(l, nullptr, &d[6]) && !list_lookup(l, free_el(l), &d[6], cmp_int));
        EXPECT_EQ(list_lookup(l, free_el(l), &d[1], nullptr), nullptr);
    }
    EXPECT_EQ(list_lookup(plain, nullptr, &d[1], cmp_int), nullptr); // a plain list allocates nothing
    {
        allocfail::Guard g;
        allocfail::fail_all(); // failing to allocate is a quiet refusal
        for (Add add : kAdds)
            EXPECT_FALSE(add(autol, nullptr));
        EXPECT_TRUE(!list_lookup(autol, nullptr, &d[1], cmp_int) && allocfail::count() == 4);
    }
    EXPECT_EQ(heap_in_use(), before);
    EXPECT_TRUE(unlinked(e) && on.data == &d[1] && fake::syslog_lines().empty());
    EXPECT_TRUE(contents(plain) == V{&d[1]} && contents(autol) == V{&d[1]});
    EXPECT_FALSE(list_enqueue_default(nullptr, &e, &d[0]) || list_requeue_default(nullptr, &e, &d[0]) ||
                 list_insert_default(nullptr, &e, &d[0], cmp_int) || list_dequeue_default(nullptr) ||
                 list_remove_default(nullptr, &e, nullptr) || list_lookup_default(nullptr, &e, &d[1], cmp_int));
    list_dequeue(autol);
}

TEST_F(List, CustomTableHasNullSlotsFilledInPlaceAndIsDispatchedTo)
{
    list_action_t mine{};
    mine.zel_enqueue = [](list_header *, list_element *, void *) -> boolean { return FALSE; };
    list_header *l = make();
    EXPECT_TRUE(zel_list_set_action(l, &mine) && zel_list_get_action(l) == &mine);
    EXPECT_TRUE(mine.zel_dequeue == list_dequeue_default && mine.zel_requeue == list_requeue_default &&
                mine.insert == list_insert_default && mine.remove == list_remove_default &&
                mine.lookup == list_lookup_default);
    list_element e[2]{};
    EXPECT_FALSE(list_enqueue(l, &e[0], &d[0]));
    EXPECT_TRUE(list_requeue(l, &e[0], &d[0]) && zel_list_set_action(l, nullptr) && list_enqueue(l, &e[1], &d[1]));
    list_action_t bare{}; // set without zel_list_set_action: null slots refuse
    l->action = &bare;
    EXPECT_TRUE(!list_requeue(l, &e[1], &d[1]) && !list_dequeue(l));
    EXPECT_EQ(contents(l), (V{&d[0], &d[1]}));
}

// The setters touch their own bit only; accessors, merge, move and the link
// primitives refuse or ignore a null list or element.
TEST_F(List, FlagSettersKeepToTheirBitAndNullArgumentsAreRefused)
{
    list_header *l = make(0, 0x1200);
    const uint16_t kept = l->flags;
    zel_list_set_automatic(l, TRUE);
    zel_list_set_interrupt_safe(l, TRUE);
    EXPECT_TRUE(zel_list_is_automatic(l) && l->flags == (kept | LIST_FLAGS_AUTOMATIC | LIST_FLAGS_INTERRUPT_SAFE));
    zel_list_set_automatic(l, FALSE);
    zel_list_set_interrupt_safe(l, FALSE);
    EXPECT_TRUE(!zel_list_is_automatic(l) && l->flags == kept);
    EXPECT_EQ(zel_list_set_flags_user(l, 0xffff), 0xff00);
    EXPECT_EQ(zel_list_clear_flags_user(l, 0x00ff | 0x0100), 0xfe00);
    EXPECT_TRUE(zel_list_get_flags_user(l, 0x0300) == 0x0200 && (l->flags & 0x00ff) == (kept & 0x00ff));
    zel_list_set_automatic(nullptr, TRUE);
    zel_list_set_interrupt_safe(nullptr, TRUE);
    list_element e{};
    EXPECT_TRUE(!zel_list_is_automatic(nullptr) && !zel_list_set_flags_user(nullptr, 0xff00) &&
                !zel_list_set_info(nullptr, nullptr) && !zel_list_get_info(nullptr) && !zel_list_get_action(nullptr));
    EXPECT_FALSE(zel_list_merge(nullptr, l) || zel_list_merge(l, nullptr) || zel_list_move(nullptr, &e) ||
                 zel_list_move(l, nullptr));
    EXPECT_TRUE(zel_list_set_info(l, nullptr) && zel_list_get_info(l) == list_info_default);
    zel_list_insert_element(nullptr, nullptr, &e);
    zel_list_remove_element(l, nullptr);
    EXPECT_TRUE(unlinked(e) && !l->head && l->count == 0);
}

TEST_F(List, CheckedWalkRefusesAChangedList)
{
    list_header *l = make();
    list_element e[3]{}, ring{};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(list_enqueue(l, &e[i], &d[i]));
    // One step from `cur`, having seen `datum` there and `succ` after it.
    auto step = [](list_element *cur, list_element *succ, void *datum) {
        list_element *el = cur, *next = succ;
        bool ok = zel_list_check(&el, &next, &datum);
        EXPECT_TRUE(el == (ok ? succ : nullptr) && (!el || (datum == el->data && next == el->next)));
        return ok;
    };
    EXPECT_TRUE(step(&e[0], &e[1], &d[0])); // (the model walks whole lists)
    EXPECT_FALSE(step(&e[0], &e[1], &d[2])); // datum changed
    e[1].prev = nullptr;
    EXPECT_FALSE(step(&e[0], &e[1], &d[0])); // back-link broken
    e[1].prev = &e[0];
    e[1].list = nullptr;
    EXPECT_FALSE(step(&e[0], &e[1], &d[0])); // on another list
    e[1].list = l;
    list_remove(l, &e[1], nullptr);
    EXPECT_FALSE(step(&e[1], &e[2], &d[1])); // the current element removed
    ring.next = ring.prev = &ring;
    EXPECT_FALSE(step(&ring, &ring, nullptr));
}
