// What plcpoll's commands share around their one Host: where it talks to,
// how output is shown, how long a request may take, and starting it with
// the hooks the options ask for.
#ifndef PLCPOLL_SESSION_H
#define PLCPOLL_SESSION_H

#include "commands.h"

#include <chrono>
#include <optional>
#include <string>

namespace plcpoll {

// "HOST:PORT" of the settings.
std::string peer(const Settings &s);

View view_of(const Settings &s, const Console &console);

// How long a write, a one-shot read or a probe may take to be reported
// finished: every try of its request, twice, and a second for the set-up.
std::chrono::milliseconds completion_wait(const Settings &s);

// Frame trace (--trace) and debug log (--debug-log) hooks. `also` is called
// for every frame too, after the trace line (the scan reads replies there).
void install_hooks(plchost::Host &host, const Settings &s, const Console &console, plchost::TraceHook also = nullptr);

// Starts the host; the failure to connect, when it could not.
std::optional<Exit> start_host(plchost::Host &host);

} // namespace plcpoll

#endif // PLCPOLL_SESSION_H
