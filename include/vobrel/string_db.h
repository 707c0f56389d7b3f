/* vobrel: the string database: one shared copy of each distinct text or block.
 * Sources: util/src/string_db.cpp, util/src/string_db_private.h.
 *
 * Texts (0 to 255 bytes) are found through a CRC-32 of their bytes. An add
 * either takes an anonymous reference (owner id 0xFFFF, handle tag 3) or
 * records which object of a registered component holds the text (tag 2 for a
 * unique component, tag 1 for one context of a non-unique component). A find
 * asks the component, through its callback, to confirm each object before the
 * answer is believed; an unconfirmed association is dropped and counted in
 * the component's sanity_check_errors.
 *
 * No operation takes a lock: a process that uses the database from several
 * threads serialises every call itself, finds included (a find may remove).
 * Failures are a FALSE or null result; a failed call changes nothing.
 *
 * Unregistering a component releases every owner record (and context) that it
 * still holds, at once: a freed id never carries associations over to the
 * component that reuses it, and that component's callback never sees another
 * component's objects. Handles that the unregistered component's objects still
 * hold are then dangling and must not be removed or read.
 *
 * Handles are raw tagged addresses: using one after its record has been
 * released is the caller's error and is not detected. */
#ifndef VOBREL_STRING_DB_H
#define VOBREL_STRING_DB_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

typedef enum sdb_string_types_ {
    SDB_ASCII_STRING_CASE_SENSITIVE = 0,
    /* Hashed on upper-cased bytes and compared ignoring case; the text must
     * have its terminating zero byte at `len`. */
    SDB_ASCII_STRING_CASE_INSENSITIVE = 1,
    SDB_BINARY_STRING = 2
} sdb_string_types;

/* A record address plus a tag in the two low bits: 1 sdb_context, 2 sdb_owner
 * (unique owner), 3 sdb_string (anonymous reference). 0 is the null handle. */
typedef intptr_t sdb_handle;

#define SDB_HANDLE_TAG_MASK 3
#define SDB_TAG_CONTEXT 1
#define SDB_TAG_OWNER 2
#define SDB_TAG_STRING 3

/* Owner id meaning "no owner" when adding. */
#define SDB_NO_OWNER 0xFFFF
#define SDB_MAX_STRING_LEN 255

struct sdb_owner_;
struct sdb_context_;

/* read-only: the records up to sdb_owner_info are maintained by the string
 * database.
 *
 * One per distinct stored text. It shares one zero-filled allocation with its
 * bytes, which sit `sdb_offset` bytes before it and are followed by at least
 * one zero byte. */
typedef struct sdb_string_ {
    struct sdb_string_ *next_string; /* next record in the same bucket */
    uint32_t crc;
    struct sdb_owner_ *owners; /* newest first */
    uint32_t refcount;         /* anonymous references outstanding */
    uint8_t len;
    uint8_t string_type; /* recorded only; lookups ignore it */
    uint16_t sdb_offset;
} sdb_string;

/* One per owner id per text. */
typedef struct sdb_owner_ {
    struct sdb_owner_ *next_owner;
    sdb_string *string;
    union {
        void *owner_context;           /* unique owner: its object */
        struct sdb_context_ *contexts; /* non-unique: newest context of a circular list */
    } info;
    ushort owner_id;
    tinybool unique;
} sdb_owner;

/* One per object of a non-unique owner that holds the text. */
typedef struct sdb_context_ {
    struct sdb_context_ *next_context;
    struct sdb_context_ *prev_context;
    void *owner_context; /* never dereferenced here */
    sdb_owner *owner;
} sdb_context;

/* One per owner id, indexed by the id. */
typedef struct sdb_owner_info_ {
    char *owner_name; /* the caller's text, not copied */
    sdb_handle (*get_sdb_handle)(void *owner_context);
    ushort sanity_check_errors;
    tinybool unique;
    tinybool unregistered; /* TRUE while the id is free for reuse */
} sdb_owner_info;

/* public: the test component's objects. */
typedef struct sdb_test_example_ {
    struct sdb_test_example_ *next;
    char *name;
    intptr_t sdb_handle; /* an sdb_handle: the one this object holds */
    int sdb_test_unique_number;
} sdb_test_example;

/* The reflected CRC-32 table (polynomial 0xEDB88320). */
VOBREL_API extern const uint32_t sdb_crc_ctabl[256];

/* read-only: every variable below is maintained by the string database.
 *
 * Bucket heads: sdb_hash_table_size of them (a power of two, 256 at start),
 * null until the first set-up. A record lives in bucket crc & sdb_hash_mask. */
VOBREL_API extern sdb_string **sdb_hash_table;
VOBREL_API extern uint32_t sdb_hash_table_size;
VOBREL_API extern uint32_t sdb_hash_mask;

/* sdb_max_users entries; ids 0 .. sdb_max_users - 1 have been handed out. */
VOBREL_API extern sdb_owner_info *sdb_owner_info_array;
VOBREL_API extern ushort sdb_max_users;
/* The test component's id (0xFFFF until sdb_initialize_subsystem). */
VOBREL_API extern ushort sdb_test_owner_id;

/* Statistics. sdb_total_collision_count is the sum over non-empty buckets of
 * their length minus one; sdb_deepest_collision_count the longest chain met by
 * an insert since the last growth. */
VOBREL_API extern uint32_t sdb_number_adds;
VOBREL_API extern uint32_t sdb_number_strings;
VOBREL_API extern uint32_t sdb_number_removals;
VOBREL_API extern uint32_t sdb_number_searchs;
VOBREL_API extern uint32_t sdb_maximum_sharing_count;
VOBREL_API extern uint32_t sdb_total_collision_count;
VOBREL_API extern uint32_t sdb_deepest_collision_count;

/* Sets up the table if needed and registers the test component ("SDB Test
 * Driver Code", not unique), writing its id to sdb_test_owner_id. */
VOBREL_API void sdb_initialize_subsystem(void);

/* Registers a component and writes its id (0xFFFF on a failure after the
 * arguments were checked). The lowest free
 * id is reused first. Once all 65535 ids have been handed out, registration
 * fails from then on. The same name or callback may be registered twice. */
VOBREL_API boolean sdb_register_component(char *component_name, sdb_handle (*get_sdb_handle)(void *),
                                          boolean unique, ushort *owner_id);
/* Frees a registered id; `get_sdb_handle` must be the registered callback. The
 * component's owner records are released (see above). A freed id's entry is
 * cleared, so freeing it again with a null callback succeeds and changes
 * nothing. */
VOBREL_API boolean sdb_unregister_component(ushort owner_id, sdb_handle (*get_sdb_handle)(void *));

/* Stores or shares `len` bytes and writes a handle. Owner id 0xFFFF (or any
 * id never handed out) takes an anonymous reference; a registered id records
 * `owner_context` as holding the text. A unique owner holds a text once. */
VOBREL_API boolean sdb_add_string(const char *buf, int len, sdb_string_types type, sdb_handle *handle,
                                  ushort owner_id, void *owner_context);
/* Whether owner `id` holds the text through its `index`-th object (0 the
 * newest; a negative index counts as 0), confirmed by the component's callback; the object goes to
 * *context. An unconfirmed association is removed and the find fails. */
VOBREL_API boolean sdb_find_string(const char *buf, int len, sdb_string_types type, int index, ushort id,
                                   void **context);
/* Gives up what the handle stands for; tags 1 and 2 need the object that
 * added it. */
VOBREL_API boolean sdb_remove_string(sdb_handle owner_handle, void *owner_context);

/* An anonymous binary add. */
VOBREL_API boolean sdb_add_block(const void *buf, int len, sdb_handle *handle);
/* Makes *handle refer to `buf`: kept when the bytes are equal; otherwise the
 * old reference is released and *handle cleared first, then `buf` is added
 * anonymously and that add's result returned. A refused add (null `buf`, bad
 * length, no memory) thus leaves *handle null and the old reference gone.
 * `buf` may point into the block being released: it is copied first. */
VOBREL_API boolean sdb_set_block(const void *buf, int len, sdb_string_types type, sdb_handle *handle);
/* sdb_remove_string(handle, NULL). */
VOBREL_API void sdb_remove_block(sdb_handle handle);

/* The stored bytes and (when `len` is not null) their length; null, with
 * *len untouched, for a handle with no address or no tag. */
VOBREL_API char *sdb_string_addr(sdb_handle handle, int *len);
VOBREL_API char *sdb_string_addr_ptr(sdb_handle handle);
VOBREL_API void *sdb_block_addr_ptr(sdb_handle handle);

VOBREL_END_DECLS

#endif /* VOBREL_STRING_DB_H */
