// List internals shared by the list module and its tests: the link primitives
// and the element allocation of automatic lists, written once. Named *_body,
// like the queue bodies, so they are not taken for public *_inline helpers.
#ifndef VOBREL_LIST_PRIVATE_H
#define VOBREL_LIST_PRIVATE_H

#include <vobrel/list.h>
#include <vobrel/xos.h>

#include "common/src/library_private.h"

namespace vobrel::detail {

// Allocation size of one header; 0 until zel_memory_list_init. Not exported.
extern int list_header_chunk;

// Links `element` after `previous`, or at the head when `previous` is null,
// and counts it on `list`.
inline void list_insert_element_body(list_header *list, list_element *previous, list_element *element)
{
    if (previous) {
        element->prev = previous;
        element->next = previous->next;
        previous->next = element;
    } else {
        element->next = list->head;
        list->head = element;
        element->prev = nullptr;
    }
    if (element->next)
        element->next->prev = element;
    if (previous == list->tail) // both null on an empty list
        list->tail = element;
    list->count++;
    element->list = list;
}

// Unlinks `element` from `list`; the count dropped is that of the list the
// element names. A count already at 0 stays there.
inline void list_remove_element_body(list_header *list, list_element *element)
{
    if (element->next)
        element->next->prev = element->prev;
    if (element->prev)
        element->prev->next = element->next;
    if (list->head == element)
        list->head = element->next;
    if (list->tail == element)
        list->tail = element->prev;
    element->next = nullptr;
    element->prev = nullptr;
    if (element->list && element->list->count)
        element->list->count--;
    element->list = nullptr;
}

// Unlinks `corrupted` from `list` reading only the other elements' links:
// the predecessor is found walking forward from the head, the successor
// walking backward from the tail, and each walk stops before it would step
// onto `corrupted`. FALSE (nothing changed) when `corrupted` is neither the
// head nor the successor of any element reached from the head.
inline bool list_excise_element_body(list_header *list, list_element *corrupted)
{
    list_element *pred = nullptr;
    if (corrupted != list->head) {
        for (list_element *p = list->head; p; p = p->next) {
            if (p->next == corrupted) {
                pred = p;
                break;
            }
        }
        if (!pred)
            return false;
    }
    list_element *succ = nullptr;
    if (corrupted != list->tail) {
        for (list_element *p = list->tail; p; p = p->prev) {
            if (p->prev == corrupted) {
                succ = p;
                p->prev = pred;
                break;
            }
        }
    }
    if (pred)
        pred->next = succ;
    if (corrupted == list->head) {
        list->head = succ;
        if (corrupted == list->tail)
            list->tail = pred;
    } else if (corrupted == list->tail) {
        list->tail = pred;
    }
    if (list->count)
        list->count--;
    return true;
}

// The allocation and release of an automatic list's records, kept out of
// line (list.cpp): the actions' bodies then name no global and call no
// exported function on a plain list, so on 32-bit x86 they skip the set-up of
// the PIC register on every call.
[[gnu::noinline]] list_element *list_alloc_record();
[[gnu::noinline]] void list_release_record(list_element *element);

// The element an action works with: the one given, or on an automatic list
// a fresh zero-filled record when none was given (null if that fails, or if
// the element size is not set up yet).
inline list_element *list_malloc_element_body(list_header *list, list_element *element)
{
    if (element || !(list->flags & LIST_FLAGS_AUTOMATIC))
        return element;
    return list_alloc_record();
}

// An automatic list releases the record its action holds; a plain list
// never releases anything.
inline void list_free_element_body(list_header *list, list_element *element)
{
    if (element && (list->flags & LIST_FLAGS_AUTOMATIC))
        list_release_record(element);
}

} // namespace vobrel::detail

#endif // VOBREL_LIST_PRIVATE_H
