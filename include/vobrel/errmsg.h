/* vobrel: diagnostic output and the message catalogue.
 * Sources: buginf/src/buginf.cpp (reporting, debug output),
 * errmsg/src/errmsg_system.cpp (the "SYS" entries; the "IDMGR" entries are in
 * util/src/id_manager.cpp). */
#ifndef VOBREL_ERRMSG_H
#define VOBREL_ERRMSG_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

typedef int32_t sys_timestamp;

typedef struct clock_epoch_ {
    union {
        uint32_t Xl_ui;
        int32_t Xl_i;
    } Ul_i; /* whole part */
    union {
        uint32_t Xl_uf;
        int32_t Xl_f;
    } Ul_f; /* fraction */
} clock_epoch;

struct message_;

typedef struct message_limiter_ {
    uint32_t rate_limit;
    sys_timestamp last_time;
} message_limiter;

typedef struct message_stats_ {
    const struct message_ *next;
    uint64_t count;
    clock_epoch epoch;
} message_stats;

/* One catalogue entry. Entries are constant; the library reads only fac, name,
 * format and severity. limiter, flags and redir_ptr are carried for processes
 * that want them and are never interpreted here. */
typedef struct message_ {
    /* public: set by whoever defines the entry; read by the library */
    const char *fac;
    const char *name;
    const char *format;
    /* public: for the process; never read here */
    message_limiter *limiter;
    uint16_t flags;
    /* public: set by whoever defines the entry; read by the library */
    uint8_t severity;
    /* public: for the process; never read here */
    message_stats **redir_ptr;
} message;

/* Facility "SYS". */
VOBREL_API extern const message msg_SYS_LINKED;
VOBREL_API extern const message msg_SYS_QCOUNT;
VOBREL_API extern const message msg_SYS_NOTQ;
VOBREL_API extern const message msg_SYS_NOELEMENT;
VOBREL_API extern const message msg_SYS_BADLIST_DESTROY;
VOBREL_API extern const message msg_SYS_MGDTIMER;

/* Reports `msg`: its text (from format and the arguments) goes to the log file,
 * and "%<fac>-<severity>-<name>:<text>" to the system log. `fname` and `lno`
 * name the reporting site and are not used. */
VOBREL_API void xos_errmsg(const char *fname, const int lno, const message *msg, ...);

/* Formats and sends "DBG:" + text to the debug channel. Leading white space of
 * `fmt` is skipped; no line break is added. */
VOBREL_API void buginf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Writes `str` unchanged to standard output. */
VOBREL_API void xos_print_debug(const char *str);

VOBREL_END_DECLS

#endif /* VOBREL_ERRMSG_H */
