// Named doubly linked lists: default actions, automatic element records, the
// registry of named lists, merge, move, excise and the checked walk step.
#include "util/src/list_private.h"

#include <vobrel/errmsg.h>

#include <cstring>

#include "common/src/library_private.h"

namespace {

// A zero-filled record of the size set up for elements, or null.
inline list_element *alloc_record_here()
{
    if (list_element_chunk < static_cast<int>(sizeof(list_element)))
        return nullptr;
    return static_cast<list_element *>(vobrel::detail::xos_alloc(list_element_chunk));
}

} // namespace

namespace vobrel::detail {

int list_header_chunk;

list_element *list_alloc_record()
{
    return alloc_record_here();
}

void list_release_record(list_element *element)
{
    xos_release(element);
}

} // namespace vobrel::detail

using namespace vobrel::detail;

namespace {

// The registry of named lists; its elements are the headers' `element` fields.
list_header listQ;
// The identifier the next created list receives.
uint32_t list_ID;

const char kUnknownName[] = "(unknown)";
// Flags a caller may ask for at creation: user bits, automatic, interrupt-safe.
constexpr uint16_t kCreateFlagsMask = LIST_FLAGS_USER_MASK | LIST_FLAGS_AUTOMATIC | LIST_FLAGS_INTERRUPT_SAFE;
static_assert(kCreateFlagsMask == 0xff0c);

bool valid(const list_header *list)
{
    return (list->flags & LIST_FLAGS_VALID) != 0;
}

bool full(const list_header *list)
{
    return list->maximum != 0 && list->count >= list->maximum;
}

// Links `element`, the record itself (already allocated on an automatic list
// that was given none), after the tail or before the head once every check
// has passed; on failure an automatic list releases it.
inline boolean link_record(list_header *list, list_element *element, void *data, bool at_tail)
{
    if (!valid(list) || full(list) || !element || element->list) {
        list_free_element_body(list, element);
        return FALSE;
    }
    element->data = data;
    list_insert_element_body(list, at_tail ? list->tail : nullptr, element);
    return TRUE;
}

// The automatic list's own paths, out of line and reached by tail calls: the
// paths of a plain list then name no global and call no exported function
// (no PIC set-up on 32-bit x86), and these cost a jump, not a call.
[[gnu::noinline]] boolean link_new_record(list_header *list, void *data, bool at_tail)
{
    return link_record(list, alloc_record_here(), data, at_tail);
}

// Unlinks an element known to be on `list` and hands back its datum; the
// record is released on an automatic list.
template <bool Automatic> void *unlink_done(list_header *list, list_element *element)
{
    list_remove_element_body(list, element);
    void *data = element->data;
    if constexpr (Automatic)
        xos_release(element);
    else
        list_free_element_body(list, element);
    return data;
}

[[gnu::noinline]] void *dequeue_released(list_header *list)
{
    return unlink_done<true>(list, list->head);
}

// The common body of enqueue and requeue.
boolean link_checked(list_header *list, list_element *element, void *data, bool at_tail)
{
    if (!list)
        return FALSE;
    if (!element && (list->flags & LIST_FLAGS_AUTOMATIC))
        return link_new_record(list, data, at_tail);
    return link_record(list, element, data, at_tail);
}

// Unregisters every header still on the registry so that a fresh registry
// never shares links with headers created before it.
void detach_registered()
{
    list_element *p = listQ.head;
    while (p) {
        list_element *next = p->next;
        p->next = nullptr;
        p->prev = nullptr;
        p->list = nullptr;
        p = next;
    }
}

void set_flag(list_header *list, uint16_t flag, boolean enabled)
{
    if (!list)
        return;
    if (enabled)
        list->flags |= flag;
    else
        list->flags &= static_cast<uint16_t>(~flag);
}

} // namespace

extern "C" {

int list_element_chunk;

list_action_t list_action_vectors_default = {
    list_enqueue_default, list_dequeue_default, list_requeue_default,
    list_insert_default,  list_remove_default,  list_lookup_default,
};

boolean list_enqueue_default(list_header *list, list_element *element, void *data)
{
    return link_checked(list, element, data, true);
}

boolean list_requeue_default(list_header *list, list_element *element, void *data)
{
    return link_checked(list, element, data, false);
}

void *list_dequeue_default(list_header *list)
{
    if (!list || !valid(list) || !list->head)
        return nullptr;
    if (list->flags & LIST_FLAGS_AUTOMATIC)
        return dequeue_released(list);
    return unlink_done<false>(list, list->head);
}

boolean list_insert_default(list_header *list, list_element *element, void *data, list_insert_func_t func)
{
    if (!list)
        return FALSE;
    element = list_malloc_element_body(list, element);
    if (!valid(list) || full(list) || !element || element->list || !func) {
        list_free_element_body(list, element);
        return FALSE;
    }
    element->data = data;
    list_element *before = nullptr; // first element that orders after the new datum
    for (list_element *p = list->head; p; p = p->next) {
        int32_t order = func(p->data, data);
        if (order == 0) {
            list_free_element_body(list, element);
            return FALSE;
        }
        if (order > 0) {
            before = p;
            break;
        }
    }
    list_insert_element_body(list, before ? before->prev : list->tail, element);
    return TRUE;
}

void *list_remove_default(list_header *list, list_element *element, void *data)
{
    if (!list || !valid(list) || !list->head)
        return nullptr;
    if (!element) {
        if (!data)
            return nullptr;
        for (list_element *p = list->head; p; p = p->next) {
            if (p->data == data) {
                element = p;
                break;
            }
        }
        if (!element)
            return nullptr;
    }
    if (element->list != list)
        return nullptr;
    return unlink_done<false>(list, element);
}

void *list_lookup_default(list_header *list, list_element *element, void *key, list_lookup_func_t func)
{
    if (!list)
        return nullptr;
    if (!func) {
        list_free_element_body(list, element);
        return nullptr;
    }
    element = list_malloc_element_body(list, element);
    if (!element)
        return nullptr;
    element->data = key;
    void *found = nullptr;
    for (list_element *p = list->head; p; p = p->next) {
        if (func(p->data, key) == 0) {
            found = p->data;
            break;
        }
    }
    list_free_element_body(list, element);
    return found;
}

boolean list_info_default(const list_header * /*list*/, const list_element * /*element*/, char * /*buf*/)
{
    return FALSE;
}

void zel_list_init(void)
{
    detach_registered();
    list_ID = 0;
    zel_list_create(&listQ, 0, nullptr, LIST_FLAGS_INTERRUPT_SAFE);
}

void zel_memory_list_init(void)
{
    list_element_chunk = static_cast<int>(sizeof(list_element));
    list_header_chunk = static_cast<int>(sizeof(list_header));
}

uint32_t zel_list_get_list_ID(void)
{
    return list_ID;
}

const list_header *zel_list_get_listQ(void)
{
    return &listQ;
}

list_header *zel_list_create(list_header *list, uint16_t maximum, const char *name, uint16_t flags)
{
    if (!list) {
        if (list_header_chunk < static_cast<int>(sizeof(list_header)))
            return nullptr;
        list = static_cast<list_header *>(xos_alloc(list_header_chunk));
        if (!list)
            return nullptr;
        list->flags |= LIST_FLAGS_ALLOCATED;
    } else {
        memset(list, 0, sizeof *list);
    }
    list->ID = list_ID++;
    list->head = nullptr;
    list->tail = nullptr;
    list->count = 0;
    list->maximum = maximum;
    list->name = name ? name : kUnknownName;
    list->flags |= static_cast<uint16_t>(flags & kCreateFlagsMask);
    zel_list_set_info(list, nullptr);
    zel_list_set_action(list, nullptr);
    if (name && !list_enqueue(&listQ, &list->element, list)) {
        if (list->flags & LIST_FLAGS_ALLOCATED)
            xos_release(list);
        return nullptr;
    }
    list->flags |= LIST_FLAGS_VALID;
    return list;
}

void zel_list_destroy(list_header *list)
{
    if (!list)
        return;
    if (list->head)
        xos_errmsg(__func__, __LINE__, &msg_SYS_BADLIST_DESTROY, static_cast<unsigned>(reinterpret_cast<uintptr_t>(list)),
                   list->name, static_cast<unsigned long>(list->count));
    if (list->element.list && !list_remove(&listQ, &list->element, nullptr))
        return;
    if (list->flags & LIST_FLAGS_ALLOCATED)
        xos_release(list);
    else
        list->flags = 0;
}

boolean zel_list_set_info(list_header *list, list_info_t info)
{
    if (!list)
        return FALSE;
    list->info = info ? info : list_info_default;
    return TRUE;
}

list_info_t zel_list_get_info(list_header *list)
{
    return list ? list->info : nullptr;
}

boolean zel_list_set_action(list_header *list, list_action_t *action)
{
    if (!list)
        return FALSE;
    if (!action) {
        list->action = &list_action_vectors_default;
        return TRUE;
    }
    const list_action_t &d = list_action_vectors_default;
    if (!action->zel_enqueue)
        action->zel_enqueue = d.zel_enqueue;
    if (!action->zel_dequeue)
        action->zel_dequeue = d.zel_dequeue;
    if (!action->zel_requeue)
        action->zel_requeue = d.zel_requeue;
    if (!action->insert)
        action->insert = d.insert;
    if (!action->remove)
        action->remove = d.remove;
    if (!action->lookup)
        action->lookup = d.lookup;
    list->action = action;
    return TRUE;
}

list_action_t *zel_list_get_action(list_header *list)
{
    return list ? list->action : nullptr;
}

uint16_t zel_list_set_flags_user(list_header *list, uint16_t flags)
{
    if (!list)
        return 0;
    list->flags |= static_cast<uint16_t>(flags & LIST_FLAGS_USER_MASK);
    return static_cast<uint16_t>(list->flags & LIST_FLAGS_USER_MASK);
}

uint16_t zel_list_clear_flags_user(list_header *list, uint16_t flags)
{
    if (!list)
        return 0;
    list->flags &= static_cast<uint16_t>(~(flags & LIST_FLAGS_USER_MASK));
    return static_cast<uint16_t>(list->flags & LIST_FLAGS_USER_MASK);
}

uint16_t zel_list_get_flags_user(list_header *list, uint16_t flags)
{
    if (!list)
        return 0;
    return static_cast<uint16_t>(flags & list->flags & LIST_FLAGS_USER_MASK);
}

void zel_list_set_automatic(list_header *list, boolean enabled)
{
    set_flag(list, LIST_FLAGS_AUTOMATIC, enabled);
}

boolean zel_list_is_automatic(list_header *list)
{
    return list && (list->flags & LIST_FLAGS_AUTOMATIC) ? TRUE : FALSE;
}

void zel_list_set_interrupt_safe(list_header *list, boolean enabled)
{
    set_flag(list, LIST_FLAGS_INTERRUPT_SAFE, enabled);
}

void zel_list_insert_element(list_header *list, list_element *previous, list_element *element)
{
    if (list && element)
        list_insert_element_body(list, previous, element);
}

void zel_list_remove_element(list_header *list, list_element *element)
{
    if (list && element)
        list_remove_element_body(list, element);
}

void zel_list_excise(list_header *list, list_element *corrupted)
{
    if (!list || !valid(list) || !list->head)
        return;
    list_excise_element_body(list, corrupted);
}

boolean zel_list_merge(list_header *dst_list, list_header *src_list)
{
    if (!dst_list || !src_list || !valid(dst_list) || !valid(src_list))
        return FALSE;
    if ((dst_list->flags ^ src_list->flags) & LIST_FLAGS_AUTOMATIC)
        return FALSE;
    if (dst_list->action != &list_action_vectors_default || src_list->action != &list_action_vectors_default)
        return FALSE;
    if (!src_list->head)
        return TRUE;
    // Appending a list to itself would close its chain into a ring.
    if (dst_list == src_list)
        return FALSE;
    uint32_t total = dst_list->count + src_list->count;
    if (dst_list->maximum != 0 && dst_list->maximum < total)
        return FALSE;

    for (list_element *p = src_list->head; p; p = p->next)
        p->list = dst_list;
    if (dst_list->tail) {
        dst_list->tail->next = src_list->head;
        src_list->head->prev = dst_list->tail;
    } else {
        dst_list->head = src_list->head;
    }
    dst_list->tail = src_list->tail;
    dst_list->count = total;
    src_list->head = nullptr;
    src_list->tail = nullptr;
    src_list->count = 0;
    return TRUE;
}

boolean zel_list_move(list_header *new_list, list_element *element)
{
    if (!element || !new_list)
        return FALSE;
    list_header *old = element->list;
    if (!old || !valid(old) || !valid(new_list) || !old->head)
        return FALSE;
    list_remove_element_body(old, element);
    list_insert_element_body(new_list, new_list->tail, element);
    return TRUE;
}

boolean zel_list_check(list_element **elp, list_element **next_elp, void **data)
{
    if (!elp || !next_elp || !data)
        return FALSE;
    list_element *next = *next_elp;
    if (!next) {
        *elp = nullptr;
        return TRUE;
    }
    list_element *cur = *elp;
    if (cur && cur->data == *data && cur->next == next && next->prev == cur && cur->list == next->list && next != cur) {
        *elp = next;
        *data = next->data;
        *next_elp = next->next;
        return TRUE;
    }
    *elp = nullptr;
    return FALSE;
}

} // extern "C"
