// The clock tick rate of the process-times clock.
#include <vobrel/xos.h>

#include <cerrno>
#include <ctime>
#include <sys/times.h>
#include <unistd.h>

extern "C" {

long zel_timer_ticks_per_second;

void zel_timer_init(void)
{
    zel_timer_ticks_per_second = sysconf(_SC_CLK_TCK);
    if (zel_timer_ticks_per_second != 0)
        return; // -1 (no answer) is kept as it is
    struct tms t;
    clock_t before = times(&t);
    // A signal cuts a sleep short; the count must span a whole second.
    timespec left{1, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    clock_t after = times(&t);
    zel_timer_ticks_per_second = static_cast<long>(after - before);
}

} // extern "C"
