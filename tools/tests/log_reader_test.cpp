// vobrel-log and its parser (tools/logread) on files the library writes
// (fresh, wrapped, reopened by a second process), on damaged files, and
// following a writer. The library writes through the fake platform.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <vobrel/logger.h>

#include "support/fake_platform.h"
#include "tools/logread/logread.h"

namespace {

using Strings = std::vector<std::string>;
constexpr auto npos = std::string::npos;

Strings lines_of(const std::string &s)
{
    Strings out;
    for (size_t b = 0, e; b < s.size(); b = e + 1)
        out.push_back(s.substr(b, (e = std::min(s.find('\n', b), s.size())) - b));
    return out;
}

// A program run in a child process, its stdout and stderr going to one file.
struct Child {
    explicit Child(Strings args) : out_(fake::log_dir() + "/out" + std::to_string(runs_++))
    {
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        if ((pid_ = fork()) == 0) {
            dup2(open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            dup2(1, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Child()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
    }
    std::string out() const
    {
        std::ifstream in(out_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Waits up to 10 s for the output to hold `text`.
    bool wait_for(const std::string &text) const
    {
        for (int i = 0; i < 2000 && out().find(text) == npos; ++i)
            usleep(5000);
        return out().find(text) != npos;
    }
    // Sends `sig` (0: none), waits up to 10 s for the end, then kills; the
    // exit status, or 128 + signal.
    int status(int sig = 0)
    {
        if (pid_ <= 0) // never signal every process
            return -1;
        kill(pid_, sig);
        int st = 0;
        for (int i = 0; waitpid(pid_, &st, WNOHANG) == 0; ++i, usleep(5000))
            if (i == 2000) {
                ADD_FAILURE() << "still running after 10 s";
                kill(pid_, SIGKILL);
            }
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }

    static inline int runs_ = 0;
    std::string out_;
    pid_t pid_ = -1;
};

struct Result { int status; std::string out; };

Result tool(Strings args)
{
    args.insert(args.begin(), VOBREL_LOG_TOOL);
    Child run(args);
    return {run.status(), run.out()}; // in this order: a braced list is read left to right
}

// Hand-made files.
std::string rec(int n, const std::string &msg, int pid = 5, const std::string &time = "2024/02/03-04:05:06")
{
    return "\n" + time + "[" + std::to_string(n) + "]{" + std::to_string(pid) + "}:" + msg;
}
const std::string kOpen = "\n[QMT-VER-1.2.1 Build 0] Logger initialized 2024/02/03-04:05:06";
const std::string kWrap = "\n[QMT-VER-1.2.1 Build 0] HIT 1000 Limit, Wrapping up 2024/02/03-04:05:07\n";
// The header, the newer text from byte 16, then the older; the position ends
// the newer text unless given.
std::string file(const std::string &newer, const std::string &older, int number, size_t pos = 0)
{
    char header[17];
    snprintf(header, sizeof header, "%8zu%8d", pos ? pos : 16 + newer.size(), number);
    return header + newer + older;
}

// A process of its own that logs `records` records under `name`, then ends.
void log_as(const char *name, int records)
{
    fake::log_dir(); // made now, for the child to write into
    pid_t child = fork();
    if (child == 0) {
        snprintf(vob_proc_name, sizeof vob_proc_name, "%s", name);
        for (int i = 0; i < records; ++i)
            vobrel_write_to_log(nullptr, 0, "%s %d %.*s", name, i, i, "..");
        _exit(0);
    }
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
}

} // namespace

TEST(LogReaderOnLibraryFiles, FreshFileThenASecondProcess)
{
    const std::string path = fake::log_path(); // one log directory for both processes
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        vobrel_write_to_log(nullptr, 0, "plain\n");
        vobrel_write_to_log("do_work", 88, "in a function");
        vobrel_write_to_log(nullptr, 0, "two\nlines\n");
        vobrel_write_to_log(nullptr, 0, "esc \x1b[31m red\r csi \xc2\x9b bad \xff ok \xc3\xa9\t.");
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    vobrel_write_to_log("parent_fn", 7, "parent %d", 0);
    vobrel_write_to_log(nullptr, 0, "parent %d", 1);

    const Result r = tool({path});
    EXPECT_EQ(r.status, 0) << r.out;
    Strings listing; // without the time stamps
    for (const std::string &l : lines_of(r.out)) // banners end with a time, records start with one
        listing.push_back(l.starts_with("----") ? l.substr(0, l.size() - 19) : l[0] >= '0' && l[0] <= '9' ? l.substr(20) : l);
    // The second process carries on at the position and repeats the newest number.
    const std::string open = "---- [QMT-VER-1.2.1 Build 0] Logger initialized ", c = " pid " + std::to_string(child);
    const std::string p = " pid " + std::to_string(getpid());
    EXPECT_EQ(listing, (Strings{open, "#0" + c + ": plain", "#1" + c + " do_work(88): in a function",
                                  "#2" + c + ": two", "    lines",
                                  "#3" + c + ": esc \\x1b[31m red\\x0d csi \\xc2\\x9b bad \\xff ok \xc3\xa9\t.", open,
                                  "#3" + p + " parent_fn(7): parent 0", "#4" + p + ": parent 1"}));
    EXPECT_NE(tool({"--json", path}).out.find(R"(csi \u009b bad)"), npos); // C1 escaped, not merely valid UTF-8
}

TEST(LogReaderAmbiguities, SettledAsDocumented)
{
    std::string broken = rec(2, "two");
    broken[5] = 'X'; // no longer a start line
    const std::string fake_rec = "\n2020/01/01-00:00:00[77]{1}:not a record";
    const std::string fake_banner = "\n[QMT-VER-9] Logger initialized 2020/01/01-00:00:00 neither";
    const std::string remains = "tail of an old message" + rec(500, "quoted", 9), ys(900, 'y');
    const std::pair<std::string, Strings> rows[] = {
        // Record- and banner-shaped text inside a message stays in the message; a
        // function part needs an identifier and a line number.
        {file(kOpen + rec(0, "fwd:" + fake_rec) + rec(1, "quoted:" + fake_banner) + rec(2, "f(1): a") +
                  rec(3, "(1): b") + rec(4, "f(x): c") + rec(5, "ns::g(-2): d"), "", 5),
         {"fwd:" + fake_rec, "quoted:" + fake_banner, "a", "(1): b", "f(x): c", "d"}},
        // After a damaged start line the records are picked up again.
        {file(kOpen + rec(0, "zero") + rec(1, "one") + broken + rec(3, "three") + rec(4, "four"), "", 4),
         {"zero", "one" + broken, "three", "four"}},
        // Remains at the position are skipped even when they quote a record.
        {file(kWrap + rec(0, "new"), remains + rec(3, "old three") + rec(4, "old four"), 0),
         {"old three", "old four", "new"}},
        // Old text starting at or beyond the limit (1000) is left from an older pass.
        {file(kWrap + rec(0, "n0"), rec(5, "o5") + rec(6, ys) + rec(7, "older pass"), 0), {"o5", ys, "n0"}},
    };
    for (const auto &[bytes, messages] : rows) {
        logread::Log log;
        EXPECT_EQ(logread::parse(bytes, log), logread::Status::Ok) << bytes;
        Strings got;
        for (const logread::Item &it : log.items)
            if (it.kind == logread::Kind::Record)
                got.emplace_back(it.message);
        EXPECT_EQ(got, messages);
    }
}

TEST(LogReaderOnDamagedFiles, EachKindHasItsMessageAndExitStatus)
{
    const std::string dir = fake::log_dir(), body = kOpen + rec(0, "zero") + rec(1, "one\n"),
                      agrees = "agrees with the text (position " + std::to_string(16 + body.size());
    const size_t last = 16 + body.rfind('\n', body.size() - 2), in_fn = 16 + kOpen.size() + rec(0, "fn(1").size();
    ASSERT_EQ(mkfifo((dir + "/fifo").c_str(), 0600), 0);
    // Written unless status 3 and no size; a size makes the file sparse. Rows
    // with status 0 or 1 are run with --check only, the others in every mode.
    struct Row { const char *name; std::string bytes; int status; std::string says; off_t size = 0; };
    const Row rows[] = {
        {"missing", "", 3, "cannot read"},
        {"fifo", "", 3, "not a regular file"}, // and no waiting for a writer
        {"huge", file(kOpen, "", 0), 3, "100000001 bytes, too large to be a log file", 100000001}, // not read
        {"empty", "", 4, "empty"},
        {"short", "      16", 5, "shorter than the 16-byte header"},
        {"words", "garbage!garbage!more text", 6, "does not hold two numbers"}, // and does not quote them
        {"nuls", std::string(16, '\0') + kOpen, 6, "does not hold two numbers"},
        {"beyond", file(kOpen, "", 0, 5000), 7, "position 5000"},
        {"noise", file("\x01\x02" "binary\xff\xfe", "", 0, 16), 8, "no log text"},
        {"agrees", file(body, "", 1), 0, agrees + ", number 1"},
        // The newest text ends in a line break just where an older record's
        // began, so the older start line follows the position at once.
        {"older", file(body, rec(9, "older").substr(1), 1), 0, agrees},
        {"number", file(body, "", 7), 1, "the header's number 7 is not the number of the newest record (1, at offset "},
        {"inside", file(body, "", 1, last + 5), 1, "the start line of the record at offset " + std::to_string(last)},
        {"in_fn", file(kOpen + rec(0, "fn(12): m"), "", 0, in_fn), 1, "inside the function name and line of the"},
    };
    for (const Row &r : rows) {
        const std::string path = dir + "/" + r.name;
        if (r.status != 3 || r.size)
            std::ofstream(path, std::ios::binary) << r.bytes;
        ASSERT_TRUE(!r.size || truncate(path.c_str(), r.size) == 0);
        const bool checked = r.status <= 1;
        for (Strings args : checked ? std::vector<Strings>{{"--check"}}
                                    : std::vector<Strings>{{}, {"--check"}, {"--json"}, {"--follow"}}) {
            args.push_back(path);
            Result run = tool(args);
            EXPECT_EQ(run.status, r.status) << r.name << " " << args[0];
            EXPECT_TRUE(run.out.starts_with((checked ? "" : "vobrel-log: ") + path + ": ") &&
                        lines_of(run.out).size() == 1 && run.out.find(r.says) != npos &&
                        run.out.find("garbage") == npos) << run.out;
        }
    }
}

// Under an address-space limit, a file whose bytes, or whose records, do not
// fit is named and skipped like a damaged one; the others are printed.
TEST(LogReaderOnDamagedFiles, ThoseTooBigForTheMemoryAtHandAreSkipped)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's shadow memory does not fit an address-space limit";
#endif
    log_as("small", 1);
    const std::string store = fake::log_dir() + "/vobrel.log";
    std::string many = kOpen;
    for (int i = 0; i < 800000; ++i)
        many += rec(i, "");
    std::ofstream(store + ".many", std::ios::binary) << file(many, "", 799999);
    std::ofstream(store + ".big", std::ios::binary) << file(kOpen, "", 0);
    ASSERT_EQ(truncate((store + ".big").c_str(), 90000000), 0);
    Child run({"/usr/bin/prlimit", "--as=" + std::to_string(64 << 20), VOBREL_LOG_TOOL, store});
    EXPECT_EQ(run.status(), 9);
    const Strings out = lines_of(run.out());
    ASSERT_EQ(out.size(), 4u) << run.out();
    EXPECT_EQ(out[0], "vobrel-log: " + store + ".big: cannot read: not enough memory for its 90000000 bytes");
    EXPECT_EQ(out[1], "vobrel-log: " + store + ".many: cannot read: not enough memory for its records");
    EXPECT_TRUE(out[3].starts_with("small     ") && out[3].ends_with(": small 0 ")) << out[3];
}

// A neighbour's entries in a shared store: a link and a second name of a file
// only root may read, a FIFO, a file of its own, a name with terminal
// controls. None is followed, read or waited on; no name reaches the output raw.
TEST(LogReaderOnDamagedFiles, PlantedStoreEntriesAreNamedEscapedAndSkipped)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to plant a file as another user";
    const std::string dir = fake::log_dir(), store = dir + "/vobrel.log", secret = dir + "/secret";
    for (const char *name : {"/secret", "/theirs"})
        std::ofstream(dir + name) << file(kOpen + rec(0, "SECRET"), "", 0);
    ASSERT_TRUE(chmod(secret.c_str(), 0600) == 0 && chmod((dir + "/theirs").c_str(), 0644) == 0);
    ASSERT_EQ(chmod(dir.c_str(), 01777), 0); // shared, like /tmp
    Child cp({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/bin/cp", dir + "/theirs",
              store + ".theirs"});
    ASSERT_EQ(cp.status(), 0) << cp.out();
    ASSERT_EQ(symlink(secret.c_str(), (store + ".\x1b]0;owned\x07").c_str()), 0);
    ASSERT_EQ(link(secret.c_str(), (store + ".hard").c_str()), 0);
    ASSERT_EQ(mkfifo((store + ".fifo").c_str(), 0600), 0);
    log_as("ok\x1b[2J", 1);
    for (const char *mode : {"--check", "--json", "--lines=9"}) {
        const Result run = tool({mode, store});
        EXPECT_EQ(run.status, 9);
        EXPECT_TRUE(run.out.find("SECRET") == npos && run.out.find('\x1b') == npos) << run.out;
        for (const char *says : {".\\x1b]0;owned\\x07: skipped: a symbolic link\n",
                                 ".fifo: skipped: not a regular file\n", ".hard: skipped: a file with 2 names\n",
                                 ".theirs: skipped: owned by user 65534, neither you nor root\n"})
            EXPECT_NE(run.out.find(store + says), npos) << run.out;
    }
}

TEST(LogReaderOutput, JsonCarriesEveryFieldAndAnyBytes)
{
    if (!*VOBREL_PYTHON3)
        GTEST_SKIP() << "no python3 to parse the JSON with";
    for (const char *m : {"quote \" \\ \t \r \x07 \x7f", "utf-8 \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
                          "invalid \xff \xc0\xaf \xed\xa0\x80 \xe2\x82"})
        vobrel_write_to_log("json_fn", 3, "%s", m);
    vobrel_write_to_log(nullptr, 0, "nul %c byte\n", 0);
    // vobrel-log --json through a strict JSON parser, each object written
    // again as a list of its fields in the parser's own escapes.
    Child py({VOBREL_PYTHON3, "-c",
              "import json, subprocess, sys\n"
              "out = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE, check=True).stdout.decode()\n"
              "for o in map(json.loads, out.split('\\n')[:-1]):\n"
              "    print(json.dumps([o.get(k) for k in ('type', 'number', 'pid', 'function', 'line', 'message',\n"
              "                                         'message_base64')]), len(o['time']))\n",
              VOBREL_LOG_TOOL, "--json", fake::log_path()});
    ASSERT_EQ(py.status(), 0) << py.out();
    const std::string pid = std::to_string(getpid()), fn = ", " + pid + R"(, "json_fn", 3, )";
    EXPECT_EQ(lines_of(py.out()),
              (Strings{R"(["open", null, null, null, null, null, null] 19)",
                       R"(["record", 0)" + fn + R"("quote \" \\ \t \r \u0007 \u007f", null] 19)",
                       R"(["record", 1)" + fn + R"("utf-8 \u00e9 \u20ac \ud83d\ude00", null] 19)",
                       // Each byte of a bad sequence reads U+FFFD; the bytes themselves are in base64.
                       R"(["record", 2)" + fn + R"("invalid \ufffd \ufffd\ufffd \ufffd\ufffd\ufffd \ufffd\ufffd", )" +
                           R"("aW52YWxpZCD/IMCvIO2ggCDigg=="] 19)",
                       R"(["record", 3, )" + pid + R"(, null, null, "nul \u0000 byte\n", null] 19)"}));
}

TEST(LogReaderOptions, UsageErrorsExitWith2)
{
    for (const Strings &args :
         {Strings{}, Strings{"--bogus", "f"}, Strings{"--from-record", "x", "f"}, Strings{"--since", "12", "f"},
          Strings{"--until", "2024/02/03-04:05", "f"}, Strings{"--interval", "0", "f"}, Strings{"-n", "-1", "f"},
          Strings{"--check", "--grep", "x", "f"}, Strings{"--follow", "--reverse", "f"}})
        EXPECT_EQ(tool(args).status, 2) << testing::PrintToString(args);
}

// A store followed while this process's file wraps several times, then while
// another process's file appears, then this one again.
TEST(LogReaderFollow, FollowsAStoreAcrossWrapsAndFilesThatAppearLater)
{
    fake::set_log_file_size(450);
    vobrel_write_to_log(nullptr, 0, "before follow");
    Child follow({VOBREL_LOG_TOOL, "--follow", "--interval", "5", fake::log_dir() + "/vobrel.log"});
    ASSERT_TRUE(follow.wait_for(": before follow\n"));
    const std::string me = vob_proc_name;
    Strings written{me + " open", me + ": before follow"};
    int wraps = 0;
    for (int i = 0; i < 48; ++i) {
        const std::string m = "live " + std::to_string(i) + std::string(static_cast<size_t>(i % 4) * 9, '+');
        vobrel_write_to_log(nullptr, 0, "%s", m.c_str());
        written.push_back(me + ": " + m);
        wraps += fake::log_header_number() == 0;
        // Two at a time, so that nothing is overwritten unread.
        ASSERT_TRUE(i % 2 == 0 || follow.wait_for(": " + m + "\n")) << follow.out();
    }
    log_as("late", 2);
    ASSERT_TRUE(follow.wait_for(": late 1 .\n")) << follow.out();
    vobrel_write_to_log(nullptr, 0, "after late"); // may wrap too, with a short pid
    wraps += fake::log_header_number() == 0;
    ASSERT_TRUE(follow.wait_for(": after late\n")) << follow.out();
    EXPECT_EQ(follow.status(SIGTERM), 0);
    written.insert(written.end(), {"late open", "late: late 0 ", "late: late 1 .", me + ": after late"});
    Strings seen;
    int banners = 0;
    for (const std::string &l : lines_of(follow.out())) // a notice on stderr would show here too
        if (l.find(" ---- ") == npos)
            seen.push_back(l.substr(0, l.find(' ')) + ": " + l.substr(l.find(": ") + 2));
        else if (l.find(" HIT 450 Limit, ") == npos)
            seen.push_back(l.substr(0, l.find(' ')) + " open");
        else
            ++banners;
    EXPECT_EQ(seen, written); // each once, in order
    EXPECT_EQ(banners, wraps);
}

TEST(LogReaderFollow, StopsAtOnceOnSigint)
{
    vobrel_write_to_log(nullptr, 0, "only");
    // Started with SIGINT blocked, it holds the signal pending as one that
    // came right after its look at the stop flag: only a wait that lets the
    // signal through sees it.
    sigset_t intr, old;
    sigemptyset(&intr);
    sigaddset(&intr, SIGINT);
    pthread_sigmask(SIG_BLOCK, &intr, &old);
    Child follow({VOBREL_LOG_TOOL, "-f", "--interval", "60000", fake::log_path()});
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ASSERT_TRUE(follow.wait_for(": only\n"));
    EXPECT_EQ(follow.status(SIGINT), 0); // well before the 60 s wait ends
}

TEST(LogReaderTimeline, OrdersByTimeKeepingEachFilesOrder)
{
    auto at = [](int n, const std::string &msg, const char *sec) {
        return rec(n, msg, 5, std::string("2024/02/03-04:05:") + sec);
    };
    const std::string store = fake::log_dir() + "/st";
    std::ofstream(store + ".a") << file(at(0, "a0", "01") + at(1, "a1", "03") + at(2, "a2", "03"), "", 2);
    // The clock went back before b2: it stays after b1.
    std::ofstream(store + ".b") << file(at(0, "b0", "02") + at(1, "b1", "03") + at(2, "b2", "02") + at(3, "b3", "04"),
                                        "", 3);
    auto messages = [&](Strings args) {
        args.push_back(store);
        Strings out;
        for (const std::string &l : lines_of(tool(args).out))
            out.push_back(l.substr(0, 1) + ":" + l.substr(l.rfind(' ') + 1));
        return out;
    };
    EXPECT_EQ(messages({}), (Strings{"a:a0", "b:b0", "a:a1", "a:a2", "b:b1", "b:b2", "b:b3"}));
    EXPECT_EQ(messages({"--since", "2024/02/03-04:05:03", "--until", "2024/02/03"}),
              (Strings{"a:a1", "a:a2", "b:b1", "b:b3"}));
    EXPECT_EQ(messages({"--until", "2024/02/02"}), Strings{});
    EXPECT_EQ(messages({"-n", "2", "--reverse"}), (Strings{"b:b3", "b:b2"}));
    EXPECT_EQ(messages({"--from-record", "2", "--grep", "b", "--pid", "5"}), (Strings{"b:b2", "b:b3"}));
    EXPECT_EQ(messages({"--from-record", "99999"}), Strings{});
    EXPECT_EQ(messages({"--pid", "1"}), Strings{});
}
