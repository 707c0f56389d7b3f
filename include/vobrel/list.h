/* vobrel: named doubly linked lists with per-list action tables.
 * Sources: util/src/list.cpp, util/src/list_private.h.
 *
 * A list holds data pointers in element records. The header's action table
 * carries the six main operations, so a list can replace any of them with its
 * own; callers go through list_enqueue() and friends, which dispatch through
 * the table. An automatic list allocates and releases its element records
 * itself (pass a null element); a plain list never does. Every list created
 * with a name is registered on the process-wide registry (zel_list_get_listQ).
 *
 * Nothing here takes a lock: each list, and the registry (changed by every
 * named create and every destroy), is serialised by its users. Failures are
 * results (FALSE or null) and report nothing. Call zel_list_init() and then
 * zel_memory_list_init() (the runtime start-up does both) before creating a
 * named list or allocating any header or element. */
#ifndef VOBREL_LIST_H
#define VOBREL_LIST_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

typedef struct list_element_ list_element;
typedef struct list_header_ list_header;

/* Renders one element into a caller's buffer. Stored for the list's users;
 * the list module never calls it. */
typedef boolean (*list_info_t)(const list_header *list, const list_element *element, char *buf);
/* Orders the datum on the list against the new one: 0 equal, positive when
 * the datum on the list orders after the new one, negative otherwise. */
typedef int32_t (*list_insert_func_t)(void *on_list, void *new_data);
/* 0 when the datum on the list matches the key. */
typedef int32_t (*list_lookup_func_t)(void *on_list, void *key);

struct list_element_ {
    /* read-only: maintained by the list operations */
    list_element *next; /* null at the tail */
    list_element *prev; /* null at the head */
    /* public */
    void *data;         /* the caller's datum */
    /* read-only: maintained by the list operations */
    list_header *list;  /* the list the element is on; null when on none */
};

typedef struct list_action_ {
    boolean (*zel_enqueue)(list_header *list, list_element *element, void *data);
    void *(*zel_dequeue)(list_header *list);
    boolean (*zel_requeue)(list_header *list, list_element *element, void *data);
    boolean (*insert)(list_header *list, list_element *element, void *data, list_insert_func_t func);
    void *(*remove)(list_header *list, list_element *element, void *data);
    void *(*lookup)(list_header *list, list_element *element, void *data, list_lookup_func_t func);
} list_action_t;

struct list_header_ {
    /* read-only: maintained by the list operations */
    list_element *head;
    list_element *tail;
    list_element element;  /* links this header into the registry; data is the header */
    uint32_t ID;           /* from the creation counter; the registry itself is 0 */
    /* read-only: changed through the zel_list_set_* calls */
    uint16_t flags;        /* LIST_FLAGS_* */
    /* read-only: maintained by the list operations */
    uint32_t count;
    /* read-only: given at creation */
    uint32_t maximum;      /* 0: no limit */
    const char *name;      /* not copied; "(unknown)" when created without one */
    /* read-only: changed through zel_list_set_info and zel_list_set_action */
    list_info_t info;
    list_action_t *action; /* never null on a created list */
    /* public */
    void *context;         /* the user's; zero at creation, never read here */
};

#define LIST_FLAGS_VALID 0x0001          /* set last by create; the default actions refuse a list without it */
#define LIST_FLAGS_ALLOCATED 0x0002      /* create allocated the header; destroy releases it */
#define LIST_FLAGS_AUTOMATIC 0x0004      /* the list allocates and releases its element records */
#define LIST_FLAGS_INTERRUPT_SAFE 0x0008 /* marker only; changes no behaviour */
#define LIST_FLAGS_USER_MASK 0xff00      /* bits owned by the list's user */

/* public. Allocation sizes in bytes of one element and (privately) one header;
 * 0 until zel_memory_list_init. Allocation is refused while the size is below
 * the record's own size. */
VOBREL_API extern int list_element_chunk;

/* read-only. The one default table. A list uses its address; merge accepts
 * only lists that use this table itself, not a copy. */
VOBREL_API extern list_action_t list_action_vectors_default;

/* The default actions. On an automatic list an action given a null element
 * allocates one; enqueue, requeue and insert release their element on every
 * failure, dequeue and remove release it once done, lookup on both outcomes.
 * A failed remove releases nothing: its element may be on another list. */
VOBREL_API boolean list_enqueue_default(list_header *list, list_element *element, void *data);
VOBREL_API void *list_dequeue_default(list_header *list);
VOBREL_API boolean list_requeue_default(list_header *list, list_element *element, void *data);
/* Ordered insertion with unique keys: FALSE when `func` finds the datum equal
 * to one already present. */
VOBREL_API boolean list_insert_default(list_header *list, list_element *element, void *data,
                                       list_insert_func_t func);
/* Removes `element`, or with a null element the first one whose datum is
 * `data` (pointer equality); returns the removed datum or null. */
VOBREL_API void *list_remove_default(list_header *list, list_element *element, void *data);
/* The first datum for which `func` (datum, key) is 0, or null. A given
 * element's data is overwritten with the key. Does not consult VALID. */
VOBREL_API void *list_lookup_default(list_header *list, list_element *element, void *key,
                                     list_lookup_func_t func);
/* Writes nothing; FALSE. */
VOBREL_API boolean list_info_default(const list_header *list, const list_element *element, char *buf);

/* Header operations: call the slot of the list's table with the arguments
 * unchanged. A null list (or a table slot still null) gives FALSE / null. */
static inline boolean list_enqueue(list_header *list, list_element *element, void *data)
{
    return list && list->action && list->action->zel_enqueue ? list->action->zel_enqueue(list, element, data)
                                                             : (boolean)FALSE;
}

static inline void *list_dequeue(list_header *list)
{
    return list && list->action && list->action->zel_dequeue ? list->action->zel_dequeue(list) : NULL;
}

static inline boolean list_requeue(list_header *list, list_element *element, void *data)
{
    return list && list->action && list->action->zel_requeue ? list->action->zel_requeue(list, element, data)
                                                             : (boolean)FALSE;
}

static inline boolean list_insert(list_header *list, list_element *element, void *data, list_insert_func_t func)
{
    return list && list->action && list->action->insert ? list->action->insert(list, element, data, func)
                                                        : (boolean)FALSE;
}

static inline void *list_remove(list_header *list, list_element *element, void *data)
{
    return list && list->action && list->action->remove ? list->action->remove(list, element, data) : NULL;
}

static inline void *list_lookup(list_header *list, list_element *element, void *key, list_lookup_func_t func)
{
    return list && list->action && list->action->lookup ? list->action->lookup(list, element, key, func) : NULL;
}

/* Module set-up. zel_list_init restarts the numbering at 0 and creates the
 * registry afresh (lists registered before are detached from it, so
 * destroying them later leaves the new registry alone). */
VOBREL_API void zel_list_init(void);
VOBREL_API void zel_memory_list_init(void);
/* The identifier the next created list receives. */
VOBREL_API uint32_t zel_list_get_list_ID(void);
/* The registry of named lists; its elements' data are the headers. */
VOBREL_API const list_header *zel_list_get_listQ(void);

/* Creates a list in `list` (zero-filled first) or, when null, in a header
 * allocated here. Of `flags` only the user bits, AUTOMATIC and INTERRUPT_SAFE
 * are kept. A named list is registered; null when allocation or registration
 * fails (an allocated header is then released). `name` is not copied. */
VOBREL_API list_header *zel_list_create(list_header *list, uint16_t maximum, const char *name, uint16_t flags);
/* Reports msg_SYS_BADLIST_DESTROY for a non-empty list (its elements are left
 * as they are) and destroys it anyway: unregisters it, then releases an
 * allocated header or clears the flags of a caller's one. If unregistering
 * fails the header is left unchanged. Null does nothing. */
VOBREL_API void zel_list_destroy(list_header *list);

/* Null `info` / `action` select the defaults. A caller's table has its null
 * slots filled in place with the defaults. FALSE / null for a null list. */
VOBREL_API boolean zel_list_set_info(list_header *list, list_info_t info);
VOBREL_API list_info_t zel_list_get_info(list_header *list);
VOBREL_API boolean zel_list_set_action(list_header *list, list_action_t *action);
VOBREL_API list_action_t *zel_list_get_action(list_header *list);

/* User bits (LIST_FLAGS_USER_MASK): set and clear return the list's user bits
 * afterwards; get returns `flags` & the list's user bits. 0 for a null list. */
VOBREL_API uint16_t zel_list_set_flags_user(list_header *list, uint16_t flags);
VOBREL_API uint16_t zel_list_clear_flags_user(list_header *list, uint16_t flags);
VOBREL_API uint16_t zel_list_get_flags_user(list_header *list, uint16_t flags);
VOBREL_API void zel_list_set_automatic(list_header *list, boolean enabled);
VOBREL_API boolean zel_list_is_automatic(list_header *list);
VOBREL_API void zel_list_set_interrupt_safe(list_header *list, boolean enabled);

/* Raw links, without checks: insert after `previous` (at the head when null);
 * remove unlinks and decrements the count of the element's own list. */
VOBREL_API void zel_list_insert_element(list_header *list, list_element *previous, list_element *element);
VOBREL_API void zel_list_remove_element(list_header *list, list_element *element);
/* Unlinks `corrupted` without reading or writing its own links; the list's
 * other links are repaired around it. Nothing happens for an invalid or empty
 * list, or when `corrupted` is found neither at the head nor after another
 * element. The record is not released. */
VOBREL_API void zel_list_excise(list_header *list, list_element *corrupted);
/* Moves every element of `src_list` to the tail of `dst_list`. FALSE unless
 * both are valid, agree on AUTOMATIC, use the default table itself, are two
 * different lists and the sum fits `dst_list`'s maximum. An empty source is
 * TRUE with nothing done. */
VOBREL_API boolean zel_list_merge(list_header *dst_list, list_header *src_list);
/* Moves `element` from its list to the tail of `new_list` (its own list too).
 * TRUE when moved; FALSE, with nothing changed, unless both lists are valid
 * and the element's list is not empty. Ignores maximum and AUTOMATIC. */
VOBREL_API boolean zel_list_move(list_header *new_list, list_element *element);
/* One checked step of a walk. The walker holds the current element, the
 * successor it saw and the current datum. With no successor the walk is over:
 * *elp becomes null, TRUE. Otherwise the step is taken (TRUE) only if the
 * links and datum are as the walker saw them; if not, *elp becomes null and
 * the result is FALSE: the list changed beneath the walker. */
VOBREL_API boolean zel_list_check(list_element **elp, list_element **next_elp, void **data);

VOBREL_END_DECLS

#endif /* VOBREL_LIST_H */
