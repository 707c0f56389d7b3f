// Commands that set the debug switches at run time.
#include <vobrel/debug.h>

namespace {

vobrel_rc set_switch(boolean &sw, int on_off)
{
    sw = on_off ? TRUE : FALSE;
    return VOBREL_OK;
}

} // namespace

extern "C" {

vobrel_rc vobrel_debug_errors_command(int on_off)
{
    return set_switch(vobrel_debug_errors, on_off);
}

vobrel_rc vobrel_debug_events_command(int on_off)
{
    return set_switch(vobrel_debug_events, on_off);
}

vobrel_rc vobrel_debug_core_errors_command(int on_off)
{
    return set_switch(vobrel_debug_core_errors, on_off);
}

vobrel_rc vobrel_debug_core_events_command(int on_off)
{
    return set_switch(vobrel_debug_core_events, on_off);
}

vobrel_rc vobrel_debug_core_all_command(int on_off)
{
    return set_switch(vobrel_debug_core_all, on_off);
}

void vobrel_resync_debug_flags(void)
{
    if (vobrel_debug_errors)
        vobrel_debug_errors_command(1);
    if (vobrel_debug_events)
        vobrel_debug_events_command(1);
    if (vobrel_debug_core_events)
        vobrel_debug_core_events_command(1);
    if (vobrel_debug_core_errors)
        vobrel_debug_core_errors_command(1);
    if (vobrel_debug_core_all)
        vobrel_debug_core_all_command(1);
}

} // extern "C"
