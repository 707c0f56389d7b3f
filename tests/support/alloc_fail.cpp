// Interposes the C allocator in the test executable. Symbols defined in the
// executable take precedence over libc's (and a sanitizer runtime's) for every
// shared object; the real ones are reached through RTLD_NEXT.
//
// These functions can run before the sanitizer runtimes and the executable's
// constructors are ready, so they are not instrumented, touch only plain words
// through atomic builtins, and serve allocations from a static arena until the
// real allocator has been looked up.
#include "alloc_fail.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>

#define VOBREL_NO_SANITIZE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

void *(*real_malloc)(size_t);
void *(*real_calloc)(size_t, size_t);
void *(*real_realloc)(void *, size_t);
void (*real_free)(void *);

// 0: off; 1: counting, fail when `remaining` reaches 0 (one-shot); 2: fail
// all; 3: counting only.
int mode;
int remaining;
int seen;
thread_local int suspended;

// Early allocations: a bump arena that is never given back. Each block is
// preceded by its size so realloc can copy it out.
constexpr size_t kArenaSize = 1 << 20;
alignas(16) char arena[kArenaSize];
size_t arena_used;

VOBREL_NO_SANITIZE bool in_arena(void *p)
{
    auto a = reinterpret_cast<uintptr_t>(arena);
    auto q = reinterpret_cast<uintptr_t>(p);
    return q >= a && q < a + kArenaSize;
}

VOBREL_NO_SANITIZE void *arena_alloc(size_t n)
{
    size_t want = ((n + 15) & ~static_cast<size_t>(15)) + 16;
    size_t at = __atomic_fetch_add(&arena_used, want, __ATOMIC_RELAXED);
    if (at + want > kArenaSize)
        return nullptr;
    *reinterpret_cast<size_t *>(arena + at) = n;
    return arena + at + 16;
}

VOBREL_NO_SANITIZE bool resolved()
{
    return __atomic_load_n(&real_free, __ATOMIC_ACQUIRE) != nullptr;
}

// Runs before main, after the sanitizer runtimes have initialised.
__attribute__((constructor(101))) VOBREL_NO_SANITIZE void resolve()
{
    real_malloc = reinterpret_cast<decltype(real_malloc)>(dlsym(RTLD_NEXT, "malloc"));
    real_calloc = reinterpret_cast<decltype(real_calloc)>(dlsym(RTLD_NEXT, "calloc"));
    real_realloc = reinterpret_cast<decltype(real_realloc)>(dlsym(RTLD_NEXT, "realloc"));
    __atomic_store_n(&real_free, reinterpret_cast<decltype(real_free)>(dlsym(RTLD_NEXT, "free")), __ATOMIC_RELEASE);
}

// True, with errno set, when this allocation is to fail.
VOBREL_NO_SANITIZE bool should_fail()
{
    int m = __atomic_load_n(&mode, __ATOMIC_RELAXED);
    if (m == 0 || suspended)
        return false;
    __atomic_fetch_add(&seen, 1, __ATOMIC_RELAXED);
    if (m == 1 && __atomic_fetch_sub(&remaining, 1, __ATOMIC_RELAXED) == 0)
        __atomic_store_n(&mode, 3, __ATOMIC_RELAXED); // one-shot: counting from now on
    else if (m != 2)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" VOBREL_NO_SANITIZE void *malloc(size_t n)
{
    if (!resolved())
        return arena_alloc(n);
    if (should_fail())
        return nullptr;
    return real_malloc(n);
}

extern "C" VOBREL_NO_SANITIZE void *calloc(size_t n, size_t size)
{
    if (!resolved())
        return arena_alloc(n * size); // the arena is zero and never reused
    if (should_fail())
        return nullptr;
    return real_calloc(n, size);
}

extern "C" VOBREL_NO_SANITIZE void *realloc(void *p, size_t n)
{
    if (!resolved() || in_arena(p)) {
        void *q = resolved() ? real_malloc(n) : arena_alloc(n);
        if (q && p) {
            size_t old = *reinterpret_cast<size_t *>(static_cast<char *>(p) - 16);
            memcpy(q, p, old < n ? old : n);
        }
        return q;
    }
    if (should_fail())
        return nullptr;
    return real_realloc(p, n);
}

extern "C" VOBREL_NO_SANITIZE void free(void *p)
{
    if (!p || in_arena(p))
        return;
    real_free(p);
}

namespace {

// Counting starts afresh in mode m (see `mode`).
void arm(int m, int fail_after = 0)
{
    __atomic_store_n(&seen, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&remaining, fail_after, __ATOMIC_SEQ_CST);
    __atomic_store_n(&mode, m, __ATOMIC_SEQ_CST);
}

} // namespace

namespace allocfail {

Suspend::Suspend() { ++suspended; }
Suspend::~Suspend() { --suspended; }

void fail_nth(int n) { arm(1, n); }

void fail_all() { arm(2); }

void reset() { __atomic_store_n(&mode, 0, __ATOMIC_SEQ_CST); }

int count() { return __atomic_load_n(&seen, __ATOMIC_SEQ_CST); }

void count_from_now() { arm(3); }

} // namespace allocfail
