// Command line of plcsim: the option record and its parser.
#ifndef PLCSIM_OPTIONS_H
#define PLCSIM_OPTIONS_H

#include "memory.h"

#include <string>
#include <vector>

namespace plcsim {

struct Options {
    std::string address = "127.0.0.1";
    int modbus_port = 1502;
    int remote_port = 1503;
    std::vector<int> stations{1}; // sorted, no duplicates
    std::string log_path;         // empty: no traffic log; "-": stderr
    bool freeze = false;          // --static
    Fill fill = Fill::Zero;       // --fill
    std::string port_file;        // empty: none
    bool help = false;
};

// Outcome of parsing: ok, or a one-line error message (without the "plcsim: " prefix).
struct ParseResult {
    bool ok = false;
    std::string error;
};

// Parses "1,2,5", "1-4", "1-3,7" into a sorted list of unique unit ids in 0..247.
ParseResult parse_station_list(const std::string &text, std::vector<int> &out);

// Parses a decimal TCP port number 0..65535.
ParseResult parse_port(const std::string &text, int &out);

// Parses argv (argv[0] is skipped). Accepts "--opt VALUE" and "--opt=VALUE".
ParseResult parse_options(int argc, const char *const *argv, Options &out);

// The --help text.
std::string usage_text();

} // namespace plcsim

#endif
