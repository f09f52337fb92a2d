// The reference host used from several threads while its communication
// thread runs (also built with ThreadSanitizer): readers, writers, one-shot
// reads, station switching, a tag-list change and stop, against a libmodbus
// peer in the test.
#include "e2e_util.h"
#include "modbus_peer.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace e2e;
using plchost::DoneResult;
using plchost::Host;

TEST(HostThreads, ReadersWritersAndOneShotReadsWhileRunning)
{
    ModbusPeer peer;
    for (int i = 0; i < 32; ++i)
        peer.set_holding(i, uint16_t(100 + i));
    std::atomic<int> hooks{0}; // outlives the host, whose thread counts into it
    Host host(config_for(peer.port()));
    host.set_write_done_hook([&](int, int, int, int) { ++hooks; });
    const auto block = tag(4, "0", 16);
    host.set_tags({block, tag(3, "0", 4), tag(1, "0.0", 8)});
    ASSERT_TRUE(host.start(true));

    std::atomic<bool> stop{false};
    std::atomic<int> writes_ok{0}, once_ok{0}, reads{0};
    std::vector<std::thread> threads;
    // Each writer owns one register and checks that the peer got its last value.
    for (int w = 0; w < 3; ++w) {
        threads.emplace_back([&, w] {
            for (int n = 1; n <= 20; ++n)
                if (write_values(host, tag(4, std::to_string(20 + w), 0), {uint64_t(1000 * (w + 1) + n)}) ==
                    DoneResult::Ok)
                    ++writes_ok;
        });
    }
    threads.emplace_back([&] {
        while (!stop.load()) {
            const auto v = values_of(host, block);
            if (v.size() == 16)
                ++reads;
            (void)host.stats();
        }
    });
    threads.emplace_back([&] {
        for (int n = 0; n < 10; ++n) {
            int id = 0;
            if (host.read_once(tag(2, std::to_string(n), 2), 2, &id) && host.wait_done(2, id, 3000ms) == DoneResult::Ok)
                ++once_ok;
        }
    });
    threads.emplace_back([&] {
        for (int n = 0; n < 5; ++n) {
            host.enable_station(7, n % 2 == 0);
            host.set_tags({block, tag(3, "0", 4 + n % 2)});
            std::this_thread::sleep_for(5ms);
        }
        host.enable_station(7, true);
    });
    for (size_t i = 0; i < threads.size(); ++i)
        if (i != 3)
            threads[i].join();
    stop = true;
    threads[3].join();

    EXPECT_EQ(writes_ok.load(), 60);
    EXPECT_EQ(once_ok.load(), 10);
    EXPECT_GT(reads.load(), 0);
    for (int w = 0; w < 3; ++w)
        EXPECT_EQ(peer.holding(20 + w), 1000 * (w + 1) + 20);
    EXPECT_TRUE(eventually([&] {
        return values_of(host, tag(4, "20", 3)) == std::vector<uint64_t>{1020, 2020, 3020};
    }));
    host.stop();
    EXPECT_FALSE(host.running());
    EXPECT_EQ(host.stats().failed_replies, 0u);
    EXPECT_GE(hooks.load(), 70);
}

TEST(HostThreads, StopFailsWhatIsStillPending)
{
    ModbusPeer peer;
    auto cfg = config_for(peer.port());
    cfg.poll_interval = 1000ms;
    Host host(cfg);
    ASSERT_TRUE(host.start(true));
    // Writes queued and stop() called straight away: each one either went out
    // (result 1) or is reported failed by stop (result 2); none is left open.
    std::vector<int> ids;
    for (int n = 0; n < 20; ++n) {
        std::vector<uint8_t> bytes;
        auto t = tag(4, std::to_string(n), 0);
        plchost::encode_values(4, {uint64_t(n)}, &bytes, &t.count);
        int id = 0;
        host.write(t, bytes, 1, &id);
        ids.push_back(id);
    }
    host.stop();
    int ok = 0, failed = 0;
    std::vector<DoneResult> results;
    for (int id : ids) {
        results.push_back(host.wait_done(1, id, 0ms));
        ok += results.back() == DoneResult::Ok;
        failed += results.back() == DoneResult::Failed;
    }
    EXPECT_EQ(ok + failed, 20);
    for (int n = 0; n < 20; ++n) {
        if (results[size_t(n)] == DoneResult::Ok) {
            EXPECT_EQ(peer.holding(n), n);
        }
    }
    EXPECT_EQ(host.wait_done(1, ids[0], 0ms), DoneResult::TimedOut) << "a result is taken by the first wait";
}
