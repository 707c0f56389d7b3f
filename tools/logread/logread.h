// Reading a vobrel log file: one parser shared by every mode of vobrel-log
// (listing, --follow, --json, --check, several files merged into one
// timeline) and by its fuzz target.
//
// The file as the library writes it:
//
//   bytes 0-7    "%8d" position just after the newest record
//   bytes 8-15   "%8d" number of the newest record
//   byte 16 on   items, each starting with '\n':
//     open banner  "\n[QMT-VER-<version>] Logger initialized <time>"
//     record       "\n<time>[<number>]{<pid>}:" ["<function>(<line>): "] <message>
//     wrap banner  "\n[QMT-VER-<version>] HIT <limit> Limit, Wrapping up <time>\n"
//   <time> is "%.4d/%.2d/%.2d-%.2d:%.2d:%.2d".
//
// Once the write position reaches the limit, writing starts again at byte 16
// with a wrap banner and record number 0. The text from 16 to the header's
// position is therefore the newest (the "newer region"); what lies from the
// position to the end of the file is what is left of the records from before
// (the "older region"). Reading order is older region, then newer region.
//
// How the reader settles what the format leaves open:
//
// - Record boundaries. A message is written unchanged and may hold '\n' and
//   text shaped like a record start. A record-shaped line is taken as a record
//   when it is the first record of its run (at the start of a region or right
//   after a banner) or its number is the previous record's plus one (modulo
//   2^32). Otherwise it belongs to the previous message, unless the record-shaped
//   line after it continues from it: a run of consecutive numbers is read as
//   records (the reader resynchronises after damage). A banner must be
//   followed by a line break or the end of its region; otherwise it too is
//   message text.
// - Function names. "name(line): " right after the start line is read as the
//   function part when name is a C identifier (':' allowed); a message written
//   without a function name that starts with such text reads as one.
// - The cut in the older region. The header's position usually falls in the
//   middle of an old record whose start was overwritten. Those remains are
//   skipped up to the first banner, or the first record start that the next
//   record-shaped line continues from or that has none after it; remains that
//   quote a record line therefore do not pass for the oldest record.
// - Overshoot. The limit is tested before a record is written, so every item
//   starts below the limit in force when it was written, and the last record
//   of a pass ends past it by up to its own length. When the newer region
//   starts with a wrap banner, that limit L is known: text in the older region
//   starting at or beyond L was written under a larger limit, before the
//   records around it, and is dropped. Where the last record before the wrap
//   ended is recorded nowhere: when an earlier pass ran further past the
//   limit, the remains of its last record follow and read as part of that
//   message (they hold no record start, since none lies at or beyond L).
// - Restarts. A process that reopens the file carries on at the header's
//   position with an open banner and repeats the newest number; one that finds
//   the position at or beyond its limit starts again at byte 16 with an open
//   banner but no wrap banner, so no limit is known and nothing is dropped.
//
// Items hold views into the bytes given to parse(); keep them alive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace logread {

constexpr size_t kHeaderSize = 16;

// A growable array on the C heap that reports a failed allocation instead of
// throwing: a push that finds no memory leaves the array as it was and sets
// failed() for good. What a file's size decides (its items) lives in these,
// so that a file too big for the memory at hand is one bad file, not the end
// of the program.
template <typename T> class Array {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    Array() = default;
    Array(Array &&o) noexcept { swap(o); }
    Array &operator=(Array &&o) noexcept
    {
        Array gone(std::move(o));
        swap(gone);
        return *this;
    }
    Array(const Array &) = delete;
    Array &operator=(const Array &) = delete;
    ~Array() { free(p_); }

    bool push_back(const T &v)
    {
        if (n_ == cap_ && !grow())
            return false;
        p_[n_++] = v;
        return true;
    }
    void fail() { failed_ = true; }
    void truncate(size_t n) { n_ = n < n_ ? n : n_; }
    bool failed() const { return failed_; }
    size_t size() const { return n_; }
    bool empty() const { return n_ == 0; }
    const T *data() const { return p_; }
    const T *begin() const { return p_; }
    const T *end() const { return p_ + n_; }
    const T &operator[](size_t i) const { return p_[i]; }
    T &operator[](size_t i) { return p_[i]; }
    const T &front() const { return p_[0]; }
    const T &back() const { return p_[n_ - 1]; }

private:
    bool grow()
    {
        size_t cap = cap_ ? cap_ * 2 : 4;
        void *q = cap <= SIZE_MAX / sizeof(T) ? realloc(p_, cap * sizeof(T)) : nullptr;
        if (!q) {
            failed_ = true;
            return false;
        }
        p_ = static_cast<T *>(q);
        cap_ = cap;
        return true;
    }
    void swap(Array &o) noexcept
    {
        std::swap(p_, o.p_);
        std::swap(n_, o.n_);
        std::swap(cap_, o.cap_);
        std::swap(failed_, o.failed_);
    }
    T *p_ = nullptr;
    size_t n_ = 0;
    size_t cap_ = 0;
    bool failed_ = false;
};

// Whole-file verdicts; anything but Ok means the file cannot be read in order.
enum class Status {
    Ok,
    Empty,            // no bytes at all
    Short,            // fewer bytes than the header
    HeaderNotNumbers, // a header field is not a "%8d" number
    PositionOutside,  // the header's position is below 16 or beyond the end
    NotALog,          // no banner or record starts at byte 16
    NoMemory,         // not enough memory for its items (the file may be good)
};

// A sentence describing a non-Ok status (no file name, no full stop).
const char *status_text(Status s);

enum class Kind { Record, OpenBanner, WrapBanner };

struct Item {
    Kind kind = Kind::Record;
    size_t offset = 0; // of the leading '\n'
    size_t end = 0;    // one past the item's last byte
    std::string_view time;
    // Records.
    int64_t number = 0;
    int64_t pid = 0;
    bool has_function = false;
    std::string_view function;
    int64_t line = 0;
    std::string_view message;
    // Banners.
    std::string_view version;
    int64_t limit = 0; // wrap banners only
};

struct Log {
    int64_t header_position = 0;
    int64_t header_number = 0;
    size_t size = 0;
    Array<Item> items;       // reading order, oldest first
    size_t newer_first = 0;  // index of the first item of the newer region
    size_t skipped = 0;      // bytes at the header position skipped as remains
    size_t dropped = 0;      // bytes at the end dropped as left from an older pass
    int64_t limit = -1;      // from the wrap banner at byte 16, or -1
    // Places in the newer region where the text does not run as a writer
    // leaves it between two records: a record whose number does not follow
    // the one before it, or text after a banner. Nonzero in a damaged file,
    // or in one caught while a record is being written.
    size_t breaks = 0;
};

// The header agrees with the text and the newer region runs unbroken: what a
// finished write leaves. --follow waits for this before comparing.
bool settled(std::string_view bytes, const Log &log);

// Parses a whole file. On a non-Ok status `out` holds what could be read
// (the header fields when they are numbers) and no items.
Status parse(std::string_view bytes, Log &out);

// Every banner and record start line in bytes[begin, end), in file order,
// each item running to the next one (or to `end`). Nothing else is read: not
// the header, not the regions, and a record need not follow the one before
// it. For looking at the text exactly as it was written, as a test does.
// Failed when memory ran out.
Array<Item> scan(std::string_view bytes, size_t begin, size_t end);

// What is wrong with the header against the text; empty when they agree.
// `log` must come from parse(bytes) with status Ok.
std::vector<std::string> check(std::string_view bytes, const Log &log);

// Items of `cur` that were not yet in `prev` (taken earlier from the same
// file; both settled), in reading order. `lost` is set when records written
// in between were overwritten before `cur` was taken.
std::vector<const Item *> fresh_items(std::string_view prev_bytes, const Log &prev, std::string_view cur_bytes,
                                      const Log &cur, bool *lost);

// --- output ---------------------------------------------------------------

// One record or banner for people: a line, with the continuation lines of a
// multi-line message indented; control characters and bytes that are not
// UTF-8 shown as \xNN. A non-empty `process` (the short name of the process
// whose file holds the item) starts the line, padded to 9 columns.
std::string format_text(const Item &item, std::string_view process = {});
// One JSON object on one line, ending in '\n'; a non-empty `process` is
// given as the "process" field.
std::string format_json(const Item &item, std::string_view process = {});
// Text from a file or a file name for a terminal, on one line: control
// characters other than tab (C1 ones included) and bytes that are not UTF-8
// as \xNN, as in a message. Every file name the tool prints goes through it.
std::string shown(std::string_view text);
// A JSON string literal for arbitrary bytes: valid UTF-8 passes through,
// control characters (C1 ones included) are escaped and each byte of an
// invalid sequence becomes U+FFFD.
std::string json_string(std::string_view bytes);
bool valid_utf8(std::string_view bytes);
std::string base64(std::string_view bytes);

// --- selection (--from-record, --since, --until, --grep, --pid) -----------

struct Filter {
    bool from_record_set = false;
    int64_t from_record = 0;
    std::string since; // time stamps as parse_time() gives them; empty: unset
    std::string until;
    bool grep_set = false;
    std::string grep;
    bool pid_set = false;
    int64_t pid = 0;
};

// Reads a --since or --until argument: a time stamp written like a record's
// ("YYYY/MM/DD-hh:mm:ss") or a date alone ("YYYY/MM/DD"), which stands for
// the first second of the day, or its last one when `end_of_day` is set (so
// that --until DATE takes in the whole day). False for anything else.
bool parse_time(std::string_view text, bool end_of_day, std::string &out);

// Whether time stamp `a` comes before `b`: as text, a longer year being later.
bool time_before(std::string_view a, std::string_view b);

// Decides, item by item in reading order, what to show. --from-record N
// starts at the first record numbered N (numbers restart after a wrap and
// repeat after a restart, so the first one in reading order is taken); when
// no record carries N, at the first record numbered above N. Everything after
// the start is shown. --since and --until keep the items (banners too) whose
// time stamps lie in the range, bounds included. --grep and --pid keep only
// matching records and hide banners.
class Selector {
public:
    explicit Selector(Filter f) : f_(std::move(f)) {}
    // The first batch of a listing or a follow: fixes the --from-record start.
    std::vector<const Item *> first(const std::vector<const Item *> &items);
    // Later batches (--follow).
    std::vector<const Item *> next(const std::vector<const Item *> &items);

private:
    bool matches(const Item &it) const;
    Filter f_;
    bool started_ = false;
};

// The items of `log` as pointers, in reading order.
std::vector<const Item *> all_items(const Log &log);


// --- one timeline of several files (merge.cpp) ----------------------------

struct Entry {
    const Item *item;
    size_t source; // index of the list it came from
};

// Merges lists, each in its own reading order, into one ordered by time
// stamp: at each step the earliest of the lists' next items is taken, the
// list given first winning a tie. Every list keeps its order (the merge is
// stable), so a list whose stamps go back, after the clock was set back,
// holds its later items behind the one out of place rather than being split.
// The lists' heads wait in a heap: n items of k lists take n log k steps.
std::vector<Entry> merge(const std::vector<std::vector<const Item *>> &lists);

} // namespace logread
