// Scaling of the cyclic read over loopback: the reference host with the
// driver polls a growing list of tags from plcsim (--static, stations 1-16)
// as fast as the link allows (poll interval 0), and the program records how
// many tags it keeps fresh per second and how much CPU time it spends.
//
//   bench_loopback_scaling --plcsim build/simulator/plcsim --tags 10,100,1000,10000,100000
//       --stations 1,4,16 --rounds 2 --seconds 2 --out scaling.json   (one line)
//
// Tag layout: every tag is one 16-bit register. Tag i belongs to station
// 1 + i % S; on its station it is the j-th tag, j = i / S. A station's tags
// sit in clusters of 10 consecutive registers, one cluster every 12
// registers (a gap of 2 unread registers between clusters), filling the
// holding registers of kind 4 (addresses 0..65535) first, then kind 3
// (holding registers at Modbus 0xA000.., addresses 0..24575), then kind 2
// (input registers at Modbus 0x8000.., addresses 0..32767): room for
// 102,390 tags per station. With max_read_units 120 the driver's grouping
// makes one request of 118 registers (the gaps are read along) per 10
// clusters, i.e. 100 tags per request once a station has that many.
//
// CPU time is that of this whole process (getrusage, user and system
// apart) over the measured window. Only the host's communication thread
// works then: the main thread sleeps. So it is the CPU of the driver plus
// the host around it, including the socket system calls.
//
// Mirror memory: before each run the driver's mirror is emptied. After the
// run, with the host stopped and its thread gone, the main thread makes a
// deep copy of the mirror tables (same entries, same bucket count) and the
// heap in use before and after the copy (mallinfo2) gives their size. Small
// chunks are taken out of this thread's malloc cache first, so that the
// copy's allocations show in the heap figures.
#include "Communication_Protocol.h"
#include "loopback_support.h"
#include "plchost.h"
#include "plcsim_process.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace loopback;

namespace {

constexpr int kClusterTags = 10;
constexpr int kClusterStride = 12;

struct Area {
    int kind;
    int registers; // addresses 0 .. registers-1 of the kind are usable
};
// Kinds 4, 3, 2 in this order; the sums with their Modbus offsets stay
// below 0x10000.
const Area kAreas[] = {{4, 65536}, {3, 0x10000 - 0xA000}, {2, 0x10000 - 0x8000}};

int clusters_in(const Area &a)
{
    return (a.registers - kClusterTags) / kClusterStride + 1;
}

int tags_per_station_max()
{
    int n = 0;
    for (const Area &a : kAreas)
        n += clusters_in(a) * kClusterTags;
    return n;
}

// Kind and address of the j-th tag of a station.
void place(int j, int *kind, int *address)
{
    int cluster = j / kClusterTags;
    for (const Area &a : kAreas) {
        if (cluster < clusters_in(a)) {
            *kind = a.kind;
            *address = cluster * kClusterStride + j % kClusterTags;
            return;
        }
        cluster -= clusters_in(a);
    }
    *kind = -1;
    *address = -1;
}

std::vector<plchost::Tag> make_tags(int n, int stations)
{
    std::vector<plchost::Tag> tags;
    tags.reserve(size_t(n));
    for (int i = 0; i < n; ++i) {
        plchost::Tag t;
        t.station = 1 + i % stations;
        int kind = 0, address = 0;
        place(i / stations, &kind, &address);
        t.kind = kind;
        t.address = std::to_string(address);
        t.count = 1;
        t.name = "t" + std::to_string(i);
        tags.push_back(std::move(t));
    }
    return tags;
}

// One run: a host window (HostWindow) and how it was set up.
struct Run : HostWindow {
    int round = 0;
    int tags = 0;
    int stations = 0;
    int entries = 0;
    long long registers_per_pass = 0;
    double set_tags_s = 0;
    double first_pass_s = 0;
    long long mirror_entries = 0;
    long long mirror_bytes = 0;
    std::string error;
};

size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

// Heap bytes a deep copy of the mirror tables takes: their own size.
long long mirror_heap_bytes()
{
    // Empty the thread's cache of small free chunks (which mallinfo2 counts
    // as in use) by holding a few of every small size during the copy.
    std::vector<void *> held;
    for (size_t size = 8; size <= 1024; size += 8)
        for (int k = 0; k < 8; ++k)
            held.push_back(std::malloc(size));
    const size_t before = heap_in_use();
    QHash<quint64, ushort> words = PLC_driver.word_mirror;
    QHash<quint64, uchar> bits = PLC_driver.bit_mirror;
    words.detach();
    bits.detach();
    const long long bytes = (long long)heap_in_use() - (long long)before;
    for (void *p : held)
        std::free(p);
    return bytes;
}

void clear_mirror()
{
    PLC_driver.word_mirror.clear();
    PLC_driver.word_mirror.squeeze();
    PLC_driver.bit_mirror.clear();
    PLC_driver.bit_mirror.squeeze();
}

void run_one(int n, int stations, int port, pid_t sim, double seconds, Run *r)
{
    clear_mirror();
    {
        plchost::HostConfig cfg;
        cfg.endpoints = {plchost::Endpoint{"127.0.0.1", uint16_t(port), {}}};
        cfg.max_read_units = 120;
        cfg.poll_interval = std::chrono::milliseconds(0);
        cfg.timeout = std::chrono::milliseconds(1000);
        plchost::Host host(cfg);
        const std::vector<plchost::Tag> tags = make_tags(n, stations);
        const auto t_set = Clock::now();
        const int accepted = host.set_tags(tags);
        r->set_tags_s = seconds_since(t_set);
        r->entries = host.cyclic_entries();
        if (accepted != n || r->entries <= 0) {
            r->error = "the driver accepted " + std::to_string(accepted) + " of " + std::to_string(n) + " tags";
            return;
        }
        // The host is not running yet: the list can be looked at directly.
        for (const RW_VAR &v : PLC_driver.read_list)
            r->registers_per_pass += v.count;

        std::string error;
        const auto t_start = Clock::now();
        if (!host.start(true, &error)) {
            r->error = error;
            return;
        }
        if (!host.wait_passes(1, std::chrono::seconds(60))) {
            r->error = "no full pass within 60 s";
            host.stop();
            return;
        }
        r->first_pass_s = seconds_since(t_start);
        static_cast<HostWindow &>(*r) = measure_host(host, sim, seconds);
    }
    // The host is gone and its thread joined: only the mirror is left.
    r->mirror_entries = PLC_driver.word_mirror.size() + PLC_driver.bit_mirror.size();
    r->mirror_bytes = mirror_heap_bytes();
    clear_mirror();
}

void usage()
{
    std::fprintf(stderr, "usage: bench_loopback_scaling --plcsim PATH [--tags N,...] [--stations S,...] [--rounds R]\n"
                         "                              [--seconds S] [--out FILE.json]\n");
}

} // namespace

int main(int argc, char **argv)
{
    std::string plcsim, out, value;
    std::vector<int> tag_counts = {10, 100, 1000, 10000, 100000};
    std::vector<int> station_counts = {1, 4, 16};
    int rounds = 2;
    double seconds = 2.0;
    for (int i = 1; i < argc; ++i) {
        if (option(argc, argv, &i, "--plcsim", &plcsim) || option(argc, argv, &i, "--out", &out))
            continue;
        if (option(argc, argv, &i, "--tags", &value))
            tag_counts = int_list(value);
        else if (option(argc, argv, &i, "--stations", &value))
            station_counts = int_list(value);
        else if (option(argc, argv, &i, "--rounds", &value))
            rounds = std::max(1, std::min(100, std::atoi(value.c_str())));
        else if (option(argc, argv, &i, "--seconds", &value))
            seconds = std::max(0.05, std::min(60.0, std::atof(value.c_str())));
        else {
            usage();
            return 2;
        }
    }
    if (plcsim.empty()) {
        usage();
        return 2;
    }
    for (int s : station_counts) {
        if (s < 1 || s > 16) {
            std::fprintf(stderr, "bench_loopback_scaling: stations must be 1..16\n");
            return 2;
        }
        for (int n : tag_counts) {
            if (n < 1 || (n + s - 1) / s > tags_per_station_max()) {
                std::fprintf(stderr, "bench_loopback_scaling: %d tags do not fit on %d station(s)\n", n, s);
                return 2;
            }
        }
    }

    PlcsimProcess sim(plcsim, {"--stations", "1-16", "--static"});
    std::string error;
    if (!sim.start(&error)) {
        std::fprintf(stderr, "bench_loopback_scaling: %s\n", error.c_str());
        return 1;
    }

    std::vector<Run> runs;
    bool all_ok = true;
    for (int round = 0; round < rounds; ++round) {
        for (int s : station_counts) {
            for (int n : tag_counts) {
                Run r;
                r.round = round;
                r.tags = n;
                r.stations = s;
                run_one(n, s, sim.modbus_port(), sim.pid(), seconds, &r);
                const double rps = r.seconds > 0 ? double(r.requests) / r.seconds : 0;
                const double fresh = r.entries > 0 ? rps * n / r.entries : 0;
                std::printf("round %d %6d tags %2d stations: %5d requests/pass, %8.0f req/s, %10.0f tags/s, "
                            "cpu %.2f s/s, mirror %lld B, failed %llu %s\n",
                            round, n, s, r.entries, rps, fresh, r.seconds > 0 ? r.cpu.total() / r.seconds : 0.0,
                            r.mirror_bytes, r.failed, r.error.c_str());
                std::fflush(stdout);
                all_ok = all_ok && r.error.empty() && r.failed == 0 && r.requests > 0;
                runs.push_back(r);
            }
        }
    }
    sim.stop();

    Json j;
    j.begin_object();
    j.value("benchmark", "loopback_scaling");
    j.begin_object("config")
        .value("rounds", rounds)
        .value("seconds", seconds)
        .value("plcsim_args", "--stations 1-16 --static")
        .value("host_poll_interval_ms", 0)
        .value("host_max_read_units", 120)
        .value("cluster_tags", kClusterTags)
        .value("cluster_stride", kClusterStride)
        .value("cpu_clock", "getrusage(RUSAGE_SELF): whole host process, user and system")
        .end_object();
    j.begin_array("runs");
    for (const Run &r : runs) {
        const double rps = r.seconds > 0 ? double(r.requests) / r.seconds : 0;
        j.begin_object()
            .value("round", r.round)
            .value("tags", r.tags)
            .value("stations", r.stations)
            .value("entries", r.entries)
            .value("registers_per_pass", r.registers_per_pass)
            .value("set_tags_s", r.set_tags_s)
            .value("first_pass_s", r.first_pass_s)
            .value("seconds", r.seconds)
            .value("requests", r.requests)
            .value("failed", r.failed)
            .value("passes", r.passes)
            .value("requests_per_s", rps)
            .value("tags_fresh_per_s", r.entries > 0 ? rps * r.tags / r.entries : 0.0)
            .value("cpu_user_s", r.cpu.user)
            .value("cpu_system_s", r.cpu.system)
            .value("sim_cpu_s", r.sim_cpu)
            .value("mirror_entries", r.mirror_entries)
            .value("mirror_bytes", r.mirror_bytes)
            .value("error", r.error)
            .end_object();
    }
    j.end_array();
    return finish_report(j, all_ok, out, "bench_loopback_scaling");
}
