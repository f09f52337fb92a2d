// The reference host against misbehaving Modbus TCP servers: a loopback
// server in the test answers each request as the test tells it (garbage, an
// exception response, a short, long or cut-off reply, a reply to another
// request, a reply sent twice, a closed connection). The host must hand the
// driver exactly what arrived of the reply to the request in flight and
// nothing that answers another request; the driver's codes and retries must
// follow, and the host must keep running and recover once the peer behaves
// again.
#include "e2e_util.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace e2e;
using plchost::Host;

namespace {

enum class Mode {
    Good,
    Garbage,
    Exception,
    Short,
    Long,
    Trailing,
    WrongId,       // the transaction identifier of another request
    WrongUnit,     // another unit identifier
    WrongProtocol, // a protocol identifier other than 0
    ForeignFirst,  // a reply to an earlier request, then the right one
    Twice,         // the right reply, sent twice in one piece
    CutOff,
    CutThenOther, // part of the reply, then a whole reply to an earlier request
    CutThenExact, // part of the reply, then a whole write reply exactly as long as the part missing
    CloseMidReply,
    Silent
};

// Answers read requests (functions 3 and 4) with register i = 0x0100 + i,
// or misbehaves as `mode` says.
class BadPeer {
public:
    BadPeer()
    {
        listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = 0;
        if (::bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(listen_fd_, 4) != 0)
            throw std::runtime_error("bind/listen failed");
        socklen_t len = sizeof a;
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~BadPeer()
    {
        stop_ = true;
        thread_.join();
        ::close(listen_fd_);
    }
    int port() const { return port_; }
    void set_mode(Mode m) { mode_ = m; }
    int accepted() const { return accepted_.load(); }
    int answered() const { return answered_.load(); }

private:
    static std::vector<uint8_t> good_reply(const std::vector<uint8_t> &q, int registers, int id_delta = 0,
                                           uint8_t value_high = 0x01)
    {
        const int tid = ((q[0] << 8) | q[1]) + id_delta;
        std::vector<uint8_t> r = {uint8_t(tid >> 8),     uint8_t(tid), 0, 0, 0, uint8_t(3 + 2 * registers), q[6], q[7],
                                  uint8_t(2 * registers)};
        for (int i = 0; i < registers; ++i) {
            r.push_back(value_high);
            r.push_back(uint8_t(i));
        }
        return r;
    }
    static std::vector<uint8_t> twice(std::vector<uint8_t> r)
    {
        const std::vector<uint8_t> copy = r;
        r.insert(r.end(), copy.begin(), copy.end());
        return r;
    }

    // Reads one request (MBAP framing) or returns false when the line closes.
    bool read_request(int fd, std::vector<uint8_t> *q)
    {
        q->clear();
        size_t want = 7;
        while (q->size() < want) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) == 0) {
                if (stop_)
                    return false;
                continue;
            }
            uint8_t buf[300];
            const ssize_t n = ::recv(fd, buf, want - q->size(), 0);
            if (n <= 0)
                return false;
            q->insert(q->end(), buf, buf + n);
            if (q->size() == 7)
                want = 6 + size_t(((*q)[4] << 8) | (*q)[5]);
        }
        return true;
    }

    void serve()
    {
        while (!stop_) {
            pollfd p{listen_fd_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0)
                continue;
            const int fd = ::accept(listen_fd_, nullptr, nullptr);
            if (fd < 0)
                continue;
            ++accepted_;
            std::vector<uint8_t> q;
            bool open = true;
            while (open && read_request(fd, &q)) {
                const int regs = (q[10] << 8) | q[11];
                std::vector<uint8_t> r;
                switch (mode_.load()) {
                case Mode::Good: r = good_reply(q, regs); break;
                case Mode::Garbage:
                    r = {'h', 'e', 'l', 'l', 'o', ' ', 'g', 'a', 'r', 'b', 'a', 'g', 'e', '!', '!'};
                    break;
                case Mode::Exception: r = {q[0], q[1], 0, 0, 0, 3, q[6], uint8_t(q[7] | 0x80), 2}; break;
                case Mode::Short: r = good_reply(q, regs - 1); break;
                case Mode::Long: r = good_reply(q, regs + 1); break;
                case Mode::Trailing:
                    r = good_reply(q, regs);
                    r.insert(r.end(), {0xEE, 0xEE, 0xEE, 0xEE});
                    break;
                case Mode::WrongId: r = good_reply(q, regs, 1); break;
                case Mode::WrongUnit:
                    r = good_reply(q, regs);
                    r[6] ^= 0x40;
                    break;
                case Mode::WrongProtocol:
                    r = good_reply(q, regs);
                    r[3] = 1;
                    break;
                case Mode::ForeignFirst:
                    // Values 0x99.. in the foreign reply: taken, they would show.
                    r = good_reply(q, regs, -1, 0x99);
                    for (uint8_t b : good_reply(q, regs))
                        r.push_back(b);
                    break;
                case Mode::Twice: r = twice(good_reply(q, regs)); break;
                case Mode::CutOff:
                    r = good_reply(q, regs);
                    r.resize(10);
                    break;
                case Mode::CutThenOther: {
                    // The first 10 bytes; a moment later an earlier request's
                    // reply (values 0x99..), whose first bytes would complete
                    // this one to its announced length.
                    r = good_reply(q, regs);
                    r.resize(10);
                    ::send(fd, r.data(), r.size(), MSG_NOSIGNAL);
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    r = good_reply(q, regs, -1, 0x99);
                    break;
                }
                case Mode::CutThenExact: {
                    // The first 13 bytes of a read of eight registers (25
                    // bytes); a moment later a write reply of another
                    // transaction, 12 bytes: exactly what the read lacks.
                    r = good_reply(q, regs);
                    r.resize(r.size() - 12);
                    ::send(fd, r.data(), r.size(), MSG_NOSIGNAL);
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    const int tid = ((q[0] << 8) | q[1]) - 1;
                    r = {uint8_t(tid >> 8), uint8_t(tid), 0, 0, 0, 6, q[6], 0x10, 0x00, 0x10, 0x00, 0x01};
                    break;
                }
                case Mode::CloseMidReply:
                    r = good_reply(q, regs);
                    r.resize(5);
                    open = false;
                    break;
                case Mode::Silent: break;
                }
                if (!r.empty() && ::send(fd, r.data(), r.size(), MSG_NOSIGNAL) == ssize_t(r.size()))
                    ++answered_;
            }
            ::close(fd);
        }
    }

    int listen_fd_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<Mode> mode_{Mode::Good};
    std::atomic<int> accepted_{0};
    std::atomic<int> answered_{0};
};

// A host reading two class-4 registers (a 13-byte reply) from the peer,
// recording every DataCom outcome.
struct Rig {
    BadPeer peer;
    std::unique_ptr<Host> host;
    std::mutex mutex;
    std::vector<plchost::ReplyEvent> events;
    plchost::Tag t;

    explicit Rig(Mode first, int registers = 2) : t(tag(4, "0", registers))
    {
        peer.set_mode(first);
        auto cfg = config_for(peer.port());
        cfg.timeout = 150ms;
        cfg.retry_limit = 1;
        host = std::make_unique<Host>(cfg);
        host->set_reply_hook([this](const plchost::ReplyEvent &e) {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back(e);
        });
        host->set_tags({t});
    }
    // The host's thread calls the hook until it stops: stop it before the
    // members the hook writes to are destroyed.
    ~Rig() { host.reset(); }
    std::vector<plchost::ReplyEvent> seen()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
    // Waits for a request given up, then checks every failure before it.
    void expect_given_up(int code, int bytes)
    {
        ASSERT_TRUE(eventually([&] { return host->stats().give_ups >= 1; }, 5000ms));
        const auto ev = seen();
        ASSERT_GE(ev.size(), 2u);
        EXPECT_EQ(ev[0].status, 0) << "the first failure is retried";
        EXPECT_EQ(ev[0].bytes, bytes) << "the host hands over what arrived";
        EXPECT_EQ(ev[1].status, code);
        EXPECT_EQ(ev[1].bytes, bytes);
        EXPECT_GE(host->stats().codes[code], 1u);
    }
    // The peer behaves again: the host, still running, reads the values.
    void expect_recovery()
    {
        peer.set_mode(Mode::Good);
        // (The driver's mirror outlives a host, so wait for fresh good replies.)
        EXPECT_TRUE(eventually([&] { return host->stats().good_replies >= 2; }));
        std::vector<uint64_t> want;
        for (int i = 0; i < t.count; ++i)
            want.push_back(0x0100 + uint64_t(i));
        EXPECT_EQ(values_of(*host, t), want);
        EXPECT_TRUE(host->running());
    }
};

} // namespace

// Cyclic reads carry requester kind 0, so a length error is 70 + 1 and a
// reply that does not match the request is 10 + 1.
// Bytes that are no reply to the request (protocol identifier not 0, no
// usable length): nothing reaches the driver, which sees no reply, and the
// connection, whose frames can no longer be found, is opened afresh.
TEST(HostBadPeers, GarbageIsDiscardedAndTheConnectionRenewed)
{
    Rig rig(Mode::Garbage);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    const auto s = rig.host->stats();
    EXPECT_GE(s.foreign_replies, 2u);
    EXPECT_GE(s.resyncs, 2u);
    EXPECT_TRUE(eventually([&] { return rig.peer.accepted() >= 3; })) << "a connection per garbled reply";
    rig.expect_recovery();
}

TEST(HostBadPeers, ExceptionResponseIsALengthError)
{
    Rig rig(Mode::Exception);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 9);
    rig.expect_recovery();
}

TEST(HostBadPeers, ShortReply)
{
    Rig rig(Mode::Short);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 11);
    rig.expect_recovery();
}

TEST(HostBadPeers, LongReply)
{
    Rig rig(Mode::Long);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 15);
    rig.expect_recovery();
}

// A reply that answers another request is discarded; the host keeps
// reading for the right one until the time-out, so the driver sees no reply.
// The connection stays: its frames are still found by their headers.
TEST(HostBadPeers, ReplyToAnotherTransactionIsDiscarded)
{
    Rig rig(Mode::WrongId);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    const auto s = rig.host->stats();
    EXPECT_GE(s.foreign_replies, 2u);
    EXPECT_EQ(s.resyncs, 0u);
    EXPECT_EQ(rig.peer.accepted(), 1);
    rig.expect_recovery();
}

TEST(HostBadPeers, ReplyFromAnotherUnitIsDiscarded)
{
    Rig rig(Mode::WrongUnit);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_GE(rig.host->stats().foreign_replies, 2u);
    rig.expect_recovery();
}

TEST(HostBadPeers, ReplyWithAnotherProtocolIsDiscarded)
{
    Rig rig(Mode::WrongProtocol);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_GE(rig.host->stats().foreign_replies, 2u);
    rig.expect_recovery();
}

// A reply to an earlier request followed, within the time-out, by the right
// one: the right one is taken at once, with no failure and no retry, and the
// values of the other never show.
TEST(HostBadPeers, ReplyToAnotherTransactionThenTheRightOne)
{
    Rig rig(Mode::ForeignFirst);
    ASSERT_TRUE(rig.host->start(true));
    ASSERT_TRUE(rig.host->wait_passes(3, 10000ms));
    EXPECT_EQ(values_of(*rig.host, rig.t), (std::vector<uint64_t>{0x0100, 0x0101}));
    const auto s = rig.host->stats();
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_EQ(s.retries, 0u);
    EXPECT_GE(s.foreign_replies, 3u);
    for (const auto &e : rig.seen())
        EXPECT_EQ(e.status, 1);
}

// The same reply twice in one piece: the first is the answer, the copy
// answers no request and is discarded without a failure.
TEST(HostBadPeers, ReplySentTwiceCostsNothing)
{
    Rig rig(Mode::Twice);
    ASSERT_TRUE(rig.host->start(true));
    ASSERT_TRUE(rig.host->wait_passes(3, 10000ms));
    EXPECT_EQ(values_of(*rig.host, rig.t), (std::vector<uint64_t>{0x0100, 0x0101}));
    const auto s = rig.host->stats();
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_GE(s.foreign_replies + s.stale_bytes / 13, 2u);
}

TEST(HostBadPeers, ReplyCutOffTimesOutWithWhatArrived)
{
    Rig rig(Mode::CutOff);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 10);
    EXPECT_EQ(rig.host->stats().timeouts, 0u) << "bytes arrived, so it is no time-out";
    EXPECT_GE(rig.host->stats().resyncs, 1u) << "the rest of the frame may still come: a new connection";
    rig.expect_recovery();
}

// A reply cut short, and the next frame on the line supplies the bytes its
// length still asks for: the header cannot tell, so a reply that came in
// pieces with more bytes right behind it is not taken, and the connection
// is opened afresh.
TEST(HostBadPeers, ReplyCompletedByAnotherFrameIsNotTaken)
{
    Rig rig(Mode::CutThenOther);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_GE(rig.host->stats().resyncs, 2u);
    for (const auto &e : rig.seen())
        EXPECT_NE(e.status, 1) << "a reply made of two frames was taken";
    rig.expect_recovery();
}

// The same with nothing left over: the other frame fills the missing bytes
// exactly. Its header, inside the reply, gives it away.
TEST(HostBadPeers, ReplyCompletedExactlyByAnotherFrameIsNotTaken)
{
    Rig rig(Mode::CutThenExact, 8);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    for (const auto &e : rig.seen())
        EXPECT_NE(e.status, 1) << "a reply made of two frames was taken";
    rig.expect_recovery();
}

TEST(HostBadPeers, ConnectionClosedMidReply)
{
    Rig rig(Mode::CloseMidReply);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 5);
    rig.expect_recovery();
    EXPECT_GE(rig.host->stats().reconnects, 1u);
    EXPECT_GE(rig.peer.accepted(), 2);
}

TEST(HostBadPeers, SilentPeerIsANoReplyError)
{
    Rig rig(Mode::Silent);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_GE(rig.host->stats().timeouts, 2u);
    rig.expect_recovery();
}

TEST(HostBadPeers, BytesAfterAReplyAreDrainedBeforeTheNextRequest)
{
    Rig rig(Mode::Trailing);
    ASSERT_TRUE(rig.host->start(true));
    ASSERT_TRUE(rig.host->wait_passes(3, 10000ms));
    EXPECT_EQ(values_of(*rig.host, rig.t), (std::vector<uint64_t>{0x0100, 0x0101}));
    const auto s = rig.host->stats();
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_GE(s.stale_bytes, 4u);
}
