// What plcpoll shows, as text: the live table, plain lines and JSON of a
// snapshot of tag values and statistics, the write report and the frame
// trace. Pure functions of their arguments: nothing here reads the PLC or
// the clock, or writes anywhere.
#ifndef PLCPOLL_OUTPUT_H
#define PLCPOLL_OUTPUT_H

#include "plchost.h"
#include "tags.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace plcpoll {

// One tag and what was read for it.
struct TagReading {
    PollTag tag;
    std::vector<uint64_t> values; // decoded, one per value of the tag's kind
};

// The state of a poll at one moment.
struct Snapshot {
    std::string peer; // "HOST:PORT"
    plchost::LinkMode link = plchost::LinkMode::Modbus;
    double elapsed_s = 0; // since polling started
    bool connected = false;
    std::vector<TagReading> tags;
    plchost::Stats stats;
};

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
    plchost::Tag target;
    std::vector<uint64_t> values; // written
    plchost::DoneResult result = plchost::DoneResult::TimedOut;
    enum class ReadBack { NotTried, Failed, Read };
    ReadBack read_back = ReadBack::NotTried;
    std::vector<uint64_t> read_values; // when Read
    plchost::Stats stats;
};
std::string render_write(View view, const WriteReport &report);

// Values as a person reads them: bits 0/1, bytes and words in decimal and
// hex, 32- and 64-bit values as unsigned decimals.
std::string render_values(int kind, const std::vector<uint64_t> &values);

// The statistics as text lines.
std::string render_stats(const plchost::Stats &stats);

// One frame of the trace: "tx  12: 00 01 ..." (rx for a received one).
std::string render_frame(plchost::FrameDirection direction, const uint8_t *data, size_t size);

} // namespace plcpoll

#endif // PLCPOLL_OUTPUT_H
