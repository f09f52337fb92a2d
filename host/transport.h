// The host's transport: one TCP connection to a PLC endpoint, plain POSIX
// sockets. It owns connecting (with a time-out and a back-off between failed
// attempts), sending a whole frame, reading with an exact deadline, and
// draining what is waiting. It knows nothing of frames or requests; the link
// layer (link.h) puts the framing and pairing rules on top.
//
// Plain sockets rather than QTcpSocket: the communication thread then needs
// no Qt event loop, and every wait has an exact deadline (one poll() per
// read), so a short, long or garbled reply reaches the driver exactly as it
// arrived.
#ifndef PLCHOST_TRANSPORT_H
#define PLCHOST_TRANSPORT_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace plchost {

using Clock = std::chrono::steady_clock;

enum class ReadStatus { Complete, TimedOut, Closed };

// How long connecting may take and how the attempts after a failure spread.
struct ConnectTimings {
    std::chrono::milliseconds connect_timeout{1000}; // one attempt
    std::chrono::milliseconds reconnect_min{100};    // first back-off step
    std::chrono::milliseconds reconnect_max{2000};   // back-off ceiling
};

// What ensure_connected() did.
enum class ConnectOutcome { AlreadyUp, Connected, Reconnected, Waiting, Failed };

class TcpConnection {
public:
    TcpConnection(std::string host, uint16_t port, ConnectTimings timings);
    ~TcpConnection();
    TcpConnection(const TcpConnection &) = delete;
    TcpConnection &operator=(const TcpConnection &) = delete;

    // One attempt now; on failure *error is "cannot connect to HOST:PORT: REASON".
    bool connect(std::string *error);
    // Connects when the back-off allows: the delay doubles after every failed
    // attempt up to reconnect_max and starts again from reconnect_min after a
    // success. The first attempt after a drop is made at once.
    ConnectOutcome ensure_connected();
    // Closes the socket. `dropped`: the connection was lost or given up while
    // up, so the next success counts as a reconnect.
    void close(bool dropped);
    bool connected() const { return connected_.load(); }
    // Defers the first attempt by one back-off step (after a failed start).
    void defer();

    bool send(const uint8_t *data, size_t size);
    // Reads exactly `want` more bytes (appending to out) before `deadline`.
    // With `try_first` bytes already there are taken without waiting; each
    // recv may take up to `room` bytes, so a reply that has arrived whole
    // costs one call.
    ReadStatus read_exact(size_t want, Clock::time_point deadline, std::vector<uint8_t> *out, bool try_first = false,
                          size_t room = 0);
    // Takes what else arrives until the line has been quiet for `idle`, at
    // most `limit` bytes and never past `deadline`.
    ReadStatus read_until_idle(std::chrono::milliseconds idle, size_t limit, Clock::time_point deadline,
                               std::vector<uint8_t> *out);
    // Whether bytes are waiting, without taking them.
    bool bytes_waiting() const;
    // Throws away what is waiting; returns how many bytes. A peer that
    // closed while idle shows here: the connection is closed (dropped).
    size_t drain();

    const std::string &host() const { return host_; }
    uint16_t port() const { return port_; }

private:
    ssize_t receive_some(size_t limit, std::vector<uint8_t> *out);

    std::string host_;
    uint16_t port_;
    ConnectTimings timings_;
    int fd_ = -1;
    std::atomic<bool> connected_{false}; // also read by other threads
    bool dropped_ = false;               // lost after having been up
    Clock::time_point next_attempt_{};
    std::chrono::milliseconds backoff_;
};

} // namespace plchost

#endif // PLCHOST_TRANSPORT_H
