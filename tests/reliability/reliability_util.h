// Helpers shared by the reliability tests: run length from the environment,
// a watchdog that ends a hung test, and counting of write-done callbacks.
#ifndef PLCDRIVER_RELIABILITY_UTIL_H
#define PLCDRIVER_RELIABILITY_UTIL_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace reliability {

// PLCDRIVER_RELIABILITY_SCALE=N runs the stress and fault tests N times as
// long (N cycles per thread, N times the fault rounds); 1 when unset.
inline int scale()
{
    const char *s = std::getenv("PLCDRIVER_RELIABILITY_SCALE");
    const int n = s ? std::atoi(s) : 1;
    return n < 1 ? 1 : (n > 1000 ? 1000 : n);
}

// An unsigned number from the environment, or `fallback` when unset or not a number.
inline unsigned long env_number(const char *name, unsigned long fallback)
{
    const char *s = std::getenv(name);
    if (!s || !*s)
        return fallback;
    char *end = nullptr;
    const unsigned long v = std::strtoul(s, &end, 10);
    return (end && *end == '\0') ? v : fallback;
}

// Ends the process when it is not disarmed within `limit`: a hang (deadlock,
// lost wake-up) becomes a failure with a message instead of a stuck run.
class Watchdog {
public:
    Watchdog(std::chrono::seconds limit, std::string what) : what_(std::move(what))
    {
        thread_ = std::thread([this, limit] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!cv_.wait_for(lock, limit, [this] { return disarmed_; })) {
                std::fprintf(stderr, "watchdog: %s did not finish within %lld s (deadlock or hang)\n", what_.c_str(),
                             static_cast<long long>(limit.count()));
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~Watchdog() { disarm(); }
    void disarm()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            disarmed_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

private:
    std::string what_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool disarmed_ = false;
    std::thread thread_;
};

// Every write-done callback the driver makes, by requester identity.
class DoneLog {
public:
    void record(int source_type, int source_id, int result)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto &e = entries_[{source_type, source_id}];
        ++e.calls;
        e.result = result;
        cv_.notify_all();
    }
    // Number of callbacks for an identity and the result of the last one.
    std::pair<int, int> get(int source_type, int source_id) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = entries_.find({source_type, source_id});
        return it == entries_.end() ? std::make_pair(0, 0) : std::make_pair(it->second.calls, it->second.result);
    }
    // Like get(), and forgets the identity: a later callback for it then
    // shows as a stray entry (size() above 0 once every report was taken).
    std::pair<int, int> take(int source_type, int source_id)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = entries_.find({source_type, source_id});
        if (it == entries_.end())
            return std::make_pair(0, 0);
        const auto r = std::make_pair(it->second.calls, it->second.result);
        entries_.erase(it);
        return r;
    }
    // Waits until every identity of `ids` (with this source_type) has had a callback.
    bool wait_all(int source_type, const std::vector<int> &ids, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] {
            for (int id : ids)
                if (entries_.find({source_type, id}) == entries_.end())
                    return false;
            return true;
        });
    }
    size_t size() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_.size();
    }

private:
    struct Entry {
        int calls = 0;
        int result = 0;
    };
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::map<std::pair<int, int>, Entry> entries_;
};

} // namespace reliability

#endif // PLCDRIVER_RELIABILITY_UTIL_H
