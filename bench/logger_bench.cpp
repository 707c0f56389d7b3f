// The log-file cases (bench/cases/logger_cases.h), timed.
#include <benchmark/benchmark.h>

#include "cases/logger_cases.h"

using benchmark::State;
using namespace vobrel::bench::logger;

BENCHMARK(Log_ours<State>)->Name("Log_ours")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(Log_floor<State>)->Name("Log_floor")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(Report_ours<State>)->Name("Report_ours")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(Report_floor<State>)->Name("Report_floor")->Threads(1)->Threads(4)->UseRealTime();
