// The reference host against the plcsim simulator (a child process on
// ephemeral ports): every register kind read and written, two stations, a
// switched-off station, the peer stopped and restarted, the remote frame and
// the station-0 broadcast. What the peer holds is checked through an
// independent libmodbus client.
#include "e2e_util.h"
#include "modbus_client.h"
#include "plcsim_process.h"
#include "plcsim_required.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

using namespace e2e;
using plchost::DoneResult;
using plchost::Host;
using plchost::Tag;

namespace {

// Requests plcsim logged per unit id ("... rx <mbap> <unit> ..." lines).
std::map<int, int> requests_per_unit(const std::string &log_path)
{
    std::map<int, int> counts;
    std::ifstream in(log_path);
    std::string line;
    while (std::getline(in, line)) {
        const auto rx = line.find("modbus");
        const auto at = line.find(" rx ");
        if (rx == std::string::npos || at == std::string::npos)
            continue;
        std::istringstream bytes(line.substr(at + 4));
        std::string b;
        for (int i = 0; i < 7 && bytes >> b; ++i)
            if (i == 6)
                ++counts[std::stoi(b, nullptr, 16)];
    }
    return counts;
}

int responses_to_unit(const std::string &log_path, int unit)
{
    std::ifstream in(log_path);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        const auto at = line.find(" tx ");
        if (line.find("modbus") == std::string::npos || at == std::string::npos)
            continue;
        std::istringstream bytes(line.substr(at + 4));
        std::string b;
        for (int i = 0; i < 7 && bytes >> b; ++i)
            if (i == 6 && std::stoi(b, nullptr, 16) == unit)
                ++n;
    }
    return n;
}

} // namespace

TEST(HostPlcsim, EveryKindReadsWhatThePeerHolds)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    std::vector<uint16_t> class3, class4;
    for (int i = 0; i < 16; ++i) {
        class3.push_back(uint16_t(0x1101 * (i + 1) ^ 0x8421));
        class4.push_back(uint16_t(0x2203 * (i + 3) ^ 0x1248));
    }
    client.write_holding(0xA000, class3);
    client.write_holding(0, class4);
    client.write_coils(0xA000, {1, 0, 1, 1, 0, 0, 1, 0, 1, 1, 1, 0, 0, 0, 1, 1});

    const std::vector<Tag> tags = {tag(0, "0.0", 8), tag(1, "0.2", 9), tag(2, "0", 5),  tag(3, "1", 3),
                                   tag(4, "2", 3),   tag(5, "0.4", 6), tag(6, "1", 3),  tag(7, "3", 2),
                                   tag(8, "5", 3),   tag(9, "8", 2),   tag(10, "2", 2), tag(11, "3", 4),
                                   tag(12, "4", 4),  tag(13, "1", 4),  tag(14, "2", 4)};
    Host host(config_for(sim.modbus_port()));
    ASSERT_EQ(host.set_tags(tags), int(tags.size()));
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 5000ms));
    for (const Tag &t : tags) {
        const auto want = client.expected(t.kind, Host::parse_address(t.kind, t.address), t.count);
        EXPECT_EQ(values_of(host, t), want) << "kind " << t.kind << " at " << t.address;
        EXPECT_EQ(int(want.size()), plchost::value_count(t.kind, t.count));
    }
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostPlcsim, MovingValuesKeepChanging)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim);
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    Host host(config_for(sim.modbus_port()));
    const auto ramp = tag(2, "4", 1);
    const auto counter32 = tag(9, "8", 2);
    const auto onehot = tag(0, "0.0", 8);
    host.set_tags({ramp, counter32, onehot});
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(1, 3000ms));
    const auto first = values_of(host, counter32);
    EXPECT_TRUE(eventually([&] { return values_of(host, counter32) != first; }));
    EXPECT_TRUE(eventually([&] {
        const auto bits = values_of(host, onehot);
        return std::count(bits.begin(), bits.end(), 1u) == 1;
    }));
    EXPECT_LE(values_of(host, ramp)[0], 1000u);
}

TEST(HostPlcsim, WritesOfEveryWritableKindLandWhereExpected)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    // Neighbours that must survive the writes.
    client.write_coils(0xA008, {1, 0, 1, 0, 1});
    client.write_holding(0xA009, {0x0909, 0, 0, 0x0C0C});
    client.write_holding(2, {0xF0F0});
    client.write_holding(0xA014, {0x1234});
    client.write_holding(30, {0x1234});
    client.write_holding(0xA018, {0x0A18, 0x0A19});
    client.write_holding(19, {0x1919, 0, 0x2121});

    Host host(config_for(sim.modbus_port()));
    ASSERT_TRUE(host.start(true, &error)) << error;

    // Coils: bits 9..11 (address 1.1); bits 8 and 12 stay.
    ASSERT_EQ(write_values(host, tag(1, "1.1", 0), {0, 1, 0}), DoneResult::Ok);
    EXPECT_EQ(client.coils(0xA008, 5), (std::vector<uint8_t>{1, 0, 1, 0, 1}));
    ASSERT_EQ(write_values(host, tag(1, "1.0", 0), {0}), DoneResult::Ok);
    EXPECT_EQ(client.coils(0xA008, 5), (std::vector<uint8_t>{0, 0, 1, 0, 1}));

    // Holding registers of class 3 (offset 0xA000) and class 4 (none).
    ASSERT_EQ(write_values(host, tag(3, "10", 0), {0x1111, 0x2222}), DoneResult::Ok);
    EXPECT_EQ(client.holding(0xA009, 4), (std::vector<uint16_t>{0x0909, 0x1111, 0x2222, 0x0C0C}));
    ASSERT_EQ(write_values(host, tag(4, "20", 0), {0x3333}), DoneResult::Ok);
    EXPECT_EQ(client.holding(19, 3), (std::vector<uint16_t>{0x1919, 0x3333, 0x2121}));

    // A bit inside class-4 word 2: bits 42..44 (address 5.2) are bits 10..12;
    // the driver reads the word, changes the bits and writes it back.
    ASSERT_EQ(write_values(host, tag(5, "5.2", 0), {1, 1, 0}), DoneResult::Ok);
    EXPECT_EQ(client.holding(2, 1)[0], 0xECF0);

    // A byte inside a register: odd addresses are the high byte.
    ASSERT_EQ(write_values(host, tag(7, "41", 0), {0xAB}), DoneResult::Ok);
    EXPECT_EQ(client.holding(0xA014, 1)[0], 0xAB34);
    ASSERT_EQ(write_values(host, tag(7, "40", 0), {0xCD}), DoneResult::Ok);
    EXPECT_EQ(client.holding(0xA014, 1)[0], 0xABCD);
    ASSERT_EQ(write_values(host, tag(8, "60", 0), {0x5A}), DoneResult::Ok);
    EXPECT_EQ(client.holding(30, 1)[0], 0x125A);

    // 32- and 64-bit values go low register first. The driver writes kinds 10
    // and 13 at the doubled (quadrupled) address without the class-3 offset
    // that its reads of those kinds add; the class-3 registers stay as they were.
    ASSERT_EQ(write_values(host, tag(10, "12", 0), {0x89ABCDEF}), DoneResult::Ok);
    EXPECT_EQ(client.holding(24, 2), (std::vector<uint16_t>{0xCDEF, 0x89AB}));
    EXPECT_EQ(client.holding(0xA018, 2), (std::vector<uint16_t>{0x0A18, 0x0A19}));
    ASSERT_EQ(write_values(host, tag(11, "13", 0), {0x01020304}), DoneResult::Ok);
    EXPECT_EQ(client.holding(26, 2), (std::vector<uint16_t>{0x0304, 0x0102}));
    ASSERT_EQ(write_values(host, tag(13, "8", 0), {0x1122334455667788ull}), DoneResult::Ok);
    EXPECT_EQ(client.holding(32, 4), (std::vector<uint16_t>{0x7788, 0x5566, 0x3344, 0x1122}));
    ASSERT_EQ(write_values(host, tag(14, "10", 0), {0x0102030405060708ull}), DoneResult::Ok);
    EXPECT_EQ(client.holding(40, 4), (std::vector<uint16_t>{0x0708, 0x0506, 0x0304, 0x0102}));

    // Reading back through the driver agrees with the peer for the kinds whose
    // reads and writes use the same registers.
    for (const Tag &t : {tag(1, "1.0", 5), tag(3, "9", 4), tag(4, "19", 3), tag(5, "5.0", 16), tag(7, "40", 2),
                         tag(8, "60", 2), tag(11, "13", 2), tag(14, "10", 4)}) {
        int id = 0;
        ASSERT_TRUE(host.read_once(t, 2, &id));
        ASSERT_EQ(host.wait_done(2, id, 3000ms), DoneResult::Ok);
        EXPECT_EQ(values_of(host, t), client.expected(t.kind, Host::parse_address(t.kind, t.address), t.count))
            << "kind " << t.kind;
    }
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostPlcsim, TwoStationsKeepTheirOwnMemory)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static", "--stations", "1,2"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port(), 1);
    client.write_holding(50, {111, 112});
    client.set_unit(2);
    client.write_holding(50, {221, 222});

    Host host(config_for(sim.modbus_port()));
    const auto s1 = tag(4, "50", 2, 1), s2 = tag(4, "50", 2, 2);
    host.set_tags({s1, s2});
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(eventually([&] {
        return values_of(host, s1) == std::vector<uint64_t>{111, 112} &&
               values_of(host, s2) == std::vector<uint64_t>{221, 222};
    }));
    ASSERT_EQ(write_values(host, tag(4, "51", 0, 2), {999}), DoneResult::Ok);
    EXPECT_EQ(client.holding(50, 2), (std::vector<uint16_t>{221, 999}));
    client.set_unit(1);
    EXPECT_EQ(client.holding(50, 2), (std::vector<uint16_t>{111, 112}));
}

TEST(HostPlcsim, SwitchedOffStationReceivesNothing)
{
    REQUIRE_PLCSIM();
    const std::string log = "/tmp/plcdriver-e2e-station-" + std::to_string(::getpid()) + ".log";
    std::remove(log.c_str());
    PlcsimProcess sim(kPlcsim, {"--static", "--stations", "1,2", "--log", log});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;

    Host host(config_for(sim.modbus_port()));
    host.set_tags({tag(4, "0", 2, 1), tag(4, "0", 2, 2)});
    host.enable_station(2, false);
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(5, 5000ms));
    // A write to the switched-off station is dropped without being sent.
    int id = 0;
    std::vector<uint8_t> bytes;
    Tag w = tag(4, "7", 0, 2);
    plchost::encode_values(4, {5}, &bytes, &w.count);
    host.write(w, bytes, 1, &id);
    ASSERT_TRUE(host.wait_passes(3, 5000ms));
    auto counts = requests_per_unit(log);
    EXPECT_GT(counts[1], 5);
    EXPECT_EQ(counts[2], 0);

    host.enable_station(2, true);
    ASSERT_TRUE(eventually([&] { return requests_per_unit(log)[2] > 0; }));
    host.stop();
    std::remove(log.c_str());
}

// Per-station figures: a station plcsim serves answers every request; one it
// does not serve gets exception 0x0B, which the driver fails on its length,
// retries and gives up. That station is failing until a good reply comes, and
// a switched-off station counts as failing.
TEST(HostPlcsim, FiguresAndFailingPerStation)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static", "--stations", "1"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    auto cfg = config_for(sim.modbus_port());
    cfg.retry_limit = 1;
    Host host(cfg);
    host.set_tags({tag(4, "0", 2, 1), tag(4, "0", 2, 7)});
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(eventually([&] { return host.stats().stations[7].give_ups >= 2; }));
    const auto s = host.stats();
    const auto &one = s.stations.at(1), &seven = s.stations.at(7);
    EXPECT_GT(one.good_replies, 0u);
    EXPECT_EQ(one.failed_replies, 0u);
    EXPECT_EQ(one.requests, one.good_replies);
    EXPECT_GT(one.rtt_samples, 0u);
    EXPECT_LE(one.rtt_min_ms, one.rtt_avg_ms);
    EXPECT_LE(one.rtt_avg_ms, one.rtt_max_ms);
    EXPECT_EQ(seven.good_replies, 0u);
    EXPECT_GE(seven.retries, seven.give_ups - 1) << "retry limit 1: a retry before every give-up";
    EXPECT_EQ(seven.failed_replies, seven.retries + seven.give_ups);
    EXPECT_EQ(seven.timeouts, 0u) << "an exception reply is a reply";
    EXPECT_EQ(s.requests, one.requests + seven.requests);
    EXPECT_FALSE(host.station_failing(1));
    EXPECT_TRUE(host.station_failing(7));
    host.enable_station(1, false);
    EXPECT_TRUE(host.station_failing(1)) << "switched off";
    host.enable_station(-1, true);
    EXPECT_FALSE(host.station_failing(1));
}

// What a tag's values are worth: not read before a reply brought them (the
// mirror would answer 0), good with the time of the reply once read, failing
// while the station is switched off; the read of a bit write brings nothing
// into the mirror, so it makes no tag read.
TEST(HostPlcsim, ReadingsSayWhatTheValuesAreWorth)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static", "--fill", "address", "--stations", "1,2"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    Host host(config_for(sim.modbus_port()));
    const Tag cyclic = tag(4, "100", 4, 1), other = tag(4, "100", 4, 2), elsewhere = tag(4, "300", 1, 1);
    host.set_tags({cyclic, other});
    plchost::Reading r;
    ASSERT_TRUE(host.read(cyclic, &r));
    EXPECT_EQ(r.quality, plchost::Quality::NotRead);

    const auto before = std::chrono::system_clock::now();
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 5000ms));
    ASSERT_TRUE(host.read(cyclic, &r));
    EXPECT_EQ(r.quality, plchost::Quality::Good);
    EXPECT_GE(r.time, before);
    EXPECT_LE(r.time, std::chrono::system_clock::now());
    EXPECT_EQ(plchost::decode_values(4, 4, r.bytes), (std::vector<uint64_t>{100, 101, 102, 103}));

    // A bit write reads its word first; that read is no reading of the word.
    ASSERT_EQ(write_values(host, tag(5, "600.1", 0, 1), {1}), DoneResult::Ok); // bit 4801: word 300
    ASSERT_TRUE(host.read(elsewhere, &r));
    EXPECT_EQ(r.quality, plchost::Quality::NotRead);
    // A one-shot read brings it.
    int id = 0;
    ASSERT_TRUE(host.read_once(elsewhere, 1, &id));
    ASSERT_EQ(host.wait_done(1, id, 5000ms), DoneResult::Ok);
    ASSERT_TRUE(host.read(elsewhere, &r));
    EXPECT_EQ(r.quality, plchost::Quality::Good);
    EXPECT_EQ(plchost::decode_values(4, 1, r.bytes), (std::vector<uint64_t>{300 | 2}));

    host.enable_station(2, false);
    ASSERT_TRUE(host.read(other, &r));
    EXPECT_EQ(r.quality, plchost::Quality::Failing) << "switched off";
    ASSERT_TRUE(host.read(cyclic, &r));
    EXPECT_EQ(r.quality, plchost::Quality::Good);
}

TEST(HostPlcsim, PeerStoppedThenRestartedOnTheSamePort)
{
    REQUIRE_PLCSIM();
    auto sim = std::make_unique<PlcsimProcess>(kPlcsim);
    std::string error;
    ASSERT_TRUE(sim->start(&error)) << error;
    const int port = sim->modbus_port();

    auto cfg = config_for(port);
    cfg.timeout = 150ms;
    cfg.retry_limit = 1;
    std::atomic<int> write_failed{0}, read_done{0}; // outlive the host, whose thread counts into them
    Host host(cfg);
    host.set_write_done_hook([&](int, int, int, int result) {
        if (result == 2)
            ++write_failed;
    });
    host.set_read_done_hook([&](int, int) { ++read_done; });
    const auto counter = tag(2, "0", 1);
    host.set_tags({counter});
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 3000ms));

    sim->stop();
    sim.reset();
    // Requests now fail: retried, then given up with both callbacks.
    std::vector<uint8_t> bytes;
    Tag w = tag(4, "3", 0);
    plchost::encode_values(4, {77}, &bytes, &w.count);
    int id = 0;
    ASSERT_GT(host.write(w, bytes, 1, &id), 0);
    EXPECT_EQ(host.wait_done(1, id, 5000ms), DoneResult::Failed);
    ASSERT_TRUE(eventually([&] { return host.stats().give_ups >= 2; }));
    EXPECT_GE(write_failed.load(), 1);
    EXPECT_GE(read_done.load(), 1);
    EXPECT_GT(host.stats().retries, 0u);
    EXPECT_GT(host.stats().timeouts, 0u);
    EXPECT_FALSE(host.connected(0));

    PlcsimProcess again(kPlcsim, {"--port", std::to_string(port)});
    ASSERT_TRUE(again.start(&error)) << error;
    ASSERT_TRUE(eventually([&] { return host.stats().reconnects >= 1; }, 5000ms));
    const auto before = values_of(host, counter);
    EXPECT_TRUE(eventually([&] { return values_of(host, counter) != before; }));
    EXPECT_TRUE(host.connected(0));
    ASSERT_EQ(write_values(host, w, {78}), DoneResult::Ok);
    EXPECT_EQ(ModbusClient(port).holding(3, 1)[0], 78);
}

TEST(HostPlcsim, RemoteFrameReadsAndWrites)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    client.write_holding(0xA000, {0x0102, 0x0304, 0x0506});
    client.write_holding(100, {0xAAAA, 0xBBBB, 0xCCCC, 0xDDDD});
    client.write_coils(0xA000, {1, 1, 0, 1});

    Host host(config_for(sim.remote_port(), plchost::LinkMode::Remote));
    const std::vector<Tag> tags = {tag(3, "0", 3), tag(4, "100", 4), tag(1, "0.0", 4), tag(11, "50", 2),
                                   tag(2, "0", 5)};
    host.set_tags(tags);
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 5000ms));
    for (const Tag &t : tags)
        EXPECT_EQ(values_of(host, t), client.expected(t.kind, Host::parse_address(t.kind, t.address), t.count))
            << "kind " << t.kind;

    ASSERT_EQ(write_values(host, tag(4, "101", 0), {0x4242}), DoneResult::Ok);
    EXPECT_EQ(client.holding(100, 3), (std::vector<uint16_t>{0xAAAA, 0x4242, 0xCCCC}));
    ASSERT_EQ(write_values(host, tag(11, "50", 0), {0xDEADBEEF}), DoneResult::Ok);
    EXPECT_EQ(client.holding(100, 2), (std::vector<uint16_t>{0xBEEF, 0xDEAD}));
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostPlcsim, BroadcastWriteIsAppliedAndNotAnswered)
{
    REQUIRE_PLCSIM();
    const std::string log = "/tmp/plcdriver-e2e-broadcast-" + std::to_string(::getpid()) + ".log";
    std::remove(log.c_str());
    PlcsimProcess sim(kPlcsim, {"--static", "--log", log});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    Host host(config_for(sim.modbus_port()));
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_EQ(write_values(host, tag(4, "400", 0, 0), {31337}), DoneResult::Ok);
    ModbusClient client(sim.modbus_port());
    EXPECT_TRUE(eventually([&] { return client.holding(400, 1)[0] == 31337; }));
    host.stop();
    EXPECT_EQ(host.stats().timeouts, 0u);
    EXPECT_EQ(host.stats().failed_replies, 0u);
    EXPECT_EQ(requests_per_unit(log)[0], 1);
    EXPECT_EQ(responses_to_unit(log, 0), 0);
    std::remove(log.c_str());
}
