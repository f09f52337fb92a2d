// What plcpoll shows: a snapshot of values and statistics rendered to the
// exact table, plain lines and JSON, the statistics text, the write report
// and the frame trace.
#include "output.h"
#include "tag_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using plcpoll::Snapshot;
using plcpoll::TagReading;
using plcpoll::View;
using plcpoll::WriteReport;

namespace {

TagReading reading(const std::string &name, int kind, const std::string &address, int station, int count,
                   std::vector<uint64_t> values)
{
    TagReading r;
    r.tag.plc.name = name;
    r.tag.plc.kind = kind;
    r.tag.plc.address = address;
    r.tag.plc.station = station;
    r.tag.plc.count = count;
    r.values.assign(values.begin(), values.end());
    return r;
}

plchost::Stats some_stats()
{
    plchost::Stats s;
    s.requests = 12;
    s.good_replies = 10;
    s.failed_replies = 2;
    s.retries = 1;
    s.give_ups = 1;
    s.timeouts = 1;
    s.reconnects = 3;
    s.connect_failures = 4;
    s.passes = 5;
    s.rtt_min_ms = 0.25;
    s.rtt_avg_ms = 1.5;
    s.rtt_max_ms = 4;
    s.codes = {{0, 1}, {1, 10}, {72, 1}};
    return s;
}

Snapshot snapshot()
{
    Snapshot s;
    s.peer = "127.0.0.1:1502";
    s.elapsed_s = 1.25;
    s.connected = true;
    s.tags = {reading("word", 4, "10", 1, 2, {1234, 48879}), reading("coils", 1, "0.3", 2, 3, {1, 0, 1})};
    s.stats = some_stats();
    return s;
}

const char *const kStatsJson =
    R"({"requests":12,"good_replies":10,"failed_replies":2,"retries":1,"give_ups":1,"timeouts":1,)"
    R"("reconnects":3,"connect_failures":4,"foreign_replies":0,"resyncs":0,"stale_bytes":0,"passes":5,)"
    R"("frame_loss_percent":16.7,"rtt_ms":{"min":0.25,"avg":1.5,"max":4.0},"codes":{"0":1,"1":10,"72":1},)"
    R"("stations":{}})";

const char *const kTagsJson =
    R"([{"name":"word","kind":4,"address":"10","station":1,"count":2,"quality":"good","values":[1234,48879]},)"
    R"({"name":"coils","kind":1,"address":"0.3","station":2,"count":3,"quality":"good","values":[1,0,1]}])";

const char *const kStatsText =
    "statistics: 12 requests, 10 good, 2 failed (1 retried, 1 given up), 1 timeouts, 3 reconnects, 5 passes, "
    "16.7% frame loss\n"
    "round trip: min 0.250 ms, avg 1.500 ms, max 4.000 ms\n"
    "driver return codes: 0 x1, 1 x10, 72 x1 (0 = failed, retried)\n";

} // namespace

TEST(PlcpollOutput, RefreshAsJson)
{
    EXPECT_EQ(plcpoll::render_refresh(View::Json, snapshot(), nullptr),
              std::string(R"({"time":1.25,"connected":true,"tags":)") + kTagsJson + "}\n");
}

TEST(PlcpollOutput, PassAsJson)
{
    EXPECT_EQ(plcpoll::render_pass(View::Json, snapshot(), true),
              std::string(R"({"complete":true,"tags":)") + kTagsJson + R"(,"stats":)" + kStatsJson + "}\n");
    Snapshot incomplete = snapshot();
    incomplete.tags.clear();
    incomplete.stats = {};
    EXPECT_EQ(
        plcpoll::render_pass(View::Json, incomplete, false),
        R"({"complete":false,"tags":[],"stats":{"requests":0,"good_replies":0,"failed_replies":0,)"
        R"("retries":0,"give_ups":0,"timeouts":0,"reconnects":0,"connect_failures":0,"foreign_replies":0,)"
        R"("resyncs":0,"stale_bytes":0,"passes":0,"frame_loss_percent":0.0,"rtt_ms":{"min":0.0,"avg":0.0,"max":0.0},)"
        R"("codes":{},"stations":{}}})"
        "\n");
}

TEST(PlcpollOutput, PassAsLinesWithTheStatistics)
{
    EXPECT_EQ(plcpoll::render_pass(View::Lines, snapshot(), true),
              std::string("   1.250s  word             kind 4  10       stn 1   = 1234 (0x04D2), 48879 (0xBEEF)\n"
                          "   1.250s  coils            kind 1  0.3      stn 2   = 1 0 1\n") +
                  kStatsText);
}

TEST(PlcpollOutput, FinalStatistics)
{
    EXPECT_EQ(plcpoll::render_final_stats(View::Json, some_stats()), std::string(R"({"stats":)") + kStatsJson + "}\n");
    EXPECT_EQ(plcpoll::render_final_stats(View::Lines, some_stats()), kStatsText);
    EXPECT_EQ(plcpoll::render_final_stats(View::Table, some_stats()), kStatsText);
}

TEST(PlcpollOutput, LinesShowEveryTagFirstThenOnlyTheTagsThatChanged)
{
    const Snapshot first = snapshot();
    Snapshot second = snapshot();
    second.elapsed_s = 2.5;
    second.tags[1].values = {0, 0, 1};
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, second, &first),
              "   2.500s  coils            kind 1  0.3      stn 2   = 0 0 1\n");
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, first, &first), "");
    // Other tags than before: every one is shown.
    Snapshot fewer = snapshot();
    fewer.tags.pop_back();
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, fewer, &first),
              "   1.250s  word             kind 4  10       stn 1   = 1234 (0x04D2), 48879 (0xBEEF)\n");
}

TEST(PlcpollOutput, TableMarksTheValuesThatChanged)
{
    const Snapshot first = snapshot();
    Snapshot second = snapshot();
    second.tags[0].values = {1, 48879};
    const std::string heading = "\x1b[H\x1b[2J"
                                "plcpoll  127.0.0.1:1502  modbus  connected  t=1.2s  passes 5  good 10  failed 2\n\n"
                                "\x1b[1mNAME             KIND TYPE               ADDRESS  STN    VALUE\x1b[0m\n";
    const std::string coils = "coils               1 coil               0.3        2    1 0 1\n";
    const std::string end = "\nCtrl-C to stop\n";
    EXPECT_EQ(plcpoll::render_refresh(View::Table, first, nullptr),
              heading + "word                4 word (class 4)     10         1    1234 (0x04D2), 48879 (0xBEEF)\n" +
                  coils + end);
    EXPECT_EQ(
        plcpoll::render_refresh(View::Table, second, &first),
        heading +
            "word                4 word (class 4)     10         1  * \x1b[32m1 (0x0001), 48879 (0xBEEF)\x1b[0m\n" +
            coils + end);
}

TEST(PlcpollOutput, TableShowsALostConnectionInRed)
{
    Snapshot s = snapshot();
    s.connected = false;
    s.link = plchost::LinkMode::Remote;
    s.tags.clear();
    EXPECT_EQ(plcpoll::render_refresh(View::Table, s, nullptr),
              "\x1b[H\x1b[2J"
              "plcpoll  127.0.0.1:1502  remote  \x1b[31mdisconnected\x1b[0m  t=1.2s  passes 5  good 10  failed 2\n\n"
              "\x1b[1mNAME             KIND TYPE               ADDRESS  STN    VALUE\x1b[0m\n"
              "\nCtrl-C to stop\n");
}

TEST(PlcpollOutput, StatisticsTextNamesUnpairedRepliesOnlyWhenThereAreAny)
{
    plchost::Stats s;
    EXPECT_EQ(plcpoll::render_stats(s),
              "statistics: 0 requests, 0 good, 0 failed (0 retried, 0 given up), 0 timeouts, 0 reconnects, 0 passes, "
              "0.0% frame loss\n"
              "round trip: min 0.000 ms, avg 0.000 ms, max 0.000 ms\n");
    s.foreign_replies = 2;
    s.resyncs = 1;
    s.stale_bytes = 30;
    EXPECT_EQ(plcpoll::render_stats(s),
              "statistics: 0 requests, 0 good, 0 failed (0 retried, 0 given up), 0 timeouts, 0 reconnects, 0 passes, "
              "0.0% frame loss\n"
              "unpaired: 2 replies to other requests discarded, 1 connections renewed, 30 stale bytes drained\n"
              "round trip: min 0.000 ms, avg 0.000 ms, max 0.000 ms\n");
}

TEST(PlcpollOutput, JsonEscapesNamesAndReplacesBytesThatAreNotUtf8)
{
    Snapshot s = snapshot();
    s.tags = {reading("a\"b\\c\td\x01\xff", 4, "0", 1, 1, {7})};
    EXPECT_EQ(plcpoll::render_refresh(View::Json, s, nullptr),
              R"({"time":1.25,"connected":true,"tags":[{"name":"a\"b\\c\td\u0001)"
              "\xef\xbf\xbd"
              R"(","kind":4,"address":"0","station":1,"count":1,"quality":"good","values":[7]}]})"
              "\n");
}

namespace {

WriteReport write_report()
{
    WriteReport r;
    r.target.plc.name = "write";
    r.target.plc.kind = 4;
    r.target.plc.address = "10";
    r.target.plc.station = 3;
    r.target.plc.count = 2;
    r.values = {1234, 48879};
    r.result = plchost::DoneResult::Ok;
    r.read_back = WriteReport::ReadBack::Read;
    r.read_values = {1234, 48879};
    r.stats = some_stats();
    return r;
}

// A write that was not answered, so nothing was read back.
void unanswered(WriteReport &r, plchost::DoneResult result)
{
    r.result = result;
    r.read_back = WriteReport::ReadBack::NotTried;
    r.read_values.clear();
}

} // namespace

struct WriteCase {
    std::function<void(WriteReport &)> change;
    std::string text;
};

class PlcpollWriteText : public ::testing::TestWithParam<WriteCase> {};

TEST_P(PlcpollWriteText, SaysWhatTheWriteDidAndWhatWasReadBack)
{
    WriteReport r = write_report();
    GetParam().change(r);
    EXPECT_EQ(plcpoll::render_write(View::Lines, r), GetParam().text + kStatsText);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, PlcpollWriteText,
    ::testing::Values(
        WriteCase{[](WriteReport &) {},
                  "write kind 4 (word (class 4)) address 10 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> ok\n"
                  "read back: 1234 (0x04D2), 48879 (0xBEEF)\n"},
        WriteCase{[](WriteReport &r) {
                      r.read_values = {1234, 0};
                  },
                  "write kind 4 (word (class 4)) address 10 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> ok\n"
                  "read back: 1234 (0x04D2), 0 (0x0000) (differs from the value written)\n"},
        WriteCase{[](WriteReport &r) {
                      r.read_back = WriteReport::ReadBack::Failed;
                      r.read_values.clear();
                  },
                  "write kind 4 (word (class 4)) address 10 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> ok\n"
                  "read back: (read back failed)\n"},
        WriteCase{[](WriteReport &r) { unanswered(r, plchost::DoneResult::Failed); },
                  "write kind 4 (word (class 4)) address 10 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> "
                  "failed (communication failed)\n"},
        WriteCase{[](WriteReport &r) { unanswered(r, plchost::DoneResult::TimedOut); },
                  "write kind 4 (word (class 4)) address 10 station 3: 1234 (0x04D2), 48879 (0xBEEF) -> "
                  "failed (no completion in time)\n"}));

TEST(PlcpollOutput, WriteAsJson)
{
    WriteReport r = write_report();
    const std::string written = R"({"write":{"name":"write","kind":4,"address":"10","station":3,"count":2,)"
                                R"("values":[1234,48879]},)";
    EXPECT_EQ(plcpoll::render_write(View::Json, r),
              written + R"("result":"ok","read_back":[1234,48879],"stats":)" + kStatsJson + "}\n");
    unanswered(r, plchost::DoneResult::TimedOut);
    EXPECT_EQ(plcpoll::render_write(View::Json, r),
              written + R"("result":"failed","read_back":[],"stats":)" + kStatsJson + "}\n");
}

TEST(PlcpollOutput, FrameTraceLines)
{
    const uint8_t frame[] = {0x00, 0x01, 0xAB, 0xFF};
    EXPECT_EQ(plcpoll::render_frame(plchost::FrameDirection::Sent, frame, sizeof frame), "tx   4: 00 01 AB FF\n");
    EXPECT_EQ(plcpoll::render_frame(plchost::FrameDirection::Received, frame, 0), "rx   0:\n");
    std::vector<uint8_t> long_frame(260, 0x5A);
    const std::string line = plcpoll::render_frame(plchost::FrameDirection::Received, long_frame.data(), 260);
    EXPECT_EQ(line.substr(0, 11), "rx 260: 5A ");
    EXPECT_EQ(line.size(), 7 + 3 * 260 + 1);
}

TEST(PlcpollOutput, ValuesNotReadOrOfAFailingStationAreNeverShownAsNumbers)
{
    Snapshot s = snapshot();
    s.tags[0].quality = plchost::Quality::NotRead;
    s.tags[1].quality = plchost::Quality::Failing;
    EXPECT_EQ(plcpoll::render_refresh(View::Json, s, nullptr),
              R"({"time":1.25,"connected":true,"tags":[)"
              R"({"name":"word","kind":4,"address":"10","station":1,"count":2,"quality":"not_read","values":null},)"
              R"({"name":"coils","kind":1,"address":"0.3","station":2,"count":3,"quality":"failing","values":null}]})"
              "\n");
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, s, nullptr),
              "   1.250s  word             kind 4  10       stn 1   = -\n"
              "   1.250s  coils            kind 1  0.3      stn 2   = -\n");
    // A tag that becomes readable is a change.
    const Snapshot read = snapshot();
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, read, &s),
              "   1.250s  word             kind 4  10       stn 1   = 1234 (0x04D2), 48879 (0xBEEF)\n"
              "   1.250s  coils            kind 1  0.3      stn 2   = 1 0 1\n");
}

namespace {

TagReading typed_reading(const std::string &line, std::vector<plctags::Value> values)
{
    TagReading r;
    r.tag = plctags::parse_tag_line(line).value();
    r.values = std::move(values);
    return r;
}

} // namespace

TEST(PlcpollOutput, TypedTagsInJsonTableAndLines)
{
    Snapshot s = snapshot();
    s.tags = {typed_reading("flow,4,10,1,2,float32,CDAB,,,l/s", {3.14159}),
              typed_reading("temp,2,4,1,1,int16,,0.1,,C", {21.5}),
              typed_reading("odd,4,0,1,4,float32", {std::nan(""), -HUGE_VAL}),
              typed_reading("name,4,20,1,2,ascii", {std::string("OK")})};
    EXPECT_EQ(plcpoll::render_refresh(View::Json, s, nullptr),
              R"({"time":1.25,"connected":true,"tags":[)"
              R"({"name":"flow","kind":4,"address":"10","station":1,"count":2,"type":"float32","order":"CDAB",)"
              R"("unit":"l/s","quality":"good","values":[3.14159]},)"
              R"({"name":"temp","kind":2,"address":"4","station":1,"count":1,"type":"int16","scale":0.1,"offset":0.0,)"
              R"("unit":"C","quality":"good","values":[21.5]},)"
              R"({"name":"odd","kind":4,"address":"0","station":1,"count":4,"type":"float32","order":"ABCD",)"
              R"("quality":"good","values":["nan","-inf"]},)"
              R"({"name":"name","kind":4,"address":"20","station":1,"count":2,"type":"ascii","order":"ABCD",)"
              R"("quality":"good","values":["OK"]}]})"
              "\n");
    EXPECT_EQ(plcpoll::render_refresh(View::Lines, s, nullptr),
              "   1.250s  flow             kind 4  10       stn 1   = 3.14159 l/s\n"
              "   1.250s  temp             kind 2  4        stn 1   = 21.5 C\n"
              "   1.250s  odd              kind 4  0        stn 1   = nan, -inf\n"
              "   1.250s  name             kind 4  20       stn 1   = OK\n");
    const std::string table = plcpoll::render_refresh(View::Table, s, nullptr);
    EXPECT_NE(table.find("flow                4 float32 CDAB       10         1    3.14159 l/s\n"), std::string::npos)
        << table;
    EXPECT_NE(table.find("temp                2 int16              4          1    21.5 C\n"), std::string::npos)
        << table;
}

TEST(PlcpollTrend, KeepsTheLastValuesOfNumericTagsThatWereRead)
{
    Snapshot before = snapshot();
    before.tags.push_back(typed_reading("text,4,0,1,1,ascii", {std::string("A")}));
    plcpoll::carry_trends(&before, nullptr);
    EXPECT_EQ(before.tags[0].trend, (std::vector<double>{1234}));
    EXPECT_EQ(before.tags[1].trend, (std::vector<double>{1}));
    EXPECT_TRUE(before.tags[2].trend.empty());
    for (int i = 0; i < 12; ++i) {
        Snapshot now = before;
        now.tags[0].values = {uint64_t(i)};
        now.tags[1].quality = plchost::Quality::Failing;
        plcpoll::carry_trends(&now, &before);
        before = now;
    }
    EXPECT_EQ(before.tags[0].trend, (std::vector<double>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(before.tags[1].trend, (std::vector<double>{1}));
}

TEST(PlcpollTrend, SparklineSpansLowestToHighest)
{
    EXPECT_EQ(plcpoll::sparkline({}), "");
    EXPECT_EQ(plcpoll::sparkline({0, 7, 1, 6}), "\u2581\u2588\u2582\u2587");
    EXPECT_EQ(plcpoll::sparkline({-5, 5}), "\u2581\u2588");
    EXPECT_EQ(plcpoll::sparkline({3, 3, 3}), "\u2584\u2584\u2584");
}

TEST(PlcpollTrend, TheTableShowsTheTrendBeforeTheChangeMarker)
{
    Snapshot first = snapshot();
    first.trends = true;
    first.tags.pop_back();
    first.tags[0].trend = {1, 2};
    Snapshot second = first;
    second.tags[0].values = {uint64_t(3), uint64_t(48879)};
    second.tags[0].trend = {1, 2, 3};
    const std::string table = plcpoll::render_refresh(View::Table, second, &first);
    EXPECT_NE(table.find("STN  TREND        VALUE"), std::string::npos) << table;
    EXPECT_NE(table.find("1  \u2581\u2585\u2588        * \x1b[32m3 (0x0003), 48879 (0xBEEF)\x1b[0m\n"),
              std::string::npos)
        << table;
}

TEST(PlcpollOutput, StatisticsPerStationWithFrameLoss)
{
    plchost::Stats s = some_stats();
    plchost::StationStats one;
    one.requests = 8;
    one.good_replies = 8;
    one.rtt_min_ms = 0.25;
    one.rtt_avg_ms = 1;
    one.rtt_max_ms = 2;
    plchost::StationStats two;
    two.requests = 4;
    two.good_replies = 2;
    two.failed_replies = 2;
    two.retries = 1;
    two.give_ups = 1;
    two.timeouts = 1;
    two.failing = true;
    s.stations = {{1, one}, {2, two}};
    EXPECT_EQ(plcpoll::render_stats(s),
              "statistics: 12 requests, 10 good, 2 failed (1 retried, 1 given up), 1 timeouts, 3 reconnects, 5 passes, "
              "16.7% frame loss\n"
              "round trip: min 0.250 ms, avg 1.500 ms, max 4.000 ms\n"
              "station 1: 8 requests, 8 good, 0 failed (0 retried, 0 given up), 0 timeouts, 0.0% frame loss, round "
              "trip: min 0.250 ms, avg 1.000 ms, max 2.000 ms\n"
              "station 2: 4 requests, 2 good, 2 failed (1 retried, 1 given up), 1 timeouts, 50.0% frame loss, round "
              "trip: min 0.000 ms, avg 0.000 ms, max 0.000 ms (failing)\n"
              "driver return codes: 0 x1, 1 x10, 72 x1 (0 = failed, retried)\n");
    const std::string json = plcpoll::render_final_stats(View::Json, s);
    EXPECT_NE(json.find(R"("stations":{"1":{"requests":8,"good_replies":8,"failed_replies":0,"retries":0,"give_ups":0,)"
                        R"("timeouts":0,"frame_loss_percent":0.0,"rtt_ms":{"min":0.25,"avg":1.0,"max":2.0},)"
                        R"("failing":false},"2":{"requests":4,)"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find(R"("frame_loss_percent":50.0,)"), std::string::npos) << json;
}

TEST(PlcpollOutput, FrameLossIsTheShareOfExchangesWithoutAGoodReply)
{
    EXPECT_EQ(plcpoll::frame_loss_percent(0, 0), 0.0);
    EXPECT_EQ(plcpoll::frame_loss_percent(3, 1), 25.0);
    EXPECT_EQ(plcpoll::frame_loss_percent(0, 5), 100.0);
}

namespace {

plcpoll::ScanReport scan_report()
{
    plcpoll::ScanReport r;
    r.peer = "127.0.0.1:1502";
    r.timeout_ms = 200;
    r.probes = {{1, plcpoll::Answer::Reply, 0, 1, 0.5},
                {2, plcpoll::Answer::Absent, 0x0B, 72, -1},
                {3, plcpoll::Answer::Exception, 0x02, 72, -1},
                {4, plcpoll::Answer::Silence, 0, 42, -1},
                {5, plcpoll::Answer::Refused, 0, 12, -1}};
    return r;
}

} // namespace

TEST(PlcpollScanOutput, LinesForThePresentStationsAndASummary)
{
    const plcpoll::ScanReport r = scan_report();
    std::string lines;
    for (const plcpoll::Probe &p : r.probes)
        lines += plcpoll::render_probe(View::Lines, p);
    EXPECT_EQ(lines, "station   1  reply      round trip 0.500 ms\n"
                     "station   3  exception  exception 0x02 illegal data address\n"
                     "station   5  refused    a reply the driver refused (code 12)\n");
    EXPECT_EQ(plcpoll::render_scan(View::Lines, r), "scan of 127.0.0.1:1502 (modbus): 3 of 5 stations present: 1 3 5\n"
                                                    "answers: 1 reply, 1 exception, 1 refused, 1 absent, 1 silence\n");
}

TEST(PlcpollScanOutput, JsonListsEveryProbe)
{
    EXPECT_EQ(plcpoll::render_probe(View::Json, scan_report().probes[0]), "");
    EXPECT_EQ(plcpoll::render_scan(View::Json, scan_report()),
              R"({"scan":{"peer":"127.0.0.1:1502","link":"modbus","timeout_ms":200},"present":[1,3,5],"stations":[)"
              R"({"station":1,"answer":"reply","present":true,"rtt_ms":0.5},)"
              R"({"station":2,"answer":"absent","present":false,"exception":11},)"
              R"({"station":3,"answer":"exception","present":true,"exception":2},)"
              R"({"station":4,"answer":"silence","present":false},)"
              R"({"station":5,"answer":"refused","present":true,"code":12}]})"
              "\n");
}

TEST(PlcpollScanOutput, ExceptionNames)
{
    EXPECT_EQ(plcpoll::exception_text(0x0B), "0x0B gateway target device failed to respond");
    EXPECT_EQ(plcpoll::exception_text(0x0A), "0x0A gateway path unavailable");
    EXPECT_EQ(plcpoll::exception_text(0x01), "0x01 illegal function");
    EXPECT_EQ(plcpoll::exception_text(0x07), "0x07");
    EXPECT_EQ(plcpoll::exception_text(0x42), "0x42");
}
