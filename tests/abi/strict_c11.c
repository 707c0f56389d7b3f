/* The public headers compile as strict ISO C11 with no feature macros at all;
 * a client that wants no POSIX extensions must still be able to include them. */
#include <vobrel/vobrel.h>

/* What a C caller may rely on for the result types' representation. */
_Static_assert(sizeof(vobrel_rc) == 4 && (vobrel_rc)-1 < 0, "vobrel_rc is signed 32-bit");
_Static_assert(sizeof(RWRETVAL) == 4 && (RWRETVAL)-1 > 0, "RWRETVAL is unsigned 32-bit");
_Static_assert(sizeof(id_mgr_ret) == 4 && (id_mgr_ret)-1 > 0, "id_mgr_ret is unsigned 32-bit");
_Static_assert(sizeof(vobrel_platform_status_type) == 4 && (vobrel_platform_status_type)-1 > 0,
               "vobrel_platform_status_type is unsigned 32-bit");

int main(void)
{
    watched_rwlock *lock = create_watched_rwlock(0, RW_WRITE_FRIENDLY);
    RWRETVAL rc = delete_watched_rwlock(&lock);
    return rc == RWOK && lock == 0 ? 0 : 1;
}
