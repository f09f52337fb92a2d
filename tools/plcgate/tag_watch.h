// When a tag is published: when its value changes (for numbers with a
// deadband, when one moves by more than it), when its quality changes, and
// at least every refresh period. Each message counts the tag's seq up by
// one. Pure: the caller reads the host and passes the clock.
#ifndef PLCGATE_TAG_WATCH_H
#define PLCGATE_TAG_WATCH_H

#include "codec.h"
#include "plchost.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plcgate {

// A tag as the gateway serves it.
struct GateTag {
    plctags::Tag tag;
    bool writable = false;
    std::optional<double> deadband; // numbers only
};

// The tag of that name in `tags` (a vector of GateTag, const or not); null
// when there is none.
template <typename Tags> auto find_tag(Tags &tags, const std::string &name) -> decltype(&tags[0])
{
    for (auto &t : tags)
        if (t.tag.plc.name == name)
            return &t;
    return nullptr;
}

// What was last published for a tag.
struct TagState {
    bool published = false;
    std::vector<plctags::Value> values;
    bool good = false;
    uint64_t seq = 0; // of the last message
    std::chrono::steady_clock::time_point at{};
};

// The payload to publish for this reading of the tag, if one is due; the
// state then records it. Nothing for a tag that has not been read yet.
// refresh zero: only changes are published.
std::optional<std::string> due_payload(const GateTag &tag, TagState *state, const plchost::Reading &reading,
                                       std::chrono::steady_clock::time_point now, std::chrono::seconds refresh);

} // namespace plcgate

#endif // PLCGATE_TAG_WATCH_H
