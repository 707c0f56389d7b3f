/* vobrel: debug switches and levels. */
#ifndef VOBREL_DEBUG_H
#define VOBREL_DEBUG_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* On/off switches, all 0 at load. vobrel_debug_errors is the one the library
 * itself tests before printing its problem lines with buginf(). */
VOBREL_API extern boolean vobrel_debug_errors;
VOBREL_API extern boolean vobrel_debug_events;
VOBREL_API extern boolean voba_debug_error;
VOBREL_API extern boolean voba_debug_info;
VOBREL_API extern boolean ipc_debug_errors_flag;
VOBREL_API extern boolean vobrel_debug_ipc;
VOBREL_API extern boolean vobrel_debug_core_errors;
VOBREL_API extern boolean vobrel_debug_core_events;
VOBREL_API extern boolean vobrel_debug_core_all;

VOBREL_END_DECLS

#endif /* VOBREL_DEBUG_H */
