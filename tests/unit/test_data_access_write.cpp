// SetRegisterData and QueryFinishFlag: the runtime's writes of variable
// values, cut into request-sized records, queued and/or mirrored.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

namespace {

// Bytes 0, 1, 2, ... n-1 (mod 256).
QByteArray ramp(int n)
{
    QByteArray out(n, '\0');
    for (int i = 0; i < n; ++i)
        out[i] = char(i & 0xFF);
    return out;
}

class DataWrite : public DriverTest {
protected:
    int write(int kind, const QString &address, QByteArray value, int count, int station = 1)
    {
        const QByteArray before = value;
        const int r = SetRegisterData("var", kind, address, station, &value, count, 5, 6);
        EXPECT_EQ(value, before) << "the value buffer must not change";
        return r;
    }

    const QList<RW_VAR> &queued() const { return PLC_driver.write_list; }
};

} // namespace

// ---- record fields ----

TEST_F(DataWrite, QueuedRecordFields)
{
    info.link_mode = 3;
    info.local_link_id = 9;
    QByteArray value = bytes({0x34, 0x12, 0x78, 0x56});
    EXPECT_EQ(SetRegisterData("name", 4, "40", 7, &value, 2, 11, 22), 1);
    ASSERT_EQ(queued().size(), 1);
    const RW_VAR &r = queued().first();
    EXPECT_EQ(r.source_type, 11);
    EXPECT_EQ(r.source_id, 22);
    EXPECT_EQ(r.rw_flag, 1);
    EXPECT_EQ(r.link_mode, 3);
    EXPECT_EQ(r.link_id, 9);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.name_text, QString("name"));
    EXPECT_EQ(r.address_text, QString("40"));
    EXPECT_EQ(r.reg_kind, 4);
    EXPECT_EQ(r.start_addr, 40);
    EXPECT_EQ(r.station, 7);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.ext_param1, 0);
    EXPECT_EQ(r.ext_param2, 0);
    EXPECT_EQ(r.data, bytes({0x34, 0x12, 0x78, 0x56}));
}

TEST_F(DataWrite, StationFromAddressZeroUsesTheDefaultStation)
{
    info.station_from_address = 0;
    info.default_station = 12;
    EXPECT_EQ(write(3, "0", bytes({1, 0}), 1, 99), 1);
    ASSERT_EQ(queued().size(), 1);
    EXPECT_EQ(queued().first().station, 12);

    info.write_mode = 1;
    EXPECT_EQ(write(3, "0", bytes({1, 0}), 1, 99), 1);
    EXPECT_EQ(word_entry(12, 3, 0), 1);
    EXPECT_EQ(word_entry(99, 3, 0), -1);
}

// ---- write_mode and comm_failed ----

TEST_F(DataWrite, WriteMode1GoesToTheMirrorOnly)
{
    info.write_mode = 1;
    put_word(1, 4, 9, 0x0909);
    put_word(1, 4, 12, 0x1212);
    EXPECT_EQ(write(4, "10", bytes({0x01, 0x02, 0x03, 0x04}), 2), 0);
    EXPECT_TRUE(queued().isEmpty());
    EXPECT_EQ(word_entry(1, 4, 10), 0x0201);
    EXPECT_EQ(word_entry(1, 4, 11), 0x0403);
    EXPECT_EQ(word_entry(1, 4, 9), 0x0909);
    EXPECT_EQ(word_entry(1, 4, 12), 0x1212);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 4);

    QByteArray out;
    EXPECT_EQ(GetRegisterData(nullptr, 4, "10", 1, &out, 2), 1);
    EXPECT_EQ(out, bytes({0x01, 0x02, 0x03, 0x04}));
}

TEST_F(DataWrite, WriteModesOtherThanTwoAreMirrorOnly)
{
    for (int mode : {0, 3, -2}) {
        info.write_mode = mode;
        EXPECT_EQ(write(3, "5", bytes({mode & 0xFF, 0}), 1), 0);
        EXPECT_TRUE(queued().isEmpty());
        EXPECT_EQ(word_entry(1, 3, 5), mode & 0xFF);
    }
}

TEST_F(DataWrite, WriteMode2QueuesAndLeavesTheMirror)
{
    EXPECT_EQ(write(4, "10", bytes({0x01, 0x02, 0x03, 0x04}), 2), 1);
    ASSERT_EQ(queued().size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(DataWrite, WriteMode2WithCommFailedDoesBoth)
{
    PLC_driver.comm_failed = true;
    EXPECT_EQ(write(4, "10", bytes({0x01, 0x02, 0x03, 0x04}), 2), 1);
    ASSERT_EQ(queued().size(), 1);
    EXPECT_EQ(queued().first().data, bytes({0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(word_entry(1, 4, 10), 0x0201);
    EXPECT_EQ(word_entry(1, 4, 11), 0x0403);
}

TEST_F(DataWrite, FullWriteListLosesTheWriteWhenCommIsGood)
{
    RW_VAR filler;
    for (int i = 0; i < 2048; ++i)
        PLC_driver.write_list.append(filler);
    EXPECT_EQ(write(4, "0", bytes({1, 0}), 1), 2048);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());

    PLC_driver.comm_failed = true;
    EXPECT_EQ(write(4, "0", bytes({1, 0}), 1), 2048);
    EXPECT_EQ(word_entry(1, 4, 0), 1);
}

// ---- chunking by kind ----

TEST_F(DataWrite, Kind1PacksOneInputBytePerBit)
{
    EXPECT_EQ(write(1, "2.3", bytes({1, 0, 1, 0, 0, 0, 0, 0, 0, 9}), 10), 1);
    ASSERT_EQ(queued().size(), 1);
    const RW_VAR &r = queued().first();
    EXPECT_EQ(r.start_addr, 19);
    EXPECT_EQ(r.count, 10);
    EXPECT_EQ(r.data, bytes({0x05, 0x02}));
}

TEST_F(DataWrite, Kind1LaterChunksCarryZeroBits)
{
    info.max_read_units = 2; // 16 bits per chunk
    QByteArray value(40, char(1));
    EXPECT_EQ(write(1, "1.0", value, 40), 3);
    ASSERT_EQ(queued().size(), 3);
    EXPECT_EQ(queued()[0].start_addr, 8);
    EXPECT_EQ(queued()[0].count, 16);
    EXPECT_EQ(queued()[0].data, bytes({0xFF, 0xFF}));
    EXPECT_EQ(queued()[1].start_addr, 24);
    EXPECT_EQ(queued()[1].count, 16);
    EXPECT_EQ(queued()[1].data, bytes({0, 0}));
    EXPECT_EQ(queued()[2].start_addr, 40);
    EXPECT_EQ(queued()[2].count, 8);
    EXPECT_EQ(queued()[2].data, bytes({0}));
}

TEST_F(DataWrite, Kind1FirstChunkTakesTheBitsAtTheCursor)
{
    info.max_read_units = 1; // 8 bits per chunk
    EXPECT_EQ(write(1, "0.0", bytes({0, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1}), 11), 2);
    ASSERT_EQ(queued().size(), 2);
    EXPECT_EQ(queued()[0].count, 8);
    EXPECT_EQ(queued()[0].data, bytes({0x86}));
    EXPECT_EQ(queued()[1].start_addr, 8);
    EXPECT_EQ(queued()[1].count, 3);
    EXPECT_EQ(queued()[1].data, bytes({0x00}));
}

TEST_F(DataWrite, Kind1InTheMirror)
{
    info.write_mode = 1;
    info.max_read_units = 1;
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 99), 1);
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 110), 1);
    EXPECT_EQ(write(1, "12.4", QByteArray(10, char(1)), 10), 0);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(bit_entry(1, 1, 100 + i), 1) << i;
    EXPECT_EQ(bit_entry(1, 1, 108), 0); // the second chunk's bits are zero
    EXPECT_EQ(bit_entry(1, 1, 109), 0);
    EXPECT_EQ(bit_entry(1, 1, 99), 1);
    EXPECT_EQ(bit_entry(1, 1, 110), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 12);
}

namespace {

// One record expected in the write list: its start, its count (in values)
// and the bytes of the input it carries.
struct Chunk {
    int start, count;
    int from, length;
};

struct ChunkCase {
    const char *what;
    int kind, max_read_units;
    const char *address;
    int input_length; // of a ramp 0, 1, 2, ...
    int count;
    std::vector<Chunk> chunks;
};

std::ostream &operator<<(std::ostream &os, const ChunkCase &c)
{
    return os << c.what;
}

const ChunkCase kChunkCases[] = {
    {"words_by_max_read_units",
     4,
     100,
     "1000",
     600,
     300,
     {{1000, 100, 0, 200}, {1100, 100, 200, 200}, {1200, 100, 400, 200}}},
    // Register chunks are not capped at 50, whatever the unit limit.
    {"words_not_capped_at_fifty", 3, 120, "0", 240, 120, {{0, 120, 0, 240}}},
    {"words_past_the_limit", 3, 120, "0", 250, 125, {{0, 120, 0, 240}, {120, 5, 240, 10}}},
    // 32-bit values: the count in registers, rounded up to whole values.
    {"dwords_by_max_read_units", 11, 2, "4", 12, 5, {{4, 2, 0, 8}, {6, 1, 8, 4}}},
    {"dwords_capped_at_fifty", 10, 100, "0", 480, 240, {{0, 50, 0, 200}, {50, 50, 200, 200}, {100, 20, 400, 80}}},
    // 64-bit values likewise, at most 25 a chunk.
    {"qwords_capped_at_twenty_five", 14, 100, "2", 480, 240, {{2, 25, 0, 200}, {27, 25, 200, 200}, {52, 10, 400, 80}}},
    {"qword_count_rounds_up", 13, 3, "0", 8, 1, {{0, 1, 0, 8}}},
};

class WriteChunks : public DriverTableTest<ChunkCase> {
protected:
    int write(const ChunkCase &c)
    {
        QByteArray value = ramp(c.input_length);
        return SetRegisterData("var", c.kind, c.address, 1, &value, c.count, 5, 6);
    }
};

} // namespace

TEST_P(WriteChunks, RecordsOfTheKindsBlockSize)
{
    const ChunkCase &c = GetParam();
    info.max_read_units = c.max_read_units;
    EXPECT_EQ(write(c), int(c.chunks.size()));
    const QList<RW_VAR> &queued = PLC_driver.write_list;
    ASSERT_EQ(queued.size(), int(c.chunks.size()));
    for (int i = 0; i < queued.size(); ++i) {
        const Chunk &e = c.chunks[size_t(i)];
        EXPECT_EQ(queued[i].reg_kind, c.kind) << "chunk " << i;
        EXPECT_EQ(queued[i].start_addr, e.start) << "chunk " << i;
        EXPECT_EQ(queued[i].count, e.count) << "chunk " << i;
        EXPECT_EQ(queued[i].data, ramp(c.input_length).mid(e.from, e.length)) << "chunk " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(RegisterKinds, WriteChunks, ::testing::ValuesIn(kChunkCases),
                         [](const ::testing::TestParamInfo<ChunkCase> &p) { return std::string(p.param.what); });

TEST_F(DataWrite, Kind5OneRecordPerBit)
{
    EXPECT_EQ(write(5, "3.6", bytes({0x01, 0x00, 0x05}), 3), 3);
    ASSERT_EQ(queued().size(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(queued()[i].start_addr, 30 + i);
        EXPECT_EQ(queued()[i].count, 1);
        EXPECT_EQ(queued()[i].reg_kind, 5);
    }
    EXPECT_EQ(queued()[0].data, bytes({0x01}));
    EXPECT_EQ(queued()[1].data, bytes({0x00}));
    EXPECT_EQ(queued()[2].data, bytes({0x01}));
}

TEST_F(DataWrite, Kind5InTheMirror)
{
    info.write_mode = 1;
    put_word(1, 4, 1, 0x0004);
    EXPECT_EQ(write(5, "1.7", bytes({0, 1, 7}), 3), 0); // bits 15, 16, 17
    EXPECT_EQ(word_entry(1, 4, 0), 0x0000);
    EXPECT_EQ(word_entry(1, 4, 1), 0x0007);
}

TEST_F(DataWrite, Kind8TakesTheLowByteOfEachElement)
{
    EXPECT_EQ(write(8, "7", bytes({0x12, 0x34, 0x56, 0x78}), 2), 2);
    ASSERT_EQ(queued().size(), 2);
    EXPECT_EQ(queued()[0].start_addr, 7);
    EXPECT_EQ(queued()[0].count, 1);
    EXPECT_EQ(queued()[0].data, bytes({0x12}));
    EXPECT_EQ(queued()[1].start_addr, 8);
    EXPECT_EQ(queued()[1].count, 1);
    EXPECT_EQ(queued()[1].data, bytes({0x56}));
}

TEST_F(DataWrite, Kind7InTheMirror)
{
    info.write_mode = 1;
    put_word(1, 3, 2, 0x1234);
    put_word(1, 3, 3, 0xFFFF);
    EXPECT_EQ(write(7, "5", bytes({0xAB, 0x99, 0xCD, 0x99}), 2), 0);
    EXPECT_EQ(word_entry(1, 3, 2), 0xAB34);
    EXPECT_EQ(word_entry(1, 3, 3), 0xFFCD);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 2);
}

TEST_F(DataWrite, MultiWordKindsInTheMirror)
{
    info.write_mode = 1;
    put_word(1, 4, 19, 0x1919);
    put_word(1, 4, 22, 0x2222);
    EXPECT_EQ(write(11, "10", bytes({1, 2, 3, 4}), 2), 0);
    EXPECT_EQ(word_entry(1, 4, 20), 0x0201);
    EXPECT_EQ(word_entry(1, 4, 21), 0x0403);
    EXPECT_EQ(word_entry(1, 4, 19), 0x1919);
    EXPECT_EQ(word_entry(1, 4, 22), 0x2222);

    EXPECT_EQ(write(13, "1", ramp(8), 4), 0);
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(word_entry(1, 3, 4 + j), (2 * j) | ((2 * j + 1) << 8));
    EXPECT_EQ(word_entry(1, 3, 3), -1);
    EXPECT_EQ(word_entry(1, 3, 8), -1);
}

// ---- kinds that write nothing ----

TEST_F(DataWrite, ReadOnlyAndUnknownKindsChangeNothing)
{
    PLC_driver.write_list.append(RW_VAR());
    for (int mode : {1, 2}) {
        info.write_mode = mode;
        for (int kind : {0, 2, 6, 9, 12, 15, -1, 100}) {
            const QString address = kind == 0 ? "1.1" : "4";
            EXPECT_EQ(write(kind, address, ramp(16), 4), 1) << kind;
        }
    }
    EXPECT_EQ(queued().size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(DataWrite, CountZeroOrNegativeChangesNothing)
{
    PLC_driver.write_list.append(RW_VAR());
    for (int mode : {1, 2}) {
        info.write_mode = mode;
        for (int kind : {1, 3, 4, 5, 7, 8, 10, 11, 13, 14}) {
            const QString address = (kind == 1 || kind == 5) ? "1.1" : "4";
            EXPECT_EQ(write(kind, address, ramp(16), 0), 1) << kind;
            EXPECT_EQ(write(kind, address, ramp(16), -7), 1) << kind;
        }
    }
    EXPECT_EQ(queued().size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(DataWrite, InvalidAddressGivesZero)
{
    PLC_driver.write_list.append(RW_VAR());
    for (int mode : {1, 2}) {
        info.write_mode = mode;
        EXPECT_EQ(write(4, "x", ramp(4), 2), 0);
        EXPECT_EQ(write(4, "-3", ramp(4), 2), 0);
        EXPECT_EQ(write(1, "12", ramp(4), 2), 0);
        EXPECT_EQ(write(5, "", ramp(4), 2), 0);
        EXPECT_EQ(write(11, "1.5", ramp(4), 2), 0);
    }
    EXPECT_EQ(queued().size(), 1);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

// ---- short, empty and missing value buffers ----

TEST_F(DataWrite, ShortValueIsCompletedWithZeros)
{
    EXPECT_EQ(write(4, "0", bytes({0x11, 0x22, 0x33}), 3), 1);
    EXPECT_EQ(queued()[0].data, bytes({0x11, 0x22, 0x33, 0, 0, 0}));

    info.max_read_units = 1;
    EXPECT_EQ(write(11, "0", bytes({1, 2, 3, 4, 5}), 4), 3);
    EXPECT_EQ(queued()[1].data, bytes({1, 2, 3, 4}));
    EXPECT_EQ(queued()[2].data, bytes({5, 0, 0, 0}));

    EXPECT_EQ(write(8, "0", bytes({0x77}), 2), 5);
    EXPECT_EQ(queued()[3].data, bytes({0x77}));
    EXPECT_EQ(queued()[4].data, bytes({0x00}));

    EXPECT_EQ(write(5, "0.0", bytes({3}), 2), 7);
    EXPECT_EQ(queued()[5].data, bytes({1}));
    EXPECT_EQ(queued()[6].data, bytes({0}));

    EXPECT_EQ(write(1, "0.0", bytes({1, 1}), 4), 8);
    EXPECT_EQ(queued()[7].data, bytes({0x03}));
}

TEST_F(DataWrite, EmptyOrMissingValueWritesZeros)
{
    info.write_mode = 1;
    put_word(1, 4, 0, 0xFFFF);
    put_word(1, 4, 1, 0xFFFF);
    put_word(1, 4, 2, 0xFFFF);
    EXPECT_EQ(SetRegisterData("v", 4, "0", 1, nullptr, 2, 1, 1), 0);
    EXPECT_EQ(word_entry(1, 4, 0), 0);
    EXPECT_EQ(word_entry(1, 4, 1), 0);
    EXPECT_EQ(word_entry(1, 4, 2), 0xFFFF);

    QByteArray empty;
    EXPECT_EQ(SetRegisterData("v", 5, "4.0", 1, &empty, 1, 1, 1), 0); // bit 32 is bit 0 of word 2
    EXPECT_EQ(word_entry(1, 4, 2), 0xFFFE);
    EXPECT_EQ(SetRegisterData("v", 8, "5", 1, nullptr, 1, 1, 1), 0);
    EXPECT_EQ(word_entry(1, 4, 2), 0x00FE);

    info.write_mode = 2;
    EXPECT_EQ(SetRegisterData("v", 14, "0", 1, nullptr, 4, 1, 1), 1);
    EXPECT_EQ(queued()[0].data, QByteArray(8, '\0'));
    EXPECT_EQ(SetRegisterData("v", 1, "0.0", 1, &empty, 9, 1, 1), 2);
    EXPECT_EQ(queued()[1].data, QByteArray(2, '\0'));
}

// ---- max_read_units of 0 or below ----

TEST_F(DataWrite, MaxReadUnitsZeroOrNegativeIsTakenAsOne)
{
    for (int units : {0, -1, -100}) {
        reset_driver(&info);
        info.max_read_units = units;
        EXPECT_EQ(write(4, "0", ramp(6), 3), 3) << units;
        EXPECT_EQ(write(1, "0.0", QByteArray(20, char(1)), 20), 6) << units;
        EXPECT_EQ(write(14, "0", ramp(16), 8), 8) << units;
        EXPECT_EQ(write(10, "0", ramp(8), 4), 10) << units;
        ASSERT_EQ(queued().size(), 10);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(queued()[i].count, 1);
            EXPECT_EQ(queued()[i].start_addr, i);
            EXPECT_EQ(queued()[i].data, ramp(6).mid(2 * i, 2));
        }
        EXPECT_EQ(queued()[3].count, 8);
        EXPECT_EQ(queued()[3].data, bytes({0xFF}));
        EXPECT_EQ(queued()[4].count, 8);
        EXPECT_EQ(queued()[4].data, bytes({0x00}));
        EXPECT_EQ(queued()[5].count, 4);
        EXPECT_EQ(queued()[5].start_addr, 16);
        EXPECT_EQ(queued()[6].count, 1);
        EXPECT_EQ(queued()[7].start_addr, 1);
        EXPECT_EQ(queued()[7].data, ramp(16).mid(8));
        EXPECT_EQ(queued()[9].start_addr, 1);
        EXPECT_EQ(queued()[9].data, ramp(8).mid(4));
    }
}

TEST_F(DataWrite, MissingComInfoWritesNothing)
{
    reset_driver(nullptr);
    QByteArray value = ramp(4);
    EXPECT_EQ(SetRegisterData("v", 4, "0", 1, &value, 2, 1, 1), 0);
    EXPECT_TRUE(queued().isEmpty());
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

// ---- QueryFinishFlag ----

TEST_F(DataWrite, QueryFinishFlagIsAlwaysOne)
{
    EXPECT_EQ(QueryFinishFlag(), 1);
    write(4, "0", ramp(4), 2);
    EXPECT_EQ(QueryFinishFlag(), 1);
    info.write_mode = 1;
    write(4, "0", ramp(4), 2);
    EXPECT_EQ(QueryFinishFlag(), 1);
    EXPECT_EQ(queued().size(), 1);
}
