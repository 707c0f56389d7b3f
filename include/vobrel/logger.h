/* vobrel: the process's size-limited log file.
 * Sources: common/src/vobrel_logger.cpp, common/src/vobrel_qmt_version.cpp
 * (version texts).
 *
 * The file is "<store path>.<vob_proc_name>" where the platform names the store
 * path and the size limit. Layout: a 16-byte header of two "%8d" fields (the
 * position just after the newest record, and that record's number), then text.
 * Records read "\n<time>[<number>]{<pid>}:[<func>(<line>): ]<message>". When the
 * write position reaches the limit, writing wraps to byte 16 and numbering
 * restarts at 0.
 * Each record is flushed before its header, and the 16 header bytes go out in
 * one write: a process killed at any moment leaves a header that names a whole
 * record and that record's number. */
#ifndef VOBREL_LOGGER_H
#define VOBREL_LOGGER_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* The longest record written, in bytes (time stamp, number, pid, function
 * part and message together); a longer one is cut to this length. */
#define VOBREL_LOG_RECORD_MAX 65536
/* The largest size limit used; a platform's larger one is lowered to it. A
 * record begun just below the limit then still ends below 100,000,000, so
 * both header fields keep to their 8 digits. */
#define VOBREL_LOG_SIZE_MAX (100000000 - VOBREL_LOG_RECORD_MAX)

/* read-only: the size limit of the log file in bytes, filled in from the
 * platform (at most VOBREL_LOG_SIZE_MAX). */
VOBREL_API extern int log_file_size;
/* public: the short process name (at most 9 characters) ending the log file's name. Set it
 * before the first log call. */
VOBREL_API extern char vob_proc_name[10];

/* Appends one record and flushes it with a matching header. Always 0. */
VOBREL_API int vobrel_write_to_log(const char *func, int lno, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* "1.2.1 Build 0", constant storage. */
VOBREL_API const char *vobrel_get_qmt_version(void);
/* Same pointer; weak, so a process may supply its own. */
VOBREL_API const char *vobrel_get_version_common(void);

VOBREL_END_DECLS

#endif /* VOBREL_LOGGER_H */
