/* The public headers compile as strict ISO C11 with no feature macros at all;
 * a client that wants no POSIX extensions must still be able to include them. */
#include <vobrel/vobrel.h>

int main(void)
{
    watched_rwlock *lock = create_watched_rwlock(0, RW_WRITE_FRIENDLY);
    RWRETVAL rc = delete_watched_rwlock(&lock);
    return rc == RWOK && lock == 0 ? 0 : 1;
}
