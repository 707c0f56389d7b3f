// File helpers: read a whole file into a new buffer, write a buffer to a file.
#include <vobrel/debug.h>
#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/util.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/src/library_private.h"

namespace {

// Read size when a file's size is 0 or cannot be learned (pipes, /proc files).
constexpr size_t kDefaultReadSize = 0x80000;

using vobrel::detail::log_problem;

// Text of a system error number; re-entrant.
struct ErrText {
    char buf[128];
    const char *text;
    explicit ErrText(int e) : buf{}, text(strerror_r(e, buf, sizeof buf)) {}
};

// Size recorded in the status of the open file fd; 0 when it cannot be read.
off_t vob_file_size(int fd)
{
    struct stat sb;
    if (fstat(fd, &sb) != 0)
        return 0;
    return sb.st_size;
}

// Opens `path` close-on-exec and without waiting (a FIFO or device at the
// path never hangs the call), and keeps it only when it is a regular file,
// back in blocking mode. Otherwise -1 with errno set: EISDIR for a directory,
// ENXIO for anything else that is not a regular file.
int open_regular(const char *path, int flags, mode_t mode = 0)
{
    int fd = open(path, flags | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0)
        return -1;
    struct stat sb;
    const int e = fstat(fd, &sb) != 0 ? errno : S_ISREG(sb.st_mode) ? 0 : S_ISDIR(sb.st_mode) ? EISDIR : ENXIO;
    if (e != 0) {
        close(fd);
        errno = e;
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

// Closes `fd` and removes `url` only while it is still the regular file open
// on `fd` (same device and inode, the path itself not followed): a device
// node, a pipe, a symbolic link or a file put there meanwhile stays.
void close_and_remove_if_ours(int fd, const char *url)
{
    struct stat opened, now;
    bool regular = fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode);
    close(fd);
    if (regular && lstat(url, &now) == 0 && now.st_dev == opened.st_dev && now.st_ino == opened.st_ino)
        unlink(url);
}


// How much to read from fd: its recorded size, exact, or the default read
// size in one read. False for a recorded size that cannot be addressed here,
// which could not be allocated either.
bool read_size(int fd, size_t *size, bool *exact)
{
    off_t recorded = vob_file_size(fd);
    *exact = recorded > 0;
    if (*exact && static_cast<uintmax_t>(recorded) >= SIZE_MAX)
        return false;
    *size = *exact ? static_cast<size_t>(recorded) : kDefaultReadSize;
    return true;
}

// The first read into *buffer, NUL-terminated; *got is what it read. When it
// reads nothing or fails, says why and releases the block (*buffer null).
bool read_first(int fd, char **buffer, size_t size, size_t *got)
{
    char *block = *buffer;
    // A read that returns 0 leaves errno alone; start from 0 so the line then
    // names no stale error.
    errno = 0;
    ssize_t n = read(fd, block, size);
    if (n <= 0) {
        ErrText err(errno);
        log_problem("\nread failed (%s)\n", err.text);
        free(block);
        *buffer = nullptr;
        return false;
    }
    *got = static_cast<size_t>(n);
    block[*got] = '\0';
    return true;
}

// Reads the rest of an exactly sized file after the `got` bytes already read.
// A file shorter than its recorded size ends the loop early with success; a
// failed read says why and releases the block (*buffer null).
bool read_rest(int fd, char **buffer, size_t size, size_t got)
{
    char *block = *buffer;
    while (got < size) {
        ssize_t n = read(fd, block + got, size - got);
        if (n == 0)
            break;
        if (n < 0) {
            int e = errno;
            ErrText err(e);
            log_problem("\nError in reading file errno: %d(%s)", e, err.text);
            free(block);
            *buffer = nullptr;
            log_problem("\n Error Invalid File exact size:(%s)", err.text);
            return false;
        }
        got += static_cast<size_t>(n);
        block[got] = '\0';
    }
    return true;
}

// Opens `url` afresh for writing; on failure says why and sets *writelen to 0.
int open_for_write(const char *url, int32_t *writelen)
{
    int fd = open_regular(url, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        ErrText err(errno);
        *writelen = 0;
        printf("%% Could not open file %s:%s\n", url, err.text);
        log_problem("\nError in opening file %s:%s\n", url, err.text);
    }
    return fd;
}

// A buffer being written to an open file, and what its messages name.
struct Output {
    int fd;
    const char *url;
    const char *what;
    const char *bytes;
    int32_t datalen;
    int32_t *writelen;
};

// The first write; *total is what it stored. When it stores nothing, says
// why and closes and removes the file.
bool write_first(const Output &out, size_t *total)
{
    // A write that stores nothing leaves errno alone; start from 0 so the
    // line then names no stale error.
    errno = 0;
    ssize_t w = write(out.fd, out.bytes, static_cast<size_t>(out.datalen));
    if (w <= 0) {
        ErrText err(errno);
        *out.writelen = 0;
        close_and_remove_if_ours(out.fd, out.url);
        printf("\nCould not write any %s to file %s: %s\n", out.what, out.url, err.text);
        log_problem("\nCould not write %s to file %s %u %u", out.what, out.url, static_cast<unsigned>(out.datalen),
                    static_cast<unsigned>(w));
        return false;
    }
    *total = static_cast<size_t>(w);
    return true;
}

// Writes what is still unwritten after *total bytes, noting each partial
// write. A write that stores nothing ends it: says so and closes the file,
// leaving in it what was written.
bool write_rest(const Output &out, size_t *total)
{
    const size_t want = static_cast<size_t>(out.datalen);
    while (*total < want) {
        log_problem("\nWriting Partially to file - wrote %u bytes", static_cast<unsigned>(*total));
        ssize_t w = write(out.fd, out.bytes + *total, want - *total);
        if (w <= 0) {
            *out.writelen = static_cast<int32_t>(*total);
            close(out.fd);
            printf("\nCould not write %s completely to file %s\n", out.what, out.url);
            log_problem("\nCould not write %s fully to file %s %u %u", out.what, out.url,
                        static_cast<unsigned>(out.datalen), static_cast<unsigned>(w));
            return false;
        }
        *total += static_cast<size_t>(w);
    }
    return true;
}

} // namespace

extern "C" {

vobrel_rc vobrel_read_input_vobrel_file(const char *fname, char **buffer)
{
    if (!fname || !buffer)
        return VOBREL_INVALID_ARGS;

    int fd = open_regular(fname, O_RDONLY);
    if (fd < 0)
        return VOBREL_FSOPEN_FAILED;

    size_t size = 0;
    bool exact = false;
    if (!read_size(fd, &size, &exact)) {
        *buffer = nullptr;
        close(fd);
        return VOBREL_NO_MEMORY;
    }

    char *block = static_cast<char *>(calloc(1, size + 1));
    *buffer = block;
    if (!block) {
        close(fd);
        return VOBREL_NO_MEMORY;
    }

    size_t got = 0;
    if (!read_first(fd, buffer, size, &got) || (exact && !read_rest(fd, buffer, size, got))) {
        close(fd);
        return VOBREL_INVALID_FILE;
    }
    close(fd);
    return VOBREL_OK;
}

vobrel_rc vobrel_write_data_to_url(const char *url, void *data, int32_t datalen, int32_t *writelen,
                                   const char *what, uint32_t /*flags*/)
{
    if (!url || !writelen || datalen < 0)
        return VOBREL_INVALID_ARGS;
    if (!data || datalen == 0)
        return VOBREL_NO_ENTRIES;
    if (!what)
        what = "data";

    int fd = open_for_write(url, writelen);
    if (fd < 0)
        return VOBREL_FSOPEN_FAILED;

    const Output out{fd, url, what, static_cast<const char *>(data), datalen, writelen};
    size_t total = 0;
    if (!write_first(out, &total) || !write_rest(out, &total))
        return VOBREL_FSWRITE_FAILED;

    *writelen = static_cast<int32_t>(total);
    close(fd);
    printf("%s saved ..... to %s\n", what, url);
    return VOBREL_OK;
}

} // extern "C"
