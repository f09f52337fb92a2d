// plcpoll's command line: the options and the command with its arguments,
// read into a Settings record, or the usage error that stops the run.
#ifndef PLCPOLL_OPTIONS_H
#define PLCPOLL_OPTIONS_H

#include "plchost.h"
#include "result.h"
#include "tags.h"

#include <optional>
#include <string>
#include <vector>

namespace plcpoll {

// What a run does. Polling is the default; the others are named by a word on
// the command line, or by --help.
enum class Command { Poll, Write, Scan, Help };

// Reply time-outs when --timeout is not given: a scan waits less, since most
// of the stations it probes may never answer.
constexpr int kTimeoutMs = 1000;
constexpr int kScanTimeoutMs = 200;

struct Settings {
    Command command = Command::Poll;
    std::vector<std::string> operands; // the command's arguments (write: KIND ADDRESS VALUE...; scan: [STATIONS])

    std::string host = "127.0.0.1";
    int port = plchost::default_port(plchost::LinkMode::Modbus); // the link's port unless --port is given
    plchost::LinkMode link = plchost::LinkMode::Modbus;
    int timeout_ms = kTimeoutMs; // per request (the scan's own unless --timeout is given)
    int retries = 3;             // failed replies tolerated per request

    int interval_ms = 500; // pause after each pass, and the refresh period
    bool once = false;
    std::optional<double> duration_s; // until interrupted when empty
    bool json = false;
    bool trace = false;
    bool debug_log = false;
    bool trend = true; // the live table's trend column
    int station = 1;   // of the write command
    // How the write command's values are typed (--type, --order, --scale,
    // --offset); its kind and address come from the command's arguments.
    PollTag write_as;

    std::vector<TagSource> tag_sources;
};

// Reads the arguments after the program name. Options take their value as the
// next argument or after '=' (--port 1502, --port=1502); a unique beginning of
// an option's name stands for it; "--" ends the options. The first word that
// is not an option names the command; later ones are its arguments, negative
// numbers among them. Options are read in order, so --help names the Help
// command unless an error comes before it. getopt's state is global: one
// thread at a time.
Result<Settings> parse_options(const std::vector<std::string> &args);

// The long names of every option, for checks and completion.
std::vector<std::string> option_names();

// The text of --help.
const char *usage_text();

} // namespace plcpoll

#endif // PLCPOLL_OPTIONS_H
