// Writes that arrive on plcgate/NAME/tags/TAG/set, as pure functions: the
// payload read into a request (a JSON value, or {"value": V, "id": ...}),
// and a request's value turned into what the host writes for a tag. Any
// payload of any size gets a request or the reason it was refused, never
// an exception (fuzz/fuzz_set_request.cpp holds them to that).
#ifndef PLCGATE_SET_REQUEST_H
#define PLCGATE_SET_REQUEST_H

#include "parsed.h"
#include "tag.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plcgate {

// Payloads above this size are refused unread.
constexpr size_t kMaxSetPayload = 65536;

struct SetRequest {
    nlohmann::json id;                   // as the payload gave it (a text or a number); null when it gave none
    std::optional<nlohmann::json> value; // the value to write; empty when the payload was refused
    std::string error;                   // why it was refused
};

SetRequest parse_set(const std::string &payload);

// The host codec's values (plchost::encode_values' input) that write
// `value` to the tag: one JSON value for a tag of one value, an array of as
// many values as the tag has otherwise; numbers for the numeric and raw
// types (true and false too for bits), texts for hex, bits and ascii. An
// ascii text shorter than the tag is padded with NULs. The reason when the
// value has the wrong type, the wrong count or is out of range.
plctags::Parsed<std::vector<uint64_t>> set_values(const plctags::Tag &tag, const nlohmann::json &value);

} // namespace plcgate

#endif // PLCGATE_SET_REQUEST_H
