#include "options.h"

#include "tag_file.h"
#include "text.h"

#include <getopt.h>

#include <algorithm>
#include <cctype>

namespace plcpoll {

namespace {

const char *const kUsage =
    R"(usage: plcpoll [OPTIONS]                        poll tags cyclically
       plcpoll [OPTIONS] write KIND ADDRESS VALUE... [--station N] [--type T ...]
       plcpoll [OPTIONS] scan [STATIONS]               find the stations that answer

Reads PLC tags through the plcdriver library and shows their values: a table
refreshed in place on a terminal, plain lines otherwise, or JSON.

Tags:
  --tag NAME,KIND,ADDRESS,STATION,COUNT[,TYPE,ORDER,SCALE,OFFSET,UNIT]
                       a tag (repeatable)
  --tags FILE          CSV file of tags, one per line in the columns of --tag;
                       '#' starts a comment; a header line is allowed
Kinds (COUNT in the unit of the kind):
  0 discrete input  1 coil  (bits; ADDRESS is BYTE.BIT)
  2 input register  3 holding register  4 word          (16-bit words)
  5 bit in a class-4 word (bits; ADDRESS is BYTE.BIT, bit 8*BYTE+BIT)
  6 7 8 byte in class 2 3 4 (bytes)
  9 10 11 32-bit value in class 2 3 4 (COUNT in words: 2 per value)
  12 13 14 64-bit value in class 2 3 4 (COUNT in words: 4 per value)
Types (TYPE; default raw, the kind's own unsigned values):
  int16 uint16 (1 register)  int32 uint32 float32 (2)  int64 uint64 float64 (4)
  hex bits (each register or byte as digits)  ascii (the tag's bytes as text)
  Types need register kinds (2 3 4 9..14); byte kinds take hex bits ascii.
ORDER of a value wider than one register, A the most significant byte:
  ABCD (default: big-endian words, most PLCs)  CDAB (word swap)
  BADC (byte swap)  DCBA (both); ascii takes ABCD or BADC.
SCALE and OFFSET (numeric types): shown = raw x SCALE + OFFSET. UNIT: a text.

Connection:
  --host HOST          PLC address (default 127.0.0.1)
  --port PORT          TCP port (default 1502 for modbus, 1503 for remote)
  --link modbus|remote Modbus TCP or the driver's remote frame (default modbus)
  --timeout MS         reply timeout per request (default 1000; scan: 200)
  --retries N          failed replies tolerated per request (default 3)

Polling and output:
  --interval MS        pause after each full pass, and refresh period (default 500)
  --once               one full pass, show it, exit
  --duration SECONDS   poll for this long, then exit (default: until Ctrl-C)
  --json               machine-readable output (one JSON object per refresh)
  --no-trend           no trend column in the live table
  --trace              hex dump of every frame sent and received (on stderr)
  --debug-log          install the driver's log handler (/tmp/debug.log) and
                       log the tool's events there
  --help               this text
A value not read yet, or of a station that failed, shows as - (JSON: null,
with "quality" good, not_read or failing). At the end plcpoll shows the link
statistics, per station too; frame loss is the share of exchanges that
brought no good reply (time-outs and refused replies).

Write: KIND is a writable kind (1 3 4 5 7 8 10 11 13 14), VALUE... one value
each (decimal, or hex with 0x; for --type ascii one text); the registers are
read back afterwards.
  --station N          station of the write (default 1)
  --type T  --order O  --scale S  --offset O
                       write typed values: out of the type's range is refused
                       before anything is sent
The driver writes kinds 10 and 13 at the doubled (quadrupled) address without
the class-3 offset 0xA000 that its reads of them add, so their read back shows
the class-3 registers, not the ones written (exit status 1).
On the remote frame the driver rejects replies under 8 bytes; plcpoll reads at
least 3 data bytes there and shows only the units asked for.

Scan: probes each station of STATIONS (default 1-247; e.g. 1-10,17) once with
a read of holding register 0 (kind 4), no retry, and lists those that answer:
a reply, or a Modbus exception of their own. A gateway's exception 0x0A or
0x0B (no device at that unit) and silence count as absent. On the remote
frame a station answers or stays silent.

Exit status: 0 done, 1 the PLC did not answer as asked, 2 a usage error.

Examples:
  plcpoll --tags tools/plcpoll/example-tags.csv
  plcpoll --tag ramp,2,4,1,1 --tag onehot,0,0.0,1,8 --once --json
  plcpoll --tag flow,4,10,1,2,float32,CDAB,,,l/s --tag temp,2,4,1,1,int16,,0.1,,C
  plcpoll --link remote --port 1503 --tags tags.csv --duration 5
  plcpoll write 4 100 1234 --station 1
  plcpoll write 4 10 3.14159 --type float32 --order CDAB
  plcpoll write 1 0.3 1 0 1
  plcpoll scan 1-20
)";

// Settings::port and timeout_ms while no --port or --timeout has been read.
constexpr int kPortNotGiven = 0;
constexpr int kTimeoutNotGiven = 0;

// An option's effect on the settings. On a value it cannot take it returns
// what it accepts, for the message "invalid value 'V' for --NAME (ACCEPTS)".
using Apply = std::optional<std::string> (*)(const std::string &value, Settings *s);

template <int Settings::*Field, long long Min, long long Max>
std::optional<std::string> set_integer(const std::string &value, Settings *s)
{
    const auto v = plctags::parse_integer(value, Min, Max);
    if (!v)
        return std::to_string(Min) + ".." + std::to_string(Max);
    s->*Field = int(*v);
    return std::nullopt;
}

template <bool Settings::*Field, bool Value = true>
std::optional<std::string> set_flag(const std::string &, Settings *s)
{
    s->*Field = Value;
    return std::nullopt;
}

std::optional<std::string> set_host(const std::string &value, Settings *s)
{
    s->host = value;
    return std::nullopt;
}

std::optional<std::string> set_link(const std::string &value, Settings *s)
{
    const auto link = plchost::link_from_name(value);
    if (!link)
        return "modbus or remote";
    s->link = *link;
    return std::nullopt;
}

std::optional<std::string> set_duration(const std::string &value, Settings *s)
{
    // Longer than any commissioning session; keeps the time arithmetic finite.
    constexpr double kLongestDuration = 1e7;
    s->duration_s = plctags::parse_non_negative(value, kLongestDuration);
    if (!s->duration_s)
        return "seconds";
    return std::nullopt;
}

// --type, --order, --scale, --offset: read by the tags library's field
// readers; what they accept is said by the library too.
template <std::optional<std::string> (*Read)(const std::string &, plctags::Tag *), std::string (*Accepted)()>
std::optional<std::string> set_write_as(const std::string &value, Settings *s)
{
    if (Read(value, &s->write_as))
        return Accepted();
    return std::nullopt;
}

template <TagSource::From From> std::optional<std::string> add_tag_source(const std::string &value, Settings *s)
{
    s->tag_sources.push_back({From, value});
    return std::nullopt;
}

std::optional<std::string> ask_for_help(const std::string &, Settings *s)
{
    s->command = Command::Help;
    return std::nullopt;
}

struct OptionRule {
    const char *name;
    bool takes_value;
    Apply apply;
    char short_name = 0; // none when 0
};

const OptionRule kOptions[] = {
    {"tag", true, add_tag_source<TagSource::From::Line>},
    {"tags", true, add_tag_source<TagSource::From::File>},
    {"host", true, set_host},
    {"port", true, set_integer<&Settings::port, 1, 65535>},
    {"link", true, set_link},
    {"timeout", true, set_integer<&Settings::timeout_ms, 1, 600000>},
    {"retries", true, set_integer<&Settings::retries, 0, 100>},
    {"interval", true, set_integer<&Settings::interval_ms, 0, 3600000>},
    {"once", false, set_flag<&Settings::once>},
    {"duration", true, set_duration},
    {"json", false, set_flag<&Settings::json>},
    {"trace", false, set_flag<&Settings::trace>},
    {"debug-log", false, set_flag<&Settings::debug_log>},
    {"station", true, set_integer<&Settings::station, plctags::kMinStation, plctags::kMaxStation>},
    {"type", true, set_write_as<plctags::parse_type, plctags::type_names>},
    {"order", true, set_write_as<plctags::parse_order, plctags::order_names>},
    {"scale", true, set_write_as<plctags::parse_scale, plctags::real_field_text>},
    {"offset", true, set_write_as<plctags::parse_offset, plctags::real_field_text>},
    {"no-trend", false, set_flag<&Settings::trend, false>},
    {"help", false, ask_for_help, 'h'},
};
constexpr int kOptionCount = int(sizeof kOptions / sizeof kOptions[0]);

// getopt_long returns a long option's index plus this, above every character.
constexpr int kFirstOptionCode = 256;

const OptionRule *rule_of(int code)
{
    const int index = code - kFirstOptionCode;
    if (index >= 0 && index < kOptionCount)
        return &kOptions[index];
    for (const OptionRule &rule : kOptions)
        if (rule.short_name && rule.short_name == code)
            return &rule;
    return nullptr;
}

// "+": stop at the first word that is not an option, so that words keep
// their order; ":": a missing value is told apart from an unknown option.
std::string short_options()
{
    std::string letters = "+:";
    for (const OptionRule &rule : kOptions)
        if (rule.short_name)
            letters += std::string(1, rule.short_name) + (rule.takes_value ? ":" : "");
    return letters;
}

std::vector<option> long_options()
{
    std::vector<option> options;
    for (int i = 0; i < kOptionCount; ++i)
        options.push_back({kOptions[i].name, kOptions[i].takes_value ? required_argument : no_argument, nullptr,
                           kFirstOptionCode + i});
    options.push_back({nullptr, 0, nullptr, 0});
    return options;
}

// The words that name a command, and whether it takes arguments.
struct CommandWord {
    const char *word;
    Command command;
    bool takes_operands;
};

const CommandWord kCommandWords[] = {
    {"write", Command::Write, true},
    {"scan", Command::Scan, true},
};

const CommandWord *command_word(const std::string &word)
{
    for (const CommandWord &c : kCommandWords)
        if (word == c.word)
            return &c;
    return nullptr;
}

// Typed-write options given to a command that does not write: the user
// likely meant them for the tags, which they do not change.
bool typed_outside_write(const Settings &s)
{
    const PollTag untyped;
    const bool typed = s.write_as.type != untyped.type || s.write_as.order != untyped.order ||
                       s.write_as.scale != untyped.scale || s.write_as.offset != untyped.offset;
    return typed && (s.command == Command::Poll || s.command == Command::Scan);
}

bool is_negative_number(const char *arg)
{
    return arg[0] == '-' && std::isdigit(static_cast<unsigned char>(arg[1]));
}

// One reading of an argument list with getopt_long, which keeps its place in
// global variables: one reader at a time.
class ArgumentReader {
public:
    explicit ArgumentReader(const std::vector<std::string> &args);
    Result<Settings> read();

private:
    int argc() const { return int(storage_.size()); }
    std::optional<Exit> read_option(int code, int at);
    std::optional<Exit> apply(const OptionRule &rule, const std::string &value);
    std::optional<Exit> take_operand(const std::string &arg);
    std::optional<Exit> take_rest();
    void take_negative_operands();

    std::vector<std::string> storage_;
    std::vector<char *> argv_;
    const std::vector<option> options_ = long_options();
    const std::string short_options_ = short_options();
    const CommandWord *command_ = nullptr;
    Settings settings_;
};

ArgumentReader::ArgumentReader(const std::vector<std::string> &args) : storage_{"plcpoll"}
{
    storage_.insert(storage_.end(), args.begin(), args.end());
    for (std::string &arg : storage_)
        argv_.push_back(arg.data());
    argv_.push_back(nullptr);
}

Result<Settings> ArgumentReader::read()
{
    settings_.port = kPortNotGiven;
    settings_.timeout_ms = kTimeoutNotGiven;
    optind = 0; // starts getopt afresh, also inside a cluster of short options
    opterr = 0; // the messages are plcpoll's own
    while (settings_.command != Command::Help) {
        take_negative_operands();
        const int at = std::max(optind, 1); // where getopt reads next
        const int code = getopt_long(argc(), argv_.data(), short_options_.c_str(), options_.data(), nullptr);
        // The end of the arguments, or "--" and the command's arguments after it.
        const bool last = code == -1 && (optind >= argc() || storage_[at] == "--");
        auto error = last ? take_rest() : code == -1 ? take_operand(storage_[optind++]) : read_option(code, at);
        if (error)
            return *error;
        if (last)
            break;
    }
    if (settings_.port == kPortNotGiven)
        settings_.port = plchost::default_port(settings_.link);
    if (settings_.timeout_ms == kTimeoutNotGiven)
        settings_.timeout_ms = settings_.command == Command::Scan ? kScanTimeoutMs : kTimeoutMs;
    if (typed_outside_write(settings_))
        return usage_error("--type, --order, --scale and --offset are options of write; a tag gives its type in its "
                           "own fields (see --help)");
    return settings_;
}

std::optional<Exit> ArgumentReader::read_option(int code, int at)
{
    // For a missing or unwanted value getopt names the option in optopt.
    const OptionRule *rule = rule_of(code == ':' || code == '?' ? optopt : code);
    if (code == ':' && rule)
        return usage_error("option --" + std::string(rule->name) + " needs a value (see --help)");
    if (code == '?' && rule)
        return usage_error("option --" + std::string(rule->name) + " takes no value (see --help)");
    if (code == '?' || code == ':' || !rule)
        return usage_error("unknown option '" + storage_[at] + "' (see --help)");
    return apply(*rule, optarg ? optarg : "");
}

std::optional<Exit> ArgumentReader::apply(const OptionRule &rule, const std::string &value)
{
    if (const auto accepted = rule.apply(value, &settings_))
        return usage_error("invalid value '" + value + "' for --" + rule.name + " (" + *accepted + ")");
    return std::nullopt;
}

std::optional<Exit> ArgumentReader::take_operand(const std::string &arg)
{
    if (command_ && command_->takes_operands) {
        settings_.operands.push_back(arg);
        return std::nullopt;
    }
    if (!command_ && (command_ = command_word(arg))) {
        settings_.command = command_->command;
        return std::nullopt;
    }
    return usage_error("unexpected argument '" + arg + "' (see --help)");
}

// After "--" every argument is the command's.
std::optional<Exit> ArgumentReader::take_rest()
{
    for (; optind < argc(); ++optind)
        if (auto error = take_operand(storage_[optind]))
            return error;
    return std::nullopt;
}

// getopt would read a negative value of a command ("-5") as a cluster of
// short options; such arguments are taken as the command's before it sees
// them.
void ArgumentReader::take_negative_operands()
{
    while (command_ && command_->takes_operands && optind < argc() && is_negative_number(argv_[optind]))
        settings_.operands.push_back(storage_[optind++]);
}

} // namespace

std::vector<std::string> option_names()
{
    std::vector<std::string> names;
    for (const OptionRule &rule : kOptions)
        names.push_back(rule.name);
    return names;
}

Result<Settings> parse_options(const std::vector<std::string> &args)
{
    return ArgumentReader(args).read();
}

const char *usage_text()
{
    return kUsage;
}

} // namespace plcpoll
