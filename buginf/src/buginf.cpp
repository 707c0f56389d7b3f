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

} // namespace

extern "C" void xos_errmsg(const char * /*fname*/, const int /*lno*/, const message *msg, ...)
{
    char buff[kBufSize];
    char mbuff[kBufSize];
    memset(buff, 0, sizeof buff);
    memset(mbuff, 0, sizeof mbuff);

    int prefix_len = snprintf(buff, sizeof buff, "%%%s-%d-%s:", msg->fac, msg->severity, msg->name);
    if (prefix_len < 0)
        prefix_len = 0;
    memset(buff, 0, sizeof buff);

    va_list ap;
    va_start(ap, msg);
    int msg_len = format_len(buff, sizeof buff, msg->format, ap) + 1;
    va_end(ap);

    size_t total_len = static_cast<size_t>(msg_len) + static_cast<size_t>(prefix_len) + 10;
    char *output_string = static_cast<char *>(calloc(1, total_len));
    char *big_buff = nullptr;
    const char *text = buff;
    char *line = mbuff;
    size_t line_limit = sizeof mbuff;

    if (output_string) {
        if (msg_len <= kBufSize - 1) {
            line = output_string;
            line_limit = total_len;
        } else {
            big_buff = static_cast<char *>(calloc(1, static_cast<size_t>(msg_len)));
            if (big_buff) {
                va_start(ap, msg);
                vsnprintf(big_buff, static_cast<size_t>(msg_len), msg->format, ap);
                va_end(ap);
                text = big_buff;
                line = output_string;
                line_limit = total_len;
            } else {
                free(output_string);
                output_string = nullptr;
            }
        }
    }

    // The log gets at most the first 199 bytes of the text, never reformatted.
    vobrel_write_to_log(nullptr, 0, "%s", buff);

    snprintf(line, line_limit, "%%%s-%d-%s:%s", msg->fac, msg->severity, msg->name, text);
    vobrel_platform_syslog(static_cast<int>(msg->severity), line);

    free(big_buff);
    free(output_string);
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
