#include "outbox.h"

namespace plcgate {

void Outbox::push(Message message)
{
    if (entries_.size() >= limit_)
        drop_one(message.tag);
    const std::string tag = message.tag;
    const Iter it = entries_.insert(entries_.end(), Entry{std::move(message)});
    if (first_waiting_ == entries_.end())
        first_waiting_ = it;
    if (!tag.empty())
        waiting_by_tag_[tag].push_back(it);
}

void Outbox::push_urgent(Message message)
{
    message.tag.clear();
    first_waiting_ = entries_.insert(first_waiting_, Entry{std::move(message)});
}

const Message *Outbox::next() const
{
    return first_waiting_ == entries_.end() ? nullptr : &first_waiting_->message;
}

void Outbox::handed(int mid)
{
    if (first_waiting_ == entries_.end())
        return;
    const Iter it = first_waiting_++;
    it->mid = mid;
    by_mid_[mid] = it;
    if (!it->message.tag.empty()) {
        auto waiting = waiting_by_tag_.find(it->message.tag);
        waiting->second.pop_front();
        if (waiting->second.empty())
            waiting_by_tag_.erase(waiting);
    }
}

void Outbox::acked(int mid)
{
    const auto found = by_mid_.find(mid);
    if (found == by_mid_.end())
        return;
    entries_.erase(found->second);
    by_mid_.erase(found);
    ++acked_;
}

// Removes a waiting message of a tag: the oldest of that tag, which is the
// front of its list.
void Outbox::drop(Iter it)
{
    auto waiting = waiting_by_tag_.find(it->message.tag);
    waiting->second.pop_front();
    if (waiting->second.empty())
        waiting_by_tag_.erase(waiting);
    if (it == first_waiting_)
        ++first_waiting_;
    entries_.erase(it);
    ++dropped_;
}

bool Outbox::drop_one(const std::string &tag)
{
    const auto own = waiting_by_tag_.find(tag);
    if (!tag.empty() && own != waiting_by_tag_.end()) {
        drop(own->second.front());
        return true;
    }
    Iter oldest = entries_.end();
    for (Iter it = first_waiting_; it != entries_.end(); ++it) {
        if (it->message.tag.empty())
            continue;
        if (waiting_by_tag_[it->message.tag].size() > 1) {
            drop(it);
            return true;
        }
        if (oldest == entries_.end())
            oldest = it;
    }
    if (oldest == entries_.end())
        return false;
    drop(oldest);
    return true;
}

} // namespace plcgate
