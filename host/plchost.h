// plchost: the reference host for plcdriver.
//
// It plays the part of an HMI runtime: it owns the TCP connection to each PLC
// endpoint, hands the driver its communication-info record, local areas and
// callbacks, builds the cyclic read list and runs the communication thread
// that alternates ComCommunication and DataCom. Other threads read and write
// PLC values through it while it runs.
//
// The driver is one global object inside libplcdriver.so, so there is at most
// one Host per process. Several PLC endpoints are served by routing each
// request to the endpoint that owns the request's station.
//
// Only the exported interface of Communication_Protocol.h is used.
#ifndef PLCHOST_PLCHOST_H
#define PLCHOST_PLCHOST_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "value_codec.h"

struct ComInfo;  // the driver's communication-info record
struct Protocol; // one request of the driver's queue

namespace plchost {

class Link;
class ReadTimes;
struct LinkCounters;
struct WireOutcome;

// How requests are framed on the wire (the driver's link_mode).
enum class LinkMode { Modbus = 0, Remote = 1 };

// The link modes by the names the tools and their configurations use, and
// the ports plcsim serves them on (the tools' defaults).
inline const char *link_name(LinkMode link)
{
    return link == LinkMode::Modbus ? "modbus" : "remote";
}
inline std::optional<LinkMode> link_from_name(const std::string &name)
{
    if (name == "modbus")
        return LinkMode::Modbus;
    if (name == "remote")
        return LinkMode::Remote;
    return std::nullopt;
}
inline int default_port(LinkMode link)
{
    return link == LinkMode::Modbus ? 1502 : 1503;
}

// One PLC endpoint: a TCP address and the stations it serves. The first
// endpoint also serves every station that no endpoint lists.
struct Endpoint {
    std::string host = "127.0.0.1";
    uint16_t port = 1502;
    std::vector<int> stations;
};

struct HostConfig {
    std::vector<Endpoint> endpoints;
    LinkMode link_mode = LinkMode::Modbus;
    int max_read_units = 100; // largest block of one read request
    int retry_limit = 3;      // failed replies tolerated per request
    int default_station = 1;  // station of every variable when !station_from_address
    bool station_from_address = true;
    bool write_to_plc = true;                        // false: writes only change the driver's mirror
    int host_handle = 0;                             // handed back by the driver's write-done callback
    std::chrono::milliseconds timeout{1000};         // per request
    std::chrono::milliseconds poll_interval{100};    // pause after each full pass
    std::chrono::milliseconds connect_timeout{1000}; // one connection attempt
    std::chrono::milliseconds reconnect_min{100};    // first back-off step
    std::chrono::milliseconds reconnect_max{2000};   // back-off ceiling
};

// Waits a program around the host chooses from its reply time-out: a
// connection attempt waits as long as a reply, but not less than a loopback
// or LAN connect needs under load; a write or one-shot read may use every
// try before it is given up, twice over, and a second more for the queue
// ahead of it.
inline std::chrono::milliseconds connect_wait(std::chrono::milliseconds reply_timeout)
{
    return std::max(reply_timeout, std::chrono::milliseconds(200));
}
inline std::chrono::milliseconds completion_wait(std::chrono::milliseconds reply_timeout, int retry_limit)
{
    return reply_timeout * (retry_limit + 1) * 2 + std::chrono::seconds(1);
}

// One PLC variable as the runtime names it: kind 0..14, address text in the
// notation of the kind ("byte.bit" for kinds 0, 1 and 5, a decimal number
// otherwise), station, and count in the unit of the kind (bits for 0, 1, 5;
// bytes for 6..8; 16-bit words for 2..4 and 9..14).
struct Tag {
    std::string name;
    int kind = 0;
    std::string address;
    int station = 1;
    int count = 1;
};

// What the host has seen since start. Round-trip times cover requests that
// got at least one reply byte.
// One station's share of the traffic. Round-trip times run from before the
// send to the last byte of the reply, over requests that got one.
struct StationStats {
    uint64_t requests = 0;       // frames sent
    uint64_t good_replies = 0;   // DataCom codes 1 and 100
    uint64_t failed_replies = 0; // every other code (retries and give-ups)
    uint64_t retries = 0;        // failures the driver will retry
    uint64_t give_ups = 0;       // requests the driver gave up
    uint64_t timeouts = 0;       // requests that got nothing handed to the driver
    double rtt_min_ms = 0, rtt_avg_ms = 0, rtt_max_ms = 0, rtt_sum_ms = 0;
    uint64_t rtt_samples = 0;
    bool failing = false; // a request was given up and no good reply came since
};

struct Stats {
    uint64_t requests = 0;       // frames sent (and station-0 writes handed over)
    uint64_t good_replies = 0;   // DataCom codes 1 and 100
    uint64_t failed_replies = 0; // every other code (retries and give-ups)
    uint64_t retries = 0;        // failures the driver will retry
    uint64_t give_ups = 0;       // requests the driver gave up
    uint64_t timeouts = 0;       // requests that got no byte at all in time
    uint64_t reconnects = 0;     // connections re-established after a drop
    uint64_t connect_failures = 0;
    uint64_t stale_bytes = 0;       // bytes drained from a socket before a send
    uint64_t foreign_replies = 0;   // replies discarded as answers to another request
    uint64_t resyncs = 0;           // connections opened afresh because replies could no longer be paired
    uint64_t passes = 0;            // full passes over the cyclic list
    uint64_t write_done_ok = 0;     // write-done callbacks with result 1
    uint64_t write_done_failed = 0; // write-done callbacks with result 2
    uint64_t read_done = 0;         // read-done (communication failed) callbacks
    double rtt_min_ms = 0, rtt_avg_ms = 0, rtt_max_ms = 0, rtt_sum_ms = 0;
    uint64_t rtt_samples = 0;
    std::map<int, uint64_t> codes;        // DataCom return code -> how often
    std::map<int, StationStats> stations; // by station, the stations requests went to
};

// One DataCom outcome, reported to the reply hook on the communication thread.
struct ReplyEvent {
    int station = 0;
    int reg_kind = 0;   // kind of the request as the driver built it
    int start_addr = 0; // address of the request in its class units
    int count = 0;
    int endpoint = 0; // index into HostConfig::endpoints
    bool write = false;
    bool to_mirror = false; // a read whose data the driver stores (not the read of a bit or byte write)
    int bytes = 0;          // reply bytes handed to DataCom
    bool timed_out = false;
    int status = 0; // ret_var status: 0 retry, 1/100 good, else error code

    // DataCom's codes of a good reply: on the local area and on the remote one.
    static constexpr int kGoodLocal = 1, kGoodRemote = 100;
    bool good() const { return is_good(status); }
    static bool is_good(int status) { return status == kGoodLocal || status == kGoodRemote; }
};

enum class FrameDirection { Sent, Received };

// What the mirror's values of a tag are worth.
enum class Quality {
    NotRead, // no good reply has brought them since the host started
    Good,    // brought by good replies, the oldest of them at `time`
    Failing, // read once, but the station is failing or switched off now
};

struct Reading {
    std::vector<uint8_t> bytes; // GetRegisterData's bytes
    Quality quality = Quality::NotRead;
    std::chrono::system_clock::time_point time{}; // of the oldest reply the values come from
};

using TraceHook = std::function<void(FrameDirection, int endpoint, const uint8_t *data, size_t size)>;
using WriteDoneHook = std::function<void(int host_handle, int source_type, int source_id, int result)>;
using ReadDoneHook = std::function<void(int source_type, int flag)>;
using ReplyHook = std::function<void(const ReplyEvent &)>;

// Result of waiting for a write or one-shot read; Ok and Failed are also
// the write-done hook's `result` values.
enum class DoneResult { Ok = 1, Failed = 2, TimedOut = 0 };

class Host {
public:
    explicit Host(HostConfig config);
    ~Host(); // stops the communication thread and closes the sockets
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // The one live host of this process (null when none). The driver's
    // callbacks are plain C functions that carry no context pointer, so they
    // reach the host through this pointer; it is set by the constructor and
    // cleared by the destructor, and a second Host while one lives is refused.
    static Host *instance();

    // Hooks are called on the communication thread; set them before start().
    // The write-done and read-done hooks run after DataCom has returned, so
    // they may call back into the host (write, read_once, ...).
    void set_trace_hook(TraceHook hook) { trace_hook_ = std::move(hook); }
    void set_write_done_hook(WriteDoneHook hook) { write_done_hook_ = std::move(hook); }
    void set_read_done_hook(ReadDoneHook hook) { read_done_hook_ = std::move(hook); }
    void set_reply_hook(ReplyHook hook) { reply_hook_ = std::move(hook); }

    // Replaces the cyclic read list. Before start() it is built at once;
    // while running it is handed to the communication thread and built
    // between two exchanges. Returns the number of tags the driver accepted
    // (tags whose address text parses); *error names the first rejected one.
    int set_tags(const std::vector<Tag> &tags, std::string *error = nullptr);

    // Appends one ready-made block to the driver's cyclic list
    // (AddListReadVar): no address parsing, no grouping and no unit
    // conversion, so `start` and `count` go on the wire as they are, in the
    // units of the request: bits for kinds 0 and 1 (e.g. a 2,000-coil block),
    // registers for kinds 2..4. The station is the block's own when
    // station_from_address is set, else default_station. Before start() it is
    // added at once; while running it is added by the communication thread
    // between two exchanges, after any pending set_tags(). A later set_tags()
    // replaces the whole cyclic list, blocks included. False (nothing added)
    // for a kind outside 0..4, a negative start, a count below 1 or a station
    // outside 0..255.
    bool add_read_block(int kind, int start, int count, int station = 1);

    // Entries of the driver's cyclic list after the last set_tags() or
    // add_read_block() was applied (requests per full pass).
    int cyclic_entries() const { return cyclic_entries_.load(); }

    // Connects every endpoint once and starts the communication thread.
    // With require_connection, a failed first connection is an error
    // ("cannot connect to HOST:PORT: REASON") and nothing is started.
    bool start(bool require_connection, std::string *error = nullptr);
    void stop(); // joins the communication thread; safe to call twice
    bool running() const;

    // Reads the driver's mirror (no PLC traffic). Returns false when the
    // address text does not parse. out receives GetRegisterData's bytes.
    bool read(const Tag &tag, std::vector<uint8_t> *out) const;

    // The same, with what the values are worth: read by a good reply (and
    // when the oldest of those replies came), not read yet, or of a station
    // that is failing (see station_failing).
    bool read(const Tag &tag, Reading *out) const;

    // Queues a write (SetRegisterData) of `count` units from `data` in the
    // driver's buffer layout (see encode_values). Returns the write-list size
    // after queueing, at least 1 when the write was queued (the communication
    // thread may have sent it already); 0 for an address that does not parse.
    // A kind that cannot be written, a count of 0 or write_to_plc false queue
    // nothing and return the list's size. *source_id gets the id that
    // wait_done waits for.
    int write(const Tag &tag, const std::vector<uint8_t> &data, int source_type = 1, int *source_id = nullptr);

    // Queues a one-shot read of the tag (AddListOnceReadVar). Returns false
    // when the address does not parse; *source_id as for write().
    bool read_once(const Tag &tag, int source_type = 1, int *source_id = nullptr);

    // Waits until the driver reports the write or one-shot read with this
    // source_type and source_id as finished (write-done callback), and takes
    // the result: a second wait for the same identity times out. Results are
    // kept until taken, or until 4,096 newer ones have come.
    DoneResult wait_done(int source_type, int source_id, std::chrono::milliseconds timeout);

    // Waits until `count` more full passes over the cyclic list have ended.
    bool wait_passes(uint64_t count, std::chrono::milliseconds timeout);

    void enable_station(int station, bool enable);
    // Whether a station's values cannot be trusted to be current: switched
    // off, or a request to it was given up and no good reply came since.
    bool station_failing(int station) const;

    Stats stats() const;
    bool connected(size_t endpoint) const;
    const HostConfig &config() const { return config_; }

    // Parses an address text for a kind (PLCAddressChangeIntef); -1 if invalid.
    static int parse_address(int kind, const std::string &text);

private:
    struct Request;
    // A callback the driver made inside DataCom (where it holds its list
    // lock), noted for delivery after DataCom has returned.
    struct CallbackEvent {
        bool write_done;
        int handle, source_type, source_id, result;
    };

    void setup_driver();
    void run();
    bool exchange_once();
    ::Protocol *take_request();
    WireOutcome send_request(const Request &r);
    WireOutcome broadcast(const Request &r);
    int hand_to_driver(const WireOutcome &wire);
    bool count_outcome(const ReplyEvent &ev, const WireOutcome &wire);
    bool failing_locked(int station) const;
    bool pause_after_pass();
    void deliver_callbacks(bool hooks);
    bool pace(const ReplyEvent &ev, bool pass_done);
    void give_up_pending();
    void apply_tags_locked();
    void rebuild_cyclic_list(const std::vector<Tag> &tags);
    void append_read_block(int kind, int start, int count, int station);
    void apply_pending(std::unique_lock<std::mutex> &lock);
    int route(int station) const;
    bool sleep_for(std::chrono::milliseconds d, bool wake_on_kick);
    bool stopping() const;
    void kick();

    void notify_done(int source_type, int source_id, int result);

    friend struct CallbackBridge;

    HostConfig config_;
    std::unique_ptr<LinkCounters> link_counters_;
    std::vector<std::unique_ptr<Link>> links_; // one per endpoint
    std::unique_ptr<::ComInfo> com_info_;
    std::vector<uint8_t> local_bits_, local_words_, local_third_;

    TraceHook trace_hook_;
    WriteDoneHook write_done_hook_;
    ReadDoneHook read_done_hook_;
    ReplyHook reply_hook_;

    std::thread thread_;
    mutable std::mutex mutex_; // stats, done map, wake flags, pending tags
    std::condition_variable wake_cv_;
    std::condition_variable done_cv_;
    bool stop_ = false;
    bool kicked_ = false;
    bool running_ = false;
    bool pending_tags_set_ = false;
    std::vector<Tag> pending_tags_;
    struct ReadBlock {
        int kind, start, count, station;
    };
    std::vector<ReadBlock> pending_blocks_; // added after the pending tags
    std::atomic<int> cyclic_entries_{0};    // entries of the driver's cyclic list
    Stats stats_;
    std::set<int> switched_off_;                 // stations switched off by enable_station()
    std::unique_ptr<ReadTimes> read_times_;      // when each part of the mirror was read
    std::map<std::pair<int, int>, int> done_;    // (source_type, source_id) -> result, until wait_done takes it
    std::deque<std::pair<int, int>> done_order_; // done_'s keys, oldest first
    static constexpr size_t kKeptResults = 4096;
    int next_source_id_ = 1;

    std::vector<CallbackEvent> events_; // collected inside DataCom, delivered after it
};

} // namespace plchost

#endif // PLCHOST_PLCHOST_H
