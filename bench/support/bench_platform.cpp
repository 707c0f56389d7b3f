// Quiet platform layer for benchmarks: threads are real, reports go nowhere,
// and the log file lives in a private temporary directory.
#include <vobrel/platform.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
std::string store()
{
    static std::string path;
    if (path.empty()) {
        char tmpl[] = "/tmp/vobrel-bench-XXXXXX";
        const char *d = mkdtemp(tmpl);
        path = std::string(d ? d : "/tmp") + "/bench.log";
    }
    return path;
}
} // namespace

extern "C" {

int vobrel_xos_thread_create(pthread_t *thread_id, const pthread_attr_t *attr, void *(*start_routine)(void *),
                             void *arg, const char *, int)
{
    return pthread_create(thread_id, attr, start_routine, arg);
}

void vobrel_xos_thread_exit(void *retval)
{
    pthread_exit(retval);
}

void vobrel_platform_syslog(int, const char *) {}

void vobrel_platform_buginf(const char *) {}

vobrel_platform_status_type vobrel_platform_get_log_store_path(int *path_len, char *path, int *file_size)
{
    std::string p = store();
    if (!path) {
        *path_len = static_cast<int>(p.size() + 1);
        return VOBREL_PLATFORM_OK;
    }
    memcpy(path, p.c_str(), p.size() + 1);
    *file_size = 1 << 20;
    return VOBREL_PLATFORM_OK;
}

} // extern "C"
