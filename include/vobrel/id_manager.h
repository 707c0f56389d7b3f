/* vobrel: the ID manager: 32-bit identifiers standing for pointers. */
#ifndef VOBREL_ID_MANAGER_H
#define VOBREL_ID_MANAGER_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_ID_MANAGER_H */
