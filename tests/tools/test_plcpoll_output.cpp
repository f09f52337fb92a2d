// What plcpoll shows: a snapshot of values and statistics rendered to the
// exact table, plain lines and JSON, the statistics text, the write report
// and the frame trace.
#include "output.h"

#include <gtest/gtest.h>

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
