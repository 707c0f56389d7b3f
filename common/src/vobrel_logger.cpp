// The process's log file: numbered, time-stamped records behind a durable
// 16-byte header, wrapping at the platform's size limit.
#include <vobrel/logger.h>
#include <vobrel/platform.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/src/vobrel_logger_private.h"

extern "C" {
int log_file_size;
char vob_proc_name[10] = "vobrelapp";
}

namespace {

constexpr long kHeaderSize = 16;

// `initialized` is only read and written with logger_sem held, so a thread that
// arrives during initialisation waits for it instead of dropping its record.
int initialized;
sem_t logger_sem;
pthread_once_t logger_sem_once = PTHREAD_ONCE_INIT;
FILE *fp;
uint32_t log_index;
const char *ver_str = "Unknown";

// The semaphore is created exactly once per process, before any thread can
// use it; a retried initialisation never re-creates it under a waiter.
void logger_sem_create()
{
    sem_init(&logger_sem, 0, 1);
}

void logger_lock()
{
    pthread_once(&logger_sem_once, logger_sem_create);
    // A signal may interrupt the wait; only a completed wait holds the lock.
    while (sem_wait(&logger_sem) != 0 && errno == EINTR) {
    }
}

void logger_unlock()
{
    sem_post(&logger_sem);
}

// Reads one "%8d" header field; blanks skipped, anything unreadable is 0.
int read_header_field(FILE *f)
{
    char buf[9];
    memset(buf, 0, sizeof buf);
    if (fread(buf, 1, 8, f) == 0)
        return 0;
    return atoi(buf);
}

void write_header(long pos, uint32_t number)
{
    fseek(fp, 0, SEEK_SET);
    fprintf(fp, "%8d", static_cast<int>(pos));
    fflush(fp);
    fprintf(fp, "%8d", static_cast<int>(number));
    fflush(fp);
}

// Runs with logger_sem held. Returns false when the log cannot be used yet;
// the caller then clears `initialized` so the next call tries again.
bool logger_init_locked()
{
    int len = 0;
    vobrel_platform_status_type st = vobrel_platform_get_log_store_path(&len, nullptr, &log_file_size);
    if (st != VOBREL_PLATFORM_OK || len <= 0) {
        printf("vobrel_platform_get_log_store_path() failed with error code %d path len %d\n",
               static_cast<int>(st), len);
        return false;
    }
    char *path = static_cast<char *>(calloc(1, static_cast<size_t>(len)));
    if (!path) {
        printf("Platform get log store failed with memory allocation failure\n");
        return false;
    }
    st = vobrel_platform_get_log_store_path(&len, path, &log_file_size);
    if (st != VOBREL_PLATFORM_OK || log_file_size <= 0) {
        printf("Platform get log store failed with error code %d and file size %d\n", static_cast<int>(st),
               log_file_size);
        free(path);
        return false;
    }
    size_t name_size = sizeof vob_proc_name + 2 + static_cast<size_t>(len);
    char *file_name = static_cast<char *>(calloc(1, name_size));
    if (!file_name) {
        printf("Platform get log store failed with memory allocation failure\n");
        free(path);
        return false;
    }
    snprintf(file_name, name_size, "%s.%s", path, vob_proc_name);
    free(path);

    struct stat sb;
    if (stat(file_name, &sb) != 0) {
        FILE *nf = fopen(file_name, "a");
        if (!nf) {
            free(file_name);
            return false;
        }
        fprintf(nf, "%8d", static_cast<int>(kHeaderSize));
        fflush(nf);
        fprintf(nf, "%8d", 0);
        fflush(nf);
        fclose(nf);
    }

    fp = fopen(file_name, "r+");
    free(file_name);
    if (!fp)
        return false;

    int pos = read_header_field(fp);
    log_index = static_cast<uint32_t>(read_header_field(fp));
    if (pos != 0 && pos < log_file_size)
        fseek(fp, pos, SEEK_SET);
    else
        fseek(fp, kHeaderSize, SEEK_SET);

    const char *v = vobrel_get_qmt_version();
    ver_str = v ? v : "Unknown";
    char ts[50];
    fprintf(fp, "\n[QMT-VER-%s] Logger initialized %s", ver_str, vob_mk_time_str(ts, sizeof ts));
    fflush(fp);
    return true;
}

} // namespace

char *vob_mk_time_str(char *buf, int len)
{
    time_t now = time(nullptr);
    if (!buf)
        return const_cast<char *>("Time error");
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    localtime_r(&now, &tmv);
    snprintf(buf, len > 0 ? static_cast<size_t>(len) : 0, "%.4d/%.2d/%.2d-%.2d:%.2d:%.2d", tmv.tm_year + 1900,
             tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    return buf;
}

extern "C" int vobrel_write_to_log(const char *func, int lno, const char *fmt, ...)
{
    logger_lock();
    if (!initialized) {
        initialized = 1;
        if (!logger_init_locked())
            initialized = 0;
    }
    if (!fp) {
        logger_unlock();
        return 0;
    }

    char ts[50];
    if (ftell(fp) >= log_file_size) {
        fseek(fp, kHeaderSize, SEEK_SET);
        log_index = 0;
        fprintf(fp, "\n[QMT-VER-%s] HIT %d Limit, Wrapping up %s\n", ver_str, log_file_size,
                vob_mk_time_str(ts, sizeof ts));
        fflush(fp);
    }

    uint32_t n = log_index++;
    fprintf(fp, "\n%s[%d]{%d}:", vob_mk_time_str(ts, sizeof ts), static_cast<int>(n), static_cast<int>(getpid()));
    if (func)
        fprintf(fp, "%s(%d): ", func, lno);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(fp, fmt, ap);
    va_end(ap);
    fflush(fp);

    long p = ftell(fp);
    write_header(p, log_index - 1);
    fseek(fp, p, SEEK_SET);

    logger_unlock();
    return 0;
}
