#include "tag.h"

namespace plctags {

namespace {

struct TypeRow {
    ValueType type;
    const char *name;
    int registers; // per value; 0: not a number read from whole registers
    bool is_float;
};

const TypeRow kTypes[] = {
    {ValueType::Raw, "raw", 0, false},        {ValueType::Int16, "int16", 1, false},
    {ValueType::Uint16, "uint16", 1, false},  {ValueType::Int32, "int32", 2, false},
    {ValueType::Uint32, "uint32", 2, false},  {ValueType::Int64, "int64", 4, false},
    {ValueType::Uint64, "uint64", 4, false},  {ValueType::Float32, "float32", 2, true},
    {ValueType::Float64, "float64", 4, true}, {ValueType::Hex, "hex", 0, false},
    {ValueType::Bits, "bits", 0, false},      {ValueType::Ascii, "ascii", 0, false},
};

struct OrderRow {
    ByteOrder order;
    const char *name;
};

const OrderRow kOrders[] = {
    {ByteOrder::ABCD, "ABCD"},
    {ByteOrder::CDAB, "CDAB"},
    {ByteOrder::BADC, "BADC"},
    {ByteOrder::DCBA, "DCBA"},
};

const TypeRow &row_of(ValueType type)
{
    for (const TypeRow &row : kTypes)
        if (row.type == type)
            return row;
    return kTypes[0];
}

template <typename Rows> std::string names_of(const Rows &rows)
{
    std::string names;
    for (const auto &row : rows)
        names += (names.empty() ? "" : " ") + std::string(row.name);
    return names;
}

} // namespace

const char *type_name(ValueType type)
{
    return row_of(type).name;
}

std::optional<ValueType> type_from_name(const std::string &name)
{
    for (const TypeRow &row : kTypes)
        if (name == row.name)
            return row.type;
    return std::nullopt;
}

const char *order_name(ByteOrder order)
{
    for (const OrderRow &row : kOrders)
        if (row.order == order)
            return row.name;
    return kOrders[0].name;
}

std::optional<ByteOrder> order_from_name(const std::string &name)
{
    for (const OrderRow &row : kOrders)
        if (name == row.name)
            return row.order;
    return std::nullopt;
}

std::string type_names()
{
    return names_of(kTypes);
}

std::string order_names()
{
    return names_of(kOrders);
}

int type_registers(ValueType type)
{
    return row_of(type).registers;
}

bool is_numeric(ValueType type)
{
    return type_registers(type) > 0;
}

bool shows_numbers(ValueType type)
{
    return type == ValueType::Raw || is_numeric(type);
}

bool is_float(ValueType type)
{
    return row_of(type).is_float;
}

bool is_scaled(const Tag &tag)
{
    return tag.scale != 1 || tag.offset != 0;
}

} // namespace plctags
