// A Modbus TCP proxy on loopback that injects faults into the replies.
//
// The host connects to the proxy; for every connection the proxy opens its
// own connection to the real peer (plcsim). Requests go through untouched
// and at once. Replies are cut into Modbus TCP frames (MBAP header and its
// length field) and, while faults are switched on, each frame is treated as
// a seeded random schedule says: forwarded, dropped, delayed (within the
// host's time-out or beyond it), truncated, duplicated, corrupted (one byte
// changed), held back and sent together with the next reply (before or after
// it), or the connection is closed instead of forwarding it (with nothing or
// with part of the reply sent first), or the reply is sent and the
// connection closed a little later, while the host is idle.
//
// The schedule is a function of the seed and the order in which replies
// arrive, so a seed repeats the same sequence of decisions. One thread
// serves every connection with poll(); every wait is bounded.
#ifndef PLCDRIVER_RELIABILITY_FAULT_PROXY_H
#define PLCDRIVER_RELIABILITY_FAULT_PROXY_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace reliability {

enum class Fault {
    Drop,        // the reply is thrown away
    DelayWithin, // sent after 20 %..70 % of the host's time-out
    DelayBeyond, // sent 20..250 ms after the host's time-out has passed
    Truncate,    // only a prefix of the reply is sent
    Duplicate,   // the reply is sent twice
    Corrupt,     // one byte of the reply is changed
    Reorder,     // held back and sent with the next reply, before or after it
    Close,       // the connection is closed instead of sending the reply
    CloseMid,    // a prefix of the reply is sent, then the connection is closed
    CloseIdle,   // the reply is sent, the connection closed 1..20 ms later
    Count
};

inline const char *fault_name(Fault f)
{
    static const char *const names[] = {"drop",    "delay_within", "delay_beyond", "truncate",  "duplicate",
                                        "corrupt", "reorder",      "close",        "close_mid", "close_idle"};
    return f < Fault::Count ? names[int(f)] : "?";
}

class FaultProxy {
public:
    using Clock = std::chrono::steady_clock;

    // upstream_port: the real peer on 127.0.0.1. fault_percent: share of
    // replies that get a fault while faults are on. host_timeout: the host's
    // per-request time-out, which the delays are measured against. kinds:
    // the faults to choose from (all when empty).
    FaultProxy(int upstream_port, uint32_t seed, int fault_percent, std::chrono::milliseconds host_timeout,
               std::vector<Fault> kinds = {})
        : upstream_port_(upstream_port), rng_(seed), fault_percent_(fault_percent), host_timeout_(host_timeout),
          kinds_(std::move(kinds))
    {
        if (kinds_.empty())
            for (int i = 0; i < int(Fault::Count); ++i)
                kinds_.push_back(Fault(i));
        listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (listen_fd_ < 0)
            throw std::runtime_error("proxy: socket failed");
        int one = 1;
        ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = 0;
        if (::bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(listen_fd_, 8) != 0) {
            ::close(listen_fd_);
            throw std::runtime_error("proxy: bind/listen failed");
        }
        socklen_t len = sizeof a;
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~FaultProxy()
    {
        stop_.store(true);
        thread_.join();
        for (auto &s : sessions_)
            close_session(*s);
        ::close(listen_fd_);
    }

    FaultProxy(const FaultProxy &) = delete;
    FaultProxy &operator=(const FaultProxy &) = delete;

    int port() const { return port_; }

    // Faults on or off. When switched off, replies held back for reordering
    // are sent as they are (the host sees them as stale bytes).
    void set_faults(bool on) { faults_on_.store(on); }

    std::array<uint64_t, size_t(Fault::Count)> counts() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return counts_;
    }
    uint64_t total_faults() const
    {
        uint64_t n = 0;
        for (uint64_t c : counts())
            n += c;
        return n;
    }
    uint64_t replies() const { return replies_.load(); }
    uint64_t connections() const { return connections_.load(); }
    // Connections the proxy has closed (for whatever reason) so far.
    uint64_t closed() const { return closed_.load(); }

    std::string summary() const
    {
        std::ostringstream s;
        const auto c = counts();
        for (int i = 0; i < int(Fault::Count); ++i)
            s << (i ? " " : "") << fault_name(Fault(i)) << "=" << c[size_t(i)];
        return s.str();
    }

private:
    struct Outgoing {
        Clock::time_point due;
        std::vector<uint8_t> bytes;
        bool close_after = false; // close the session once these bytes are out
    };

    struct Session {
        int client = -1;
        int upstream = -1;
        std::vector<uint8_t> from_upstream; // bytes not yet cut into frames
        std::vector<Outgoing> out;          // to the client, by due time
        bool holding = false;
        std::vector<uint8_t> held; // a reply held back for reordering
        bool dead = false;
    };

    static bool send_all(int fd, const uint8_t *data, size_t size)
    {
        size_t sent = 0;
        for (int spins = 0; sent < size && spins < 1000; ++spins) {
            const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
            if (n > 0) {
                sent += size_t(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                pollfd p{fd, POLLOUT, 0};
                if (::poll(&p, 1, 100) <= 0)
                    return false;
                continue;
            }
            return false;
        }
        return sent == size;
    }

    int connect_upstream() const
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -1;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(uint16_t(upstream_port_));
        if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            ::close(fd);
            return -1;
        }
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        return fd;
    }

    void close_session(Session &s)
    {
        if (!s.dead)
            ++closed_;
        if (s.client >= 0)
            ::close(s.client);
        if (s.upstream >= 0)
            ::close(s.upstream);
        s.client = s.upstream = -1;
        s.dead = true;
    }

    void count(Fault f)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counts_[size_t(f)];
    }

    int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

    void enqueue(Session &s, Clock::time_point due, std::vector<uint8_t> bytes, bool close_after = false)
    {
        s.out.push_back(Outgoing{due, std::move(bytes), close_after});
    }

    // One whole reply frame from the peer: forward it or apply a fault.
    void on_reply(Session &s, std::vector<uint8_t> frame)
    {
        ++replies_;
        const auto now = Clock::now();
        if (!faults_on_.load()) {
            if (s.holding) {
                s.holding = false;
                enqueue(s, now, std::move(s.held));
            }
            enqueue(s, now, std::move(frame));
            return;
        }
        // The decision and its parameters are drawn for every reply in the
        // same order, whether a fault is applied or not, so the schedule
        // depends only on the seed and the reply count.
        const bool faulty = uniform(0, 99) < fault_percent_;
        const Fault f = kinds_[size_t(uniform(0, int(kinds_.size()) - 1))];
        const int p1 = uniform(0, 1 << 20);
        const int p2 = uniform(1, 255);
        const int timeout_ms = int(host_timeout_.count());

        if (s.holding) {
            // The held reply goes out with this one, in front of it or after it.
            s.holding = false;
            if (p1 & 1) {
                enqueue(s, now, std::move(s.held));
                enqueue(s, now, std::move(frame));
            } else {
                enqueue(s, now, std::move(frame));
                enqueue(s, now, std::move(s.held));
            }
            return;
        }
        if (!faulty) {
            enqueue(s, now, std::move(frame));
            return;
        }
        count(f);
        const size_t prefix = frame.size() > 1 ? 1 + size_t(p1) % (frame.size() - 1) : 0;
        switch (f) {
        case Fault::Drop: break;
        case Fault::DelayWithin:
            enqueue(s, now + std::chrono::milliseconds(timeout_ms * (20 + p1 % 51) / 100), std::move(frame));
            break;
        case Fault::DelayBeyond:
            enqueue(s, now + std::chrono::milliseconds(timeout_ms + 20 + p1 % 231), std::move(frame));
            break;
        case Fault::Truncate:
            frame.resize(prefix);
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Duplicate:
            enqueue(s, now, frame);
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Corrupt:
            frame[size_t(p1) % frame.size()] ^= uint8_t(p2);
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Reorder:
            s.holding = true;
            s.held = std::move(frame);
            break;
        case Fault::Close:
            s.out.clear();
            close_session(s);
            break;
        case Fault::CloseMid:
            frame.resize(prefix);
            enqueue(s, now, std::move(frame), true);
            break;
        case Fault::CloseIdle:
            enqueue(s, now, std::move(frame));
            enqueue(s, now + std::chrono::milliseconds(1 + p2 % 20), {}, true);
            break;
        case Fault::Count: break;
        }
    }

    // Cuts the bytes from the peer into frames: a 7-byte MBAP header, then
    // length - 1 more bytes. A length field out of range takes the rest.
    void cut_frames(Session &s)
    {
        auto &b = s.from_upstream;
        while (b.size() >= 7 && !s.dead) {
            const size_t length = (size_t(b[4]) << 8) | b[5];
            const size_t total = (length >= 2 && length <= 260) ? 6 + length : b.size();
            if (b.size() < total)
                return;
            std::vector<uint8_t> frame(b.begin(), b.begin() + long(total));
            b.erase(b.begin(), b.begin() + long(total));
            on_reply(s, std::move(frame));
        }
    }

    // Sends what is due, in order of enqueueing among the due ones.
    void flush(Session &s, Clock::time_point now)
    {
        for (size_t i = 0; i < s.out.size() && !s.dead;) {
            if (s.out[i].due > now) {
                ++i;
                continue;
            }
            Outgoing o = std::move(s.out[i]);
            s.out.erase(s.out.begin() + long(i));
            if (!o.bytes.empty() && !send_all(s.client, o.bytes.data(), o.bytes.size())) {
                close_session(s);
                return;
            }
            if (o.close_after) {
                close_session(s);
                return;
            }
        }
    }

    void accept_all()
    {
        for (int guard = 0; guard < 16; ++guard) {
            const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0)
                return;
            auto s = std::make_unique<Session>();
            s->client = fd;
            s->upstream = connect_upstream();
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            if (s->upstream < 0) {
                close_session(*s);
                continue;
            }
            ++connections_;
            sessions_.push_back(std::move(s));
        }
    }

    void serve()
    {
        uint8_t buf[2048];
        while (!stop_.load()) {
            std::vector<pollfd> fds;
            fds.push_back({listen_fd_, POLLIN, 0});
            auto now = Clock::now();
            int wait_ms = 20;
            for (auto &s : sessions_) {
                fds.push_back({s->client, POLLIN, 0});
                fds.push_back({s->upstream, POLLIN, 0});
                for (const Outgoing &o : s->out) {
                    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(o.due - now).count();
                    wait_ms = std::max(0, std::min<int>(wait_ms, int(left) + 1));
                }
            }
            const int r = ::poll(fds.data(), nfds_t(fds.size()), wait_ms);
            if (r < 0 && errno != EINTR)
                break;
            if (r > 0 && (fds[0].revents & POLLIN))
                accept_all();
            for (size_t i = 0; r > 0 && i < sessions_.size() && 1 + 2 * i + 1 < fds.size(); ++i) {
                Session &s = *sessions_[i];
                const short from_client = fds[1 + 2 * i].revents;
                const short from_peer = fds[2 + 2 * i].revents;
                if (!s.dead && from_client) {
                    const ssize_t n = ::recv(s.client, buf, sizeof buf, MSG_DONTWAIT);
                    if (n > 0) {
                        if (!send_all(s.upstream, buf, size_t(n)))
                            close_session(s);
                    } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                        close_session(s);
                    }
                }
                if (!s.dead && from_peer) {
                    const ssize_t n = ::recv(s.upstream, buf, sizeof buf, MSG_DONTWAIT);
                    if (n > 0) {
                        s.from_upstream.insert(s.from_upstream.end(), buf, buf + n);
                        cut_frames(s);
                    } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                        close_session(s);
                    }
                }
            }
            now = Clock::now();
            for (auto &s : sessions_) {
                if (!s->dead && !faults_on_.load() && s->holding) {
                    s->holding = false;
                    enqueue(*s, now, std::move(s->held));
                }
                if (!s->dead)
                    flush(*s, now);
            }
            for (size_t i = 0; i < sessions_.size();) {
                if (sessions_[i]->dead)
                    sessions_.erase(sessions_.begin() + long(i));
                else
                    ++i;
            }
        }
    }

    const int upstream_port_;
    std::mt19937 rng_;
    const int fault_percent_;
    const std::chrono::milliseconds host_timeout_;
    std::vector<Fault> kinds_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> faults_on_{true};
    std::atomic<uint64_t> replies_{0};
    std::atomic<uint64_t> connections_{0};
    std::atomic<uint64_t> closed_{0};
    mutable std::mutex mutex_;
    std::array<uint64_t, size_t(Fault::Count)> counts_{};
    std::vector<std::unique_ptr<Session>> sessions_; // proxy thread only
};

} // namespace reliability

#endif // PLCDRIVER_RELIABILITY_FAULT_PROXY_H
