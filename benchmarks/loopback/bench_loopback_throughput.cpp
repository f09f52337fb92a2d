// End-to-end read throughput on loopback, side by side: the reference host
// with the driver (a cyclic list of one block entry) against a plain
// libmodbus client loop, both reading the same blocks at the same Modbus
// addresses of one plcsim (--static, station 1).
//
//   bench_loopback_throughput --plcsim build/simulator/plcsim --rounds 5 --seconds 1 --out throughput.json
//
// Blocks: 1, 10, 100 and 120 holding registers (kind 3, Modbus address
// 0xA000, function 3) and 2,000 coils (kind 1, Modbus address 0xA000,
// function 1; a ready-made entry, since the driver's grouping keeps bit
// kinds in byte units). The two clients take turns in rounds, every block
// in every round, the order of the two flipped from round to round; each
// window runs for --seconds after a short warm-up on its own connection.
// Both clients run one request at a time, as the host does.
//
// Per window the program records requests per second, the CPU time of this
// process per request (user and system; only the client under test runs:
// the host's communication thread, or the libmodbus loop on the main
// thread) and the CPU time the simulator used per request. Before the first
// round it writes a pattern into the simulator's registers and coils; every
// window checks that its client read that pattern back (the host through
// the driver's mirror), and counts failed replies.
#include "loopback_support.h"
#include "plchost.h"
#include "plcsim_process.h"

#include <modbus/modbus.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace loopback;

namespace {

struct Case {
    const char *name;
    int kind;  // driver kind: 3 holding registers, 1 coils
    int count; // registers or bits
    bool bits;
};

const Case kCases[] = {
    {"registers_1", 3, 1, false},     {"registers_10", 3, 10, false}, {"registers_100", 3, 100, false},
    {"registers_120", 3, 120, false}, {"bits_2000", 1, 2000, true},
};

// The Modbus address the driver sends for address 0 of kinds 1 and 3.
constexpr int kWireAddress = 0xA000;

uint16_t pattern_word(int i)
{
    return uint16_t(0x1000 + i * 7);
}
uint8_t pattern_bit(int i)
{
    return uint8_t(i % 3 == 0);
}

// One measured window of a client; the host fills the HostWindow part with
// measure_host, the libmodbus loop fills it itself.
struct Window : HostWindow {
    int round = 0;
    const Case *c = nullptr;
    std::string client; // "host" or "libmodbus"
    int position = 0;   // 0: first of the pair in this round, 1: second
    bool values_ok = false;
    std::string error;
};

bool seed_simulator(int port, std::string *error)
{
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port);
    if (!ctx)
        return *error = "modbus_new_tcp failed", false;
    modbus_set_slave(ctx, 1);
    bool ok = modbus_connect(ctx) == 0;
    std::vector<uint16_t> words(120);
    for (int i = 0; i < 120; ++i)
        words[size_t(i)] = pattern_word(i);
    ok = ok && modbus_write_registers(ctx, kWireAddress, 120, words.data()) == 120;
    std::vector<uint8_t> bits(2000);
    for (int i = 0; i < 2000; ++i)
        bits[size_t(i)] = pattern_bit(i);
    // At most 1,968 coils per write request.
    ok = ok && modbus_write_bits(ctx, kWireAddress, 1000, bits.data()) == 1000;
    ok = ok && modbus_write_bits(ctx, kWireAddress + 1000, 1000, bits.data() + 1000) == 1000;
    if (!ok)
        *error = std::string("cannot seed the simulator: ") + modbus_strerror(errno);
    modbus_close(ctx);
    modbus_free(ctx);
    return ok;
}

bool values_match(const Case &c, const std::vector<uint64_t> &values)
{
    if (int(values.size()) != c.count)
        return false;
    for (int i = 0; i < c.count; ++i)
        if (values[size_t(i)] != (c.bits ? pattern_bit(i) : pattern_word(i)))
            return false;
    return true;
}

void run_host(const Case &c, int port, pid_t sim, double seconds, double warmup, Window *w)
{
    plchost::HostConfig cfg;
    cfg.endpoints = {plchost::Endpoint{"127.0.0.1", uint16_t(port), {1}}};
    cfg.max_read_units = 120;
    cfg.poll_interval = std::chrono::milliseconds(0); // read as fast as the link allows
    cfg.timeout = std::chrono::milliseconds(1000);
    plchost::Host host(cfg);
    plchost::Tag tag{"block", c.kind, c.bits ? "0.0" : "0", 1, c.count};
    if (c.bits)
        host.add_read_block(c.kind, 0, c.count, 1);
    else
        host.set_tags({tag});
    if (host.cyclic_entries() != 1) {
        w->error = "the cyclic list has " + std::to_string(host.cyclic_entries()) + " entries, not 1";
        return;
    }
    std::string error;
    if (!host.start(true, &error)) {
        w->error = error;
        return;
    }
    const auto warm = Clock::now();
    while (seconds_since(warm) < warmup || host.stats().good_replies < 20) {
        if (seconds_since(warm) > 5) {
            w->error = "no replies during the warm-up";
            host.stop();
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    static_cast<HostWindow &>(*w) = measure_host(host, sim, seconds);
    std::vector<uint8_t> bytes;
    w->values_ok = host.read(tag, &bytes) && values_match(c, plchost::decode_values(c.kind, c.count, bytes));
}

// One request of the case; true when the full block came back.
bool libmodbus_read(modbus_t *ctx, const Case &c, uint16_t *words, uint8_t *bits)
{
    if (c.bits)
        return modbus_read_bits(ctx, kWireAddress, c.count, bits) == c.count;
    return modbus_read_registers(ctx, kWireAddress, c.count, words) == c.count;
}

void run_libmodbus(const Case &c, int port, pid_t sim, double seconds, double warmup, Window *w)
{
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port);
    if (!ctx) {
        w->error = "modbus_new_tcp failed";
        return;
    }
    modbus_set_slave(ctx, 1);
    modbus_set_response_timeout(ctx, 1, 0);
    if (modbus_connect(ctx) != 0) {
        w->error = std::string("modbus_connect: ") + modbus_strerror(errno);
        modbus_free(ctx);
        return;
    }
    std::vector<uint16_t> words(125);
    std::vector<uint8_t> bits(2000);
    const auto warm = Clock::now();
    while (seconds_since(warm) < warmup)
        libmodbus_read(ctx, c, words.data(), bits.data());

    unsigned long long requests = 0, failed = 0;
    const CpuTimes cpu0 = process_cpu();
    const double sim0 = other_process_cpu(sim);
    const auto t0 = Clock::now();
    const auto end = t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        if (libmodbus_read(ctx, c, words.data(), bits.data()))
            ++requests;
        else
            ++failed;
    }
    w->seconds = seconds_since(t0);
    const CpuTimes cpu1 = process_cpu();
    const double sim1 = other_process_cpu(sim);
    w->requests = requests;
    w->failed = failed;
    w->cpu.user = cpu1.user - cpu0.user;
    w->cpu.system = cpu1.system - cpu0.system;
    w->sim_cpu = sim0 >= 0 && sim1 >= 0 ? sim1 - sim0 : -1;
    std::vector<uint64_t> values;
    for (int i = 0; i < c.count; ++i)
        values.push_back(c.bits ? bits[size_t(i)] : words[size_t(i)]);
    w->values_ok = values_match(c, values);
    modbus_close(ctx);
    modbus_free(ctx);
}

void usage()
{
    std::fprintf(stderr, "usage: bench_loopback_throughput --plcsim PATH [--rounds N] [--seconds S] [--warmup S]\n"
                         "                                 [--cases NAME,...] [--out FILE.json]\n");
}

} // namespace

int main(int argc, char **argv)
{
    std::string plcsim, out, value;
    int rounds = 5;
    double seconds = 1.0, warmup = 0.2;
    std::vector<std::string> only;
    for (int i = 1; i < argc; ++i) {
        if (option(argc, argv, &i, "--plcsim", &plcsim) || option(argc, argv, &i, "--out", &out))
            continue;
        if (option(argc, argv, &i, "--rounds", &value))
            rounds = std::max(1, std::min(100, std::atoi(value.c_str())));
        else if (option(argc, argv, &i, "--seconds", &value))
            seconds = std::max(0.05, std::min(60.0, std::atof(value.c_str())));
        else if (option(argc, argv, &i, "--warmup", &value))
            warmup = std::max(0.0, std::min(10.0, std::atof(value.c_str())));
        else if (option(argc, argv, &i, "--cases", &value)) {
            std::stringstream s(value);
            std::string item;
            while (std::getline(s, item, ','))
                only.push_back(item);
        } else {
            usage();
            return 2;
        }
    }
    if (plcsim.empty()) {
        usage();
        return 2;
    }
    std::vector<const Case *> cases;
    for (const Case &c : kCases)
        if (only.empty() || std::find(only.begin(), only.end(), c.name) != only.end())
            cases.push_back(&c);

    PlcsimProcess sim(plcsim, {"--stations", "1", "--static"});
    std::string error;
    if (!sim.start(&error) || !seed_simulator(sim.modbus_port(), &error)) {
        std::fprintf(stderr, "bench_loopback_throughput: %s\n", error.c_str());
        return 1;
    }

    std::vector<Window> windows;
    bool all_ok = true;
    for (int r = 0; r < rounds; ++r) {
        for (const Case *c : cases) {
            for (int pos = 0; pos < 2; ++pos) {
                const bool host_first = r % 2 == 0;
                const bool host = (pos == 0) == host_first;
                Window w;
                w.round = r;
                w.c = c;
                w.client = host ? "host" : "libmodbus";
                w.position = pos;
                if (host)
                    run_host(*c, sim.modbus_port(), sim.pid(), seconds, warmup, &w);
                else
                    run_libmodbus(*c, sim.modbus_port(), sim.pid(), seconds, warmup, &w);
                const double rps = w.seconds > 0 ? double(w.requests) / w.seconds : 0;
                std::printf("round %d %-14s %-9s %9.0f req/s  cpu %6.1f us/req  failed %llu  values %s %s\n", r,
                            c->name, w.client.c_str(), rps, w.requests ? w.cpu.total() / double(w.requests) * 1e6 : 0.0,
                            w.failed, w.values_ok ? "ok" : "WRONG", w.error.c_str());
                std::fflush(stdout);
                all_ok = all_ok && w.error.empty() && w.values_ok && w.failed == 0 && w.requests > 0;
                windows.push_back(w);
            }
        }
    }
    sim.stop();

    Json j;
    j.begin_object();
    j.value("benchmark", "loopback_throughput");
    j.begin_object("config")
        .value("rounds", rounds)
        .value("seconds", seconds)
        .value("warmup", warmup)
        .value("plcsim_args", "--stations 1 --static")
        .value("host_poll_interval_ms", 0)
        .value("host_max_read_units", 120)
        .end_object();
    j.begin_array("cases");
    for (const Case *c : cases) {
        j.begin_object()
            .value("name", c->name)
            .value("kind", c->kind)
            .value("count", c->count)
            .value("unit", c->bits ? "bits" : "registers")
            .value("function", c->bits ? 1 : 3)
            .value("modbus_address", kWireAddress)
            .value("libmodbus_call", c->bits ? "modbus_read_bits" : "modbus_read_registers")
            .value("host_entry", c->bits ? "add_read_block (AddListReadVar)" : "set_tags (ReCreatReadVarList)")
            .end_object();
    }
    j.end_array();
    j.begin_array("windows");
    for (const Window &w : windows) {
        j.begin_object()
            .value("round", w.round)
            .value("case", w.c->name)
            .value("client", w.client)
            .value("position", w.position)
            .value("requests", w.requests)
            .value("failed", w.failed)
            .value("seconds", w.seconds)
            .value("requests_per_s", w.seconds > 0 ? double(w.requests) / w.seconds : 0.0)
            .value("units_per_s", w.seconds > 0 ? double(w.requests) * w.c->count / w.seconds : 0.0)
            .value("cpu_user_s", w.cpu.user)
            .value("cpu_system_s", w.cpu.system)
            .value("sim_cpu_s", w.sim_cpu)
            .value("values_ok", w.values_ok)
            .value("error", w.error)
            .end_object();
    }
    j.end_array();
    return finish_report(j, all_ok, out, "bench_loopback_throughput");
}
