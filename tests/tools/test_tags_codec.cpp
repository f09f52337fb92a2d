// The typed codec of the tags library against known bit patterns: IEEE 754
// values (3.14159 as float32 is 0x40490FD0), NaN and the infinities, and
// the integers at their limits, in every byte order, over word, 32-bit and
// 64-bit kinds; scale and offset; hex, bits and ascii; the raw view; and
// every refusal with its message.
#include "codec.h"
#include "numbers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using plctags::ByteOrder;
using plctags::Tag;
using plctags::Value;
using plctags::ValueType;

namespace {

Tag typed(int kind, int count, ValueType type, ByteOrder order = ByteOrder::ABCD)
{
    Tag tag;
    tag.plc.name = "t";
    tag.plc.kind = kind;
    tag.plc.address = "0";
    tag.plc.count = count;
    tag.type = type;
    tag.order = order;
    return tag;
}

std::vector<uint64_t> words(const std::vector<uint16_t> &registers)
{
    return std::vector<uint64_t>(registers.begin(), registers.end());
}

std::string texts(const std::vector<Value> &values)
{
    std::string text;
    for (const Value &v : values)
        text += (text.empty() ? "" : "|") + plctags::value_text(v);
    return text;
}

constexpr int kWord = 4;   // holding registers, one value a register
constexpr int kDword = 11; // 32-bit values over two registers, low register first
constexpr int kQword = 14; // 64-bit values over four registers

} // namespace

// One value of a numeric type, its registers in ascending address order as
// they sit in the PLC for an order, and its text.
struct Pattern {
    ValueType type;
    ByteOrder order;
    std::vector<uint16_t> registers;
    std::string text;
};

std::string pattern_name(const ::testing::TestParamInfo<Pattern> &info)
{
    return std::string(plctags::type_name(info.param.type)) + "_" + plctags::order_name(info.param.order) + "_" +
           std::to_string(info.index);
}

class TagsKnownPattern : public ::testing::TestWithParam<Pattern> {
protected:
    Tag tag() const
    {
        const Pattern &p = GetParam();
        return typed(kWord, int(p.registers.size()), p.type, p.order);
    }
};

TEST_P(TagsKnownPattern, DecodesFromTheRegisters)
{
    EXPECT_EQ(texts(plctags::decode(tag(), words(GetParam().registers))), GetParam().text);
}

TEST_P(TagsKnownPattern, EncodesToTheRegisters)
{
    const auto r = plctags::encode(tag(), {GetParam().text});
    ASSERT_TRUE(r.ok()) << r.why();
    EXPECT_EQ(r.value(), words(GetParam().registers));
}

// The same registers read through a 32- or 64-bit kind, whose host values
// hold them low register first. A one-register type reads a 32-bit value
// as two of its values, here the same one twice.
TEST_P(TagsKnownPattern, DecodesTheSameThroughTheWideKinds)
{
    const Pattern &p = GetParam();
    const int kind = p.registers.size() == 4 ? kQword : kDword;
    std::vector<uint16_t> registers = p.registers;
    std::string text = p.text;
    if (registers.size() == 1) {
        registers.push_back(registers[0]);
        text += "|" + p.text;
    }
    const Tag wide = typed(kind, int(registers.size()), p.type, p.order);
    const std::vector<uint64_t> values = plctags::values_of(kind, registers);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(texts(plctags::decode(wide, values)), text);
    EXPECT_EQ(plctags::units_of(kind, values), registers);
    const std::vector<std::string> written(registers.size() / p.registers.size(), p.text);
    const auto back = plctags::encode(wide, written);
    ASSERT_TRUE(back.ok()) << back.why();
    EXPECT_EQ(back.value(), values);
}

using O = ByteOrder;
using T = ValueType;

INSTANTIATE_TEST_SUITE_P(Float32, TagsKnownPattern,
                         ::testing::Values(Pattern{T::Float32, O::ABCD, {0x4049, 0x0FD0}, "3.14159"},
                                           Pattern{T::Float32, O::CDAB, {0x0FD0, 0x4049}, "3.14159"},
                                           Pattern{T::Float32, O::BADC, {0x4940, 0xD00F}, "3.14159"},
                                           Pattern{T::Float32, O::DCBA, {0xD00F, 0x4940}, "3.14159"},
                                           Pattern{T::Float32, O::ABCD, {0xBFC0, 0x0000}, "-1.5"},
                                           Pattern{T::Float32, O::CDAB, {0x0000, 0xBFC0}, "-1.5"},
                                           Pattern{T::Float32, O::BADC, {0xC0BF, 0x0000}, "-1.5"},
                                           Pattern{T::Float32, O::DCBA, {0x0000, 0xC0BF}, "-1.5"},
                                           Pattern{T::Float32, O::ABCD, {0x7F80, 0x0000}, "inf"},
                                           Pattern{T::Float32, O::CDAB, {0x0000, 0xFF80}, "-inf"},
                                           Pattern{T::Float32, O::DCBA, {0x0000, 0x807F}, "inf"},
                                           Pattern{T::Float32, O::ABCD, {0x7F7F, 0xFFFF}, "3.4028235e+38"},
                                           Pattern{T::Float32, O::BADC, {0x0000, 0x0100}, "1e-45"},
                                           Pattern{T::Float32, O::ABCD, {0x0000, 0x0000}, "0"}),
                         pattern_name);

INSTANTIATE_TEST_SUITE_P(Float64, TagsKnownPattern,
                         ::testing::Values(Pattern{T::Float64, O::ABCD, {0x4009, 0x21F9, 0xF01B, 0x866E}, "3.14159"},
                                           Pattern{T::Float64, O::CDAB, {0x866E, 0xF01B, 0x21F9, 0x4009}, "3.14159"},
                                           Pattern{T::Float64, O::BADC, {0x0940, 0xF921, 0x1BF0, 0x6E86}, "3.14159"},
                                           Pattern{T::Float64, O::DCBA, {0x6E86, 0x1BF0, 0xF921, 0x0940}, "3.14159"},
                                           Pattern{T::Float64, O::ABCD, {0xBFF8, 0, 0, 0}, "-1.5"},
                                           Pattern{T::Float64, O::CDAB, {0, 0, 0, 0xBFF8}, "-1.5"},
                                           Pattern{T::Float64, O::BADC, {0xF8BF, 0, 0, 0}, "-1.5"},
                                           Pattern{T::Float64, O::DCBA, {0, 0, 0, 0xF8BF}, "-1.5"},
                                           Pattern{T::Float64, O::ABCD, {0xFFF0, 0, 0, 0}, "-inf"},
                                           Pattern{T::Float64, O::ABCD, {0x3FB9, 0x9999, 0x9999, 0x999A}, "0.1"}),
                         pattern_name);

INSTANTIATE_TEST_SUITE_P(
    Integers, TagsKnownPattern,
    ::testing::Values(Pattern{T::Int16, O::ABCD, {0x8000}, "-32768"}, Pattern{T::Int16, O::ABCD, {0x7FFF}, "32767"},
                      Pattern{T::Int16, O::ABCD, {0xFFFF}, "-1"}, Pattern{T::Uint16, O::ABCD, {0xFFFF}, "65535"},
                      Pattern{T::Int32, O::ABCD, {0x8000, 0x0000}, "-2147483648"},
                      Pattern{T::Int32, O::CDAB, {0x0000, 0x8000}, "-2147483648"},
                      Pattern{T::Int32, O::BADC, {0xFF7F, 0xFFFF}, "2147483647"},
                      Pattern{T::Int32, O::DCBA, {0x0102, 0x0304}, "67305985"},
                      Pattern{T::Uint32, O::ABCD, {0xFFFF, 0xFFFF}, "4294967295"},
                      Pattern{T::Uint32, O::CDAB, {0x5678, 0x1234}, "305419896"},
                      Pattern{T::Int64, O::ABCD, {0x8000, 0, 0, 0}, "-9223372036854775808"},
                      Pattern{T::Int64, O::CDAB, {0, 0, 0, 0x8000}, "-9223372036854775808"},
                      Pattern{T::Int64, O::BADC, {0xFF7F, 0xFFFF, 0xFFFF, 0xFFFF}, "9223372036854775807"},
                      Pattern{T::Int64, O::DCBA, {0xFFFF, 0xFFFF, 0xFFFF, 0xFF7F}, "9223372036854775807"},
                      Pattern{T::Int64, O::ABCD, {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, "-1"},
                      Pattern{T::Uint64, O::ABCD, {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, "18446744073709551615"},
                      Pattern{T::Uint64, O::CDAB, {0x0004, 0x0003, 0x0002, 0x0001}, "281483566841860"},
                      Pattern{T::Uint64, O::DCBA, {0x0100, 0, 0, 0}, "1"}),
    pattern_name);

TEST(TagsCodec, NanIsShownAsSuchInEveryOrder)
{
    const std::vector<std::pair<ByteOrder, std::vector<uint16_t>>> nans = {
        {O::ABCD, {0x7FC0, 0x0000}}, {O::CDAB, {0x0000, 0x7FC0}}, {O::BADC, {0xC07F, 0}}, {O::DCBA, {0, 0xC07F}}};
    for (const auto &n : nans) {
        const auto values = plctags::decode(typed(kWord, 2, T::Float32, n.first), words(n.second));
        ASSERT_EQ(values.size(), 1u);
        EXPECT_TRUE(std::isnan(std::get<double>(values[0]))) << plctags::order_name(n.first);
        EXPECT_EQ(plctags::value_text(values[0]), "nan");
    }
    const auto written = plctags::encode(typed(kWord, 2, T::Float32), {"nan"});
    ASSERT_TRUE(written.ok());
    float f;
    const uint32_t bits = uint32_t(written.value()[0] << 16 | written.value()[1]);
    std::memcpy(&f, &bits, sizeof f);
    EXPECT_TRUE(std::isnan(f));
}

TEST(TagsCodec, AFloatShowsTheShortestTextThatReadsBackToItsBits)
{
    // 0x3DCCCCCD is the float nearest 0.1: shown as 0.1, not 0.10000000149011612.
    const auto values = plctags::decode(typed(kWord, 2, T::Float32), {0x3DCC, 0xCCCD});
    EXPECT_EQ(texts(values), "0.1");
    const auto back = plctags::encode(typed(kWord, 2, T::Float32), {texts(values)});
    ASSERT_TRUE(back.ok());
    EXPECT_EQ(back.value(), (std::vector<uint64_t>{0x3DCC, 0xCCCD}));
    // Neighbours differ in their last digit, and each reads back to its own bits.
    EXPECT_EQ(texts(plctags::decode(typed(kWord, 2, T::Float32), {0x3DCC, 0xCCCE})), "0.10000001");
}

TEST(TagsCodec, SeveralValuesOfATag)
{
    const Tag tag = typed(kWord, 4, T::Float32, O::CDAB);
    EXPECT_EQ(texts(plctags::decode(tag, {0x0FD0, 0x4049, 0x0000, 0xBFC0})), "3.14159|-1.5");
    const auto r = plctags::encode(tag, {"3.14159", "-1.5"});
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value(), (std::vector<uint64_t>{0x0FD0, 0x4049, 0x0000, 0xBFC0}));
}

struct Scaled {
    ValueType type;
    double scale, offset;
    std::vector<uint16_t> registers;
    std::string text;
};

class TagsScaled : public ::testing::TestWithParam<Scaled> {
protected:
    Tag tag() const
    {
        Tag t = typed(kWord, int(GetParam().registers.size()), GetParam().type);
        t.scale = GetParam().scale;
        t.offset = GetParam().offset;
        return t;
    }
};

TEST_P(TagsScaled, ShowsRawTimesScalePlusOffsetAndWritesItBack)
{
    EXPECT_EQ(texts(plctags::decode(tag(), words(GetParam().registers))), GetParam().text);
    const auto r = plctags::encode(tag(), {GetParam().text});
    ASSERT_TRUE(r.ok()) << r.why();
    EXPECT_EQ(r.value(), words(GetParam().registers));
}

INSTANTIATE_TEST_SUITE_P(Values, TagsScaled,
                         ::testing::Values(Scaled{T::Int16, 0.1, 0, {215}, "21.5"},
                                           Scaled{T::Int16, 0.1, 0, {0xFFF6}, "-1"},
                                           Scaled{T::Uint16, 1, -40, {100}, "60"},
                                           Scaled{T::Uint16, 0.01, 0, {12345}, "123.45"},
                                           Scaled{T::Int32, 0.001, 5, {0xFFFF, 0xFC18}, "4"},
                                           Scaled{T::Float32, 2, 1, {0x4049, 0x0FD0}, "7.28318023681641"},
                                           Scaled{T::Float32, 1000, 0, {0xBFC0, 0x0000}, "-1500"}));

TEST(TagsCodec, TheUnitFollowsTheValues)
{
    Tag tag = typed(kWord, 2, T::Int16);
    tag.scale = 0.1;
    tag.unit = "°C";
    EXPECT_EQ(plctags::values_text(tag, plctags::decode(tag, {215, 0xFFFF})), "21.5, -0.1 °C");
}

struct Shown {
    int kind;
    int count;
    ValueType type;
    ByteOrder order;
    std::vector<uint64_t> values;
    std::string text;
};

class TagsUnitViews : public ::testing::TestWithParam<Shown> {};

TEST_P(TagsUnitViews, ShowAndWriteEachUnit)
{
    const Shown &s = GetParam();
    const Tag tag = typed(s.kind, s.count, s.type, s.order);
    ASSERT_FALSE(plctags::check_fit(tag)) << *plctags::check_fit(tag);
    const auto values = plctags::decode(tag, s.values);
    EXPECT_EQ(plctags::values_text(tag, values), s.text);
    std::vector<std::string> written;
    for (const Value &v : values)
        written.push_back(plctags::value_text(v));
    const auto back = plctags::encode(tag, written);
    ASSERT_TRUE(back.ok()) << back.why();
    EXPECT_EQ(back.value(), s.values);
}

INSTANTIATE_TEST_SUITE_P(Views, TagsUnitViews,
                         ::testing::Values(Shown{kWord, 2, T::Hex, O::ABCD, {0x4865, 0x00AF}, "0x4865, 0x00AF"},
                                           Shown{kWord, 1, T::Bits, O::ABCD, {0x0123}, "0000000100100011"},
                                           Shown{kDword, 2, T::Hex, O::ABCD, {0x12345678}, "0x5678, 0x1234"},
                                           Shown{8, 2, T::Hex, O::ABCD, {0x41, 0x0F}, "0x41, 0x0F"},
                                           Shown{7, 1, T::Bits, O::ABCD, {0x81}, "10000001"},
                                           Shown{kWord, 3, T::Ascii, O::ABCD, {0x4865, 0x6C6C, 0x6F21}, "Hello!"},
                                           Shown{kWord, 3, T::Ascii, O::BADC, {0x6548, 0x6C6C, 0x216F}, "Hello!"},
                                           Shown{8, 3, T::Ascii, O::ABCD, {0x41, 0x42, 0x43}, "ABC"}));

TEST(TagsCodec, AsciiLeavesOutTheNulPaddingAndEscapesOtherBytes)
{
    const Tag tag = typed(kWord, 4, T::Ascii);
    EXPECT_EQ(plctags::values_text(tag, plctags::decode(tag, {0x4F4B, 0x0000, 0x0000, 0x0000})), "OK");
    EXPECT_EQ(plctags::values_text(tag, plctags::decode(tag, {0x4101, 0x5C00, 0x4200, 0})), "A\\x01\\x5C\\x00B");
    const auto odd = plctags::encode(tag, {"abc"});
    ASSERT_TRUE(odd.ok());
    EXPECT_EQ(odd.value(), (std::vector<uint64_t>{0x6162, 0x6300}));
}

TEST(TagsCodec, ShownCountIsWhatADecodeShows)
{
    const Tag tags[] = {typed(kWord, 4, T::Raw),    typed(kWord, 4, T::Float32), typed(kWord, 4, T::Float64),
                        typed(kWord, 3, T::Int16),  typed(kWord, 4, T::Ascii),   typed(kDword, 2, T::Hex),
                        typed(kDword, 2, T::Int32), typed(8, 3, T::Bits),        typed(8, 3, T::Raw)};
    for (const Tag &t : tags) {
        const size_t raw = size_t(plchost::value_count(t.plc.kind, t.plc.count));
        EXPECT_EQ(plctags::shown_count(t), plctags::decode(t, std::vector<uint64_t>(raw, 0)).size())
            << "kind " << t.plc.kind << " count " << t.plc.count;
    }
}

TEST(TagsCodec, AsciiBytesAboveTheSevenBitRangeStayBytes)
{
    // 0xC3 0xA9 (UTF-8 of e-acute) over a byte kind: two bytes, not widened
    // through a signed char to 0xFFC3.
    const auto bytes = plctags::encode(typed(8, 2, T::Ascii), {"\xC3\xA9"});
    ASSERT_TRUE(bytes.ok()) << bytes.why();
    EXPECT_EQ(bytes.value(), (std::vector<uint64_t>{0xC3, 0xA9}));
    const auto words = plctags::encode(typed(kWord, 1, T::Ascii), {"\xC3\xA9"});
    ASSERT_TRUE(words.ok()) << words.why();
    EXPECT_EQ(words.value(), (std::vector<uint64_t>{0xC3A9}));
}

struct Raw {
    int kind;
    std::vector<uint64_t> values;
    std::string text;
};

class TagsRawView : public ::testing::TestWithParam<Raw> {};

TEST_P(TagsRawView, ShowsTheValuesAsAPersonReadsThem)
{
    Tag tag = typed(GetParam().kind, 1, T::Raw);
    EXPECT_EQ(plctags::values_text(tag, plctags::decode(tag, GetParam().values)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(EveryWidth, TagsRawView,
                         ::testing::Values(Raw{0, {1, 0, 1}, "1 0 1"}, Raw{5, {0}, "0"},
                                           Raw{7, {5, 255}, "5 (0x05), 255 (0xFF)"},
                                           Raw{2, {0, 4660, 65535}, "0 (0x0000), 4660 (0x1234), 65535 (0xFFFF)"},
                                           Raw{10, {4294967295u, 7}, "4294967295, 7"},
                                           Raw{14, {18446744073709551615u}, "18446744073709551615"}, Raw{4, {}, ""}));

struct Misfit {
    int kind;
    int count;
    ValueType type;
    ByteOrder order;
    double scale;
    std::string why;
};

class TagsMisfit : public ::testing::TestWithParam<Misfit> {};

TEST_P(TagsMisfit, IsRefusedNamingTheTag)
{
    const Misfit &m = GetParam();
    Tag tag = typed(m.kind, m.count, m.type, m.order);
    tag.plc.name = "flow";
    tag.scale = m.scale;
    const auto why = plctags::check_fit(tag);
    ASSERT_TRUE(why);
    EXPECT_EQ(*why, "tag 'flow': " + m.why);
}

INSTANTIATE_TEST_SUITE_P(
    Misfits, TagsMisfit,
    ::testing::Values(
        Misfit{kWord, 1, T::Float32, O::ABCD, 1,
               "float32 takes 2 registers per value; kind 4 (word (class 4)) count 1 covers 1"},
        Misfit{kWord, 3, T::Int32, O::CDAB, 1,
               "int32 takes 2 registers per value; kind 4 (word (class 4)) count 3 covers 3"},
        Misfit{kDword, 2, T::Float64, O::ABCD, 1,
               "float64 takes 4 registers per value; kind 11 (dword (class 4)) count 2 covers 2"},
        Misfit{0, 8, T::Float32, O::ABCD, 1, "kind 0 (discrete input) holds bits: it takes no type but raw"},
        Misfit{1, 8, T::Hex, O::ABCD, 1, "kind 1 (coil) holds bits: it takes no type but raw"},
        Misfit{5, 1, T::Uint16, O::ABCD, 1, "kind 5 (bit in word) holds bits: it takes no type but raw"},
        Misfit{7, 2, T::Int16, O::ABCD, 1, "kind 7 (byte (class 3)) holds bytes: its types are raw hex bits ascii"},
        Misfit{kWord, 1, T::Int16, O::CDAB, 1,
               "order CDAB needs a type wider than one register (int32 uint32 int64 uint64 float32 float64)"},
        Misfit{kWord, 2, T::Raw, O::DCBA, 1,
               "order DCBA needs a type wider than one register (int32 uint32 int64 uint64 float32 float64)"},
        Misfit{kWord, 2, T::Ascii, O::CDAB, 1,
               "ascii takes order ABCD (high byte first) or BADC (low byte first) over registers"},
        Misfit{8, 2, T::Ascii, O::BADC, 1,
               "ascii takes order ABCD (high byte first) or BADC (low byte first) over registers"},
        Misfit{kWord, 1, T::Hex, O::ABCD, 0.5,
               "scale and offset need a numeric type (int16 uint16 int32 uint32 int64 uint64 float32 float64)"},
        Misfit{kWord, 1, T::Int16, O::ABCD, 0, "scale must be a finite number other than 0, offset a finite number"}));

TEST(TagsCodec, FittingTypesAreAccepted)
{
    EXPECT_FALSE(plctags::check_fit(typed(kWord, 2, T::Float32, O::CDAB)));
    EXPECT_FALSE(plctags::check_fit(typed(kDword, 4, T::Float64, O::DCBA)));
    EXPECT_FALSE(plctags::check_fit(typed(kQword, 8, T::Int16)));
    EXPECT_FALSE(plctags::check_fit(typed(2, 4, T::Uint64, O::BADC)));
    EXPECT_FALSE(plctags::check_fit(typed(0, 8, T::Raw)));
    EXPECT_FALSE(plctags::check_fit(typed(6, 3, T::Ascii)));
}

struct Unwritable {
    ValueType type;
    int count;
    double scale;
    std::vector<std::string> texts;
    std::string why;
};

class TagsUnwritable : public ::testing::TestWithParam<Unwritable> {};

TEST_P(TagsUnwritable, IsRefusedSayingWhatTheTypeTakes)
{
    const Unwritable &u = GetParam();
    Tag tag = typed(kWord, u.count, u.type);
    tag.scale = u.scale;
    const auto r = plctags::encode(tag, u.texts);
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.why(), u.why);
}

INSTANTIATE_TEST_SUITE_P(
    Values, TagsUnwritable,
    ::testing::Values(
        Unwritable{
            T::Int16, 1, 1, {"32768"}, "invalid value '32768' for int16 (-32768..32767, or 0x and the value's bits)"},
        Unwritable{
            T::Int16, 1, 1, {"-32769"}, "invalid value '-32769' for int16 (-32768..32767, or 0x and the value's bits)"},
        Unwritable{T::Uint16, 1, 1, {"-1"}, "invalid value '-1' for uint16 (0..65535, or 0x and the value's bits)"},
        Unwritable{
            T::Uint16, 1, 1, {"0x10000"}, "invalid value '0x10000' for uint16 (0..65535, or 0x and the value's bits)"},
        Unwritable{T::Int32,
                   2,
                   1,
                   {"2147483648"},
                   "invalid value '2147483648' for int32 (-2147483648..2147483647, or 0x and the value's bits)"},
        Unwritable{T::Int64,
                   4,
                   1,
                   {"9223372036854775808"},
                   "invalid value '9223372036854775808' for int64 (-9223372036854775808..9223372036854775807, or 0x "
                   "and the value's bits)"},
        Unwritable{T::Uint64,
                   4,
                   1,
                   {"18446744073709551616"},
                   "invalid value '18446744073709551616' for uint64 (0..18446744073709551615, or 0x and the value's "
                   "bits)"},
        Unwritable{T::Uint64,
                   4,
                   1,
                   {"+1"},
                   "invalid value '+1' for uint64 (0..18446744073709551615, or 0x and the value's bits)"},
        Unwritable{T::Int16,
                   1,
                   0.1,
                   {"3276.8"},
                   "invalid value '3276.8' for int16 with scale 0.1 and offset 0 (-3276.8..3276.7)"},
        Unwritable{T::Float32,
                   2,
                   1,
                   {"1e39"},
                   "invalid value '1e39' for float32 (a decimal number of magnitude up to 3.4028235e+38 before "
                   "scaling, nan, inf or -inf)"},
        Unwritable{T::Float32,
                   2,
                   1,
                   {"0x40490FD0"},
                   "invalid value '0x40490FD0' for float32 (a decimal number of magnitude up to 3.4028235e+38 before "
                   "scaling, nan, inf or -inf)"},
        Unwritable{
            T::Float64, 4, 1, {"1e309"}, "invalid value '1e309' for float64 (a decimal number, nan, inf or -inf)"},
        Unwritable{
            T::Float64, 4, 1, {"three"}, "invalid value 'three' for float64 (a decimal number, nan, inf or -inf)"},
        Unwritable{T::Float64, 4, 1, {""}, "invalid value '' for float64 (a decimal number, nan, inf or -inf)"},
        Unwritable{T::Hex, 1, 1, {"0x12345"}, "invalid value '0x12345' for hex (up to 4 hex digits)"},
        Unwritable{T::Bits, 1, 1, {"0102"}, "invalid value '0102' for bits (up to 16 binary digits)"},
        Unwritable{T::Ascii, 2, 1, {"a", "b"}, "ascii takes one VALUE, the text (quote a text with blanks)"}));

TEST(TagsCodec, AScaledFloat32PastTheLargestFloatIsRefused)
{
    Tag tag = typed(kWord, 2, T::Float32);
    tag.scale = 0.5;
    // 1.7014117e38 / 0.5 is just below the largest float plus half its last
    // place, and rounds to the largest float; twice as much is out of range.
    const auto largest = plctags::encode(tag, {"1.7014117e38"});
    ASSERT_TRUE(largest.ok()) << largest.why();
    EXPECT_EQ(largest.value(), (std::vector<uint64_t>{0x7F7F, 0xFFFF}));
    EXPECT_FALSE(plctags::encode(tag, {"3.4e38"}).ok());
    EXPECT_FALSE(plctags::encode(tag, {"-3.4e38"}).ok());
}

TEST(TagsCodec, ValuesThatDoNotFillWholeValuesOfTheKindAreRefused)
{
    const auto r = plctags::encode(typed(kDword, 2, T::Int16), {"1"});
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.why(), "1 registers of int16 do not make whole values of kind 11 (dword (class 4)), 2 registers each");
    const auto ok = plctags::encode(typed(kDword, 2, T::Int16), {"1", "-1"});
    ASSERT_TRUE(ok.ok());
    EXPECT_EQ(ok.value(), (std::vector<uint64_t>{0xFFFF0001u}));
}

TEST(TagsCodec, RawWritesKeepTheKindsWidth)
{
    const auto r = plctags::encode(typed(kWord, 1, T::Raw), {"70000"});
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.why(), "invalid value '70000' for kind 4 (16-bit)");
    const auto ok = plctags::encode(typed(kWord, 1, T::Raw), {"-1", "0xBEEF"});
    ASSERT_TRUE(ok.ok());
    EXPECT_EQ(ok.value(), (std::vector<uint64_t>{0xFFFF, 0xBEEF}));
}

TEST(TagsCodec, ShortestRealTexts)
{
    EXPECT_EQ(plctags::real_text(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(plctags::real_text(-0.0), "-0");
    EXPECT_EQ(plctags::real_text(1e300), "1e+300");
    EXPECT_EQ(plctags::float_text(3.14159f), "3.14159");
    EXPECT_EQ(plctags::real_text(std::nan("")), "nan");
    EXPECT_EQ(plctags::real_text(-HUGE_VAL), "-inf");
}
