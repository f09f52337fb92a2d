#include "mqtt_client.h"

#include "messages.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace plcgate {

namespace {

using std::chrono::milliseconds;

constexpr int kQos = 1;
// How long one turn of the network loop waits for the socket: also how
// soon the thread sees that it is to stop.
constexpr int kLoopMs = 100;
// Pauses between connection attempts: doubled after each failure.
constexpr milliseconds kFirstRetry{250};
constexpr milliseconds kLongestRetry{5000};
// An attempt that has no answer from the broker after this is given up.
constexpr auto kConnectWait = std::chrono::seconds(10);
// At a stop: how long the DISCONNECT may take to be written.
constexpr milliseconds kDisconnectWait{2000};
constexpr int kVerifyPeer = 1; // OpenSSL's SSL_VERIFY_PEER

} // namespace

MqttClient::MqttClient(const MqttSettings &settings, std::string will_topic, Wake &wake)
    : settings_(settings), will_topic_(std::move(will_topic)), wake_(wake), retry_pause_(kFirstRetry)
{
}

MqttClient::~MqttClient()
{
    stop_thread();
    if (mosq_)
        mosquitto_destroy(mosq_);
}

void MqttClient::stop_thread()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    stop_cv_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool MqttClient::configure(std::string *error)
{
    const auto failed = [error](const char *what, int rc) {
        *error = std::string(what) + ": " + (rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc));
        return false;
    };
    mosquitto_threaded_set(mosq_, true);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_max_inflight_messages_set(mosq_, kMaxInFlight);
    const char *offline = kOffline;
    int rc = mosquitto_will_set(mosq_, will_topic_.c_str(), int(std::strlen(offline)), offline, kQos, true);
    if (rc != MOSQ_ERR_SUCCESS)
        return failed("last will", rc);
    if (!settings_.username.empty() &&
        (rc = mosquitto_username_pw_set(mosq_, settings_.username.c_str(), settings_.password.c_str())) != 0)
        return failed("[mqtt] username", rc);
    if (settings_.ca_file.empty())
        return true;
    const char *cert = settings_.cert_file.empty() ? nullptr : settings_.cert_file.c_str();
    const char *key = settings_.key_file.empty() ? nullptr : settings_.key_file.c_str();
    if ((rc = mosquitto_tls_set(mosq_, settings_.ca_file.c_str(), nullptr, cert, key, nullptr)) != 0)
        return failed("[mqtt] ca_file, cert_file, key_file", rc);
    if ((rc = mosquitto_tls_opts_set(mosq_, kVerifyPeer, nullptr, nullptr)) != 0)
        return failed("TLS options", rc);
    return true;
}

bool MqttClient::start(std::string *error)
{
    mosq_ = mosquitto_new(settings_.client_id.c_str(), true, this);
    if (!mosq_) {
        *error = std::string("cannot make an MQTT client: ") + std::strerror(errno);
        return false;
    }
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_disconnect_callback_set(mosq_, on_disconnect);
    mosquitto_publish_callback_set(mosq_, on_publish);
    mosquitto_message_callback_set(mosq_, on_message);
    mosquitto_log_callback_set(mosq_, on_log);
    if (!configure(error))
        return false;
    thread_ = std::thread([this] {
        run();
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        stop_cv_.notify_all();
    });
    return true;
}

std::vector<MqttEvent> MqttClient::take_events()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(events_, {});
}

std::optional<int> MqttClient::publish(const Message &m)
{
    int mid = 0;
    const int rc =
        mosquitto_publish(mosq_, &mid, m.topic.c_str(), int(m.payload.size()), m.payload.data(), kQos, m.retain);
    if (rc != MOSQ_ERR_SUCCESS)
        return std::nullopt;
    return mid;
}

void MqttClient::publish_once(const std::string &topic, const std::string &payload)
{
    mosquitto_publish(mosq_, nullptr, topic.c_str(), int(payload.size()), payload.data(), 0, false);
}

void MqttClient::subscribe(const std::string &filter)
{
    mosquitto_subscribe(mosq_, nullptr, filter.c_str(), kQos);
}

// The DISCONNECT is written by the network thread, which then ends (see
// run); stopping it earlier would close the connection without it, and
// the broker would publish the last will.
void MqttClient::disconnect()
{
    disconnecting_ = true;
    mosquitto_disconnect(mosq_);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        stop_cv_.wait_for(lock, kDisconnectWait, [this] { return ended_; });
    }
    stop_thread();
    connected_ = false;
}

void MqttClient::run()
{
    bool first = true;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_ || disconnecting_)
                return;
        }
        if (open_connection(first)) {
            first = false;
            serve_connection();
        }
        if (disconnecting_)
            return;
        pause_before_retry();
    }
}

bool MqttClient::open_connection(bool first)
{
    refused_ = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        last_error_.clear();
    }
    const int rc = first ? mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, settings_.keepalive_s)
                         : mosquitto_reconnect_async(mosq_);
    if (rc == MOSQ_ERR_SUCCESS)
        return true;
    report(failure(rc));
    return false;
}

// The library's words for a failure, with the error it logged on the way:
// the TLS library's reason (a certificate that does not verify) comes only
// that way, and the connection may fail as soon as it is opened.
std::string MqttClient::failure(int rc)
{
    const std::string why = rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc);
    std::lock_guard<std::mutex> lock(mutex_);
    return last_error_.empty() ? why : why + " (" + last_error_ + ")";
}

// Runs the connection until it ends, fails or the client stops.
void MqttClient::serve_connection()
{
    const auto since = std::chrono::steady_clock::now();
    for (;;) {
        const int rc = mosquitto_loop(mosq_, kLoopMs, 1);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_)
                break;
        }
        if (refused_)
            break;
        if (rc != MOSQ_ERR_SUCCESS) {
            if (!disconnecting_)
                report(failure(rc));
            break;
        }
        if (!connected_ && std::chrono::steady_clock::now() - since > kConnectWait) {
            report("no answer to the connection within " + std::to_string(kConnectWait.count()) + " s");
            break;
        }
    }
    const bool was = connected_.exchange(false);
    if (was || refused_)
        mosquitto_disconnect(mosq_);
}

void MqttClient::pause_before_retry()
{
    std::unique_lock<std::mutex> lock(mutex_);
    stop_cv_.wait_for(lock, retry_pause_, [this] { return stop_; });
    retry_pause_ = std::min(retry_pause_ * 2, kLongestRetry);
}

// One line per new problem, not one per attempt.
void MqttClient::report(const std::string &problem)
{
    if (problem == last_report_)
        return;
    last_report_ = problem;
    std::cerr << "plcgate: broker " << settings_.host << ":" << settings_.port << ": " << problem << "; trying again\n";
}

void MqttClient::push(MqttEvent event)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
    }
    wake_.notify();
}

void MqttClient::on_connect(mosquitto *, void *self, int rc)
{
    auto *c = static_cast<MqttClient *>(self);
    if (rc != 0) {
        c->refused_ = true;
        std::lock_guard<std::mutex> lock(c->mutex_);
        c->report(std::string("the broker refused the connection: ") + mosquitto_connack_string(rc));
        return;
    }
    // Counted first: whoever sees connected() sees this connection counted.
    ++c->connects_;
    c->connected_ = true;
    {
        std::lock_guard<std::mutex> lock(c->mutex_);
        c->retry_pause_ = kFirstRetry;
        c->last_report_.clear();
        c->last_error_.clear();
    }
    std::cerr << "plcgate: connected to broker " << c->settings_.host << ":" << c->settings_.port << "\n";
    c->push({MqttEvent::Kind::Connected, 0, {}, {}});
}

void MqttClient::on_disconnect(mosquitto *, void *self, int)
{
    static_cast<MqttClient *>(self)->connected_ = false;
}

void MqttClient::on_publish(mosquitto *, void *self, int mid)
{
    static_cast<MqttClient *>(self)->push({MqttEvent::Kind::Acked, mid, {}, {}});
}

void MqttClient::on_message(mosquitto *, void *self, const mosquitto_message *m)
{
    const char *data = static_cast<const char *>(m->payload);
    static_cast<MqttClient *>(self)->push(
        {MqttEvent::Kind::Message, m->mid, m->topic, std::string(data, data + std::max(m->payloadlen, 0))});
}

void MqttClient::on_log(mosquitto *, void *self, int level, const char *text)
{
    if (level != MOSQ_LOG_ERR)
        return;
    auto *c = static_cast<MqttClient *>(self);
    std::lock_guard<std::mutex> lock(c->mutex_);
    c->last_error_ = text;
}

} // namespace plcgate
