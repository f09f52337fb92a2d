// plcgate end to end on loopback: Debian's mosquitto on 127.0.0.1 (a port
// of its own), plcsim, plcgate, an independent Modbus writer (libmodbus)
// that changes plcsim's holding registers, and a libmosquitto subscriber in
// this process that takes the tag messages. Measures:
//   latency     from the write of a new value into plcsim (t0, before the
//               request is sent) to its tag message at the subscriber (t1),
//               one change at a time, at [plc] interval 0 and 100 ms;
//   throughput  tag messages per second at the subscriber while the writer
//               changes every register of 1,000 or 10,000 tags continuously
//               (FC16 blocks), with plcgate's CPU time (/proc/PID/stat) per
//               message;
//   ceiling     the broker alone: mosquitto_pub -l feeding N lines at QoS 1
//               to mosquitto_sub -C N on the same broker, messages per second.
// Each part starts its own broker, plcsim and plcgate and stops them.
//
//   bench_gateway [--changes N] [--tags N,...] [--seconds S] [--ceiling N] [--out FILE]
#include "gateway_bench.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace gatebench;

struct Options {
    int changes = 300;
    std::vector<int> tags = {1000, 10000};
    double seconds = 5;
    int ceiling = 20000; // a longer feed slows mosquitto_pub -l itself (scripts/benchmarks.sh)
    std::string out;
};

constexpr int kLatencyRegister = 100;
constexpr std::chrono::seconds kArrivalWait{5};
constexpr int kMostLost = 10;
// The writer's pause between two changes is drawn from [0, interval + this),
// so the changes fall at every point of the gateway's poll cycle.
constexpr int kPauseSpreadMs = 20;

struct LatencyResult {
    int interval_ms = 0;
    std::vector<double> ms; // one per change that arrived
    int lost = 0;           // changes that did not arrive in kArrivalWait
};

LatencyResult measure_latency(int interval_ms, int changes)
{
    LatencyResult r;
    r.interval_ms = interval_ms;
    Bench bench;
    const std::string tags = "name,kind,address,station,count\nv,4," + std::to_string(kLatencyRegister) + ",1,1\n";
    if (!bench.start(tags, interval_ms, 1))
        return r;
    ModbusClient writer(bench.plc_port());
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pause(0, interval_ms + kPauseSpreadMs - 1);
    for (int i = 1; i <= changes; ++i) {
        const uint16_t value = uint16_t(1 + i % 60000);
        const auto t0 = Clock::now();
        writer.write_holding(kLatencyRegister, {value});
        const auto t1 = bench.subscriber().wait_value(value, kArrivalWait);
        if (t1)
            r.ms.push_back(std::chrono::duration<double, std::milli>(*t1 - t0).count());
        else if (++r.lost > kMostLost)
            break; // the gateway is not publishing; the run has failed anyway
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
    }
    return r;
}

struct ThroughputResult {
    int tags = 0;
    double seconds = 0;
    unsigned long long updates = 0;
    double gate_cpu_s = -1, broker_cpu_s = -1, plcsim_cpu_s = -1;
    double writer_passes_per_s = 0;
    unsigned long long dropped = 0; // plcgate's stats: changes coalesced away
    bool ok = false;
};

ThroughputResult measure_throughput(int tag_count, double seconds)
{
    ThroughputResult r;
    r.tags = tag_count;
    Bench bench;
    if (!bench.start(register_tags(tag_count), 0, size_t(tag_count)))
        return r;
    ChangingRegisters writer(bench.plc_port(), tag_count);
    std::this_thread::sleep_for(std::chrono::seconds(1)); // past the first changes
    const Sample a = bench.sample();
    const auto passes0 = writer.passes();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const Sample b = bench.sample();
    r.writer_passes_per_s = double(writer.passes() - passes0) / (b.seconds - a.seconds);
    writer.stop();
    r.seconds = b.seconds - a.seconds;
    r.updates = b.tag_messages - a.tag_messages;
    r.gate_cpu_s = difference(a.gate_cpu, b.gate_cpu);
    r.broker_cpu_s = difference(a.broker_cpu, b.broker_cpu);
    r.plcsim_cpu_s = difference(a.plcsim_cpu, b.plcsim_cpu);
    r.dropped = bench.subscriber().dropped();
    r.ok = r.updates > 0;
    return r;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return -1;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5));
    return v[i];
}

void write_latency(loopback::Json &j, const LatencyResult &r)
{
    j.begin_object()
        .value("interval_ms", r.interval_ms)
        .value("changes", int(r.ms.size()) + r.lost)
        .value("arrived", int(r.ms.size()))
        .value("lost", r.lost)
        .value("median_ms", percentile(r.ms, 0.5))
        .value("p99_ms", percentile(r.ms, 0.99))
        .value("min_ms", percentile(r.ms, 0))
        .value("max_ms", percentile(r.ms, 1))
        .end_object();
    std::printf("latency at interval %d ms: median %.2f ms, p99 %.2f ms over %zu changes (%d lost)\n", r.interval_ms,
                percentile(r.ms, 0.5), percentile(r.ms, 0.99), r.ms.size(), r.lost);
}

void write_throughput(loopback::Json &j, const ThroughputResult &r)
{
    const double per_s = r.seconds > 0 ? double(r.updates) / r.seconds : 0;
    const double cpu_us = r.updates > 0 && r.gate_cpu_s >= 0 ? r.gate_cpu_s * 1e6 / double(r.updates) : -1;
    j.begin_object()
        .value("tags", r.tags)
        .value("seconds", r.seconds)
        .value("updates", r.updates)
        .value("updates_per_s", per_s)
        .value("gate_cpu_s", r.gate_cpu_s)
        .value("gate_cpu_us_per_update", cpu_us)
        .value("gate_cpu_share", r.gate_cpu_s >= 0 && r.seconds > 0 ? r.gate_cpu_s / r.seconds : -1)
        .value("broker_cpu_s", r.broker_cpu_s)
        .value("plcsim_cpu_s", r.plcsim_cpu_s)
        .value("writer_passes_per_s", r.writer_passes_per_s)
        .value("dropped", r.dropped)
        .value("ok", r.ok)
        .end_object();
    std::printf("%d tags: %.0f updates/s, plcgate %.1f us CPU per update (%.0f %% of a core), writer %.1f passes/s\n",
                r.tags, per_s, cpu_us, r.seconds > 0 ? 100 * r.gate_cpu_s / r.seconds : 0, r.writer_passes_per_s);
}

void write_ceiling(loopback::Json &j, const CeilingResult &r)
{
    const double per_s = r.seconds > 0 ? double(r.messages) / r.seconds : 0;
    j.begin_object("ceiling")
        .value("messages", r.messages)
        .value("payload_bytes", r.payload_bytes)
        .value("seconds", r.seconds)
        .value("messages_per_s", per_s)
        .value("broker_cpu_s", r.broker_cpu_s)
        .value("ok", r.ok)
        .end_object();
    std::printf("broker alone (mosquitto_pub -l, mosquitto_sub -C, QoS 1): %.0f messages/s\n", per_s);
}

bool parse_options(int argc, char **argv, Options *o)
{
    for (int i = 1; i < argc; ++i) {
        std::string v;
        if (loopback::option(argc, argv, &i, "--changes", &v))
            o->changes = std::atoi(v.c_str());
        else if (loopback::option(argc, argv, &i, "--tags", &v))
            o->tags = loopback::int_list(v);
        else if (loopback::option(argc, argv, &i, "--seconds", &v))
            o->seconds = std::atof(v.c_str());
        else if (loopback::option(argc, argv, &i, "--ceiling", &v))
            o->ceiling = std::atoi(v.c_str());
        else if (!loopback::option(argc, argv, &i, "--out", &o->out))
            return false;
    }
    const bool tags_ok =
        !o->tags.empty() && std::all_of(o->tags.begin(), o->tags.end(), [](int n) { return n > 0 && n <= kMaxTags; });
    return o->changes > 0 && tags_ok && o->seconds > 0 && o->ceiling > 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (!parse_options(argc, argv, &o)) {
        std::fprintf(stderr,
                     "usage: bench_gateway [--changes N] [--tags N,... (1..%d)] [--seconds S] [--ceiling N] "
                     "[--out FILE]\n",
                     kMaxTags);
        return 2;
    }
    Library mosquitto_library;
    loopback::Json j;
    j.begin_object().value("nproc", int(std::thread::hardware_concurrency()));
    bool ok = true;
    j.begin_array("latency");
    for (int interval : {0, 100}) {
        const LatencyResult r = measure_latency(interval, o.changes);
        ok = ok && r.lost == 0 && !r.ms.empty();
        write_latency(j, r);
    }
    j.end_array().begin_array("throughput");
    for (int tags : o.tags) {
        const ThroughputResult r = measure_throughput(tags, o.seconds);
        ok = ok && r.ok;
        write_throughput(j, r);
    }
    j.end_array();
    const CeilingResult ceiling = measure_ceiling(o.ceiling);
    ok = ok && ceiling.ok;
    write_ceiling(j, ceiling);
    return loopback::finish_report(j, ok, o.out, "bench_gateway");
}
