// The default platform layer, linked as a process would link it. Every case
// runs in its own process, so environment changes need no undoing.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include <vobrel/platform.h>

#include "support/alloc_fail.h"
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

// Asks for the path's length, then for the path: "status|path|size", the
// status that of the second call, the size -7 when none was stored.
static std::string ask_path()
{
    int len = 0, size = -7;
    EXPECT_EQ(vobrel_platform_get_log_store_path(&len, nullptr, &size), VOBREL_PLATFORM_OK);
    std::string buf(static_cast<size_t>(len), '\0');
    const int st = vobrel_platform_get_log_store_path(&len, buf.data(), &size);
    EXPECT_TRUE(st || buf.size() == strlen(buf.c_str()) + 1); // the length counts the terminator
    return std::to_string(st) + "|" + buf.c_str() + "|" + std::to_string(size);
}

TEST(DefaultPlatform, ThreadGetsItsNameCutAndEndsWithItsExitValue)
{
    auto body = [](void *name) -> void * {
#if defined(__SANITIZE_ADDRESS__)
        __lsan_disable(); // the exit loads the unwinder through the interposed allocator, which the leak check miscounts
#endif
        pthread_getname_np(pthread_self(), static_cast<char *>(name), 16);
        vobrel_xos_thread_exit(reinterpret_cast<void *>(42));
        return nullptr; // never reached
    };
    pthread_t t;
    char name[16] = {};
    void *ret = nullptr;
    ASSERT_EQ(vobrel_xos_thread_create(&t, nullptr, body, name, "a-rather-long-thread-name", 0), 0);
    pthread_join(t, &ret);
    EXPECT_STREQ(name, "a-rather-long-t");
    EXPECT_EQ(ret, reinterpret_cast<void *>(42));
    EXPECT_NE(vobrel_xos_thread_create(nullptr, nullptr, body, nullptr, "x", 0), 0);
    EXPECT_NE(vobrel_xos_thread_create(&t, nullptr, nullptr, nullptr, "x", 0), 0);
    allocfail::fail_all(); // no memory for the start record: no thread
    EXPECT_EQ(vobrel_xos_thread_create(&t, nullptr, body, name, "x", 0), ENOMEM);
    allocfail::reset();
}

TEST(DefaultPlatform, LogStoreFromEnvironmentOrDefaultsAndBadSizeOrBufferIsAFailureStatus)
{
    unsetenv("VOBREL_LOG_STORE");
    unsetenv("VOBREL_LOG_SIZE");
    EXPECT_EQ(ask_path(), "0|/tmp/vobrel.log|1048576");
    setenv("VOBREL_LOG_STORE", "/var/tmp/x/app.log", 1);
    setenv("VOBREL_LOG_SIZE", "99934464", 1); // the most that keeps positions to 8 digits
    EXPECT_EQ(ask_path(), "0|/var/tmp/x/app.log|99934464");
    for (const char *bad : {"abc", "-5", "0", "12k", "99934465", "99999999", "99999999999999999999", " "}) {
        setenv("VOBREL_LOG_SIZE", bad, 1);
        EXPECT_EQ(ask_path(), std::to_string(VOBREL_PLATFORM_INIT_FAILED) + "||-7") << bad;
    }
    int size = 0, len = 4;
    char small[4] = {};
    EXPECT_EQ(vobrel_platform_get_log_store_path(nullptr, nullptr, &size), VOBREL_PLATFORM_BAD_ARG);
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
