// Whole-file read and buffer write: results, printed and logged lines, and the
// failure branches. Short, empty and failing reads and writes come from the
// `read`/`write` defined in this executable, which the statically linked
// library calls; they act only on the one file a test names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vobrel/debug.h>
#include <vobrel/util.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Answers for the calls on the file `target`, in order: N > 0 passes the call
// on with at most N bytes, 0 stores nothing, -E fails with errno E; later
// calls pass unchanged. `asked` records the byte counts asked for.
struct Script { std::string target; std::vector<long> steps, asked; };
static Script reads, writes;

static bool descriptors_closed_on_exec = true; // every descriptor the calls touched

static ssize_t call(Script &s, long sys, int fd, void *buf, size_t count)
{
    char link[32], path[PATH_MAX] = {};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (!s.target.empty() && readlink(link, path, sizeof path - 1) > 0 && s.target == path) {
        descriptors_closed_on_exec &= (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
        s.asked.push_back(static_cast<long>(count));
        long step = s.asked.size() <= s.steps.size() ? s.steps[s.asked.size() - 1] : LONG_MAX;
        if (step <= 0)
            return (errno = static_cast<int>(-step)) ? -1 : 0;
        count = std::min(count, static_cast<size_t>(step));
    }
    return syscall(sys, fd, buf, count);
}

// 100 bytes, no two alike within 62.
static std::string text100 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                       "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijkl";

// Files go to the process's private test directory, beside its log.
struct FileUtil : testing::Test {
    void TearDown() override // every path closes its file
    {
        std::error_code ec;
        for (const auto &e : fs::directory_iterator("/proc/self/fd"))
            EXPECT_NE(fs::read_symlink(e.path(), ec), file_) << "a descriptor was left open";
        EXPECT_TRUE(descriptors_closed_on_exec);
    }
    const std::string dir_ = fs::canonical(fake::log_dir()).string(), file_ = dir_ + "/f"; // as /proc shows it
};

// C linkage from their <unistd.h> declarations: the statically linked library calls these.
ssize_t read(int fd, void *b, size_t n) { return call(reads, SYS_read, fd, b, n); }
ssize_t write(int fd, const void *b, size_t n) { return call(writes, SYS_write, fd, const_cast<void *>(b), n); }

TEST_F(FileUtil, ReadThroughShortAndFailingReads)
{
    const std::string ten("01234\0" "6789", 10), eio = "(Input/output error)";
    struct Row { std::string in; std::vector<long> steps; vobrel_rc rc; int got; std::vector<long> asked; Lines log; };
    const Row rows[] = {
        {ten, {}, VOBREL_OK, 10, {10}, {}},
        {"1", {}, VOBREL_OK, 1, {1}, {}},
        {text100, {1}, VOBREL_OK, 100, {100, 99}, {}},
        {"", {}, VOBREL_INVALID_FILE, 0, {524288}, {"\nread failed (Success)\n"}},
        {"hello", {-EIO}, VOBREL_INVALID_FILE, 0, {5}, {"\nread failed " + eio + "\n"}},
        {text100, {30, 30, 30}, VOBREL_OK, 100, {100, 70, 40, 10}, {}},
        {text100, {30, 0}, VOBREL_OK, 30, {100, 70}, {}}, // shorter than its recorded size
        {text100, {30, -EIO}, VOBREL_INVALID_FILE, 0, {100, 70},
         {"\nError in reading file errno: 5" + eio, "\n Error Invalid File exact size:" + eio}},
    };
    Lines log, dbg;
    for (const Row &r : rows) {
        SCOPED_TRACE(&r - rows);
        vobrel_debug_errors = !vobrel_debug_errors; // lines go to the debug channel only while the switch is on
        std::ofstream(file_, std::ios::binary) << r.in;
        reads = {file_, r.steps, {}};
        char *buf = nullptr;
        EXPECT_EQ(vobrel_read_input_vobrel_file(file_.c_str(), &buf), r.rc);
        EXPECT_EQ(buf ? std::string(buf, r.got + 1) : "-", r.got ? r.in.substr(0, r.got) + '\0' : "-");
        free(buf);
        EXPECT_EQ(reads.asked, r.asked);
        log.insert(log.end(), r.log.begin(), r.log.end());
        for (const std::string &l : vobrel_debug_errors ? r.log : Lines{})
            dbg.push_back("DBG:" + l.substr(l.find_first_not_of("\n ")));
    }
    EXPECT_EQ(fake::log_messages(), log);
    EXPECT_EQ(fake::buginf_texts(), dbg);

    reads = {"/proc/" + std::to_string(getpid()) + "/status", {}, {}}; // size unknown: one read
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(reads.target.c_str(), &buf), VOBREL_OK);
    EXPECT_TRUE(!strncmp(buf, "Name:", 5) && reads.asked == std::vector<long>{524288});
    free(buf);
}

TEST_F(FileUtil, WriteThroughShortAndFailingWritesAndRefuseBadCalls)
{
    umask(0);
    const std::string p = file_, bad = dir_ + "/no/such/dir/f", bnf = bad + ":No such file or directory\n";
    const std::string to = " to file " + p, saved = "config saved ..... to " + p + "\n", neg = " 100 4294967295";
    const std::string part = "\nWriting Partially to file - wrote ", cw = "\nCould not write config";
    const std::string first = cw + to, fully = cw + " fully" + to, cut = cw + " completely" + to + "\n";
    const std::string any = "\nCould not write any config" + to;
    struct Row { std::string path; std::vector<long> steps; vobrel_rc rc; int written; std::string out; Lines log; };
    const Row rows[] = {
        {p, {}, VOBREL_OK, 100, saved, {}},
        {p, {40, 30}, VOBREL_OK, 100, saved, {part + "40 bytes", part + "70 bytes"}},
        {p, {0}, VOBREL_FSWRITE_FAILED, 0, any + ": Success\n", {first + " 100 0"}},
        {p, {-EFBIG}, VOBREL_FSWRITE_FAILED, 0, any + ": File too large\n", {first + neg}},
        {p, {40, 25, -EIO}, VOBREL_FSWRITE_FAILED, 65, cut, {part + "40 bytes", part + "65 bytes", fully + neg}},
        {p, {10, 0}, VOBREL_FSWRITE_FAILED, 10, cut, {part + "10 bytes", fully + " 100 0"}},
        {bad, {}, VOBREL_FSOPEN_FAILED, 0, "% Could not open file " + bnf, {"\nError in opening file " + bnf}},
    };
    // Each row writes over what the row before left: the first creates the file,
    // the third and fourth remove theirs, the sixth truncates the fifth's 65 bytes.
    Lines log;
    for (const Row &r : rows) {
        SCOPED_TRACE(&r - rows);
        writes = {r.path, r.steps, {}};
        int32_t written = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(vobrel_write_data_to_url(r.path.c_str(), text100.data(), 100, &written, "config", 0), r.rc);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), r.out);
        EXPECT_EQ(written, r.written);
        std::ifstream f(r.path, std::ios::binary); // a write that stored nothing removes the file
        EXPECT_EQ(f ? std::string(std::istreambuf_iterator<char>(f), {}) : "-",
                  r.written ? text100.substr(0, r.written) : "-");
        EXPECT_TRUE(&r != rows || fs::status(p).permissions() == fs::perms(0666)) << "mode of a new file";
        log.insert(log.end(), r.log.begin(), r.log.end());
    }
    // Calls refused before any transfer touch no output and log nothing.
    char *buf = reinterpret_cast<char *>(this), data[] = "abc";
    int32_t written = 77;
    EXPECT_EQ(vobrel_read_input_vobrel_file(nullptr, &buf), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file(file_.c_str(), nullptr), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file((dir_ + "/missing").c_str(), &buf), VOBREL_FSOPEN_FAILED);
    EXPECT_EQ(vobrel_write_data_to_url(file_.c_str(), nullptr, 3, &written, "w", 0), VOBREL_NO_ENTRIES);
    EXPECT_EQ(vobrel_write_data_to_url(file_.c_str(), data, 0, &written, "w", 0), VOBREL_NO_ENTRIES);
    EXPECT_EQ(vobrel_write_data_to_url(nullptr, data, 3, &written, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_write_data_to_url(file_.c_str(), data, 3, nullptr, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_TRUE(buf == reinterpret_cast<char *>(this) && written == 77) << "outputs touched";
    allocfail::fail_all();
    vobrel_rc rc = vobrel_read_input_vobrel_file(file_.c_str(), &buf);
    allocfail::reset();
    EXPECT_TRUE(rc == VOBREL_NO_MEMORY && !buf);
    EXPECT_EQ(fake::log_messages(), log); // and TearDown finds the file closed
}

// A FIFO at the path fails the call at once, with a reader or without (no
// open waits for the other end); a first write that fails through a symbolic
// link leaves the link. Neither is removed.
TEST_F(FileUtil, FifoFailsAtOnceAndAFailedWriteLeavesWhatIsNotItsOwnRegularFile)
{
    alarm(5); // a call that waits on the FIFO ends the test here
    const std::string fifo = dir_ + "/pipe", link = dir_ + "/link", nxio = ":No such device or address\n";
    ASSERT_TRUE(mkfifo(fifo.c_str(), 0600) == 0 && symlink(file_.c_str(), link.c_str()) == 0);
    char *buf = nullptr;
    EXPECT_EQ(vobrel_read_input_vobrel_file(fifo.c_str(), &buf), VOBREL_FSOPEN_FAILED);
    for (int reader : {-1, open(fifo.c_str(), O_RDONLY | O_NONBLOCK), -2}) {
        const std::string &path = reader == -2 ? link : fifo;
        SCOPED_TRACE(path);
        writes = {file_, {-ENOSPC}, {}};
        int32_t written = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(vobrel_write_data_to_url(path.c_str(), text100.data(), 100, &written, "w", 0),
                  reader == -2 ? VOBREL_FSWRITE_FAILED : VOBREL_FSOPEN_FAILED);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), reader == -2 ? "\nCould not write any w to file " + path +
                                                                            ": No space left on device\n"
                                                                      : "% Could not open file " + path + nxio);
        struct stat st;
        EXPECT_TRUE(written == 0 && lstat(path.c_str(), &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISLNK(st.st_mode)));
        close(reader);
    }
}
