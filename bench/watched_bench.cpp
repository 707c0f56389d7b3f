// The watched-primitive cases (bench/cases/watched_cases.h), timed.
#include <benchmark/benchmark.h>

#include "cases/watched_cases.h"

using benchmark::State;
using namespace vobrel::bench::watched;

BENCHMARK(Handoff_watched<State>)->Name("Handoff_watched")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
#ifdef VOBREL_BENCH_HAVE_GLIB
BENCHMARK(Handoff_gasyncqueue<State>)->Name("Handoff_gasyncqueue")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
#endif
BENCHMARK(Handoff_c_asyncqueue<State>)->Name("Handoff_c_asyncqueue")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(Handoff_std_deque<State>)->Name("Handoff_std_deque")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(PingPong_watched<State>)->Name("PingPong_watched")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(PingPong_std_condvar<State>)->Name("PingPong_std_condvar")->Unit(benchmark::kMicrosecond)->UseRealTime();
