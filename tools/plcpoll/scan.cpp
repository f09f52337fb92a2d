// The scan command: each station probed once through the driver (a one-shot
// read with no retry), and how it answered, read from the driver's return
// code and the reply's bytes in the frame trace.
#include "commands.h"
#include "session.h"

#include "text.h"

#include "Communication_Protocol.h"

#include <condition_variable>
#include <mutex>

namespace plcpoll {

namespace {

constexpr int kProbeSource = 3;
// Unit identifiers of stations; 0 is the broadcast address, which no
// station answers, and 248..255 are reserved.
constexpr int kFirstUnit = 1, kLastUnit = 247;
// A Modbus TCP exception reply: the MBAP header, the function code with its
// high bit set, the exception code.
constexpr size_t kMbapSize = 7, kExceptionSize = 9;
constexpr uint8_t kExceptionFlag = 0x80;
// A gateway's answers for a unit with no device behind it.
constexpr int kGatewayPathUnavailable = 0x0A, kGatewayTargetFailed = 0x0B;

// The probe: holding register 0 without offset, which most devices have.
plchost::Tag probe_tag(int station)
{
    plchost::Tag t;
    t.name = "scan";
    t.kind = REG_KIND_WORD;
    t.address = "0";
    t.station = station;
    return t;
}

// What the communication thread saw of the probe in flight: the last
// frame received and the driver's verdict on it.
class ProbeWatch {
public:
    void on_frame(plchost::FrameDirection direction, const uint8_t *data, size_t size)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (direction == plchost::FrameDirection::Received)
            reply_.assign(data, data + size);
    }
    void on_reply(const plchost::ReplyEvent &event)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        event_ = event;
        seen_ = true;
        done_.notify_all();
    }
    // Waits for the verdict on the probe sent since the last call.
    bool wait(std::chrono::milliseconds timeout, plchost::ReplyEvent *event, std::vector<uint8_t> *reply)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool seen = done_.wait_for(lock, timeout, [this] { return seen_; });
        *event = event_;
        reply->swap(reply_);
        reply_.clear();
        seen_ = false;
        return seen;
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    plchost::ReplyEvent event_;
    std::vector<uint8_t> reply_;
    bool seen_ = false;
};

Probe classify(int station, const plchost::ReplyEvent &e, const std::vector<uint8_t> &reply, bool modbus)
{
    Probe p;
    p.station = station;
    p.code = e.status;
    if (e.good()) {
        p.answer = Answer::Reply;
    } else if (reply.empty()) {
        p.answer = Answer::Silence;
    } else if (modbus && reply.size() == kExceptionSize && (reply[kMbapSize] & kExceptionFlag)) {
        p.exception = reply[kMbapSize + 1];
        const bool no_device = p.exception == kGatewayPathUnavailable || p.exception == kGatewayTargetFailed;
        p.answer = no_device ? Answer::Absent : Answer::Exception;
    } else {
        p.answer = Answer::Refused;
    }
    return p;
}

Probe probe(plchost::Host &host, ProbeWatch &watch, int station, const Settings &s)
{
    int id = 0;
    plchost::ReplyEvent event;
    std::vector<uint8_t> reply;
    Settings once = s;
    once.retries = 0;
    host.read_once(probe_tag(station), kProbeSource, &id);
    if (!watch.wait(completion_wait(once), &event, &reply))
        return Probe{station, Answer::Silence, 0, 0, -1};
    host.wait_done(kProbeSource, id, completion_wait(once));
    Probe p = classify(station, event, reply, s.link == plchost::LinkMode::Modbus);
    const auto figures = host.stats().stations;
    const auto it = figures.find(station);
    if (p.answer == Answer::Reply && it != figures.end())
        p.rtt_ms = it->second.rtt_max_ms; // one probe per station: its only round trip
    return p;
}

std::string stations_refusal(const std::string &text)
{
    return "invalid stations '" + text + "' (unit identifiers 1..247 and ranges, e.g. 1-10,17)";
}

} // namespace

Result<std::vector<int>> parse_scan_stations(const Settings &s)
{
    if (s.operands.size() > 1)
        return usage_error("scan takes one list of STATIONS, e.g. 1-10,17 (see --help)");
    const std::string text = s.operands.empty() ? "1-247" : s.operands[0];
    std::vector<bool> chosen(kLastUnit + 1, false);
    for (const std::string &item : plctags::split(text, ',')) {
        const auto dash = item.find('-');
        const auto first = plctags::parse_integer(item.substr(0, dash), kFirstUnit, kLastUnit);
        const auto last =
            dash == std::string::npos ? first : plctags::parse_integer(item.substr(dash + 1), kFirstUnit, kLastUnit);
        if (!first || !last || *last < *first)
            return usage_error(stations_refusal(text));
        for (long long unit = *first; unit <= *last; ++unit)
            chosen[size_t(unit)] = true;
    }
    std::vector<int> stations;
    for (int unit = kFirstUnit; unit <= kLastUnit; ++unit)
        if (chosen[size_t(unit)])
            stations.push_back(unit);
    return stations;
}

Exit run_scan(const Settings &s, const Console &console)
{
    const auto stations = parse_scan_stations(s);
    if (!stations.ok())
        return stations.exit();
    plchost::HostConfig config = host_config(s);
    config.retry_limit = 0;
    plchost::Host host(config);
    ProbeWatch watch;
    install_hooks(host, s, console, [&watch](plchost::FrameDirection d, int, const uint8_t *data, size_t size) {
        watch.on_frame(d, data, size);
    });
    host.set_reply_hook([&watch](const plchost::ReplyEvent &e) { watch.on_reply(e); });
    if (const auto error = start_host(host))
        return *error;
    const View view = s.json ? View::Json : View::Lines;
    ScanReport report{peer(s), s.link, s.timeout_ms, {}};
    for (int station : stations.value()) {
        if (console.interrupted.load())
            break;
        report.probes.push_back(probe(host, watch, station, s));
        console.out << render_probe(view, report.probes.back()) << std::flush;
    }
    host.stop();
    console.out << render_scan(view, report) << std::flush;
    for (const Probe &p : report.probes)
        if (is_present(p))
            return {};
    return failure("no station answered at " + peer(s));
}

} // namespace plcpoll
