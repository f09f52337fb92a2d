// plcgate as a service: the broker publishes its last will when it dies,
// SIGTERM publishes offline and exits 0, and a bad configuration is one
// line on stderr naming the key and its line, with a non-zero exit.
#include "harness.h"

#include <algorithm>

namespace gatetest {
namespace {

constexpr int kExitUsage = 2; // plcgate's exit status for a bad configuration

// The retained status as a client that subscribes now gets it.
std::string retained_status(const Site &site)
{
    const Ran r = run({"mosquitto_sub", "-h", "127.0.0.1", "-p", std::to_string(site.broker.port()), "-t",
                       site.topic("status"), "-C", "1", "-W", "10"},
                      site.dir.path(), "late-subscriber");
    return r.out;
}

std::string last_status(const Site &site)
{
    const auto statuses = site.consumer->payloads(site.topic("status"));
    return statuses.empty() ? "" : statuses.back();
}

TEST(GatewayService, KilledItsLastWillSaysOffline)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("words,4,0,1,2\n"), "");
    ASSERT_TRUE(site.wait_tag("words", [](const TagMessage &) { return true; }));
    EXPECT_EQ(site.gate->stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(eventually([&] { return last_status(site) == "offline"; }))
        << testing::PrintToString(site.consumer->payloads(site.topic("status")));
    EXPECT_EQ(retained_status(site), "offline\n");
}

TEST(GatewayService, SigtermPublishesOfflineAndExitsZero)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("words,4,0,1,2\n"), "");
    ASSERT_TRUE(site.wait_tag("words", [](const TagMessage &) { return true; }));
    EXPECT_EQ(site.gate->stop(SIGTERM), 0) << site.gate->log();
    EXPECT_TRUE(eventually([&] { return last_status(site) == "offline"; }))
        << testing::PrintToString(site.consumer->payloads(site.topic("status")));
    EXPECT_EQ(retained_status(site), "offline\n");
    // It said goodbye (DISCONNECT), after which a broker drops the last
    // will: the offline above is the gateway's own.
    EXPECT_TRUE(eventually([&] {
        return site.broker.log().find("Client plcgate-line1 disconnected.") != std::string::npos;
    })) << site.broker.log();
    EXPECT_NE(site.gate->log().find("plcgate: stopped"), std::string::npos) << site.gate->log();
}

TEST(GatewayService, SigtermWithoutABrokerStillExitsZero)
{
    GATE_REQUIRE_BROKER();
    Site site;
    ASSERT_EQ(site.start("words,4,0,1,2\n"), "");
    site.broker.stop();
    EXPECT_EQ(site.gate->stop(SIGTERM), 0) << site.gate->log();
}

struct BadConfig {
    std::string conf;                 // the file's text (after a [gateway] name and tags)
    std::vector<std::string> options; // on the command line
    std::string expected;             // in the error; FILE stands for the file's path
};

TEST(GatewayService, ABadConfigurationIsOneLineNamingTheKeyAndExitsNonZero)
{
    TempDir dir;
    write_file(dir.file("tags.csv"), "words,4,0,1,2\nticks,2,0,1,1\n");
    const std::string head = "[gateway]\nname = line1\ntags = tags.csv\n";
    const std::vector<BadConfig> cases = {
        {"[plc]\n; the PLC\nport = abc\n", {}, "FILE:6: [plc] port: invalid value 'abc'"},
        {"[mqtt]\nhots = x\n", {}, "FILE:5: unknown key [mqtt] hots"},
        {"writable = words, nothere\n", {}, "FILE:4: [gateway] writable: no tag 'nothere'"},
        {"writable = ticks\n", {}, "FILE:4: [gateway] writable: tag 'ticks' is kind 2"},
        {"[mqtt]\ncert_file = " + dir.file("tags.csv") + "\n",
         {},
         "FILE:5: [mqtt] cert_file: a client certificate needs"},
        {"", {"--mqtt.port", "0"}, "--mqtt.port: invalid value '0'"},
        {"", {"--plc.linq", "modbus"}, "unknown option '--plc.linq'"},
        {"[plc]\nlink = tcp\n", {"--plc.link", "serial"}, "--plc.link: invalid value 'serial'"},
    };
    for (const BadConfig &c : cases) {
        write_file(dir.file("gate.conf"), head + c.conf);
        std::vector<std::string> argv = {PLCGATE_PATH, "--config", dir.file("gate.conf")};
        argv.insert(argv.end(), c.options.begin(), c.options.end());
        const Ran r = run(argv, dir.path(), "plcgate");
        std::string expected = c.expected;
        if (expected.rfind("FILE", 0) == 0)
            expected.replace(0, 4, dir.file("gate.conf"));
        EXPECT_EQ(r.status, kExitUsage) << c.conf;
        EXPECT_NE(r.err.find(expected), std::string::npos) << r.err;
        EXPECT_EQ(r.err.rfind("plcgate: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        std::filesystem::remove(dir.file("plcgate.err"));
    }
    const Ran missing = run({PLCGATE_PATH, "--config", dir.file("nothere.conf")}, dir.path(), "missing");
    EXPECT_EQ(missing.status, kExitUsage);
    EXPECT_NE(missing.err.find(dir.file("nothere.conf")), std::string::npos) << missing.err;
}

} // namespace
} // namespace gatetest
