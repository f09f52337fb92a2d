// Small helpers shared by the end-to-end tests.
#ifndef PLCDRIVER_E2E_UTIL_H
#define PLCDRIVER_E2E_UTIL_H

#include "plchost.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

using namespace std::chrono_literals;

// Polls `pred` every 10 ms until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()> &pred, std::chrono::milliseconds timeout = 5000ms)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return pred();
}

inline plchost::HostConfig config_for(int port, plchost::LinkMode mode = plchost::LinkMode::Modbus)
{
    plchost::HostConfig c;
    plchost::Endpoint e;
    e.host = "127.0.0.1";
    e.port = uint16_t(port);
    c.endpoints.push_back(e);
    c.link_mode = mode;
    c.timeout = 300ms;
    c.poll_interval = 20ms;
    c.retry_limit = 2;
    c.reconnect_min = 50ms;
    c.reconnect_max = 400ms;
    return c;
}

inline plchost::Tag tag(int kind, const std::string &address, int count, int station = 1, const std::string &name = "")
{
    plchost::Tag t;
    t.name = name.empty() ? "k" + std::to_string(kind) + "@" + address : name;
    t.kind = kind;
    t.address = address;
    t.station = station;
    t.count = count;
    return t;
}

// The values the host's mirror holds for a tag.
inline std::vector<uint64_t> values_of(const plchost::Host &host, const plchost::Tag &t)
{
    std::vector<uint8_t> bytes;
    host.read(t, &bytes);
    return plchost::decode_values(t.kind, t.count, bytes);
}

// Writes values through the host and waits for the driver's completion.
inline plchost::DoneResult write_values(plchost::Host &host, const plchost::Tag &where,
                                        const std::vector<uint64_t> &values, std::chrono::milliseconds timeout = 5000ms)
{
    std::vector<uint8_t> bytes;
    plchost::Tag t = where;
    if (!plchost::encode_values(t.kind, values, &bytes, &t.count))
        return plchost::DoneResult::Failed;
    int id = 0;
    if (host.write(t, bytes, 1, &id) == 0)
        return plchost::DoneResult::Failed;
    return host.wait_done(1, id, timeout);
}

} // namespace e2e

#endif // PLCDRIVER_E2E_UTIL_H
