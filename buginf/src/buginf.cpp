// Diagnostic output: catalogue reports, debug text and plain standard output.
#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/platform.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kBufSize = 200;

// vsnprintf's length, with an encoding error counted as an empty text so the
// size arithmetic below never goes negative.
int format_len(char *buf, size_t size, const char *fmt, va_list ap)
{
    int n = vsnprintf(buf, size, fmt, ap);
    return n < 0 ? 0 : n;
}


// Where a report's system-log line is composed and the text it carries; the
// caller releases the two heap blocks (either may be null).
struct Composition {
    const char *text;
    char *line;
    size_t line_limit;
    char *output_string;
    char *big_buff;
};

// Formats the text of `msg` into buff (its first 199 bytes, what the log
// gets) and chooses where the line goes: on the heap with the full text, or,
// without memory, in mbuff with the text cut to buff's. Both buffers are
// kBufSize bytes and zero-filled.
Composition format_report(const message *msg, char *buff, char *mbuff, va_list ap)
{
    // Kept for a text too long for buff, which is formatted again in full.
    va_list again;
    va_copy(again, ap);

    int prefix_len = snprintf(buff, kBufSize, "%%%s-%d-%s:", msg->fac, msg->severity, msg->name);
    if (prefix_len < 0)
        prefix_len = 0;
    memset(buff, 0, kBufSize);
    int msg_len = format_len(buff, kBufSize, msg->format, ap) + 1;

    size_t total_len = static_cast<size_t>(msg_len) + static_cast<size_t>(prefix_len) + 10;
    Composition c{buff, mbuff, kBufSize, static_cast<char *>(calloc(1, total_len)), nullptr};
    if (c.output_string) {
        if (msg_len <= kBufSize - 1) {
            c.line = c.output_string;
            c.line_limit = total_len;
        } else {
            c.big_buff = static_cast<char *>(calloc(1, static_cast<size_t>(msg_len)));
            if (c.big_buff) {
                vsnprintf(c.big_buff, static_cast<size_t>(msg_len), msg->format, again);
                c.text = c.big_buff;
                c.line = c.output_string;
                c.line_limit = total_len;
            } else {
                free(c.output_string);
                c.output_string = nullptr;
            }
        }
    }
    va_end(again);
    return c;
}

} // namespace

extern "C" void xos_errmsg(const char * /*fname*/, const int /*lno*/, const message *msg, ...)
{
    char buff[kBufSize];
    char mbuff[kBufSize];
    memset(buff, 0, sizeof buff);
    memset(mbuff, 0, sizeof mbuff);

    va_list ap;
    va_start(ap, msg);
    const Composition c = format_report(msg, buff, mbuff, ap);
    va_end(ap);

    // The log gets at most the first 199 bytes of the text, never reformatted.
    vobrel_write_to_log(nullptr, 0, "%s", buff);

    snprintf(c.line, c.line_limit, "%%%s-%d-%s:%s", msg->fac, msg->severity, msg->name, c.text);
    vobrel_platform_syslog(static_cast<int>(msg->severity), c.line);

    free(c.big_buff);
    free(c.output_string);
}

extern "C" void buginf(const char *fmt, ...)
{
    static const char kPrefix[] = "DBG:";
    constexpr size_t prefix_len = sizeof kPrefix - 1;
    char buf[kBufSize];
    memset(buf, 0, sizeof buf);

    while (*fmt && isspace(static_cast<unsigned char>(*fmt)))
        ++fmt;

    memcpy(buf, kPrefix, prefix_len);
    va_list ap;
    va_start(ap, fmt);
    size_t total_len = prefix_len + static_cast<size_t>(format_len(buf + prefix_len, sizeof buf - prefix_len, fmt, ap)) + 1;
    va_end(ap);

    if (total_len > kBufSize - 1) {
        char *big = static_cast<char *>(calloc(1, total_len));
        if (big) {
            memcpy(big, kPrefix, prefix_len);
            va_start(ap, fmt);
            vsnprintf(big + prefix_len, total_len - prefix_len, fmt, ap);
            va_end(ap);
            vobrel_platform_buginf(big);
            free(big);
            return;
        }
    }
    vobrel_platform_buginf(buf);
}

extern "C" void xos_print_debug(const char *str)
{
    printf("%s", str);
}
