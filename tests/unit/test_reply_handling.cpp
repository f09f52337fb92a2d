// DataCom, the two area handlers and the driver return codes: retries,
// give-up, list bookkeeping, callbacks and the result record.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <ostream>

namespace {

class Reply : public ExchangeTest {
protected:
    // Queues a hand-made request whose expected reply length is reply_len.
    static void queue(const RW_VAR &var, int reply_len, int header_len = 9, int data_len = 0,
                      const QByteArray &frame = bytes({0x12, 0x34, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1}))
    {
        PLC_driver.request_queue.append(make_request(var, frame, reply_len, header_len, data_len));
    }
};

// ------------------------------------------------------------ return codes

namespace {

// Queues the request in flight of a requester of the given kind.
void queue_for_requester(int source_type)
{
    PLC_driver.request_queue.clear();
    PLC_driver.request_queue.append(make_request(make_var(4, 0, 1, 1, source_type), QByteArray(12, 0), 11, 9, 2));
}

struct OutcomeCase {
    int outcome;
    int code; // for a requester of kind 5
};

std::ostream &operator<<(std::ostream &os, const OutcomeCase &c)
{
    return os << "outcome " << c.outcome;
}

const OutcomeCase kOutcomes[] = {{0, 1},   {1, 16},  {2, 46},  {3, 76},  {4, 100},
                                 {5, 116}, {6, 146}, {7, 176}, {8, 200}, {-1, 200}};

class ReturnCodes : public DriverTableTest<OutcomeCase> {};

// An error family: its outcome and base; the requester's kind is added.
struct Family {
    int outcome;
    int base;
};

std::ostream &operator<<(std::ostream &os, const Family &f)
{
    return os << "outcome " << f.outcome << " base " << f.base;
}

const Family kFamilies[] = {{1, 10}, {2, 40}, {3, 70}, {5, 110}, {6, 140}, {7, 170}};

class ErrorFamilies : public DriverTableTest<Family> {};

} // namespace

TEST_P(ReturnCodes, OutcomeMapsToItsCode)
{
    queue_for_requester(5);
    EXPECT_EQ(GetDriverReturnValue(GetParam().outcome), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(EveryOutcome, ReturnCodes, ::testing::ValuesIn(kOutcomes));

TEST_P(ErrorFamilies, SwitchErrorReturnAddsTheRequesterKind)
{
    const Family &f = GetParam();
    // Requester kinds 1..11 each have their own code; any other kind takes base + 1.
    const struct {
        int source_type;
        int above_base;
    } requesters[] = {{0, 1}, {1, 2}, {5, 6}, {11, 12}, {12, 1}, {-3, 1}};
    for (const auto &r : requesters) {
        queue_for_requester(r.source_type);
        EXPECT_EQ(SwitchErrorReturn(f.base), f.base + r.above_base) << "source_type " << r.source_type;
        EXPECT_EQ(GetDriverReturnValue(f.outcome), f.base + r.above_base) << "source_type " << r.source_type;
    }
}

INSTANTIATE_TEST_SUITE_P(EveryFamily, ErrorFamilies, ::testing::ValuesIn(kFamilies));

// ------------------------------------------------------------ area handlers

TEST_F(Reply, LocalNoReplyWhileThirteenExpected)
{
    queue(make_var(4, 0, 2, 1, 3), 13);
    QByteArray empty;
    EXPECT_EQ(DealDataOfLocalArea(&empty, 0), 44);
    EXPECT_EQ(DealDataOfLocalArea(nullptr, 0), 44);
}

TEST_F(Reply, LocalLengthMismatchAndContentErrors)
{
    queue(make_var(4, 0, 2, 1, 0), 13);
    QByteArray r = echo_reply(&PLC_driver.request_queue.first());
    EXPECT_EQ(DealDataOfLocalArea(&r, 12), 71);
    EXPECT_EQ(DealDataOfLocalArea(&r, 14), 71);
    r[1] = char(0x35); // not the request's transaction identifier
    EXPECT_EQ(DealDataOfLocalArea(&r, 13), 11);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Reply, RemoteSevenBytesWhileNineExpected)
{
    queue(make_var(4, 0, 2, 1, 12, 0, 9), 9);
    QByteArray r = QByteArray(7, 0);
    EXPECT_EQ(DealDataOfRemoteArea(&r, 7), 171);
    EXPECT_EQ(DealDataOfRemoteArea(&r, 0), 141);
    QByteArray bad(9, 0); // wrong echo
    EXPECT_EQ(DealDataOfRemoteArea(&bad, 9), 111);
}

TEST_F(Reply, ExpectedLengthMinusOneGoesOnToTheContentCheck)
{
    queue(make_var(4, 0x10, 1, 1), -1, 9, 2);
    QByteArray good = bytes({0x12, 0x34, 0, 0, 0, 5, 1, 3, 2, 0xAB, 0xCD});
    EXPECT_EQ(DealDataOfLocalArea(&good, 11), 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 0x10)), 0xABCD);
    QByteArray longer = good + QByteArray(30, 0);
    EXPECT_EQ(DealDataOfLocalArea(&longer, longer.size()), 1);
    QByteArray shorter = good.left(5); // the length is accepted, the content is not
    EXPECT_EQ(DealDataOfLocalArea(&shorter, 5), 11);
    QByteArray none;
    EXPECT_EQ(DealDataOfLocalArea(&none, 0), 41); // -1 is still "a reply was expected"
}

TEST_F(Reply, ZeroExpectedAndZeroReceivedPasses)
{
    // A broadcast write (station 0) expects nothing and takes any reply.
    queue(make_write(4, 0, 1, 0, bytes({0, 0})), 0, 0, 0);
    QByteArray none;
    EXPECT_EQ(DealDataOfLocalArea(&none, 0), 1);
    EXPECT_EQ(DealDataOfRemoteArea(&none, 0), 100);
}

TEST_F(Reply, RemoteValidReplyWithoutMarkerStoresNothing)
{
    queue(make_var(4, 0x10, 1, 1, 0, 0, 9), 11, 9, 2);
    QByteArray r = bytes({0x12, 0x34, 0, 0, 0, 5, 1, 3, 2, 0xAB, 0xCD});
    EXPECT_EQ(DealDataOfRemoteArea(&r, 11), 100);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(Reply, RemoteMarkedReplyPatchesTheWaitingWriteAndReportsOne)
{
    RW_VAR read = make_var(4, 0, 1, 1, 0, 0, 9);
    read.ext_param1 = -1;
    queue(read, 11, 9, 2);
    QByteArray write_frame = bytes({0, 1, 0, 0, 0, 9, 1, 16, 0, 0, 0, 1, 2, 0, 0});
    queue(make_write(4, 0, 1, 1, bytes({0, 0})), 12, 0, 0, write_frame);
    PLC_driver.write_list.append(make_write(5, 3, 1, 1, bytes({1})));
    QByteArray r = bytes({0x12, 0x34, 0, 0, 0, 5, 1, 3, 2, 0x12, 0x34});
    info.replies_received = 0;
    EXPECT_EQ(DealDataOfRemoteArea(&r, 11), 1);
    EXPECT_EQ(PLC_driver.request_queue.at(1).frame.mid(13), bytes({0x12, 0x3C}));
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    info.replies_received = 1;
    EXPECT_EQ(DealDataOfRemoteArea(&r, 11), 100);
}

// ------------------------------------------------------------ DataCom

TEST_F(Reply, EmptyQueueReturnsStatusOneAndChangesNothingElse)
{
    PLC_driver.ret_var = make_var(3, 44, 2, 7, 5, 6);
    PLC_driver.ret_var.status = 171;
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    info.retry_count = 2;
    info.replies_received = 4;
    info.cycle_done = 0;
    PLC_driver.cycle_count = 3;
    PLC_driver.last_list = 1;
    QByteArray r = bytes({1, 2, 3, 4, 5, 6, 7, 8, 9});
    RW_VAR *ret = DataCom(&r, r.size());
    EXPECT_EQ(ret, &PLC_driver.ret_var);
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 44);
    EXPECT_EQ(ret->source_type, 5);
    EXPECT_EQ(info.retry_count, 2);
    EXPECT_EQ(info.replies_received, 4);
    EXPECT_EQ(info.cycle_done, 0);
    EXPECT_EQ(PLC_driver.cycle_count, 3);
    EXPECT_EQ(PLC_driver.last_list, 1);
    EXPECT_FALSE(PLC_driver.comm_failed);
    EXPECT_TRUE(callback_events().empty());
    EXPECT_EQ(DataCom(nullptr, 0)->status, 1);
}

TEST_F(Reply, RetryLimitTwoAndThreeFailures)
{
    info.retry_limit = 2;
    PLC_driver.read_list.append(make_var(4, 100, 2, 1, 3));
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    QByteArray none;
    for (int i = 1; i <= 2; ++i) {
        RW_VAR *ret = DataCom(&none, 0);
        EXPECT_EQ(ret->status, 0);
        EXPECT_EQ(info.retry_count, i);
        ASSERT_EQ(PLC_driver.request_queue.size(), 1);
        EXPECT_EQ(ComCommunication(), p);
        EXPECT_FALSE(PLC_driver.comm_failed);
    }
    PLC_driver.cycle_count = 1;
    info.cycle_done = 1;
    RW_VAR *ret = DataCom(&none, 0);
    EXPECT_EQ(ret->status, 44); // no reply, requester kind 3
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_EQ(info.retry_count, 0);
    EXPECT_EQ(info.cycle_done, 0);
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_TRUE(PLC_driver.comm_failed);
    // The cyclic entry is finished (rotated), never purged.
    ASSERT_EQ(PLC_driver.read_list.size(), 1);
    EXPECT_EQ(PLC_driver.read_list.first().status, 0);
    EXPECT_EQ(ret->start_addr, 100);
    // read_done_cb still reports the failure.
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].kind, CallbackEvent::ReadDone);
    EXPECT_EQ(callback_events()[0].source_type, 3);
}

TEST_F(Reply, GiveUpDropsEveryQueuedRequest)
{
    info.retry_limit = 0;
    PLC_driver.write_list.append(make_write(5, 3, 1, 1, bytes({1}), 2, 8));
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    QByteArray r = echo_reply(p);
    r[0] = char(r[0] ^ 0x55);
    RW_VAR *ret = DataCom(&r, r.size());
    EXPECT_EQ(ret->status, 13); // content invalid, requester kind 2
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
}

TEST_F(Reply, GoodCyclicReplyRotatesTheEntry)
{
    RW_VAR a = make_var(4, 10, 2, 1, 4, 40);
    a.name_text = QStringLiteral("tank level");
    a.address_text = QStringLiteral("10");
    PLC_driver.read_list.append(a);
    PLC_driver.read_list.append(make_var(4, 20, 2, 1));
    PLC_driver.ret_var.data = bytes({9, 9});
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    RW_VAR *ret = answer(p, 7);
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 10);
    EXPECT_EQ(ret->count, 2);
    EXPECT_EQ(ret->source_type, 4);
    EXPECT_EQ(ret->source_id, 40);
    EXPECT_EQ(ret->name_text, QStringLiteral("tank level"));
    EXPECT_EQ(ret->address_text, QStringLiteral("10"));
    EXPECT_TRUE(ret->data.isEmpty());
    ASSERT_EQ(PLC_driver.read_list.size(), 2);
    EXPECT_EQ(PLC_driver.read_list.at(0).start_addr, 20);
    EXPECT_EQ(PLC_driver.read_list.at(1).start_addr, 10);
    EXPECT_EQ(PLC_driver.read_list.at(1).status, 0);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_EQ(info.replies_received, 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 10)), 0x0707);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 11)), 0x0707);
    EXPECT_TRUE(callback_events().empty());
}

TEST_F(Reply, CyclicHeadNotInFlightIsLeftAlone)
{
    PLC_driver.read_list.append(make_var(4, 10, 1, 1));
    PLC_driver.read_list.append(make_var(4, 20, 1, 1));
    queue(make_var(4, 10, 1, 1), 11, 9, 2);
    PLC_driver.last_list = 0;
    PLC_driver.ret_var.start_addr = 555;
    RW_VAR *ret = answer(&PLC_driver.request_queue.first());
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 555);
    EXPECT_EQ(PLC_driver.read_list.first().start_addr, 10);
}

TEST_F(Reply, TwoWritesOfOneRequesterReportOnlyTheLast)
{
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 6, 60));
    PLC_driver.write_list.append(make_write(4, 2, 1, 1, bytes({2, 0}), 6, 60));
    RW_VAR *ret = answer(ComCommunication());
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 1);
    EXPECT_EQ(ret->rw_flag, 1);
    EXPECT_TRUE(ret->data.isEmpty());
    EXPECT_TRUE(callback_events().empty());
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    ret = answer(ComCommunication());
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 2);
    ASSERT_EQ(callback_events().size(), 1u);
    const CallbackEvent &e = callback_events()[0];
    EXPECT_EQ(e.kind, CallbackEvent::WriteDone);
    EXPECT_EQ(e.a, 77);
    EXPECT_EQ(e.source_type, 6);
    EXPECT_EQ(e.source_id, 60);
    EXPECT_EQ(e.result, 1);
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
}

TEST_F(Reply, WritesOfOtherRequestersDoNotHoldBackTheReport)
{
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 6, 60));
    PLC_driver.write_list.append(make_write(4, 2, 1, 1, bytes({2, 0}), 6, 61));
    PLC_driver.write_list.append(make_write(4, 3, 1, 1, bytes({2, 0}), 7, 60));
    answer(ComCommunication());
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].source_id, 60);
    EXPECT_EQ(callback_events()[0].result, 1);
}

TEST_F(Reply, CallbackSearchComparesLaterLinkIdsWithTheHostsLocalLinkId)
{
    // Later entry made for link 3, host's local link 0: it does not count
    // as a later write of the same requester, so the head reports success.
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 6, 60, 0));
    PLC_driver.write_list.append(make_write(4, 2, 1, 1, bytes({2, 0}), 6, 60, 3));
    answer(ComCommunication());
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].result, 1);

    // Host's local link 3, head made for link 0 (a remote-area reply, 100)
    // and later entry for link 3: the later entry matches the host, so the
    // head reports nothing although its own link id differs.
    reset_with_callbacks(&info);
    info.local_link_id = 3;
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 6, 60, 0));
    PLC_driver.write_list.append(make_write(4, 2, 1, 1, bytes({2, 0}), 6, 60, 3));
    RW_VAR *ret = answer(ComCommunication());
    EXPECT_EQ(ret->status, 100);
    EXPECT_TRUE(callback_events().empty());
    ret = answer(ComCommunication());
    EXPECT_EQ(ret->status, 1);
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].result, 1);
}

TEST_F(Reply, GivenUpWriteReportsTwoThenReadDoneThenPurgesTheRequester)
{
    info.retry_limit = 0;
    info.station_from_address = 0;
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 3, 9));
    PLC_driver.write_list.append(make_write(4, 2, 1, 1, bytes({1, 0}), 4, 9));
    PLC_driver.write_list.append(make_write(4, 3, 1, 1, bytes({1, 0}), 3, 9));
    PLC_driver.write_list.append(make_write(4, 4, 1, 2, bytes({1, 0}), 3, 9));
    PLC_driver.write_list.append(make_write(4, 5, 1, 1, bytes({1, 0}), 3, 8));
    PLC_driver.once_read_list.append(make_var(4, 6, 1, 1, 3, 9));
    ASSERT_NE(ComCommunication(), nullptr);
    QByteArray none;
    RW_VAR *ret = DataCom(&none, 0);
    EXPECT_EQ(ret->status, 44);
    EXPECT_EQ(ret->start_addr, 1);
    EXPECT_TRUE(PLC_driver.comm_failed);
    ASSERT_EQ(callback_events().size(), 2u);
    EXPECT_EQ(callback_events()[0].kind, CallbackEvent::WriteDone);
    EXPECT_EQ(callback_events()[0].a, 77);
    EXPECT_EQ(callback_events()[0].source_type, 3);
    EXPECT_EQ(callback_events()[0].source_id, 9);
    EXPECT_EQ(callback_events()[0].result, 2);
    EXPECT_EQ(callback_events()[1].kind, CallbackEvent::ReadDone);
    EXPECT_TRUE(callback_events()[1].list_given);
    EXPECT_EQ(callback_events()[1].a, 0); // empty list
    EXPECT_EQ(callback_events()[1].source_type, 3);
    EXPECT_EQ(callback_events()[1].result, 1);
    // Every other write of requester (3, 9) is gone, whatever its station;
    // the one-shot list is not purged after a write.
    ASSERT_EQ(PLC_driver.write_list.size(), 2);
    EXPECT_EQ(PLC_driver.write_list.at(0).start_addr, 2);
    EXPECT_EQ(PLC_driver.write_list.at(1).start_addr, 5);
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
}

TEST_F(Reply, PurgeMatchesTheStationWhenStationsComeFromTheAddress)
{
    info.retry_limit = 0;
    info.station_from_address = 1;
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 3, 9));
    PLC_driver.write_list.append(make_write(4, 3, 1, 1, bytes({1, 0}), 3, 9));
    PLC_driver.write_list.append(make_write(4, 4, 1, 2, bytes({1, 0}), 3, 9));
    ASSERT_NE(ComCommunication(), nullptr);
    QByteArray none;
    EXPECT_EQ(DataCom(&none, 0)->status, 44);
    ASSERT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_EQ(PLC_driver.write_list.first().start_addr, 4);
    EXPECT_EQ(PLC_driver.write_list.first().station, 2);
}

TEST_F(Reply, GivenUpOneShotReadIsReportedAndItsRequesterPurged)
{
    info.retry_limit = 0;
    PLC_driver.once_read_list.append(make_var(4, 1, 1, 1, 11, 5));
    PLC_driver.once_read_list.append(make_var(4, 2, 1, 1, 11, 5));
    PLC_driver.once_read_list.append(make_var(4, 3, 1, 1, 11, 6));
    PLC_driver.write_list.append(make_write(4, 9, 1, 1, bytes({0, 0}), 11, 5));
    PLC_driver.write_burst = 5; // let the one-shot list go first
    ASSERT_NE(ComCommunication(), nullptr);
    EXPECT_EQ(PLC_driver.last_list, 2);
    QByteArray r(5, 0);
    RW_VAR *ret = DataCom(&r, 5);
    EXPECT_EQ(ret->status, 82); // length error, requester kind 11
    ASSERT_EQ(callback_events().size(), 2u);
    EXPECT_EQ(callback_events()[0].kind, CallbackEvent::WriteDone);
    EXPECT_EQ(callback_events()[0].result, 2);
    EXPECT_EQ(callback_events()[1].kind, CallbackEvent::ReadDone);
    ASSERT_EQ(PLC_driver.once_read_list.size(), 1);
    EXPECT_EQ(PLC_driver.once_read_list.first().source_id, 6);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
}

TEST_F(Reply, OneShotRemoteAreaReplyMakesNoCallback)
{
    PLC_driver.once_read_list.append(make_var(4, 1, 1, 1, 2, 20, 5));
    PLC_driver.once_read_list.append(make_var(4, 2, 1, 1, 2, 21, 0));
    RW_VAR *ret = answer(ComCommunication());
    EXPECT_EQ(ret->status, 100);
    EXPECT_EQ(ret->source_id, 20);
    EXPECT_TRUE(callback_events().empty());
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    ret = answer(ComCommunication(), 1);
    EXPECT_EQ(ret->status, 1);
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].source_id, 21);
    EXPECT_EQ(callback_events()[0].result, 1);
    EXPECT_TRUE(PLC_driver.once_read_list.isEmpty());
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 2)), 0x0101);
}

TEST_F(Reply, PassAccountingCountsLocalRepliesOverTheReadList)
{
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    PLC_driver.read_list.append(make_var(4, 2, 1, 1));
    info.cycle_done = 0;
    answer(ComCommunication());
    EXPECT_EQ(PLC_driver.cycle_count, 1);
    answer(ComCommunication());
    EXPECT_EQ(PLC_driver.cycle_count, 2);
    EXPECT_EQ(info.cycle_done, 0);
    answer(ComCommunication());
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_EQ(info.cycle_done, 1);
    answer(ComCommunication()); // no counting while cycle_done is 1
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_EQ(info.cycle_done, 1);
}

TEST_F(Reply, PassAccountingIgnoresRemoteAreaReplies)
{
    PLC_driver.read_list.append(make_var(4, 1, 1, 1, 0, 0, 4));
    info.cycle_done = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(answer(ComCommunication())->status, 100);
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_EQ(info.cycle_done, 0);
}

TEST_F(Reply, TwoReplyRequestCompletesOnTheSecond)
{
    PLC_driver.write_list.append(make_write(8, 5, 1, 1, bytes({0xAB}), 1, 2));
    Protocol *read = ComCommunication();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->var.ext_param1, -2);
    QByteArray r = echo_reply(read);
    r[9] = char(0x12);
    r[10] = char(0x34);
    RW_VAR *ret = DataCom(&r, r.size());
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(info.replies_received, 1);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_TRUE(callback_events().empty());
    Protocol *write = ComCommunication();
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->var.rw_flag, 1);
    EXPECT_EQ(write->frame.mid(13), bytes({0xAB, 0x34}));
    ret = answer(write);
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 5);
    EXPECT_EQ(ret->reg_kind, 8);
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].result, 1);
}

TEST_F(Reply, GoodReplyDoesNotResetRetryCount)
{
    info.retry_limit = 2;
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    QByteArray none;
    ComCommunication();
    EXPECT_EQ(DataCom(&none, 0)->status, 0);
    EXPECT_EQ(info.retry_count, 1);
    EXPECT_EQ(answer(ComCommunication())->status, 1);
    EXPECT_EQ(info.retry_count, 1);
    // The next request fails twice: 2, then 3 > 2 gives up.
    ComCommunication();
    EXPECT_EQ(DataCom(&none, 0)->status, 0);
    EXPECT_EQ(info.retry_count, 2);
    EXPECT_EQ(DataCom(&none, 0)->status, 41);
    EXPECT_EQ(info.retry_count, 0);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
}

TEST_F(Reply, CommFailedLastsFromGiveUpToTheNextGoodReply)
{
    info.retry_limit = 1;
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    QByteArray none;
    ComCommunication();
    DataCom(&none, 0);
    EXPECT_FALSE(PLC_driver.comm_failed);
    EXPECT_EQ(DataCom(&none, 0)->status, 41);
    EXPECT_TRUE(PLC_driver.comm_failed);
    ComCommunication();
    EXPECT_EQ(DataCom(&none, 0)->status, 0); // still failing, within the limit
    EXPECT_TRUE(PLC_driver.comm_failed);
    EXPECT_EQ(answer(ComCommunication())->status, 1);
    EXPECT_FALSE(PLC_driver.comm_failed);
}

TEST_F(Reply, RetriedReplyLeavesTheResultRecordDescribingThePreviousVariable)
{
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    PLC_driver.read_list.append(make_var(4, 2, 1, 1));
    answer(ComCommunication());
    EXPECT_EQ(PLC_driver.ret_var.start_addr, 1);
    ComCommunication();
    QByteArray none;
    RW_VAR *ret = DataCom(&none, 0);
    EXPECT_EQ(ret->status, 0);
    EXPECT_EQ(ret->start_addr, 1);
}

TEST_F(Reply, NoCallbacksRegisteredIsHarmless)
{
    RegistCallBackFuncIntf(nullptr, nullptr);
    info.retry_limit = 0;
    PLC_driver.write_list.append(make_write(4, 1, 1, 1, bytes({1, 0}), 3, 9));
    ComCommunication();
    QByteArray none;
    EXPECT_EQ(DataCom(&none, 0)->status, 44);
    EXPECT_TRUE(PLC_driver.write_list.isEmpty());
}

TEST_F(Reply, CountersWrapInsteadOfOverflowing)
{
    info.retry_limit = 0x7FFFFFFF;
    info.retry_count = 0x7FFFFFFF;
    PLC_driver.read_list.append(make_var(4, 1, 1, 1));
    ComCommunication();
    QByteArray none;
    EXPECT_EQ(DataCom(&none, 0)->status, 0); // wrapped below the limit: retried
    EXPECT_EQ(info.retry_count, qint32(0x80000000u));
    info.replies_received = 0x7FFFFFFF;
    info.replies_expected = 0;
    EXPECT_EQ(answer(ComCommunication())->status, 1);
}

TEST(ReplyWithoutRecord, NoCommInfoRecordJudgesNothing)
{
    reset_driver(nullptr);
    PLC_driver.request_queue.append(make_request(make_var(4, 0, 1, 1), QByteArray(12, 0), 11, 9, 2));
    QByteArray r(11, 0);
    RW_VAR *ret = DataCom(&r, 11);
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    reset_driver(nullptr);
}

} // namespace
