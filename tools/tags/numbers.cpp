#include "numbers.h"

#include "text.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace plctags {

namespace {

bool words_reversed(ByteOrder order)
{
    return order == ByteOrder::CDAB || order == ByteOrder::DCBA;
}

bool bytes_swapped(ByteOrder order)
{
    return order == ByteOrder::BADC || order == ByteOrder::DCBA;
}

uint16_t swap_bytes(uint16_t word)
{
    return uint16_t(word << 8 | word >> 8);
}

template <typename To, typename From> To bit_cast(From from)
{
    static_assert(sizeof(To) == sizeof(From), "same size");
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

// A double as shown: a real with more digits than the 15 a double holds
// exactly in decimal would show the binary rounding of scale and offset
// (21.500000000000004 for 215 x 0.1).
double rounded_to_15_digits(double value)
{
    if (!std::isfinite(value))
        return value;
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", value);
    return std::strtod(text, nullptr);
}

// A float as a double that shows the float's own shortest text: 3.14159f
// is 3.14159 and not 3.141590118408203.
double shown_float(float value)
{
    if (!std::isfinite(value))
        return double(value);
    return std::strtod(float_text(value).c_str(), nullptr);
}

// The type's value of `bits` as a double, for scaling.
double real_of(ValueType type, uint64_t bits)
{
    switch (type) {
    case ValueType::Int16: return double(int16_t(bits));
    case ValueType::Uint16: return double(uint16_t(bits));
    case ValueType::Int32: return double(int32_t(bits));
    case ValueType::Uint32: return double(uint32_t(bits));
    case ValueType::Int64: return double(int64_t(bits));
    case ValueType::Float32: return double(bit_cast<float>(uint32_t(bits)));
    case ValueType::Float64: return bit_cast<double>(bits);
    default: break;
    }
    return double(bits);
}

// An integer type's range: as doubles for scaled values (the 64-bit maxima
// rounded up to powers of two, which the range tests take as the first
// value out of range) and as text.
struct IntegerRange {
    double min, max;
    bool is_signed;
    int bits;
    const char *text;
};

IntegerRange integer_range(ValueType type)
{
    switch (type) {
    case ValueType::Int16: return {-32768.0, 32767.0, true, 16, "-32768..32767"};
    case ValueType::Uint16: return {0, 65535.0, false, 16, "0..65535"};
    case ValueType::Int32: return {-2147483648.0, 2147483647.0, true, 32, "-2147483648..2147483647"};
    case ValueType::Uint32: return {0, 4294967295.0, false, 32, "0..4294967295"};
    case ValueType::Int64:
        return {-9223372036854775808.0, 9223372036854775807.0, true, 64, "-9223372036854775808..9223372036854775807"};
    default: break;
    }
    return {0, 18446744073709551615.0, false, 64, "0..18446744073709551615"};
}

std::string range_text(const Tag &tag)
{
    if (tag.type == ValueType::Float32)
        return "a decimal number of magnitude up to " + float_text(std::numeric_limits<float>::max()) +
               " before scaling, nan, inf or -inf";
    if (is_float(tag.type))
        return "a decimal number, nan, inf or -inf";
    const IntegerRange r = integer_range(tag.type);
    if (!is_scaled(tag))
        return std::string(r.text) + ", or 0x and the value's bits";
    const double a = rounded_to_15_digits(r.min * tag.scale + tag.offset);
    const double b = rounded_to_15_digits(r.max * tag.scale + tag.offset);
    return real_text(std::min(a, b)) + ".." + real_text(std::max(a, b));
}

Refusal invalid(const Tag &tag, const std::string &text)
{
    std::string scaled;
    if (is_scaled(tag))
        scaled = " with scale " + real_text(tag.scale) + " and offset " + real_text(tag.offset);
    return refuse("invalid value '" + text + "' for " + type_name(tag.type) + scaled + " (" + range_text(tag) + ")");
}

// A double rounded to the nearest float, an infinity past the largest float
// (a conversion out of a float's range has no defined result in C++).
float to_float(double value)
{
    // The largest float plus half its last place: from here on values round
    // to infinity.
    constexpr double kRoundsToInfinity = 0x1.ffffffp127;
    if (std::isfinite(value) && std::fabs(value) >= kRoundsToInfinity)
        return value > 0 ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
    return float(value);
}

Parsed<uint64_t> float_bits(const Tag &tag, const std::string &text)
{
    const auto shown = parse_real(text);
    if (!shown)
        return invalid(tag, text);
    const bool single = tag.type == ValueType::Float32;
    // Unscaled, the text is read at the type's own precision (no double
    // rounding through a double for float32).
    const double raw = is_scaled(tag) ? (*shown - tag.offset) / tag.scale : *shown;
    const float as_float = is_scaled(tag) ? to_float(raw) : std::strtof(text.c_str(), nullptr);
    // A number too large for a double reads as an infinity; only "inf" and
    // "infinity" are meant as one.
    const bool spelt_infinite = text.find_first_of("iI") != std::string::npos;
    const bool overflows = !spelt_infinite && (single ? std::isinf(as_float) : std::isinf(raw));
    if (overflows)
        return invalid(tag, text);
    return single ? uint64_t(bit_cast<uint32_t>(as_float)) : bit_cast<uint64_t>(raw);
}

// An integer text unscaled: hexadecimal for the value's bits, or a decimal
// in the type's range.
std::optional<uint64_t> unscaled_integer(const IntegerRange &r, const std::string &text)
{
    if (is_hex_text(text))
        return parse_value(text, r.bits);
    if (text.empty() || text[0] == '+' || (!r.is_signed && text[0] == '-'))
        return std::nullopt;
    if (r.is_signed) {
        const auto v = parse_integer(text, (long long)r.min,
                                     r.bits == 64 ? std::numeric_limits<long long>::max() : (long long)r.max);
        return v ? std::optional<uint64_t>(uint64_t(*v)) : std::nullopt;
    }
    return parse_value(text, r.bits);
}

Parsed<uint64_t> integer_bits(const Tag &tag, const std::string &text)
{
    const IntegerRange r = integer_range(tag.type);
    const uint64_t mask = r.bits == 64 ? ~uint64_t(0) : (uint64_t(1) << r.bits) - 1;
    if (!is_scaled(tag)) {
        const auto v = unscaled_integer(r, text);
        if (!v)
            return invalid(tag, text);
        return *v & mask;
    }
    const auto shown = parse_real(text);
    if (!shown)
        return invalid(tag, text);
    const double raw = std::nearbyint((*shown - tag.offset) / tag.scale);
    // The 64-bit maxima are not doubles: their rounding, 2^63 and 2^64, is
    // the first value out of range.
    const bool past_max = r.bits == 64 ? raw >= r.max : raw > r.max;
    if (!(raw >= r.min) || past_max)
        return invalid(tag, text);
    return (r.is_signed ? uint64_t(int64_t(raw)) : uint64_t(raw)) & mask;
}

} // namespace

uint64_t assemble(const uint16_t *registers, int count, ByteOrder order)
{
    uint64_t bits = 0;
    for (int i = 0; i < count; ++i) {
        const uint16_t word = registers[words_reversed(order) ? count - 1 - i : i];
        bits = bits << 16 | (bytes_swapped(order) ? swap_bytes(word) : word);
    }
    return bits;
}

std::vector<uint16_t> spread(uint64_t bits, int count, ByteOrder order)
{
    std::vector<uint16_t> registers(static_cast<size_t>(count), 0);
    for (int i = 0; i < count; ++i) {
        const uint16_t word = uint16_t(bits >> (16 * (count - 1 - i)));
        registers[size_t(words_reversed(order) ? count - 1 - i : i)] = bytes_swapped(order) ? swap_bytes(word) : word;
    }
    return registers;
}

std::variant<uint64_t, int64_t, double> number_of(const Tag &tag, uint64_t bits)
{
    if (is_scaled(tag))
        return rounded_to_15_digits(real_of(tag.type, bits) * tag.scale + tag.offset);
    switch (tag.type) {
    case ValueType::Float32: return shown_float(bit_cast<float>(uint32_t(bits)));
    case ValueType::Float64: return bit_cast<double>(bits);
    case ValueType::Int16: return int64_t(int16_t(bits));
    case ValueType::Int32: return int64_t(int32_t(bits));
    case ValueType::Int64: return int64_t(bits);
    case ValueType::Uint16: return uint64_t(uint16_t(bits));
    case ValueType::Uint32: return uint64_t(uint32_t(bits));
    default: break;
    }
    return bits;
}

Parsed<uint64_t> bits_of(const Tag &tag, const std::string &text)
{
    return is_float(tag.type) ? float_bits(tag, text) : integer_bits(tag, text);
}

std::string real_text(double value)
{
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

std::string float_text(float value)
{
    if (!std::isfinite(value))
        return real_text(double(value));
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

} // namespace plctags
