// The host and the driver behind a proxy that injects faults into plcsim's
// replies on a seeded schedule (fault_proxy.h): replies dropped, delayed
// within and beyond the host's time-out, late in front of another request's
// reply, truncated, duplicated, corrupted, reordered, preceded by an earlier
// reply, connections closed before and in the middle of a reply. Both link
// modes: Modbus TCP and the remote frame. fault_workload.h has the workload
// and the promises it checks (every write reported once, no write lost, no
// value of another register ever in the mirror, convergence once the faults
// stop).
//
// Environment: PLCDRIVER_FAULT_SEED (default 1) picks the schedule,
// PLCDRIVER_FAULT_PERCENT (default 25) the share of replies hit,
// PLCDRIVER_RELIABILITY_SCALE=N runs N times as many writes.
#include "fault_workload.h"
#include "plcsim_required.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

using namespace e2e;
using plchost::Host;
using reliability::FaultProxy;

namespace {

class ReliabilityFaults : public ::testing::TestWithParam<plchost::LinkMode> {};

} // namespace

TEST_P(ReliabilityFaults, RepliesFaultedBetweenHostAndPlcsim)
{
    REQUIRE_PLCSIM();
    reliability::FaultRunOptions o;
    o.mode = GetParam();
    o.seed = uint32_t(reliability::env_number("PLCDRIVER_FAULT_SEED", 1));
    o.percent = int(reliability::env_number("PLCDRIVER_FAULT_PERCENT", 25));
    o.writes_per_target = 20 * reliability::scale();
    std::printf("faults: %s seed=%u percent=%d writes_per_target=%d (PLCDRIVER_FAULT_SEED=%u reproduces the "
                "schedule)\n",
                reliability::mode_name(o.mode), o.seed, o.percent, o.writes_per_target, o.seed);
    std::fflush(stdout);
    reliability::Watchdog watchdog(std::chrono::seconds(150 + 120 * reliability::scale()), "fault run");

    reliability::FaultRun run(o, kPlcsim);
    const auto report = run.run();
    watchdog.disarm();
    report.print(stdout, "faults");
    for (const std::string &p : report.problems)
        ADD_FAILURE() << p;
    EXPECT_GT(report.faults, 0u);
    EXPECT_GT(report.checks, 50u) << "the mirror was hardly checked";
    EXPECT_EQ(report.writes, report.confirmed + report.failed);
}

INSTANTIATE_TEST_SUITE_P(LinkModes, ReliabilityFaults,
                         ::testing::Values(plchost::LinkMode::Modbus, plchost::LinkMode::Remote),
                         [](const ::testing::TestParamInfo<plchost::LinkMode> &info) {
                             return std::string(reliability::mode_name(info.param));
                         });

// A peer that closes the connection while the host is idle (as PLCs do
// with idle clients): the host sees the close when it drains the socket
// before a send. The request has not gone out yet, so the host connects
// again at once and sends it; it must not fail the request after a
// time-out. With a retry limit of 0 every such failure would give up a
// write the PLC never saw.
TEST(ReliabilityIdleClose, PeerClosingIdleConnectionsCostsNoRequest)
{
    REQUIRE_PLCSIM();
    reliability::Watchdog watchdog(std::chrono::seconds(120), "idle close run");
    PlcsimProcess sim(kPlcsim, {"--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    const auto timeout = std::chrono::milliseconds(200);
    // Every reply is followed by a close 1..20 ms later.
    FaultProxy proxy(sim.modbus_port(), 1, 100, timeout, {reliability::Fault::CloseIdle});
    auto cfg = config_for(proxy.port());
    cfg.timeout = timeout;
    cfg.retry_limit = 0;
    cfg.poll_interval = std::chrono::milliseconds(1000);
    Host host(cfg);
    ASSERT_TRUE(host.start(true, &error)) << error;

    ModbusClient plc(sim.modbus_port(), 1);
    int ok = 0;
    const int writes = 8;
    for (int n = 1; n <= writes; ++n) {
        // The next request goes out only once the proxy has closed the
        // connection of the previous reply (on loopback the end arrives with
        // the close).
        if (n > 1) {
            EXPECT_TRUE(eventually([&] { return proxy.closed() >= uint64_t(n - 1); }, std::chrono::milliseconds(5000)));
        }
        if (write_values(host, tag(4, "7", 0, 1), {uint64_t(0x4400 + n)}, std::chrono::milliseconds(5000)) ==
            plchost::DoneResult::Ok)
            ++ok;
    }
    const auto stats = host.stats();
    host.stop();
    EXPECT_EQ(ok, writes);
    EXPECT_EQ(stats.failed_replies, 0u);
    EXPECT_EQ(plc.holding(7, 1)[0], 0x4400 + writes);
    EXPECT_GE(proxy.counts()[size_t(reliability::Fault::CloseIdle)], uint64_t(writes - 1));
    std::printf("idle close: writes=%d ok=%d failed_replies=%llu reconnects=%llu\n", writes, ok,
                (unsigned long long)stats.failed_replies, (unsigned long long)stats.reconnects);
}
