// Splitting a log file into banners and records, in reading order, and
// checking its header against them. See logread.h for the rules.
#include "logread.h"

#include <cstring>
#include <optional>

namespace logread {
namespace {

constexpr size_t kMaxVersion = 64;
constexpr size_t kMaxFunction = 256;
// Longer than any start line: a banner with the longest version and numbers.
constexpr size_t kMaxStartLine = 256;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_ident_start(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_ident(char c)
{
    return is_ident_start(c) || is_digit(c) || c == ':';
}

// Reads s[pos, end); pos never passes end.
struct Cursor {
    std::string_view s;
    size_t pos;
    size_t end;

    bool at_end() const { return pos >= end; }
    char peek() const { return s[pos]; }

    bool lit(std::string_view t)
    {
        if (end - pos < t.size() || s.compare(pos, t.size(), t) != 0)
            return false;
        pos += t.size();
        return true;
    }

    bool digits(size_t min, size_t max)
    {
        size_t n = 0;
        while (pos + n < end && n < max && is_digit(s[pos + n]))
            ++n;
        if (n < min || (pos + n < end && is_digit(s[pos + n])))
            return false;
        pos += n;
        return true;
    }

    // A "%d" of a 32-bit int.
    bool integer(int64_t &v)
    {
        bool neg = pos < end && s[pos] == '-';
        size_t p = pos + (neg ? 1 : 0);
        int64_t x = 0;
        size_t n = 0;
        while (p + n < end && n < 10 && is_digit(s[p + n])) {
            x = x * 10 + (s[p + n] - '0');
            ++n;
        }
        if (n == 0 || (p + n < end && is_digit(s[p + n])))
            return false;
        x = neg ? -x : x;
        if (x < INT32_MIN || x > INT32_MAX)
            return false;
        v = x;
        pos = p + n;
        return true;
    }

    bool time(std::string_view &out)
    {
        size_t start = pos;
        if (!(digits(4, 9) && lit("/") && digits(2, 2) && lit("/") && digits(2, 2) && lit("-") && digits(2, 2) &&
              lit(":") && digits(2, 2) && lit(":") && digits(2, 2)))
            return false;
        out = s.substr(start, pos - start);
        return true;
    }
};

// A possible item: its start line parsed, `body` just after it.
struct Candidate {
    Item item;
    size_t body;
};

// Does an item start at `at`, with its start line inside [at, end)?
std::optional<Candidate> match(std::string_view s, size_t at, size_t end)
{
    if (at >= end || s[at] != '\n')
        return std::nullopt;
    Cursor c{s, at + 1, end};
    Candidate cand;
    Item &it = cand.item;
    it.offset = at;
    if (!c.at_end() && c.peek() == '[') {
        if (!c.lit("[QMT-VER-"))
            return std::nullopt;
        size_t v = c.pos;
        while (!c.at_end() && c.peek() != ']' && c.peek() != '\n' && c.pos - v <= kMaxVersion)
            ++c.pos;
        if (c.pos - v > kMaxVersion)
            return std::nullopt;
        it.version = s.substr(v, c.pos - v);
        if (!c.lit("] "))
            return std::nullopt;
        if (c.lit("Logger initialized ")) {
            if (!c.time(it.time))
                return std::nullopt;
            it.kind = Kind::OpenBanner;
        } else if (c.lit("HIT ")) {
            if (!(c.integer(it.limit) && c.lit(" Limit, Wrapping up ") && c.time(it.time) && c.lit("\n")))
                return std::nullopt;
            it.kind = Kind::WrapBanner;
        } else {
            return std::nullopt;
        }
        // A banner ends where the next item or the region begins.
        if (!c.at_end() && c.peek() != '\n')
            return std::nullopt;
    } else {
        if (!(c.time(it.time) && c.lit("[") && c.integer(it.number) && c.lit("]{") && c.integer(it.pid) &&
              c.lit("}:")))
            return std::nullopt;
        it.kind = Kind::Record;
    }
    cand.body = c.pos;
    return cand;
}

Array<Candidate> candidates(std::string_view s, size_t begin, size_t end)
{
    Array<Candidate> out;
    size_t at = begin;
    while (at < end) {
        const void *p = memchr(s.data() + at, '\n', end - at);
        if (!p)
            break;
        size_t q = static_cast<size_t>(static_cast<const char *>(p) - s.data());
        if (auto c = match(s, q, end); c && !out.push_back(*c))
            break;
        at = q + 1;
    }
    return out;
}

// Record numbers are 32-bit and count on by one within a run.
bool follows(int64_t prev, int64_t next)
{
    return static_cast<uint32_t>(prev + 1) == static_cast<uint32_t>(next);
}

bool is_record(const Array<Candidate> &c, size_t i)
{
    return i < c.size() && c[i].item.kind == Kind::Record;
}

// Candidates taken as items, from `from` on (see "Record boundaries").
// `breaks` counts the records taken although they do not follow the one
// before them.
Array<size_t> accept_chain(const Array<Candidate> &c, size_t from, size_t *breaks = nullptr)
{
    Array<size_t> out;
    const Item *prev = nullptr; // last record of the current run
    for (size_t i = from; i < c.size(); ++i) {
        const Item &it = c[i].item;
        if (it.kind != Kind::Record) {
            out.push_back(i);
            prev = nullptr;
            continue;
        }
        bool take = !prev || follows(prev->number, it.number);
        if (!take && is_record(c, i + 1)) {
            int64_t next = c[i + 1].item.number;
            take = follows(it.number, next) && !follows(prev->number, next);
            if (take && breaks)
                ++*breaks;
        }
        if (take) {
            out.push_back(i);
            prev = &it;
        }
    }
    return out;
}

// The first candidate of the older region that is not part of the remains of
// an overwritten record: one from which the next record-shaped line continues.
size_t anchor(const Array<Candidate> &c)
{
    for (size_t i = 0; i < c.size(); ++i) {
        if (c[i].item.kind != Kind::Record || !is_record(c, i + 1) || follows(c[i].item.number, c[i + 1].item.number))
            return i;
    }
    return 0;
}

// "name(line): " at the start of a record's text.
bool function_part(std::string_view s, size_t body, size_t end, Item &it, size_t &msg)
{
    Cursor c{s, body, end};
    if (c.at_end() || !is_ident_start(c.peek()))
        return false;
    size_t name = c.pos;
    while (!c.at_end() && is_ident(c.peek()) && c.pos - name < kMaxFunction)
        ++c.pos;
    std::string_view fn = s.substr(name, c.pos - name);
    int64_t line = 0;
    if (!(c.lit("(") && c.integer(line) && c.lit("): ")))
        return false;
    it.has_function = true;
    it.function = fn;
    it.line = line;
    msg = c.pos;
    return true;
}

// A failed `c` or `idx` fails `out` too.
void emit(std::string_view s, const Array<Candidate> &c, const Array<size_t> &idx, size_t region_end,
          Array<Item> &out)
{
    if (c.failed() || idx.failed())
        out.fail();
    for (size_t k = 0; k < idx.size(); ++k) {
        Item it = c[idx[k]].item;
        it.end = k + 1 < idx.size() ? c[idx[k + 1]].item.offset : region_end;
        size_t msg = c[idx[k]].body;
        if (msg > it.end)
            msg = it.end;
        if (it.kind == Kind::Record)
            function_part(s, msg, it.end, it, msg);
        it.message = s.substr(msg, it.end - msg);
        if (!out.push_back(it))
            return;
    }
}

// One "%8d" field: blanks, an optional minus sign, then digits to the end.
bool header_field(std::string_view f, int64_t &v)
{
    size_t i = 0;
    while (i < f.size() && f[i] == ' ')
        ++i;
    bool neg = i < f.size() && f[i] == '-';
    if (neg)
        ++i;
    if (i == f.size())
        return false;
    int64_t x = 0;
    for (; i < f.size(); ++i) {
        if (!is_digit(f[i]))
            return false;
        x = x * 10 + (f[i] - '0');
    }
    v = neg ? -x : x;
    return true;
}

// The older region's items into `out` (see "The cut in the older region" and
// "Overshoot"); out.limit is known by then.
void read_older(std::string_view s, size_t pos, Log &out)
{
    Array<Candidate> older = candidates(s, pos, s.size());
    size_t cut = s.size();
    if (out.limit > 0) {
        for (size_t i = 0; i < older.size(); ++i) {
            if (older[i].item.offset >= static_cast<size_t>(out.limit)) {
                cut = older[i].item.offset;
                older.truncate(i);
                break;
            }
        }
    }
    out.dropped = s.size() - cut;
    if (older.empty()) {
        if (older.failed())
            out.items.fail();
        out.skipped = cut - pos;
    } else {
        size_t a = anchor(older);
        out.skipped = older[a].item.offset - pos;
        emit(s, older, accept_chain(older, a), cut, out.items);
    }
}

} // namespace

const char *status_text(Status s)
{
    switch (s) {
    case Status::Ok:
        return "no problem";
    case Status::Empty:
        return "the file is empty: no header, no records";
    case Status::Short:
        return "the file is shorter than the 16-byte header";
    case Status::HeaderNotNumbers:
        return "the header (bytes 0 to 15) does not hold two numbers";
    case Status::PositionOutside:
        return "the header's position lies outside the text of the file";
    case Status::NotALog:
        return "no log text: byte 16 does not start a banner or a record";
    case Status::NoMemory:
        return "cannot read: not enough memory for its records";
    }
    return "unknown problem";
}

Status parse(std::string_view s, Log &out)
{
    out = Log{};
    out.size = s.size();
    if (s.empty())
        return Status::Empty;
    if (s.size() < kHeaderSize)
        return Status::Short;
    if (!header_field(s.substr(0, 8), out.header_position) || !header_field(s.substr(8, 8), out.header_number))
        return Status::HeaderNotNumbers;
    if (out.header_position < static_cast<int64_t>(kHeaderSize) ||
        out.header_position > static_cast<int64_t>(s.size()))
        return Status::PositionOutside;
    if (s.size() > kHeaderSize && !match(s, kHeaderSize, s.size()))
        return Status::NotALog;
    size_t pos = static_cast<size_t>(out.header_position);

    Array<Candidate> newer = candidates(s, kHeaderSize, pos);
    Array<size_t> newer_idx = accept_chain(newer, 0, &out.breaks);
    if (!newer_idx.empty()) {
        const Item &first = newer[newer_idx[0]].item;
        if (first.kind == Kind::WrapBanner && first.offset == kHeaderSize && first.limit > 0)
            out.limit = first.limit;
    }

    read_older(s, pos, out);
    out.newer_first = out.items.size();
    emit(s, newer, newer_idx, pos, out.items);
    for (size_t i = out.newer_first; i < out.items.size(); ++i)
        if (out.items[i].kind != Kind::Record && !out.items[i].message.empty())
            ++out.breaks;
    if (!out.items.failed())
        return Status::Ok;
    out.items = {};
    return Status::NoMemory;
}

Array<Item> scan(std::string_view s, size_t begin, size_t end)
{
    Array<Item> out;
    end = end < s.size() ? end : s.size();
    if (begin >= end)
        return out;
    Array<Candidate> c = candidates(s, begin, end);
    Array<size_t> all;
    for (size_t i = 0; i < c.size(); ++i)
        if (!all.push_back(i))
            break;
    emit(s, c, all, end, out);
    return out;
}

namespace {

// The problem when the header's position falls inside a start line, or a
// function part, that runs past it; empty when none does. A line break right
// before the position is the newest record's last byte (its text ended in
// one): what follows it is the older pass, not a start line.
std::string straddling_start(std::string_view s, size_t pos, const std::string &at)
{
    for (size_t q = pos > kHeaderSize + kMaxStartLine ? pos - kMaxStartLine : kHeaderSize; q + 1 < pos; ++q) {
        if (s[q] != '\n')
            continue;
        auto c = match(s, q, s.size());
        if (!c)
            continue;
        if (c->body > pos)
            return at + " falls inside the start line of the " +
                   (c->item.kind == Kind::Record ? "record" : "banner") + " at offset " + std::to_string(q);
        Item probe;
        size_t msg = 0;
        if (c->item.kind == Kind::Record && c->body < pos && function_part(s, c->body, s.size(), probe, msg) &&
            msg > pos)
            return at + " falls inside the function name and line of the record at offset " + std::to_string(q);
    }
    return {};
}

} // namespace

std::vector<std::string> check(std::string_view s, const Log &log)
{
    std::vector<std::string> problems;
    const size_t pos = static_cast<size_t>(log.header_position);
    const std::string at = "the header's position " + std::to_string(pos);
    if (std::string straddle = straddling_start(s, pos, at); !straddle.empty()) {
        problems.push_back(straddle);
        return problems;
    }

    if (pos == kHeaderSize) {
        if (log.header_number != 0)
            problems.push_back("the header's position is 16 (nothing written yet) but its number is " +
                               std::to_string(log.header_number) + ", not 0");
        return problems;
    }
    if (log.newer_first == log.items.size()) {
        problems.push_back(at + " ends no record: no banner or record lies between byte 16 and it");
        return problems;
    }
    const Item &newest = log.items.back();
    if (newest.kind != Kind::Record) {
        problems.push_back(at + " ends the banner at offset " + std::to_string(newest.offset) +
                           ", not a record");
        return problems;
    }
    if (newest.number != log.header_number)
        problems.push_back("the header's number " + std::to_string(log.header_number) +
                           " is not the number of the newest record (" + std::to_string(newest.number) +
                           ", at offset " + std::to_string(newest.offset) + ")");
    return problems;
}

std::vector<const Item *> fresh_items(std::string_view prev_bytes, const Log &prev, std::string_view cur_bytes,
                                      const Log &cur, bool *lost)
{
    const size_t prev_pos = static_cast<size_t>(prev.header_position);
    const size_t cur_pos = static_cast<size_t>(cur.header_position);
    auto same = [&](size_t from, size_t to) {
        return to <= prev_bytes.size() && to <= cur_bytes.size() &&
               prev_bytes.compare(from, to - from, cur_bytes.substr(from, to - from)) == 0;
    };
    std::vector<const Item *> out;
    if (lost)
        *lost = false;
    // Without a wrap or a restart in between, the writer only appended: the
    // newer region then starts with what it held before. Text past the
    // header's position is ignored, as it may be a record still being written.
    if (cur_pos >= prev_pos && same(kHeaderSize, prev_pos)) {
        for (size_t i = cur.newer_first; i < cur.items.size(); ++i)
            if (cur.items[i].offset >= prev_pos)
                out.push_back(&cur.items[i]);
        return out;
    }
    // The writer went back to byte 16. Before a wrap it went on from the old
    // position to the limit: what it wrote there is new, and what it wrote
    // up to the new position has since been overwritten.
    for (size_t i = 0; i < cur.newer_first; ++i) {
        const Item &it = cur.items[i];
        if (it.offset >= prev_pos && !same(it.offset, it.end))
            out.push_back(&it);
    }
    for (size_t i = cur.newer_first; i < cur.items.size(); ++i)
        out.push_back(&cur.items[i]);
    if (lost)
        *lost = cur.limit > 0 && cur_pos > prev_pos && static_cast<int64_t>(prev_pos) < cur.limit;
    return out;
}

bool settled(std::string_view bytes, const Log &log)
{
    return log.breaks == 0 && check(bytes, log).empty();
}

std::vector<const Item *> all_items(const Log &log)
{
    std::vector<const Item *> out;
    out.reserve(log.items.size());
    for (const Item &it : log.items)
        out.push_back(&it);
    return out;
}

} // namespace logread
