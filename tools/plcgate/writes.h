// Writes from the broker: a set payload read (set_request.h), checked
// against the tag (known, on the writable list, a value of its type and
// range) and queued on the host, or refused with nothing written; the
// driver's write-done callback, or no answer in time, settles it. A set
// that repeats the id of one of the last few thousand sets of its tag is
// not written again: it gets the first one's ack (once that is known).
#ifndef PLCGATE_WRITES_H
#define PLCGATE_WRITES_H

#include "messages.h"
#include "tag_watch.h"

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace plcgate {

// The source type of the gateway's writes in the driver's callbacks.
constexpr int kWriteSource = 1;

struct WriteCounts {
    uint64_t ok = 0, failed = 0, refused = 0, repeated = 0;
};

class Writes {
public:
    using Clock = std::chrono::steady_clock;
    struct Outcome {
        std::string tag; // as the set topic named it
        Ack ack;
    };

    // `answer_wait`: how long a queued write may go without a write-done
    // callback before it is acked as failed.
    explicit Writes(std::chrono::milliseconds answer_wait) : answer_wait_(answer_wait) {}

    // A set for the tag `name`; the acks it gets at once.
    std::vector<Outcome> submit(const std::string &name, const std::string &payload, const std::vector<GateTag> &tags,
                                plchost::Host &host, Clock::time_point now);
    // The driver's write-done callback; any thread.
    void done(int source_type, int source_id, int result);
    // The acks of writes that have finished or waited too long.
    std::vector<Outcome> settle(Clock::time_point now);

    WriteCounts counts() const { return counts_; }

private:
    struct Pending {
        std::string tag;
        nlohmann::json id;
        std::string key; // in remembered_; empty without an id
        Clock::time_point deadline;
        int repeats = 0; // sets with the same id that wait for this one's ack
    };
    struct Remembered {
        bool finished = false;
        Ack ack;       // when finished
        int source_id; // while not
    };

    Outcome refuse(const std::string &name, const nlohmann::json &id, const std::string &key, std::string why);
    std::vector<Outcome> finish(int source_id, WriteResult result, int code, const std::string &error);
    void remember(const std::string &key, Remembered r);

    std::chrono::milliseconds answer_wait_;
    std::map<int, Pending> pending_; // by source id
    std::map<std::string, Remembered> remembered_;
    std::deque<std::string> remembered_order_; // oldest first
    WriteCounts counts_;

    std::mutex mutex_;                          // finished_
    std::vector<std::pair<int, int>> finished_; // source id, write-done result
};

} // namespace plcgate

#endif // PLCGATE_WRITES_H
