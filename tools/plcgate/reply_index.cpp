#include "reply_index.h"

#include "plchost.h"

#include <algorithm>

namespace plcgate {

TagIndex::TagIndex(const std::vector<plchost::Tag> &tags)
{
    for (size_t i = 0; i < tags.size(); ++i) {
        const auto range = plchost::class_range(tags[i]);
        if (!range)
            continue; // never read: its quality shows on the full looks
        Class &c = by_class_[{tags[i].station, range->cls}];
        c.places.push_back(Place{range->start, range->start + range->count, i});
        c.widest = std::max(c.widest, range->count);
    }
    for (auto &entry : by_class_) {
        auto &places = entry.second.places;
        std::sort(places.begin(), places.end(), [](const Place &a, const Place &b) { return a.start < b.start; });
    }
}

void TagIndex::mark_covered(int station, const plchost::ClassRange &range, std::vector<bool> *marks) const
{
    const auto found = by_class_.find({station, range.cls});
    if (found == by_class_.end())
        return;
    const Class &c = found->second;
    const int64_t end = range.start + range.count;
    // A tag that overlaps starts after range.start - widest and before end.
    auto it = std::lower_bound(c.places.begin(), c.places.end(), range.start - c.widest + 1,
                               [](const Place &p, int64_t start) { return p.start < start; });
    for (; it != c.places.end() && it->start < end; ++it)
        if (it->end > range.start && it->tag < marks->size())
            (*marks)[it->tag] = true;
}

void ReplyLog::add(int station, const plchost::ClassRange &range)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (all_)
        return;
    if (spans_.size() >= kMostSpans) {
        add_all_locked();
        return;
    }
    spans_.push_back(Span{station, range});
}

void ReplyLog::add_all()
{
    std::lock_guard<std::mutex> lock(mutex_);
    add_all_locked();
}

void ReplyLog::add_all_locked()
{
    all_ = true;
    spans_.clear();
}

std::vector<ReplyLog::Span> ReplyLog::take(bool *all)
{
    std::lock_guard<std::mutex> lock(mutex_);
    *all = all_;
    all_ = false;
    std::vector<Span> spans;
    spans.swap(spans_);
    return spans;
}

} // namespace plcgate
