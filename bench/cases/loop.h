// What the benchmark cases share with their two runners: the Google Benchmark
// programs (bench/*_bench.cpp), which time them, and the counting driver
// (bench/cost/cost_driver.cpp), which runs each a fixed number of times under
// an instruction-tracing emulator. A case is a template over its loop: a
// benchmark::State or a CountLoop, both iterated with `for ([[maybe_unused]] auto _ : loop)`.
// Neither the cases nor the driver need the benchmark library.
#ifndef VOBREL_BENCH_CASES_LOOP_H
#define VOBREL_BENCH_CASES_LOOP_H

#include <cstdint>

// A function compiled as an exported one is: out of line and without
// knowledge of its callers (GCC would otherwise drop a result they ignore).
#if defined(__clang__)
#define VOBREL_BENCH_OPAQUE [[gnu::noinline]]
#else
#define VOBREL_BENCH_OPAQUE [[gnu::noipa]]
#endif

namespace vobrel::bench {

// A fixed number of iterations, as the counting driver runs them.
class CountLoop {
public:
    struct Tick {};
    struct It {
        int64_t i;
        bool operator!=(const It &o) const { return i != o.i; }
        void operator++() { ++i; }
        Tick operator*() const { return {}; }
    };
    explicit CountLoop(int64_t n) : n_(n) {}
    It begin() const { return {0}; }
    It end() const { return {n_}; }
    int64_t iterations() const { return n_; }

private:
    int64_t n_;
};

// The value is computed and kept (as benchmark::DoNotOptimize).
template <typename T> inline void keep(T const &value)
{
    asm volatile("" : : "r,m"(value) : "memory");
}

template <typename T> inline void keep(T &value)
{
#if defined(__clang__)
    asm volatile("" : "+r,m"(value) : : "memory");
#else
    asm volatile("" : "+m,r"(value) : : "memory");
#endif
}

// Memory may have been read or written by someone else (as benchmark::ClobberMemory).
inline void clobber()
{
    asm volatile("" : : : "memory");
}

// Items per second in the benchmark's output; nothing when counting.
template <typename Loop> inline void processed(Loop &loop, int64_t items)
{
    if constexpr (requires { loop.SetItemsProcessed(items); })
        loop.SetItemsProcessed(items);
}

} // namespace vobrel::bench

#endif
