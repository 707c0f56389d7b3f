// Data queues, and watched queues used from one thread, against std::deque
// models. Data are small integers cast to pointers (0 is a null datum).
#include <deque>

#include <vobrel/data_queue.h>
#include <vobrel/watched.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::has;
using fz::require;
using Data = std::deque<void *>;
struct Elem { Elem *next; };

struct Model {
    queuetype q;
    Data m;
    watched_queue *wd, *wp; // the data pair's queue, the plain pair's queue
    Data md;
    std::deque<Elem *> mp;
    Elem el[4];
    fz::Lines want;
};

// What the walk's callback saw, and whether it unqueues what it is given.
Data walked;
bool walk_removes;
queuetype *walk_queue;
void visit(void *d)
{
    walked.push_back(d);
    if (walk_removes)
        require(zel_data_unqueue(walk_queue, d) == d);
}

// A queue holding n elements is full (a limit of 0 is none).
bool full(const queuetype &q, size_t n) { return q.maximum != 0 && static_cast<int>(n) >= q.maximum; }

// Whether a queue with limit `q` holding `m` takes `d`; the model takes it if so.
bool takes(const queuetype &q, Data &m, void *d, bool at_head)
{
    if (full(q, m.size()))
        return false;
    at_head ? m.push_front(d) : m.push_back(d);
    return true;
}

void data_step(Model &s, int op, void *d, bool flag, int arg)
{
    switch (op) {
    case 0: require(zel_data_enqueue(&s.q, d) == (takes(s.q, s.m, d, false) ? d : nullptr)); break;
    case 1: require(zel_data_requeue(&s.q, d) == (takes(s.q, s.m, d, true) ? d : nullptr)); break;
    case 2: require(zel_data_dequeue(&s.q) == fz::take_front(s.m)); break;
    case 3: {
        size_t at = fz::index_of(s.m, d);
        bool in = flag && at < s.m.size();
        require(zel_data_unqueue(flag ? &s.q : nullptr, d) == (in ? d : nullptr));
        if (in)
            s.m.erase(s.m.begin() + static_cast<long>(at));
        break;
    }
    case 4: require(zel_data_isinqueue(&s.q, d) == has(s.m, d)); break;
    case 5: {
        walked.clear();
        walk_removes = flag;
        walk_queue = &s.q;
        zel_data_walklist(&s.q, visit);
        require(walked == s.m);
        if (flag)
            s.m.clear();
        break;
    }
    case 6:
        if (s.m.empty())
            require(zel_queue_init(&s.q, arg & 3));
        break;
    }
}

// The watched pairs: a limit given at creation (0 or negative: none), the
// pending count kept with the queue's own.
void watched_step(Model &s, int op, void *d, int i)
{
    switch (op) {
    case 0: require(process_data_enqueue(s.wd, d) == takes(s.wd->eventQ, s.md, d, false)); break;
    case 1: require(process_data_dequeue(s.wd) == fz::take_front(s.md)); break;
    case 2: {
        Elem *e = &s.el[i];
        bool linked = has(s.mp, e), full = ::full(s.wp->eventQ, s.mp.size());
        require(process_enqueue(s.wp, e) == (!linked && !full));
        if (!linked && !full)
            s.mp.push_back(e);
        else if (!full)
            s.want.push_back(fz::fmt("%%SYS-2-LINKED:Bad %s of %x in queue %x", "enqueue", fz::hex(e), fz::hex(&s.wp->eventQ)));
        break;
    }
    case 3: require(process_dequeue(s.wp) == fz::take_front(s.mp)); break;
    default:
        if (!s.md.empty())
            process_wait_on_queue(s.wd); // items pending: returns at once
        break;
    }
}

void check(Model &s)
{
    auto *w = static_cast<elementtype *>(s.q.qhead);
    for (size_t k = 0; k < s.m.size(); ++k, w = w->next)
        require(w && w->pakptr == s.m[k]);
    require(!w && s.q.count == static_cast<int>(s.m.size()));
    require(s.wd->event_count == static_cast<int>(s.md.size()) && s.wd->eventQ.count == s.wd->event_count);
    require(s.wp->event_count == static_cast<int>(s.mp.size()) && s.wp->eventQ.count == s.wp->event_count);
    require(zel_validqueue(&s.wd->eventQ, FALSE) && zel_validqueue(&s.wp->eventQ, FALSE));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    Model s{};
    s.wd = create_watched_queue("d", 0, static_cast<int8_t>(in.byte()) % 4);
    s.wp = create_watched_queue("p", 0, static_cast<int8_t>(in.byte()) % 4);
    require(s.wd && s.wp);
    while (in.more()) {
        int op = in.pick(12), arg = in.byte();
        void *d = reinterpret_cast<void *>(static_cast<uintptr_t>(arg % 5) * 8);
        if (op < 7)
            data_step(s, op, d, in.flag(), in.byte());
        else
            watched_step(s, op - 7, d, arg & 3);
        fz::reported(s.want);
        check(s);
    }
    while (zel_data_dequeue(&s.q) || s.q.qhead) {}
    while (process_data_dequeue(s.wd) || s.wd->eventQ.qhead) {}
    require(delete_watched_queue(&s.wd) && delete_watched_queue(&s.wp) && !s.wd);
    return 0;
}
