// What the library's modules share privately: the problem-line policy, the
// heap helpers and the debug-build assertion. Not installed.
#ifndef VOBREL_LIBRARY_PRIVATE_H
#define VOBREL_LIBRARY_PRIVATE_H

#include <vobrel/debug.h>
#include <vobrel/errmsg.h>
#include <vobrel/logger.h>
#include <vobrel/xos.h>

#include <cstddef>

// Assertion of a rule a comment states. Debug builds (no NDEBUG) stop on a
// broken rule; release builds compile it out, so it never costs or changes a
// result there.
#ifdef NDEBUG
#define VOBREL_ASSERT(cond) ((void)0)
#else
#define VOBREL_ASSERT(cond) ((cond) ? (void)0 : __builtin_trap())
#endif

namespace vobrel::detail {

// The log file's lock guards about a microsecond of work, while handing a
// lock over through a futex sleep and wake-up costs microseconds; so a writer
// tries it this many times before it sleeps on it. Bounded, so that on one
// core it loses a few microseconds at most. (The queue and watched mutexes do
// not spin: there a producer and a consumer spinning against each other made
// the hand-over of a million pointers two to ten times slower.)
constexpr int kSpinTries = 200;

inline void spin_pause()
{
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

// The watched primitives and the utilities report a problem as one line in the
// log file and, while the vobrel_debug_errors switch is on, the same text as
// debug output.
template <typename... Args> void log_problem(const char *fmt, Args... args)
{
    vobrel_write_to_log(nullptr, 0, fmt, args...);
    if (vobrel_debug_errors)
        buginf(fmt, args...);
}

// Which allocator new code uses is fixed per module, and follows what callers
// may rely on when they free what the library hands them:
// - lists (headers and automatic elements) and the string database's owner and
//   context records: xos_malloc/xos_free, through the two helpers below;
// - the string database's texts, table and owner-info array, data-queue
//   wrappers, the ID manager, watched primitives, the logger's buffers and the
//   utilities' buffers: the C heap directly (calloc/malloc/free).
// The OS layer's wrappers take a file and line that they ignore; the helpers
// pass the caller's.
inline void *xos_alloc(size_t bytes, const char *file = __builtin_FILE(), int line = __builtin_LINE())
{
    return xos_malloc(const_cast<char *>(file), line, static_cast<int>(bytes));
}

inline void xos_release(void *p, const char *file = __builtin_FILE(), int line = __builtin_LINE())
{
    xos_free(const_cast<char *>(file), line, p);
}

} // namespace vobrel::detail

#endif // VOBREL_LIBRARY_PRIVATE_H
