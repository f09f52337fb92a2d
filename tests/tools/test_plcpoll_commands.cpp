// plcpoll's commands: the write command's arguments and the host's
// configuration (no network), then polling and writing against a plcsim on
// loopback whose memory holds a known pattern.
#include "closed_port.h"
#include "commands.h"
#include "plcsim_process.h"
#include "usage_error.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

using plcpoll::Command;
using plcpoll::ExitStatus;
using plcpoll::Settings;

namespace {

Settings write_settings(std::vector<std::string> operands, int station = 1)
{
    Settings s;
    s.command = Command::Write;
    s.operands = std::move(operands);
    s.station = station;
    return s;
}

} // namespace

struct GoodWrite {
    std::vector<std::string> operands;
    int kind;
    std::string address;
    std::vector<uint64_t> values;
};

class PlcpollGoodWrite : public ::testing::TestWithParam<GoodWrite> {};

TEST_P(PlcpollGoodWrite, GivesTheTargetAndTheValues)
{
    const auto r = plcpoll::parse_write_request(write_settings(GetParam().operands, 7));
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(r.value().target.plc.name, "write");
    EXPECT_EQ(r.value().target.plc.kind, GetParam().kind);
    EXPECT_EQ(r.value().target.plc.address, GetParam().address);
    EXPECT_EQ(r.value().target.plc.station, 7);
    EXPECT_EQ(r.value().values, GetParam().values);
}

INSTANTIATE_TEST_SUITE_P(
    Values, PlcpollGoodWrite,
    ::testing::Values(GoodWrite{{"4", "10", "1234", "0xBEEF", "0Xbeef"}, 4, "10", {1234, 0xBEEF, 0xBEEF}},
                      GoodWrite{{"1", "0.3", "1", "0", "1"}, 1, "0.3", {1, 0, 1}},
                      GoodWrite{{"5", "2.1", "1"}, 5, "2.1", {1}},
                      GoodWrite{{"7", "20", "255", "-128", "-1"}, 7, "20", {255, 0x80, 0xFF}},
                      GoodWrite{{"3", "0", "-32768", "65535", "-0"}, 3, "0", {0x8000, 65535, 0}},
                      GoodWrite{{"10", "0", "-1", "4294967295"}, 10, "0", {0xFFFFFFFF, 0xFFFFFFFF}},
                      GoodWrite{{"14", "8", "-9223372036854775808", "18446744073709551615"},
                                14,
                                "8",
                                {0x8000000000000000u, 0xFFFFFFFFFFFFFFFFu}}));

// Typed writes: the values as the host's codec takes them for the kind, and
// the count (in the kind's unit) that covers them.
struct TypedWrite {
    std::vector<std::string> operands;
    std::vector<std::string> options; // --type and its companions
    std::vector<uint64_t> values;
    int count;
};

class PlcpollTypedWrite : public ::testing::TestWithParam<TypedWrite> {};

TEST_P(PlcpollTypedWrite, ConvertsTheValuesBeforeAnythingIsSent)
{
    std::vector<std::string> args = GetParam().options;
    args.push_back("write");
    args.insert(args.end(), GetParam().operands.begin(), GetParam().operands.end());
    const auto settings = plcpoll::parse_options(args);
    ASSERT_TRUE(settings.ok()) << settings.exit().message;
    const auto r = plcpoll::parse_write_request(settings.value());
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(r.value().values, GetParam().values);
    EXPECT_EQ(r.value().target.plc.count, GetParam().count);
    EXPECT_EQ(r.value().data.size(), 2u * GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(
    Types, PlcpollTypedWrite,
    ::testing::Values(TypedWrite{{"4", "10", "3.14159"}, {"--type", "float32", "--order", "CDAB"}, {0x0FD0, 0x4049}, 2},
                      TypedWrite{{"4", "10", "3.14159", "-1.5"}, {"--type=float32"}, {0x4049, 0x0FD0, 0xBFC0, 0}, 4},
                      TypedWrite{{"3", "0", "21.5"}, {"--type", "int16", "--scale", "0.1"}, {215}, 1},
                      TypedWrite{{"4", "0", "60"}, {"--type", "uint16", "--offset", "-40"}, {100}, 1},
                      TypedWrite{{"11", "2", "3.14159"}, {"--type", "float32"}, {0x0FD04049}, 2},
                      TypedWrite{
                          {"14", "1", "-1.5"}, {"--type", "float64", "--order", "DCBA"}, {0xF8BF000000000000u}, 4},
                      TypedWrite{{"4", "0", "OK!"}, {"--type", "ascii"}, {0x4F4B, 0x2100}, 2}));

struct BadWrite {
    std::vector<std::string> operands;
    std::string message;
};

class PlcpollBadWrite : public ::testing::TestWithParam<BadWrite> {};

TEST_P(PlcpollBadWrite, IsAUsageErrorThatSaysWhy)
{
    EXPECT_TRUE(is_usage_error(plcpoll::parse_write_request(write_settings(GetParam().operands)), GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Errors, PlcpollBadWrite,
    ::testing::Values(
        BadWrite{{}, "write needs KIND ADDRESS VALUE... (see --help)"},
        BadWrite{{"4", "0"}, "write needs KIND ADDRESS VALUE... (see --help)"},
        BadWrite{{"15", "0", "1"}, "invalid kind '15' (0..14)"}, BadWrite{{"x", "0", "1"}, "invalid kind 'x' (0..14)"},
        BadWrite{{"2", "0", "5"}, "kind 2 (input register) is read-only; writable kinds are 1 3 4 5 7 8 10 11 13 14"},
        BadWrite{{"0", "0.0", "1"}, "kind 0 (discrete input) is read-only; writable kinds are 1 3 4 5 7 8 10 11 13 14"},
        BadWrite{{"1", "3", "1"}, "invalid address '3' for kind 1 (expected BYTE.BIT)"},
        BadWrite{{"4", "1.2", "1"}, "invalid address '1.2' for kind 4 (expected a number)"},
        BadWrite{{"4", "0", "70000"}, "invalid value '70000' for kind 4 (16-bit)"},
        BadWrite{{"4", "0", "1", "-32769"}, "invalid value '-32769' for kind 4 (16-bit)"},
        BadWrite{{"4", "0", "0x10000"}, "invalid value '0x10000' for kind 4 (16-bit)"},
        BadWrite{{"4", "0", "12a"}, "invalid value '12a' for kind 4 (16-bit)"},
        BadWrite{{"4", "0", "+1"}, "invalid value '+1' for kind 4 (16-bit)"},
        BadWrite{{"4", "0", ""}, "invalid value '' for kind 4 (16-bit)"},
        BadWrite{{"1", "0.0", "2"}, "invalid value '2' for kind 1 (1-bit)"},
        BadWrite{{"5", "0.0", "-1"}, "invalid value '-1' for kind 5 (1-bit)"},
        BadWrite{{"8", "0", "256"}, "invalid value '256' for kind 8 (8-bit)"},
        BadWrite{{"7", "0", "-129"}, "invalid value '-129' for kind 7 (8-bit)"},
        BadWrite{{"11", "0", "4294967296"}, "invalid value '4294967296' for kind 11 (32-bit)"},
        BadWrite{{"13", "0", "18446744073709551616"}, "invalid value '18446744073709551616' for kind 13 (64-bit)"},
        BadWrite{{"13", "0", "-9223372036854775809"}, "invalid value '-9223372036854775809' for kind 13 (64-bit)"}));

// Typed values the type cannot hold, and types that do not fit the kind:
// usage errors before any connection.
struct BadTypedWrite {
    std::vector<std::string> args;
    std::string message;
};

class PlcpollBadTypedWrite : public ::testing::TestWithParam<BadTypedWrite> {};

TEST_P(PlcpollBadTypedWrite, IsAUsageErrorThatSaysWhy)
{
    const auto settings = plcpoll::parse_options(GetParam().args);
    ASSERT_TRUE(settings.ok()) << settings.exit().message;
    EXPECT_TRUE(is_usage_error(plcpoll::parse_write_request(settings.value()), GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Errors, PlcpollBadTypedWrite,
    ::testing::Values(
        BadTypedWrite{{"write", "4", "0", "40000", "--type", "int16"},
                      "invalid value '40000' for int16 (-32768..32767, or 0x and the value's bits)"},
        BadTypedWrite{{"write", "4", "0", "-1", "--type", "uint32"},
                      "invalid value '-1' for uint32 (0..4294967295, or 0x and the value's bits)"},
        BadTypedWrite{{"write", "4", "0", "1e39", "--type", "float32"},
                      "invalid value '1e39' for float32 (a decimal number of magnitude up to 3.4028235e+38 before "
                      "scaling, nan, inf or -inf)"},
        BadTypedWrite{{"write", "4", "0", "5000", "--type", "int16", "--scale", "0.1"},
                      "invalid value '5000' for int16 with scale 0.1 and offset 0 (-3276.8..3276.7)"},
        BadTypedWrite{{"write", "1", "0.0", "1", "--type", "int16"},
                      "kind 1 (coil) holds bits: it takes no type but raw"},
        BadTypedWrite{{"write", "7", "0", "1", "--type", "float32"},
                      "kind 7 (byte (class 3)) holds bytes: its types are raw hex bits ascii"},
        BadTypedWrite{{"write", "4", "0", "1", "--type", "int16", "--order", "CDAB"},
                      "order CDAB needs a type wider than one register (int32 uint32 int64 uint64 float32 float64)"},
        BadTypedWrite{{"write", "11", "0", "1", "--type", "int16"},
                      "1 registers of int16 do not make whole values of kind 11 (dword (class 4)), 2 registers each"},
        BadTypedWrite{
            {"write", "4", "0", "1", "--scale", "2"},
            "scale and offset need a numeric type (int16 uint16 int32 uint32 int64 uint64 float32 float64)"}));

struct ScanStations {
    std::vector<std::string> operands;
    std::vector<int> stations;
};

class PlcpollScanStations : public ::testing::TestWithParam<ScanStations> {};

TEST_P(PlcpollScanStations, AreTheUnitsToProbeInOrder)
{
    Settings s;
    s.command = Command::Scan;
    s.operands = GetParam().operands;
    const auto r = plcpoll::parse_scan_stations(s);
    ASSERT_TRUE(r.ok()) << r.exit().message;
    EXPECT_EQ(r.value(), GetParam().stations);
}

INSTANTIATE_TEST_SUITE_P(Lists, PlcpollScanStations,
                         ::testing::Values(ScanStations{{"3"}, {3}}, ScanStations{{"5-7,1,6"}, {1, 5, 6, 7}},
                                           ScanStations{{"247,1"}, {1, 247}}, ScanStations{{"9-9"}, {9}}));

TEST(PlcpollScanStations, AreEveryUnitIdentifierWhenNoneAreGiven)
{
    Settings s;
    s.command = Command::Scan;
    const auto r = plcpoll::parse_scan_stations(s);
    ASSERT_TRUE(r.ok());
    ASSERT_EQ(r.value().size(), 247u);
    EXPECT_EQ(r.value().front(), 1);
    EXPECT_EQ(r.value().back(), 247);
}

class PlcpollBadScanStations : public ::testing::TestWithParam<std::string> {};

TEST_P(PlcpollBadScanStations, AreAUsageError)
{
    Settings s;
    s.command = Command::Scan;
    s.operands = {GetParam()};
    EXPECT_TRUE(
        is_usage_error(plcpoll::parse_scan_stations(s),
                       "invalid stations '" + GetParam() + "' (unit identifiers 1..247 and ranges, e.g. 1-10,17)"));
}

INSTANTIATE_TEST_SUITE_P(Lists, PlcpollBadScanStations,
                         ::testing::Values("0", "248", "1-248", "5-3", "1,,2", "", "x", "1-", "-3", "2-3-4", "1.5"));

TEST(PlcpollScanStations, TakeOneList)
{
    Settings s;
    s.command = Command::Scan;
    s.operands = {"1", "2"};
    EXPECT_TRUE(
        is_usage_error(plcpoll::parse_scan_stations(s), "scan takes one list of STATIONS, e.g. 1-10,17 (see --help)"));
}

TEST(PlcpollHostConfig, OneEndpointWithTheSettingsTimes)
{
    Settings s;
    s.host = "10.1.2.3";
    s.port = 1600;
    s.link = plchost::LinkMode::Remote;
    s.timeout_ms = 50;
    s.retries = 7;
    s.interval_ms = 250;
    const plchost::HostConfig c = plcpoll::host_config(s);
    ASSERT_EQ(c.endpoints.size(), 1u);
    EXPECT_EQ(c.endpoints[0].host, "10.1.2.3");
    EXPECT_EQ(c.endpoints[0].port, 1600);
    EXPECT_TRUE(c.endpoints[0].stations.empty());
    EXPECT_EQ(c.link_mode, plchost::LinkMode::Remote);
    EXPECT_EQ(c.timeout.count(), 50);
    EXPECT_EQ(c.retry_limit, 7);
    EXPECT_EQ(c.poll_interval.count(), 250);
    // A connection attempt never gets less than 200 ms, and otherwise the reply timeout.
    EXPECT_EQ(c.connect_timeout.count(), 200);
    s.timeout_ms = 1500;
    EXPECT_EQ(plcpoll::host_config(s).connect_timeout.count(), 1500);
}

// A console whose output the test reads.
struct CapturedConsole {
    std::ostringstream out, err;
    std::atomic<bool> interrupted{false};
    plcpoll::Console console{out, err, false, interrupted};
};

TEST(PlcpollCommands, HelpShowsTheUsage)
{
    CapturedConsole c;
    Settings s;
    s.command = Command::Help;
    const plcpoll::Exit exit = plcpoll::run_command(s, {}, c.console);
    EXPECT_EQ(exit.status, ExitStatus::Ok);
    EXPECT_EQ(c.out.str(), plcpoll::usage_text());
}

TEST(PlcpollCommands, PollWithoutTagsIsAUsageError)
{
    CapturedConsole c;
    const plcpoll::Exit exit = plcpoll::run_command(Settings{}, {}, c.console);
    EXPECT_EQ(exit.status, ExitStatus::Usage);
    EXPECT_EQ(exit.message, "no tags: give --tag or --tags FILE (see --help)");
    EXPECT_EQ(c.out.str(), "");
}

namespace {

using Json = nlohmann::json;

// Each line of the output, parsed as JSON.
std::vector<Json> json_lines(const std::string &text)
{
    std::vector<Json> objects;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        objects.push_back(Json::parse(line));
    return objects;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A plain line without its time ("   1.234s  "), which differs per run.
std::string untimed(const std::string &line)
{
    const size_t time_width = 11;
    return line.size() > time_width && line[8] == 's' ? line.substr(time_width) : line;
}

// A plcsim whose values stand still: every register holds its own table
// address and every bit the parity of its address. Stations 1 and 3.
class PlcpollAgainstPlcsim : public ::testing::Test {
protected:
    void SetUp() override
    {
#ifndef PLCSIM_PATH
        GTEST_SKIP() << "no plcsim that this test could start in this build";
#else
        sim_ = std::make_unique<PlcsimProcess>(
            PLCSIM_PATH, std::vector<std::string>{"--static", "--fill", "address", "--stations", "1,3"});
        std::string error;
        ASSERT_TRUE(sim_->start(&error)) << error;
#endif
    }

    Settings settings(plchost::LinkMode link = plchost::LinkMode::Modbus) const
    {
        Settings s;
        s.link = link;
        s.port = link == plchost::LinkMode::Modbus ? sim_->modbus_port() : sim_->remote_port();
        return s;
    }

    static std::vector<plcpoll::PollTag> tags(const std::vector<std::string> &lines)
    {
        std::vector<plcpoll::PollTag> polled;
        for (const auto &line : lines) {
            auto tag = plctags::parse_tag_line(line);
            EXPECT_TRUE(tag.ok()) << line;
            if (tag.ok())
                polled.push_back(std::move(tag).value());
        }
        return polled;
    }

    std::string peer(const Settings &s) const
    {
        return "127.0.0.1:" + std::to_string(s.port);
    }

    // Runs the write `w` and expects its report to start with `report`.
    void expect_write(Settings w, const std::string &report)
    {
        w.command = Command::Write;
        const plcpoll::Exit exit = plcpoll::run_command(w, {}, c_.console);
        ASSERT_EQ(exit.status, ExitStatus::Ok) << exit.message;
        EXPECT_EQ(c_.out.str().rfind(report, 0), 0u) << c_.out.str();
    }

    // The tags of one pass over the tag lines, as JSON.
    Json pass_tags(const std::vector<std::string> &lines)
    {
        CapturedConsole poll;
        Settings p = settings();
        p.once = true;
        p.json = true;
        EXPECT_EQ(plcpoll::run_command(p, tags(lines), poll.console).status, ExitStatus::Ok);
        return json_lines(poll.out.str()).at(0)["tags"];
    }

    // Holding registers 10..12 (kind 4), input register 0x8004 (kind 2) and
    // coils 0xA000..0xA003 (kind 1), with the values the fill gives them.
    const std::vector<std::string> kTagLines = {"w,4,10,1,3", "ir,2,4,1,1", "c,1,0.0,1,4"};
    const Json kValues = {{"w", {10, 11, 12}}, {"ir", {0x8004}}, {"c", {0, 1, 1, 0}}};

    std::unique_ptr<PlcsimProcess> sim_;
    CapturedConsole c_;
};

Json values_by_name(const Json &tags)
{
    Json values = Json::object();
    for (const Json &t : tags)
        values[t["name"].get<std::string>()] = t["values"];
    return values;
}

class PlcpollPollOnce : public PlcpollAgainstPlcsim, public ::testing::WithParamInterface<plchost::LinkMode> {};

TEST_P(PlcpollPollOnce, ShowsThePlcsMemoryAsJson)
{
    Settings s = settings(GetParam());
    s.once = true;
    s.json = true;
    const plcpoll::Exit exit = plcpoll::run_command(s, tags(kTagLines), c_.console);
    ASSERT_EQ(exit.status, ExitStatus::Ok) << exit.message;
    const auto out = json_lines(c_.out.str());
    ASSERT_EQ(out.size(), 1u) << c_.out.str();
    EXPECT_EQ(out[0]["complete"], true);
    EXPECT_EQ(values_by_name(out[0]["tags"]), kValues);
    EXPECT_GE(out[0]["stats"]["good_replies"].get<int>(), 3);
    EXPECT_EQ(c_.err.str(), "");
}

INSTANTIATE_TEST_SUITE_P(BothLinks, PlcpollPollOnce,
                         ::testing::Values(plchost::LinkMode::Modbus, plchost::LinkMode::Remote),
                         [](const ::testing::TestParamInfo<plchost::LinkMode> &info) {
                             return info.param == plchost::LinkMode::Modbus ? "Modbus" : "Remote";
                         });

TEST_F(PlcpollAgainstPlcsim, PollOnceAsLinesShowsEveryTagAndTheStatistics)
{
    Settings s = settings();
    s.once = true;
    ASSERT_EQ(plcpoll::run_command(s, tags(kTagLines), c_.console).status, ExitStatus::Ok);
    const auto lines = lines_of(c_.out.str());
    ASSERT_GE(lines.size(), 5u) << c_.out.str();
    EXPECT_EQ(untimed(lines[0]), "w                kind 4  10       stn 1   = 10 (0x000A), 11 (0x000B), 12 (0x000C)");
    EXPECT_EQ(untimed(lines[1]), "ir               kind 2  4        stn 1   = 32772 (0x8004)");
    EXPECT_EQ(untimed(lines[2]), "c                kind 1  0.0      stn 1   = 0 1 1 0");
    EXPECT_EQ(lines[3].rfind("statistics: ", 0), 0u) << lines[3];
}

TEST_F(PlcpollAgainstPlcsim, PollForADurationEndsWithTheStatistics)
{
    Settings s = settings();
    s.json = true;
    s.duration_s = 0.3;
    s.interval_ms = 100;
    ASSERT_EQ(plcpoll::run_command(s, tags(kTagLines), c_.console).status, ExitStatus::Ok);
    const auto out = json_lines(c_.out.str());
    ASSERT_GE(out.size(), 2u) << c_.out.str();
    for (size_t i = 0; i + 1 < out.size(); ++i) {
        EXPECT_EQ(out[i].size(), 3u) << out[i];
        EXPECT_TRUE(out[i].contains("time") && out[i].contains("connected")) << out[i];
        EXPECT_EQ(out[i]["tags"].size(), 3u) << out[i];
    }
    // Values that stand still are seen from the last refresh at the latest.
    EXPECT_EQ(values_by_name(out[out.size() - 2]["tags"]), kValues);
    EXPECT_EQ(out.back().size(), 1u);
    EXPECT_GT(out.back()["stats"]["good_replies"].get<int>(), 0);
}

TEST_F(PlcpollAgainstPlcsim, OnATerminalTheTableIsRedrawn)
{
    Settings s = settings();
    s.duration_s = 0.2;
    s.interval_ms = 100;
    plcpoll::Console terminal{c_.out, c_.err, true, c_.interrupted};
    ASSERT_EQ(plcpoll::run_command(s, tags(kTagLines), terminal).status, ExitStatus::Ok);
    const std::string out = c_.out.str();
    EXPECT_EQ(out.rfind("\x1b[H\x1b[2J", 0), 0u);
    EXPECT_NE(out.find("STN  TREND        VALUE"), std::string::npos) << out;
    EXPECT_NE(out.find("ir                  2 input register     4          1  "), std::string::npos) << out;
    EXPECT_NE(out.find(" 32772 (0x8004)\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nCtrl-C to stop\nstatistics: "), std::string::npos) << out;
}

TEST_F(PlcpollAgainstPlcsim, AnInterruptEndsAPollAfterItsFirstRefresh)
{
    Settings s = settings();
    s.interval_ms = 60000;
    c_.interrupted = true;
    ASSERT_EQ(plcpoll::run_command(s, tags(kTagLines), c_.console).status, ExitStatus::Ok);
    const auto lines = lines_of(c_.out.str());
    ASSERT_GE(lines.size(), 4u) << c_.out.str();
    EXPECT_EQ(untimed(lines[0]).substr(0, 1), "w");
    EXPECT_EQ(untimed(lines[2]).substr(0, 1), "c");
    EXPECT_EQ(lines[3].rfind("statistics: ", 0), 0u) << c_.out.str();
}

TEST_F(PlcpollAgainstPlcsim, AStationThatDoesNotAnswerLeavesThePassIncomplete)
{
    Settings s = settings();
    s.once = true;
    s.json = true;
    s.retries = 1;
    const plcpoll::Exit exit = plcpoll::run_command(s, tags({"w,4,10,2,3"}), c_.console);
    EXPECT_EQ(exit.status, ExitStatus::Failed);
    const std::string start = "no complete pass from " + peer(s) + " (";
    EXPECT_EQ(exit.message.substr(0, start.size()), start) << exit.message;
    EXPECT_NE(exit.message.find(" requests failed)"), std::string::npos) << exit.message;
    const auto out = json_lines(c_.out.str());
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]["complete"], false);
    EXPECT_GE(out[0]["stats"]["give_ups"].get<int>(), 1);
}

TEST_F(PlcpollAgainstPlcsim, WriteReadsBackAndAPollSeesTheValues)
{
    Settings s = settings();
    s.operands = {"4", "20", "1234", "0xBEEF"};
    s.station = 3;
    expect_write(s, "write kind 4 (word (class 4)) address 20 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> ok\n"
                    "read back: 1234 (0x04D2), 48879 (0xBEEF)\nstatistics: ");
    EXPECT_EQ(values_by_name(pass_tags({"w,4,20,3,2", "other,4,20,1,2"})),
              (Json{{"w", {1234, 0xBEEF}}, {"other", {20, 21}}}));
}

TEST_F(PlcpollAgainstPlcsim, WriteOfABitOnTheRemoteLinkAsJson)
{
    Settings s = settings(plchost::LinkMode::Remote);
    s.operands = {"5", "2.1", "1"};
    s.command = Command::Write;
    s.json = true;
    ASSERT_EQ(plcpoll::run_command(s, {}, c_.console).status, ExitStatus::Ok);
    const auto out = json_lines(c_.out.str());
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(
        out[0]["write"],
        (Json{{"name", "write"}, {"kind", 5}, {"address", "2.1"}, {"station", 1}, {"count", 1}, {"values", {1}}}));
    EXPECT_EQ(out[0]["result"], "ok");
    EXPECT_EQ(out[0]["read_back"], Json({1}));
}

TEST_F(PlcpollAgainstPlcsim, WriteToAStationThatDoesNotAnswerFails)
{
    Settings s = settings();
    s.operands = {"4", "0", "1"};
    s.command = Command::Write;
    s.station = 2;
    s.retries = 1;
    const plcpoll::Exit exit = plcpoll::run_command(s, {}, c_.console);
    EXPECT_EQ(exit.status, ExitStatus::Failed);
    EXPECT_EQ(exit.message, "write to " + peer(s) + " failed");
    EXPECT_EQ(c_.out.str().rfind("write kind 4 (word (class 4)) address 0 station 2: 1 (0x0001) -> failed "
                                 "(communication failed)\nstatistics: ",
                                 0),
              0u)
        << c_.out.str();
}

TEST_F(PlcpollAgainstPlcsim, TraceShowsEveryFrameOnTheErrorStream)
{
    Settings s = settings();
    s.once = true;
    s.trace = true;
    ASSERT_EQ(plcpoll::run_command(s, tags({"ramp,2,4,1,1"}), c_.console).status, ExitStatus::Ok);
    // Read one input register at 0x8004 of station 1, and its reply of one register.
    EXPECT_NE(c_.err.str().find(" 00 00 00 06 01 04 80 04 00 01\n"), std::string::npos) << c_.err.str();
    EXPECT_EQ(c_.err.str().rfind("tx  12: ", 0), 0u) << c_.err.str();
    EXPECT_NE(c_.err.str().find("rx  11: "), std::string::npos) << c_.err.str();
}

TEST(PlcpollCommands, APlcThatRefusesTheConnection)
{
    CapturedConsole c;
    Settings s;
    s.port = closed_port();
    const std::string refused = "cannot connect to 127.0.0.1:" + std::to_string(s.port) + ": Connection refused";
    const plcpoll::Exit poll = plcpoll::run_command(s, {{plctags::parse_tag_line("a,4,0,1,1").value()}}, c.console);
    EXPECT_EQ(poll.status, ExitStatus::Failed);
    EXPECT_EQ(poll.message, refused);
    s.command = Command::Write;
    s.operands = {"4", "0", "1"};
    const plcpoll::Exit write = plcpoll::run_command(s, {}, c.console);
    EXPECT_EQ(write.status, ExitStatus::Failed);
    EXPECT_EQ(write.message, refused);
    EXPECT_EQ(c.out.str(), "");
}

} // namespace

namespace {

class PlcpollScan : public PlcpollAgainstPlcsim, public ::testing::WithParamInterface<plchost::LinkMode> {};

TEST_P(PlcpollScan, ListsExactlyTheStationsPlcsimServes)
{
    Settings s = settings(GetParam());
    s.command = Command::Scan;
    s.operands = {"1-6"};
    s.json = true;
    // Each silent station (on the remote frame) costs one time-out.
    s.timeout_ms = 500;
    const plcpoll::Exit exit = plcpoll::run_command(s, {}, c_.console);
    ASSERT_EQ(exit.status, ExitStatus::Ok) << exit.message;
    const auto out = json_lines(c_.out.str());
    ASSERT_EQ(out.size(), 1u) << c_.out.str();
    EXPECT_EQ(out[0]["present"], Json({1, 3}));
    ASSERT_EQ(out[0]["stations"].size(), 6u);
    // plcsim answers a unit it does not serve with exception 0x0B on Modbus
    // TCP, and not at all on the remote frame.
    const bool modbus = GetParam() == plchost::LinkMode::Modbus;
    EXPECT_EQ(out[0]["stations"][1]["answer"], modbus ? "absent" : "silence") << out[0];
    if (modbus) {
        EXPECT_EQ(out[0]["stations"][1]["exception"], 0x0B);
    }
    EXPECT_EQ(out[0]["stations"][2]["answer"], "reply");
}

INSTANTIATE_TEST_SUITE_P(BothLinks, PlcpollScan,
                         ::testing::Values(plchost::LinkMode::Modbus, plchost::LinkMode::Remote),
                         [](const ::testing::TestParamInfo<plchost::LinkMode> &info) {
                             return info.param == plchost::LinkMode::Modbus ? "Modbus" : "Remote";
                         });

TEST_F(PlcpollAgainstPlcsim, ScanAsLinesNamesTheStationsFound)
{
    Settings s = settings();
    s.command = Command::Scan;
    s.operands = {"2-4"};
    ASSERT_EQ(plcpoll::run_command(s, {}, c_.console).status, ExitStatus::Ok);
    const auto lines = lines_of(c_.out.str());
    ASSERT_EQ(lines.size(), 3u) << c_.out.str();
    EXPECT_EQ(lines[0].rfind("station   3  reply      round trip ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], "scan of " + peer(s) + " (modbus): 1 of 3 stations present: 3");
    EXPECT_EQ(lines[2], "answers: 1 reply, 2 absent");
}

TEST_F(PlcpollAgainstPlcsim, AScanThatFindsNoStationFails)
{
    Settings s = settings();
    s.command = Command::Scan;
    s.operands = {"4-5"};
    const plcpoll::Exit exit = plcpoll::run_command(s, {}, c_.console);
    EXPECT_EQ(exit.status, ExitStatus::Failed);
    EXPECT_EQ(exit.message, "no station answered at " + peer(s));
}

TEST_F(PlcpollAgainstPlcsim, ATypedWriteReadsBackBitForBit)
{
    Settings w = settings();
    w.operands = {"4", "30", "3.14159", "-1.5"};
    w.write_as.type = plctags::ValueType::Float32;
    w.write_as.order = plctags::ByteOrder::CDAB;
    expect_write(w, "write kind 4 (word (class 4)) address 30 station 1 as float32 CDAB: 3.14159, -1.5 -> ok\n"
                    "read back: 3.14159, -1.5\n");
    const Json tags_read = pass_tags({"f,4,30,1,4,float32,CDAB", "w,4,30,1,4,hex"});
    EXPECT_EQ(tags_read[0]["values"], Json({3.14159, -1.5}));
    EXPECT_EQ(tags_read[0]["quality"], "good");
    EXPECT_EQ(tags_read[1]["values"], Json({"0x0FD0", "0x4049", "0x0000", "0xBFC0"}));
}

TEST_F(PlcpollAgainstPlcsim, ATagNotReadYetShowsADash)
{
    Settings s = settings();
    s.interval_ms = 100;
    s.timeout_ms = 2000;
    c_.interrupted = true;
    // Station 2 is not served: its replies are exceptions, so nothing is read.
    ASSERT_EQ(plcpoll::run_command(s, tags({"w,4,10,1,1", "none,4,10,2,1"}), c_.console).status, ExitStatus::Ok);
    const auto lines = lines_of(c_.out.str());
    ASSERT_GE(lines.size(), 2u) << c_.out.str();
    EXPECT_EQ(untimed(lines[1]), "none             kind 4  10       stn 2   = -");
}

} // namespace
