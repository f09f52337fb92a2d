// What the gateway tests run: Debian's mosquitto broker on 127.0.0.1 and a
// port of its own (a configuration file per broker), plcsim, plcgate, and
// an independent consumer and publisher (mosquitto_sub, mosquitto_pub).
// Each process writes its output to files in the test's folder, which is
// removed at the end; processes still running are stopped then.
#ifndef PLCGATE_TESTS_HARNESS_H
#define PLCGATE_TESTS_HARNESS_H

#include "plcsim_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace gatetest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Generous bounds: the machine is shared and the sanitizer builds are slow.
constexpr auto kLong = 30s;
constexpr auto kShort = 10s;

inline bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds timeout = kLong)
{
    const auto end = Clock::now() + timeout;
    for (; Clock::now() < end; std::this_thread::sleep_for(20ms))
        if (condition())
            return true;
    return condition();
}

inline std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// A folder for one test, removed with everything in it (kept when
// PLCGATE_KEEP_TEST_FILES is set, to look at the logs of a failure).
class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/plcgate-test-XXXXXX";
        path_ = ::mkdtemp(pattern) ? pattern : "";
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!std::getenv("PLCGATE_KEEP_TEST_FILES"))
            std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A port nobody listens on now (the kernel's pick for a bound socket).
inline int free_port()
{
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof a;
    int port = 0;
    if (::bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        ::getsockname(s, reinterpret_cast<sockaddr *>(&a), &size) == 0)
        port = ntohs(a.sin_port);
    ::close(s);
    return port;
}

inline bool accepts(int port)
{
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    ::close(s);
    return ok;
}

// A program's full path: from PATH, or from the administrator's folders
// (Debian puts mosquitto in /usr/sbin, which a user's PATH may lack); ""
// when it is not installed.
inline std::string find_tool(const std::string &name)
{
    const char *path = std::getenv("PATH");
    std::string folders = std::string(path ? path : "") + ":/usr/sbin:/sbin:/usr/local/sbin";
    std::istringstream list(folders);
    for (std::string folder; std::getline(list, folder, ':');)
        if (!folder.empty() && ::access((folder + "/" + name).c_str(), X_OK) == 0)
            return folder + "/" + name;
    return "";
}

// The programs of `names` that are not installed, as one line; "" when all are.
inline std::string missing_tools(const std::vector<std::string> &names)
{
    std::string missing;
    for (const std::string &n : names)
        if (find_tool(n).empty())
            missing += (missing.empty() ? "" : ", ") + n;
    return missing;
}

// Skips the test, saying so, when a program it runs is not installed
// (scripts/install-deps.sh test installs them all).
#define GATE_REQUIRE_TOOLS(...)                                                                                        \
    if (const std::string missing = ::gatetest::missing_tools({__VA_ARGS__}); missing.empty()) {                       \
    } else                                                                                                             \
        GTEST_SKIP() << "not installed: " << missing << " (bash scripts/install-deps.sh test installs them)"
#define GATE_REQUIRE_BROKER() GATE_REQUIRE_TOOLS("mosquitto", "mosquitto_sub", "mosquitto_pub")

// A program run in the background, its standard output and error in
// DIR/NAME.out and DIR/NAME.err.
class Process {
public:
    Process(std::vector<std::string> argv, std::string dir, std::string name)
        : argv_(std::move(argv)), out_(dir + "/" + name + ".out"), err_(dir + "/" + name + ".err")
    {
    }
    ~Process() { stop(SIGKILL); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool start()
    {
        int rc = 0;
        pid_ = testsupport::spawn_process(argv_, out_, err_, testsupport::OutputFiles::Append, &rc);
        return pid_ > 0;
    }

    bool running()
    {
        if (pid_ <= 0)
            return false;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_)
            return true;
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }

    // Sends the signal and waits for the end (SIGKILL after `patience`);
    // the exit status, 128 + N after signal N.
    int stop(int signal_number = SIGTERM, std::chrono::milliseconds patience = kShort)
    {
        if (!running())
            return status_;
        ::kill(pid_, signal_number);
        if (!eventually([this] { return !running(); }, patience)) {
            ::kill(pid_, SIGKILL);
            eventually([this] { return !running(); });
        }
        return status_;
    }
    void signal(int signal_number) { ::kill(pid_, signal_number); }
    // Runs to the end (killed after `patience`); the exit status.
    int wait(std::chrono::milliseconds patience = kLong)
    {
        eventually([this] { return !running(); }, patience);
        return stop(SIGKILL);
    }

    std::string out() const { return slurp(out_); }
    std::string err() const { return slurp(err_); }

private:
    std::vector<std::string> argv_;
    std::string out_, err_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs a program to its end; its exit status and output.
struct Ran {
    int status = -1;
    std::string out, err;
};
inline Ran run(const std::vector<std::string> &argv, const std::string &dir, const std::string &name)
{
    Process p(argv, dir, name);
    Ran r;
    if (p.start())
        r.status = p.wait();
    r.out = p.out();
    r.err = p.err();
    return r;
}

// A certificate authority, a server certificate for 127.0.0.1 and a client
// certificate, made with openssl in `dir`.
struct Certificates {
    std::string ca, ca_key, server, server_key, client, client_key;
};

inline bool make_certificate(const std::string &dir, const std::string &name, const std::string &subject,
                             const std::string &issuer, const std::string &extension)
{
    const std::string key = dir + "/" + name + ".key", crt = dir + "/" + name + ".crt";
    const std::string new_key = "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + key +
                                " -subj '/CN=" + subject + "'";
    std::string command;
    if (issuer.empty())
        command = new_key + " -x509 -days 2 -out " + crt;
    else
        command = new_key + " -out " + dir + "/" + name + ".csr && openssl x509 -req -in " + dir + "/" + name +
                  ".csr -CA " + dir + "/" + issuer + ".crt -CAkey " + dir + "/" + issuer +
                  ".key -CAcreateserial -days 2 -out " + crt + " -extfile <(printf '" + extension + "')";
    return std::system(("bash -c \"" + command + "\" >" + dir + "/openssl.log 2>&1").c_str()) == 0;
}

inline std::optional<Certificates> make_certificates(const std::string &dir, const std::string &ca_name = "ca")
{
    Certificates c;
    if (!make_certificate(dir, ca_name, "plcgate test CA " + ca_name, "", "") ||
        !make_certificate(dir, ca_name + "-server", "127.0.0.1", ca_name, "subjectAltName=IP:127.0.0.1") ||
        !make_certificate(dir, ca_name + "-client", "plcgate", ca_name, "extendedKeyUsage=clientAuth"))
        return std::nullopt;
    const std::string base = dir + "/" + ca_name;
    return Certificates{base + ".crt",        base + ".key",        base + "-server.crt",
                        base + "-server.key", base + "-client.crt", base + "-client.key"};
}

// The broker: mosquitto with a configuration file of its own, on a port of
// its own that stays the same across restarts. Its messages and sessions
// are kept in the test's folder (persistence), so a restart keeps them.
class Broker {
public:
    // `extra`: further lines of mosquitto.conf (the listener's options,
    // authentication, bridges), after the listener line and the general
    // ones; @DIR@ in them stands for the test's folder.
    Broker(const TempDir &dir, std::string name, std::string extra = "allow_anonymous true\n")
        : dir_(dir.path()), name_(std::move(name)), port_(free_port())
    {
        for (size_t at; (at = extra.find("@DIR@")) != std::string::npos;)
            extra.replace(at, 5, dir_);
        std::string conf = "listener " + std::to_string(port_) + " 127.0.0.1\n";
        conf += "persistence true\npersistence_location " + dir_ + "/" + name_ + "-data/\n";
        conf += "log_dest stderr\nlog_type error\nlog_type warning\nlog_type notice\nlog_type information\n";
        if (::geteuid() == 0)
            conf += "user root\n"; // otherwise it becomes the mosquitto user, who cannot read the test's files
        std::filesystem::create_directories(dir_ + "/" + name_ + "-data");
        write_file(dir_ + "/" + name_ + ".conf", conf + extra);
    }

    bool start()
    {
        process_ = std::make_unique<Process>(
            std::vector<std::string>{find_tool("mosquitto"), "-c", dir_ + "/" + name_ + ".conf"}, dir_, name_);
        return process_->start() && eventually([this] { return accepts(port_) || !process_->running(); }) &&
               process_->running();
    }
    // A stop with SIGTERM saves the sessions and queued messages.
    int stop(int signal_number = SIGTERM) { return process_ ? process_->stop(signal_number) : -1; }
    int port() const { return port_; }
    // Everything it logged, across restarts.
    std::string log() const { return slurp(dir_ + "/" + name_ + ".err"); }

private:
    std::string dir_, name_;
    int port_;
    std::unique_ptr<Process> process_;
};

// One message the consumer received.
struct Received {
    std::string topic, payload;
};

// The independent consumer: mosquitto_sub on plcgate/# (QoS 1), printing
// "TOPIC PAYLOAD" lines. `client`: the options every client of the broker
// needs (credentials, TLS files), for its probe too; `session`: those of
// the subscription alone (a persistent session: -c -i ID).
class Consumer {
public:
    Consumer(const TempDir &dir, std::string name, int port, std::vector<std::string> session = {},
             std::vector<std::string> client = {})
        : dir_(dir.path()), name_(std::move(name)), port_(port), client_(std::move(client))
    {
        std::vector<std::string> argv = {
            "mosquitto_sub", "-h", "127.0.0.1",     "-p", std::to_string(port), "-q", "1", "-v", "-t",
            "plcgate/#",     "-t", "probe/" + name_};
        argv.insert(argv.end(), session.begin(), session.end());
        argv.insert(argv.end(), client_.begin(), client_.end());
        process_ = std::make_unique<Process>(argv, dir_, name_);
    }

    // Starts and waits until the subscription is in place: a probe message
    // published to the broker comes back.
    bool start()
    {
        if (!process_->start())
            return false;
        return eventually([this] {
            publish("probe/" + name_, "probe");
            return process_->out().find("probe/" + name_ + " probe") != std::string::npos;
        });
    }

    std::vector<Received> messages() const
    {
        std::vector<Received> all;
        std::istringstream lines(process_->out());
        for (std::string line; std::getline(lines, line);) {
            const size_t space = line.find(' ');
            if (line.rfind("plcgate/", 0) == 0)
                all.push_back({line.substr(0, space), space == std::string::npos ? "" : line.substr(space + 1)});
        }
        return all;
    }
    std::vector<std::string> payloads(const std::string &topic) const
    {
        std::vector<std::string> found;
        for (const Received &m : messages())
            if (m.topic == topic)
                found.push_back(m.payload);
        return found;
    }
    bool wait_for(const std::string &topic, const std::function<bool(const std::string &)> &match,
                  std::chrono::milliseconds timeout = kLong) const
    {
        return eventually(
            [&] {
                for (const std::string &p : payloads(topic))
                    if (match(p))
                        return true;
                return false;
            },
            timeout);
    }
    void stop() { process_->stop(); }
    std::string log() const { return process_->err(); }

    // Publishes to this consumer's broker as a client like it.
    bool publish(const std::string &topic, const std::string &payload) const
    {
        return publish(port_, topic, payload, dir_, client_);
    }

    // QoS 1; the payload is handed over in a file, so any bytes (NUL, none
    // at all) go as they are. `options`: more of mosquitto_pub's (-r, TLS).
    static bool publish(int port, const std::string &topic, const std::string &payload, const std::string &dir,
                        const std::vector<std::string> &options = {})
    {
        const std::string file = dir + "/payload-" + std::to_string(++published_);
        write_file(file, payload);
        std::vector<std::string> argv = {
            "mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(port), "-q", "1", "-t", topic, "-f", file};
        argv.insert(argv.end(), options.begin(), options.end());
        return run(argv, dir, "mosquitto_pub").status == 0;
    }

private:
    static inline int published_ = 0;
    std::string dir_, name_;
    int port_;
    std::vector<std::string> client_;
    std::unique_ptr<Process> process_;
};

// A tag message's fields.
struct TagMessage {
    nlohmann::json value;
    int64_t ts = 0;
    std::string quality;
    uint64_t seq = 0;
};
inline std::optional<TagMessage> tag_message(const std::string &payload)
{
    const auto j = nlohmann::json::parse(payload, nullptr, false);
    if (!j.is_object() || !j.contains("value") || !j.contains("seq"))
        return std::nullopt;
    return TagMessage{j["value"], j.value("ts", int64_t(0)), j.value("quality", std::string()),
                      j.value("seq", uint64_t(0))};
}

// plcgate with a configuration file written by the test, and options after
// it (--section.key value ...).
class Gate {
public:
    Gate(const TempDir &dir, std::string name, const std::string &conf, std::vector<std::string> options = {})
        : dir_(dir.path()), name_(std::move(name))
    {
        write_file(dir_ + "/" + name_ + ".conf", conf);
        std::vector<std::string> argv = {PLCGATE_PATH, "--config", dir_ + "/" + name_ + ".conf"};
        argv.insert(argv.end(), options.begin(), options.end());
        process_ = std::make_unique<Process>(argv, dir_, name_);
    }
    bool start() { return process_->start(); }
    int stop(int signal_number = SIGTERM) { return process_->stop(signal_number); }
    void signal(int signal_number) { process_->signal(signal_number); }
    bool running() { return process_->running(); }
    std::string log() const { return process_->err(); }

private:
    std::string dir_, name_;
    std::unique_ptr<Process> process_;
};

// A configuration for one gateway: plcsim's Modbus port, the broker's port,
// a tag file in the test's folder, and further lines per section.
struct GateSetup {
    std::string name = "line1";
    std::string tags = "tags.csv";
    std::string writable;
    int plc_port = 0;
    int mqtt_port = 0;
    int interval_ms = 20;
    std::string plc_extra, mqtt_extra, gateway_extra;

    std::string text() const
    {
        return "[gateway]\nname = " + name + "\ntags = " + tags + "\nwritable = \"" + writable + "\"\n" +
               gateway_extra + "\n[plc]\nport = " + std::to_string(plc_port) +
               "\ntimeout = 300\nretries = 1\ninterval = " + std::to_string(interval_ms) + "\n" + plc_extra +
               "\n[mqtt]\nport = " + std::to_string(mqtt_port) + "\n" + mqtt_extra;
    }
};

// The modbus frames of a plcsim traffic log (--log) that write: function
// codes 5, 6, 15 and 16 in the requests it received.
inline int writes_in_log(const std::string &log)
{
    int writes = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const size_t rx = line.find(" rx ");
        if (rx == std::string::npos || line.size() < rx + 4 + 8 * 3)
            continue;
        const std::string function = line.substr(rx + 4 + 7 * 3, 2);
        writes += function == "05" || function == "06" || function == "0F" || function == "10";
    }
    return writes;
}

// A whole site for one test: plcsim, the broker, the consumer and one
// gateway with a tag file. The start functions return "" or what did not
// start. `client`: the options a client of this broker needs (credentials,
// TLS files), for the consumer and for sets.
struct Site {
    TempDir dir;
    Broker broker;
    std::vector<std::string> client;
    std::unique_ptr<PlcsimProcess> plc;
    std::unique_ptr<Consumer> consumer;
    std::unique_ptr<Gate> gate;
    GateSetup setup;

    explicit Site(std::string broker_extra = "allow_anonymous true\n", std::vector<std::string> client_options = {})
        : broker(dir, "broker", std::move(broker_extra)), client(std::move(client_options))
    {
    }

    std::string start_plc(std::vector<std::string> args)
    {
        args.insert(args.end(), {"--log", dir.file("plcsim.log")});
        plc = std::make_unique<PlcsimProcess>(PLCSIM_PATH, args);
        std::string error;
        return plc->start(&error) ? "" : "plcsim: " + error;
    }

    // Everything but the gateway: plcsim, the broker, the consumer (with
    // `session`, options of its subscription), the tag file; `setup` then
    // points at plcsim and the broker.
    std::string prepare(const std::string &tags, std::vector<std::string> plc_args = {"--static"},
                        std::vector<std::string> session = {})
    {
        if (auto error = start_plc(plc_args); !error.empty())
            return error;
        if (!broker.start())
            return "mosquitto did not start: " + broker.log();
        consumer = std::make_unique<Consumer>(dir, "consumer", broker.port(), session, client);
        if (!consumer->start())
            return "mosquitto_sub did not subscribe: " + consumer->log();
        write_file(dir.file("tags.csv"), tags);
        setup.plc_port = plc->modbus_port();
        setup.mqtt_port = broker.port();
        return "";
    }

    std::string start(const std::string &tags, std::vector<std::string> plc_args = {"--static"},
                      std::vector<std::string> session = {})
    {
        if (auto error = prepare(tags, std::move(plc_args), std::move(session)); !error.empty())
            return error;
        return start_gate();
    }

    // The gateway of `setup`, started; "" once the consumer saw it online.
    std::string start_gate(std::vector<std::string> options = {})
    {
        gate = std::make_unique<Gate>(dir, setup.name, setup.text(), options);
        if (!gate->start())
            return "plcgate did not start";
        if (!consumer->wait_for(topic("status"), [](const std::string &p) { return p == "online"; }))
            return "no status online from plcgate: " + gate->log();
        return "";
    }

    std::string topic(const std::string &rest) const { return topic_of(setup.name, rest); }
    static std::string topic_of(const std::string &gateway, const std::string &rest)
    {
        return "plcgate/" + gateway + "/" + rest;
    }

    // The tag's messages as the consumer got them, of this site's gateway or
    // of another one.
    std::vector<TagMessage> tag_messages(const std::string &tag, const std::string &gateway = "") const
    {
        std::vector<TagMessage> found;
        for (const std::string &p : consumer->payloads(topic_of(gateway.empty() ? setup.name : gateway, "tags/" + tag)))
            if (auto m = tag_message(p))
                found.push_back(*m);
        return found;
    }
    bool wait_tag(const std::string &tag, const std::function<bool(const TagMessage &)> &match,
                  std::chrono::milliseconds timeout = kLong, const std::string &gateway = "") const
    {
        return consumer->wait_for(
            topic_of(gateway.empty() ? setup.name : gateway, "tags/" + tag),
            [&](const std::string &p) {
                const auto m = tag_message(p);
                return m && match(*m);
            },
            timeout);
    }
    // The ack of a set with this id.
    std::optional<nlohmann::json> ack(const std::string &tag, const nlohmann::json &id) const
    {
        for (const std::string &p : consumer->payloads(topic("tags/" + tag + "/ack"))) {
            const auto j = nlohmann::json::parse(p, nullptr, false);
            if (j.is_object() && j["id"] == id)
                return j;
        }
        return std::nullopt;
    }
    std::optional<nlohmann::json> set(const std::string &tag, const std::string &payload, const nlohmann::json &id)
    {
        consumer->publish(topic("tags/" + tag + "/set"), payload);
        std::optional<nlohmann::json> a;
        eventually([&] { return bool(a = ack(tag, id)); });
        return a;
    }
    int plc_writes() const { return writes_in_log(slurp(dir.file("plcsim.log"))); }
};

} // namespace gatetest

#endif // PLCGATE_TESTS_HARNESS_H
