// The log reader (tools/logread and vobrel-log) on files written by the
// library itself (fresh, wrapped, reopened by another process) and on damaged
// ones; --follow against a live writer; --json parsed back.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <vobrel/logger.h>

#include "support/fake_platform.h"
#include "tools/logread/logread.h"

using logread::Item;
using logread::Kind;

namespace {

void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::string header(int pos, int number)
{
    char buf[17];
    snprintf(buf, sizeof buf, "%8d%8d", pos, number);
    return buf;
}

// A file read and parsed; the items point into `bytes`.
struct Parsed {
    explicit Parsed(std::string b) : bytes(std::move(b)) { status = logread::parse(bytes, log); }
    std::string bytes;
    logread::Log log;
    logread::Status status;

    std::vector<const Item *> records() const
    {
        std::vector<const Item *> out;
        for (const Item &it : log.items)
            if (it.kind == Kind::Record)
                out.push_back(&it);
        return out;
    }
    std::vector<std::string> messages() const
    {
        std::vector<std::string> out;
        for (const Item *it : records())
            out.emplace_back(it->message);
        return out;
    }
    std::string kinds() const // 'o' open banner, 'w' wrap banner, 'r' record
    {
        std::string out;
        for (const Item &it : log.items)
            out += it.kind == Kind::Record ? 'r' : it.kind == Kind::OpenBanner ? 'o' : 'w';
        return out;
    }
};

// Writes records through the library and remembers where each one landed and
// what it said, so that the records that must survive in the file can be
// worked out independently of the reader.
class Writer {
public:
    explicit Writer(int limit) : limit_(limit) {}

    void write(const std::string &msg, const char *func = nullptr, int line = 0)
    {
        vobrel_write_to_log(func, line, "%s", msg.c_str());
        std::string f = fake::read_log();
        size_t end = static_cast<size_t>(fake::log_header_pos());
        std::string tail = "[" + std::to_string(fake::log_header_number()) + "]{" + std::to_string(getpid()) + "}:" +
                           (func ? std::string(func) + "(" + std::to_string(line) + "): " : "") + msg;
        size_t len = 1 + 19 + tail.size();
        ASSERT_GE(end, len);
        size_t start = end - len;
        ASSERT_EQ(f.substr(start + 20, tail.size()), tail);
        std::string wrap = "\n[QMT-VER-1.2.1 Build 0] HIT " + std::to_string(limit_) + " Limit, Wrapping up ";
        if (start == 16 + wrap.size() + 20 && f.compare(16, wrap.size(), wrap) == 0)
            ++cycle_;
        w_.push_back({msg, start, f.substr(start, len), cycle_});
    }

    int cycle() const { return cycle_; }

    // Messages that the reader must show, in order: every record of the
    // current and the previous pass whose bytes are all still in the file.
    // The last one of the previous pass may carry remains of older passes.
    std::vector<std::string> expected(const std::string &file, size_t *last_old) const
    {
        std::vector<std::string> out;
        *last_old = SIZE_MAX;
        for (const W &w : w_) {
            if (w.cycle < cycle_ - 1 || file.compare(w.start, w.text.size(), w.text) != 0)
                continue;
            if (w.cycle == cycle_ - 1)
                *last_old = out.size();
            out.push_back(w.msg);
        }
        return out;
    }

private:
    struct W {
        std::string msg;
        size_t start;
        std::string text;
        int cycle;
    };
    int limit_;
    int cycle_ = 0;
    std::vector<W> w_;
};

// The reader shows exactly the records that survive, oldest first, and the
// header agrees with the text.
void expect_reads_as_written(const Writer &w)
{
    Parsed p(fake::read_log());
    ASSERT_EQ(p.status, logread::Status::Ok);
    EXPECT_EQ(logread::check(p.bytes, p.log), std::vector<std::string>{});
    size_t last_old;
    std::vector<std::string> want = w.expected(p.bytes, &last_old);
    std::vector<std::string> got = p.messages();
    ASSERT_EQ(got.size(), want.size()) << p.bytes;
    for (size_t i = 0; i < want.size(); ++i) {
        if (i == last_old)
            EXPECT_EQ(got[i].substr(0, want[i].size()), want[i]) << i;
        else
            EXPECT_EQ(got[i], want[i]) << i;
    }
}

// --- running vobrel-log -----------------------------------------------------

struct ToolRun {
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

class Tool {
public:
    explicit Tool(const std::vector<std::string> &args)
    {
        std::vector<std::string> all{VOBREL_LOG_TOOL};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (auto &a : all)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        int o[2], e[2];
        if (pipe2(o, O_CLOEXEC) != 0 || pipe2(e, O_CLOEXEC) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(o[1], 1);
            dup2(e[1], 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(o[1]);
        close(e[1]);
        out_fd_ = o[0];
        err_fd_ = e[0];
    }
    ~Tool()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_fd_);
        close(err_fd_);
    }

    // Reads output until `done(out)` holds or the deadline passes.
    template <class Pred> bool read_until(Pred done, int timeout_ms = 10000)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (!done(run_.out)) {
            int left = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                    .count());
            if (left <= 0 || (out_fd_ < 0 && err_fd_ < 0))
                return false;
            pump(left);
        }
        return true;
    }

    // Waits for the end (killing the tool at the deadline) and returns all.
    ToolRun finish(int timeout_ms = 10000)
    {
        read_until([](const std::string &) { return false; }, timeout_ms); // runs to both pipes' end
        int st = 0;
        if (out_fd_ >= 0 || err_fd_ >= 0) {
            ADD_FAILURE() << "vobrel-log did not finish in time";
            kill(pid_, SIGKILL);
        }
        waitpid(pid_, &st, 0);
        pid_ = -1;
        run_.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return run_;
    }

    pid_t pid() const { return pid_; }
    const std::string &out() const { return run_.out; }

private:
    void pump(int timeout_ms)
    {
        pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
        if (poll(fds, 2, timeout_ms) <= 0)
            return;
        drain(fds[0], out_fd_, run_.out);
        drain(fds[1], err_fd_, run_.err);
    }
    static void drain(const pollfd &p, int &fd, std::string &to)
    {
        if (fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR)))
            return;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            to.append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            close(fd);
            fd = -1;
        }
    }

    pid_t pid_ = -1;
    int out_fd_ = -1, err_fd_ = -1;
    ToolRun run_;
};

ToolRun run_tool(const std::vector<std::string> &args)
{
    return Tool(args).finish();
}

std::vector<std::string> lines_of(const std::string &s)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

// --- a small JSON reader for the tool's one-object lines --------------------

struct JsonValue {
    bool is_string = false;
    std::string text; // strings decoded to UTF-8; numbers as written
};
using JsonObject = std::map<std::string, JsonValue>;

class JsonParser {
public:
    explicit JsonParser(const std::string &s) : s_(s) {}

    bool object(JsonObject &out)
    {
        if (!eat('{'))
            return false;
        if (eat('}'))
            return i_ == s_.size();
        do {
            std::string key;
            JsonValue v;
            if (!string(key) || !eat(':') || !value(v) || out.count(key))
                return false;
            out[key] = v;
        } while (eat(','));
        return eat('}') && i_ == s_.size();
    }

private:
    bool eat(char c)
    {
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    bool value(JsonValue &v)
    {
        if (i_ < s_.size() && s_[i_] == '"') {
            v.is_string = true;
            return string(v.text);
        }
        size_t b = i_;
        if (eat('-')) {
        }
        while (i_ < s_.size() && isdigit(static_cast<unsigned char>(s_[i_])))
            ++i_;
        v.text = s_.substr(b, i_ - b);
        return i_ > b && v.text != "-";
    }
    bool hex4(unsigned &cp)
    {
        if (s_.size() - i_ < 4)
            return false;
        cp = 0;
        for (int k = 0; k < 4; ++k) {
            char c = s_[i_++];
            cp <<= 4;
            if (c >= '0' && c <= '9')
                cp |= static_cast<unsigned>(c - '0');
            else if (c >= 'a' && c <= 'f')
                cp |= static_cast<unsigned>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                cp |= static_cast<unsigned>(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }
    static void put_utf8(std::string &o, unsigned cp) // from one \uXXXX
    {
        if (cp < 0x80) {
            o += static_cast<char>(cp);
        } else if (cp < 0x800) {
            o += static_cast<char>(0xC0 | cp >> 6);
            o += static_cast<char>(0x80 | (cp & 63));
        } else {
            o += static_cast<char>(0xE0 | cp >> 12);
            o += static_cast<char>(0x80 | ((cp >> 6) & 63));
            o += static_cast<char>(0x80 | (cp & 63));
        }
    }
    bool string(std::string &o)
    {
        if (!eat('"'))
            return false;
        while (i_ < s_.size()) {
            unsigned char c = static_cast<unsigned char>(s_[i_++]);
            if (c == '"')
                return true;
            if (c < 0x20)
                return false; // raw control characters are not allowed
            if (c != '\\') {
                o += static_cast<char>(c);
                continue;
            }
            if (i_ == s_.size())
                return false;
            char e = s_[i_++];
            switch (e) {
            case '"': case '\\': case '/': o += e; break;
            case 'b': o += '\b'; break;
            case 'f': o += '\f'; break;
            case 'n': o += '\n'; break;
            case 'r': o += '\r'; break;
            case 't': o += '\t'; break;
            case 'u': {
                unsigned cp;
                if (!hex4(cp) || (cp >= 0xD800 && cp <= 0xDFFF)) // the tool writes no surrogates
                    return false;
                put_utf8(o, cp);
                break;
            }
            default:
                return false;
            }
        }
        return false;
    }

    const std::string &s_;
    size_t i_ = 0;
};

std::string unbase64(const std::string &s)
{
    static const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t acc = 0;
    int bits = 0;
    for (char c : s) {
        if (c == '=')
            break;
        acc = acc << 6 | static_cast<uint32_t>(kAlphabet.find(c));
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    return out;
}

std::vector<JsonObject> parse_json_lines(const std::string &out)
{
    std::vector<JsonObject> objs;
    for (const std::string &l : lines_of(out)) {
        JsonObject o;
        EXPECT_TRUE(JsonParser(l).object(o)) << l;
        objs.push_back(o);
    }
    return objs;
}

} // namespace

// --- files written by the library ---------------------------------------------

TEST(LogReaderOnLibraryFiles, FreshFileWithAndWithoutFunctionNames)
{
    Writer w(0);
    w.write("plain\n");
    w.write("in a function", "do_work", 88);
    w.write("two\nlines\n");
    w.write("");
    expect_reads_as_written(w);

    Parsed p(fake::read_log());
    EXPECT_EQ(p.kinds(), "orrrr");
    auto r = p.records();
    EXPECT_EQ(r[0]->number, 0);
    EXPECT_EQ(r[3]->number, 3);
    EXPECT_EQ(r[0]->pid, getpid());
    EXPECT_FALSE(r[0]->has_function);
    ASSERT_TRUE(r[1]->has_function);
    EXPECT_EQ(r[1]->function, "do_work");
    EXPECT_EQ(r[1]->line, 88);
    EXPECT_EQ(p.log.items[0].version, "1.2.1 Build 0");
    EXPECT_EQ(p.log.skipped, 0u);

    ToolRun run = run_tool({fake::log_path()});
    EXPECT_EQ(run.status, 0) << run.err;
    auto lines = lines_of(run.out);
    ASSERT_EQ(lines.size(), 6u) << run.out;
    EXPECT_EQ(lines[0].rfind("---- [QMT-VER-1.2.1 Build 0] Logger initialized ", 0), 0u);
    std::string pid = std::to_string(getpid());
    EXPECT_EQ(lines[1].substr(19), " #0 pid " + pid + ": plain");
    EXPECT_EQ(lines[2].substr(19), " #1 pid " + pid + " do_work(88): in a function");
    EXPECT_EQ(lines[3].substr(19), " #2 pid " + pid + ": two");
    EXPECT_EQ(lines[4], "    lines");
    EXPECT_EQ(lines[5].substr(19), " #3 pid " + pid + ": ");
}

TEST(LogReaderOnLibraryFiles, WrappedOnceShowsSurvivorsThenNewRecords)
{
    fake::set_log_file_size(600);
    Writer w(600);
    for (int i = 0; w.cycle() < 1 || i < 14; ++i)
        w.write("record " + std::to_string(i) + " " + std::string(static_cast<size_t>(i % 5) * 7, '.') + "\n");
    ASSERT_EQ(w.cycle(), 1);
    expect_reads_as_written(w);

    Parsed p(fake::read_log());
    EXPECT_EQ(p.log.limit, 600);
    // Older records first, then the wrap banner from byte 16, then number 0 on.
    std::string k = p.kinds();
    EXPECT_EQ(k, std::string(p.log.newer_first, 'r') + "w" + std::string(k.size() - p.log.newer_first - 1, 'r'));
    EXPECT_EQ(p.log.items[p.log.newer_first].offset, 16u);
    EXPECT_EQ(p.log.items[p.log.newer_first + 1].number, 0);
    EXPECT_GT(p.log.skipped, 0u);

    ToolRun run = run_tool({fake::log_path()});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("\n---- [QMT-VER-1.2.1 Build 0] HIT 600 Limit, Wrapping up "), std::string::npos);
}

TEST(LogReaderOnLibraryFiles, WrappedManyTimesReadsRightAfterEveryRecord)
{
    // Lengths vary so that passes end at different places past the limit and
    // leave remains of older passes behind the newest old record.
    fake::set_log_file_size(700);
    Writer w(700);
    for (int i = 0; i < 160; ++i) {
        std::string msg = "m" + std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 90), 'x');
        if (i % 3 == 0)
            w.write(msg, "worker", i);
        else
            w.write(msg + "\n");
        if (HasFatalFailure())
            return;
        expect_reads_as_written(w);
        if (HasFailure())
            return;
    }
    EXPECT_GE(w.cycle(), 10);
}

TEST(LogReaderOnLibraryFiles, FileReopenedByASecondProcess)
{
    std::string path = fake::log_path();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (int i = 0; i < 3; ++i)
            vobrel_write_to_log(nullptr, 0, "child %d\n", i);
        _exit(0);
    }
    int st = 0;
    waitpid(child, &st, 0);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    vobrel_write_to_log("parent_fn", 7, "parent %d\n", 0);
    vobrel_write_to_log(nullptr, 0, "parent %d\n", 1);

    Parsed p(fake::read_log());
    ASSERT_EQ(p.status, logread::Status::Ok);
    EXPECT_EQ(logread::check(p.bytes, p.log), std::vector<std::string>{});
    EXPECT_EQ(p.kinds(), "orrrorr");
    EXPECT_EQ(p.messages(), (std::vector<std::string>{"child 0\n", "child 1\n", "child 2\n", "parent 0\n", "parent 1\n"}));
    auto r = p.records();
    EXPECT_EQ(r[2]->pid, child);
    EXPECT_EQ(r[3]->pid, getpid());
    // The reopening process repeats the newest number.
    EXPECT_EQ(r[2]->number, 2);
    EXPECT_EQ(r[3]->number, 2);
    EXPECT_EQ(r[4]->number, 3);
    EXPECT_TRUE(r[3]->has_function);

    ToolRun run = run_tool({"--pid", std::to_string(child), path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(lines_of(run.out).size(), 3u) << run.out;
}

TEST(LogReaderOnLibraryFiles, ReopenPastTheLimitRestartsAtTheTopWithoutAWrapBanner)
{
    // The first process stops just past the limit; the next one starts again
    // at byte 16 with an open banner only.
    fake::set_log_file_size(400);
    std::vector<std::string> child_msgs;
    for (int i = 0; i < 12; ++i)
        child_msgs.push_back("first process " + std::to_string(i));
    std::string path = fake::log_path();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (const auto &m : child_msgs) {
            vobrel_write_to_log(nullptr, 0, "%s", m.c_str());
            if (fake::log_header_pos() >= 400)
                break;
        }
        _exit(fake::log_header_pos() >= 400 ? 0 : 1);
    }
    int st = 0;
    waitpid(child, &st, 0);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    vobrel_write_to_log(nullptr, 0, "second process");

    Parsed p(fake::read_log());
    ASSERT_EQ(p.status, logread::Status::Ok);
    EXPECT_EQ(logread::check(p.bytes, p.log), std::vector<std::string>{});
    EXPECT_EQ(p.log.limit, -1);
    auto msgs = p.messages();
    ASSERT_GE(msgs.size(), 4u);
    EXPECT_EQ(msgs.back(), "second process");
    // The survivors of the first process, oldest first, up to its last record.
    msgs.pop_back();
    auto first = std::find(child_msgs.begin(), child_msgs.end(), msgs.front());
    ASSERT_NE(first, child_msgs.end());
    EXPECT_EQ(msgs, std::vector<std::string>(first, first + static_cast<long>(msgs.size())));
    EXPECT_EQ(p.log.items[p.log.newer_first].kind, Kind::OpenBanner);
    EXPECT_EQ(p.log.items[p.log.newer_first].offset, 16u);
}

// --- what the format leaves open ------------------------------------------------

TEST(LogReaderAmbiguities, RecordShapedTextInsideAMessageStaysInTheMessage)
{
    std::string fake_rec = "\n2020/01/01-00:00:00[77]{1}:not a record";
    std::string fake_banner = "\n[QMT-VER-9] Logger initialized 2020/01/01-00:00:00 neither";
    vobrel_write_to_log(nullptr, 0, "forwarded:%s", fake_rec.c_str());
    vobrel_write_to_log(nullptr, 0, "quoted:%s", fake_banner.c_str());
    vobrel_write_to_log(nullptr, 0, "after");
    Parsed p(fake::read_log());
    EXPECT_EQ(p.messages(),
              (std::vector<std::string>{"forwarded:" + fake_rec, "quoted:" + fake_banner, "after"}));
    EXPECT_EQ(logread::check(p.bytes, p.log), std::vector<std::string>{});
}

namespace {
std::string rec(int n, const std::string &msg, int pid = 5)
{
    return "\n2024/02/03-04:05:06[" + std::to_string(n) + "]{" + std::to_string(pid) + "}:" + msg;
}
const std::string kOpen = "\n[QMT-VER-1.2.1 Build 0] Logger initialized 2024/02/03-04:05:06";
std::string wrap_banner(int limit)
{
    return "\n[QMT-VER-1.2.1 Build 0] HIT " + std::to_string(limit) + " Limit, Wrapping up 2024/02/03-04:05:07\n";
}
// A file from its header and its text from byte 16; the position is the
// length of `newer` past 16 unless given.
std::string file(const std::string &newer, const std::string &older, int number, int pos = -1)
{
    return header(pos >= 0 ? pos : static_cast<int>(16 + newer.size()), number) + newer + older;
}
} // namespace

TEST(LogReaderAmbiguities, ReaderResynchronisesAfterADamagedStartLine)
{
    std::string broken = rec(2, "two");
    broken[5] = 'X'; // no longer a start line
    Parsed p(file(kOpen + rec(0, "zero") + rec(1, "one") + broken + rec(3, "three") + rec(4, "four"), "", 4));
    EXPECT_EQ(p.messages(), (std::vector<std::string>{"zero", "one" + broken, "three", "four"}));
}

TEST(LogReaderAmbiguities, RemainsAtThePositionAreSkippedEvenIfTheyHoldARecordShape)
{
    // The remains of an overwritten record quote a record-shaped line; the
    // first real old record is the one the next record continues from.
    std::string newer = wrap_banner(1000) + rec(0, "new zero") + rec(1, "new one");
    std::string remains = "tail of an old message" + rec(500, "quoted", 9);
    std::string older = remains + rec(10, "old ten") + rec(11, "old eleven");
    Parsed p(file(newer, older, 1));
    ASSERT_EQ(p.status, logread::Status::Ok);
    EXPECT_EQ(p.messages(), (std::vector<std::string>{"old ten", "old eleven", "new zero", "new one"}));
    EXPECT_EQ(p.log.skipped, remains.size());
    EXPECT_EQ(p.kinds(), "rrwrr");
}

TEST(LogReaderAmbiguities, OldTextAtOrBeyondTheLimitIsDropped)
{
    // Limit 200: the old pass ended with record 6 (started below 200); what
    // follows is left from an even older pass.
    std::string newer = wrap_banner(200) + rec(0, "n0");
    std::string older = rec(4, "o4") + rec(5, "o5") + rec(6, std::string(150, 'y'));
    std::string stale = rec(7, "older pass") + rec(8, "older pass too");
    std::string bytes = file(newer, older, 0);
    ASSERT_LT(bytes.size() - older.size() + older.rfind('\n'), 200u);
    ASSERT_GE(bytes.size(), 200u);
    Parsed p(bytes + stale);
    EXPECT_EQ(p.messages(), (std::vector<std::string>{"o4", "o5", std::string(150, 'y'), "n0"}));
    EXPECT_EQ(p.log.dropped, stale.size());
    EXPECT_EQ(p.log.limit, 200);
}

TEST(LogReaderAmbiguities, FunctionPartNeedsAnIdentifierAndALineNumber)
{
    Parsed p(file(kOpen + rec(0, "f(1): a") + rec(1, "(1): b") + rec(2, "f(x): c") + rec(3, "ns::g(-2): d"), "", 3));
    auto r = p.records();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_TRUE(r[0]->has_function);
    EXPECT_EQ(r[0]->message, "a");
    EXPECT_FALSE(r[1]->has_function);
    EXPECT_FALSE(r[2]->has_function);
    EXPECT_EQ(r[2]->message, "f(x): c");
    EXPECT_EQ(r[3]->function, "ns::g");
    EXPECT_EQ(r[3]->line, -2);
}

// --- damaged files ----------------------------------------------------------

TEST(LogReaderOnDamagedFiles, EachBadFileHasItsOwnMessageAndStatus)
{
    std::string dir = fake::log_dir();
    struct Case {
        const char *name;
        std::string bytes; // written unless name is "missing"
        int status;
        const char *says;
    };
    std::string garbage;
    for (int i = 0; i < 3000; ++i)
        garbage += static_cast<char>((i * 7919 + 13) % 256);
    const Case cases[] = {
        {"missing", "", 3, "cannot read"},
        {"empty", "", 4, "empty"},
        {"short", "      16", 5, "shorter than the 16-byte header"},
        {"words", "garbage!garbage!more text", 6, "does not hold two numbers"},
        {"nuls", std::string(16, '\0') + kOpen + rec(0, "x"), 6, "\\x00"},
        {"beyond", header(5000, 0) + kOpen, 7, "position 5000"},
        {"below", header(8, 0) + kOpen, 7, "outside"},
        {"noise", header(16, 0) + "\x01\x02binary\xff\xfe", 8, "no log text"},
        {"random", garbage, 6, "does not hold two numbers"},
    };
    for (const Case &c : cases) {
        std::string path = dir + "/" + c.name;
        if (std::string(c.name) != "missing")
            write_file(path, c.bytes);
        for (const char *mode : {"", "--check", "--json"}) {
            std::vector<std::string> args;
            if (*mode)
                args.push_back(mode);
            args.push_back(path);
            ToolRun run = run_tool(args);
            EXPECT_EQ(run.status, c.status) << c.name << " " << mode;
            EXPECT_EQ(run.out, "") << c.name;
            EXPECT_EQ(run.err.rfind("vobrel-log: " + path + ": ", 0), 0u) << run.err;
            EXPECT_NE(run.err.find(c.says), std::string::npos) << c.name << ": " << run.err;
        }
    }
}

TEST(LogReaderOnDamagedFiles, DirectoriesAndFifosAreRefusedWithoutBlocking)
{
    std::string fifo = fake::log_dir() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {fake::log_dir(), fifo}) {
        ToolRun run = run_tool({path});
        EXPECT_EQ(run.status, 3) << path;
        EXPECT_NE(run.err.find("cannot read"), std::string::npos) << run.err;
    }
}

TEST(LogReaderOnDamagedFiles, CheckSaysWhatIsWrongWithTheHeader)
{
    std::string body = kOpen + rec(0, "zero") + rec(1, "one\n");
    size_t end = 16 + body.size();
    size_t last = 16 + body.rfind('\n', body.size() - 2);
    struct Case {
        std::string bytes;
        const char *says;
    };
    const Case cases[] = {
        {file(body, "", 0), "header's number 0 is not the number of the newest record (1"},
        {file(body, "", 1, static_cast<int>(last + 5)), "inside the start line of the record at offset " },
        {file(body, "", 1, 16 + static_cast<int>(kOpen.size())), "ends the banner at offset 16"},
        {file(body, "", 3, 16), "position is 16 (nothing written yet) but its number is 3"},
        {file(kOpen + rec(0, "fn(12): m"), "", 0, static_cast<int>(16 + kOpen.size() + rec(0, "fn(1").size())),
         "inside the function name and line"},
    };
    for (const Case &c : cases) {
        Parsed p(c.bytes);
        ASSERT_EQ(p.status, logread::Status::Ok) << c.says;
        auto problems = logread::check(p.bytes, p.log);
        ASSERT_EQ(problems.size(), 1u) << c.says;
        EXPECT_NE(problems[0].find(c.says), std::string::npos) << problems[0];
    }
    Parsed good(file(body, "", 1));
    EXPECT_EQ(logread::check(good.bytes, good.log), std::vector<std::string>{});
    EXPECT_EQ(good.log.header_position, static_cast<int64_t>(end));

    std::string path = fake::log_dir() + "/bad-number";
    write_file(path, file(body, "", 7));
    ToolRun run = run_tool({"--check", path});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, path + ": the header's number 7 is not the number of the newest record (1, at offset " +
                           std::to_string(last) + ")\n");
    write_file(path, file(body, "", 1));
    run = run_tool({"-c", path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, path + ": header agrees with the text (position " + std::to_string(end) +
                           ", number 1, 2 records)\n");
}

// --- output and options -------------------------------------------------------

TEST(LogReaderOutput, JsonCarriesEveryFieldAndAnyBytes)
{
    const std::string odd[] = {
        "quote \" backslash \\ tab \t cr \r bell \x07 del \x7f",
        "utf-8 \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
        "invalid \xff \xc0\xaf \xed\xa0\x80 \xe2\x82",
        "ends with newline\n",
    };
    for (const auto &m : odd)
        vobrel_write_to_log("json_fn", 3, "%s", m.c_str());
    vobrel_write_to_log(nullptr, 0, "nul %c byte", 0);

    ToolRun run = run_tool({"--json", fake::log_path()});
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<JsonObject> objs = parse_json_lines(run.out);
    ASSERT_EQ(objs.size(), 6u);
    EXPECT_EQ(objs[0]["type"].text, "open");
    EXPECT_EQ(objs[0]["version"].text, "1.2.1 Build 0");
    EXPECT_EQ(objs[0]["offset"].text, "16");
    for (size_t i = 1; i < objs.size(); ++i) {
        JsonObject &o = objs[i];
        std::string want = i <= 4 ? odd[i - 1] : std::string("nul \0 byte", 10);
        EXPECT_EQ(o["type"].text, "record");
        EXPECT_EQ(o["number"].text, std::to_string(i - 1));
        EXPECT_FALSE(o["number"].is_string);
        EXPECT_EQ(o["pid"].text, std::to_string(getpid()));
        EXPECT_EQ(o["time"].text.size(), 19u);
        EXPECT_EQ(o.count("function"), i <= 4 ? 1u : 0u);
        if (i <= 4) {
            EXPECT_EQ(o["function"].text, "json_fn");
            EXPECT_EQ(o["line"].text, "3");
        }
        if (i == 3) {
            EXPECT_EQ(unbase64(o["message_base64"].text), want);
            EXPECT_EQ(o["message"].text,
                      "invalid \xef\xbf\xbd \xef\xbf\xbd\xef\xbf\xbd \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd "
                      "\xef\xbf\xbd\xef\xbf\xbd");
        } else {
            EXPECT_EQ(o.count("message_base64"), 0u);
            EXPECT_EQ(o["message"].text, want);
        }
    }
}

TEST(LogReaderOutput, TextShowsControlBytesEscaped)
{
    vobrel_write_to_log(nullptr, 0, "esc \x1b[31m red\r csi \xc2\x9b bad \xff ok \xc3\xa9\t.");
    ToolRun run = run_tool({fake::log_path()});
    auto lines = lines_of(run.out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].substr(lines[1].find(": ")),
              ": esc \\x1b[31m red\\x0d csi \\xc2\\x9b bad \\xff ok \xc3\xa9\t.");
}

TEST(LogReaderOutput, FiltersSinceGrepAndPid)
{
    fake::set_log_file_size(500);
    Writer w(500);
    for (int i = 0; w.cycle() < 1 || i < 12; ++i)
        w.write((i % 2 ? "odd " : "even ") + std::to_string(i) + std::string(20, '-'));
    Parsed p(fake::read_log());
    auto r = p.records();
    ASSERT_GT(p.log.newer_first, 2u);
    int64_t oldest = r.front()->number;
    auto items = logread::all_items(p.log);
    auto numbers = [](const std::vector<const Item *> &v) {
        std::vector<int64_t> out;
        for (auto *it : v)
            out.push_back(it->kind == Kind::Record ? it->number : -1);
        return out;
    };

    // A number in the old pass only: from there to the end, banner included.
    logread::Filter f;
    f.since_set = true;
    f.since = oldest + 1;
    auto got = logread::Selector(f).first(items);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.front(), r[1]);
    EXPECT_EQ(got.size(), items.size() - 1);
    // A number in both passes: the older one comes first in reading order.
    f.since = 1;
    got = logread::Selector(f).first(items);
    EXPECT_EQ(numbers(got).front(), 1);
    // A number no record carries: the first record above it.
    f.since = r.back()->number + 1000;
    logread::Selector later(f);
    EXPECT_TRUE(later.first(items).empty());
    Item future = *r.back();
    future.number = f.since + 2;
    Item past = future;
    past.number = 3;
    EXPECT_EQ(later.next({&past, &future, &past}), (std::vector<const Item *>{&future, &past}));

    logread::Filter g;
    g.grep_set = true;
    g.grep = "odd";
    size_t odd = 0;
    for (auto *it : r)
        odd += it->message.find("odd") != std::string_view::npos;
    got = logread::Selector(g).first(items);
    EXPECT_EQ(got.size(), odd);
    for (auto *it : got)
        EXPECT_EQ(it->message.substr(0, 4), "odd ");

    ToolRun run = run_tool({"--grep", "odd", "--pid", std::to_string(getpid()), fake::log_path()});
    EXPECT_EQ(run.status, 0);
    for (const auto &l : lines_of(run.out))
        EXPECT_NE(l.find(": odd "), std::string::npos) << l;
    EXPECT_FALSE(run.out.empty());
    run = run_tool({"--pid", "1", fake::log_path()});
    EXPECT_EQ(run.out, "");
    run = run_tool({"--since", std::to_string(r.back()->number), "--json", fake::log_path()});
    auto objs = parse_json_lines(run.out);
    ASSERT_FALSE(objs.empty());
    EXPECT_EQ(objs.front()["number"].text, std::to_string(r.back()->number));
}

TEST(LogReaderOptions, HelpAndUsageErrors)
{
    ToolRun run = run_tool({"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("Usage: vobrel-log [OPTION]... FILE\n", 0), 0u);
    EXPECT_NE(run.out.find("Exit status:"), std::string::npos);
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"--bogus", "f"},
        {"a", "b"},
        {"--since", "x", "f"},
        {"--since"},
        {"--pid", "-3", "f"},
        {"--interval", "0", "f"},
        {"--check", "--json", "f"},
        {"--check", "--grep", "x", "f"},
    };
    for (const auto &args : bad) {
        run = run_tool(args);
        EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]);
        EXPECT_NE(run.err.find("Try 'vobrel-log --help'."), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

// --- following a live writer ---------------------------------------------------

TEST(LogReaderFollow, FreshItemsAcrossAWrapAndWhatWasLost)
{
    // The first record reaches far enough that one wrap and two records do
    // not overwrite what follows it.
    fake::set_log_file_size(400);
    vobrel_write_to_log(nullptr, 0, "start %s", std::string(180, 's').c_str());
    Parsed before(fake::read_log());
    int i = 0;
    while (fake::log_header_number() != 0 || i == 0)
        vobrel_write_to_log(nullptr, 0, "w%d", i++);
    vobrel_write_to_log(nullptr, 0, "after wrap");
    Parsed after(fake::read_log());
    bool lost = true;
    auto fresh = logread::fresh_items(before.bytes, before.log, after.bytes, after.log, &lost);
    EXPECT_FALSE(lost);
    std::vector<std::string> msgs;
    for (auto *it : fresh)
        if (it->kind == Kind::Record)
            msgs.emplace_back(it->message);
    std::vector<std::string> want;
    for (int k = 0; k < i; ++k)
        want.push_back("w" + std::to_string(k));
    want.push_back("after wrap");
    EXPECT_EQ(msgs, want);

    // Writing on past the old position overwrites what was never looked at.
    while (fake::log_header_pos() <= before.log.header_position)
        vobrel_write_to_log(nullptr, 0, "more");
    Parsed much_later(fake::read_log());
    logread::fresh_items(before.bytes, before.log, much_later.bytes, much_later.log, &lost);
    EXPECT_TRUE(lost);
    logread::fresh_items(after.bytes, after.log, much_later.bytes, much_later.log, &lost);
    EXPECT_FALSE(lost);
}

TEST(LogReaderFollow, FollowsAWriterInAnotherProcessAcrossWraps)
{
    fake::set_log_file_size(450);
    vobrel_write_to_log(nullptr, 0, "before follow");
    Tool tool({"--follow", "--json", "--interval", "5", fake::log_path()});
    ASSERT_TRUE(tool.read_until([](const std::string &o) { return o.find("before follow") != std::string::npos; }));

    std::vector<std::string> written{"before follow"};
    int wraps = 0;
    for (int i = 0; i < 48; i += 2) {
        for (int k = i; k < i + 2; ++k) {
            written.push_back("live " + std::to_string(k) + std::string(static_cast<size_t>(k % 4) * 9, '+'));
            vobrel_write_to_log(nullptr, 0, "%s", written.back().c_str());
            wraps += fake::log_header_number() == 0;
        }
        std::string want = "\"" + written.back() + "\"";
        ASSERT_TRUE(tool.read_until([&](const std::string &o) { return o.find(want) != std::string::npos; }))
            << "waiting for " << want << "\n" << tool.out();
    }
    EXPECT_GE(wraps, 3);

    kill(tool.pid(), SIGTERM);
    ToolRun run = tool.finish(5000);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    std::vector<std::string> seen;
    int banners = 0;
    for (auto &o : parse_json_lines(run.out)) {
        if (o["type"].text == "record")
            seen.push_back(o["message"].text);
        else
            banners += o["type"].text == "wrap";
    }
    EXPECT_EQ(seen, written); // each once, in order
    EXPECT_EQ(banners, wraps);
}

TEST(LogReaderFollow, StopsAtOnceOnSigint)
{
    vobrel_write_to_log(nullptr, 0, "only");
    Tool tool({"-f", "--interval", "60000", fake::log_path()});
    ASSERT_TRUE(tool.read_until([](const std::string &o) { return o.find(": only") != std::string::npos; }));
    auto t0 = std::chrono::steady_clock::now();
    kill(tool.pid(), SIGINT);
    ToolRun run = tool.finish(5000);
    EXPECT_EQ(run.status, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}
