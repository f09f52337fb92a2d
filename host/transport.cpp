#include "transport.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace plchost {

namespace {

int remaining_ms(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : int(left);
}

// Waits until fd is readable. 1 readable, 0 deadline, -1 error.
int wait_readable(int fd, int timeout_ms)
{
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int r = ::poll(&p, 1, timeout_ms);
        if (r < 0 && errno == EINTR)
            continue;
        return r < 0 ? -1 : (r == 0 ? 0 : 1);
    }
}

// One non-blocking connect to one resolved address within timeout_ms.
// Returns the socket, or -1 with *why set.
int connect_one(const addrinfo *ai, int timeout_ms, std::string *why)
{
    const int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
    if (fd < 0) {
        *why = std::strerror(errno);
        return -1;
    }
    int err = ::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0 ? 0 : errno;
    if (err == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        const int r = ::poll(&p, 1, timeout_ms);
        socklen_t len = sizeof err;
        if (r == 0)
            err = ETIMEDOUT;
        else if (r < 0)
            err = errno;
        else
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    }
    if (err != 0) {
        *why = err == ETIMEDOUT ? "Connection timed out" : std::strerror(err);
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

TcpConnection::TcpConnection(std::string host, uint16_t port, ConnectTimings timings)
    : host_(std::move(host)), port_(port), timings_(timings), backoff_(timings.reconnect_min)
{
}

TcpConnection::~TcpConnection()
{
    close(false);
}

bool TcpConnection::connect(std::string *error)
{
    const std::string where = host_ + ":" + std::to_string(port_);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res = nullptr;
    const int gai = ::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &res);
    if (gai != 0) {
        if (error)
            *error = "cannot connect to " + where + ": " + ::gai_strerror(gai);
        return false;
    }
    std::string why = "no address";
    int fd = -1;
    for (addrinfo *ai = res; ai && fd < 0; ai = ai->ai_next)
        fd = connect_one(ai, int(timings_.connect_timeout.count()), &why);
    ::freeaddrinfo(res);
    if (fd < 0) {
        if (error)
            *error = "cannot connect to " + where + ": " + why;
        return false;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    fd_ = fd;
    connected_.store(true);
    backoff_ = timings_.reconnect_min;
    return true;
}

ConnectOutcome TcpConnection::ensure_connected()
{
    if (connected_.load())
        return ConnectOutcome::AlreadyUp;
    if (Clock::now() < next_attempt_)
        return ConnectOutcome::Waiting;
    if (connect(nullptr)) {
        const bool again = dropped_;
        dropped_ = false;
        return again ? ConnectOutcome::Reconnected : ConnectOutcome::Connected;
    }
    next_attempt_ = Clock::now() + backoff_;
    backoff_ = std::min(backoff_ * 2, timings_.reconnect_max);
    return ConnectOutcome::Failed;
}

void TcpConnection::close(bool dropped)
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    if (connected_.exchange(false) && dropped) {
        // The first attempt to reconnect is made at once; the back-off
        // starts with the attempts that fail.
        dropped_ = true;
        backoff_ = timings_.reconnect_min;
        next_attempt_ = Clock::now();
    }
}

void TcpConnection::defer()
{
    next_attempt_ = Clock::now() + backoff_;
}

bool TcpConnection::send(const uint8_t *data, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        const ssize_t n = ::send(fd_, data + sent, size - sent, MSG_NOSIGNAL);
        if (n >= 0) {
            sent += size_t(n);
            continue;
        }
        if (errno == EINTR)
            continue;
        pollfd p{fd_, POLLOUT, 0};
        if ((errno != EAGAIN && errno != EWOULDBLOCK) || ::poll(&p, 1, 1000) <= 0)
            return false;
    }
    return true;
}

// One recv of at most `limit` bytes, appended to out: the bytes taken, 0
// when none were waiting after all, -1 when the connection has ended.
ssize_t TcpConnection::receive_some(size_t limit, std::vector<uint8_t> *out)
{
    uint8_t buf[512];
    const ssize_t n = ::recv(fd_, buf, std::min(limit, sizeof buf), MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
        return 0;
    if (n <= 0)
        return -1;
    out->insert(out->end(), buf, buf + n);
    return n;
}

ReadStatus TcpConnection::read_exact(size_t want, Clock::time_point deadline, std::vector<uint8_t> *out, bool try_first,
                                     size_t room)
{
    size_t got = 0;
    bool wait = !try_first;
    room = std::max(room, want);
    while (got < want) {
        if (wait) {
            const int r = wait_readable(fd_, remaining_ms(deadline));
            if (r <= 0)
                return r == 0 ? ReadStatus::TimedOut : ReadStatus::Closed;
        }
        wait = true;
        const ssize_t n = receive_some(room - got, out);
        if (n < 0)
            return ReadStatus::Closed;
        got += size_t(n);
    }
    return ReadStatus::Complete;
}

ReadStatus TcpConnection::read_until_idle(std::chrono::milliseconds idle, size_t limit, Clock::time_point deadline,
                                          std::vector<uint8_t> *out)
{
    size_t got = 0;
    while (got < limit) {
        const int r = wait_readable(fd_, std::min(int(idle.count()), remaining_ms(deadline)));
        if (r <= 0)
            return r == 0 ? ReadStatus::Complete : ReadStatus::Closed;
        const ssize_t n = receive_some(limit - got, out);
        if (n < 0)
            return ReadStatus::Closed;
        got += size_t(n);
    }
    return ReadStatus::Complete;
}

bool TcpConnection::bytes_waiting() const
{
    uint8_t byte = 0;
    return fd_ >= 0 && ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

size_t TcpConnection::drain()
{
    uint8_t buf[512];
    size_t drained = 0;
    for (;;) {
        const ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            drained += size_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        // The end of the stream (the peer closed while idle) or an error:
        // the connection is gone.
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            close(true);
        return drained;
    }
}

} // namespace plchost
