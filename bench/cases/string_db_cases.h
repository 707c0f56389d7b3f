// The string database beside its baselines, side by side on the same texts:
// taking a reference to a text already stored (the sharing path) against a
// plain C interning table and, where glib is installed, g_intern_string.
// Also the CRC against the bytewise table loop it must equal.
//
// The database is process-wide and its table never shrinks, so the first
// benchmark to fill it pays for the doublings; SdbFirstFill runs first and
// once to show that cost, and the other database benchmarks run on the grown
// table, as in a process that has held this many texts before.
#ifndef VOBREL_BENCH_CASES_STRING_DB_H
#define VOBREL_BENCH_CASES_STRING_DB_H

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

#ifdef VOBREL_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "cases/loop.h"

namespace vobrel::bench::string_db {

using vobrel::detail::sdb_do_crc;

constexpr size_t kDistinct = 50000;
constexpr int kRepeats = 4;
// The counting driver takes kDistinct >> scale_shift texts and as many fewer
// buckets for the C tables; the database's own table then grows to the same
// average chain (about three records), so a lookup takes the same path.
inline unsigned scale_shift = 0;

inline size_t distinct()
{
    return kDistinct >> scale_shift;
}

// Names as a process would keep them: interface, path, counter and object
// names of 8 to 64 bytes, all distinct.
inline const std::vector<std::string> &texts()
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
        while (out.size() < distinct()) {
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
inline const std::vector<const std::string *> &lookups()
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

inline sdb_handle add(const std::string &t)
{
    sdb_handle h = 0;
    sdb_add_string(t.c_str(), static_cast<int>(t.size()), SDB_ASCII_STRING_CASE_SENSITIVE, &h, SDB_NO_OWNER,
                   nullptr);
    return h;
}

template <typename Loop> void BM_SdbAddShared(Loop &loop)
{
    const auto &all = texts();
    const auto &order = lookups();
    std::vector<sdb_handle> handles(all.size());
    for (size_t i = 0; i < all.size(); ++i)
        handles[i] = add(all[i]);
    size_t i = 0, extra = 0;
    for ([[maybe_unused]] auto _ : loop) {
        keep(add(*order[i]));
        if (++i == order.size())
            i = 0;
        ++extra;
    }
    processed(loop, loop.iterations());
    // Give back every reference so the next benchmark starts from an empty database.
    for (size_t k = 0; k < extra; ++k)
        sdb_remove_string(handles[static_cast<size_t>(order[k % order.size()] - all.data())], nullptr);
    for (sdb_handle h : handles)
        sdb_remove_string(h, nullptr);
}

// The plain C interning table, the baseline on every architecture: what an
// intern call does at its simplest. One global lock, a string hash
// (h * 33 + c), chained buckets sized ahead for every text, a compare, and a
// malloc'd copy for a text not yet held.
struct CIntern {
    struct Entry {
        Entry *next;
        char text[];
    };
    explicit CIntern(size_t n) : mask(n - 1), buckets(static_cast<Entry **>(calloc(n, sizeof(Entry *)))) {}
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    size_t mask;
    Entry **buckets;

    const char *intern(const char *s)
    {
        size_t h = 5381;
        for (const char *p = s; *p; ++p)
            h = h * 33 + static_cast<unsigned char>(*p);
        pthread_mutex_lock(&mutex);
        Entry **slot = &buckets[h & mask];
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
// lookup walks chains of about three records, each a cache miss); both
// scaled with the number of texts.
template <size_t kBuckets, typename Loop> void BM_CInternShared(Loop &loop)
{
    static CIntern table(kBuckets >> scale_shift);
    for (const auto &t : texts())
        table.intern(t.c_str());
    const auto &order = lookups();
    size_t i = 0;
    for ([[maybe_unused]] auto _ : loop) {
        keep(table.intern(order[i]->c_str()));
        if (++i == order.size())
            i = 0;
    }
    processed(loop, loop.iterations());
}

#ifdef VOBREL_BENCH_HAVE_GLIB
template <typename Loop> void BM_GlibInternShared(Loop &loop)
{
    for (const auto &t : texts())
        g_intern_string(t.c_str());
    const auto &order = lookups();
    size_t i = 0;
    for ([[maybe_unused]] auto _ : loop) {
        keep(g_intern_string(order[i]->c_str()));
        if (++i == order.size())
            i = 0;
    }
    processed(loop, loop.iterations());
}

#endif

// The definition, one table lookup per byte.
inline uint32_t bytewise_crc(const uchar *p, int len)
{
    uint32_t crc = 0;
    for (int i = 0; i < len; ++i)
        crc = (crc >> 8) ^ sdb_crc_ctabl[(crc ^ p[i]) & 0xFF];
    return crc;
}

template <bool Sliced, typename Loop> void BM_Crc(Loop &loop, int len)
{
    std::vector<uchar> buf(static_cast<size_t>(len));
    for (int i = 0; i < len; ++i)
        buf[static_cast<size_t>(i)] = static_cast<uchar>(i * 31 + 7);
    for ([[maybe_unused]] auto _ : loop) {
        keep(buf.data());
        keep(Sliced ? sdb_do_crc(buf.data(), len, FALSE) : bytewise_crc(buf.data(), len));
    }
}

} // namespace vobrel::bench::string_db

#endif
