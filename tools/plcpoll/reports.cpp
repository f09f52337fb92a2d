// The link statistics and the station scan, as text and JSON.
#include "output.h"
#include "render_text.h"

#include <cmath>

namespace plcpoll {

namespace {

// The figures the totals and each station share (plchost::Stats and
// plchost::StationStats).
template <typename Figures> double loss_of(const Figures &f)
{
    return frame_loss_percent(f.good_replies, f.failed_replies);
}

template <typename Figures> std::string figures_text(const Figures &f)
{
    return format("%llu requests, %llu good, %llu failed (%llu retried, %llu given up), %llu timeouts",
                  count(f.requests), count(f.good_replies), count(f.failed_replies), count(f.retries),
                  count(f.give_ups), count(f.timeouts));
}

template <typename Figures> std::string round_trip_text(const Figures &f)
{
    return format("round trip: min %.3f ms, avg %.3f ms, max %.3f ms", f.rtt_min_ms, f.rtt_avg_ms, f.rtt_max_ms);
}

// Percent with one decimal, as the text shows it.
double one_decimal(double percent)
{
    return std::round(percent * 10) / 10;
}

// The counts the totals and each station share, in the order JSON shows them.
template <typename Figures> Json figures_json(const Figures &f)
{
    return Json{{"requests", f.requests}, {"good_replies", f.good_replies}, {"failed_replies", f.failed_replies},
                {"retries", f.retries},   {"give_ups", f.give_ups},         {"timeouts", f.timeouts}};
}

template <typename Figures> void add_loss_and_rtt(Json *json, const Figures &f)
{
    (*json)["frame_loss_percent"] = one_decimal(loss_of(f));
    (*json)["rtt_ms"] = Json{{"min", f.rtt_min_ms}, {"avg", f.rtt_avg_ms}, {"max", f.rtt_max_ms}};
}

Json station_json(const plchost::StationStats &s)
{
    Json json = figures_json(s);
    add_loss_and_rtt(&json, s);
    json["failing"] = s.failing;
    return json;
}

std::string stations_text(const plchost::Stats &s)
{
    std::string text;
    for (const auto &entry : s.stations) {
        const plchost::StationStats &st = entry.second;
        text += format("station %d: %s, %.1f%% frame loss, %s%s\n", entry.first, figures_text(st).c_str(), loss_of(st),
                       round_trip_text(st).c_str(), st.failing ? " (failing)" : "");
    }
    return text;
}

const char *answer_name(Answer answer)
{
    switch (answer) {
    case Answer::Reply: return "reply";
    case Answer::Exception: return "exception";
    case Answer::Absent: return "absent";
    case Answer::Refused: return "refused";
    case Answer::Silence: break;
    }
    return "silence";
}

std::string probe_detail(const Probe &p)
{
    switch (p.answer) {
    case Answer::Reply: return format("round trip %.3f ms", p.rtt_ms);
    case Answer::Exception:
    case Answer::Absent: return "exception " + exception_text(p.exception);
    case Answer::Refused: return format("a reply the driver refused (code %d)", p.code);
    case Answer::Silence: break;
    }
    return "no reply";
}

Json probe_json(const Probe &p)
{
    Json json{{"station", p.station}, {"answer", answer_name(p.answer)}, {"present", is_present(p)}};
    if (p.answer == Answer::Exception || p.answer == Answer::Absent)
        json["exception"] = p.exception;
    if (p.answer == Answer::Refused)
        json["code"] = p.code;
    if (p.rtt_ms >= 0)
        json["rtt_ms"] = p.rtt_ms;
    return json;
}

// How many probes gave each answer, for the summary line.
std::string answers_text(const ScanReport &r)
{
    std::string text;
    for (Answer a : {Answer::Reply, Answer::Exception, Answer::Refused, Answer::Absent, Answer::Silence}) {
        size_t n = 0;
        for (const Probe &p : r.probes)
            n += p.answer == a ? 1 : 0;
        if (n)
            text += format("%s%zu %s", text.empty() ? "" : ", ", n, answer_name(a));
    }
    return text;
}

} // namespace

double frame_loss_percent(uint64_t good, uint64_t failed)
{
    const uint64_t exchanges = good + failed;
    return exchanges ? 100.0 * double(failed) / double(exchanges) : 0.0;
}

Json stats_json(const plchost::Stats &s)
{
    Json codes = Json::object(), stations = Json::object();
    for (const auto &code : s.codes)
        codes[std::to_string(code.first)] = code.second;
    for (const auto &station : s.stations)
        stations[std::to_string(station.first)] = station_json(station.second);
    Json json = figures_json(s);
    json["reconnects"] = s.reconnects;
    json["connect_failures"] = s.connect_failures;
    json["foreign_replies"] = s.foreign_replies;
    json["resyncs"] = s.resyncs;
    json["stale_bytes"] = s.stale_bytes;
    json["passes"] = s.passes;
    add_loss_and_rtt(&json, s);
    json["codes"] = codes;
    json["stations"] = stations;
    return json;
}

std::string render_stats(const plchost::Stats &s)
{
    std::string text = format("statistics: %s, %llu reconnects, %llu passes, %.1f%% frame loss\n",
                              figures_text(s).c_str(), count(s.reconnects), count(s.passes), loss_of(s));
    if (s.foreign_replies || s.resyncs || s.stale_bytes)
        text += format("unpaired: %llu replies to other requests discarded, %llu connections renewed, "
                       "%llu stale bytes drained\n",
                       count(s.foreign_replies), count(s.resyncs), count(s.stale_bytes));
    text += round_trip_text(s) + "\n" + stations_text(s);
    if (s.codes.empty())
        return text;
    std::string codes;
    for (const auto &code : s.codes)
        codes += (codes.empty() ? "" : ", ") + std::to_string(code.first) + " x" + std::to_string(code.second);
    return text + "driver return codes: " + codes + " (0 = failed, retried)\n";
}

bool is_present(const Probe &probe)
{
    return probe.answer == Answer::Reply || probe.answer == Answer::Exception || probe.answer == Answer::Refused;
}

std::string exception_text(int code)
{
    static const char *const kNames[] = {
        nullptr,
        "illegal function",
        "illegal data address",
        "illegal data value",
        "server device failure",
        "acknowledge",
        "server device busy",
        nullptr,
        "memory parity error",
        nullptr,
        "gateway path unavailable",
        "gateway target device failed to respond",
    };
    const bool named = code > 0 && code < int(sizeof kNames / sizeof kNames[0]) && kNames[code];
    return format("0x%02X", code) + (named ? std::string(" ") + kNames[code] : std::string());
}

std::string render_probe(View view, const Probe &probe)
{
    if (view == View::Json || !is_present(probe))
        return "";
    return format("station %3d  %-9s  %s\n", probe.station, answer_name(probe.answer), probe_detail(probe).c_str());
}

std::string render_scan(View view, const ScanReport &r)
{
    std::string present;
    size_t found = 0;
    Json probes = Json::array(), list = Json::array();
    for (const Probe &p : r.probes) {
        probes.push_back(probe_json(p));
        if (!is_present(p))
            continue;
        ++found;
        list.push_back(p.station);
        present += (present.empty() ? "" : " ") + std::to_string(p.station);
    }
    const char *link = plchost::link_name(r.link);
    if (view == View::Json)
        return dump(Json{{"scan", Json{{"peer", r.peer}, {"link", link}, {"timeout_ms", r.timeout_ms}}},
                         {"present", list},
                         {"stations", probes}});
    return format("scan of %s (%s): %zu of %zu stations present: %s\nanswers: %s\n", r.peer.c_str(), link, found,
                  r.probes.size(), present.empty() ? "none" : present.c_str(), answers_text(r).c_str());
}

} // namespace plcpoll
