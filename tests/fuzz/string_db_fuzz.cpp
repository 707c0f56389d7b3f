// The string database against a model: texts keyed by the bytes their hash is
// taken on, each with its anonymous count and its owners (a unique owner's one
// object, or a non-unique owner's objects newest first); components that
// register and unregister (taking their associations with them); objects whose callback confirms or denies what they
// hold. Texts use the letters a to c only, so no two records share a hash key.
// Every input leaves the database as it found it.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include <vobrel/string_db.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::require;
struct Obj { sdb_handle h; bool deny; };
struct Ctx { Obj *obj; sdb_handle h; };
struct Own { std::vector<Ctx> ctx; bool unique; }; // newest first; a unique owner has one
struct Rec { std::string bytes; uint32_t refs; sdb_handle anon; std::map<unsigned, Own> owners; };
struct Comp { ushort id; bool unique, live; sdb_handle (*cb)(void *); };

struct Model {
    std::map<std::string, Rec> t; // by hash key
    std::vector<Comp> comps;
    std::vector<bool> used_id; // index: owner id; true while registered
    Obj objs[6];
    sdb_handle block[2];
    uint32_t strings0;
};

sdb_handle confirm(void *o)
{
    auto *obj = static_cast<Obj *>(o);
    return obj->deny ? obj->h ^ 4 : obj->h;
}
sdb_handle confirm_too(void *o) { return confirm(o); } // the same answer from another callback

std::string key_of(std::string k, int type)
{
    if (type == SDB_ASCII_STRING_CASE_INSENSITIVE)
        std::transform(k.begin(), k.end(), k.begin(), toupper);
    return k;
}

Rec *lookup(Model &m, const std::string &b, int type)
{
    auto it = m.t.find(key_of(b, type));
    return it == m.t.end() ? nullptr : &it->second;
}

// A text nobody holds any more is gone.
void drop_unused(Model &m)
{
    std::erase_if(m.t, [](auto &kv) { return kv.second.refs == 0 && kv.second.owners.empty(); });
}

// The live registration holding `id`, if the input made it.
Comp *registered(Model &m, unsigned id)
{
    for (Comp &c : m.comps)
        if (c.id == id && c.live)
            return &c;
    return nullptr;
}

// The add as the database should do it; `got` is the handle it wrote.
bool add_model(Model &m, const std::string &b, int len, int type, unsigned id, Obj *obj, sdb_handle got)
{
    if (len < 0 || len > 255)
        return false;
    bool owned = id < m.used_id.size();
    Rec *r = lookup(m, b, type);
    if (owned && r && r->owners.count(id)) {
        Own &o = r->owners[id];
        if (o.unique)
            return false;
        o.ctx.insert(o.ctx.begin(), {obj, got});
        return true;
    }
    if (owned && !m.used_id[id])
        return false;
    if (!r)
        r = &(m.t[key_of(b, type)] = Rec{b, 0, 0, {}});
    if (owned)
        r->owners[id] = Own{{{obj, got}}, registered(m, id) && registered(m, id)->unique};
    else if (r->refs++ == 0 && !r->anon)
        r->anon = got;
    return true;
}

void add(Model &m, fz::Ops &in, const std::string &b, int len, int type)
{
    unsigned who = in.pick(4);
    Obj *obj = &m.objs[in.pick(6)];
    // Not a component: the anonymous id, or the lowest id never handed out.
    const unsigned never = static_cast<unsigned>(m.used_id.size());
    unsigned id = who < m.comps.size() ? m.comps[who].id : who == 3 ? never : 0xFFFF;
    sdb_handle h = 7;
    bool ok = sdb_add_string(b.c_str(), len, static_cast<sdb_string_types>(type), &h, static_cast<ushort>(id), obj);
    require(ok == add_model(m, b, len, type, id, obj, h));
    if (!ok)
        return;
    Rec *r = lookup(m, b, type);
    bool anon = id >= m.used_id.size();
    require((h & 3) == (anon ? 3 : r->owners[id].unique ? 2 : 1));
    if (anon)
        require(h == r->anon);
    else
        obj->h = h;
    int n = -1;
    require(memcmp(sdb_string_addr(h, &n), r->bytes.data(), b.size()) == 0 && n == len);
}

// Removes the association of `h` with `obj` from the model; false if the
// database must refuse it.
bool remove_model(Model &m, sdb_handle h, Obj *obj)
{
    if (h == 0)
        return false;
    for (auto &[k, r] : m.t) {
        if ((h & 3) == 3 && h == r.anon) {
            if (r.refs == 0)
                return false;
            --r.refs;
            drop_unused(m);
            return true;
        }
        for (auto &[id, o] : r.owners)
            for (size_t i = 0; i < o.ctx.size(); ++i)
                if (o.ctx[i].h == h) {
                    if (o.ctx[i].obj != obj)
                        return false;
                    o.ctx.erase(o.ctx.begin() + static_cast<long>(i));
                    if (o.ctx.empty())
                        r.owners.erase(id);
                    drop_unused(m);
                    return true;
                }
    }
    __builtin_trap(); // only live handles are passed
}

// Every handle that still names something, with the object that holds it.
std::vector<Ctx> live(Model &m)
{
    std::vector<Ctx> out;
    for (auto &[k, r] : m.t) {
        if (r.anon)
            out.push_back({nullptr, r.anon});
        for (auto &[id, o] : r.owners)
            out.insert(out.end(), o.ctx.begin(), o.ctx.end());
    }
    return out;
}

void find(Model &m, fz::Ops &in, const std::string &b, int len, int type)
{
    unsigned id = m.comps.empty() ? 0xFFFF : m.comps[in.pick(static_cast<unsigned>(m.comps.size()))].id;
    int index = static_cast<int>(in.pick(5)) - 1; // -1 steps no times: it means 0
    int at = std::max(index, 0);
    void *ctx = &m;
    uint16_t errors = id < m.used_id.size() ? sdb_owner_info_array[id].sanity_check_errors : 0;
    bool ok = sdb_find_string(b.c_str(), len, static_cast<sdb_string_types>(type), index, static_cast<ushort>(id), &ctx);
    Rec *r = len >= 0 && len <= 255 ? lookup(m, b, type) : nullptr;
    if (!r || !r->owners.count(id) || at >= static_cast<int>(r->owners[id].ctx.size()))
        return require(!ok);
    Ctx c = r->owners[id].ctx[at];
    require(ctx == c.obj);
    bool confirmed = id < m.used_id.size() && m.used_id[id] && !c.obj->deny && c.obj->h == c.h;
    require(ok == confirmed);
    if (confirmed)
        return;
    remove_model(m, c.h, c.obj);
    if (m.used_id[id])
        require(sdb_owner_info_array[id].sanity_check_errors == uint16_t(errors + 1));
}

void set_block(Model &m, fz::Ops &in, const std::string &b, int len, int type)
{
    sdb_handle &h = m.block[in.pick(2)];
    bool null_buf = in.pick(6) == 0;
    int n = 0;
    const char *old = h ? sdb_string_addr(h, &n) : nullptr;
    bool same = old && !null_buf && n == len && memcmp(old, b.data(), b.size()) == 0;
    sdb_handle before = h;
    bool ok = sdb_set_block(null_buf ? nullptr : b.c_str(), len, static_cast<sdb_string_types>(type), &h);
    if (same)
        return require(ok && h == before);
    if (before)
        require(remove_model(m, before, nullptr));
    bool want = !null_buf && add_model(m, b, len, type, 0xFFFF, nullptr, h);
    require(ok == want && (ok || h == 0));
}

void reg(Model &m, fz::Ops &in)
{
    bool unique = in.flag();
    auto cb = in.flag() ? confirm : confirm_too;
    int misuse = in.pick(8);
    ushort id = 1234;
    bool ok = sdb_register_component(misuse == 0 ? nullptr : const_cast<char *>("fuzz"), misuse == 1 ? nullptr : cb,
                                     unique, misuse == 2 ? nullptr : &id);
    if (misuse <= 2)
        return require(!ok && id == 1234); // refused before anything is written
    size_t want = std::find(m.used_id.begin(), m.used_id.end(), false) - m.used_id.begin();
    require(ok && id == want && sdb_max_users == std::max<size_t>(m.used_id.size(), want + 1));
    if (want == m.used_id.size())
        m.used_id.push_back(false);
    m.used_id[want] = true;
    m.comps.push_back({id, unique, true, cb});
}

void unreg(Model &m, fz::Ops &in)
{
    if (m.comps.empty())
        return;
    // The id may be held by a newer registration now: that one is freed.
    ushort id = m.comps[in.pick(static_cast<unsigned>(m.comps.size()))].id;
    Comp *live = registered(m, id);
    int how = in.pick(3);
    auto cb = how == 0 ? confirm : how == 1 ? confirm_too : nullptr;
    if (!live && !cb) // a freed entry is cleared: its null callback matches
        return require(sdb_unregister_component(id, cb));
    bool ok = sdb_unregister_component(id, cb);
    require(ok == (live && cb == live->cb));
    if (!ok)
        return;
    live->live = false;
    m.used_id[id] = false;
    // Its owner records go at once; texts nobody else holds go with them.
    for (auto &[k, r] : m.t)
        r.owners.erase(id);
    drop_unused(m);
}

// What the database holds agrees with the model, seen through live handles.
void check(Model &m)
{
    require(sdb_number_strings == m.strings0 + m.t.size());
    for (Ctx c : live(m)) {
        int n = -1;
        const char *p = sdb_string_addr(c.h, &n);
        require(p && n >= 0 && p[n] == 0 && p == sdb_string_addr_ptr(c.h) && p == sdb_block_addr_ptr(c.h));
    }
    for (size_t id = 0; id < m.used_id.size(); ++id)
        require(sdb_owner_info_array[id].unregistered == !m.used_id[id]);
}

// Many distinct texts at once: the table grows past 256 buckets the first time.
void bulk()
{
    std::vector<sdb_handle> hs(1300);
    for (size_t i = 0; i < hs.size(); ++i) {
        std::string s = fz::fmt("bulk%zu", i);
        require(sdb_add_block(s.data(), static_cast<int>(s.size()), &hs[i]));
    }
    for (size_t i = 0; i < hs.size(); ++i) {
        std::string s = fz::fmt("bulk%zu", i);
        require(memcmp(sdb_block_addr_ptr(hs[i]), s.data(), s.size()) == 0);
        sdb_remove_block(hs[i]);
    }
}

void step(Model &m, fz::Ops &in)
{
    int op = in.pick(9), type = in.pick(3);
    std::string b;
    for (int n = in.pick(5); n > 0; --n)
        b += static_cast<char>('a' + in.pick(3));
    int len = in.pick(16) == 0 ? (in.flag() ? 256 : -1) : static_cast<int>(b.size());
    switch (op) {
    case 0: case 1: add(m, in, b, len, type); break;
    case 2: find(m, in, b, len, type); break;
    case 3: {
        std::vector<Ctx> hs = live(m);
        if (hs.empty())
            break;
        Ctx c = hs[in.pick(static_cast<unsigned>(hs.size()))];
        // The block slots' references are theirs to give back.
        if (c.h == m.block[0] || c.h == m.block[1])
            break;
        Obj *obj = in.flag() ? c.obj : &m.objs[in.pick(6)];
        require(sdb_remove_string(c.h, obj) == remove_model(m, c.h, obj));
        break;
    }
    case 4: set_block(m, in, b, len, type); break;
    case 5: reg(m, in); break;
    case 6: unreg(m, in); break;
    case 7: m.objs[in.pick(6)].deny ^= true; break;
    default: if (in.pick(64) == 0) bulk(); break;
    }
    check(m);
}

// A text whose anonymous count is at its top refuses one more reference.
void saturate(Model &m)
{
    for (auto &[k, r] : m.t) {
        if (!r.refs)
            continue;
        auto *s = reinterpret_cast<sdb_string *>(r.anon - SDB_TAG_STRING);
        uint32_t refs = std::exchange(s->refcount, UINT32_MAX);
        auto type = k == r.bytes ? SDB_ASCII_STRING_CASE_SENSITIVE : SDB_ASCII_STRING_CASE_INSENSITIVE;
        sdb_handle h = 7;
        require(!sdb_add_string(k.c_str(), static_cast<int>(k.size()), type, &h, 0xFFFF, nullptr));
        require(s->refcount == UINT32_MAX);
        s->refcount = refs;
    }
}

// Gives back everything the input took.
void clean(Model &m)
{
    saturate(m);
    for (std::vector<Ctx> hs; !(hs = live(m)).empty();) {
        Ctx c = hs.front();
        Rec *r = nullptr;
        for (auto &kv : m.t)
            r = kv.second.anon == c.h ? &kv.second : r;
        if (r && r->refs == 0) {
            r->anon = 0; // only owners hold it now
            continue;
        }
        require(sdb_remove_string(c.h, c.obj) && remove_model(m, c.h, c.obj));
    }
    for (Comp &c : m.comps)
        if (c.live)
            require(sdb_unregister_component(c.id, c.cb));
    require(sdb_number_strings == m.strings0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    Model m{};
    m.strings0 = sdb_number_strings;
    for (ushort id = 0; id < sdb_max_users; ++id)
        m.used_id.push_back(!sdb_owner_info_array[id].unregistered);
    while (in.more())
        step(m, in);
    clean(m);
    return 0;
}
