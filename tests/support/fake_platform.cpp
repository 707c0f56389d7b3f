#include "fake_platform.h"

#include "alloc_fail.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ftw.h>
#include <mutex>
#include <sstream>
#include <utility>
#include <unistd.h>

#include <vobrel/logger.h>

#include "tools/logread/logread.h"

namespace {

std::mutex mu;
std::vector<fake::SyslogLine> g_syslog;
std::vector<std::string> g_buginf;
int g_thread_rc = 0;
fake::ThreadCreateCall g_last_thread{};
vobrel_platform_status_type g_store_status[3] = {VOBREL_PLATFORM_OK, VOBREL_PLATFORM_OK, VOBREL_PLATFORM_OK};
int g_store_len = 0;
int g_store_size = 0;
int g_store_calls = 0;
std::string g_dir;
std::string g_store_path;
void (*g_store_hook)();

template <class T, class V> void locked_set(T &var, const V &v)
{
    std::lock_guard<std::mutex> g(mu);
    var = v;
}

template <class T> T locked_get(const T &var)
{
    std::lock_guard<std::mutex> g(mu);
    return var;
}

// Default size limit: large enough that ordinary tests never wrap.
constexpr int kDefaultLimit = 4 * 1024 * 1024;

pid_t g_dir_owner;

int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    remove(path);
    return 0;
}

// The directory goes when the process that made it exits (forked children
// leave it to their parent).
void remove_dir()
{
    if (!g_dir.empty() && getpid() == g_dir_owner)
        nftw(g_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string dir_locked()
{
    if (g_dir.empty()) {
        const char *base = getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/vobrel-test-XXXXXX";
        if (!mkdtemp(tmpl.data()))
            abort();
        g_dir = tmpl;
        g_dir_owner = getpid();
        atexit(remove_dir);
    }
    return g_dir;
}

} // namespace

extern "C" {

int vobrel_xos_thread_create(pthread_t *thread_id, const pthread_attr_t *attr, void *(*start_routine)(void *),
                             void *arg, const char *name, int flags)
{
    allocfail::Suspend quiet;
    locked_set(g_last_thread, fake::ThreadCreateCall{attr == nullptr, name ? name : "", flags, arg});
    const int rc = locked_get(g_thread_rc);
    return rc != 0 ? rc : pthread_create(thread_id, attr, start_routine, arg);
}

void vobrel_xos_thread_exit(void *retval)
{
    pthread_exit(retval);
}

void vobrel_platform_syslog(int severity, const char *line)
{
    allocfail::Suspend quiet;
    std::lock_guard<std::mutex> g(mu);
    g_syslog.push_back({severity, line});
}

void vobrel_platform_buginf(const char *text)
{
    allocfail::Suspend quiet;
    std::lock_guard<std::mutex> g(mu);
    g_buginf.emplace_back(text);
}

vobrel_platform_status_type vobrel_platform_get_log_store_path(int *path_len, char *path, int *file_size)
{
    allocfail::Suspend quiet;
    if (void (*hook)() = locked_get(g_store_hook))
        hook();
    std::lock_guard<std::mutex> g(mu);
    ++g_store_calls;
    std::string p = g_store_path.empty() ? dir_locked() + "/vobrel.log" : g_store_path;
    int call = path ? 2 : 1;
    if (g_store_status[call] != VOBREL_PLATFORM_OK)
        return g_store_status[call];
    if (!path) {
        *path_len = g_store_len ? g_store_len : static_cast<int>(p.size() + 1);
        return VOBREL_PLATFORM_OK;
    }
    if (*path_len < static_cast<int>(p.size() + 1))
        return VOBREL_PLATFORM_BAD_ARG;
    memcpy(path, p.c_str(), p.size() + 1);
    *file_size = g_store_size ? g_store_size : kDefaultLimit;
    return VOBREL_PLATFORM_OK;
}

} // extern "C"

namespace fake {

std::vector<SyslogLine> syslog_lines() { return locked_get(g_syslog); }

std::vector<std::string> buginf_texts() { return locked_get(g_buginf); }

void clear_recordings()
{
    std::lock_guard<std::mutex> g(mu);
    g_syslog.clear();
    g_buginf.clear();
}

std::vector<std::string> take_syslog_texts()
{
    std::vector<std::string> out;
    for (const auto &l : syslog_lines())
        out.push_back(l.line);
    clear_recordings();
    return out;
}

void set_thread_create_result(int rc) { locked_set(g_thread_rc, rc); }

ThreadCreateCall last_thread_create() { return locked_get(g_last_thread); }

void set_log_store_status(int call, vobrel_platform_status_type status)
{
    locked_set(g_store_status[call == 2 ? 2 : 1], status);
}

void set_log_store_len(int len) { locked_set(g_store_len, len); }

void set_log_file_size(int size) { locked_set(g_store_size, size); }

int log_store_calls() { return locked_get(g_store_calls); }

void set_log_store_path(const std::string &path) { locked_set(g_store_path, path); }

void set_log_store_hook(void (*hook)()) { locked_set(g_store_hook, hook); }

std::string log_dir()
{
    std::lock_guard<std::mutex> g(mu);
    return dir_locked();
}

std::string log_path() { return log_dir() + "/vobrel.log." + vob_proc_name; }

std::string read_log()
{
    std::ifstream in(log_path(), std::ios::binary);
    if (!in)
        return "";
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Read with the log reader's own parser (tools/logread), so the tests and
// vobrel-log agree on what a record is. The file is taken as written, from
// byte 16 to its end: a test may have put anything before the records.
std::vector<LogRecord> log_records()
{
    const std::string s = read_log();
    std::vector<LogRecord> out;
    for (const logread::Item &it : logread::scan(s, logread::kHeaderSize, s.size())) {
        if (it.kind != logread::Kind::Record)
            continue;
        // The message as logged: the function part, when there is one, too.
        const char *text = it.has_function ? it.function.data() : it.message.data();
        out.push_back({std::string(it.time), static_cast<int>(it.number), static_cast<int>(it.pid),
                       std::string(text, it.message.data() + it.message.size())});
    }
    return out;
}

std::vector<std::string> log_messages()
{
    std::vector<std::string> out;
    for (auto &r : log_records())
        out.push_back(r.message);
    return out;
}

namespace {

// The two header fields, or -1 for each while the header is incomplete or is
// not two numbers. Only the header is handed to the parser, so this stays
// cheap on a large file (the parse stops, as it should, at the position).
std::pair<int, int> header_fields()
{
    const std::string s = read_log();
    logread::Log log;
    if (s.size() < logread::kHeaderSize)
        return {-1, -1};
    const logread::Status st = logread::parse(std::string_view(s).substr(0, logread::kHeaderSize), log);
    if (st == logread::Status::HeaderNotNumbers)
        return {-1, -1};
    return {static_cast<int>(log.header_position), static_cast<int>(log.header_number)};
}

} // namespace

int log_header_pos() { return header_fields().first; }

int log_header_number() { return header_fields().second; }

} // namespace fake
