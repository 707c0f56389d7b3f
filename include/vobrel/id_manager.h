/* vobrel: the ID manager: 32-bit identifiers standing for pointers.
 * Sources: util/src/id_manager.cpp.
 *
 * A caller stores a pointer under a new identifier, passes the identifier
 * around, turns it back into the pointer and deletes it when done. Identifiers
 * come from up to 128 independent tables chosen by a table key (0 to 127; key
 * 0 is the default table of 32 slots of 1024, made by the first zel_id_get on
 * it). A table is an array of slot pointers; a slot of entries is allocated
 * only when the table has no free entry left. Free entries wait on the table's
 * free queue and are reused oldest-freed first.
 *
 * Identifier layout: identifier = internal value + 1, 0 meaning none.
 *   bits 31..24  sequence byte of the entry (always 0 in a no-randomize table)
 *   bits 23..16  slot number
 *   bits 15..0   index of the entry within its slot
 * In a randomized table (the default) a fresh entry's sequence is random and
 * advances by one at every delete, so a deleted identifier is recognised as
 * retired until its entry has been reused 256 times. In a no-randomize table
 * bit 7 of the entry's sequence marks it in use, identifiers are 1, 2, 3, ...
 * and the table can be walked; a deleted identifier is retired only until its
 * entry is handed out again.
 *
 * Beside the entries, every slot carries one in-use byte per entry, allocated
 * in the same block just in front of the slot's first entry (the slot pointer
 * points at the entries). It is set exactly while the entry is off the free
 * queue, and settles the following:
 *  - A randomized table tells a free entry from a used one in constant time.
 *    An identifier that matches a free entry's next sequence (one never
 *    handed out, or a stale one that came round again) is retired: the lookup
 *    gives null and ID_MGR_RET_RETIRED, never the entry's queue link, and the
 *    delete does nothing, so an entry is never queued twice.
 *  - Switching a table to no-randomize after it has slots rewrites every
 *    sequence byte from those marks: entries in use get bit 7, free ones 0.
 *    Identifiers handed out before keep working (a no-randomize table ignores
 *    the top byte of an identifier); a walk reports them without it. Switching
 *    a table that is already no-randomize changes nothing.
 *  - The entry that zel_id_get refuses because its identifier would be 0 is
 *    marked withdrawn: it stays out of use until the table is destroyed,
 *    also after a switch to no-randomize.
 * A walk from an identifier whose index is not below the table's entries per
 * slot treats it as the end of its slot: the walk starts in the next slot and
 * ends after scanning the whole of that slot. No walk reads past a slot's end.
 *
 * Nothing here takes a lock: a process that shares a table between threads
 * serialises the calls itself. Misuse and exhaustion are reported through the
 * IDMGR catalogue below; retired lookups, repeated deletes and reserves of
 * taken identifiers are silent. */
#ifndef VOBREL_ID_MANAGER_H
#define VOBREL_ID_MANAGER_H

#include <vobrel/errmsg.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

typedef uint32_t idmgr_id_t;     /* 0: no identifier */
typedef uint16_t id_table_key_t; /* 0 to 127; 0xFFFF: no key */

#define ID_MGR_MAX_TABLES 128
#define ID_MGR_NO_TABLE_KEY ((id_table_key_t)0xFFFF)
#define ID_MGR_FLAG_NO_RANDOMIZE 0x0001 /* the only bit of zel_id_table_flags */

/* One entry per identifier. While the entry is free, `u.next` links it on the
 * free queue; while it is in use, `u.user_p` is the caller's pointer. */
typedef struct _entry_t {
    /* private: maintained by the ID manager */
    union {
        struct _entry_t *next;
        void *user_p;
    } u;
    uint8_t tableSequence; /* randomized: sequence of the current (or next)
                              identifier; no-randomize: bit 7 in use, bits
                              0..6 count reuses */
    uint8_t tableNumber;   /* the slot holding the entry */
} entry_t;

/* Unsigned 32-bit (all values non-negative), as the operations return it. */
typedef enum id_mgr_ret_t {
    ID_MGR_RET_OK = 0,
    ID_MGR_RET_ERROR = 1,     /* bad table, identifier out of range, no memory */
    ID_MGR_RET_RETIRED = 2,   /* the identifier is not (or no longer) in use */
    ID_MGR_INVALID_ID = 3,    /* identifier unusable for the request */
    ID_MGR_UNINITIALIZED = 4, /* the table has no slot array */
    ID_IN_USE = 5             /* the requested identifier is already taken */
} id_mgr_ret;

/* read-only: maintained by the ID manager. Per-table state indexed by key. A
 * key without a table has a null slot array and both limits 0. */
VOBREL_API extern entry_t **zel_g_id_manager_table[ID_MGR_MAX_TABLES];
VOBREL_API extern uint32_t zel_numTableSlot_max[ID_MGR_MAX_TABLES];  /* 1 to 256 */
VOBREL_API extern uint32_t zel_numIDsPerSLot_max[ID_MGR_MAX_TABLES]; /* 2 to 65536 */
VOBREL_API extern uint16_t zel_id_table_flags[ID_MGR_MAX_TABLES];

/* Facility "IDMGR". INTERRUPT is raised by nothing in the library. */
VOBREL_API extern const message msg_IDMGR_MALLOC_FAILURE;
VOBREL_API extern const message msg_IDMGR_INTERRUPT;
VOBREL_API extern const message msg_IDMGR_INVALID_ID;
VOBREL_API extern const message msg_IDMGR_INVALID_ID_TABLE_SIZE;
VOBREL_API extern const message msg_IDMGR_ID_MANAGER_INTERNAL_ERROR;

/* A new randomized table of `numTableSlot` (1 to 256) slots of `numIDsPerSLot`
 * (2 to 65536) entries under a free key from 1 to 127, or 0xFFFF. The owner
 * name is copied (it may be null) and kept until the table is destroyed. */
VOBREL_API id_table_key_t zel_id_create_new_table(uint numTableSlot, uint numIDsPerSLot, char *owner_malloc_name);

/* Makes the table no-randomize (see above). FALSE if no table has the key. */
VOBREL_API boolean zel_id_table_set_no_randomize(id_table_key_t table_key);

/* A new identifier for `p` (which may be null), or 0 when the key has no
 * table, the table is full or no slot can be allocated. */
VOBREL_API idmgr_id_t zel_id_get(void *p, id_table_key_t table_key);

/* Stores `p` under the caller's chosen identifier `id_arg`, which is then in
 * use exactly as given. An id_mgr_ret: ID_MGR_RET_OK, ID_IN_USE,
 * ID_MGR_INVALID_ID (0, out of range, or a sequence byte in a no-randomize
 * table), ID_MGR_UNINITIALIZED, or ID_MGR_RET_ERROR (no memory for the slot). */
VOBREL_API unsigned zel_id_reserve(void *p, const id_table_key_t table_key, idmgr_id_t id_arg);

/* The pointer stored under `id`, or null. `*ret_code` (if `ret_code` is not
 * null) is ID_MGR_RET_OK, ID_MGR_RET_RETIRED (deleted, stale or never handed
 * out) or ID_MGR_RET_ERROR (bad key or out of range); for `id` 0 it is
 * ID_MGR_RET_OK with a null result. */
VOBREL_API void *zel_id_to_ptr(idmgr_id_t id, id_mgr_ret *ret_code, id_table_key_t table_key);

/* Frees the identifier's entry. An identifier that is not in use (already
 * deleted, stale, never handed out) is ignored. */
VOBREL_API void zel_id_delete(idmgr_id_t id, id_table_key_t table_key);

/* Walks a no-randomize table: the first identifier in use after `id`, wrapping
 * round the table's end and stopping before `id` itself. From 0 the walk
 * starts at the table's first entry and stops before its last one (a one-slot
 * table is scanned whole). On a find: its pointer, `*next_id` and `*ret_code` =
 * ID_MGR_RET_OK.
 * On none: null, `*next_id` and `*ret_code` untouched. `*wrapped` tells whether
 * the walk passed the table's end. A randomized or missing table: null,
 * `*ret_code` = ID_MGR_RET_ERROR, the others untouched. A caller walking the
 * whole table starts with 0, passes each result back and stops when `wrapped`
 * comes back TRUE or nothing is found. */
VOBREL_API void *zel_id_get_next_id_ptr(idmgr_id_t id, idmgr_id_t *next_id, id_mgr_ret *ret_code,
                                        id_table_key_t table_key, boolean *wrapped);

/* `id` itself (with `*wrapped` FALSE) when it is in use with a non-null
 * pointer, in any table; otherwise as zel_id_get_next_id_ptr. */
VOBREL_API void *zel_id_get_this_or_next(idmgr_id_t id, idmgr_id_t *next_id, id_mgr_ret *ret_code,
                                         id_table_key_t table_key, boolean *wrapped);

/* Releases the table's memory and frees its key. Stored pointers are not
 * touched. */
VOBREL_API void zel_id_destroy_table(id_table_key_t table_key);

VOBREL_END_DECLS

#endif /* VOBREL_ID_MANAGER_H */
