#include "outbox.h"

namespace plcgate {

void Outbox::push(Message message)
{
    if (entries_.size() >= limit_)
        make_room(message.tag);
    const std::string tag = message.tag;
    const Iter it = entries_.insert(entries_.end(), Entry{std::move(message)});
    if (first_waiting_ == entries_.end())
        first_waiting_ = it;
    if (tag.empty())
        return;
    auto &waiting = waiting_by_tag_[tag];
    waiting.push_back(it);
    if (waiting.size() == 2)
        crowded_.insert(tag);
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
    if (!it->message.tag.empty())
        forget_waiting(it->message.tag);
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

// The oldest waiting message of `tag` leaves the waiting lists.
void Outbox::forget_waiting(const std::string &tag)
{
    auto waiting = waiting_by_tag_.find(tag);
    waiting->second.pop_front();
    if (waiting->second.size() < 2)
        crowded_.erase(tag);
    if (waiting->second.empty())
        waiting_by_tag_.erase(waiting);
}

// Removes a waiting message of a tag: the oldest of that tag, which is the
// front of its list.
void Outbox::drop(Iter it)
{
    forget_waiting(it->message.tag);
    if (it == first_waiting_)
        ++first_waiting_;
    entries_.erase(it);
    ++dropped_;
}

// A change of the new message's own tag gives way to it; else a tag with
// more than one waiting gives its oldest. The set of such tags is kept as
// messages come and go, so making room costs the same however full the
// outbox is.
void Outbox::make_room(const std::string &tag)
{
    const auto own = waiting_by_tag_.find(tag);
    if (!tag.empty() && own != waiting_by_tag_.end()) {
        drop(own->second.front());
        return;
    }
    if (!crowded_.empty())
        drop(waiting_by_tag_.at(*crowded_.begin()).front());
}

} // namespace plcgate
