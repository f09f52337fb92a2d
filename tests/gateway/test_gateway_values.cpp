// Values and writes through a real broker: plcsim's memory as the consumer
// sees it, a changing value's seq, the PLC stopped and started, sets that
// land (read back with libmodbus) and sets that are refused.
#include "harness.h"
#include "modbus_client.h"

#include <cstring>

namespace gatetest {
namespace {

const char *const kMemoryTags = "holding,3,100,1,4\n"
                                "words,4,10,1,2\n"
                                "inputs,2,5,1,3\n"
                                "dword,10,20,1,2\n"
                                "coils,1,0.0,1,8\n"
                                "setpoint,4,30,1,2,float32,CDAB\n";

TEST(GatewayValues, ValuesArriveAndEqualThePlcsMemory)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start(kMemoryTags, {"--static", "--fill", "address"}), "");
    ModbusClient check(site.plc->modbus_port());
    check.write_holding(30, {0x0000, 0x41AC}); // 21.5 as float32, words swapped (CDAB)
    const std::vector<std::tuple<std::string, int, int, int>> raw = {
        {"holding", 3, 100, 4}, {"words", 4, 10, 2}, {"inputs", 2, 5, 3}, {"dword", 10, 20, 2}, {"coils", 1, 0, 8}};
    for (const auto &[name, kind, address, count] : raw) {
        ASSERT_TRUE(site.wait_tag(name, [](const TagMessage &) { return true; })) << name;
        const TagMessage m = site.tag_messages(name).front();
        const std::vector<uint64_t> expected = check.expected(kind, address, count);
        EXPECT_EQ(m.value, expected.size() == 1 ? nlohmann::json(expected[0]) : nlohmann::json(expected)) << name;
        EXPECT_EQ(m.quality, "good");
        EXPECT_EQ(m.seq, 1u);
        EXPECT_NEAR(double(m.ts),
                    double(std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count()),
                    60000.0);
    }
    ASSERT_TRUE(site.wait_tag("setpoint", [](const TagMessage &m) { return m.value == 21.5; }));
    EXPECT_TRUE(site.consumer->wait_for(site.topic("stats"), [](const std::string &p) {
        const auto j = nlohmann::json::parse(p, nullptr, false);
        return j.is_object() && j["plc"]["good_replies"].get<uint64_t>() > 0 && j["mqtt"]["connected"] == true;
    }));
}

TEST(GatewayValues, AChangingValueArrivesWithConsecutiveSeq)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("ticks,2,0,1,1\n", {}), ""); // input register 0x8000: +1 every 100 ms
    ASSERT_TRUE(site.wait_tag("ticks", [](const TagMessage &m) { return m.seq >= 20; }));
    const auto messages = site.tag_messages("ticks");
    for (size_t i = 1; i < messages.size(); ++i) {
        EXPECT_EQ(messages[i].seq, messages[i - 1].seq + 1);
        EXPECT_GT(messages[i].value.get<uint64_t>(), messages[i - 1].value.get<uint64_t>());
        EXPECT_GE(messages[i].ts, messages[i - 1].ts);
    }
    EXPECT_EQ(messages.front().seq, 1u);
}

TEST(GatewayValues, ThePlcStoppedIsBadThenGoodAgain)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("words,4,0,1,2\n"), "");
    ASSERT_TRUE(site.wait_tag("words", [](const TagMessage &m) { return m.quality == "good"; }));
    const int port = site.plc->modbus_port();
    site.plc->stop();
    ASSERT_TRUE(site.wait_tag("words", [](const TagMessage &m) { return m.quality == "bad"; }));
    const uint64_t bad_seq = site.tag_messages("words").back().seq;
    ASSERT_EQ(site.start_plc({"--static", "--port", std::to_string(port)}), "");
    EXPECT_TRUE(site.wait_tag("words", [&](const TagMessage &m) { return m.quality == "good" && m.seq > bad_seq; }));
}

TEST(GatewayValues, SighupReadsTheTagFileAgain)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("a,4,0,1,1\nb,4,1,1,1\n"), "");
    ASSERT_TRUE(site.wait_tag("b", [](const TagMessage &) { return true; }));
    write_file(site.dir.file("tags.csv"), "b,4,1,1,1\nc,4,2,1,1\n");
    site.gate->signal(SIGHUP);
    EXPECT_TRUE(site.wait_tag("c", [](const TagMessage &m) { return m.seq == 1; }));
    EXPECT_TRUE(site.wait_tag("b", [](const TagMessage &m) { return m.seq == 2; })); // published once more
    // The removed tag's retained value is cleared (an empty message).
    EXPECT_TRUE(
        site.consumer->wait_for(site.topic("tags/a"), [](const std::string &p) { return p.empty() || p == "(null)"; }));
    write_file(site.dir.file("tags.csv"), "broken line\n");
    site.gate->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return site.gate->log().find("keeping the 2 tags") != std::string::npos; }));
    EXPECT_TRUE(site.gate->running());
}

const char *const kWriteTags = "setpoint,4,30,1,2,float32,CDAB\n"
                               "words,4,10,1,2\n"
                               "coil,1,1.0,1,1\n"
                               "label,3,40,1,3,ascii\n"
                               "readonly,4,50,1,1\n"
                               "inputs,2,5,1,1\n";

struct WriteSite : Site {
    WriteSite()
    {
        setup.writable = "setpoint,words,coil,label";
        error = start(kWriteTags);
    }
    std::string error;
};

TEST(GatewayWrites, ASetLandsInThePlcAndIsAckedOk)
{
    GATE_REQUIRE_BROKER();
    WriteSite site;
    ASSERT_EQ(site.error, "");
    ModbusClient plc(site.plc->modbus_port());
    auto ack = site.set("setpoint", R"({"value": 21.5, "id": "w1"})", "w1");
    ASSERT_TRUE(ack);
    EXPECT_EQ((*ack)["result"], "ok");
    EXPECT_EQ((*ack)["code"], 1);
    EXPECT_EQ(plc.holding(30, 2), (std::vector<uint16_t>{0x0000, 0x41AC}));
    ack = site.set("words", R"({"value": [7, 65535], "id": 2})", 2);
    ASSERT_TRUE(ack);
    EXPECT_EQ((*ack)["result"], "ok");
    EXPECT_EQ(plc.holding(10, 2), (std::vector<uint16_t>{7, 65535}));
    ASSERT_TRUE(site.set("coil", R"({"value": true, "id": "c"})", "c"));
    EXPECT_EQ(plc.coils(0xA000 + 8, 1), (std::vector<uint8_t>{1}));
    ASSERT_TRUE(site.set("label", R"({"value": "PUMP", "id": "l"})", "l"));
    EXPECT_EQ(plc.holding(0xA000 + 40, 3), (std::vector<uint16_t>{0x5055, 0x4D50, 0}));
    // A plain value without an id is acked with id null.
    site.consumer->publish(site.topic("tags/words/set"), "[1, 2]");
    EXPECT_TRUE(eventually([&] { return plc.holding(10, 2) == std::vector<uint16_t>{1, 2}; }));
    EXPECT_TRUE(site.ack("words", nullptr));
    // The new value comes back as the tag's value.
    EXPECT_TRUE(site.wait_tag("setpoint", [](const TagMessage &m) { return m.value == 21.5; }));
}

TEST(GatewayWrites, RefusedSetsReachNothing)
{
    GATE_REQUIRE_BROKER();
    WriteSite site;
    ASSERT_EQ(site.error, "");
    ModbusClient plc(site.plc->modbus_port());
    const std::vector<std::tuple<std::string, std::string, std::string>> sets = {
        {"readonly", R"({"value": 5, "id": "r1"})", "not writable"},
        {"inputs", R"({"value": 5, "id": "r2"})", "not writable"},
        {"nosuchtag", R"({"value": 5, "id": "r3"})", "unknown tag"},
        {"words", R"({"value": [1, 70000], "id": "r4"})", "invalid value"},
        {"words", R"({"value": 3, "id": "r5"})", "takes an array of 2 values"},
        {"setpoint", R"({"value": "warm", "id": "r6"})", "is a number"},
        {"label", R"({"value": "TOO LONG TEXT", "id": "r7"})", "values of the tag's"},
        {"words", R"({"value": [1, 2], "id": "r8", "extra": 1})", "unknown key"},
    };
    for (const auto &[tag, payload, why] : sets) {
        const auto ack = site.set(tag, payload, nlohmann::json::parse(payload)["id"]);
        ASSERT_TRUE(ack) << tag << " " << payload;
        EXPECT_EQ((*ack)["result"], "refused") << payload;
        EXPECT_EQ((*ack)["code"], 0);
        EXPECT_NE((*ack)["error"].get<std::string>().find(why), std::string::npos) << (*ack)["error"];
    }
    // Payloads of any size or shape: acked refused (id null), the gateway goes on.
    const std::vector<std::string> odd = {"", "{{{{", std::string(200000, '7'), std::string(5000, '[') + "1",
                                          std::string("\x00\xff\x80", 3)};
    for (const std::string &p : odd)
        ASSERT_TRUE(site.consumer->publish(site.topic("tags/words/set"), p));
    EXPECT_TRUE(eventually([&] {
        return site.consumer->payloads(site.topic("tags/words/ack")).size() >= 3 + odd.size();
    })) << testing::PrintToString(site.consumer->payloads(site.topic("tags/words/ack")));
    EXPECT_TRUE(site.gate->running());
    EXPECT_EQ(site.plc_writes(), 0);
    EXPECT_EQ(plc.holding(50, 1), (std::vector<uint16_t>{0}));
    EXPECT_EQ(plc.holding(10, 2), (std::vector<uint16_t>{0, 0}));
    EXPECT_EQ(plc.holding(30, 2), (std::vector<uint16_t>{0, 0}));
    EXPECT_EQ(plc.holding(0xA000 + 40, 3), (std::vector<uint16_t>{0, 0, 0}));
}

TEST(GatewayWrites, ASetRepeatedWithItsIdIsDoneOnce)
{
    GATE_REQUIRE_BROKER();
    WriteSite site;
    ASSERT_EQ(site.error, "");
    ModbusClient plc(site.plc->modbus_port());
    const std::string topic = site.topic("tags/words/set");
    ASSERT_TRUE(site.set("words", R"({"value": [5, 6], "id": "once"})", "once"));
    site.consumer->publish(topic, R"({"value": [5, 6], "id": "once"})");
    site.consumer->publish(topic, R"({"value": [8, 9], "id": "once"})");
    ASSERT_TRUE(eventually([&] { return site.consumer->payloads(site.topic("tags/words/ack")).size() == 3; }));
    for (const std::string &p : site.consumer->payloads(site.topic("tags/words/ack")))
        EXPECT_EQ(nlohmann::json::parse(p)["result"], "ok");
    EXPECT_EQ(site.plc_writes(), 1);
    EXPECT_EQ(plc.holding(10, 2), (std::vector<uint16_t>{5, 6}));
}

} // namespace
} // namespace gatetest
