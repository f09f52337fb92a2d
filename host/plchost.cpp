// The reference host: sockets, the communication thread and the driver's
// set-up, using only the exported interface of libplcdriver.so.
//
// Sockets are plain POSIX sockets rather than QTcpSocket: the communication
// thread then needs no Qt event loop, every wait has an exact deadline (one
// poll() per read), and the framing of a reply (MBAP header, then its length
// field; or exactly the reply length the driver expects) is done byte for
// byte in this file, so a short, long or garbled reply reaches the driver
// exactly as it arrived.
#include "plchost.h"
#include "reply_framing.h"

#include "Communication_Protocol.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace plchost {

namespace {

using Clock = std::chrono::steady_clock;

// The one live host. The driver calls its callbacks as plain C functions
// without a context pointer, so they find the host here.
std::atomic<Host *> g_instance{nullptr};

int remaining_ms(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : int(left);
}

enum class ReadStatus { Complete, TimedOut, Closed };

// Reads exactly `want` bytes into `out` (appending) before `deadline`.
// Returns how the read ended; out holds whatever arrived. With `try_first`
// the bytes are taken at once when they are already there (the rest of a
// reply whose header has just arrived usually is), and poll() is only
// called when the socket has nothing yet. With `room` above `want`, each
// recv may take up to `room` bytes in all, so a reply that has arrived in
// one piece is read by one call; the read still ends once `want` are in.
ReadStatus read_exact(int fd, size_t want, Clock::time_point deadline, std::vector<uint8_t> *out,
                      bool try_first = false, size_t room = 0)
{
    size_t got = 0;
    uint8_t buf[512];
    bool wait = !try_first;
    room = std::max(room, want);
    while (got < want) {
        if (wait) {
            pollfd p{fd, POLLIN, 0};
            const int r = ::poll(&p, 1, remaining_ms(deadline));
            if (r < 0) {
                if (errno == EINTR)
                    continue;
                return ReadStatus::Closed;
            }
            if (r == 0)
                return ReadStatus::TimedOut;
        }
        wait = true;
        const size_t chunk = std::min(room - got, sizeof buf);
        const ssize_t n = ::recv(fd, buf, chunk, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            return ReadStatus::Closed;
        }
        if (n == 0)
            return ReadStatus::Closed;
        out->insert(out->end(), buf, buf + n);
        got += size_t(n);
    }
    return ReadStatus::Complete;
}

// Collects what else arrives until the line has been quiet for `idle`,
// at most `limit` bytes and never past `deadline`.
ReadStatus read_until_idle(int fd, std::chrono::milliseconds idle, size_t limit, Clock::time_point deadline,
                           std::vector<uint8_t> *out)
{
    uint8_t buf[512];
    size_t got = 0;
    while (got < limit) {
        const int wait = std::min(int(idle.count()), remaining_ms(deadline));
        pollfd p{fd, POLLIN, 0};
        const int r = ::poll(&p, 1, wait);
        if (r < 0) {
            if (errno == EINTR)
                continue;
            return ReadStatus::Closed;
        }
        if (r == 0)
            return ReadStatus::Complete;
        const ssize_t n = ::recv(fd, buf, std::min(sizeof buf, limit - got), 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            return ReadStatus::Closed;
        }
        if (n == 0)
            return ReadStatus::Closed;
        out->insert(out->end(), buf, buf + n);
        got += size_t(n);
    }
    return ReadStatus::Complete;
}

// Whether bytes are waiting to be read, without taking them.
bool bytes_waiting(int fd)
{
    uint8_t byte = 0;
    return ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

bool send_all(int fd, const uint8_t *data, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                pollfd p{fd, POLLOUT, 0};
                if (::poll(&p, 1, 1000) <= 0)
                    return false;
                continue;
            }
            return false;
        }
        sent += size_t(n);
    }
    return true;
}

} // namespace

// A TCP connection to one endpoint, used by the communication thread only
// (connected_ is also read by other threads, hence atomic).
struct Host::Connection {
    Endpoint endpoint;
    int fd = -1;
    std::atomic<bool> connected{false};
    bool dropped = false; // lost after having been up: the next success is a reconnect
    Clock::time_point next_attempt{};
    std::chrono::milliseconds backoff{0};
};

// How reading a reply ended.
struct Host::Received {
    ReadStatus status = ReadStatus::Complete;
    // The byte stream can no longer be paired with the requests (a reply cut
    // off, one that may still come, bytes with no frame boundary): the
    // connection is opened afresh before the next request.
    bool out_of_step = false;
};

// The C callbacks the driver calls from inside DataCom (communication thread,
// driver list lock held). They only note the event; the host delivers it
// after DataCom has returned, so user hooks may call into the driver again.
struct CallbackBridge {
    static void write_done(int host_handle, int source_type, int source_id, int result)
    {
        if (Host *h = g_instance.load())
            h->events_.push_back({true, host_handle, source_type, source_id, result});
    }
    static void read_done(QList<RW_VAR> *, int source_type, int flag)
    {
        if (Host *h = g_instance.load())
            h->events_.push_back({false, 0, source_type, 0, flag});
    }
};

Host *Host::instance()
{
    return g_instance.load();
}

Host::Host(HostConfig config) : config_(std::move(config)), com_info_(new ComInfo)
{
    if (config_.endpoints.empty())
        config_.endpoints.push_back(Endpoint{});
    Host *expected = nullptr;
    if (!g_instance.compare_exchange_strong(expected, this))
        throw std::logic_error("plchost: only one Host may exist at a time (the driver is one global object)");

    for (const Endpoint &e : config_.endpoints) {
        auto c = std::make_unique<Connection>();
        c->endpoint = e;
        c->backoff = config_.reconnect_min;
        connections_.push_back(std::move(c));
    }

    std::memset(com_info_.get(), 0, sizeof(ComInfo));
    com_info_->max_read_units = config_.max_read_units;
    com_info_->default_station = config_.default_station;
    com_info_->retry_limit = config_.retry_limit;
    com_info_->station_from_address = config_.station_from_address ? 1 : 0;
    com_info_->link_mode = int(config_.link_mode);
    com_info_->local_link_id = 0;
    com_info_->write_mode = config_.write_to_plc ? 2 : 1;
    com_info_->host_handle = config_.host_handle;
    SetComInfo(com_info_.get());

    // Local areas of this runtime: the driver only stores their addresses.
    local_bits_.assign(8192, 0);
    local_words_.assign(8192, 0);
    local_third_.assign(8192, 0);
    FlashLocalRegister(local_bits_.data(), local_words_.data(), local_third_.data());
    RegistCallBackFuncIntf(&CallbackBridge::write_done, &CallbackBridge::read_done);

    // Start from a known driver state: every station on, no cyclic list.
    EnCommStation(-1, 1);
    QList<HostReadVar> none;
    ReCreatReadVarList(&none);
}

Host::~Host()
{
    stop();
    for (size_t i = 0; i < connections_.size(); ++i)
        close_connection(i, false);
    g_instance.store(nullptr);
}

int Host::parse_address(int kind, const std::string &text)
{
    return PLCAddressChangeIntef(kind, QString::fromStdString(text));
}

// How a tag is described to the driver's read lists.
//
// Bit kinds: the driver's cyclic and one-shot lists keep a bit kind (0, 1)
// in the byte numbers of its converted address, and its request builders send
// those numbers as bit address and bit count. To read bits b..b+n-1 the host
// therefore describes them as "b.0" with a count of 8n: the conversion turns
// that into address b and count n, which go on the wire as they should.
//
// Remote frame: the driver accepts no remote reply shorter than 8 bytes (a
// 3-byte header, the data, 2 trailing bytes), so a read of fewer than 3 data
// bytes could never succeed. On that link the host asks for at least 3 data
// bytes (24 bits, 2 words); the extra units are read along and not shown.
static void describe_for_reading(const Tag &tag, bool remote, QString *address, int *count)
{
    *address = QString::fromStdString(tag.address);
    *count = tag.count;
    if (remote) {
        switch (tag.kind) {
        case 0:
        case 1: *count = std::max(*count, 24); break;
        case 2:
        case 3:
        case 4: *count = std::max(*count, 2); break;
        case 5: *count = std::max(*count, 32); break;
        case 6:
        case 7:
        case 8: *count = std::max(*count, 4); break;
        default: break;
        }
    }
    if (tag.kind == 0 || tag.kind == 1) {
        const int bit = PLCAddressChangeIntef(tag.kind, *address);
        if (bit >= 0) {
            *address = QString::number(bit) + QStringLiteral(".0");
            *count *= 8;
        }
    }
}

int Host::set_tags(const std::vector<Tag> &tags, std::string *error)
{
    int accepted = 0;
    bool reported = false;
    for (const Tag &t : tags) {
        if (parse_address(t.kind, t.address) >= 0) {
            ++accepted;
        } else if (error && !reported) {
            *error = "invalid address '" + t.address + "' for kind " + std::to_string(t.kind) +
                     (t.name.empty() ? std::string() : " (tag " + t.name + ")");
            reported = true;
        }
    }
    std::unique_lock<std::mutex> lock(mutex_);
    pending_tags_ = tags;
    pending_tags_set_ = true;
    apply_pending(lock);
    return accepted;
}

bool Host::add_read_block(int kind, int start, int count, int station)
{
    if (kind < 0 || kind > 4 || start < 0 || count < 1 || station < 0 || station > 255)
        return false;
    std::unique_lock<std::mutex> lock(mutex_);
    pending_blocks_.push_back({kind, start, count, station});
    apply_pending(lock);
    return true;
}

// With lock (on mutex_) held and tags or blocks just made pending: applies
// them now when the communication thread is not running, otherwise wakes the
// thread, which applies them before its next pass.
void Host::apply_pending(std::unique_lock<std::mutex> &lock)
{
    if (!running_) {
        lock.unlock();
        apply_tags_locked();
    } else {
        kicked_ = true;
        wake_cv_.notify_all();
    }
}

// Builds the driver's cyclic list from the pending tags and appends the
// pending blocks. Called before the thread starts or on the communication
// thread, because the driver writes the record's cycle flag while it
// rebuilds and AddListReadVar takes no lock.
void Host::apply_tags_locked()
{
    std::vector<Tag> tags;
    std::vector<ReadBlock> blocks;
    bool rebuild = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!pending_tags_set_ && pending_blocks_.empty())
            return;
        rebuild = pending_tags_set_;
        tags.swap(pending_tags_);
        pending_tags_set_ = false;
        blocks.swap(pending_blocks_);
    }
    if (rebuild) {
        QList<HostReadVar> list;
        for (const Tag &t : tags) {
            HostReadVar v;
            v.reg_kind = quint8(t.kind);
            v.station = quint8(t.station);
            describe_for_reading(t, config_.link_mode == LinkMode::Remote, &v.address_text, &v.count);
            v.name_text = QString::fromStdString(t.name);
            list.append(v);
        }
        cyclic_entries_.store(ReCreatReadVarList(&list));
    }
    for (const ReadBlock &b : blocks) {
        // The fields the rebuild gives its own entries.
        RW_VAR v;
        v.source_type = 0;
        v.source_id = -1;
        v.link_mode = com_info_->link_mode;
        v.link_id = com_info_->local_link_id;
        v.reg_kind = b.kind;
        v.start_addr = b.start;
        v.count = b.count;
        v.station = com_info_->station_from_address ? b.station : com_info_->default_station;
        v.address_text = QString::number(b.start);
        v.name_text = QStringLiteral("block");
        cyclic_entries_.store(AddListReadVar(&v));
    }
}

bool Host::start(bool require_connection, std::string *error)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (running_)
            return true;
    }
    for (size_t i = 0; i < connections_.size(); ++i) {
        std::string why;
        if (!try_connect(i, &why)) {
            std::lock_guard<std::mutex> lock(mutex_);
            ++stats_.connect_failures;
            if (require_connection) {
                if (error)
                    *error = why;
                for (size_t j = 0; j < i; ++j)
                    close_connection(j, false);
                return false;
            }
            connections_[i]->next_attempt = Clock::now() + connections_[i]->backoff;
        }
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = false;
        running_ = true;
    }
    thread_ = std::thread(&Host::run, this);
    return true;
}

void Host::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!running_)
            return;
        stop_ = true;
        wake_cv_.notify_all();
    }
    if (thread_.joinable())
        thread_.join();

    // Leave the driver idle for a later host: no cyclic list, and every
    // request still pending is given up at once (retry limit 0), so writes
    // and one-shot reads that never went out are reported as failed.
    QList<HostReadVar> none;
    ReCreatReadVarList(&none);
    cyclic_entries_.store(0);
    const int limit = com_info_->retry_limit;
    com_info_->retry_limit = 0;
    com_info_->retry_count = 0;
    for (int guard = 0; guard < 100000; ++guard) {
        Protocol *p = ComCommunication();
        if (!p)
            p = ComCommunication(); // the first null may only end a burst
        if (!p)
            break;
        // A request that expects no reply would pass with an empty one; a
        // one-byte answer fails its length check, so it too is given up
        // rather than reported as sent.
        QByteArray nothing = p->reply_len == 0 ? QByteArray(1, '\0') : QByteArray();
        DataCom(&nothing, nothing.size());
        std::vector<CallbackEvent> events;
        events.swap(events_);
        for (const CallbackEvent &e : events)
            if (e.write_done)
                notify_done(e.source_type, e.source_id, e.result);
    }
    com_info_->retry_limit = limit;
    com_info_->retry_count = 0;
    com_info_->cycle_done = 0;

    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    done_cv_.notify_all();
}

bool Host::running() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

bool Host::read(const Tag &tag, std::vector<uint8_t> *out) const
{
    QByteArray buf;
    const int ok =
        GetRegisterData(nullptr, tag.kind, QString::fromStdString(tag.address), tag.station, &buf, tag.count);
    out->assign(buf.constData(), buf.constData() + buf.size());
    return ok == 1;
}

int Host::write(const Tag &tag, const std::vector<uint8_t> &data, int source_type, int *source_id)
{
    int id;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        id = next_source_id_++;
        done_.erase({source_type, id});
    }
    if (source_id)
        *source_id = id;
    QByteArray bytes(reinterpret_cast<const char *>(data.data()), int(data.size()));
    const int r = SetRegisterData(QString::fromStdString(tag.name), tag.kind, QString::fromStdString(tag.address),
                                  tag.station, &bytes, tag.count, source_type, id);
    kick();
    // SetRegisterData answers the write list's size read after queueing; the
    // communication thread may have sent the write and taken it off the list
    // by then, so an accepted write can answer 0. It answers 1 here, and 0
    // keeps meaning that nothing was queued.
    if (r == 0 && config_.write_to_plc && tag.count > 0 && kind_writable(tag.kind) &&
        parse_address(tag.kind, tag.address) >= 0)
        return 1;
    return r;
}

bool Host::read_once(const Tag &tag, int source_type, int *source_id)
{
    RW_VAR v;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        v.source_id = next_source_id_++;
        done_.erase({source_type, v.source_id});
    }
    if (source_id)
        *source_id = v.source_id;
    v.source_type = source_type;
    v.link_mode = com_info_->link_mode;
    v.link_id = com_info_->local_link_id;
    v.name_text = QString::fromStdString(tag.name);
    v.reg_kind = tag.kind;
    v.station = tag.station;
    describe_for_reading(tag, config_.link_mode == LinkMode::Remote, &v.address_text, &v.count);
    const int r = AddListOnceReadVar(&v, 0);
    kick();
    // 0 is the answer for an address that does not parse, but also the list's
    // size when the communication thread has served or dropped (switched-off
    // station) the entry before the size was read.
    return r > 0 || parse_address(tag.kind, tag.address) >= 0;
}

DoneResult Host::wait_done(int source_type, int source_id, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto key = std::make_pair(source_type, source_id);
    if (!done_cv_.wait_for(lock, timeout, [&] { return done_.count(key) != 0; }))
        return DoneResult::TimedOut;
    const int result = done_[key];
    done_.erase(key);
    return result == 1 ? DoneResult::Ok : DoneResult::Failed;
}

bool Host::wait_passes(uint64_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t target = stats_.passes + count;
    return done_cv_.wait_for(lock, timeout, [&] { return stats_.passes >= target; });
}

void Host::enable_station(int station, bool enable)
{
    EnCommStation(station, enable ? 1 : 0);
    kick();
}

Stats Host::stats() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    Stats s = stats_;
    s.rtt_avg_ms = s.rtt_samples ? rtt_sum_ms_ / double(s.rtt_samples) : 0.0;
    return s;
}

bool Host::connected(size_t endpoint) const
{
    return endpoint < connections_.size() && connections_[endpoint]->connected.load();
}

void Host::kick()
{
    std::lock_guard<std::mutex> lock(mutex_);
    kicked_ = true;
    wake_cv_.notify_all();
}

// Waits `d`, or less when stopped (or kicked, if asked). False when stopping.
// A zero wait (poll_interval 0) only looks at the flags: a timed wait whose
// deadline has already passed still sleeps in the kernel for the timer slack
// (about 60 us here), which halved the request rate of a one-entry list.
bool Host::sleep_for(std::chrono::milliseconds d, bool wake_on_kick)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (d.count() > 0)
        wake_cv_.wait_for(lock, d, [&] { return stop_ || (wake_on_kick && kicked_); });
    if (wake_on_kick)
        kicked_ = false;
    return !stop_;
}

void Host::notify_done(int source_type, int source_id, int result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    // Results nobody waits for (a write whose caller only uses the hook)
    // would pile up in a host that runs for months: the oldest are
    // forgotten once kKeptResults newer ones have come.
    const auto key = std::make_pair(source_type, source_id);
    done_[key] = result;
    done_order_.push_back(key);
    while (done_order_.size() > kKeptResults) {
        done_.erase(done_order_.front());
        done_order_.pop_front();
    }
    if (result == 1)
        ++stats_.write_done_ok;
    else
        ++stats_.write_done_failed;
    done_cv_.notify_all();
}

void Host::record_rtt(double ms)
{
    if (stats_.rtt_samples == 0 || ms < stats_.rtt_min_ms)
        stats_.rtt_min_ms = ms;
    if (ms > stats_.rtt_max_ms)
        stats_.rtt_max_ms = ms;
    rtt_sum_ms_ += ms;
    ++stats_.rtt_samples;
}

int Host::route(int station) const
{
    for (size_t i = 0; i < connections_.size(); ++i)
        for (int s : connections_[i]->endpoint.stations)
            if (s == station)
                return int(i);
    return 0;
}

bool Host::try_connect(size_t index, std::string *error)
{
    Connection &c = *connections_[index];
    const std::string where = c.endpoint.host + ":" + std::to_string(c.endpoint.port);

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res = nullptr;
    const std::string port = std::to_string(c.endpoint.port);
    const int gai = ::getaddrinfo(c.endpoint.host.c_str(), port.c_str(), &hints, &res);
    if (gai != 0) {
        if (error)
            *error = "cannot connect to " + where + ": " + ::gai_strerror(gai);
        return false;
    }
    std::string why = "no address";
    int fd = -1;
    for (addrinfo *ai = res; ai; ai = ai->ai_next) {
        fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
        if (fd < 0) {
            why = std::strerror(errno);
            continue;
        }
        int rc = ::connect(fd, ai->ai_addr, ai->ai_addrlen);
        if (rc < 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            rc = ::poll(&p, 1, int(config_.connect_timeout.count()));
            if (rc == 0) {
                why = "Connection timed out";
                rc = -1;
            } else if (rc > 0) {
                int err = 0;
                socklen_t len = sizeof err;
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                if (err != 0) {
                    why = std::strerror(err);
                    rc = -1;
                } else {
                    rc = 0;
                }
            } else {
                why = std::strerror(errno);
            }
        } else if (rc < 0) {
            why = std::strerror(errno);
        }
        if (rc == 0)
            break;
        ::close(fd);
        fd = -1;
    }
    ::freeaddrinfo(res);
    if (fd < 0) {
        if (error)
            *error = "cannot connect to " + where + ": " + why;
        return false;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    c.fd = fd;
    c.connected.store(true);
    c.backoff = config_.reconnect_min;
    if (c.dropped) {
        c.dropped = false;
        std::lock_guard<std::mutex> lock(mutex_);
        ++stats_.reconnects;
    }
    return true;
}

void Host::close_connection(size_t index, bool dropped)
{
    Connection &c = *connections_[index];
    if (c.fd >= 0)
        ::close(c.fd);
    c.fd = -1;
    if (c.connected.exchange(false) && dropped) {
        // The first attempt to reconnect is made at once; the back-off
        // starts with the attempts that fail.
        c.dropped = true;
        c.backoff = config_.reconnect_min;
        c.next_attempt = Clock::now();
    }
}

// Connects when the back-off allows; the delay doubles after every failed
// attempt up to reconnect_max and starts again from reconnect_min after a
// success.
bool Host::ensure_connected(size_t index)
{
    Connection &c = *connections_[index];
    if (c.connected.load())
        return true;
    if (Clock::now() < c.next_attempt)
        return false;
    if (try_connect(index, nullptr))
        return true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++stats_.connect_failures;
    }
    c.next_attempt = Clock::now() + c.backoff;
    c.backoff = std::min(c.backoff * 2, config_.reconnect_max);
    return false;
}

// Makes the connection ready for a request: connected (when the back-off
// allows) and with nothing stale waiting on it. True when it is.
bool Host::ready_to_send(size_t index)
{
    if (!ensure_connected(index))
        return false;
    const size_t stale = drain(index);
    if (stale > 0 && config_.link_mode == LinkMode::Remote) {
        // Bytes nobody asked for: the remote frame cannot tell which reply
        // they were meant as, so the connection is not trusted any more.
        resynchronise(index);
    }
    // The peer closed the idle connection (drain saw the end) or it was just
    // closed above: the request has not gone out, so connect again at once
    // and send it rather than fail it after a time-out.
    if (!connections_[index]->connected.load() && ensure_connected(index))
        drain(index);
    return connections_[index]->connected.load();
}

// Bytes still waiting on the socket belong to an earlier request (a late or
// over-long reply); they are thrown away so they cannot be taken for the
// reply to the next request. Returns how many there were.
size_t Host::drain(size_t index)
{
    Connection &c = *connections_[index];
    uint8_t buf[512];
    size_t drained = 0;
    for (;;) {
        const ssize_t n = ::recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            drained += size_t(n);
            std::lock_guard<std::mutex> lock(mutex_);
            stats_.stale_bytes += uint64_t(n);
            continue;
        }
        if (n == 0) { // the peer closed while idle
            close_connection(index, true);
            return drained;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            close_connection(index, true);
        return drained;
    }
}

// Closes a connection whose byte stream can no longer be paired with the
// requests; the next request opens a new one at once. TCP never delivers
// what the peer still sends on the old connection to the new one.
void Host::resynchronise(size_t index)
{
    if (!connections_[index]->connected.load())
        return;
    close_connection(index, true);
    std::lock_guard<std::mutex> lock(mutex_);
    ++stats_.resyncs;
}

void Host::count_foreign(uint64_t frames)
{
    std::lock_guard<std::mutex> lock(mutex_);
    stats_.foreign_replies += frames;
}

// Reads the reply to `request` on a Modbus TCP connection until `deadline`.
// A frame that answers another request (a late reply, one sent twice) is
// skipped and counted, and reading goes on for the right one; bytes behind
// the right one that came in the same read are counted as stale.
//
// One case the header cannot settle: a reply cut short by the peer whose
// missing bytes are then supplied by the next frame on the line (a late
// reply, say). Its length field is satisfied by bytes that belong to
// another frame. A reply whose bytes came in more than one piece is
// therefore not taken when more bytes follow right behind it, or when the
// pieces after the first hold a whole frame header that ends where the reply
// ends: the connection is out of step. (A peer that answers one request at
// a time sends nothing behind a whole reply, so a reply that merely arrived
// in pieces still passes.)
Host::Received Host::receive_modbus(Connection &c, const std::vector<uint8_t> &request, size_t expected,
                                    Clock::time_point deadline, std::vector<uint8_t> *reply)
{
    std::vector<uint8_t> buf;
    Received r;
    // The first read may take as much as the driver expects in all, so a
    // whole reply costs one recv; the MBAP length decides where it ends.
    size_t room = std::min(std::max(expected, kMbapHeaderSize), kModbusMaxFrame);
    bool pieced = false;    // the frame at the start of buf came in more than one read
    size_t first_piece = 0; // bytes of that frame the first read brought
    for (;;) {
        const Scan s = scan_modbus_reply(request.data(), request.size(), buf.data(), buf.size());
        switch (s.kind) {
        case ReplyScan::NeedMore:
            if (!pieced && !buf.empty()) {
                pieced = true;
                first_piece = buf.size();
            }
            r.status = read_exact(c.fd, s.size - buf.size(), deadline, &buf, !buf.empty(), room);
            room = 0;
            if (r.status == ReadStatus::Complete)
                continue;
            // Cut off by the deadline or a close. What arrived is handed
            // over when it can be the start of this request's reply (the
            // driver fails it on its length); the rest of that frame may
            // still come, so the connection is out of step either way.
            if (modbus_prefix_matches(request.data(), request.size(), buf.data(), buf.size()))
                reply->swap(buf);
            else if (!buf.empty())
                count_foreign(1);
            r.out_of_step = !reply->empty() || !buf.empty();
            return r;
        case ReplyScan::Foreign:
            count_foreign(1);
            buf.erase(buf.begin(), buf.begin() + long(s.size));
            pieced = false;
            continue;
        case ReplyScan::Reply:
            if (pieced && (buf.size() > s.size || bytes_waiting(c.fd) ||
                           modbus_tail_is_a_frame(buf.data(), s.size, first_piece))) {
                count_foreign(1);
                r.out_of_step = true;
                return r;
            }
            if (buf.size() > s.size) {
                std::lock_guard<std::mutex> lock(mutex_);
                stats_.stale_bytes += uint64_t(buf.size() - s.size);
            }
            buf.resize(s.size);
            reply->swap(buf);
            return r;
        case ReplyScan::OutOfStep:
            // No frame boundary: a header that echoes the request is handed
            // over with whatever else comes (up to 1024 bytes after the
            // header) for the driver to judge; anything else is discarded.
            if (s.ours) {
                r.status = read_until_idle(c.fd, std::chrono::milliseconds(20), 1024 - (buf.size() - kMbapHeaderSize),
                                           deadline, &buf);
                reply->swap(buf);
            } else {
                count_foreign(1);
            }
            r.out_of_step = true;
            return r;
        }
    }
}

// Reads the reply to a remote frame: exactly `expected` bytes. The frame has
// no transaction number, so what makes a reply the answer to this request is
// that nothing else can be on its way on this connection; see exchange_once().
Host::Received Host::receive_remote(Connection &c, size_t expected, Clock::time_point deadline,
                                    std::vector<uint8_t> *reply)
{
    Received r;
    r.status = read_exact(c.fd, expected, deadline, reply);
    if (r.status != ReadStatus::Complete) {
        // A reply (or the rest of one) may still be on its way.
        r.out_of_step = true;
        return r;
    }
    if (scan_remote_reply(expected, reply->size() + (bytes_waiting(c.fd) ? 1 : 0)).kind == ReplyScan::OutOfStep) {
        // More than one reply's worth: which part answers this request
        // cannot be told, so none is taken.
        count_foreign(1);
        reply->clear();
        r.out_of_step = true;
    }
    return r;
}

// Sends one frame and reads its reply with the framing of the link mode.
// Returns true when the connection is out of step and must be opened afresh
// before the next request.
bool Host::transact(size_t index, const std::vector<uint8_t> &frame, int reply_len, std::vector<uint8_t> *reply,
                    bool *timed_out)
{
    Connection &c = *connections_[index];
    *timed_out = false;
    if (trace_hook_)
        trace_hook_(FrameDirection::Sent, int(index), frame.data(), frame.size());
    if (!send_all(c.fd, frame.data(), frame.size())) {
        close_connection(index, true);
        *timed_out = reply_len != 0;
        return false;
    }
    if (reply_len == 0)
        return false; // a broadcast write: nobody answers

    const auto sent_at = Clock::now();
    const auto deadline = sent_at + config_.timeout;
    Received r;
    if (config_.link_mode == LinkMode::Modbus) {
        r = receive_modbus(c, frame, size_t(std::max(reply_len, 0)), deadline, reply);
    } else if (reply_len > 0) {
        r = receive_remote(c, size_t(reply_len), deadline, reply);
    } else {
        // A reply of no fixed length: whatever arrives until the line is quiet.
        r.status = read_exact(c.fd, 1, deadline, reply);
        if (r.status == ReadStatus::Complete)
            r.status = read_until_idle(c.fd, std::chrono::milliseconds(50), 4096, deadline, reply);
    }
    if (r.status == ReadStatus::Closed)
        close_connection(index, true);
    if (reply->empty()) {
        *timed_out = true;
        return r.out_of_step;
    }
    if (trace_hook_)
        trace_hook_(FrameDirection::Received, int(index), reply->data(), reply->size());
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - sent_at).count();
    std::lock_guard<std::mutex> lock(mutex_);
    record_rtt(ms);
    return r.out_of_step;
}

void Host::run()
{
    while (true) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_)
                break;
        }
        if (!exchange_once())
            break;
    }
}

// One request: ComCommunication, send, receive, DataCom. False when stopping.
bool Host::exchange_once()
{
    apply_tags_locked();

    Protocol *p = ComCommunication();
    if (!p) {
        // A null also ends a burst of five writes or one-shot reads when no
        // cyclic read follows; the driver has then reset its burst counters,
        // so a second call tells whether anything is left.
        p = ComCommunication();
    }
    if (!p) {
        // Nothing to send (empty lists, or every station switched off).
        const bool go_on = sleep_for(config_.poll_interval, true);
        com_info_->cycle_done = 0;
        return go_on;
    }

    // Copy what is needed: the record belongs to the driver and goes away
    // inside DataCom.
    std::vector<uint8_t> frame(p->frame.constData(),
                               p->frame.constData() + std::min<int>(std::max(p->frame_len, 0), p->frame.size()));
    const int reply_len = p->reply_len;
    ReplyEvent ev;
    ev.station = p->var.station;
    ev.reg_kind = p->var.reg_kind;
    ev.start_addr = p->var.start_addr;
    ev.count = p->var.count;
    ev.write = p->var.rw_flag != 0;

    std::vector<uint8_t> reply;
    reply.reserve(kModbusMaxFrame);
    bool timed_out = false;
    bool sent = false;
    bool out_of_step = false;
    if (reply_len == 0 && ev.station == 0) {
        // Broadcast: to every endpoint that is up; no reply is awaited.
        for (size_t i = 0; i < connections_.size(); ++i) {
            if (!ready_to_send(i))
                continue;
            bool t = false;
            transact(i, frame, 0, &reply, &t);
            sent = sent || !t;
        }
        timed_out = !sent;
    } else {
        const int index = route(ev.station);
        ev.endpoint = index;
        if (ready_to_send(size_t(index))) {
            sent = true;
            out_of_step = transact(size_t(index), frame, reply_len, &reply, &timed_out);
        } else {
            // No link: the request fails like one that got no answer, after
            // the same wait, so the driver's retry and give-up logic runs.
            if (!sleep_for(config_.timeout, false))
                return false;
            timed_out = reply_len != 0;
        }
    }

    QByteArray qreply(reinterpret_cast<const char *>(reply.data()), int(reply.size()));
    RW_VAR *ret = DataCom(&qreply, qreply.size());
    ev.status = ret->status;
    ev.bytes = int(reply.size());
    ev.timed_out = timed_out;

    const bool good = ev.status == 1 || ev.status == 100;
    // The remote frame carries no transaction number: a reply is the answer
    // to the request in flight only because nothing else can be on its way
    // on the connection. That holds while every request got its whole reply
    // before the next was sent. A request that timed out (its reply may
    // still come) or a reply that failed the driver's checks (the stream may
    // be out of step) breaks it, so the connection is opened afresh before
    // the next request: the cheapest rule that is safe, since a connection
    // on which every reply came in time and passed costs nothing. Modbus TCP
    // needs none of this: receive_modbus() pairs by transaction identifier.
    if (sent && reply_len != 0 && config_.link_mode == LinkMode::Remote && !good)
        out_of_step = true;
    if (out_of_step)
        resynchronise(size_t(ev.endpoint));
    // The driver counts failed replies in retry_count and clears it only when
    // it gives a request up; a good reply leaves it to the host. Without a
    // reset here, failures of earlier requests would add up and a later
    // request would be given up after fewer retries than retry_limit.
    if (good)
        com_info_->retry_count = 0;
    bool pass_done = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (sent)
            ++stats_.requests;
        if (timed_out)
            ++stats_.timeouts;
        ++stats_.codes[ev.status];
        if (good) {
            ++stats_.good_replies;
        } else {
            ++stats_.failed_replies;
            if (ev.status == 0)
                ++stats_.retries;
            else
                ++stats_.give_ups;
        }
        if (good && com_info_->cycle_done == 1) {
            if (cyclic_entries_.load() > 0) {
                ++stats_.passes;
                pass_done = true;
                done_cv_.notify_all();
            } else {
                // Without a cyclic list every good reply "completes a pass";
                // that is no reason to pause.
                com_info_->cycle_done = 0;
            }
        }
    }

    std::vector<CallbackEvent> events;
    events.swap(events_);
    for (const CallbackEvent &e : events) {
        if (e.write_done) {
            // The hook first: whoever waits in wait_done() then also finds
            // the hook's effects.
            if (write_done_hook_)
                write_done_hook_(e.handle, e.source_type, e.source_id, e.result);
            notify_done(e.source_type, e.source_id, e.result);
        } else {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ++stats_.read_done;
            }
            if (read_done_hook_)
                read_done_hook_(e.source_type, e.result);
        }
    }
    if (reply_hook_)
        reply_hook_(ev);

    if (pass_done) {
        // A full pass over the cyclic list has been answered: pause, unless
        // a write or one-shot read arrives, then start counting anew.
        const bool go_on = sleep_for(config_.poll_interval, true);
        com_info_->cycle_done = 0;
        return go_on;
    }
    if (!good && ev.status != 0) {
        // Given up: a pass that contains a failing request never completes,
        // so pause here too rather than hammer a peer that keeps failing.
        return sleep_for(config_.poll_interval, true);
    }
    return true;
}

// ------------------------------------------------------------ value layout

int value_bits(int kind)
{
    switch (kind) {
    case 0:
    case 1:
    case 5: return 1;
    case 6:
    case 7:
    case 8: return 8;
    case 2:
    case 3:
    case 4: return 16;
    case 9:
    case 10:
    case 11: return 32;
    case 12:
    case 13:
    case 14: return 64;
    default: return 0;
    }
}

bool kind_writable(int kind)
{
    switch (kind) {
    case 1:
    case 3:
    case 4:
    case 5:
    case 7:
    case 8:
    case 10:
    case 11:
    case 13:
    case 14: return true;
    default: return false;
    }
}

const char *kind_name(int kind)
{
    static const char *const names[15] = {"discrete input",  "coil",
                                          "input register",  "holding register",
                                          "word (class 4)",  "bit in word",
                                          "byte (class 2)",  "byte (class 3)",
                                          "byte (class 4)",  "dword (class 2)",
                                          "dword (class 3)", "dword (class 4)",
                                          "qword (class 2)", "qword (class 3)",
                                          "qword (class 4)"};
    return kind >= 0 && kind < 15 ? names[kind] : "unknown";
}

int value_count(int kind, int count)
{
    if (count <= 0)
        return 0;
    switch (value_bits(kind)) {
    case 1:
    case 8:
    case 16: return count;
    case 32: return (count + 1) >> 1;
    case 64: return (count + 3) >> 2;
    default: return 0;
    }
}

std::vector<uint64_t> decode_values(int kind, int count, const std::vector<uint8_t> &bytes)
{
    std::vector<uint64_t> values;
    const int n = value_count(kind, count);
    const int bits = value_bits(kind);
    // Bytes per value in GetRegisterData's buffer: bits and bytes one each
    // (bytes are packed at the start of a buffer twice their count).
    const int width = bits <= 8 ? 1 : bits / 8;
    for (int i = 0; i < n; ++i) {
        uint64_t v = 0;
        for (int b = width - 1; b >= 0; --b) {
            const size_t at = size_t(i * width + b);
            v = (v << 8) | (at < bytes.size() ? bytes[at] : 0);
        }
        values.push_back(v);
    }
    return values;
}

bool encode_values(int kind, const std::vector<uint64_t> &values, std::vector<uint8_t> *bytes, int *count)
{
    if (!kind_writable(kind))
        return false;
    bytes->clear();
    const int n = int(values.size());
    switch (value_bits(kind)) {
    case 1: // one byte per bit
        for (uint64_t v : values)
            bytes->push_back(v ? 1 : 0);
        *count = n;
        return true;
    case 8: // one 16-bit element per byte; its low byte is written
        for (uint64_t v : values) {
            bytes->push_back(uint8_t(v));
            bytes->push_back(0);
        }
        *count = n;
        return true;
    default: break;
    }
    const int width = value_bits(kind) / 8;
    for (uint64_t v : values)
        for (int b = 0; b < width; ++b)
            bytes->push_back(uint8_t(v >> (8 * b)));
    *count = n * (width / 2); // counted in 16-bit words
    return true;
}

} // namespace plchost
