// plcgate: an edge gateway that publishes PLC tags to an MQTT broker and
// takes writes from it. main reads the command line and the configuration,
// loads the tags, installs the signal handlers and runs the gateway; its
// parts live beside this file.
#include "config.h"
#include "gateway.h"
#include "tag_set.h"

#include <mosquitto.h>

#include <atomic>
#include <csignal>
#include <iostream>

namespace {

// Exit statuses: a bad configuration is a usage error.
constexpr int kExitUsage = 2;

std::atomic<bool> g_stop{false};
std::atomic<bool> g_reload{false};
plcgate::Wake *g_wake = nullptr;

extern "C" void on_signal(int signal_number)
{
    (signal_number == SIGHUP ? g_reload : g_stop).store(true);
    if (g_wake)
        g_wake->notify();
}

void catch_signals()
{
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int s : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(s, &sa, nullptr);
    // A broker that goes away under a write must not end the process.
    ::signal(SIGPIPE, SIG_IGN);
}

int usage_error(const std::string &why)
{
    std::cerr << "plcgate: " << why << "\n";
    return kExitUsage;
}

} // namespace

int main(int argc, char **argv)
{
    const auto invocation = plcgate::parse_arguments(std::vector<std::string>(argv + 1, argv + argc));
    if (!invocation.ok())
        return usage_error(invocation.why());
    if (invocation.value().help) {
        std::cout << plcgate::usage_text();
        return 0;
    }
    auto config = plcgate::load_config(invocation.value());
    if (!config.ok())
        return usage_error(config.why());
    auto tags = plcgate::load_tags(config.value());
    if (!tags.ok())
        return usage_error(tags.why());
    mosquitto_lib_init();
    int status = 0;
    {
        plcgate::Gateway gateway(std::move(config).value(), std::move(tags).value());
        g_wake = &gateway.wake();
        catch_signals();
        status = gateway.run(g_stop, g_reload);
        g_wake = nullptr;
    }
    mosquitto_lib_cleanup();
    return status;
}
