// The parts of bench_gateway: the processes of one measurement (mosquitto,
// plcsim and plcgate as the gateway tests run them, tests/gateway/harness.h),
// a libmosquitto subscriber that counts tag messages and timestamps the
// values of one tag, a Modbus writer that keeps every register changing, and
// the broker's own ceiling with mosquitto_pub and mosquitto_sub.
#ifndef PLCDRIVER_GATEWAY_BENCH_H
#define PLCDRIVER_GATEWAY_BENCH_H

#include "harness.h"
#include "loopback_support.h"
#include "modbus_client.h"

#include <mosquitto.h>
#include <nlohmann/json.hpp>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace gatebench {

using gatetest::Clock;

// plcsim's holding registers give one tag each, from address 0.
constexpr int kMaxTags = 60000;
constexpr int kQos = 1;
constexpr int kKeepaliveS = 30;
// The most registers one FC16 request writes.
constexpr int kWriteBlock = 123;
// How long the first message of every tag may take after plcgate starts.
constexpr std::chrono::seconds kFirstValues{120};
constexpr std::chrono::seconds kFindPid{5};
// The broker keeps every message for a slow subscriber instead of dropping
// past its default queue of 1000; log_type subscribe tells when a
// subscription is in place.
constexpr const char *kBrokerConf = "allow_anonymous true\nmax_queued_messages 0\nlog_type subscribe\n";
constexpr const char *kGateName = "bench";

// libmosquitto's global set-up for the life of the program.
struct Library {
    Library() { mosquitto_lib_init(); }
    ~Library() { mosquitto_lib_cleanup(); }
};

// The process whose command line has `arg` as one of its arguments; -1 when
// none has. The harness's processes do not tell their ids, and the files
// they are given are unique to a run.
inline pid_t find_pid(const std::string &arg)
{
    DIR *proc = ::opendir("/proc");
    if (!proc)
        return -1;
    pid_t found = -1;
    while (dirent *e = found > 0 ? nullptr : ::readdir(proc)) {
        const pid_t pid = pid_t(std::atoi(e->d_name));
        const std::string cmdline = pid > 0 ? gatetest::slurp("/proc/" + std::to_string(pid) + "/cmdline") : "";
        for (size_t at = 0; at < cmdline.size();) {
            const size_t end = std::min(cmdline.find('\0', at), cmdline.size());
            if (cmdline.compare(at, end - at, arg) == 0)
                found = pid;
            at = end + 1;
        }
    }
    ::closedir(proc);
    return found;
}

inline double difference(double a, double b)
{
    return a >= 0 && b >= 0 ? b - a : -1;
}

// The subscriber: every message under plcgate/NAME/, counted when it is a
// tag's value; the values of one watched tag with their arrival time; the
// gateway's count of coalesced changes from its statistics.
class Subscriber {
public:
    Subscriber(int port, std::string watched) : port_(port), watched_(std::move(watched)) {}
    ~Subscriber()
    {
        if (!mosq_)
            return;
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, true);
        mosquitto_destroy(mosq_);
    }
    Subscriber(const Subscriber &) = delete;
    Subscriber &operator=(const Subscriber &) = delete;

    bool start()
    {
        mosq_ = mosquitto_new(nullptr, true, this);
        if (!mosq_)
            return false;
        mosquitto_connect_callback_set(mosq_, [](mosquitto *m, void *self, int rc) {
            if (rc == 0)
                mosquitto_subscribe(m, nullptr, static_cast<Subscriber *>(self)->filter().c_str(), kQos);
        });
        mosquitto_subscribe_callback_set(mosq_, [](mosquitto *, void *self, int, int, const int *) {
            static_cast<Subscriber *>(self)->subscribed_ = true;
        });
        mosquitto_message_callback_set(mosq_, [](mosquitto *, void *self, const mosquitto_message *m) {
            static_cast<Subscriber *>(self)->take(m);
        });
        return mosquitto_connect(mosq_, "127.0.0.1", port_, kKeepaliveS) == MOSQ_ERR_SUCCESS &&
               mosquitto_loop_start(mosq_) == MOSQ_ERR_SUCCESS &&
               gatetest::eventually([this] { return subscribed_.load(); });
    }

    unsigned long long tag_messages() const { return tag_messages_.load(); }
    unsigned long long dropped() const { return dropped_.load(); }

    // When the watched tag's value `value` arrived; nothing after `timeout`.
    std::optional<Clock::time_point> wait_value(int64_t value, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!cv_.wait_for(lock, timeout, [&] { return last_value_ == value; }))
            return std::nullopt;
        return last_time_;
    }

private:
    std::string prefix() const { return std::string("plcgate/") + kGateName + "/"; }
    std::string filter() const { return prefix() + "#"; }

    void take(const mosquitto_message *m)
    {
        const auto now = Clock::now();
        const std::string topic = m->topic;
        const std::string tags = prefix() + "tags/";
        if (topic.compare(0, tags.size(), tags) == 0 && topic.find('/', tags.size()) == std::string::npos) {
            ++tag_messages_;
            if (topic.compare(tags.size(), std::string::npos, watched_) == 0)
                watched_value(m, now);
        } else if (topic == prefix() + "stats") {
            const auto j = nlohmann::json::parse(static_cast<const char *>(m->payload),
                                                 static_cast<const char *>(m->payload) + m->payloadlen, nullptr, false);
            if (j.is_object() && j.contains("mqtt"))
                dropped_ = j["mqtt"].value("dropped", 0ULL);
        }
    }

    void watched_value(const mosquitto_message *m, Clock::time_point now)
    {
        const char *p = static_cast<const char *>(m->payload);
        const auto j = nlohmann::json::parse(p, p + m->payloadlen, nullptr, false);
        if (!j.is_object() || !j.contains("value") || !j["value"].is_number_integer())
            return;
        std::lock_guard<std::mutex> lock(mutex_);
        last_value_ = j["value"].get<int64_t>();
        last_time_ = now;
        cv_.notify_all();
    }

    const int port_;
    const std::string watched_;
    mosquitto *mosq_ = nullptr;
    std::atomic<bool> subscribed_{false};
    std::atomic<unsigned long long> tag_messages_{0}, dropped_{0};
    std::mutex mutex_;
    std::condition_variable cv_;
    int64_t last_value_ = -1;
    Clock::time_point last_time_;
};

// A tag file of `count` holding registers of station 1 (kind 4: no class
// offset, so Modbus address = tag address), t0 at 0 upwards.
inline std::string register_tags(int count)
{
    std::string text = "name,kind,address,station,count\n";
    for (int i = 0; i < count; ++i)
        text += "t" + std::to_string(i) + ",4," + std::to_string(i) + ",1,1\n";
    return text;
}

// What one measurement looks at, at one moment.
struct Sample {
    double seconds = 0;
    unsigned long long tag_messages = 0;
    double gate_cpu = -1, broker_cpu = -1, plcsim_cpu = -1;
};

// One measurement's processes: broker, plcsim (--static), the subscriber and
// plcgate with [gateway] refresh 0 (only changes are published) and the
// default buffer.
class Bench {
public:
    // The tag file's text, plcgate's [plc] interval, and how many tag
    // messages plcgate sends first (one per tag), which start() waits for.
    bool start(const std::string &tags, int interval_ms, size_t first_messages, const std::string &watched = "v")
    {
        if (!broker_.start())
            return fail("mosquitto did not start: " + broker_.log());
        std::string error;
        if (!plc_.start(&error))
            return fail("plcsim: " + error);
        subscriber_ = std::make_unique<Subscriber>(broker_.port(), watched);
        if (!subscriber_->start())
            return fail("the subscriber could not subscribe");
        gatetest::write_file(dir_.file("tags.csv"), tags);
        gatetest::GateSetup setup;
        setup.name = kGateName;
        setup.plc_port = plc_.modbus_port();
        setup.mqtt_port = broker_.port();
        setup.interval_ms = interval_ms;
        setup.gateway_extra = "refresh = 0\n";
        gate_ = std::make_unique<gatetest::Gate>(dir_, "gate", setup.text());
        if (!gate_->start())
            return fail("plcgate did not start");
        // A process just started may not show its new command line at once.
        if (!gatetest::eventually([&] { return (gate_pid_ = find_pid(dir_.file("gate.conf"))) > 0; }, kFindPid))
            std::fprintf(stderr, "bench_gateway: plcgate's process not found: no CPU figures\n");
        broker_pid_ = find_pid(dir_.file("broker.conf"));
        if (!gatetest::eventually([&] { return subscriber_->tag_messages() >= first_messages; }, kFirstValues))
            return fail("plcgate published " + std::to_string(subscriber_->tag_messages()) + " of the first " +
                        std::to_string(first_messages) + " tag messages: " + gate_->log());
        started_ = Clock::now();
        return true;
    }

    int plc_port() const { return plc_.modbus_port(); }
    Subscriber &subscriber() { return *subscriber_; }

    Sample sample() const
    {
        Sample s;
        s.seconds = loopback::seconds_since(started_);
        s.tag_messages = subscriber_->tag_messages();
        s.gate_cpu = gate_pid_ > 0 ? loopback::other_process_cpu(gate_pid_) : -1;
        s.broker_cpu = broker_pid_ > 0 ? loopback::other_process_cpu(broker_pid_) : -1;
        s.plcsim_cpu = loopback::other_process_cpu(plc_.pid());
        return s;
    }

private:
    static bool fail(const std::string &why)
    {
        std::fprintf(stderr, "bench_gateway: %s\n", why.c_str());
        return false;
    }

    gatetest::TempDir dir_;
    gatetest::Broker broker_{dir_, "broker", kBrokerConf};
    PlcsimProcess plc_{PLCSIM_PATH, {"--static"}};
    std::unique_ptr<Subscriber> subscriber_;
    std::unique_ptr<gatetest::Gate> gate_;
    pid_t gate_pid_ = -1, broker_pid_ = -1;
    Clock::time_point started_ = Clock::now();
};

// A writer that changes every one of `count` holding registers from 0 on,
// pass after pass (FC16 blocks), each pass writing values none had before.
class ChangingRegisters {
public:
    ChangingRegisters(int port, int count) : thread_([this, port, count] { run(port, count); }) {}
    ~ChangingRegisters() { stop(); }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    unsigned long long passes() const { return passes_.load(); }

private:
    void run(int port, int count)
    {
        ModbusClient writer(port);
        std::vector<uint16_t> block;
        for (uint16_t pass = 1; !stop_; ++pass) {
            for (int at = 0; at < count && !stop_; at += kWriteBlock) {
                block.assign(size_t(std::min(kWriteBlock, count - at)), pass);
                writer.write_holding(at, block);
            }
            ++passes_;
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<unsigned long long> passes_{0};
    std::thread thread_;
};

struct CeilingResult {
    int messages = 0;
    int payload_bytes = 0;
    double seconds = 0;
    double broker_cpu_s = -1;
    bool ok = false;
};

// The broker alone: mosquitto_sub -C N at QoS 1 waits for N messages that
// mosquitto_pub -l publishes at QoS 1, one per line of a file, payloads the size of a
// tag message; the time from the publisher's start to the subscriber's end
// (the harness sees a process end within 20 ms).
inline CeilingResult measure_ceiling(int messages)
{
    CeilingResult r;
    r.messages = messages;
    gatetest::TempDir dir;
    gatetest::Broker broker(dir, "broker", kBrokerConf);
    if (!broker.start())
        return r;
    const std::string payload = R"({"value": 12345, "ts": 1700000000000, "quality": "good", "seq": 123456})";
    r.payload_bytes = int(payload.size());
    std::string lines;
    for (int i = 0; i < messages; ++i)
        lines += payload + "\n";
    gatetest::write_file(dir.file("lines"), lines);
    const std::string port = std::to_string(broker.port()), topic = "bench/ceiling", n = std::to_string(messages);
    gatetest::Process sub(
        {"mosquitto_sub", "-h", "127.0.0.1", "-p", port, "-q", "1", "-t", topic, "-C", n, "-i", "ceiling-sub"},
        dir.path(), "sub");
    if (!sub.start() || !gatetest::eventually([&] { return broker.log().find(topic) != std::string::npos; }))
        return r;
    const pid_t broker_pid = find_pid(dir.file("broker.conf"));
    const double cpu0 = loopback::other_process_cpu(broker_pid);
    const auto t0 = Clock::now();
    // The lines from a file: mosquitto_pub -l reads a pipe far slower.
    gatetest::Process pub(
        {"bash", "-c",
         "exec mosquitto_pub -h 127.0.0.1 -p " + port + " -q 1 -t " + topic + " -l < " + dir.file("lines")},
        dir.path(), "pub");
    const bool done = pub.start() && sub.wait(std::chrono::minutes(5)) == 0;
    r.seconds = loopback::seconds_since(t0);
    r.broker_cpu_s = difference(cpu0, loopback::other_process_cpu(broker_pid));
    // Every message arrived: mosquitto_sub printed one line for each.
    const std::string out = sub.out();
    r.ok = done && pub.wait() == 0 && std::count(out.begin(), out.end(), '\n') == messages;
    return r;
}

} // namespace gatebench

#endif // PLCDRIVER_GATEWAY_BENCH_H
