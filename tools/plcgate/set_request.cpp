#include "set_request.h"

#include "codec.h"
#include "numbers.h"

namespace plcgate {

namespace {

using nlohmann::json;
using plctags::refuse;

// A value is a number, a text or an array of them; with the object around
// it that is two levels. Deeper payloads are refused before they are
// parsed, so their size cannot make the parser recurse deep.
constexpr int kMaxDepth = 4;

bool too_deep(const std::string &payload)
{
    int depth = 0;
    bool quoted = false, escaped = false;
    for (char c : payload) {
        if (quoted) {
            escaped = !escaped && c == '\\';
            quoted = escaped || c != '"';
            continue;
        }
        if (c == '"')
            quoted = true;
        else if (c == '[' || c == '{')
            ++depth;
        else if (c == ']' || c == '}')
            --depth;
        if (depth > kMaxDepth)
            return true;
    }
    return false;
}

SetRequest refused(std::string why, json id = nullptr)
{
    SetRequest r;
    r.id = std::move(id);
    r.error = std::move(why);
    return r;
}

SetRequest from_object(const json &object)
{
    json id = nullptr;
    const auto given_id = object.find("id");
    if (given_id != object.end()) {
        if (!given_id->is_string() && !given_id->is_number_integer())
            return refused("\"id\" must be a text or a whole number");
        id = *given_id;
    }
    for (const auto &item : object.items())
        if (item.key() != "value" && item.key() != "id")
            return refused("unknown key \"" + item.key() + "\" (a set takes \"value\" and \"id\")", id);
    const auto value = object.find("value");
    if (value == object.end())
        return refused("no \"value\" in the object", id);
    SetRequest r;
    r.id = std::move(id);
    r.value = *value;
    return r;
}

// The number or text of one JSON value, as the tags library reads values.
plctags::Parsed<std::string> value_text(const plctags::Tag &tag, const json &v)
{
    const bool texts = !plctags::shows_numbers(tag.type);
    const bool bits = tag.type == plctags::ValueType::Raw && plchost::value_bits(tag.plc.kind) == 1;
    if (texts != v.is_string() || (v.is_boolean() && !bits) || !(v.is_string() || v.is_number() || v.is_boolean()))
        return refuse(std::string("a value of type ") + plctags::type_name(tag.type) + " is " +
                      (texts  ? "a text"
                       : bits ? "a number or true/false"
                              : "a number") +
                      ", got " + v.dump());
    if (v.is_string())
        return v.get<std::string>();
    if (v.is_boolean())
        return std::string(v.get<bool>() ? "1" : "0");
    if (v.is_number_unsigned())
        return std::to_string(v.get<uint64_t>());
    if (v.is_number_integer())
        return std::to_string(v.get<int64_t>());
    return plctags::real_text(v.get<double>());
}

} // namespace

SetRequest parse_set(const std::string &payload)
{
    if (payload.size() > kMaxSetPayload)
        return refused("payload of " + std::to_string(payload.size()) + " bytes, more than " +
                       std::to_string(kMaxSetPayload));
    if (too_deep(payload))
        return refused("payload nested deeper than " + std::to_string(kMaxDepth) + " levels");
    const json parsed = json::parse(payload, nullptr, false);
    if (parsed.is_discarded())
        return refused("payload is not JSON");
    if (parsed.is_object())
        return from_object(parsed);
    SetRequest r;
    r.value = parsed;
    return r;
}

plctags::Parsed<std::vector<uint64_t>> set_values(const plctags::Tag &tag, const json &value)
{
    const size_t wanted = plctags::shown_count(tag);
    const bool many = value.is_array();
    if (many ? value.size() != wanted : wanted != 1)
        return refuse("tag '" + tag.plc.name + "' takes " +
                      (wanted == 1 ? std::string("one value") : "an array of " + std::to_string(wanted) + " values") +
                      ", got " + (many ? std::to_string(value.size()) + " values" : std::string("one")));
    std::vector<std::string> texts;
    for (const json &v : many ? value : json::array({value})) {
        auto t = value_text(tag, v);
        if (!t.ok())
            return refuse(t.why());
        texts.push_back(std::move(t).value());
    }
    auto values = plctags::encode(tag, texts);
    if (!values.ok())
        return refuse(values.why());
    std::vector<uint64_t> out = std::move(values).value();
    const size_t raw = size_t(plchost::value_count(tag.plc.kind, tag.plc.count));
    if (out.size() < raw && tag.type == plctags::ValueType::Ascii)
        out.resize(raw, 0);
    if (out.size() != raw)
        return refuse("the text takes " + std::to_string(out.size()) + " values of the tag's " + std::to_string(raw));
    return out;
}

} // namespace plcgate
