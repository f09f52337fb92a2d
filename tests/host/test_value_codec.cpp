// The host's value codec on bytes alone: how many values a read of each kind
// yields, how GetRegisterData's bytes turn into values and values into
// SetRegisterData's input (little-endian: a register low byte first, longer
// values as their registers in ascending order), and what can be written.
#include "value_codec.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Values = std::vector<uint64_t>;

struct KindCase {
    int kind;
    int bits;
    bool writable;
    int count;       // units of the kind
    int value_count; // values such a read yields
};

class ValueCodecKinds : public ::testing::TestWithParam<KindCase> {};

TEST_P(ValueCodecKinds, WidthWritabilityAndValueCount)
{
    const KindCase &c = GetParam();
    EXPECT_EQ(plchost::value_bits(c.kind), c.bits) << "kind " << c.kind;
    EXPECT_EQ(plchost::kind_writable(c.kind), c.writable) << "kind " << c.kind;
    EXPECT_EQ(plchost::value_count(c.kind, c.count), c.value_count) << "kind " << c.kind << " count " << c.count;
    EXPECT_EQ(plchost::value_count(c.kind, 0), 0);
    EXPECT_STRNE(plchost::kind_name(c.kind), "unknown");
}

INSTANTIATE_TEST_SUITE_P(
    AllKinds, ValueCodecKinds,
    ::testing::Values(KindCase{0, 1, false, 8, 8}, KindCase{1, 1, true, 8, 8}, KindCase{2, 16, false, 3, 3},
                      KindCase{3, 16, true, 3, 3}, KindCase{4, 16, true, 3, 3}, KindCase{5, 1, true, 4, 4},
                      KindCase{6, 8, false, 5, 5}, KindCase{7, 8, true, 5, 5}, KindCase{8, 8, true, 5, 5},
                      KindCase{9, 32, false, 3, 2}, KindCase{10, 32, true, 4, 2}, KindCase{11, 32, true, 2, 1},
                      KindCase{12, 64, false, 5, 2}, KindCase{13, 64, true, 4, 1}, KindCase{14, 64, true, 8, 2}));

TEST(ValueCodecKinds, UnknownKinds)
{
    for (int kind : {-1, 15, 100}) {
        EXPECT_EQ(plchost::value_bits(kind), 0);
        EXPECT_FALSE(plchost::kind_writable(kind));
        EXPECT_EQ(plchost::value_count(kind, 4), 0);
        EXPECT_STREQ(plchost::kind_name(kind), "unknown");
        Bytes bytes;
        int count = 0;
        EXPECT_FALSE(plchost::encode_values(kind, {1}, &bytes, &count));
    }
}

struct LayoutCase {
    const char *what;
    int kind;
    int count; // units of the kind
    Bytes bytes;
    Values values;
};

class ValueCodecLayout : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(ValueCodecLayout, Decodes)
{
    const LayoutCase &c = GetParam();
    EXPECT_EQ(plchost::decode_values(c.kind, c.count, c.bytes), c.values) << c.what;
}

// A buffer shorter than the values need reads as zeros past its end.
TEST_P(ValueCodecLayout, DecodesZerosPastAShortBuffer)
{
    const LayoutCase &c = GetParam();
    const auto values = plchost::decode_values(c.kind, c.count, {});
    ASSERT_EQ(values.size(), c.values.size()) << c.what;
    for (uint64_t v : values)
        EXPECT_EQ(v, 0u) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Buffers, ValueCodecLayout,
    ::testing::Values(LayoutCase{"bits one byte each", 1, 3, {1, 0, 1}, {1, 0, 1}},
                      LayoutCase{"words low byte first", 4, 2, {0x34, 0x12, 0xCD, 0xAB}, {0x1234, 0xABCD}},
                      LayoutCase{"bytes packed at the start", 7, 2, {0x11, 0x22, 0, 0}, {0x11, 0x22}},
                      LayoutCase{"dword: low register first", 11, 2, {0x78, 0x56, 0x34, 0x12}, {0x12345678}},
                      LayoutCase{"qword: four registers ascending",
                                 14,
                                 4,
                                 {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01},
                                 {0x0102030405060708}}));

struct EncodeCase {
    const char *what;
    int kind;
    Values values;
    Bytes bytes;
    int count; // in the unit SetRegisterData takes
};

class ValueCodecEncode : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(ValueCodecEncode, EncodesForSetRegisterData)
{
    const EncodeCase &c = GetParam();
    Bytes bytes;
    int count = -1;
    ASSERT_TRUE(plchost::encode_values(c.kind, c.values, &bytes, &count)) << c.what;
    EXPECT_EQ(bytes, c.bytes) << c.what;
    EXPECT_EQ(count, c.count) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Writes, ValueCodecEncode,
    ::testing::Values(
        EncodeCase{"coils: a byte per bit, non-zero is 1", 1, {1, 0, 7}, {1, 0, 1}, 3},
        EncodeCase{"bit of a word", 5, {1}, {1}, 1},
        EncodeCase{"bytes: one 16-bit element each, the low byte written", 8, {0x1FF, 0x02}, {0xFF, 0, 0x02, 0}, 2},
        EncodeCase{"words", 3, {0xBEEF}, {0xEF, 0xBE}, 1},
        EncodeCase{"dword counted in words", 10, {0x12345678}, {0x78, 0x56, 0x34, 0x12}, 2},
        EncodeCase{
            "qword counted in words", 13, {0x0102030405060708}, {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}, 4}));

TEST(ValueCodecEncode, ReadOnlyKindsAreRefused)
{
    for (int kind : {0, 2, 6, 9, 12}) {
        Bytes bytes = {9};
        int count = 7;
        EXPECT_FALSE(plchost::encode_values(kind, {1}, &bytes, &count)) << "kind " << kind;
        EXPECT_EQ(count, 7) << "nothing changed for kind " << kind;
    }
}

// What a write puts into the buffer reads back as the same values.
TEST(ValueCodecEncode, RoundTripsEveryWritableWordKind)
{
    for (int kind : {3, 4, 10, 11, 13, 14}) {
        const Values values = {0x1, 0xFFFF, 0x7FFF};
        Values wide;
        for (uint64_t v : values)
            wide.push_back(plchost::value_bits(kind) == 64 ? v * 0x0001000100010001ull : v);
        Bytes bytes;
        int count = 0;
        ASSERT_TRUE(plchost::encode_values(kind, wide, &bytes, &count));
        EXPECT_EQ(plchost::decode_values(kind, count, bytes), wide) << "kind " << kind;
    }
}
