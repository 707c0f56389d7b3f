// The queue cases (bench/cases/queue_cases.h), timed.
#include <benchmark/benchmark.h>

#include "cases/queue_cases.h"

using benchmark::State;
using namespace vobrel::bench::queue;

BENCHMARK(Locked_zel<State>)->Name("Locked_zel");
BENCHMARK(Locked_floor_stailq<State>)->Name("Locked_floor_stailq");
BENCHMARK(Locked_inline_bodies<State>)->Name("Locked_inline_bodies");
BENCHMARK(Unlocked_zel_p<State>)->Name("Unlocked_zel_p");
BENCHMARK(Unlocked_floor_stailq<State>)->Name("Unlocked_floor_stailq");
BENCHMARK(Unlocked_inline_bodies<State>)->Name("Unlocked_inline_bodies");
BENCHMARK(Unlocked_called_bodies<State>)->Name("Unlocked_called_bodies");
#ifdef VOBREL_BENCH_HAVE_GLIB
BENCHMARK(Unlocked_gqueue<State>)->Name("Unlocked_gqueue");
#endif
BENCHMARK(Data_zel<State>)->Name("Data_zel");
BENCHMARK(Data_floor_stailq_malloc<State>)->Name("Data_floor_stailq_malloc");
BENCHMARK(Data_floor_locked_stailq_malloc<State>)->Name("Data_floor_locked_stailq_malloc");
BENCHMARK(Data_floor_locked_stailq_calloc<State>)->Name("Data_floor_locked_stailq_calloc");
