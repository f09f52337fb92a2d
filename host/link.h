// The link to one PLC endpoint: a TCP connection (transport.h) with the
// framing and pairing rules of the link mode (reply_framing.h). It owns the
// rule that only the reply to the request in flight goes back to the
// driver; docs/integrating.md states that rule for every runtime.
//
// One request at a time, on the communication thread: prepare(), then
// transact(), then settle() once the driver has judged the reply.
#ifndef PLCHOST_LINK_H
#define PLCHOST_LINK_H

#include "plchost.h"
#include "transport.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace plchost {

// What one request on the wire gave.
struct WireOutcome {
    std::vector<uint8_t> reply; // for the driver: the reply, a part of it, or nothing
    bool sent = false;
    bool timed_out = false;   // a reply was awaited and none is handed over
    bool out_of_step = false; // the connection cannot be trusted for the next request
    double rtt_ms = -1;       // from before the send to the last byte, when a reply came
};

// What the links add to the host's statistics (read by any thread).
struct LinkCounters {
    std::atomic<uint64_t> stale_bytes{0};
    std::atomic<uint64_t> foreign_replies{0};
    std::atomic<uint64_t> resyncs{0};
    std::atomic<uint64_t> reconnects{0};
    std::atomic<uint64_t> connect_failures{0};
};

using LinkTrace = std::function<void(FrameDirection, const uint8_t *data, size_t size)>;

class Link {
public:
    Link(const Endpoint &endpoint, LinkMode mode, ConnectTimings timings, std::chrono::milliseconds timeout,
         LinkCounters *counters);

    // The first connection attempt (start of the host).
    bool open(std::string *error);
    void defer() { connection_.defer(); }
    // Connected (when the back-off allows) and with nothing stale waiting.
    bool prepare();
    // Sends one frame and reads its reply. reply_len is what the driver
    // expects; 0 awaits nothing (a broadcast write).
    WireOutcome transact(const std::vector<uint8_t> &frame, int reply_len);
    // After the driver has judged the reply: renews the connection when it
    // is out of step, which on the remote frame every refused reply is.
    void settle(const WireOutcome &outcome, bool accepted);
    void close() { connection_.close(false); }

    bool connected() const { return connection_.connected(); }
    const Endpoint &endpoint() const { return endpoint_; }
    void set_trace(LinkTrace trace) { trace_ = std::move(trace); }

private:
    struct Received;
    struct FrameInProgress;
    Received cut_off(const std::vector<uint8_t> &request, FrameInProgress *f, std::vector<uint8_t> *reply, Received r);
    Received take_reply(FrameInProgress *f, size_t size, std::vector<uint8_t> *reply);
    Received take_unframed(FrameInProgress *f, bool ours, Clock::time_point deadline, std::vector<uint8_t> *reply);
    Received receive_modbus(const std::vector<uint8_t> &request, size_t expected, Clock::time_point deadline,
                            std::vector<uint8_t> *reply);
    Received receive_remote(size_t expected, Clock::time_point deadline, std::vector<uint8_t> *reply);
    Received receive_unframed(Clock::time_point deadline, std::vector<uint8_t> *reply);
    bool connect_counted();
    void resynchronise();

    Endpoint endpoint_;
    LinkMode mode_;
    std::chrono::milliseconds timeout_;
    TcpConnection connection_;
    LinkCounters *counters_;
    LinkTrace trace_;
};

} // namespace plchost

#endif // PLCHOST_LINK_H
