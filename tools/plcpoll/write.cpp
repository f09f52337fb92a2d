// The write command: values converted to the tag's type and the driver's
// buffer layout before any connection is made, written, and the registers
// read back.
#include "commands.h"
#include "session.h"

namespace plcpoll {

namespace {

// The source types the write and its read back are known by in the driver's
// write-done callbacks.
constexpr int kWriteSource = 1;
constexpr int kReadBackSource = 2;

// The tag's registers read once more after the write.
void read_back(plchost::Host &host, const Settings &s, WriteReport *report)
{
    const plchost::Tag &target = report->target.plc;
    int id = 0;
    report->read_back = WriteReport::ReadBack::Failed;
    if (!host.read_once(target, kReadBackSource, &id) ||
        host.wait_done(kReadBackSource, id, completion_wait(s)) != plchost::DoneResult::Ok)
        return;
    std::vector<uint8_t> bytes;
    host.read(target, &bytes);
    report->read_values = plchost::decode_values(target.kind, target.count, bytes);
    report->read_back = WriteReport::ReadBack::Read;
}

Exit write_exit(const WriteReport &report, const Settings &s)
{
    if (report.result != plchost::DoneResult::Ok)
        return failure("write to " + peer(s) + " failed");
    // A read back that failed or differs has been shown; the status says so.
    if (report.read_back != WriteReport::ReadBack::Read || report.read_values != report.values)
        return failure();
    return {};
}

// The target of KIND ADDRESS with the station and the type of the options.
Result<PollTag> write_target(const Settings &s)
{
    PollTag target = s.write_as;
    plchost::Tag &t = target.plc;
    t.name = "write";
    t.address = s.operands[1];
    t.station = s.station;
    if (const auto why = plctags::parse_kind(s.operands[0], &t.kind))
        return usage_error(*why);
    if (!plchost::kind_writable(t.kind))
        return usage_error("kind " + std::to_string(t.kind) + " (" + plchost::kind_name(t.kind) +
                           ") is read-only; writable kinds are " + plctags::writable_kinds_text());
    if (const auto why = plctags::check_address(t.kind, t.address))
        return usage_error(*why);
    if (const auto why = plctags::check_type(target))
        return usage_error(*why);
    return target;
}

} // namespace

Result<WriteRequest> parse_write_request(const Settings &s)
{
    if (s.operands.size() < 3)
        return usage_error("write needs KIND ADDRESS VALUE... (see --help)");
    auto target = write_target(s);
    if (!target.ok())
        return target.exit();
    WriteRequest request{std::move(target).value(), {}, {}};
    auto values = plctags::encode(request.target, {s.operands.begin() + 2, s.operands.end()});
    if (!values.ok())
        return usage_error(values.why());
    request.values = std::move(values).value();
    // The driver's buffer, and the count that covers the values in the unit
    // of the kind.
    plchost::encode_values(request.target.plc.kind, request.values, &request.data, &request.target.plc.count);
    return request;
}

Exit run_write(const Settings &s, const Console &console)
{
    const auto request = parse_write_request(s);
    if (!request.ok())
        return request.exit();
    WriteReport report;
    report.target = request.value().target;
    report.values = request.value().values;
    plchost::Host host(host_config(s));
    install_hooks(host, s, console);
    if (const auto error = start_host(host))
        return *error;
    int id = 0;
    if (host.write(report.target.plc, request.value().data, kWriteSource, &id) == 0)
        return usage_error("the driver refused the write");
    report.result = host.wait_done(kWriteSource, id, completion_wait(s));
    if (report.result == plchost::DoneResult::Ok)
        read_back(host, s, &report);
    host.stop();
    report.stats = host.stats();
    console.out << render_write(s.json ? View::Json : View::Lines, report) << std::flush;
    return write_exit(report, s);
}

} // namespace plcpoll
