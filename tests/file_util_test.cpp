// Whole-file read and buffer write: results, printed and logged lines, and the
// failure branches. Short, empty and failing reads and writes come from a
// `read`/`write` defined in this executable, which the statically linked
// library calls; it acts only on the one file a test names.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <vobrel/debug.h>
#include <vobrel/logger.h>
#include <vobrel/util.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace io {

// One scripted answer: pass the call on with at most `limit` bytes, store
// nothing (return 0), or fail with `err`.
struct Step {
    enum Kind { Pass, Zero, Fail } kind;
    size_t limit;
    int err;
};
Step pass(size_t limit) { return {Step::Pass, limit, 0}; }
Step zero() { return {Step::Zero, 0, 0}; }
Step fail(int err) { return {Step::Fail, 0, err}; }

// Fixed storage: the hooks run inside the library and must not allocate.
struct Script {
    Step steps[8];
    int count;
    int next;
    size_t requests[64]; // byte counts asked for on the target file
    int asked;
};

char target[PATH_MAX]; // empty: nothing is scripted or recorded
Script reads, writes;

void set_target(const std::string &path, std::initializer_list<Step> r = {}, std::initializer_list<Step> w = {})
{
    reads = {};
    writes = {};
    for (const Step &s : r)
        reads.steps[reads.count++] = s;
    for (const Step &s : w)
        writes.steps[writes.count++] = s;
    snprintf(target, sizeof target, "%s", path.c_str());
}

std::vector<size_t> asked(const Script &s)
{
    return std::vector<size_t>(s.requests, s.requests + s.asked);
}

bool is_target(int fd)
{
    if (!target[0])
        return false;
    char link[64], path[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, sizeof path - 1);
    if (n < 0)
        return false;
    path[n] = '\0';
    return strcmp(path, target) == 0;
}

using read_fn = ssize_t (*)(int, void *, size_t);
using write_fn = ssize_t (*)(int, const void *, size_t);
read_fn real_read;
write_fn real_write;

__attribute__((constructor)) void resolve()
{
    real_read = reinterpret_cast<read_fn>(dlsym(RTLD_NEXT, "read"));
    real_write = reinterpret_cast<write_fn>(dlsym(RTLD_NEXT, "write"));
}

// The scripted answer for a call on the target: -1 to pass on with `count`
// possibly lowered, else the value to return.
ssize_t answer(Script &s, size_t &count)
{
    if (s.asked < 64)
        s.requests[s.asked++] = count;
    if (s.next >= s.count)
        return -1;
    const Step &st = s.steps[s.next++];
    if (st.kind == Step::Zero)
        return 0;
    if (st.kind == Step::Fail) {
        errno = st.err;
        return -2;
    }
    if (count > st.limit)
        count = st.limit;
    return -1;
}

} // namespace io

extern "C" ssize_t read(int fd, void *buf, size_t count)
{
    if (io::is_target(fd)) {
        ssize_t a = io::answer(io::reads, count);
        if (a >= 0)
            return a;
        if (a == -2)
            return -1;
    }
    return io::real_read ? io::real_read(fd, buf, count) : syscall(SYS_read, fd, buf, count);
}

extern "C" ssize_t write(int fd, const void *buf, size_t count)
{
    if (io::is_target(fd)) {
        ssize_t a = io::answer(io::writes, count);
        if (a >= 0)
            return a;
        if (a == -2)
            return -1;
    }
    return io::real_write ? io::real_write(fd, buf, count) : syscall(SYS_write, fd, buf, count);
}

namespace {

namespace fs = std::filesystem;

class FileUtil : public testing::Test {
protected:
    void SetUp() override
    {
        const char *base = getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/vobrel-futil-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = fs::canonical(tmpl).string(); // as /proc/self/fd shows it
        fds_before_ = open_fds();
    }
    void TearDown() override
    {
        io::target[0] = '\0';
        EXPECT_EQ(open_fds(), fds_before_) << "a descriptor was left open";
        fs::remove_all(dir_);
    }

    // Open descriptors, leaving out the log file, which stays open once used.
    static size_t open_fds()
    {
        const std::string log = fake::log_path();
        size_t n = 0;
        std::error_code ec;
        for (const auto &e : fs::directory_iterator("/proc/self/fd"))
            if (fs::read_symlink(e.path(), ec) != log)
                ++n;
        return n;
    }
    std::string make(const std::string &name, const std::string &bytes)
    {
        std::string p = dir_ + "/" + name;
        std::ofstream(p, std::ios::binary) << bytes;
        return p;
    }
    static std::string slurp(const std::string &p)
    {
        std::ifstream in(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string dir_;
    size_t fds_before_ = 0;
};

std::string pattern(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>('A' + i % 26);
    return s;
}

using Lines = std::vector<std::string>;

} // namespace

// --- reading ----------------------------------------------------------------

TEST_F(FileUtil, ReadExactSizeGivesTheBytesAndANul)
{
    const std::string bytes("01234\0" "6789", 10);
    std::string p = make("ten", bytes);
    io::set_target(p);
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_OK);
    EXPECT_EQ(std::string(buf, 11), bytes + '\0');
    EXPECT_EQ(io::asked(io::reads), std::vector<size_t>{10});
    free(buf);
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST_F(FileUtil, ReadEmptyFileIsInvalidAfterOneDefaultSizedRead)
{
    std::string p = make("empty", "");
    io::set_target(p);
    char *buf = reinterpret_cast<char *>(this);
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_INVALID_FILE);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(io::asked(io::reads), std::vector<size_t>{524288});
    EXPECT_EQ(fake::log_messages(), Lines{"\nread failed (Success)\n"});
    EXPECT_TRUE(fake::buginf_texts().empty()); // switch off

    vobrel_debug_errors = 1;
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_INVALID_FILE);
    EXPECT_EQ(fake::buginf_texts(), Lines{"DBG:read failed (Success)\n"});
}

TEST_F(FileUtil, ReadSizeUnknownProcFileTakesOneRead)
{
    std::string p = "/proc/" + std::to_string(getpid()) + "/status";
    io::set_target(p);
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_OK);
    EXPECT_EQ(std::string(buf).rfind("Name:", 0), 0u);
    EXPECT_EQ(io::asked(io::reads), std::vector<size_t>{524288});
    free(buf);
}

TEST_F(FileUtil, ReadFifoTakesWhatOneReadGives)
{
    std::string p = dir_ + "/fifo";
    ASSERT_EQ(mkfifo(p.c_str(), 0600), 0);
    std::thread writer([&] {
        int fd = open(p.c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::write(fd, "through a pipe", 14), 14);
        close(fd);
    });
    char *buf = nullptr;
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_OK);
    writer.join();
    EXPECT_STREQ(buf, "through a pipe");
    free(buf);
}

TEST_F(FileUtil, ReadBadArgumentsAndOpenFailureLogNothing)
{
    std::string p = make("f", "x");
    char *buf = reinterpret_cast<char *>(this);
    EXPECT_EQ(vobrel_read_input_vobrel_file(nullptr, &buf), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), nullptr), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file((dir_ + "/missing").c_str(), &buf), VOBREL_FSOPEN_FAILED);
    EXPECT_EQ(buf, reinterpret_cast<char *>(this));
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST_F(FileUtil, ReadWithoutMemoryClosesTheFile)
{
    std::string p = make("f", "hello");
    char *buf = reinterpret_cast<char *>(this);
    vobrel_rc rc;
    {
        allocfail::Guard g;
        allocfail::fail_all();
        rc = vobrel_read_input_vobrel_file(p.c_str(), &buf);
    }
    EXPECT_EQ(rc, VOBREL_NO_MEMORY);
    EXPECT_EQ(buf, nullptr);
    EXPECT_TRUE(fake::log_messages().empty()); // TearDown checks the descriptor
}

TEST_F(FileUtil, ReadFirstReadFailing)
{
    std::string p = make("f", "hello");
    io::set_target(p, {io::fail(EIO)});
    char *buf = nullptr;
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_INVALID_FILE);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(fake::log_messages(), Lines{"\nread failed (Input/output error)\n"});
}

TEST_F(FileUtil, ReadShortReadsAreResumedUntilTheRecordedSize)
{
    const std::string bytes = pattern(100);
    std::string p = make("f", bytes);
    io::set_target(p, {io::pass(30), io::pass(30), io::pass(30)});
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_OK);
    EXPECT_EQ(std::string(buf, 101), bytes + '\0');
    EXPECT_EQ(io::asked(io::reads), (std::vector<size_t>{100, 70, 40, 10}));
    free(buf);
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST_F(FileUtil, ReadEndingBeforeTheRecordedSizeKeepsWhatCame)
{
    std::string p = make("f", pattern(100));
    io::set_target(p, {io::pass(30), io::zero()});
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_OK);
    EXPECT_EQ(std::string(buf, 31), pattern(30) + '\0');
    free(buf);
}

TEST_F(FileUtil, ReadLaterReadFailingLogsTwoLines)
{
    std::string p = make("f", pattern(100));
    io::set_target(p, {io::pass(30), io::fail(EIO)});
    vobrel_debug_errors = 1;
    char *buf = nullptr;
    EXPECT_EQ(vobrel_read_input_vobrel_file(p.c_str(), &buf), VOBREL_INVALID_FILE);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(fake::log_messages(), (Lines{"\nError in reading file errno: 5(Input/output error)",
                                           "\n Error Invalid File exact size:(Input/output error)"}));
    EXPECT_EQ(fake::buginf_texts(), (Lines{"DBG:Error in reading file errno: 5(Input/output error)",
                                           "DBG:Error Invalid File exact size:(Input/output error)"}));
}

// --- writing ----------------------------------------------------------------

TEST_F(FileUtil, WriteSavesInOneWriteAndPrints)
{
    umask(0);
    std::string p = make("out", pattern(300)); // truncated by the write
    const std::string bytes = pattern(100);
    io::set_target(p);
    int32_t written = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>(bytes.data()), 100, &written, "config", 0),
              VOBREL_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "config saved ..... to " + p + "\n");
    EXPECT_EQ(written, 100);
    EXPECT_EQ(slurp(p), bytes);
    EXPECT_EQ(io::asked(io::writes), std::vector<size_t>{100});
    EXPECT_TRUE(fake::log_messages().empty());

    std::string fresh = dir_ + "/fresh";
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(fresh.c_str(), const_cast<char *>("abc"), 3, &written, nullptr, 0), VOBREL_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "data saved ..... to " + fresh + "\n");
    struct stat sb;
    ASSERT_EQ(stat(fresh.c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mode & 0777, 0666u);
}

TEST_F(FileUtil, WriteNothingOrBadArgumentsCreatesNoFile)
{
    std::string p = dir_ + "/out";
    char data[] = "x";
    int32_t written = 77;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), data, 0, &written, "w", 0), VOBREL_NO_ENTRIES);
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), nullptr, 1, &written, "w", 0), VOBREL_NO_ENTRIES);
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), data, -1, &written, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_write_data_to_url(nullptr, data, 1, &written, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), data, 1, nullptr, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(written, 77);
    EXPECT_FALSE(fs::exists(p));
    EXPECT_TRUE(fake::log_messages().empty());
}

TEST_F(FileUtil, WriteOpenFailure)
{
    std::string p = dir_ + "/no/such/dir/out";
    vobrel_debug_errors = 1;
    int32_t written = 77;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>("abc"), 3, &written, "w", 0),
              VOBREL_FSOPEN_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "% Could not open file " + p + ":No such file or directory\n");
    EXPECT_EQ(written, 0);
    EXPECT_EQ(fake::log_messages(), Lines{"\nError in opening file " + p + ":No such file or directory\n"});
    EXPECT_EQ(fake::buginf_texts(), Lines{"DBG:Error in opening file " + p + ":No such file or directory\n"});
}

TEST_F(FileUtil, WriteFirstWriteStoringNothingRemovesTheFile)
{
    const std::string bytes = pattern(100);
    struct Row {
        io::Step step;
        const char *text;
        const char *result;
    };
    for (const Row &r : {Row{io::zero(), "Success", "0"}, Row{io::fail(ENOSPC), "No space left on device", "4294967295"}}) {
        fake::clear_recordings();
        std::string p = make("out", "old contents");
        io::set_target(p, {}, {r.step});
        int32_t written = 77;
        testing::internal::CaptureStdout();
        EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>(bytes.data()), 100, &written, "config", 0),
                  VOBREL_FSWRITE_FAILED);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "\nCould not write any config to file " + p + ": " + r.text + "\n");
        EXPECT_EQ(written, 0);
        EXPECT_FALSE(fs::exists(p));
        EXPECT_EQ(fake::log_messages().back(), "\nCould not write config to file " + p + " 100 " + r.result);
    }
}

TEST_F(FileUtil, WriteShortWritesAreResumed)
{
    const std::string bytes = pattern(100);
    std::string p = dir_ + "/out";
    io::set_target(p, {}, {io::pass(40), io::pass(30)});
    int32_t written = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>(bytes.data()), 100, &written, "config", 0),
              VOBREL_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "config saved ..... to " + p + "\n");
    EXPECT_EQ(written, 100);
    EXPECT_EQ(slurp(p), bytes);
    EXPECT_EQ(io::asked(io::writes), (std::vector<size_t>{100, 60, 30}));
    EXPECT_EQ(fake::log_messages(), (Lines{"\nWriting Partially to file - wrote 40 bytes",
                                           "\nWriting Partially to file - wrote 70 bytes"}));
}

TEST_F(FileUtil, WriteLaterWriteStoringNothingKeepsThePartialFile)
{
    const std::string bytes = pattern(100);
    std::string p = dir_ + "/out";
    vobrel_debug_errors = 1;
    io::set_target(p, {}, {io::pass(40), io::pass(25), io::fail(EIO)});
    int32_t written = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>(bytes.data()), 100, &written, "config", 0),
              VOBREL_FSWRITE_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nCould not write config completely to file " + p + "\n");
    EXPECT_EQ(written, 65);
    EXPECT_EQ(slurp(p), bytes.substr(0, 65));
    const Lines want = {"\nWriting Partially to file - wrote 40 bytes", "\nWriting Partially to file - wrote 65 bytes",
                        "\nCould not write config fully to file " + p + " 100 4294967295"};
    EXPECT_EQ(fake::log_messages(), want);
    EXPECT_EQ(fake::buginf_texts().size(), 3u);
    EXPECT_EQ(fake::buginf_texts().back(), "DBG:Could not write config fully to file " + p + " 100 4294967295");

    fake::clear_recordings();
    io::set_target(p, {}, {io::pass(10), io::zero()});
    testing::internal::CaptureStdout();
    EXPECT_EQ(vobrel_write_data_to_url(p.c_str(), const_cast<char *>(bytes.data()), 100, &written, "config", 0),
              VOBREL_FSWRITE_FAILED);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(written, 10);
    EXPECT_EQ(slurp(p), bytes.substr(0, 10));
    EXPECT_EQ(fake::log_messages().back(), "\nCould not write config fully to file " + p + " 100 0");
}
