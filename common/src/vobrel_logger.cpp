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
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/file.h>
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
// What a "%8d" header field holds; no position or number above it is written.
constexpr long kHeaderMax = 99999999;
static_assert(VOBREL_LOG_SIZE_MAX - 1L + VOBREL_LOG_RECORD_MAX <= kHeaderMax,
              "a record begun below the limit must end where 8 digits can say");
// Records are for the owner and its group: nobody else reads or forges them.
constexpr mode_t kLogFileMode = 0640;
// Every open: never through a symbolic link (the store is often a directory
// that others may write, such as /tmp), never waiting on a FIFO put at the
// path; and, at each open, never inherited across exec (O_CLOEXEC).
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK;
// A refused file is said once in the system log, at the catalogue's ERR.
constexpr int kRefusalSeverity = 3;
// Most records fit here; a longer one is formatted again on the heap.
constexpr size_t kRecordBuf = 512;

// `initialized` is set, atomically, before the lock is taken: a thread that
// arrives while another initialises neither initialises too nor writes before
// that initialisation has ended (see wait_for_pending_init).
int initialized;
sem_t logger_sem;
pthread_once_t logger_sem_once = PTHREAD_ONCE_INIT;
// The open log file, -1 while none; the id of the process that opened it,
// which its records carry; set in a child forked since then.
int log_fd = -1;
pid_t log_pid;
bool log_forked;
// Whether this process takes turns on the file with others, record by record,
// or writes it alone (see lock_mode_byte).
bool log_shared;
// From opening until the first record: the place to write is still to be
// taken from the header, and the open banner still to be written.
bool log_fresh;
uint32_t log_index;
// The write position, kept here so that a record costs no lseek.
long log_pos;
// The header as this process last wrote or read it. While the file's header
// still reads the same, no other writer has moved the position.
char log_header[kHeaderSize];
const char *ver_str = "Unknown";
bool refusal_reported;

// The semaphore is created exactly once per process, before any thread can
// use it; a retried initialisation never re-creates it under a waiter.
void before_fork();

void logger_sem_create()
{
    sem_init(&logger_sem, 0, 1);
    pthread_atfork(before_fork, [] { sem_post(&logger_sem); },
                   [] {
                       log_forked = true;
                       sem_post(&logger_sem);
                   });
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

// Processes that take turns on the file (see lock_mode_byte) hold this lock
// for one record with its header at a time. It belongs to the open file, which
// the process's threads share; the semaphore orders those.
void file_lock()
{
    while (flock(log_fd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

void file_unlock()
{
    flock(log_fd, LOCK_UN);
}

// The lock on this byte, which lies past any log position, says how the file
// is written: held exclusively by a process that writes it alone, shared by
// processes that take turns on it record by record (file_lock). A writer
// alone needs no lock nor header reading per record; a newcomer joins those
// who take turns, or is refused while one writes alone.
constexpr off_t kModeByte = 0x7fffffff;

bool lock_mode_byte(short type)
{
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = kModeByte;
    fl.l_len = 1;
    return fcntl(log_fd, F_OFD_SETLK, &fl) == 0;
}

// Before the process forks, with the logger's lock held until the fork is done
// (so no record is half written in the child): a child may go on logging to
// the same file, so from now on this process takes turns on it.
void before_fork()
{
    logger_lock();
    if (log_fd >= 0 && !log_shared)
        log_shared = lock_mode_byte(F_RDLCK);
}

// The decimal text of v at out, a minus sign first when negative; returns its
// length (at most 11). A record's numbers and its header are written with
// this rather than a formatted print, which took a tenth of a record's time.
size_t put_int(char *out, int v)
{
    char digits[12];
    size_t n = 0, len = 0;
    unsigned u = v < 0 ? 0U - static_cast<unsigned>(v) : static_cast<unsigned>(v);
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (v < 0)
        out[len++] = '-';
    while (n > 0)
        out[len++] = digits[--n];
    return len;
}

// "%8d" of v into out[0..8); v has at most 8 characters (the guards on
// positions and numbers see to it).
void put_field(char *out, int v)
{
    char text[12];
    size_t n = put_int(text, v);
    VOBREL_ASSERT(n <= 8);
    n = n < 8 ? n : 8;
    memset(out, ' ', 8 - n);
    memcpy(out + 8 - n, text, n);
}

// The 16 header bytes go out in one write at offset 0, so a process killed at
// any moment leaves a header whose position and number belong together.
void write_header(long pos, uint32_t number)
{
    char hdr[kHeaderSize];
    put_field(hdr, static_cast<int>(pos));
    put_field(hdr + 8, static_cast<int>(number));
    memcpy(log_header, hdr, kHeaderSize);
    if (pwrite(log_fd, hdr, kHeaderSize, 0) < 0) {
        // Errors while writing are not reported; the next record retries.
    }
}

// Writes n bytes at the write position and moves it on by what was stored.
void put(const char *text, size_t n)
{
    ssize_t w = pwrite(log_fd, text, n, log_pos);
    if (w > 0)
        log_pos += w;
}

// One "%8d" header field: blanks skipped, text that is no number is 0.
long header_field(const char *field)
{
    char buf[9];
    memset(buf, 0, sizeof buf);
    memcpy(buf, field, 8);
    return atol(buf);
}

// With both locks held: takes the place of the next record from the header
// when this process has not seen that header yet, that is on a fresh opening
// or after another writer's record. A fresh opening carries on from a position
// in [16, limit) and numbers its first record as the header's; after another
// writer, any position that 8 digits hold is taken (one at or past the limit
// wraps) and the numbering follows on. A file shorter than its header is new.
void sync_with_header()
{
    char hdr[kHeaderSize];
    memset(hdr, 0, sizeof hdr);
    const ssize_t got = pread(log_fd, hdr, sizeof hdr, 0);
    if (!log_fresh && got == kHeaderSize && memcmp(hdr, log_header, sizeof hdr) == 0)
        return;
    const bool whole = got == kHeaderSize;
    const long pos = whole ? header_field(hdr) : 0, number = whole ? header_field(hdr + 8) : 0;
    const long top = log_fresh ? log_file_size - 1L : kHeaderMax;
    log_pos = pos >= kHeaderSize && pos <= top ? pos : kHeaderSize;
    log_index = static_cast<uint32_t>(number) + (log_fresh || !whole ? 0 : 1);
    if (whole)
        memcpy(log_header, hdr, sizeof hdr);
    else
        write_header(kHeaderSize, 0); // what a new file holds
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
    // A platform of the process's own may allow more than the header can say.
    if (log_file_size > VOBREL_LOG_SIZE_MAX)
        log_file_size = VOBREL_LOG_SIZE_MAX;
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

// Says once per process, in the system log and in the catalogue's form, which
// log file was refused and why.
void report_refusal(const char *file_name, const char *why)
{
    if (refusal_reported)
        return;
    refusal_reported = true;
    char text[512], line[600];
    snprintf(text, sizeof text, "Log file %s refused: %s", file_name, why);
    snprintf(line, sizeof line, "%%%s-%d-%s:%s", "SYS", kRefusalSeverity, "LOGFILE", text);
    vobrel_platform_syslog(kRefusalSeverity, line);
}

// Why the opened file may not take records, or null when it may: it must be a
// regular file of this process's effective user with no other name (through a
// second name, someone else chose which file a root process writes).
const char *unfit(int fd)
{
    struct stat sb;
    if (fstat(fd, &sb) != 0)
        return "cannot be examined";
    if (!S_ISREG(sb.st_mode))
        return "not a regular file";
    if (sb.st_uid != geteuid())
        return "owned by another user";
    if (sb.st_nlink != 1)
        return "it has other names (hard links)";
    return nullptr;
}

// The opened file when it is fit, else -1, refused. A fit file is set back to
// blocking, and its reads of the header leave its access time alone (each
// record's read would otherwise update it).
int checked(int fd, const char *file_name)
{
    const char *why = unfit(fd);
    if (why) {
        report_refusal(file_name, why);
        close(fd);
        return -1;
    }
    const int fl = fcntl(fd, F_GETFL);
    if (fl != -1 && fcntl(fd, F_SETFL, (fl & ~O_NONBLOCK) | O_NOATIME) != 0)
        fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
    return fd;
}

// Opens the log file for reading and writing, creating it, alone, with mode
// 0640 whatever the umask; -1 when it cannot be opened or is refused.
int open_log_file(const char *file_name)
{
    for (int tries = 0; tries < 3; ++tries) {
        int fd = open(file_name, kOpenFlags | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) {
            fd = open(file_name, kOpenFlags | O_CLOEXEC | O_CREAT | O_EXCL, kLogFileMode);
            if (fd < 0 && errno == EEXIST)
                continue; // made meanwhile, or a link to nowhere: look again
            if (fd >= 0)
                fchmod(fd, kLogFileMode);
        }
        if (fd < 0) {
            if (errno == ELOOP)
                report_refusal(file_name, "a symbolic link");
            return -1;
        }
        return checked(fd, file_name);
    }
    return -1;
}

// Runs with logger_sem held. Returns false when the log cannot be used yet;
// the caller then clears `initialized` so the next call tries again.
bool logger_init_locked()
{
    char *file_name = log_file_name();
    if (!file_name)
        return false;
    log_fd = open_log_file(file_name);
    log_shared = log_fd >= 0 && !lock_mode_byte(F_WRLCK);
    if (log_shared && !lock_mode_byte(F_RDLCK)) {
        report_refusal(file_name, "another process writes it alone");
        close(log_fd);
        log_fd = -1;
    }
    free(file_name);
    if (log_fd < 0)
        return false;
    log_pid = getpid();
    log_forked = false;
    log_fresh = true;
    return true;
}

// With logger_sem held, in a child forked after the file was opened: the
// child shares the parent's open file, and with it the lock meant to keep the
// two apart, so it opens the file anew.
void reopen_in_child()
{
    close(log_fd);
    log_fd = -1;
    if (!logger_init_locked())
        __atomic_store_n(&initialized, 0, __ATOMIC_RELEASE);
}

// With logger_sem held: while no file is open but another thread has claimed
// the initialisation and not yet taken the lock, let it run first.
void wait_for_pending_init()
{
    while (log_fd < 0 && __atomic_load_n(&initialized, __ATOMIC_ACQUIRE)) {
        logger_unlock();
        sched_yield();
        logger_lock();
    }
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

// A text formatted into a bounded buffer; `len` counts what the whole text
// needs, so that a cut one is noticed.
struct Text {
    char *buf;
    size_t size;
    size_t len;
};

void vappend(Text &t, const char *fmt, va_list ap)
{
    const size_t at = t.len < t.size ? t.len : t.size;
    const int n = vsnprintf(t.buf + at, t.size - at, fmt, ap);
    if (n > 0)
        t.len += static_cast<size_t>(n);
}

void append_bytes(Text &t, const char *bytes, size_t n)
{
    if (t.len + 1 < t.size) {
        const size_t k = n < t.size - 1 - t.len ? n : t.size - 1 - t.len;
        memcpy(t.buf + t.len, bytes, k);
        t.buf[t.len + k] = '\0';
    }
    t.len += n;
}

__attribute__((format(printf, 2, 3))) void append(Text &t, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vappend(t, fmt, ap);
    va_end(ap);
}

// What of the text is in its buffer.
size_t held(const Text &t)
{
    return t.len < t.size ? t.len : t.size - 1;
}

// With both locks held: the banner that marks each opening of the log.
void write_open_banner()
{
    const char *v = vobrel_get_qmt_version();
    ver_str = v ? v : "Unknown";
    char ts[50], buf[200];
    Text t{buf, sizeof buf, 0};
    append(t, "\n[QMT-VER-%s] Logger initialized %s", ver_str, vob_mk_time_str(ts, sizeof ts));
    put(buf, held(t));
}

// With both locks held: back to byte 16 with the number 0 when the file has
// reached its limit, or when the next number would not fit its header field.
void wrap_if_full()
{
    if (log_pos < log_file_size && static_cast<int>(log_index) <= kHeaderMax)
        return;
    log_pos = kHeaderSize;
    log_index = 0;
    char buf[200];
    Text t{buf, sizeof buf, 0};
    append(t, "\n[QMT-VER-%s] HIT %d Limit, Wrapping up %s\n", ver_str, log_file_size, record_time());
    put(buf, held(t));
}

// Record n's text: its head, the function part when a name is given, and the
// caller's message.
void format_record(Text &t, const char *func, int lno, uint32_t n, pid_t pid, const char *fmt, va_list ap)
{
    // "\n%s[%d]{%d}:" with the time stamp, the number and the process id.
    char head[80];
    const char *stamp = record_time();
    size_t len = strlen(stamp);
    head[0] = '\n';
    memcpy(head + 1, stamp, len);
    head[++len] = '[';
    len += 1 + put_int(head + len + 1, static_cast<int>(n));
    memcpy(head + len, "]{", 2);
    len += 2 + put_int(head + len + 2, static_cast<int>(pid));
    memcpy(head + len, "}:", 2);
    append_bytes(t, head, len + 2);
    if (func)
        append(t, "%s(%d): ", func, lno);
    vappend(t, fmt, ap);
}

// With both locks held: writes record n, formatted on the stack or, when
// longer, on the heap; cut at VOBREL_LOG_RECORD_MAX bytes, and without memory
// at what the stack buffer holds.
void write_record(const char *func, int lno, uint32_t n, pid_t pid, const char *fmt, va_list ap)
{
    char small[kRecordBuf];
    char *big = nullptr;
    va_list again;
    va_copy(again, ap);
    Text t{small, sizeof small, 0};
    format_record(t, func, lno, n, pid, fmt, ap);
    if (t.len >= sizeof small) {
        const size_t size = (t.len < VOBREL_LOG_RECORD_MAX ? t.len : VOBREL_LOG_RECORD_MAX) + 1;
        big = static_cast<char *>(calloc(1, size));
        if (big) {
            t = Text{big, size, 0};
            format_record(t, func, lno, n, pid, fmt, again);
        }
    }
    va_end(again);
    put(t.buf, held(t));
    free(big);
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
    if (log_fd >= 0 && log_forked)
        reopen_in_child();
    if (log_fd < 0) {
        logger_unlock();
        return 0;
    }

    if (log_shared)
        file_lock();
    if (log_shared || log_fresh)
        sync_with_header();
    if (log_fresh) {
        write_open_banner();
        log_fresh = false;
    }
    wrap_if_full();
    const uint32_t n = log_index++;
    va_list ap;
    va_start(ap, fmt);
    write_record(func, lno, n, log_pid, fmt, ap);
    va_end(ap);
    write_header(log_pos, n);
    if (log_shared)
        file_unlock();

    logger_unlock();
    return 0;
}
