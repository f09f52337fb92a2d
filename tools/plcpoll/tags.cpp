#include "tags.h"

#include "text.h"

#include "Communication_Protocol.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace plcpoll {

namespace {

// The kinds in the order of the driver's PlcRegKind.
constexpr int kFirstKind = REG_KIND_DISCRETE_INPUT;
constexpr int kLastKind = REG_KIND_QWORD_4;
// Station 0 is the broadcast address of Modbus.
constexpr long long kMinStation = 0, kMaxStation = 255;
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

std::optional<std::string> read_name(const std::string &field, PollTag *tag)
{
    if (field.empty())
        return "empty tag name";
    tag->plc.name = field;
    return std::nullopt;
}

std::optional<std::string> read_kind(const std::string &field, PollTag *tag)
{
    return parse_kind(field, &tag->plc.kind);
}

// The address is checked once the kind is known (see parse_tag_line).
std::optional<std::string> read_address(const std::string &field, PollTag *tag)
{
    tag->plc.address = field;
    return std::nullopt;
}

std::optional<std::string> read_station(const std::string &field, PollTag *tag)
{
    return read_integer("station", field, kMinStation, kMaxStation, &tag->plc.station);
}

std::optional<std::string> read_count(const std::string &field, PollTag *tag)
{
    return read_integer("count", field, kMinCount, kMaxCount, &tag->plc.count);
}

// The columns of a tag line, in order; each reader stores its field or says
// why it cannot.
struct Column {
    const char *name;
    std::optional<std::string> (*read)(const std::string &field, PollTag *tag);
};

const Column kColumns[] = {
    {"name", read_name},       {"kind", read_kind},   {"address", read_address},
    {"station", read_station}, {"count", read_count},
};
constexpr size_t kColumnCount = sizeof kColumns / sizeof kColumns[0];

std::string column_names()
{
    std::string names;
    for (const Column &c : kColumns)
        names += (names.empty() ? "" : ",") + std::string(c.name);
    return names;
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

std::string writable_kinds_text()
{
    std::string kinds;
    for (int kind = kFirstKind; kind <= kLastKind; ++kind)
        if (plchost::kind_writable(kind))
            kinds += (kinds.empty() ? "" : " ") + std::to_string(kind);
    return kinds;
}

Result<PollTag> parse_tag_line(const std::string &line)
{
    const auto fields = split(line, ',');
    if (fields.size() != kColumnCount)
        return usage_error("expected " + std::to_string(kColumnCount) + " fields " + column_names() + ", got " +
                           std::to_string(fields.size()));
    PollTag tag;
    for (size_t i = 0; i < kColumnCount; ++i)
        if (const auto why = kColumns[i].read(trim(fields[i]), &tag))
            return usage_error(*why);
    if (const auto why = check_address(tag.plc.kind, tag.plc.address))
        return usage_error(*why);
    return tag;
}

Result<std::vector<PollTag>> read_tag_stream(std::istream &in, const std::string &origin)
{
    std::vector<PollTag> tags;
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
            return usage_error(line_origin(origin, number) + tag.exit().message);
        tags.push_back(std::move(tag).value());
    }
    if (tags.empty())
        return usage_error("no tags in " + origin);
    return tags;
}

Result<std::vector<PollTag>> read_tag_file(const std::string &path)
{
    std::ifstream in(path);
    if (!in)
        return usage_error("cannot open tag file " + path + ": " + std::strerror(errno));
    return read_tag_stream(in, path);
}

Result<std::vector<PollTag>> load_tags(const std::vector<TagSource> &sources)
{
    std::vector<PollTag> tags;
    for (const TagSource &source : sources) {
        if (source.from == TagSource::From::File) {
            auto file = read_tag_file(source.text);
            if (!file.ok())
                return file.exit();
            tags.insert(tags.end(), file.value().begin(), file.value().end());
            continue;
        }
        auto tag = parse_tag_line(source.text);
        if (!tag.ok())
            return usage_error("--tag '" + source.text + "': " + tag.exit().message);
        tags.push_back(std::move(tag).value());
    }
    return tags;
}

} // namespace plcpoll
