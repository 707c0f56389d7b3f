// The ID manager cases (bench/cases/id_manager_cases.h), timed.
#include <benchmark/benchmark.h>

#include "cases/id_manager_cases.h"

using benchmark::State;
using namespace vobrel::bench::id_manager;

BENCHMARK(IdManager<State>)->Name("IdManager");
BENCHMARK(SlotMapCase<true, true, State>)->Name("SlotMapFloor");
BENCHMARK(SlotMapCase<true, false, State>)->Name("SlotMapInline");
BENCHMARK(SlotMapCase<false, true, State>)->Name("SlotMapLifo");
BENCHMARK(TwoLevelFloor<State>)->Name("TwoLevelFloor");
BENCHMARK(HashMap<State>)->Name("HashMap");
#ifdef VOBREL_BENCH_HAVE_GLIB
BENCHMARK(IdGHashTable<State>)->Name("IdGHashTable");
#endif
