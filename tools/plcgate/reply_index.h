// Which tags a read reply can have changed, so the main loop looks at those
// instead of at every tag after every reply (with thousands of tags, looking
// at all of them per reply is where the gateway's time would go).
//
// A good read reply stored a span of one register class of one station in
// the driver's mirror (the host's ReplyEvent: station, kind, start, count in
// the class's units, as the host's read times keep them); a tag lies in such
// a span when its class range overlaps it. Anything else (a failed request,
// a give-up) can change any tag's quality, so it asks for a look at all.
#ifndef PLCGATE_REPLY_INDEX_H
#define PLCGATE_REPLY_INDEX_H

#include "read_times.h"

#include <cstddef>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace plchost {
struct Tag;
}

namespace plcgate {

// Where each tag's values lie, by station and class, sorted by start.
class TagIndex {
public:
    TagIndex() = default;
    explicit TagIndex(const std::vector<plchost::Tag> &tags);

    // Adds the indices of the tags with values in `range` of `station` to
    // `marks` (one flag per tag).
    void mark_covered(int station, const plchost::ClassRange &range, std::vector<bool> *marks) const;

private:
    struct Place {
        int64_t start, end;
        size_t tag;
    };
    struct Class {
        std::vector<Place> places; // by start
        int64_t widest = 0;        // bounds how far before a span a tag may start
    };
    std::map<std::pair<int, int>, Class> by_class_; // (station, class)
};

// The spans good read replies brought since the main loop last looked; the
// communication thread adds, the main loop takes.
class ReplyLog {
public:
    struct Span {
        int station;
        plchost::ClassRange range;
    };

    void add(int station, const plchost::ClassRange &range);
    void add_all(); // something that may touch every tag
    // What came since the last take; `all` when every tag is to be looked at.
    std::vector<Span> take(bool *all);

private:
    void add_all_locked();

    // Past this many spans one look at every tag is cheaper than the spans.
    static constexpr size_t kMostSpans = 1024;
    std::mutex mutex_;
    std::vector<Span> spans_;
    bool all_ = false;
};

} // namespace plcgate

#endif // PLCGATE_REPLY_INDEX_H
