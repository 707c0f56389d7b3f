/* vobrel: data queues: plain pointers carried in wrapper elements. */
#ifndef VOBREL_DATA_QUEUE_H
#define VOBREL_DATA_QUEUE_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_DATA_QUEUE_H */
