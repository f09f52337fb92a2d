// What wakes plcgate's main loop: new replies from the PLC, finished
// writes, MQTT events and signals. A pipe, so that a signal handler can
// wake it too; notifications that come while one is pending are one.
#ifndef PLCGATE_WAKE_H
#define PLCGATE_WAKE_H

#include <atomic>
#include <chrono>

namespace plcgate {

class Wake {
public:
    Wake();
    ~Wake();
    Wake(const Wake &) = delete;
    Wake &operator=(const Wake &) = delete;

    // Any thread, and signal handlers (it only writes a byte to a pipe).
    void notify();
    // Until notified or the timeout has passed.
    void wait(std::chrono::milliseconds timeout);

private:
    int fds_[2] = {-1, -1};
    std::atomic<bool> pending_{false};
};

} // namespace plcgate

#endif // PLCGATE_WAKE_H
