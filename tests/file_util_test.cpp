// Whole-file read and buffer write: results, printed and logged lines, and the
// failure branches. Short, empty and failing reads and writes come from the
// `read`/`write` defined in this executable, which the statically linked
// library calls; they act only on the one file a test names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <vobrel/debug.h>
#include <vobrel/util.h>

#include "support/alloc_fail.h"
#include "support/fake_platform.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Answers for the calls on the file `target`, in order: N > 0 passes the call
// on with at most N bytes, 0 stores nothing, -E fails with errno E; later
// calls pass unchanged. `asked` records the byte counts asked for.
struct Script { std::string target; std::vector<long> steps; std::vector<size_t> asked; };
Script reads, writes;

// True when the call on `fd` is answered from `s`, the answer in `result`.
bool scripted(Script &s, int fd, size_t &count, ssize_t &result)
{
    char link[32], path[PATH_MAX] = {};
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (s.target.empty() || readlink(link, path, sizeof path - 1) < 0 || s.target != path)
        return false;
    s.asked.push_back(count);
    long step = s.asked.size() <= s.steps.size() ? s.steps[s.asked.size() - 1] : LONG_MAX;
    if (step > 0) {
        count = std::min(count, static_cast<size_t>(step));
        return false;
    }
    errno = static_cast<int>(-step);
    result = step == 0 ? 0 : -1;
    return true;
}

// 100 bytes, no two alike within 62.
std::string bytes100 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                       "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijkl";

// Files go to the process's private test directory, beside its log.
class FileUtil : public testing::Test {
protected:
    void TearDown() override // every path closes its file
    {
        std::error_code ec;
        for (const auto &e : fs::directory_iterator("/proc/self/fd"))
            EXPECT_NE(fs::read_symlink(e.path(), ec), file_) << "a descriptor was left open";
    }
    const std::string dir_ = fs::canonical(fake::log_dir()).string(); // as /proc/self/fd shows it
    const std::string file_ = dir_ + "/f";
};

} // namespace

extern "C" ssize_t read(int fd, void *buf, size_t count)
{
    ssize_t r;
    return scripted(reads, fd, count, r) ? r : syscall(SYS_read, fd, buf, count);
}

extern "C" ssize_t write(int fd, const void *buf, size_t count)
{
    ssize_t r;
    return scripted(writes, fd, count, r) ? r : syscall(SYS_write, fd, buf, count);
}

TEST_F(FileUtil, ReadThroughShortAndFailingReads)
{
    const std::string ten("01234\0" "6789", 10), eio = "(Input/output error)";
    struct Row { std::string bytes; std::vector<long> script; vobrel_rc rc; size_t got;
                 std::vector<size_t> asked; Lines log; };
    const Row rows[] = {
        {ten, {}, VOBREL_OK, 10, {10}, {}},
        {"", {}, VOBREL_INVALID_FILE, 0, {524288}, {"\nread failed (Success)\n"}},
        {"hello", {-EIO}, VOBREL_INVALID_FILE, 0, {5}, {"\nread failed " + eio + "\n"}},
        {bytes100, {30, 30, 30}, VOBREL_OK, 100, {100, 70, 40, 10}, {}},
        {bytes100, {30, 0}, VOBREL_OK, 30, {100, 70}, {}}, // shorter than its recorded size
        {bytes100, {30, -EIO}, VOBREL_INVALID_FILE, 0, {100, 70},
         {"\nError in reading file errno: 5" + eio, "\n Error Invalid File exact size:" + eio}},
    };
    Lines log, dbg;
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row &r = rows[i];
        vobrel_debug_errors = i % 2; // lines go to the debug channel only while the switch is on
        std::ofstream(file_, std::ios::binary) << r.bytes;
        reads = {file_, r.script, {}};
        char *buf = nullptr;
        EXPECT_EQ(vobrel_read_input_vobrel_file(file_.c_str(), &buf), r.rc) << i;
        EXPECT_EQ(buf ? std::string(buf, r.got + 1) : "-", r.rc == VOBREL_OK ? r.bytes.substr(0, r.got) + '\0' : "-")
            << i;
        free(buf);
        EXPECT_EQ(reads.asked, r.asked) << i;
        log.insert(log.end(), r.log.begin(), r.log.end());
        for (const std::string &l : i % 2 ? r.log : Lines{})
            dbg.push_back("DBG:" + l.substr(l.find_first_not_of("\n ")));
    }
    EXPECT_EQ(fake::log_messages(), log);
    EXPECT_EQ(fake::buginf_texts(), dbg);

    reads = {"/proc/" + std::to_string(getpid()) + "/status", {}, {}}; // size unknown: one read
    char *buf = nullptr;
    ASSERT_EQ(vobrel_read_input_vobrel_file(reads.target.c_str(), &buf), VOBREL_OK);
    EXPECT_EQ(std::string(buf).rfind("Name:", 0), 0u);
    EXPECT_EQ(reads.asked, std::vector<size_t>{524288});
    free(buf);
}

TEST_F(FileUtil, FailuresBeforeAnyTransferLogNothing)
{
    std::ofstream(file_, std::ios::binary) << "hello";
    char *buf = reinterpret_cast<char *>(this), data[] = "abc";
    int32_t written = 77;
    EXPECT_EQ(vobrel_read_input_vobrel_file(nullptr, &buf), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file(file_.c_str(), nullptr), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_read_input_vobrel_file((dir_ + "/missing").c_str(), &buf), VOBREL_FSOPEN_FAILED);
    EXPECT_EQ(buf, reinterpret_cast<char *>(this));
    EXPECT_EQ(vobrel_write_data_to_url(file_.c_str(), nullptr, 3, &written, "w", 0), VOBREL_NO_ENTRIES);
    EXPECT_EQ(vobrel_write_data_to_url(nullptr, data, 3, &written, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(vobrel_write_data_to_url(file_.c_str(), data, 3, nullptr, "w", 0), VOBREL_INVALID_ARGS);
    EXPECT_EQ(written, 77);
    allocfail::fail_all();
    vobrel_rc rc = vobrel_read_input_vobrel_file(file_.c_str(), &buf);
    allocfail::reset();
    EXPECT_TRUE(rc == VOBREL_NO_MEMORY && !buf);
    EXPECT_EQ(fake::log_messages(), Lines{}); // and TearDown finds the file closed
}

TEST_F(FileUtil, WriteThroughShortAndFailingWrites)
{
    umask(0);
    const std::string p = file_, bad = dir_ + "/no/such/dir/f", saved = "config saved ..... to " + p + "\n";
    const std::string part = "\nWriting Partially to file - wrote ", any = "\nCould not write any config to file " + p;
    const std::string cut = "\nCould not write config completely to file " + p + "\n";
    const std::string first = "\nCould not write config to file " + p;
    const std::string fully = "\nCould not write config fully to file " + p;
    struct Row { std::string path; int32_t len; std::vector<long> script; vobrel_rc rc; int32_t written;
                 std::string printed; Lines log; };
    const Row rows[] = {
        {p, 0, {}, VOBREL_NO_ENTRIES, -1, "", {}},
        {p, 100, {}, VOBREL_OK, 100, saved, {}},
        {p, 100, {40, 30}, VOBREL_OK, 100, saved, {part + "40 bytes", part + "70 bytes"}},
        {p, 100, {0}, VOBREL_FSWRITE_FAILED, 0, any + ": Success\n", {first + " 100 0"}},
        {p, 100, {-EFBIG}, VOBREL_FSWRITE_FAILED, 0, any + ": File too large\n", {first + " 100 4294967295"}},
        {p, 100, {40, 25, -EIO}, VOBREL_FSWRITE_FAILED, 65, cut,
         {part + "40 bytes", part + "65 bytes", fully + " 100 4294967295"}},
        {p, 100, {10, 0}, VOBREL_FSWRITE_FAILED, 10, cut, {part + "10 bytes", fully + " 100 0"}},
        {bad, 100, {}, VOBREL_FSOPEN_FAILED, 0, "% Could not open file " + bad + ":No such file or directory\n",
         {"\nError in opening file " + bad + ":No such file or directory\n"}},
    };
    Lines log;
    for (size_t i = 0; i < std::size(rows); ++i) {
        const Row &r = rows[i];
        if (i > 1) // the first two find no file; the others truncate one
            std::ofstream(p, std::ios::binary) << std::string(300, '#');
        writes = {r.path, r.script, {}};
        int32_t written = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(vobrel_write_data_to_url(r.path.c_str(), bytes100.data(), r.len, &written, "config", 0), r.rc) << i;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), r.printed) << i;
        EXPECT_EQ(written, r.written) << i;
        std::ifstream in(r.path, std::ios::binary); // a write that stored nothing removes the file
        EXPECT_EQ(in ? std::string(std::istreambuf_iterator<char>(in), {}) : "-",
                  r.written > 0 ? bytes100.substr(0, static_cast<size_t>(r.written)) : "-") << i;
        EXPECT_TRUE(i != 1 || fs::status(p).permissions() == fs::perms(0666)) << "mode of a new file";
        log.insert(log.end(), r.log.begin(), r.log.end());
    }
    EXPECT_EQ(fake::log_messages(), log);
}
