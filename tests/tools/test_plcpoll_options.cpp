// plcpoll's command line: every option in both spellings, the command and its
// arguments, the defaults, and every usage error with its message.
#include "options.h"
#include "usage_error.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

using plcpoll::Command;
using plcpoll::ExitStatus;
using plcpoll::Settings;
using plcpoll::TagSource;

namespace {

// Every field of the settings, one per line, so that a test compares them all
// and a difference names the field.
std::string describe(const Settings &s)
{
    std::ostringstream o;
    o << "command " << int(s.command) << "\noperands";
    for (const auto &a : s.operands)
        o << " [" << a << "]";
    o << "\nhost " << s.host << "\nport " << s.port << "\nlink " << int(s.link) << "\ntimeout " << s.timeout_ms
      << "\nretries " << s.retries << "\ninterval " << s.interval_ms << "\nonce " << s.once << "\nduration "
      << (s.duration_s ? std::to_string(*s.duration_s) : "none") << "\njson " << s.json << "\ntrace " << s.trace
      << "\ndebug-log " << s.debug_log << "\ntrend " << s.trend << "\nstation " << s.station << "\nwrite as "
      << plctags::type_name(s.write_as.type) << " " << plctags::order_name(s.write_as.order) << " " << s.write_as.scale
      << " " << s.write_as.offset << "\ntags";
    for (const auto &t : s.tag_sources)
        o << (t.from == TagSource::From::File ? " file:" : " line:") << t.text;
    return o.str() + "\n";
}

Settings parsed(const std::vector<std::string> &args)
{
    const auto r = plcpoll::parse_options(args);
    EXPECT_TRUE(r.ok()) << r.exit().message;
    return r.ok() ? r.value() : Settings{};
}

std::string args_text(const std::vector<std::string> &args)
{
    std::string text;
    for (const auto &a : args)
        text += (text.empty() ? "" : " ") + a;
    return text;
}

} // namespace

TEST(PlcpollOptions, NoArgumentsPollWithTheDefaults)
{
    const Settings s = parsed({});
    EXPECT_EQ(s.command, Command::Poll);
    EXPECT_EQ(s.host, "127.0.0.1");
    EXPECT_EQ(s.port, 1502);
    EXPECT_EQ(s.link, plchost::LinkMode::Modbus);
    EXPECT_EQ(s.timeout_ms, 1000);
    EXPECT_EQ(s.retries, 3);
    EXPECT_EQ(s.interval_ms, 500);
    EXPECT_FALSE(s.once);
    EXPECT_FALSE(s.duration_s);
    EXPECT_FALSE(s.json || s.trace || s.debug_log);
    EXPECT_EQ(s.station, 1);
    EXPECT_TRUE(s.tag_sources.empty());
    EXPECT_TRUE(s.operands.empty());
    EXPECT_EQ(describe(s), describe(Settings{}));
}

// An option with a value, and what it changes in the default settings.
struct ValueOption {
    const char *option;
    const char *value;
    std::function<void(Settings &)> expect;
};

class PlcpollValueOption : public ::testing::TestWithParam<ValueOption> {};

TEST_P(PlcpollValueOption, TakesItsValueAsTheNextArgumentOrAfterAnEqualsSign)
{
    const ValueOption &c = GetParam();
    Settings want;
    c.expect(want);
    EXPECT_EQ(describe(parsed({c.option, c.value})), describe(want));
    EXPECT_EQ(describe(parsed({std::string(c.option) + "=" + c.value})), describe(want));
}

INSTANTIATE_TEST_SUITE_P(
    EveryOption, PlcpollValueOption,
    ::testing::Values(ValueOption{"--host", "plc.example", [](Settings &s) { s.host = "plc.example"; }},
                      ValueOption{"--port", "1", [](Settings &s) { s.port = 1; }},
                      ValueOption{"--port", "65535", [](Settings &s) { s.port = 65535; }},
                      ValueOption{"--link", "modbus", [](Settings &) {}},
                      ValueOption{"--link", "remote",
                                  [](Settings &s) {
                                      s.link = plchost::LinkMode::Remote;
                                      s.port = 1503;
                                  }},
                      ValueOption{"--timeout", "1", [](Settings &s) { s.timeout_ms = 1; }},
                      ValueOption{"--timeout", "600000", [](Settings &s) { s.timeout_ms = 600000; }},
                      ValueOption{"--retries", "0", [](Settings &s) { s.retries = 0; }},
                      ValueOption{"--retries", "100", [](Settings &s) { s.retries = 100; }},
                      ValueOption{"--interval", "0", [](Settings &s) { s.interval_ms = 0; }},
                      ValueOption{"--interval", "3600000", [](Settings &s) { s.interval_ms = 3600000; }},
                      ValueOption{"--duration", "0", [](Settings &s) { s.duration_s = 0.0; }},
                      ValueOption{"--duration", "2.5", [](Settings &s) { s.duration_s = 2.5; }},
                      ValueOption{"--duration", "1e7", [](Settings &s) { s.duration_s = 1e7; }},
                      ValueOption{"--station", "0", [](Settings &s) { s.station = 0; }},
                      ValueOption{"--station", "255", [](Settings &s) { s.station = 255; }},
                      ValueOption{"--tag", "a,4,0,1,1",
                                  [](Settings &s) {
                                      s.tag_sources = {{TagSource::From::Line, "a,4,0,1,1"}};
                                  }},
                      ValueOption{"--tags", "tags.csv", [](Settings &s) {
                                      s.tag_sources = {{TagSource::From::File, "tags.csv"}};
                                  }}));

// An option without a value, and what it changes.
struct FlagOption {
    const char *option;
    std::function<void(Settings &)> expect;
};

class PlcpollFlagOption : public ::testing::TestWithParam<FlagOption> {};

TEST_P(PlcpollFlagOption, SetsItsSetting)
{
    Settings want;
    GetParam().expect(want);
    EXPECT_EQ(describe(parsed({GetParam().option})), describe(want));
}

INSTANTIATE_TEST_SUITE_P(EveryOption, PlcpollFlagOption,
                         ::testing::Values(FlagOption{"--once", [](Settings &s) { s.once = true; }},
                                           FlagOption{"--json", [](Settings &s) { s.json = true; }},
                                           FlagOption{"--trace", [](Settings &s) { s.trace = true; }},
                                           FlagOption{"--debug-log", [](Settings &s) { s.debug_log = true; }},
                                           FlagOption{"--no-trend", [](Settings &s) { s.trend = false; }},
                                           FlagOption{"--help", [](Settings &s) { s.command = Command::Help; }},
                                           FlagOption{"-h", [](Settings &s) { s.command = Command::Help; }}));

// A command line and the settings it makes.
struct CommandLine {
    std::vector<std::string> args;
    std::function<void(Settings &)> expect;
};

// The write command with these arguments, and what else changes.
std::function<void(Settings &)> writes(
    std::vector<std::string> operands, std::function<void(Settings &)> also = [](Settings &) {})
{
    return [operands, also](Settings &s) {
        s.command = Command::Write;
        s.operands = operands;
        also(s);
    };
}

class PlcpollCommandLine : public ::testing::TestWithParam<CommandLine> {};

TEST_P(PlcpollCommandLine, ReadsAsExpected)
{
    Settings want;
    GetParam().expect(want);
    EXPECT_EQ(describe(parsed(GetParam().args)), describe(want)) << args_text(GetParam().args);
}

INSTANTIATE_TEST_SUITE_P(
    CommandsAndOrder, PlcpollCommandLine,
    ::testing::Values(
        // The write command and its arguments, options before, between and after them.
        CommandLine{{"write", "4", "10", "1234"},
                    [](Settings &s) {
                        s.command = Command::Write;
                        s.operands = {"4", "10", "1234"};
                    }},
        CommandLine{{"--json", "write", "4", "0", "-1", "--station", "3", "-32768"},
                    [](Settings &s) {
                        s.command = Command::Write;
                        s.json = true;
                        s.station = 3;
                        s.operands = {"4", "0", "-1", "-32768"};
                    }},
        CommandLine{{"write", "4", "0", "--station=2", "5"},
                    [](Settings &s) {
                        s.command = Command::Write;
                        s.station = 2;
                        s.operands = {"4", "0", "5"};
                    }},
        // The typed write's options, in both spellings.
        CommandLine{{"write", "4", "0", "1", "--type", "float32", "--order=DCBA", "--scale", "0.1", "--offset=-40"},
                    writes({"4", "0", "1"},
                           [](Settings &s) {
                               s.write_as.type = plctags::ValueType::Float32;
                               s.write_as.order = plctags::ByteOrder::DCBA;
                               s.write_as.scale = 0.1;
                               s.write_as.offset = -40;
                           })},
        // After "--" every argument is the command's, options too.
        CommandLine{{"write", "--", "4", "0", "--station"},
                    [](Settings &s) {
                        s.command = Command::Write;
                        s.operands = {"4", "0", "--station"};
                    }},
        CommandLine{{"--"}, [](Settings &) {}},
        // The scan waits less for each reply unless --timeout says otherwise.
        CommandLine{{"scan"},
                    [](Settings &s) {
                        s.command = Command::Scan;
                        s.timeout_ms = 200;
                    }},
        CommandLine{{"scan", "1-10", "--timeout", "50"},
                    [](Settings &s) {
                        s.command = Command::Scan;
                        s.operands = {"1-10"};
                        s.timeout_ms = 50;
                    }},
        CommandLine{{"--timeout", "1000", "scan"}, [](Settings &s) { s.command = Command::Scan; }},
        // A second command word is an argument of the first.
        CommandLine{{"write", "write"},
                    [](Settings &s) {
                        s.command = Command::Write;
                        s.operands = {"write"};
                    }},
        // A unique beginning of an option's name stands for the option.
        CommandLine{{"--stat", "9", "--ret=1"},
                    [](Settings &s) {
                        s.station = 9;
                        s.retries = 1;
                    }},
        // The port follows the link unless given, wherever it stands.
        CommandLine{{"--port", "1600", "--link", "remote"},
                    [](Settings &s) {
                        s.port = 1600;
                        s.link = plchost::LinkMode::Remote;
                    }},
        CommandLine{{"--link", "remote", "--port", "1502"},
                    [](Settings &s) {
                        s.port = 1502;
                        s.link = plchost::LinkMode::Remote;
                    }},
        // Tags keep the order of the command line; a later value wins.
        CommandLine{{"--tag", "a,4,0,1,1", "--tags", "f.csv", "--tag", "b,4,1,1,1", "--port", "1", "--port", "2"},
                    [](Settings &s) {
                        s.port = 2;
                        s.tag_sources = {{TagSource::From::Line, "a,4,0,1,1"},
                                         {TagSource::From::File, "f.csv"},
                                         {TagSource::From::Line, "b,4,1,1,1"}};
                    }},
        // A value of an option may look like an option.
        CommandLine{{"--host", "--once"}, [](Settings &s) { s.host = "--once"; }},
        // --help ends the reading: what follows is not looked at.
        CommandLine{{"--help", "--bogus"}, [](Settings &s) { s.command = Command::Help; }},
        CommandLine{{"write", "4", "--help"}, [](Settings &s) {
                        s.command = Command::Help;
                        s.operands = {"4"};
                    }}));

// A command line that is refused, and the one line that says why.
struct UsageError {
    std::vector<std::string> args;
    std::string message;
};

class PlcpollUsageError : public ::testing::TestWithParam<UsageError> {};

TEST_P(PlcpollUsageError, IsRefusedWithItsMessageAndStatusTwo)
{
    EXPECT_TRUE(is_usage_error(plcpoll::parse_options(GetParam().args), GetParam().message))
        << args_text(GetParam().args);
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, PlcpollUsageError,
    ::testing::Values(UsageError{{"--bogus"}, "unknown option '--bogus' (see --help)"},
                      UsageError{{"--bogus=1"}, "unknown option '--bogus=1' (see --help)"},
                      UsageError{{"-x"}, "unknown option '-x' (see --help)"},
                      UsageError{{"-xh"}, "unknown option '-xh' (see --help)"},
                      UsageError{{"write", "4", "0", "-x"}, "unknown option '-x' (see --help)"},
                      // The beginning of --tag, --tags, --timeout and --trace.
                      UsageError{{"--t", "1"}, "unknown option '--t' (see --help)"},
                      UsageError{{"--bogus", "--help"}, "unknown option '--bogus' (see --help)"},
                      UsageError{{"--port"}, "option --port needs a value (see --help)"},
                      UsageError{{"--once", "--tag"}, "option --tag needs a value (see --help)"},
                      UsageError{{"--once=yes"}, "option --once takes no value (see --help)"},
                      UsageError{{"--help=1"}, "option --help takes no value (see --help)"},
                      UsageError{{"--port", "70000"}, "invalid value '70000' for --port (1..65535)"},
                      UsageError{{"--port", "0"}, "invalid value '0' for --port (1..65535)"},
                      UsageError{{"--port=x"}, "invalid value 'x' for --port (1..65535)"},
                      UsageError{{"--port", ""}, "invalid value '' for --port (1..65535)"},
                      UsageError{{"--timeout", "0"}, "invalid value '0' for --timeout (1..600000)"},
                      UsageError{{"--timeout", "600001"}, "invalid value '600001' for --timeout (1..600000)"},
                      UsageError{{"--retries", "-1"}, "invalid value '-1' for --retries (0..100)"},
                      UsageError{{"--retries", "101"}, "invalid value '101' for --retries (0..100)"},
                      UsageError{{"--interval", "3600001"}, "invalid value '3600001' for --interval (0..3600000)"},
                      UsageError{{"--interval", "1.5"}, "invalid value '1.5' for --interval (0..3600000)"},
                      UsageError{{"--station", "256"}, "invalid value '256' for --station (0..255)"},
                      UsageError{{"--link", "serial"}, "invalid value 'serial' for --link (modbus or remote)"},
                      UsageError{{"--duration", "-1"}, "invalid value '-1' for --duration (seconds)"},
                      UsageError{{"--duration", "1e8"}, "invalid value '1e8' for --duration (seconds)"},
                      UsageError{{"--duration", "nan"}, "invalid value 'nan' for --duration (seconds)"},
                      UsageError{{"--duration", "2s"}, "invalid value '2s' for --duration (seconds)"},
                      UsageError{{"--type", "float"},
                                 "invalid value 'float' for --type (raw int16 uint16 int32 uint32 int64 uint64 float32 "
                                 "float64 hex bits ascii)"},
                      UsageError{{"--order", "abcd"}, "invalid value 'abcd' for --order (ABCD CDAB BADC DCBA)"},
                      UsageError{{"--scale", "x"}, "invalid value 'x' for --scale (a decimal number)"},
                      UsageError{{"--offset", "0x10"}, "invalid value '0x10' for --offset (a decimal number)"},
                      UsageError{{"--no-trend=1"}, "option --no-trend takes no value (see --help)"},
                      UsageError{{"--type", "float32", "--tag", "a,4,0,1,2"},
                                 "--type, --order, --scale and --offset are options of write; a tag gives its type in "
                                 "its own fields (see --help)"},
                      UsageError{{"scan", "--scale", "2"},
                                 "--type, --order, --scale and --offset are options of write; a tag gives its type in "
                                 "its own fields (see --help)"},
                      UsageError{{"poll"}, "unexpected argument 'poll' (see --help)"},
                      UsageError{{"--", "x"}, "unexpected argument 'x' (see --help)"},
                      UsageError{{"-5"}, "unknown option '-5' (see --help)"}));

TEST(PlcpollOptions, ReadsAgainAfterStoppingInsideAClusterOfShortOptions)
{
    // getopt keeps its place in a cluster ("-h" of "-hq") between calls.
    EXPECT_EQ(parsed({"-hq"}).command, Command::Help);
    EXPECT_EQ(parsed({"--port", "1600"}).port, 1600);
    EXPECT_EQ(parsed({"write", "4", "0", "-3"}).operands, (std::vector<std::string>{"4", "0", "-3"}));
}

TEST(PlcpollOptions, HelpNamesEveryOption)
{
    const std::string usage = plcpoll::usage_text();
    EXPECT_EQ(usage.rfind("usage: plcpoll [OPTIONS]", 0), 0u);
    for (const std::string &name : plcpoll::option_names())
        EXPECT_NE(usage.find("  --" + name + " "), std::string::npos) << name;
    EXPECT_NE(usage.find("writable kind (1 3 4 5 7 8 10 11 13 14)"), std::string::npos);
}
