// Lists against a model: three lists (plain or automatic, caller's or
// allocated header, named or not, with or without a limit, the default table
// or a caller's table with null slots) over a pool of element records; each
// list a std::deque of data (small integers as pointers) and, for a plain list,
// of the pool records that carry them. The registry holds the named lists in
// creation order.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>

#include <vobrel/list.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::require;
constexpr int kPool = 8;
struct L {
    list_header own, *h;
    list_action_t table;
    bool automatic, named, custom;
    unsigned max;
    std::deque<void *> data;
    std::deque<int> elems; // plain lists: pool numbers, in list order
};
struct Model {
    L l[3];
    list_element pool[kPool];
    int where[kPool]; // list number, or -1
    fz::Lines want;
};

void *datum(int v) { return reinterpret_cast<void *>(static_cast<uintptr_t>(v) * 8); }
int32_t cmp(void *a, void *b) { return a < b ? -1 : a > b ? 1 : 0; }
boolean my_enqueue(list_header *l, list_element *e, void *d) { return list_enqueue_default(l, e, d); }
void *my_remove(list_header *l, list_element *e, void *d) { return list_remove_default(l, e, d); }

void create(Model &m, int i, fz::Ops &in)
{
    L &l = m.l[i];
    l.automatic = in.flag(), l.named = in.flag(), l.custom = in.flag();
    l.max = in.pick(4);
    bool alloc = in.flag();
    l.h = zel_list_create(alloc ? nullptr : &l.own, static_cast<uint16_t>(l.max), l.named ? "fuzz" : nullptr,
                          l.automatic ? LIST_FLAGS_AUTOMATIC : 0);
    require(l.h && (l.h->flags & LIST_FLAGS_ALLOCATED) == (alloc ? LIST_FLAGS_ALLOCATED : 0));
    l.data.clear();
    l.elems.clear();
    if (!l.custom)
        return;
    l.table = list_action_t{my_enqueue, nullptr, nullptr, nullptr, my_remove, nullptr};
    require(zel_list_set_action(l.h, &l.table) && zel_list_get_action(l.h) == &l.table);
    require(l.table.zel_dequeue == list_dequeue_default && l.table.insert == list_insert_default &&
            l.table.lookup == list_lookup_default && l.table.zel_enqueue == my_enqueue);
}

// Destroys list i (reported when not empty); its plain records come back free.
void destroy(Model &m, int i)
{
    L &l = m.l[i];
    while (l.automatic && !l.data.empty()) // an automatic list's records are its own
        require(list_dequeue(l.h) == fz::take_front(l.data));
    if (!l.data.empty())
        m.want.push_back(fz::fmt("%%SYS-3-BADLIST_DESTROY:Removed a non-empty list(%x, name: %s), having %lu elements",
                                 fz::hex(l.h), l.named ? "fuzz" : "(unknown)", static_cast<unsigned long>(l.data.size())));
    zel_list_destroy(l.h);
    for (int e : l.elems)
        m.pool[e] = {}, m.where[e] = -1;
}

void add(Model &m, int i, int e, int v, int how)
{
    L &l = m.l[i];
    list_element *el = l.automatic ? nullptr : &m.pool[e]; // an automatic list makes its own
    bool fits = !l.max || l.data.size() < l.max, free_el = l.automatic || m.where[e] < 0;
    // Enqueue: at the end; requeue: at the front; insert: before the first datum
    // not below v, refused when that one equals v.
    auto at = how == 0   ? l.data.end()
              : how == 1 ? l.data.begin()
                         : std::find_if(l.data.begin(), l.data.end(), [v](void *x) { return cmp(x, datum(v)) >= 0; });
    size_t pos = static_cast<size_t>(at - l.data.begin());
    bool unique = how != 2 || at == l.data.end() || *at != datum(v);
    boolean ok = how == 0 ? list_enqueue(l.h, el, datum(v)) : how == 1 ? list_requeue(l.h, el, datum(v))
                                                                  : list_insert(l.h, el, datum(v), cmp);
    require(ok == (fits && free_el && unique));
    if (!ok)
        return;
    l.data.insert(l.data.begin() + static_cast<long>(pos), datum(v));
    if (!l.automatic)
        l.elems.insert(l.elems.begin() + static_cast<long>(pos), e), m.where[e] = i;
}

void take_at(Model &m, L &l, size_t pos)
{
    l.data.erase(l.data.begin() + static_cast<long>(pos));
    if (!l.automatic) {
        m.where[l.elems[pos]] = -1;
        l.elems.erase(l.elems.begin() + static_cast<long>(pos));
    }
}

void remove(Model &m, int i, int e, int v, bool by_elem)
{
    L &l = m.l[i];
    if (l.automatic)
        by_elem = false; // its records are not the caller's to name
    void *got = list_remove(l.h, by_elem ? &m.pool[e] : nullptr, datum(v));
    size_t pos = by_elem ? (m.where[e] == i ? fz::index_of(l.elems, e) : l.data.size()) : fz::index_of(l.data, datum(v));
    bool found = pos < l.data.size() && (by_elem || v != 0);
    require(got == (found ? l.data[pos] : nullptr));
    if (found)
        take_at(m, l, pos);
}

void merge(Model &m, int a, int b)
{
    L &d = m.l[a], &s = m.l[b];
    // An empty source is TRUE before a list is found merged into itself.
    bool ok = d.automatic == s.automatic && !d.custom && !s.custom &&
              (s.data.empty() || (a != b && (!d.max || d.data.size() + s.data.size() <= d.max)));
    require(zel_list_merge(d.h, s.h) == ok);
    if (!ok)
        return;
    d.data.insert(d.data.end(), s.data.begin(), s.data.end());
    d.elems.insert(d.elems.end(), s.elems.begin(), s.elems.end());
    for (int e : s.elems)
        m.where[e] = a;
    s.data.clear();
    s.elems.clear();
}

void move(Model &m, int to, int e)
{
    int from = m.where[e];
    require(zel_list_move(m.l[to].h, &m.pool[e]) == (from >= 0));
    if (from < 0)
        return;
    L &f = m.l[from];
    size_t pos = fz::index_of(f.elems, e);
    void *d = f.data[pos];
    take_at(m, f, pos);
    m.l[to].data.push_back(d);
    m.l[to].elems.push_back(e);
    m.where[e] = to;
}

// The header's links, counts and the checked walk all agree with the model.
void check(Model &m)
{
    std::vector<const list_header *> named;
    for (L &l : m.l) {
        std::deque<void *> seen;
        list_element *prev = nullptr;
        for (list_element *e = l.h->head; e && seen.size() <= l.data.size(); prev = e, e = e->next) {
            size_t k = seen.size(); // a plain list links the very records the model names
            require(e->prev == prev && e->list == l.h &&
                    (l.automatic || (k < l.elems.size() && e == &m.pool[l.elems[k]])));
            seen.push_back(e->data);
        }
        require(seen == l.data && l.h->tail == prev && l.h->count == l.data.size());
        std::deque<void *> walked;
        list_element *el = l.h->head, *next = el ? el->next : nullptr;
        void *d = el ? el->data : nullptr;
        for (; el; require(zel_list_check(&el, &next, &d)))
            walked.push_back(el->data);
        require(walked == l.data);
        if (l.named)
            named.push_back(l.h);
    }
    const list_header *reg = zel_list_get_listQ();
    require(reg->count == named.size());
    for (list_element *e = reg->head; e; e = e->next)
        require(fz::has(named, e->data));
    for (int e = 0; e < kPool; ++e)
        require(m.where[e] >= 0 || (!m.pool[e].list && !m.pool[e].next && !m.pool[e].prev));
}

void step(Model &m, fz::Ops &in)
{
    int op = in.pick(9), i = in.pick(3), e = in.pick(kPool), v = in.pick(6);
    L &l = m.l[i];
    switch (op) {
    case 0: case 1: case 2: add(m, i, e, v, op); break;
    case 3:
        require(list_dequeue(l.h) == (l.data.empty() ? nullptr : l.data.front()));
        if (!l.data.empty())
            take_at(m, l, 0);
        break;
    case 4: remove(m, i, e, v, in.flag()); break;
    case 5: {
        list_element key{};
        void *got = list_lookup(l.h, l.automatic ? nullptr : &key, datum(v), cmp);
        require(got == (fz::has(l.data, datum(v)) ? datum(v) : nullptr));
        break;
    }
    case 6: merge(m, i, in.pick(3)); break;
    case 7:
        if (!l.automatic && !m.l[m.where[e] < 0 ? i : m.where[e]].automatic)
            move(m, i, e);
        break;
    default:
        if (in.flag() && m.where[e] == i) { // excise a plain record whose links are lost: never followed nor written
            m.pool[e].next = m.pool[e].prev = reinterpret_cast<list_element *>(uintptr_t{0x10});
            const list_element lost = m.pool[e];
            zel_list_excise(l.h, &m.pool[e]);
            require(memcmp(&lost, &m.pool[e], sizeof lost) == 0);
            take_at(m, l, fz::index_of(l.elems, e));
            m.pool[e] = {};
        } else {
            destroy(m, i);
            create(m, i, in);
        }
        break;
    }
    fz::reported(m.want);
    check(m);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    zel_list_init();
    zel_memory_list_init();
    Model m{};
    std::fill(std::begin(m.where), std::end(m.where), -1);
    for (int i = 0; i < 3; ++i)
        create(m, i, in);
    while (in.more())
        step(m, in);
    for (int i = 0; i < 3; ++i)
        destroy(m, i);
    fz::reported(m.want);
    return 0;
}
