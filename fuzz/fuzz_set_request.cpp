// Fuzz target: plcgate's set payloads (tools/plcgate/set_request.h), what a
// client of the broker sends to plcgate/NAME/tags/TAG/set, read and turned
// into the values the host writes for one of a fixed table of tags.
//
// Input layout: tag (u8, an index into kTags), shape (u8), then the payload.
// Shape bit 0 set: the payload is repeated until it is as long as the next
// u16 (after the shape byte) in units of 64 bytes, up to about 4 MiB, which
// reaches the payload size limit and nestings deeper than any corpus entry;
// the payload is then what follows that u16.
//
// Invariants:
//   - parse_set never throws and gives either a value and no error text, or
//     no value and an error text;
//   - the id is null, a text or a whole number;
//   - a payload above kMaxSetPayload bytes, or one that is not JSON, is
//     refused; a value comes only from a payload that is JSON, and a payload
//     that is not an object gives itself as the value;
//   - set_values gives exactly as many values as a read of the tag has, each
//     within the width of one value of its kind, which the host's codec
//     takes for a writable kind; or a reason that is not empty;
//   - a tag shown unscaled (and ascii text without escapes): the values
//     written, read back as the gateway publishes them (decode,
//     values_json), give the same values again.
#include "fuzz_common.h"

#include "codec.h"
#include "messages.h"
#include "set_request.h"
#include "value_codec.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using plctags::ByteOrder;
using plctags::Tag;
using plctags::ValueType;

// The size a repeated payload grows to is counted in these.
constexpr size_t kRepeatUnit = 64;

Tag make_tag(int kind, int count, ValueType type, ByteOrder order = ByteOrder::ABCD, double scale = 1,
             double offset = 0)
{
    Tag t;
    t.plc.name = "t";
    t.plc.kind = kind;
    t.plc.address = "0";
    t.plc.station = 1;
    t.plc.count = count;
    t.type = type;
    t.order = order;
    t.scale = scale;
    t.offset = offset;
    return t;
}

// One tag of every type, over the kinds that can hold it, and raw tags of
// the bit, byte, word, 32- and 64-bit kinds with one and more values.
const std::vector<Tag> &tags()
{
    static const std::vector<Tag> all = {
        make_tag(1, 1, ValueType::Raw),
        make_tag(1, 8, ValueType::Raw),
        make_tag(5, 3, ValueType::Raw),
        make_tag(7, 2, ValueType::Raw),
        make_tag(4, 1, ValueType::Raw),
        make_tag(3, 4, ValueType::Raw),
        make_tag(10, 2, ValueType::Raw),
        make_tag(13, 8, ValueType::Raw),
        make_tag(3, 1, ValueType::Int16),
        make_tag(4, 2, ValueType::Uint16, ByteOrder::ABCD, 0.1, -5),
        make_tag(3, 2, ValueType::Int32, ByteOrder::CDAB),
        make_tag(3, 4, ValueType::Uint32, ByteOrder::BADC),
        make_tag(4, 4, ValueType::Int64, ByteOrder::DCBA),
        make_tag(3, 4, ValueType::Uint64),
        make_tag(3, 2, ValueType::Float32, ByteOrder::CDAB),
        make_tag(3, 6, ValueType::Float32, ByteOrder::ABCD, 2.5, 1),
        make_tag(4, 4, ValueType::Float64, ByteOrder::BADC),
        make_tag(3, 2, ValueType::Hex),
        make_tag(7, 3, ValueType::Hex),
        make_tag(4, 1, ValueType::Bits),
        make_tag(3, 5, ValueType::Ascii),
        make_tag(8, 7, ValueType::Ascii),
        make_tag(2, 1, ValueType::Int16), // read-only kind: values still checked, the host refuses to write
    };
    static const bool fit = [] {
        for (const Tag &t : all)
            FUZZ_CHECK(!plctags::check_fit(t));
        return true;
    }();
    (void)fit;
    return all;
}

std::string payload_of(FuzzInput &in)
{
    const bool repeated = (in.u8() & 1) != 0;
    const size_t length = repeated ? size_t(in.u16()) * kRepeatUnit : 0;
    const QByteArray rest = in.bytes(in.remaining());
    std::string payload(rest.constData(), size_t(rest.size()));
    if (!repeated || payload.empty())
        return payload;
    std::string grown;
    grown.reserve(length);
    while (grown.size() < length)
        grown.append(payload, 0, length - grown.size());
    return grown;
}

void check_request(const std::string &payload, const plcgate::SetRequest &r)
{
    FUZZ_CHECK(r.value.has_value() == r.error.empty());
    FUZZ_CHECK(r.id.is_null() || r.id.is_string() || r.id.is_number_integer());
    if (payload.size() > plcgate::kMaxSetPayload) {
        FUZZ_CHECK(!r.value);
        return;
    }
    if (!r.value)
        return;
    const json parsed = json::parse(payload, nullptr, false);
    FUZZ_CHECK(!parsed.is_discarded());
    if (!parsed.is_object())
        FUZZ_CHECK(*r.value == parsed);
}

void check_values(const Tag &tag, const plctags::Parsed<std::vector<uint64_t>> &values)
{
    if (!values.ok()) {
        FUZZ_CHECK(!values.why().empty());
        return;
    }
    const int kind = tag.plc.kind;
    FUZZ_CHECK(values.value().size() == size_t(plchost::value_count(kind, tag.plc.count)));
    const int bits = plchost::value_bits(kind);
    for (uint64_t v : values.value())
        FUZZ_CHECK(bits == 64 || v < (uint64_t(1) << bits));
    std::vector<uint8_t> bytes;
    int count = 0;
    FUZZ_CHECK(plchost::encode_values(kind, values.value(), &bytes, &count) == plchost::kind_writable(kind));
}

// What the gateway publishes for the values, set again, writes them again.
// Not for scaled numbers (rounded when shown), nor for ascii text that shows
// escapes: the tags' codec shows bytes outside printable ASCII, and the
// backslash, as \xNN, and takes a text to write byte for byte.
void check_round_trip(const Tag &tag, const std::vector<uint64_t> &values)
{
    if (plctags::is_scaled(tag))
        return;
    const std::vector<plctags::Value> decoded = plctags::decode(tag, values);
    if (tag.type == ValueType::Ascii && std::get<std::string>(decoded.at(0)).find('\\') != std::string::npos)
        return;
    const json shown = plcgate::values_json(decoded);
    const auto again = plcgate::set_values(tag, shown);
    if (!again.ok())
        FUZZ_TRACE("published %s cannot be set again: %s\n", shown.dump().c_str(), again.why().c_str());
    FUZZ_CHECK(again.ok());
    FUZZ_CHECK(again.value() == values);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const Tag &tag = tags()[in.u8() % tags().size()];
    const std::string payload = payload_of(in);

    const plcgate::SetRequest request = plcgate::parse_set(payload);
    FUZZ_TRACE("payload of %zu bytes: %s\n", payload.size(),
               request.value ? request.value->dump().c_str() : request.error.c_str());
    check_request(payload, request);
    if (!request.value)
        return 0;
    const auto values = plcgate::set_values(tag, *request.value);
    check_values(tag, values);
    if (values.ok())
        check_round_trip(tag, values.value());
    return 0;
}
