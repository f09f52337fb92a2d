// Registration of variables: AddListReadVar, AddListWriteVar and
// AddListOnceReadVar (chunking, duplicate suppression, the 2048-entry cap).
#include <gtest/gtest.h>

#include "driver_fixture.h"
#include "record_expectations.h"

#include <ostream>

#include <climits>

namespace {

RW_VAR make_var(int kind, const char *address, int count, int station = 3, int source_type = 2, int source_id = 11)
{
    RW_VAR v;
    v.source_type = source_type;
    v.source_id = source_id;
    v.rw_flag = 0;
    v.link_mode = 0;
    v.link_id = 4;
    v.status = 0;
    v.name_text = QStringLiteral("var");
    v.address_text = QString::fromLatin1(address);
    v.reg_kind = kind;
    v.start_addr = -77; // overwritten by the prepared path
    v.station = station;
    v.count = count;
    v.ext_param1 = 9;
    v.ext_param2 = 8;
    v.data = QByteArray("\x01\x02", 2);
    return v;
}

// Expected (start_addr, count) of each entry of once_read_list, in order.
void expect_once_entries(const std::vector<std::pair<int, int>> &expected)
{
    const QList<RW_VAR> &list = PLC_driver.once_read_list;
    ASSERT_EQ(list.size(), int(expected.size()));
    for (int i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list.at(i).start_addr, expected[i].first) << "entry " << i;
        EXPECT_EQ(list.at(i).count, expected[i].second) << "entry " << i;
    }
}

class Registration : public DriverTest {
protected:
    // Fills once_read_list with n prepared entries (flag 1, no cap).
    void fill_once(int n)
    {
        for (int i = 0; i < n; ++i) {
            RW_VAR v = make_var(2, "0", 1, 3, 1, 100000 + i);
            v.start_addr = i;
            AddListOnceReadVar(&v, 1);
        }
    }
};

// ---------------------------------------------------------------- AddListReadVar

TEST_F(Registration, ReadVarAppendsCopiesWithoutCap)
{
    RW_VAR v = make_var(3, "5", 2);
    v.start_addr = 5;
    EXPECT_EQ(AddListReadVar(&v), 1);
    const RW_VAR original = v;
    v.count = 999;
    v.name_text = QStringLiteral("changed");
    ASSERT_EQ(PLC_driver.read_list.size(), 1);
    expect_same_var(PLC_driver.read_list.at(0), original);

    for (int i = 2; i <= 2100; ++i)
        ASSERT_EQ(AddListReadVar(&v), i);
    EXPECT_EQ(PLC_driver.read_list.size(), 2100);
    EXPECT_EQ(PLC_driver.read_list.last().count, 999);
}

// ---------------------------------------------------------------- AddListWriteVar

TEST_F(Registration, WriteVarKeepsOrderAndCopies)
{
    RW_VAR a = make_var(4, "1", 1, 3, 1, 1);
    RW_VAR b = make_var(4, "2", 2, 3, 1, 2);
    EXPECT_EQ(AddListWriteVar(&a), 1);
    EXPECT_EQ(AddListWriteVar(&b), 2);
    const RW_VAR a_copy = a;
    a.data = QByteArray("zz");
    ASSERT_EQ(PLC_driver.write_list.size(), 2);
    expect_same_var(PLC_driver.write_list.at(0), a_copy);
    expect_same_var(PLC_driver.write_list.at(1), b);
}

TEST_F(Registration, WriteListCapIs2048)
{
    RW_VAR v = make_var(4, "1", 1);
    for (int i = 1; i <= 2047; ++i) {
        v.source_id = i;
        ASSERT_EQ(AddListWriteVar(&v), i);
    }
    v.source_id = 2048;
    EXPECT_EQ(AddListWriteVar(&v), 2048); // the 2048th is accepted
    EXPECT_EQ(PLC_driver.write_list.last().source_id, 2048);
    v.source_id = 2049;
    EXPECT_EQ(AddListWriteVar(&v), 2048); // the 2049th is dropped
    v.source_id = 2050;
    EXPECT_EQ(AddListWriteVar(&v), 2048);
    EXPECT_EQ(PLC_driver.write_list.size(), 2048);
    EXPECT_EQ(PLC_driver.write_list.last().source_id, 2048);
    EXPECT_EQ(PLC_driver.write_list.first().source_id, 1);
}

// ---------------------------------------------------------------- block limits

namespace {

struct BlockLimitCase {
    int kind;
    int max_read_units;
    int limit;
};

std::ostream &operator<<(std::ostream &os, const BlockLimitCase &c)
{
    return os << "kind " << c.kind << " with " << c.max_read_units << " units";
}

// clang-format off
const BlockLimitCase kBlockLimits[] = {
    // Bit kinds count bytes: twice the units, never past INT_MAX whatever
    // the runtime wrote into its record.
    {0, 100, 200},
    {1, 100, 200},
    {0, 1, 2},
    {0, INT_MAX, INT_MAX},
    {1, 1 << 30, INT_MAX},
    // Register kinds, and values that are no kind: the units.
    {2, 100, 100},
    {3, 100, 100},
    {4, 100, 100},
    {5, 100, 100},
    {6, 100, 100},
    {7, 100, 100},
    {8, 100, 100},
    {15, 100, 100},
    {255, 100, 100},
    {-1, 100, 100},
    {-12, 100, 100},
    {INT_MIN, 100, 100},
    // 32-bit values: at most 50.
    {9, 100, 50}, {9, 51, 50}, {9, 50, 50}, {9, 49, 49}, {9, 1, 1},
    {10, 100, 50}, {10, 51, 50}, {10, 50, 50}, {10, 49, 49}, {10, 1, 1},
    {11, 100, 50}, {11, 51, 50}, {11, 50, 50}, {11, 49, 49}, {11, 1, 1},
    // 64-bit values: at most 25.
    {12, 100, 25}, {12, 26, 25}, {12, 25, 25}, {12, 24, 24},
    {13, 100, 25}, {13, 26, 25}, {13, 25, 25}, {13, 24, 24},
    {14, 100, 25}, {14, 26, 25}, {14, 25, 25}, {14, 24, 24},
};
// clang-format on

class BlockLimits : public DriverTableTest<BlockLimitCase> {};

} // namespace

TEST_P(BlockLimits, PerKind)
{
    EXPECT_EQ(BlockLimitForKind(GetParam().kind, GetParam().max_read_units), GetParam().limit);
}

INSTANTIATE_TEST_SUITE_P(Kinds, BlockLimits, ::testing::ValuesIn(kBlockLimits));

// ---------------------------------------------------------------- AddListOnceReadVar, flag 1

TEST_F(Registration, PreparedOnceReadIsAppendedAsIs)
{
    RW_VAR v = make_var(0, "not parsed", 5);
    v.start_addr = 1234;
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 1);
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 2); // no duplicate test either
    ASSERT_EQ(PLC_driver.once_read_list.size(), 2);
    expect_same_var(PLC_driver.once_read_list.at(0), v);
    expect_same_var(PLC_driver.once_read_list.at(1), v);
    EXPECT_EQ(v.start_addr, 1234); // the caller's record is not touched
    EXPECT_EQ(v.ext_param1, 9);
}

TEST_F(Registration, PreparedOnceReadIgnoresTheCap)
{
    fill_once(2048);
    RW_VAR v = make_var(2, "0", 1);
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 2049);
    EXPECT_EQ(AddListOnceReadVar(&v, 1), 2050);
    // The prepared path with any other flag stays capped.
    RW_VAR w = make_var(2, "500", 3);
    EXPECT_EQ(AddListOnceReadVar(&w, 0), 2050);
    EXPECT_EQ(PLC_driver.once_read_list.size(), 2050);
}

// ---------------------------------------------------------------- AddListOnceReadVar, other flags

TEST_F(Registration, OnceReadOf250WordsIsChunked)
{
    RW_VAR v = make_var(2, "1000", 250);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 3);
    expect_once_entries({{1000, 100}, {1100, 100}, {1200, 50}});
    for (const RW_VAR &e : PLC_driver.once_read_list) {
        EXPECT_EQ(e.reg_kind, 2);
        EXPECT_EQ(e.station, 3); // station_from_address is set: the record's own
        EXPECT_EQ(e.source_type, 2);
        EXPECT_EQ(e.source_id, 11);
        EXPECT_EQ(e.link_id, 4);
        EXPECT_EQ(e.ext_param1, 0);
        EXPECT_EQ(e.ext_param2, 0);
        EXPECT_EQ(e.name_text, QStringLiteral("var"));
        EXPECT_EQ(e.address_text, QStringLiteral("1000"));
        EXPECT_EQ(e.data, QByteArray("\x01\x02", 2));
    }
    // The caller's record points just past the last chunk and holds its size.
    EXPECT_EQ(v.start_addr, 1250);
    EXPECT_EQ(v.count, 50);
    EXPECT_EQ(v.station, 3);
    EXPECT_EQ(v.ext_param1, 0);
    EXPECT_EQ(v.ext_param2, 0);
    EXPECT_EQ(v.reg_kind, 2);
}

TEST_F(Registration, OnceReadChunksAreCountedFromTheConvertedStart)
{
    // Kind 11: address 10 becomes word 20 of class 4, count 250 stays 250.
    RW_VAR v = make_var(11, "10", 250);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 3);
    expect_once_entries({{20, 100}, {120, 100}, {220, 50}});
    EXPECT_EQ(PLC_driver.once_read_list.at(0).reg_kind, 4);
    EXPECT_EQ(v.reg_kind, 4);
    EXPECT_EQ(v.start_addr, 270);
    EXPECT_EQ(v.count, 50);

    // Kind 8: bytes 7.. of class 4, 500 bytes -> word 3, 251 words.
    RW_VAR b = make_var(8, "7", 500, 3, 2, 12);
    EXPECT_EQ(AddListOnceReadVar(&b, 0), 6);
    EXPECT_EQ(PLC_driver.once_read_list.at(3).start_addr, 3);
    EXPECT_EQ(PLC_driver.once_read_list.at(3).count, 100);
    EXPECT_EQ(PLC_driver.once_read_list.at(4).start_addr, 103);
    EXPECT_EQ(PLC_driver.once_read_list.at(5).start_addr, 203);
    EXPECT_EQ(PLC_driver.once_read_list.at(5).count, 51);
    EXPECT_EQ(b.start_addr, 254);
    EXPECT_EQ(b.count, 51);
}

TEST_F(Registration, OnceReadBitKindUsesTwiceTheLimit)
{
    // 300 bits from 0.0 are 38 bytes; bit kinds allow 2 x 100 per request.
    RW_VAR v = make_var(0, "0.0", 300);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1);
    expect_once_entries({{0, 38}});
    EXPECT_EQ(PLC_driver.once_read_list.at(0).reg_kind, 0);
    EXPECT_EQ(v.start_addr, 38);
    EXPECT_EQ(v.count, 38);

    // With 10 units per request the 38 bytes of a coil read go as 20 + 18.
    info.max_read_units = 10;
    RW_VAR c = make_var(1, "2.0", 300, 3, 2, 12); // bit 16: byte 2, 38 bytes
    EXPECT_EQ(AddListOnceReadVar(&c, 0), 3);
    expect_once_entries({{0, 38}, {2, 20}, {22, 18}});
    EXPECT_EQ(c.start_addr, 40);
    EXPECT_EQ(c.count, 18);
}

TEST_F(Registration, OnceReadKind5AndTheWordLimit)
{
    // Kind 5: 10.3 is bit 83 of class 4, i.e. word 5; 40 bits from there span 3 words.
    RW_VAR v = make_var(5, "10.3", 40);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1);
    expect_once_entries({{5, 3}});
    EXPECT_EQ(PLC_driver.once_read_list.at(0).reg_kind, 4);
}

TEST_F(Registration, OnceReadDuplicatesAreAddedOnce)
{
    RW_VAR v = make_var(3, "0", 250);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 3);
    RW_VAR again = make_var(3, "0", 250);
    EXPECT_EQ(AddListOnceReadVar(&again, 0), 3);
    // The caller's record is prepared all the same.
    EXPECT_EQ(again.start_addr, 250);
    EXPECT_EQ(again.count, 50);

    // A later read that matches an entry behind the head is found too.
    RW_VAR middle = make_var(3, "100", 100);
    EXPECT_EQ(AddListOnceReadVar(&middle, 0), 3);
    RW_VAR tail = make_var(3, "200", 50);
    EXPECT_EQ(AddListOnceReadVar(&tail, 0), 3);

    // Name, mode and extra parameters do not take part in the comparison.
    RW_VAR renamed = make_var(3, "0", 100);
    renamed.name_text = QStringLiteral("other");
    renamed.link_mode = 1;
    renamed.rw_flag = 1;
    EXPECT_EQ(AddListOnceReadVar(&renamed, 0), 3);

    // Any of the compared fields makes a new entry.
    RW_VAR other_id = make_var(3, "0", 100, 3, 2, 12);
    EXPECT_EQ(AddListOnceReadVar(&other_id, 0), 4);
    RW_VAR other_type = make_var(3, "0", 100, 3, 5, 11);
    EXPECT_EQ(AddListOnceReadVar(&other_type, 0), 5);
    RW_VAR other_station = make_var(3, "0", 100, 6);
    EXPECT_EQ(AddListOnceReadVar(&other_station, 0), 6);
    RW_VAR other_kind = make_var(2, "0", 100);
    EXPECT_EQ(AddListOnceReadVar(&other_kind, 0), 7);
    RW_VAR other_count = make_var(3, "0", 99);
    EXPECT_EQ(AddListOnceReadVar(&other_count, 0), 8);
    RW_VAR other_link = make_var(3, "0", 100);
    other_link.link_id = 5;
    EXPECT_EQ(AddListOnceReadVar(&other_link, 0), 9);

    // Chunks of a partly known read: only the new chunk is added.
    RW_VAR longer = make_var(3, "0", 320);
    EXPECT_EQ(AddListOnceReadVar(&longer, 0), 11);
    EXPECT_EQ(PLC_driver.once_read_list.at(9).start_addr, 200);
    EXPECT_EQ(PLC_driver.once_read_list.at(9).count, 100);
    EXPECT_EQ(PLC_driver.once_read_list.at(10).start_addr, 300);
    EXPECT_EQ(PLC_driver.once_read_list.at(10).count, 20);
}

TEST_F(Registration, OnceReadCapDropsChunksButStillPrepares)
{
    fill_once(2046);
    RW_VAR v = make_var(2, "5000", 450);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 2048);
    ASSERT_EQ(PLC_driver.once_read_list.size(), 2048);
    EXPECT_EQ(PLC_driver.once_read_list.at(2046).start_addr, 5000);
    EXPECT_EQ(PLC_driver.once_read_list.at(2047).start_addr, 5100);
    EXPECT_EQ(v.start_addr, 5450);
    EXPECT_EQ(v.count, 50);
    RW_VAR w = make_var(2, "9000", 1);
    EXPECT_EQ(AddListOnceReadVar(&w, 7), 2048);
    EXPECT_EQ(PLC_driver.once_read_list.last().start_addr, 5100);
}

TEST_F(Registration, OnceReadUnparsableAddressChangesNothing)
{
    RW_VAR seed = make_var(2, "1", 1);
    ASSERT_EQ(AddListOnceReadVar(&seed, 0), 1);
    const char *bad[][2] = {{"2", "abc"},  {"2", ""},    {"2", "-5"}, {"2", "1.5"},        {"0", "12"},
                            {"0", "-1.0"}, {"1", "a.1"}, {"5", "3"},  {"0", "268435456.0"}};
    for (const auto &b : bad) {
        RW_VAR v = make_var(QByteArray(b[0]).toInt(), b[1], 10);
        const RW_VAR before = v;
        EXPECT_EQ(AddListOnceReadVar(&v, 0), 0) << b[1];
        expect_same_var(v, before);
    }
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
}

TEST_F(Registration, OnceReadCountZeroOrNegativeAddsNothing)
{
    RW_VAR seed = make_var(2, "1", 1);
    ASSERT_EQ(AddListOnceReadVar(&seed, 0), 1);

    RW_VAR zero = make_var(2, "40", 0);
    EXPECT_EQ(AddListOnceReadVar(&zero, 0), 1);
    EXPECT_EQ(zero.start_addr, 40); // prepared, not advanced
    EXPECT_EQ(zero.count, 0);
    EXPECT_EQ(zero.ext_param1, 0);
    EXPECT_EQ(zero.ext_param2, 0);

    RW_VAR negative = make_var(2, "40", -20);
    EXPECT_EQ(AddListOnceReadVar(&negative, 0), 1);
    EXPECT_EQ(negative.start_addr, 40);
    EXPECT_EQ(negative.count, -20);

    // A negative bit count converts to 0 bytes: still nothing.
    RW_VAR bits = make_var(0, "1.0", -3);
    EXPECT_EQ(AddListOnceReadVar(&bits, 0), 1);
    EXPECT_EQ(bits.start_addr, 1);
    EXPECT_EQ(bits.count, 0);
    EXPECT_EQ(PLC_driver.once_read_list.size(), 1);
}

TEST_F(Registration, OnceReadStationFromDefaultOrRecord)
{
    info.station_from_address = 0;
    info.default_station = 9;
    RW_VAR v = make_var(4, "10", 2, 3);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 1);
    EXPECT_EQ(v.station, 9);
    EXPECT_EQ(PLC_driver.once_read_list.at(0).station, 9);

    info.station_from_address = 5;
    RW_VAR w = make_var(4, "10", 2, 3);
    EXPECT_EQ(AddListOnceReadVar(&w, 0), 2);
    EXPECT_EQ(w.station, 3);
    EXPECT_EQ(PLC_driver.once_read_list.at(1).station, 3);
}

TEST_F(Registration, OnceReadWithoutPositiveUnitLimitUsesOneUnit)
{
    for (int n : {0, -4}) {
        reset_driver(&info);
        info.max_read_units = n;
        RW_VAR v = make_var(3, "7", 3);
        EXPECT_EQ(AddListOnceReadVar(&v, 0), 3) << n;
        expect_once_entries({{7, 1}, {8, 1}, {9, 1}});
        EXPECT_EQ(v.start_addr, 10);
        EXPECT_EQ(v.count, 1);
        // Bit kinds get twice that.
        RW_VAR b = make_var(0, "0.0", 40); // 5 bytes
        EXPECT_EQ(AddListOnceReadVar(&b, 0), 6) << n;
        EXPECT_EQ(PLC_driver.once_read_list.at(3).count, 2);
        EXPECT_EQ(PLC_driver.once_read_list.at(5).start_addr, 4);
        EXPECT_EQ(PLC_driver.once_read_list.at(5).count, 1);
    }
}

TEST_F(Registration, OnceReadKindOutsideTheTable)
{
    RW_VAR v = make_var(17, "12", 130);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 2);
    expect_once_entries({{12, 100}, {112, 30}});
    EXPECT_EQ(PLC_driver.once_read_list.at(0).reg_kind, 17);
}

TEST_F(Registration, OnceReadStartNearTheTopWraps)
{
    RW_VAR v = make_var(2, "2147483647", 150);
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 2);
    expect_once_entries({{INT_MAX, 100}, {INT_MIN + 99, 50}});
    EXPECT_EQ(v.start_addr, INT_MIN + 149);
    EXPECT_EQ(v.count, 50);
}

TEST_F(Registration, OnceReadWithoutComInfoIsRefused)
{
    reset_driver(nullptr);
    RW_VAR v = make_var(2, "10", 5);
    const RW_VAR before = v;
    EXPECT_EQ(AddListOnceReadVar(&v, 0), 0);
    expect_same_var(v, before);
    EXPECT_TRUE(PLC_driver.once_read_list.isEmpty());
}

} // namespace
