// vobrel-log: prints a vobrel log file in order, follows it while a process
// writes it, or checks its header.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/logread/logread.h"

namespace {

// Exit statuses; each kind of unreadable file has its own.
enum Exit {
    kOk = 0,
    kCheckFailed = 1,
    kUsage = 2,
    kUnreadable = 3,
    kEmpty = 4,
    kShort = 5,
    kHeaderNotNumbers = 6,
    kPositionOutside = 7,
    kNotALog = 8,
};

const char kUsageText[] =
    "Usage: vobrel-log [OPTION]... FILE\n"
    "Print a vobrel log file in order, oldest record first.\n"
    "\n"
    "The log wraps: after the newest record (the header's position) come the\n"
    "remains of older records. vobrel-log prints those first, skipping the one\n"
    "cut by the overwrite, then the records from the top of the file.\n"
    "\n"
    "  -f, --follow        keep printing records as they are written, across wraps,\n"
    "                      until interrupted (Ctrl-C, SIGTERM)\n"
    "      --interval MS   with --follow, look for new records every MS milliseconds\n"
    "                      (1 to 60000, default 200)\n"
    "  -j, --json          one JSON object per line for each record and banner:\n"
    "                      type, offset, time, number, pid, function, line, message\n"
    "                      (message_base64 too when the message is not UTF-8)\n"
    "  -c, --check         check the header against the records: its position must\n"
    "                      end the newest record and its number be that record's;\n"
    "                      says what is wrong and exits with 1 if they disagree\n"
    "      --since N       start at the record numbered N (the first one in reading\n"
    "                      order; numbers restart at 0 after a wrap), or, if there\n"
    "                      is none, at the first record numbered above N\n"
    "      --grep TEXT     only records whose function name or message holds TEXT\n"
    "      --pid PID       only records written by process PID\n"
    "  -h, --help          show this help and exit\n"
    "\n"
    "Records show: time #number pid PID [function(line)]: message\n"
    "Banners show as lines starting with \"----\"; --grep and --pid hide them.\n"
    "\n"
    "Exit status: 0 success; 1 --check found a problem; 2 bad usage;\n"
    "3 FILE cannot be read; 4 FILE is empty; 5 FILE is shorter than the header;\n"
    "6 the header is not two numbers; 7 the header's position is outside the\n"
    "file; 8 FILE holds no log text.\n";

volatile sig_atomic_t g_stop = 0;

void on_stop(int)
{
    g_stop = 1;
}

struct Options {
    bool follow = false;
    bool json = false;
    bool check = false;
    int interval_ms = 200;
    logread::Filter filter;
    const char *path = nullptr;
};

bool parse_int(const char *s, int64_t min, int64_t max, int64_t &out)
{
    if (!s || !*s)
        return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    out = v;
    return true;
}

int usage_error(const std::string &what)
{
    fprintf(stderr, "vobrel-log: %s\nTry 'vobrel-log --help'.\n", what.c_str());
    return kUsage;
}

// Returns -1 when the options are good, otherwise the exit status.
int parse_options(int argc, char **argv, Options &o)
{
    enum { kSince = 256, kGrep, kPid, kInterval };
    static const option kLong[] = {
        {"follow", no_argument, nullptr, 'f'},   {"json", no_argument, nullptr, 'j'},
        {"check", no_argument, nullptr, 'c'},    {"help", no_argument, nullptr, 'h'},
        {"since", required_argument, nullptr, kSince}, {"grep", required_argument, nullptr, kGrep},
        {"pid", required_argument, nullptr, kPid},     {"interval", required_argument, nullptr, kInterval},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":fjch", kLong, nullptr)) != -1) {
        int64_t v = 0;
        switch (c) {
        case 'f':
            o.follow = true;
            break;
        case 'j':
            o.json = true;
            break;
        case 'c':
            o.check = true;
            break;
        case 'h':
            fputs(kUsageText, stdout);
            return kOk;
        case kSince:
            if (!parse_int(optarg, INT32_MIN, INT32_MAX, v))
                return usage_error(std::string("--since needs a record number, not '") + optarg + "'");
            o.filter.since_set = true;
            o.filter.since = v;
            break;
        case kGrep:
            o.filter.grep_set = true;
            o.filter.grep = optarg;
            break;
        case kPid:
            if (!parse_int(optarg, 0, INT32_MAX, v))
                return usage_error(std::string("--pid needs a process id, not '") + optarg + "'");
            o.filter.pid_set = true;
            o.filter.pid = v;
            break;
        case kInterval:
            if (!parse_int(optarg, 1, 60000, v))
                return usage_error(std::string("--interval needs 1 to 60000 milliseconds, not '") + optarg + "'");
            o.interval_ms = static_cast<int>(v);
            break;
        case ':':
            return usage_error(std::string("option '") + argv[optind - 1] + "' needs a value");
        default:
            return usage_error(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    if (optind >= argc)
        return usage_error("no log file given");
    if (argc - optind > 1)
        return usage_error("one log file at a time");
    o.path = argv[optind];
    if (o.check && (o.follow || o.json || o.filter.since_set || o.filter.grep_set || o.filter.pid_set))
        return usage_error("--check takes no other option");
    return -1;
}

// Log files stay below 100,000,000 bytes plus one record.
constexpr off_t kMaxFile = 256L * 1024 * 1024;

// The items point into `bytes`, which therefore lives on the heap and moves
// with the snapshot.
struct Snapshot {
    std::unique_ptr<std::string> bytes = std::make_unique<std::string>();
    logread::Log log;
    logread::Status status = logread::Status::Ok;
};

// Reads a regular file whole; never blocks on a FIFO or device.
bool read_file(const char *path, std::string &out, std::string &err)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        err = strerror(errno);
        return false;
    }
    struct stat st;
    bool ok = false;
    if (fstat(fd, &st) != 0) {
        err = strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        err = S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file";
    } else if (st.st_size > kMaxFile) {
        err = "too large to be a log file";
    } else {
        out.resize(static_cast<size_t>(st.st_size));
        size_t got = 0;
        ok = true;
        while (got < out.size()) {
            ssize_t n = read(fd, &out[got], out.size() - got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0) {
                err = strerror(errno);
                ok = false;
                break;
            }
            if (n == 0)
                break;
            got += static_cast<size_t>(n);
        }
        out.resize(got);
    }
    close(fd);
    return ok;
}

bool load(const char *path, Snapshot &s, std::string &err)
{
    if (!read_file(path, *s.bytes, err))
        return false;
    s.status = logread::parse(*s.bytes, s.log);
    return true;
}

int exit_for(logread::Status st)
{
    switch (st) {
    case logread::Status::Ok:
        return kOk;
    case logread::Status::Empty:
        return kEmpty;
    case logread::Status::Short:
        return kShort;
    case logread::Status::HeaderNotNumbers:
        return kHeaderNotNumbers;
    case logread::Status::PositionOutside:
        return kPositionOutside;
    case logread::Status::NotALog:
        return kNotALog;
    }
    return kNotALog;
}

// The header's bytes as text, control bytes shown as \xNN.
std::string shown_header(const std::string &bytes)
{
    std::string out;
    for (size_t i = 0; i < logread::kHeaderSize && i < bytes.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\') {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

int report_bad_file(const char *path, const Snapshot &s)
{
    std::string detail;
    switch (s.status) {
    case logread::Status::Short:
        detail = " (" + std::to_string(s.bytes->size()) + " bytes)";
        break;
    case logread::Status::HeaderNotNumbers:
        detail = " (it reads \"" + shown_header(*s.bytes) + "\")";
        break;
    case logread::Status::PositionOutside:
        detail = " (position " + std::to_string(s.log.header_position) + ", text from 16 to " +
                 std::to_string(s.bytes->size()) + ")";
        break;
    default:
        break;
    }
    fprintf(stderr, "vobrel-log: %s: %s%s\n", path, logread::status_text(s.status), detail.c_str());
    return exit_for(s.status);
}

void print(const std::vector<const logread::Item *> &items, bool json)
{
    for (const logread::Item *it : items) {
        std::string line = json ? logread::format_json(*it) : logread::format_text(*it);
        fwrite(line.data(), 1, line.size(), stdout);
    }
    fflush(stdout);
}

int run_check(const char *path, const Snapshot &s)
{
    std::vector<std::string> problems = logread::check(*s.bytes, s.log);
    size_t records = 0;
    for (const logread::Item &it : s.log.items)
        records += it.kind == logread::Kind::Record;
    if (problems.empty()) {
        printf("%s: header agrees with the text (position %lld, number %lld, %zu records)\n", path,
               static_cast<long long>(s.log.header_position), static_cast<long long>(s.log.header_number), records);
        return kOk;
    }
    for (const std::string &p : problems)
        printf("%s: %s\n", path, p.c_str());
    return kCheckFailed;
}

// What tells, without reading the whole file, that it may have changed.
struct Stamp {
    std::string head;
    off_t size = -1;
    struct timespec mtime {};
    ino_t ino = 0;

    bool operator==(const Stamp &o) const
    {
        return head == o.head && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec && ino == o.ino;
    }
};

bool take_stamp(const char *path, Stamp &s)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (ok) {
        char buf[logread::kHeaderSize];
        ssize_t n = pread(fd, buf, sizeof buf, 0);
        s.head.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
        s.size = st.st_size;
        s.mtime = st.st_mtim;
        s.ino = st.st_ino;
    }
    close(fd);
    return ok;
}

void pause_ms(int ms)
{
    if (!g_stop)
        poll(nullptr, 0, ms); // a signal ends it early
}

// The writer puts a record, then its position, then its number into the file:
// a snapshot taken in between is not compared until the file has stayed the
// same for one interval (a writer that stopped half-way leaves it so).
int run_follow(const Options &o, Snapshot prev, logread::Selector &sel)
{
    Stamp last; // none yet: the first turn compares with the listing's snapshot
    Stamp waiting;
    bool have_waiting = false;
    while (!g_stop) {
        pause_ms(o.interval_ms);
        Stamp now;
        if (g_stop || !take_stamp(o.path, now) || now == last)
            continue;
        Snapshot cur;
        std::string err;
        // A file that is unreadable for a moment (being created, or damaged
        // and rewritten) is read again once it changes.
        if (!load(o.path, cur, err) || cur.status != logread::Status::Ok) {
            last = now;
            continue;
        }
        if (!logread::settled(*cur.bytes, cur.log) && !(have_waiting && now == waiting)) {
            waiting = now;
            have_waiting = true;
            continue;
        }
        last = now;
        have_waiting = false;
        bool lost = false;
        std::vector<const logread::Item *> fresh =
            logread::fresh_items(*prev.bytes, prev.log, *cur.bytes, cur.log, &lost);
        if (lost) {
            fflush(stdout);
            fprintf(stderr, "vobrel-log: %s: the log wrapped and overwrote records before they could be read\n",
                    o.path);
        }
        print(sel.next(fresh), o.json);
        prev = std::move(cur);
    }
    return kOk;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    int rc = parse_options(argc, argv, o);
    if (rc >= 0)
        return rc;

    Snapshot s;
    std::string err;
    if (!load(o.path, s, err)) {
        fprintf(stderr, "vobrel-log: %s: cannot read: %s\n", o.path, err.c_str());
        return kUnreadable;
    }
    if (s.status != logread::Status::Ok)
        return report_bad_file(o.path, s);
    if (o.check)
        return run_check(o.path, s);

    if (o.follow) {
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_handler = on_stop; // no SA_RESTART: a wait ends at once
        sigaction(SIGINT, &sa, nullptr);
        sigaction(SIGTERM, &sa, nullptr);
        // Start from a finished write if one comes within a few intervals.
        for (int tries = 0; tries < 5 && !g_stop && !logread::settled(*s.bytes, s.log); ++tries) {
            pause_ms(o.interval_ms);
            Snapshot again;
            if (load(o.path, again, err) && again.status == logread::Status::Ok)
                s = std::move(again);
        }
    }
    logread::Selector sel(o.filter);
    print(sel.first(logread::all_items(s.log)), o.json);
    if (!o.follow)
        return kOk;
    return run_follow(o, std::move(s), sel);
}
