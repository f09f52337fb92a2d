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

// A peer that misbehaves on every request until told otherwise: the
// request is retried once and given up with `code` (cyclic reads carry
// requester kind 0, so a length error is 70 + 1 and no reply 40 + 1), the
// driver having been handed `bytes` each time; then the peer behaves and
// the host, still running, reads the right values.
struct GivenUpCase {
    const char *name;
    Mode mode;
    int code;
    int bytes;
    int registers = 2;
    uint64_t min_foreign = 0;  // replies discarded as another request's
    uint64_t min_resyncs = 0;  // connections renewed because the stream was out of step
    int max_resyncs = -1;      // -1: any
    uint64_t min_timeouts = 0; // requests that got nothing
    int max_timeouts = -1;     // -1: any
};

std::string case_name(const ::testing::TestParamInfo<GivenUpCase> &info)
{
    return info.param.name;
}

// A peer that answers right, with something extra the host must see through:
// no failure at all, and only the right values.
struct HarmlessCase {
    const char *name;
    Mode mode;
};

} // namespace

class HostBadPeersGivenUp : public ::testing::TestWithParam<GivenUpCase> {};

TEST_P(HostBadPeersGivenUp, RetriedGivenUpAndRecovered)
{
    const GivenUpCase &c = GetParam();
    Rig rig(c.mode, c.registers);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(c.code, c.bytes);
    for (const auto &e : rig.seen())
        EXPECT_NE(e.status, 1) << "a reply the peer garbled was taken";
    const auto s = rig.host->stats();
    EXPECT_GE(s.foreign_replies, c.min_foreign);
    EXPECT_GE(s.resyncs, c.min_resyncs);
    if (c.max_resyncs >= 0) {
        EXPECT_LE(s.resyncs, uint64_t(c.max_resyncs));
    }
    EXPECT_GE(s.timeouts, c.min_timeouts);
    if (c.max_timeouts >= 0) {
        EXPECT_LE(s.timeouts, uint64_t(c.max_timeouts));
    }
    rig.expect_recovery();
}

// What the host does with each misbehaviour:
// - a reply with the wrong length or an exception reply goes to the driver,
//   which fails it on its length;
// - bytes that are no reply to the request (garbage, a reply to another
//   transaction, from another unit, with a protocol identifier other than
//   0) are discarded: the driver sees no reply. Garbage has no usable frame
//   length, so the connection is renewed; replies to other requests are
//   framed and skipped, and the host keeps reading for the right one until
//   the time-out on the same connection;
// - a reply cut off goes to the driver as far as it came (no time-out: bytes
//   arrived), and the connection, on which the rest may still come, is
//   renewed;
// - a reply cut short whose missing bytes the next frame supplies (with
//   bytes left over, or exactly) is not taken: the header cannot tell, but
//   the pieces show it; the connection is renewed.
INSTANTIATE_TEST_SUITE_P(
    Misbehaviours, HostBadPeersGivenUp,
    ::testing::Values(GivenUpCase{"Garbage", Mode::Garbage, 41, 0, 2, 2, 2},
                      GivenUpCase{"ExceptionResponse", Mode::Exception, 71, 9},
                      GivenUpCase{"ShortReply", Mode::Short, 71, 11}, GivenUpCase{"LongReply", Mode::Long, 71, 15},
                      GivenUpCase{"ReplyToAnotherTransaction", Mode::WrongId, 41, 0, 2, 2, 0, 0},
                      GivenUpCase{"ReplyFromAnotherUnit", Mode::WrongUnit, 41, 0, 2, 2, 0, 0},
                      GivenUpCase{"ReplyWithAnotherProtocol", Mode::WrongProtocol, 41, 0, 2, 2, 0, 0},
                      GivenUpCase{"ReplyCutOff", Mode::CutOff, 71, 10, 2, 0, 1, -1, 0, 0},
                      GivenUpCase{"ReplyCompletedByAnotherFrame", Mode::CutThenOther, 41, 0, 2, 2, 2},
                      GivenUpCase{"ReplyCompletedExactlyByAnotherFrame", Mode::CutThenExact, 41, 0, 8, 2, 2},
                      GivenUpCase{"ConnectionClosedMidReply", Mode::CloseMidReply, 71, 5},
                      GivenUpCase{"SilentPeer", Mode::Silent, 41, 0, 2, 0, 0, -1, 2}),
    case_name);

// Garbage costs the connection, and the peer sees a new one each time.
TEST(HostBadPeers, GarbageRenewsTheConnection)
{
    Rig rig(Mode::Garbage);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_TRUE(eventually([&] { return rig.peer.accepted() >= 3; })) << "a connection per garbled reply";
}

// Replies to other transactions are skipped on the same connection.
TEST(HostBadPeers, RepliesToOtherTransactionsKeepTheConnection)
{
    Rig rig(Mode::WrongId);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(41, 0);
    EXPECT_EQ(rig.peer.accepted(), 1);
}

TEST(HostBadPeers, ConnectionClosedMidReplyReconnects)
{
    Rig rig(Mode::CloseMidReply);
    ASSERT_TRUE(rig.host->start(true));
    rig.expect_given_up(71, 5);
    rig.expect_recovery();
    EXPECT_GE(rig.host->stats().reconnects, 1u);
    EXPECT_GE(rig.peer.accepted(), 2);
}

class HostBadPeersHarmless : public ::testing::TestWithParam<HarmlessCase> {};

TEST_P(HostBadPeersHarmless, NoFailureAndTheRightValues)
{
    Rig rig(GetParam().mode);
    ASSERT_TRUE(rig.host->start(true));
    ASSERT_TRUE(rig.host->wait_passes(3, 10000ms));
    EXPECT_EQ(values_of(*rig.host, rig.t), (std::vector<uint64_t>{0x0100, 0x0101}));
    const auto s = rig.host->stats();
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_EQ(s.retries, 0u);
    // What the peer sent besides the reply was seen and thrown away: as a
    // frame of another request, or as bytes drained before the next send.
    EXPECT_GE(s.foreign_replies + s.stale_bytes, 3u);
    for (const auto &e : rig.seen())
        EXPECT_EQ(e.status, 1);
}

// - bytes after a reply (in the same piece) are drained before the next
//   request;
// - a reply to an earlier request followed, within the time-out, by the
//   right one: the right one is taken at once, the other's values never show;
// - the same reply twice in one piece: the copy answers no request.
INSTANTIATE_TEST_SUITE_P(Extras, HostBadPeersHarmless,
                         ::testing::Values(HarmlessCase{"BytesAfterTheReply", Mode::Trailing},
                                           HarmlessCase{"ReplyToAnotherTransactionFirst", Mode::ForeignFirst},
                                           HarmlessCase{"ReplySentTwice", Mode::Twice}),
                         [](const ::testing::TestParamInfo<HarmlessCase> &info) { return info.param.name; });
