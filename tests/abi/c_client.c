/* An independent C11 client of libvobrel.so that brings its own platform
 * functions, as a process on the target would. Exits non-zero on any mismatch. */
#define _POSIX_C_SOURCE 200809L
#include <vobrel/vobrel.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char last_syslog[512];
static int last_severity = -1;
static char last_debug[512];
static char store[256];

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

static int failures;

static void expect_str(const char *what, const char *got, const char *want)
{
    if (strcmp(got, want) != 0) {
        fprintf(stderr, "%s: got \"%s\", want \"%s\"\n", what, got, want);
        ++failures;
    }
}

int main(void)
{
    char dir[] = "/tmp/vobrel-cclient-XXXXXX";
    if (!mkdtemp(dir))
        return 2;
    snprintf(store, sizeof store, "%s/client.log", dir);
    strcpy(vob_proc_name, "cclient");

    xos_errmsg("main", __LINE__, &msg_SYS_QCOUNT, "dequeue", 0x1234u, 3);
    expect_str("syslog", last_syslog, "%SYS-2-QCOUNT:Bad dequeue 1234 count 3");
    if (last_severity != 2) {
        fprintf(stderr, "severity %d\n", last_severity);
        ++failures;
    }

    buginf("\nvalue=%d", 7);
    expect_str("buginf", last_debug, "DBG:value=7");

    expect_str("rc 0", vobrel_decode_rc(VOBREL_OK), "No Error");
    expect_str("rc 134", vobrel_decode_rc(VOBREL_TIMEOUT), "Operation timed out");
    expect_str("rc 142", vobrel_decode_rc(VOBREL_END_OF_ERROR_CODE), "Unknown Error");
    expect_str("version", vobrel_get_qmt_version(), "1.2.1 Build 0");
    if (vobrel_get_version_common() != vobrel_get_qmt_version())
        ++failures;

    char file[300];
    snprintf(file, sizeof file, "%s.%s", store, vob_proc_name);
    FILE *f = fopen(file, "r");
    char head[17] = {0};
    char body[1024] = {0};
    if (!f || fread(head, 1, 16, f) != 16) {
        fprintf(stderr, "log file %s missing\n", file);
        return 1;
    }
    size_t n = fread(body, 1, sizeof body - 1, f);
    fclose(f);
    body[n] = '\0';
    if (!strstr(body, "}:Bad dequeue 1234 count 3") || !strstr(body, "[QMT-VER-1.2.1 Build 0] Logger initialized")) {
        fprintf(stderr, "log body unexpected:\n%s\n", body);
        ++failures;
    }
    if (atoi(head) != (int)(16 + n) || atoi(head + 8) != 0) {
        fprintf(stderr, "header \"%s\" for %zu bytes of text\n", head, n);
        ++failures;
    }
    unlink(file);
    rmdir(dir);
    printf("c_client: %s\n", failures ? "FAILED" : "ok");
    return failures ? 1 : 0;
}
