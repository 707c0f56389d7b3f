// Runtime start-up.
#include <vobrel/list.h>
#include <vobrel/runtime.h>
#include <vobrel/string_db.h>
#include <vobrel/xos.h>

extern "C" {

vobrel_rc vobrel_os_init(void)
{
    // The order matters: lists register on listQ, which zel_list_init makes,
    // and no list storage is handed out before zel_memory_list_init.
    zel_timer_init();
    zel_list_init();
    zel_memory_list_init();
    sdb_initialize_subsystem();
    return VOBREL_OK;
}

void vobrel_os_shutdown(void) {}

} // extern "C"
