// plcpoll's commands on the reference host: polling tags, writing values
// with a read back and scanning for stations. Each runs one Host against the
// PLC the settings name, writes what it shows to the console and returns how
// the run ends.
#ifndef PLCPOLL_COMMANDS_H
#define PLCPOLL_COMMANDS_H

#include "options.h"
#include "output.h"
#include "result.h"
#include "tags.h"

#include <atomic>
#include <ostream>
#include <vector>

namespace plcpoll {

struct Console {
    std::ostream &out;
    std::ostream &err;                    // the frame trace, written on the host's communication thread
    bool terminal = false;                // out is a terminal: the live table is redrawn in place
    const std::atomic<bool> &interrupted; // set when the user asks the poll to stop (Ctrl-C)
};

// Runs the command of the settings on the tags.
Exit run_command(const Settings &settings, const std::vector<PollTag> &tags, const Console &console);

// The write command's arguments KIND ADDRESS VALUE... with the type of
// --type and its companions, checked and converted before any connection is
// made: a value out of the type's range is a usage error.
struct WriteRequest {
    PollTag target;               // its count covers the values
    std::vector<uint64_t> values; // as the host's codec takes them for the kind
    std::vector<uint8_t> data;    // the same in the driver's buffer layout
};
Result<WriteRequest> parse_write_request(const Settings &settings);

// The scan command's stations: "1-247" when none are given, else a list of
// unit identifiers and ranges ("1,3,10-20") from 1 to 247, in ascending
// order without repeats.
Result<std::vector<int>> parse_scan_stations(const Settings &settings);

Exit run_write(const Settings &settings, const Console &console);
Exit run_scan(const Settings &settings, const Console &console);

// The host's configuration for the one endpoint of the settings.
plchost::HostConfig host_config(const Settings &settings);

} // namespace plcpoll

#endif // PLCPOLL_COMMANDS_H
