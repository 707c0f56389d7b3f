/* An independent C11 client of libvobrel.so that brings its own platform
 * functions, as a process on the target would. Exits non-zero on any mismatch. */
#define _POSIX_C_SOURCE 200809L
#include <vobrel/vobrel.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char last_syslog[512], last_debug[512], store[256];
static int last_severity = -1, failures;

int vobrel_xos_thread_create(pthread_t *thread_id, const pthread_attr_t *attr, void *(*start_routine)(void *),
                             void *arg, const char *name, int flags)
{
    (void)name;
    (void)flags;
    return pthread_create(thread_id, attr, start_routine, arg);
}

void vobrel_xos_thread_exit(void *retval)
{
    pthread_exit(retval);
}

void vobrel_platform_syslog(int severity, const char *line)
{
    last_severity = severity;
    snprintf(last_syslog, sizeof last_syslog, "%s", line);
}

void vobrel_platform_buginf(const char *text)
{
    snprintf(last_debug, sizeof last_debug, "%s", text);
}

vobrel_platform_status_type vobrel_platform_get_log_store_path(int *path_len, char *path, int *file_size)
{
    if (!path) {
        *path_len = (int)strlen(store) + 1;
        return VOBREL_PLATFORM_OK;
    }
    memcpy(path, store, strlen(store) + 1);
    *file_size = 65536;
    return VOBREL_PLATFORM_OK;
}

int main(void)
{
    char dir[] = "/tmp/vobrel-cclient-XXXXXX", file[300];
    if (!mkdtemp(dir))
        return 2;
    snprintf(store, sizeof store, "%s/client.log", dir);
    strcpy(vob_proc_name, "cclient");

    /* A report crosses the ABI both ways: to the client's syslog and to the log file. */
    xos_errmsg("main", __LINE__, &msg_SYS_QCOUNT, "dequeue", 0x1234u, 3);
    failures += strcmp(last_syslog, "%SYS-2-QCOUNT:Bad dequeue 1234 count 3") != 0 || last_severity != 2;
    buginf("\nvalue=%d", 7);
    failures += strcmp(last_debug, "DBG:value=7") != 0;
    failures += strcmp(vobrel_decode_rc(VOBREL_TIMEOUT), "Operation timed out") != 0;
    failures += strcmp(vobrel_get_qmt_version(), "1.2.1 Build 0") != 0;
    failures += vobrel_get_version_common() != vobrel_get_qmt_version();

    snprintf(file, sizeof file, "%s.%s", store, vob_proc_name);
    failures += access(file, R_OK) != 0;
    unlink(file);
    rmdir(dir);
    printf("c_client: %s (syslog \"%s\" at %d, debug \"%s\")\n", failures ? "FAILED" : "ok", last_syslog, last_severity,
           last_debug);
    return failures ? 1 : 0;
}
