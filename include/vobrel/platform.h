/* vobrel: the platform layer.
 * Sources: defined by the platform layer, by default
 * platform/src/vobrel_platform.cpp.
 *
 * These five functions are NOT defined by libvobrel.so: they are resolved when
 * the process is loaded. libvobrel_platform.so (pkg-config vobrel-platform)
 * supplies a default set; a process may define its own instead. */
#ifndef VOBREL_PLATFORM_H
#define VOBREL_PLATFORM_H

#include <pthread.h>
#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* Unsigned 32-bit (all values non-negative); only VOBREL_PLATFORM_OK is success. */
typedef enum vobrel_platform_status_type_ {
    VOBREL_PLATFORM_OK = 0,
    VOBREL_PLATFORM_UNSUPPORTED = 1,
    VOBREL_PLATFORM_BAD_ARG = 2,
    VOBREL_PLATFORM_NOT_INITED = 3,
    VOBREL_PLATFORM_ALREADY_INITED = 4,
    VOBREL_PLATFORM_INIT_FAILED = 5
} vobrel_platform_status_type;

/* Starts a thread; 0 when started and *thread_id stored, anything else when not.
 * The default applies `name` (cut to what the system allows); `attr` and
 * `flags` are passed as null and 0 by the library. */
VOBREL_API int vobrel_xos_thread_create(pthread_t *thread_id, const pthread_attr_t *attr,
                                        void *(*start_routine)(void *), void *arg,
                                        const char *name, int flags);
/* Ends the calling thread; does not return. */
VOBREL_API void vobrel_xos_thread_exit(void *retval);
/* Records `line` in the system log at `severity` (0 most severe .. 7). The line
 * is printed as it is: a '%' in it is not a conversion. */
VOBREL_API void vobrel_platform_syslog(int severity, const char *line);
/* Prints debug text unchanged on the debug channel. */
VOBREL_API void vobrel_platform_buginf(const char *text);
/* Log store, in two calls. With `path` null: stores the buffer size the path
 * needs (NUL included) in *path_len. With a zero-filled buffer of that size and
 * the same *path_len: copies the path and stores the size limit in *file_size.
 * The default reads VOBREL_LOG_STORE (default "/tmp/vobrel.log") and
 * VOBREL_LOG_SIZE (default 1048576, at most VOBREL_LOG_SIZE_MAX of
 * <vobrel/logger.h>; a larger limit from any platform is lowered to that). */
VOBREL_API vobrel_platform_status_type vobrel_platform_get_log_store_path(int *path_len, char *path,
                                                                          int *file_size);

VOBREL_END_DECLS

#endif /* VOBREL_PLATFORM_H */
