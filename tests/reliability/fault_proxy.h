// A proxy on loopback that injects faults into the replies, for Modbus TCP
// or the driver's remote frame.
//
// The host connects to the proxy; for every connection the proxy opens its
// own connection to the real peer (plcsim). Requests go through untouched
// and at once. Replies are cut into frames (Modbus TCP: by the MBAP header
// and its length field; remote frame: by the reply length each request
// calls for, in the order of the requests) and, while faults are switched
// on, each frame is treated as a seeded random schedule says: forwarded,
// dropped, delayed (within the host's time-out or beyond it), truncated,
// duplicated, corrupted (one byte changed), held back and sent together with
// the next reply (before or after it), preceded by the connection's previous
// reply, or the connection is closed instead of forwarding it (with nothing
// or with part of the reply sent first), or the reply is sent and the
// connection closed a little later, while the host is idle. Single replies
// can also be given a fault by their number (script()), for tests that need
// one exact event.
//
// Replies due at the same time leave in one send, as a peer that writes them
// back to back would have them arrive.
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

#include "remote_frame.h"

#include <array>
#include <deque>
#include <map>
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
    Stale,       // the connection's previous reply goes out again, in one piece with this one
    Late,        // held back; after the delay it goes out in front of the next reply to
                 // another request (one with other bytes), as a peer that answers in order
                 // but was slow on one request sends it while the host waits for another
    Count
};

inline const char *fault_name(Fault f)
{
    static const char *const names[] = {"drop",    "delay_within", "delay_beyond", "truncate",   "duplicate", "corrupt",
                                        "reorder", "close",        "close_mid",    "close_idle", "stale",     "late"};
    return f < Fault::Count ? names[int(f)] : "?";
}

// How replies are cut into frames.
enum class Framing { Modbus, Remote };

class FaultProxy {
public:
    using Clock = std::chrono::steady_clock;

    // upstream_port: the real peer on 127.0.0.1. fault_percent: share of
    // replies that get a fault while faults are on. host_timeout: the host's
    // per-request time-out, which the delays are measured against. kinds:
    // the faults to choose from (all when empty).
    FaultProxy(int upstream_port, uint32_t seed, int fault_percent, std::chrono::milliseconds host_timeout,
               std::vector<Fault> kinds = {}, Framing framing = Framing::Modbus)
        : upstream_port_(upstream_port), rng_(seed), fault_percent_(fault_percent), host_timeout_(host_timeout),
          kinds_(std::move(kinds)), framing_(framing)
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

    // Corrupt changes only bytes a reply check can see (the Modbus TCP
    // header and function code, the remote reply's first three bytes). Data
    // bytes have no check in either format (TCP's own checksum guards a real
    // link), so a test that looks at every value sets this.
    void set_corrupt_header_only(bool on) { corrupt_header_only_.store(on); }

    // Gives reply number `n` (1 for the first reply from the peer, counted
    // over all connections) the fault `f`, whether faults are on or not;
    // DelayWithin and DelayBeyond then wait exactly `delay`. Call before the
    // reply arrives.
    void script(uint64_t n, Fault f, std::chrono::milliseconds delay = std::chrono::milliseconds(0))
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script_[n] = Scripted{f, delay};
    }

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

    struct Scripted {
        Fault fault;
        std::chrono::milliseconds delay;
    };

    struct Session {
        int client = -1;
        int upstream = -1;
        std::vector<uint8_t> from_client;   // remote frame: request bytes not yet cut into frames
        std::deque<size_t> reply_lengths;   // remote frame: reply length of each request forwarded
        std::vector<uint8_t> last_reply;    // the last reply forwarded as it came
        std::vector<uint8_t> from_upstream; // bytes not yet cut into frames
        std::vector<Outgoing> out;          // to the client, by due time
        bool holding = false;
        std::vector<uint8_t> held; // a reply held back for reordering
        std::vector<uint8_t> late; // a reply held back by Late
        Clock::time_point late_due{};
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
        const uint64_t number = ++replies_;
        const auto now = Clock::now();
        if (!s.late.empty() && now >= s.late_due && frame != s.late) {
            enqueue(s, now, std::move(s.late));
            s.late.clear();
        }
        std::vector<uint8_t> previous = std::move(s.last_reply);
        s.last_reply = frame;
        Scripted scripted{Fault::Count, std::chrono::milliseconds(0)};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = script_.find(number);
            if (it != script_.end()) {
                scripted = it->second;
                script_.erase(it);
            }
        }
        if (scripted.fault != Fault::Count) {
            count(scripted.fault);
            apply(s, scripted.fault, std::move(frame), std::move(previous), now, scripted.delay, 0, 1);
            return;
        }
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
        std::chrono::milliseconds delay(0);
        if (f == Fault::DelayWithin)
            delay = std::chrono::milliseconds(timeout_ms * (20 + p1 % 51) / 100);
        else if (f == Fault::DelayBeyond || f == Fault::Late)
            delay = std::chrono::milliseconds(timeout_ms + 20 + p1 % 231);
        apply(s, f, std::move(frame), std::move(previous), now, delay, p1, p2);
    }

    // Bytes at the start of a reply that a reply check looks at.
    size_t header_bytes() const { return framing_ == Framing::Modbus ? 8 : 3; }

    void apply(Session &s, Fault f, std::vector<uint8_t> frame, std::vector<uint8_t> previous, Clock::time_point now,
               std::chrono::milliseconds delay, int p1, int p2)
    {
        const size_t prefix = frame.size() > 1 ? 1 + size_t(p1) % (frame.size() - 1) : 0;
        switch (f) {
        case Fault::Drop: break;
        case Fault::DelayWithin:
        case Fault::DelayBeyond: enqueue(s, now + delay, std::move(frame)); break;
        case Fault::Truncate:
            frame.resize(prefix);
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Duplicate:
            enqueue(s, now, frame);
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Corrupt: {
            const size_t span = corrupt_header_only_.load() ? std::min(frame.size(), header_bytes()) : frame.size();
            if (span > 0)
                frame[size_t(p1) % span] ^= uint8_t(p2);
            enqueue(s, now, std::move(frame));
            break;
        }
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
        case Fault::Late:
            s.late = std::move(frame);
            s.late_due = now + delay;
            break;
        case Fault::Stale:
            if (!previous.empty())
                enqueue(s, now, std::move(previous));
            enqueue(s, now, std::move(frame));
            break;
        case Fault::Count: break;
        }
    }

    // Cuts the bytes from the peer into reply frames.
    void cut_frames(Session &s)
    {
        if (framing_ == Framing::Modbus)
            cut_modbus_frames(s);
        else
            cut_remote_frames(s);
    }

    // Modbus TCP: a 7-byte MBAP header, then length - 1 more bytes. A length
    // field out of range takes the rest.
    void cut_modbus_frames(Session &s)
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

    // Remote frame: replies come in the order of the requests, each as long
    // as its request calls for (plcsim answers every request of a served
    // station that is not a broadcast).
    void cut_remote_frames(Session &s)
    {
        auto &b = s.from_upstream;
        while (!s.reply_lengths.empty() && !s.dead) {
            const size_t total = s.reply_lengths.front();
            if (b.size() < total)
                return;
            s.reply_lengths.pop_front();
            if (total == 0)
                continue;
            std::vector<uint8_t> frame(b.begin(), b.begin() + long(total));
            b.erase(b.begin(), b.begin() + long(total));
            on_reply(s, std::move(frame));
        }
    }

    // Remote frame: notes the reply length of every whole request the host
    // has sent (a read: 3 header bytes, the data, 2 trailing bytes; a write:
    // 8 bytes; station 0: none).
    void note_requests(Session &s, const uint8_t *data, size_t size)
    {
        if (framing_ != Framing::Remote)
            return;
        auto &b = s.from_client;
        b.insert(b.end(), data, data + size);
        for (;;) {
            const auto boundary = plcsim::remote::find_frame(b.data(), b.size());
            if (boundary.status == plcsim::remote::Framing::NeedMore)
                return;
            if (boundary.status == plcsim::remote::Framing::Malformed) {
                b.clear();
                return;
            }
            plcsim::remote::Request r;
            if (plcsim::remote::decode(b.data(), boundary.length, r)) {
                size_t reply = 0;
                if (r.station != 0)
                    reply = r.rw_flag == 0 ? 5 + plcsim::remote::read_data_length(r.kind, r.count) : 8;
                s.reply_lengths.push_back(reply);
            }
            b.erase(b.begin(), b.begin() + long(boundary.length));
        }
    }

    // Sends what is due, in order of enqueueing among the due ones, in one
    // piece.
    void flush(Session &s, Clock::time_point now)
    {
        std::vector<uint8_t> piece;
        bool close_after = false;
        for (size_t i = 0; i < s.out.size();) {
            if (s.out[i].due > now) {
                ++i;
                continue;
            }
            Outgoing o = std::move(s.out[i]);
            s.out.erase(s.out.begin() + long(i));
            piece.insert(piece.end(), o.bytes.begin(), o.bytes.end());
            if (o.close_after) {
                close_after = true;
                break;
            }
        }
        if (!piece.empty() && !send_all(s.client, piece.data(), piece.size())) {
            close_session(s);
            return;
        }
        if (close_after)
            close_session(s);
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
                        note_requests(s, buf, size_t(n));
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
    const Framing framing_;
    std::atomic<bool> corrupt_header_only_{false};
    std::map<uint64_t, Scripted> script_; // under mutex_
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
