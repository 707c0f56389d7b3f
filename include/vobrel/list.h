/* vobrel: named doubly linked lists with per-list action tables. */
#ifndef VOBREL_LIST_H
#define VOBREL_LIST_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_LIST_H */
