// The broker away for ten seconds while a value changes every 100 ms: the
// gateway keeps every change and delivers them once the broker is back, so
// a consumer with a persistent session sees every seq, in order.
#include "harness.h"
#include "modbus_client.h"

#include <algorithm>
#include <atomic>
#include <map>

namespace gatetest {
namespace {

constexpr auto kOutage = 10s;
constexpr auto kStep = 100ms;
constexpr int kRegister = 60; // the tag's holding register

// An independent Modbus client that counts the register up, one step at a
// time, until it is stopped; the last value it wrote.
class Writer {
public:
    explicit Writer(int port) : plc_(port), thread_([this] { run(); }) {}
    ~Writer() { stop(); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    uint16_t stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        return last_;
    }
    uint16_t last() const { return last_; }

private:
    void run()
    {
        while (!stop_) {
            plc_.write_holding(kRegister, {uint16_t(last_ + 1)});
            ++last_;
            std::this_thread::sleep_for(kStep);
        }
    }

    ModbusClient plc_;
    std::atomic<bool> stop_{false};
    std::atomic<uint16_t> last_{0};
    std::thread thread_;
};

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Every seq from the first to the last, each first seen in order; a seq
// seen again must be the same message (QoS 1 may deliver one twice).
void expect_every_seq_in_order(const std::vector<std::string> &payloads)
{
    std::map<uint64_t, std::string> seen;
    uint64_t expected = 0;
    for (const std::string &p : payloads) {
        const auto m = tag_message(p);
        ASSERT_TRUE(m) << p;
        const auto earlier = seen.find(m->seq);
        if (earlier != seen.end()) {
            EXPECT_EQ(earlier->second, p) << "seq " << m->seq << " came twice with different values";
            continue;
        }
        if (expected != 0) {
            EXPECT_EQ(m->seq, expected) << "after seq " << expected - 1;
        }
        expected = m->seq + 1;
        seen[m->seq] = p;
    }
}

TEST(GatewayOutage, TheBrokerAwayForTenSecondsEverySeqArrivesInOrder)
{
    GATE_REQUIRE_BROKER();
    Site site;
    site.setup.gateway_extra = "refresh = 3600\n";
    // A persistent session that ignores the retained copies a new
    // subscription brings: only what was published while it was subscribed.
    const std::vector<std::string> session = {"-c", "-i", "plcgate-test-consumer", "-R"};
    ASSERT_EQ(site.start("level,4,60,1,1\n", {"--static"}, session), "");
    Writer writer(site.plc->modbus_port());
    ASSERT_TRUE(site.wait_tag("level", [](const TagMessage &m) { return m.value >= 5; }));

    ASSERT_EQ(site.broker.stop(), 0);
    const int64_t away = now_ms();
    const uint16_t before = writer.last();
    std::this_thread::sleep_for(kOutage); // the outage itself, not a wait for something
    const int64_t back = now_ms();
    ASSERT_TRUE(site.gate->running()) << site.gate->log();
    EXPECT_GE(writer.last() - before, 50) << "the value hardly changed while the broker was away";
    ASSERT_TRUE(site.broker.start()) << site.broker.log();

    // The gateway is back (its status again) and publishes live once more.
    EXPECT_TRUE(eventually([&] {
        const auto s = site.consumer->payloads(site.topic("status"));
        return std::count(s.begin(), s.end(), "online") >= 2;
    })) << site.gate->log();
    const uint16_t last = writer.stop();
    ASSERT_TRUE(site.wait_tag("level", [&](const TagMessage &m) { return m.value == last; })) << site.gate->log();

    const auto payloads = site.consumer->payloads(site.topic("tags/level"));
    expect_every_seq_in_order(payloads);
    int during = 0;
    for (const std::string &p : payloads) {
        const auto m = tag_message(p);
        during += m->ts > away && m->ts < back;
    }
    EXPECT_GE(during, 30) << "changes read while the broker was away";
    EXPECT_EQ(tag_message(payloads.front())->seq, 1u);
}

} // namespace
} // namespace gatetest
