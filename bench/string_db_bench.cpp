// The string database cases (bench/cases/string_db_cases.h), timed, and the
// storing of distinct texts against GHashTable inserts (time only).
#include <benchmark/benchmark.h>

#include "cases/string_db_cases.h"

using benchmark::State;
using namespace vobrel::bench::string_db;

namespace {

// Adds every distinct text, then (untimed) removes them all again.
void BM_SdbAddDistinct(State &state)
{
    const auto &all = texts();
    std::vector<sdb_handle> handles(all.size());
    for (auto _ : state) {
        for (size_t i = 0; i < all.size(); ++i)
            handles[i] = add(all[i]);
        state.PauseTiming();
        for (sdb_handle h : handles)
            sdb_remove_string(h, nullptr);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * all.size()));
    state.counters["buckets"] = sdb_hash_table_size;
}

#ifdef VOBREL_BENCH_HAVE_GLIB
// Keys point at the caller's texts (Copied: each key a copy, as the database
// stores one).
template <bool Copied> void BM_GHashTableInsertDistinct(State &state)
{
    const auto &all = texts();
    for (auto _ : state) {
        GHashTable *table = Copied ? g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)
                                   : g_hash_table_new(g_str_hash, g_str_equal);
        for (const auto &t : all)
            g_hash_table_insert(table, Copied ? g_strndup(t.c_str(), t.size()) : const_cast<char *>(t.c_str()),
                                const_cast<std::string *>(&t));
        state.PauseTiming();
        g_hash_table_destroy(table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * all.size()));
}
#endif

template <bool Sliced> void BM_Crc(State &state)
{
    const int len = static_cast<int>(state.range(0));
    vobrel::bench::string_db::BM_Crc<Sliced>(state, len);
    double bytes = static_cast<double>(state.iterations()) * len;
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["B/cycle"] =
        benchmark::Counter(bytes / benchmark::CPUInfo::Get().cycles_per_second, benchmark::Counter::kIsRate);
}

} // namespace

// The first run pays for the table's growth; later runs reuse the grown table.
BENCHMARK(BM_SdbAddDistinct)->Name("BM_SdbFirstFill")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SdbAddDistinct)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SdbAddShared<State>)->Name("BM_SdbAddShared");
BENCHMARK(BM_CInternShared<1u << 17, State>)->Name("BM_CInternShared");
BENCHMARK(BM_CInternShared<1u << 14, State>)->Name("BM_CInternSharedSameChains");
#ifdef VOBREL_BENCH_HAVE_GLIB
BENCHMARK(BM_GlibInternShared<State>)->Name("BM_GlibInternShared");
BENCHMARK(BM_GHashTableInsertDistinct<false>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GHashTableInsertDistinct<true>)->Name("BM_GHashTableInsertDistinctCopied")->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(BM_Crc<true>)->Name("BM_CrcSliced")->Arg(8)->Arg(36)->Arg(64)->Arg(255);
BENCHMARK(BM_Crc<false>)->Name("BM_CrcBytewise")->Arg(8)->Arg(36)->Arg(64)->Arg(255);
