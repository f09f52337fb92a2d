#include "gateway.h"

#include "messages.h"
#include "tag_set.h"

#include <algorithm>
#include <iostream>

namespace plcgate {

namespace {

using std::chrono::milliseconds;

// Every tag is read at least this often, replies or not: that is when a
// refresh falls due and a quiet station's quality is seen.
constexpr milliseconds kFullScanPeriod{1000};
constexpr auto kStatsPeriod = std::chrono::seconds(5);
// At a stop: how long the outbox may take to empty, and the status to be
// acknowledged.
constexpr milliseconds kDrainWait{2000};
constexpr milliseconds kOfflineWait{2000};
constexpr milliseconds kStopStep{20};

plchost::HostConfig host_config(const GateConfig &c)
{
    plchost::HostConfig h = c.host;
    h.connect_timeout = plchost::connect_wait(h.timeout);
    return h;
}

} // namespace

Gateway::Gateway(GateConfig config, std::vector<GateTag> tags)
    : config_(std::move(config)), tags_(std::move(tags)), host_(host_config(config_)),
      mqtt_(config_.mqtt, status_topic(config_.name), wake_), outbox_(config_.buffer),
      writes_(plchost::completion_wait(config_.host.timeout, config_.host.retry_limit))
{
    host_.set_reply_hook([this](const plchost::ReplyEvent &e) {
        const bool good = e.good();
        if (good && !e.to_mirror)
            return; // a write, or the read before a bit write: no new values
        if (good)
            replies_.add(e.station, plchost::class_range(e));
        else
            replies_.add_all(); // a failure can change any tag's quality
        wake_.notify();
    });
    host_.set_write_done_hook([this](int, int source_type, int source_id, int result) {
        writes_.done(source_type, source_id, result);
        wake_.notify();
    });
    const std::vector<plchost::Tag> plc = host_tags();
    host_.set_tags(plc);
    index_ = TagIndex(plc);
}

std::vector<plchost::Tag> Gateway::host_tags() const
{
    std::vector<plchost::Tag> plc;
    for (const GateTag &t : tags_)
        plc.push_back(t.tag.plc);
    return plc;
}

int Gateway::run(const std::atomic<bool> &stop, std::atomic<bool> &reload)
{
    std::string error;
    host_.start(false);
    if (!mqtt_.start(&error)) {
        std::cerr << "plcgate: " << error << "\n";
        host_.stop();
        return 1;
    }
    std::cerr << "plcgate: " << config_.name << ": " << tags_.size() << " tags, broker " << config_.mqtt.host << ":"
              << config_.mqtt.port << "\n";
    auto next_scan = Clock::now();
    auto next_stats = Clock::now() + kStatsPeriod;
    while (!stop) {
        const auto until = std::min(next_scan, next_stats) - Clock::now();
        wake_.wait(std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(until)));
        if (reload.exchange(false))
            reload_tags();
        take_mqtt_events();
        const auto now = Clock::now();
        bool all = false;
        const auto spans = replies_.take(&all);
        if (all || now >= next_scan) {
            scan(now, nullptr);
            next_scan = now + kFullScanPeriod;
        } else if (!spans.empty()) {
            const std::vector<bool> replied = replied_tags(spans);
            scan(now, &replied);
        }
        send_acks(writes_.settle(now));
        if (now >= next_stats) {
            publish_stats();
            next_stats = now + kStatsPeriod;
        }
        flush();
    }
    shutdown();
    return 0;
}

void Gateway::take_mqtt_events()
{
    for (const MqttEvent &e : mqtt_.take_events()) {
        switch (e.kind) {
        case MqttEvent::Kind::Connected:
            ++connections_taken_;
            resend_first_ = outbox_.in_flight() > 0;
            mqtt_.subscribe(set_filter(config_.name));
            outbox_.push_urgent(Message{status_topic(config_.name), kOnline, true, {}});
            break;
        case MqttEvent::Kind::Acked: outbox_.acked(e.mid); break;
        case MqttEvent::Kind::Message: on_set(e.topic, e.payload); break;
        }
    }
}

void Gateway::on_set(const std::string &topic, const std::string &payload)
{
    const auto tag = set_topic_tag(config_.name, topic);
    if (tag)
        send_acks(writes_.submit(*tag, payload, tags_, host_, Clock::now()));
}

void Gateway::send_acks(const std::vector<Writes::Outcome> &acks)
{
    for (const Writes::Outcome &o : acks)
        outbox_.push(Message{ack_topic(config_.name, o.tag), ack_payload(o.ack), false, {}});
}

std::vector<bool> Gateway::replied_tags(const std::vector<ReplyLog::Span> &spans) const
{
    std::vector<bool> marks(tags_.size(), false);
    for (const ReplyLog::Span &s : spans)
        index_.mark_covered(s.station, s.range, &marks);
    return marks;
}

void Gateway::scan(Clock::time_point now, const std::vector<bool> *only)
{
    const std::chrono::seconds refresh(config_.refresh_s);
    plchost::Reading reading;
    for (size_t i = 0; i < tags_.size(); ++i) {
        if (only && !(*only)[i])
            continue;
        const GateTag &t = tags_[i];
        host_.read(t.tag.plc, &reading);
        const std::string &name = t.tag.plc.name;
        if (auto payload = due_payload(t, &states_[name], reading, now, refresh))
            outbox_.push(Message{tag_topic(config_.name, name), std::move(*payload), true, name});
    }
}

// A new connection is used once its Connected event is taken. On it, the
// client first sends again what it was handed on the one before and not
// acknowledged; nothing newer is handed until the broker has acknowledged
// all of that, or it would overtake the older messages.
void Gateway::flush()
{
    if (mqtt_.connects() != connections_taken_)
        return;
    if (resend_first_ && outbox_.in_flight() > 0)
        return;
    resend_first_ = false;
    while (mqtt_.connected() && outbox_.in_flight() < size_t(kMaxInFlight)) {
        const Message *m = outbox_.next();
        if (!m)
            return;
        const auto mid = mqtt_.publish(*m);
        if (!mid)
            return;
        outbox_.handed(*mid);
    }
}

void Gateway::publish_stats()
{
    if (!mqtt_.connected())
        return;
    GatewayFigures g;
    g.name = config_.name;
    g.uptime_s = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_).count();
    g.tags = tags_.size();
    g.connected = true;
    g.connects = mqtt_.connects();
    g.published = outbox_.acked_count();
    g.buffered = outbox_.size();
    g.in_flight = outbox_.in_flight();
    g.dropped = outbox_.dropped();
    const WriteCounts w = writes_.counts();
    g.writes_ok = w.ok;
    g.writes_failed = w.failed;
    g.writes_refused = w.refused;
    g.writes_repeated = w.repeated;
    mqtt_.publish_once(stats_topic(config_.name), stats_payload(g, host_.stats()));
}

void Gateway::reload_tags()
{
    auto loaded = load_tags(config_);
    if (!loaded.ok()) {
        std::cerr << "plcgate: reload: " << loaded.why() << "; keeping the " << tags_.size() << " tags\n";
        return;
    }
    std::vector<GateTag> tags = std::move(loaded).value();
    for (const GateTag &old : tags_) {
        const std::string &name = old.tag.plc.name;
        if (find_tag(tags, name))
            continue;
        // An empty retained message removes the tag's retained value.
        outbox_.push(Message{tag_topic(config_.name, name), {}, true, {}});
        states_.erase(name);
    }
    for (auto &s : states_)
        s.second.published = false; // published once more, with the next seq
    tags_ = std::move(tags);
    const std::vector<plchost::Tag> plc = host_tags();
    host_.set_tags(plc);
    index_ = TagIndex(plc);
    std::cerr << "plcgate: read " << tags_.size() << " tags from " << config_.tags_path << "\n";
}

// The status offline, acknowledged by the broker; false when it could not be.
bool Gateway::publish_offline()
{
    const auto mid = mqtt_.publish(Message{status_topic(config_.name), kOffline, true, {}});
    const auto deadline = Clock::now() + kOfflineWait;
    while (mid && mqtt_.connected() && Clock::now() < deadline) {
        wake_.wait(kStopStep);
        for (const MqttEvent &e : mqtt_.take_events())
            if (e.kind == MqttEvent::Kind::Acked && e.mid == *mid)
                return true;
    }
    return false;
}

// What is waiting goes out first, for a while; then the status says offline
// and the client disconnects. Without the broker's ack of that status the
// connection is just closed, and the broker publishes the last will
// (offline) instead.
void Gateway::shutdown()
{
    host_.stop();
    const auto deadline = Clock::now() + kDrainWait;
    while (mqtt_.connected() && outbox_.size() > 0 && Clock::now() < deadline) {
        flush();
        wake_.wait(kStopStep);
        take_mqtt_events();
    }
    if (publish_offline())
        mqtt_.disconnect();
    std::cerr << "plcgate: stopped\n";
}

} // namespace plcgate
