// A reply must never be taken for the answer to another request. The host
// and plcsim (--static --fill address: every register holds its own address)
// run behind the fault proxy in both link modes while one single reply is
// given one fault: it comes later than the host's time-out (in front of the
// next reply, as a peer that answers in order but was slow once sends it),
// it comes twice, or the connection's previous reply comes in front of it. After every good
// reply the mirror is checked: no value of another address may ever show,
// and the event may cost at most one failed reply besides its own.
//
// Two read blocks of the same size at different addresses make the worst
// case: a late reply of one passes every length check of the other.
#include "address_pattern.h"
#include "e2e_util.h"
#include "fault_proxy.h"
#include "plcsim_process.h"
#include "plcsim_required.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using namespace e2e;
using plchost::Host;
using plchost::LinkMode;
using plchost::Tag;
using reliability::Fault;
using reliability::FaultProxy;

namespace {

const char *mode_name(LinkMode m)
{
    return m == LinkMode::Modbus ? "modbus" : "remote";
}

reliability::Framing framing_of(LinkMode m)
{
    return m == LinkMode::Modbus ? reliability::Framing::Modbus : reliability::Framing::Remote;
}

// The reply that gets the fault: well after the first full passes.
constexpr uint64_t kFaultyReply = 20;
// A time-out long enough that no request times out on a loaded machine but
// the one made late on purpose, which comes 300 ms after it.
constexpr auto kTimeout = std::chrono::milliseconds(1000);
constexpr auto kLate = std::chrono::milliseconds(1300);

// plcsim with the address pattern, the proxy in front of it, and a host
// reading two blocks of ten registers as fast as it can.
class PairingRig {
public:
    PairingRig(LinkMode mode, Fault fault, std::chrono::milliseconds delay = std::chrono::milliseconds(0))
        : mode_(mode), sim_(kPlcsim, {"--static", "--fill", "address"})
    {
        std::string error;
        if (!sim_.start(&error))
            throw std::runtime_error(error);
        const int upstream = mode == LinkMode::Modbus ? sim_.modbus_port() : sim_.remote_port();
        proxy_ = std::make_unique<FaultProxy>(upstream, 1, 0, kTimeout, std::vector<Fault>{}, framing_of(mode));
        proxy_->script(kFaultyReply, fault, delay);
        auto cfg = config_for(proxy_->port(), mode);
        cfg.timeout = kTimeout;
        cfg.retry_limit = 3;
        cfg.poll_interval = std::chrono::milliseconds(1);
        host_ = std::make_unique<Host>(cfg);
        tags_ = {tag(4, "0", 10, 1, "a"), tag(4, "1000", 10, 1, "b")};
        host_->set_reply_hook([this](const plchost::ReplyEvent &e) {
            if (e.status == 1 || e.status == 100)
                watch_.check(*host_, tags_);
        });
        host_->set_tags(tags_);
    }
    ~PairingRig() { host_.reset(); }

    // Runs until `after` has passed since the faulty reply came from the peer.
    void run(std::chrono::milliseconds after)
    {
        std::string error;
        ASSERT_TRUE(host_->start(true, &error)) << error;
        // Every tag read once in this run before the values are watched.
        ASSERT_TRUE(host_->wait_passes(1, std::chrono::milliseconds(5000)));
        watch_.arm();
        ASSERT_LT(proxy_->replies(), kFaultyReply) << "the fault came before the watch was armed";
        ASSERT_TRUE(eventually([&] { return proxy_->replies() >= kFaultyReply; }, std::chrono::milliseconds(10000)))
            << "the peer never sent reply " << kFaultyReply;
        std::this_thread::sleep_for(after);
        ASSERT_TRUE(host_->wait_passes(2, std::chrono::milliseconds(5000)));
        host_->stop();
    }

    void report(const char *what) const
    {
        const auto s = host_->stats();
        std::printf("pairing %s %s: requests=%llu good=%llu failed=%llu foreign=%llu resyncs=%llu stale_bytes=%llu "
                    "checks=%llu wrong=%llu\n",
                    mode_name(mode_), what, (unsigned long long)s.requests, (unsigned long long)s.good_replies,
                    (unsigned long long)s.failed_replies, (unsigned long long)s.foreign_replies,
                    (unsigned long long)s.resyncs, (unsigned long long)s.stale_bytes,
                    (unsigned long long)watch_.checks(), (unsigned long long)watch_.wrong());
    }

    Host &host() { return *host_; }
    FaultProxy &proxy() { return *proxy_; }
    const pattern::Watch &watch() const { return watch_; }

private:
    LinkMode mode_;
    PlcsimProcess sim_;
    std::unique_ptr<FaultProxy> proxy_;
    pattern::Watch watch_;
    std::vector<Tag> tags_;
    std::unique_ptr<Host> host_;
};

class ReplyPairing : public ::testing::TestWithParam<LinkMode> {};

std::string param_name(const ::testing::TestParamInfo<LinkMode> &info)
{
    return mode_name(info.param);
}

} // namespace

// One reply 300 ms later than the time-out: the request fails once and is
// retried; the late reply is discarded (Modbus TCP: by its transaction
// identifier; remote frame: it arrives on a connection that was closed).
TEST_P(ReplyPairing, LateReplyNeverShowsAnotherRegister)
{
    REQUIRE_PLCSIM();
    PairingRig rig(GetParam(), Fault::Late, kLate);
    rig.run(kLate + std::chrono::milliseconds(300));
    rig.report("late reply");
    const auto s = rig.host().stats();
    EXPECT_EQ(rig.watch().wrong(), 0u) << rig.watch().first_wrong();
    EXPECT_GT(rig.watch().checks(), 40u);
    EXPECT_GE(s.failed_replies, 1u) << "the late reply must cost its request one failure";
    EXPECT_LE(s.failed_replies, 2u) << "at most one failure besides the late reply's own";
    EXPECT_EQ(s.give_ups, 0u);
    if (GetParam() == LinkMode::Remote) {
        EXPECT_GE(s.resyncs, 1u) << "a remote connection with a timed-out request is opened afresh";
    }
}

// One reply sent twice in one piece.
TEST_P(ReplyPairing, ReplySentTwiceNeverShowsAnotherRegister)
{
    REQUIRE_PLCSIM();
    PairingRig rig(GetParam(), Fault::Duplicate);
    rig.run(std::chrono::milliseconds(300));
    rig.report("reply twice");
    const auto s = rig.host().stats();
    EXPECT_EQ(rig.watch().wrong(), 0u) << rig.watch().first_wrong();
    EXPECT_GT(rig.watch().checks(), 40u);
    // Modbus TCP tells the copy by its transaction identifier: no failure.
    // The remote frame cannot tell which of the two is the answer and takes
    // neither: one failure.
    EXPECT_LE(s.failed_replies, GetParam() == LinkMode::Modbus ? 0u : 1u);
}

// The connection's previous reply (another request's) arrives in front of
// the right one, within the time-out. Modbus TCP: discarded by its
// transaction identifier and the right one accepted, no failure, no retry.
// Remote frame: at most one failure, never the other request's values.
TEST_P(ReplyPairing, AnotherRequestsReplyBeforeTheRightOne)
{
    REQUIRE_PLCSIM();
    PairingRig rig(GetParam(), Fault::Stale);
    rig.run(std::chrono::milliseconds(300));
    rig.report("stale reply first");
    const auto s = rig.host().stats();
    EXPECT_EQ(rig.watch().wrong(), 0u) << rig.watch().first_wrong();
    if (GetParam() == LinkMode::Modbus) {
        EXPECT_EQ(s.failed_replies, 0u);
        EXPECT_EQ(s.retries, 0u);
        EXPECT_GE(s.foreign_replies, 1u);
    } else {
        EXPECT_LE(s.failed_replies, 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(LinkModes, ReplyPairing, ::testing::Values(LinkMode::Modbus, LinkMode::Remote), param_name);

#ifdef PLCPOLL_PATH
// The commissioning engineer's view: plcpoll --json through a peer that
// answers one request late. Every refresh must show each tag's own
// registers (tag a registers 0..9, tag b 1000..1009).
TEST_P(ReplyPairing, PlcpollThroughAPeerAnsweringOneRequestLate)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static", "--fill", "address"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const bool modbus = GetParam() == LinkMode::Modbus;
    FaultProxy proxy(modbus ? sim.modbus_port() : sim.remote_port(), 1, 0, kTimeout, {}, framing_of(GetParam()));
    proxy.script(kFaultyReply, Fault::Late, kLate);
    const auto r = PlcsimProcess::run_to_exit(PLCPOLL_PATH,
                                              {"--link", mode_name(GetParam()), "--port", std::to_string(proxy.port()),
                                               "--tag", "a,4,0,1,10", "--tag", "b,4,1000,1,10", "--timeout", "1000",
                                               "--interval", "1", "--duration", "3", "--json"},
                                              30000);
    ASSERT_EQ(r.exit_status, 0) << r.err;
    ASSERT_GE(proxy.replies(), kFaultyReply) << "plcpoll never got as far as the late reply";
    int refreshes = 0, wrong = 0;
    nlohmann::json stats;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        const auto j = nlohmann::json::parse(line);
        if (j.contains("stats")) {
            stats = j["stats"];
            continue;
        }
        ++refreshes;
        for (const auto &t : j.at("tags")) {
            const int base = t.at("name") == "a" ? 0 : 1000;
            const auto &values = t.at("values");
            for (size_t i = 0; i < values.size(); ++i) {
                // A tag not read yet shows zeros; anything else must be its own address.
                if (values[i] != base + int(i) && values[i] != 0)
                    ++wrong;
            }
        }
    }
    std::printf("pairing %s plcpoll: refreshes=%d wrong=%d stats=%s\n", mode_name(GetParam()), refreshes, wrong,
                stats.dump().c_str());
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(refreshes, 10);
    ASSERT_FALSE(stats.is_null());
    EXPECT_GE(stats.at("failed_replies").get<int>(), 1);
    EXPECT_LE(stats.at("failed_replies").get<int>(), 2);
}
#endif
