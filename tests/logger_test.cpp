// The log file: layout, numbering, reopen, wrap, platform and memory failures,
// and concurrent writers. Every case runs in a fresh process (see CMakeLists).
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iomanip>
#include <set>
#include <thread>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vobrel/logger.h>

#include "common/src/vobrel_logger_private.h"
#include "support/alloc_fail.h"
#include "support/fake_platform.h"

using vobrel::detail::vob_mk_time_str;

using Lines = std::vector<std::string>;
static const char kBanner[] = "\n[QMT-VER-1.2.1 Build 0] Logger initialized ";

// The library opens its log once per process: a case that needs a first call
// of its own makes it in a child. True when `body` returned true there.
static bool in_child(const std::function<bool()> &body)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(body() ? 0 : 1);
    int st = 0;
    return child > 0 && waitpid(child, &st, 0) == child && WIFEXITED(st) && WEXITSTATUS(st) == 0;
}

// The executable's fstat, which the library's calls reach: fails while set,
// as for an opened file that cannot be examined.
static std::atomic<bool> fstat_fails{false};
extern "C" int fstat(int fd, struct stat *st) noexcept
{
    using Real = int (*)(int, struct stat *);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, sizeof(off_t) > sizeof(long) ? "fstat64" : "fstat"));
    if (!fstat_fails)
        return real(fd, st);
    errno = EIO;
    return -1;
}

TEST(LogFile, FirstCallCreatesHeaderBannerAndRecordZero)
{
    umask(0); // the new file is the owner's and its group's all the same
    const time_t before = time(nullptr);
    EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "hello %d\n", 5), 0);
    const time_t after = time(nullptr);
    struct stat log_st, st;
    ASSERT_EQ(stat(fake::log_path().c_str(), &log_st), 0);
    EXPECT_EQ(log_st.st_mode & 07777, 0640u);
    std::vector<int> flags; // of the log's descriptors: one, closed on exec
    for (int fd = 0; fd < 1024; ++fd)
        if (fstat(fd, &st) == 0 && st.st_ino == log_st.st_ino && st.st_dev == log_st.st_dev)
            flags.push_back(fcntl(fd, F_GETFD));
    EXPECT_EQ(flags, std::vector<int>{FD_CLOEXEC});
    vobrel_write_to_log("my_func", 42, "second %s", "text");
    const std::string s = fake::read_log();
    EXPECT_EQ(s.substr(16, strlen(kBanner)), kBanner);
    EXPECT_EQ(fake::log_messages(), (Lines{"hello 5\n", "my_func(42): second text"}));
    const auto recs = fake::log_records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_TRUE(recs[0].number == 0 && recs[1].number == 1 && recs[0].pid == getpid());
    EXPECT_TRUE(fake::log_header_pos() == static_cast<int>(s.size()) && fake::log_header_number() == 1);
    char local[2][20]; // the stamp is the local time of the call, either side of a second's turn
    strftime(local[0], 20, "%Y/%m/%d-%H:%M:%S", localtime(&before));
    strftime(local[1], 20, "%Y/%m/%d-%H:%M:%S", localtime(&after));
    EXPECT_TRUE(recs[0].time == local[0] || recs[0].time == local[1]) << recs[0].time;
    // The time stamp's limits; its full format is checked by every record parsed.
    EXPECT_STREQ(vob_mk_time_str(nullptr, 50), "Time error");
    EXPECT_TRUE(strlen(vob_mk_time_str(local[0], 10)) == 9 && local[0][4] == '/') << local[0];
}

TEST(LogFile, ReopenCarriesOnFromTheHeaderOrRestartsAtSixteen)
{
    // A usable position is carried on from (a wrapped file's too, which keeps
    // its size and its one header); a position below 16 (0, negative,
    // inside the header), one at or beyond the limit, an empty file or a header
    // that is no number restart at byte 16.
    // The record number is kept either way. The header is "%8d%8d": position, number.
    struct Case { std::string bytes; size_t banner_at; int number; };
    const Case cases[] = {{"     500       7" + std::string(484, 'o'), 500, 7},
                          {"     100       6" + std::string(1884, 'o'), 100, 6},
                          {"       0       9" + std::string(100, 'z'), 16, 9},
                          {"    4000       3" + std::string(5000, 'z'), 16, 3},
                          {"    5000       3" + std::string(5000, 'z'), 16, 3},
                          {"-9999999       4" + std::string(100, 'z'), 16, 4},
                          {"       8       5" + std::string(100, 'z'), 16, 5},
                          {"", 16, 0},
                          {"garbage!garbage!tail", 16, 0}};
    fake::set_log_file_size(4000);
    for (const Case &c : cases)
        EXPECT_TRUE(in_child([&] {
            std::ofstream(fake::log_path(), std::ios::binary) << c.bytes;
            vobrel_write_to_log(nullptr, 0, "r");
            const std::string s = fake::read_log();
            const size_t end = s.find("}:r") + 3;
            const auto recs = fake::log_records();
            return s.substr(c.banner_at, strlen(kBanner)) == kBanner && recs.size() == 1 && recs[0].number == c.number &&
                   s.size() == std::max(c.bytes.size(), end) && fake::log_header_pos() == static_cast<int>(end);
        })) << "case " << &c - cases;
    // The last byte before the limit is still a position: the banner goes
    // there, and the record, past the limit, wraps.
    EXPECT_TRUE(in_child([] {
        std::ofstream(fake::log_path(), std::ios::binary) << "    3999       2" + std::string(3984, 'z');
        vobrel_write_to_log(nullptr, 0, "r");
        const auto recs = fake::log_records();
        return fake::read_log().compare(3999, strlen(kBanner), kBanner) == 0 && recs.size() == 1 &&
               recs[0].number == 0;
    }));
    // A limit of one byte is still a limit: each record follows a wrap.
    EXPECT_TRUE(in_child([] {
        fake::set_log_file_size(1);
        vobrel_write_to_log(nullptr, 0, "tiny");
        return fake::log_messages() == Lines{"tiny"};
    }));
}

// What a neighbour may put at the log's path in a directory that others may
// write, or a file that cannot be examined: nothing is written through it or
// created for it, the call returns at once, and the system log hears of it once.
TEST(LogFile, PlantedFilesAreRefusedAndSaidOnce)
{
    const std::string store = fake::log_dir() + "/shared", path = store + "/vobrel.log." + vob_proc_name,
                      victim = fake::log_dir() + "/victim", nowhere = store + "/nowhere";
    ASSERT_TRUE(mkdir(store.c_str(), 01777) == 0 && chmod(store.c_str(), 01777) == 0 &&
                chmod(fake::log_dir().c_str(), 0711) == 0);
    fake::set_log_store_path(store + "/vobrel.log");
    const std::string as_nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups sh -c 'umask 0; : >" + path + "'";
    pid_t writer = 0; // a process of the same name that has the file to itself
    auto start_writer = [&] {
        if ((writer = fork()) == 0) {
            vobrel_write_to_log(nullptr, 0, "alone");
            pause();
        }
        std::string text; // until its record is there
        for (int i = 0; i < 2000 && text.find("}:alone") == std::string::npos; ++i, usleep(1000)) {
            std::ifstream f(path);
            text.assign(std::istreambuf_iterator<char>(f), {});
        }
        return writer > 0 ? 0 : -1;
    };
    struct Plant { const char *why; std::function<int()> make; };
    const Plant plants[] = {{"a symbolic link", [&] { return symlink(victim.c_str(), path.c_str()); }},
                            {"a symbolic link", [&] { return symlink(nowhere.c_str(), path.c_str()); }},
                            {"not a regular file", [&] { return mkfifo(path.c_str(), 0666); }},
                            {"it has other names (hard links)", [&] { return link(victim.c_str(), path.c_str()); }},
                            {"another process writes it alone", [&] { return start_writer(); }},
                            {"cannot be examined", [&] { fstat_fails = true; return 0; }},
                            {"owned by another user", [&] { return system(as_nobody.c_str()); }}};
    for (const Plant &p : plants) {
        if (&p == std::end(plants) - 1 && getuid() != 0)
            GTEST_SKIP() << "not root: no file of another user can be planted";
        std::ofstream(victim) << "secret";
        unlink(path.c_str());
        ASSERT_EQ(p.make(), 0) << p.why;
        EXPECT_TRUE(in_child([&] {
            alarm(2);
            vobrel_write_to_log(nullptr, 0, "one");
            vobrel_write_to_log(nullptr, 0, "two");
            fstat_fails = false;
            std::ifstream v(victim);
            return std::string(std::istreambuf_iterator<char>(v), {}) == "secret" && access(nowhere.c_str(), F_OK) != 0 &&
                   fake::take_syslog_texts() == Lines{"%SYS-3-LOGFILE:Log file " + path + " refused: " + p.why};
        })) << p.why;
        fstat_fails = false;
        if (writer > 0 && kill(writer, SIGKILL) == 0)
            waitpid(writer, nullptr, 0);
        writer = 0;
    }
}

// Positions and numbers keep to the header's 8 digits: a larger limit from the
// platform is lowered to VOBREL_LOG_SIZE_MAX and a record is cut at
// VOBREL_LOG_RECORD_MAX, so one begun just below the limit still ends below
// 100,000,000.
TEST(LogFile, PositionsKeepToEightDigits)
{
    const int start = VOBREL_LOG_SIZE_MAX - 100, end = start + static_cast<int>(strlen(kBanner)) + 19 +
                                                       VOBREL_LOG_RECORD_MAX;
    fake::set_log_file_size(INT_MAX);
    std::ofstream(fake::log_path(), std::ios::binary) << std::setw(8) << start << "       7";
    vobrel_write_to_log(nullptr, 0, "%s", std::string(VOBREL_LOG_RECORD_MAX, 'x').c_str());
    char h[17] = {}; // the header alone: the file is large (and sparse)
    std::ifstream(fake::log_path(), std::ios::binary).read(h, 16);
    EXPECT_EQ(log_file_size, VOBREL_LOG_SIZE_MAX);
    EXPECT_EQ(std::string(h), std::to_string(end) + "       7");
}

// Back to byte 16 with a wrap banner and number 0 once the file reaches its
// limit, or when a number would pass 99999999. The file is never truncated:
// the older bytes after the new end survive.
TEST(LogFile, WrapsAtTheLimitOrPastEightDigitNumbers)
{
    struct Case { const char *header; const char *banner; std::vector<int> numbers; };
    const Case cases[] = {{"", "HIT 1000 Limit, Wrapping up ", {0}},
                          {"     50099999998", "HIT 100000 Limit, Wrapping up ", {0, 99999998, 99999999}}};
    for (const Case &c : cases)
        EXPECT_TRUE(in_child([&] {
            fake::set_log_file_size(*c.header ? 100000 : 1000);
            std::ofstream(fake::log_path(), std::ios::binary) << c.header << std::string(*c.header ? 484 : 0, 'o');
            std::string before, m;
            for (int i = 0; i < 100 && (before.size() < 16 || fake::log_header_number() != 0); ++i) {
                before = fake::read_log();
                vobrel_write_to_log(nullptr, 0, "%s", (m = std::to_string(i) + std::string(90, 'f')).c_str());
            }
            const std::string s = fake::read_log(), banner = "\n[QMT-VER-1.2.1 Build 0] " + std::string(c.banner);
            const size_t pos = static_cast<size_t>(fake::log_header_pos());
            std::vector<int> numbers;
            for (const fake::LogRecord &r : fake::log_records())
                numbers.push_back(r.number);
            numbers.resize(c.numbers.size(), -1);
            return s.compare(16, banner.size(), banner) == 0 && numbers == c.numbers &&
                   fake::log_messages()[0].starts_with(m) && s.size() == before.size() && s.substr(pos) == before.substr(pos);
        })) << c.banner;
}

TEST(LogFile, FailedInitialisationDropsRecordsAndRetriesEveryCall)
{
    // Each failure is set, one record lost, and the failure undone.
    const std::function<void(bool)> failures[] = {
        [](bool on) { fake::set_log_store_status(1, on ? VOBREL_PLATFORM_NOT_INITED : VOBREL_PLATFORM_OK); },
        [](bool on) { fake::set_log_store_len(on ? -4 : 0); },
        [](bool on) { fake::set_log_store_status(2, on ? VOBREL_PLATFORM_INIT_FAILED : VOBREL_PLATFORM_OK); },
        [](bool on) { fake::set_log_file_size(on ? -1 : 0); },
        [](bool on) { on ? allocfail::fail_nth(0) : allocfail::reset(); }, // no memory for the path
        [](bool on) { on ? allocfail::fail_nth(1) : allocfail::reset(); }, // nor for the file name
        [](bool on) { fake::set_log_store_path(on ? fake::log_dir() + "/no/such/dir/app.log" : ""); }, // silent
    };
    testing::internal::CaptureStdout();
    for (const auto &failure : failures) {
        failure(true);
        EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "lost"), 0);
        failure(false);
    }
    vobrel_write_to_log(nullptr, 0, "kept");
    const std::string path = "vobrel_platform_get_log_store_path() failed with error code ",
                      store = "Platform get log store failed with ", no_memory = store + "memory allocation failure\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              path + "3 path len 0\n" + path + "0 path len -4\n" + store + "error code 5 and file size 0\n" + store +
                  "error code 0 and file size -1\n" + no_memory + no_memory);
    EXPECT_EQ(fake::log_messages(), Lines{"kept"});
    const std::string m(600, 'm'); // too long for the stack, no memory for more: cut to what the stack holds
    allocfail::fail_all();
    vobrel_write_to_log(nullptr, 0, "%s", m.c_str());
    allocfail::reset();
    const std::string s = fake::read_log();
    EXPECT_EQ(s.size() - s.rfind('\n'), 511u);
}

// Writers of one file lose no record and never share a number: four threads in
// each of two processes that take turns on it (the child forked after the
// parent opened the file). The header names the end and number of the newest.
TEST(LogFile, ConcurrentWritersLoseNothingAndNeverShareANumber)
{
    constexpr int kThreads = 4, kEach = 150;
    vobrel_write_to_log(nullptr, 0, "start");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; ++t)
        ts.emplace_back([t, child] {
            for (int i = 0; i < kEach; ++i)
                vobrel_write_to_log(nullptr, 0, "%c%d-%d", child ? 'p' : 'c', t, i);
        });
    for (auto &t : ts)
        t.join();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
    const auto recs = fake::log_records();
    ASSERT_EQ(recs.size(), 2u * kThreads * kEach + 1);
    // In file order, numbered one by one, no message twice; a process that
    // opens the file numbers its first record as the header did.
    std::set<std::string> seen;
    int repeated = 0;
    for (size_t i = 0; i < recs.size(); ++i) {
        repeated += i > 0 && recs[i].number == recs[i - 1].number;
        EXPECT_TRUE(seen.insert(recs[i].message).second && (i == 0 || recs[i].number - recs[i - 1].number <= 1)) << i;
    }
    EXPECT_EQ(repeated, 1);
    EXPECT_EQ(fake::log_header_number(), recs.back().number);
    EXPECT_EQ(fake::log_header_pos(), static_cast<int>(fake::read_log().size()));
}

static std::atomic<bool> init_entered{false}, init_release{false};

TEST(LogFile, WriterArrivingDuringInitialisationWaitsForItThroughSignals)
{
    // A second writer arrives while the first is still initialising (the
    // platform answers after a pause) and is interrupted by signals while it
    // waits: it neither initialises again nor writes without the lock. When
    // that initialisation fails it drops its record (one platform call, one
    // failure line); the next call retries, and then its record follows.
    struct sigaction sa = {};
    sa.sa_handler = [](int) {}; // no SA_RESTART: waits see EINTR
    sigaction(SIGUSR1, &sa, nullptr);
    testing::internal::CaptureStdout();
    for (const bool fails : {true, false}) {
        init_entered = init_release = false;
        fake::set_log_store_status(1, fails ? VOBREL_PLATFORM_NOT_INITED : VOBREL_PLATFORM_OK);
        fake::set_log_store_hook([] {
            for (init_entered = true; !init_release;)
                usleep(1000);
        });
        const int calls = fake::log_store_calls();
        std::thread first([] { vobrel_write_to_log(nullptr, 0, "first"); });
        while (!init_entered)
            usleep(1000);
        fake::set_log_store_hook(nullptr);
        std::atomic<bool> second_done{false};
        std::thread second([&] { second_done = vobrel_write_to_log(nullptr, 0, "second") == 0; });
        usleep(20000);
        for (int i = 0; i < 20 && !second_done; ++i, usleep(2000))
            pthread_kill(second.native_handle(), SIGUSR1);
        init_release = true;
        first.join();
        second.join();
        EXPECT_EQ(fake::log_store_calls() - calls, fails ? 1 : 2) << fails; // initialised once
        EXPECT_EQ(fake::log_messages(), fails ? Lines{} : (Lines{"first", "second"}));
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vobrel_platform_get_log_store_path() failed with error code 3 path len 0\n");
}

// A child process writes from four threads until it is killed (SIGKILL, at a
// random moment); the next child reopens the same file. After every kill the
// header must name the end of a whole record and that record's number (how a
// reopened file numbers on is checked by the concurrent writers' case).
// VOBREL_CRASH_KILLS sets the number of kills (default 40).
TEST(LogFile, KilledWritersAlwaysLeaveAHeaderThatAgreesWithTheRecords)
{
    const char *env = getenv("VOBREL_CRASH_KILLS");
    const int kills = env ? atoi(env) : 40, limit = 1 << 20; // wraps every few kills
    fake::set_log_file_size(limit);
    fake::log_path(); // the directory is made here, so the children share it
    srand(static_cast<unsigned>(getpid()));
    for (int k = 0; k < kills; ++k) {
        const int pos0 = fake::read_log().empty() ? 0 : fake::log_header_pos();
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (int t = 0; t < 4; ++t)
                std::thread([t, k] {
                    for (int i = 0;; ++i)
                        vobrel_write_to_log(nullptr, 0, "s%d-t%d-%d-%.*sEND", k, t, i, (i * 7 + t) % 40,
                                            "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx");
                }).detach();
            for (;;)
                pause();
        }
        // Killed at a random moment once it has written something since the
        // last kill (sanitizer builds start threads slowly), or after 2 s.
        for (int waited = 0; waited < 2000 && (fake::read_log().size() < 16 || fake::log_header_pos() == pos0); ++waited)
            usleep(1000);
        usleep(static_cast<useconds_t>(rand() % 8000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const std::string s = fake::read_log();
        if (s.size() < 16 || fake::log_header_pos() == 16)
            continue; // killed before or while it created the file, or before it wrote
        // The record ending at the header's position carries its number. The
        // rest need not parse: a writer killed while it wrote a wrap's banner
        // leaves part of it at byte 16, before the header moves.
        const size_t pos = static_cast<size_t>(fake::log_header_pos()), open = s.rfind("]{", pos);
        ASSERT_TRUE(pos <= s.size() && s.compare(pos - 3, 3, "END") == 0) << k << ": header at " << pos;
        ASSERT_NE(open, std::string::npos) << k;
        EXPECT_EQ(strtol(s.c_str() + s.rfind('[', open) + 1, nullptr, 10), fake::log_header_number()) << k;
    }
}

// On a full file system records are lost without a word and every call still
// returns; once there is room again, the next records reach the file.
TEST(LogFile, FullFileSystemDropsRecordsAndCarriesOnWhenRoomReturns)
{
    const std::string dir = fake::log_dir() + "/small", filler = dir + "/filler";
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "cannot mount a small tmpfs here";
    std::ofstream(filler, std::ios::binary) << std::string(64 << 10, 'f'); // as much of it as fits
    fake::set_log_store_path(dir + "/app.log");
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(vobrel_write_to_log(nullptr, 0, "lost %d", i), 0);
    unlink(filler.c_str());
    for (int i = 0; i < 3; ++i)
        vobrel_write_to_log(nullptr, 0, "after %d", i);
    std::ifstream f(dir + "/app.log." + vob_proc_name, std::ios::binary);
    const std::string s((std::istreambuf_iterator<char>(f)), {});
    umount2(dir.c_str(), MNT_DETACH);
    EXPECT_NE(s.find("}:after 2"), std::string::npos) << s;
}
