// plcsim: a PLC simulator serving Modbus TCP and the driver's remote frame on
// loopback (or any IPv4 address), for developing and testing against plcdriver.
#include "log.h"
#include "memory.h"
#include "options.h"
#include "server.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace {

int g_wake_pipe[2] = {-1, -1};

extern "C" void on_stop_signal(int)
{
    int saved = errno;
    const char byte = 1;
    ssize_t ignored = write(g_wake_pipe[1], &byte, 1);
    (void)ignored;
    errno = saved;
}

int runtime_error(const std::string &message)
{
    std::fprintf(stderr, "plcsim: %s\n", message.c_str());
    return 1;
}

// Writes the port file next to its final name and renames it into place, so a
// reader never sees a half-written file.
bool write_port_file(const std::string &path, int modbus_port, int remote_port, std::string &error)
{
    const std::string tmp = path + ".tmp." + std::to_string(getpid());
    std::FILE *f = std::fopen(tmp.c_str(), "w");
    if (!f) {
        error = "cannot write port file '" + tmp + "': " + std::strerror(errno);
        return false;
    }
    std::fprintf(f, "modbus=%d\nremote=%d\n", modbus_port, remote_port);
    bool ok = std::fflush(f) == 0;
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        error = "cannot write port file '" + path + "': " + std::strerror(errno);
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

bool install_signal_handlers(std::string &error)
{
    if (pipe2(g_wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        error = std::string("cannot create the wake-up pipe: ") + std::strerror(errno);
        return false;
    }
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    if (sigaction(SIGINT, &sa, nullptr) != 0 || sigaction(SIGTERM, &sa, nullptr) != 0 ||
        sigaction(SIGPIPE, &ignore, nullptr) != 0) {
        error = std::string("cannot install signal handlers: ") + std::strerror(errno);
        return false;
    }
    return true;
}

int run(const plcsim::Options &options)
{
    std::string error;
    plcsim::Log log;
    if (!log.open(options.log_path, error))
        return runtime_error(error);
    if (!install_signal_handlers(error))
        return runtime_error(error);

    try {
        plcsim::Stations stations(options.stations, options.fill, options.freeze);
        plcsim::Server server(options, stations, log);
        if (!server.start(error))
            return runtime_error(error);

        std::printf("plcsim: modbus tcp on %s:%d\n", options.address.c_str(), server.modbus_port());
        std::printf("plcsim: remote frame on %s:%d\n", options.address.c_str(), server.remote_port());
        std::fflush(stdout);
        if (!options.port_file.empty() &&
            !write_port_file(options.port_file, server.modbus_port(), server.remote_port(), error))
            return runtime_error(error);
        std::printf("plcsim: ready\n");
        std::fflush(stdout);

        std::string units;
        for (int id : stations.ids())
            units += (units.empty() ? "" : ",") + std::to_string(id);
        log.traffic("serving unit(s) " + (units.empty() ? std::string("none") : units) +
                    (options.freeze ? ", static" : "") +
                    (options.fill == plcsim::Fill::Address ? ", filled with addresses" : ""));

        server.run(g_wake_pipe[0]);
        log.traffic("stopping on signal");
    } catch (const std::bad_alloc &) {
        return runtime_error("out of memory allocating the station tables");
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    plcsim::Options options;
    plcsim::ParseResult parsed = plcsim::parse_options(argc, argv, options);
    if (!parsed.ok) {
        std::fprintf(stderr, "plcsim: %s\n", parsed.error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(plcsim::usage_text().c_str(), stdout);
        return 0;
    }
    int rc = run(options);
    for (int fd : g_wake_pipe)
        if (fd >= 0)
            close(fd);
    return rc;
}
