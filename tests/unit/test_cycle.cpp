// ComCommunication: which request goes out next, burst limits, disabled
// stations, builder choice and requests that cannot be built.
#include <gtest/gtest.h>

#include "driver_fixture.h"

namespace {

class Cycle : public ExchangeTest {
protected:
    // start_addr of every read_list entry, in list order.
    static std::vector<int> read_starts()
    {
        std::vector<int> s;
        for (const RW_VAR &v : PLC_driver.read_list)
            s.push_back(v.start_addr);
        return s;
    }
};

TEST_F(Cycle, AllListsEmptyReturnsNullAndRaisesCycleDone)
{
    PLC_driver.write_burst = 3;
    PLC_driver.once_burst = 2;
    info.cycle_done = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(info.cycle_done, 1);
    EXPECT_EQ(PLC_driver.write_burst, 0);
    EXPECT_EQ(PLC_driver.once_burst, 0);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_EQ(PLC_driver.last_list, 100);
}

TEST_F(Cycle, QueuedRequestIsReturnedAgainWithoutLookingAtTheLists)
{
    PLC_driver.read_list.append(make_var(4, 100, 10, 1));
    Protocol *first = ComCommunication();
    ASSERT_NE(first, nullptr);
    const QByteArray frame = first->frame;
    EXPECT_EQ(frame, bytes({0, 0, 0, 0, 0, 6, 1, 3, 0, 0x64, 0, 0x0A}));

    // Change what a fresh choice would see: a pending write, the flag and
    // the counters. None of it may be touched while a request is queued.
    PLC_driver.write_list.append(make_write(4, 7, 1, 1, bytes({1, 2})));
    info.cycle_done = 5;
    PLC_driver.write_burst = 2;
    for (int i = 0; i < 3; ++i) {
        Protocol *again = ComCommunication();
        EXPECT_EQ(again, first) << "call " << i;
        EXPECT_EQ(again->frame, frame);
    }
    EXPECT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_EQ(PLC_driver.write_list.first().start_addr, 7);
    EXPECT_EQ(PLC_driver.read_list.first().status, -1);
    EXPECT_EQ(info.cycle_done, 5);
    EXPECT_EQ(PLC_driver.write_burst, 2);
    EXPECT_EQ(PLC_driver.last_list, 0);
    EXPECT_EQ(PLC_driver.transaction_ids[1], 1);
}

TEST_F(Cycle, SevenWritesGoFiveThenOneCyclicReadThenTwo)
{
    PLC_driver.read_list.append(make_var(4, 500, 2, 1));
    for (int i = 1; i <= 7; ++i)
        PLC_driver.write_list.append(make_write(4, i, 1, 1, bytes({i, 0}), 1, i));

    // 'W' + start address for a write, 'R' + start address for a read.
    std::vector<std::pair<char, int>> sent;
    for (int n = 0; n < 10; ++n) {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        sent.emplace_back(p->var.rw_flag ? 'W' : 'R', p->var.start_addr);
        RW_VAR *ret = answer(p);
        EXPECT_EQ(ret->status, 1);
    }
    const std::vector<std::pair<char, int>> expected = {{'W', 1},   {'W', 2}, {'W', 3}, {'W', 4},   {'W', 5},
                                                        {'R', 500}, {'W', 6}, {'W', 7}, {'R', 500}, {'R', 500}};
    EXPECT_EQ(sent, expected);
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
    EXPECT_EQ(write_done_count(1), 7u);
}

TEST_F(Cycle, BurstsOfFiveWritesThenFiveOneShotReadsThenCyclicRead)
{
    PLC_driver.read_list.append(make_var(4, 900, 1, 1));
    for (int i = 0; i < 6; ++i) {
        PLC_driver.write_list.append(make_write(4, i, 1, 1, bytes({0, 0}), 1, 10 + i));
        PLC_driver.once_read_list.append(make_var(4, 100 + i, 1, 1, 2, 20 + i));
    }
    std::vector<int> starts;
    std::vector<int> lists;
    for (int n = 0; n < 14; ++n) {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        starts.push_back(p->var.start_addr);
        lists.push_back(PLC_driver.last_list);
        answer(p);
    }
    const std::vector<int> expected_starts = {0, 1, 2, 3, 4, 100, 101, 102, 103, 104, 900, 5, 105, 900};
    const std::vector<int> expected_lists = {1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 0, 1, 2, 0};
    EXPECT_EQ(starts, expected_starts);
    EXPECT_EQ(lists, expected_lists);
}

TEST_F(Cycle, UsedUpBurstWithoutCyclicVariablesSendsNothingOnceThenResumes)
{
    for (int i = 0; i < 6; ++i)
        PLC_driver.write_list.append(make_write(4, i, 1, 1, bytes({0, 0})));
    for (int i = 0; i < 5; ++i) {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->var.start_addr, i);
        answer(p);
    }
    EXPECT_EQ(PLC_driver.write_burst, 5);
    info.cycle_done = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(info.cycle_done, 1);
    EXPECT_EQ(PLC_driver.write_burst, 0);
    EXPECT_EQ(PLC_driver.once_burst, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 5);
    EXPECT_EQ(PLC_driver.write_burst, 1);
}

TEST_F(Cycle, AllCyclicEntriesDisabledSendNothingAndKeepTheOrder)
{
    for (int s = 2; s <= 4; ++s) {
        PLC_driver.read_list.append(make_var(4, 10 * s, 1, s));
        EnCommStation(s, 0);
    }
    PLC_driver.last_list = 1;
    PLC_driver.write_burst = 2;
    info.cycle_done = 0;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(read_starts(), (std::vector<int>{20, 30, 40}));
    for (const RW_VAR &v : PLC_driver.read_list)
        EXPECT_EQ(v.status, 0);
    EXPECT_EQ(PLC_driver.last_list, 1);
    EXPECT_EQ(info.cycle_done, 1);
    EXPECT_EQ(PLC_driver.write_burst, 0);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
}

TEST_F(Cycle, DisabledCyclicEntriesAreSkippedAndKept)
{
    PLC_driver.read_list.append(make_var(4, 1, 1, 2));
    PLC_driver.read_list.append(make_var(4, 2, 1, 2));
    PLC_driver.read_list.append(make_var(4, 3, 1, 1));
    EnCommStation(2, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 3);
    EXPECT_EQ(read_starts(), (std::vector<int>{3, 1, 2}));
    EXPECT_EQ(PLC_driver.read_list.first().status, -1);
    EXPECT_EQ(PLC_driver.last_list, 0);
}

TEST_F(Cycle, DisabledWriteHeadIsDroppedAndTheNextWriteSentInTheSameCall)
{
    PLC_driver.write_list.append(make_write(4, 1, 1, 2, bytes({1, 0}), 1, 1));
    PLC_driver.write_list.append(make_write(4, 2, 1, 2, bytes({2, 0}), 1, 2));
    PLC_driver.write_list.append(make_write(4, 3, 1, 1, bytes({3, 0}), 1, 3));
    EnCommStation(2, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 3);
    EXPECT_EQ(p->var.station, 1);
    ASSERT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_EQ(PLC_driver.write_list.first().start_addr, 3); // stays until its reply
    EXPECT_EQ(PLC_driver.last_list, 1);
    EXPECT_EQ(PLC_driver.write_burst, 1);
    EXPECT_TRUE(callback_events().empty()); // dropped silently
}

TEST_F(Cycle, WriteListOfOnlyDisabledStationsFallsThroughToTheOneShotList)
{
    PLC_driver.write_list.append(make_write(4, 1, 1, 2, bytes({1, 0})));
    PLC_driver.once_read_list.append(make_var(4, 40, 1, 1));
    EnCommStation(2, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 40);
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
    EXPECT_EQ(PLC_driver.last_list, 2);
    EXPECT_EQ(PLC_driver.write_burst, 0);
    EXPECT_EQ(PLC_driver.once_burst, 1);
}

TEST_F(Cycle, DisabledOneShotEntriesAreDroppedAndTheNextSent)
{
    PLC_driver.once_read_list.append(make_var(4, 1, 1, 5));
    PLC_driver.once_read_list.append(make_var(4, 2, 1, 5));
    PLC_driver.once_read_list.append(make_var(3, 3, 2, 1));
    EnableEthernet(5, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 3);
    EXPECT_EQ(p->frame, bytes({0, 0, 0, 0, 0, 6, 1, 3, 0xA0, 3, 0, 2}));
    ASSERT_EQ(PLC_driver.once_read_list.size(), 1);
    EXPECT_EQ(PLC_driver.once_read_list.first().start_addr, 3);
    EXPECT_EQ(PLC_driver.last_list, 2);
    EXPECT_EQ(PLC_driver.once_burst, 1);
    EXPECT_TRUE(callback_events().empty());
}

TEST_F(Cycle, AllOneShotEntriesDisabledFallThroughToTheCyclicList)
{
    PLC_driver.once_read_list.append(make_var(4, 1, 1, 5));
    PLC_driver.read_list.append(make_var(4, 77, 1, 1));
    EnCommStation(5, 0);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.start_addr, 77);
    EXPECT_TRUE(PLC_driver.once_read_list.isEmpty());
    EXPECT_EQ(PLC_driver.last_list, 0);
}

TEST_F(Cycle, CyclicReadMarksTheEntryAndSendsACopyWithTheOldStatus)
{
    PLC_driver.read_list.append(make_var(4, 10, 2, 1));
    PLC_driver.read_list.append(make_var(4, 20, 2, 1));
    PLC_driver.write_burst = 3;
    PLC_driver.once_burst = 4;
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->var.status, 0);
    EXPECT_EQ(PLC_driver.read_list.at(0).status, -1);
    EXPECT_EQ(PLC_driver.read_list.at(1).status, 0);
    EXPECT_EQ(read_starts(), (std::vector<int>{10, 20})); // not moved yet
    EXPECT_EQ(PLC_driver.write_burst, 0);
    EXPECT_EQ(PLC_driver.once_burst, 0);
    EXPECT_EQ(PLC_driver.last_list, 0);
}

TEST_F(Cycle, LinkModeZeroBuildsModbusFramesEvenForRemoteMadeVariables)
{
    RW_VAR r = make_var(4, 100, 10, 1);
    r.link_mode = 1;
    PLC_driver.read_list.append(r);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame_len, 12);
    EXPECT_EQ(p->frame, bytes({0, 0, 0, 0, 0, 6, 1, 3, 0, 0x64, 0, 0x0A}));
    EXPECT_EQ(p->reply_len, 29);
    EXPECT_EQ(p->reply_header_len, 9);
}

TEST_F(Cycle, NonZeroLinkModeBuildsRemoteFramesEvenForModbusMadeVariables)
{
    info.link_mode = 3;
    RW_VAR r = make_var(4, 0x1234, 10, 1, 2);
    r.link_mode = 0;
    PLC_driver.read_list.append(r);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame_len, 22);
    ASSERT_EQ(p->frame.size(), 22);
    EXPECT_EQ(uchar(p->frame[0]), 22);
    EXPECT_EQ(p->frame.mid(7, 4), bytes({0, 0, 0x12, 0x34}));
    EXPECT_EQ(p->reply_len, 25);
    EXPECT_EQ(p->reply_header_len, 3);
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
}

TEST_F(Cycle, WriteBuilderFollowsTheCurrentLinkMode)
{
    RW_VAR w = make_write(4, 10, 1, 1, bytes({0x34, 0x12}));
    w.link_mode = 0;
    PLC_driver.write_list.append(w);
    info.link_mode = 1;
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame_len, 24); // remote header, two data bytes, check byte
    EXPECT_EQ(uchar(p->frame[0]), 24);
    EXPECT_EQ(p->reply_len, 8);
    answer(p);

    w.link_mode = 1;
    PLC_driver.write_list.append(w);
    info.link_mode = 0;
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame_len, 15); // Modbus function 16, one register
    EXPECT_EQ(uchar(p->frame[7]), 16);
    EXPECT_EQ(p->frame.mid(13), bytes({0x12, 0x34}));
    EXPECT_EQ(p->reply_len, 12);
}

TEST_F(Cycle, BitWriteQueuesTheReadThenTheWriteAndReturnsTheRead)
{
    PLC_driver.write_list.append(make_write(5, 17, 1, 1, bytes({1})));
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(p, &PLC_driver.request_queue.first());
    EXPECT_EQ(p->var.ext_param1, -1);
    EXPECT_EQ(p->frame, bytes({0, 0, 0, 0, 0, 6, 1, 3, 0, 1, 0, 1}));
    EXPECT_EQ(info.replies_expected, 2);
    EXPECT_EQ(PLC_driver.last_list, 1);
    EXPECT_EQ(ComCommunication(), p);
}

TEST_F(Cycle, CyclicEntryThatBuildsNothingStaysInFlightAndIsChosenAgain)
{
    // Kind 5 has no Modbus read of its own: read_register queues nothing.
    PLC_driver.read_list.append(make_var(5, 3, 1, 1));
    PLC_driver.read_list.append(make_var(4, 9, 1, 1));
    PLC_driver.write_burst = 2;
    for (int i = 0; i < 2; ++i) {
        info.cycle_done = 0;
        EXPECT_EQ(ComCommunication(), nullptr) << "call " << i;
        EXPECT_EQ(info.cycle_done, 1);
        EXPECT_EQ(PLC_driver.write_burst, 0);
        EXPECT_EQ(PLC_driver.once_burst, 0);
        EXPECT_EQ(PLC_driver.last_list, 0);
        EXPECT_EQ(read_starts(), (std::vector<int>{3, 9}));
        EXPECT_EQ(PLC_driver.read_list.first().status, -1);
        EXPECT_EQ(PLC_driver.read_list.at(1).status, 0);
    }
    EXPECT_EQ(PLC_driver.transaction_ids[1], 0);
}

TEST_F(Cycle, OneShotEntryThatBuildsNothingStaysAtTheHead)
{
    PLC_driver.once_read_list.append(make_var(7, 3, 1, 1));
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
    EXPECT_EQ(PLC_driver.last_list, 2);
    EXPECT_EQ(PLC_driver.once_burst, 0); // reset because nothing was queued
    EXPECT_EQ(info.cycle_done, 1);
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
}

TEST_F(Cycle, HeadAddressStaysTheSameUntilTheReplyRetiresIt)
{
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    PLC_driver.read_list.append(make_var(4, 2, 1, 1));
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    QByteArray bad;
    RW_VAR *ret = DataCom(&bad, 0); // a time-out: retried
    EXPECT_EQ(ret->status, 0);
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(p->var.start_addr, 1);
    answer(p);
    Protocol *next = ComCommunication();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->var.start_addr, 2);
}

} // namespace

TEST(CycleWithoutRecord, NoCommInfoRecordSendsNothing)
{
    reset_driver(nullptr);
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0})));
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_EQ(PLC_driver.read_list.first().status, 0);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    reset_driver(nullptr);
}
