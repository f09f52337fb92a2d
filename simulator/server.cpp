#include "server.h"

#include "remote_frame.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace plcsim {

namespace {

using Clock = std::chrono::steady_clock;

// A partial remote frame older than this is thrown away so that the stream
// can start afresh with the client's next request.
constexpr auto kStaleInput = std::chrono::milliseconds(1000);

std::string peer_of(int fd)
{
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        return "fd " + std::to_string(fd);
    char text[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(addr.sin_port));
}

int bound_port(int fd)
{
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0)
        return -1;
    return ntohs(addr.sin_port);
}

bool send_all(int fd, const uint8_t *data, size_t size)
{
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

Server::Server(const Options &options, Stations &stations, Log &log) : options_(options), stations_(stations), log_(log)
{
}

Server::~Server()
{
    for (auto &c : modbus_clients_)
        close(c.fd);
    for (auto &c : remote_clients_)
        close(c.fd);
    if (modbus_listen_ >= 0)
        close(modbus_listen_);
    if (remote_listen_ >= 0)
        close(remote_listen_);
    for (int fd : sink_)
        if (fd >= 0)
            close(fd);
    if (ctx_) {
        modbus_set_socket(ctx_, -1);
        modbus_free(ctx_);
    }
}

bool Server::start(std::string &error)
{
    const std::string where = options_.address + ":" + std::to_string(options_.modbus_port);
    ctx_ = modbus_new_tcp(options_.address.c_str(), options_.modbus_port);
    if (!ctx_) {
        error = std::string("cannot create the Modbus TCP context: ") + modbus_strerror(errno);
        return false;
    }
    // libmodbus pauses for the response timeout before answering some malformed
    // requests; keep that pause short so one bad client does not stall the others.
    modbus_set_response_timeout(ctx_, 0, 10000);
    modbus_listen_ = modbus_tcp_listen(ctx_, 32);
    if (modbus_listen_ < 0) {
        error = "cannot listen for Modbus TCP on " + where + ": " + std::strerror(errno);
        return false;
    }
    modbus_port_ = bound_port(modbus_listen_);

    remote_listen_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (remote_listen_ < 0) {
        error = std::string("cannot create the remote frame socket: ") + std::strerror(errno);
        return false;
    }
    int on = 1;
    setsockopt(remote_listen_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(options_.remote_port));
    inet_pton(AF_INET, options_.address.c_str(), &addr.sin_addr);
    const std::string remote_where = options_.address + ":" + std::to_string(options_.remote_port);
    if (bind(remote_listen_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(remote_listen_, 32) != 0) {
        error = "cannot listen for remote frames on " + remote_where + ": " + std::strerror(errno);
        return false;
    }
    remote_port_ = bound_port(remote_listen_);

    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sink_) != 0) {
        error = std::string("cannot create the response socket pair: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void Server::close_client(std::vector<Client> &list, int fd, const char *what, const std::string &why)
{
    auto it = std::find_if(list.begin(), list.end(), [fd](const Client &c) { return c.fd == fd; });
    if (it == list.end())
        return;
    log_.traffic(std::string(what) + " " + it->peer + " disconnected (" + why + ")");
    close(fd);
    list.erase(it);
}

void Server::accept_modbus()
{
    int fd = modbus_listen_;
    int s = modbus_tcp_accept(ctx_, &fd);
    if (s < 0) {
        log_.problem(std::string("modbus accept failed: ") + std::strerror(errno));
        return;
    }
    Client c;
    c.fd = s;
    c.peer = peer_of(s);
    c.last_input = Clock::now();
    log_.traffic("modbus " + c.peer + " connected");
    modbus_clients_.push_back(std::move(c));
}

void Server::accept_remote()
{
    int s = accept4(remote_listen_, nullptr, nullptr, SOCK_CLOEXEC);
    if (s < 0) {
        log_.problem(std::string("remote accept failed: ") + std::strerror(errno));
        return;
    }
    int on = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Client c;
    c.fd = s;
    c.peer = peer_of(s);
    c.last_input = Clock::now();
    log_.traffic("remote " + c.peer + " connected");
    remote_clients_.push_back(std::move(c));
}

std::vector<uint8_t> Server::drain_sink()
{
    std::vector<uint8_t> out;
    uint8_t buf[1024];
    while (true) {
        ssize_t n = recv(sink_[1], buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            out.insert(out.end(), buf, buf + n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;
    }
    return out;
}

bool Server::reply_via_sink(const uint8_t *query, int length, modbus_mapping_t *map, std::vector<uint8_t> &response)
{
    modbus_set_socket(ctx_, sink_[0]);
    int rc = map ? modbus_reply(ctx_, query, length, map)
                 : modbus_reply_exception(ctx_, query, MODBUS_EXCEPTION_GATEWAY_TARGET);
    modbus_set_socket(ctx_, -1);
    response = drain_sink();
    return rc >= 0 && !response.empty();
}

bool Server::serve_modbus(Client &client)
{
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    modbus_set_socket(ctx_, client.fd);
    int rc = modbus_receive(ctx_, query);
    modbus_set_socket(ctx_, -1);
    if (rc < 0) {
        int err = errno;
        if (err != ECONNRESET)
            log_.problem("modbus " + client.peer + ": " + modbus_strerror(err) + "; closing the connection");
        return false;
    }
    if (rc == 0)
        return true;
    const std::string who = "modbus " + client.peer;
    const int unit = query[6];
    if (log_.traffic_enabled())
        log_.traffic(who + " rx " + Log::hex(query, static_cast<size_t>(rc)));

    std::vector<uint8_t> response;
    if (unit == 0) {
        // Broadcast: executed on every station, never answered.
        size_t done = 0;
        for (modbus_mapping_t *m : stations_.all())
            if (reply_via_sink(query, rc, m, response))
                ++done;
        log_.traffic(who + " broadcast applied to " + std::to_string(done) + " station(s), no response");
        return true;
    }
    modbus_mapping_t *map = stations_.find(unit);
    if (!map)
        log_.problem(who + ": unit " + std::to_string(unit) + " is not served; answering exception 0x0B");
    if (!reply_via_sink(query, rc, map, response)) {
        log_.problem(who + ": no response could be built");
        return true;
    }
    if (log_.traffic_enabled())
        log_.traffic(who + " tx " + Log::hex(response.data(), response.size()));
    return send_all(client.fd, response.data(), response.size());
}

bool Server::serve_remote(Client &client)
{
    uint8_t buf[65536];
    ssize_t n = recv(client.fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return true;
    if (n <= 0)
        return false;
    client.pending.insert(client.pending.end(), buf, buf + n);
    client.last_input = Clock::now();
    const std::string who = "remote " + client.peer;

    while (!client.pending.empty()) {
        remote::Boundary b = remote::find_frame(client.pending.data(), client.pending.size());
        if (b.status == remote::Framing::NeedMore)
            break;
        if (b.status == remote::Framing::Malformed) {
            log_.problem(who + ": " + b.problem + "; discarding " + std::to_string(client.pending.size()) +
                         " received byte(s)");
            client.pending.clear();
            break;
        }
        const uint8_t *frame = client.pending.data();
        if (log_.traffic_enabled())
            log_.traffic(who + " rx " + Log::hex(frame, b.length));
        remote::Outcome out = remote::handle_frame(frame, b.length, stations_);
        if (out.problem)
            log_.problem(who + ": " + out.note);
        else
            log_.traffic(who + " " + out.note);
        if (out.send_reply) {
            if (log_.traffic_enabled())
                log_.traffic(who + " tx " + Log::hex(out.reply.data(), out.reply.size()));
            if (!send_all(client.fd, out.reply.data(), out.reply.size()))
                return false;
        }
        if (out.resync) {
            // After a bad sum the frame boundary itself is in doubt: start afresh.
            client.pending.clear();
            break;
        }
        client.pending.erase(client.pending.begin(), client.pending.begin() + static_cast<long>(b.length));
    }
    return true;
}

void Server::drop_stale_input(Clock::time_point now)
{
    for (auto &c : remote_clients_) {
        if (!c.pending.empty() && now - c.last_input > kStaleInput) {
            log_.problem("remote " + c.peer + ": discarding " + std::to_string(c.pending.size()) +
                         " byte(s) of an incomplete frame");
            c.pending.clear();
        }
    }
}

void Server::tick(Clock::time_point now)
{
    if (options_.freeze || now < next_tick_)
        return;
    ++ticks_;
    for (modbus_mapping_t *m : stations_.all())
        set_moving_values(m, ticks_);
    next_tick_ += std::chrono::milliseconds(kTickMilliseconds);
    if (next_tick_ <= now)
        next_tick_ = now + std::chrono::milliseconds(kTickMilliseconds);
}

void Server::run(int wake_fd)
{
    next_tick_ = Clock::now() + std::chrono::milliseconds(kTickMilliseconds);
    std::vector<pollfd> fds;
    while (true) {
        fds.clear();
        fds.push_back({wake_fd, POLLIN, 0});
        fds.push_back({modbus_listen_, POLLIN, 0});
        fds.push_back({remote_listen_, POLLIN, 0});
        for (auto &c : modbus_clients_)
            fds.push_back({c.fd, POLLIN, 0});
        const size_t first_modbus = fds.size() - modbus_clients_.size();
        const size_t first_remote = fds.size();
        for (auto &c : remote_clients_)
            fds.push_back({c.fd, POLLIN, 0});

        Clock::time_point now = Clock::now();
        int timeout = kTickMilliseconds;
        if (!options_.freeze) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next_tick_ - now).count();
            timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(left + 1, kTickMilliseconds)));
        }
        int rc = poll(fds.data(), fds.size(), timeout);
        if (rc < 0 && errno != EINTR) {
            log_.problem(std::string("poll failed: ") + std::strerror(errno));
            return;
        }
        now = Clock::now();
        tick(now);
        if (rc <= 0) {
            drop_stale_input(now);
            continue;
        }
        if (fds[0].revents)
            return;
        if (fds[1].revents & POLLIN)
            accept_modbus();
        if (fds[2].revents & POLLIN)
            accept_remote();

        std::vector<int> ready_modbus;
        std::vector<int> ready_remote;
        for (size_t i = first_modbus; i < fds.size(); ++i) {
            if (!fds[i].revents)
                continue;
            (i < first_remote ? ready_modbus : ready_remote).push_back(fds[i].fd);
        }
        for (int fd : ready_modbus) {
            auto it = std::find_if(modbus_clients_.begin(), modbus_clients_.end(),
                                   [fd](const Client &c) { return c.fd == fd; });
            if (it != modbus_clients_.end() && !serve_modbus(*it))
                close_client(modbus_clients_, fd, "modbus", "connection closed");
        }
        for (int fd : ready_remote) {
            auto it = std::find_if(remote_clients_.begin(), remote_clients_.end(),
                                   [fd](const Client &c) { return c.fd == fd; });
            if (it != remote_clients_.end() && !serve_remote(*it))
                close_client(remote_clients_, fd, "remote", "connection closed");
        }
        drop_stale_input(Clock::now());
    }
}

} // namespace plcsim
