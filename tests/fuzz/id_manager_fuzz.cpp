// The ID manager against a model: per key, the geometry, the mode, every
// entry of every allocated slot (in use, sequence byte, pointer) and the free
// queue as a deque of (slot, index). Fresh random sequence bytes are read from
// the new slot, the one thing the model cannot know. Tables are small, apart
// from the default one, and every key up to 127 can be filled.
#include <algorithm>
#include <deque>
#include <map>
#include <vector>

#include <vobrel/id_manager.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::require;
struct Entry { bool used; uint8_t seq; void *p; };
using Pos = std::pair<unsigned, unsigned>; // slot, index
struct Table {
    unsigned slots, per;
    bool norand;
    std::vector<std::vector<Entry>> s; // empty: slot not allocated
    std::deque<Pos> freeq;
};
struct Model {
    std::map<unsigned, Table> t;
    std::vector<idmgr_id_t> seen; // identifiers handed out or reserved
    fz::Lines want;
};
constexpr unsigned kNoKey = 0xFFFF;

// The (slot, index) an identifier names.
Pos pos_of(idmgr_id_t id) { return {(id - 1) >> 16 & 0xFF, (id - 1) & 0xFFFF}; }
Table new_table(unsigned slots, unsigned per) { return {slots, per, false, std::vector<std::vector<Entry>>(slots), {}}; }

void bad(Model &m, const char *where, unsigned id)
{
    m.want.push_back(fz::fmt("%%IDMGR-3-INVALID_ID:bad id in %s (id: 0x%X)", where, id));
}

Table *table(Model &m, unsigned key)
{
    auto it = m.t.find(key);
    return it == m.t.end() ? nullptr : &it->second;
}

// A new slot as the library fills it; `seq` < 0: read the random bytes drawn.
void add_slot(Table &t, unsigned key, unsigned slot, int seq, const unsigned *skip)
{
    t.s[slot].resize(t.per);
    for (unsigned i = 0; i < t.per; ++i) {
        const int drawn = seq >= 0 ? seq : t.norand ? 0 : zel_g_id_manager_table[key][slot][i].tableSequence;
        t.s[slot][i] = {false, uint8_t(drawn), nullptr};
        if (!skip || *skip != i)
            t.freeq.push_back({slot, i});
    }
}

idmgr_id_t assign(Table &t, Pos at, void *p)
{
    Entry &e = t.s[at.first][at.second];
    e.used = true;
    e.p = p;
    if (t.norand)
        e.seq |= 0x80;
    return ((t.norand ? 0u : unsigned(e.seq) << 24) | at.first << 16 | at.second) + 1;
}

void create(Model &m, unsigned slots, unsigned per)
{
    id_table_key_t k = zel_id_create_new_table(slots, per, const_cast<char *>("fuzz"));
    if (slots < 1 || slots > 256 || per < 2 || per > 65536) {
        require(k == kNoKey);
        return m.want.push_back("%IDMGR-3-INVALID_ID_TABLE_SIZE:bad new ID table size");
    }
    size_t used = m.t.size() - m.t.count(0);
    require((k == kNoKey) == (used == 127));
    if (k == kNoKey)
        return bad(m, "id_create_new_table (no more entry)", 0);
    require(k >= 1 && k <= 127 && !table(m, k));
    m.t[k] = new_table(slots, per);
}

void get(Model &m, unsigned key, void *p)
{
    idmgr_id_t id = zel_id_get(p, static_cast<id_table_key_t>(key));
    auto refused = [&](const char *where) { require(id == 0); bad(m, where, 0); };
    Table *t = table(m, key);
    if (key > 127 || (!t && key != 0))
        return refused(key > 127 ? "id_get (bad table id)" : "id_get (unassigned table id)");
    if (!t)
        t = &(m.t[0] = new_table(32, 1024));
    if (t->freeq.empty()) {
        unsigned slot = 0;
        while (slot < t->slots && !t->s[slot].empty())
            ++slot;
        if (slot == t->slots)
            return refused("id_get (Out of IDs! out of slots or memory)");
        add_slot(*t, key, slot, -1, nullptr);
    }
    Pos at = t->freeq.front();
    t->freeq.pop_front();
    require(id == assign(*t, at, p));
    m.seen.push_back(id);
}

void reserve(Model &m, unsigned key, void *p, idmgr_id_t id)
{
    unsigned rc = zel_id_reserve(p, static_cast<id_table_key_t>(key), id);
    auto refused = [&](const char *where) { bad(m, where, id); require(rc == ID_MGR_INVALID_ID); };
    Table *t = table(m, key);
    unsigned v = id - 1, slot = v >> 16 & 0xFF, idx = v & 0xFFFF, seq = v >> 24;
    if (id == 0 || key > 127)
        return refused("id_reserve (bad id)");
    if (!t || slot >= t->slots || idx >= t->per)
        return refused("id_reserve");
    if (t->norand && seq != 0)
        return refused("id_reserve: ID Out of Range.");
    if (t->s[slot].empty()) {
        add_slot(*t, key, slot, t->norand ? 0 : int(seq), &idx);
    } else {
        auto it = std::find(t->freeq.begin(), t->freeq.end(), Pos{slot, idx});
        if (it == t->freeq.end())
            return require(rc == ID_IN_USE);
        t->freeq.erase(it);
        if (!t->norand)
            t->s[slot][idx].seq = uint8_t(seq);
    }
    require(rc == ID_MGR_RET_OK);
    assign(*t, {slot, idx}, p);
    m.seen.push_back(id);
}

// The entry `id` names when it is in use, else null; `why` tells the lookup's
// error: 'i' identifier 0, 't' bad table, 'r' out of range, 0 none.
Entry *live(Model &m, unsigned key, idmgr_id_t id, char *why)
{
    Table *t = table(m, key);
    unsigned v = id - 1, slot = v >> 16 & 0xFF, idx = v & 0xFFFF;
    *why = !id ? 'i' : key > 127 || !t ? 't' : slot >= t->slots || t->s[slot].empty() || idx >= t->per ? 'r' : 0;
    if (*why)
        return nullptr;
    Entry &e = t->s[slot][idx];
    bool ok = t->norand ? (e.seq & 0x80) != 0 : e.used && e.seq == v >> 24;
    return ok ? &e : nullptr;
}

void to_ptr(Model &m, unsigned key, idmgr_id_t id)
{
    id_mgr_ret rc = ID_IN_USE;
    void *got = zel_id_to_ptr(id, &rc, static_cast<id_table_key_t>(key));
    char why;
    Entry *e = live(m, key, id, &why);
    if (why)
        bad(m, why == 'i' ? "id_to_ptr (bad id)" : why == 't' ? "id_to_ptr (bad table id)" : "id_to_ptr", id);
    id_mgr_ret want = why == 'i' ? ID_MGR_RET_OK : why ? ID_MGR_RET_ERROR : e ? ID_MGR_RET_OK : ID_MGR_RET_RETIRED;
    require(rc == want && got == (e ? e->p : nullptr));
}

void del(Model &m, unsigned key, idmgr_id_t id)
{
    zel_id_delete(id, static_cast<id_table_key_t>(key));
    char why;
    Entry *e = live(m, key, id, &why);
    if (why == 'i')
        return bad(m, "id_delete (bad id)", id);
    if (why)
        return bad(m, why == 't' ? "id_delete (bad table key)" : "id_delete", id - 1);
    if (!e)
        return;
    Table &t = *table(m, key);
    e->seq = t.norand ? (e->seq + 1) & 0x7F : uint8_t(e->seq + 1);
    e->used = false;
    e->p = nullptr;
    t.freeq.push_back(pos_of(id));
}

// Scans slot `s` of `t` over [from, to) for an entry in use.
bool scan(const Table &t, unsigned s, unsigned from, unsigned to, Pos *hit)
{
    if (s >= t.slots || t.s[s].empty())
        return false;
    for (unsigned i = from; i < std::min(to, t.per); ++i)
        if (t.s[s][i].seq & 0x80)
            return *hit = {s, i}, true;
    return false;
}

bool walk_model(const Table &t, idmgr_id_t id, Pos *hit, bool *wrapped)
{
    unsigned last = t.slots - 1;
    Pos stop{last, t.per - 1}, start{0, 0};
    *wrapped = false;
    if (id != 0) {
        stop = pos_of(id);
        start = {stop.first, stop.second + 1};
        if (start.second >= t.per)
            start = {start.first + 1, 0};
        if (start.first > last)
            *wrapped = true, stop = {last, t.per - 1}, start = {0, 0};
    }
    if (scan(t, start.first, start.second, t.per, hit))
        return true;
    for (unsigned s = start.first;;) {
        if (++s > last)
            *wrapped = true, s = 0;
        if (s == stop.first)
            return scan(t, s, 0, stop.second, hit);
        if (scan(t, s, 0, t.per, hit))
            return true;
    }
}

void walk(Model &m, unsigned key, idmgr_id_t id, bool this_or_next)
{
    idmgr_id_t next = 77;
    id_mgr_ret rc = ID_IN_USE;
    boolean wrapped = 9;
    auto fn = this_or_next ? zel_id_get_this_or_next : zel_id_get_next_id_ptr;
    void *got = fn(id, &next, &rc, static_cast<id_table_key_t>(key), &wrapped);
    char why;
    Entry *e = this_or_next ? live(m, key, id, &why) : nullptr;
    if (e && e->p)
        return require(got == e->p && next == id && rc == ID_MGR_RET_OK && !wrapped);
    Table *t = table(m, key);
    if (key > 127 || !t || !t->norand) {
        require(!got && rc == ID_MGR_RET_ERROR && next == 77 && wrapped == 9);
        return bad(m, "id_get_next_id_ptr (bad table id)", id);
    }
    Pos hit;
    bool w, found = walk_model(*t, id, &hit, &w);
    require(wrapped == w);
    if (!found)
        return require(!got && next == 77 && rc == ID_IN_USE);
    require(rc == ID_MGR_RET_OK && next == (hit.first << 16 | hit.second) + 1 && got == t->s[hit.first][hit.second].p);
}

void set_norand(Model &m, unsigned key)
{
    Table *t = table(m, key);
    require(zel_id_table_set_no_randomize(static_cast<id_table_key_t>(key)) == (t != nullptr));
    if (!t || t->norand)
        return;
    t->norand = true;
    for (auto &slot : t->s)
        for (Entry &e : slot)
            e.seq = e.used ? 0x80 : 0;
}

void destroy(Model &m, unsigned key)
{
    zel_id_destroy_table(static_cast<id_table_key_t>(key));
    if (!table(m, key))
        return bad(m, "id_destroy_table (bad table id)", 0);
    m.t.erase(key);
}

void check(Model &m)
{
    for (unsigned k = 0; k < ID_MGR_MAX_TABLES; ++k) {
        Table *t = table(m, k);
        require((zel_g_id_manager_table[k] != nullptr) == (t != nullptr));
        require(zel_numTableSlot_max[k] == (t ? t->slots : 0) && zel_numIDsPerSLot_max[k] == (t ? t->per : 0));
        if (!t)
            continue;
        require((zel_id_table_flags[k] & 1) == t->norand);
        for (unsigned s = 0; s < t->slots; ++s) {
            entry_t *slot = zel_g_id_manager_table[k][s];
            require((slot != nullptr) == !t->s[s].empty());
            for (unsigned i = 0; slot && i < t->per; ++i)
                require(slot[i].tableSequence == t->s[s][i].seq && slot[i].tableNumber == s &&
                        (!t->s[s][i].used || slot[i].u.user_p == t->s[s][i].p));
        }
    }
}

// A key: the default one, a live one, or any up to 131.
unsigned key_of(Model &m, fz::Ops &in)
{
    unsigned b = in.byte();
    if (b % 4 == 1 && !m.t.empty())
        return std::next(m.t.begin(), long(b / 4 % m.t.size()))->first;
    return b % 4 == 0 ? 0 : b % 132;
}

// An identifier: one seen before (maybe stale now), or made up from a slot,
// an index and a sequence byte near the table's geometry.
idmgr_id_t id_of(Model &m, fz::Ops &in)
{
    unsigned b = in.byte();
    if (b & 1 && !m.seen.empty())
        return m.seen[b / 2 % m.seen.size()];
    if (b == 2)
        return 0;
    unsigned seq = in.pick(4) == 0 ? in.byte() : 0;
    return (seq << 24 | in.pick(6) << 16 | in.pick(6)) + 1;
}

void step(Model &m, fz::Ops &in)
{
    unsigned op = in.pick(11), key = key_of(m, in);
    void *p = reinterpret_cast<void *>(uintptr_t(in.pick(4)) * 16);
    switch (op) {
    case 0: create(m, in.pick(5), in.pick(6)); break;
    case 1: set_norand(m, key); break;
    case 2: case 3: get(m, key, p); break;
    case 4: reserve(m, key, p, id_of(m, in)); break;
    case 5: to_ptr(m, key, id_of(m, in)); break;
    case 6: del(m, key, id_of(m, in)); break;
    case 7: case 8: walk(m, key, id_of(m, in), op == 8); break;
    case 9: destroy(m, key); break;
    default:
        for (int i = 0; i < 128; ++i)
            create(m, 1, 2);
        break;
    }
    fz::reported(m.want);
    check(m);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    for (unsigned k = 0; k < ID_MGR_MAX_TABLES; ++k)
        if (zel_g_id_manager_table[k])
            zel_id_destroy_table(static_cast<id_table_key_t>(k));
    Model m;
    while (in.more())
        step(m, in);
    return 0;
}
