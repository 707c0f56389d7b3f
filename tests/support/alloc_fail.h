// Allocation-failure injection for tests. The test executable interposes the C
// allocator (malloc, calloc, realloc), so the library's heap calls can be made
// to fail on demand. Disarmed, every call goes straight to the real allocator.
#pragma once

namespace allocfail {

// Lets `n` allocations succeed, then fails the next one (once).
void fail_nth(int n);
// Fails every allocation until reset().
void fail_all();
// Disarms; counting stops.
void reset();
// Allocation calls seen since the last fail_nth/fail_all/count_from_now.
int count();
// Starts counting without failing anything.
void count_from_now();

// While one of these lives on a thread, that thread's allocations neither
// count nor fail (the fake platform uses it so its own bookkeeping is not
// mistaken for the library's).
struct Suspend {
    Suspend();
    ~Suspend();
    Suspend(const Suspend &) = delete;
    Suspend &operator=(const Suspend &) = delete;
};

// Disarms when it goes out of scope.
struct Guard {
    Guard() = default;
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;
    ~Guard() { reset(); }
};

} // namespace allocfail
