/* vobrel: text and file utilities. */
#ifndef VOBREL_UTIL_H
#define VOBREL_UTIL_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_UTIL_H */
