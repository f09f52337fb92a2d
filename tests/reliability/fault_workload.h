// The workload of the fault test and the soak: plcsim (two stations, the
// address pattern, values kept still) behind the fault-injecting proxy, the
// host in one link mode reading eight tags, seven writers on registers of
// their own and a one-shot reader, all while the proxy injects faults; then
// the checks of what the driver's and the host's rules promise:
//
//  - every write and one-shot read is reported exactly once, with 1 or 2
//    (a give-up reports the request that failed and purges only the other
//    chunks of the same identity, which are the same call's);
//  - a write reported 1 landed in the PLC; one reported 2 may or may not have
//    (its request may have landed while its reply was lost). So per register
//    the PLC ends with the value of the last confirmed write or of a failed
//    write issued after it; anything else is a lost write;
//  - every give-up follows retry_limit retries of the same request, and
//    is followed by one read-done callback;
//  - after every good reply, every value in the mirror is its register's own
//    (the address pattern, or a value written into that register; every
//    word a target writes carries the target's number), never one of another
//    register: no reply is taken for another request's. For this the proxy
//    corrupts only bytes a reply check can see; a changed data byte passes in
//    either format (neither carries a checksum over its data; TCP's own
//    guards a real link);
//  - once the faults stop, the mirror converges to the PLC's memory (read
//    with an independent libmodbus client) while the host keeps polling.
//
// Its bookkeeping is bounded (reports are taken as they come, and only the
// writes since the last confirmed one are kept per register), so a soak of
// any length measures the host's memory, not the test's.
#ifndef PLCDRIVER_RELIABILITY_FAULT_WORKLOAD_H
#define PLCDRIVER_RELIABILITY_FAULT_WORKLOAD_H

#include "address_pattern.h"
#include "e2e_util.h"
#include "fault_proxy.h"
#include "modbus_client.h"
#include "plcsim_process.h"
#include "reliability_util.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace reliability {

constexpr int kWriteType = 5; // source_type of the writes
constexpr int kOnceType = 6;  // source_type of the one-shot reads

inline const char *mode_name(plchost::LinkMode m)
{
    return m == plchost::LinkMode::Modbus ? "modbus" : "remote";
}

struct FaultRunOptions {
    plchost::LinkMode mode = plchost::LinkMode::Modbus;
    uint32_t seed = 1;
    int percent = 25;                 // share of replies that get a fault
    int writes_per_target = 20;       // when duration is 0
    std::chrono::seconds duration{0}; // otherwise: write until then
    std::chrono::milliseconds timeout{100};
    int retry_limit = 2;
};

struct FaultRunReport {
    std::vector<std::string> problems; // each a broken promise
    uint64_t replies = 0, faults = 0, connections = 0;
    std::string fault_summary;
    plchost::Stats stats;
    uint64_t checks = 0, wrong_values = 0;
    uint64_t writes = 0, confirmed = 0, failed = 0, landed_after_failure = 0, lost = 0;
    uint64_t once_reads = 0, unreported = 0, refused = 0, stray_reports = 0;
    bool converged = false;
    double convergence_ms = 0;
    double seconds = 0;

    void print(FILE *out, const char *prefix) const
    {
        const auto &s = stats;
        std::fprintf(out, "%s: injected %llu of %llu replies: %s; connections=%llu\n", prefix,
                     (unsigned long long)faults, (unsigned long long)replies, fault_summary.c_str(),
                     (unsigned long long)connections);
        std::fprintf(out,
                     "%s: exchanges=%llu good=%llu retries=%llu give_ups=%llu timeouts=%llu reconnects=%llu "
                     "stale_bytes=%llu foreign=%llu resyncs=%llu read_done=%llu\n",
                     prefix, (unsigned long long)s.requests, (unsigned long long)s.good_replies,
                     (unsigned long long)s.retries, (unsigned long long)s.give_ups, (unsigned long long)s.timeouts,
                     (unsigned long long)s.reconnects, (unsigned long long)s.stale_bytes,
                     (unsigned long long)s.foreign_replies, (unsigned long long)s.resyncs,
                     (unsigned long long)s.read_done);
        std::fprintf(out, "%s: integrity checks=%llu wrong_values=%llu\n", prefix, (unsigned long long)checks,
                     (unsigned long long)wrong_values);
        std::fprintf(out,
                     "%s: writes=%llu confirmed=%llu failed=%llu last_failed_but_landed=%llu lost=%llu "
                     "one_shot_reads=%llu unreported=%llu stray_reports=%llu converged=%s in %.0f ms, %.1f s\n",
                     prefix, (unsigned long long)writes, (unsigned long long)confirmed, (unsigned long long)failed,
                     (unsigned long long)landed_after_failure, (unsigned long long)lost, (unsigned long long)once_reads,
                     (unsigned long long)unreported, (unsigned long long)stray_reports, converged ? "yes" : "no",
                     convergence_ms, seconds);
    }
};

namespace workload {

// One write as issued, in the order its writer issued it.
struct IssuedWrite {
    int id = 0;
    uint64_t value = 0;
};

// A register (or group of registers written together) with one writer.
struct Target {
    int slot = 0; // the target's number, carried by every word it writes
    std::string name;
    int station = 1;
    int kind = 4;
    std::string address;
    int values = 1; // values written per call
    // Results so far: the last confirmed write first (when there is one),
    // then every failed write after it, in order.
    bool any_confirmed = false;
    std::vector<IssuedWrite> since_confirmed;
    bool last_failed = false;
    uint64_t last_value = 0;
};

inline std::vector<Target> targets()
{
    auto t = [](int slot, const char *name, int station, int kind, const char *address, int values) {
        Target x;
        x.slot = slot;
        x.name = name;
        x.station = station;
        x.kind = kind;
        x.address = address;
        x.values = values;
        return x;
    };
    return {t(1, "words 0-1 @1", 1, 4, "0", 2), t(2, "words 4-6 @1", 1, 4, "4", 3), t(3, "words 0-3 @2", 2, 4, "0", 4),
            t(4, "dword 20 @1", 1, 11, "20", 1), t(5, "coils 0-7 @1", 1, 1, "0.0", 8),
            t(6, "holding 2 @2", 2, 3, "2", 1),
            // A bit of a word goes through a read and a write of the whole word.
            t(7, "bit 120.3 @1", 1, 5, "120.3", 1)};
}

// The cyclic tags. Four blocks of eight registers (input and class-3
// registers of station 1, class-4 and class-3 registers of station 2) have
// replies of the same length, so one taken for another's would pass every
// length check.
inline std::vector<plchost::Tag> tags()
{
    using e2e::tag;
    return {tag(4, "0", 16, 1),          tag(11, "20", 8, 1), tag(1, "0.0", 16, 1), tag(5, "120.0", 16, 1),
            tag(4, "0", 8, 2, "k4@0/2"), tag(3, "0", 8, 2),   tag(2, "0", 8, 1),    tag(3, "0", 8, 1, "k3@0/1")};
}

// A word written by target `slot` in its n-th write: 0x8000 and up, which no
// register read here holds in the address pattern, and different for every
// target, so a word in the wrong register shows.
inline uint16_t word_for(int slot, int n)
{
    return uint16_t(0x8000 | (slot << 8) | (n & 0x7F));
}

inline uint64_t value_for(const Target &t, int n)
{
    switch (t.kind) {
    case 1: return uint64_t(n % 256); // eight coils as a bit pattern
    case 5: return uint64_t(n & 1);
    case 11: return (uint64_t(word_for(t.slot, n) | 0x80) << 16) | word_for(t.slot, n);
    default: return word_for(t.slot, n);
    }
}

inline std::vector<uint64_t> values_for(const Target &t, uint64_t v)
{
    std::vector<uint64_t> out;
    for (int i = 0; i < t.values; ++i)
        out.push_back(t.kind == 1 ? (v >> i) & 1 : v);
    return out;
}

// First register (or bit) a target writes.
inline pattern::Cell first_cell(const Target &t)
{
    const int a = plchost::Host::parse_address(t.kind, t.address);
    switch (t.kind) {
    case 1: return pattern::cell_of_class(t.station, 1, a);
    case 5: return pattern::cell_of_class(t.station, 4, a >> 4);
    case 11: return pattern::cell_of_class(t.station, 4, 2 * a);
    default: return pattern::cell_of_class(t.station, pattern::class_of_kind(t.kind), a);
    }
}

// Tells the watch the words (or bits) a write of value v puts into the PLC,
// before it is queued.
inline void allow_write(pattern::Watch &watch, const Target &t, uint64_t v)
{
    pattern::Cell c = first_cell(t);
    switch (t.kind) {
    case 1:
        for (int i = 0; i < t.values; ++i, ++c.address)
            watch.allow(c, uint16_t((v >> i) & 1));
        break;
    case 5: { // one bit of a word: the word with that bit set or clear
        const int bit = plchost::Host::parse_address(t.kind, t.address) & 15;
        watch.allow(c, uint16_t(pattern::register_value(c.address) | (1u << bit)));
        watch.allow(c, uint16_t(pattern::register_value(c.address) & ~(1u << bit)));
        break;
    }
    case 11:
        watch.allow(c, uint16_t(v));
        ++c.address;
        watch.allow(c, uint16_t(v >> 16));
        break;
    default:
        for (int i = 0; i < t.values; ++i, ++c.address)
            watch.allow(c, uint16_t(v));
        break;
    }
}

// The value a target's registers hold before any write: the address pattern.
inline uint64_t start_value(const Target &t)
{
    const pattern::Cell c = first_cell(t);
    switch (t.kind) {
    case 1: {
        uint64_t v = 0;
        for (int i = 0; i < t.values; ++i)
            v |= uint64_t(pattern::bit_value(c.address + i)) << i;
        return v;
    }
    case 5: return (pattern::register_value(c.address) >> (plchost::Host::parse_address(t.kind, t.address) & 15)) & 1;
    case 11: return (uint64_t(pattern::register_value(c.address + 1)) << 16) | pattern::register_value(c.address);
    default: return pattern::register_value(c.address);
    }
}

// The value a target's registers hold, as value_for() made it: the eight
// coils as one bit pattern, otherwise the first value.
inline uint64_t held_value(const Target &t, const std::vector<uint64_t> &held)
{
    if (t.kind != 1)
        return held.at(0);
    uint64_t v = 0;
    for (size_t i = 0; i < held.size(); ++i)
        v |= held[i] << i;
    return v;
}

} // namespace workload

// One run: construct (starts plcsim, the proxy and the host), then run().
class FaultRun {
public:
    explicit FaultRun(const FaultRunOptions &o, const std::string &plcsim)
        : o_(o), sim_(plcsim, {"--stations", "1,2", "--static", "--fill", "address"}), tags_(workload::tags()),
          targets_(workload::targets())
    {
        std::string error;
        if (!sim_.start(&error))
            throw std::runtime_error(error);
        const bool modbus = o.mode == plchost::LinkMode::Modbus;
        proxy_ =
            std::make_unique<FaultProxy>(modbus ? sim_.modbus_port() : sim_.remote_port(), o.seed, o.percent, o.timeout,
                                         std::vector<Fault>{}, modbus ? Framing::Modbus : Framing::Remote);
        proxy_->set_corrupt_header_only(true);
        auto cfg = e2e::config_for(proxy_->port(), o.mode);
        cfg.timeout = o.timeout;
        cfg.retry_limit = o.retry_limit;
        cfg.poll_interval = std::chrono::milliseconds(10);
        cfg.connect_timeout = std::chrono::milliseconds(500);
        cfg.reconnect_min = std::chrono::milliseconds(10);
        cfg.reconnect_max = std::chrono::milliseconds(80);
        host_ = std::make_unique<plchost::Host>(cfg);
        host_->set_write_done_hook([this](int, int type, int id, int result) { done_.record(type, id, result); });
        host_->set_reply_hook([this](const plchost::ReplyEvent &e) { on_reply(e); });
        if (host_->set_tags(tags_) != int(tags_.size()))
            throw std::runtime_error("a tag was refused");
    }
    ~FaultRun() { host_.reset(); }
    FaultRun(const FaultRun &) = delete;
    FaultRun &operator=(const FaultRun &) = delete;

    // Runs the workload; `tick` is called about once a second meanwhile.
    FaultRunReport run(const std::function<void()> &tick = {})
    {
        const auto started = std::chrono::steady_clock::now();
        std::string error;
        if (!host_->start(true, &error))
            return failed_report(error);
        // One full pass before any write: every tag has been read in this run.
        if (!host_->wait_passes(1, std::chrono::milliseconds(20000)))
            return failed_report("no full pass within 20 s");
        watch_.arm();
        deadline_ = o_.duration.count() > 0 ? started + o_.duration : std::chrono::steady_clock::time_point{};

        std::vector<std::thread> threads;
        for (size_t k = 0; k < targets_.size(); ++k)
            threads.emplace_back([this, k] { write_loop(targets_[k], k); });
        threads.emplace_back([this] { once_loop(); });
        std::atomic<bool> finished{false};
        std::thread ticker([&] {
            while (!finished.load()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                if (tick && std::chrono::steady_clock::now() - last_tick_ >= std::chrono::seconds(1)) {
                    last_tick_ = std::chrono::steady_clock::now();
                    tick();
                }
            }
        });
        for (auto &t : threads)
            t.join();
        finished.store(true);
        ticker.join();

        FaultRunReport r;
        converge(&r);
        r.stats = host_->stats();
        host_->stop();
        check_writes(&r);
        check_counts(&r);
        r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        return r;
    }

    plchost::Host &host() { return *host_; }

private:
    bool more_to_write(int n) const
    {
        if (deadline_ == std::chrono::steady_clock::time_point{})
            return n <= o_.writes_per_target;
        return std::chrono::steady_clock::now() < deadline_;
    }

    void on_reply(const plchost::ReplyEvent &e)
    {
        const bool good = e.status == 1 || e.status == 100;
        if (good)
            watch_.check(*host_, tags_);
        std::lock_guard<std::mutex> lock(mutex_);
        if (e.status == 0) {
            ++retries_in_a_row_;
        } else {
            if (!good)
                ++retries_before_give_up_[retries_in_a_row_];
            retries_in_a_row_ = 0;
        }
    }

    void problem(const std::string &what)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++problem_count_;
        if (problems_.size() < 20)
            problems_.push_back(what);
    }

    // Takes the report of one request: exactly one, with 1 or 2.
    int take_report(int type, int id, const std::string &what)
    {
        const auto r = done_.take(type, id);
        if (r.first != 1)
            problem(what + " " + std::to_string(id) + " reported " + std::to_string(r.first) + " times");
        else if (r.second != 1 && r.second != 2)
            problem(what + " " + std::to_string(id) + " reported with result " + std::to_string(r.second));
        return r.second;
    }

    void write_loop(workload::Target &t, size_t k)
    {
        std::mt19937 rng(o_.seed * 31u + unsigned(k));
        for (int n = 1; more_to_write(n);) {
            std::vector<workload::IssuedWrite> batch;
            const int size = 1 + int(rng() % 3);
            for (int b = 0; b < size && more_to_write(n); ++b, ++n) {
                const uint64_t v = workload::value_for(t, n);
                workload::allow_write(watch_, t, v);
                std::vector<uint8_t> bytes;
                plchost::Tag where = e2e::tag(t.kind, t.address, 0, t.station, t.name);
                plchost::encode_values(t.kind, workload::values_for(t, v), &bytes, &where.count);
                int id = 0;
                if (host_->write(where, bytes, kWriteType, &id) <= 0)
                    ++refused_;
                batch.push_back({id, v});
                ++writes_;
            }
            std::vector<int> ids;
            for (const auto &w : batch)
                ids.push_back(w.id);
            if (!done_.wait_all(kWriteType, ids, std::chrono::milliseconds(30000)))
                ++unreported_;
            for (const auto &w : batch)
                record_result(t, w, take_report(kWriteType, w.id, t.name + ": write"));
        }
    }

    void record_result(workload::Target &t, const workload::IssuedWrite &w, int result)
    {
        t.last_failed = result != 1;
        t.last_value = w.value;
        if (result == 1) {
            ++confirmed_;
            t.any_confirmed = true;
            t.since_confirmed.assign(1, w);
        } else {
            ++failed_;
            t.since_confirmed.push_back(w);
        }
    }

    void once_loop()
    {
        std::vector<int> ids;
        for (int n = 0; more_to_write(n + 1); ++n) {
            int id = 0;
            if (host_->read_once(e2e::tag(n % 2 ? 3 : 4, std::to_string(n % 20), 1 + n % 10, 1 + n % 2), kOnceType,
                                 &id)) {
                ids.push_back(id);
                ++once_reads_;
            } else {
                ++refused_;
            }
            if (n % 3 == 2) {
                if (!done_.wait_all(kOnceType, ids, std::chrono::milliseconds(30000)))
                    ++unreported_;
                for (int i : ids)
                    take_report(kOnceType, i, "one-shot read");
                ids.clear();
            }
        }
        if (!done_.wait_all(kOnceType, ids, std::chrono::milliseconds(30000)))
            ++unreported_;
        for (int i : ids)
            take_report(kOnceType, i, "one-shot read");
    }

    // Faults off: the mirror must come to match the PLC while the host polls.
    void converge(FaultRunReport *r)
    {
        proxy_->set_faults(false);
        const auto off = std::chrono::steady_clock::now();
        ModbusClient plc(sim_.modbus_port(), 1);
        std::string difference;
        while (!r->converged && std::chrono::steady_clock::now() - off < std::chrono::seconds(15)) {
            r->converged = true;
            for (const plchost::Tag &t : tags_) {
                plc.set_unit(t.station);
                const auto want = plc.expected(t.kind, plchost::Host::parse_address(t.kind, t.address), t.count);
                if (e2e::values_of(*host_, t) != want) {
                    r->converged = false;
                    difference = t.name;
                    break;
                }
            }
            if (!r->converged)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        r->convergence_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - off).count();
        if (!r->converged)
            problem("mirror still differs from the PLC (" + difference + ") 15 s after the faults stopped");
    }

    // The PLC holds the last confirmed value or one written after it.
    void check_writes(FaultRunReport *r)
    {
        ModbusClient plc(sim_.modbus_port(), 1);
        for (const workload::Target &t : targets_) {
            plc.set_unit(t.station);
            const auto held =
                plc.expected(t.kind, plchost::Host::parse_address(t.kind, t.address), t.kind == 11 ? 2 : t.values);
            const uint64_t value = workload::held_value(t, held);
            std::vector<uint64_t> allowed;
            if (!t.any_confirmed)
                allowed.push_back(workload::start_value(t)); // nothing confirmed: the start value is possible
            for (const auto &w : t.since_confirmed)
                allowed.push_back(w.value);
            if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
                ++r->lost;
                problem(t.name + ": the PLC holds " + std::to_string(value) +
                        ", which no confirmed or later write left (a lost write)");
            }
            if (t.last_failed && value == t.last_value)
                ++r->landed_after_failure;
            if (t.kind != 1 && t.kind != 5)
                for (uint64_t h : held)
                    if (h != held[0])
                        problem(t.name + ": values of one write differ");
        }
    }

    void check_counts(FaultRunReport *r)
    {
        r->writes = writes_.load();
        r->confirmed = confirmed_.load();
        r->failed = failed_.load();
        r->once_reads = once_reads_.load();
        r->unreported = unreported_.load();
        r->refused = refused_.load();
        r->stray_reports = done_.size();
        r->replies = proxy_->replies();
        r->faults = proxy_->total_faults();
        r->fault_summary = proxy_->summary();
        r->connections = proxy_->connections();
        r->checks = watch_.checks();
        r->wrong_values = watch_.wrong();
        if (r->wrong_values)
            problem("a value of another register in the mirror: " + watch_.first_wrong());
        if (r->unreported)
            problem(std::to_string(r->unreported) + " batches not reported within 30 s");
        if (r->refused)
            problem(std::to_string(r->refused) + " requests refused");
        if (r->stray_reports)
            problem(std::to_string(r->stray_reports) + " reports for identities nobody used or reported twice");
        if (r->stats.give_ups != r->stats.read_done)
            problem("give-ups " + std::to_string(r->stats.give_ups) + " but read-done callbacks " +
                    std::to_string(r->stats.read_done));
        std::map<int, int> retries;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            retries = retries_before_give_up_;
        }
        for (const auto &e : retries)
            if (e.first != o_.retry_limit)
                problem(std::to_string(e.second) + " give-ups after " + std::to_string(e.first) +
                        " retries (retry limit " + std::to_string(o_.retry_limit) + ")");
        std::lock_guard<std::mutex> lock(mutex_);
        r->problems = problems_;
        if (problem_count_ > problems_.size())
            r->problems.push_back("... and " + std::to_string(problem_count_ - problems_.size()) + " more");
    }

    FaultRunReport failed_report(const std::string &why)
    {
        FaultRunReport r;
        r.problems.push_back(why);
        return r;
    }

    FaultRunOptions o_;
    PlcsimProcess sim_;
    std::unique_ptr<FaultProxy> proxy_;
    std::vector<plchost::Tag> tags_;
    std::vector<workload::Target> targets_;
    pattern::Watch watch_;
    DoneLog done_;
    std::chrono::steady_clock::time_point deadline_{};
    std::chrono::steady_clock::time_point last_tick_{};
    std::atomic<uint64_t> writes_{0}, confirmed_{0}, failed_{0}, once_reads_{0}, unreported_{0}, refused_{0};
    std::mutex mutex_;
    int retries_in_a_row_ = 0;
    std::map<int, int> retries_before_give_up_;
    std::vector<std::string> problems_;
    size_t problem_count_ = 0;
    std::unique_ptr<plchost::Host> host_; // last: its thread calls into the members above
};

} // namespace reliability

#endif // PLCDRIVER_RELIABILITY_FAULT_WORKLOAD_H
