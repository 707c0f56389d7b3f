// The string database: one copy of each distinct text per process, in chained
// hash buckets keyed by a CRC-32 of the bytes, with per-component owner records.
#include <vobrel/string_db.h>
#include <vobrel/xos.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "util/src/string_db_private.h"
#include "common/src/library_private.h"

using vobrel::detail::sdb_do_crc;
using vobrel::detail::sdb_test_get_sdb_handle_from_struct;

extern "C" {

constexpr uint32_t sdb_crc_ctabl[256] = {
    0x00000000u, 0x77073096u, 0xee0e612cu, 0x990951bau, 0x076dc419u, 0x706af48fu,
    0xe963a535u, 0x9e6495a3u, 0x0edb8832u, 0x79dcb8a4u, 0xe0d5e91eu, 0x97d2d988u,
    0x09b64c2bu, 0x7eb17cbdu, 0xe7b82d07u, 0x90bf1d91u, 0x1db71064u, 0x6ab020f2u,
    0xf3b97148u, 0x84be41deu, 0x1adad47du, 0x6ddde4ebu, 0xf4d4b551u, 0x83d385c7u,
    0x136c9856u, 0x646ba8c0u, 0xfd62f97au, 0x8a65c9ecu, 0x14015c4fu, 0x63066cd9u,
    0xfa0f3d63u, 0x8d080df5u, 0x3b6e20c8u, 0x4c69105eu, 0xd56041e4u, 0xa2677172u,
    0x3c03e4d1u, 0x4b04d447u, 0xd20d85fdu, 0xa50ab56bu, 0x35b5a8fau, 0x42b2986cu,
    0xdbbbc9d6u, 0xacbcf940u, 0x32d86ce3u, 0x45df5c75u, 0xdcd60dcfu, 0xabd13d59u,
    0x26d930acu, 0x51de003au, 0xc8d75180u, 0xbfd06116u, 0x21b4f4b5u, 0x56b3c423u,
    0xcfba9599u, 0xb8bda50fu, 0x2802b89eu, 0x5f058808u, 0xc60cd9b2u, 0xb10be924u,
    0x2f6f7c87u, 0x58684c11u, 0xc1611dabu, 0xb6662d3du, 0x76dc4190u, 0x01db7106u,
    0x98d220bcu, 0xefd5102au, 0x71b18589u, 0x06b6b51fu, 0x9fbfe4a5u, 0xe8b8d433u,
    0x7807c9a2u, 0x0f00f934u, 0x9609a88eu, 0xe10e9818u, 0x7f6a0dbbu, 0x086d3d2du,
    0x91646c97u, 0xe6635c01u, 0x6b6b51f4u, 0x1c6c6162u, 0x856530d8u, 0xf262004eu,
    0x6c0695edu, 0x1b01a57bu, 0x8208f4c1u, 0xf50fc457u, 0x65b0d9c6u, 0x12b7e950u,
    0x8bbeb8eau, 0xfcb9887cu, 0x62dd1ddfu, 0x15da2d49u, 0x8cd37cf3u, 0xfbd44c65u,
    0x4db26158u, 0x3ab551ceu, 0xa3bc0074u, 0xd4bb30e2u, 0x4adfa541u, 0x3dd895d7u,
    0xa4d1c46du, 0xd3d6f4fbu, 0x4369e96au, 0x346ed9fcu, 0xad678846u, 0xda60b8d0u,
    0x44042d73u, 0x33031de5u, 0xaa0a4c5fu, 0xdd0d7cc9u, 0x5005713cu, 0x270241aau,
    0xbe0b1010u, 0xc90c2086u, 0x5768b525u, 0x206f85b3u, 0xb966d409u, 0xce61e49fu,
    0x5edef90eu, 0x29d9c998u, 0xb0d09822u, 0xc7d7a8b4u, 0x59b33d17u, 0x2eb40d81u,
    0xb7bd5c3bu, 0xc0ba6cadu, 0xedb88320u, 0x9abfb3b6u, 0x03b6e20cu, 0x74b1d29au,
    0xead54739u, 0x9dd277afu, 0x04db2615u, 0x73dc1683u, 0xe3630b12u, 0x94643b84u,
    0x0d6d6a3eu, 0x7a6a5aa8u, 0xe40ecf0bu, 0x9309ff9du, 0x0a00ae27u, 0x7d079eb1u,
    0xf00f9344u, 0x8708a3d2u, 0x1e01f268u, 0x6906c2feu, 0xf762575du, 0x806567cbu,
    0x196c3671u, 0x6e6b06e7u, 0xfed41b76u, 0x89d32be0u, 0x10da7a5au, 0x67dd4accu,
    0xf9b9df6fu, 0x8ebeeff9u, 0x17b7be43u, 0x60b08ed5u, 0xd6d6a3e8u, 0xa1d1937eu,
    0x38d8c2c4u, 0x4fdff252u, 0xd1bb67f1u, 0xa6bc5767u, 0x3fb506ddu, 0x48b2364bu,
    0xd80d2bdau, 0xaf0a1b4cu, 0x36034af6u, 0x41047a60u, 0xdf60efc3u, 0xa867df55u,
    0x316e8eefu, 0x4669be79u, 0xcb61b38cu, 0xbc66831au, 0x256fd2a0u, 0x5268e236u,
    0xcc0c7795u, 0xbb0b4703u, 0x220216b9u, 0x5505262fu, 0xc5ba3bbeu, 0xb2bd0b28u,
    0x2bb45a92u, 0x5cb36a04u, 0xc2d7ffa7u, 0xb5d0cf31u, 0x2cd99e8bu, 0x5bdeae1du,
    0x9b64c2b0u, 0xec63f226u, 0x756aa39cu, 0x026d930au, 0x9c0906a9u, 0xeb0e363fu,
    0x72076785u, 0x05005713u, 0x95bf4a82u, 0xe2b87a14u, 0x7bb12baeu, 0x0cb61b38u,
    0x92d28e9bu, 0xe5d5be0du, 0x7cdcefb7u, 0x0bdbdf21u, 0x86d3d2d4u, 0xf1d4e242u,
    0x68ddb3f8u, 0x1fda836eu, 0x81be16cdu, 0xf6b9265bu, 0x6fb077e1u, 0x18b74777u,
    0x88085ae6u, 0xff0f6a70u, 0x66063bcau, 0x11010b5cu, 0x8f659effu, 0xf862ae69u,
    0x616bffd3u, 0x166ccf45u, 0xa00ae278u, 0xd70dd2eeu, 0x4e048354u, 0x3903b3c2u,
    0xa7672661u, 0xd06016f7u, 0x4969474du, 0x3e6e77dbu, 0xaed16a4au, 0xd9d65adcu,
    0x40df0b66u, 0x37d83bf0u, 0xa9bcae53u, 0xdebb9ec5u, 0x47b2cf7fu, 0x30b5ffe9u,
    0xbdbdf21cu, 0xcabac28au, 0x53b39330u, 0x24b4a3a6u, 0xbad03605u, 0xcdd70693u,
    0x54de5729u, 0x23d967bfu, 0xb3667a2eu, 0xc4614ab8u, 0x5d681b02u, 0x2a6f2b94u,
    0xb40bbe37u, 0xc30c8ea1u, 0x5a05df1bu, 0x2d02ef8du
};

sdb_string **sdb_hash_table;
uint32_t sdb_hash_table_size = 256;
uint32_t sdb_hash_mask = 255;
sdb_owner_info *sdb_owner_info_array;
ushort sdb_max_users;
ushort sdb_test_owner_id = SDB_NO_OWNER;

uint32_t sdb_number_adds;
uint32_t sdb_number_strings;
uint32_t sdb_number_removals;
uint32_t sdb_number_searchs;
uint32_t sdb_maximum_sharing_count;
uint32_t sdb_total_collision_count;
uint32_t sdb_deepest_collision_count;

} // extern "C"

namespace {

constexpr uint32_t kInitialBuckets = 256;
// The table doubles once the average chain would exceed this many records.
constexpr uint64_t kMaxAverageChain = 5;
constexpr int kMaxLen = SDB_MAX_STRING_LEN;
constexpr uintptr_t kTagMask = SDB_HANDLE_TAG_MASK;

// Every record sits on a boundary of at least four bytes, so a tag fits in
// the two low bits of its address. A text record follows its byte area, whose
// size is therefore a multiple of the record's own alignment (four on the
// 32-bit target, eight where pointers are eight bytes).
constexpr size_t kRecordAlign = alignof(sdb_string);
static_assert(kRecordAlign >= 4 && alignof(sdb_owner) >= 4 && alignof(sdb_context) >= 4);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the sliced CRC reads little-endian words");

// Ids freed by unregistering and not yet reused; spares registration a scan
// of the owner-info array while there are none.
uint32_t free_ids;

char test_component_name[] = "SDB Test Driver Code";

// Slicing-by-8: slice[0] is the standard table, slice[k][b] the CRC of byte b
// followed by k zero bytes. Eight bytes then cost eight independent lookups.
struct CrcSlices {
    uint32_t t[8][256];
};

constexpr CrcSlices make_crc_slices()
{
    CrcSlices s{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit)
            c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        s.t[0][i] = c;
    }
    for (int k = 1; k < 8; ++k)
        for (int i = 0; i < 256; ++i)
            s.t[k][i] = (s.t[k - 1][i] >> 8) ^ s.t[0][s.t[k - 1][i] & 0xFF];
    return s;
}

constexpr CrcSlices crc_slices = make_crc_slices();

constexpr bool exported_table_is_standard()
{
    for (int i = 0; i < 256; ++i)
        if (sdb_crc_ctabl[i] != crc_slices.t[0][i])
            return false;
    return true;
}
static_assert(exported_table_is_standard());

uint32_t crc_update(uint32_t crc, const uchar *p, size_t n)
{
    const auto &t = crc_slices.t;
    while (n >= 8) {
        uint32_t lo, hi;
        memcpy(&lo, p, 4);
        memcpy(&hi, p + 4, 4);
        lo ^= crc;
        crc = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
              t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
        p += 8;
        n -= 8;
    }
    while (n--)
        crc = (crc >> 8) ^ sdb_crc_ctabl[(crc ^ *p++) & 0xFF];
    return crc;
}

sdb_handle make_handle(const void *record, uintptr_t tag)
{
    return static_cast<sdb_handle>(reinterpret_cast<uintptr_t>(record) + tag);
}

uintptr_t handle_tag(sdb_handle h)
{
    return static_cast<uintptr_t>(h) & kTagMask;
}

template <typename T> T *handle_record(sdb_handle h)
{
    return reinterpret_cast<T *>(static_cast<uintptr_t>(h) & ~kTagMask);
}

char *text_bytes(sdb_string *s)
{
    return reinterpret_cast<char *>(s) - s->sdb_offset;
}

// The byte area before a record: room for `len` bytes and at least one zero.
size_t byte_area(int len)
{
    return (static_cast<size_t>(len) / kRecordAlign + 1) * kRecordAlign;
}

// Whether `p` points into the allocation holding the record and its bytes.
bool inside_text_block(const sdb_string *s, const void *p)
{
    auto lo = reinterpret_cast<uintptr_t>(s) - s->sdb_offset;
    auto hi = reinterpret_cast<uintptr_t>(s + 1);
    auto at = reinterpret_cast<uintptr_t>(p);
    return at >= lo && at < hi;
}

bool valid_len(int len)
{
    return len >= 0 && len <= kMaxLen;
}

bool sdb_init_memory()
{
    if (sdb_hash_table)
        return true;
    auto *table = static_cast<sdb_string **>(calloc(kInitialBuckets, sizeof(sdb_string *)));
    if (!table)
        return false;
    sdb_hash_table = table;
    sdb_hash_table_size = kInitialBuckets;
    sdb_hash_mask = kInitialBuckets - 1;
    return true;
}

// Pushes `s` onto the head of its bucket in `table`, which holds `depth`
// records, and counts the collision.
void push_record(sdb_string **table, uint32_t mask, sdb_string *s, uint32_t depth)
{
    sdb_string **head = &table[s->crc & mask];
    s->next_string = *head;
    *head = s;
    if (depth) {
        if (depth > sdb_deepest_collision_count)
            sdb_deepest_collision_count = depth;
        ++sdb_total_collision_count;
    }
}

// Doubles the table, or keeps it when memory is short. The collision counters
// are rebuilt as the records move, so they describe the new table.
void grow_table()
{
    uint32_t old_size = sdb_hash_table_size;
    if (old_size > UINT32_MAX / 2)
        return;
    uint32_t size = old_size * 2;
    auto *table = static_cast<sdb_string **>(calloc(size, sizeof(sdb_string *)));
    if (!table)
        return;
    sdb_string **old = sdb_hash_table;
    sdb_deepest_collision_count = 0;
    sdb_total_collision_count = 0;
    for (uint32_t i = 0; i < old_size; ++i) {
        // Old bucket i feeds new buckets i and i + old_size alone, so their
        // depths are counted here rather than walked.
        uint32_t depth[2] = {0, 0};
        while (sdb_string *s = old[i]) {
            old[i] = s->next_string;
            uint32_t upper = (s->crc & old_size) ? 1 : 0;
            push_record(table, size - 1, s, depth[upper]++);
        }
    }
    free(old);
    sdb_hash_table = table;
    sdb_hash_table_size = size;
    sdb_hash_mask = size - 1;
}

// Where a lookup looked: the hash of the bytes, and on a miss the length of
// the bucket it walked (the depth at which an insert lands).
struct Lookup {
    uint32_t crc;
    uint32_t depth;
};

void sdb_enqueue_hash_bucket(sdb_string *s, uint32_t depth)
{
    push_record(sdb_hash_table, sdb_hash_mask, s, depth);
    if (depth != 0 && kMaxAverageChain * sdb_hash_table_size < sdb_number_strings)
        grow_table();
}

void sdb_dequeue_hash_bucket(sdb_string *s)
{
    sdb_string **head = &sdb_hash_table[s->crc & sdb_hash_mask];
    sdb_string **pp = head;
    while (*pp && *pp != s)
        pp = &(*pp)->next_string;
    if (!*pp)
        return;
    *pp = s->next_string;
    s->next_string = nullptr;
    if (*head)
        --sdb_total_collision_count;
}

// The record holding these bytes, or null.
sdb_string *sdb_find_string_entry(const char *buf, int len, sdb_string_types type, Lookup *where)
{
    bool fold = type == SDB_ASCII_STRING_CASE_INSENSITIVE;
    uint32_t crc = sdb_do_crc(reinterpret_cast<const uchar *>(buf), len, fold);
    where->crc = crc;
    where->depth = 0;
    if (!sdb_hash_table)
        return nullptr;
    // A match holds exactly `len` bytes, so its text lies byte_area(len)
    // before the record: fetch that line while the record's own arrives.
    const size_t area = byte_area(len);
    for (sdb_string *s = sdb_hash_table[crc & sdb_hash_mask]; s; s = s->next_string) {
        __builtin_prefetch(reinterpret_cast<const char *>(s) - area);
        ++where->depth;
        if (s->crc != crc || s->len != len)
            continue;
        // Both texts end in a zero byte at `len`, so a bounded comparison
        // answers as the whole texts would, without reading past the caller's.
        const char *bytes = text_bytes(s);
        if (fold ? strncasecmp(bytes, buf, static_cast<size_t>(len)) == 0
                 : memcmp(bytes, buf, static_cast<size_t>(len)) == 0)
            return s;
    }
    return nullptr;
}

sdb_owner *sdb_find_owner(sdb_string *s, ushort owner_id)
{
    for (sdb_owner *o = s->owners; o; o = o->next_owner)
        if (o->owner_id == owner_id)
            return o;
    return nullptr;
}

sdb_string *sdb_handle_string(sdb_handle h)
{
    if (!handle_record<void>(h))
        return nullptr;
    switch (handle_tag(h)) {
    case SDB_TAG_CONTEXT:
        return handle_record<sdb_context>(h)->owner->string;
    case SDB_TAG_OWNER:
        return handle_record<sdb_owner>(h)->string;
    case SDB_TAG_STRING:
        return handle_record<sdb_string>(h);
    default:
        return nullptr;
    }
}

char *sdb_data_addr(sdb_handle h)
{
    sdb_string *s = sdb_handle_string(h);
    return s ? text_bytes(s) : nullptr;
}

// False when the count cannot go higher.
bool sdb_bump_refcount(sdb_string *s)
{
    if (s->refcount == UINT32_MAX)
        return false;
    ++s->refcount;
    if (s->refcount > sdb_maximum_sharing_count)
        sdb_maximum_sharing_count = s->refcount;
    return true;
}

// A new context at the head of the owner's circular list; its handle, or 0.
sdb_handle sdb_add_context_to_owner(sdb_owner *o, void *owner_context)
{
    auto *c = static_cast<sdb_context *>(vobrel::detail::xos_alloc(sizeof(sdb_context)));
    if (!c)
        return 0;
    c->owner_context = owner_context;
    c->owner = o;
    sdb_context *head = o->info.contexts;
    if (!head) {
        c->next_context = c;
        c->prev_context = c;
    } else {
        c->next_context = head;
        c->prev_context = head->prev_context;
        head->prev_context->next_context = c;
        head->prev_context = c;
    }
    o->info.contexts = c;
    return make_handle(c, SDB_TAG_CONTEXT);
}

void sdb_free_string(sdb_string *s)
{
    sdb_dequeue_hash_bucket(s);
    free(text_bytes(s));
    --sdb_number_strings;
}

void sdb_free_owner(sdb_owner *o)
{
    sdb_string *s = o->string;
    if (s) {
        sdb_owner **pp = &s->owners;
        while (*pp && *pp != o)
            pp = &(*pp)->next_owner;
        if (*pp)
            *pp = o->next_owner;
    }
    vobrel::detail::xos_release(o);
    if (s && !s->owners && s->refcount == 0)
        sdb_free_string(s);
}

void sdb_free_context(sdb_context *c)
{
    sdb_owner *o = c->owner;
    if (c->next_context == c) {
        o->info.contexts = nullptr;
        sdb_free_owner(o);
    } else {
        if (o->info.contexts == c)
            o->info.contexts = c->next_context;
        c->prev_context->next_context = c->next_context;
        c->next_context->prev_context = c->prev_context;
    }
    vobrel::detail::xos_release(c);
}

// Releases an owner record with every context it has.
void free_owner_with_contexts(sdb_owner *o)
{
    if (!o->unique && o->info.contexts) {
        sdb_context *head = o->info.contexts;
        sdb_context *c = head;
        do {
            sdb_context *next = c->next_context;
            vobrel::detail::xos_release(c);
            c = next;
        } while (c != head);
        o->info.contexts = nullptr;
    }
    sdb_free_owner(o);
}

// Drops every association of `owner_id`, releasing texts left with none.
void release_owner_id(ushort owner_id)
{
    if (!sdb_hash_table)
        return;
    for (uint32_t i = 0; i < sdb_hash_table_size; ++i) {
        sdb_string *s = sdb_hash_table[i];
        while (s) {
            // Releasing `s` unlinks it alone; its successor stays valid.
            sdb_string *next = s->next_string;
            if (sdb_owner *o = sdb_find_owner(s, owner_id))
                free_owner_with_contexts(o);
            s = next;
        }
    }
}

// A new text record holding a copy of the bytes, counted and in its bucket.
sdb_string *new_text(const char *buf, int len, sdb_string_types type, const Lookup &where)
{
    size_t area = byte_area(len);
    auto *block = static_cast<char *>(calloc(1, area + sizeof(sdb_string)));
    if (!block)
        return nullptr;
    memcpy(block, buf, static_cast<size_t>(len));
    auto *s = reinterpret_cast<sdb_string *>(block + area);
    s->crc = where.crc;
    s->len = static_cast<uint8_t>(len);
    s->string_type = static_cast<uint8_t>(type);
    s->sdb_offset = static_cast<uint16_t>(area);
    ++sdb_number_strings;
    sdb_enqueue_hash_bucket(s, where.depth);
    return s;
}

// Anonymous add: the text, created if missing, gains one reference.
boolean add_anonymous(sdb_string *s, const char *buf, int len, sdb_string_types type, const Lookup &where,
                      sdb_handle *handle)
{
    if (!s) {
        s = new_text(buf, len, type, where);
        if (!s) {
            *handle = 0;
            return FALSE;
        }
    }
    if (!sdb_bump_refcount(s))
        return FALSE;
    *handle = make_handle(s, SDB_TAG_STRING);
    ++sdb_number_adds;
    return TRUE;
}

// The text already has this owner: a unique owner keeps its one object, any
// other gains a context.
boolean add_to_existing_owner(sdb_owner *o, void *owner_context, sdb_handle *handle)
{
    if (o->unique)
        return FALSE;
    sdb_handle h = sdb_add_context_to_owner(o, owner_context);
    if (!h)
        return FALSE;
    *handle = h;
    ++sdb_number_adds;
    return TRUE;
}

// An owner record for a handed-out id, holding its first object and not yet
// on any text; *h gets its handle. Null if the id was freed or memory ran out.
sdb_owner *new_owner(ushort owner_id, void *owner_context, sdb_handle *h)
{
    const sdb_owner_info *info = &sdb_owner_info_array[owner_id];
    if (info->unregistered)
        return nullptr;
    auto *o = static_cast<sdb_owner *>(vobrel::detail::xos_alloc(sizeof(sdb_owner)));
    if (!o)
        return nullptr;
    o->owner_id = owner_id;
    o->unique = info->unique;
    if (o->unique) {
        o->info.owner_context = owner_context;
        *h = make_handle(o, SDB_TAG_OWNER);
    } else {
        *h = sdb_add_context_to_owner(o, owner_context);
        if (!*h) {
            sdb_free_owner(o);
            return nullptr;
        }
    }
    return o;
}

// First add of this text by this owner. The owner record comes first, so an
// owner that cannot be made leaves no new text behind.
boolean add_with_new_owner(sdb_string *s, const char *buf, int len, sdb_string_types type, const Lookup &where,
                           ushort owner_id, void *owner_context, sdb_handle *handle)
{
    sdb_handle h = 0;
    sdb_owner *o = new_owner(owner_id, owner_context, &h);
    if (!o)
        return FALSE;
    if (!s) {
        s = new_text(buf, len, type, where);
        if (!s) {
            // Releasing the only context releases the owner record with it.
            if (o->unique)
                sdb_free_owner(o);
            else
                sdb_free_context(o->info.contexts);
            *handle = 0;
            return FALSE;
        }
    }
    o->string = s;
    o->next_owner = s->owners;
    s->owners = o;
    *handle = h;
    ++sdb_number_adds;
    return TRUE;
}

} // namespace

uint32_t vobrel::detail::sdb_do_crc(const uchar *buf, int len, boolean upcase)
{
    if (len <= 0)
        return 0;
    size_t n = static_cast<size_t>(len);
    if (!upcase)
        return crc_update(0, buf, n);
    uint32_t crc = 0;
    uchar folded[256];
    while (n) {
        size_t chunk = n < sizeof folded ? n : sizeof folded;
        for (size_t i = 0; i < chunk; ++i)
            folded[i] = static_cast<uchar>(toupper(buf[i]));
        crc = crc_update(crc, folded, chunk);
        buf += chunk;
        n -= chunk;
    }
    return crc;
}

sdb_handle vobrel::detail::sdb_test_get_sdb_handle_from_struct(void *obj)
{
    return obj ? static_cast<sdb_test_example *>(obj)->sdb_handle : 0;
}

extern "C" {

void sdb_initialize_subsystem(void)
{
    sdb_init_memory();
    sdb_register_component(test_component_name, sdb_test_get_sdb_handle_from_struct, FALSE, &sdb_test_owner_id);
}

boolean sdb_register_component(char *component_name, sdb_handle (*get_sdb_handle)(void *), boolean unique,
                               ushort *owner_id)
{
    if (!sdb_init_memory())
        return FALSE;
    if (!component_name || !get_sdb_handle || !owner_id)
        return FALSE;
    *owner_id = SDB_NO_OWNER;
    // Once every id has been handed out, registration is closed for good,
    // even if some of them have been freed since.
    if (sdb_max_users == SDB_NO_OWNER)
        return FALSE;
    ushort id;
    if (free_ids) {
        id = 0;
        while (!sdb_owner_info_array[id].unregistered)
            ++id;
        --free_ids;
    } else {
        size_t want = (static_cast<size_t>(sdb_max_users) + 1) * sizeof(sdb_owner_info);
        auto *grown = static_cast<sdb_owner_info *>(realloc(sdb_owner_info_array, want));
        if (!grown)
            return FALSE;
        sdb_owner_info_array = grown;
        id = sdb_max_users++;
    }
    sdb_owner_info *info = &sdb_owner_info_array[id];
    info->owner_name = component_name;
    info->get_sdb_handle = get_sdb_handle;
    info->sanity_check_errors = 0;
    info->unique = unique ? TRUE : FALSE;
    info->unregistered = FALSE;
    *owner_id = id;
    return TRUE;
}

boolean sdb_unregister_component(ushort owner_id, sdb_handle (*get_sdb_handle)(void *))
{
    if (owner_id == SDB_NO_OWNER || owner_id >= sdb_max_users)
        return FALSE;
    sdb_owner_info *info = &sdb_owner_info_array[owner_id];
    if (info->get_sdb_handle != get_sdb_handle)
        return FALSE;
    // A freed entry is cleared, so only a null callback gets here for it;
    // freeing it again changes nothing.
    if (info->unregistered)
        return TRUE;
    release_owner_id(owner_id);
    memset(info, 0, sizeof *info);
    info->unregistered = TRUE;
    ++free_ids;
    return TRUE;
}

boolean sdb_add_string(const char *buf, int len, sdb_string_types type, sdb_handle *handle, ushort owner_id,
                       void *owner_context)
{
    if (!buf || !handle || !valid_len(len))
        return FALSE;
    if (!sdb_init_memory())
        return FALSE;
    Lookup where;
    sdb_string *s = sdb_find_string_entry(buf, len, type, &where);

    // 0xFFFF and ids never handed out take an anonymous reference.
    if (owner_id >= sdb_max_users)
        return add_anonymous(s, buf, len, type, where, handle);

    if (s) {
        if (sdb_owner *o = sdb_find_owner(s, owner_id))
            return add_to_existing_owner(o, owner_context, handle);
    }
    return add_with_new_owner(s, buf, len, type, where, owner_id, owner_context, handle);
}

boolean sdb_find_string(const char *buf, int len, sdb_string_types type, int index, ushort id, void **context)
{
    // A negative index steps no times: it means the newest object.
    if (!buf || !context || !valid_len(len))
        return FALSE;
    ++sdb_number_searchs;
    Lookup where;
    sdb_string *s = sdb_find_string_entry(buf, len, type, &where);
    if (!s)
        return FALSE;
    sdb_owner *o = sdb_find_owner(s, id);
    if (!o)
        return FALSE;

    void *object;
    sdb_handle h;
    if (o->unique) {
        if (index > 0)
            return FALSE;
        object = o->info.owner_context;
        h = make_handle(o, SDB_TAG_OWNER);
    } else {
        sdb_context *head = o->info.contexts;
        sdb_context *c = head;
        for (int i = 0; i < index; ++i) {
            c = c->next_context;
            if (c == head)
                return FALSE;
        }
        object = c->owner_context;
        h = make_handle(c, SDB_TAG_CONTEXT);
    }
    *context = object;

    // An owner record implies an id that was handed out. The array is indexed
    // afresh after the callback, which may have registered a component.
    VOBREL_ASSERT(id < sdb_max_users);
    sdb_handle (*confirm)(void *) = sdb_owner_info_array[id].get_sdb_handle;
    if (!confirm || confirm(object) != h) {
        sdb_remove_string(h, object);
        ++sdb_owner_info_array[id].sanity_check_errors;
        return FALSE;
    }
    return TRUE;
}

boolean sdb_remove_string(sdb_handle owner_handle, void *owner_context)
{
    if (!sdb_init_memory())
        return FALSE;
    if (!handle_record<void>(owner_handle))
        return FALSE;
    switch (handle_tag(owner_handle)) {
    case SDB_TAG_OWNER: {
        sdb_owner *o = handle_record<sdb_owner>(owner_handle);
        if (o->info.owner_context != owner_context)
            return FALSE;
        sdb_free_owner(o);
        break;
    }
    case SDB_TAG_STRING: {
        sdb_string *s = handle_record<sdb_string>(owner_handle);
        if (s->refcount == 0)
            return FALSE;
        if (--s->refcount == 0 && !s->owners)
            sdb_free_string(s);
        break;
    }
    case SDB_TAG_CONTEXT: {
        sdb_context *c = handle_record<sdb_context>(owner_handle);
        if (c->owner_context != owner_context)
            return FALSE;
        sdb_free_context(c);
        break;
    }
    default:
        return FALSE;
    }
    ++sdb_number_removals;
    return TRUE;
}

boolean sdb_add_block(const void *buf, int len, sdb_handle *handle)
{
    return sdb_add_string(static_cast<const char *>(buf), len, SDB_BINARY_STRING, handle, SDB_NO_OWNER, nullptr);
}

boolean sdb_set_block(const void *buf, int len, sdb_string_types type, sdb_handle *handle)
{
    if (!handle)
        return FALSE;
    sdb_string *s = sdb_handle_string(*handle);
    char copy[kMaxLen + 1];
    if (s) {
        if (buf && s->len == len && memcmp(text_bytes(s), buf, static_cast<size_t>(len)) == 0)
            return TRUE;
        // The old reference goes first, so the add sees the table without it;
        // bytes taken from the block about to be released are copied out.
        if (buf && valid_len(len) && inside_text_block(s, buf)) {
            memcpy(copy, buf, static_cast<size_t>(len));
            buf = copy;
        }
        sdb_remove_string(*handle, nullptr);
        *handle = 0;
    }
    return sdb_add_string(static_cast<const char *>(buf), len, type, handle, SDB_NO_OWNER, nullptr);
}

void sdb_remove_block(sdb_handle handle)
{
    sdb_remove_string(handle, nullptr);
}

char *sdb_string_addr(sdb_handle handle, int *len)
{
    sdb_string *s = sdb_handle_string(handle);
    if (!s)
        return nullptr;
    if (len)
        *len = s->len;
    return text_bytes(s);
}

char *sdb_string_addr_ptr(sdb_handle handle)
{
    return sdb_data_addr(handle);
}

void *sdb_block_addr_ptr(sdb_handle handle)
{
    return sdb_data_addr(handle);
}

} // extern "C"
