/* vobrel: runtime start-up. */
#ifndef VOBREL_RUNTIME_H
#define VOBREL_RUNTIME_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_RUNTIME_H */
