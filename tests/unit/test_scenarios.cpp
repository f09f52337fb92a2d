// Whole exchanges as a runtime drives them, through the exported functions
// only: set-up, variable lists, ComCommunication / DataCom with replies
// built byte by byte from the frames the driver hands out, and reads of the
// values through GetRegisterData.
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "plc_model.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>

namespace {

HostReadVar descriptor(int kind, int station, const char *address, int count, const char *name = "v")
{
    HostReadVar h;
    h.reg_kind = quint8(kind);
    h.station = quint8(station);
    h.address_text = QString::fromLatin1(address);
    h.name_text = QString::fromLatin1(name);
    h.count = count;
    return h;
}

QByteArray read_value(int kind, const char *address, int station, int count)
{
    QByteArray out;
    EXPECT_EQ(GetRegisterData(nullptr, kind, QString::fromLatin1(address), station, &out, count), 1);
    return out;
}

int write_value(int kind, const char *address, int station, const QByteArray &value, int count, int source_type,
                int source_id)
{
    QByteArray data = value;
    return SetRegisterData(QStringLiteral("w"), kind, QString::fromLatin1(address), station, &data, count, source_type,
                           source_id);
}

class Scenario : public ExchangeTest {
protected:
    // One exchange: the request to send, the PLC's answer, the result.
    // Returns the status of the result record, or -1000 when nothing was sent;
    // sent receives a copy of the request (the driver frees its own).
    int exchange(Plc &plc, Protocol *sent = nullptr)
    {
        Protocol *p = ComCommunication();
        if (!p)
            return -1000;
        if (sent)
            *sent = *p;
        QByteArray frame = p->frame.left(p->frame_len);
        QByteArray reply = info.link_mode == 0 ? plc.modbus_reply(frame) : plc.remote_reply(frame);
        return DataCom(&reply, reply.size())->status;
    }

    // Sends the request in flight and answers it with the given bytes.
    int reply_with(const QByteArray &bytes_in, int length)
    {
        QByteArray r = bytes_in;
        return DataCom(&r, length)->status;
    }
};

// ------------------------------------------------------------ scenarios

TEST_F(Scenario, CyclicPassOverAGroupedReadListFillsTheMirror)
{
    Plc plc;
    for (int a = 100; a < 122; ++a)
        plc.word(1, 4, a) = quint16(0x1000 + a);
    plc.word(1, 3, 10) = 0xBEEF;
    plc.bit(1, 1, 2) = 1;  // the coil the bit read actually asks for
    plc.bit(1, 1, 16) = 1; // the coil the runtime named

    QList<HostReadVar> host;
    host << descriptor(4, 1, "100", 2) << descriptor(4, 1, "105", 3) << descriptor(11, 1, "60", 2)
         << descriptor(3, 1, "10", 1) << descriptor(1, 1, "2.0", 16) << descriptor(4, 1, "x", 1);
    // Kind 1 block (bytes 2..3), kind 3 word 10, kind 4 words 100..121.
    ASSERT_EQ(ReCreatReadVarList(&host), 3);
    EXPECT_EQ(info.cycle_done, 0);

    int replies = 0;
    while (info.cycle_done == 0 && replies < 10) {
        EXPECT_EQ(exchange(plc), 1);
        ++replies;
    }
    EXPECT_EQ(replies, 4); // a pass completes after more replies than entries
    const std::vector<std::pair<int, int>> expected = {{1, 0xA002}, {3, 0xA00A}, {3, 100}, {1, 0xA002}};
    EXPECT_EQ(plc.seen, expected);

    EXPECT_EQ(read_value(4, "105", 1, 3), bytes({0x69, 0x10, 0x6A, 0x10, 0x6B, 0x10}));
    EXPECT_EQ(read_value(4, "100", 1, 1), bytes({0x64, 0x10}));
    EXPECT_EQ(read_value(11, "60", 1, 2), bytes({0x78, 0x10, 0x79, 0x10}));
    EXPECT_EQ(read_value(3, "10", 1, 1), bytes({0xEF, 0xBE}));
    EXPECT_EQ(read_value(7, "21", 1, 1), bytes({0xBE, 0x00}));
    // Units between the runtime's variables are read along with the block.
    EXPECT_EQ(read_value(4, "110", 1, 1), bytes({0x6E, 0x10}));
    // A bit block keeps its byte numbers: the request asks for coils 2 and 3
    // and stores them as bits 2 and 3, not as bits 16 to 31.
    EXPECT_EQ(read_value(1, "0.2", 1, 2), bytes({1, 0}));
    EXPECT_EQ(read_value(1, "2.0", 1, 1), bytes({0}));
}

TEST_F(Scenario, SevenWritesInterleavedWithCyclicReads)
{
    Plc plc;
    plc.word(1, 4, 300) = 0x0300;
    QList<HostReadVar> host;
    host << descriptor(4, 1, "300", 1);
    ASSERT_EQ(ReCreatReadVarList(&host), 1);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(write_value(4, QByteArray::number(200 + i).constData(), 1, bytes({i + 1, 0xA0}), 1, 1, i + 1), i + 1);

    for (int n = 0; n < 10; ++n)
        EXPECT_EQ(exchange(plc), 1);
    const std::vector<std::pair<int, int>> expected = {{16, 200}, {16, 201}, {16, 202}, {16, 203}, {16, 204},
                                                       {3, 300},  {16, 205}, {16, 206}, {3, 300},  {3, 300}};
    EXPECT_EQ(plc.seen, expected);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(plc.word_value(1, 4, 200 + i), 0xA001 + i);
    ASSERT_EQ(callback_events().size(), 7u);
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(callback_events()[i].kind, CallbackEvent::WriteDone);
        EXPECT_EQ(callback_events()[i].a, 77);
        EXPECT_EQ(callback_events()[i].source_type, 1);
        EXPECT_EQ(callback_events()[i].source_id, i + 1);
        EXPECT_EQ(callback_events()[i].result, 1);
    }
    EXPECT_EQ(read_value(4, "300", 1, 1), bytes({0x00, 0x03}));
    EXPECT_EQ(write_value(4, "1", 1, QByteArray(), 0, 1, 1), 0); // the write list is empty again
}

TEST_F(Scenario, BitAndByteWritesCompleteOverTwoReplies)
{
    Plc plc;
    plc.word(1, 4, 1) = 0x1234;
    plc.word(1, 3, 2) = 0x1234;
    plc.word(1, 4, 2) = 0x5678;

    // Bit 3.3 is bit 27: bit 11 of class-4 register 1.
    ASSERT_EQ(write_value(5, "3.3", 1, bytes({1}), 1, 2, 20), 1);
    Protocol read;
    EXPECT_EQ(exchange(plc, &read), 1);
    EXPECT_EQ(read.frame, bytes({0, 0, 0, 0, 0, 6, 1, 3, 0, 1, 0, 1}));
    EXPECT_TRUE(callback_events().empty());
    Protocol *write = ComCommunication();
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->frame, bytes({0, 1, 0, 0, 0, 9, 1, 16, 0, 1, 0, 1, 2, 0x1A, 0x34}));
    QByteArray ack = plc.modbus_reply(write->frame);
    EXPECT_EQ(DataCom(&ack, ack.size())->status, 1);
    EXPECT_EQ(plc.word_value(1, 4, 1), 0x1A34);
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].source_id, 20);
    EXPECT_EQ(callback_events()[0].result, 1);

    // Byte 5 of class 3 is the high byte of register 2 (0xA002).
    ASSERT_EQ(write_value(7, "5", 1, bytes({0xAB, 0x00}), 1, 2, 21), 1);
    EXPECT_EQ(exchange(plc), 1);
    write = ComCommunication();
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->frame, bytes({0, 3, 0, 0, 0, 9, 1, 16, 0xA0, 2, 0, 1, 2, 0xAB, 0x34}));
    ack = plc.modbus_reply(write->frame);
    EXPECT_EQ(DataCom(&ack, ack.size())->status, 1);
    EXPECT_EQ(plc.word_value(1, 3, 2), 0xAB34);

    // Byte 4 of class 4 is the low byte of register 2.
    ASSERT_EQ(write_value(8, "4", 1, bytes({0xCD, 0x00}), 1, 2, 22), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(plc.word_value(1, 4, 2), 0x56CD);
    EXPECT_EQ(write_done_count(1), 3u);

    // The mirror learns the new values from the next read.
    EXPECT_EQ(read_value(5, "3.3", 1, 1), bytes({0}));
    RW_VAR once = make_var(4, 0, 3, 1, 9, 90);
    once.address_text = QStringLiteral("0");
    EXPECT_EQ(AddListOnceReadVar(&once, 0), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(read_value(5, "3.3", 1, 1), bytes({1}));
    EXPECT_EQ(read_value(8, "4", 1, 1), bytes({0xCD, 0}));
    EXPECT_EQ(callback_events().back().source_id, 90);
}

TEST_F(Scenario, RetryThenGiveUpThenRecovery)
{
    info.retry_limit = 2;
    Plc plc;
    ASSERT_EQ(write_value(4, "10", 1, bytes({0x11, 0x11}), 1, 5, 50), 1);
    ASSERT_EQ(write_value(4, "11", 1, bytes({0x22, 0x22}), 1, 5, 50), 2);
    ASSERT_EQ(write_value(4, "12", 1, bytes({0x33, 0x33}), 1, 6, 60), 3);
    EXPECT_EQ(read_value(4, "10", 1, 1), bytes({0, 0})); // sent, not mirrored

    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    const QByteArray frame = p->frame;
    // The PLC does not answer: two time-outs are retried with the same frame.
    EXPECT_EQ(reply_with(QByteArray(), 0), 0);
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(p->frame, frame);
    EXPECT_EQ(reply_with(QByteArray(), 0), 0);
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_TRUE(callback_events().empty());
    // The third gives up: no reply, requester kind 5.
    EXPECT_EQ(reply_with(QByteArray(), 0), 46);
    ASSERT_EQ(callback_events().size(), 2u);
    EXPECT_EQ(callback_events()[0].kind, CallbackEvent::WriteDone);
    EXPECT_EQ(callback_events()[0].a, 77);
    EXPECT_EQ(callback_events()[0].source_type, 5);
    EXPECT_EQ(callback_events()[0].source_id, 50);
    EXPECT_EQ(callback_events()[0].result, 2);
    EXPECT_EQ(callback_events()[1].kind, CallbackEvent::ReadDone);
    EXPECT_EQ(callback_events()[1].a, 0);
    EXPECT_EQ(callback_events()[1].source_type, 5);
    EXPECT_EQ(callback_events()[1].result, 1);
    EXPECT_EQ(info.cycle_done, 0);

    // While communication is down a write also goes into the mirror at once.
    EXPECT_EQ(write_value(4, "20", 1, bytes({0x44, 0x44}), 1, 7, 70), 2); // (5, 50)'s second write is gone
    EXPECT_EQ(read_value(4, "20", 1, 1), bytes({0x44, 0x44}));

    // The next request is answered: communication is back.
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(plc.seen.back(), std::make_pair(16, 12));
    EXPECT_EQ(callback_events().back().source_id, 60);
    EXPECT_EQ(write_value(4, "21", 1, bytes({0x55, 0x55}), 1, 7, 71), 2);
    EXPECT_EQ(read_value(4, "21", 1, 1), bytes({0, 0}));
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(plc.word_value(1, 4, 20), 0x4444);
    EXPECT_EQ(plc.word_value(1, 4, 21), 0x5555);
    EXPECT_EQ(plc.word_value(1, 4, 10), 0);
    EXPECT_EQ(plc.word_value(1, 4, 11), 0);
    EXPECT_EQ(exchange(plc), -1000);
    EXPECT_EQ(info.cycle_done, 1);
}

TEST_F(Scenario, RemoteFramesReadAndWriteThroughTheLocalArea)
{
    info.link_mode = 1;
    info.local_link_id = 4;
    Plc plc;
    for (int a = 0; a < 4; ++a)
        plc.word(1, 4, 100 + a) = quint16(0x0A00 + a);
    QList<HostReadVar> host;
    host << descriptor(4, 1, "100", 4);
    ASSERT_EQ(ReCreatReadVarList(&host), 1);

    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->frame_len, 22);
    EXPECT_EQ(p->frame.left(21), bytes({22, 0, 0, 4, 1, 0, 4, 0, 0, 0, 100, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(remote_sum_ok(p->frame));
    QByteArray r = plc.remote_reply(p->frame);
    ASSERT_EQ(r.size(), 13); // status byte, 8 data bytes, 2 trailing
    EXPECT_EQ(DataCom(&r, r.size())->status, 1);
    EXPECT_EQ(read_value(4, "100", 1, 4), bytes({0, 0x0A, 1, 0x0A, 2, 0x0A, 3, 0x0A}));

    // A remote write is mirrored at once and acknowledged with 8 bytes.
    ASSERT_EQ(write_value(4, "7", 1, bytes({0x34, 0x12}), 1, 3, 30), 1);
    EXPECT_EQ(read_value(4, "7", 1, 1), bytes({0, 0})); // queued, not yet built
    p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_value(4, "7", 1, 1), bytes({0x34, 0x12})); // mirrored when built
    EXPECT_EQ(p->frame_len, 24);
    EXPECT_EQ(p->frame.mid(1, 4), bytes({3, 1, 4, 1}));
    EXPECT_EQ(p->frame.mid(21, 2), bytes({0x34, 0x12}));
    EXPECT_TRUE(remote_sum_ok(p->frame));
    r = plc.remote_reply(p->frame);
    EXPECT_EQ(DataCom(&r, r.size())->status, 1);
    EXPECT_EQ(plc.word_value(1, 4, 7), 0x1234);
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].source_id, 30);
    EXPECT_EQ(callback_events()[0].result, 1);
}

TEST_F(Scenario, RemoteReadWithAReplyUnderEightBytesIsRetriedAndGivenUp)
{
    info.link_mode = 1;
    info.retry_limit = 1;
    Plc plc;
    plc.word(1, 4, 9) = 0x1234;
    QList<HostReadVar> host;
    host << descriptor(4, 1, "9", 1);
    ASSERT_EQ(ReCreatReadVarList(&host), 1);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->reply_len, 7);
    QByteArray r = plc.remote_reply(p->frame);
    ASSERT_EQ(r.size(), 7);
    EXPECT_EQ(DataCom(&r, 7)->status, 0);
    EXPECT_EQ(ComCommunication(), p);
    EXPECT_EQ(DataCom(&r, 7)->status, 11);
    EXPECT_EQ(read_value(4, "9", 1, 1), bytes({0, 0}));
    ASSERT_EQ(callback_events().size(), 1u);
    EXPECT_EQ(callback_events()[0].kind, CallbackEvent::ReadDone);
    // A read of two registers (9-byte reply) passes.
    QList<HostReadVar> two;
    two << descriptor(4, 1, "9", 2);
    ASSERT_EQ(ReCreatReadVarList(&two), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(read_value(4, "9", 1, 1), bytes({0x34, 0x12}));
}

TEST_F(Scenario, RemoteAreaRepliesAreGoodButNotStored)
{
    Plc plc;
    plc.word(1, 4, 5) = 0x1234;
    QList<HostReadVar> host;
    host << descriptor(4, 1, "5", 2);
    ASSERT_EQ(ReCreatReadVarList(&host), 1); // made for link 0
    info.local_link_id = 2;                  // the runtime now calls link 2 its local area
    info.cycle_done = 0;
    for (int mode : {0, 1}) {
        info.link_mode = mode;
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(exchange(plc), 100) << "link_mode " << mode;
    }
    EXPECT_EQ(read_value(4, "5", 1, 2), bytes({0, 0, 0, 0}));
    EXPECT_EQ(info.cycle_done, 0); // remote-area replies do not count towards a pass
    EXPECT_TRUE(callback_events().empty());
}

TEST_F(Scenario, TwoStations)
{
    Plc plc;
    plc.word(1, 4, 0) = 0x0101;
    plc.word(2, 4, 0) = 0x0202;
    plc.word(2, 2, 3) = 0x2323;
    QList<HostReadVar> host;
    host << descriptor(4, 2, "0", 1) << descriptor(2, 2, "3", 1) << descriptor(4, 1, "0", 1);
    ASSERT_EQ(ReCreatReadVarList(&host), 3);

    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(exchange(plc), 1);
    // Station 1 first, then station 2's class 2 and class 4 blocks; each
    // station numbers its own transactions.
    const std::vector<std::pair<int, int>> expected = {{3, 0}, {4, 0x8003}, {3, 0}, {3, 0}};
    EXPECT_EQ(plc.seen, expected);
    ASSERT_EQ(plc.frames.size(), 4u);
    EXPECT_EQ(plc.frames[0].left(7), bytes({0, 0, 0, 0, 0, 6, 1}));
    EXPECT_EQ(plc.frames[1].left(7), bytes({0, 0, 0, 0, 0, 6, 2}));
    EXPECT_EQ(plc.frames[2].left(7), bytes({0, 1, 0, 0, 0, 6, 2}));
    EXPECT_EQ(plc.frames[3].left(7), bytes({0, 1, 0, 0, 0, 6, 1}));
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x01, 0x01}));
    EXPECT_EQ(read_value(4, "0", 2, 1), bytes({0x02, 0x02}));
    EXPECT_EQ(read_value(2, "3", 2, 1), bytes({0x23, 0x23}));

    // Station 2 switched off: only station 1 is read; writes to it are dropped.
    EnCommStation(2, 0);
    ASSERT_EQ(write_value(4, "9", 2, bytes({9, 9}), 1, 1, 1), 1);
    plc.seen.clear();
    for (int i = 0; i < 3; ++i) {
        Protocol sent;
        EXPECT_EQ(exchange(plc, &sent), 1);
        EXPECT_EQ(sent.var.station, 1);
    }
    EXPECT_EQ(plc.seen.size(), 3u);
    EXPECT_EQ(plc.word_value(2, 4, 9), 0);
    EXPECT_TRUE(callback_events().empty());

    EnCommStation(2, 1);
    plc.seen.clear();
    plc.word(2, 4, 0) = 0x0303;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(read_value(4, "0", 2, 1), bytes({0x03, 0x03}));

    // With stations from the record, the default station is used throughout.
    info.station_from_address = 0;
    info.default_station = 2;
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x03, 0x03}));
}

TEST_F(Scenario, RemoteFrameBadReplies)
{
    info.link_mode = 1;
    info.retry_limit = 0;
    Plc plc;
    plc.word(1, 4, 0) = 0x4242;
    RW_VAR once = make_var(4, 0, 4, 1, 6, 61);
    once.address_text = QStringLiteral("0");
    // One-shot reads of requester kind 6: every failure gives up at once.
    const int wrong_echo = 0, too_short = 1, too_long = 2, none = 3;
    for (int c : {wrong_echo, too_short, too_long, none}) {
        ASSERT_EQ(AddListOnceReadVar(&once, 0), 1);
        once.start_addr = 0;
        once.count = 4;
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->reply_len, 13);
        QByteArray r = plc.remote_reply(p->frame);
        int length = r.size();
        int code = 0;
        if (c == wrong_echo) {
            r[0] = char(21);
            code = 17;
        } else if (c == too_short) {
            r.chop(1);
            length = r.size();
            code = 77;
        } else if (c == too_long) {
            r.append(char(0));
            length = r.size();
            code = 77;
        } else {
            length = 0;
            code = 47;
        }
        EXPECT_EQ(DataCom(&r, length)->status, code) << c;
        ASSERT_GE(callback_events().size(), 2u);
        EXPECT_EQ(callback_events()[callback_events().size() - 2].result, 2);
        EXPECT_EQ(callback_events().back().kind, CallbackEvent::ReadDone);
        EXPECT_EQ(callback_events().back().source_type, 6);
    }
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0, 0}));
    // The same read answered properly.
    ASSERT_EQ(AddListOnceReadVar(&once, 0), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x42, 0x42}));
}

// ------------------------------------------------------------ bad input

class BadReplies : public Scenario {
protected:
    void SetUp() override
    {
        Scenario::SetUp();
        info.retry_limit = 1;
        plc.word(1, 4, 0) = 0x1111;
        QList<HostReadVar> host;
        host << descriptor(4, 1, "0", 10) << descriptor(4, 1, "500", 1);
        ASSERT_EQ(ReCreatReadVarList(&host), 2);
        // One good pass so the mirror holds known values.
        EXPECT_EQ(exchange(plc), 1);
        EXPECT_EQ(exchange(plc), 1);
        ASSERT_EQ(read_value(4, "0", 1, 1), bytes({0x11, 0x11}));
        plc.word(1, 4, 0) = 0x2222;
    }

    // The request in flight and a correct reply to it.
    QByteArray good_reply()
    {
        Protocol *p = ComCommunication();
        EXPECT_NE(p, nullptr);
        return p ? plc.modbus_reply(p->frame) : QByteArray();
    }

    // Feeds a bad reply twice (retry, then give-up) and checks the codes
    // and that the list and the mirror are as before.
    void expect_rejected(const QByteArray &bad, int length, int code)
    {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->var.start_addr, 0);
        const QByteArray frame = p->frame;
        QByteArray r1 = bad;
        EXPECT_EQ(DataCom(&r1, length)->status, 0);
        EXPECT_EQ(ComCommunication(), p);
        EXPECT_EQ(p->frame, frame);
        QByteArray r2 = bad;
        const RW_VAR *ret = DataCom(&r2, length);
        EXPECT_EQ(ret->status, code);
        EXPECT_EQ(ret->start_addr, 0);
        EXPECT_EQ(ret->count, 10);
        EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x11, 0x11}));
        ASSERT_EQ(callback_events().size(), 1u);
        EXPECT_EQ(callback_events().back().kind, CallbackEvent::ReadDone);
        // The given-up entry went to the end of the cyclic list: the other
        // entry comes next, then this one again, with the new value.
        plc.seen.clear();
        EXPECT_EQ(exchange(plc), 1);
        EXPECT_EQ(exchange(plc), 1);
        const std::vector<std::pair<int, int>> order = {{3, 500}, {3, 0}};
        EXPECT_EQ(plc.seen, order);
        EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x22, 0x22}));
    }

    Plc plc;
};

namespace {

// A bad reply made from the good one, the length DataCom is given with it
// (kArraySize: the bad reply's own size) and the code of its give-up.
struct BadReplyCase {
    const char *what;
    QByteArray (*make)(const QByteArray &good);
    int length;
    int code;
};
const int kArraySize = -1;

std::ostream &operator<<(std::ostream &os, const BadReplyCase &c)
{
    return os << c.what;
}

QByteArray as_it_is(const QByteArray &good)
{
    return good;
}

const BadReplyCase kBadReplies[] = {
    {"EmptyReply", [](const QByteArray &) { return QByteArray(); }, 0, 41},
    {"ShortReply", [](const QByteArray &g) { return g.left(20); }, kArraySize, 71},
    {"LongReply", [](const QByteArray &g) { return g + QByteArray(3, 0); }, kArraySize, 71},
    {"WrongTransactionIdentifier",
     [](const QByteArray &g) {
         QByteArray b = g;
         b[1] = char(b[1] + 1);
         return b;
     },
     kArraySize, 11},
    // A 9-byte exception response where 29 bytes are expected.
    {"ModbusExceptionResponse",
     [](const QByteArray &g) {
         return g.left(4) + bytes({0, 3, 1, 0x83, 0x02});
     },
     kArraySize, 71},
    {"LengthArgumentSmallerThanTheArray", as_it_is, 12, 71},
    {"LengthArgumentZeroWithAFullArray", as_it_is, 0, 41},
};

class BadReplyTable : public BadReplies, public ::testing::WithParamInterface<BadReplyCase> {};

} // namespace

TEST_P(BadReplyTable, IsRetriedThenGivenUpAndChangesNothing)
{
    const BadReplyCase &c = GetParam();
    const QByteArray bad = c.make(good_reply());
    expect_rejected(bad, c.length == kArraySize ? bad.size() : c.length, c.code);
}

INSTANTIATE_TEST_SUITE_P(Kinds, BadReplyTable, ::testing::ValuesIn(kBadReplies),
                         [](const ::testing::TestParamInfo<BadReplyCase> &p) { return std::string(p.param.what); });

TEST_F(BadReplies, NullReplyPointer)
{
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(DataCom(nullptr, 0)->status, 0);
    EXPECT_EQ(DataCom(nullptr, p->reply_len)->status, 11); // the length fits, the content does not
}

TEST_F(BadReplies, TruncatedArrayWithTheFullLengthStoresZerosForTheMissingBytes)
{
    // The runtime claims the full 29 bytes but the array holds only the
    // header and the first register: the rest reads as zero, nothing past
    // the array is touched.
    const QByteArray g = good_reply();
    ASSERT_EQ(g.size(), 29);
    const int len = 11;
    std::unique_ptr<char, decltype(&std::free)> exact(static_cast<char *>(std::malloc(len)), &std::free);
    std::memcpy(exact.get(), g.constData(), len);
    QByteArray r = QByteArray::fromRawData(exact.get(), len);
    EXPECT_EQ(DataCom(&r, 29)->status, 1);
    EXPECT_EQ(read_value(4, "0", 1, 2), bytes({0x22, 0x22, 0, 0}));
    plc.seen.clear();
    EXPECT_EQ(exchange(plc), 1); // finished and rotated: the other entry is next
    EXPECT_EQ(plc.seen.back(), std::make_pair(3, 500));
}

TEST_F(BadReplies, ReplyWhenNothingIsPending)
{
    // Every request so far has been answered: nothing is pending.
    QByteArray r = bytes({0, 0, 0, 0, 0, 5, 1, 3, 2, 0x33, 0x33});
    const RW_VAR *ret = DataCom(&r, r.size());
    EXPECT_EQ(ret->status, 1);
    EXPECT_EQ(ret->start_addr, 500); // still the last finished variable
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x11, 0x11}));
    EXPECT_EQ(info.retry_count, 0);
    EXPECT_TRUE(callback_events().empty());
}

TEST_F(BadReplies, ExceptionResponseToAWrite)
{
    ASSERT_EQ(write_value(4, "3", 1, bytes({1, 2}), 1, 4, 40), 1);
    Protocol *p = ComCommunication();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->var.rw_flag, 1);
    QByteArray ex = p->frame.left(4) + bytes({0, 3, 1, 0x90, 0x04});
    QByteArray r = ex;
    EXPECT_EQ(DataCom(&r, 9)->status, 0);
    r = ex;
    EXPECT_EQ(DataCom(&r, 9)->status, 75); // length error, requester kind 4
    ASSERT_EQ(callback_events().size(), 2u);
    EXPECT_EQ(callback_events()[0].result, 2);
    EXPECT_EQ(callback_events()[0].source_id, 40);
    EXPECT_EQ(callback_events()[1].kind, CallbackEvent::ReadDone);
    EXPECT_EQ(plc.word_value(1, 4, 3), 0);
}

TEST_F(BadReplies, GarbageOfEveryLengthNeverPassesAndNeverCrashes)
{
    // Replies of 0..40 bytes that do not echo the transaction identifier.
    for (int n = 0; n <= 40; ++n) {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        QByteArray r(n, char(0xEE));
        const int status = DataCom(&r, n)->status;
        EXPECT_TRUE(status == 0 || status == 11 || status == 41 || status == 71) << n << ": " << status;
    }
    EXPECT_EQ(read_value(4, "0", 1, 1), bytes({0x11, 0x11}));
    plc.seen.clear();
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(exchange(plc), 1);
    EXPECT_EQ(plc.seen.size(), 2u);
    EXPECT_NE(plc.seen[0], plc.seen[1]); // both entries are still served
}

} // namespace
