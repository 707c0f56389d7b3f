/* vobrel: debug switches and levels.
 * Sources: common/src/vobrel_debug_flags.cpp (switches, levels, start-up
 * reading), runtime/src/vobrel_debug_commands.cpp (the commands).
 *
 * Switches are plain bytes, read and written without a lock. A process turns
 * them on from its environment once, with vobrel_debug_get_startup_common(),
 * before vobrel_os_init(); the commands set them at any time. */
#ifndef VOBREL_DEBUG_H
#define VOBREL_DEBUG_H

#include <vobrel/rc.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* public: on/off switches, all 0 at load. vobrel_debug_errors is the one the
 * library itself tests before printing its problem lines with buginf(). */
VOBREL_API extern boolean vobrel_debug_errors;
VOBREL_API extern boolean vobrel_debug_events;
VOBREL_API extern boolean voba_debug_error;
VOBREL_API extern boolean voba_debug_info;
VOBREL_API extern boolean ipc_debug_errors_flag;
VOBREL_API extern boolean vobrel_debug_ipc;
VOBREL_API extern boolean vobrel_debug_core_errors;
VOBREL_API extern boolean vobrel_debug_core_events;
VOBREL_API extern boolean vobrel_debug_core_all;

typedef struct name_val_pair_s {
    const char *name;
    int32_t val;
} vobrel_name_val_pair_t;

/* Number of rows of level_pairs, the terminator (null name, val 0) included. */
#define VOBREL_LEVEL_PAIRS_ROWS 20

/* public. Level names and their values, EMERG (0) to ALL (255), ending with a
 * row whose name is null. Writable: a process may change the values, e.g. to
 * make a level reach vobrel_debug_core_all (which needs more than 255). */
VOBREL_API extern vobrel_name_val_pair_t level_pairs[VOBREL_LEVEL_PAIRS_ROWS];

/* Set a switch: on when `on_off` is non-zero, off when 0. VOBREL_OK. */
VOBREL_API vobrel_rc vobrel_debug_errors_command(int on_off);
VOBREL_API vobrel_rc vobrel_debug_events_command(int on_off);
VOBREL_API vobrel_rc vobrel_debug_core_errors_command(int on_off);
VOBREL_API vobrel_rc vobrel_debug_core_events_command(int on_off);
VOBREL_API vobrel_rc vobrel_debug_core_all_command(int on_off);

/* Applies again every command switch that is on (errors, events, core events,
 * core errors, core all); switches that are off stay off. */
VOBREL_API void vobrel_resync_debug_flags(void);

/* Reads the level named by VOBREL_DEBUG_LEVEL, or with a module name by
 * VOBREL_DEBUG_LEVEL_MODULE_<NAME> (the name upper-cased). The value is a level
 * name of level_pairs in any case. TRUE with *level set when the variable
 * exists and names a level; FALSE otherwise, *level unchanged. An existing
 * variable prints one DBG line either way; a missing one prints nothing.
 * A value of 50 characters or more names no level. A module name that would
 * make the variable name longer than 49 characters names no variable: FALSE,
 * nothing read and nothing printed. Keeps no state. */
VOBREL_API boolean vobrel_debug_get_startup_flag_level(const char *flag_name, int *level);

/* Turns switches on from the environment, once per process (later calls do
 * nothing); never turns one off. Process level 3+: errors, voba error and ipc
 * errors; 7+: events and voba info. Module "ipc" 3+: ipc errors; 7+: ipc.
 * Module "core" 3+: core errors; 7+: core events; 256+: core all. */
VOBREL_API void vobrel_debug_get_startup_common(void);

VOBREL_END_DECLS

#endif /* VOBREL_DEBUG_H */
