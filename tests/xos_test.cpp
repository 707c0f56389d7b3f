// The OS layer: heap pass-through, thread creation and exit through the
// platform, the no-effect controls and the clock tick rate.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/times.h>
#include <unistd.h>

#include <vobrel/xos.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

// The tick-rate query and the process-times clock, interposed: the library is
// linked statically, so these definitions are the ones it calls. Disarmed they
// answer as the system does.
// Both run before the sanitizer runtimes are ready (a runtime asks sysconf
// while starting), so they are not instrumented and use plain atomic builtins.
extern "C" long libc_sysconf(int name) __asm__("__sysconf");

#define XOS_TEST_NO_SANITIZE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {
bool clk_tck_armed;
long clk_tck_answer;
int times_calls;
clock_t times_next; // each scripted reading adds 137

void arm_clk_tck(bool armed, long answer)
{
    __atomic_store_n(&clk_tck_answer, answer, __ATOMIC_SEQ_CST);
    __atomic_store_n(&clk_tck_armed, armed, __ATOMIC_SEQ_CST);
}
} // namespace

extern "C" XOS_TEST_NO_SANITIZE long sysconf(int name) noexcept
{
    if (name == _SC_CLK_TCK && __atomic_load_n(&clk_tck_armed, __ATOMIC_SEQ_CST))
        return __atomic_load_n(&clk_tck_answer, __ATOMIC_SEQ_CST);
    return libc_sysconf(name);
}

extern "C" XOS_TEST_NO_SANITIZE clock_t times(struct tms *buf) noexcept
{
    __atomic_fetch_add(&times_calls, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&clk_tck_armed, __ATOMIC_SEQ_CST))
        return __atomic_fetch_add(&times_next, 137, __ATOMIC_SEQ_CST);
    using times_fn = clock_t (*)(struct tms *);
    auto real = reinterpret_cast<times_fn>(dlsym(RTLD_NEXT, "times"));
    return real(buf);
}

namespace {

void *read_byte_zero(void *arg)
{
    return reinterpret_cast<void *>(static_cast<intptr_t>(*static_cast<const char *>(arg)));
}

struct Started {
    std::atomic<int> id{0};
    std::atomic<bool> done{false};
    void *arg = nullptr;
};

void *record_self(void *arg)
{
    pthread_detach(pthread_self()); // nobody joins a thread known by a 32-bit id
    auto *s = static_cast<Started *>(arg);
    s->arg = arg;
    s->id = static_cast<int>(pthread_self());
    s->done = true;
    return nullptr;
}

std::atomic<bool> after_exit;

void *exit_early(void *)
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable(); // the first thread exit loads the unwinder, which the leak check miscounts
#endif
    xos_process_exit(-42);
    after_exit = true;
    return reinterpret_cast<void *>(1);
}

void wait_for(const std::atomic<bool> &flag)
{
    while (!flag)
        usleep(1000);
}

} // namespace

TEST(XosMemory, PlainZeroFilledHeapBlocks)
{
    for (int n : {1, 7, 4096, 100000}) {
        auto *p = static_cast<unsigned char *>(xos_malloc(const_cast<char *>(__FILE__), __LINE__, n));
        ASSERT_NE(p, nullptr);
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(p[i], 0) << n << ":" << i;
        void *q = malloc(static_cast<size_t>(n));
        EXPECT_EQ(malloc_usable_size(p), malloc_usable_size(q)) << "a header or tag was added";
        free(p); // the system library takes the wrappers' blocks back, and the other way round
        xos_free(nullptr, 0, q);
    }
    xos_free(nullptr, 0, nullptr);
    EXPECT_EQ(xos_malloc(nullptr, 0, -1), nullptr);
    const char src[] = "copy me";
    auto *d = static_cast<char *>(xos_strdup(nullptr, 0, src));
    EXPECT_STREQ(d, src);
    EXPECT_NE(d, src);
    free(d);

    allocfail::Guard g;
    allocfail::count_from_now();
    xos_free(nullptr, 0, xos_malloc(nullptr, 0, 10));
    EXPECT_EQ(allocfail::count(), 1); // one call to the allocator, nothing of its own
    allocfail::fail_all();
    EXPECT_EQ(xos_malloc(nullptr, 0, 10), nullptr);
    EXPECT_EQ(xos_strdup(nullptr, 0, "x"), nullptr);
}

TEST(XosMemory, ReallocKeepsContentsAndOldBlockOnFailure)
{
    auto *p = static_cast<char *>(malloc(8));
    memcpy(p, "abcdefg", 8);
    p = static_cast<char *>(xos_realloc(nullptr, 0, p, 5000));
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p, "abcdefg");
    {
        allocfail::Guard g;
        allocfail::fail_all();
        EXPECT_EQ(xos_realloc(nullptr, 0, p, 1 << 20), nullptr);
    }
    EXPECT_STREQ(p, "abcdefg");
    p = static_cast<char *>(xos_realloc(nullptr, 0, p, 3));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memcmp(p, "abc", 3), 0);
    xos_free(nullptr, 0, p);
}

TEST(XosProcess, CreatePassesFuncArgvNameNullAndZero)
{
    Started s;
    int id = xos_process_create(reinterpret_cast<void *>(&record_self), "worker", 1 << 20, 99, 3, &s);
    ASSERT_NE(id, -1);
    wait_for(s.done);
    EXPECT_EQ(id, s.id.load()); // the identifier the platform stored for the thread
    EXPECT_EQ(s.arg, &s);
    auto call = fake::last_thread_create();
    EXPECT_TRUE(call.attr_null);
    EXPECT_EQ(call.name, "worker");
    EXPECT_EQ(call.flags, 0);
    EXPECT_EQ(call.arg, &s);

    // Stack, priority and argc are not passed on.
    Started t;
    ASSERT_NE(xos_process_create(reinterpret_cast<void *>(&record_self), "worker", 0, 0, 0, &t), -1);
    wait_for(t.done);
    auto again = fake::last_thread_create();
    EXPECT_EQ(again.attr_null, call.attr_null);
    EXPECT_EQ(again.flags, call.flags);
    EXPECT_EQ(fake::thread_create_calls(), 2);
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST(XosProcess, FailedCreateLogsOnceAndReturnsMinusOne)
{
    fake::set_thread_create_result(11);
    char byte = 0;
    EXPECT_EQ(xos_process_create(reinterpret_cast<void *>(&read_byte_zero), "nope", 0, 0, 1, &byte), -1);
    auto messages = fake::log_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], "\npthread Create failed !!");
    EXPECT_TRUE(fake::syslog_lines().empty());
    EXPECT_TRUE(fake::buginf_texts().empty());
}

TEST(XosProcess, ExitEndsTheCallingThread)
{
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, exit_early, nullptr), 0);
    void *ret = reinterpret_cast<void *>(7);
    ASSERT_EQ(pthread_join(t, &ret), 0);
    EXPECT_EQ(ret, nullptr);
    EXPECT_FALSE(after_exit);
}

TEST(XosProcess, ControlsWithoutEffect)
{
    unsigned char buf[32], copy[32];
    for (size_t i = 0; i < sizeof buf; ++i)
        buf[i] = copy[i] = static_cast<unsigned char>(i * 7);
    random_fill(buf, sizeof buf, TRUE);
    random_fill(buf, -1, FALSE);
    random_fill(nullptr, 1000, TRUE);
    EXPECT_EQ(memcmp(buf, copy, sizeof buf), 0);
    xos_process_detach(static_cast<int>(pthread_self()));
    xos_process_kill(getpid());
    xos_process_suspend();
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST(XosTimer, TakesTheSystemAnswerAtOnce)
{
    EXPECT_EQ(zel_timer_ticks_per_second, 0);
    zel_timer_init();
    EXPECT_EQ(zel_timer_ticks_per_second, libc_sysconf(_SC_CLK_TCK));

    auto start = std::chrono::steady_clock::now();
    arm_clk_tck(true, -1); // a failed query is kept, not measured
    zel_timer_init();
    EXPECT_EQ(zel_timer_ticks_per_second, -1);
    arm_clk_tck(true, 250);
    zel_timer_init();
    EXPECT_EQ(zel_timer_ticks_per_second, 250);
    arm_clk_tck(false, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(__atomic_load_n(&times_calls, __ATOMIC_SEQ_CST), 0);
}

TEST(XosTimer, MeasuresOverOneSecondWhenTheSystemSaysZero)
{
    __atomic_store_n(&times_next, 1000, __ATOMIC_SEQ_CST);
    arm_clk_tck(true, 0);
    auto start = std::chrono::steady_clock::now();
    zel_timer_init();
    auto took = std::chrono::steady_clock::now() - start;
    arm_clk_tck(false, 0);
    EXPECT_EQ(zel_timer_ticks_per_second, 137); // the difference of two readings
    EXPECT_EQ(__atomic_load_n(&times_calls, __ATOMIC_SEQ_CST), 2);
    EXPECT_GE(took, std::chrono::milliseconds(990));
}
