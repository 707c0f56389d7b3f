// The OS layer: a pass-through to the C heap and the platform's threads.
#include <vobrel/logger.h>
#include <vobrel/platform.h>
#include <vobrel/xos.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>

extern "C" {

void *xos_malloc(char * /*file*/, int /*line_no*/, int bytes)
{
    // A negative size would become a huge unsigned request; refuse it outright.
    if (bytes < 0)
        return nullptr;
    return calloc(1, static_cast<size_t>(bytes));
}

void xos_free(char * /*file*/, int /*line_no*/, void *ptr)
{
    free(ptr);
}

void *xos_realloc(char * /*file*/, int /*line_no*/, void *ptr, unsigned int bytes)
{
    return realloc(ptr, bytes);
}

void *xos_strdup(char * /*file*/, int /*line_no*/, const char *ptr)
{
    if (!ptr)
        return nullptr;
    // Through malloc itself, so the copy is an ordinary block of the same heap
    // as every other wrapper's.
    size_t n = strlen(ptr) + 1;
    void *copy = malloc(n);
    if (copy)
        memcpy(copy, ptr, n);
    return copy;
}

int xos_process_create(void *func, const char *name, int /*stack*/, int /*prio*/, int /*argc*/, void *argv)
{
    pthread_t id{};
    auto start = reinterpret_cast<void *(*)(void *)>(func);
    if (vobrel_xos_thread_create(&id, nullptr, start, argv, name, 0) != 0) {
        vobrel_write_to_log(nullptr, 0, "\npthread Create failed !!");
        return -1;
    }
    return static_cast<int>(id);
}

void xos_process_exit(int /*pthread_id*/)
{
    vobrel_xos_thread_exit(nullptr);
}

void xos_process_wait_on_system_init(void)
{
    // A signal cuts a sleep short; the wait is for the full time regardless.
    timespec left{20, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void xos_process_detach(int /*thread_id*/) {}

void xos_process_kill(int /*pid*/) {}

void xos_process_suspend(void) {}

void random_fill(uchar * /*dest*/, int /*l*/, boolean /*blockflag*/) {}

} // extern "C"
