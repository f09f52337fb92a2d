#include "options.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>

namespace plcsim {

namespace {

ParseResult fail(const std::string &message)
{
    ParseResult r;
    r.error = message;
    return r;
}

ParseResult success()
{
    ParseResult r;
    r.ok = true;
    return r;
}

// Strict decimal: digits only, no sign, no spaces, value within [lo, hi].
bool parse_decimal(const std::string &text, long lo, long hi, long &out)
{
    if (text.empty() || text.size() > 9)
        return false;
    for (char c : text)
        if (c < '0' || c > '9')
            return false;
    long v = std::strtol(text.c_str(), nullptr, 10);
    if (v < lo || v > hi)
        return false;
    out = v;
    return true;
}

constexpr long kMaxUnit = 247;

} // namespace

ParseResult parse_station_list(const std::string &text, std::vector<int> &out)
{
    if (text.empty())
        return fail("empty station list");
    std::vector<int> ids;
    size_t pos = 0;
    while (true) {
        size_t comma = text.find(',', pos);
        std::string item = text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        if (item.empty())
            return fail("bad station list '" + text + "': empty item");
        size_t dash = item.find('-');
        long lo = 0;
        long hi = 0;
        if (dash == std::string::npos) {
            if (!parse_decimal(item, 0, kMaxUnit, lo))
                return fail("bad station list '" + text + "': '" + item + "' is not a unit id 0..247");
            hi = lo;
        } else {
            std::string a = item.substr(0, dash);
            std::string b = item.substr(dash + 1);
            if (!parse_decimal(a, 0, kMaxUnit, lo) || !parse_decimal(b, 0, kMaxUnit, hi))
                return fail("bad station list '" + text + "': '" + item + "' is not a range of unit ids 0..247");
            if (lo > hi)
                return fail("bad station list '" + text + "': range '" + item + "' runs backwards");
        }
        for (long v = lo; v <= hi; ++v)
            ids.push_back(static_cast<int>(v));
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    out = ids;
    return success();
}

ParseResult parse_port(const std::string &text, int &out)
{
    long v = 0;
    if (!parse_decimal(text, 0, 65535, v))
        return fail("bad port '" + text + "': expected a number 0..65535");
    out = static_cast<int>(v);
    return success();
}

ParseResult parse_options(int argc, const char *const *argv, Options &out)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string name = arg;
        std::string value;
        bool has_inline_value = false;
        if (arg.rfind("--", 0) == 0) {
            size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                name = arg.substr(0, eq);
                value = arg.substr(eq + 1);
                has_inline_value = true;
            }
        } else {
            return fail("unexpected argument '" + arg + "' (see --help)");
        }

        if (name == "--help" || name == "--static") {
            if (has_inline_value)
                return fail("option " + name + " takes no value");
            if (name == "--help")
                o.help = true;
            else
                o.freeze = true;
            continue;
        }
        bool known = name == "--address" || name == "--port" || name == "--remote-port" || name == "--stations" ||
                     name == "--log" || name == "--port-file" || name == "--fill";
        if (!known)
            return fail("unknown option '" + name + "' (see --help)");
        if (!has_inline_value) {
            if (i + 1 >= argc)
                return fail("option " + name + " needs a value");
            value = argv[++i];
        }

        ParseResult r = success();
        if (name == "--address") {
            in_addr tmp{};
            if (inet_pton(AF_INET, value.c_str(), &tmp) != 1)
                return fail("bad address '" + value + "': expected an IPv4 address like 127.0.0.1");
            o.address = value;
        } else if (name == "--port") {
            r = parse_port(value, o.modbus_port);
        } else if (name == "--remote-port") {
            r = parse_port(value, o.remote_port);
        } else if (name == "--stations") {
            r = parse_station_list(value, o.stations);
        } else if (name == "--log") {
            if (value.empty())
                return fail("option --log needs a file name or -");
            o.log_path = value;
        } else if (name == "--fill") {
            if (value == "zero")
                o.fill = Fill::Zero;
            else if (value == "address")
                o.fill = Fill::Address;
            else
                return fail("bad fill '" + value + "': expected zero or address");
        } else if (name == "--port-file") {
            if (value.empty())
                return fail("option --port-file needs a file name");
            o.port_file = value;
        }
        if (!r.ok)
            return r;
    }
    out = o;
    return success();
}

std::string usage_text()
{
    return "Usage: plcsim [--address ADDR] [--port PORT] [--remote-port PORT] [--stations LIST]\n"
           "              [--log FILE] [--static] [--fill zero|address] [--port-file FILE] [--help]\n"
           "\n"
           "A PLC simulator for plcdriver: serves Modbus TCP and the driver's remote frame.\n"
           "\n"
           "  --address ADDR      IPv4 address to listen on (default 127.0.0.1)\n"
           "  --port PORT         Modbus TCP port (default 1502; 0 picks a free port)\n"
           "  --remote-port PORT  remote frame port (default 1503; 0 picks a free port)\n"
           "  --stations LIST     unit ids served, e.g. 1,2,5 or 1-4 or 1-3,9 (0..247, default 1);\n"
           "                      unit 0 is always the broadcast address\n"
           "  --log FILE          log every request and response in hex with a timestamp\n"
           "                      (appended to FILE; - for stderr)\n"
           "  --static            keep the moving values still (for exact comparisons)\n"
           "  --fill zero|address memory at start: zeros (default), or every register holding its\n"
           "                      own table address and every bit the parity of its address\n"
           "                      (with --static the moving values leave that pattern alone)\n"
           "  --port-file FILE    after listening, write \"modbus=PORT\" and \"remote=PORT\" lines to FILE\n"
           "  --help              show this text\n"
           "\n"
           "Exit status: 0 after SIGINT/SIGTERM, 1 on a runtime error (port in use, ...), 2 on a usage error.\n"
           "\n"
           "Examples:\n"
           "  plcsim                                  # unit 1 on 127.0.0.1:1502 and :1503\n"
           "  plcsim --stations 1-3 --log -           # units 1, 2, 3; traffic on stderr\n"
           "  plcsim --port 0 --remote-port 0 --port-file /tmp/plcsim.ports --static\n";
}

} // namespace plcsim
