// The OS layer: heap pass-through, thread creation and exit through the
// platform, the wait for system start-up and the clock tick rate.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <malloc.h>
#include <pthread.h>

#include <vobrel/xos.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

// The tick-rate query, interposed (the library is linked statically); -2 lets
// the system answer. A sanitizer runtime asks it while starting, so it is not
// instrumented; only the main thread asks for the tick rate.
extern "C" long libc_sysconf(int name) __asm__("__sysconf");
static long clk_tck = -2;

extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) long sysconf(int name) noexcept
{
    return name == _SC_CLK_TCK && clk_tck != -2 ? clk_tck : libc_sysconf(name);
}

// nanosleep, interposed the same way: while `asked` is set, each sleep's seconds
// are recorded, the first sleep is cut short by a signal 15 s in, the second
// is whole (errno untouched, as by the system) and any later one ends with errno 0.
extern "C" int libc_nanosleep(const timespec *req, timespec *rem) __asm__("__nanosleep");
static std::vector<long> *asked;

extern "C" int nanosleep(const timespec *req, timespec *rem)
{
    if (!asked)
        return libc_nanosleep(req, rem);
    asked->push_back(req->tv_sec);
    const size_t call = asked->size();
    if (call == 1)
        *rem = {req->tv_sec - 15, 0};
    errno = call == 1 ? EINTR : call == 2 ? errno : 0;
    return call == 1 ? -1 : 0;
}

TEST(XosProcess, WaitOnSystemInitSleepsTwentySecondsThroughSignals)
{
    std::vector<long> sleeps;
    asked = &sleeps;
    xos_process_wait_on_system_init();
    asked = nullptr;
    EXPECT_EQ(sleeps, (std::vector<long>{20, 5}));
}

TEST(XosMemory, PlainZeroFilledHeapBlocksAndReallocKeepsTheOldOnFailure)
{
    void *junk = malloc(4096);
    size_t plain = malloc_usable_size(memset(junk, 0xAB, 4096));
    xos_free(nullptr, 0, junk); // takes the system's blocks; a reused one would show these bytes
    auto *p = static_cast<unsigned char *>(xos_malloc(nullptr, 0, 4096));
    ASSERT_TRUE(p && p[0] == 0 && memcmp(p, p + 1, 4095) == 0); // every byte equals the next
    EXPECT_EQ(malloc_usable_size(p), plain) << "a header was added";
    free(p); // and the system takes its blocks
    // The copy gets this freed block (past the allocator's own words): its terminator must be written.
    free(memset(malloc(20), 0xAB, 20));
    auto *s = static_cast<char *>(xos_realloc(nullptr, 0, xos_strdup(nullptr, 0, "abcdefghijklmnopqrs"), 5000));
    ASSERT_STREQ(s, "abcdefghijklmnopqrs");
    void *empty = xos_malloc(nullptr, 0, 0); // calloc(1, 0): a block of its own
    EXPECT_TRUE(empty && !xos_malloc(nullptr, 0, -1));
    free(empty);
    allocfail::count_from_now();
    xos_free(nullptr, 0, xos_malloc(nullptr, 0, 10));
    EXPECT_EQ(allocfail::count(), 1); // one call to the allocator, nothing of its own
    allocfail::fail_all();
    EXPECT_TRUE(!xos_malloc(nullptr, 0, 10) && !xos_strdup(nullptr, 0, "x") && !xos_realloc(nullptr, 0, s, 1 << 20));
    allocfail::reset();
    EXPECT_STREQ(s, "abcdefghijklmnopqrs");
    free(s);
}

static void *record_self(void *arg)
{
    pthread_detach(pthread_self()); // nobody joins a thread known by a 32-bit id
    __atomic_store_n(static_cast<int *>(arg), static_cast<int>(pthread_self()) | 1, __ATOMIC_SEQ_CST);
    return nullptr;
}

TEST(XosProcess, CreatePassesFunctionArgumentAndNameOnlyAndLogsOneRecordOnFailure)
{
    int seen = 0, id = xos_process_create(reinterpret_cast<void *>(&record_self), "worker", 1 << 20, 99, 3, &seen);
    while (id != -1 && !__atomic_load_n(&seen, __ATOMIC_SEQ_CST))
        sched_yield();
    EXPECT_EQ(id | 1, seen); // the id the platform gave the thread
    auto call = fake::last_thread_create();
    EXPECT_TRUE(call.attr_null && call.name == "worker" && call.flags == 0 && call.arg == &seen);
    fake::set_thread_create_result(11);
    EXPECT_EQ(xos_process_create(reinterpret_cast<void *>(&record_self), "nope", 0, 0, 0, nullptr), -1);
    EXPECT_EQ(fake::log_messages(), std::vector<std::string>{"\npthread Create failed !!"});
    EXPECT_TRUE(fake::syslog_lines().empty() && fake::buginf_texts().empty());
}

static void *exit_early(void *)
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable(); // the first thread exit loads the unwinder, which the leak check miscounts
#endif
    xos_process_exit(-42);
    return reinterpret_cast<void *>(1);
}

TEST(XosProcess, ExitEndsTheCallingThread)
{
    pthread_t t;
    void *ret = reinterpret_cast<void *>(7);
    ASSERT_TRUE(pthread_create(&t, nullptr, exit_early, nullptr) == 0 && pthread_join(t, &ret) == 0);
    EXPECT_EQ(ret, nullptr);
}

TEST(XosTimer, TakesTheSystemAnswerAndMeasuresOneSecondWhenItIsZero)
{
    // -1, a failed query, is kept; 0 is replaced by the ticks over a second of sleep.
    for (long answer : {-1L, 250L, 0L}) {
        clk_tck = answer;
        zel_timer_init();
        long got = zel_timer_ticks_per_second, real = libc_sysconf(_SC_CLK_TCK);
        EXPECT_TRUE(answer ? got == answer : got >= real && got < 10 * real) << answer << ": " << got;
    }
}
