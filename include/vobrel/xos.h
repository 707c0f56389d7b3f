/* vobrel: the OS layer: memory, threads, process controls and the clock tick rate.
 * Sources: vobrel_xos/src/vobrel_xos.cpp, util/src/zel_timers.cpp (tick rate).
 *
 * Memory blocks are ordinary C heap blocks with nothing added: they may be
 * released with free() as well as xos_free(), and xos_free() takes blocks from
 * malloc() too. `file` and `line_no` name the caller's site and are not used. */
#ifndef VOBREL_XOS_H
#define VOBREL_XOS_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* read-only: ticks per second of the process-times clock; 0 until
 * zel_timer_init runs. */
VOBREL_API extern long zel_timer_ticks_per_second;

/* `bytes` zero-filled bytes, or null. */
VOBREL_API void *xos_malloc(char *file, int line_no, int bytes);
/* Releases `ptr`; null does nothing. */
VOBREL_API void xos_free(char *file, int line_no, void *ptr);
/* Resizes; added bytes are not cleared. Null on failure, `ptr` still valid. */
VOBREL_API void *xos_realloc(char *file, int line_no, void *ptr, unsigned int bytes);
/* A heap copy of `ptr`, or null. */
VOBREL_API void *xos_strdup(char *file, int line_no, const char *ptr);

/* Starts a thread running func(argv) through the platform layer; its id, or -1
 * (with one log record "\npthread Create failed !!"). `stack`, `prio` and
 * `argc` are not used: threads get the platform's defaults. */
VOBREL_API int xos_process_create(void *func, const char *name, int stack, int prio, int argc, void *argv);
/* Ends the calling thread; `pthread_id` is not used. */
VOBREL_API void xos_process_exit(int pthread_id);
/* Sleeps 20 seconds. */
VOBREL_API void xos_process_wait_on_system_init(void);
/* No effect. */
VOBREL_API void xos_process_detach(int thread_id);
VOBREL_API void xos_process_kill(int pid);
VOBREL_API void xos_process_suspend(void);
/* No effect: the bytes at `dest` are left as they were. */
VOBREL_API void random_fill(uchar *dest, int l, boolean blockflag);

/* Sets zel_timer_ticks_per_second from sysconf(_SC_CLK_TCK); when that says 0,
 * measures the rate over one second of sleep instead. */
VOBREL_API void zel_timer_init(void);

VOBREL_END_DECLS

#endif /* VOBREL_XOS_H */
