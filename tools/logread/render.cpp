// Showing items to people and to programs, and choosing which to show.
#include "logread.h"

#include <cstdio>

namespace logread {
namespace {

// Length of the well-formed UTF-8 sequence at s[i], or 0 (no overlong forms,
// no surrogates, nothing above U+10FFFF).
size_t utf8_length(std::string_view s, size_t i)
{
    auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char c = b(i);
    if (c < 0x80)
        return 1;
    size_t n;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0)
            lo = 0xA0;
        if (c == 0xED)
            hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0)
            lo = 0x90;
        if (c == 0xF4)
            hi = 0x8F;
    } else {
        return 0;
    }
    if (s.size() - i < n)
        return 0;
    if (b(i + 1) < lo || b(i + 1) > hi)
        return 0;
    for (size_t k = 2; k < n; ++k)
        if (b(i + k) < 0x80 || b(i + k) > 0xBF)
            return 0;
    return n;
}

// Whether the sequence at s[i] is a C1 control character (U+0080 to U+009F),
// which terminals obey like the C0 ones.
bool is_c1(std::string_view s, size_t i)
{
    return static_cast<unsigned char>(s[i]) == 0xC2 && i + 1 < s.size() &&
           static_cast<unsigned char>(s[i + 1]) < 0xA0;
}

void hex_byte(std::string &out, const char *prefix, unsigned char c)
{
    char buf[12];
    snprintf(buf, sizeof buf, "%s%02x", prefix, c);
    out += buf;
}

// Text for a terminal: control characters other than tab (C1 ones included)
// and bytes that are not UTF-8 become \xNN; in a message, newlines start an
// indented continuation line instead.
void append_shown(std::string &out, std::string_view text, bool message = true)
{
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t n = utf8_length(text, i);
        if (n > 1) {
            bool c1 = is_c1(text, i);
            for (size_t k = 0; k < n; ++k) {
                if (c1)
                    hex_byte(out, "\\x", static_cast<unsigned char>(text[i + k]));
                else
                    out += text[i + k];
            }
            i += n;
            continue;
        }
        if (c == '\n' && message)
            out += "\n    ";
        else if (n == 0 || (c < 0x20 && c != '\t') || c == 0x7f)
            hex_byte(out, "\\x", c);
        else
            out += static_cast<char>(c);
        ++i;
    }
}

// A message that is to end its line brings its own newline; it is not shown.
std::string_view without_final_newline(std::string_view m)
{
    if (!m.empty() && m.back() == '\n')
        m.remove_suffix(1);
    return m;
}

void field(std::string &out, const char *name, const std::string &json_value)
{
    out += ",\"";
    out += name;
    out += "\":";
    out += json_value;
}

// One byte below 0x80 of a JSON string.
void json_byte(std::string &out, unsigned char c)
{
    switch (c) {
    case '"':
        out += "\\\"";
        break;
    case '\\':
        out += "\\\\";
        break;
    case '\b':
        out += "\\b";
        break;
    case '\f':
        out += "\\f";
        break;
    case '\n':
        out += "\\n";
        break;
    case '\r':
        out += "\\r";
        break;
    case '\t':
        out += "\\t";
        break;
    default:
        if (c < 0x20 || c == 0x7f)
            hex_byte(out, "\\u00", c);
        else
            out += static_cast<char>(c);
    }
}

} // namespace

std::string shown(std::string_view text)
{
    std::string out;
    append_shown(out, text, false);
    return out;
}

bool valid_utf8(std::string_view s)
{
    for (size_t i = 0; i < s.size();) {
        size_t n = utf8_length(s, i);
        if (n == 0)
            return false;
        i += n;
    }
    return true;
}

std::string json_string(std::string_view s)
{
    std::string out = "\"";
    for (size_t i = 0; i < s.size();) {
        size_t n = utf8_length(s, i);
        if (n == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (n == 2 && is_c1(s, i)) {
            hex_byte(out, "\\u00", static_cast<unsigned char>(s[i + 1]));
            i += 2;
            continue;
        }
        if (n > 1) {
            out.append(s, i, n);
            i += n;
            continue;
        }
        json_byte(out, static_cast<unsigned char>(s[i++]));
    }
    out += '"';
    return out;
}

std::string base64(std::string_view s)
{
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((s.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < s.size(); i += 3) {
        uint32_t v = static_cast<uint32_t>(static_cast<unsigned char>(s[i])) << 16 |
                     static_cast<uint32_t>(static_cast<unsigned char>(s[i + 1])) << 8 |
                     static_cast<unsigned char>(s[i + 2]);
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    size_t rest = s.size() - i;
    if (rest > 0) {
        uint32_t v = static_cast<uint32_t>(static_cast<unsigned char>(s[i])) << 16;
        if (rest == 2)
            v |= static_cast<uint32_t>(static_cast<unsigned char>(s[i + 1])) << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string format_text(const Item &it, std::string_view process)
{
    std::string out;
    if (!process.empty()) {
        append_shown(out, process);
        out.append(out.size() < 9 ? 9 - out.size() : 0, ' ');
        out += ' ';
    }
    if (it.kind == Kind::Record) {
        out.append(it.time);
        out += " #";
        out += std::to_string(it.number);
        out += " pid ";
        out += std::to_string(it.pid);
        if (it.has_function) {
            out += ' ';
            append_shown(out, it.function);
            out += '(';
            out += std::to_string(it.line);
            out += ')';
        }
        out += ": ";
        append_shown(out, without_final_newline(it.message));
    } else {
        out += "---- [QMT-VER-";
        append_shown(out, it.version);
        if (it.kind == Kind::OpenBanner)
            out += "] Logger initialized ";
        else
        {
            out += "] HIT ";
            out += std::to_string(it.limit);
            out += " Limit, Wrapping up ";
        }
        out.append(it.time);
        std::string_view extra = without_final_newline(it.message);
        if (!extra.empty()) {
            out += "\n    ";
            append_shown(out, extra);
        }
    }
    out += '\n';
    return out;
}

std::string format_json(const Item &it, std::string_view process)
{
    static const char *const kType[] = {"record", "open", "wrap"};
    std::string out = "{\"type\":\"";
    out += kType[static_cast<int>(it.kind)];
    out += '"';
    if (!process.empty())
        field(out, "process", json_string(process));
    field(out, "offset", std::to_string(it.offset));
    field(out, "time", json_string(it.time));
    if (it.kind == Kind::Record) {
        field(out, "number", std::to_string(it.number));
        field(out, "pid", std::to_string(it.pid));
        if (it.has_function) {
            field(out, "function", json_string(it.function));
            field(out, "line", std::to_string(it.line));
        }
    } else {
        field(out, "version", json_string(it.version));
        if (it.kind == Kind::WrapBanner)
            field(out, "limit", std::to_string(it.limit));
    }
    if (it.kind == Kind::Record || !it.message.empty()) {
        field(out, "message", json_string(it.message));
        // JSON strings hold text; bytes that are not UTF-8 are also given
        // exactly, so that nothing is lost.
        if (!valid_utf8(it.message))
            field(out, "message_base64", '"' + base64(it.message) + '"');
    }
    out += "}\n";
    return out;
}

bool Selector::matches(const Item &it) const
{
    if ((f_.grep_set || f_.pid_set) && it.kind != Kind::Record)
        return false;
    if (f_.pid_set && it.pid != f_.pid)
        return false;
    if (!f_.since.empty() && time_before(it.time, f_.since))
        return false;
    if (!f_.until.empty() && time_before(f_.until, it.time))
        return false;
    if (f_.grep_set && it.message.find(f_.grep) == std::string_view::npos &&
        !(it.has_function && it.function.find(f_.grep) != std::string_view::npos))
        return false;
    return true;
}

std::vector<const Item *> Selector::first(const std::vector<const Item *> &items)
{
    size_t start = 0;
    if (f_.from_record_set && !started_) {
        start = items.size();
        for (size_t i = 0; i < items.size() && start == items.size(); ++i)
            if (items[i]->kind == Kind::Record && items[i]->number == f_.from_record)
                start = i;
        for (size_t i = 0; i < items.size() && start == items.size(); ++i)
            if (items[i]->kind == Kind::Record && items[i]->number > f_.from_record)
                start = i;
    }
    started_ = started_ || start < items.size() || !f_.from_record_set;
    std::vector<const Item *> out;
    for (size_t i = start; i < items.size(); ++i)
        if (matches(*items[i]))
            out.push_back(items[i]);
    return out;
}

std::vector<const Item *> Selector::next(const std::vector<const Item *> &items)
{
    std::vector<const Item *> out;
    for (const Item *it : items) {
        if (!started_ && it->kind == Kind::Record && it->number >= f_.from_record)
            started_ = true;
        if (started_ && matches(*it))
            out.push_back(it);
    }
    return out;
}

} // namespace logread
