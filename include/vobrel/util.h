/* vobrel: text and file utilities.
 * Sources: common/src/vobrel_string.cpp (text),
 * common/src/vobrel_client_util.cpp (files).
 *
 * Every buffer or array handed back is a zero-filled block from the C heap that
 * the caller owns: release it with free(); an array of strings string by
 * string, then the array. None of these functions keeps state between calls;
 * all are re-entrant.
 *
 * The file functions report a problem three ways: their return code, a line in
 * the log file (vobrel_write_to_log) and, while vobrel_debug_errors is on, the
 * same line through buginf(). Some also print a line on standard output, as
 * noted below. */
#ifndef VOBREL_UTIL_H
#define VOBREL_UTIL_H

#include <time.h>

#include <vobrel/rc.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* Copies at most max - 1 characters of src into dst and always terminates the
 * result; nothing is written after the terminating NUL. `max` is the size of
 * dst in bytes. A null src or a max of 1 gives the empty string. A max of 0
 * leaves dst untouched (there is no room even for the NUL). A null dst writes
 * nothing and returns NULL. Returns dst. */
VOBREL_API char *zel_sstrncpy(char *dst, const char *src, unsigned long max);

/* 1 when `string` has more than `len` characters, else 0. A null string counts
 * as empty. */
VOBREL_API int check_strlen(const char *string, size_t len);

/* Renders a number of seconds as a short English duration into expiry_string
 * (at most len - 1 characters and a NUL): "3 days", "1 hour ", "55 minutes".
 * Whole units only; leftover seconds are dropped, more than 55 minutes round up
 * to the next hour, and 24 hours and 7 days carry too. A count of 0 or 1 is
 * followed by a blank where a plural would have its s. When `expired` is
 * exactly 1, two units are shown where there are two ("1 hour  and 30
 * minutes", "2 weeks and 3 days"); otherwise only the largest. A negative
 * time_remaining counts as 0. A null expiry_string or a len of 0 writes
 * nothing. */
VOBREL_API void vobrel_convert_time_to_string(boolean expired, time_t time_remaining, char *expiry_string,
                                              size_t len);

/* Splits `buffer`, a NUL-terminated text of at most `len` characters, at every
 * character of `delim` into a new NULL-terminated array of new strings in
 * *strings, and stores their number in *num_strings. Delimiters at the ends or
 * in a row yield no empty strings; a text with no token yields an array holding
 * only the NULL and a count of 0.
 *
 * The caller's buffer is cut up in place: the delimiter ending each token is
 * overwritten by a NUL.
 *
 * A text longer than `len` is taken as its first `len` characters: the array
 * gets their tokens only (never more than it has room for), the last one cut
 * at `len`, and the buffer is cut only within those characters. Nothing at or
 * after buffer[len] is read or written, so the text need not be terminated
 * there.
 *
 * VOBREL_INVALID_ARGS for a null buffer, delim, strings or num_strings, for a
 * len of 0 or below, and when the scratch copy or the array cannot be
 * allocated (*strings is then NULL); *num_strings is not touched then. A token
 * that cannot be allocated leaves a NULL in its slot and the call still
 * returns VOBREL_OK. */
VOBREL_API vobrel_rc vobrel_parse_delim_buffer(char *buffer, int len, char *delim, char ***strings,
                                               int *num_strings);

/* Reads the file `fname` into a new NUL-terminated block in *buffer: the whole
 * file when its size is known, else (size 0: /proc files) at most its first
 * 524288 bytes, in one read.
 * VOBREL_INVALID_ARGS: null fname or buffer. VOBREL_FSOPEN_FAILED: cannot open,
 * or not a regular file: a FIFO or device fails at once, without waiting
 * (nothing logged, *buffer untouched). VOBREL_NO_MEMORY: no block (*buffer
 * NULL). VOBREL_INVALID_FILE: the first read gives nothing or fails, or a later
 * read fails (logged; *buffer NULL). An empty file is VOBREL_INVALID_FILE. */
VOBREL_API vobrel_rc vobrel_read_input_vobrel_file(const char *fname, char **buffer);

/* Writes datalen bytes of data to the file `url` (a path; created with mode
 * 0666 before the umask, truncated) and stores in *writelen how many bytes it
 * holds. On success prints "<what> saved ..... to <url>". `what` describes the
 * data in the messages (a null what reads as "data"); `flags` is not used.
 * VOBREL_INVALID_ARGS: null url or writelen, or a negative datalen (nothing
 * else happens). VOBREL_NO_ENTRIES: null data or datalen 0 (no file is
 * created). VOBREL_FSOPEN_FAILED: cannot open, or not a regular file (a FIFO
 * or device fails at once, with the text of ENXIO; *writelen 0, printed and
 * logged). VOBREL_FSWRITE_FAILED: the first write stores nothing (*writelen 0,
 * the file is removed) or a later one stores nothing (*writelen = bytes
 * written, the partial file is kept); printed and logged.
 * Only the regular file this call opened is ever removed: a device node, pipe
 * or symbolic link at `url`, or a file that replaced it meanwhile, is left. */
VOBREL_API vobrel_rc vobrel_write_data_to_url(const char *url, void *data, int32_t datalen, int32_t *writelen,
                                              const char *what, uint32_t flags);

VOBREL_END_DECLS

#endif /* VOBREL_UTIL_H */
