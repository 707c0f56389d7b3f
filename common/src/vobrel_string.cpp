// Text helpers: bounded copy, length test, duration text, delimiter splitting.
#include <vobrel/util.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned long kSecondsPerWeek = 604800;
constexpr unsigned long kSecondsPerDay = 86400;
constexpr unsigned long kSecondsPerHour = 3600;
constexpr unsigned long kSecondsPerMinute = 60;
// More minutes than this round up to the next hour.
constexpr unsigned long kMinutesBeforeCarry = 55;

// Where a plural has its s, a count of 0 or 1 has a blank, so the words of one
// text line up whatever the count.
int plural_mark(unsigned long n)
{
    return n >= 2 ? 's' : ' ';
}

} // namespace

extern "C" {

char *zel_sstrncpy(char *dst, const char *src, unsigned long max)
{
    if (!dst || max == 0)
        return dst;
    unsigned long i = 0;
    if (src) {
        for (; i < max - 1 && src[i] != '\0'; ++i)
            dst[i] = src[i];
    }
    dst[i] = '\0';
    return dst;
}

int check_strlen(const char *string, size_t len)
{
    if (!string)
        return 0;
    // Looks at no more than len + 1 characters. For len == SIZE_MAX the bound
    // wraps to 0 and the answer is 0, which is right: no string is longer.
    return strnlen(string, len + 1) > len ? 1 : 0;
}

void vobrel_convert_time_to_string(boolean expired, time_t time_remaining, char *expiry_string, size_t len)
{
    if (!expiry_string || len == 0)
        return;
    unsigned long secs = time_remaining > 0 ? static_cast<unsigned long>(time_remaining) : 0;

    unsigned long weeks = secs / kSecondsPerWeek;
    secs %= kSecondsPerWeek;
    unsigned long days = secs / kSecondsPerDay;
    secs %= kSecondsPerDay;
    unsigned long hours = secs / kSecondsPerHour;
    secs %= kSecondsPerHour;
    unsigned long minutes = secs / kSecondsPerMinute; // leftover seconds are dropped

    if (minutes > kMinutesBeforeCarry) {
        ++hours;
        minutes = 0;
    }
    if (hours == 24) {
        ++days;
        hours = 0;
    }
    if (days == 7) {
        ++weeks;
        days = 0;
    }

    char *s = expiry_string;
    if (expired != 1) {
        if (weeks)
            snprintf(s, len, "%lu week%c", weeks, plural_mark(weeks));
        else if (days)
            snprintf(s, len, "%lu day%c", days, plural_mark(days));
        else if (hours)
            snprintf(s, len, "%lu hour%c", hours, plural_mark(hours));
        else
            snprintf(s, len, "%lu minutes", minutes);
        return;
    }

    // Two units where there are two; a week count hides hours and minutes.
    if (weeks) {
        if (days)
            snprintf(s, len, "%lu week%c and %lu day%c", weeks, plural_mark(weeks), days, plural_mark(days));
        else
            snprintf(s, len, "%lu week%c", weeks, plural_mark(weeks));
    } else if (days) {
        if (hours)
            snprintf(s, len, "%lu day%c and %lu hour%c", days, plural_mark(days), hours, plural_mark(hours));
        else
            snprintf(s, len, "%lu day%c", days, plural_mark(days));
    } else if (hours) {
        if (minutes)
            snprintf(s, len, "%lu hour%c and %lu minutes", hours, plural_mark(hours), minutes);
        else
            snprintf(s, len, "%lu hour%c", hours, plural_mark(hours));
    } else {
        snprintf(s, len, "%lu minutes", minutes);
    }
}

vobrel_rc vobrel_parse_delim_buffer(char *buffer, int len, char *delim, char ***strings, int *num_strings)
{
    if (len < 0 || !strings || !num_strings)
        return VOBREL_INVALID_ARGS;
    size_t n = static_cast<size_t>(len);

    // The tokens are counted on a copy of the first len characters, so the
    // array can be sized before the caller's buffer is cut.
    char *scratch = static_cast<char *>(calloc(1, n + 1));
    if (scratch)
        zel_sstrncpy(scratch, buffer, n + 1);
    else
        *strings = nullptr;
    if (!buffer || !scratch || !delim || len == 0) {
        free(scratch);
        return VOBREL_INVALID_ARGS;
    }

    int count = 0;
    char *pos = nullptr;
    for (char *t = strtok_r(scratch, delim, &pos); t; t = strtok_r(nullptr, delim, &pos))
        ++count;
    free(scratch);

    char **array = static_cast<char **>(calloc(static_cast<size_t>(count) + 1, sizeof(char *)));
    *strings = array;
    if (!array)
        return VOBREL_INVALID_ARGS;

    // A text longer than len is ended at len for the split, so that the split
    // sees exactly the counted tokens and the array cannot overflow; the
    // caller's character there is put back afterwards.
    char *stop = nullptr;
    char stopped = '\0';
    if (strnlen(buffer, n + 1) > n) {
        stop = buffer + n;
        stopped = *stop;
        *stop = '\0';
    }

    int stored = 0;
    pos = nullptr;
    char *t = strtok_r(buffer, delim, &pos);
    while (t && stored < count) {
        size_t tlen = strlen(t);
        char *copy = static_cast<char *>(calloc(1, tlen + 1));
        if (copy)
            zel_sstrncpy(copy, t, tlen + 1);
        array[stored++] = copy; // a token without memory leaves its slot null
        if (stored < count)
            t = strtok_r(nullptr, delim, &pos);
    }

    if (stop)
        *stop = stopped;
    *num_strings = stored;
    return VOBREL_OK;
}

} // extern "C"
