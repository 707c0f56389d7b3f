// libFuzzer target: the input is a log file. Every mode of vobrel-log runs on
// it, and the parser's promises are checked: items lie inside the file in
// reading order, JSON output is UTF-8 with no raw control bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/logread/logread.h"

namespace {

void require(bool ok)
{
    if (!ok)
        __builtin_trap();
}

bool inside(std::string_view whole, std::string_view part)
{
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void json_is_clean(const std::string &j)
{
    require(logread::valid_utf8(j));
    for (size_t i = 0; i + 1 < j.size(); ++i)
        require(static_cast<unsigned char>(j[i]) >= 0x20);
}

void exercise(std::string_view bytes, const logread::Log &log)
{
    size_t pos = static_cast<size_t>(log.header_position);
    require(log.newer_first <= log.items.size());
    for (size_t i = 0; i < log.items.size(); ++i) {
        const logread::Item &it = log.items[i];
        require(it.offset >= logread::kHeaderSize && it.offset < it.end && it.end <= bytes.size());
        require(i < log.newer_first ? it.offset >= pos : it.end <= pos);
        if (i + 1 < log.items.size() && i + 1 != log.newer_first)
            require(it.end <= log.items[i + 1].offset);
        require(inside(bytes, it.message) && inside(bytes, it.time) && inside(bytes, it.function) &&
                inside(bytes, it.version));
        require(logread::format_text(it).back() == '\n');
        std::string j = logread::format_json(it);
        require(j.back() == '\n');
        json_is_clean(j);
    }
    logread::check(bytes, log);

    logread::Filter f;
    f.since_set = true;
    f.since = 1;
    f.grep_set = true;
    f.grep = "a";
    logread::Selector sel(f);
    auto items = logread::all_items(log);
    sel.first(items);
    sel.next(items);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    json_is_clean(logread::json_string(bytes));

    logread::Log log;
    if (logread::parse(bytes, log) != logread::Status::Ok)
        return 0;
    exercise(bytes, log);

    // The same file caught earlier, part-written: what --follow compares.
    std::string_view earlier = bytes.substr(0, size / 2 + logread::kHeaderSize / 2);
    logread::Log prev;
    if (logread::parse(earlier, prev) == logread::Status::Ok) {
        bool lost = false;
        for (const logread::Item *it : logread::fresh_items(earlier, prev, bytes, log, &lost))
            require(it >= log.items.data() && it < log.items.data() + log.items.size());
    }
    return 0;
}
