// The default platform layer, linked as a process would link it.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>

#include <vobrel/platform.h>

namespace {

void *record_name(void *arg)
{
    char *out = static_cast<char *>(arg);
    pthread_getname_np(pthread_self(), out, 16);
    return nullptr;
}

void *exit_early(void *arg)
{
    *static_cast<int *>(arg) = 1;
    vobrel_xos_thread_exit(reinterpret_cast<void *>(42));
    *static_cast<int *>(arg) = 2; // never reached
    return nullptr;
}

struct Env {
    Env(const char *name, const char *value) : name_(name)
    {
        if (value)
            setenv(name, value, 1);
        else
            unsetenv(name);
    }
    ~Env() { unsetenv(name_); }
    const char *name_;
};

std::string ask_path(int *size, vobrel_platform_status_type *st2)
{
    int len = 0;
    EXPECT_EQ(vobrel_platform_get_log_store_path(&len, nullptr, size), VOBREL_PLATFORM_OK);
    EXPECT_GE(len, 1);
    std::string buf(static_cast<size_t>(len), '\0');
    *st2 = vobrel_platform_get_log_store_path(&len, buf.data(), size);
    return std::string(buf.c_str());
}

} // namespace

TEST(DefaultPlatform, ThreadGetsItsNameCutToTheSystemLimit)
{
    pthread_t t;
    char name[16] = {0};
    ASSERT_EQ(vobrel_xos_thread_create(&t, nullptr, record_name, name, "a-rather-long-thread-name", 0), 0);
    pthread_join(t, nullptr);
    EXPECT_STREQ(name, "a-rather-long-t");
    EXPECT_NE(vobrel_xos_thread_create(nullptr, nullptr, record_name, nullptr, "x", 0), 0);
    EXPECT_NE(vobrel_xos_thread_create(&t, nullptr, nullptr, nullptr, "x", 0), 0);
}

TEST(DefaultPlatform, ThreadExitEndsTheThreadWithItsValue)
{
    pthread_t t;
    int stage = 0;
    ASSERT_EQ(vobrel_xos_thread_create(&t, nullptr, exit_early, &stage, "exit", 0), 0);
    void *ret = nullptr;
    pthread_join(t, &ret);
    EXPECT_EQ(stage, 1);
    EXPECT_EQ(ret, reinterpret_cast<void *>(42));
}

TEST(DefaultPlatform, LogStoreFromEnvironmentOrDefaults)
{
    int size = 0;
    vobrel_platform_status_type st;
    {
        Env a("VOBREL_LOG_STORE", nullptr), b("VOBREL_LOG_SIZE", nullptr);
        EXPECT_EQ(ask_path(&size, &st), "/tmp/vobrel.log");
        EXPECT_EQ(size, 1048576);
    }
    Env a("VOBREL_LOG_STORE", "/var/tmp/x/app.log"), b("VOBREL_LOG_SIZE", "4096");
    EXPECT_EQ(ask_path(&size, &st), "/var/tmp/x/app.log");
    EXPECT_EQ(st, VOBREL_PLATFORM_OK);
    EXPECT_EQ(size, 4096);
}

TEST(DefaultPlatform, BadSizeOrBufferIsAFailureStatusNotACrash)
{
    for (const char *bad : {"abc", "-5", "0", "12k", "99999999999999999999", " "}) {
        Env b("VOBREL_LOG_SIZE", bad);
        int size = -7;
        vobrel_platform_status_type st;
        ask_path(&size, &st);
        EXPECT_EQ(st, VOBREL_PLATFORM_INIT_FAILED) << bad;
        EXPECT_EQ(size, -7) << bad;
    }
    int size = 0;
    EXPECT_EQ(vobrel_platform_get_log_store_path(nullptr, nullptr, &size), VOBREL_PLATFORM_BAD_ARG);
    char small[4] = {0};
    int len = sizeof small;
    EXPECT_EQ(vobrel_platform_get_log_store_path(&len, small, &size), VOBREL_PLATFORM_BAD_ARG);
    EXPECT_EQ(small[0], '\0');
}

TEST(DefaultPlatform, DebugTextGoesToStandardErrorUnchanged)
{
    testing::internal::CaptureStderr();
    vobrel_platform_buginf("DBG:100% done\n");
    vobrel_platform_buginf(nullptr);
    vobrel_platform_syslog(3, nullptr); // ignored, not a crash
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "DBG:100% done\n");
}
