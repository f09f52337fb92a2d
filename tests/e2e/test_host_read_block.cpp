// Host::add_read_block against plcsim: a ready-made cyclic entry goes on the
// wire as it is (a 2,000-coil block in one request), joins a list built by
// set_tags, can be added while the host runs, and bad blocks are refused.
#include "e2e_util.h"
#include "modbus_client.h"
#include "plcsim_process.h"
#include "plcsim_required.h"

#include <gtest/gtest.h>

using namespace e2e;
using plchost::Host;
using plchost::Tag;

namespace {

std::vector<uint8_t> coil_pattern(int n)
{
    std::vector<uint8_t> bits;
    for (int i = 0; i < n; ++i)
        bits.push_back(uint8_t(i % 3 == 0 || i % 7 == 0));
    return bits;
}

} // namespace

TEST(HostReadBlock, TwoThousandCoilsInOneRequest)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    const std::vector<uint8_t> bits = coil_pattern(2000);
    client.write_coils(0xA000, std::vector<uint8_t>(bits.begin(), bits.begin() + 1000));
    client.write_coils(0xA000 + 1000, std::vector<uint8_t>(bits.begin() + 1000, bits.end()));

    std::vector<plchost::ReplyEvent> events; // outlives the host, whose thread appends to it
    Host host(config_for(sim.modbus_port()));
    host.set_reply_hook([&](const plchost::ReplyEvent &e) { events.push_back(e); });
    ASSERT_TRUE(host.add_read_block(1, 0, 2000, 1));
    EXPECT_EQ(host.cyclic_entries(), 1);
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 5000ms));
    host.stop();

    const Tag all = tag(1, "0.0", 2000);
    const std::vector<uint64_t> got = values_of(host, all);
    ASSERT_EQ(got.size(), bits.size());
    for (size_t i = 0; i < bits.size(); ++i)
        ASSERT_EQ(got[i], bits[i]) << "coil " << i;
    ASSERT_FALSE(events.empty());
    for (const plchost::ReplyEvent &e : events) {
        EXPECT_EQ(e.count, 2000);
        EXPECT_EQ(e.bytes, 9 + 250) << "one reply carries all 2,000 bits";
        EXPECT_EQ(e.status, 1);
    }
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostReadBlock, JoinsTheTagListAndCanBeAddedWhileRunning)
{
    REQUIRE_PLCSIM();
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient client(sim.modbus_port());
    client.write_holding(0xA000, {11, 12, 13});
    client.write_holding(200, {21, 22, 23, 24});

    Host host(config_for(sim.modbus_port()));
    ASSERT_EQ(host.set_tags({tag(3, "0", 3)}), 1);
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(1, 5000ms));
    EXPECT_EQ(host.cyclic_entries(), 1);

    // Class-4 words 200..203 as one ready-made entry, added on the fly.
    ASSERT_TRUE(host.add_read_block(4, 200, 4, 1));
    ASSERT_TRUE(eventually([&] { return host.cyclic_entries() == 2; }));
    ASSERT_TRUE(host.wait_passes(2, 5000ms));
    EXPECT_EQ(values_of(host, tag(3, "0", 3)), (std::vector<uint64_t>{11, 12, 13}));
    EXPECT_EQ(values_of(host, tag(4, "200", 4)), (std::vector<uint64_t>{21, 22, 23, 24}));
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostReadBlock, BadBlocksAreRefused)
{
    Host host(config_for(1));
    EXPECT_FALSE(host.add_read_block(5, 0, 1, 1)) << "kind outside 0..4";
    EXPECT_FALSE(host.add_read_block(-1, 0, 1, 1));
    EXPECT_FALSE(host.add_read_block(3, -1, 1, 1)) << "negative start";
    EXPECT_FALSE(host.add_read_block(3, 0, 0, 1)) << "count below 1";
    EXPECT_FALSE(host.add_read_block(3, 0, 1, 256)) << "station outside 0..255";
    EXPECT_EQ(host.cyclic_entries(), 0);
}
