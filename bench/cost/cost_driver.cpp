// Runs one benchmark case a given number of times, for counting its
// instructions: `vobrel_cost CASE N` runs CASE's set-up and N of its
// operations, `vobrel_cost --list` names the cases. An instruction-tracing
// emulator counts two runs, of N and 2N; their difference over N is the
// instructions per operation, without start-up and set-up
// (scripts/lib/cost_count.py). The cases and their names are those of the
// Google Benchmark programs in bench/.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "cases/id_manager_cases.h"
#include "cases/list_cases.h"
#include "cases/logger_cases.h"
#include "cases/queue_cases.h"
#include "cases/string_db_cases.h"
#include "cases/watched_cases.h"

namespace {

using vobrel::bench::CountLoop;
namespace q = vobrel::bench::queue;
namespace id = vobrel::bench::id_manager;
namespace li = vobrel::bench::list;
namespace sdb = vobrel::bench::string_db;
namespace w = vobrel::bench::watched;
namespace lg = vobrel::bench::logger;

// Set-up scaled down where the per-operation path does not depend on it
// (see the cases' comments): the counting emulator runs some 0.5 M
// instructions a second.
constexpr uint32_t kLiveIds = 1000;
constexpr unsigned kTextShift = 6;

using Run = void (*)(int64_t n);

template <void (*Case)(CountLoop &)> void loop_of(int64_t n)
{
    CountLoop loop(n);
    Case(loop);
}

// The same case on four threads at once, each n times.
template <void (*Case)(CountLoop &)> void four_threads(int64_t n)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([n] { loop_of<Case>(n); });
    for (auto &t : threads)
        t.join();
}

// One hand-over of n items: the operation is one item.
template <void (*Case)(CountLoop &)> void items_of(int64_t n)
{
    w::items = n;
    loop_of<Case>(1);
}

void crc_sliced(int64_t n)
{
    CountLoop loop(n);
    sdb::BM_Crc<true>(loop, 64);
}

void crc_bytewise(int64_t n)
{
    CountLoop loop(n);
    sdb::BM_Crc<false>(loop, 64);
}

struct Entry {
    const char *name;
    Run run;
};

const Entry kCases[] = {
    {"Locked_zel", loop_of<q::Locked_zel>},
    {"Locked_floor_stailq", loop_of<q::Locked_floor_stailq>},
    {"Locked_inline_bodies", loop_of<q::Locked_inline_bodies>},
    {"Unlocked_zel_p", loop_of<q::Unlocked_zel_p>},
    {"Unlocked_floor_stailq", loop_of<q::Unlocked_floor_stailq>},
    {"Unlocked_inline_bodies", loop_of<q::Unlocked_inline_bodies>},
    {"Unlocked_called_bodies", loop_of<q::Unlocked_called_bodies>},
#ifdef VOBREL_BENCH_HAVE_GLIB
    {"Unlocked_gqueue", loop_of<q::Unlocked_gqueue>},
#endif
    {"Data_zel", loop_of<q::Data_zel>},
    {"Data_floor_locked_stailq_malloc", loop_of<q::Data_floor_locked_stailq_malloc>},
    {"Data_floor_locked_stailq_calloc", loop_of<q::Data_floor_locked_stailq_calloc>},
    {"IdManager", loop_of<id::IdManager>},
    {"SlotMapFloor", loop_of<id::SlotMapCase<true, true>>},
    {"TwoLevelFloor", loop_of<id::TwoLevelFloor>},
    {"HashMap", loop_of<id::HashMap>},
#ifdef VOBREL_BENCH_HAVE_GLIB
    {"IdGHashTable", loop_of<id::IdGHashTable>},
#endif
    {"BM_List_Plain", loop_of<li::BM_List_Plain>},
    {"BM_Tailq_Dispatched", loop_of<li::BM_Tailq_Dispatched>},
    {"BM_List_Automatic", loop_of<li::BM_List_Automatic>},
    {"BM_Tailq_Malloc", loop_of<li::BM_Tailq_Alloc<false>>},
    {"BM_Tailq_Calloc", loop_of<li::BM_Tailq_Alloc<true>>},
    {"BM_SdbAddShared", loop_of<sdb::BM_SdbAddShared>},
    {"BM_CInternShared", loop_of<sdb::BM_CInternShared<1u << 17>>},
    {"BM_CInternSharedSameChains", loop_of<sdb::BM_CInternShared<1u << 14>>},
#ifdef VOBREL_BENCH_HAVE_GLIB
    {"BM_GlibInternShared", loop_of<sdb::BM_GlibInternShared>},
#endif
    {"BM_CrcSliced/64", crc_sliced},
    {"BM_CrcBytewise/64", crc_bytewise},
    {"Handoff_watched/iterations:5/real_time", items_of<w::Handoff_watched>},
#ifdef VOBREL_BENCH_HAVE_GLIB
    {"Handoff_gasyncqueue/iterations:5/real_time", items_of<w::Handoff_gasyncqueue>},
#endif
    {"Handoff_c_asyncqueue/iterations:5/real_time", items_of<w::Handoff_c_asyncqueue>},
    {"PingPong_watched/real_time", loop_of<w::PingPong_watched>},
    {"PingPong_std_condvar/real_time", loop_of<w::PingPong_std_condvar>},
    {"Log_ours/real_time/threads:1", loop_of<lg::Log_ours>},
    {"Log_floor/real_time/threads:1", loop_of<lg::Log_floor>},
    {"Log_ours/real_time/threads:4", four_threads<lg::Log_ours>},
    {"Log_floor/real_time/threads:4", four_threads<lg::Log_floor>},
    {"Report_ours/real_time/threads:1", loop_of<lg::Report_ours>},
    {"Report_floor/real_time/threads:1", loop_of<lg::Report_floor>},
    {"Report_ours/real_time/threads:4", four_threads<lg::Report_ours>},
    {"Report_floor/real_time/threads:4", four_threads<lg::Report_floor>},
};

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "--list") == 0) {
        for (const auto &c : kCases)
            printf("%s\n", c.name);
        return 0;
    }
    const long n = argc == 3 ? strtol(argv[2], nullptr, 10) : 0;
    for (const auto &c : kCases) {
        if (n > 0 && strcmp(argv[1], c.name) == 0) {
            id::live = kLiveIds;
            sdb::scale_shift = kTextShift;
            c.run(n);
            return 0;
        }
    }
    fprintf(stderr, "usage: vobrel_cost --list | vobrel_cost CASE N (N > 0)\n");
    return 2;
}
