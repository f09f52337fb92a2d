// GetRegisterData: the runtime's reads of variable values from the mirror.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <initializer_list>
#include <ostream>

namespace {

void put_bit(int station, int cls, qint32 addr, uchar value)
{
    PLC_driver.bit_mirror.insert(mirror_key(station, cls, addr), value);
}

class DataRead : public DriverTest {
protected:
    // Reads into a buffer that starts with unrelated contents.
    int read(int kind, const QString &address, int station, int count)
    {
        out = QByteArray("previous contents");
        return GetRegisterData(nullptr, kind, address, station, &out, count);
    }

    QByteArray out;
};

} // namespace

// ---- layout of every kind ----

TEST_F(DataRead, BitKindsOneBytePerBit)
{
    put_bit(1, 1, 10, 1);
    put_bit(1, 1, 11, 0);
    put_bit(1, 1, 13, 7); // any non-zero entry reads as 1
    put_bit(1, 0, 12, 1); // class 0 is another table section
    EXPECT_EQ(read(1, "1.2", 1, 5), 1);
    EXPECT_EQ(out, bytes({1, 0, 0, 1, 0}));

    EXPECT_EQ(read(0, "1.2", 1, 4), 1);
    EXPECT_EQ(out, bytes({0, 0, 1, 0}));
}

TEST_F(DataRead, WordKindsLowByteFirst)
{
    put_word(1, 2, 100, 0x1234);
    put_word(1, 2, 102, 0xABCD);
    put_word(1, 3, 100, 0x5566);
    put_word(1, 4, 100, 0x7788);
    EXPECT_EQ(read(2, "100", 1, 3), 1);
    EXPECT_EQ(out, bytes({0x34, 0x12, 0, 0, 0xCD, 0xAB}));
    EXPECT_EQ(read(3, "100", 1, 1), 1);
    EXPECT_EQ(out, bytes({0x66, 0x55}));
    EXPECT_EQ(read(4, "100", 1, 2), 1);
    EXPECT_EQ(out, bytes({0x88, 0x77, 0, 0}));
}

TEST_F(DataRead, Kind5BitsAcrossAWordBoundary)
{
    put_word(1, 4, 0, 0x8000);
    put_word(1, 4, 1, 0x0001);
    EXPECT_EQ(read(5, "1.6", 1, 4), 1); // bit address 14
    EXPECT_EQ(out, bytes({0, 1, 1, 0}));
}

TEST_F(DataRead, Kind7PacksBytesAtTheStartAndZeroesTheSecondHalf)
{
    put_word(1, 3, 0, 0x1122);
    put_word(1, 3, 1, 0x3344);
    EXPECT_EQ(read(7, "1", 1, 3), 1);
    EXPECT_EQ(out, bytes({0x11, 0x44, 0x33, 0x00, 0x00, 0x00}));
}

TEST_F(DataRead, Kinds6And8ReadTheirOwnClass)
{
    put_word(1, 2, 5, 0xA1B2);
    put_word(1, 4, 5, 0xC3D4);
    EXPECT_EQ(read(6, "10", 1, 2), 1);
    EXPECT_EQ(out, bytes({0xB2, 0xA1, 0, 0}));
    EXPECT_EQ(read(8, "11", 1, 1), 1);
    EXPECT_EQ(out, bytes({0xC3, 0}));
}

namespace {

struct SizeCase {
    int kind, count;
    int size; // bytes of the runtime's buffer
};

std::ostream &operator<<(std::ostream &os, const SizeCase &c)
{
    return os << "kind " << c.kind << " count " << c.count;
}

const SizeCase kSizes[] = {
    // A byte per bit.
    {0, 5, 5},
    {1, 9, 9},
    {5, 3, 3},
    // Two bytes per register, and per byte (the bytes packed at the start).
    {2, 3, 6},
    {3, 1, 2},
    {4, 2, 4},
    {6, 3, 6},
    {7, 1, 2},
    {8, 4, 8},
    // 32-bit values: the count in registers, rounded up to whole values.
    {11, 3, 8},
    {11, 1, 4},
    {9, 2, 4},
    {10, 4, 8},
    // 64-bit values likewise.
    {14, 5, 16},
    {12, 4, 8},
    {13, 1, 8},
};

class BufferSizes : public DriverTableTest<SizeCase> {};

} // namespace

TEST_P(BufferSizes, FollowTheKindsUnits)
{
    const SizeCase &c = GetParam();
    const QString address = plckinds::is_bit_addressed(c.kind) ? QStringLiteral("0.0") : QStringLiteral("0");
    QByteArray out("previous contents");
    EXPECT_EQ(GetRegisterData(nullptr, c.kind, address, 1, &out, c.count), 1);
    EXPECT_EQ(out, QByteArray(c.size, '\0'));
}

INSTANTIATE_TEST_SUITE_P(Kinds, BufferSizes, ::testing::ValuesIn(kSizes));

TEST_F(DataRead, DoubleWordLayout)
{
    // Double word 3 is words 6 and 7, double word 4 words 8 and 9.
    put_word(1, 4, 6, 0x0201);
    put_word(1, 4, 7, 0x0403);
    put_word(1, 4, 9, 0x0807); // word 8 missing: its bytes stay zero
    EXPECT_EQ(read(11, "3", 1, 3), 1);
    EXPECT_EQ(out, bytes({0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x07, 0x08}));

    put_word(1, 2, 2, 0xBBAA);
    put_word(1, 3, 2, 0xDDCC);
    EXPECT_EQ(read(9, "1", 1, 2), 1);
    EXPECT_EQ(out, bytes({0xAA, 0xBB, 0, 0}));
    EXPECT_EQ(read(10, "1", 1, 1), 1);
    EXPECT_EQ(out, bytes({0xCC, 0xDD, 0, 0}));
}

TEST_F(DataRead, QuadWordLayout)
{
    // Quad word 2 is words 8..11; word 10 is missing.
    put_word(1, 3, 8, 0x1100);
    put_word(1, 3, 9, 0x3322);
    put_word(1, 3, 11, 0x7766);
    put_word(1, 3, 12, 0x9988);
    EXPECT_EQ(read(13, "2", 1, 5), 1);
    EXPECT_EQ(out, bytes({0x00, 0x11, 0x22, 0x33, 0, 0, 0x66, 0x77, 0x88, 0x99, 0, 0, 0, 0, 0, 0}));

    put_word(1, 2, 4, 1);
    put_word(1, 4, 7, 0xFFFF);
    EXPECT_EQ(read(12, "1", 1, 4), 1);
    EXPECT_EQ(out, bytes({1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(read(14, "1", 1, 4), 1);
    EXPECT_EQ(out, bytes({0, 0, 0, 0, 0, 0, 0xFF, 0xFF}));
}

TEST_F(DataRead, OneClassManyViews)
{
    RW_VAR w;
    w.reg_kind = 14;
    w.start_addr = 0;
    w.station = 1;
    w.data = bytes({0x01, 0x80, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});
    write_data_to_local(&w);
    EXPECT_EQ(read(4, "0", 1, 4), 1);
    EXPECT_EQ(out, w.data);
    EXPECT_EQ(read(11, "1", 1, 2), 1);
    EXPECT_EQ(out, bytes({0x05, 0x06, 0x07, 0x08}));
    EXPECT_EQ(read(8, "1", 1, 2), 1);
    EXPECT_EQ(out, bytes({0x80, 0x03, 0, 0}));
    EXPECT_EQ(read(5, "0.15", 1, 2), 1); // bits 15 and 16
    EXPECT_EQ(out, bytes({1, 1}));
}

// ---- stations ----

TEST_F(DataRead, StationFromAddressZeroUsesTheDefaultStation)
{
    info.station_from_address = 0;
    info.default_station = 3;
    put_word(3, 4, 0, 0x4242);
    put_word(9, 4, 0, 0x0909);
    EXPECT_EQ(read(4, "0", 9, 1), 1);
    EXPECT_EQ(out, bytes({0x42, 0x42}));
    EXPECT_EQ(read(4, "0", 200, 1), 1);
    EXPECT_EQ(out, bytes({0x42, 0x42}));
}

TEST_F(DataRead, StationFromAddressUsesTheArgument)
{
    put_word(3, 4, 0, 0x4242);
    put_word(9, 4, 0, 0x0909);
    EXPECT_EQ(read(4, "0", 9, 1), 1);
    EXPECT_EQ(out, bytes({0x09, 0x09}));
    EXPECT_EQ(read(4, "0", 3, 1), 1);
    EXPECT_EQ(out, bytes({0x42, 0x42}));
    EXPECT_EQ(read(4, "0", 4, 1), 1);
    EXPECT_EQ(out, bytes({0, 0}));
}

// ---- bad input ----

TEST_F(DataRead, InvalidAddressGivesZeroAndZeroBytes)
{
    put_word(1, 4, 0, 0xFFFF);
    EXPECT_EQ(read(4, "x", 1, 3), 0);
    EXPECT_EQ(out, QByteArray(6, '\0'));
    EXPECT_EQ(read(4, "-5", 1, 2), 0); // parses, but negative
    EXPECT_EQ(out, QByteArray(4, '\0'));
    EXPECT_EQ(read(0, "12", 1, 4), 0); // a bit kind needs byte.bit
    EXPECT_EQ(out, QByteArray(8, '\0'));
    EXPECT_EQ(read(11, "", 1, 5), 0);
    EXPECT_EQ(out, QByteArray(10, '\0'));
    EXPECT_EQ(read(15, "abc", 1, 1), 0);
    EXPECT_EQ(out, QByteArray(2, '\0'));
}

TEST_F(DataRead, UnknownKindGivesOneAndZeroBytes)
{
    put_word(1, 4, 7, 0xFFFF);
    for (int kind : {15, 16, -1, 255}) {
        EXPECT_EQ(read(kind, "7", 1, 3), 1) << kind;
        EXPECT_EQ(out, QByteArray(6, '\0')) << kind;
    }
}

TEST_F(DataRead, CountZeroGivesAnEmptyBufferForEveryKind)
{
    put_word(1, 4, 0, 0xFFFF);
    for (int kind = 0; kind <= 15; ++kind) {
        const QString address = (kind == 0 || kind == 1 || kind == 5) ? "0.0" : "0";
        EXPECT_EQ(read(kind, address, 1, 0), 1) << kind;
        EXPECT_TRUE(out.isEmpty()) << kind;
    }
}

TEST_F(DataRead, NegativeCountKeepsTheLengthZeroFilled)
{
    put_word(1, 4, 0, 0xFFFF);
    for (int kind = 0; kind <= 15; ++kind) {
        const QString address = (kind == 0 || kind == 1 || kind == 5) ? "0.0" : "0";
        EXPECT_EQ(read(kind, address, 1, -3), 1) << kind;
        EXPECT_EQ(out, QByteArray(17, '\0')) << kind;
    }
    EXPECT_EQ(read(4, "bad", 1, -3), 0);
    EXPECT_EQ(out, QByteArray(17, '\0'));
}

TEST_F(DataRead, OversizedCountKeepsTheLengthZeroFilled)
{
    EXPECT_EQ(read(4, "0", 1, 0x40000000), 1);
    EXPECT_EQ(out, QByteArray(17, '\0'));
    EXPECT_EQ(read(4, "x", 1, 0x40000000), 0);
    EXPECT_EQ(out, QByteArray(17, '\0'));
}

TEST_F(DataRead, NullBufferIsHarmless)
{
    put_word(1, 4, 0, 1);
    EXPECT_EQ(GetRegisterData(nullptr, 4, "0", 1, nullptr, 2), 1);
    EXPECT_EQ(GetRegisterData(nullptr, 4, "x", 1, nullptr, 2), 0);
    EXPECT_EQ(GetRegisterData(nullptr, 20, "0", 1, nullptr, 2), 1);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
}

TEST_F(DataRead, FirstArgumentIsIgnored)
{
    put_word(1, 4, 0, 0x0102);
    int anything = 5;
    QByteArray a, b;
    EXPECT_EQ(GetRegisterData(&anything, 4, "0", 1, &a, 1), 1);
    EXPECT_EQ(GetRegisterData(nullptr, 4, "0", 1, &b, 1), 1);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, bytes({0x02, 0x01}));
}

TEST_F(DataRead, ReadsNeverCreateEntries)
{
    put_word(1, 4, 1000, 1);
    put_bit(1, 1, 1000, 1);
    for (int kind = 0; kind <= 16; ++kind) {
        const QString address = (kind == 0 || kind == 1 || kind == 5) ? "3.1" : "3";
        for (int station : {0, 1, 2})
            EXPECT_EQ(read(kind, address, station, 7), 1);
    }
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 1);
}
