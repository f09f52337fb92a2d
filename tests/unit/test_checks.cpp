// Frame check values (sum, CRC-16, LRC, XOR), the hex digit converters and
// the test that a reply belongs to the request at the head of the queue.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <QByteArray>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace {

unsigned char *bytes(QByteArray &a)
{
    return reinterpret_cast<unsigned char *>(a.data());
}

QByteArray digits()
{
    return QByteArray("123456789");
}

} // namespace

// ---- CalSUM ----

TEST(CalSUM, SumOfDigitText)
{
    QByteArray a = digits();
    EXPECT_EQ(CalSUM(bytes(a), 9), 0x01DD);
}

TEST(CalSUM, EmptyBufferGivesZero)
{
    unsigned char b[1] = {0x55};
    EXPECT_EQ(CalSUM(b, 0), 0);
}

TEST(CalSUM, TruncatesTo16Bits)
{
    std::vector<unsigned char> b(300, 0xFF);
    EXPECT_EQ(CalSUM(b.data(), 300), 0x2AD4); // 76500 mod 65536
}

TEST(CalSUM, OnlyTheGivenLengthCounts)
{
    unsigned char b[4] = {1, 2, 3, 200};
    EXPECT_EQ(CalSUM(b, 3), 6);
}

TEST(CalSUM, NullBufferGivesZero)
{
    EXPECT_EQ(CalSUM(nullptr, 10), 0);
}

// ---- CalCRC ----

TEST(CalCRC, ModbusCheckValueOfDigitText)
{
    QByteArray a = digits();
    EXPECT_EQ(CalCRC(bytes(a), 9), 0x4B37);
}

TEST(CalCRC, ReadHoldingRegisterRequest)
{
    const unsigned char b[6] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x01};
    const quint16 crc = CalCRC(b, 6);
    EXPECT_EQ(crc, 0x0A84);
    // On a serial line the low byte goes first: 84 0A.
    EXPECT_EQ(crc & 0xFF, 0x84);
    EXPECT_EQ(crc >> 8, 0x0A);
}

TEST(CalCRC, EmptyBufferGivesInitialValue)
{
    const unsigned char b[1] = {0x12};
    EXPECT_EQ(CalCRC(b, 0), 0xFFFF);
    EXPECT_EQ(CalCRC(nullptr, 4), 0xFFFF);
}

// ---- CalLRC ----

TEST(CalLRC, DigitText)
{
    QByteArray a = digits();
    EXPECT_EQ(CalLRC(bytes(a), 9), 35);
}

TEST(CalLRC, OneIsAddedAfterTruncation)
{
    unsigned char b[2] = {0x80, 0x80};
    EXPECT_EQ(CalLRC(b, 2), 256);
}

TEST(CalLRC, EmptyBufferGives256)
{
    unsigned char b[1] = {0x01};
    EXPECT_EQ(CalLRC(b, 0), 256);
    EXPECT_EQ(CalLRC(nullptr, 3), 256);
}

TEST(CalLRC, ResultStaysInOneTo256)
{
    unsigned char b[1] = {0xFF};
    EXPECT_EQ(CalLRC(b, 1), 1); // ~0xFF = 0x00, + 1
    unsigned char c[1] = {0x01};
    EXPECT_EQ(CalLRC(c, 1), 255); // ~0x01 = 0xFE, + 1
}

// ---- CalXOR ----

TEST(CalXOR, LengthOneReturnsFirstByte)
{
    unsigned char b[3] = {0xA7, 0x11, 0x22};
    EXPECT_EQ(CalXOR(b, 1), 0xA7);
}

TEST(CalXOR, XorOfOneTwoThreeIsZero)
{
    unsigned char b[3] = {0x01, 0x02, 0x03};
    EXPECT_EQ(CalXOR(b, 3), 0);
}

TEST(CalXOR, EmptyBufferGivesZero)
{
    // An empty buffer has no first byte to start from.
    unsigned char b[2] = {0x5A, 0x33};
    EXPECT_EQ(CalXOR(b, 0), 0);
    EXPECT_EQ(CalXOR(nullptr, 0), 0);
}

TEST(CalXOR, ResultIsEightBitsWide)
{
    unsigned char b[4] = {0xF0, 0x0F, 0xFF, 0x80};
    EXPECT_EQ(CalXOR(b, 4), 0x80);
}

// ---- DigitalToASCII / ASCIIToDigital ----

TEST(DigitalToASCII, StatedValues)
{
    EXPECT_EQ(DigitalToASCII(9), 0x39);
    EXPECT_EQ(DigitalToASCII(10), 0x41);
    EXPECT_EQ(DigitalToASCII(-1), 0x2F);
}

TEST(DigitalToASCII, HexDigits)
{
    const char *hex = "0123456789ABCDEF";
    for (int v = 0; v < 16; ++v)
        EXPECT_EQ(DigitalToASCII(v), hex[v]) << v;
}

TEST(DigitalToASCII, NoRangeCheck)
{
    EXPECT_EQ(DigitalToASCII(16), 0x47);
    EXPECT_EQ(DigitalToASCII(-10), 0x26);
    // The extremes wrap around instead of overflowing.
    EXPECT_EQ(DigitalToASCII(std::numeric_limits<int>::max()), std::numeric_limits<int>::min() + 0x36);
    EXPECT_EQ(DigitalToASCII(std::numeric_limits<int>::min()), std::numeric_limits<int>::min() + 0x30);
}

TEST(ASCIIToDigital, StatedValues)
{
    EXPECT_EQ(ASCIIToDigital('0'), 0);
    EXPECT_EQ(ASCIIToDigital(':'), 10);
    EXPECT_EQ(ASCIIToDigital(0x40), 0);
    EXPECT_EQ(ASCIIToDigital('F'), 15);
    EXPECT_EQ(ASCIIToDigital('a'), 42); // lower case is not folded
    EXPECT_EQ(ASCIIToDigital(' '), 0);
}

TEST(ASCIIToDigital, RangesAroundTheDigits)
{
    EXPECT_EQ(ASCIIToDigital(0x2F), 0);
    EXPECT_EQ(ASCIIToDigital(-5), 0);
    EXPECT_EQ(ASCIIToDigital(std::numeric_limits<int>::min()), 0);
    EXPECT_EQ(ASCIIToDigital(std::numeric_limits<int>::max()), std::numeric_limits<int>::max() - 0x37);
    EXPECT_EQ(ASCIIToDigital('9'), 9);
    EXPECT_EQ(ASCIIToDigital('?'), 15); // 0x3F, the sixth character after "9"
    EXPECT_EQ(ASCIIToDigital('A'), 10);
    for (int v = 0; v < 16; ++v)
        EXPECT_EQ(ASCIIToDigital(DigitalToASCII(v)), v) << v;
}

// ---- CheckGetData ----

class CheckGetDataTest : public DriverTest {
protected:
    // Queues a request whose frame starts with the given two bytes.
    void queue(uchar b0, uchar b1, int station, int rw_flag)
    {
        Protocol p;
        p.frame = QByteArray(12, '\0');
        p.frame[0] = char(b0);
        p.frame[1] = char(b1);
        p.frame_len = 12;
        p.reply_len = 12;
        p.var.station = station;
        p.var.rw_flag = rw_flag;
        PLC_driver.request_queue.append(p);
    }

    static QByteArray reply(int size, uchar b0, uchar b1)
    {
        QByteArray r(size, '\x07');
        if (size > 0)
            r[0] = char(b0);
        if (size > 1)
            r[1] = char(b1);
        return r;
    }
};

namespace {

struct VerdictCase {
    const char *what;
    int first, second, station, rw_flag; // the request in flight
    int size, reply_first, reply_second; // the reply
    int verdict;                         // 0 rejected, 1 store its data, 2 nothing to store
};

std::ostream &operator<<(std::ostream &os, const VerdictCase &c)
{
    return os << c.what;
}

const VerdictCase kVerdicts[] = {
    {"SevenByteReplyIsRejected", 0x12, 0x34, 1, 0, 7, 0x12, 0x34, 0},
    {"MatchingReplyToReadCarriesData", 0x12, 0x34, 1, 0, 8, 0x12, 0x34, 1},
    {"MatchingReplyToWriteHasNothingToStore", 0x12, 0x34, 1, 1, 8, 0x12, 0x34, 2},
    {"AnyNonZeroRwFlagIsAWrite", 0x00, 0x05, 3, -7, 12, 0x00, 0x05, 2},
    {"MismatchingFirstByteIsRejected", 0x12, 0x34, 1, 0, 12, 0x13, 0x34, 0},
    {"MismatchingSecondByteIsRejected", 0x12, 0x34, 1, 1, 12, 0x12, 0x35, 0},
};

class CheckGetDataVerdicts : public CheckGetDataTest, public ::testing::WithParamInterface<VerdictCase> {};

} // namespace

TEST_P(CheckGetDataVerdicts, OfAReplyToTheRequestInFlight)
{
    const VerdictCase &c = GetParam();
    queue(uchar(c.first), uchar(c.second), c.station, c.rw_flag);
    QByteArray r = reply(c.size, uchar(c.reply_first), uchar(c.reply_second));
    EXPECT_EQ(CheckGetData(&r, c.size), c.verdict);
}

INSTANTIATE_TEST_SUITE_P(Replies, CheckGetDataVerdicts, ::testing::ValuesIn(kVerdicts),
                         [](const ::testing::TestParamInfo<VerdictCase> &p) { return std::string(p.param.what); });

TEST_F(CheckGetDataTest, StationZeroAcceptsAnyReply)
{
    queue(0x12, 0x34, 0, 0);
    QByteArray empty;
    EXPECT_EQ(CheckGetData(&empty, 0), 2);
    QByteArray short_reply = reply(3, 0x99, 0x98);
    EXPECT_EQ(CheckGetData(&short_reply, 3), 2);
    QByteArray wrong = reply(12, 0x99, 0x98);
    EXPECT_EQ(CheckGetData(&wrong, 12), 2);
    EXPECT_EQ(CheckGetData(nullptr, 0), 2);
}

TEST_F(CheckGetDataTest, EmptyQueueGivesZero)
{
    QByteArray r = reply(12, 0x00, 0x00);
    EXPECT_EQ(CheckGetData(&r, 12), 0);
}

TEST_F(CheckGetDataTest, NullReplyIsRejected)
{
    queue(0x12, 0x34, 1, 0);
    EXPECT_EQ(CheckGetData(nullptr, 12), 0);
}

TEST_F(CheckGetDataTest, LengthArgumentIsIgnored)
{
    queue(0x12, 0x34, 1, 0);
    QByteArray seven = reply(7, 0x12, 0x34);
    EXPECT_EQ(CheckGetData(&seven, 100), 0);
    QByteArray eight = reply(8, 0x12, 0x34);
    EXPECT_EQ(CheckGetData(&eight, 0), 1);
    EXPECT_EQ(CheckGetData(&eight, -1), 1);
}

TEST_F(CheckGetDataTest, OnlyTheHeadRequestCounts)
{
    queue(0x00, 0x01, 1, 0);
    queue(0x00, 0x02, 0, 1);
    QByteArray to_second = reply(12, 0x00, 0x02);
    EXPECT_EQ(CheckGetData(&to_second, 12), 0);
    QByteArray to_head = reply(12, 0x00, 0x01);
    EXPECT_EQ(CheckGetData(&to_head, 12), 1);
}

TEST_F(CheckGetDataTest, ReplyIsDetachedAndUnchanged)
{
    queue(0x12, 0x34, 1, 0);
    const QByteArray original = reply(9, 0x12, 0x34);
    QByteArray shared = original;
    ASSERT_EQ(shared.constData(), original.constData());
    EXPECT_EQ(CheckGetData(&shared, 9), 1);
    EXPECT_NE(shared.constData(), original.constData());
    EXPECT_EQ(shared, original);
}

TEST_F(CheckGetDataTest, ModbusReadRequestAndItsEcho)
{
    RW_VAR v;
    v.reg_kind = 4;
    v.station = 9;
    v.start_addr = 100;
    v.count = 1;
    PLC_driver.transaction_ids[9] = 0xBEEF;
    read_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    QByteArray good = QByteArray::fromHex("beef0000000509030200ff");
    EXPECT_EQ(CheckGetData(&good, good.size()), 1);
    QByteArray stale = QByteArray::fromHex("beee0000000509030200ff");
    EXPECT_EQ(CheckGetData(&stale, stale.size()), 0);
}

TEST_F(CheckGetDataTest, RemoteWriteAcknowledgement)
{
    RW_VAR v;
    v.source_type = 0x42;
    v.rw_flag = 1;
    v.reg_kind = 4;
    v.station = 2;
    v.data = QByteArray::fromHex("3412");
    Remote_WriteVar(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    // Byte 0 of the request is its length (24), byte 1 the source type.
    QByteArray ack = QByteArray::fromHex("1842000000000000");
    EXPECT_EQ(CheckGetData(&ack, 8), 2);
    QByteArray wrong = QByteArray::fromHex("1642000000000000");
    EXPECT_EQ(CheckGetData(&wrong, 8), 0);
}
