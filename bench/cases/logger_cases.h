// The log file beside its floor, in one run: records per second.
//
//   Log/ours:     vobrel_write_to_log of one short record
//   Log/floor:    the same bytes with the same durability and the same lock:
//                 the record formatted (time stamp, number, pid, message),
//                 one write of it and one pwrite of the 16 header bytes,
//                 wrapping at the same limit, under one mutex
//   Report/ours:  xos_errmsg of a catalogue entry end to end (log record plus
//                 the system-log line, whose sink here does nothing)
//   Report/floor: Log/floor plus the system-log line formatted into a buffer
//
// Each runs with 1 and 4 threads. Compare ours with its floor as a ratio of
// items per second; the target is at least 0.7 of the floor's throughput.
#ifndef VOBREL_BENCH_CASES_LOGGER_H
#define VOBREL_BENCH_CASES_LOGGER_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>

#include <vobrel/errmsg.h>
#include <vobrel/logger.h>

#include "cases/loop.h"

namespace vobrel::bench::logger {

constexpr long kLimit = 1 << 20; // as the benchmark platform's

// The floor's file: its own descriptor, position and number, one lock.
struct FloorLog {
    std::mutex lock;
    int fd = -1;
    long pos = 16;
    unsigned number = 0;

    FloorLog()
    {
        char tmpl[] = "/tmp/vobrel-bench-floor-XXXXXX";
        const char *d = mkdtemp(tmpl);
        std::string path = std::string(d ? d : "/tmp") + "/floor.log";
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        unlink(path.c_str());
    }

    void append(const char *fmt, va_list ap)
    {
        char ts[50], rec[512];
        time_t now = time(nullptr);
        struct tm tmv;
        localtime_r(&now, &tmv);
        snprintf(ts, sizeof ts, "%.4d/%.2d/%.2d-%.2d:%.2d:%.2d", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday,
                 tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
        std::lock_guard<std::mutex> hold(lock);
        if (pos >= kLimit) {
            pos = 16;
            number = 0;
        }
        int n = snprintf(rec, sizeof rec, "\n%s[%u]{%d}:", ts, number++, static_cast<int>(getpid()));
        n += vsnprintf(rec + n, sizeof rec - static_cast<size_t>(n), fmt, ap);
        pos += pwrite(fd, rec, static_cast<size_t>(n), pos);
        char hdr[17];
        snprintf(hdr, sizeof hdr, "%8ld%8u", pos, number - 1);
        keep(pwrite(fd, hdr, 16, 0));
    }
};

inline FloorLog &floor_log()
{
    static FloorLog f;
    return f;
}

inline void floor_record(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    floor_log().append(fmt, ap);
    va_end(ap);
}

// The shape of a system-log call: the line formatted into a buffer.
inline void floor_syslog(const char *fmt, ...)
{
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    keep(line);
}

template <typename Loop> void Log_ours(Loop &loop)
{
    int i = 0;
    for ([[maybe_unused]] auto _ : loop)
        vobrel_write_to_log(nullptr, 0, "reading %d value %d\n", i++, 42);
    processed(loop, loop.iterations());
}

template <typename Loop> void Log_floor(Loop &loop)
{
    int i = 0;
    for ([[maybe_unused]] auto _ : loop)
        floor_record("reading %d value %d\n", i++, 42);
    processed(loop, loop.iterations());
}

template <typename Loop> void Report_ours(Loop &loop)
{
    for ([[maybe_unused]] auto _ : loop)
        xos_errmsg(__func__, __LINE__, &msg_SYS_QCOUNT, "dequeue", 0x1234u, 3);
    processed(loop, loop.iterations());
}

template <typename Loop> void Report_floor(Loop &loop)
{
    for ([[maybe_unused]] auto _ : loop) {
        floor_record("Bad %s %x count %d", "dequeue", 0x1234u, 3);
        floor_syslog("%%%s-%d-%s:%s", "SYS", 2, "QCOUNT", "Bad dequeue 1234 count 3");
    }
    processed(loop, loop.iterations());
}

} // namespace vobrel::bench::logger

#endif
