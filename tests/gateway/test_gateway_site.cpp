// The site's topologies: two gateways into one broker, and a gateway
// behind a second broker bridged to the consumer's (mosquitto's
// "connection" bridge, plcgate/# both ways). Every value arrives once.
#include "harness.h"
#include "modbus_client.h"

#include <algorithm>
#include <set>

namespace gatetest {
namespace {

// A tag that plcsim moves on its own: input register 0x8000, one up every
// 100 ms.
const char *const kTicks = "ticks,2,0,1,1\n";
constexpr uint64_t kEnough = 15; // messages of a tag to look at

// Each seq once, one after the other from 1, the value never going back.
void expect_each_seq_once(const std::vector<TagMessage> &messages, const std::string &gateway)
{
    ASSERT_FALSE(messages.empty()) << gateway;
    std::set<uint64_t> seen;
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_TRUE(seen.insert(messages[i].seq).second) << gateway << ": seq " << messages[i].seq << " twice";
        EXPECT_EQ(messages[i].seq, i + 1) << gateway;
        if (i > 0) {
            EXPECT_GE(messages[i].value, messages[i - 1].value) << gateway;
        }
    }
}

size_t count_of(const std::vector<std::string> &payloads, const std::string &payload)
{
    return size_t(std::count(payloads.begin(), payloads.end(), payload));
}

TEST(GatewaySite, TwoGatewaysIntoOneBroker)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.prepare(kTicks, {}), "");
    ASSERT_EQ(site.start_gate(), "");
    GateSetup second = site.setup;
    second.name = "line2";
    Gate other(site.dir, second.name, second.text());
    ASSERT_TRUE(other.start());
    const std::vector<std::string> gateways = {"line1", "line2"};
    for (const std::string &g : gateways)
        ASSERT_TRUE(site.wait_tag(
            "ticks", [](const TagMessage &m) { return m.seq >= kEnough; }, kLong, g))
            << g << ": " << other.log();
    for (const std::string &g : gateways) {
        expect_each_seq_once(site.tag_messages("ticks", g), g);
        EXPECT_EQ(count_of(site.consumer->payloads(Site::topic_of(g, "status")), "online"), 1u) << g;
    }
}

// The consumer's broker ("central", the site's) and the gateway's
// ("edge"), which bridges plcgate/# both ways to the central one.
struct BridgedSite : Site {
    BridgedSite()
        : edge(dir, "edge",
               "allow_anonymous true\nconnection central\naddress 127.0.0.1:" + std::to_string(broker.port()) +
                   "\ntopic plcgate/# both 1\n")
    {
    }

    // The edge broker, started; "" once a message published on it reaches
    // the consumer on the central one.
    std::string start_edge()
    {
        if (!edge.start())
            return "the edge mosquitto did not start: " + edge.log();
        const std::string probe = Site::topic_of("bridge", "probe");
        const bool through = eventually([&] {
            Consumer::publish(edge.port(), probe, "probe", dir.path());
            return !consumer->payloads(probe).empty();
        });
        return through ? "" : "nothing came through the bridge: " + edge.log();
    }

    Broker edge;
};

TEST(GatewaySite, AGatewayBehindABridgedBroker)
{
    GATE_REQUIRE_BROKER();
    BridgedSite site;
    site.setup.writable = "words";
    ASSERT_EQ(site.prepare(std::string(kTicks) + "words,4,10,1,2\n", {}), "");
    ASSERT_EQ(site.start_edge(), "");
    site.setup.mqtt_port = site.edge.port();
    ASSERT_EQ(site.start_gate(), "") << site.edge.log();
    ASSERT_TRUE(site.wait_tag("ticks", [](const TagMessage &m) { return m.seq >= kEnough; }));
    expect_each_seq_once(site.tag_messages("ticks"), "line1");
    EXPECT_EQ(count_of(site.consumer->payloads(site.topic("status")), "online"), 1u);

    // A set from the central broker reaches the PLC through the bridge, and
    // its ack comes back once.
    const auto ack = site.set("words", R"({"value": [3, 4], "id": "through"})", "through");
    ASSERT_TRUE(ack) << site.gate->log();
    EXPECT_EQ((*ack)["result"], "ok");
    ModbusClient plc(site.plc->modbus_port());
    EXPECT_EQ(plc.holding(10, 2), (std::vector<uint16_t>{3, 4}));
    ASSERT_TRUE(site.wait_tag("words", [](const TagMessage &m) { return m.value == nlohmann::json({3, 4}); }));
    EXPECT_EQ(site.consumer->payloads(site.topic("tags/words/ack")).size(), 1u);
    expect_each_seq_once(site.tag_messages("words"), "line1");
}

} // namespace
} // namespace gatetest
