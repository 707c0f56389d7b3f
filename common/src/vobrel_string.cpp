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


// A duration in whole units; leftover seconds are dropped.
struct Duration {
    unsigned long weeks;
    unsigned long days;
    unsigned long hours;
    unsigned long minutes;
};

// Splits seconds into units, then carries: many minutes round up to an hour,
// a full day of hours to a day, a full week of days to a week, in that order.
Duration split_duration(unsigned long secs)
{
    Duration d;
    d.weeks = secs / kSecondsPerWeek;
    secs %= kSecondsPerWeek;
    d.days = secs / kSecondsPerDay;
    secs %= kSecondsPerDay;
    d.hours = secs / kSecondsPerHour;
    secs %= kSecondsPerHour;
    d.minutes = secs / kSecondsPerMinute;

    if (d.minutes > kMinutesBeforeCarry) {
        ++d.hours;
        d.minutes = 0;
    }
    if (d.hours == 24) {
        ++d.days;
        d.hours = 0;
    }
    if (d.days == 7) {
        ++d.weeks;
        d.days = 0;
    }
    return d;
}

// The largest unit that is not 0, alone.
void write_largest_unit(const Duration &d, char *s, size_t len)
{
    if (d.weeks)
        snprintf(s, len, "%lu week%c", d.weeks, plural_mark(d.weeks));
    else if (d.days)
        snprintf(s, len, "%lu day%c", d.days, plural_mark(d.days));
    else if (d.hours)
        snprintf(s, len, "%lu hour%c", d.hours, plural_mark(d.hours));
    else
        snprintf(s, len, "%lu minutes", d.minutes);
}

// Two units where there are two; a week count hides hours and minutes.
void write_two_units(const Duration &d, char *s, size_t len)
{
    if (d.weeks) {
        if (d.days)
            snprintf(s, len, "%lu week%c and %lu day%c", d.weeks, plural_mark(d.weeks), d.days, plural_mark(d.days));
        else
            snprintf(s, len, "%lu week%c", d.weeks, plural_mark(d.weeks));
    } else if (d.days) {
        if (d.hours)
            snprintf(s, len, "%lu day%c and %lu hour%c", d.days, plural_mark(d.days), d.hours, plural_mark(d.hours));
        else
            snprintf(s, len, "%lu day%c", d.days, plural_mark(d.days));
    } else if (d.hours) {
        if (d.minutes)
            snprintf(s, len, "%lu hour%c and %lu minutes", d.hours, plural_mark(d.hours), d.minutes);
        else
            snprintf(s, len, "%lu hour%c", d.hours, plural_mark(d.hours));
    } else {
        snprintf(s, len, "%lu minutes", d.minutes);
    }
}

// A copy of the first n characters of buffer; on no memory, null and
// *strings null too.
char *scratch_copy(const char *buffer, size_t n, char ***strings)
{
    char *scratch = static_cast<char *>(calloc(1, n + 1));
    if (scratch)
        zel_sstrncpy(scratch, buffer, n + 1);
    else
        *strings = nullptr;
    return scratch;
}

// The number of tokens in text: runs of characters not in delim.
int count_tokens(const char *text, const char *delim)
{
    int count = 0;
    for (text += strspn(text, delim); *text; text += strspn(text, delim)) {
        ++count;
        text += strcspn(text, delim);
    }
    return count;
}

// Cuts scratch, the copy of buffer's first n characters, into its tokens and
// stores a copy of each, at most `count`, in array; returns how many were
// stored. Each token is ended in buffer too, where it was ended in the copy:
// nothing at or after buffer[n] is read or written, so the caller's text
// needs no terminator there. A token without memory leaves its slot null.
int split_into(char *buffer, char *scratch, size_t n, const char *delim, char **array, int count)
{
    int stored = 0;
    char *pos = nullptr;
    for (char *t = strtok_r(scratch, delim, &pos); t && stored < count; t = strtok_r(nullptr, delim, &pos)) {
        const size_t tlen = strlen(t), end = static_cast<size_t>(t - scratch) + tlen;
        if (end < n)
            buffer[end] = '\0';
        char *copy = static_cast<char *>(calloc(1, tlen + 1));
        if (copy)
            zel_sstrncpy(copy, t, tlen + 1);
        array[stored++] = copy;
    }
    return stored;
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
    const Duration d = split_duration(secs);
    if (expired != 1)
        write_largest_unit(d, expiry_string, len);
    else
        write_two_units(d, expiry_string, len);
}

vobrel_rc vobrel_parse_delim_buffer(char *buffer, int len, char *delim, char ***strings, int *num_strings)
{
    if (len < 0 || !strings || !num_strings)
        return VOBREL_INVALID_ARGS;
    size_t n = static_cast<size_t>(len);

    // The tokens are counted and cut on a copy of the first len characters,
    // so the array can be sized before the caller's buffer is cut.
    char *scratch = scratch_copy(buffer, n, strings);
    if (!buffer || !scratch || !delim || len == 0) {
        free(scratch);
        return VOBREL_INVALID_ARGS;
    }
    int count = count_tokens(scratch, delim);

    char **array = static_cast<char **>(calloc(static_cast<size_t>(count) + 1, sizeof(char *)));
    *strings = array;
    if (array)
        *num_strings = split_into(buffer, scratch, n, delim, array, count);
    free(scratch);
    return array ? VOBREL_OK : VOBREL_INVALID_ARGS;
}

} // extern "C"
