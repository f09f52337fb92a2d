#include "read_times.h"

#include "Register_Kinds.h"
#include "plchost.h"

namespace plchost {

std::optional<ClassRange> class_range(const Tag &tag)
{
    const int address = Host::parse_address(tag.kind, tag.address);
    if (!plckinds::is_known_kind(tag.kind) || address < 0 || tag.count < 1)
        return std::nullopt;
    ClassRange r;
    r.cls = plckinds::class_of(tag.kind);
    const plckinds::KindInfo &k = plckinds::kind_info(tag.kind);
    if (plckinds::is_bit_class(r.cls)) {
        r.start = address;
        r.count = tag.count;
        return r;
    }
    // A register class: the tag's bits from its first value on, rounded
    // out to whole registers.
    const int64_t first_bit = int64_t(address) * plckinds::unit_bits(k.address_unit);
    const int64_t end_bit = first_bit + int64_t(tag.count) * plckinds::unit_bits(k.count_unit);
    r.start = first_bit / 16;
    r.count = (end_bit + 15) / 16 - r.start;
    return r;
}

ClassRange class_range(const ReplyEvent &read)
{
    ClassRange r;
    r.cls = plckinds::class_of(read.reg_kind);
    r.start = read.start_addr;
    r.count = read.count;
    return r;
}

void ReadTimes::note(int station, const ClassRange &range, Time when)
{
    if (range.count <= 0)
        return;
    Spans &spans = by_class_[{station, range.cls}];
    const int64_t start = range.start, end = range.start + range.count;
    // Cut the spans that reach over either end, so that [start, end) is made
    // of whole spans, then replace those by one.
    auto cut = [&spans](int64_t at) {
        auto it = spans.upper_bound(at);
        if (it == spans.begin())
            return;
        --it;
        if (it->first < at && it->second.end > at) {
            spans[at] = Span{it->second.end, it->second.time};
            it->second.end = at;
        }
    };
    cut(start);
    cut(end);
    spans.erase(spans.lower_bound(start), spans.lower_bound(end));
    spans[start] = Span{end, when};
}

std::optional<ReadTimes::Time> ReadTimes::oldest(int station, const ClassRange &range) const
{
    auto found = by_class_.find({station, range.cls});
    if (found == by_class_.end() || range.count <= 0)
        return std::nullopt;
    const Spans &spans = found->second;
    const int64_t end = range.start + range.count;
    auto it = spans.upper_bound(range.start);
    if (it != spans.begin())
        --it;
    int64_t covered = range.start; // everything before this is covered
    std::optional<Time> oldest;
    for (; it != spans.end() && it->first < end; ++it) {
        if (it->second.end <= covered)
            continue;
        if (it->first > covered)
            return std::nullopt; // a gap
        covered = it->second.end;
        if (!oldest || it->second.time < *oldest)
            oldest = it->second.time;
    }
    if (covered < end)
        return std::nullopt;
    return oldest;
}

size_t ReadTimes::spans() const
{
    size_t n = 0;
    for (const auto &entry : by_class_)
        n += entry.second.size();
    return n;
}

} // namespace plchost
