/* vobrel: the string database: shared, reference-counted texts and blocks. */
#ifndef VOBREL_STRING_DB_H
#define VOBREL_STRING_DB_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_STRING_DB_H */
