#include "output.h"

#include "render_text.h"

#include <algorithm>
#include <cmath>

namespace plcpoll {

namespace {

const char *const kClearScreen = "\x1b[H\x1b[2J";
const char *const kBold = "\x1b[1m";
const char *const kGreen = "\x1b[32m";
const char *const kRed = "\x1b[31m";
const char *const kPlain = "\x1b[0m";

const char *quality_name(plchost::Quality quality)
{
    switch (quality) {
    case plchost::Quality::Good: return "good";
    case plchost::Quality::Failing: return "failing";
    case plchost::Quality::NotRead: break;
    }
    return "not_read";
}

// Reals that are no JSON number (NaN, the infinities) as their text.
Json value_json(const plctags::Value &value)
{
    if (const double *real = std::get_if<double>(&value); real && !std::isfinite(*real))
        return plctags::value_text(value);
    return std::visit([](const auto &v) { return Json(v); }, value);
}

Json values_json(const std::vector<plctags::Value> &values)
{
    Json array = Json::array();
    for (const plctags::Value &v : values)
        array.push_back(value_json(v));
    return array;
}

// Where the tag lives, and how it is typed when it is.
Json tag_json(const PollTag &tag)
{
    const plchost::Tag &t = tag.plc;
    Json json{{"name", t.name}, {"kind", t.kind}, {"address", t.address}, {"station", t.station}, {"count", t.count}};
    if (tag.type == plctags::ValueType::Raw)
        return json;
    json["type"] = plctags::type_name(tag.type);
    if (plctags::type_registers(tag.type) > 1 || tag.type == plctags::ValueType::Ascii)
        json["order"] = plctags::order_name(tag.order);
    if (plctags::is_scaled(tag)) {
        json["scale"] = tag.scale;
        json["offset"] = tag.offset;
    }
    if (!tag.unit.empty())
        json["unit"] = tag.unit;
    return json;
}

Json reading_json(const TagReading &r)
{
    Json json = tag_json(r.tag);
    json["quality"] = quality_name(r.quality);
    json["values"] = r.quality == plchost::Quality::Good ? values_json(r.values) : Json(nullptr);
    return json;
}

Json tags_json(const Snapshot &now)
{
    Json tags = Json::array();
    for (const TagReading &t : now.tags)
        tags.push_back(reading_json(t));
    return tags;
}

// How a tag's reading compares with the refresh before.
enum class Change { FirstSeen, Same, Changed };

Change change_of(const Snapshot &now, const Snapshot *before, size_t i)
{
    if (!before || before->tags.size() != now.tags.size())
        return Change::FirstSeen;
    const TagReading &a = before->tags[i], &b = now.tags[i];
    return a.quality == b.quality && a.values == b.values ? Change::Same : Change::Changed;
}

// What the value column shows: the values, or "-" when there are none to
// trust.
std::string shown_text(const TagReading &r)
{
    if (r.quality != plchost::Quality::Good)
        return "-";
    return plctags::values_text(r.tag, r.values);
}

// The TYPE column: the kind's name for the raw view, else the value type
// (and its order when that matters).
std::string type_column(const PollTag &tag)
{
    if (tag.type == plctags::ValueType::Raw)
        return plchost::kind_name(tag.plc.kind);
    std::string text = plctags::type_name(tag.type);
    if (plctags::type_registers(tag.type) > 1)
        text += std::string(" ") + plctags::order_name(tag.order);
    return text;
}

// The trend column, kTrendLength characters wide (a block character is one
// column but three bytes, so printf's widths cannot pad it).
std::string trend_column(const TagReading &r)
{
    const std::string line = sparkline(r.trend);
    return line + std::string(kTrendLength - std::min(r.trend.size(), kTrendLength), ' ') + " ";
}

std::string table_heading(const Snapshot &now)
{
    const std::string state = now.connected ? "connected" : std::string(kRed) + "disconnected" + kPlain;
    return format("plcpoll  %s  %s  %s  t=%.1fs  passes %llu  good %llu  failed %llu\n\n", now.peer.c_str(),
                  plchost::link_name(now.link), state.c_str(), now.elapsed_s, count(now.stats.passes),
                  count(now.stats.good_replies), count(now.stats.failed_replies)) +
           format("%s%-16s %4s %-18s %-8s %3s  %s%s%s\n", kBold, "NAME", "KIND", "TYPE", "ADDRESS", "STN",
                  now.trends ? format("%-*s ", int(kTrendLength), "TREND").c_str() : "", "  VALUE", kPlain);
}

std::string table_row(const Snapshot &now, const Snapshot *before, size_t i)
{
    const TagReading &r = now.tags[i];
    const plchost::Tag &t = r.tag.plc;
    const bool changed = change_of(now, before, i) == Change::Changed;
    return format("%-16s %4d %-18s %-8s %3d  %s%s %s%s%s\n", t.name.c_str(), t.kind, type_column(r.tag).c_str(),
                  t.address.c_str(), t.station, now.trends ? trend_column(r).c_str() : "", changed ? "*" : " ",
                  changed ? kGreen : "", shown_text(r).c_str(), changed ? kPlain : "");
}

std::string render_table(const Snapshot &now, const Snapshot *before)
{
    std::string screen = kClearScreen + table_heading(now);
    for (size_t i = 0; i < now.tags.size(); ++i)
        screen += table_row(now, before, i);
    return screen + "\nCtrl-C to stop\n";
}

std::string render_lines(const Snapshot &now, const Snapshot *before)
{
    std::string lines;
    for (size_t i = 0; i < now.tags.size(); ++i) {
        if (change_of(now, before, i) == Change::Same)
            continue;
        const plchost::Tag &t = now.tags[i].tag.plc;
        lines += format("%8.3fs  %-16s kind %-2d %-8s stn %-3d = %s\n", now.elapsed_s, t.name.c_str(), t.kind,
                        t.address.c_str(), t.station, shown_text(now.tags[i]).c_str());
    }
    return lines;
}

const char *write_status(plchost::DoneResult result)
{
    switch (result) {
    case plchost::DoneResult::Ok: return "ok";
    case plchost::DoneResult::Failed: return "failed (communication failed)";
    case plchost::DoneResult::TimedOut: break;
    }
    return "failed (no completion in time)";
}

std::string written_text(const PollTag &tag, const std::vector<uint64_t> &values)
{
    return plctags::values_text(tag, plctags::decode(tag, values));
}

std::string read_back_text(const WriteReport &r)
{
    if (r.read_back == WriteReport::ReadBack::Failed)
        return "read back: (read back failed)\n";
    const bool differs = r.read_values != r.values;
    return "read back: " + written_text(r.target, r.read_values) +
           (differs ? " (differs from the value written)" : "") + "\n";
}

std::string write_text(const WriteReport &r)
{
    const plchost::Tag &t = r.target.plc;
    const std::string as = r.target.type == plctags::ValueType::Raw ? "" : " as " + type_column(r.target);
    std::string text = format("write kind %d (%s) address %s station %d%s: %s -> %s\n", t.kind,
                              plchost::kind_name(t.kind), t.address.c_str(), t.station, as.c_str(),
                              written_text(r.target, r.values).c_str(), write_status(r.result));
    if (r.read_back != WriteReport::ReadBack::NotTried)
        text += read_back_text(r);
    return text + render_stats(r.stats);
}

std::string write_json(const WriteReport &r)
{
    const bool ok = r.result == plchost::DoneResult::Ok;
    Json written = tag_json(r.target);
    written["values"] = values_json(plctags::decode(r.target, r.values));
    const bool read = r.read_back == WriteReport::ReadBack::Read;
    return dump(Json{{"write", written},
                     {"result", ok ? "ok" : "failed"},
                     {"read_back", read ? values_json(plctags::decode(r.target, r.read_values)) : Json::array()},
                     {"stats", stats_json(r.stats)}});
}

} // namespace

std::string render_refresh(View view, const Snapshot &now, const Snapshot *before)
{
    switch (view) {
    case View::Json: return dump(Json{{"time", now.elapsed_s}, {"connected", now.connected}, {"tags", tags_json(now)}});
    case View::Table: return render_table(now, before);
    case View::Lines: break;
    }
    return render_lines(now, before);
}

std::string render_pass(View view, const Snapshot &now, bool complete)
{
    if (view == View::Json)
        return dump(Json{{"complete", complete}, {"tags", tags_json(now)}, {"stats", stats_json(now.stats)}});
    return render_lines(now, nullptr) + render_stats(now.stats);
}

std::string render_final_stats(View view, const plchost::Stats &stats)
{
    if (view == View::Json)
        return dump(Json{{"stats", stats_json(stats)}});
    return render_stats(stats);
}

std::string render_write(View view, const WriteReport &report)
{
    return view == View::Json ? write_json(report) : write_text(report);
}

std::string render_frame(plchost::FrameDirection direction, const uint8_t *data, size_t size)
{
    std::string line = direction == plchost::FrameDirection::Sent ? "tx" : "rx";
    line += format(" %3zu:", size);
    for (size_t i = 0; i < size; ++i)
        line += format(" %02X", data[i]);
    return line + "\n";
}

} // namespace plcpoll
