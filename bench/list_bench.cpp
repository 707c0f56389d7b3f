// The list cases (bench/cases/list_cases.h), timed.
#include <benchmark/benchmark.h>

#include "cases/list_cases.h"

using benchmark::State;
using namespace vobrel::bench::list;

BENCHMARK(BM_List_Plain<State>)->Name("BM_List_Plain");
BENCHMARK(BM_Tailq_Plain<State>)->Name("BM_Tailq_Plain");
BENCHMARK(BM_List_Automatic<State>)->Name("BM_List_Automatic");
BENCHMARK(BM_Tailq_Alloc<false, State>)->Name("BM_Tailq_Malloc");
BENCHMARK(BM_Tailq_Alloc<true, State>)->Name("BM_Tailq_Calloc");
BENCHMARK(BM_Tailq_Dispatched<State>)->Name("BM_Tailq_Dispatched");
