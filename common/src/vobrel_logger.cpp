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
#include <sched.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/src/library_private.h"
#include "common/src/vobrel_logger_private.h"

using vobrel::detail::kSpinTries;
using vobrel::detail::spin_pause;
using vobrel::detail::vob_mk_time_str;

extern "C" {
int log_file_size;
char vob_proc_name[10] = "vobrelapp";
}

namespace {

constexpr long kHeaderSize = 16;

// `initialized` is set, atomically, before the lock is taken: a thread that
// arrives while another initialises neither initialises too nor writes before
// that initialisation has ended (see wait_for_pending_init).
int initialized;
sem_t logger_sem;
pthread_once_t logger_sem_once = PTHREAD_ONCE_INIT;
FILE *fp;
uint32_t log_index;
// The stream's position, kept here so that a record costs no lseek: advanced
// by what each print wrote, and read back from the stream after any failure.
long log_pos;
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
    // The library's bounded spin (library_private.h): sleeping on the
    // semaphore at every record halved the throughput of four logging threads.
    for (int i = 0; i < kSpinTries; ++i) {
        // Only a free-looking lock is tried: a failed try writes the
        // semaphore's line and takes it away from the thread releasing it.
        int value = 0;
        if (sem_getvalue(&logger_sem, &value) == 0 && value > 0 && sem_trywait(&logger_sem) == 0)
            return;
        spin_pause();
    }
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

// The 16 header bytes go out in one write at offset 0, so a process killed at
// any moment leaves a header whose position and number belong together. The
// stream's own position is untouched.
void write_header(int fd, long pos, uint32_t number)
{
    char hdr[32];
    int n = snprintf(hdr, sizeof hdr, "%8d%8d", static_cast<int>(pos), static_cast<int>(number));
    if (pwrite(fd, hdr, static_cast<size_t>(n), 0) < 0) {
        // Errors while writing are not reported; the next record retries.
    }
}

// Accounts for one print of `n` bytes (negative on failure).
void advance(int n)
{
    log_pos = n >= 0 ? log_pos + n : ftell(fp);
}

// Flushes; after a failed flush the stream's own position is the truth.
void flush()
{
    if (fflush(fp) != 0)
        log_pos = ftell(fp);
}

// With the lock held: while no file is open but another thread has claimed
// the initialisation and not yet taken the lock, let it run first.
void wait_for_pending_init()
{
    while (!fp && __atomic_load_n(&initialized, __ATOMIC_ACQUIRE)) {
        logger_unlock();
        sched_yield();
        logger_lock();
    }
}

// The log store's directory from the platform, which also sets
// log_file_size; *len is the size of the returned block. Null when the
// platform or memory fails, said on standard output.
char *log_store_path(int *len)
{
    vobrel_platform_status_type st = vobrel_platform_get_log_store_path(len, nullptr, &log_file_size);
    if (st != VOBREL_PLATFORM_OK || *len <= 0) {
        printf("vobrel_platform_get_log_store_path() failed with error code %d path len %d\n",
               static_cast<int>(st), *len);
        return nullptr;
    }
    char *path = static_cast<char *>(calloc(1, static_cast<size_t>(*len)));
    if (!path) {
        printf("Platform get log store failed with memory allocation failure\n");
        return nullptr;
    }
    st = vobrel_platform_get_log_store_path(len, path, &log_file_size);
    if (st != VOBREL_PLATFORM_OK || log_file_size <= 0) {
        printf("Platform get log store failed with error code %d and file size %d\n", static_cast<int>(st),
               log_file_size);
        free(path);
        return nullptr;
    }
    return path;
}

// The log file's name, "<store path>.<process name>"; null on failure.
char *log_file_name()
{
    int len = 0;
    char *path = log_store_path(&len);
    if (!path)
        return nullptr;
    size_t name_size = sizeof vob_proc_name + 2 + static_cast<size_t>(len);
    char *file_name = static_cast<char *>(calloc(1, name_size));
    if (!file_name) {
        printf("Platform get log store failed with memory allocation failure\n");
        free(path);
        return nullptr;
    }
    snprintf(file_name, name_size, "%s.%s", path, vob_proc_name);
    free(path);
    return file_name;
}

// A missing log file is created holding just a header that points past
// itself. False when it cannot be created.
bool create_with_header(const char *file_name)
{
    struct stat sb;
    if (stat(file_name, &sb) == 0)
        return true;
    FILE *nf = fopen(file_name, "a");
    if (!nf)
        return false;
    write_header(fileno(nf), kHeaderSize, 0);
    fclose(nf);
    return true;
}

// Takes the record number and position from the header of the open file
// and moves there; a position outside the file's limit starts after the header.
void seek_to_header_position()
{
    int pos = read_header_field(fp);
    log_index = static_cast<uint32_t>(read_header_field(fp));
    log_pos = pos != 0 && pos < log_file_size ? pos : kHeaderSize;
    fseek(fp, log_pos, SEEK_SET);
}

// The line that marks each opening of the log, with the library's version.
void write_banner()
{
    const char *v = vobrel_get_qmt_version();
    ver_str = v ? v : "Unknown";
    char ts[50];
    advance(fprintf(fp, "\n[QMT-VER-%s] Logger initialized %s", ver_str, vob_mk_time_str(ts, sizeof ts)));
    flush();
}

// Runs with logger_sem held. Returns false when the log cannot be used yet;
// the caller then clears `initialized` so the next call tries again.
bool logger_init_locked()
{
    char *file_name = log_file_name();
    if (!file_name)
        return false;
    if (!create_with_header(file_name)) {
        free(file_name);
        return false;
    }
    fp = fopen(file_name, "r+");
    free(file_name);
    if (!fp)
        return false;
    seek_to_header_position();
    write_banner();
    return true;
}

// "YYYY/MM/DD-hh:mm:ss" of `now`, local time, into `buf`.
char *format_time(time_t now, char *buf, int len)
{
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    localtime_r(&now, &tmv);
    snprintf(buf, len > 0 ? static_cast<size_t>(len) : 0, "%.4d/%.2d/%.2d-%.2d:%.2d:%.2d", tmv.tm_year + 1900,
             tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    return buf;
}

// With the lock held: the time stamp of a record, formatted once a second.
// Formatting it for every record made the lock's hold a good part longer,
// and four logging threads wait on that hold.
const char *record_time()
{
    static time_t second = -1;
    static char stamp[50];
    const time_t now = time(nullptr);
    if (now != second) {
        format_time(now, stamp, sizeof stamp);
        second = now;
    }
    return stamp;
}

} // namespace

char *vobrel::detail::vob_mk_time_str(char *buf, int len)
{
    time_t now = time(nullptr);
    if (!buf)
        return const_cast<char *>("Time error");
    return format_time(now, buf, len);
}

extern "C" int vobrel_write_to_log(const char *func, int lno, const char *fmt, ...)
{
    if (__atomic_load_n(&initialized, __ATOMIC_ACQUIRE) == 0 &&
        __atomic_exchange_n(&initialized, 1, __ATOMIC_ACQ_REL) == 0) {
        logger_lock();
        if (!logger_init_locked())
            __atomic_store_n(&initialized, 0, __ATOMIC_RELEASE);
    } else {
        logger_lock();
        wait_for_pending_init();
    }
    if (!fp) {
        logger_unlock();
        return 0;
    }

    if (log_pos >= log_file_size) {
        fseek(fp, kHeaderSize, SEEK_SET);
        log_pos = kHeaderSize;
        log_index = 0;
        advance(fprintf(fp, "\n[QMT-VER-%s] HIT %d Limit, Wrapping up %s\n", ver_str, log_file_size, record_time()));
        flush();
    }

    uint32_t n = log_index++;
    advance(fprintf(fp, "\n%s[%d]{%d}:", record_time(), static_cast<int>(n), static_cast<int>(getpid())));
    if (func)
        advance(fprintf(fp, "%s(%d): ", func, lno));
    va_list ap;
    va_start(ap, fmt);
    advance(vfprintf(fp, fmt, ap));
    va_end(ap);
    flush();

    write_header(fileno(fp), log_pos, log_index - 1);

    logger_unlock();
    return 0;
}
