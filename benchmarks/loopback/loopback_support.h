// Helpers shared by the loopback benchmarks: clocks, CPU time of this process
// and of the simulator, a small option parser and a JSON writer.
#ifndef PLCDRIVER_LOOPBACK_SUPPORT_H
#define PLCDRIVER_LOOPBACK_SUPPORT_H

#include <sys/resource.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace loopback {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// CPU time this process has used so far, split into user and system time.
struct CpuTimes {
    double user = 0;
    double system = 0;
    double total() const { return user + system; }
};

inline CpuTimes process_cpu()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    CpuTimes t;
    t.user = double(u.ru_utime.tv_sec) + double(u.ru_utime.tv_usec) * 1e-6;
    t.system = double(u.ru_stime.tv_sec) + double(u.ru_stime.tv_usec) * 1e-6;
    return t;
}

// CPU time (user + system) of another process, from /proc/PID/stat; -1 when
// it cannot be read. Resolution: one clock tick (usually 10 ms).
inline double other_process_cpu(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold spaces: fields are counted after its ')'.
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream rest(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // Fields 3.. follow; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && (rest >> field); ++i) {
        if (i == 14)
            utime = std::strtoull(field.c_str(), nullptr, 10);
        else if (i == 15)
            stime = std::strtoull(field.c_str(), nullptr, 10);
    }
    const long hz = sysconf(_SC_CLK_TCK);
    return hz > 0 ? double(utime + stime) / double(hz) : -1;
}

// "--name=value" or "--name value"; true when argv[*i] is that option.
inline bool option(int argc, char **argv, int *i, const char *name, std::string *value)
{
    const size_t n = std::strlen(name);
    const char *a = argv[*i];
    if (std::strncmp(a, name, n) != 0)
        return false;
    if (a[n] == '=') {
        *value = a + n + 1;
        return true;
    }
    if (a[n] == '\0' && *i + 1 < argc) {
        *value = argv[++*i];
        return true;
    }
    return false;
}

inline std::vector<int> int_list(const std::string &text)
{
    std::vector<int> out;
    std::stringstream s(text);
    std::string item;
    while (std::getline(s, item, ','))
        if (!item.empty())
            out.push_back(std::atoi(item.c_str()));
    return out;
}

// What a running host did over one measured window: good and failed
// replies and full passes from its statistics, the CPU time of this process
// and of the simulator (-1 when it cannot be read).
struct HostWindow {
    double seconds = 0;
    unsigned long long requests = 0;
    unsigned long long failed = 0;
    unsigned long long passes = 0;
    CpuTimes cpu;
    double sim_cpu = -1;
};

// Lets the running host work for `seconds`, then stops it, and returns
// what it did in that time; sim is the simulator's process.
template <typename Host> HostWindow measure_host(Host &host, pid_t sim, double seconds)
{
    const auto s0 = host.stats();
    const CpuTimes cpu0 = process_cpu();
    const double sim0 = other_process_cpu(sim);
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const auto s1 = host.stats();
    const CpuTimes cpu1 = process_cpu();
    const double sim1 = other_process_cpu(sim);
    HostWindow w;
    w.seconds = seconds_since(t0);
    host.stop();
    w.requests = s1.good_replies - s0.good_replies;
    w.failed = s1.failed_replies - s0.failed_replies;
    w.passes = s1.passes - s0.passes;
    w.cpu.user = cpu1.user - cpu0.user;
    w.cpu.system = cpu1.system - cpu0.system;
    w.sim_cpu = sim0 >= 0 && sim1 >= 0 ? sim1 - sim0 : -1;
    return w;
}

// A minimal JSON writer: objects and arrays of numbers, strings and booleans,
// commas placed automatically.
class Json {
public:
    Json &begin_object(const char *key = nullptr) { return open(key, '{'); }
    Json &end_object() { return close('}'); }
    Json &begin_array(const char *key = nullptr) { return open(key, '['); }
    Json &end_array() { return close(']'); }
    Json &value(const char *key, double v)
    {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.9g", v);
        return raw(key, buf);
    }
    Json &value(const char *key, long long v) { return raw(key, std::to_string(v)); }
    Json &value(const char *key, int v) { return raw(key, std::to_string(v)); }
    Json &value(const char *key, unsigned long long v) { return raw(key, std::to_string(v)); }
    Json &value(const char *key, bool v) { return raw(key, v ? "true" : "false"); }
    Json &value(const char *key, const std::string &v) { return raw(key, quote(v)); }
    Json &value(const char *key, const char *v) { return raw(key, quote(v)); }
    const std::string &text() const { return out_; }

    bool write(const std::string &path) const
    {
        std::ofstream f(path);
        f << out_ << '\n';
        return bool(f);
    }

private:
    static std::string quote(const std::string &v)
    {
        std::string q = "\"";
        for (char c : v) {
            if (c == '"' || c == '\\') {
                q += '\\';
                q += c;
            } else if (static_cast<unsigned char>(c) < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                q += buf;
            } else {
                q += c;
            }
        }
        return q + "\"";
    }
    void comma()
    {
        if (need_comma_)
            out_ += ',';
        need_comma_ = true;
    }
    Json &key(const char *k)
    {
        comma();
        if (k)
            out_ += quote(k) + ':';
        return *this;
    }
    Json &raw(const char *k, const std::string &v)
    {
        key(k);
        out_ += v;
        return *this;
    }
    Json &open(const char *k, char c)
    {
        key(k);
        out_ += c;
        need_comma_ = false;
        return *this;
    }
    Json &close(char c)
    {
        out_ += c;
        need_comma_ = true;
        return *this;
    }

    std::string out_;
    bool need_comma_ = false;
};

// Closes a benchmark's report (its top-level object, after the list of
// runs), with "ok" set to all_ok, and writes it to out unless out is empty.
// Returns the program's exit status: 1 when the report cannot be written or
// a run failed, else 0.
inline int finish_report(Json &j, bool all_ok, const std::string &out, const char *program)
{
    j.value("ok", all_ok);
    j.end_object();
    if (!out.empty() && !j.write(out)) {
        std::fprintf(stderr, "%s: cannot write %s\n", program, out.c_str());
        return 1;
    }
    return all_ok ? 0 : 1;
}

} // namespace loopback

#endif
