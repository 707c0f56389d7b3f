// ID manager cost beside its floor and a hash map, in one run.
//
// Each case holds kLive identifiers and, per iteration, hands out one more,
// turns it back into its pointer and deletes it: one get + lookup + delete.
//
//   IdManager:      zel_id_get + zel_id_to_ptr + zel_id_delete on a
//                   randomized table of 128 slots of 1024
//   SlotMapFloor:   a plain array of the same capacity with a free list
//                   threaded through the entries and a generation byte per
//                   entry, reused oldest-freed first like the ID manager; its
//                   three operations are out of line and compiled without
//                   knowledge of their caller (noipa), as the library's are
//   SlotMapInline:  the same floor with its operations expanded in place
//   SlotMapLifo:    the same floor reusing the newest-freed entry (the usual
//                   slot map; the cycle then stays on one entry)
//   TwoLevelFloor:  the floor shaped like an ID table: slots of 1024 entries
//                   behind an array of slot pointers, table limits read from
//                   memory and checked, the slot number in the entry, a
//                   pointer-linked free queue; explains the structural part of
//                   the gap to SlotMapFloor
//   HashMap:        std::unordered_map<uint32_t, void *> insert + find + erase
//   IdGHashTable:   the same on glib's GHashTable keyed by integers (the peer a
//                   user would pick; where glib is installed)
//
// Compare IdManager with TwoLevelFloor (its target), SlotMapFloor and HashMap
// as ratios.
#ifndef VOBREL_BENCH_CASES_ID_MANAGER_H
#define VOBREL_BENCH_CASES_ID_MANAGER_H

#include <cstdint>
#include <unordered_map>
#include <vector>

#include <vobrel/id_manager.h>

#ifdef VOBREL_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "cases/loop.h"

namespace vobrel::bench::id_manager {

constexpr uint32_t kLive = 100000;
constexpr uint32_t kCapacity = 128 * 1024;
inline int payload[16];
// Identifiers held while the cycle runs. The counting driver holds fewer:
// every path hands out and takes back the oldest free entry whatever the
// count, so the instructions per cycle are the same and the set-up is short.
inline uint32_t live = kLive;

template <typename Loop> void IdManager(Loop &loop)
{
    id_table_key_t key = zel_id_create_new_table(128, 1024, nullptr);
    for (uint32_t i = 0; i < live; ++i)
        zel_id_get(&payload[i & 15], key);
    for ([[maybe_unused]] auto _ : loop) {
        idmgr_id_t id = zel_id_get(&payload[3], key);
        id_mgr_ret rc;
        keep(zel_id_to_ptr(id, &rc, key));
        zel_id_delete(id, key);
    }
    zel_id_destroy_table(key);
}

// The floor: entries in one array, identifiers (generation << 24 | index) + 1.
template <bool Fifo>
class SlotMap {
public:
    SlotMap() : e_(kCapacity)
    {
        for (uint32_t i = 0; i < kCapacity; ++i)
            release(i);
    }
    uint32_t get(void *p)
    {
        const uint32_t i = head_;
        head_ = e_[i].next;
        if (head_ == kNone)
            tail_ = kNone;
        e_[i].p = p;
        e_[i].used = 1;
        return (static_cast<uint32_t>(e_[i].gen) << 24 | i) + 1;
    }
    void *to_ptr(uint32_t id) const
    {
        const uint32_t i = (id - 1) & 0xFFFFFF;
        if (i >= kCapacity || !e_[i].used || e_[i].gen != (id - 1) >> 24)
            return nullptr;
        return e_[i].p;
    }
    void del(uint32_t id)
    {
        const uint32_t i = (id - 1) & 0xFFFFFF;
        if (i >= kCapacity || !e_[i].used || e_[i].gen != (id - 1) >> 24)
            return;
        ++e_[i].gen;
        e_[i].used = 0;
        release(i);
    }

private:
    static constexpr uint32_t kNone = 0xFFFFFFFF;
    struct Entry {
        union {
            void *p;
            uint32_t next;
        };
        uint8_t gen;
        uint8_t used;
    };
    void release(uint32_t i)
    {
        if (!Fifo || head_ == kNone) {
            e_[i].next = head_;
            head_ = i;
            if (tail_ == kNone)
                tail_ = i;
            return;
        }
        e_[i].next = kNone;
        e_[tail_].next = i;
        tail_ = i;
    }
    std::vector<Entry> e_;
    uint32_t head_ = kNone, tail_ = kNone;
};

template <bool Fifo>
VOBREL_BENCH_OPAQUE uint32_t floor_get(SlotMap<Fifo> &m, void *p)
{
    return m.get(p);
}
template <bool Fifo>
VOBREL_BENCH_OPAQUE void *floor_to_ptr(const SlotMap<Fifo> &m, uint32_t id)
{
    return m.to_ptr(id);
}
template <bool Fifo>
VOBREL_BENCH_OPAQUE void floor_del(SlotMap<Fifo> &m, uint32_t id)
{
    m.del(id);
}

template <bool Fifo, bool OutOfLine, typename Loop> void SlotMapCase(Loop &loop)
{
    SlotMap<Fifo> m;
    for (uint32_t i = 0; i < live; ++i)
        m.get(&payload[i & 15]);
    for ([[maybe_unused]] auto _ : loop) {
        if constexpr (OutOfLine) {
            uint32_t id = floor_get(m, &payload[3]);
            keep(floor_to_ptr(m, id));
            floor_del(m, id);
        } else {
            uint32_t id = m.get(&payload[3]);
            keep(m.to_ptr(id));
            m.del(id);
        }
    }
}

// Entries as the ID manager's: link or pointer, generation, slot number.
struct TEntry {
    union {
        TEntry *next;
        void *p;
    };
    uint8_t gen;
    uint8_t slot;
};
struct TwoLevel {
    TEntry *slots[128];
    uint8_t used[128][1024];
    uint32_t nslots = 128, per = 1024;
    TEntry *head = nullptr, *tail = nullptr;
};

VOBREL_BENCH_OPAQUE inline uint32_t two_get(TwoLevel &t, void *p)
{
    TEntry *e = t.head;
    t.head = e->next;
    if (!t.head)
        t.tail = nullptr;
    const uint32_t i = static_cast<uint32_t>(e - t.slots[e->slot]);
    e->p = p;
    t.used[e->slot][i] = 1;
    return (static_cast<uint32_t>(e->gen) << 24 | static_cast<uint32_t>(e->slot) << 16 | i) + 1;
}
[[gnu::noinline]] inline TEntry *two_find(TwoLevel &t, uint32_t id)
{
    const uint32_t s = ((id - 1) >> 16) & 0xFF, i = (id - 1) & 0xFFFF;
    if (s >= t.nslots || i >= t.per || !t.slots[s] || !t.used[s][i] || t.slots[s][i].gen != (id - 1) >> 24)
        return nullptr;
    return &t.slots[s][i];
}
VOBREL_BENCH_OPAQUE inline void *two_to_ptr(TwoLevel &t, uint32_t id)
{
    TEntry *e = two_find(t, id);
    return e ? e->p : nullptr;
}
VOBREL_BENCH_OPAQUE inline void two_del(TwoLevel &t, uint32_t id)
{
    TEntry *e = two_find(t, id);
    if (!e)
        return;
    ++e->gen;
    t.used[e->slot][e - t.slots[e->slot]] = 0;
    e->next = nullptr;
    (t.tail ? t.tail->next : t.head) = e;
    t.tail = e;
}

template <typename Loop> void TwoLevelFloor(Loop &loop)
{
    auto *t = new TwoLevel{};
    std::vector<TEntry> store(kCapacity);
    for (uint32_t s = 0; s < 128; ++s) {
        t->slots[s] = &store[s * 1024];
        for (uint32_t i = 0; i < 1024; ++i) {
            TEntry *e = &t->slots[s][i];
            e->slot = static_cast<uint8_t>(s);
            (t->tail ? t->tail->next : t->head) = e;
            t->tail = e;
        }
    }
    for (uint32_t i = 0; i < live; ++i)
        two_get(*t, &payload[i & 15]);
    for ([[maybe_unused]] auto _ : loop) {
        uint32_t id = two_get(*t, &payload[3]);
        keep(two_to_ptr(*t, id));
        two_del(*t, id);
    }
    delete t;
}

template <typename Loop> void HashMap(Loop &loop)
{
    std::unordered_map<uint32_t, void *> m;
    uint32_t next = 1;
    for (; next <= live; ++next)
        m.emplace(next, &payload[next & 15]);
    for ([[maybe_unused]] auto _ : loop) {
        const uint32_t id = next++;
        m.emplace(id, &payload[3]);
        auto it = m.find(id);
        keep(it->second);
        m.erase(id);
    }
}

#ifdef VOBREL_BENCH_HAVE_GLIB
template <typename Loop> void IdGHashTable(Loop &loop)
{
    GHashTable *m = g_hash_table_new(g_direct_hash, g_direct_equal);
    uint32_t next = 1;
    for (; next <= live; ++next)
        g_hash_table_insert(m, GUINT_TO_POINTER(next), &payload[next & 15]);
    for ([[maybe_unused]] auto _ : loop) {
        const uint32_t id = next++;
        g_hash_table_insert(m, GUINT_TO_POINTER(id), &payload[3]);
        keep(g_hash_table_lookup(m, GUINT_TO_POINTER(id)));
        g_hash_table_remove(m, GUINT_TO_POINTER(id));
    }
    g_hash_table_destroy(m);
}
#endif

} // namespace vobrel::bench::id_manager

#endif
