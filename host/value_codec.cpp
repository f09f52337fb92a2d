#include "value_codec.h"

#include <cstddef>

namespace plchost {

int value_bits(int kind)
{
    switch (kind) {
    case 0:
    case 1:
    case 5: return 1;
    case 6:
    case 7:
    case 8: return 8;
    case 2:
    case 3:
    case 4: return 16;
    case 9:
    case 10:
    case 11: return 32;
    case 12:
    case 13:
    case 14: return 64;
    default: return 0;
    }
}

bool kind_writable(int kind)
{
    switch (kind) {
    case 1:
    case 3:
    case 4:
    case 5:
    case 7:
    case 8:
    case 10:
    case 11:
    case 13:
    case 14: return true;
    default: return false;
    }
}

const char *kind_name(int kind)
{
    static const char *const names[15] = {"discrete input",  "coil",
                                          "input register",  "holding register",
                                          "word (class 4)",  "bit in word",
                                          "byte (class 2)",  "byte (class 3)",
                                          "byte (class 4)",  "dword (class 2)",
                                          "dword (class 3)", "dword (class 4)",
                                          "qword (class 2)", "qword (class 3)",
                                          "qword (class 4)"};
    return kind >= 0 && kind < 15 ? names[kind] : "unknown";
}

int value_count(int kind, int count)
{
    if (count <= 0)
        return 0;
    switch (value_bits(kind)) {
    case 1:
    case 8:
    case 16: return count;
    case 32: return (count + 1) >> 1;
    case 64: return (count + 3) >> 2;
    default: return 0;
    }
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
    switch (value_bits(kind)) {
    case 1: // one byte per bit
        for (uint64_t v : values)
            bytes->push_back(v ? 1 : 0);
        *count = n;
        return true;
    case 8: // one 16-bit element per byte; its low byte is written
        for (uint64_t v : values) {
            bytes->push_back(uint8_t(v));
            bytes->push_back(0);
        }
        *count = n;
        return true;
    default: break;
    }
    const int width = value_bits(kind) / 8;
    for (uint64_t v : values)
        for (int b = 0; b < width; ++b)
            bytes->push_back(uint8_t(v >> (8 * b)));
    *count = n * (width / 2); // counted in 16-bit words
    return true;
}

} // namespace plchost
