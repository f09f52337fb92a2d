// Request builders, byte for byte: the remote read and write frames, the
// Modbus TCP read request and the Modbus TCP write requests, with the queued
// Protocol entries, transaction identifiers, reply counters and mirror updates.
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "record_expectations.h"

#include <QByteArray>

#include <ostream>
#include <string>

namespace {

// Mirror key written out independently of the driver's helper.
quint64 key(int station, int cls, quint32 address)
{
    return (quint64(quint8(station)) << 56) | (quint64(quint8(cls)) << 48) | address;
}

ushort word(int station, int cls, quint32 address)
{
    return PLC_driver.word_mirror.value(key(station, cls, address), 0xEEEE);
}

const Protocol &entry(int i)
{
    return PLC_driver.request_queue.at(i);
}

int sum8(const QByteArray &a, int n)
{
    int s = 0;
    for (int i = 0; i < n; ++i)
        s += uchar(a[i]);
    return s & 0xFF;
}

class FrameTest : public DriverTest {
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        // Values no builder would leave, so that every update is visible.
        info.replies_expected = 99;
        info.replies_received = 42;
    }
};

// A record with every field the remote frame carries set to a telling value.
RW_VAR full_record()
{
    RW_VAR v;
    v.source_type = 0x0102;
    v.source_id = 555;
    v.rw_flag = 0;
    v.link_mode = 1;
    v.link_id = 0x33;
    v.status = -1;
    v.name_text = QStringLiteral("Tank level");
    v.address_text = QStringLiteral("4660");
    v.reg_kind = 3;
    v.start_addr = 0x1234;
    v.station = 0x1234;
    v.count = 10;
    v.ext_param1 = -1;
    v.ext_param2 = 0x01020304;
    return v;
}

} // namespace

// ---------------------------------------------------------------- remote read

TEST_F(FrameTest, RemoteReadFrameByteForByte)
{
    const RW_VAR v = full_record();
    RW_VAR arg = v;
    Remote_ReadVar(&arg);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame, hex("16 02 00 33 34 0003 00001234 000A FFFFFFFF 01020304 D8"));
    EXPECT_EQ(p.frame_len, 22);
    EXPECT_EQ(p.data_len, 20);
    EXPECT_EQ(p.reply_len, 25);
    EXPECT_EQ(p.reply_header_len, 3);
    expect_same_var(p.var, v);
    expect_same_var(arg, v); // the record itself is not changed
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
}

TEST_F(FrameTest, RemoteReadCheckByteIsLowByteOfSum)
{
    RW_VAR v = full_record();
    v.source_type = 0xFF;
    v.link_id = 0xEE;
    v.start_addr = -1;
    v.ext_param2 = -1;
    Remote_ReadVar(&v);
    const QByteArray &f = entry(0).frame;
    ASSERT_EQ(f.size(), 22);
    EXPECT_EQ(uchar(f[0]), 22);
    EXPECT_EQ(uchar(f[21]), (22 + sum8(f.mid(1), 20)) & 0xFF);
}

namespace {

struct RemoteReadCase {
    int kind, count;
    int data_len, reply_len; // the reply: a 3-byte header, the data, 2 trailing bytes
};

std::ostream &operator<<(std::ostream &os, const RemoteReadCase &c)
{
    return os << "kind " << c.kind << " count " << c.count;
}

const RemoteReadCase kRemoteReads[] = {
    // Bit kinds: whole bytes of bits.
    {0, 16, 2, 7},
    {1, 17, 3, 8},
    {0, 0, 0, 5},
    // Register kinds: two bytes a register.
    {2, 10, 20, 25},
    {3, 10, 20, 25},
    {4, 10, 20, 25},
    // Other kinds (read only once converted) and values that are no kind: no data.
    {5, 10, 0, 5},
    {9, 10, 0, 5},
    {14, 10, 0, 5},
    {15, 10, 0, 5},
    {-1, 10, 0, 5},
};

class RemoteReadLengths : public DriverTableTest<RemoteReadCase> {};

} // namespace

TEST_P(RemoteReadLengths, DataAndReplyLengthOfTheKind)
{
    const RemoteReadCase &c = GetParam();
    RW_VAR v = make_var(c.kind, 0, c.count, 1);
    Remote_ReadVar(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(entry(0).data_len, c.data_len);
    EXPECT_EQ(entry(0).reply_len, c.reply_len);
    EXPECT_EQ(entry(0).frame_len, 22);
}

INSTANTIATE_TEST_SUITE_P(Kinds, RemoteReadLengths, ::testing::ValuesIn(kRemoteReads));

TEST_F(FrameTest, RemoteReadKindTravelsAsItsLow16Bits)
{
    RW_VAR v = make_var(-1, 0, 10, 1);
    Remote_ReadVar(&v);
    EXPECT_EQ(entry(0).frame.mid(5, 2), hex("FFFF"));
}

TEST_F(FrameTest, RemoteReadTruncatesToFieldWidths)
{
    RW_VAR v = make_var(0x10004, -2, 0x12345, 0x1FF);
    v.source_type = 0x1234;
    v.link_id = -1;
    Remote_ReadVar(&v);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame.mid(0, 21), hex("16 34 00 FF FF 0004 FFFFFFFE 2345 00000000 00000000"));
    // The data length follows the full kind value, which is no known kind.
    EXPECT_EQ(p.data_len, 0);
}

TEST_F(FrameTest, RemoteReadStationAndAddressBytes)
{
    RW_VAR v = make_var(4, 0x1234, 1, 0x1234);
    Remote_ReadVar(&v);
    EXPECT_EQ(uchar(entry(0).frame[4]), 0x34);
    EXPECT_EQ(entry(0).frame.mid(7, 4), hex("00001234"));
}

TEST_F(FrameTest, RemoteReadAppendsAtTailAndLeavesTransactionIds)
{
    RW_VAR a = make_var(4, 1, 1, 1);
    RW_VAR b = make_var(4, 2, 1, 1);
    Remote_ReadVar(&a);
    Remote_ReadVar(&b);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(entry(0).var.start_addr, 1);
    EXPECT_EQ(entry(1).var.start_addr, 2);
    EXPECT_EQ(PLC_driver.transaction_ids[1], 0);
}

TEST_F(FrameTest, RemoteReadHugeCountHasDefinedLengths)
{
    RW_VAR v = make_var(3, 0, 0x7FFFFFFF, 1);
    Remote_ReadVar(&v);
    // 32-bit wrap-around: 0x7FFFFFFF * 2 = 0xFFFFFFFE.
    EXPECT_EQ(entry(0).data_len, -2);
    EXPECT_EQ(entry(0).reply_len, 3);
    RW_VAR b = make_var(1, 0, 0x7FFFFFFF, 1);
    Remote_ReadVar(&b);
    EXPECT_EQ(entry(1).data_len, qint32(0x80000006u) >> 3);
}

// --------------------------------------------------------------- remote write

TEST_F(FrameTest, RemoteWriteTwoDataBytes)
{
    RW_VAR v = make_var(4, 7, 1, 0x34, hex("3412"));
    v.source_type = 2;
    v.rw_flag = 1;
    v.link_id = 0x33;
    const RW_VAR copy = v;
    Remote_WriteVar(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame, hex("18 02 01 33 34 0004 00000007 0001 00000000 00000000 3412 D4"));
    EXPECT_EQ(p.frame_len, 24);
    EXPECT_EQ(uchar(p.frame[0]), 24);
    EXPECT_EQ(uchar(p.frame[23]), sum8(p.frame, 23));
    EXPECT_EQ(p.reply_len, 8);
    EXPECT_EQ(p.reply_header_len, 0);
    EXPECT_EQ(p.data_len, 0);
    expect_same_var(p.var, copy);
    expect_same_var(v, copy);
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
    // The mirror holds the written value at once.
    EXPECT_EQ(word(0x34, 4, 7), 0x1234);
}

TEST_F(FrameTest, RemoteWriteCarriesRwFlagAsGiven)
{
    RW_VAR v = make_var(4, 7, 1, 1, hex("0100"));
    v.rw_flag = 0;
    Remote_WriteVar(&v);
    EXPECT_EQ(uchar(entry(0).frame[2]), 0);
    v.rw_flag = 0x105;
    Remote_WriteVar(&v);
    EXPECT_EQ(uchar(entry(1).frame[2]), 5);
}

TEST_F(FrameTest, RemoteWriteToStationZeroExpectsNoReplyButMirrors)
{
    RW_VAR v = make_var(3, 2, 1, 0, hex("CDAB"));
    v.rw_flag = 1;
    Remote_WriteVar(&v);
    EXPECT_EQ(entry(0).reply_len, 0);
    EXPECT_EQ(word(0, 3, 2), 0xABCD);
}

TEST_F(FrameTest, RemoteWriteEmptyDataIsTheReadHeader)
{
    RW_VAR v = full_record();
    Remote_WriteVar(&v);
    Remote_ReadVar(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(entry(0).frame.size(), 22);
    EXPECT_EQ(entry(0).frame, entry(1).frame);
    EXPECT_EQ(entry(0).reply_len, 8);
}

TEST_F(FrameTest, RemoteWriteLengthByteWraps)
{
    const int sizes[] = {233, 234, 300};
    const int expected_byte0[] = {255, 0, 66};
    for (int i = 0; i < 3; ++i) {
        QByteArray data(sizes[i], '\0');
        for (int j = 0; j < data.size(); ++j)
            data[j] = char(j * 7 + 1);
        RW_VAR v = make_var(4, 0, sizes[i] / 2, 1, data);
        Remote_WriteVar(&v);
        const Protocol &p = PLC_driver.request_queue.last();
        const int n = 21 + sizes[i];
        ASSERT_EQ(p.frame.size(), n + 1);
        EXPECT_EQ(p.frame_len, n + 1);
        EXPECT_EQ(uchar(p.frame[0]), expected_byte0[i]) << sizes[i];
        EXPECT_EQ(p.frame.mid(21, sizes[i]), data);
        EXPECT_EQ(uchar(p.frame[n]), sum8(p.frame, n)) << sizes[i];
    }
}

TEST_F(FrameTest, RemoteWriteMirrorsEveryKindLikeTheMirrorDoes)
{
    RW_VAR dword = make_var(11, 10, 2, 5, hex("01020304"));
    Remote_WriteVar(&dword);
    EXPECT_EQ(word(5, 4, 20), 0x0201);
    EXPECT_EQ(word(5, 4, 21), 0x0403);
    RW_VAR bit = make_var(5, 17, 1, 5, hex("01"));
    Remote_WriteVar(&bit);
    EXPECT_EQ(word(5, 4, 1), 0x0002);
    RW_VAR coil = make_var(1, 8, 3, 5, hex("05"));
    Remote_WriteVar(&coil);
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(5, 1, 8), 9), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(5, 1, 9), 9), 0);
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(5, 1, 10), 9), 1);
}

// ------------------------------------------------------------ Modbus TCP read

TEST_F(FrameTest, ModbusReadHoldingRegistersByteForByte)
{
    RW_VAR v = make_var(4, 100, 10, 1);
    v.name_text = QStringLiteral("speed");
    v.ext_param1 = 12;
    const RW_VAR copy = v;
    read_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame, hex("0000 0000 0006 01 03 0064 000A"));
    EXPECT_EQ(p.frame_len, 12);
    EXPECT_EQ(p.reply_len, 29);
    EXPECT_EQ(p.reply_header_len, 9);
    EXPECT_EQ(p.data_len, 20);
    expect_same_var(p.var, copy);
    EXPECT_EQ(PLC_driver.transaction_ids[1], 1);
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
    // Assembled in the scratch buffer.
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(PLC_driver.frame_buf), 12), p.frame);
}

namespace {

struct ModbusReadCase {
    int kind, start, count;
    const char *frame;
    int reply_len, data_len;
};

std::ostream &operator<<(std::ostream &os, const ModbusReadCase &c)
{
    return os << "kind " << c.kind << " start " << c.start << " count " << c.count;
}

class ModbusReads : public DriverTableTest<ModbusReadCase> {};

// The kinds that name their class: function code and offset of the class.
const ModbusReadCase kClassReads[] = {
    {0, 100, 16, "0000 0000 0006 01 02 6064 0010", 11, 2},  {1, 100, 9, "0000 0000 0006 01 01 A064 0009", 11, 2},
    {2, 100, 3, "0000 0000 0006 01 04 8064 0003", 15, 6},   {3, 100, 10, "0000 0000 0006 01 03 A064 000A", 29, 20},
    {4, 100, 10, "0000 0000 0006 01 03 0064 000A", 29, 20},
};

// Kinds 5..14 are converted to their class before a read is built.
const ModbusReadCase kConvertedReads[] = {
    {5, 35, 1, "0000 0000 0006 01 03 0002 0001", 11, 2}, {6, 3, 2, "0000 0000 0006 01 04 8001 0002", 13, 4},
    {7, 3, 2, "0000 0000 0006 01 03 A001 0002", 13, 4},  {8, 3, 2, "0000 0000 0006 01 03 0001 0002", 13, 4},
    {9, 5, 3, "0000 0000 0006 01 04 800A 0004", 17, 8},  {10, 5, 3, "0000 0000 0006 01 03 A00A 0004", 17, 8},
    {11, 5, 3, "0000 0000 0006 01 03 000A 0004", 17, 8}, {12, 2, 1, "0000 0000 0006 01 04 8008 0004", 17, 8},
    {13, 2, 1, "0000 0000 0006 01 03 A008 0004", 17, 8}, {14, 2, 1, "0000 0000 0006 01 03 0008 0004", 17, 8},
};

void expect_read_request(const ModbusReadCase &c)
{
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(entry(0).frame, hex(c.frame));
    EXPECT_EQ(entry(0).reply_len, c.reply_len);
    EXPECT_EQ(entry(0).data_len, c.data_len);
}

} // namespace

TEST_P(ModbusReads, OfTheKindAsItStands)
{
    RW_VAR v = make_var(GetParam().kind, GetParam().start, GetParam().count, 1);
    read_register(&v);
    expect_read_request(GetParam());
}

INSTANTIATE_TEST_SUITE_P(EveryClass, ModbusReads, ::testing::ValuesIn(kClassReads));

class ConvertedModbusReads : public ModbusReads {};

TEST_P(ConvertedModbusReads, AfterConversionToTheClass)
{
    RW_VAR v = make_var(GetParam().kind, GetParam().start, GetParam().count, 1);
    Communication_Protocol::update_rw_var(&v);
    read_register(&v);
    expect_read_request(GetParam());
}

INSTANTIATE_TEST_SUITE_P(KindsInsideAClass, ConvertedModbusReads, ::testing::ValuesIn(kConvertedReads));

TEST_F(FrameTest, ModbusReadOfNoBits)
{
    RW_VAR v = make_var(0, 0, 0, 1);
    read_register(&v);
    EXPECT_EQ(entry(0).data_len, 0);
    EXPECT_EQ(entry(0).reply_len, 9);
}

TEST_F(FrameTest, TransactionIdWrapsToZero)
{
    PLC_driver.transaction_ids[7] = 0xFFFF;
    RW_VAR v = make_var(4, 0, 1, 7);
    read_register(&v);
    EXPECT_EQ(entry(0).frame.left(2), hex("FFFF"));
    EXPECT_EQ(PLC_driver.transaction_ids[7], 0);
    read_register(&v);
    EXPECT_EQ(entry(1).frame.left(2), hex("0000"));
}

TEST_F(FrameTest, TransactionIdsAreConsecutivePerStation)
{
    RW_VAR s5 = make_var(4, 0, 1, 5);
    RW_VAR s6 = make_var(3, 0, 1, 6);
    read_register(&s5);
    read_register(&s6);
    read_register(&s5);
    RW_VAR w5 = make_var(4, 0, 1, 5, hex("0000"));
    write_analog(&w5);
    read_register(&s6);
    ASSERT_EQ(PLC_driver.request_queue.size(), 5);
    EXPECT_EQ(entry(0).frame.left(2), hex("0000"));
    EXPECT_EQ(entry(1).frame.left(2), hex("0000"));
    EXPECT_EQ(entry(2).frame.left(2), hex("0001"));
    EXPECT_EQ(entry(3).frame.left(2), hex("0002"));
    EXPECT_EQ(entry(4).frame.left(2), hex("0001"));
    EXPECT_EQ(PLC_driver.transaction_ids[5], 3);
    EXPECT_EQ(PLC_driver.transaction_ids[6], 2);
    EXPECT_EQ(PLC_driver.transaction_ids[4], 0);
    EXPECT_EQ(PLC_driver.transaction_ids[7], 0);
}

TEST_F(FrameTest, ModbusReadOfOtherKindsQueuesNothing)
{
    PLC_driver.transaction_ids[1] = 40;
    const int kinds[] = {5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, -1, 0x10004};
    for (int kind : kinds) {
        RW_VAR v = make_var(kind, 0, 1, 1);
        read_register(&v);
    }
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
    EXPECT_EQ(PLC_driver.transaction_ids[1], 40);
    EXPECT_EQ(info.replies_expected, 99);
    EXPECT_EQ(info.replies_received, 42);
}

TEST_F(FrameTest, ModbusReadTruncatesAddressAndCount)
{
    RW_VAR a = make_var(4, 0x12345, 0x10002, 0x1FF);
    read_register(&a);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0006 FF 03 2345 0002"));
    // The data length follows the full count.
    EXPECT_EQ(entry(0).data_len, 0x20004);
    RW_VAR b = make_var(3, 0xF000, 1, 2);
    read_register(&b);
    EXPECT_EQ(entry(1).frame.mid(8, 2), hex("9000")); // 0x1A000 cut to 16 bits
}

TEST_F(FrameTest, StationOutsideTableUsesItsLowByte)
{
    RW_VAR v = make_var(4, 0, 1, 257);
    read_register(&v);
    EXPECT_EQ(uchar(entry(0).frame[6]), 1);
    EXPECT_EQ(PLC_driver.transaction_ids[1], 1);
    RW_VAR n = make_var(4, 0, 1, -1);
    read_register(&n);
    EXPECT_EQ(uchar(entry(1).frame[6]), 0xFF);
    EXPECT_EQ(PLC_driver.transaction_ids[255], 1);
}

// ----------------------------------------------------------- Modbus TCP write

TEST_F(FrameTest, WriteRegistersByteForByte)
{
    PLC_driver.transaction_ids[1] = 5;
    RW_VAR v = make_var(4, 10, 2, 1, hex("01020304"));
    v.rw_flag = 1;
    const RW_VAR copy = v;
    write_analog(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame, hex("0005 0000 000B 01 10 000A 0002 04 0201 0403"));
    EXPECT_EQ(p.frame_len, 17);
    EXPECT_EQ(p.reply_len, 12);
    EXPECT_EQ(p.reply_header_len, 0);
    EXPECT_EQ(p.data_len, 0);
    expect_same_var(p.var, copy);
    expect_same_var(v, copy);
    EXPECT_EQ(PLC_driver.transaction_ids[1], 6);
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
    // write_analog alone leaves the mirror alone.
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

namespace {

struct WriteCase {
    const char *what;
    int kind, start, count;
    const char *data;
    const char *frame;
};

std::ostream &operator<<(std::ostream &os, const WriteCase &c)
{
    return os << c.what;
}

const WriteCase kWrites[] = {
    {"holding_registers_get_the_class_offset", 3, 10, 2, "01020304", "0000 0000 000B 01 10 A00A 0002 04 0201 0403"},
    // Quantity 2 a value, the address doubled without offset, each register high byte first.
    {"dword", 10, 7, 1, "78563412", "0000 0000 000B 01 10 000E 0002 04 5678 1234"},
    {"two_dwords", 11, 7, 2, "78563412 04030201", "0000 0000 000F 01 10 000E 0004 08 5678 1234 0304 0102"},
    {"qword_class_3", 13, 3, 1, "0102030405060708", "0000 0000 000F 01 10 000C 0004 08 0201 0403 0605 0807"},
    {"qword_class_4", 14, 3, 1, "0102030405060708", "0000 0000 000F 01 10 000C 0004 08 0201 0403 0605 0807"},
    // Coils: function 15, the bytes as they are.
    {"coils", 1, 0, 10, "A503", "0000 0000 0009 01 0F A000 000A 02 A503"},
    {"registers_without_data", 4, 1, 0, "", "0000 0000 0007 01 10 0001 0000 00"},
    {"coils_without_data", 1, 1, 0, "", "0000 0000 0007 01 0F A001 0000 00"},
    // Partial groups are padded with zeros; the byte count stays the data's length.
    {"padded_registers", 4, 0, 2, "010203", "0000 0000 000B 01 10 0000 0002 03 0201 0003"},
    {"padded_dwords", 11, 0, 2, "0102030405", "0000 0000 000F 01 10 0000 0004 05 0201 0403 0005 0000"},
    {"padded_qword", 14, 0, 1, "010203", "0000 0000 000F 01 10 0000 0004 03 0201 0003 0000 0000"},
    {"a_coil_byte_needs_no_padding", 1, 0, 3, "07", "0000 0000 0008 01 0F A000 0003 01 07"},
};

class WriteFrames : public DriverTableTest<WriteCase> {};

} // namespace

TEST_P(WriteFrames, ByteForByte)
{
    const WriteCase &c = GetParam();
    RW_VAR v = make_var(c.kind, c.start, c.count, 1, hex(c.data));
    write_analog(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(entry(0).frame, hex(c.frame));
    EXPECT_EQ(entry(0).frame_len, entry(0).frame.size());
    EXPECT_EQ(entry(0).reply_len, 12);
    EXPECT_EQ(entry(0).reply_header_len, 0);
    EXPECT_EQ(entry(0).data_len, 0);
}

INSTANTIATE_TEST_SUITE_P(WritableKinds, WriteFrames, ::testing::ValuesIn(kWrites),
                         [](const ::testing::TestParamInfo<WriteCase> &p) { return std::string(p.param.what); });

TEST_F(FrameTest, WriteToStationZeroExpectsNoReply)
{
    RW_VAR v = make_var(4, 1, 1, 0, hex("0100"));
    write_analog(&v);
    EXPECT_EQ(entry(0).reply_len, 0);
    EXPECT_EQ(uchar(entry(0).frame[6]), 0);
}

TEST_F(FrameTest, WriteOfOtherKindKeepsPreviousBytes)
{
    RW_VAR first = make_var(4, 10, 2, 1, hex("01020304"));
    write_analog(&first);
    RW_VAR odd = make_var(0, 5, 1, 3, hex("01"));
    write_analog(&odd);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    const Protocol &p = entry(1);
    // Byte 7 still holds the function code of the previous request.
    EXPECT_EQ(p.frame, hex("0000 0000 0004 03 10 6005"));
    EXPECT_EQ(p.frame_len, 10);
    EXPECT_EQ(p.reply_len, 12);
    EXPECT_EQ(p.reply_header_len, 0);
    EXPECT_EQ(p.data_len, 0);
    EXPECT_EQ(PLC_driver.transaction_ids[3], 1);
    // Bytes 10 onward of the scratch buffer are left as they were.
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(PLC_driver.frame_buf) + 10, 7), hex("0002 04 0201 0403"));
}

namespace {

struct UnwrittenKindCase {
    int kind;
    const char *address; // start 5 plus the offset the kind takes as it stands
};

std::ostream &operator<<(std::ostream &os, const UnwrittenKindCase &c)
{
    return os << "kind " << c.kind;
}

const UnwrittenKindCase kUnwrittenKinds[] = {{0, "6005"}, {2, "8005"}, {5, "0005"},  {6, "0005"},  {7, "0005"},
                                             {8, "0005"}, {9, "0005"}, {12, "0005"}, {15, "0005"}, {-1, "0005"}};

class UnwrittenKinds : public DriverTableTest<UnwrittenKindCase> {};

} // namespace

TEST_P(UnwrittenKinds, WriteAddressesWithoutScaling)
{
    RW_VAR v = make_var(GetParam().kind, 5, 3, 0, hex("01020304"));
    write_analog(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame_len, 10);
    EXPECT_EQ(p.frame.mid(4, 2), hex("0004"));
    EXPECT_EQ(p.frame.mid(8, 2), hex(GetParam().address));
    EXPECT_EQ(p.reply_len, 0); // station 0
    // After a fresh start the scratch buffer holds zeros.
    EXPECT_EQ(uchar(p.frame[7]), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, UnwrittenKinds, ::testing::ValuesIn(kUnwrittenKinds));

TEST_F(FrameTest, WriteByteCountAndQuantityAreTruncated)
{
    QByteArray data(300, '\0');
    for (int i = 0; i < data.size(); ++i)
        data[i] = char(i);
    RW_VAR v = make_var(4, 0, 0x10096, 1, data);
    write_analog(&v);
    const Protocol &p = entry(0);
    ASSERT_EQ(p.frame_len, 313);
    EXPECT_EQ(p.frame.left(13), hex("0000 0000 0133 01 10 0000 0096 2C"));
    EXPECT_EQ(uchar(p.frame[13]), 1);
    EXPECT_EQ(uchar(p.frame[14]), 0);
    EXPECT_EQ(uchar(p.frame[311]), 0x2B);
    EXPECT_EQ(uchar(p.frame[312]), 0x2A);
    RW_VAR d = make_var(10, 0x9000, 0x8001, 1, hex("00000000"));
    write_analog(&d);
    // Address 0x12000 and quantity 0x10002, both cut to 16 bits.
    EXPECT_EQ(entry(1).frame.mid(8, 4), hex("2000 0002"));
}

TEST_F(FrameTest, WriteLargerThanScratchBufferIsCut)
{
    QByteArray data(2000, '\x11');
    RW_VAR v = make_var(4, 0, 1000, 1, data);
    write_analog(&v);
    const Protocol &p = entry(0);
    EXPECT_EQ(p.frame_len, 1023); // 13 + 1010: whole pairs that fit in 1024 bytes
    EXPECT_EQ(p.frame.size(), 1023);
    EXPECT_EQ(p.frame.mid(4, 2), hex("03F9"));
    EXPECT_EQ(uchar(p.frame[12]), 2000 & 0xFF);
}

TEST_F(FrameTest, WriteRegisterOrdinaryWriteMirrors)
{
    RW_VAR v = make_var(4, 10, 2, 1, hex("01020304"));
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 000B 01 10 000A 0002 04 0201 0403"));
    EXPECT_EQ(info.replies_expected, 1);
    EXPECT_EQ(info.replies_received, 0);
    EXPECT_EQ(word(1, 4, 10), 0x0201);
    EXPECT_EQ(word(1, 4, 11), 0x0403);
}

TEST_F(FrameTest, WriteRegisterWithoutMirrorWhenCommunicationFailed)
{
    PLC_driver.comm_failed = true;
    RW_VAR v = make_var(3, 10, 1, 1, hex("0102"));
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0009 01 10 A00A 0001 02 0201"));
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(FrameTest, WriteRegisterLongValuesGetNoOffset)
{
    RW_VAR d = make_var(10, 7, 1, 1, hex("78563412"));
    write_register(&d);
    EXPECT_EQ(entry(0).frame.mid(8, 2), hex("000E"));
    EXPECT_EQ(word(1, 3, 14), 0x5678);
    EXPECT_EQ(word(1, 3, 15), 0x1234);
    RW_VAR q = make_var(13, 1, 1, 1, hex("0102030405060708"));
    write_register(&q);
    EXPECT_EQ(entry(1).frame.mid(8, 4), hex("0004 0004"));
    EXPECT_EQ(word(1, 3, 4), 0x0201);
    EXPECT_EQ(word(1, 3, 7), 0x0807);
}

TEST_F(FrameTest, WriteRegisterCoilsMirrorBits)
{
    RW_VAR v = make_var(1, 4, 3, 2, hex("05"));
    write_register(&v);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0008 02 0F A004 0003 01 05"));
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(2, 1, 4), 9), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(2, 1, 5), 9), 0);
    EXPECT_EQ(PLC_driver.bit_mirror.value(key(2, 1, 6), 9), 1);
}

TEST_F(FrameTest, WriteRegisterOfReadOnlyKind)
{
    RW_VAR v = make_var(2, 5, 1, 1, hex("3412"));
    write_register(&v);
    EXPECT_EQ(entry(0).frame_len, 10);
    EXPECT_EQ(entry(0).frame.mid(8, 2), hex("8005"));
    // Mirrored like any ordinary write.
    EXPECT_EQ(word(1, 2, 5), 0x1234);
    RW_VAR unknown = make_var(15, 5, 1, 1, hex("3412"));
    write_register(&unknown);
    EXPECT_EQ(entry(1).frame_len, 10);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
}

TEST_F(FrameTest, BitWriteQueuesReadThenWriteOfItsRegister)
{
    RW_VAR v = make_var(5, 17, 1, 2, hex("01"));
    v.rw_flag = 1;
    v.source_id = 8;
    const RW_VAR copy = v;
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    const Protocol &read = entry(0);
    EXPECT_EQ(read.frame, hex("0000 0000 0006 02 03 0001 0001"));
    EXPECT_EQ(read.reply_len, 11);
    EXPECT_EQ(read.reply_header_len, 9);
    EXPECT_EQ(read.data_len, 2);
    EXPECT_EQ(read.var.reg_kind, 4);
    EXPECT_EQ(read.var.start_addr, 1);
    EXPECT_EQ(read.var.count, 1);
    EXPECT_EQ(read.var.rw_flag, 0);
    EXPECT_EQ(read.var.ext_param1, -1);
    EXPECT_EQ(read.var.data, hex("0000"));
    EXPECT_EQ(read.var.source_id, 8);
    const Protocol &write = entry(1);
    EXPECT_EQ(write.frame, hex("0001 0000 0009 02 10 0001 0001 02 0000"));
    EXPECT_EQ(write.frame_len, 15);
    EXPECT_EQ(write.reply_len, 12);
    EXPECT_EQ(write.var.reg_kind, 4);
    EXPECT_EQ(write.var.start_addr, 1);
    EXPECT_EQ(write.var.count, 1);
    EXPECT_EQ(write.var.rw_flag, 1);
    EXPECT_EQ(write.var.ext_param1, 0);
    EXPECT_EQ(write.var.data, hex("0000"));
    EXPECT_EQ(info.replies_expected, 2);
    EXPECT_EQ(info.replies_received, 0);
    EXPECT_EQ(PLC_driver.transaction_ids[2], 2);
    expect_same_var(v, copy);
    // The pair does not touch the mirror.
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(FrameTest, ByteWriteOfClassThreeUsesItsOffset)
{
    RW_VAR v = make_var(7, 9, 1, 1, hex("AB"));
    v.rw_flag = 1;
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0006 01 03 A004 0001"));
    EXPECT_EQ(entry(0).var.reg_kind, 3);
    EXPECT_EQ(entry(0).var.start_addr, 4);
    EXPECT_EQ(entry(0).var.ext_param1, -2);
    EXPECT_EQ(entry(0).var.rw_flag, 0);
    EXPECT_EQ(entry(1).frame, hex("0001 0000 0009 01 10 A004 0001 02 0000"));
    EXPECT_EQ(entry(1).var.reg_kind, 3);
    EXPECT_EQ(entry(1).var.ext_param1, 0);
    EXPECT_EQ(entry(1).var.rw_flag, 1);
    EXPECT_EQ(info.replies_expected, 2);
    EXPECT_EQ(info.replies_received, 0);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(FrameTest, ByteWriteOfClassFour)
{
    RW_VAR v = make_var(8, 9, 1, 1, hex("AB"));
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0006 01 03 0004 0001"));
    EXPECT_EQ(entry(0).var.reg_kind, 4);
    EXPECT_EQ(entry(0).var.ext_param1, -2);
    EXPECT_EQ(entry(1).frame, hex("0001 0000 0009 01 10 0004 0001 02 0000"));
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(FrameTest, BitWritePairEvenWhenCommunicationFailedAndToStationZero)
{
    PLC_driver.comm_failed = true;
    RW_VAR v = make_var(5, -1, 1, 0, hex("01"));
    write_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 2);
    // -1 >> 4 is -1: register 0xFFFF.
    EXPECT_EQ(entry(0).frame, hex("0000 0000 0006 00 03 FFFF 0001"));
    EXPECT_EQ(entry(0).reply_len, 11);
    EXPECT_EQ(entry(1).reply_len, 0);
    EXPECT_EQ(info.replies_expected, 2);
}
