#include "commands.h"

#include "session.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

namespace plcpoll {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The live table is not redrawn more often than this.
constexpr milliseconds kShortestRefresh{100};
// How often a wait looks at the host's progress and at the interrupt flag.
constexpr milliseconds kPassCheck{5};
constexpr milliseconds kRefreshCheck{10};

// A single pass may take every try of every tag's request, and one more, plus
// two seconds for the connection and the first exchange.
milliseconds pass_wait(const Settings &s, size_t tags)
{
    return milliseconds(int64_t(s.timeout_ms) * (s.retries + 2) * int64_t(tags + 1) + 2000);
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
        now.trends = settings.trend;
        now.stats = host.stats();
        for (const PollTag &tag : tags) {
            plchost::Reading reading;
            host.read(tag.plc, &reading);
            now.tags.push_back({tag, reading.quality, plctags::decode_bytes(tag, reading.bytes), {}});
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
        carry_trends(&now, before ? &*before : nullptr);
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
    install_hooks(host, s, console);
    if (const auto error = start_host(host))
        return *error;
    const Poll poll{host, s, tags, console, PollTimer(s, console.interrupted)};
    return s.once ? poll_once(poll) : poll_until_stopped(poll);
}

} // namespace

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
    c.connect_timeout = plchost::connect_wait(milliseconds(s.timeout_ms));
    return c;
}

Exit run_command(const Settings &settings, const std::vector<PollTag> &tags, const Console &console)
{
    switch (settings.command) {
    case Command::Help: console.out << usage_text(); return {};
    case Command::Write: return run_write(settings, console);
    case Command::Scan: return run_scan(settings, console);
    case Command::Poll: break;
    }
    return run_poll(settings, tags, console);
}

} // namespace plcpoll
