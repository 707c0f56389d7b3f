// The text utilities against plain reference code: bounded copy, length
// test, duration text and delimiter splitting, each with canaries behind the
// caller's buffer.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <vobrel/util.h>

#include "fuzz/fuzz_ops.h"

namespace {

using fz::require;
constexpr char kCanary = '\x5a';

// The buffer holds `want` and its NUL (as far as `len` reaches), and the
// canaries behind `len` are whole.
void require_written(const std::vector<char> &buf, const std::string &want, size_t len)
{
    require(memcmp(buf.data(), want.c_str(), std::min(want.size() + 1, len)) == 0);
    require(std::all_of(buf.begin() + static_cast<long>(len), buf.end(), [](char c) { return c == kCanary; }));
}

void copy(fz::Ops &in)
{
    std::string src = in.text(24);
    bool null_src = in.pick(8) == 0;
    unsigned long max = in.pick(33);
    std::vector<char> dst(max + 4, kCanary);
    require(zel_sstrncpy(dst.data(), null_src ? nullptr : src.c_str(), max) == dst.data());
    // Room for nothing: nothing written, not even the NUL.
    std::string want = null_src || !max ? "" : std::string(src.c_str()).substr(0, max - 1);
    require_written(dst, want, max ? want.size() + 1 : 0);
}

std::string duration(int expired, unsigned long t)
{
    unsigned long w = t / 604800, d = t % 604800 / 86400, h = t % 86400 / 3600, m = t % 3600 / 60;
    if (m > 55)
        ++h, m = 0;
    if (h == 24)
        ++d, h = 0;
    if (d == 7)
        ++w, d = 0;
    // The largest unit that is not 0, and with `expired` 1 the next one if not 0.
    const unsigned long n[] = {w, d, h, m};
    const char *unit[] = {"week", "day", "hour"};
    auto part = [&](int k) {
        return k == 3 ? fz::fmt("%lu minutes", m) : fz::fmt("%lu %s%c", n[k], unit[k], n[k] >= 2 ? 's' : ' ');
    };
    int k = 0;
    while (k < 3 && !n[k])
        ++k;
    return expired == 1 && k < 3 && n[k + 1] ? part(k) + " and " + part(k + 1) : part(k);
}

void time_text(fz::Ops &in)
{
    int expired = in.pick(3);
    uint32_t raw = static_cast<uint32_t>(in.i32()) & 0x7FFFFFFF; // a 32-bit time_t holds it
    // Any time, a short one, or one just short of whole days (the carries).
    unsigned long t = in.flag() ? raw : in.flag() ? raw % 2000000 : (raw % 16 + 1) * 86400 - raw / 16 % 300;
    size_t len = 1 + in.pick(48);
    std::vector<char> out(len + 4, kCanary);
    vobrel_convert_time_to_string(static_cast<boolean>(expired), static_cast<time_t>(t), out.data(), len);
    require_written(out, duration(expired, t).substr(0, len - 1), len);
}

// Tokens of the first `len` characters of `text`, and the text as the split
// leaves it (each token's closing delimiter within them turned into a NUL).
std::vector<std::string> split(std::string &text, size_t len, const std::string &delim)
{
    std::vector<std::string> tokens;
    size_t n = std::min(len, strlen(text.c_str())), i = 0;
    auto is_delim = [&](char c) { return strchr(delim.c_str(), c) != nullptr; };
    while (i < n) {
        while (i < n && is_delim(text[i]))
            ++i;
        size_t start = i;
        while (i < n && !is_delim(text[i]))
            ++i;
        if (i > start)
            tokens.push_back(text.substr(start, i - start));
        if (i > start && i < n)
            text[i] = '\0';
    }
    return tokens;
}

void parse(fz::Ops &in)
{
    std::string text = in.text(40), delim = in.text(3);
    int len = static_cast<int8_t>(in.byte()) % 48;
    std::string want_buf = text;
    char **strings = reinterpret_cast<char **>(&text);
    int num = -7;
    vobrel_rc rc = vobrel_parse_delim_buffer(text.data(), len, delim.data(), &strings, &num);
    if (len <= 0)
        return require(rc == VOBREL_INVALID_ARGS && num == -7);
    // A NUL in delim ends it; a NUL there also matches the end of the text,
    // which the scan never reaches.
    std::vector<std::string> want = split(want_buf, static_cast<size_t>(len), std::string(delim.c_str()));
    require(rc == VOBREL_OK && num == static_cast<int>(want.size()) && text == want_buf);
    for (size_t i = 0; i < want.size(); ++i) {
        require(strings[i] && want[i] == strings[i]);
        free(strings[i]);
    }
    require(strings[want.size()] == nullptr);
    free(strings);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fz::Ops in = fz::start(data, size);
    while (in.more()) {
        switch (in.pick(4)) {
        case 0: copy(in); break;
        case 1: {
            std::string s = in.text(16);
            size_t len = in.pick(20);
            require(check_strlen(s.c_str(), len) == (strlen(s.c_str()) > len ? 1 : 0));
            break;
        }
        case 2: time_text(in); break;
        default: parse(in); break;
        }
    }
    return 0;
}
