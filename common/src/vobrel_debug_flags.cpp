// Debug switches.
#include <vobrel/debug.h>

extern "C" {

boolean vobrel_debug_errors;
boolean vobrel_debug_events;
boolean voba_debug_error;
boolean voba_debug_info;
boolean ipc_debug_errors_flag;
boolean vobrel_debug_ipc;
boolean vobrel_debug_core_errors;
boolean vobrel_debug_core_events;
boolean vobrel_debug_core_all;

} // extern "C"
