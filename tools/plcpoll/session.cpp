#include "session.h"

#include <QtGlobal>

namespace plcpoll {

namespace {

void install_debug_log(plchost::Host &host)
{
    host.set_reply_hook([](const plchost::ReplyEvent &e) {
        if (!e.good())
            qWarning("request to station %d (kind %d, address %d, count %d) failed: code %d, %d bytes%s", e.station,
                     e.reg_kind, e.start_addr, e.count, e.status, e.bytes, e.timed_out ? ", no reply" : "");
    });
    host.set_write_done_hook([](int, int source_type, int source_id, int result) {
        qInfo("request %d/%d finished: %s", source_type, source_id,
              result == int(plchost::DoneResult::Ok) ? "ok" : "communication failed");
    });
    host.set_read_done_hook([](int source_type, int) { qWarning("request of type %d given up", source_type); });
}

} // namespace

std::string peer(const Settings &s)
{
    return s.host + ":" + std::to_string(s.port);
}

View view_of(const Settings &s, const Console &console)
{
    if (s.json)
        return View::Json;
    return console.terminal ? View::Table : View::Lines;
}

std::chrono::milliseconds completion_wait(const Settings &s)
{
    return plchost::completion_wait(std::chrono::milliseconds(s.timeout_ms), s.retries);
}

void install_hooks(plchost::Host &host, const Settings &s, const Console &console, plchost::TraceHook also)
{
    if (s.trace || also) {
        // Only the communication thread calls the hook, so lines do not mix.
        std::ostream *err = s.trace ? &console.err : nullptr;
        host.set_trace_hook(
            [err, also](plchost::FrameDirection direction, int endpoint, const uint8_t *data, size_t size) {
                if (err)
                    *err << render_frame(direction, data, size) << std::flush;
                if (also)
                    also(direction, endpoint, data, size);
            });
    }
    if (s.debug_log)
        install_debug_log(host);
}

std::optional<Exit> start_host(plchost::Host &host)
{
    std::string error;
    if (!host.start(true, &error))
        return failure(error);
    return std::nullopt;
}

} // namespace plcpoll
