// Default platform layer: POSIX threads, syslog(3), standard error as the debug
// channel, and the log store from the environment.
#include <vobrel/logger.h>
#include <vobrel/platform.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <syslog.h>

namespace {

const char kDefaultStore[] = "/tmp/vobrel.log";
constexpr int kDefaultSize = 1048576;
// Thread names are limited to 16 bytes including the NUL on Linux.
constexpr size_t kThreadNameMax = 16;

const char *store_path()
{
    const char *p = getenv("VOBREL_LOG_STORE");
    return (p && *p) ? p : kDefaultStore;
}

// Parses VOBREL_LOG_SIZE: a whole decimal number of bytes, 1 ..
// VOBREL_LOG_SIZE_MAX, the most with which the longest record still ends at a
// position that the header's 8 digits can say.
bool store_size(int *out)
{
    const char *s = getenv("VOBREL_LOG_SIZE");
    if (!s || !*s) {
        *out = kDefaultSize;
        return true;
    }
    errno = 0;
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v <= 0 || v > VOBREL_LOG_SIZE_MAX)
        return false;
    *out = static_cast<int>(v);
    return true;
}

// The new thread names itself before running the caller's routine, so the
// name is in place from the routine's first instruction.
struct ThreadStart {
    void *(*routine)(void *);
    void *arg;
    char name[kThreadNameMax];
};

void *thread_trampoline(void *p)
{
    ThreadStart st = *static_cast<ThreadStart *>(p);
    free(p);
    if (st.name[0])
        pthread_setname_np(pthread_self(), st.name);
    return st.routine(st.arg);
}

} // namespace

extern "C" {

int vobrel_xos_thread_create(pthread_t *thread_id, const pthread_attr_t *attr, void *(*start_routine)(void *),
                             void *arg, const char *name, int /*flags*/)
{
    if (!thread_id || !start_routine)
        return EINVAL;
    auto *st = static_cast<ThreadStart *>(calloc(1, sizeof(ThreadStart)));
    if (!st)
        return ENOMEM;
    st->routine = start_routine;
    st->arg = arg;
    if (name)
        snprintf(st->name, sizeof st->name, "%s", name);
    int rc = pthread_create(thread_id, attr, thread_trampoline, st);
    if (rc != 0)
        free(st);
    return rc;
}

void vobrel_xos_thread_exit(void *retval)
{
    pthread_exit(retval);
}

void vobrel_platform_syslog(int severity, const char *line)
{
    if (!line)
        return;
    syslog(LOG_USER | (severity & LOG_PRIMASK), "%s", line);
}

void vobrel_platform_buginf(const char *text)
{
    if (!text)
        return;
    fputs(text, stderr);
}

vobrel_platform_status_type vobrel_platform_get_log_store_path(int *path_len, char *path,
                                                                          int *file_size)
{
    if (!path_len)
        return VOBREL_PLATFORM_BAD_ARG;
    const char *p = store_path();
    size_t need = strlen(p) + 1;
    if (need > INT_MAX)
        return VOBREL_PLATFORM_BAD_ARG;
    if (!path) {
        *path_len = static_cast<int>(need);
        return VOBREL_PLATFORM_OK;
    }
    if (*path_len < static_cast<int>(need) || !file_size)
        return VOBREL_PLATFORM_BAD_ARG;
    int size = 0;
    if (!store_size(&size))
        return VOBREL_PLATFORM_INIT_FAILED;
    memcpy(path, p, need);
    *file_size = size;
    return VOBREL_PLATFORM_OK;
}

} // extern "C"
