// plcpoll run as a program: one pass as JSON against plcsim, write and read
// back, both link modes, plain output, the frame trace, typed writes and
// reads checked bit for bit against plcsim and pymodbus with an independent
// libmodbus client, the station scan, and every error message with its exit
// code.
#include "closed_port.h"
#include "e2e_util.h"
#include "modbus_client.h"
#include "plcsim_process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

using namespace e2e;

#if defined(PLCSIM_PATH) && defined(PLCPOLL_PATH)
#define REQUIRE_TOOLS() (void)0
static const char *const kPlcsim = PLCSIM_PATH;
static const char *const kPlcpoll = PLCPOLL_PATH;
#else
#define REQUIRE_TOOLS() GTEST_SKIP() << "plcsim or plcpoll is not part of this build"
static const char *const kPlcsim = "";
static const char *const kPlcpoll = "";
#endif

namespace {

PlcsimProcess::Result plcpoll(std::vector<std::string> args, int timeout_ms = 20000)
{
    return PlcsimProcess::run_to_exit(kPlcpoll, args, timeout_ms);
}

// The "values" array of the tag named `name` in plcpoll's JSON.
std::string json_values(const std::string &json, const std::string &name)
{
    const auto at = json.find("\"name\":\"" + name + "\"");
    if (at == std::string::npos)
        return "<missing>";
    const auto values = json.find("\"values\":[", at);
    const auto end = json.find(']', values);
    if (values == std::string::npos || end == std::string::npos)
        return "<missing>";
    return json.substr(values + 10, end - values - 10);
}

// A debug-log line "yyyy.MM.dd.hh:mm:ss.z:<message>" (z: 1 to 3 digits).
bool is_log_line(const std::string &line, const std::string &message)
{
    const auto colon = line.find(':', 20);
    if (line.size() < 21 || colon == std::string::npos || line.substr(colon + 1) != message)
        return false;
    const std::string stamp = line.substr(0, colon);
    const std::string shape = "dddd.dd.dd.dd:dd:dd.";
    if (stamp.size() < shape.size() + 1 || stamp.size() > shape.size() + 3)
        return false;
    for (size_t i = 0; i < stamp.size(); ++i) {
        const char want = i < shape.size() ? shape[i] : 'd';
        if (want == 'd' ? !std::isdigit(static_cast<unsigned char>(stamp[i])) : stamp[i] != want)
            return false;
    }
    return true;
}

std::string write_file(const std::string &name, const std::string &text)
{
    const std::string path = "/tmp/plcpoll-e2e-" + std::to_string(::getpid()) + "-" + name;
    std::ofstream(path) << text;
    return path;
}

} // namespace

TEST(Plcpoll, HelpShowsUsageAndExamples)
{
    REQUIRE_TOOLS();
    const auto r = plcpoll({"--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_NE(r.out.find("usage: plcpoll"), std::string::npos);
    EXPECT_NE(r.out.find("Examples:"), std::string::npos);
    EXPECT_NE(r.out.find("--link modbus|remote"), std::string::npos);
    EXPECT_EQ(r.err, "");
}

TEST(Plcpoll, OnePassAsJsonMatchesThePeer)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    client.write_holding(0, {4660, 65535, 7});
    client.write_coils(0xA000, {1, 0, 1});
    const auto r = plcpoll({"--port", std::to_string(sim.modbus_port()), "--tag", "w,4,0,1,3", "--tag", "c,1,0.0,1,3",
                            "--tag", "d,11,0,1,2", "--once", "--json"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("\"complete\":true"), std::string::npos) << r.out;
    EXPECT_EQ(json_values(r.out, "w"), "4660,65535,7");
    EXPECT_EQ(json_values(r.out, "c"), "1,0,1");
    EXPECT_EQ(json_values(r.out, "d"), std::to_string(4660u | 65535u << 16));
    EXPECT_NE(r.out.find("\"stats\":{\"requests\":"), std::string::npos);
}

TEST(Plcpoll, ExampleTagFileCoversEveryKindInBothLinkModes)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim);
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const std::string file = std::string(PLCDRIVER_SOURCE_DIR) + "/tools/plcpoll/example-tags.csv";
    for (const auto &link :
         {std::make_pair("modbus", sim.modbus_port()), std::make_pair("remote", sim.remote_port())}) {
        const auto r = plcpoll({"--port", std::to_string(link.second), "--link", link.first, "--tags", file, "--once",
                                "--json", "--timeout", "500"});
        ASSERT_EQ(r.exit_status, 0) << link.first << ": " << r.err;
        EXPECT_NE(r.out.find("\"complete\":true"), std::string::npos) << r.out;
        for (int kind = 0; kind < 15; ++kind)
            EXPECT_NE(r.out.find("\"kind\":" + std::to_string(kind) + ","), std::string::npos) << kind;
    }
}

TEST(Plcpoll, WriteThenReadBack)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim, {"--static", "--stations", "1,3"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const auto r =
        plcpoll({"--port", std::to_string(sim.modbus_port()), "write", "4", "10", "1234", "0xBEEF", "--station", "3"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("-> ok"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("read back: 1234 (0x04D2), 48879 (0xBEEF)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("statistics:"), std::string::npos);
    ModbusClient client(sim.modbus_port(), 3);
    EXPECT_EQ(client.holding(10, 2), (std::vector<uint16_t>{1234, 0xBEEF}));

    const auto bit = plcpoll({"--port", std::to_string(sim.remote_port()), "--link", "remote", "write", "5", "2.1", "1",
                              "--station", "3", "--json"});
    ASSERT_EQ(bit.exit_status, 0) << bit.err;
    EXPECT_NE(bit.out.find("\"result\":\"ok\",\"read_back\":[1]"), std::string::npos) << bit.out;
    EXPECT_EQ(client.holding(1, 1)[0], 1 << 1);
}

TEST(Plcpoll, PlainLinesAndTraceWhenNotATerminal)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim);
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const auto r = plcpoll({"--port", std::to_string(sim.modbus_port()), "--tag", "ramp,2,4,1,1", "--duration", "0.6",
                            "--interval", "100", "--trace"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << "no terminal codes in plain output";
    EXPECT_GE(std::count(r.out.begin(), r.out.end(), '\n'), 3);
    EXPECT_NE(r.out.find("ramp"), std::string::npos);
    EXPECT_NE(r.out.find("statistics:"), std::string::npos);
    EXPECT_NE(r.err.find("tx  12: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" 00 00 00 06 01 04 80 04 00 01\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("rx  11: "), std::string::npos) << r.err;
}

TEST(Plcpoll, UnreachablePlc)
{
    REQUIRE_TOOLS();
    const int port = closed_port();
    const auto r = plcpoll({"--port", std::to_string(port), "--tag", "a,4,0,1,1", "--once"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, "plcpoll: cannot connect to 127.0.0.1:" + std::to_string(port) + ": Connection refused\n");
    const auto w = plcpoll({"--port", std::to_string(port), "write", "4", "0", "1"});
    EXPECT_EQ(w.exit_status, 1);
    EXPECT_EQ(w.err, "plcpoll: cannot connect to 127.0.0.1:" + std::to_string(port) + ": Connection refused\n");
}

TEST(Plcpoll, UsageErrorsNameTheProblem)
{
    REQUIRE_TOOLS();
    const std::string bad = write_file("bad.csv", "name,kind,address,station,count\n# fine\nok,4,0,1,1\n\nbad,4,0,1\n");
    const std::string addr = write_file("addr.csv", "bits,0,12,1,8\n");
    const std::string kind = write_file("kind.csv", "x,15,0,1,1\n");
    const struct {
        std::vector<std::string> args;
        std::string err;
    } cases[] = {
        {{"--tags", bad},
         "plcpoll: " + bad +
             ":5: expected 5 to 10 fields name,kind,address,station,count[,type,order,scale,offset,unit], got 4\n"},
        {{"--tags", addr}, "plcpoll: " + addr + ":1: invalid address '12' for kind 0 (expected BYTE.BIT)\n"},
        {{"--tags", kind}, "plcpoll: " + kind + ":1: invalid kind '15' (0..14)\n"},
        {{"--tags", "/nonexistent/tags.csv"},
         "plcpoll: cannot open tag file /nonexistent/tags.csv: No such file or directory\n"},
        {{"--tag", "a,2,0x10,1,1"},
         "plcpoll: --tag 'a,2,0x10,1,1': invalid address '0x10' for kind 2 (expected a number)\n"},
        {{"--tag", "a,2,0,1,0"}, "plcpoll: --tag 'a,2,0,1,0': invalid count '0' (1..10000)\n"},
        {{"--bogus"}, "plcpoll: unknown option '--bogus' (see --help)\n"},
        {{"--port"}, "plcpoll: option --port needs a value (see --help)\n"},
        {{"--port", "70000"}, "plcpoll: invalid value '70000' for --port (1..65535)\n"},
        {{"--link", "serial"}, "plcpoll: invalid value 'serial' for --link (modbus or remote)\n"},
        {{"--once"}, "plcpoll: no tags: give --tag or --tags FILE (see --help)\n"},
        {{"write", "2", "0", "5"},
         "plcpoll: kind 2 (input register) is read-only; writable kinds are 1 3 4 5 7 8 10 11 13 14\n"},
        {{"write", "4", "0", "70000"}, "plcpoll: invalid value '70000' for kind 4 (16-bit)\n"},
        {{"write", "1", "3", "1"}, "plcpoll: invalid address '3' for kind 1 (expected BYTE.BIT)\n"},
        {{"write", "4", "0"}, "plcpoll: write needs KIND ADDRESS VALUE... (see --help)\n"},
    };
    for (const auto &c : cases) {
        const auto r = plcpoll(c.args);
        EXPECT_EQ(r.exit_status, 2) << c.err;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
    std::remove(bad.c_str());
    std::remove(addr.c_str());
    std::remove(kind.c_str());
}

TEST(Plcpoll, DebugLogGoesThroughTheDriversHandler)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim);
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const std::string port = std::to_string(sim.modbus_port());
    const auto r = plcpoll({"--port", port, "--tag", "ramp,2,4,1,1", "--once", "--debug-log"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    // The driver's handler appends "yyyy.MM.dd.hh:mm:ss.z:message" lines.
    std::ifstream in("/tmp/debug.log");
    bool started = false, finished = false;
    for (std::string line; std::getline(in, line);) {
        started = started || is_log_line(line, "plcpoll started: 127.0.0.1:" + port);
        finished = finished || is_log_line(line, "plcpoll finished with exit code 0");
    }
    EXPECT_TRUE(started);
    EXPECT_TRUE(finished);
}

namespace {

// The bits of a float given in JSON: plcpoll writes a float32 as the
// shortest text that reads back to it, so the double read from that text,
// rounded to a float, has the bits the PLC holds.
uint32_t float_bits_of(const std::string &json_number)
{
    const float f = float(std::stod(json_number));
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// A float32 over two registers in CDAB order (low word first), put
// together here without the tags library.
uint32_t cdab(const std::vector<uint16_t> &registers)
{
    return uint32_t(registers.at(1)) << 16 | registers.at(0);
}

// A typed float32 written with plcpoll write, then read by plcpoll --once
// --json and by the independent client; every reading must have the bits
// written.
void expect_float_round_trip(int port, ModbusClient &client, int address, const std::string &text, uint32_t bits)
{
    const std::string where = std::to_string(address);
    const auto w = plcpoll(
        {"--port", std::to_string(port), "write", "4", where, text, "--type", "float32", "--order", "CDAB", "--json"});
    ASSERT_EQ(w.exit_status, 0) << w.err << w.out;
    EXPECT_NE(w.out.find("\"result\":\"ok\""), std::string::npos) << w.out;
    EXPECT_EQ(float_bits_of(json_values(w.out, "write")), bits) << w.out;
    EXPECT_EQ(cdab(client.holding(address, 2)), bits);
    const auto r =
        plcpoll({"--port", std::to_string(port), "--tag", "flow,4," + where + ",1,2,float32,CDAB", "--once", "--json"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(float_bits_of(json_values(r.out, "flow")), bits) << r.out;
}

} // namespace

TEST(Plcpoll, AFloat32WrittenCdabReadsBackBitForBitAgainstPlcsim)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    expect_float_round_trip(sim.modbus_port(), client, 10, "3.14159", 0x40490FD0);
    expect_float_round_trip(sim.modbus_port(), client, 20, "-1.5", 0xBFC00000);
    expect_float_round_trip(sim.modbus_port(), client, 30, "1e-45", 0x00000001);
}

TEST(Plcpoll, AFloat32WrittenCdabReadsBackBitForBitAgainstPymodbus)
{
    REQUIRE_TOOLS();
    Child server({PLCDRIVER_PYTHON, std::string(PLCDRIVER_E2E_DIR) + "/pymodbus_server.py"});
    int port = 0;
    ASSERT_EQ(std::sscanf(server.read_line(20000ms).c_str(), "port=%d", &port), 1) << "pymodbus did not start";
    ModbusClient client(port);
    expect_float_round_trip(port, client, 100, "3.14159", 0x40490FD0);
    expect_float_round_trip(port, client, 110, "-3.4028235e+38", 0xFF7FFFFF);
}

TEST(Plcpoll, TypedReadsOfThePymodbusPatternMatchTheRegisters)
{
    REQUIRE_TOOLS();
    Child server({PLCDRIVER_PYTHON, std::string(PLCDRIVER_E2E_DIR) + "/pymodbus_server.py"});
    int port = 0;
    ASSERT_EQ(std::sscanf(server.read_line(20000ms).c_str(), "port=%d", &port), 1) << "pymodbus did not start";
    // Holding register a holds 0x1000 + a; input register a 0x2000 + a.
    const auto r = plcpoll({"--port", std::to_string(port), "--tag", "i16,4,5,1,1,int16", "--tag",
                            "u32,4,5,1,2,uint32,CDAB", "--tag", "i64,4,0,1,4,int64,DCBA", "--tag",
                            "scaled,2,3,1,1,uint16,,0.5,-10", "--tag", "text,4,16,1,2,hex", "--once", "--json"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(json_values(r.out, "i16"), std::to_string(0x1005));
    EXPECT_EQ(json_values(r.out, "u32"), std::to_string(0x10061005u));
    // DCBA: the registers in reverse with their bytes swapped.
    EXPECT_EQ(json_values(r.out, "i64"), std::to_string(int64_t(0x0310021001100010)));
    // Kind 2 reads input registers 0x8000 on: 0x8003 holds 0xA003; x 0.5 - 10.
    EXPECT_EQ(json_values(r.out, "scaled"), "20471.5");
    EXPECT_EQ(json_values(r.out, "text"), "\"0x1010\",\"0x1011\"");
}

TEST(Plcpoll, ScanListsExactlyTheStationsPlcsimServes)
{
    REQUIRE_TOOLS();
    PlcsimProcess sim(kPlcsim, {"--stations", "2,5-6,247"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const auto r = plcpoll({"--port", std::to_string(sim.modbus_port()), "scan", "--json"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_NE(r.out.find("\"present\":[2,5,6,247],"), std::string::npos) << r.out;
    const auto lines =
        plcpoll({"--port", std::to_string(sim.remote_port()), "--link", "remote", "scan", "1-7", "--timeout", "100"});
    ASSERT_EQ(lines.exit_status, 0) << lines.err;
    EXPECT_NE(lines.out.find(": 3 of 7 stations present: 2 5 6\nanswers: 3 reply, 4 silence\n"), std::string::npos)
        << lines.out;
}

TEST(Plcpoll, TypedUsageErrorsNameTheProblem)
{
    REQUIRE_TOOLS();
    const std::string typed = write_file("typed.csv", "flow,4,10,1,3,float32,CDAB\n");
    const struct {
        std::vector<std::string> args;
        std::string err;
    } cases[] = {
        {{"--tags", typed},
         "plcpoll: " + typed +
             ":1: tag 'flow': float32 takes 2 registers per value; kind 4 (word (class 4)) count 3 "
             "covers 3\n"},
        {{"--tag", "c,1,0.0,1,8,int16"},
         "plcpoll: --tag 'c,1,0.0,1,8,int16': tag 'c': kind 1 (coil) holds bits: it takes no type but raw\n"},
        {{"write", "4", "0", "70000", "--type", "int16"},
         "plcpoll: invalid value '70000' for int16 (-32768..32767, or 0x and the value's bits)\n"},
        {{"write", "4", "0", "1e40", "--type", "float32", "--order", "CDAB"},
         "plcpoll: invalid value '1e40' for float32 (a decimal number of magnitude up to 3.4028235e+38 before "
         "scaling, nan, inf or -inf)\n"},
        {{"write", "4", "0", "1", "--type", "int16", "--order", "BADC"},
         "plcpoll: order BADC needs a type wider than one register (int32 uint32 int64 uint64 float32 float64)\n"},
        {{"--type", "real"},
         "plcpoll: invalid value 'real' for --type (raw int16 uint16 int32 uint32 int64 uint64 float32 float64 hex "
         "bits ascii)\n"},
        {{"scan", "0-5"}, "plcpoll: invalid stations '0-5' (unit identifiers 1..247 and ranges, e.g. 1-10,17)\n"},
    };
    // Refused before any connection: no PLC listens on the default port.
    for (const auto &c : cases) {
        const auto r = plcpoll(c.args);
        EXPECT_EQ(r.exit_status, 2) << c.err;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
    std::remove(typed.c_str());
}
