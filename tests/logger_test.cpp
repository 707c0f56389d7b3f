// The log file: layout, numbering, reopen, wrap, platform and memory failures,
// and concurrent writers. Every case runs in a fresh process (see CMakeLists).
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <vobrel/logger.h>

#include "common/src/vobrel_logger_private.h"
#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

// The header as the library writes it.
std::string header(int pos, int number)
{
    char buf[17];
    snprintf(buf, sizeof buf, "%8d%8d", pos, number);
    return buf;
}

const char kBanner[] = "\n[QMT-VER-1.2.1 Build 0] Logger initialized ";

} // namespace

TEST(LogFile, FirstCallCreatesHeaderBannerAndRecordZero)
{
    EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "hello %d\n", 5), 0);
    std::string s = fake::read_log();
    ASSERT_GE(s.size(), 16u);
    EXPECT_EQ(s.substr(16, strlen(kBanner)), kBanner);
    auto recs = fake::log_records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].number, 0);
    EXPECT_EQ(recs[0].pid, getpid());
    EXPECT_EQ(recs[0].message, "hello 5\n");
    EXPECT_EQ(fake::log_header_pos(), static_cast<int>(s.size()));
    EXPECT_EQ(fake::log_header_number(), 0);

    vobrel_write_to_log("my_func", 42, "second %s", "text");
    recs = fake::log_records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[1].number, 1);
    EXPECT_EQ(recs[1].message, "my_func(42): second text");
    EXPECT_EQ(fake::log_header_number(), 1);
    EXPECT_EQ(fake::log_header_pos(), static_cast<int>(fake::read_log().size()));
}

TEST(LogFile, ReopenCarriesOnFromTheHeaderOrRestartsAtSixteen)
{
    // A usable position is carried on from; position 0, one at or beyond the
    // limit, an empty file or a header that is no number restart at byte 16.
    // The record number is kept either way.
    struct Case {
        std::string bytes;
        size_t banner_at;
        int number;
    };
    const Case cases[] = {{header(500, 7) + std::string(484, 'o'), 500, 7},
                          {header(0, 9) + std::string(100, 'z'), 16, 9},
                          {header(4000, 3) + std::string(5000, 'z'), 16, 3},
                          {header(5000, 3) + std::string(5000, 'z'), 16, 3},
                          {"", 16, 0},
                          {"garbage!garbage!tail", 16, 0}};
    fake::set_log_file_size(4000);
    for (size_t i = 0; i < std::size(cases); ++i) {
        snprintf(vob_proc_name, sizeof vob_proc_name, "case%c", static_cast<char>('a' + i));
        write_file(fake::log_path(), cases[i].bytes);
    }
    // Only the first call opens a file, so each case is checked in a child.
    for (size_t i = 0; i < std::size(cases); ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            snprintf(vob_proc_name, sizeof vob_proc_name, "case%c", static_cast<char>('a' + i));
            vobrel_write_to_log(nullptr, 0, "r");
            std::string s = fake::read_log();
            auto recs = fake::log_records();
            bool ok = s.substr(cases[i].banner_at, strlen(kBanner)) == kBanner && recs.size() == 1 &&
                      recs[0].number == cases[i].number &&
                      fake::log_header_pos() == static_cast<int>(s.find("}:r") + 3);
            _exit(ok ? 0 : 1);
        }
        int st = 0;
        waitpid(pid, &st, 0);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "case " << i;
    }
}

TEST(LogFile, WrapsAtLimitWithBannerAndNumberZero)
{
    fake::set_log_file_size(1000);
    std::string filler(90, 'f');
    int written = 0;
    while (fake::read_log().size() < 1000) {
        vobrel_write_to_log(nullptr, 0, "%s", filler.c_str());
        ++written;
    }
    std::string before = fake::read_log();
    vobrel_write_to_log(nullptr, 0, "WRAPPED");
    std::string s = fake::read_log();
    std::string banner = "\n[QMT-VER-1.2.1 Build 0] HIT 1000 Limit, Wrapping up ";
    EXPECT_EQ(s.substr(16, banner.size()), banner);
    size_t rec = s.find("[0]{");
    ASSERT_NE(rec, std::string::npos);
    EXPECT_EQ(s.substr(s.find("}:", rec) + 2, 7), "WRAPPED");
    int pos = fake::log_header_pos();
    EXPECT_EQ(fake::log_header_number(), 0);
    // The file is never truncated: older bytes after the new end survive.
    EXPECT_EQ(s.size(), before.size());
    EXPECT_EQ(s.substr(static_cast<size_t>(pos)), before.substr(static_cast<size_t>(pos)));
    EXPECT_GT(written, 5);
}

TEST(LogFile, FailedInitialisationDropsRecordsAndRetriesEveryCall)
{
    testing::internal::CaptureStdout();
    fake::set_log_store_status(1, VOBREL_PLATFORM_NOT_INITED);
    EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "lost 1"), 0);
    EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "lost 2"), 0);
    fake::set_log_store_status(1, VOBREL_PLATFORM_OK);
    fake::set_log_store_len(-4);
    vobrel_write_to_log(nullptr, 0, "lost 3");
    fake::set_log_store_len(0);
    fake::set_log_store_status(2, VOBREL_PLATFORM_INIT_FAILED);
    vobrel_write_to_log(nullptr, 0, "lost 4");
    fake::set_log_store_status(2, VOBREL_PLATFORM_OK);
    fake::set_log_file_size(-1);
    vobrel_write_to_log(nullptr, 0, "lost 5");
    fake::set_log_file_size(0);
    for (int nth : {0, 1}) { // no memory for the path, then for the file name
        allocfail::Guard g;
        allocfail::fail_nth(nth);
        vobrel_write_to_log(nullptr, 0, "lost 6");
    }
    fake::set_log_store_path(fake::log_dir() + "/no/such/dir/app.log"); // fails silently
    vobrel_write_to_log(nullptr, 0, "lost 7");
    fake::set_log_store_path("");
    EXPECT_EQ(fake::read_log(), "");
    vobrel_write_to_log(nullptr, 0, "kept");
    const std::string first = "vobrel_platform_get_log_store_path() failed with error code 3 path len 0\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              first + first + "vobrel_platform_get_log_store_path() failed with error code 0 path len -4\n" +
                  "Platform get log store failed with error code 5 and file size 0\n" +
                  "Platform get log store failed with error code 0 and file size -1\n" +
                  "Platform get log store failed with memory allocation failure\n" +
                  "Platform get log store failed with memory allocation failure\n");
    EXPECT_EQ(fake::log_messages(), std::vector<std::string>{"kept"});
}

TEST(LogFile, ConcurrentWritersLoseNothingAndNeverShareANumber)
{
    constexpr int kThreads = 8, kEach = 150;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([t] {
            for (int i = 0; i < kEach; ++i)
                vobrel_write_to_log(nullptr, 0, "t%d-%d", t, i);
        });
    for (auto &t : ts)
        t.join();
    auto recs = fake::log_records();
    ASSERT_EQ(recs.size(), static_cast<size_t>(kThreads * kEach));
    std::set<std::string> msgs;
    for (size_t i = 0; i < recs.size(); ++i) {
        EXPECT_EQ(recs[i].number, static_cast<int>(i)); // in file order, no gaps
        msgs.insert(recs[i].message);
    }
    EXPECT_EQ(msgs.size(), recs.size());
    EXPECT_EQ(fake::log_header_number(), kThreads * kEach - 1);
    EXPECT_EQ(fake::log_header_pos(), static_cast<int>(fake::read_log().size()));
}

namespace {
std::atomic<bool> init_entered{false};
std::atomic<bool> init_release{false};
void slow_store()
{
    init_entered = true;
    while (!init_release)
        usleep(1000);
}
void on_usr1(int) {}
} // namespace

TEST(LogFile, WriterWaitingDuringInitialisationSurvivesSignals)
{
    // A second writer arrives while the first is still initialising and is
    // interrupted by signals while it waits: it must neither initialise again
    // nor write without the lock, and its record must not be lost.
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_usr1; // no SA_RESTART: waits see EINTR
    sigaction(SIGUSR1, &sa, nullptr);
    fake::set_log_store_hook(slow_store);

    std::thread first([] { vobrel_write_to_log(nullptr, 0, "first"); });
    while (!init_entered)
        usleep(1000);
    fake::set_log_store_hook(nullptr);
    std::atomic<bool> second_done{false};
    std::thread second([&] {
        vobrel_write_to_log(nullptr, 0, "second");
        second_done = true;
    });
    usleep(20000);
    for (int i = 0; i < 20 && !second_done; ++i) {
        pthread_kill(second.native_handle(), SIGUSR1);
        usleep(2000);
    }
    init_release = true;
    first.join();
    second.join();
    auto msgs = fake::log_messages();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "first");
    EXPECT_EQ(msgs[1], "second");
    EXPECT_EQ(fake::log_store_calls(), 2); // initialised once
}

TEST(LogFile, TimeStampLimits)
{
    // The full format is checked by every record the tests parse.
    EXPECT_STREQ(vob_mk_time_str(nullptr, 50), "Time error");
    char buf[10];
    vob_mk_time_str(buf, sizeof buf);
    EXPECT_EQ(strlen(buf), 9u);
    EXPECT_EQ(buf[4], '/');
}
