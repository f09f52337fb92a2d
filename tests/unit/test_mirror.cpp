// The local register mirror: key composition, the absent-means-zero rule and
// write_data_to_local for every register kind.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <climits>
#include <initializer_list>

namespace {

class Mirror : public DriverTest {};

} // namespace

// ---- keys ----

TEST_F(Mirror, KeyUpperWordHoldsStationAndClass)
{
    EXPECT_EQ(mirror_key_upper(1, 4), 0x01040000u);
    EXPECT_EQ(mirror_key_upper(0xAB, 2), 0xAB020000u);
    EXPECT_EQ(mirror_key_upper(0, 0), 0u);
    // Only the station's low 8 bits reach the key.
    EXPECT_EQ(mirror_key_upper(0x1FF, 3), 0xFF030000u);
    EXPECT_EQ(mirror_key_upper(256, 1), 0x00010000u);
}

TEST_F(Mirror, KeyComposition)
{
    EXPECT_EQ(mirror_key(0x12, 3, 0x100), Q_UINT64_C(0x1203000000000100));
    EXPECT_EQ(mirror_key(255, 4, 0x7FFFFFFF), Q_UINT64_C(0xFF0400007FFFFFFF));
    EXPECT_EQ(mirror_key(0, 0, 0), Q_UINT64_C(0));
    EXPECT_EQ(mirror_key(2, 1, 65536), Q_UINT64_C(0x0201000000010000));
}

TEST_F(Mirror, NegativeAddressSignExtendsOverTheUpperWord)
{
    EXPECT_EQ(mirror_key(1, 4, -1), Q_UINT64_C(0xFFFFFFFFFFFFFFFF));
    EXPECT_EQ(mirror_key(1, 4, -2), Q_UINT64_C(0xFFFFFFFFFFFFFFFE));
    EXPECT_EQ(mirror_key(7, 2, INT_MIN), Q_UINT64_C(0xFFFFFFFF80000000));
}

TEST_F(Mirror, WritesUseTheComposedKeys)
{
    RW_VAR w = make_var(4, 7, 1, 2, bytes({0x34, 0x12}));
    write_data_to_local(&w);
    ASSERT_EQ(PLC_driver.word_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.word_mirror.constBegin().key(), Q_UINT64_C(0x0204000000000007));
    EXPECT_EQ(PLC_driver.word_mirror.constBegin().value(), 0x1234);

    RW_VAR b = make_var(1, 9, 1, 3, bytes({1}));
    write_data_to_local(&b);
    ASSERT_EQ(PLC_driver.bit_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.constBegin().key(), Q_UINT64_C(0x0301000000000009));
    EXPECT_EQ(PLC_driver.bit_mirror.constBegin().value(), 1);

    // A negative start address lands on the sign-extended key.
    RW_VAR n = make_var(3, -1, 1, 1, bytes({0xCD, 0xAB}));
    write_data_to_local(&n);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0xFFFFFFFFFFFFFFFF)), 0xABCD);
}

TEST_F(Mirror, ConsecutiveElementsAddOneToTheWholeKey)
{
    // Two words from the highest positive address: the second key carries
    // into bit 31 of the low word and leaves the upper word alone.
    RW_VAR w = make_var(4, 0x7FFFFFFF, 2, 1, bytes({1, 0, 2, 0}));
    write_data_to_local(&w);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x010400007FFFFFFF)), 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(Q_UINT64_C(0x0104000080000000)), 2);
}

// ---- absent entries ----

TEST_F(Mirror, AbsentEntriesReadAsZeroAndReadsNeverInsert)
{
    put_word(1, 4, 50, 0xBEEF);
    QByteArray out("junk");
    EXPECT_EQ(GetRegisterData(nullptr, 4, "10", 1, &out, 3), 1);
    EXPECT_EQ(out, QByteArray(6, '\0'));
    EXPECT_EQ(GetRegisterData(nullptr, 1, "1.0", 1, &out, 5), 1);
    EXPECT_EQ(out, QByteArray(5, '\0'));
    EXPECT_EQ(GetRegisterData(nullptr, 5, "0.3", 1, &out, 2), 1);
    EXPECT_EQ(out, QByteArray(2, '\0'));
    EXPECT_EQ(GetRegisterData(nullptr, 14, "3", 1, &out, 4), 1);
    EXPECT_EQ(out, QByteArray(8, '\0'));
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 0);
}

// ---- kinds 0 and 1 ----

TEST_F(Mirror, Kind1TenBitsLeastSignificantFirst)
{
    RW_VAR w = make_var(1, 40, 10, 1, bytes({0x05, 0x02}));
    write_data_to_local(&w);
    const int expected[10] = {1, 0, 1, 0, 0, 0, 0, 0, 0, 1};
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(bit_entry(1, 1, 40 + i), expected[i]) << "bit " << i;
    EXPECT_EQ(bit_entry(1, 1, 39), -1);
    EXPECT_EQ(bit_entry(1, 1, 50), -1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 10);
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
}

TEST_F(Mirror, Kind0WritesClassZeroOnly)
{
    RW_VAR w = make_var(0, 3, 3, 1, bytes({0x06}));
    write_data_to_local(&w);
    EXPECT_EQ(bit_entry(1, 0, 3), 0);
    EXPECT_EQ(bit_entry(1, 0, 4), 1);
    EXPECT_EQ(bit_entry(1, 0, 5), 1);
    EXPECT_EQ(bit_entry(1, 1, 4), -1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 3);
}

TEST_F(Mirror, BitWriteOverwritesAndStoresZeroOrOne)
{
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 0), 1);
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 1), 0);
    RW_VAR w = make_var(1, 0, 8, 1, bytes({0xFE}));
    write_data_to_local(&w);
    EXPECT_EQ(bit_entry(1, 1, 0), 0);
    for (int i = 1; i < 8; ++i)
        EXPECT_EQ(bit_entry(1, 1, i), 1) << i;
}

TEST_F(Mirror, BitCountZeroOrNegativeWritesNothing)
{
    RW_VAR w = make_var(1, 0, 0, 1, bytes({0xFF}));
    write_data_to_local(&w);
    w.count = -8;
    write_data_to_local(&w);
    w.reg_kind = 0;
    write_data_to_local(&w);
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

TEST_F(Mirror, BitsBeyondShortDataCountAsZero)
{
    RW_VAR w = make_var(0, 100, 12, 1, bytes({0xFF}));
    write_data_to_local(&w);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(bit_entry(1, 0, 100 + i), 1) << i;
    for (int i = 8; i < 12; ++i)
        EXPECT_EQ(bit_entry(1, 0, 100 + i), 0) << i;
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 12);

    RW_VAR e = make_var(1, 0, 3, 1, QByteArray());
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 1), 1);
    write_data_to_local(&e);
    EXPECT_EQ(bit_entry(1, 1, 0), 0);
    EXPECT_EQ(bit_entry(1, 1, 1), 0);
    EXPECT_EQ(bit_entry(1, 1, 2), 0);
}

// ---- kinds 2, 3, 4 ----

TEST_F(Mirror, Kind2ThreeBytesWriteTwoWords)
{
    RW_VAR w = make_var(2, 10, 1, 1, bytes({0x11, 0x22, 0x33}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 2, 10), 0x2211);
    EXPECT_EQ(word_entry(1, 2, 11), 0x0033);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 2);
}

TEST_F(Mirror, WordCountFollowsDataNotCount)
{
    put_word(1, 3, 4, 0x5555);
    put_word(1, 3, 8, 0x6666);
    RW_VAR w = make_var(3, 5, 1, 1, bytes({1, 2, 3, 4, 5, 6}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 3, 5), 0x0201);
    EXPECT_EQ(word_entry(1, 3, 6), 0x0403);
    EXPECT_EQ(word_entry(1, 3, 7), 0x0605);
    EXPECT_EQ(word_entry(1, 3, 4), 0x5555);
    EXPECT_EQ(word_entry(1, 3, 8), 0x6666);

    RW_VAR many = make_var(4, 0, 100, 1, bytes({9, 0}));
    write_data_to_local(&many);
    EXPECT_EQ(word_entry(1, 4, 0), 9);
    EXPECT_EQ(word_entry(1, 4, 1), -1);
}

TEST_F(Mirror, WordsWithEmptyDataWriteNothing)
{
    for (int kind : {2, 3, 4, 9, 10, 11, 12, 13, 14}) {
        RW_VAR w = make_var(kind, 0, 4, 1, QByteArray());
        write_data_to_local(&w);
    }
    EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    EXPECT_TRUE(PLC_driver.bit_mirror.isEmpty());
}

// ---- kind 5 ----

TEST_F(Mirror, Kind5BitSeventeenCreatesWordOne)
{
    RW_VAR w = make_var(5, 17, 1, 1, bytes({0x40}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 4, 1), 0x0002);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
}

TEST_F(Mirror, Kind5ClearsOneBitAndKeepsTheOthers)
{
    put_word(1, 4, 1, 0xFFFF);
    put_word(1, 4, 0, 0x0000);
    put_word(1, 4, 2, 0x1234);
    RW_VAR w = make_var(5, 17, 5, 1, bytes({0x00, 0x01}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 4, 1), 0xFFFD);
    EXPECT_EQ(word_entry(1, 4, 0), 0x0000);
    EXPECT_EQ(word_entry(1, 4, 2), 0x1234);

    RW_VAR top = make_var(5, 31, 1, 1, bytes({1}));
    put_word(1, 4, 1, 0x0000);
    write_data_to_local(&top);
    EXPECT_EQ(word_entry(1, 4, 1), 0x8000);
}

TEST_F(Mirror, Kind5EmptyDataCountsAsZero)
{
    put_word(1, 4, 3, 0x00F0);
    RW_VAR w = make_var(5, 3 * 16 + 5, 1, 1, QByteArray());
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 4, 3), 0x00D0);

    RW_VAR fresh = make_var(5, 80, 1, 1, QByteArray());
    write_data_to_local(&fresh);
    EXPECT_EQ(word_entry(1, 4, 5), 0x0000); // created with value 0
}

// ---- kinds 6, 7, 8 ----

TEST_F(Mirror, Kind8ByteReplacesHighOrLowByte)
{
    put_word(1, 4, 2, 0x1234);
    RW_VAR odd = make_var(8, 5, 1, 1, bytes({0xAB}));
    write_data_to_local(&odd);
    EXPECT_EQ(word_entry(1, 4, 2), 0xAB34);

    put_word(1, 4, 2, 0x1234);
    RW_VAR even = make_var(8, 4, 1, 1, bytes({0xAB}));
    write_data_to_local(&even);
    EXPECT_EQ(word_entry(1, 4, 2), 0x12AB);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
}

TEST_F(Mirror, ByteKindsUseTheirClassAndIgnoreCountAndExtraBytes)
{
    RW_VAR w6 = make_var(6, 3, 9, 1, bytes({0x7F, 0x11, 0x22}));
    write_data_to_local(&w6);
    EXPECT_EQ(word_entry(1, 2, 1), 0x7F00); // absent word created as 0 first
    EXPECT_EQ(word_entry(1, 2, 2), -1);

    put_word(1, 3, 1, 0xFFFF);
    RW_VAR w7 = make_var(7, 2, 1, 1, QByteArray()); // empty data is the byte 0
    write_data_to_local(&w7);
    EXPECT_EQ(word_entry(1, 3, 1), 0xFF00);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 2);
}

// ---- kinds 9 to 14 ----

TEST_F(Mirror, Kind11AtDoubleWordTen)
{
    RW_VAR w = make_var(11, 10, 2, 1, bytes({0x01, 0x02, 0x03, 0x04}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 4, 20), 0x0201);
    EXPECT_EQ(word_entry(1, 4, 21), 0x0403);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 2);
    QByteArray out;
    EXPECT_EQ(GetRegisterData(nullptr, 4, "20", 1, &out, 2), 1);
    EXPECT_EQ(out, bytes({0x01, 0x02, 0x03, 0x04}));
}

TEST_F(Mirror, DoubleWordsSeveralElementsAndPartialTail)
{
    RW_VAR w = make_var(9, 1, 2, 1, bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 2, 2), 0x0201);
    EXPECT_EQ(word_entry(1, 2, 3), 0x0403);
    EXPECT_EQ(word_entry(1, 2, 4), 0x0605);
    EXPECT_EQ(word_entry(1, 2, 5), 0x0807);
    EXPECT_EQ(word_entry(1, 2, 6), 0x0A09);
    EXPECT_EQ(word_entry(1, 2, 7), 0x0000); // the partial element's missing bytes
    EXPECT_EQ(PLC_driver.word_mirror.size(), 6);

    RW_VAR one = make_var(10, 0, 2, 1, bytes({0xEE}));
    write_data_to_local(&one);
    EXPECT_EQ(word_entry(1, 3, 0), 0x00EE);
    EXPECT_EQ(word_entry(1, 3, 1), 0x0000);
}

TEST_F(Mirror, QuadWordsAndPartialTail)
{
    RW_VAR w = make_var(13, 2, 4, 1, bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    write_data_to_local(&w);
    EXPECT_EQ(word_entry(1, 3, 8), 0x0201);
    EXPECT_EQ(word_entry(1, 3, 9), 0x0403);
    EXPECT_EQ(word_entry(1, 3, 10), 0x0605);
    EXPECT_EQ(word_entry(1, 3, 11), 0x0807);
    EXPECT_EQ(word_entry(1, 3, 12), 0x0A09);
    EXPECT_EQ(word_entry(1, 3, 13), 0);
    EXPECT_EQ(word_entry(1, 3, 14), 0);
    EXPECT_EQ(word_entry(1, 3, 15), 0);
    EXPECT_EQ(word_entry(1, 3, 7), -1);
    EXPECT_EQ(word_entry(1, 3, 16), -1);

    RW_VAR q12 = make_var(12, 0, 4, 1, bytes({0xFF, 0xFF, 0, 0, 0, 0, 0, 0x80}));
    write_data_to_local(&q12);
    EXPECT_EQ(word_entry(1, 2, 0), 0xFFFF);
    EXPECT_EQ(word_entry(1, 2, 3), 0x8000);

    RW_VAR q14 = make_var(14, 1, 4, 1, bytes({1, 0, 2, 0, 3, 0, 4, 0}));
    write_data_to_local(&q14);
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(word_entry(1, 4, 4 + j), j + 1);
}

// ---- separation and ignored kinds ----

TEST_F(Mirror, StationsAndClassesAreSeparate)
{
    RW_VAR s1 = make_var(4, 10, 1, 1, bytes({0x01, 0x00}));
    RW_VAR s2 = make_var(4, 10, 1, 2, bytes({0x02, 0x00}));
    RW_VAR c3 = make_var(3, 10, 1, 1, bytes({0x03, 0x00}));
    RW_VAR c2 = make_var(2, 10, 1, 1, bytes({0x04, 0x00}));
    write_data_to_local(&s1);
    write_data_to_local(&s2);
    write_data_to_local(&c3);
    write_data_to_local(&c2);
    EXPECT_EQ(PLC_driver.word_mirror.size(), 4);
    EXPECT_EQ(word_entry(1, 4, 10), 1);
    EXPECT_EQ(word_entry(2, 4, 10), 2);
    EXPECT_EQ(word_entry(1, 3, 10), 3);
    EXPECT_EQ(word_entry(1, 2, 10), 4);

    RW_VAR b0 = make_var(0, 10, 1, 1, bytes({1}));
    RW_VAR b1 = make_var(1, 10, 1, 1, bytes({0}));
    RW_VAR b1s = make_var(1, 10, 1, 2, bytes({1}));
    write_data_to_local(&b0);
    write_data_to_local(&b1);
    write_data_to_local(&b1s);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 3);
    EXPECT_EQ(bit_entry(1, 0, 10), 1);
    EXPECT_EQ(bit_entry(1, 1, 10), 0);
    EXPECT_EQ(bit_entry(2, 1, 10), 1);
}

TEST_F(Mirror, KindsOutsideTheTableChangeNothing)
{
    put_word(1, 4, 0, 0x1111);
    PLC_driver.bit_mirror.insert(mirror_key(1, 1, 0), 1);
    for (int kind : {15, -1, 16, 100, INT_MIN, INT_MAX}) {
        RW_VAR w = make_var(kind, 0, 8, 1, bytes({0, 0, 0, 0, 0, 0, 0, 0}));
        write_data_to_local(&w);
    }
    EXPECT_EQ(PLC_driver.word_mirror.size(), 1);
    EXPECT_EQ(PLC_driver.bit_mirror.size(), 1);
    EXPECT_EQ(word_entry(1, 4, 0), 0x1111);
    EXPECT_EQ(bit_entry(1, 1, 0), 1);
}

TEST_F(Mirror, TheRecordIsNotChanged)
{
    for (int kind = 0; kind <= 14; ++kind) {
        RW_VAR w = make_var(kind, 21, 5, 3, bytes({1, 2, 3}));
        w.source_type = 4;
        w.source_id = 8;
        w.name_text = "name";
        w.address_text = "21";
        const RW_VAR before = w;
        write_data_to_local(&w);
        EXPECT_EQ(w.reg_kind, before.reg_kind);
        EXPECT_EQ(w.start_addr, before.start_addr);
        EXPECT_EQ(w.station, before.station);
        EXPECT_EQ(w.count, before.count);
        EXPECT_EQ(w.data, before.data);
        EXPECT_EQ(w.source_type, 4);
        EXPECT_EQ(w.source_id, 8);
        EXPECT_EQ(w.name_text, QString("name"));
        EXPECT_EQ(w.address_text, QString("21"));
    }
}
