#include "tag_watch.h"

#include "messages.h"

#include <cmath>

namespace plcgate {

namespace {

bool moved(const plctags::Value &a, const plctags::Value &b, double deadband)
{
    if (std::holds_alternative<std::string>(a) || std::holds_alternative<std::string>(b))
        return a != b;
    const double x = plctags::value_number(a), y = plctags::value_number(b);
    if (std::isnan(x) || std::isnan(y))
        return std::isnan(x) != std::isnan(y);
    return std::fabs(x - y) > deadband;
}

bool changed(const GateTag &tag, const std::vector<plctags::Value> &before, const std::vector<plctags::Value> &now)
{
    if (!tag.deadband)
        return before != now;
    if (before.size() != now.size())
        return true;
    for (size_t i = 0; i < now.size(); ++i)
        if (moved(before[i], now[i], *tag.deadband))
            return true;
    return false;
}

int64_t epoch_ms(std::chrono::system_clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

} // namespace

std::optional<std::string> due_payload(const GateTag &tag, TagState *state, const plchost::Reading &reading,
                                       std::chrono::steady_clock::time_point now, std::chrono::seconds refresh)
{
    if (reading.quality == plchost::Quality::NotRead)
        return std::nullopt;
    const plctags::Tag &t = tag.tag;
    std::vector<plctags::Value> values = plctags::decode_bytes(t, reading.bytes);
    const bool good = reading.quality == plchost::Quality::Good;
    const bool due = !state->published || good != state->good || changed(tag, state->values, values) ||
                     (refresh.count() > 0 && now - state->at >= refresh);
    if (!due)
        return std::nullopt;
    state->published = true;
    state->good = good;
    state->at = now;
    state->values = std::move(values);
    return tag_payload(json_text(values_json(state->values)), epoch_ms(reading.time), good, ++state->seq);
}

} // namespace plcgate
