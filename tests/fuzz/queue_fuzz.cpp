// Queues against a model: two queues over eight elements, each queue's chain a
// std::deque of element numbers plus the count the header should hold (a count
// can be damaged on purpose, to drive repair and validation). Elements linked
// on the other queue as its tail are never offered: the queue cannot see them.
#include <algorithm>
#include <deque>

#include <vobrel/queue.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::require;
struct Elem { Elem *next; int key; };
constexpr int kElems = 8;

struct Model {
    queuetype h[2];
    std::deque<int> m[2];
    int count[2];
    Elem el[kElems];
    int where[kElems]; // queue number, or -1
    fz::Lines want;
};

const char kLinked[] = "%%SYS-2-LINKED:Bad %s of %x in queue %x";
const char kNotq[] = "%%SYS-2-NOTQ:%s didn't find %x in queue %x";

void raise(Model &s, const char *f, const char *op, const void *e, int q)
{
    s.want.push_back(fz::fmt(f, op, fz::hex(e), fz::hex(&s.h[q])));
}

// The other queue's tail has a null link: putting it here would corrupt both.
bool foreign_tail(const Model &s, int q, int i)
{
    return s.where[i] == 1 - q && s.m[1 - q].back() == i;
}

// The library took element i onto q at model position pos, or refused it.
void inserted(Model &s, int q, int i, bool ok, size_t pos, const char *op)
{
    require(ok == (s.where[i] < 0));
    if (!ok)
        return raise(s, kLinked, op, &s.el[i], q);
    s.m[q].insert(s.m[q].begin() + static_cast<long>(pos), i);
    s.where[i] = q;
    ++s.count[q];
}

// Removes element number i and applies the count repair (reported unless silent).
void take(Model &s, int q, int i, const char *op, bool silent = false)
{
    s.m[q].erase(std::find(s.m[q].begin(), s.m[q].end(), i));
    s.where[i] = -1;
    if (--s.count[q] < 0 && s.h[q].maximum != 0) {
        if (!silent)
            s.want.push_back(fz::fmt("%%SYS-2-QCOUNT:Bad %s %x count %d", op, fz::hex(&s.h[q]), s.count[q]));
        s.count[q] = 0;
    }
}

void *head(Model &s, int q)
{
    return s.m[q].empty() ? nullptr : &s.el[s.m[q].front()];
}

// -2: null, -1: the header, else an element.
void *addr(Model &s, int q, int prev)
{
    return prev == -2 ? nullptr : prev == -1 ? static_cast<void *>(&s.h[q]) : &s.el[prev];
}

// The element after `prev` (-1: the header) in the model, or -1.
int succ(const Model &s, int q, int prev)
{
    if (prev < 0)
        return s.m[q].empty() ? -1 : s.m[q].front();
    if (s.where[prev] != q)
        return -1;
    size_t at = fz::index_of(s.m[q], prev) + 1;
    return at == s.m[q].size() ? -1 : s.m[q][at];
}

void insert(Model &s, int q, int i, bool at_head, bool locked)
{
    if (foreign_tail(s, q, i))
        return;
    bool ok = at_head ? (locked ? zel_requeue : zel_p_requeue)(&s.h[q], &s.el[i])
                      : (locked ? zel_enqueue : zel_p_enqueue)(&s.h[q], &s.el[i]);
    inserted(s, q, i, ok, at_head ? 0 : s.m[q].size(), at_head ? "requeue" : "enqueue");
}

void dequeue(Model &s, int q, bool locked)
{
    void *e = (locked ? zel_dequeue : zel_p_dequeue)(&s.h[q]);
    require(e == head(s, q));
    if (e)
        take(s, q, s.m[q].front(), "dequeue");
}

void unqueue(Model &s, int q, int i, bool locked)
{
    bool ok = (locked ? zel_unqueue : zel_p_unqueue)(&s.h[q], &s.el[i]);
    require(ok == (s.where[i] == q));
    if (ok)
        take(s, q, i, "unqueue");
    else
        raise(s, kNotq, "unqueue", &s.el[i], q);
}

void unqueuenext(Model &s, int q, int prev, bool locked)
{
    if (prev >= 0 && s.where[prev] == 1 - q)
        return;
    require((locked ? zel_unqueuenext : zel_p_unqueuenext)(&s.h[q], addr(s, q, prev)));
    if (int v = succ(s, q, prev); v >= 0)
        take(s, q, v, "p_unqueuenext");
}

void insqueue(Model &s, int q, int i, int prev)
{
    if (foreign_tail(s, q, i) || (prev >= 0 && s.where[prev] != q))
        return;
    bool ok = zel_insqueue(&s.h[q], &s.el[i], addr(s, q, prev));
    inserted(s, q, i, ok, prev < 0 ? 0 : fz::index_of(s.m[q], prev) + 1, prev == -2 ? "requeue" : "insqueue");
}

// i: -1 for a null element.
void remqueue(Model &s, int q, int i, int prev)
{
    if ((i >= 0 && s.where[i] == 1 - q) || (prev >= 0 && s.where[prev] == 1 - q))
        return;
    void *e = i < 0 ? nullptr : &s.el[i];
    void *got = zel_remqueue(&s.h[q], e, addr(s, q, prev));
    if (prev == -2 && e == head(s, q)) {
        require(got == e);
        if (e)
            take(s, q, i, "dequeue");
    } else if (prev == -2 || i < 0 || succ(s, q, prev) != i) {
        require(got == nullptr);
        raise(s, kLinked, "remqueue", e, q);
    } else {
        require(got == e);
        take(s, q, i, "remqueue");
    }
}

void swap(Model &s, int q, int enew, int eold)
{
    if (s.where[enew] >= 0)
        return;
    bool ok = zel_p_swapqueue(&s.h[q], &s.el[enew], &s.el[eold]);
    require(ok == (s.where[eold] == q));
    if (!ok)
        return raise(s, kNotq, "swapqueue", &s.el[eold], q);
    *std::find(s.m[q].begin(), s.m[q].end(), eold) = enew;
    s.where[eold] = -1;
    s.where[enew] = q;
}

queue_compare_result by_key(void *queued, void *inserted)
{
    int d = static_cast<Elem *>(queued)->key - static_cast<Elem *>(inserted)->key;
    return d < 0 ? QUEUE_LT : d == 0 ? QUEUE_EQ : QUEUE_GT;
}

void insert_comp(Model &s, int q, int i, int key)
{
    if (foreign_tail(s, q, i) || (!s.m[q].empty() && s.where[i] >= 0))
        return;
    if (s.where[i] < 0)
        s.el[i].key = key;
    // It enqueues onto an empty queue, which refuses a linked element.
    require(zel_queue_insert_comp(&s.h[q], &s.el[i], by_key));
    size_t pos = 0;
    while (pos < s.m[q].size() && s.el[s.m[q][pos]].key <= s.el[i].key)
        ++pos;
    inserted(s, q, i, s.where[i] < 0, pos, "enqueue");
}

void validate(Model &s, int q, bool print)
{
    int n = s.count[q], len = static_cast<int>(s.m[q].size());
    bool over = n < 0 || (s.h[q].maximum > 0 && n > s.h[q].maximum), bad = over || n != len;
    require(zel_validqueue(&s.h[q], print) == !bad);
    if (bad && print) // names the element at the count, when the chain has one
        raise(s, kLinked, "validqueue", over || len < n ? nullptr : &s.el[s.m[q][n]], q);
}

void init(Model &s, int q, int maximum)
{
    if (!s.m[q].empty())
        return;
    require(zel_queue_init(&s.h[q], maximum) == (maximum >= 0));
    if (maximum >= 0)
        s.count[q] = 0;
}

// Header, chain, links of free elements and the queries agree with the model.
void check(Model &s, int q, int probe)
{
    const queuetype &h = s.h[q];
    auto *e = static_cast<Elem *>(h.qhead);
    for (size_t k = 0; k < s.m[q].size(); ++k, e = e->next)
        require(e == &s.el[s.m[q][k]]);
    require(e == nullptr && h.qtail == (s.m[q].empty() ? nullptr : &s.el[s.m[q].back()]));
    require(h.count == s.count[q] && zel_queryqueuedepth(&h) == s.count[q]);
    require(zel_queryqueuesize(&h) == h.maximum && zel_peekqueuehead(&h) == h.qhead && zel_peekqueuetail(&h) == h.qtail);
    require(queuefull_inline(&h) == (h.maximum != 0 && s.count[q] >= h.maximum));
    require(zel_checkqueue(&h, &s.el[probe]) == (s.where[probe] == q) && !zel_checkqueue(nullptr, &s.el[probe]));
    for (int i = 0; i < kElems; ++i)
        require(s.where[i] >= 0 || s.el[i].next == nullptr);
}

void step(Model &s, fz::Ops &in)
{
    int op = in.pick(14), q = in.pick(2), i = in.pick(kElems);
    bool flag = in.flag();
    int arg = static_cast<int8_t>(in.byte());
    int prev = arg % (kElems + 2); // -9..9 folds onto null, header, elements
    prev = prev < -2 ? -prev % kElems : prev >= kElems ? -1 : prev;
    switch (op) {
    case 0: case 1: insert(s, q, i, op == 1, flag); break;
    case 2: dequeue(s, q, flag); break;
    case 3: unqueue(s, q, i, flag); break;
    case 4: unqueuenext(s, q, prev < -1 ? -1 : prev, flag); break;
    case 5: insqueue(s, q, i, prev); break;
    case 6: remqueue(s, q, flag ? i : -1, prev); break;
    case 7: swap(s, q, i, (i + 1 + (arg & 7)) % kElems); break;
    case 8: {
        void *got = zel_p_check_and_unqueue(&s.h[q], &s.el[i]);
        require(got == (s.where[i] == q ? &s.el[i] : nullptr));
        if (got)
            take(s, q, i, "", true);
        break;
    }
    case 9: insert_comp(s, q, i, arg & 3); break;
    case 10: validate(s, q, flag); break;
    case 11: s.h[q].count = s.count[q] = static_cast<int>(s.m[q].size()) + (arg % 3); break;
    case 12: init(s, q, arg % 6); break;
    }
    fz::reported(s.want);
    check(s, 0, i);
    check(s, 1, i);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    Model s{};
    std::fill(std::begin(s.where), std::end(s.where), -1);
    while (in.more())
        step(s, in);
    return 0;
}
