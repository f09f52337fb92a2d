#include "messages.h"

namespace plcgate {

namespace {

const std::string kRoot = "plcgate/";
const std::string kTags = "/tags/";
const std::string kSet = "/set";

struct JsonValue {
    nlohmann::json operator()(uint64_t v) const { return v; }
    nlohmann::json operator()(int64_t v) const { return v; }
    nlohmann::json operator()(double v) const { return v; }
    nlohmann::json operator()(const std::string &v) const { return v; }
};

const char *result_name(WriteResult r)
{
    switch (r) {
    case WriteResult::Ok: return "ok";
    case WriteResult::Failed: return "failed";
    case WriteResult::Refused: break;
    }
    return "refused";
}

} // namespace

bool is_topic_level(const std::string &name)
{
    return !name.empty() && name.find_first_of(std::string("/+#\0", 4)) == std::string::npos;
}

std::string status_topic(const std::string &gateway)
{
    return kRoot + gateway + "/status";
}

std::string tag_topic(const std::string &gateway, const std::string &tag)
{
    return kRoot + gateway + kTags + tag;
}

std::string stats_topic(const std::string &gateway)
{
    return kRoot + gateway + "/stats";
}

std::string ack_topic(const std::string &gateway, const std::string &tag)
{
    return tag_topic(gateway, tag) + "/ack";
}

std::string set_filter(const std::string &gateway)
{
    return tag_topic(gateway, "+") + kSet;
}

std::optional<std::string> set_topic_tag(const std::string &gateway, const std::string &topic)
{
    const std::string head = kRoot + gateway + kTags;
    if (topic.size() <= head.size() + kSet.size() || topic.compare(0, head.size(), head) != 0 ||
        topic.compare(topic.size() - kSet.size(), kSet.size(), kSet) != 0)
        return std::nullopt;
    std::string tag = topic.substr(head.size(), topic.size() - head.size() - kSet.size());
    if (tag.find('/') != std::string::npos)
        return std::nullopt;
    return tag;
}

nlohmann::json values_json(const std::vector<plctags::Value> &values)
{
    if (values.size() == 1)
        return std::visit(JsonValue{}, values[0]);
    nlohmann::json array = nlohmann::json::array();
    for (const plctags::Value &v : values)
        array.push_back(std::visit(JsonValue{}, v));
    return array;
}

std::string tag_payload(const std::string &value, int64_t ts_ms, bool good, uint64_t seq)
{
    return "{\"value\": " + value + ", \"ts\": " + std::to_string(ts_ms) + ", \"quality\": \"" +
           (good ? "good" : "bad") + "\", \"seq\": " + std::to_string(seq) + "}";
}

std::string json_text(const nlohmann::json &value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ack_payload(const Ack &ack)
{
    return "{\"id\": " + json_text(ack.id) + ", \"result\": \"" + result_name(ack.result) +
           "\", \"code\": " + std::to_string(ack.code) + ", \"error\": " + json_text(ack.error) + "}";
}

namespace {

nlohmann::ordered_json station_json(const plchost::StationStats &s)
{
    return {{"requests", s.requests},
            {"good_replies", s.good_replies},
            {"failed_replies", s.failed_replies},
            {"retries", s.retries},
            {"give_ups", s.give_ups},
            {"timeouts", s.timeouts},
            {"rtt_avg_ms", s.rtt_avg_ms},
            {"failing", s.failing}};
}

nlohmann::ordered_json plc_json(const plchost::Stats &s)
{
    nlohmann::ordered_json j = {{"requests", s.requests},
                                {"good_replies", s.good_replies},
                                {"failed_replies", s.failed_replies},
                                {"retries", s.retries},
                                {"give_ups", s.give_ups},
                                {"timeouts", s.timeouts},
                                {"reconnects", s.reconnects},
                                {"connect_failures", s.connect_failures},
                                {"passes", s.passes},
                                {"rtt_min_ms", s.rtt_min_ms},
                                {"rtt_avg_ms", s.rtt_avg_ms},
                                {"rtt_max_ms", s.rtt_max_ms}};
    nlohmann::ordered_json stations = nlohmann::ordered_json::object();
    for (const auto &st : s.stations)
        stations[std::to_string(st.first)] = station_json(st.second);
    j["stations"] = stations;
    return j;
}

} // namespace

std::string stats_payload(const GatewayFigures &g, const plchost::Stats &plc)
{
    nlohmann::ordered_json j = {{"gateway", g.name}, {"uptime_s", g.uptime_s}, {"tags", g.tags}};
    j["mqtt"] = {{"connected", g.connected}, {"connects", g.connects},   {"published", g.published},
                 {"buffered", g.buffered},   {"in_flight", g.in_flight}, {"dropped", g.dropped}};
    j["writes"] = {{"ok", g.writes_ok},
                   {"failed", g.writes_failed},
                   {"refused", g.writes_refused},
                   {"repeated", g.writes_repeated}};
    j["plc"] = plc_json(plc);
    return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace plcgate
