// plcpoll: commissioning tool on the reference host. Polls PLC tags through
// the driver and shows them as a live table, plain lines or JSON; writes a
// value and reads it back. The parts live beside this file (options, tags,
// output, commands); main wires them to the process: arguments, signals,
// the driver's log handler, the console and the exit status.
#include "commands.h"
#include "options.h"
#include "tags.h"

#include "Communication_Protocol.h"

#include <QtGlobal>

#include <atomic>
#include <csignal>
#include <iostream>
#include <unistd.h>

namespace {

std::atomic<bool> g_interrupted{false};

extern "C" void on_signal(int)
{
    g_interrupted.store(true);
}

void catch_stop_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
}

int finish(const plcpoll::Exit &exit)
{
    if (!exit.message.empty())
        std::cerr << "plcpoll: " << exit.message << "\n";
    return int(exit.status);
}

} // namespace

int main(int argc, char **argv)
{
    const auto settings = plcpoll::parse_options(std::vector<std::string>(argv + 1, argv + argc));
    if (!settings.ok())
        return finish(settings.exit());
    const plcpoll::Settings &s = settings.value();
    const auto tags = plcpoll::load_tags(s.tag_sources);
    if (!tags.ok())
        return finish(tags.exit());
    if (s.debug_log) {
        qInstallMessageHandler(plcdriver_qt_message_handler);
        qInfo("plcpoll started: %s:%d", s.host.c_str(), s.port);
    }
    catch_stop_signals();
    const plcpoll::Console console{std::cout, std::cerr, ::isatty(STDOUT_FILENO) == 1, g_interrupted};
    const plcpoll::Exit exit = plcpoll::run_command(s, tags.value(), console);
    if (s.debug_log)
        qInfo("plcpoll finished with exit code %d", int(exit.status));
    return finish(exit);
}
