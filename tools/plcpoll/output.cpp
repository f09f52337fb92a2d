#include "output.h"

#include <nlohmann/json.hpp>

#include <cstdarg>
#include <cstdio>

namespace plcpoll {

namespace {

// Objects keep their keys in the order written, which is the order scripts
// and tests have always seen.
using Json = nlohmann::ordered_json;

const char *const kClearScreen = "\x1b[H\x1b[2J";
const char *const kBold = "\x1b[1m";
const char *const kGreen = "\x1b[32m";
const char *const kRed = "\x1b[31m";
const char *const kPlain = "\x1b[0m";

__attribute__((format(printf, 1, 2))) std::string format(const char *pattern, ...)
{
    va_list args;
    va_start(args, pattern);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string text(size_t(length > 0 ? length : 0) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), pattern, again);
    va_end(again);
    text.pop_back();
    return text;
}

unsigned long long count(uint64_t n)
{
    return static_cast<unsigned long long>(n);
}

// A tag name in a file need not be UTF-8; such bytes are shown as U+FFFD
// rather than failing the whole output.
std::string dump(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json tag_json(const plchost::Tag &tag, const std::vector<uint64_t> &values)
{
    return Json{{"name", tag.name},       {"kind", tag.kind},   {"address", tag.address},
                {"station", tag.station}, {"count", tag.count}, {"values", values}};
}

Json tags_json(const Snapshot &now)
{
    Json tags = Json::array();
    for (const TagReading &t : now.tags)
        tags.push_back(tag_json(t.tag.plc, t.values));
    return tags;
}

Json stats_json(const plchost::Stats &s)
{
    Json codes = Json::object();
    for (const auto &code : s.codes)
        codes[std::to_string(code.first)] = code.second;
    return Json{{"requests", s.requests},
                {"good_replies", s.good_replies},
                {"failed_replies", s.failed_replies},
                {"retries", s.retries},
                {"give_ups", s.give_ups},
                {"timeouts", s.timeouts},
                {"reconnects", s.reconnects},
                {"connect_failures", s.connect_failures},
                {"foreign_replies", s.foreign_replies},
                {"resyncs", s.resyncs},
                {"stale_bytes", s.stale_bytes},
                {"passes", s.passes},
                {"rtt_ms", Json{{"min", s.rtt_min_ms}, {"avg", s.rtt_avg_ms}, {"max", s.rtt_max_ms}}},
                {"codes", codes}};
}

// How a tag's values compare with the refresh before.
enum class Change { FirstSeen, Same, Changed };

Change change_of(const Snapshot &now, const Snapshot *before, size_t i)
{
    if (!before || before->tags.size() != now.tags.size())
        return Change::FirstSeen;
    return before->tags[i].values == now.tags[i].values ? Change::Same : Change::Changed;
}

const char *link_name(plchost::LinkMode link)
{
    return link == plchost::LinkMode::Modbus ? "modbus" : "remote";
}

std::string table_heading(const Snapshot &now)
{
    const std::string state = now.connected ? "connected" : std::string(kRed) + "disconnected" + kPlain;
    return format("plcpoll  %s  %s  %s  t=%.1fs  passes %llu  good %llu  failed %llu\n\n", now.peer.c_str(),
                  link_name(now.link), state.c_str(), now.elapsed_s, count(now.stats.passes),
                  count(now.stats.good_replies), count(now.stats.failed_replies)) +
           format("%s%-16s %4s %-18s %-8s %3s  %s%s\n", kBold, "NAME", "KIND", "TYPE", "ADDRESS", "STN", "VALUE",
                  kPlain);
}

std::string render_table(const Snapshot &now, const Snapshot *before)
{
    std::string screen = kClearScreen + table_heading(now);
    for (size_t i = 0; i < now.tags.size(); ++i) {
        const plchost::Tag &t = now.tags[i].tag.plc;
        const bool changed = change_of(now, before, i) == Change::Changed;
        screen += format("%-16s %4d %-18s %-8s %3d  %s%s%s\n", t.name.c_str(), t.kind, plchost::kind_name(t.kind),
                         t.address.c_str(), t.station, changed ? kGreen : "",
                         render_values(t.kind, now.tags[i].values).c_str(), changed ? kPlain : "");
    }
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
                        t.address.c_str(), t.station, render_values(t.kind, now.tags[i].values).c_str());
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

std::string read_back_text(const WriteReport &r)
{
    if (r.read_back == WriteReport::ReadBack::Failed)
        return "read back: (read back failed)\n";
    const bool differs = r.read_values != r.values;
    return "read back: " + render_values(r.target.kind, r.read_values) +
           (differs ? " (differs from the value written)" : "") + "\n";
}

std::string write_text(const WriteReport &r)
{
    const plchost::Tag &t = r.target;
    std::string text =
        format("write kind %d (%s) address %s station %d: %s -> %s\n", t.kind, plchost::kind_name(t.kind),
               t.address.c_str(), t.station, render_values(t.kind, r.values).c_str(), write_status(r.result));
    if (r.read_back != WriteReport::ReadBack::NotTried)
        text += read_back_text(r);
    return text + render_stats(r.stats);
}

std::string write_json(const WriteReport &r)
{
    const bool ok = r.result == plchost::DoneResult::Ok;
    return dump(Json{{"write", tag_json(r.target, r.values)},
                     {"result", ok ? "ok" : "failed"},
                     {"read_back", r.read_values},
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

std::string render_values(int kind, const std::vector<uint64_t> &values)
{
    const int bits = plchost::value_bits(kind);
    // Bytes and words also in hex, with as many digits as they have.
    const int hex_digits = bits == 8 || bits == 16 ? bits / 4 : 0;
    std::string text;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            text += bits == 1 ? " " : ", ";
        text += std::to_string(values[i]);
        if (hex_digits)
            text += format(" (0x%0*llX)", hex_digits, count(values[i]));
    }
    return text;
}

std::string render_stats(const plchost::Stats &s)
{
    std::string text = format("statistics: %llu requests, %llu good, %llu failed (%llu retried, %llu given up), "
                              "%llu timeouts, %llu reconnects, %llu passes\n",
                              count(s.requests), count(s.good_replies), count(s.failed_replies), count(s.retries),
                              count(s.give_ups), count(s.timeouts), count(s.reconnects), count(s.passes));
    if (s.foreign_replies || s.resyncs || s.stale_bytes)
        text += format("unpaired: %llu replies to other requests discarded, %llu connections renewed, "
                       "%llu stale bytes drained\n",
                       count(s.foreign_replies), count(s.resyncs), count(s.stale_bytes));
    text += format("round trip: min %.3f ms, avg %.3f ms, max %.3f ms\n", s.rtt_min_ms, s.rtt_avg_ms, s.rtt_max_ms);
    if (s.codes.empty())
        return text;
    std::string codes;
    for (const auto &code : s.codes)
        codes += (codes.empty() ? "" : ", ") + std::to_string(code.first) + " x" + std::to_string(code.second);
    return text + "driver return codes: " + codes + " (0 = failed, retried)\n";
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
