#include "codec.h"

#include "Register_Kinds.h"
#include "numbers.h"
#include "text.h"

#include <cmath>
#include <cstring>

namespace plctags {

namespace {

// What a kind's units are, for the types: bits take no type, bytes take
// the types that show units (hex, bits, ascii), registers take every type.
enum class Units { Bits, Bytes, Registers };

Units units_kind(int kind)
{
    switch (plckinds::layout(kind)) {
    case plckinds::Layout::Bits:
    case plckinds::Layout::BitInWord: return Units::Bits;
    case plckinds::Layout::ByteInWord: return Units::Bytes;
    default: break;
    }
    return Units::Registers;
}

int unit_bits(int kind)
{
    switch (units_kind(kind)) {
    case Units::Bits: return 1;
    case Units::Bytes: return 8;
    case Units::Registers: break;
    }
    return 16;
}

// 16-bit registers a 32- or 64-bit value of the kind spans; 1 for the
// other kinds, whose values are one unit each.
int registers_per_value(int kind)
{
    return std::max(plckinds::words_per_value(kind), 1);
}

std::string kind_text(int kind)
{
    return "kind " + std::to_string(kind) + " (" + plchost::kind_name(kind) + ")";
}

bool wide(ValueType type)
{
    return type_registers(type) > 1;
}

std::optional<std::string> check_order(const Tag &tag)
{
    if (tag.order == ByteOrder::ABCD)
        return std::nullopt;
    if (tag.type == ValueType::Ascii && tag.order == ByteOrder::BADC && units_kind(tag.plc.kind) == Units::Registers)
        return std::nullopt;
    if (tag.type == ValueType::Ascii)
        return std::string("ascii takes order ABCD (high byte first) or BADC (low byte first) over registers");
    if (!wide(tag.type))
        return std::string("order ") + order_name(tag.order) +
               " needs a type wider than one register (int32 uint32 int64 uint64 float32 float64)";
    return std::nullopt;
}

std::optional<std::string> check_units(const Tag &tag)
{
    const int kind = tag.plc.kind;
    if (!plckinds::is_known_kind(kind))
        return "unknown kind " + std::to_string(kind);
    if (tag.type == ValueType::Raw)
        return std::nullopt;
    switch (units_kind(kind)) {
    case Units::Bits: return kind_text(kind) + " holds bits: it takes no type but raw";
    case Units::Bytes:
        if (is_numeric(tag.type))
            return kind_text(kind) + " holds bytes: its types are raw hex bits ascii";
        break;
    case Units::Registers: break;
    }
    return std::nullopt;
}

// Registers a read of the tag yields.
int registers_read(const plchost::Tag &t)
{
    return plchost::value_count(t.kind, t.count) * registers_per_value(t.kind);
}

} // namespace

std::optional<std::string> check_type(const Tag &tag)
{
    if (auto why = check_units(tag))
        return why;
    if ((is_scaled(tag)) && !is_numeric(tag.type))
        return std::string("scale and offset need a numeric type (int16 uint16 int32 uint32 int64 uint64 float32 "
                           "float64)");
    if (!std::isfinite(tag.scale) || !std::isfinite(tag.offset) || tag.scale == 0)
        return std::string("scale must be a finite number other than 0, offset a finite number");
    return check_order(tag);
}

std::optional<std::string> check_fit(const Tag &tag)
{
    const std::string name = "tag '" + tag.plc.name + "': ";
    if (auto why = check_type(tag))
        return name + *why;
    const int per_value = type_registers(tag.type);
    const int registers = registers_read(tag.plc);
    if (per_value > 1 && registers % per_value != 0)
        return name + type_name(tag.type) + " takes " + std::to_string(per_value) + " registers per value; " +
               kind_text(tag.plc.kind) + " count " + std::to_string(tag.plc.count) + " covers " +
               std::to_string(registers);
    return std::nullopt;
}

std::vector<uint16_t> units_of(int kind, const std::vector<uint64_t> &values)
{
    const int per_value = registers_per_value(kind);
    std::vector<uint16_t> units;
    for (uint64_t v : values)
        for (int r = 0; r < per_value; ++r)
            units.push_back(uint16_t(v >> (16 * r)));
    return units;
}

std::vector<uint64_t> values_of(int kind, const std::vector<uint16_t> &units)
{
    const size_t per_value = size_t(registers_per_value(kind));
    std::vector<uint64_t> values;
    for (size_t at = 0; at + per_value <= units.size(); at += per_value) {
        uint64_t v = 0;
        for (size_t r = per_value; r-- > 0;)
            v = (v << 16) | units[at + r];
        values.push_back(v);
    }
    return values;
}

namespace {

int digits_of(int kind, int base)
{
    return base == 16 ? unit_bits(kind) / 4 : unit_bits(kind);
}

std::string unit_digits(uint16_t unit, int digits, int base)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text(size_t(digits), '0');
    for (int i = digits - 1; i >= 0; --i, unit = uint16_t(unit / base))
        text[size_t(i)] = kDigits[unit % base];
    return base == 16 ? "0x" + text : text;
}

// The bytes of the units in address order: registers high byte first (ABCD)
// or low byte first (BADC).
std::string ascii_bytes(const Tag &tag, const std::vector<uint16_t> &units)
{
    std::string bytes;
    const bool registers = units_kind(tag.plc.kind) == Units::Registers;
    const bool low_first = tag.order == ByteOrder::BADC;
    for (uint16_t u : units) {
        if (!registers) {
            bytes += char(u & 0xFF);
            continue;
        }
        bytes += char(low_first ? u & 0xFF : u >> 8);
        bytes += char(low_first ? u >> 8 : u & 0xFF);
    }
    return bytes;
}

// Text of bytes read as ASCII: the padding of NULs at its end left out,
// other bytes outside printable ASCII as \xNN.
std::string ascii_text(const std::string &bytes)
{
    const size_t end = bytes.find_last_not_of('\0') + 1;
    std::string text;
    for (size_t i = 0; i < end; ++i) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            text += char(c);
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
        text += escaped;
    }
    return text;
}

std::vector<Value> numbers(const Tag &tag, const std::vector<uint16_t> &registers)
{
    const int per_value = type_registers(tag.type);
    std::vector<Value> shown;
    for (size_t at = 0; at + size_t(per_value) <= registers.size(); at += size_t(per_value)) {
        const auto number = number_of(tag, assemble(&registers[at], per_value, tag.order));
        std::visit([&shown](auto n) { shown.emplace_back(n); }, number);
    }
    return shown;
}

} // namespace

std::vector<Value> decode(const Tag &tag, const std::vector<uint64_t> &values)
{
    const int kind = tag.plc.kind;
    std::vector<Value> shown;
    switch (tag.type) {
    case ValueType::Raw: shown.assign(values.begin(), values.end()); break;
    case ValueType::Hex:
    case ValueType::Bits: {
        const int base = tag.type == ValueType::Hex ? 16 : 2;
        for (uint16_t unit : units_of(kind, values))
            shown.emplace_back(unit_digits(unit, digits_of(kind, base), base));
        break;
    }
    case ValueType::Ascii: shown.emplace_back(ascii_text(ascii_bytes(tag, units_of(kind, values)))); break;
    default: return numbers(tag, units_of(kind, values));
    }
    return shown;
}

std::vector<Value> decode_bytes(const Tag &tag, const std::vector<uint8_t> &bytes)
{
    return decode(tag, plchost::decode_values(tag.plc.kind, tag.plc.count, bytes));
}

size_t shown_count(const Tag &tag)
{
    switch (tag.type) {
    case ValueType::Raw: return size_t(plchost::value_count(tag.plc.kind, tag.plc.count));
    case ValueType::Hex:
    case ValueType::Bits: return size_t(registers_read(tag.plc));
    case ValueType::Ascii: return 1;
    default: return size_t(registers_read(tag.plc) / type_registers(tag.type));
    }
}

std::string value_text(const Value &value)
{
    struct Text {
        std::string operator()(uint64_t v) const { return std::to_string(v); }
        std::string operator()(int64_t v) const { return std::to_string(v); }
        std::string operator()(double v) const { return real_text(v); }
        std::string operator()(const std::string &v) const { return v; }
    };
    return std::visit(Text{}, value);
}

double value_number(const Value &value)
{
    struct Number {
        double operator()(uint64_t v) const { return double(v); }
        double operator()(int64_t v) const { return double(v); }
        double operator()(double v) const { return v; }
        double operator()(const std::string &) const { return std::nan(""); }
    };
    return std::visit(Number{}, value);
}

namespace {

// The raw view: bytes and words also in hex, with as many digits as they
// have; bits separated by blanks.
std::string raw_text(int kind, const std::vector<Value> &values)
{
    const int bits = plchost::value_bits(kind);
    const bool hex = bits == 8 || bits == 16;
    std::string text;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            text += bits == 1 ? " " : ", ";
        text += value_text(values[i]);
        if (hex)
            text += " (" + unit_digits(uint16_t(value_number(values[i])), bits / 4, 16) + ")";
    }
    return text;
}

} // namespace

std::string values_text(const Tag &tag, const std::vector<Value> &values)
{
    if (tag.type == ValueType::Raw)
        return raw_text(tag.plc.kind, values);
    std::string text;
    for (size_t i = 0; i < values.size(); ++i)
        text += (i ? ", " : "") + value_text(values[i]);
    return tag.unit.empty() ? text : text + " " + tag.unit;
}

namespace {

std::string value_refusal(const Tag &tag, const std::string &text, const std::string &accepted)
{
    return "invalid value '" + text + "' for " + type_name(tag.type) + " (" + accepted + ")";
}

// A unit in hexadecimal (with or without 0x) or in binary digits, at most as
// wide as the unit.
Parsed<uint16_t> unit_of(const Tag &tag, const std::string &text)
{
    const int bits = unit_bits(tag.plc.kind);
    const bool hex = tag.type == ValueType::Hex;
    const bool prefixed = hex && is_hex_text(text);
    const std::string digits = prefixed ? text.substr(2) : text;
    const size_t most = size_t(hex ? bits / 4 : bits);
    const char *const allowed = hex ? "0123456789abcdefABCDEF" : "01";
    if (digits.empty() || digits.size() > most || digits.find_first_not_of(allowed) != std::string::npos)
        return refuse(
            value_refusal(tag, text, "up to " + std::to_string(most) + (hex ? " hex" : " binary") + " digits"));
    return uint16_t(std::stoul(digits, nullptr, hex ? 16 : 2));
}

Parsed<std::vector<uint16_t>> ascii_units(const Tag &tag, const std::vector<std::string> &texts)
{
    if (texts.size() != 1)
        return refuse("ascii takes one VALUE, the text (quote a text with blanks)");
    const std::string &text = texts[0];
    std::vector<uint16_t> units;
    if (units_kind(tag.plc.kind) != Units::Registers) {
        for (const unsigned char c : text) // a byte, not a (signed) char widened
            units.push_back(c);
        return units;
    }
    // Two bytes a register; an odd text ends in a NUL.
    const bool low_first = tag.order == ByteOrder::BADC;
    for (size_t i = 0; i < text.size(); i += 2) {
        const uint8_t first = uint8_t(text[i]), second = i + 1 < text.size() ? uint8_t(text[i + 1]) : 0;
        units.push_back(low_first ? uint16_t(second << 8 | first) : uint16_t(first << 8 | second));
    }
    return units;
}

// The units of the texts, for every type but Raw.
Parsed<std::vector<uint16_t>> units_to_write(const Tag &tag, const std::vector<std::string> &texts)
{
    if (tag.type == ValueType::Ascii)
        return ascii_units(tag, texts);
    std::vector<uint16_t> units;
    for (const std::string &text : texts) {
        if (!is_numeric(tag.type)) {
            const auto unit = unit_of(tag, text);
            if (!unit.ok())
                return refuse(unit.why());
            units.push_back(unit.value());
            continue;
        }
        const auto bits = bits_of(tag, text);
        if (!bits.ok())
            return refuse(bits.why());
        for (uint16_t r : spread(bits.value(), type_registers(tag.type), tag.order))
            units.push_back(r);
    }
    return units;
}

Parsed<std::vector<uint64_t>> raw_values(int kind, const std::vector<std::string> &texts)
{
    const int bits = plchost::value_bits(kind);
    std::vector<uint64_t> values;
    for (const std::string &text : texts) {
        const auto v = parse_value(text, bits);
        if (!v)
            return refuse("invalid value '" + text + "' for kind " + std::to_string(kind) + " (" +
                          std::to_string(bits) + "-bit)");
        values.push_back(*v);
    }
    return values;
}

} // namespace

Parsed<std::vector<uint64_t>> encode(const Tag &tag, const std::vector<std::string> &texts)
{
    const int kind = tag.plc.kind;
    if (tag.type == ValueType::Raw)
        return raw_values(kind, texts);
    const auto units = units_to_write(tag, texts);
    if (!units.ok())
        return refuse(units.why());
    const size_t per_value = size_t(registers_per_value(kind));
    if (units.value().size() % per_value != 0)
        return refuse(std::to_string(units.value().size()) + " registers of " + type_name(tag.type) +
                      " do not make whole values of " + kind_text(kind) + ", " + std::to_string(per_value) +
                      " registers each");
    return values_of(kind, units.value());
}

} // namespace plctags
