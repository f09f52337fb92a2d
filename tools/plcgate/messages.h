// plcgate's topics and payloads, the one place that spells them:
//   plcgate/NAME/status          online / offline
//   plcgate/NAME/tags/TAG        {"value": V, "ts": MS, "quality": "good"|"bad", "seq": N}
//   plcgate/NAME/tags/TAG/set    (subscribed)
//   plcgate/NAME/tags/TAG/ack    {"id": ..., "result": ..., "code": C, "error": "..."}
//   plcgate/NAME/stats           the statistics
// Pure functions.
#ifndef PLCGATE_MESSAGES_H
#define PLCGATE_MESSAGES_H

#include "codec.h"
#include "plchost.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plcgate {

constexpr const char *kOnline = "online";
constexpr const char *kOffline = "offline";

// Whether a name can be one level of a topic: not empty, no / + # or NUL.
bool is_topic_level(const std::string &name);

std::string status_topic(const std::string &gateway);
std::string tag_topic(const std::string &gateway, const std::string &tag);
std::string stats_topic(const std::string &gateway);
std::string ack_topic(const std::string &gateway, const std::string &tag);
// The subscription that takes every tag's writes.
std::string set_filter(const std::string &gateway);
// The tag a set topic names, when it is one of this gateway's set topics.
std::optional<std::string> set_topic_tag(const std::string &gateway, const std::string &topic);

// A tag's values as JSON: one value as it is, more than one as an array.
nlohmann::json values_json(const std::vector<plctags::Value> &values);

// JSON as text; bytes that are not UTF-8 (a tag name, say) are replaced
// rather than refused.
std::string json_text(const nlohmann::json &value);

// A tag's message; `value` is json_text of values_json.
std::string tag_payload(const std::string &value, int64_t ts_ms, bool good, uint64_t seq);

// How a write ended: written (ok), not written by the PLC (failed), or not
// tried (refused: a tag that is unknown or not writable, a wrong value).
enum class WriteResult { Ok, Failed, Refused };

struct Ack {
    nlohmann::json id; // the set's id, null when it gave none
    WriteResult result = WriteResult::Refused;
    int code = 0; // the driver's write-done result (1 ok, 2 failed); 0 when nothing was written
    std::string error;
};
std::string ack_payload(const Ack &ack);

// The gateway's own figures beside the host's in the statistics.
struct GatewayFigures {
    std::string name;
    int64_t uptime_s = 0;
    size_t tags = 0;
    bool connected = false; // to the broker
    uint64_t connects = 0;  // connections made to the broker
    uint64_t published = 0; // messages the broker acknowledged
    size_t buffered = 0;    // messages not acknowledged yet
    size_t in_flight = 0;   // of those, handed to the broker
    uint64_t dropped = 0;   // changes coalesced away while the buffer was full
    uint64_t writes_ok = 0, writes_failed = 0, writes_refused = 0, writes_repeated = 0;
};

std::string stats_payload(const GatewayFigures &gateway, const plchost::Stats &plc);

} // namespace plcgate

#endif // PLCGATE_MESSAGES_H
