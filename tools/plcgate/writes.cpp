#include "writes.h"

#include "set_request.h"

namespace plcgate {

namespace {

// Ids remembered for repeated sets.
constexpr size_t kRemembered = 4096;
// The write-done callback's results, as the host names them.
constexpr int kDoneOk = int(plchost::DoneResult::Ok), kDoneFailed = int(plchost::DoneResult::Failed);

// Why a tag cannot take this value, or the host values that write it.
plctags::Parsed<std::vector<uint64_t>> checked_values(const GateTag *t, const std::string &name,
                                                      const nlohmann::json &value)
{
    if (!t)
        return plctags::refuse("unknown tag '" + name + "'");
    if (!t->writable)
        return plctags::refuse("tag '" + name + "' is not writable");
    return set_values(t->tag, value);
}

} // namespace

void Writes::remember(const std::string &key, Remembered r)
{
    if (key.empty())
        return;
    if (remembered_.emplace(key, r).second)
        remembered_order_.push_back(key);
    else
        remembered_[key] = r;
    if (remembered_order_.size() > kRemembered) {
        remembered_.erase(remembered_order_.front());
        remembered_order_.pop_front();
    }
}

Writes::Outcome Writes::refuse(const std::string &name, const nlohmann::json &id, const std::string &key,
                               std::string why)
{
    ++counts_.refused;
    Outcome o{name, Ack{id, WriteResult::Refused, 0, std::move(why)}};
    remember(key, Remembered{true, o.ack, 0});
    return o;
}

std::vector<Writes::Outcome> Writes::submit(const std::string &name, const std::string &payload,
                                            const std::vector<GateTag> &tags, plchost::Host &host,
                                            Clock::time_point now)
{
    const SetRequest request = parse_set(payload);
    const std::string key = request.id.is_null() ? std::string() : name + "\n" + json_text(request.id);
    const auto seen = remembered_.find(key);
    if (seen != remembered_.end()) {
        ++counts_.repeated;
        if (seen->second.finished)
            return {Outcome{name, seen->second.ack}};
        const auto waiting = pending_.find(seen->second.source_id);
        if (waiting != pending_.end())
            ++waiting->second.repeats;
        return {};
    }
    if (!request.value)
        return {refuse(name, request.id, key, request.error)};
    const GateTag *t = find_tag(tags, name);
    const auto values = checked_values(t, name, *request.value);
    if (!values.ok())
        return {refuse(name, request.id, key, values.why())};
    plchost::Tag target = t->tag.plc;
    std::vector<uint8_t> bytes;
    plchost::encode_values(target.kind, values.value(), &bytes, &target.count);
    int source_id = 0;
    if (host.write(target, bytes, kWriteSource, &source_id) == 0)
        return {refuse(name, request.id, key, "the driver refused the write")};
    pending_[source_id] = Pending{name, request.id, key, now + answer_wait_, 0};
    remember(key, Remembered{false, Ack{}, source_id});
    return {};
}

void Writes::done(int source_type, int source_id, int result)
{
    if (source_type != kWriteSource)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    finished_.emplace_back(source_id, result);
}

std::vector<Writes::Outcome> Writes::finish(int source_id, WriteResult result, int code, const std::string &error)
{
    const auto p = pending_.find(source_id);
    if (p == pending_.end())
        return {};
    const Outcome o{p->second.tag, Ack{p->second.id, result, code, error}};
    ++(result == WriteResult::Ok ? counts_.ok : counts_.failed);
    remember(p->second.key, Remembered{true, o.ack, 0});
    std::vector<Outcome> acks(size_t(1 + p->second.repeats), o);
    pending_.erase(p);
    return acks;
}

std::vector<Writes::Outcome> Writes::settle(Clock::time_point now)
{
    std::vector<std::pair<int, int>> finished;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished.swap(finished_);
    }
    std::vector<Outcome> acks;
    const auto add = [&acks](std::vector<Outcome> more) { acks.insert(acks.end(), more.begin(), more.end()); };
    for (const auto &f : finished) {
        const bool ok = f.second == kDoneOk;
        add(finish(f.first, ok ? WriteResult::Ok : WriteResult::Failed, ok ? kDoneOk : kDoneFailed,
                   ok ? "" : "the PLC did not take the write (communication failed)"));
    }
    std::vector<int> late;
    for (const auto &p : pending_)
        if (p.second.deadline <= now)
            late.push_back(p.first);
    for (int id : late)
        add(finish(id, WriteResult::Failed, 0,
                   "no answer from the driver within " + std::to_string(answer_wait_.count()) + " ms"));
    return acks;
}

} // namespace plcgate
