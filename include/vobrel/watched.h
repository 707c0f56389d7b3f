/* vobrel: watched booleans, queues and read-write locks. */
#ifndef VOBREL_WATCHED_H
#define VOBREL_WATCHED_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_WATCHED_H */
