// The gateway: the host polls the PLCs (its communication thread), the MQTT
// client talks to the broker (its network thread), and the main loop in
// run() joins them: it reads the tags from the host's mirror when replies
// have come, publishes what is due through the outbox, takes sets from the
// broker and acks them, and publishes the statistics.
#ifndef PLCGATE_GATEWAY_H
#define PLCGATE_GATEWAY_H

#include "config.h"
#include "mqtt_client.h"
#include "outbox.h"
#include "reply_index.h"
#include "tag_watch.h"
#include "wake.h"
#include "writes.h"

#include "plchost.h"

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace plcgate {

class Gateway {
public:
    Gateway(GateConfig config, std::vector<GateTag> tags);

    // What the signal handlers wake.
    Wake &wake() { return wake_; }

    // Runs until `stop` is set (then publishes offline and disconnects);
    // `reload` set reads the tag file again. The exit status.
    int run(const std::atomic<bool> &stop, std::atomic<bool> &reload);

private:
    using Clock = std::chrono::steady_clock;

    std::vector<plchost::Tag> host_tags() const;
    void take_mqtt_events();
    void on_set(const std::string &topic, const std::string &payload);
    void send_acks(const std::vector<Writes::Outcome> &acks);
    // Looks at the tags flagged in `only` (all of them when null) and
    // publishes what is due.
    void scan(Clock::time_point now, const std::vector<bool> *only);
    std::vector<bool> replied_tags(const std::vector<ReplyLog::Span> &spans) const;
    void flush();
    void publish_stats();
    void reload_tags();
    bool publish_offline();
    void shutdown();

    const GateConfig config_;
    std::vector<GateTag> tags_;
    std::map<std::string, TagState> states_; // by tag name
    Wake wake_;
    plchost::Host host_;
    MqttClient mqtt_;
    Outbox outbox_;
    Writes writes_;
    TagIndex index_;                 // where each tag's values lie
    ReplyLog replies_;               // what replies brought since the last look
    uint64_t connections_taken_ = 0; // Connected events taken from the client
    bool resend_first_ = false;      // the client sends again what it had, before anything new
    const Clock::time_point started_ = Clock::now();
};

} // namespace plcgate

#endif // PLCGATE_GATEWAY_H
