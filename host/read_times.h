// When each part of the PLC's memory was last brought into the driver's
// mirror by a good read reply, so that a value can be shown with its age, or
// as not read yet, instead of as whatever the mirror holds (the mirror
// answers 0 for what it has never stored).
//
// Kept per station and register class, in the class's units (bits of the bit
// classes, registers of the word classes), as spans with one time each: a
// reply sets its span's time, overwriting what was there. The spans never
// outnumber the class's addresses, so the record stays bounded however many
// different blocks are read.
#ifndef PLCHOST_READ_TIMES_H
#define PLCHOST_READ_TIMES_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace plchost {

struct Tag;
struct ReplyEvent;

// A part of a register class: [start, start + count) in the class's units.
struct ClassRange {
    int cls = 0;
    int64_t start = 0;
    int64_t count = 0;
};

// The part of its register class a tag's values lie in; nothing for a kind
// that is not known or an address text that does not parse.
std::optional<ClassRange> class_range(const Tag &tag);

// The part of its register class a read request's reply brings into the
// mirror (the request's converted kind, start and count are in the class's
// units already).
ClassRange class_range(const ReplyEvent &read);

class ReadTimes {
public:
    using Time = std::chrono::system_clock::time_point;

    // A good read reply stored [start, start + count) of a class of a station.
    void note(int station, const ClassRange &range, Time when);
    // The oldest time over the range, or nothing when a part of it was
    // never read.
    std::optional<Time> oldest(int station, const ClassRange &range) const;
    // Spans kept (for tests of the bound).
    size_t spans() const;

private:
    struct Span {
        int64_t end;
        Time time;
    };
    using Spans = std::map<int64_t, Span>;          // by start
    std::map<std::pair<int, int>, Spans> by_class_; // (station, class)
};

} // namespace plchost

#endif // PLCHOST_READ_TIMES_H
