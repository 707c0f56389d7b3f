// Several files' items on one time line, and the time stamps that order it.
#include "logread.h"

#include <algorithm>

namespace logread {
namespace {

bool digits_at(std::string_view s, size_t from, size_t n)
{
    for (size_t i = from; i < from + n; ++i)
        if (i >= s.size() || s[i] < '0' || s[i] > '9')
            return false;
    return true;
}

} // namespace

bool time_before(std::string_view a, std::string_view b)
{
    // Stamps differ in length only in the year ("%.4d" grows past 9999).
    if (a.size() != b.size())
        return a.size() < b.size();
    return a < b;
}

bool parse_time(std::string_view t, bool end_of_day, std::string &out)
{
    // "YYYY/MM/DD" then, optionally, "-hh:mm:ss"; the fields are not checked
    // against the calendar, as they only bound a comparison of stamps.
    const bool date_only = t.size() == 10;
    if (!(t.size() == 10 || t.size() == 19) || !digits_at(t, 0, 4) || t[4] != '/' || !digits_at(t, 5, 2) ||
        t[7] != '/' || !digits_at(t, 8, 2))
        return false;
    if (!date_only && !(t[10] == '-' && digits_at(t, 11, 2) && t[13] == ':' && digits_at(t, 14, 2) &&
                        t[16] == ':' && digits_at(t, 17, 2)))
        return false;
    out = std::string(t);
    if (date_only)
        out += end_of_day ? "-23:59:59" : "-00:00:00";
    return true;
}

std::vector<Entry> merge(const std::vector<std::vector<const Item *>> &lists)
{
    size_t total = 0;
    for (const auto &l : lists)
        total += l.size();
    std::vector<Entry> out;
    out.reserve(total);
    // A heap of the lists' heads, the earliest on top; a tie goes to the list
    // given first, so each list keeps its order.
    auto later = [](const Entry &a, const Entry &b) {
        if (time_before(b.item->time, a.item->time))
            return true;
        return !time_before(a.item->time, b.item->time) && a.source > b.source;
    };
    std::vector<Entry> heads;
    std::vector<size_t> next(lists.size(), 1);
    for (size_t s = 0; s < lists.size(); ++s)
        if (!lists[s].empty())
            heads.push_back({lists[s][0], s});
    std::make_heap(heads.begin(), heads.end(), later);
    while (!heads.empty()) {
        std::pop_heap(heads.begin(), heads.end(), later);
        Entry &e = heads.back();
        out.push_back(e);
        if (next[e.source] == lists[e.source].size()) {
            heads.pop_back();
            continue;
        }
        e.item = lists[e.source][next[e.source]++];
        std::push_heap(heads.begin(), heads.end(), later);
    }
    return out;
}

} // namespace logread
