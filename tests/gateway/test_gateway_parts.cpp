// plcgate's parts in-process: the configuration (keys, lines, command-line
// overrides), set payloads and the values they write, the outbox, when a
// tag is published, topics and payloads.
#include "config.h"
#include "ini_text.h"
#include "messages.h"
#include "outbox.h"
#include "reply_index.h"
#include "set_request.h"
#include "tag_file.h"
#include "tag_set.h"
#include "tag_watch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace plcgate {
namespace {

using nlohmann::json;

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/plcgate-parts-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        write("tags.csv", "ticks,2,0,1,1\nsetpoint,3,0,1,2,float32\nflag,1,0.0,1,1\nlabel,3,10,1,2,ascii\n");
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

    void write(const std::string &name, const std::string &text) { std::ofstream(dir_ + "/" + name) << text; }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

    Parsed<GateConfig> load(const std::string &conf, std::vector<std::string> args = {})
    {
        write("gate.conf", conf);
        args.insert(args.begin(), {"--config", path("gate.conf")});
        const auto inv = parse_arguments(args);
        if (!inv.ok())
            return plctags::refuse(inv.why());
        return load_config(inv.value());
    }

    std::string dir_;
};

const char *const kMinimal = "[gateway]\nname = g1\ntags = tags.csv\n";

TEST_F(ConfigFile, FilesNamedInTheFileAreFoundBesideItAndOnTheCommandLineAsGiven)
{
    write("ca.pem", "certificate");
    write("client.pem", "certificate");
    write("client.key", "key");
    const auto c =
        load(std::string(kMinimal) + "[mqtt]\nca_file = ca.pem\ncert_file = client.pem\nkey_file = client.key\n");
    ASSERT_TRUE(c.ok()) << c.why();
    EXPECT_EQ(c.value().tags_path, path("tags.csv"));
    EXPECT_EQ(c.value().mqtt.ca_file, path("ca.pem"));
    EXPECT_EQ(c.value().mqtt.cert_file, path("client.pem"));
    EXPECT_EQ(c.value().mqtt.key_file, path("client.key"));

    // The test runs in another folder than dir_: a relative name on the
    // command line is looked for there, so it cannot be read.
    const auto given = load(kMinimal, {"--mqtt.ca_file", "ca.pem"});
    ASSERT_FALSE(given.ok());
    EXPECT_NE(given.why().find("--mqtt.ca_file: cannot read 'ca.pem'"), std::string::npos) << given.why();
}

TEST_F(ConfigFile, KeysOfEverySectionAreRead)
{
    const auto c =
        load(std::string(kMinimal) +
             "writable = \"setpoint,flag\"\nrefresh = 5\nbuffer = 7\n[plc]\nhost = 10.1.2.3\nport = 502\n"
             "link = remote\ntimeout = 250\nretries = 2\ninterval = 0\n[mqtt]\nhost = broker\nport = 1884\n"
             "client_id = me\nusername = u\npassword = \"p;w,d\"\nkeepalive = 20\n[deadband]\nticks = 2.5\n");
    ASSERT_TRUE(c.ok()) << c.why();
    const GateConfig &g = c.value();
    EXPECT_EQ(g.name, "g1");
    EXPECT_EQ(g.tags_path, path("tags.csv")); // relative to the configuration's folder
    EXPECT_EQ(g.writable, (std::vector<std::string>{"setpoint", "flag"}));
    EXPECT_EQ(g.refresh_s, 5);
    EXPECT_EQ(g.buffer, 7u);
    ASSERT_EQ(g.host.endpoints.size(), 1u);
    EXPECT_EQ(g.host.endpoints[0].host, "10.1.2.3");
    EXPECT_EQ(g.host.endpoints[0].port, 502);
    EXPECT_EQ(g.host.link_mode, plchost::LinkMode::Remote);
    EXPECT_EQ(g.host.timeout.count(), 250);
    EXPECT_EQ(g.host.retry_limit, 2);
    EXPECT_EQ(g.host.poll_interval.count(), 0);
    EXPECT_EQ(g.mqtt.host, "broker");
    EXPECT_EQ(g.mqtt.port, 1884);
    EXPECT_EQ(g.mqtt.client_id, "me");
    EXPECT_EQ(g.mqtt.username, "u");
    EXPECT_EQ(g.mqtt.password, "p;w,d");
    EXPECT_EQ(g.mqtt.keepalive_s, 20);
    EXPECT_EQ(g.deadbands.at("ticks"), 2.5);
}

TEST_F(ConfigFile, DefaultsAndTheCommandLineWins)
{
    const auto c = load(std::string(kMinimal) + "[mqtt]\nport = 1884\n", {"--mqtt.port", "1999", "--plc.link=remote"});
    ASSERT_TRUE(c.ok()) << c.why();
    EXPECT_EQ(c.value().mqtt.port, 1999);
    EXPECT_EQ(c.value().mqtt.client_id, "plcgate-g1");
    EXPECT_EQ(c.value().host.endpoints.at(0).port, 1503); // the remote frame's port when none is given
    EXPECT_EQ(c.value().mqtt.host, "127.0.0.1");
}

TEST_F(ConfigFile, EndpointsWithStations)
{
    const auto c = load(std::string(kMinimal) + "[plc]\nendpoints = 10.0.0.5:502=1-3 10.0.0.6:1502=4,7\n");
    ASSERT_TRUE(c.ok()) << c.why();
    const auto &e = c.value().host.endpoints;
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].host, "10.0.0.5");
    EXPECT_EQ(e[0].stations, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(e[1].port, 1502);
    EXPECT_EQ(e[1].stations, (std::vector<int>{4, 7}));
}

TEST_F(ConfigFile, ABadValueNamesTheKeyAndItsLine)
{
    const auto c = load(std::string(kMinimal) + "\n[plc]\n; the PLC\nport = abc\n");
    ASSERT_FALSE(c.ok());
    EXPECT_EQ(c.why(), path("gate.conf") + ":7: [plc] port: invalid value 'abc' (a whole number 1..65535)");
    const auto option = load(kMinimal, {"--mqtt.keepalive", "1"});
    ASSERT_FALSE(option.ok());
    EXPECT_EQ(option.why(), "--mqtt.keepalive: invalid value '1' (a whole number 5..65535)");
}

TEST_F(ConfigFile, EveryMistakeOfTheFileIsOneLineWithItsNumber)
{
    const std::string conf = path("gate.conf");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[gateway]\nnmae = x\n", conf + ":2: unknown key [gateway] nmae"},
        {"[gate]\n", conf + ":1: unknown section [gate]"},
        {"name = x\n", conf + ":1: key 'name' outside a section"},
        {"[gateway]\nname\n", conf + ":2: expected [SECTION], KEY = VALUE"},
        {"[gateway]\nname = a\nname = b\n", conf + ":3: [gateway] name given twice (first on line 2)"},
        {"[gateway]\nname = a/b\n", conf + ":2: [gateway] name: invalid value 'a/b'"},
        {"[plc]\nlink = tcp\n", conf + ":2: [plc] link: invalid value 'tcp' (modbus or remote)"},
        {"[plc]\nendpoints = 10.0.0.1:502=3-1\n", conf + ":2: [plc] endpoints: stations '3-1'"},
        {"[mqtt]\nca_file = /nonexistent/ca.crt\n", conf + ":2: [mqtt] ca_file: cannot read '/nonexistent/ca.crt'"},
    };
    for (const auto &c : cases) {
        const auto loaded = load(c.first);
        ASSERT_FALSE(loaded.ok()) << c.first;
        EXPECT_EQ(loaded.why().rfind(c.second, 0), 0u) << loaded.why();
        EXPECT_EQ(loaded.why().find('\n'), std::string::npos);
    }
}

TEST_F(ConfigFile, WhatTheTagsDoNotHaveNamesTheKey)
{
    const auto config = [this](const std::string &more) {
        auto c = load(std::string(kMinimal) + more);
        EXPECT_TRUE(c.ok()) << (c.ok() ? "" : c.why());
        return c.value();
    };
    auto tags = load_tags(config("writable = setpoint, nothere\n"));
    ASSERT_FALSE(tags.ok());
    EXPECT_EQ(tags.why(), path("gate.conf") + ":4: [gateway] writable: no tag 'nothere' in " + path("tags.csv"));
    tags = load_tags(config("writable = ticks\n"));
    ASSERT_FALSE(tags.ok());
    EXPECT_NE(tags.why().find(":4: [gateway] writable: tag 'ticks' is kind 2"), std::string::npos) << tags.why();
    tags = load_tags(config("[deadband]\nlabel = 1\n"));
    ASSERT_FALSE(tags.ok());
    EXPECT_NE(tags.why().find(":5: [deadband] label: tag 'label' is of type ascii"), std::string::npos);
    tags = load_tags(config("writable = *\n"));
    ASSERT_TRUE(tags.ok()) << tags.why();
    EXPECT_FALSE(find_tag(tags.value(), "ticks")->writable); // an input register
    EXPECT_TRUE(find_tag(tags.value(), "setpoint")->writable);
    write("tags.csv", "a/b,3,0,1,1\n");
    tags = load_tags(config(""));
    ASSERT_FALSE(tags.ok());
    EXPECT_NE(tags.why().find("tag 'a/b': a tag's name is a topic level of its own"), std::string::npos);
}

TEST(CommandLine, UnknownOptionsAndMissingValues)
{
    EXPECT_FALSE(parse_arguments({"--mqtt.nope", "1"}).ok());
    EXPECT_FALSE(parse_arguments({"--verbose"}).ok());
    EXPECT_EQ(parse_arguments({"--mqtt.port"}).why(), "option --mqtt.port needs a value");
    const auto inv = parse_arguments({"--deadband.flow", "0.5", "--help"});
    ASSERT_TRUE(inv.ok());
    EXPECT_TRUE(inv.value().help);
    EXPECT_EQ(inv.value().overrides.at("deadband.flow"), "0.5");
}

plctags::Tag tag(const std::string &line)
{
    auto t = plctags::parse_tag_line(line);
    EXPECT_TRUE(t.ok()) << line;
    return t.value();
}

TEST(SetPayload, PlainValuesAndObjects)
{
    auto r = parse_set("42");
    ASSERT_TRUE(r.value);
    EXPECT_EQ(*r.value, json(42));
    EXPECT_TRUE(r.id.is_null());
    r = parse_set(R"({"value": [1, 2], "id": "w-1"})");
    ASSERT_TRUE(r.value);
    EXPECT_EQ(*r.value, json({1, 2}));
    EXPECT_EQ(r.id, json("w-1"));
    r = parse_set(R"({"id": 7, "value": "text"})");
    EXPECT_EQ(r.id, json(7));
}

TEST(SetPayload, EveryOtherShapeIsRefusedWithAReason)
{
    const std::vector<std::string> refused = {"",
                                              "{",
                                              "nul",
                                              R"({"id": "x"})",
                                              R"({"value": 1, "extra": 2})",
                                              R"({"value": 1, "id": [1]})",
                                              std::string(kMaxSetPayload + 1, ' '),
                                              std::string(10000, '[') + std::string(10000, ']'),
                                              std::string("\xff\xfe", 2)};
    for (const std::string &p : refused) {
        const auto r = parse_set(p);
        EXPECT_FALSE(r.value) << p.substr(0, 40);
        EXPECT_FALSE(r.error.empty());
    }
    EXPECT_EQ(parse_set(R"({"id": "x"})").id, json("x")); // an ack can still name it
}

TEST(SetValues, TypedValuesBecomeTheHostsValues)
{
    const auto f = set_values(tag("sp,3,0,1,2,float32,CDAB"), json(21.5));
    ASSERT_TRUE(f.ok()) << f.why();
    EXPECT_EQ(f.value(), (std::vector<uint64_t>{0x0000, 0x41AC}));
    const auto words = set_values(tag("w,4,0,1,3"), json({1, 65535, 0}));
    ASSERT_TRUE(words.ok());
    EXPECT_EQ(words.value(), (std::vector<uint64_t>{1, 65535, 0}));
    const auto bit = set_values(tag("b,1,0.0,1,1"), json(true));
    ASSERT_TRUE(bit.ok());
    EXPECT_EQ(bit.value(), (std::vector<uint64_t>{1}));
    const auto text = set_values(tag("t,3,0,1,3,ascii"), json("abc"));
    ASSERT_TRUE(text.ok()) << text.why();
    EXPECT_EQ(text.value(), (std::vector<uint64_t>{0x6162, 0x6300, 0})); // padded with NULs
    const auto negative = set_values(tag("n,4,0,1,1,int16"), json(-2));
    ASSERT_TRUE(negative.ok());
    EXPECT_EQ(negative.value(), (std::vector<uint64_t>{0xFFFE}));
}

TEST(SetValues, WrongTypesCountsAndRangesAreRefused)
{
    const std::vector<std::pair<std::string, json>> refused = {
        {"u,4,0,1,1,uint16", json(70000)},  {"u,4,0,1,1,uint16", json("12")}, {"u,4,0,1,1,uint16", json(1.5)},
        {"u,4,0,1,1,uint16", json({1, 2})}, {"w,4,0,1,2", json(1)},           {"w,4,0,1,2", json({1, 2, 3})},
        {"b,1,0.0,1,1", json(2)},           {"i,4,0,1,1,int16", json(true)},  {"t,3,0,1,1,ascii", json("abc")},
        {"h,4,0,1,1,hex", json("0x12345")}, {"x,4,0,1,1", json(nullptr)},     {"x,4,0,1,1", json::object()},
        {"x,4,0,1,1", json({{"a", 1}})},    {"x,4,0,1,1", json(-70000)},      {"x,4,0,1,1", json(1e300)},
    };
    for (const auto &c : refused) {
        const auto r = set_values(tag(c.first), c.second);
        EXPECT_FALSE(r.ok()) << c.first << " " << c.second.dump();
    }
}

Message value_message(const std::string &tag, int n)
{
    return Message{"plcgate/g/tags/" + tag, std::to_string(n), true, tag};
}

TEST(OutboxTest, MessagesLeaveInOrderAndOnlyWhenAcknowledged)
{
    Outbox box(10);
    for (int i = 1; i <= 3; ++i)
        box.push(value_message("a", i));
    box.push_urgent(Message{"plcgate/g/status", "online", true, {}});
    ASSERT_TRUE(box.next());
    EXPECT_EQ(box.next()->payload, "online");
    box.handed(100);
    EXPECT_EQ(box.next()->payload, "1");
    box.handed(101);
    EXPECT_EQ(box.size(), 4u);
    box.acked(101);
    box.acked(555); // not ours
    EXPECT_EQ(box.size(), 3u);
    EXPECT_EQ(box.next()->payload, "2");
    box.acked(100);
    EXPECT_EQ(box.in_flight(), 0u);
    EXPECT_EQ(box.dropped(), 0u);
}

TEST(OutboxTest, WhenFullTheOldestChangesOfATagAreCoalesced)
{
    Outbox box(4);
    box.push(value_message("a", 1));
    box.handed(1); // in flight: never dropped
    box.push(value_message("a", 2));
    box.push(value_message("b", 1));
    box.push(value_message("a", 3));
    box.push(value_message("a", 4)); // full: a's oldest waiting (2) goes
    EXPECT_EQ(box.dropped(), 1u);
    box.push(value_message("c", 1)); // c has none waiting: a, which has two, gives its oldest (3)
    EXPECT_EQ(box.dropped(), 2u);
    std::vector<std::string> order;
    for (int mid = 2; box.next(); ++mid) {
        order.push_back(box.next()->topic.substr(15) + box.next()->payload);
        box.handed(mid);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"b1", "a4", "c1"}));
    box.push(Message{"plcgate/g/tags/a/ack", "{}", false, {}});
    box.push(Message{"plcgate/g/tags/b/ack", "{}", false, {}}); // acks are never dropped: over the limit
    EXPECT_EQ(box.size(), 6u);
}

TEST(OutboxTest, TheLatestChangeOfEveryTagIsKeptPastTheLimit)
{
    // More tags than the limit: each tag's only message stays, the outbox
    // grows by one per tag instead of losing a tag's last value.
    Outbox box(2);
    for (const char *tag : {"a", "b", "c", "d"})
        box.push(value_message(tag, 1));
    EXPECT_EQ(box.size(), 4u);
    EXPECT_EQ(box.dropped(), 0u);
    box.push(value_message("b", 2)); // b's older change gives way to its newer
    box.push(value_message("e", 1)); // nothing can give way: kept too
    EXPECT_EQ(box.dropped(), 1u);
    std::vector<std::string> order;
    for (int mid = 1; box.next(); ++mid) {
        order.push_back(box.next()->topic.substr(15) + box.next()->payload);
        box.handed(mid);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"a1", "c1", "d1", "b2", "e1"}));
}

TEST(OutboxTest, ATagWithSeveralWaitingGivesWayToAnotherTagsChange)
{
    Outbox box(3);
    box.push(value_message("a", 1));
    box.push(value_message("a", 2));
    box.push(value_message("b", 1));
    box.push(value_message("c", 1)); // full: a, with two waiting, gives its oldest
    box.push(value_message("d", 1)); // now every tag has one: nothing goes
    EXPECT_EQ(box.dropped(), 1u);
    EXPECT_EQ(box.size(), 4u);
    EXPECT_EQ(box.next()->payload, "2");
}

std::vector<bool> covered(const TagIndex &index, int station, plchost::ClassRange span, size_t tags)
{
    std::vector<bool> marks(tags, false);
    index.mark_covered(station, span, &marks);
    return marks;
}

TEST(TagIndexTest, AReplyMarksExactlyTheTagsWhoseValuesItStored)
{
    const std::vector<plchost::Tag> tags = {
        {"a", 4, "10", 1, 2},   // registers 10 and 11 of station 1
        {"b", 4, "20", 1, 1},   // register 20
        {"c", 4, "10", 2, 1},   // station 2
        {"d", 0, "1.2", 1, 1},  // a bit: another class
        {"bad", 4, "zz", 1, 1}, // no place: only the full looks see it
    };
    const TagIndex index(tags);
    const int words = plchost::class_range(tags[0])->cls;
    const int bits = plchost::class_range(tags[3])->cls;
    ASSERT_NE(words, bits);
    const size_t n = tags.size();
    using Marks = std::vector<bool>;
    EXPECT_EQ(covered(index, 1, {words, 11, 5}, n), (Marks{true, false, false, false, false}));
    EXPECT_EQ(covered(index, 1, {words, 12, 8}, n), (Marks{false, false, false, false, false})); // between a and b
    EXPECT_EQ(covered(index, 1, {words, 0, 100}, n), (Marks{true, true, false, false, false}));
    EXPECT_EQ(covered(index, 1, {words, 19, 2}, n), (Marks{false, true, false, false, false}));
    EXPECT_EQ(covered(index, 2, {words, 10, 1}, n), (Marks{false, false, true, false, false}));
    const int64_t d_bit = plchost::class_range(tags[3])->start;
    EXPECT_EQ(covered(index, 1, {bits, d_bit, 1}, n), (Marks{false, false, false, true, false}));
    EXPECT_EQ(covered(index, 1, {bits, d_bit + 1, 8}, n), (Marks{false, false, false, false, false}));
    EXPECT_EQ(covered(index, 3, {words, 0, 100}, n), (Marks{false, false, false, false, false}));
}

TEST(ReplyLogTest, SpansUntilTakenAndAllWhenAnythingElseHappened)
{
    ReplyLog log;
    bool all = true;
    EXPECT_TRUE(log.take(&all).empty());
    EXPECT_FALSE(all);
    log.add(1, {4, 10, 2});
    log.add(2, {4, 0, 1});
    auto spans = log.take(&all);
    EXPECT_FALSE(all);
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(spans[1].station, 2);
    log.add(1, {4, 10, 2});
    log.add_all();
    log.add(1, {4, 10, 2});
    spans = log.take(&all);
    EXPECT_TRUE(all);
    EXPECT_TRUE(spans.empty());
    for (int i = 0; i < 5000; ++i) // more than are worth keeping one by one
        log.add(1, {4, i, 1});
    spans = log.take(&all);
    EXPECT_TRUE(all);
    EXPECT_TRUE(spans.size() < 5000u);
}

TEST(TagWatch, ChangesQualityRefreshAndDeadband)
{
    GateTag t{tag("flow,4,0,1,1,int16"), false, 5.0};
    TagState state;
    plchost::Reading reading;
    const auto now = std::chrono::steady_clock::now();
    EXPECT_FALSE(due_payload(t, &state, reading, now, std::chrono::seconds(10))); // not read yet
    reading.quality = plchost::Quality::Good;
    reading.bytes = {100, 0};
    reading.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1234567));
    EXPECT_EQ(due_payload(t, &state, reading, now, std::chrono::seconds(10)),
              std::optional<std::string>(R"({"value": 100, "ts": 1234567, "quality": "good", "seq": 1})"));
    reading.bytes = {104, 0}; // within the deadband
    EXPECT_FALSE(due_payload(t, &state, reading, now, std::chrono::seconds(10)));
    reading.bytes = {106, 0};
    EXPECT_TRUE(due_payload(t, &state, reading, now, std::chrono::seconds(10)));
    reading.quality = plchost::Quality::Failing;
    const auto bad = due_payload(t, &state, reading, now, std::chrono::seconds(10));
    ASSERT_TRUE(bad);
    EXPECT_NE(bad->find(R"("quality": "bad", "seq": 3)"), std::string::npos);
    EXPECT_FALSE(due_payload(t, &state, reading, now + std::chrono::seconds(9), std::chrono::seconds(10)));
    EXPECT_TRUE(due_payload(t, &state, reading, now + std::chrono::seconds(10), std::chrono::seconds(10)));
}

TEST(Topics, SetTopicsAndPayloads)
{
    EXPECT_EQ(set_filter("g"), "plcgate/g/tags/+/set");
    EXPECT_EQ(set_topic_tag("g", "plcgate/g/tags/flow/set"), std::optional<std::string>("flow"));
    EXPECT_FALSE(set_topic_tag("g", "plcgate/h/tags/flow/set"));
    EXPECT_FALSE(set_topic_tag("g", "plcgate/g/tags//set"));
    EXPECT_FALSE(set_topic_tag("g", "plcgate/g/tags/flow/ack"));
    Ack ack{json("id-1"), WriteResult::Refused, 0, "tag 'x' is not writable"};
    EXPECT_EQ(ack_payload(ack),
              R"({"id": "id-1", "result": "refused", "code": 0, "error": "tag 'x' is not writable"})");
    EXPECT_EQ(json_text(values_json({plctags::Value(uint64_t(1)), plctags::Value(-2.5)})), "[1,-2.5]");
}

TEST(IniText, KeysWithTheirLines)
{
    const auto keys = scan_ini("; comment\n[gateway]\n  name = a\n\n# more\n[mqtt]\nport=1\n");
    ASSERT_TRUE(keys.ok()) << keys.why();
    EXPECT_EQ(keys.value(), (std::vector<std::pair<std::string, int>>{{"gateway.name", 3}, {"mqtt.port", 7}}));
}

} // namespace
} // namespace plcgate
