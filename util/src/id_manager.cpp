// The ID manager: per-key tables of entries, free entries on a queue, and the
// IDMGR catalogue entries.
#include <vobrel/errmsg.h>
#include <vobrel/id_manager.h>
#include <vobrel/queue.h>

#include <stdlib.h>
#include <string.h>

#include "util/src/queue_private.h"

namespace {

const char msgfac_IDMGR[] = "IDMGR";

// Carried for processes that use them; nothing in the library touches them.
message_stats *IDMGR_MALLOC_FAILURE_stat_redir_ptr;
message_stats *IDMGR_INTERRUPT_stat_redir_ptr;
message_stats *IDMGR_INVALID_ID_stat_redir_ptr;
message_stats *IDMGR_INVALID_ID_TABLE_SIZE_stat_redir_ptr;
message_stats *IDMGR_ID_MANAGER_INTERNAL_ERROR_stat_redir_ptr;

} // namespace

extern "C" {

const message msg_IDMGR_MALLOC_FAILURE = {
    msgfac_IDMGR, "MALLOC_FAILURE", "%s", nullptr, 0x0001, 3, &IDMGR_MALLOC_FAILURE_stat_redir_ptr};
const message msg_IDMGR_INTERRUPT = {
    msgfac_IDMGR, "INTERRUPT", "%s", nullptr, 0x0001, 3, &IDMGR_INTERRUPT_stat_redir_ptr};
const message msg_IDMGR_INVALID_ID = {
    msgfac_IDMGR, "INVALID_ID", "bad id in %s (id: 0x%X)", nullptr, 0x0001, 3, &IDMGR_INVALID_ID_stat_redir_ptr};
const message msg_IDMGR_INVALID_ID_TABLE_SIZE = {msgfac_IDMGR,
                                                 "INVALID_ID_TABLE_SIZE",
                                                 "bad new ID table size",
                                                 nullptr,
                                                 0x0001,
                                                 3,
                                                 &IDMGR_INVALID_ID_TABLE_SIZE_stat_redir_ptr};
const message msg_IDMGR_ID_MANAGER_INTERNAL_ERROR = {msgfac_IDMGR,
                                                     "ID_MANAGER_INTERNAL_ERROR",
                                                     "%s",
                                                     nullptr,
                                                     0x0001,
                                                     3,
                                                     &IDMGR_ID_MANAGER_INTERNAL_ERROR_stat_redir_ptr};

entry_t **zel_g_id_manager_table[ID_MGR_MAX_TABLES];
uint32_t zel_numTableSlot_max[ID_MGR_MAX_TABLES];
uint32_t zel_numIDsPerSLot_max[ID_MGR_MAX_TABLES];
uint16_t zel_id_table_flags[ID_MGR_MAX_TABLES];

} // extern "C"

namespace {

using vobrel::detail::dequeue_body;
using vobrel::detail::enqueue_body;
using vobrel::detail::QueueCaller;

constexpr unsigned kMaxKey = ID_MGR_MAX_TABLES - 1;
constexpr uint8_t kInUse = 0x80; // no-randomize: the entry is in use

queuetype g_free_q[ID_MGR_MAX_TABLES];
char *g_owner_malloc_name[ID_MGR_MAX_TABLES];
boolean id_manager_inited;

// The free queues are driven through the queue bodies themselves, not the
// exported unlocked calls: identical checks and reports, without a call (and
// on 32-bit x86 a PIC set-up) on every get and delete.
inline entry_t *free_take(unsigned key)
{
    return static_cast<entry_t *>(dequeue_body(&g_free_q[key], QueueCaller::zel_p_dequeue));
}

inline void free_put(unsigned key, entry_t *e)
{
    enqueue_body(&g_free_q[key], e, QueueCaller::zel_p_enqueue);
}

[[gnu::cold, gnu::noinline]] void report_id(const char *fname, const char *what, unsigned id)
{
    xos_errmsg(fname, __LINE__, &msg_IDMGR_INVALID_ID, what, id);
}

[[gnu::cold, gnu::noinline]] void report_text(const char *fname, const message *msg, const char *text)
{
    xos_errmsg(fname, __LINE__, msg, text);
}

inline bool no_randomize(unsigned key)
{
    return (zel_id_table_flags[key] & ID_MGR_FLAG_NO_RANDOMIZE) != 0;
}

// A slot is one block: one mark byte per entry, counted backwards from the
// slot pointer, then the entries. A mark is kFree exactly while its entry is
// on the free queue. Finding it needs neither the table nor its geometry, and
// neighbouring entries never share a mark (no read-modify-write chain between
// consecutive operations, as a bitmap would have).
inline size_t map_bytes(uint32_t per)
{
    return (per + 15) & ~size_t{15}; // keeps the entries aligned
}

inline entry_t *slot_alloc(uint32_t per)
{
    auto *block = static_cast<uint8_t *>(calloc(1, map_bytes(per) + per * sizeof(entry_t)));
    return block ? reinterpret_cast<entry_t *>(block + map_bytes(per)) : nullptr;
}

inline void slot_free(entry_t *slot, uint32_t per)
{
    if (slot)
        free(reinterpret_cast<uint8_t *>(slot) - map_bytes(per));
}

// On the free queue, handed out, or kept out of use for good (the entry whose
// identifier would be 0).
enum Mark : uint8_t { kFree, kTaken, kWithdrawn };

inline uint8_t &mark(entry_t *slot, uint32_t index)
{
    return reinterpret_cast<uint8_t *>(slot)[-1 - static_cast<ptrdiff_t>(index)];
}

struct Decoded {
    uint32_t internal;
    uint32_t slot;
    uint32_t index;
    uint8_t seq;
};

inline Decoded decode(idmgr_id_t id)
{
    const uint32_t internal = id - 1;
    return {internal, (internal >> 16) & 0xFF, internal & 0xFFFF, static_cast<uint8_t>(internal >> 24)};
}

// The slot holding the entry an identifier names, or null when its slot or
// index lies outside the table or its slot is not allocated. The slot number
// is range-checked before the slot array is read.
inline entry_t *locate(unsigned key, const Decoded &d)
{
    if (d.slot >= zel_numTableSlot_max[key] || d.index >= zel_numIDsPerSLot_max[key])
        return nullptr;
    return zel_g_id_manager_table[key][d.slot];
}

// The identifier names an entry in use: bit 7 in a no-randomize table; the
// kTaken mark and a matching sequence in a randomized one.
inline bool live(unsigned key, entry_t *slot, const Decoded &d)
{
    const entry_t &e = slot[d.index];
    if (no_randomize(key))
        return (e.tableSequence & kInUse) != 0;
    return e.tableSequence == d.seq && mark(slot, d.index) == kTaken;
}

void clear_tables_once()
{
    if (id_manager_inited)
        return;
    for (auto &t : zel_g_id_manager_table)
        t = nullptr;
    id_manager_inited = TRUE;
}

bool id_manager_module_init(unsigned key, uint32_t slots, uint32_t per, const char *owner)
{
    zel_queue_init(&g_free_q[key], 0);
    auto **array = static_cast<entry_t **>(calloc(slots, sizeof(entry_t *)));
    char *name = array && owner ? strdup(owner) : nullptr;
    if (!array || (owner && !name)) {
        free(array);
        report_text(__func__, &msg_IDMGR_MALLOC_FAILURE, "Malloc failure - id_manager_module_init");
        return false;
    }
    zel_g_id_manager_table[key] = array;
    zel_numTableSlot_max[key] = slots;
    zel_numIDsPerSLot_max[key] = per;
    g_owner_malloc_name[key] = name;
    zel_id_table_flags[key] = 0;
    return true;
}

// Stores `p` in an entry just taken off the free queue and composes its
// internal value.
uint32_t id_assign_ptr(unsigned key, entry_t *slot, uint32_t index, void *p)
{
    entry_t *e = slot + index;
    // Everything is read before the first store: a store through a byte
    // pointer may alias anything, and would force the reads to wait for it.
    const uint32_t low = static_cast<uint32_t>(e->tableNumber) << 16 | index;
    const uint8_t seq = e->tableSequence;
    const bool plain = no_randomize(key);
    e->u.user_p = p;
    mark(slot, index) = kTaken;
    if (plain) {
        e->tableSequence = static_cast<uint8_t>(seq | kInUse);
        return low;
    }
    return static_cast<uint32_t>(seq) << 24 | low;
}

// Allocates slot `s`: every entry carries `seq` (or a fresh random byte when
// `random`), and all but `skip` (pass `per` for none) join the free queue's
// tail in index order.
entry_t *add_slot(unsigned key, uint32_t s, bool random, uint8_t seq, uint32_t skip)
{
    const uint32_t per = zel_numIDsPerSLot_max[key];
    entry_t *slot = slot_alloc(per);
    if (!slot)
        return nullptr;
    for (uint32_t i = 0; i < per; ++i) {
        entry_t &e = slot[i];
        e.tableSequence = random ? static_cast<uint8_t>(rand() % 256) : seq;
        e.tableNumber = static_cast<uint8_t>(s);
        if (i != skip)
            free_put(key, &e);
    }
    zel_g_id_manager_table[key][s] = slot;
    return slot;
}

// A get on a key without a table: the default table comes into being on its
// first get, any other key is an error. A table exists only after the first
// create or get, so the one-time clearing is due only here.
[[gnu::noinline]] bool first_get(unsigned key)
{
    clear_tables_once();
    if (key != 0) {
        report_id("zel_id_get", "id_get (unassigned table id)", 0);
        return false;
    }
    return id_manager_module_init(0, 32, 1024, "ID MGR");
}

// The free queue is empty: allocates the lowest null slot and takes its first
// entry, or reports and gives null. Kept apart so the common path stays short.
[[gnu::noinline]] entry_t *grow(unsigned key)
{
    entry_t **slots = zel_g_id_manager_table[key];
    uint32_t s = 0;
    while (s < zel_numTableSlot_max[key] && slots[s])
        ++s;
    if (s < zel_numTableSlot_max[key]) {
        if (add_slot(key, s, !no_randomize(key), 0, zel_numIDsPerSLot_max[key]))
            return free_take(key);
        report_text("zel_id_get", &msg_IDMGR_MALLOC_FAILURE, "Malloc failure - id_get");
    }
    report_id("zel_id_get", "id_get (Out of IDs! out of slots or memory)", 0);
    return nullptr;
}

void *id_to_ptr_internal(idmgr_id_t id, id_mgr_ret *ret_code, id_table_key_t key, bool messages)
{
    id_mgr_ret rc = ID_MGR_RET_ERROR;
    void *p = nullptr;
    if (id == 0) {
        if (messages)
            report_id(__func__, "id_to_ptr (bad id)", id);
        rc = ID_MGR_RET_OK;
    } else if (key > kMaxKey || !zel_g_id_manager_table[key]) {
        if (messages)
            report_id(__func__, "id_to_ptr (bad table id)", id);
    } else {
        const Decoded d = decode(id);
        entry_t *slot = locate(key, d);
        if (!slot) {
            if (messages)
                report_id(__func__, "id_to_ptr", id);
        } else if (!live(key, slot, d)) {
            rc = ID_MGR_RET_RETIRED;
        } else {
            rc = ID_MGR_RET_OK;
            p = slot[d.index].u.user_p;
        }
    }
    if (ret_code)
        *ret_code = rc;
    return p;
}

// A walk of a no-randomize table: the entry it stops at (never returned) and
// where it starts.
struct Walk {
    uint32_t stop_slot;
    uint32_t stop_index;
    uint32_t slot;
    uint32_t from;
};

// Where a walk after `id` starts and stops; 0 walks from the top. A start
// past the last slot wraps to the top and sets *wrapped.
Walk walk_start(unsigned key, idmgr_id_t id, boolean *wrapped)
{
    const uint32_t last = zel_numTableSlot_max[key] - 1;
    const uint32_t per = zel_numIDsPerSLot_max[key];
    Walk w{last, per - 1, 0, 0};
    if (id == 0)
        return w;
    const Decoded d = decode(id);
    w.stop_slot = d.slot;
    w.stop_index = d.index;
    w.slot = d.slot;
    w.from = d.index + 1;
    if (w.from >= per) { // an index past the slot's end counts as its end
        w.from = 0;
        ++w.slot;
    }
    if (w.slot > last) {
        *wrapped = TRUE;
        w.stop_slot = last;
        w.stop_index = per - 1;
        w.slot = 0;
        w.from = 0;
    }
    return w;
}

// Looks for an entry in use in slot `sl` from index `lo` below `hi`; an
// unallocated slot has none. On a find, sets *next_id, *ret_code and *p.
bool scan_slot(entry_t *const *slots, uint32_t sl, uint32_t lo, uint32_t hi, idmgr_id_t *next_id,
               id_mgr_ret *ret_code, void **p)
{
    const entry_t *slot = slots[sl];
    for (uint32_t i = lo; slot && i < hi; ++i) {
        if (slot[i].tableSequence & kInUse) {
            *next_id = (sl << 16 | i) + 1;
            *ret_code = ID_MGR_RET_OK;
            *p = slot[i].u.user_p;
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" {

id_table_key_t zel_id_create_new_table(uint numTableSlot, uint numIDsPerSLot, char *owner_malloc_name)
{
    if (numTableSlot < 1 || numTableSlot > 256 || numIDsPerSLot < 2 || numIDsPerSLot > 65536) {
        xos_errmsg(__func__, __LINE__, &msg_IDMGR_INVALID_ID_TABLE_SIZE);
        return ID_MGR_NO_TABLE_KEY;
    }
    clear_tables_once();
    // Up from a random start, wrapping from 127 to 1: each of 1..127 once.
    unsigned key = static_cast<unsigned>(rand()) & kMaxKey;
    bool found = false;
    for (unsigned probe = 0; probe < ID_MGR_MAX_TABLES && !found; ++probe) {
        if (key == 0 || key == ID_MGR_MAX_TABLES)
            key = 1;
        else if (!zel_g_id_manager_table[key])
            found = true;
        else
            ++key;
    }
    if (!found) {
        report_id(__func__, "id_create_new_table (no more entry)", 0);
        return ID_MGR_NO_TABLE_KEY;
    }
    if (!id_manager_module_init(key, numTableSlot, numIDsPerSLot, owner_malloc_name))
        return ID_MGR_NO_TABLE_KEY;
    return static_cast<id_table_key_t>(key);
}

boolean zel_id_table_set_no_randomize(id_table_key_t table_key)
{
    if (table_key > kMaxKey || !zel_g_id_manager_table[table_key])
        return FALSE;
    if (no_randomize(table_key))
        return TRUE;
    // Sequence bytes mean something else from now on: re-derive them from the
    // marks so that only entries handed out read as in use.
    const uint32_t per = zel_numIDsPerSLot_max[table_key];
    for (uint32_t s = 0; s < zel_numTableSlot_max[table_key]; ++s) {
        entry_t *slot = zel_g_id_manager_table[table_key][s];
        for (uint32_t i = 0; slot && i < per; ++i)
            slot[i].tableSequence = mark(slot, i) == kTaken ? kInUse : 0;
    }
    zel_id_table_flags[table_key] |= ID_MGR_FLAG_NO_RANDOMIZE;
    return TRUE;
}

idmgr_id_t zel_id_get(void *p, id_table_key_t table_key)
{
    const unsigned key = table_key;
    if (key > kMaxKey) {
        report_id(__func__, "id_get (bad table id)", 0);
        return 0;
    }
    if (!zel_g_id_manager_table[key] && !first_get(key))
        return 0;
    entry_t *e = free_take(key);
    if (!e && !(e = grow(key)))
        return 0;
    entry_t *slot = zel_g_id_manager_table[key][e->tableNumber];
    const uint32_t internal = id_assign_ptr(key, slot, static_cast<uint32_t>(e - slot), p);
    if (internal == 0xFFFFFFFFu) {
        mark(slot, internal & 0xFFFF) = kWithdrawn;
        report_id(__func__, "id_get (Out of IDs! Wrap around.)", 0);
        return 0;
    }
    return internal + 1;
}

unsigned zel_id_reserve(void *p, const id_table_key_t table_key, idmgr_id_t id_arg)
{
    const unsigned key = table_key;
    if (id_arg == 0 || key > kMaxKey) {
        report_id(__func__, "id_reserve (bad id)", id_arg);
        return ID_MGR_INVALID_ID;
    }
    const Decoded d = decode(id_arg);
    const uint32_t per = zel_numIDsPerSLot_max[key];
    if (d.slot >= zel_numTableSlot_max[key] || d.index >= per) {
        report_id(__func__, "id_reserve", id_arg);
        return ID_MGR_INVALID_ID;
    }
    const bool norand = no_randomize(key);
    if (norand && d.seq != 0) {
        report_id(__func__, "id_reserve: ID Out of Range.", id_arg);
        return ID_MGR_INVALID_ID;
    }
    entry_t **slots = zel_g_id_manager_table[key];
    if (!slots) {
        report_id(__func__, "id_reserve (unassigned table id)", id_arg);
        return ID_MGR_UNINITIALIZED;
    }
    entry_t *slot = slots[d.slot];
    if (slot) {
        entry_t *e = slot + d.index;
        if (!norand) {
            // The mark spares the walk of the free queue for a taken entry.
            if (mark(slot, d.index) != kFree || !zel_p_check_and_unqueue(&g_free_q[key], e))
                return ID_IN_USE;
            e->tableSequence = d.seq;
        } else {
            if (e->tableSequence & kInUse)
                return ID_IN_USE;
            if (!zel_p_unqueue(&g_free_q[key], e)) {
                report_text(__func__, &msg_IDMGR_ID_MANAGER_INTERNAL_ERROR, "ID is not in use, but not in free Q!");
                return ID_IN_USE;
            }
        }
    } else {
        slot = add_slot(key, d.slot, false, d.seq, d.index);
        if (!slot) {
            report_text(__func__, &msg_IDMGR_MALLOC_FAILURE, "Malloc failure - id_reserve");
            return ID_MGR_RET_ERROR;
        }
    }
    id_assign_ptr(key, slot, d.index, p);
    return ID_MGR_RET_OK;
}

void *zel_id_to_ptr(idmgr_id_t id, id_mgr_ret *ret_code, id_table_key_t table_key)
{
    return id_to_ptr_internal(id, ret_code, table_key, true);
}

void zel_id_delete(idmgr_id_t id, id_table_key_t table_key)
{
    const unsigned key = table_key;
    if (id == 0) {
        report_id(__func__, "id_delete (bad id)", id);
        return;
    }
    const Decoded d = decode(id);
    if (key > kMaxKey || !zel_g_id_manager_table[key]) {
        report_id(__func__, "id_delete (bad table key)", d.internal);
        return;
    }
    entry_t *slot = locate(key, d);
    if (!slot) {
        report_id(__func__, "id_delete", d.internal);
        return;
    }
    if (!live(key, slot, d))
        return; // already free, stale, or never handed out
    entry_t *e = slot + d.index;
    if (no_randomize(key))
        e->tableSequence = static_cast<uint8_t>((e->tableSequence + 1) & 0x7F);
    else
        ++e->tableSequence;
    e->u.next = nullptr;
    mark(slot, d.index) = kFree;
    free_put(key, e);
}

void *zel_id_get_next_id_ptr(idmgr_id_t id, idmgr_id_t *next_id, id_mgr_ret *ret_code, id_table_key_t table_key,
                             boolean *wrapped)
{
    const unsigned key = table_key;
    if (key > kMaxKey || !zel_g_id_manager_table[key] || !no_randomize(key)) {
        report_id(__func__, "id_get_next_id_ptr (bad table id)", id);
        if (ret_code)
            *ret_code = ID_MGR_RET_ERROR;
        return nullptr;
    }
    idmgr_id_t next_spare;
    id_mgr_ret rc_spare;
    boolean wrapped_spare;
    next_id = next_id ? next_id : &next_spare;
    ret_code = ret_code ? ret_code : &rc_spare;
    wrapped = wrapped ? wrapped : &wrapped_spare;

    *wrapped = FALSE;
    entry_t **slots = zel_g_id_manager_table[key];
    const uint32_t last = zel_numTableSlot_max[key] - 1;
    const uint32_t per = zel_numIDsPerSLot_max[key];
    const Walk w = walk_start(key, id, wrapped);
    uint32_t s = w.slot;
    void *p = nullptr;
    if (scan_slot(slots, s, w.from, per, next_id, ret_code, &p))
        return p;
    for (;;) {
        if (++s > last) {
            s = 0;
            *wrapped = TRUE;
        }
        if (s == w.stop_slot) {
            scan_slot(slots, s, 0, w.stop_index < per ? w.stop_index : per, next_id, ret_code, &p);
            return p;
        }
        if (scan_slot(slots, s, 0, per, next_id, ret_code, &p))
            return p;
    }
}

void *zel_id_get_this_or_next(idmgr_id_t id, idmgr_id_t *next_id, id_mgr_ret *ret_code, id_table_key_t table_key,
                              boolean *wrapped)
{
    if (id != 0) {
        id_mgr_ret rc;
        void *p = id_to_ptr_internal(id, &rc, table_key, false);
        if (rc == ID_MGR_RET_OK && p) {
            if (next_id)
                *next_id = id;
            if (ret_code)
                *ret_code = ID_MGR_RET_OK;
            if (wrapped)
                *wrapped = FALSE;
            return p;
        }
    }
    return zel_id_get_next_id_ptr(id, next_id, ret_code, table_key, wrapped);
}

void zel_id_destroy_table(id_table_key_t table_key)
{
    const unsigned key = table_key;
    if (key > kMaxKey || !zel_g_id_manager_table[key]) {
        report_id(__func__, "id_destroy_table (bad table id)", 0);
        return;
    }
    for (int32_t n = g_free_q[key].count; n > 0; --n)
        zel_p_dequeue(&g_free_q[key]);
    entry_t **slots = zel_g_id_manager_table[key];
    for (uint32_t s = 0; s < zel_numTableSlot_max[key]; ++s)
        slot_free(slots[s], zel_numIDsPerSLot_max[key]);
    free(slots);
    zel_g_id_manager_table[key] = nullptr;
    zel_numTableSlot_max[key] = 0;
    zel_numIDsPerSLot_max[key] = 0;
    free(g_owner_malloc_name[key]);
    g_owner_malloc_name[key] = nullptr;
}

} // extern "C"
