// Shared by the model fuzz targets: the input read as operations and
// arguments, and the reports the library raised, as texts.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/fake_platform.h"

namespace fz {

using Lines = std::vector<std::string>;

inline void require(bool ok)
{
    if (!ok)
        __builtin_trap();
}

// Where v first stands in c; c.size() when it is not there.
template <class C, class V> size_t index_of(const C &c, const V &v)
{
    return static_cast<size_t>(std::find(c.begin(), c.end(), v) - c.begin());
}

template <class C, class V> bool has(const C &c, const V &v) { return index_of(c, v) < c.size(); }

// What a dequeue must return: the model's front, taken off, or null when empty.
template <class D> typename D::value_type take_front(D &m)
{
    if (m.empty())
        return nullptr;
    auto v = m.front();
    m.pop_front();
    return v;
}

// The input, consumed front to back; past its end every read gives 0.
struct Ops {
    const uint8_t *p;
    size_t n;
    bool more() const { return n > 0; }
    uint8_t byte()
    {
        if (!n)
            return 0;
        --n;
        return *p++;
    }
    unsigned pick(unsigned k) { return byte() % k; }
    bool flag() { return byte() & 1; }
    int32_t i32() { return static_cast<int32_t>(byte() | byte() << 8 | byte() << 16 | uint32_t(byte()) << 24); }
    std::string text(size_t max)
    {
        std::string s(pick(static_cast<unsigned>(max) + 1), '\0');
        for (char &c : s)
            c = static_cast<char>(byte());
        return s;
    }
};

inline std::string fmt(const char *f, ...)
{
    char b[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(b, sizeof b, f, ap);
    va_end(ap);
    return b;
}

// A pointer as the catalogue's %x prints it.
inline unsigned hex(const void *p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// The input, at the start of a run. Reports go to the system log only: no
// log file written on every message (the logger says so on stdout, which the
// runs close).
inline Ops start(const uint8_t *data, size_t size)
{
    static bool once = (fake::set_log_store_status(1, VOBREL_PLATFORM_UNSUPPORTED), true);
    (void)once;
    fake::clear_recordings();
    return {data, size};
}

// The step's reports must be exactly the expected ones, in order.
inline void reported(Lines &want)
{
    require(fake::take_syslog_texts() == want);
    want.clear();
}

} // namespace fz
