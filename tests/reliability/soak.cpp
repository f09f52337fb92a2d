// reliability_soak: the fault workload (fault_workload.h) for a given time
// in one link mode, with the process's resident memory sampled every second.
//
//   reliability_soak --mode modbus|remote --seconds N [--seed S] [--percent P]
//
// Prints "soak:" lines: the run's figures (requests, faults by kind, wrong
// values seen, lost writes) and the resident memory after the first tenth of
// the run and at its end. Exit status 0 when every promise held and memory
// grew by less than 4 MiB, 1 otherwise, 2 on a usage error.
#include "fault_workload.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// Resident set size of this process in KiB (VmRSS), 0 when unknown.
long resident_kib()
{
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    return 0;
}

int usage(const char *why)
{
    std::fprintf(stderr, "reliability_soak: %s\n", why);
    std::fprintf(stderr, "usage: reliability_soak --mode modbus|remote --seconds N [--seed S] [--percent P]\n");
    return 2;
}

bool parse_number(const char *text, long lo, long hi, long *out)
{
    char *end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (!end || *end || end == text || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

constexpr long kGrowthLimitKib = 4096;

} // namespace

int main(int argc, char **argv)
{
    reliability::FaultRunOptions o;
    long seconds = 0, seed = 1, percent = 10;
    bool mode_given = false;
    static const option options[] = {{"mode", required_argument, nullptr, 'm'},
                                     {"seconds", required_argument, nullptr, 's'},
                                     {"seed", required_argument, nullptr, 'e'},
                                     {"percent", required_argument, nullptr, 'p'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
        case 'm':
            if (std::string(optarg) == "modbus")
                o.mode = plchost::LinkMode::Modbus;
            else if (std::string(optarg) == "remote")
                o.mode = plchost::LinkMode::Remote;
            else
                return usage("--mode takes modbus or remote");
            mode_given = true;
            break;
        case 's':
            if (!parse_number(optarg, 1, 7 * 24 * 3600, &seconds))
                return usage("--seconds takes a number of seconds, 1 or more");
            break;
        case 'e':
            if (!parse_number(optarg, 0, 0xFFFFFFFFL, &seed))
                return usage("--seed takes a number 0..4294967295");
            break;
        case 'p':
            if (!parse_number(optarg, 0, 100, &percent))
                return usage("--percent takes a number 0..100");
            break;
        default: return usage("unknown option");
        }
    }
    if (optind < argc)
        return usage("unexpected argument");
    if (!mode_given || seconds == 0)
        return usage("--mode and --seconds are needed");
    o.seed = uint32_t(seed);
    o.percent = int(percent);
    o.duration = std::chrono::seconds(seconds);

    const char *mode = reliability::mode_name(o.mode);
    std::printf("soak: %s for %ld s, fault seed %ld, %ld %% of replies faulted\n", mode, seconds, seed, percent);
    std::fflush(stdout);
    long rss_start = 0, rss_peak = 0;
    int ticks = 0;
    const int warm_up = int(std::max(1L, seconds / 10));
    try {
        reliability::FaultRun run(o, PLCSIM_PATH);
        const auto report = run.run([&] {
            const long now = resident_kib();
            rss_peak = std::max(rss_peak, now);
            if (++ticks == warm_up)
                rss_start = now;
        });
        const long rss_end = resident_kib();
        if (rss_start == 0)
            rss_start = rss_end;
        report.print(stdout, "soak");
        std::printf("soak: %s resident memory: %ld KiB after %d s, %ld KiB at the end (%+ld KiB), peak %ld KiB\n", mode,
                    rss_start, warm_up, rss_end, rss_end - rss_start, rss_peak);
        bool ok = report.problems.empty();
        for (const std::string &p : report.problems)
            std::printf("soak: %s PROBLEM: %s\n", mode, p.c_str());
        if (rss_end - rss_start >= kGrowthLimitKib) {
            std::printf("soak: %s PROBLEM: resident memory grew by %ld KiB\n", mode, rss_end - rss_start);
            ok = false;
        }
        std::printf("soak: %s %s\n", mode, ok ? "passed" : "FAILED");
        return ok ? 0 : 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "reliability_soak: %s\n", e.what());
        return 1;
    }
}
