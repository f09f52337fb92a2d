// Stress of the driver's runtime interface while the host's communication
// thread exchanges with plcsim over loopback: threads that read the mirror,
// threads that write (waiting for each write, or several at a time), one-shot
// reads, stations switched off and on, and the cyclic list replaced, all at
// once, for a bounded number of cycles. Built with ThreadSanitizer in the
// thread sanitizer suite (label "threads").
//
// Checked: the run ends within its bound (a watchdog aborts a hang); every
// value read is one the simulator or a writer could have produced, and
// values written or stored together are never seen torn; every write and
// every one-shot read of an always-enabled station is reported exactly once,
// as a success; at the end the PLC holds each writer's last value and the
// mirror shows what the PLC holds.
//
// PLCDRIVER_RELIABILITY_SCALE=N runs N times as many cycles.
#include "e2e_util.h"
#include "modbus_client.h"
#include "plcsim_process.h"
#include "plcsim_required.h"
#include "reliability_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <vector>

using namespace e2e;
using plchost::DoneResult;
using plchost::Host;
using plchost::Tag;
using reliability::DoneLog;

namespace {

// Requester kinds (source_type) used by the threads.
constexpr int kWriter = 1;    // writes waited for one batch at a time
constexpr int kOnce = 2;      // one-shot reads of station 1
constexpr int kOnceOther = 3; // one-shot reads of stations that are switched
constexpr int kPipelined = 4; // writes issued several at a time

// Invariant violations seen by the worker threads (the first few are kept).
class Violations {
public:
    void add(const std::string &what)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (messages_.size() < 20)
            messages_.push_back(what);
        ++count_;
    }
    int count() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    std::string text() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string s;
        for (const std::string &m : messages_)
            s += m + "\n";
        return s;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
    int count_ = 0;
};

std::vector<uint8_t> encode(int kind, const std::vector<uint64_t> &values, Tag *t)
{
    std::vector<uint8_t> bytes;
    plchost::encode_values(kind, values, &bytes, &t->count);
    return bytes;
}

} // namespace

TEST(ReliabilityStress, RuntimeThreadsWhileTheHostExchangesWithPlcsim)
{
    REQUIRE_PLCSIM();
    const int scale = reliability::scale();
    const int cycles = 800 * scale; // write cycles per writer thread
    reliability::Watchdog watchdog(std::chrono::seconds(120 + 60 * scale), "stress run");

    // Stations 1..3 with moving values (they tick every 100 ms).
    PlcsimProcess sim(kPlcsim, {"--stations", "1-3"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;

    auto cfg = config_for(sim.modbus_port());
    cfg.timeout = std::chrono::milliseconds(3000); // no faults here; generous for sanitizer builds
    cfg.poll_interval = std::chrono::milliseconds(2);
    cfg.retry_limit = 3;
    Host host(cfg);
    DoneLog done;
    host.set_write_done_hook([&](int, int type, int id, int result) { done.record(type, id, result); });

    // Station 1 is never switched off; 2 and 3 are switched off and on.
    const Tag moving = tag(2, "0", 18, 1);  // 0x8000..0x8011: t, t/10, 5t, t/100, ramp, ..., 32-bit t*0x1001
    const Tag words = tag(4, "0", 32, 1);   // writers' words 0..7, pipelined words 24..27
    const Tag dwords = tag(11, "20", 8, 1); // four 32-bit values at words 40..47
    const Tag coils = tag(1, "0.0", 16, 1);
    const Tag bits = tag(5, "120.0", 16, 1); // the bits of word 60
    const std::vector<Tag> list_a = {
        moving, words, dwords, coils, bits, tag(4, "0", 16, 2), tag(2, "0", 18, 2), tag(3, "0", 8, 3)};
    std::vector<Tag> list_b = list_a;
    list_b.push_back(tag(3, "100", 4, 1));
    ASSERT_EQ(host.set_tags(list_a), int(list_a.size()));
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(1, std::chrono::milliseconds(20000)));

    Violations bad;
    std::atomic<int> writers_left{5};
    std::atomic<int> issued[2] = {{0}, {0}}; // sequence numbers issued by the word writers
    std::atomic<int> dword_issued{0}, pipelined_issued{0};
    std::atomic<uint64_t> reads{0}, writes{0}, once_reads{0}, toggles{0}, tag_changes{0};
    std::vector<int> ok_ids[5]; // writes that must be reported once, as a success, per writer thread
    std::vector<int> other_ids; // one-shot reads of switched stations
    std::mutex other_mutex;

    auto write_and_track = [&](int type, const Tag &t, const std::vector<uint8_t> &bytes, std::vector<int> &ids) {
        int id = 0;
        const int size = host.write(t, bytes, type, &id);
        ++writes;
        if (size <= 0)
            bad.add("write refused: " + t.name);
        ids.push_back(id);
        return id;
    };
    auto wait_ids = [&](int type, const std::vector<int> &ids, const char *who) {
        if (!done.wait_all(type, ids, std::chrono::milliseconds(30000)))
            bad.add(std::string(who) + ": not every request was reported within 30 s");
    };

    std::vector<std::thread> threads;
    // Two word writers: writer w owns words 4w..4w+3 and writes one value to
    // all four in one request, in batches of 1 to 3 writes, waiting for each batch.
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&, w] {
            std::mt19937 rng(unsigned(w + 1));
            std::vector<int> &ids = ok_ids[w];
            for (int n = 1; n <= cycles;) {
                std::vector<int> batch;
                const int size = 1 + int(rng() % 3);
                for (int k = 0; k < size && n <= cycles; ++k, ++n) {
                    const uint64_t v = uint64_t(((w + 1) << 12) | (n & 0xFFF));
                    Tag t = tag(4, std::to_string(4 * w), 0, 1);
                    const auto bytes = encode(4, {v, v, v, v}, &t);
                    issued[w].store(n);
                    batch.push_back(write_and_track(kWriter, t, bytes, ids));
                }
                wait_ids(kWriter, batch, "word writer");
            }
            --writers_left;
        });
    }
    // A 32-bit writer: each value's high word is n, its low word n ^ 0x5A5A.
    threads.emplace_back([&] {
        std::vector<int> &ids = ok_ids[2];
        for (int n = 1; n <= cycles; ++n) {
            const uint64_t v = (uint64_t(n & 0xFFFF) << 16) | uint64_t((n ^ 0x5A5A) & 0xFFFF);
            Tag t = tag(11, "20", 0, 1);
            const auto bytes = encode(11, {v, v, v, v}, &t);
            dword_issued.store(n);
            wait_ids(kWriter, {write_and_track(kWriter, t, bytes, ids)}, "dword writer");
        }
        --writers_left;
    });
    // Bits: coils through whole-byte writes, single bits of word 60 through
    // the read-modify-write pair.
    threads.emplace_back([&] {
        std::vector<int> &ids = ok_ids[3];
        for (int n = 1; n <= cycles; ++n) {
            std::vector<uint64_t> pattern;
            for (int b = 0; b < 8; ++b)
                pattern.push_back(((n >> (b % 4)) ^ b) & 1);
            Tag c = tag(1, "0.0", 0, 1);
            const auto cb = encode(1, pattern, &c);
            Tag b = tag(5, "120." + std::to_string(n % 8), 0, 1);
            const auto bb = encode(5, {uint64_t(n & 1)}, &b);
            wait_ids(kWriter, {write_and_track(kWriter, c, cb, ids), write_and_track(kWriter, b, bb, ids)},
                     "bit writer");
        }
        --writers_left;
    });
    // Pipelined writes: up to eight in the write list at once, one per word
    // of 24..27 in turn, then a wait for all of them.
    threads.emplace_back([&] {
        std::vector<int> &ids = ok_ids[4];
        for (int n = 1; n <= cycles;) {
            std::vector<int> batch;
            for (int k = 0; k < 8 && n <= cycles; ++k, ++n) {
                Tag t = tag(4, std::to_string(24 + n % 4), 0, 1);
                const auto bytes = encode(4, {uint64_t(0xE000 | (n & 0xFFF))}, &t);
                pipelined_issued.store(n);
                batch.push_back(write_and_track(kPipelined, t, bytes, ids));
            }
            wait_ids(kPipelined, batch, "pipelined writer");
        }
        --writers_left;
    });
    // Two readers check every value they see in the mirror.
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&] {
            uint64_t last_t = 0;
            for (int guard = 0; guard < 10000000 && writers_left.load() > 0; ++guard) {
                const auto m = values_of(host, moving);
                const auto w = values_of(host, words);
                const auto d = values_of(host, dwords);
                const auto c = values_of(host, coils);
                const auto b = values_of(host, bits);
                reads += 5;
                if (m.size() != 18 || w.size() != 32 || d.size() != 4 || c.size() != 16 || b.size() != 16) {
                    bad.add("wrong value count");
                    continue;
                }
                // One reply fills the whole moving block: the values belong to one tick t.
                const uint64_t t = m[0];
                const uint64_t t32 = m[16] | (m[17] << 16);
                bool consistent = m[1] == t / 10 && m[2] == ((5 * t) & 0xFFFF) && m[3] == t / 100 &&
                                  m[4] == (t % 101) * 10 && t32 == ((t * 0x1001) & 0xFFFFFFFFu);
                for (int i = 5; i < 16; ++i)
                    consistent = consistent && m[size_t(i)] == 0;
                if (!consistent) {
                    std::string all;
                    for (uint64_t v : m)
                        all += " " + std::to_string(v);
                    bad.add("moving values of different ticks or impossible:" + all);
                }
                if (t < last_t)
                    bad.add("tick went backwards: " + std::to_string(last_t) + " -> " + std::to_string(t));
                last_t = t;
                for (int o = 0; o < 2; ++o) {
                    const uint64_t v = w[size_t(4 * o)];
                    const int limit = issued[o].load();
                    for (int i = 1; i < 4; ++i)
                        if (w[size_t(4 * o + i)] != v)
                            bad.add("torn four-word value of writer " + std::to_string(o));
                    if (v != 0 && ((v >> 12) != uint64_t(o + 1) || int(v & 0xFFF) > limit))
                        bad.add("word value no writer wrote: " + std::to_string(v));
                }
                for (int i = 8; i < 24; ++i)
                    if (w[size_t(i)] != 0)
                        bad.add("word " + std::to_string(i) + " nobody writes is " + std::to_string(w[size_t(i)]));
                const int plimit = pipelined_issued.load();
                for (int i = 24; i < 28; ++i) {
                    const uint64_t v = w[size_t(i)];
                    if (v != 0 && ((v & 0xF000) != 0xE000 || int(v & 0xFFF) > plimit || int(v & 0xFFF) % 4 != i - 24))
                        bad.add("pipelined word " + std::to_string(i) + " holds " + std::to_string(v));
                }
                const int dlimit = dword_issued.load();
                for (uint64_t v : d) {
                    const uint64_t hi = v >> 16, lo = v & 0xFFFF;
                    if (v != 0 && (lo != ((hi ^ 0x5A5A) & 0xFFFF) || int(hi) > dlimit))
                        bad.add("torn or unwritten 32-bit value " + std::to_string(v));
                }
                for (uint64_t v : c)
                    if (v > 1)
                        bad.add("coil not 0 or 1");
                for (size_t i = 8; i < 16; ++i)
                    if (c[i] != 0 || b[i] != 0)
                        bad.add("bit nobody writes is set");
                (void)host.stats();
            }
        });
    }
    // One-shot reads: of station 1 (each must be reported once, as a
    // success) and of stations 2 and 3, which may be switched off when the
    // cycle reaches them (then they are dropped without a report).
    std::vector<int> once_ids;
    threads.emplace_back([&] {
        for (int n = 0; n < cycles && writers_left.load() > 0; ++n) {
            int id = 0;
            // Not inside the moving block: a one-shot read stores its words at
            // another moment than the cyclic read of the block.
            const Tag t = n % 2 ? tag(2, std::to_string(200 + n % 50), 1 + n % 20, 1)
                                : tag(3, std::to_string(n % 50), 1 + n % 20, 1);
            if (host.read_once(t, kOnce, &id)) {
                ++once_reads;
                once_ids.push_back(id);
                if (n % 4 == 0)
                    wait_ids(kOnce, {id}, "one-shot read");
            } else {
                bad.add("one-shot read refused");
            }
            int other = 0;
            if (host.read_once(tag(4, std::to_string(n % 16), 2, 2 + n % 2), kOnceOther, &other)) {
                ++once_reads;
                std::lock_guard<std::mutex> lock(other_mutex);
                other_ids.push_back(other);
            } else {
                bad.add("one-shot read of a switched station refused");
            }
        }
        wait_ids(kOnce, once_ids, "one-shot reads");
    });
    // Stations 2 and 3 switched off and on, and the cyclic list replaced, until the writers are done.
    threads.emplace_back([&] {
        std::mt19937 rng(7);
        for (int n = 0; n < 100000 && writers_left.load() > 0; ++n) {
            host.enable_station(2 + int(rng() % 2), rng() % 2 == 0);
            ++toggles;
            if (n % 16 == 0) {
                host.set_tags(n % 32 == 0 ? list_b : list_a);
                ++tag_changes;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1 + rng() % 4));
        }
        host.enable_station(-1, true);
    });
    for (auto &t : threads)
        t.join();
    host.set_tags(list_a);
    host.enable_station(-1, true);

    // Let two full passes run, then compare the mirror with the PLC.
    ASSERT_TRUE(host.wait_passes(2, std::chrono::milliseconds(20000)));
    ModbusClient plc(sim.modbus_port(), 1);
    const auto plc_words = plc.expected(4, 0, 32);
    const auto plc_dwords = plc.expected(11, 20, 8);
    const auto plc_coils = plc.expected(1, 0, 16);
    const auto plc_bits = plc.expected(5, 960, 16);
    const auto stats = host.stats();
    host.stop();
    watchdog.disarm();

    EXPECT_EQ(bad.count(), 0) << bad.text();
    for (int w = 0; w < 2; ++w)
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(plc_words[size_t(4 * w + i)], uint64_t(((w + 1) << 12) | (cycles & 0xFFF)));
    for (uint64_t v : plc_dwords)
        EXPECT_EQ(v, (uint64_t(cycles & 0xFFFF) << 16) | uint64_t((cycles ^ 0x5A5A) & 0xFFFF));
    for (int i = 24; i < 28; ++i) {
        int last = 0;
        for (int n = 1; n <= cycles; ++n)
            if (24 + n % 4 == i)
                last = 0xE000 | (n & 0xFFF);
        EXPECT_EQ(plc_words[size_t(i)], uint64_t(last)) << "word " << i;
    }
    EXPECT_EQ(values_of(host, words), plc_words);
    EXPECT_EQ(values_of(host, dwords), plc_dwords);
    EXPECT_EQ(values_of(host, coils), plc_coils);
    EXPECT_EQ(values_of(host, bits), plc_bits);

    // Every write and station-1 one-shot read reported exactly once, as a success.
    size_t reported_ok = 0;
    for (int k = 0; k < 5; ++k) {
        const int type = k == 4 ? kPipelined : kWriter;
        for (int id : ok_ids[k]) {
            const auto r = done.get(type, id);
            EXPECT_EQ(r.first, 1) << "write " << id << " reported " << r.first << " times";
            EXPECT_EQ(r.second, 1) << "write " << id;
            reported_ok += r.first == 1;
        }
    }
    for (int id : once_ids) {
        const auto r = done.get(kOnce, id);
        EXPECT_EQ(r.first, 1) << "one-shot read " << id << " reported " << r.first << " times";
        EXPECT_EQ(r.second, 1) << "one-shot read " << id;
        reported_ok += r.first == 1;
    }
    // One-shot reads of switched stations: at most one report each, a success.
    size_t other_reported = 0;
    for (int id : other_ids) {
        const auto r = done.get(kOnceOther, id);
        EXPECT_LE(r.first, 1) << "one-shot read " << id << " reported " << r.first << " times";
        if (r.first == 1) {
            EXPECT_EQ(r.second, 1) << "one-shot read " << id;
            ++other_reported;
        }
    }
    // No report for an identity nobody used.
    EXPECT_EQ(done.size(), reported_ok + other_reported);
    EXPECT_EQ(stats.failed_replies, 0u);
    std::printf("stress: scale=%d cycles=%d reads=%llu writes=%llu once_reads=%llu station_toggles=%llu "
                "tag_list_changes=%llu exchanges=%llu passes=%llu write_done_ok=%llu write_done_failed=%llu\n",
                scale, cycles, (unsigned long long)reads.load(), (unsigned long long)writes.load(),
                (unsigned long long)once_reads.load(), (unsigned long long)toggles.load(),
                (unsigned long long)tag_changes.load(), (unsigned long long)stats.requests,
                (unsigned long long)stats.passes, (unsigned long long)stats.write_done_ok,
                (unsigned long long)stats.write_done_failed);
}
