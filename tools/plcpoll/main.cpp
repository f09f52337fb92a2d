// plcpoll: commissioning tool on the reference host. Polls PLC tags through
// the driver and shows them as a live table, plain lines or JSON; writes a
// value and reads it back.
#include "plchost.h"

#include "Communication_Protocol.h"

#include <QtGlobal>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using plchost::Tag;

namespace {

const char *const kUsage =
    R"(usage: plcpoll [OPTIONS]                        poll tags cyclically
       plcpoll [OPTIONS] write KIND ADDRESS VALUE... [--station N]

Reads PLC tags through the plcdriver library and shows their values: a table
refreshed in place on a terminal, plain lines otherwise, or JSON.

Tags:
  --tag NAME,KIND,ADDRESS,STATION,COUNT   a tag (repeatable)
  --tags FILE          CSV file of tags: name,kind,address,station,count per
                       line; '#' starts a comment; a header line is allowed
Kinds (COUNT in the unit of the kind):
  0 discrete input  1 coil  (bits; ADDRESS is BYTE.BIT)
  2 input register  3 holding register  4 word          (16-bit words)
  5 bit in a class-4 word (bits; ADDRESS is BYTE.BIT, bit 8*BYTE+BIT)
  6 7 8 byte in class 2 3 4 (bytes)
  9 10 11 32-bit value in class 2 3 4 (COUNT in words: 2 per value)
  12 13 14 64-bit value in class 2 3 4 (COUNT in words: 4 per value)

Connection:
  --host HOST          PLC address (default 127.0.0.1)
  --port PORT          TCP port (default 1502 for modbus, 1503 for remote)
  --link modbus|remote Modbus TCP or the driver's remote frame (default modbus)
  --timeout MS         reply timeout per request (default 1000)
  --retries N          failed replies tolerated per request (default 3)

Polling and output:
  --interval MS        pause after each full pass, and refresh period (default 500)
  --once               one full pass, show it, exit
  --duration SECONDS   poll for this long, then exit (default: until Ctrl-C)
  --json               machine-readable output (one JSON object per refresh)
  --trace              hex dump of every frame sent and received (on stderr)
  --debug-log          install the driver's log handler (/tmp/debug.log) and
                       log the tool's events there
  --station N          station of the write command (default 1)
  --help               this text

Write: KIND is a writable kind (1 3 4 5 7 8 10 11 13 14), VALUE... one number
per value (decimal, or hex with 0x); the value is read back afterwards.
The driver writes kinds 10 and 13 at the doubled (quadrupled) address without
the class-3 offset 0xA000 that its reads of them add, so their read back shows
the class-3 registers, not the ones written (exit status 1).
On the remote frame the driver rejects replies under 8 bytes; plcpoll reads at
least 3 data bytes there and shows only the units asked for.

Examples:
  plcpoll --tags tools/plcpoll/example-tags.csv
  plcpoll --tag ramp,2,4,1,1 --tag onehot,0,0.0,1,8 --once --json
  plcpoll --link remote --port 1503 --tags tags.csv --duration 5
  plcpoll write 4 100 1234 --station 1
  plcpoll write 1 0.3 1 0 1
)";

// Usage errors exit with 2, communication failures with 1.
[[noreturn]] void fail(int code, const std::string &message)
{
    std::fprintf(stderr, "plcpoll: %s\n", message.c_str());
    std::exit(code);
}

bool parse_int(const std::string &text, long long min, long long max, long long *out)
{
    if (text.empty())
        return false;
    errno = 0;
    char *end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

// A value of the write command: decimal (also negative, stored as the
// two's complement of the kind's width) or hexadecimal with 0x.
bool parse_value(const std::string &text, int bits, uint64_t *out)
{
    if (text.empty())
        return false;
    errno = 0;
    char *end = nullptr;
    uint64_t v;
    bool negative = false;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        v = std::strtoull(text.c_str() + 2, &end, 16);
    } else if (text[0] == '-') {
        const long long s = std::strtoll(text.c_str(), &end, 10);
        v = uint64_t(s);
        negative = true;
        if (bits < 64 && s < -(1LL << (bits - 1)))
            return false;
        if (bits == 1)
            return false;
    } else {
        if (!std::isdigit(static_cast<unsigned char>(text[0])))
            return false;
        v = std::strtoull(text.c_str(), &end, 10);
    }
    if (errno != 0 || *end != '\0')
        return false;
    if (bits < 64) {
        const uint64_t mask = (uint64_t(1) << bits) - 1;
        if (negative)
            v &= mask;
        else if (v > mask)
            return false;
    }
    *out = v;
    return true;
}

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> parts;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

std::string trim(const std::string &s)
{
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return "";
    const auto e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

// Parses "name,kind,address,station,count"; on error returns the reason.
bool parse_tag(const std::string &line, Tag *tag, std::string *why)
{
    const auto f = split(line, ',');
    if (f.size() != 5) {
        *why = "expected 5 fields name,kind,address,station,count, got " + std::to_string(f.size());
        return false;
    }
    long long kind, station, count;
    tag->name = trim(f[0]);
    tag->address = trim(f[2]);
    if (tag->name.empty()) {
        *why = "empty tag name";
        return false;
    }
    if (!parse_int(trim(f[1]), 0, 14, &kind)) {
        *why = "invalid kind '" + trim(f[1]) + "' (0..14)";
        return false;
    }
    if (!parse_int(trim(f[3]), 0, 255, &station)) {
        *why = "invalid station '" + trim(f[3]) + "' (0..255)";
        return false;
    }
    if (!parse_int(trim(f[4]), 1, 10000, &count)) {
        *why = "invalid count '" + trim(f[4]) + "' (1..10000)";
        return false;
    }
    tag->kind = int(kind);
    tag->station = int(station);
    tag->count = int(count);
    if (plchost::Host::parse_address(tag->kind, tag->address) < 0) {
        *why = "invalid address '" + tag->address + "' for kind " + std::to_string(kind) +
               (tag->kind == 0 || tag->kind == 1 || tag->kind == 5 ? " (expected BYTE.BIT)" : " (expected a number)");
        return false;
    }
    return true;
}

std::vector<Tag> read_tag_file(const std::string &path)
{
    std::ifstream in(path);
    if (!in)
        fail(2, "cannot open tag file " + path + ": " + std::strerror(errno));
    std::vector<Tag> tags;
    std::string line;
    int number = 0;
    bool first = true;
    while (std::getline(in, line)) {
        ++number;
        const auto hash = line.find('#');
        if (hash != std::string::npos)
            line.erase(hash);
        if (trim(line).empty())
            continue;
        const auto fields = split(line, ',');
        if (first && fields.size() >= 2 && trim(fields[1]) == "kind") {
            first = false; // header line
            continue;
        }
        first = false;
        Tag t;
        std::string why;
        if (!parse_tag(line, &t, &why))
            fail(2, path + ":" + std::to_string(number) + ": " + why);
        tags.push_back(t);
    }
    if (tags.empty())
        fail(2, "no tags in " + path);
    return tags;
}

std::string hex(uint64_t v, int digits)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%0*llX", digits, static_cast<unsigned long long>(v));
    return buf;
}

// A value as a person reads it: bits 0/1, bytes and words in decimal and
// hex, 32- and 64-bit values as unsigned decimals.
std::string render_values(int kind, const std::vector<uint64_t> &values)
{
    std::string out;
    const int bits = plchost::value_bits(kind);
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            out += bits == 1 ? " " : ", ";
        const uint64_t v = values[i];
        if (bits == 1)
            out += std::to_string(v);
        else if (bits == 8)
            out += std::to_string(v) + " (" + hex(v, 2) + ")";
        else if (bits == 16)
            out += std::to_string(v) + " (" + hex(v, 4) + ")";
        else
            out += std::to_string(v);
    }
    return out;
}

std::string json_escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string json_tag(const Tag &t, const std::vector<uint64_t> &values)
{
    std::ostringstream o;
    o << "{\"name\":\"" << json_escape(t.name) << "\",\"kind\":" << t.kind << ",\"address\":\""
      << json_escape(t.address) << "\",\"station\":" << t.station << ",\"count\":" << t.count << ",\"values\":[";
    for (size_t i = 0; i < values.size(); ++i)
        o << (i ? "," : "") << values[i];
    o << "]}";
    return o.str();
}

std::string json_stats(const plchost::Stats &s)
{
    std::ostringstream o;
    o << "{\"requests\":" << s.requests << ",\"good_replies\":" << s.good_replies
      << ",\"failed_replies\":" << s.failed_replies << ",\"retries\":" << s.retries << ",\"give_ups\":" << s.give_ups
      << ",\"timeouts\":" << s.timeouts << ",\"reconnects\":" << s.reconnects
      << ",\"connect_failures\":" << s.connect_failures << ",\"foreign_replies\":" << s.foreign_replies
      << ",\"resyncs\":" << s.resyncs << ",\"stale_bytes\":" << s.stale_bytes << ",\"passes\":" << s.passes
      << ",\"rtt_ms\":{\"min\":" << s.rtt_min_ms << ",\"avg\":" << s.rtt_avg_ms << ",\"max\":" << s.rtt_max_ms
      << "},\"codes\":{";
    bool first = true;
    for (const auto &kv : s.codes) {
        o << (first ? "" : ",") << "\"" << kv.first << "\":" << kv.second;
        first = false;
    }
    o << "}}";
    return o.str();
}

void print_stats(const plchost::Stats &s, FILE *out)
{
    std::fprintf(out,
                 "statistics: %llu requests, %llu good, %llu failed (%llu retried, %llu given up), "
                 "%llu timeouts, %llu reconnects, %llu passes\n",
                 static_cast<unsigned long long>(s.requests), static_cast<unsigned long long>(s.good_replies),
                 static_cast<unsigned long long>(s.failed_replies), static_cast<unsigned long long>(s.retries),
                 static_cast<unsigned long long>(s.give_ups), static_cast<unsigned long long>(s.timeouts),
                 static_cast<unsigned long long>(s.reconnects), static_cast<unsigned long long>(s.passes));
    if (s.foreign_replies || s.resyncs || s.stale_bytes)
        std::fprintf(out,
                     "unpaired: %llu replies to other requests discarded, %llu connections renewed, "
                     "%llu stale bytes drained\n",
                     static_cast<unsigned long long>(s.foreign_replies), static_cast<unsigned long long>(s.resyncs),
                     static_cast<unsigned long long>(s.stale_bytes));
    std::fprintf(out, "round trip: min %.3f ms, avg %.3f ms, max %.3f ms\n", s.rtt_min_ms, s.rtt_avg_ms, s.rtt_max_ms);
    if (!s.codes.empty()) {
        std::string codes;
        for (const auto &kv : s.codes)
            codes += (codes.empty() ? "" : ", ") + std::to_string(kv.first) + " x" + std::to_string(kv.second);
        std::fprintf(out, "driver return codes: %s (0 = failed, retried)\n", codes.c_str());
    }
}

std::atomic<bool> g_interrupted{false};
std::mutex g_trace_mutex;

extern "C" void on_signal(int)
{
    g_interrupted.store(true);
}

struct Options {
    std::string host = "127.0.0.1";
    int port = -1;
    plchost::LinkMode link = plchost::LinkMode::Modbus;
    int timeout_ms = 1000;
    int retries = 3;
    int interval_ms = 500;
    bool once = false;
    double duration = -1;
    bool json = false;
    bool trace = false;
    bool debug_log = false;
    int station = 1;
    std::vector<Tag> tags;
    bool write = false;
    std::vector<std::string> write_args;
};

Options parse_options(int argc, char **argv)
{
    Options o;
    auto need = [&](int &i) -> std::string {
        if (i + 1 >= argc)
            fail(2, std::string("option ") + argv[i] + " needs a value (see --help)");
        return argv[++i];
    };
    auto number = [&](const std::string &opt, const std::string &v, long long min, long long max) {
        long long n;
        if (!parse_int(v, min, max, &n))
            fail(2, "invalid value '" + v + "' for " + opt + " (" + std::to_string(min) + ".." + std::to_string(max) +
                        ")");
        return n;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--host") {
            o.host = need(i);
        } else if (a == "--port") {
            o.port = int(number(a, need(i), 1, 65535));
        } else if (a == "--link") {
            const std::string v = need(i);
            if (v == "modbus")
                o.link = plchost::LinkMode::Modbus;
            else if (v == "remote")
                o.link = plchost::LinkMode::Remote;
            else
                fail(2, "invalid value '" + v + "' for --link (modbus or remote)");
        } else if (a == "--timeout") {
            o.timeout_ms = int(number(a, need(i), 1, 600000));
        } else if (a == "--retries") {
            o.retries = int(number(a, need(i), 0, 100));
        } else if (a == "--interval") {
            o.interval_ms = int(number(a, need(i), 0, 3600000));
        } else if (a == "--duration") {
            const std::string v = need(i);
            char *end = nullptr;
            errno = 0;
            o.duration = std::strtod(v.c_str(), &end);
            if (v.empty() || errno != 0 || *end != '\0' || !(o.duration >= 0) || o.duration > 1e7)
                fail(2, "invalid value '" + v + "' for --duration (seconds)");
        } else if (a == "--once") {
            o.once = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--trace") {
            o.trace = true;
        } else if (a == "--debug-log") {
            o.debug_log = true;
        } else if (a == "--station") {
            o.station = int(number(a, need(i), 0, 255));
        } else if (a == "--tag") {
            Tag t;
            std::string why;
            const std::string v = need(i);
            if (!parse_tag(v, &t, &why))
                fail(2, "--tag '" + v + "': " + why);
            o.tags.push_back(t);
        } else if (a == "--tags") {
            const auto file_tags = read_tag_file(need(i));
            o.tags.insert(o.tags.end(), file_tags.begin(), file_tags.end());
        } else if (a == "write" && !o.write) {
            o.write = true;
        } else if (o.write && (a.size() < 2 || a.compare(0, 2, "--") != 0)) {
            o.write_args.push_back(a);
        } else if (a.compare(0, 1, "-") == 0 && !(o.write && a.size() > 1 && std::isdigit(uint8_t(a[1])))) {
            fail(2, "unknown option '" + a + "' (see --help)");
        } else if (o.write) {
            o.write_args.push_back(a); // a negative value
        } else {
            fail(2, "unexpected argument '" + a + "' (see --help)");
        }
    }
    if (o.port < 0)
        o.port = o.link == plchost::LinkMode::Modbus ? 1502 : 1503;
    return o;
}

plchost::HostConfig host_config(const Options &o)
{
    plchost::HostConfig c;
    plchost::Endpoint e;
    e.host = o.host;
    e.port = uint16_t(o.port);
    c.endpoints.push_back(e);
    c.link_mode = o.link;
    c.timeout = std::chrono::milliseconds(o.timeout_ms);
    c.retry_limit = o.retries;
    c.poll_interval = std::chrono::milliseconds(o.interval_ms);
    c.connect_timeout = std::chrono::milliseconds(std::max(o.timeout_ms, 200));
    return c;
}

void install_hooks(plchost::Host &host, const Options &o)
{
    if (o.trace) {
        host.set_trace_hook([](plchost::FrameDirection dir, int, const uint8_t *data, size_t size) {
            std::string line = dir == plchost::FrameDirection::Sent ? "tx" : "rx";
            char buf[8];
            std::snprintf(buf, sizeof buf, " %3zu:", size);
            line += buf;
            for (size_t i = 0; i < size; ++i) {
                std::snprintf(buf, sizeof buf, " %02X", data[i]);
                line += buf;
            }
            std::lock_guard<std::mutex> lock(g_trace_mutex);
            std::fprintf(stderr, "%s\n", line.c_str());
        });
    }
    if (o.debug_log) {
        host.set_reply_hook([](const plchost::ReplyEvent &e) {
            if (e.status != 1 && e.status != 100)
                qWarning("request to station %d (kind %d, address %d, count %d) failed: code %d, %d bytes%s", e.station,
                         e.reg_kind, e.start_addr, e.count, e.status, e.bytes, e.timed_out ? ", no reply" : "");
        });
        host.set_write_done_hook([](int, int source_type, int source_id, int result) {
            qInfo("request %d/%d finished: %s", source_type, source_id, result == 1 ? "ok" : "communication failed");
        });
        host.set_read_done_hook([](int source_type, int) { qWarning("request of type %d given up", source_type); });
    }
}

int run_write(const Options &o)
{
    if (o.write_args.size() < 3)
        fail(2, "write needs KIND ADDRESS VALUE... (see --help)");
    long long kind;
    if (!parse_int(o.write_args[0], 0, 14, &kind))
        fail(2, "invalid kind '" + o.write_args[0] + "' (0..14)");
    if (!plchost::kind_writable(int(kind)))
        fail(2, "kind " + std::to_string(kind) + " (" + plchost::kind_name(int(kind)) +
                    ") is read-only; writable kinds are 1 3 4 5 7 8 10 11 13 14");
    Tag t;
    t.name = "write";
    t.kind = int(kind);
    t.address = o.write_args[1];
    t.station = o.station;
    if (plchost::Host::parse_address(t.kind, t.address) < 0)
        fail(2, "invalid address '" + t.address + "' for kind " + std::to_string(kind) +
                    (t.kind == 1 || t.kind == 5 ? " (expected BYTE.BIT)" : " (expected a number)"));
    std::vector<uint64_t> values;
    const int bits = plchost::value_bits(t.kind);
    for (size_t i = 2; i < o.write_args.size(); ++i) {
        uint64_t v;
        if (!parse_value(o.write_args[i], bits, &v))
            fail(2, "invalid value '" + o.write_args[i] + "' for kind " + std::to_string(kind) + " (" +
                        std::to_string(bits) + "-bit)");
        values.push_back(v);
    }
    std::vector<uint8_t> bytes;
    plchost::encode_values(t.kind, values, &bytes, &t.count);

    plchost::Host host(host_config(o));
    install_hooks(host, o);
    std::string error;
    if (!host.start(true, &error))
        fail(1, error);
    const auto wait = std::chrono::milliseconds(int64_t(o.timeout_ms) * (o.retries + 1) * 2 + 1000);
    int id = 0;
    if (host.write(t, bytes, 1, &id) == 0)
        fail(2, "the driver refused the write");
    const auto result = host.wait_done(1, id, wait);
    int rc = 0;
    std::string readback;
    std::vector<uint64_t> back;
    if (result == plchost::DoneResult::Ok) {
        Tag r = t;
        int rid = 0;
        if (host.read_once(r, 2, &rid) && host.wait_done(2, rid, wait) == plchost::DoneResult::Ok) {
            std::vector<uint8_t> got;
            host.read(r, &got);
            back = plchost::decode_values(r.kind, r.count, got);
            readback = render_values(r.kind, back);
            if (back != values)
                rc = 1;
        } else {
            readback = "(read back failed)";
            rc = 1;
        }
    } else {
        rc = 1;
    }
    host.stop();
    const auto stats = host.stats();
    const char *status = result == plchost::DoneResult::Ok       ? "ok"
                         : result == plchost::DoneResult::Failed ? "failed (communication failed)"
                                                                 : "failed (no completion in time)";
    if (o.json) {
        std::ostringstream out;
        out << "{\"write\":" << json_tag(t, values) << ",\"result\":\""
            << (result == plchost::DoneResult::Ok ? "ok" : "failed") << "\",\"read_back\":[";
        for (size_t i = 0; i < back.size(); ++i)
            out << (i ? "," : "") << back[i];
        out << "],\"stats\":" << json_stats(stats) << "}\n";
        std::fputs(out.str().c_str(), stdout);
    } else {
        std::printf("write kind %d (%s) address %s station %d: %s -> %s\n", t.kind, plchost::kind_name(t.kind),
                    t.address.c_str(), t.station, render_values(t.kind, values).c_str(), status);
        if (!readback.empty())
            std::printf("read back: %s%s\n", readback.c_str(), rc ? " (differs from the value written)" : "");
        print_stats(stats, stdout);
    }
    if (result != plchost::DoneResult::Ok)
        std::fprintf(stderr, "plcpoll: write to %s:%d failed\n", o.host.c_str(), o.port);
    return rc;
}

void show_table(const plchost::Host &host, const Options &o, const std::vector<Tag> &tags, double elapsed, bool tty,
                std::vector<std::string> *last)
{
    const auto s = host.stats();
    std::vector<std::string> rendered;
    for (const Tag &t : tags) {
        std::vector<uint8_t> bytes;
        host.read(t, &bytes);
        rendered.push_back(render_values(t.kind, plchost::decode_values(t.kind, t.count, bytes)));
    }
    if (o.json) {
        std::ostringstream out;
        out << "{\"time\":" << elapsed << ",\"connected\":" << (host.connected(0) ? "true" : "false") << ",\"tags\":[";
        for (size_t i = 0; i < tags.size(); ++i) {
            std::vector<uint8_t> bytes;
            host.read(tags[i], &bytes);
            out << (i ? "," : "") << json_tag(tags[i], plchost::decode_values(tags[i].kind, tags[i].count, bytes));
        }
        out << "]}\n";
        std::fputs(out.str().c_str(), stdout);
    } else if (tty) {
        std::string screen = "\x1b[H\x1b[2J";
        char line[512];
        std::snprintf(line, sizeof line, "plcpoll  %s:%d  %s  %s  t=%.1fs  passes %llu  good %llu  failed %llu\n\n",
                      o.host.c_str(), o.port, o.link == plchost::LinkMode::Modbus ? "modbus" : "remote",
                      host.connected(0) ? "connected" : "\x1b[31mdisconnected\x1b[0m", elapsed,
                      static_cast<unsigned long long>(s.passes), static_cast<unsigned long long>(s.good_replies),
                      static_cast<unsigned long long>(s.failed_replies));
        screen += line;
        std::snprintf(line, sizeof line, "\x1b[1m%-16s %4s %-18s %-8s %3s  %s\x1b[0m\n", "NAME", "KIND", "TYPE",
                      "ADDRESS", "STN", "VALUE");
        screen += line;
        for (size_t i = 0; i < tags.size(); ++i) {
            const bool changed = last->size() == tags.size() && (*last)[i] != rendered[i];
            std::snprintf(line, sizeof line, "%-16s %4d %-18s %-8s %3d  %s%s%s\n", tags[i].name.c_str(), tags[i].kind,
                          plchost::kind_name(tags[i].kind), tags[i].address.c_str(), tags[i].station,
                          changed ? "\x1b[32m" : "", rendered[i].c_str(), changed ? "\x1b[0m" : "");
            screen += line;
        }
        screen += "\nCtrl-C to stop\n";
        std::fputs(screen.c_str(), stdout);
    } else {
        // Plain lines: every tag the first time, then the tags that changed.
        for (size_t i = 0; i < tags.size(); ++i) {
            if (last->size() == tags.size() && (*last)[i] == rendered[i])
                continue;
            std::printf("%8.3fs  %-16s kind %-2d %-8s stn %-3d = %s\n", elapsed, tags[i].name.c_str(), tags[i].kind,
                        tags[i].address.c_str(), tags[i].station, rendered[i].c_str());
        }
    }
    std::fflush(stdout);
    *last = rendered;
}

int run_poll(const Options &o)
{
    if (o.tags.empty())
        fail(2, "no tags: give --tag or --tags FILE (see --help)");
    plchost::Host host(host_config(o));
    install_hooks(host, o);
    std::string error;
    host.set_tags(o.tags, &error);
    if (!host.start(true, &error))
        fail(1, error);

    const bool tty = !o.json && ::isatty(STDOUT_FILENO);
    const auto started = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(); };
    std::vector<std::string> last;
    int rc = 0;

    if (o.once) {
        const auto limit =
            std::chrono::milliseconds(int64_t(o.timeout_ms) * (o.retries + 2) * int64_t(o.tags.size() + 1) + 2000);
        // One pass; the first request given up (after its retries), or the
        // time limit, ends the wait with an incomplete pass.
        const auto give_up_at = std::chrono::steady_clock::now() + limit;
        bool complete = false;
        while (!g_interrupted.load() && std::chrono::steady_clock::now() < give_up_at) {
            const auto now = host.stats();
            if (now.passes > 0) {
                complete = true;
                break;
            }
            if (now.give_ups > 0)
                break; // a request failed all its retries: the pass is incomplete
            std::this_thread::sleep_for(5ms);
        }
        host.stop();
        const auto s = host.stats();
        if (o.json) {
            std::ostringstream out;
            out << "{\"complete\":" << (complete ? "true" : "false") << ",\"tags\":[";
            for (size_t i = 0; i < o.tags.size(); ++i) {
                std::vector<uint8_t> bytes;
                host.read(o.tags[i], &bytes);
                out << (i ? "," : "")
                    << json_tag(o.tags[i], plchost::decode_values(o.tags[i].kind, o.tags[i].count, bytes));
            }
            out << "],\"stats\":" << json_stats(s) << "}\n";
            std::fputs(out.str().c_str(), stdout);
        } else {
            show_table(host, o, o.tags, elapsed(), false, &last);
            print_stats(s, stdout);
        }
        if (!complete) {
            std::fprintf(stderr, "plcpoll: no complete pass from %s:%d (%llu requests failed)\n", o.host.c_str(),
                         o.port, static_cast<unsigned long long>(s.failed_replies));
            rc = 1;
        }
        return rc;
    }

    // The first table once a pass has been answered (or after one refresh
    // period), then one every refresh period.
    const auto refresh = std::chrono::milliseconds(std::max(o.interval_ms, 100));
    host.wait_passes(1, refresh);
    auto next = std::chrono::steady_clock::now();
    auto finished = [&] { return g_interrupted.load() || (o.duration >= 0 && elapsed() >= o.duration); };
    for (;;) {
        show_table(host, o, o.tags, elapsed(), tty, &last);
        next += refresh;
        while (!finished() && std::chrono::steady_clock::now() < next)
            std::this_thread::sleep_for(10ms);
        if (finished())
            break;
    }
    host.stop();
    const auto s = host.stats();
    if (o.json)
        std::printf("{\"stats\":%s}\n", json_stats(s).c_str());
    else
        print_stats(s, stdout);
    if (s.good_replies == 0) {
        std::fprintf(stderr, "plcpoll: no good reply from %s:%d\n", o.host.c_str(), o.port);
        rc = 1;
    }
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    const Options o = parse_options(argc, argv);
    if (o.debug_log) {
        qInstallMessageHandler(plcdriver_qt_message_handler);
        qInfo("plcpoll started: %s:%d", o.host.c_str(), o.port);
    }
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);

    const int rc = o.write ? run_write(o) : run_poll(o);
    if (o.debug_log)
        qInfo("plcpoll finished with exit code %d", rc);
    return rc;
}
