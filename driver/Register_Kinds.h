// The register kinds in one table: for each of the fifteen kinds of PLC
// variable (enum PlcRegKind) the class of registers it lies in, the units of
// its address and count, its value width, how it is written, how large a
// block of it may be and how it goes out on Modbus TCP; and for each of the
// five register classes its Modbus table, read function and address offset.
//
// The driver's frame builders, mirror and data access ask these helpers
// instead of testing kind numbers. Header-only and constexpr, needing nothing
// but enum PlcRegKind, so that the reference host and its tools can read the
// same table. The PLC simulator keeps a description of its own on purpose:
// it checks the driver's frames from outside.
#ifndef PLCDRIVER_REGISTER_KINDS_H
#define PLCDRIVER_REGISTER_KINDS_H

#include "Communication_Protocol.h"

#include <climits>
#include <cstdint>

namespace plckinds {

// ------------------------------------------------------------ classes

// The five address spaces of a PLC station. The mirror keys carry the class.
enum RegClass : int {
    CLASS_DISCRETE_INPUTS = 0,
    CLASS_COILS = 1,
    CLASS_INPUT_REGISTERS = 2,
    CLASS_HOLDING_REGISTERS = 3,
    CLASS_WORDS = 4, // holding registers addressed without an offset
};
constexpr int kClassCount = 5;

// Modbus function codes the driver sends.
enum ModbusFunction : int {
    FN_NONE = 0,
    FN_READ_COILS = 1,
    FN_READ_DISCRETE_INPUTS = 2,
    FN_READ_HOLDING_REGISTERS = 3,
    FN_READ_INPUT_REGISTERS = 4,
    FN_WRITE_MULTIPLE_COILS = 15,
    FN_WRITE_MULTIPLE_REGISTERS = 16,
};

// Units of addresses, counts and values.
enum class Unit : std::uint8_t { Bit, Byte, Word, DoubleWord, QuadWord };

constexpr int unit_bits(Unit u)
{
    return u == Unit::Bit ? 1 : u == Unit::Byte ? 8 : u == Unit::Word ? 16 : u == Unit::DoubleWord ? 32 : 64;
}

struct ClassInfo {
    RegClass reg_class;
    const char *table; // the Modbus table the class is read from
    Unit element;      // Bit: one bit per address; Word: one 16-bit register
    int read_function;
    int modbus_offset; // added to a class address to make the Modbus address
    PlcRegKind kind;   // the kind that names the class in its own units
};

constexpr ClassInfo kClasses[kClassCount] = {
    {CLASS_DISCRETE_INPUTS, "discrete inputs", Unit::Bit, FN_READ_DISCRETE_INPUTS, 0x6000, REG_KIND_DISCRETE_INPUT},
    {CLASS_COILS, "coils", Unit::Bit, FN_READ_COILS, 0xA000, REG_KIND_COIL},
    {CLASS_INPUT_REGISTERS, "input registers", Unit::Word, FN_READ_INPUT_REGISTERS, 0x8000, REG_KIND_INPUT_REGISTER},
    {CLASS_HOLDING_REGISTERS, "holding registers", Unit::Word, FN_READ_HOLDING_REGISTERS, 0xA000,
     REG_KIND_HOLDING_REGISTER},
    {CLASS_WORDS, "holding registers", Unit::Word, FN_READ_HOLDING_REGISTERS, 0, REG_KIND_WORD},
};

constexpr bool is_known_class(int cls)
{
    return cls >= 0 && cls < kClassCount;
}

// Offset of a class; 0 for values that are no class.
constexpr int class_offset(int cls)
{
    return is_known_class(cls) ? kClasses[cls].modbus_offset : 0;
}

constexpr bool is_bit_class(int cls)
{
    return is_known_class(cls) && kClasses[cls].element == Unit::Bit;
}

// ------------------------------------------------------------ kinds

// How a kind is written.
enum class WriteMethod : std::uint8_t {
    None,           // read-only
    Coils,          // write multiple coils (15)
    Registers,      // write multiple registers (16), each value as its whole registers
    BitInRegister,  // read the register, then write it back (16) with one bit changed
    ByteInRegister, // the same with one byte changed
};

// The largest block of one request, from max_read_units (N).
enum class BlockRule : std::uint8_t {
    TwiceUnits, // bit kinds: counted in bytes once converted, 2 x N
    Units,      // N
    AtMost50,   // 32-bit values: N, at most 50 (100 registers)
    AtMost25,   // 64-bit values: N, at most 25 (100 registers)
};

struct KindInfo {
    PlcRegKind kind;
    RegClass reg_class;
    Unit address_unit; // unit of start_addr; also the width of one value
    Unit count_unit;   // unit of count; 32- and 64-bit kinds count registers, rounded up to whole values
    WriteMethod write;
    BlockRule block_rule;
    const char *name;
};

constexpr int kKindCount = 15;

namespace rows { // short names for the table's columns
using U = Unit;
using W = WriteMethod;
using B = BlockRule;
constexpr KindInfo kKinds[kKindCount] = {
    {REG_KIND_DISCRETE_INPUT, CLASS_DISCRETE_INPUTS, U::Bit, U::Bit, W::None, B::TwiceUnits, "discrete input"},
    {REG_KIND_COIL, CLASS_COILS, U::Bit, U::Bit, W::Coils, B::TwiceUnits, "coil"},
    {REG_KIND_INPUT_REGISTER, CLASS_INPUT_REGISTERS, U::Word, U::Word, W::None, B::Units, "input register"},
    {REG_KIND_HOLDING_REGISTER, CLASS_HOLDING_REGISTERS, U::Word, U::Word, W::Registers, B::Units, "holding register"},
    {REG_KIND_WORD, CLASS_WORDS, U::Word, U::Word, W::Registers, B::Units, "word (class 4)"},
    {REG_KIND_WORD_BIT, CLASS_WORDS, U::Bit, U::Bit, W::BitInRegister, B::Units, "bit in word"},
    {REG_KIND_BYTE_2, CLASS_INPUT_REGISTERS, U::Byte, U::Byte, W::None, B::Units, "byte (class 2)"},
    {REG_KIND_BYTE_3, CLASS_HOLDING_REGISTERS, U::Byte, U::Byte, W::ByteInRegister, B::Units, "byte (class 3)"},
    {REG_KIND_BYTE_4, CLASS_WORDS, U::Byte, U::Byte, W::ByteInRegister, B::Units, "byte (class 4)"},
    {REG_KIND_DWORD_2, CLASS_INPUT_REGISTERS, U::DoubleWord, U::Word, W::None, B::AtMost50, "dword (class 2)"},
    {REG_KIND_DWORD_3, CLASS_HOLDING_REGISTERS, U::DoubleWord, U::Word, W::Registers, B::AtMost50, "dword (class 3)"},
    {REG_KIND_DWORD_4, CLASS_WORDS, U::DoubleWord, U::Word, W::Registers, B::AtMost50, "dword (class 4)"},
    {REG_KIND_QWORD_2, CLASS_INPUT_REGISTERS, U::QuadWord, U::Word, W::None, B::AtMost25, "qword (class 2)"},
    {REG_KIND_QWORD_3, CLASS_HOLDING_REGISTERS, U::QuadWord, U::Word, W::Registers, B::AtMost25, "qword (class 3)"},
    {REG_KIND_QWORD_4, CLASS_WORDS, U::QuadWord, U::Word, W::Registers, B::AtMost25, "qword (class 4)"},
};
} // namespace rows
using rows::kKinds;

constexpr bool table_is_in_kind_order()
{
    for (int k = 0; k < kKindCount; ++k)
        if (int(kKinds[k].kind) != k || !is_known_class(kKinds[k].reg_class))
            return false;
    for (int c = 0; c < kClassCount; ++c)
        if (int(kClasses[c].reg_class) != c || int(kClasses[c].kind) != c)
            return false;
    return true;
}
static_assert(table_is_in_kind_order(), "kKinds and kClasses are indexed by kind and class");

constexpr bool is_known_kind(int kind)
{
    return kind >= 0 && kind < kKindCount;
}

// The row of a known kind.
constexpr const KindInfo &kind_info(int kind)
{
    return kKinds[kind];
}

// Class of a kind; -1 for values that are no kind.
constexpr int class_of(int kind)
{
    return is_known_kind(kind) ? int(kKinds[kind].reg_class) : -1;
}

// A kind of a bit class (discrete inputs, coils): counted in bits, mirrored
// bit by bit, and converted for reading into bytes while keeping its kind.
constexpr bool is_bit_kind(int kind)
{
    return is_bit_class(class_of(kind));
}

// Addressed bit by bit ("byte.bit" in an address text): the bit kinds and
// the bit inside a register.
constexpr bool is_bit_addressed(int kind)
{
    return is_known_kind(kind) && kKinds[kind].address_unit == Unit::Bit;
}

// A kind that names its class in the class's own units (bits or whole
// registers): what a read is converted to, and all a read frame is built for.
constexpr bool is_class_kind(int kind)
{
    return is_known_kind(kind) && int(kClasses[class_of(kind)].kind) == kind;
}

// The kind a read of this kind goes out as, once converted to its class.
constexpr int read_kind(int kind)
{
    return is_known_kind(kind) ? int(kClasses[class_of(kind)].kind) : kind;
}

constexpr WriteMethod write_method(int kind)
{
    return is_known_kind(kind) ? kKinds[kind].write : WriteMethod::None;
}

constexpr bool is_writable(int kind)
{
    return write_method(kind) != WriteMethod::None;
}

// The part-register writes go as a read of the register and a write of it.
constexpr bool is_read_modify_write(int kind)
{
    return write_method(kind) == WriteMethod::BitInRegister || write_method(kind) == WriteMethod::ByteInRegister;
}

// Width of one value in bits (1, 8, 16, 32, 64); 0 for values that are no kind.
constexpr int value_bits(int kind)
{
    return is_known_kind(kind) ? unit_bits(kKinds[kind].address_unit) : 0;
}

// Registers one value spans: 1, 2 or 4 for the register kinds; 0 for the
// kinds smaller than a register and for values that are no kind.
constexpr int words_per_value(int kind)
{
    return value_bits(kind) >= 16 ? value_bits(kind) / 16 : 0;
}

// Block limit of a kind for a max_read_units of n; values that are no kind
// take n. Twice n never passes INT_MAX.
constexpr int block_limit(int kind, int n)
{
    switch (is_known_kind(kind) ? kKinds[kind].block_rule : BlockRule::Units) {
    case BlockRule::TwiceUnits: return 2 * std::int64_t(n) > INT_MAX ? INT_MAX : int(2 * std::int64_t(n));
    case BlockRule::AtMost50: return n > 50 ? 50 : n;
    case BlockRule::AtMost25: return n > 25 ? 25 : n;
    case BlockRule::Units: break;
    }
    return n;
}

// Modbus function that reads the kind: that of its class (a kind smaller
// than a register is read as its whole registers).
constexpr int read_function(int kind)
{
    return is_known_kind(kind) ? kClasses[class_of(kind)].read_function : int(FN_NONE);
}

// Modbus function that writes the kind (for a bit or a byte inside a
// register, the write of the read-modify-write pair); FN_NONE for read-only kinds.
constexpr int write_function(int kind)
{
    return write_method(kind) == WriteMethod::None    ? int(FN_NONE)
           : write_method(kind) == WriteMethod::Coils ? int(FN_WRITE_MULTIPLE_COILS)
                                                      : int(FN_WRITE_MULTIPLE_REGISTERS);
}

// Offset added to the address of a Modbus frame built for the kind as it
// stands: its class's offset for the kinds that name their class. The other
// kinds never reach the wire with their own number except the 32- and 64-bit
// writes, which are addressed without an offset.
constexpr int modbus_offset(int kind)
{
    return is_class_kind(kind) ? class_offset(class_of(kind)) : 0;
}

// How the values of a kind lie in the registers of its class.
enum class Layout : std::uint8_t {
    None,       // no kind
    Bits,       // one bit of a bit class per unit
    Words,      // one whole register per unit
    BitInWord,  // one bit of a register, 16 to a register, lowest first
    ByteInWord, // one byte of a register, low byte first
    Values,     // 32- or 64-bit values, each over 2 or 4 registers, low register first
};

constexpr Layout layout(int kind)
{
    if (!is_known_kind(kind))
        return Layout::None;
    switch (kKinds[kind].address_unit) {
    case Unit::Bit: return is_bit_kind(kind) ? Layout::Bits : Layout::BitInWord;
    case Unit::Byte: return Layout::ByteInWord;
    case Unit::Word: return Layout::Words;
    case Unit::DoubleWord:
    case Unit::QuadWord: break;
    }
    return Layout::Values;
}

// Name for people ("holding register", "dword (class 3)").
constexpr const char *kind_name(int kind)
{
    return is_known_kind(kind) ? kKinds[kind].name : "unknown";
}

} // namespace plckinds

// ext_param1 of the read that opens a read-modify-write pair (a bit or a
// byte inside a register): its reply patches the write queued behind it and
// leaves the mirror alone. (The runtime sees it on the request in flight.)
enum RmwMarker : qint32 {
    kRmwNone = 0,
    kRmwBitRead = -1,
    kRmwByteRead = -2,
};

constexpr bool is_rmw_read(qint32 ext_param1)
{
    return ext_param1 == kRmwBitRead || ext_param1 == kRmwByteRead;
}

#endif // PLCDRIVER_REGISTER_KINDS_H
