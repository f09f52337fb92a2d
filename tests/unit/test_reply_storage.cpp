// Storing the data of a checked read reply into the mirror, and completing
// the read-modify-write of a bit or a byte inside a register.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <cstring>

namespace {

class Storage : public DriverTest {
protected:
    // Queues a read whose reply carries its data from header_len on.
    static void queue_read(const RW_VAR &var, int header_len, int data_len)
    {
        PLC_driver.request_queue.append(
            make_request(var, QByteArray(12, 0), header_len + data_len, header_len, data_len));
    }

    // A reply of header_len filler bytes followed by the data.
    static QByteArray reply_with(int header_len, const QByteArray &data)
    {
        return QByteArray(header_len, char(0x5A)) + data;
    }
};

// ------------------------------------------------------------ save_to_local_data_erea

TEST_F(Storage, WordsGoInBigEndianUnderStationClassAddressKeys)
{
    queue_read(make_var(2, 100, 2, 3), 9, 4);
    QByteArray r = reply_with(9, bytes({0x01, 0x02, 0x03, 0x04}));
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 2);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0302000000000064)), 0x0102);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0302000000000065)), 0x0304);
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
    EXPECT_EQ(PLC_driver.request_queue.size(), 1); // the head is only read
}

TEST_F(Storage, WordKindsThreeAndFourUseTheirClass)
{
    queue_read(make_var(3, 7, 1, 1), 3, 2);
    QByteArray r = reply_with(3, bytes({0xBE, 0xEF}));
    save_to_local_data_erea(&r);
    PLC_driver.request_queue.clear();
    queue_read(make_var(4, 7, 1, 1), 3, 2);
    r = reply_with(3, bytes({0x12, 0x34}));
    save_to_local_data_erea(&r);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0103000000000007)), 0xBEEF);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0104000000000007)), 0x1234);
}

TEST_F(Storage, BitsUnpackLeastSignificantFirst)
{
    queue_read(make_var(0, 16, 10, 1), 9, 2);
    QByteArray r = reply_with(9, bytes({0xA5, 0x03}));
    save_to_local_data_erea(&r);
    const uchar expected[10] = {1, 0, 1, 0, 0, 1, 0, 1, 1, 1};
    ASSERT_EQ(PLC_driver.bit_mirror.size(), 10);
    for (int i = 0; i < 10; ++i) {
        const quint64 key = Q_UINT64_C(0x0100000000000010) + quint64(i);
        ASSERT_TRUE(PLC_driver.bit_mirror.contains(key)) << i;
        EXPECT_EQ(PLC_driver.bit_mirror.value(key), expected[i]) << "bit " << 16 + i;
    }
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Storage, BitCountBelowOneByteStoresOnlyThoseBits)
{
    queue_read(make_var(1, 0, 5, 2), 3, 1);
    QByteArray r = reply_with(3, bytes({0xF5})); // 1111 0101
    save_to_local_data_erea(&r);
    const uchar expected[5] = {1, 0, 1, 0, 1};
    ASSERT_EQ(PLC_driver.bit_mirror.size(), 5);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(PLC_driver.bit_mirror.value(Q_UINT64_C(0x0201000000000000) + quint64(i)), expected[i]);
}

TEST_F(Storage, MarkedReadsLeaveTheMirrorsUntouched)
{
    for (int marker : {-1, -2}) {
        PLC_driver.request_queue.clear();
        RW_VAR v = make_var(4, 5, 1, 1);
        v.ext_param1 = marker;
        queue_read(v, 9, 2);
        QByteArray r = reply_with(9, bytes({0x12, 0x34}));
        save_to_local_data_erea(&r);
        EXPECT_TRUE(PLC_driver.word_mirror.isEmpty()) << marker;
        EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty()) << marker;
    }
}

TEST_F(Storage, OtherMarkersStoreNormally)
{
    RW_VAR v = make_var(4, 5, 1, 1);
    v.ext_param1 = -3;
    queue_read(v, 9, 2);
    QByteArray r = reply_with(9, bytes({0x12, 0x34}));
    save_to_local_data_erea(&r);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 5)), 0x1234);
}

TEST_F(Storage, LastValueWins)
{
    queue_read(make_var(2, 1, 1, 1), 9, 2);
    QByteArray r = reply_with(9, bytes({0x11, 0x11}));
    save_to_local_data_erea(&r);
    r = reply_with(9, bytes({0x22, 0x33}));
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 2, 1)), 0x2233);

    PLC_driver.request_queue.clear();
    queue_read(make_var(0, 0, 8, 1), 9, 1);
    r = reply_with(9, bytes({0xFF}));
    save_to_local_data_erea(&r);
    r = reply_with(9, bytes({0x00}));
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.bit_mirror.size(), 8);
    for (uchar b : PLC_driver.bit_mirror)
        EXPECT_EQ(b, 0);
}

TEST_F(Storage, NegativeStartFillsTheUpperWordAndCarriesIntoIt)
{
    queue_read(make_var(3, -2, 3, 1), 9, 6);
    QByteArray r = reply_with(9, bytes({0, 1, 0, 2, 0, 3}));
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 3);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0xFFFFFFFFFFFFFFFE)), 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0xFFFFFFFFFFFFFFFF)), 2);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0000000000000000)), 3);
}

TEST_F(Storage, CarryOutOfTheLowWordRunsIntoTheHighWord)
{
    queue_read(make_var(0, 0x7FFFFFFF, 2, 1), 9, 1);
    QByteArray r = reply_with(9, bytes({0x03}));
    save_to_local_data_erea(&r);
    EXPECT_EQ(PLC_driver.bit_mirror.value(Q_UINT64_C(0x010000007FFFFFFF)), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.value(Q_UINT64_C(0x0100000080000000)), 1);
}

TEST_F(Storage, KindsOutsideTheReadKindsStoreNothing)
{
    for (int kind : {5, 7, 11, 14, 15, -1}) {
        PLC_driver.request_queue.clear();
        queue_read(make_var(kind, 0, 2, 1), 9, 4);
        QByteArray r = reply_with(9, bytes({1, 2, 3, 4}));
        save_to_local_data_erea(&r);
        EXPECT_TRUE(PLC_driver.word_mirror.isEmpty()) << kind;
        EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty()) << kind;
    }
}

TEST_F(Storage, OddDataLengthReadsAZeroForTheMissingByte)
{
    queue_read(make_var(4, 0, 2, 1), 9, 3);
    QByteArray r = reply_with(9, bytes({0xAA, 0xBB, 0xCC}));
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 2);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 0)), 0xAABB);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 1)), 0xCC00);
}

TEST_F(Storage, ReplyShorterThanItsDataReadsZerosNeverPastTheArray)
{
    // The bytes behind the reply's end are 0xEE: none of them may show up.
    static char backing[64];
    std::memset(backing, 0xEE, sizeof backing);
    std::memset(backing, 0x5A, 9);
    backing[9] = char(0xAA);
    QByteArray r = QByteArray::fromRawData(backing, 10);

    queue_read(make_var(4, 0, 3, 1), 9, 6);
    save_to_local_data_erea(&r);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 3);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 0)), 0xAA00);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 1)), 0);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 2)), 0);

    PLC_driver.request_queue.clear();
    queue_read(make_var(0, 0, 20, 1), 9, 3);
    QByteArray rb = QByteArray::fromRawData(backing, 10);
    save_to_local_data_erea(&rb);
    ASSERT_EQ(PLC_driver.bit_mirror.size(), 20);
    int ones = 0;
    for (int i = 0; i < 20; ++i)
        ones += PLC_driver.bit_mirror.value(mirror_key(1, 0, i));
    EXPECT_EQ(ones, 4); // the four set bits of 0xAA, nothing from past the end
    EXPECT_EQ(PLC_driver.bit_mirror.value(mirror_key(1, 0, 1)), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.value(mirror_key(1, 0, 7)), 1);

    // A header longer than the reply: every value reads zero.
    PLC_driver.request_queue.clear();
    queue_read(make_var(4, 100, 1, 1), 40, 2);
    QByteArray rc = QByteArray::fromRawData(backing, 10);
    save_to_local_data_erea(&rc);
    EXPECT_EQ(PLC_driver.word_mirror.value(mirror_key(1, 4, 100), 0xFFFF), 0);
}

TEST_F(Storage, EmptyQueueOrNoReplyIsHarmless)
{
    QByteArray r = reply_with(9, bytes({1, 2}));
    save_to_local_data_erea(&r);
    queue_read(make_var(4, 0, 1, 1), 9, 2);
    save_to_local_data_erea(nullptr);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Storage, NegativeCountsStoreNoWholeBytes)
{
    // count -8: no whole byte and no bits left over.
    queue_read(make_var(0, 0, -8, 1), 9, 0);
    QByteArray r = reply_with(9, bytes({0xFF}));
    save_to_local_data_erea(&r);
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
    // A negative data length stores no word.
    PLC_driver.request_queue.clear();
    queue_read(make_var(4, 0, -1, 1), 9, -2);
    save_to_local_data_erea(&r);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

// ------------------------------------------------------------ bit and byte completion

class Completion : public Storage {
protected:
    // The read of the pair in flight, then the write whose frame is patched.
    static void queue_pair(const QByteArray &write_frame)
    {
        RW_VAR read = make_var(4, 0, 1, 1);
        read.ext_param1 = -1;
        queue_read(read, 9, 2);
        PLC_driver.request_queue.append(make_request(make_write(4, 0, 1, 1, bytes({0, 0})), write_frame, 12, 0, 0));
    }
    static QByteArray fc6_frame() { return bytes({0, 1, 0, 0, 0, 6, 1, 6, 0, 0, 0, 0}); }
    static QByteArray fc16_frame() { return bytes({0, 1, 0, 0, 0, 9, 1, 16, 0, 0, 0, 1, 2, 0, 0}); }
    static QByteArray value_reply(int high, int low) { return bytes({0, 0, 0, 0, 0, 5, 1, 3, 2, high, low}); }
    static QByteArray patched() { return PLC_driver.request_queue.at(1).frame; }
    static void head_write(int start, const QByteArray &data)
    {
        PLC_driver.write_list.append(make_write(5, start, 1, 1, data));
    }
};

TEST_F(Completion, SetBitThreeOnAFunctionSixFrame)
{
    queue_pair(fc6_frame());
    head_write(3, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched(), bytes({0, 1, 0, 0, 0, 6, 1, 6, 0, 0, 0x12, 0x3C}));
    EXPECT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Completion, ClearBitFourOnAFunctionSixFrame)
{
    queue_pair(fc6_frame());
    head_write(20, bytes({0}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched().mid(10), bytes({0x12, 0x24}));
}

TEST_F(Completion, BitOnAFunctionSixteenFrameGoesToBytesThirteenAndFourteen)
{
    queue_pair(fc16_frame());
    head_write(15, bytes({7}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched(), bytes({0, 1, 0, 0, 0, 9, 1, 16, 0, 0, 0, 1, 2, 0x92, 0x34}));
}

TEST_F(Completion, EmptyDataClearsTheBit)
{
    queue_pair(fc16_frame());
    head_write(2, QByteArray());
    QByteArray r = value_reply(0xFF, 0xFF);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched().mid(13), bytes({0xFF, 0xFB}));
}

TEST_F(Completion, NegativeBitAddresses)
{
    // -16 is a multiple of 16: bit 0.
    queue_pair(fc16_frame());
    head_write(-16, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0x35}));

    // -3 leaves a remainder: no bit is touched, the value goes back as read.
    PLC_driver.request_queue.clear();
    PLC_driver.write_list.clear();
    queue_pair(fc16_frame());
    head_write(-3, bytes({1}));
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0x34}));

    PLC_driver.request_queue.clear();
    PLC_driver.write_list.clear();
    queue_pair(fc6_frame());
    head_write(-17, bytes({0}));
    QByteArray all = value_reply(0xFF, 0xFF);
    SpecialRegisterSave(&all);
    EXPECT_EQ(patched().mid(10), bytes({0xFF, 0xFF}));
}

TEST_F(Completion, ByteWriteEvenAndOddOnAFunctionSixteenFrame)
{
    queue_pair(fc16_frame());
    head_write(4, bytes({0xAB}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0xAB}));

    PLC_driver.write_list.clear();
    head_write(5, bytes({0xAB}));
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched().mid(13), bytes({0xAB, 0x34}));
}

TEST_F(Completion, ByteWriteOnAFunctionSixFrameAndNegativeAddresses)
{
    queue_pair(fc6_frame());
    head_write(-1, bytes({0xCD})); // -1 & 1 is 1: the high byte
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched().mid(10), bytes({0xCD, 0x34}));

    PLC_driver.write_list.clear();
    head_write(-2, bytes({0xCD}));
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched().mid(10), bytes({0x12, 0xCD}));

    PLC_driver.write_list.clear();
    head_write(0, QByteArray()); // no data byte: 0
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched().mid(10), bytes({0x12, 0x00}));
}

TEST_F(Completion, TenByteReplyChangesNothing)
{
    queue_pair(fc16_frame());
    head_write(3, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34).left(10);
    SpecialRegisterSave(&r);
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched(), fc16_frame());
}

TEST_F(Completion, SingleEntryQueueChangesNothing)
{
    RW_VAR read = make_var(4, 0, 1, 1);
    read.ext_param1 = -1;
    const QByteArray frame = bytes({0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1});
    PLC_driver.request_queue.append(make_request(read, frame, 11, 9, 2));
    head_write(3, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    SpecialRegisterSaveByte(&r);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(PLC_driver.request_queue.first().frame, frame);
}

TEST_F(Completion, EmptyWriteListChangesNothing)
{
    queue_pair(fc16_frame());
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched(), fc16_frame());
    SpecialRegisterSave(nullptr);
    EXPECT_EQ(patched(), fc16_frame());
}

TEST_F(Completion, ShortWriteFrameIsGrownToHoldTheValue)
{
    queue_pair(bytes({0, 1, 0, 0, 0, 9, 1, 16}));
    head_write(0, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34);
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched(), bytes({0, 1, 0, 0, 0, 9, 1, 16, 0, 0, 0, 0, 0, 0x12, 0x35}));

    PLC_driver.request_queue.clear();
    queue_pair(bytes({0, 1, 0, 0, 0, 6, 1, 6}));
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched(), bytes({0, 1, 0, 0, 0, 6, 1, 6, 0, 0, 0x12, 0x35}));

    // Too short to hold a function code: taken as "any other value".
    PLC_driver.request_queue.clear();
    queue_pair(bytes({0, 1, 0}));
    SpecialRegisterSaveByte(&r);
    EXPECT_EQ(patched(), bytes({0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x01}));
}

TEST_F(Completion, StoreRoutesMarkedRepliesToTheCompletion)
{
    queue_pair(fc16_frame());
    head_write(3, bytes({1}));
    QByteArray r = value_reply(0x12, 0x34);
    save_to_local_data_erea(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0x3C}));

    PLC_driver.request_queue[0].var.ext_param1 = -2;
    PLC_driver.write_list.clear();
    head_write(2, bytes({0x77}));
    save_to_local_data_erea(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0x77}));
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Completion, ReplyValueBytesPastTheArrayAreNeverRead)
{
    static char backing[32];
    std::memset(backing, 0xEE, sizeof backing);
    std::memset(backing, 0, 11);
    backing[9] = char(0x12);
    backing[10] = char(0x34);
    QByteArray r = QByteArray::fromRawData(backing, 11);
    queue_pair(fc16_frame());
    head_write(0, bytes({1}));
    SpecialRegisterSave(&r);
    EXPECT_EQ(patched().mid(13), bytes({0x12, 0x35}));
}

} // namespace
