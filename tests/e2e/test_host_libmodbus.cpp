// The reference host against a libmodbus server inside the test: cyclic
// reads of the word and bit classes, writes landing in the peer's memory,
// station-0 broadcast and one-shot reads.
#include "e2e_util.h"
#include "modbus_peer.h"

#include <gtest/gtest.h>

using namespace e2e;
using plchost::DoneResult;
using plchost::Host;

TEST(HostLibmodbus, CyclicReadOfHoldingRegistersFollowsThePeer)
{
    ModbusPeer peer;
    peer.set_holding(10, 0x1234); // class 4: no address offset
    peer.set_holding(11, 0xBEEF);
    Host host(config_for(peer.port()));
    const auto t = tag(4, "10", 2);
    ASSERT_EQ(host.set_tags({t}), 1);
    std::string error;
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(eventually([&] { return values_of(host, t) == std::vector<uint64_t>{0x1234, 0xBEEF}; }));

    peer.set_holding(11, 7);
    ASSERT_TRUE(eventually([&] { return values_of(host, t) == std::vector<uint64_t>{0x1234, 7}; }));
    host.stop();
    const auto s = host.stats();
    EXPECT_GE(s.requests, 2u);
    EXPECT_EQ(s.good_replies, s.requests);
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_GT(s.passes, 0u);
    EXPECT_GT(s.rtt_samples, 0u);
    EXPECT_LE(s.rtt_min_ms, s.rtt_avg_ms);
    EXPECT_LE(s.rtt_avg_ms, s.rtt_max_ms);
}

TEST(HostLibmodbus, CyclicReadOfBitsAtAnyBitAddress)
{
    ModbusPeer peer;
    // Coils 0xA000 + 13..20 and discrete inputs 0x6000 + 3..5.
    for (int i = 0; i < 8; ++i)
        peer.set_coil(0xA000 + 13 + i, i % 3 == 0);
    peer.set_discrete(0x6000 + 4, true);
    Host host(config_for(peer.port()));
    const auto coils = tag(1, "1.5", 8); // bits 13..20
    const auto inputs = tag(0, "0.3", 3);
    ASSERT_EQ(host.set_tags({coils, inputs}), 2);
    ASSERT_TRUE(host.start(true));
    EXPECT_TRUE(eventually([&] { return values_of(host, coils) == std::vector<uint64_t>{1, 0, 0, 1, 0, 0, 1, 0}; }));
    EXPECT_TRUE(eventually([&] { return values_of(host, inputs) == std::vector<uint64_t>{0, 1, 0}; }));
}

TEST(HostLibmodbus, WritesReachThePeer)
{
    ModbusPeer peer;
    Host host(config_for(peer.port()));
    ASSERT_TRUE(host.start(true));
    EXPECT_EQ(write_values(host, tag(4, "100", 0), {0x0102, 0x0304}), DoneResult::Ok);
    EXPECT_EQ(peer.holding(100), 0x0102);
    EXPECT_EQ(peer.holding(101), 0x0304);
    EXPECT_EQ(write_values(host, tag(3, "5", 0), {0xCAFE}), DoneResult::Ok);
    EXPECT_EQ(peer.holding(0xA005), 0xCAFE);
    EXPECT_EQ(write_values(host, tag(1, "2.1", 0), {1, 0, 1}), DoneResult::Ok);
    EXPECT_EQ(peer.coil(0xA000 + 17), 1);
    EXPECT_EQ(peer.coil(0xA000 + 18), 0);
    EXPECT_EQ(peer.coil(0xA000 + 19), 1);
}

TEST(HostLibmodbus, BroadcastWriteExpectsNoReply)
{
    ModbusPeer peer;
    Host host(config_for(peer.port()));
    ASSERT_TRUE(host.start(true));
    EXPECT_EQ(write_values(host, tag(4, "300", 0, 0), {4242}), DoneResult::Ok);
    EXPECT_TRUE(eventually([&] { return peer.holding(300) == 4242; }));
    const auto s = host.stats();
    EXPECT_EQ(s.timeouts, 0u);
    EXPECT_EQ(s.failed_replies, 0u);
    EXPECT_EQ(peer.requests_for_unit(0), 1u);
}

TEST(HostLibmodbus, OneShotReadFillsTheMirror)
{
    ModbusPeer peer;
    peer.set_input(0x8000 + 40, 555);
    Host host(config_for(peer.port()));
    ASSERT_TRUE(host.start(true));
    const auto t = tag(2, "40", 1);
    int id = 0;
    ASSERT_TRUE(host.read_once(t, 3, &id));
    EXPECT_EQ(host.wait_done(3, id, 3000ms), DoneResult::Ok);
    EXPECT_EQ(values_of(host, t), std::vector<uint64_t>{555});
    EXPECT_FALSE(host.read_once(tag(2, "x", 1)));
}

TEST(HostLibmodbus, WriteBurstsDoNotWaitForThePollInterval)
{
    ModbusPeer peer;
    auto cfg = config_for(peer.port());
    cfg.poll_interval = 3000ms;
    Host host(cfg);
    ASSERT_TRUE(host.start(true));
    // The driver sends at most five writes in a row; with no cyclic list the
    // sixth must still go out at once, not after a poll interval.
    std::vector<int> ids;
    for (int n = 0; n < 12; ++n) {
        std::vector<uint8_t> bytes;
        auto t = tag(4, std::to_string(500 + n), 0);
        plchost::encode_values(4, {uint64_t(n + 1)}, &bytes, &t.count);
        int id = 0;
        ASSERT_GT(host.write(t, bytes, 1, &id), 0);
        ids.push_back(id);
    }
    const auto start = std::chrono::steady_clock::now();
    for (int id : ids)
        ASSERT_EQ(host.wait_done(1, id, 2500ms), DoneResult::Ok);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
    for (int n = 0; n < 12; ++n)
        EXPECT_EQ(peer.holding(500 + n), n + 1);
}

TEST(HostLibmodbus, EndpointsAreChosenByStation)
{
    ModbusPeer a, b;
    a.set_holding(5, 0xAAAA);
    b.set_holding(5, 0xBBBB);
    auto cfg = config_for(a.port());
    cfg.endpoints[0].stations = {1};
    plchost::Endpoint second;
    second.port = uint16_t(b.port());
    second.stations = {2};
    cfg.endpoints.push_back(second);
    Host host(cfg);
    const auto s1 = tag(4, "5", 1, 1), s2 = tag(4, "5", 1, 2);
    host.set_tags({s1, s2});
    ASSERT_TRUE(host.start(true));
    ASSERT_TRUE(host.wait_passes(2, 3000ms));
    EXPECT_EQ(values_of(host, s1), std::vector<uint64_t>{0xAAAA});
    EXPECT_EQ(values_of(host, s2), std::vector<uint64_t>{0xBBBB});
    ASSERT_EQ(write_values(host, tag(4, "6", 0, 2), {0x1234}), DoneResult::Ok);
    EXPECT_EQ(b.holding(6), 0x1234);
    EXPECT_EQ(a.holding(6), 0);
    EXPECT_GT(a.requests_for_unit(1), 0u);
    EXPECT_EQ(a.requests_for_unit(2), 0u);
    EXPECT_GT(b.requests_for_unit(2), 0u);
    EXPECT_EQ(b.requests_for_unit(1), 0u);
    EXPECT_TRUE(host.connected(0));
    EXPECT_TRUE(host.connected(1));
}

// Results nobody waits for do not pile up in a host that runs for long: the
// oldest are forgotten once 4,096 newer ones have come, and a result is
// taken by the wait that asks for it.
TEST(HostLibmodbus, WriteResultsAreKeptBoundedly)
{
    ModbusPeer peer;
    Host host(config_for(peer.port()));
    ASSERT_TRUE(host.start(true));
    std::vector<int> ids;
    const int writes = 4096 + 100;
    for (int n = 0; n < writes; ++n) {
        std::vector<uint8_t> bytes;
        auto t = tag(4, "600", 0);
        plchost::encode_values(4, {uint64_t(n)}, &bytes, &t.count);
        int id = 0;
        ASSERT_GT(host.write(t, bytes, 1, &id), 0);
        ids.push_back(id);
        // Keep the write list short: wait for every 50th.
        if (n % 50 == 49) {
            ASSERT_TRUE(eventually([&] { return host.stats().write_done_ok >= uint64_t(n + 1); }, 10000ms));
        }
    }
    ASSERT_TRUE(eventually([&] { return host.stats().write_done_ok >= uint64_t(writes); }, 10000ms));
    EXPECT_EQ(host.wait_done(1, ids.front(), 0ms), DoneResult::TimedOut) << "the oldest result is forgotten";
    EXPECT_EQ(host.wait_done(1, ids.back(), 0ms), DoneResult::Ok);
    EXPECT_EQ(host.wait_done(1, ids.back(), 0ms), DoneResult::TimedOut) << "taken by the first wait";
    EXPECT_EQ(peer.holding(600), writes - 1);
}
