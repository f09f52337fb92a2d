// plcgate's MQTT client on libmosquitto: a network thread of its own that
// connects (TLS and credentials as configured, the status topic's
// "offline" as last will), keeps the connection and connects again with a
// growing pause after a failure, for every kind of failure. Publishing and
// subscribing are done from the main loop; what the broker sends back
// (connected, a PUBACK, a message) is collected for the main loop, which
// takes it with take_events() after the Wake has woken it.
#ifndef PLCGATE_MQTT_CLIENT_H
#define PLCGATE_MQTT_CLIENT_H

#include "config.h"
#include "outbox.h"
#include "wake.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace plcgate {

// Messages handed to libmosquitto and not acknowledged yet, at most: the
// main loop hands no more, so the library never queues any of its own.
constexpr int kMaxInFlight = 256;

struct MqttEvent {
    enum class Kind { Connected, Acked, Message };
    Kind kind = Kind::Connected;
    int mid = 0;
    std::string topic, payload;
};

class MqttClient {
public:
    MqttClient(const MqttSettings &settings, std::string will_topic, Wake &wake);
    ~MqttClient(); // stops the network thread; no clean disconnect (see disconnect)
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    // Sets the client up and starts the network thread; false (and why) when
    // libmosquitto refuses the settings (a TLS file it cannot load, say).
    bool start(std::string *error);

    std::vector<MqttEvent> take_events();
    bool connected() const { return connected_.load(); }
    uint64_t connects() const { return connects_.load(); }

    // QoS 1; the message id, or nothing when the client is not connected.
    std::optional<int> publish(const Message &message);
    // QoS 0, not kept anywhere: the statistics.
    void publish_once(const std::string &topic, const std::string &payload);
    void subscribe(const std::string &filter);
    // A clean disconnect (the broker does not publish the last will); the
    // network thread stops.
    void disconnect();

private:
    static void on_connect(mosquitto *, void *self, int rc);
    static void on_disconnect(mosquitto *, void *self, int rc);
    static void on_publish(mosquitto *, void *self, int mid);
    static void on_message(mosquitto *, void *self, const mosquitto_message *message);
    static void on_log(mosquitto *, void *self, int level, const char *text);

    bool configure(std::string *error);
    void stop_thread();
    void run();
    bool open_connection(bool first);
    void serve_connection();
    void pause_before_retry();
    std::string failure(int rc);
    void report(const std::string &problem);
    void push(MqttEvent event);

    const MqttSettings settings_;
    const std::string will_topic_;
    Wake &wake_;
    mosquitto *mosq_ = nullptr;
    std::thread thread_;

    std::mutex mutex_; // events_, stop_, ended_, last_error_
    std::condition_variable stop_cv_;
    std::vector<MqttEvent> events_;
    bool stop_ = false;
    bool ended_ = false;      // the network thread has ended
    std::string last_error_;  // the library's last error log line
    std::string last_report_; // the last problem written to the log (network thread only)
    std::atomic<bool> connected_{false};
    std::atomic<bool> refused_{false};       // the broker refused the connection
    std::atomic<bool> disconnecting_{false}; // disconnect() was called: no more connections
    std::atomic<uint64_t> connects_{0};
    std::chrono::milliseconds retry_pause_;
};

} // namespace plcgate

#endif // PLCGATE_MQTT_CLIENT_H
