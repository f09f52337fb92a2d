// The messages on their way to the broker, in the order they were made. A
// message is handed to the MQTT client when the broker can take it and
// leaves only when the broker has acknowledged it (PUBACK), so nothing is
// lost while the broker is away: the client sends again what it was handed
// once it is connected again, and what it was not handed waits here.
//
// The outbox holds at most `limit` messages. When a new one would go past
// that, an older change of a tag still waiting makes room: that of the new
// message's own tag first, else the oldest waiting change of some tag that
// has more than one waiting. Each such message is counted as dropped; what a
// consumer misses shows as a gap in the tag's seq. The latest change of
// every tag is never dropped, nor are messages without a tag (acks, the
// status): when nothing else can go, the outbox grows past its limit, by at
// most one message per tag, so a consumer always gets every tag's last
// value.
#ifndef PLCGATE_OUTBOX_H
#define PLCGATE_OUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace plcgate {

struct Message {
    std::string topic;
    std::string payload;
    bool retain = false;
    std::string tag; // the tag whose change this is; empty for messages that are never dropped
};

class Outbox {
public:
    explicit Outbox(size_t limit) : limit_(limit) {}
    Outbox(const Outbox &) = delete; // holds iterators into itself
    Outbox &operator=(const Outbox &) = delete;

    void push(Message message);
    // Ahead of everything not handed over yet (the status).
    void push_urgent(Message message);

    // The oldest message not handed over yet; null when there is none.
    const Message *next() const;
    // The message next() showed went to the client as `mid`.
    void handed(int mid);
    // The broker acknowledged `mid`: the message is done.
    void acked(int mid);

    size_t size() const { return entries_.size(); }
    size_t in_flight() const { return by_mid_.size(); }
    uint64_t dropped() const { return dropped_; }
    uint64_t acked_count() const { return acked_; }

private:
    struct Entry {
        Message message;
        int mid = -1; // set once handed over
    };
    using Iter = std::list<Entry>::iterator;

    void make_room(const std::string &tag);
    void drop(Iter it);
    void forget_waiting(const std::string &tag);

    size_t limit_;
    std::list<Entry> entries_;            // handed over first, then waiting
    Iter first_waiting_ = entries_.end(); // the first not handed over
    std::map<int, Iter> by_mid_;
    std::unordered_map<std::string, std::deque<Iter>> waiting_by_tag_; // oldest first
    std::unordered_set<std::string> crowded_;                          // the tags with more than one waiting
    uint64_t dropped_ = 0;
    uint64_t acked_ = 0;
};

} // namespace plcgate

#endif // PLCGATE_OUTBOX_H
