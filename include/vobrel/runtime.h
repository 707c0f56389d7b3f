/* vobrel: runtime start-up.
 * Sources: runtime/src/vobrel_runtime.cpp.
 *
 * A process brings the runtime up once, from one thread, before its other
 * threads use it:
 *
 *     vobrel_debug_get_startup_common();   debug switches from the environment
 *     vobrel_os_init();                    tick rate, lists, string database
 *
 * Queues, data queues, the ID manager and the watched primitives need no
 * start-up call. */
#ifndef VOBREL_RUNTIME_H
#define VOBREL_RUNTIME_H

#include <vobrel/rc.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* Sets the clock tick rate, starts the list subsystem afresh, sets the list
 * allocation sizes and sets up the string database with its test component.
 * Always VOBREL_OK; a second call runs every step again. */
VOBREL_API vobrel_rc vobrel_os_init(void);
/* No effect: nothing is torn down before the process ends. */
VOBREL_API void vobrel_os_shutdown(void);

VOBREL_END_DECLS

#endif /* VOBREL_RUNTIME_H */
