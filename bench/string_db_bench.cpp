// The string database beside its baselines, side by side on the same texts:
// taking a reference to a text already stored (the sharing path) against a
// plain C interning table and, where glib is installed, g_intern_string;
// storing distinct texts against GHashTable inserts. Also the CRC's throughput
// against the bytewise table loop it must equal.
//
// The database is process-wide and its table never shrinks, so the first
// benchmark to fill it pays for the doublings; SdbFirstFill runs first and
// once to show that cost, and the other database benchmarks run on the grown
// table, as in a process that has held this many texts before.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include <vobrel/string_db.h>

#include "util/src/string_db_private.h"

using vobrel::detail::sdb_do_crc;

#ifdef VOBREL_BENCH_HAVE_GLIB
#include <glib.h>
#endif

namespace {

constexpr size_t kDistinct = 50000;
constexpr int kRepeats = 4;

// Names as a process would keep them: interface, path, counter and object
// names of 8 to 64 bytes, all distinct.
const std::vector<std::string> &texts()
{
    static const std::vector<std::string> all = [] {
        static const char *const parts[] = {"GigabitEthernet", "vlan", "mgmt", "tunnel", "/var/run/",
                                            "ipc.core.",       "rx_",  "tx_",  "queue",  "session-",
                                            "policy.",         "acl_", "peer", "route:", "bundle-"};
        std::mt19937 rng(20240611u);
        std::uniform_int_distribution<size_t> len(8, 64), part(0, std::size(parts) - 1);
        std::uniform_int_distribution<int> ch('a', 'z');
        std::unordered_set<std::string> seen;
        std::vector<std::string> out;
        while (out.size() < kDistinct) {
            size_t want = len(rng);
            std::string s = parts[part(rng)] + std::to_string(out.size()) + ".";
            while (s.size() < want)
                s += static_cast<char>(ch(rng));
            s.resize(want);
            if (seen.insert(s).second)
                out.push_back(s);
        }
        return out;
    }();
    return all;
}

// Every text kRepeats times, in a shuffled order shared by both sides.
const std::vector<const std::string *> &lookups()
{
    static const std::vector<const std::string *> order = [] {
        std::vector<const std::string *> v;
        for (int r = 0; r < kRepeats; ++r)
            for (const auto &t : texts())
                v.push_back(&t);
        std::shuffle(v.begin(), v.end(), std::mt19937(7u));
        return v;
    }();
    return order;
}

sdb_handle add(const std::string &t)
{
    sdb_handle h = 0;
    sdb_add_string(t.c_str(), static_cast<int>(t.size()), SDB_ASCII_STRING_CASE_SENSITIVE, &h, SDB_NO_OWNER,
                   nullptr);
    return h;
}

// Adds every distinct text, then (untimed) removes them all again.
void BM_SdbAddDistinct(benchmark::State &state)
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
// The first run pays for the table's growth; later runs reuse the grown table.
BENCHMARK(BM_SdbAddDistinct)->Name("BM_SdbFirstFill")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SdbAddDistinct)->Unit(benchmark::kMillisecond);

void BM_SdbAddShared(benchmark::State &state)
{
    const auto &all = texts();
    const auto &order = lookups();
    std::vector<sdb_handle> handles(all.size());
    for (size_t i = 0; i < all.size(); ++i)
        handles[i] = add(all[i]);
    size_t i = 0, extra = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(add(*order[i]));
        if (++i == order.size())
            i = 0;
        ++extra;
    }
    state.SetItemsProcessed(state.iterations());
    // Give back every reference so the next benchmark starts from an empty database.
    for (size_t k = 0; k < extra; ++k)
        sdb_remove_string(handles[static_cast<size_t>(order[k % order.size()] - all.data())], nullptr);
    for (sdb_handle h : handles)
        sdb_remove_string(h, nullptr);
}
BENCHMARK(BM_SdbAddShared);

// The plain C interning table, the baseline on every architecture: what an
// intern call does at its simplest. One global lock, a string hash
// (h * 33 + c), chained buckets sized ahead for every text, a compare, and a
// malloc'd copy for a text not yet held.
template <size_t kBuckets> struct CIntern {
    struct Entry {
        Entry *next;
        char text[];
    };
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    Entry **buckets = static_cast<Entry **>(calloc(kBuckets, sizeof(Entry *)));

    const char *intern(const char *s)
    {
        size_t h = 5381;
        for (const char *p = s; *p; ++p)
            h = h * 33 + static_cast<unsigned char>(*p);
        pthread_mutex_lock(&mutex);
        Entry **slot = &buckets[h & (kBuckets - 1)];
        Entry *e = *slot;
        while (e && strcmp(e->text, s) != 0)
            e = e->next;
        if (!e) {
            size_t n = strlen(s) + 1;
            e = static_cast<Entry *>(malloc(sizeof(Entry) + n));
            memcpy(e->text, s, n);
            e->next = *slot;
            *slot = e;
        }
        pthread_mutex_unlock(&mutex);
        return e->text;
    }
};

// Buckets: 2^17 (under half a text per bucket), or 2^14 as the database
// holds these texts (its table doubles only past five per bucket, so a
// lookup walks chains of about three records, each a cache miss).
template <size_t kBuckets> void BM_CInternShared(benchmark::State &state)
{
    static CIntern<kBuckets> table;
    for (const auto &t : texts())
        table.intern(t.c_str());
    const auto &order = lookups();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.intern(order[i]->c_str()));
        if (++i == order.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CInternShared<1u << 17>)->Name("BM_CInternShared");
BENCHMARK(BM_CInternShared<1u << 14>)->Name("BM_CInternSharedSameChains");

#ifdef VOBREL_BENCH_HAVE_GLIB
void BM_GlibInternShared(benchmark::State &state)
{
    for (const auto &t : texts())
        g_intern_string(t.c_str());
    const auto &order = lookups();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_intern_string(order[i]->c_str()));
        if (++i == order.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GlibInternShared);

// Keys point at the caller's texts: no copy is made.
void BM_GHashTableInsertDistinct(benchmark::State &state)
{
    const auto &all = texts();
    for (auto _ : state) {
        GHashTable *table = g_hash_table_new(g_str_hash, g_str_equal);
        for (const auto &t : all)
            g_hash_table_insert(table, const_cast<char *>(t.c_str()), const_cast<std::string *>(&t));
        state.PauseTiming();
        g_hash_table_destroy(table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * all.size()));
}
BENCHMARK(BM_GHashTableInsertDistinct)->Unit(benchmark::kMillisecond);

// Each key is a copy of the text, as the database stores one.
void BM_GHashTableInsertDistinctCopied(benchmark::State &state)
{
    const auto &all = texts();
    for (auto _ : state) {
        GHashTable *table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
        for (const auto &t : all)
            g_hash_table_insert(table, g_strndup(t.c_str(), t.size()), const_cast<std::string *>(&t));
        state.PauseTiming();
        g_hash_table_destroy(table);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * all.size()));
}
BENCHMARK(BM_GHashTableInsertDistinctCopied)->Unit(benchmark::kMillisecond);
#endif

// The definition, one table lookup per byte.
uint32_t bytewise_crc(const uchar *p, int len)
{
    uint32_t crc = 0;
    for (int i = 0; i < len; ++i)
        crc = (crc >> 8) ^ sdb_crc_ctabl[(crc ^ p[i]) & 0xFF];
    return crc;
}

template <bool Sliced> void BM_Crc(benchmark::State &state)
{
    int len = static_cast<int>(state.range(0));
    std::vector<uchar> buf(static_cast<size_t>(len));
    for (int i = 0; i < len; ++i)
        buf[static_cast<size_t>(i)] = static_cast<uchar>(i * 31 + 7);
    for (auto _ : state) {
        benchmark::DoNotOptimize(buf.data());
        benchmark::DoNotOptimize(Sliced ? sdb_do_crc(buf.data(), len, FALSE) : bytewise_crc(buf.data(), len));
    }
    double bytes = static_cast<double>(state.iterations()) * len;
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["B/cycle"] =
        benchmark::Counter(bytes / benchmark::CPUInfo::Get().cycles_per_second, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Crc<true>)->Name("BM_CrcSliced")->Arg(8)->Arg(36)->Arg(64)->Arg(255);
BENCHMARK(BM_Crc<false>)->Name("BM_CrcBytewise")->Arg(8)->Arg(36)->Arg(64)->Arg(255);

} // namespace
