// libFuzzer target: the input is a log file. Every mode of vobrel-log runs on
// it, and the parser's promises are checked: items lie inside the file in
// reading order, JSON output is UTF-8 with no raw control characters. The
// file and an earlier, shorter state of it are merged as two processes'
// files; the timeline is checked against a plain model (a stable sort by time
// stamp when each file's stamps run forward).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/logread/logread.h"

namespace {

void require(bool ok)
{
    if (!ok)
        __builtin_trap();
}

void json_is_clean(const std::string &j)
{
    require(logread::valid_utf8(j));
    const auto *c = reinterpret_cast<const unsigned char *>(j.data());
    for (size_t i = 0; i + 1 < j.size(); ++i) // no C0 nor C1 control character
        require(c[i] >= 0x20 && !(c[i] == 0xc2 && c[i + 1] < 0xa0));
}

void exercise(std::string_view bytes, const logread::Log &log)
{
    const size_t pos = static_cast<size_t>(log.header_position);
    auto inside = [&](std::string_view part) {
        return part.empty() || (part.data() >= bytes.data() && part.data() + part.size() <= bytes.data() + bytes.size());
    };
    require(log.newer_first <= log.items.size());
    for (size_t i = 0; i < log.items.size(); ++i) {
        const logread::Item &it = log.items[i];
        require(it.offset >= logread::kHeaderSize && it.offset < it.end && it.end <= bytes.size());
        require(i < log.newer_first ? it.offset >= pos : it.end <= pos);
        if (i + 1 < log.items.size() && i + 1 != log.newer_first)
            require(it.end <= log.items[i + 1].offset);
        require(inside(it.message) && inside(it.time) && inside(it.function) && inside(it.version));
        require(logread::format_text(it, "p\x1b").back() == '\n');
        std::string j = logread::format_json(it, i % 2 ? "\xff" : "");
        require(j.back() == '\n');
        json_is_clean(j);
    }
    logread::check(bytes, log);

    logread::Filter f{.from_record_set = true, .from_record = 1, .grep_set = true, .grep = "a"};
    if (!log.items.empty()) { // a range that the stamps may fall in, or not
        f.since = std::string(log.items.front().time);
        f.until = std::string(log.items.back().time);
    }
    logread::Selector sel(f);
    const auto items = logread::all_items(log);
    sel.first(items);
    sel.next(items);
}

// --since/--until arguments: what parse_time() accepts reads back the same.
void times(std::string_view bytes)
{
    for (size_t n : {size_t{10}, size_t{19}}) {
        std::string t, again;
        if (bytes.size() < n || !logread::parse_time(bytes.substr(0, n), n == 10, t))
            continue;
        require(t.size() == 19 && logread::parse_time(t, false, again) && again == t);
        require(!logread::time_before(t, t));
    }
}

void check_merge(const std::vector<std::vector<const logread::Item *>> &lists)
{
    std::vector<logread::Entry> got = logread::merge(lists), model;
    bool forward = true;
    for (size_t s = 0; s < lists.size(); ++s)
        for (size_t i = 0; i < lists[s].size(); ++i) {
            model.push_back({lists[s][i], s});
            forward = forward && (i == 0 || !logread::time_before(lists[s][i]->time, lists[s][i - 1]->time));
        }
    require(got.size() == model.size());
    std::vector<size_t> next(lists.size(), 0);
    for (const logread::Entry &e : got) // each file's order kept
        require(e.source < lists.size() && lists[e.source][next[e.source]++] == e.item);
    if (!forward)
        return;
    std::stable_sort(model.begin(), model.end(), [](const logread::Entry &a, const logread::Entry &b) {
        return logread::time_before(a.item->time, b.item->time);
    });
    for (size_t i = 0; i < got.size(); ++i)
        require(got[i].item == model[i].item && got[i].source == model[i].source);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    json_is_clean(logread::json_string(bytes));
    times(bytes);

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
        check_merge({logread::all_items(log), logread::all_items(prev)});
        check_merge({logread::all_items(prev), {}, logread::all_items(log)});
    }
    return 0;
}
