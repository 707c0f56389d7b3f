/* vobrel: checked intrusive first-in-first-out queues. */
#ifndef VOBREL_QUEUE_H
#define VOBREL_QUEUE_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

VOBREL_END_DECLS

#endif /* VOBREL_QUEUE_H */
