// The host and the driver behind a proxy that injects faults into plcsim's
// replies on a seeded schedule (fault_proxy.h): replies dropped, delayed
// within and beyond the host's time-out, truncated, duplicated, corrupted,
// reordered, connections closed before and in the middle of a reply.
//
// Workload while the faults run: the cyclic list, writes through
// SetRegisterData (each call with an identity of its own), several writers
// at once on registers of their own, one-shot reads. Stations stay enabled
// and the write list never fills, so the driver's rules promise:
//  - every write and one-shot read is reported exactly once, with 1 or 2
//    (a give-up reports the request that failed and purges only the other
//    chunks of the same identity, which are the same call's);
//  - a write reported 1 landed in the PLC; one reported 2 may or may not have
//    (its request may have landed while its reply was lost). So per register
//    the PLC ends with the value of the last confirmed write or of a failed
//    write issued after it;
//  - every give-up follows retry_limit retries of the same request, and
//    is followed by one read-done callback;
//  - once the faults stop, the mirror converges to the PLC's memory (read
//    with an independent libmodbus client) while the host keeps polling.
//
// Environment: PLCDRIVER_FAULT_SEED (default 1) picks the schedule,
// PLCDRIVER_FAULT_PERCENT (default 25) the share of replies hit,
// PLCDRIVER_RELIABILITY_SCALE=N runs N times as many writes.
#include "e2e_util.h"
#include "fault_proxy.h"
#include "modbus_client.h"
#include "plcsim_process.h"
#include "plcsim_required.h"
#include "reliability_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

using namespace e2e;
using plchost::Host;
using plchost::Tag;
using reliability::DoneLog;
using reliability::FaultProxy;

namespace {

constexpr int kWriteType = 5; // source_type of the writes
constexpr int kOnceType = 6;  // source_type of the one-shot reads

// One write as issued, in the order its writer issued it.
struct IssuedWrite {
    int id = 0;
    uint64_t value = 0;
};

// A register (or group of registers written together) with one writer.
struct Target {
    std::string name;
    int station = 1;
    int kind = 4;
    std::string address;
    int values = 1;          // values written per call
    bool check_final = true; // the PLC's final value is checked against the writes
    std::vector<IssuedWrite> issued;
};

uint64_t value_for(const Target &t, int n)
{
    switch (t.kind) {
    case 1: return uint64_t(n % 256); // eight coils as a bit pattern
    case 5: return uint64_t(n & 1);
    case 11: return (uint64_t(n & 0xFFFF) << 16) | uint64_t((n * 7) & 0xFFFF);
    default: return uint64_t(((t.station & 0xF) << 12) | (n & 0xFFF));
    }
}

// The value a target's registers hold, as value_for() made it: the eight
// coils as one bit pattern, otherwise the first value.
uint64_t held_value(const Target &t, const std::vector<uint64_t> &held)
{
    if (t.kind != 1)
        return held.at(0);
    uint64_t v = 0;
    for (size_t i = 0; i < held.size(); ++i)
        v |= held[i] << i;
    return v;
}

std::vector<uint64_t> values_for(const Target &t, uint64_t v)
{
    std::vector<uint64_t> out;
    for (int i = 0; i < t.values; ++i)
        out.push_back(t.kind == 1 ? (v >> i) & 1 : v);
    return out;
}

} // namespace

TEST(ReliabilityFaults, RepliesFaultedBetweenHostAndPlcsim)
{
    REQUIRE_PLCSIM();
    const int scale = reliability::scale();
    const uint32_t seed = uint32_t(reliability::env_number("PLCDRIVER_FAULT_SEED", 1));
    const int percent = int(reliability::env_number("PLCDRIVER_FAULT_PERCENT", 25));
    const int writes_per_target = 20 * scale;
    std::printf("faults: seed=%u percent=%d writes_per_target=%d (PLCDRIVER_FAULT_SEED=%u reproduces the schedule)\n",
                seed, percent, writes_per_target, seed);
    std::fflush(stdout);
    reliability::Watchdog watchdog(std::chrono::seconds(150 + 120 * scale), "fault run");

    PlcsimProcess sim(kPlcsim, {"--stations", "1,2", "--static"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;

    const auto timeout = std::chrono::milliseconds(100);
    FaultProxy proxy(sim.modbus_port(), seed, percent, timeout);
    auto cfg = config_for(proxy.port());
    cfg.timeout = timeout;
    cfg.retry_limit = 2;
    cfg.poll_interval = std::chrono::milliseconds(10);
    cfg.connect_timeout = std::chrono::milliseconds(500);
    cfg.reconnect_min = std::chrono::milliseconds(10);
    cfg.reconnect_max = std::chrono::milliseconds(80);
    Host host(cfg);

    DoneLog done;
    host.set_write_done_hook([&](int, int type, int id, int result) { done.record(type, id, result); });
    // Retries in a row before each give-up, as the host reports the outcomes.
    std::mutex outcome_mutex;
    int retries_in_a_row = 0;
    std::map<int, int> retries_before_give_up; // retries -> give-ups
    host.set_reply_hook([&](const plchost::ReplyEvent &e) {
        std::lock_guard<std::mutex> lock(outcome_mutex);
        if (e.status == 0) {
            ++retries_in_a_row;
        } else {
            if (e.status != 1 && e.status != 100)
                ++retries_before_give_up[retries_in_a_row];
            retries_in_a_row = 0;
        }
    });

    const std::vector<Tag> tags = {tag(4, "0", 16, 1),     tag(11, "20", 8, 1), tag(1, "0.0", 16, 1),
                                   tag(5, "120.0", 16, 1), tag(4, "0", 8, 2),   tag(3, "0", 8, 2)};
    ASSERT_EQ(host.set_tags(tags), int(tags.size()));
    ASSERT_TRUE(host.start(true, &error)) << error;

    std::vector<Target> targets = {
        {"words 0-1 @1", 1, 4, "0", 2, true, {}},
        {"words 4-6 @1", 1, 4, "4", 3, true, {}},
        {"words 0-3 @2", 2, 4, "0", 4, true, {}},
        {"dword 20 @1", 1, 11, "20", 1, true, {}},
        {"coils 0-7 @1", 1, 1, "0.0", 8, true, {}},
        {"holding 2 @2", 2, 3, "2", 1, true, {}},
        // Bits of a word go through a read and a write of the whole word:
        // a corrupted data byte in the read's reply is written back (Modbus
        // TCP carries no checksum of its own), so only the reports and the
        // convergence are checked there.
        {"bit 120.3 @1", 1, 5, "120.3", 1, false, {}},
    };

    std::atomic<int> refused{0}, unreported{0};
    std::vector<std::thread> writers;
    for (size_t k = 0; k < targets.size(); ++k) {
        writers.emplace_back([&, k] {
            Target &t = targets[k];
            std::mt19937 rng(seed * 31u + unsigned(k));
            for (int n = 1; n <= writes_per_target;) {
                std::vector<int> batch;
                const int size = 1 + int(rng() % 3);
                for (int b = 0; b < size && n <= writes_per_target; ++b, ++n) {
                    const uint64_t v = value_for(t, n);
                    std::vector<uint8_t> bytes;
                    Tag where = tag(t.kind, t.address, 0, t.station, t.name);
                    plchost::encode_values(t.kind, values_for(t, v), &bytes, &where.count);
                    int id = 0;
                    if (host.write(where, bytes, kWriteType, &id) <= 0)
                        ++refused;
                    t.issued.push_back({id, v});
                    batch.push_back(id);
                }
                if (!done.wait_all(kWriteType, batch, std::chrono::milliseconds(30000)))
                    ++unreported;
            }
        });
    }
    std::vector<int> once_ids;
    std::thread once_reader([&] {
        for (int n = 0; n < writes_per_target; ++n) {
            int id = 0;
            if (host.read_once(tag(n % 2 ? 3 : 4, std::to_string(n), 1 + n % 10, 1 + n % 2), kOnceType, &id))
                once_ids.push_back(id);
            else
                ++refused;
            if (n % 3 == 2 && !done.wait_all(kOnceType, once_ids, std::chrono::milliseconds(30000)))
                ++unreported;
        }
        if (!done.wait_all(kOnceType, once_ids, std::chrono::milliseconds(30000)))
            ++unreported;
    });
    for (auto &w : writers)
        w.join();
    once_reader.join();

    // Faults off: the mirror must come to match the PLC while the host polls.
    proxy.set_faults(false);
    const auto faults_off = std::chrono::steady_clock::now();
    ModbusClient plc(sim.modbus_port(), 1);
    auto plc_values = [&](const Tag &t) {
        plc.set_unit(t.station);
        return plc.expected(t.kind, Host::parse_address(t.kind, t.address), t.count);
    };
    bool converged = false;
    std::string difference;
    for (int attempt = 0; attempt < 1000 && !converged; ++attempt) {
        if (std::chrono::steady_clock::now() - faults_off > std::chrono::seconds(15))
            break;
        converged = true;
        for (const Tag &t : tags) {
            const auto want = plc_values(t);
            const auto have = values_of(host, t);
            if (have != want) {
                converged = false;
                difference = t.name;
                break;
            }
        }
        if (!converged)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const double convergence_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - faults_off).count();
    const auto stats = host.stats();
    host.stop();
    watchdog.disarm();

    // Reports: exactly one per identity, 1 or 2.
    int confirmed = 0, failed = 0, landed_after_failure = 0, contradicted = 0;
    for (const Target &t : targets) {
        int last_ok = -1;
        for (size_t i = 0; i < t.issued.size(); ++i) {
            const auto r = done.get(kWriteType, t.issued[i].id);
            EXPECT_EQ(r.first, 1) << t.name << ": write " << t.issued[i].id << " reported " << r.first << " times";
            EXPECT_TRUE(r.second == 1 || r.second == 2) << t.name << ": result " << r.second;
            confirmed += r.second == 1;
            failed += r.second == 2;
            if (r.second == 1)
                last_ok = int(i);
        }
        // The PLC holds the last confirmed value or one written after it.
        plc.set_unit(t.station);
        const auto held = plc.expected(t.kind, Host::parse_address(t.kind, t.address), t.kind == 11 ? 2 : t.values);
        const uint64_t value = held_value(t, held);
        std::vector<uint64_t> allowed;
        if (last_ok < 0)
            allowed.push_back(0); // nothing confirmed: the start value is possible
        for (size_t i = size_t(std::max(last_ok, 0)); i < t.issued.size(); ++i)
            if (int(i) == last_ok || done.get(kWriteType, t.issued[i].id).second == 2)
                allowed.push_back(t.issued[i].value);
        const bool plausible = std::find(allowed.begin(), allowed.end(), value) != allowed.end();
        if (!t.issued.empty() && done.get(kWriteType, t.issued.back().id).second == 2 && value == t.issued.back().value)
            ++landed_after_failure;
        if (t.check_final && !plausible) {
            ++contradicted;
            ADD_FAILURE() << t.name << ": the PLC holds " << value << ", which no confirmed or later write left";
        }
        if (t.kind != 1 && t.kind != 5 && held.size() > 1) {
            for (uint64_t h : held)
                EXPECT_EQ(h, held[0]) << t.name << ": values of one write differ";
        }
    }
    for (int id : once_ids) {
        const auto r = done.get(kOnceType, id);
        EXPECT_EQ(r.first, 1) << "one-shot read " << id << " reported " << r.first << " times";
        EXPECT_TRUE(r.second == 1 || r.second == 2) << "one-shot read " << id << ": result " << r.second;
    }
    size_t issued_total = once_ids.size();
    for (const Target &t : targets)
        issued_total += t.issued.size();
    EXPECT_EQ(done.size(), issued_total) << "reports for identities nobody used";
    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(unreported.load(), 0);

    EXPECT_TRUE(converged) << "mirror still differs from the PLC (" << difference << ") " << convergence_ms
                           << " ms after the faults stopped";
    EXPECT_EQ(stats.give_ups, stats.read_done) << "one read-done callback per give-up";
    {
        std::lock_guard<std::mutex> lock(outcome_mutex);
        for (const auto &e : retries_before_give_up)
            EXPECT_EQ(e.first, cfg.retry_limit) << e.second << " give-ups after " << e.first << " retries";
    }
    EXPECT_GT(proxy.total_faults(), 0u);

    std::printf("faults: injected %llu of %llu replies: %s; connections=%llu\n",
                (unsigned long long)proxy.total_faults(), (unsigned long long)proxy.replies(), proxy.summary().c_str(),
                (unsigned long long)proxy.connections());
    std::printf("faults: exchanges=%llu good=%llu retries=%llu give_ups=%llu timeouts=%llu reconnects=%llu "
                "stale_bytes=%llu read_done=%llu\n",
                (unsigned long long)stats.requests, (unsigned long long)stats.good_replies,
                (unsigned long long)stats.retries, (unsigned long long)stats.give_ups,
                (unsigned long long)stats.timeouts, (unsigned long long)stats.reconnects,
                (unsigned long long)stats.stale_bytes, (unsigned long long)stats.read_done);
    std::printf("faults: writes=%zu confirmed=%d failed=%d last_failed_but_landed=%d contradicted=%d "
                "one_shot_reads=%zu converged=%s in %.0f ms\n",
                issued_total - once_ids.size(), confirmed, failed, landed_after_failure, contradicted, once_ids.size(),
                converged ? "yes" : "no", convergence_ms);
}

// A peer that closes the connection while the host is idle (as PLCs do
// with idle clients): the host sees the close when it drains the socket
// before a send. The request has not gone out yet, so the host connects
// again at once and sends it; it must not fail the request after a
// time-out. With a retry limit of 0 every such failure would give up a
// write the PLC never saw.
TEST(ReliabilityFaults, PeerClosingIdleConnectionsCostsNoRequest)
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
