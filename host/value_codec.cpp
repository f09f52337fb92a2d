#include "value_codec.h"

#include "Register_Kinds.h"

#include <cstddef>

namespace plchost {

// Widths, writability and names come from the driver's kind table.

int value_bits(int kind)
{
    return plckinds::value_bits(kind);
}

bool kind_writable(int kind)
{
    return plckinds::is_writable(kind);
}

const char *kind_name(int kind)
{
    return plckinds::kind_name(kind);
}

// Values of 32 and 64 bits are counted in registers: a started value counts.
int value_count(int kind, int count)
{
    if (count <= 0 || !plckinds::is_known_kind(kind))
        return 0;
    const int words = plckinds::words_per_value(kind);
    return words > 1 ? (count + words - 1) / words : count;
}

std::vector<uint64_t> decode_values(int kind, int count, const std::vector<uint8_t> &bytes)
{
    std::vector<uint64_t> values;
    const int n = value_count(kind, count);
    const int bits = value_bits(kind);
    // Bytes per value in GetRegisterData's buffer: bits and bytes one each
    // (bytes are packed at the start of a buffer twice their count).
    const int width = bits <= 8 ? 1 : bits / 8;
    for (int i = 0; i < n; ++i) {
        uint64_t v = 0;
        for (int b = width - 1; b >= 0; --b) {
            const size_t at = size_t(i * width + b);
            v = (v << 8) | (at < bytes.size() ? bytes[at] : 0);
        }
        values.push_back(v);
    }
    return values;
}

bool encode_values(int kind, const std::vector<uint64_t> &values, std::vector<uint8_t> *bytes, int *count)
{
    if (!kind_writable(kind))
        return false;
    bytes->clear();
    const int n = int(values.size());
    const int words = plckinds::words_per_value(kind);
    if (words == 0) {
        // Bits: one byte each, non-zero is 1. Bytes: one 16-bit element
        // each, whose low byte is written.
        const bool bit = value_bits(kind) == 1;
        for (uint64_t v : values) {
            bytes->push_back(bit ? (v ? 1 : 0) : uint8_t(v));
            if (!bit)
                bytes->push_back(0);
        }
        *count = n;
        return true;
    }
    for (uint64_t v : values)
        for (int b = 0; b < 2 * words; ++b)
            bytes->push_back(uint8_t(v >> (8 * b)));
    *count = n * words; // counted in 16-bit registers
    return true;
}

} // namespace plchost
