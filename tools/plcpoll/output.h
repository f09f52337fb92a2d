// What plcpoll shows, as text: the live table, plain lines and JSON of a
// snapshot of tag values and statistics, the write report, the station scan
// and the frame trace. Pure functions of their arguments: nothing here reads
// the PLC or the clock, or writes anywhere.
#ifndef PLCPOLL_OUTPUT_H
#define PLCPOLL_OUTPUT_H

#include "codec.h"
#include "plchost.h"
#include "tags.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plcpoll {

// One tag and what was read for it. Values are shown only when the quality
// is Good: a tag not read yet, or whose station is failing, shows "-" (null
// in JSON), never a number.
struct TagReading {
    PollTag tag;
    plchost::Quality quality = plchost::Quality::Good;
    std::vector<plctags::Value> values; // as the tag's type shows them
    // The tag's first value at the last refreshes, oldest first; empty for
    // a tag whose type is no number. A refresh without a good value adds
    // nothing.
    std::vector<double> trend;
};

// Values kept for a trend, and so the width of the trend column.
constexpr size_t kTrendLength = 10;

// The state of a poll at one moment.
struct Snapshot {
    std::string peer; // "HOST:PORT"
    plchost::LinkMode link = plchost::LinkMode::Modbus;
    double elapsed_s = 0; // since polling started
    bool connected = false;
    bool trends = false; // the table shows a trend column
    std::vector<TagReading> tags;
    plchost::Stats stats;
};

// Adds each tag's first value, when it was read and is a number, to the
// trend it had `before` (the previous refresh of the same tags), keeping the
// last kTrendLength.
void carry_trends(Snapshot *now, const Snapshot *before);

// The trend as a line of block characters, lowest to highest value of the
// trend (a trend that stands still shows mid-height blocks).
std::string sparkline(const std::vector<double> &trend);

// How refreshes are shown: a table redrawn in place on a terminal, plain
// lines otherwise, or one JSON object per refresh.
enum class View { Table, Lines, Json };

// One refresh. `before` is the previous refresh of the same tags (null for
// the first): the table marks the values that changed since, and plain lines
// show only those.
std::string render_refresh(View view, const Snapshot &now, const Snapshot *before);

// The result of a single pass: JSON with the statistics, or plain lines and
// the statistics text.
std::string render_pass(View view, const Snapshot &now, bool complete);

// The statistics at the end of a poll: text lines, or {"stats":{...}}.
std::string render_final_stats(View view, const plchost::Stats &stats);

// What a write did.
struct WriteReport {
    PollTag target;
    std::vector<uint64_t> values; // written, as the host's codec takes them
    plchost::DoneResult result = plchost::DoneResult::TimedOut;
    enum class ReadBack { NotTried, Failed, Read };
    ReadBack read_back = ReadBack::NotTried;
    std::vector<uint64_t> read_values; // when Read
    plchost::Stats stats;
};
std::string render_write(View view, const WriteReport &report);

// How one station answered a scan's probe.
enum class Answer {
    Reply,     // a good reply
    Exception, // a Modbus exception other than the gateway's "no such device"
    Absent,    // a gateway's exception 0x0A or 0x0B: no device behind that unit
    Refused,   // a reply the driver did not take (wrong length, bad sum, ...)
    Silence,   // nothing within the time-out
};

struct Probe {
    int station = 0;
    Answer answer = Answer::Silence;
    int exception = 0; // the exception code, for Exception and Absent
    int code = 0;      // the driver's return code
    double rtt_ms = -1;
};

// A station counts as present when something at that unit answered: a good
// reply, an exception of its own or a reply the driver refused.
bool is_present(const Probe &probe);

struct ScanReport {
    std::string peer;
    plchost::LinkMode link = plchost::LinkMode::Modbus;
    int timeout_ms = 0;
    std::vector<Probe> probes; // in the order probed
};

// A present station found during a scan, as its line appears (empty for
// JSON and for stations that are not present), and the scan's result.
std::string render_probe(View view, const Probe &probe);
std::string render_scan(View view, const ScanReport &report);

// The name of a Modbus exception code ("0x0B gateway target device failed
// to respond").
std::string exception_text(int code);

// The statistics as text lines.
std::string render_stats(const plchost::Stats &stats);

// Frames that brought no good reply, in percent of the exchanges (good and
// failed replies; 0 without any).
double frame_loss_percent(uint64_t good, uint64_t failed);

// One frame of the trace: "tx  12: 00 01 ..." (rx for a received one).
std::string render_frame(plchost::FrameDirection direction, const uint8_t *data, size_t size);

} // namespace plcpoll

#endif // PLCPOLL_OUTPUT_H
