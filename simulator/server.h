// The event loop of plcsim: one poll() over the Modbus TCP listener and its
// clients, the remote frame listener and its clients, and a wake-up descriptor,
// with the 100 ms motion timer folded into the poll timeout. Everything runs
// on one thread, so requests always see a consistent snapshot of the memory.
#ifndef PLCSIM_SERVER_H
#define PLCSIM_SERVER_H

#include "log.h"
#include "memory.h"
#include "options.h"

#include <modbus.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace plcsim {

class Server {
public:
    Server(const Options &options, Stations &stations, Log &log);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Opens both listening sockets. False with a one-line message on failure.
    bool start(std::string &error);
    int modbus_port() const { return modbus_port_; }
    int remote_port() const { return remote_port_; }

    // Serves until wake_fd becomes readable (the signal handler writes to it).
    void run(int wake_fd);

private:
    struct Client {
        int fd = -1;
        std::string peer;
        std::vector<uint8_t> pending; // remote frame clients: bytes not yet framed
        std::chrono::steady_clock::time_point last_input;
    };

    void accept_modbus();
    void accept_remote();
    bool serve_modbus(Client &client);
    bool serve_remote(Client &client);
    void drop_stale_input(std::chrono::steady_clock::time_point now);
    void tick(std::chrono::steady_clock::time_point now);
    bool reply_via_sink(const uint8_t *query, int length, modbus_mapping_t *map, std::vector<uint8_t> &response);
    std::vector<uint8_t> drain_sink();
    void close_client(std::vector<Client> &list, int fd, const char *what, const std::string &why);

    const Options &options_;
    Stations &stations_;
    Log &log_;
    modbus_t *ctx_ = nullptr;
    int modbus_listen_ = -1;
    int remote_listen_ = -1;
    int modbus_port_ = 0;
    int remote_port_ = 0;
    // libmodbus writes its responses to sink_[0]; they are read back from
    // sink_[1], logged, and forwarded to the client (or dropped for broadcasts).
    int sink_[2] = {-1, -1};
    std::vector<Client> modbus_clients_;
    std::vector<Client> remote_clients_;
    uint64_t ticks_ = 0;
    std::chrono::steady_clock::time_point next_tick_;
};

} // namespace plcsim

#endif
