// A recording platform layer for tests. The test executable defines the five
// platform functions that libvobrel.so leaves unresolved; these record what the
// library hands them and can be told to fail.
#pragma once

#include <string>
#include <vector>

#include <vobrel/platform.h>

namespace fake {

struct SyslogLine {
    int severity;
    std::string line;
};

// Everything recorded so far (thread-safe snapshots).
std::vector<SyslogLine> syslog_lines();
std::vector<std::string> buginf_texts();
void clear_recordings();
// The system-log lines alone, since the last clear; clears the recordings.
std::vector<std::string> take_syslog_texts();

// Thread creation: 0 (default) really starts the thread; any other value is
// returned without starting one.
void set_thread_create_result(int rc);
// Arguments of the last thread-create call.
struct ThreadCreateCall {
    bool attr_null;
    std::string name;
    int flags;
    void *arg;
};
ThreadCreateCall last_thread_create();

// Log store: make call 1 (length query) or call 2 (path query) return `status`;
// override the reported length or size limit (0 means: use the real value).
void set_log_store_status(int call, vobrel_platform_status_type status);
void set_log_store_len(int len);
void set_log_file_size(int size);
int log_store_calls();
// Serve this path instead of "<log_dir()>/vobrel.log" ("" restores the default).
void set_log_store_path(const std::string &path);
// Called (outside the fake's own lock) at the start of every log-store call.
void set_log_store_hook(void (*hook)());

// This process's private log directory (created on first use) and the full
// path of the log file the library writes ("<dir>/vobrel.log.<proc name>").
std::string log_dir();
std::string log_path();

// The log file's bytes, or "" when it does not exist.
std::string read_log();

// One record of the log file as the log reader (tools/logread) finds it, in
// file order: meant for a file that has not wrapped.
struct LogRecord {
    std::string time;
    int number;
    int pid;
    std::string message; // everything after "}:" up to the next record or banner
};
std::vector<LogRecord> log_records();
// The messages alone, in file order.
std::vector<std::string> log_messages();
// The two header fields.
int log_header_pos();
int log_header_number();

} // namespace fake
