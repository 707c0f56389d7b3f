// vobrel-log: prints vobrel log files in order, one file or every process's
// merged into one timeline, follows them while processes write them, or
// checks their headers.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <new>
#include <poll.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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
    kSkipped = 9,
};

const char kUsageText[] =
    "Usage: vobrel-log [OPTION]... FILE...\n"
    "Print vobrel log files in order, oldest record first.\n"
    "\n"
    "The log wraps: after the newest record (the header's position) come the\n"
    "remains of older records. vobrel-log prints those first, skipping the one\n"
    "cut by the overwrite, then the records from the top of the file.\n"
    "\n"
    "Each process writes its own file, STORE.NAME (NAME its short name). A FILE\n"
    "that does not exist is taken as such a STORE path and stands for every\n"
    "STORE.* file. Several files are merged into one timeline ordered by time\n"
    "stamp (each file's records keep their order), every line starting with\n"
    "the process's short name: the part of the file name after STORE. or, for a\n"
    "file named alone, after its last '.'. One existing FILE prints unlabelled.\n"
    "A STORE's files are read only when they are regular files with one name,\n"
    "owned by the user or by root, and not symbolic links; other entries are\n"
    "named on standard error and skipped. A file over 100000000 bytes (larger\n"
    "than any log) is refused unread.\n"
    "\n"
    "  -f, --follow        keep printing records as they are written, across wraps,\n"
    "                      until interrupted (Ctrl-C, SIGTERM); a STORE's files\n"
    "                      that appear later are picked up\n"
    "      --interval MS   with --follow, look for new records every MS milliseconds\n"
    "                      (1 to 60000, default 200)\n"
    "  -j, --json          one JSON object per line for each record and banner:\n"
    "                      type, process (several files), offset, time, number,\n"
    "                      pid, function, line, message (message_base64 too when\n"
    "                      the message is not UTF-8)\n"
    "  -c, --check         check the header against the records: its position must\n"
    "                      end the newest record and its number be that record's;\n"
    "                      says what is wrong and exits with 1 if they disagree\n"
    "      --since TIME    only records and banners stamped TIME or later\n"
    "      --until TIME    only records and banners stamped TIME or earlier; TIME is\n"
    "                      YYYY/MM/DD-hh:mm:ss, or YYYY/MM/DD for the day's first\n"
    "                      second (--since) or last second (--until)\n"
    "      --from-record N start at the record numbered N (in each file, the first\n"
    "                      one in reading order; numbers restart at 0 after a wrap),\n"
    "                      or, if there is none, at the first one numbered above N\n"
    "      --grep TEXT     only records whose function name or message holds TEXT\n"
    "      --pid PID       only records written by process PID\n"
    "  -n, --lines N       only the newest N records and banners of the listing\n"
    "                      (with --follow, of the first listing)\n"
    "  -r, --reverse       newest first (not with --follow)\n"
    "  -h, --help          show this help and exit\n"
    "\n"
    "Records show: [NAME] time #number pid PID [function(line)]: message\n"
    "Banners show as lines starting with \"----\"; --grep and --pid hide them.\n"
    "\n"
    "Exit status: 0 success; 1 --check found a problem; 2 bad usage;\n"
    "for one FILE: 3 FILE cannot be read (or memory ran out); 4 FILE is empty;\n"
    "5 FILE is shorter than the header; 6 the header is not two numbers; 7 the\n"
    "header's position is outside the file; 8 FILE holds no log text;\n"
    "for several files or a STORE: 3 a STORE has no file; 9 some files could not\n"
    "be read or were refused, were named on standard error and skipped, the rest\n"
    "was printed (9 also comes before 1 with --check).\n";

volatile sig_atomic_t g_stop = 0;
sigset_t g_stop_signals; // SIGINT and SIGTERM

void on_stop(int)
{
    g_stop = 1;
}

// Waits `ms`, or until a stop signal comes. The stop flag is tested with the
// stop signals blocked and ppoll lets them through only while it waits, so
// one that comes after the test is held and ends the wait at once.
void pause_ms(int ms)
{
    sigset_t old, during;
    sigprocmask(SIG_BLOCK, &g_stop_signals, &old);
    during = old;
    sigdelset(&during, SIGINT);
    sigdelset(&during, SIGTERM);
    const struct timespec wait = {ms / 1000, ms % 1000 * 1000000L};
    if (!g_stop)
        ppoll(nullptr, 0, &wait, &during);
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

// The files' items are kept in arrays that report a failed allocation, so a
// file too big for the memory at hand is one bad file; what else is
// allocated is small beside them. Should even that fail, the tool says so
// and ends rather than abort.
void out_of_memory()
{
    static const char kText[] = "vobrel-log: out of memory\n";
    fflush(stdout);
    (void)!write(2, kText, sizeof kText - 1);
    _exit(kUnreadable);
}

struct Options {
    bool follow = false;
    bool json = false;
    bool check = false;
    bool reverse = false;
    int interval_ms = 200;
    int64_t lines = -1; // -1: all
    logread::Filter filter;
    std::vector<std::string> paths;
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
    fprintf(stderr, "vobrel-log: %s\nTry 'vobrel-log --help'.\n", logread::shown(what).c_str());
    return kUsage;
}

enum { kSince = 256, kUntil, kFromRecord, kGrep, kPid, kInterval };

// One option with its value; -1 when good, otherwise the exit status.
int take_option(int c, const char *arg, Options &o)
{
    int64_t v = 0;
    const std::string given = arg ? std::string(", not '") + arg + "'" : "";
    switch (c) {
    case kSince:
    case kUntil:
        if (parse_int(arg, INT32_MIN, INT32_MAX, v))
            return usage_error(std::string(c == kSince ? "--since" : "--until") +
                               " takes a time; for a record number, use --from-record N");
        if (!logread::parse_time(arg, c == kUntil, c == kSince ? o.filter.since : o.filter.until))
            return usage_error("a time is YYYY/MM/DD-hh:mm:ss or YYYY/MM/DD" + given);
        return -1;
    case kFromRecord:
        if (!parse_int(arg, INT32_MIN, INT32_MAX, v))
            return usage_error("--from-record needs a record number" + given);
        o.filter.from_record_set = true;
        o.filter.from_record = v;
        return -1;
    case kGrep:
        o.filter.grep_set = true;
        o.filter.grep = arg;
        return -1;
    case kPid:
        if (!parse_int(arg, 0, INT32_MAX, v))
            return usage_error("--pid needs a process id" + given);
        o.filter.pid_set = true;
        o.filter.pid = v;
        return -1;
    case kInterval:
        if (!parse_int(arg, 1, 60000, v))
            return usage_error("--interval needs 1 to 60000 milliseconds" + given);
        o.interval_ms = static_cast<int>(v);
        return -1;
    case 'n':
        if (!parse_int(arg, 0, INT32_MAX, v))
            return usage_error("--lines needs a count" + given);
        o.lines = v;
        return -1;
    }
    return -1;
}

int check_combination(const Options &o)
{
    const logread::Filter &f = o.filter;
    bool filtered = f.from_record_set || f.grep_set || f.pid_set || !f.since.empty() || !f.until.empty();
    if (o.check && (o.follow || o.json || o.reverse || o.lines >= 0 || filtered))
        return usage_error("--check takes no other option");
    if (o.follow && o.reverse)
        return usage_error("--reverse cannot follow");
    return -1;
}

// Returns -1 when the options are good, otherwise the exit status.
int parse_options(int argc, char **argv, Options &o)
{
    static const option kLong[] = {
        {"follow", no_argument, nullptr, 'f'},
        {"json", no_argument, nullptr, 'j'},
        {"check", no_argument, nullptr, 'c'},
        {"reverse", no_argument, nullptr, 'r'},
        {"help", no_argument, nullptr, 'h'},
        {"lines", required_argument, nullptr, 'n'},
        {"since", required_argument, nullptr, kSince},
        {"until", required_argument, nullptr, kUntil},
        {"from-record", required_argument, nullptr, kFromRecord},
        {"grep", required_argument, nullptr, kGrep},
        {"pid", required_argument, nullptr, kPid},
        {"interval", required_argument, nullptr, kInterval},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":fjcrhn:", kLong, nullptr)) != -1) {
        if (c == 'h') {
            fputs(kUsageText, stdout);
            return kOk;
        }
        if (c == ':')
            return usage_error(std::string("option '") + argv[optind - 1] + "' needs a value");
        if (c == '?')
            return usage_error(std::string("unknown option '") + argv[optind - 1] + "'");
        o.follow |= c == 'f';
        o.json |= c == 'j';
        o.check |= c == 'c';
        o.reverse |= c == 'r';
        int rc = take_option(c, optarg, o);
        if (rc >= 0)
            return rc;
    }
    if (optind >= argc)
        return usage_error("no log file given");
    o.paths.assign(argv + optind, argv + argc);
    return check_combination(o);
}

// A log's positions stay below 100,000,000 (the header's "%8d" fields), and
// so does its size: the limit plus the longest record must stay below it.
constexpr off_t kMaxFile = 100000000;

// A file's bytes in one block of the C heap. The items point into it; a
// move keeps the block, so they move with it.
struct Bytes {
    Bytes() = default;
    Bytes(Bytes &&o) noexcept { *this = std::move(o); }
    Bytes &operator=(Bytes &&o) noexcept
    {
        std::swap(data, o.data);
        std::swap(size, o.size);
        return *this;
    }
    ~Bytes() { free(data); }
    std::string_view view() const { return {data, size}; }
    char *data = nullptr;
    size_t size = 0;
};

struct Snapshot {
    Bytes bytes;
    logread::Log log;
    logread::Status status = logread::Status::Ok;
};

// Opens a file to read: close-on-exec, never blocking on a FIFO or device,
// and only if it is a regular file. A store's entry is not the caller's own
// choice (a neighbour may plant anything in a shared directory): a link
// there is not followed, and the file must have one name and belong to the
// reader or to root. -1 with `err` set otherwise.
int open_log(const char *path, bool in_store, struct stat &st, std::string &err)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | (in_store ? O_NOFOLLOW : 0));
    if (fd < 0) {
        err = in_store && errno == ELOOP ? "skipped: a symbolic link" : std::string("cannot read: ") + strerror(errno);
        return -1;
    }
    if (fstat(fd, &st) != 0)
        err = std::string("cannot read: ") + strerror(errno);
    else if (!S_ISREG(st.st_mode))
        err = std::string(in_store ? "skipped: " : "cannot read: ") +
              (S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file");
    else if (in_store && st.st_uid != geteuid() && st.st_uid != 0)
        err = "skipped: owned by user " + std::to_string(st.st_uid) + ", neither you nor root";
    else if (in_store && st.st_nlink != 1)
        err = "skipped: a file with " + std::to_string(st.st_nlink) + " names";
    else
        return fd;
    close(fd);
    return -1;
}

bool read_all(int fd, Bytes &out, size_t size, std::string &err)
{
    while (out.size < size) {
        ssize_t n = read(fd, out.data + out.size, size - out.size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            err = std::string("cannot read: ") + strerror(errno);
            return false;
        }
        if (n == 0)
            break;
        out.size += static_cast<size_t>(n);
    }
    return true;
}

// Reads a file whole; one too big to be a log is refused before, and one
// too big for the memory at hand is reported like a damaged one.
bool read_file(const char *path, bool in_store, Bytes &out, std::string &err)
{
    struct stat st;
    int fd = open_log(path, in_store, st, err);
    if (fd < 0)
        return false;
    const size_t size = static_cast<size_t>(st.st_size);
    bool ok = false;
    if (st.st_size > kMaxFile)
        err = "cannot read: " + std::to_string(st.st_size) + " bytes, too large to be a log file";
    else if (!(out.data = static_cast<char *>(malloc(size ? size : 1))))
        err = "cannot read: not enough memory for its " + std::to_string(size) + " bytes";
    else
        ok = read_all(fd, out, size, err);
    close(fd);
    return ok;
}

bool load(const char *path, bool in_store, Snapshot &s, std::string &err)
{
    if (!read_file(path, in_store, s.bytes, err))
        return false;
    s.status = logread::parse(s.bytes.view(), s.log);
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
    case logread::Status::NoMemory:
        return kUnreadable;
    }
    return kNotALog;
}

// Nothing of a file that is not recognised as a log is quoted (it may be
// anyone's): sizes, and the position of a header that holds numbers.
int report_bad_file(const std::string &path, const Snapshot &s)
{
    std::string detail;
    if (s.status == logread::Status::Short)
        detail = " (" + std::to_string(s.log.size) + " bytes)";
    if (s.status == logread::Status::PositionOutside)
        detail = " (position " + std::to_string(s.log.header_position) + ", text from 16 to " +
                 std::to_string(s.log.size) + ")";
    fprintf(stderr, "vobrel-log: %s: %s%s\n", logread::shown(path).c_str(), logread::status_text(s.status),
            detail.c_str());
    return exit_for(s.status);
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

bool take_stamp(const char *path, bool in_store, Stamp &s, std::string &err)
{
    struct stat st;
    int fd = open_log(path, in_store, st, err);
    if (fd < 0)
        return false;
    char buf[logread::kHeaderSize];
    ssize_t n = pread(fd, buf, sizeof buf, 0);
    s.head.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
    s.size = st.st_size;
    s.mtime = st.st_mtim;
    s.ino = st.st_ino;
    close(fd);
    return true;
}

// A file of the timeline and what has been read of it.
struct Source {
    Source(std::string p, std::string n, bool s, const logread::Filter &f)
        : path(std::move(p)), name(std::move(n)), in_store(s), sel(f)
    {
    }
    std::string path;
    std::string name; // the label; empty when one file is read alone
    bool in_store;    // found in a STORE's directory, not named by the caller
    bool noted = false; // a failed open was named on standard error
    Snapshot snap;    // the last good snapshot, when `have`
    bool have = false;
    logread::Selector sel;
    Stamp last; // none yet: the first turn of --follow compares with `snap`
    Stamp waiting;
    bool have_waiting = false;
};

struct Timeline {
    std::vector<std::string> stores; // looked at again by --follow
    std::vector<Source> sources;
    std::set<std::string> known; // the sources' paths
    bool alone = false; // one FILE: unlabelled, with its own exit statuses
};

// The label of a file named alone: what follows the last '.' of its name.
std::string short_name(const std::string &path)
{
    size_t slash = path.rfind('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    size_t dot = base.rfind('.');
    return dot == std::string::npos || dot + 1 == base.size() ? base : base.substr(dot + 1);
}

// The short names of the entries "<store>.*", sorted; what they are is
// found out when they are opened.
std::vector<std::string> store_names(const std::string &store)
{
    size_t slash = store.rfind('/');
    std::string dir = slash == std::string::npos ? "." : store.substr(0, slash + 1);
    std::string prefix = (slash == std::string::npos ? store : store.substr(slash + 1)) + ".";
    std::vector<std::string> names;
    DIR *d = opendir(dir.c_str());
    if (!d)
        return names;
    while (const dirent *e = readdir(d)) {
        std::string_view n = e->d_name;
        if (n.size() > prefix.size() && n.starts_with(prefix))
            names.emplace_back(n.substr(prefix.size()));
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// Adds the store's files not yet in the timeline; how many were added.
size_t add_store_files(Timeline &t, const std::string &store, const logread::Filter &f)
{
    size_t added = 0;
    for (const std::string &name : store_names(store)) {
        std::string path = store + "." + name;
        if (t.known.insert(path).second) {
            t.sources.emplace_back(path, name, true, f);
            ++added;
        }
    }
    return added;
}

// The files that the arguments name; -1 or the exit status.
int gather(const Options &o, Timeline &t)
{
    for (const std::string &p : o.paths) {
        struct stat st;
        if (stat(p.c_str(), &st) == 0) {
            t.known.insert(p);
            t.sources.emplace_back(p, short_name(p), false, o.filter);
            continue;
        }
        t.stores.push_back(p);
        if (add_store_files(t, p, o.filter) == 0) {
            const std::string shown = logread::shown(p);
            fprintf(stderr, "vobrel-log: %s: cannot read: no such file, nor any %s.* file\n", shown.c_str(),
                    shown.c_str());
            return kUnreadable;
        }
    }
    t.alone = o.paths.size() == 1 && t.stores.empty();
    if (t.alone)
        t.sources[0].name.clear();
    return -1;
}

// Reads every file; a bad one is reported. -1, or the exit status of a bad
// file read alone.
int load_all(Timeline &t, bool &skipped)
{
    for (Source &s : t.sources) {
        std::string err;
        if (!load(s.path.c_str(), s.in_store, s.snap, err)) {
            fprintf(stderr, "vobrel-log: %s: %s\n", logread::shown(s.path).c_str(), err.c_str());
            s.noted = true;
            s.snap = Snapshot{}; // what was read of it goes at once
            if (t.alone)
                return kUnreadable;
        } else if (s.snap.status != logread::Status::Ok) {
            int rc = report_bad_file(s.path, s.snap);
            s.snap = Snapshot{};
            if (t.alone)
                return rc;
        } else {
            s.have = true;
        }
        skipped = skipped || !s.have;
    }
    return -1;
}

void print(const std::vector<logread::Entry> &entries, const Timeline &t, bool json)
{
    for (const logread::Entry &e : entries) {
        const std::string &name = t.sources[e.source].name;
        std::string line = json ? logread::format_json(*e.item, name) : logread::format_text(*e.item, name);
        fwrite(line.data(), 1, line.size(), stdout);
    }
    fflush(stdout);
}

int run_check(const Source &src)
{
    const Snapshot &s = src.snap;
    const std::string shown = logread::shown(src.path);
    const char *path = shown.c_str();
    std::vector<std::string> problems = logread::check(s.bytes.view(), s.log);
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

// Start from finished writes if they come within a few intervals.
void settle(Timeline &t, int interval_ms)
{
    for (int tries = 0; tries < 5 && !g_stop; ++tries) {
        bool all = true;
        for (const Source &s : t.sources)
            all = all && (!s.have || logread::settled(s.snap.bytes.view(), s.snap.log));
        if (all)
            return;
        pause_ms(interval_ms);
        for (Source &s : t.sources) {
            Snapshot again;
            std::string err;
            if (s.have && load(s.path.c_str(), s.in_store, again, err) && again.status == logread::Status::Ok)
                s.snap = std::move(again);
        }
    }
}

// The first listing: every file's selection, merged, cut to --lines.
void list(const Options &o, Timeline &t)
{
    std::vector<std::vector<const logread::Item *>> lists(t.sources.size());
    for (size_t i = 0; i < t.sources.size(); ++i)
        if (t.sources[i].have)
            lists[i] = t.sources[i].sel.first(logread::all_items(t.sources[i].snap.log));
    std::vector<logread::Entry> entries = logread::merge(lists);
    if (o.lines >= 0 && entries.size() > static_cast<size_t>(o.lines))
        entries.erase(entries.begin(), entries.end() - o.lines);
    if (o.reverse)
        std::reverse(entries.begin(), entries.end());
    print(entries, t, o.json);
}

// One look at a followed file: the selected items written since the last
// one. The writer puts a record, then its position, then its number into the
// file: a snapshot taken in between is not compared until the file has
// stayed the same for one interval (a writer that stopped half-way leaves it
// so). A file that is unreadable for a moment (being created, or damaged and
// rewritten) is read again once it changes.
std::vector<const logread::Item *> poll_source(Source &src)
{
    Stamp now;
    Snapshot cur;
    std::string err;
    if (!take_stamp(src.path.c_str(), src.in_store, now, err)) {
        if (!src.noted) // once: a planted entry stays what it is
            fprintf(stderr, "vobrel-log: %s: %s\n", logread::shown(src.path).c_str(), err.c_str());
        src.noted = true;
        return {};
    }
    if (now == src.last)
        return {};
    if (!load(src.path.c_str(), src.in_store, cur, err) || cur.status != logread::Status::Ok) {
        src.last = now;
        return {};
    }
    if (!logread::settled(cur.bytes.view(), cur.log) && !(src.have_waiting && now == src.waiting)) {
        src.waiting = now;
        src.have_waiting = true;
        return {};
    }
    src.last = now;
    src.have_waiting = false;
    std::vector<const logread::Item *> fresh;
    if (!src.have) { // a file that appeared, or became readable, since
        fresh = src.sel.first(logread::all_items(cur.log));
    } else {
        bool lost = false;
        fresh = src.sel.next(
            logread::fresh_items(src.snap.bytes.view(), src.snap.log, cur.bytes.view(), cur.log, &lost));
        if (lost) {
            fflush(stdout);
            fprintf(stderr, "vobrel-log: %s: the log wrapped and overwrote records before they could be read\n",
                    logread::shown(src.path).c_str());
        }
    }
    src.snap = std::move(cur); // the items move with it
    src.have = true;
    return fresh;
}

void run_follow(const Options &o, Timeline &t)
{
    while (!g_stop) {
        pause_ms(o.interval_ms);
        if (g_stop)
            break;
        for (const std::string &store : t.stores)
            add_store_files(t, store, o.filter);
        std::vector<std::vector<const logread::Item *>> lists;
        for (Source &s : t.sources)
            lists.push_back(poll_source(s));
        print(logread::merge(lists), t, o.json);
    }
}

void catch_stop_signals()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop; // no SA_RESTART: a wait ends at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigemptyset(&g_stop_signals);
    sigaddset(&g_stop_signals, SIGINT);
    sigaddset(&g_stop_signals, SIGTERM);
}

} // namespace

int main(int argc, char **argv)
{
    std::set_new_handler(out_of_memory);
    Options o;
    int rc = parse_options(argc, argv, o);
    if (rc >= 0)
        return rc;
    Timeline t;
    bool skipped = false;
    if ((rc = gather(o, t)) >= 0 || (rc = load_all(t, skipped)) >= 0)
        return rc;
    if (o.check) {
        for (const Source &s : t.sources)
            rc = s.have && run_check(s) != kOk ? kCheckFailed : rc;
        return skipped ? kSkipped : rc < 0 ? kOk : rc;
    }
    if (o.follow) {
        catch_stop_signals();
        settle(t, o.interval_ms);
    }
    list(o, t);
    if (o.follow)
        run_follow(o, t);
    return skipped ? kSkipped : kOk;
}
