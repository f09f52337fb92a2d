#include "commands.h"

#include "text.h"

#include <QtGlobal>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

namespace plcpoll {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The source types the write and its read back are known by in the driver's
// write-done callbacks.
constexpr int kWriteSource = 1;
constexpr int kReadBackSource = 2;
// The write-done callback's result of a request that was answered.
constexpr int kWriteDoneOk = 1;
// DataCom's return codes of a good reply for a local-area and a remote-area
// variable (docs/integrating.md, return codes).
constexpr int kGoodLocalReply = 1, kGoodRemoteReply = 100;

// The live table is not redrawn more often than this.
constexpr milliseconds kShortestRefresh{100};
// A connection attempt waits as long as a reply, but not less than this.
constexpr milliseconds kShortestConnect{200};
// How often a wait looks at the host's progress and at the interrupt flag.
constexpr milliseconds kPassCheck{5};
constexpr milliseconds kRefreshCheck{10};

std::string peer(const Settings &s)
{
    return s.host + ":" + std::to_string(s.port);
}

View view_of(const Settings &s, const Console &console)
{
    if (s.json)
        return View::Json;
    return console.terminal ? View::Table : View::Lines;
}

// A request may use all its tries before it is given up; twice that, and a
// second for the set-up, is how long the write and its read back may take.
milliseconds completion_wait(const Settings &s)
{
    return milliseconds(int64_t(s.timeout_ms) * (s.retries + 1) * 2 + 1000);
}

// A single pass may take every try of every tag's request, and one more, plus
// two seconds for the connection and the first exchange.
milliseconds pass_wait(const Settings &s, size_t tags)
{
    return milliseconds(int64_t(s.timeout_ms) * (s.retries + 2) * int64_t(tags + 1) + 2000);
}

void install_debug_log(plchost::Host &host)
{
    host.set_reply_hook([](const plchost::ReplyEvent &e) {
        if (e.status != kGoodLocalReply && e.status != kGoodRemoteReply)
            qWarning("request to station %d (kind %d, address %d, count %d) failed: code %d, %d bytes%s", e.station,
                     e.reg_kind, e.start_addr, e.count, e.status, e.bytes, e.timed_out ? ", no reply" : "");
    });
    host.set_write_done_hook([](int, int source_type, int source_id, int result) {
        qInfo("request %d/%d finished: %s", source_type, source_id,
              result == kWriteDoneOk ? "ok" : "communication failed");
    });
    host.set_read_done_hook([](int source_type, int) { qWarning("request of type %d given up", source_type); });
}

void install_hooks(plchost::Host &host, const Settings &s, const Console &console)
{
    if (s.trace) {
        // Only the communication thread calls the hook, so lines do not mix.
        std::ostream *err = &console.err;
        host.set_trace_hook([err](plchost::FrameDirection direction, int, const uint8_t *data, size_t size) {
            *err << render_frame(direction, data, size) << std::flush;
        });
    }
    if (s.debug_log)
        install_debug_log(host);
}

// A started host for the settings, or why it could not connect.
std::optional<Exit> start_host(plchost::Host &host, const Settings &s, const Console &console)
{
    install_hooks(host, s, console);
    std::string error;
    if (!host.start(true, &error))
        return failure(error);
    return std::nullopt;
}

// When a poll started and when it is to end: at an interrupt, or once its
// duration has passed.
class PollTimer {
public:
    PollTimer(const Settings &s, const std::atomic<bool> &interrupted)
        : duration_s_(s.duration_s), interrupted_(interrupted)
    {
    }

    double elapsed_s() const { return std::chrono::duration<double>(Clock::now() - started_).count(); }
    bool interrupted() const { return interrupted_.load(); }
    bool finished() const { return interrupted() || (duration_s_ && elapsed_s() >= *duration_s_); }

    // Waits until `deadline`; false when the poll ends first.
    bool wait_until(Clock::time_point deadline) const
    {
        while (!finished() && Clock::now() < deadline)
            std::this_thread::sleep_for(kRefreshCheck);
        return !finished();
    }

private:
    const Clock::time_point started_ = Clock::now();
    const std::optional<double> duration_s_;
    const std::atomic<bool> &interrupted_;
};

// A poll in progress: its host, what it reads and where it shows it.
struct Poll {
    plchost::Host &host;
    const Settings &settings;
    const std::vector<PollTag> &tags;
    const Console &console;
    PollTimer timer;

    Snapshot snapshot() const
    {
        Snapshot now;
        now.peer = peer(settings);
        now.link = settings.link;
        now.elapsed_s = timer.elapsed_s();
        now.connected = host.connected(0);
        now.stats = host.stats();
        for (const PollTag &tag : tags) {
            std::vector<uint8_t> bytes;
            host.read(tag.plc, &bytes);
            now.tags.push_back({tag, plchost::decode_values(tag.plc.kind, tag.plc.count, bytes)});
        }
        return now;
    }

    void show(const std::string &text) const { console.out << text << std::flush; }
};

// Waits for one full pass. The first request given up (after its retries),
// or the time limit, ends the wait with an incomplete pass.
bool wait_for_pass(const Poll &poll)
{
    const auto give_up_at = Clock::now() + pass_wait(poll.settings, poll.tags.size());
    while (!poll.timer.interrupted() && Clock::now() < give_up_at) {
        const auto stats = poll.host.stats();
        if (stats.passes > 0)
            return true;
        if (stats.give_ups > 0)
            return false;
        std::this_thread::sleep_for(kPassCheck);
    }
    return false;
}

Exit poll_once(const Poll &poll)
{
    const bool complete = wait_for_pass(poll);
    poll.host.stop();
    const Snapshot now = poll.snapshot();
    poll.show(render_pass(view_of(poll.settings, poll.console), now, complete));
    if (complete)
        return {};
    return failure("no complete pass from " + peer(poll.settings) + " (" + std::to_string(now.stats.failed_replies) +
                   " requests failed)");
}

Exit poll_until_stopped(const Poll &poll)
{
    const View view = view_of(poll.settings, poll.console);
    const auto refresh = std::max(milliseconds(poll.settings.interval_ms), kShortestRefresh);
    // The first refresh once a pass has been answered (or after one refresh
    // period), then one every refresh period.
    poll.host.wait_passes(1, refresh);
    std::optional<Snapshot> before;
    auto next = Clock::now();
    do {
        Snapshot now = poll.snapshot();
        poll.show(render_refresh(view, now, before ? &*before : nullptr));
        before = std::move(now);
        next += refresh;
    } while (poll.timer.wait_until(next));
    poll.host.stop();
    const auto stats = poll.host.stats();
    poll.show(render_final_stats(view, stats));
    if (stats.good_replies == 0)
        return failure("no good reply from " + peer(poll.settings));
    return {};
}

Exit run_poll(const Settings &s, const std::vector<PollTag> &tags, const Console &console)
{
    if (tags.empty())
        return usage_error("no tags: give --tag or --tags FILE (see --help)");
    plchost::Host host(host_config(s));
    std::vector<plchost::Tag> plc_tags;
    for (const PollTag &tag : tags)
        plc_tags.push_back(tag.plc);
    host.set_tags(plc_tags);
    if (const auto error = start_host(host, s, console))
        return *error;
    const Poll poll{host, s, tags, console, PollTimer(s, console.interrupted)};
    return s.once ? poll_once(poll) : poll_until_stopped(poll);
}

std::optional<Exit> parse_write_values(const Settings &s, WriteRequest *request)
{
    const int kind = request->target.kind;
    const int bits = plchost::value_bits(kind);
    for (size_t i = 2; i < s.operands.size(); ++i) {
        const auto v = plctags::parse_value(s.operands[i], bits);
        if (!v)
            return usage_error("invalid value '" + s.operands[i] + "' for kind " + std::to_string(kind) + " (" +
                               std::to_string(bits) + "-bit)");
        request->values.push_back(*v);
    }
    return std::nullopt;
}

// The tag's registers read once more after the write.
void read_back(plchost::Host &host, const Settings &s, WriteReport *report)
{
    int id = 0;
    report->read_back = WriteReport::ReadBack::Failed;
    if (!host.read_once(report->target, kReadBackSource, &id) ||
        host.wait_done(kReadBackSource, id, completion_wait(s)) != plchost::DoneResult::Ok)
        return;
    std::vector<uint8_t> bytes;
    host.read(report->target, &bytes);
    report->read_values = plchost::decode_values(report->target.kind, report->target.count, bytes);
    report->read_back = WriteReport::ReadBack::Read;
}

Exit write_exit(const WriteReport &report, const Settings &s)
{
    if (report.result != plchost::DoneResult::Ok)
        return failure("write to " + peer(s) + " failed");
    // A read back that failed or differs has been shown; the status says so.
    if (report.read_back != WriteReport::ReadBack::Read || report.read_values != report.values)
        return failure();
    return {};
}

Exit run_write(const Settings &s, const Console &console)
{
    const auto request = parse_write_request(s);
    if (!request.ok())
        return request.exit();
    std::vector<uint8_t> data;
    WriteReport report;
    report.target = request.value().target;
    report.values = request.value().values;
    plchost::encode_values(report.target.kind, report.values, &data, &report.target.count);
    plchost::Host host(host_config(s));
    if (const auto error = start_host(host, s, console))
        return *error;
    int id = 0;
    if (host.write(report.target, data, kWriteSource, &id) == 0)
        return usage_error("the driver refused the write");
    report.result = host.wait_done(kWriteSource, id, completion_wait(s));
    if (report.result == plchost::DoneResult::Ok)
        read_back(host, s, &report);
    host.stop();
    report.stats = host.stats();
    console.out << render_write(s.json ? View::Json : View::Lines, report) << std::flush;
    return write_exit(report, s);
}

} // namespace

Result<WriteRequest> parse_write_request(const Settings &s)
{
    if (s.operands.size() < 3)
        return usage_error("write needs KIND ADDRESS VALUE... (see --help)");
    WriteRequest request;
    plchost::Tag &t = request.target;
    t.name = "write";
    t.address = s.operands[1];
    t.station = s.station;
    if (const auto why = plctags::parse_kind(s.operands[0], &t.kind))
        return usage_error(*why);
    if (!plchost::kind_writable(t.kind))
        return usage_error("kind " + std::to_string(t.kind) + " (" + plchost::kind_name(t.kind) +
                           ") is read-only; writable kinds are " + plctags::writable_kinds_text());
    if (const auto why = plctags::check_address(t.kind, t.address))
        return usage_error(*why);
    if (const auto error = parse_write_values(s, &request))
        return *error;
    return request;
}

plchost::HostConfig host_config(const Settings &s)
{
    plchost::HostConfig c;
    plchost::Endpoint e;
    e.host = s.host;
    e.port = uint16_t(s.port);
    c.endpoints.push_back(e);
    c.link_mode = s.link;
    c.timeout = milliseconds(s.timeout_ms);
    c.retry_limit = s.retries;
    c.poll_interval = milliseconds(s.interval_ms);
    c.connect_timeout = std::max(milliseconds(s.timeout_ms), kShortestConnect);
    return c;
}

Exit run_command(const Settings &settings, const std::vector<PollTag> &tags, const Console &console)
{
    switch (settings.command) {
    case Command::Help: console.out << usage_text(); return {};
    case Command::Write: return run_write(settings, console);
    case Command::Poll: break;
    }
    return run_poll(settings, tags, console);
}

} // namespace plcpoll
