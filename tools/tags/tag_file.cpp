#include "tag_file.h"

#include "codec.h"
#include "text.h"

#include "Communication_Protocol.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace plctags {

namespace {

// The kinds in the order of the driver's PlcRegKind.
constexpr int kFirstKind = REG_KIND_DISCRETE_INPUT;
constexpr int kLastKind = REG_KIND_QWORD_4;
constexpr long long kMinCount = 1, kMaxCount = 10000;

std::string invalid(const char *what, const std::string &text, const std::string &accepted)
{
    return "invalid " + std::string(what) + " '" + text + "' (" + accepted + ")";
}

std::string range_text(long long min, long long max)
{
    return std::to_string(min) + ".." + std::to_string(max);
}

std::optional<std::string> read_integer(const char *what, const std::string &field, long long min, long long max,
                                        int *out)
{
    const auto v = parse_integer(field, min, max);
    if (!v)
        return invalid(what, field, range_text(min, max));
    *out = int(*v);
    return std::nullopt;
}

std::optional<std::string> read_name(const std::string &field, Tag *tag)
{
    if (field.empty())
        return "empty tag name";
    tag->plc.name = field;
    return std::nullopt;
}

std::optional<std::string> read_kind(const std::string &field, Tag *tag)
{
    return parse_kind(field, &tag->plc.kind);
}

// The address is checked once the kind is known (see parse_tag_line).
std::optional<std::string> read_address(const std::string &field, Tag *tag)
{
    tag->plc.address = field;
    return std::nullopt;
}

std::optional<std::string> read_station(const std::string &field, Tag *tag)
{
    return read_integer("station", field, kMinStation, kMaxStation, &tag->plc.station);
}

std::optional<std::string> read_count(const std::string &field, Tag *tag)
{
    return read_integer("count", field, kMinCount, kMaxCount, &tag->plc.count);
}

std::optional<std::string> read_real(const char *what, const std::string &field, double *out)
{
    const auto v = parse_real(field);
    if (!v)
        return invalid(what, field, real_field_text());
    *out = *v;
    return std::nullopt;
}

std::optional<std::string> read_unit(const std::string &field, Tag *tag)
{
    tag->unit = field;
    return std::nullopt;
}

// The columns of a tag line, in order; each reader stores its field or says
// why it cannot.
struct Column {
    const char *name;
    std::optional<std::string> (*read)(const std::string &field, Tag *tag);
};

// The first kRequiredColumns must be given; the others may be left out at
// the end of a line or left empty, which keeps the Tag's default.
const Column kColumns[] = {
    {"name", read_name},      {"kind", read_kind},  {"address", read_address}, {"station", read_station},
    {"count", read_count},    {"type", parse_type}, {"order", parse_order},    {"scale", parse_scale},
    {"offset", parse_offset}, {"unit", read_unit},
};
constexpr size_t kColumnCount = sizeof kColumns / sizeof kColumns[0];
constexpr size_t kRequiredColumns = 5;

std::string column_names()
{
    std::string names;
    for (size_t i = 0; i < kColumnCount; ++i)
        names += std::string(i == kRequiredColumns ? "[," : i ? "," : "") + kColumns[i].name;
    return names + "]";
}

// A header line names the columns: its second field is "kind".
bool is_header(const std::vector<std::string> &fields)
{
    return fields.size() >= 2 && trim(fields[1]) == kColumns[1].name;
}

std::string without_comment(const std::string &line)
{
    return line.substr(0, line.find('#'));
}

std::string line_origin(const std::string &origin, int number)
{
    return origin + ":" + std::to_string(number) + ": ";
}

} // namespace

std::optional<std::string> parse_kind(const std::string &text, int *kind)
{
    return read_integer("kind", text, kFirstKind, kLastKind, kind);
}

std::optional<std::string> check_address(int kind, const std::string &address)
{
    if (plchost::Host::parse_address(kind, address) >= 0)
        return std::nullopt;
    // Bit kinds name a bit as BYTE.BIT; every other kind is numbered.
    const bool bits = plchost::value_bits(kind) == 1;
    return "invalid address '" + address + "' for kind " + std::to_string(kind) +
           (bits ? " (expected BYTE.BIT)" : " (expected a number)");
}

std::optional<std::string> parse_type(const std::string &text, Tag *tag)
{
    const auto type = type_from_name(text);
    if (!type)
        return invalid("type", text, type_names());
    tag->type = *type;
    return std::nullopt;
}

std::optional<std::string> parse_order(const std::string &text, Tag *tag)
{
    const auto order = order_from_name(text);
    if (!order)
        return invalid("order", text, order_names());
    tag->order = *order;
    return std::nullopt;
}

std::optional<std::string> parse_scale(const std::string &text, Tag *tag)
{
    return read_real("scale", text, &tag->scale);
}

std::optional<std::string> parse_offset(const std::string &text, Tag *tag)
{
    return read_real("offset", text, &tag->offset);
}

std::string real_field_text()
{
    return "a decimal number";
}

std::string writable_kinds_text()
{
    std::string kinds;
    for (int kind = kFirstKind; kind <= kLastKind; ++kind)
        if (plchost::kind_writable(kind))
            kinds += (kinds.empty() ? "" : " ") + std::to_string(kind);
    return kinds;
}

Parsed<Tag> parse_tag_line(const std::string &line)
{
    const auto fields = split(line, ',');
    if (fields.size() < kRequiredColumns || fields.size() > kColumnCount)
        return refuse("expected " + std::to_string(kRequiredColumns) + " to " + std::to_string(kColumnCount) +
                      " fields " + column_names() + ", got " + std::to_string(fields.size()));
    Tag tag;
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string field = trim(fields[i]);
        if (i >= kRequiredColumns && field.empty())
            continue;
        if (const auto why = kColumns[i].read(field, &tag))
            return refuse(*why);
    }
    if (const auto why = check_address(tag.plc.kind, tag.plc.address))
        return refuse(*why);
    if (const auto why = check_fit(tag))
        return refuse(*why);
    return tag;
}

Parsed<std::vector<Tag>> read_tag_stream(std::istream &in, const std::string &origin)
{
    std::vector<Tag> tags;
    bool first = true;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        line = without_comment(line);
        if (trim(line).empty())
            continue;
        const bool header = first && is_header(split(line, ','));
        first = false;
        if (header)
            continue;
        auto tag = parse_tag_line(line);
        if (!tag.ok())
            return refuse(line_origin(origin, number) + tag.why());
        tags.push_back(std::move(tag).value());
    }
    if (tags.empty())
        return refuse("no tags in " + origin);
    return tags;
}

Parsed<std::vector<Tag>> read_tag_file(const std::string &path)
{
    std::ifstream in(path);
    if (!in)
        return refuse("cannot open tag file " + path + ": " + std::strerror(errno));
    return read_tag_stream(in, path);
}

} // namespace plctags
