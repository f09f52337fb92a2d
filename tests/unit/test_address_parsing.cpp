// Address texts to numbers: StringAddressToInt and its exported twin
// PLCAddressChangeIntef. Bit kinds (0, 1, 5) take "byte.bit" and give
// byte * 8 + bit; every other kind takes one decimal number. -1 means the
// text does not parse.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <climits>

namespace {

struct AddressCase {
    int kind;
    const char *text;
    int expected;
};

// Both entry points must give the same answer for every case.
void expect_address(int kind, const QString &text, int expected)
{
    EXPECT_EQ(StringAddressToInt(kind, text), expected) << "kind " << kind << " text [" << text.toStdString() << "]";
    EXPECT_EQ(PLCAddressChangeIntef(kind, text), expected) << "kind " << kind << " text [" << text.toStdString() << "]";
}

void expect_cases(const AddressCase *cases, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        expect_address(cases[i].kind, QString::fromUtf8(cases[i].text), cases[i].expected);
}

class AddressParsing : public DriverTest {};

TEST_F(AddressParsing, BitKindByteAndBit)
{
    const AddressCase cases[] = {
        {0, "12.5", 101}, {1, "12.5", 101},  {0, "0.0", 0},   {0, "0.7", 7},   {1, "1.0", 8},
        {0, "2.5", 21},   {0, "100.0", 800}, {5, "10.3", 83}, {5, "0.15", 15}, {5, "1.0", 8},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, BitKindNeedsExactlyTwoParts)
{
    const AddressCase cases[] = {
        {0, "12", -1},   {0, "1.2.3", -1}, {0, "12.", -1},   {0, ".5", -1},    {0, ".", -1},     {0, "", -1},
        {0, "a.1", -1},  {0, "1.a", -1},   {1, "12", -1},    {5, "10", -1},    {5, "1.2.3", -1}, {0, "1,2", -1},
        {0, "1..2", -1}, {0, "0x1.0", -1}, {0, "1.0x2", -1}, {0, "1e1.0", -1},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, BitPartIsNotRangeChecked)
{
    // 3.9 lands on the same bit as 4.1; a negative bit part is subtracted.
    expect_address(0, QStringLiteral("3.9"), 33);
    expect_address(0, QStringLiteral("4.1"), 33);
    expect_address(0, QStringLiteral("4.-1"), 31);
    expect_address(1, QStringLiteral("0.100"), 100);
    expect_address(5, QStringLiteral("2.-16"), 0);
}

TEST_F(AddressParsing, NegativeNumbersParse)
{
    // Negative results are numbers here; callers treat them as no address.
    const AddressCase cases[] = {
        {2, "-5", -5},   {3, "-1", -1}, {0, "-1.0", -8}, {0, "-1.3", -5},
        {5, "0.-3", -3}, {2, "-0", 0},  {2, "+5", 5},    {0, "+1.+2", 10},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, WordKindsTakeOneDecimalNumber)
{
    const AddressCase cases[] = {
        {2, "100", 100}, {2, "0x10", -1}, {2, "", -1},      {2, "12.5", -1}, {3, "0", 0},     {4, "65535", 65535},
        {6, "12.5", -1}, {7, "3", 3},     {8, "00012", 12}, {9, "1e3", -1},  {10, "12a", -1}, {11, "a12", -1},
        {12, "7", 7},    {13, "+-1", -1}, {14, "- 5", -1},  {4, "10", 10},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, KindsOutsideTheTableParseAsDecimal)
{
    expect_address(-1, QStringLiteral("7"), 7);
    expect_address(-1, QStringLiteral("1.2"), -1);
    expect_address(15, QStringLiteral("42"), 42);
    expect_address(255, QStringLiteral("9"), 9);
    expect_address(INT_MIN, QStringLiteral("3"), 3);
    expect_address(INT_MAX, QStringLiteral("3.1"), -1);
}

TEST_F(AddressParsing, SurroundingWhitespaceIsIgnoredInnerWhitespaceIsNot)
{
    const AddressCase cases[] = {
        {2, " 12", 12},     {2, "12 ", 12},  {2, "\t7\n", 7}, {2, " 1 2", -1}, {2, "  ", -1},
        {0, " 1 . 2 ", 10}, {0, "1 .2", 10}, {0, "1. 2", 10}, {0, " . ", -1},  {0, "1 0.0", -1},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, NumbersMustFitInThirtyTwoBits)
{
    const AddressCase cases[] = {
        {2, "2147483647", INT_MAX}, {2, "2147483648", -1},           {2, "-2147483648", INT_MIN},
        {2, "-2147483649", -1},     {2, "99999999999999999999", -1}, {0, "2147483648.0", -1},
        {0, "0.2147483648", -1},    {0, "0.2147483647", INT_MAX},    {0, "268435455.7", INT_MAX},
    };
    expect_cases(cases, sizeof cases / sizeof cases[0]);
}

TEST_F(AddressParsing, BitAddressBeyondThirtyTwoBitsIsNoAddress)
{
    // byte * 8 + bit must fit in 32 bits; otherwise the text is no address
    // (rather than wrapping onto another one: 536870912.0 would wrap to 0).
    expect_address(0, QStringLiteral("268435456.0"), -1);
    expect_address(1, QStringLiteral("268435455.8"), -1);
    expect_address(5, QStringLiteral("536870911.0"), -1);
    expect_address(0, QStringLiteral("536870912.0"), -1);
    expect_address(0, QStringLiteral("0.-2147483648"), INT_MIN);
    expect_address(0, QStringLiteral("-268435456.0"), INT_MIN);
    expect_address(0, QStringLiteral("-268435456.-1"), -1);
    expect_address(0, QStringLiteral("268435455.-2147483648"), -8);
}

} // namespace
