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

} // namespace

extern "C" {

vobrel_rc vobrel_read_input_vobrel_file(const char *fname, char **buffer)
{
    if (!fname || !buffer)
        return VOBREL_INVALID_ARGS;

    int fd = open(fname, O_RDONLY);
    if (fd < 0)
        return VOBREL_FSOPEN_FAILED;

    off_t recorded = vob_file_size(fd);
    bool exact = recorded > 0;
    // A recorded size that cannot be addressed here cannot be allocated either.
    if (exact && static_cast<uintmax_t>(recorded) >= SIZE_MAX) {
        *buffer = nullptr;
        close(fd);
        return VOBREL_NO_MEMORY;
    }
    size_t size = exact ? static_cast<size_t>(recorded) : kDefaultReadSize;

    char *block = static_cast<char *>(calloc(1, size + 1));
    *buffer = block;
    if (!block) {
        close(fd);
        return VOBREL_NO_MEMORY;
    }

    // A read that returns 0 leaves errno alone; start from 0 so the line then
    // names no stale error.
    errno = 0;
    ssize_t n = read(fd, block, size);
    if (n <= 0) {
        ErrText err(errno);
        log_problem("\nread failed (%s)\n", err.text);
        free(block);
        *buffer = nullptr;
        close(fd);
        return VOBREL_INVALID_FILE;
    }
    size_t got = static_cast<size_t>(n);
    block[got] = '\0';

    // A file shorter than its recorded size ends the loop early with success.
    while (exact && got < size) {
        n = read(fd, block + got, size - got);
        if (n == 0)
            break;
        if (n < 0) {
            int e = errno;
            ErrText err(e);
            log_problem("\nError in reading file errno: %d(%s)", e, err.text);
            free(block);
            *buffer = nullptr;
            log_problem("\n Error Invalid File exact size:(%s)", err.text);
            close(fd);
            return VOBREL_INVALID_FILE;
        }
        got += static_cast<size_t>(n);
        block[got] = '\0';
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

    int fd = open(url, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        ErrText err(errno);
        *writelen = 0;
        printf("%% Could not open file %s:%s\n", url, err.text);
        log_problem("\nError in opening file %s:%s\n", url, err.text);
        return VOBREL_FSOPEN_FAILED;
    }

    const char *bytes = static_cast<const char *>(data);
    size_t want = static_cast<size_t>(datalen);
    // A write that stores nothing leaves errno alone; see the read above.
    errno = 0;
    ssize_t w = write(fd, bytes, want);
    if (w <= 0) {
        ErrText err(errno);
        *writelen = 0;
        close_and_remove_if_ours(fd, url);
        printf("\nCould not write any %s to file %s: %s\n", what, url, err.text);
        log_problem("\nCould not write %s to file %s %u %u", what, url, static_cast<unsigned>(datalen),
                 static_cast<unsigned>(w));
        return VOBREL_FSWRITE_FAILED;
    }

    size_t total = static_cast<size_t>(w);
    while (total < want) {
        log_problem("\nWriting Partially to file - wrote %u bytes", static_cast<unsigned>(total));
        w = write(fd, bytes + total, want - total);
        if (w <= 0) {
            *writelen = static_cast<int32_t>(total);
            close(fd); // what was written stays in the file
            printf("\nCould not write %s completely to file %s\n", what, url);
            log_problem("\nCould not write %s fully to file %s %u %u", what, url, static_cast<unsigned>(datalen),
                     static_cast<unsigned>(w));
            return VOBREL_FSWRITE_FAILED;
        }
        total += static_cast<size_t>(w);
    }

    *writelen = static_cast<int32_t>(total);
    close(fd);
    printf("%s saved ..... to %s\n", what, url);
    return VOBREL_OK;
}

} // extern "C"
