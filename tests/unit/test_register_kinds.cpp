// The register-kind table (Register_Kinds.h): every kind's and every class's
// row against the values the driver's behaviour pins, and the driver's named
// helpers, frame builders and data access checked to agree with the table.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <climits>
#include <ostream>
#include <string>
#include <vector>

using plckinds::Unit;

namespace {

// ------------------------------------------------------------ kinds

struct KindRow {
    int kind;
    int cls;
    Unit address_unit;
    Unit count_unit;
    int value_bits;
    bool writable;
    bool read_modify_write;
    int read_function;
    int write_function;
    int offset; // added to the address of a Modbus frame built for the kind as it stands
    int read_kind;
    int limit_at_100; // block limit for max_read_units 100
    int limit_at_30;
};

std::ostream &operator<<(std::ostream &os, const KindRow &r)
{
    return os << "kind " << r.kind;
}

const Unit B = Unit::Bit, Y = Unit::Byte, W = Unit::Word, D = Unit::DoubleWord, Q = Unit::QuadWord;

// clang-format off
const KindRow kKindRows[] = {
    // kind cls addr count bits  writable rmw   read write offset  read_kind limits
    {0,    0,  B,   B,    1,    false,   false, 2,   0,    0x6000, 0,        200, 60},
    {1,    1,  B,   B,    1,    true,    false, 1,   15,   0xA000, 1,        200, 60},
    {2,    2,  W,   W,    16,   false,   false, 4,   0,    0x8000, 2,        100, 30},
    {3,    3,  W,   W,    16,   true,    false, 3,   16,   0xA000, 3,        100, 30},
    {4,    4,  W,   W,    16,   true,    false, 3,   16,   0,      4,        100, 30},
    {5,    4,  B,   B,    1,    true,    true,  3,   16,   0,      4,        100, 30},
    {6,    2,  Y,   Y,    8,    false,   false, 4,   0,    0,      2,        100, 30},
    {7,    3,  Y,   Y,    8,    true,    true,  3,   16,   0,      3,        100, 30},
    {8,    4,  Y,   Y,    8,    true,    true,  3,   16,   0,      4,        100, 30},
    {9,    2,  D,   W,    32,   false,   false, 4,   0,    0,      2,        50,  30},
    {10,   3,  D,   W,    32,   true,    false, 3,   16,   0,      3,        50,  30},
    {11,   4,  D,   W,    32,   true,    false, 3,   16,   0,      4,        50,  30},
    {12,   2,  Q,   W,    64,   false,   false, 4,   0,    0,      2,        25,  25},
    {13,   3,  Q,   W,    64,   true,    false, 3,   16,   0,      3,        25,  25},
    {14,   4,  Q,   W,    64,   true,    false, 3,   16,   0,      4,        25,  25},
};
// clang-format on

class KindTable : public DriverTableTest<KindRow> {};

} // namespace

TEST_P(KindTable, RowHoldsThePinnedValues)
{
    const KindRow &r = GetParam();
    const plckinds::KindInfo &k = plckinds::kind_info(r.kind);
    EXPECT_EQ(int(k.kind), r.kind);
    EXPECT_EQ(plckinds::class_of(r.kind), r.cls);
    EXPECT_EQ(k.address_unit, r.address_unit);
    EXPECT_EQ(k.count_unit, r.count_unit);
    EXPECT_EQ(plckinds::value_bits(r.kind), r.value_bits);
    EXPECT_EQ(plckinds::is_writable(r.kind), r.writable);
    EXPECT_EQ(plckinds::is_read_modify_write(r.kind), r.read_modify_write);
    EXPECT_EQ(plckinds::read_function(r.kind), r.read_function);
    EXPECT_EQ(plckinds::write_function(r.kind), r.write_function);
    EXPECT_EQ(plckinds::modbus_offset(r.kind), r.offset);
    EXPECT_EQ(plckinds::read_kind(r.kind), r.read_kind);
    EXPECT_EQ(plckinds::block_limit(r.kind, 100), r.limit_at_100);
    EXPECT_EQ(plckinds::block_limit(r.kind, 30), r.limit_at_30);
    EXPECT_STRNE(plckinds::kind_name(r.kind), "unknown");
}

TEST_P(KindTable, NamedHelpersOfTheDriverAnswerFromTheTable)
{
    const KindRow &r = GetParam();
    EXPECT_EQ(Communication_Protocol::get_plc_reg(r.kind), r.cls);
    EXPECT_EQ(BlockLimitForKind(r.kind, 100), r.limit_at_100);
    EXPECT_EQ(BlockLimitForKind(r.kind, 30), r.limit_at_30);
    // Bit-addressed kinds take "byte.bit" addresses, the others a number.
    const bool by_bit = r.address_unit == Unit::Bit;
    EXPECT_EQ(plckinds::is_bit_addressed(r.kind), by_bit);
    EXPECT_EQ(StringAddressToInt(r.kind, QStringLiteral("2.3")), by_bit ? 19 : -1);
    EXPECT_EQ(StringAddressToInt(r.kind, QStringLiteral("19")), by_bit ? -1 : 19);
}

TEST_P(KindTable, AReadGoesOutWithTheClassFunctionAndOffset)
{
    const KindRow &r = GetParam();
    RW_VAR v = make_var(r.kind, 0, 1, 1);
    Communication_Protocol::update_rw_var(&v);
    EXPECT_EQ(v.reg_kind, r.read_kind);
    read_register(&v);
    ASSERT_EQ(PLC_driver.request_queue.size(), 1);
    const QByteArray &f = PLC_driver.request_queue.first().frame;
    EXPECT_EQ(uchar(f[7]), r.read_function);
    const int address = (uchar(f[8]) << 8) | uchar(f[9]);
    EXPECT_EQ(address, plckinds::class_offset(r.cls));
}

TEST_P(KindTable, OnlyWritableKindsAreWrittenAndWithTheirFunction)
{
    const KindRow &r = GetParam();
    const QString address = r.address_unit == Unit::Bit ? QStringLiteral("0.0") : QStringLiteral("0");
    QByteArray value(8, '\x01');
    const int queued = SetRegisterData(QStringLiteral("v"), r.kind, address, 1, &value, 1, 0, 0);
    EXPECT_EQ(queued, r.writable ? 1 : 0);
    if (!r.writable)
        return;
    ASSERT_NE(ComCommunication(), nullptr);
    const QList<Protocol> &q = PLC_driver.request_queue;
    // A part-register write is a read of the register and then its write.
    ASSERT_EQ(q.size(), r.read_modify_write ? 2 : 1);
    if (r.read_modify_write) {
        EXPECT_EQ(uchar(q.first().frame[7]), r.read_function);
        EXPECT_EQ(q.first().var.ext_param1, r.address_unit == Unit::Bit ? kRmwBitRead : kRmwByteRead);
    }
    EXPECT_EQ(uchar(q.last().frame[7]), r.write_function);
}

TEST_P(KindTable, TheRuntimesBufferHoldsWholeValues)
{
    const KindRow &r = GetParam();
    const QString address = r.address_unit == Unit::Bit ? QStringLiteral("0.0") : QStringLiteral("0");
    QByteArray out;
    ASSERT_EQ(GetRegisterData(nullptr, r.kind, address, 1, &out, 5), 1);
    // Five units: a byte per bit, two per byte or register, and whole
    // 32- or 64-bit values of 2 or 4 registers.
    const int expected = r.count_unit == Unit::Bit ? 5 : r.value_bits == 32 ? 12 : r.value_bits == 64 ? 16 : 10;
    EXPECT_EQ(out.size(), expected);
    EXPECT_EQ(plckinds::words_per_value(r.kind), r.value_bits >= 16 ? r.value_bits / 16 : 0);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, KindTable, ::testing::ValuesIn(kKindRows),
                         [](const ::testing::TestParamInfo<KindRow> &p) {
                             return "kind" + std::to_string(p.param.kind);
                         });

TEST(KindTableShape, FifteenKindsInOrderOfTheirNumbers)
{
    ASSERT_EQ(plckinds::kKindCount, 15);
    ASSERT_EQ(sizeof kKindRows / sizeof kKindRows[0], 15u);
    for (int k = 0; k < plckinds::kKindCount; ++k)
        EXPECT_EQ(int(plckinds::kKinds[k].kind), k);
}

TEST(KindTableShape, TheWritableKinds)
{
    std::vector<int> writable;
    for (int k = -2; k < 20; ++k)
        if (plckinds::is_writable(k))
            writable.push_back(k);
    EXPECT_EQ(writable, (std::vector<int>{1, 3, 4, 5, 7, 8, 10, 11, 13, 14}));
}

TEST(KindTableShape, ValuesThatAreNoKind)
{
    for (int v : {-1, 15, 16, 255, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(plckinds::is_known_kind(v)) << v;
        EXPECT_EQ(plckinds::class_of(v), -1) << v;
        EXPECT_EQ(plckinds::layout(v), plckinds::Layout::None) << v;
        EXPECT_FALSE(plckinds::is_writable(v)) << v;
        EXPECT_FALSE(plckinds::is_bit_kind(v)) << v;
        EXPECT_FALSE(plckinds::is_bit_addressed(v)) << v;
        EXPECT_FALSE(plckinds::is_class_kind(v)) << v;
        EXPECT_EQ(plckinds::read_kind(v), v) << v;
        EXPECT_EQ(plckinds::value_bits(v), 0) << v;
        EXPECT_EQ(plckinds::read_function(v), 0) << v;
        EXPECT_EQ(plckinds::write_function(v), 0) << v;
        EXPECT_EQ(plckinds::modbus_offset(v), 0) << v;
        EXPECT_EQ(plckinds::block_limit(v, 100), 100) << v;
        EXPECT_STREQ(plckinds::kind_name(v), "unknown") << v;
    }
}

TEST(KindTableShape, LayoutsFollowUnitsAndClass)
{
    using plckinds::Layout;
    const Layout expected[15] = {Layout::Bits,       Layout::Bits,      Layout::Words,      Layout::Words,
                                 Layout::Words,      Layout::BitInWord, Layout::ByteInWord, Layout::ByteInWord,
                                 Layout::ByteInWord, Layout::Values,    Layout::Values,     Layout::Values,
                                 Layout::Values,     Layout::Values,    Layout::Values};
    for (int k = 0; k < 15; ++k)
        EXPECT_EQ(plckinds::layout(k), expected[k]) << "kind " << k;
}

// ------------------------------------------------------------ classes

namespace {

struct ClassRow {
    int cls;
    bool bits;
    int read_function;
    int offset;
};

std::ostream &operator<<(std::ostream &os, const ClassRow &r)
{
    return os << "class " << r.cls;
}

const ClassRow kClassRows[] = {
    {0, true, 2, 0x6000}, {1, true, 1, 0xA000}, {2, false, 4, 0x8000}, {3, false, 3, 0xA000}, {4, false, 3, 0},
};

class ClassTable : public ::testing::TestWithParam<ClassRow> {};

} // namespace

TEST_P(ClassTable, RowHoldsThePinnedValues)
{
    const ClassRow &r = GetParam();
    const plckinds::ClassInfo &c = plckinds::kClasses[r.cls];
    EXPECT_EQ(int(c.reg_class), r.cls);
    EXPECT_EQ(plckinds::is_bit_class(r.cls), r.bits);
    EXPECT_EQ(c.read_function, r.read_function);
    EXPECT_EQ(plckinds::class_offset(r.cls), r.offset);
    EXPECT_EQ(Communication_Protocol::get_offset_add(r.cls), r.offset);
    // The kind that names the class is the class's number, in the class's units.
    EXPECT_EQ(int(c.kind), r.cls);
    EXPECT_TRUE(plckinds::is_class_kind(r.cls));
    EXPECT_NE(c.table, nullptr);
}

INSTANTIATE_TEST_SUITE_P(EveryClass, ClassTable, ::testing::ValuesIn(kClassRows),
                         [](const ::testing::TestParamInfo<ClassRow> &p) {
                             return "class" + std::to_string(p.param.cls);
                         });

TEST(ClassTableShape, ValuesThatAreNoClass)
{
    for (int v : {-1, 5, 14, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(plckinds::is_known_class(v)) << v;
        EXPECT_FALSE(plckinds::is_bit_class(v)) << v;
        EXPECT_EQ(plckinds::class_offset(v), 0) << v;
    }
}
