// plcpoll's commands on the reference host: polling tags and writing values
// with a read back. Each runs one Host against the PLC the settings name,
// writes what it shows to the console and returns how the run ends.
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

// The write command's arguments KIND ADDRESS VALUE..., checked before any
// connection is made.
struct WriteRequest {
    plchost::Tag target;
    std::vector<uint64_t> values;
};
Result<WriteRequest> parse_write_request(const Settings &settings);

// The host's configuration for the one endpoint of the settings.
plchost::HostConfig host_config(const Settings &settings);

} // namespace plcpoll

#endif // PLCPOLL_COMMANDS_H
