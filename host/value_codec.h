// The value codec: how the values of a tag sit in the driver's buffers
// (GetRegisterData's output, SetRegisterData's input). Little-endian: a
// 16-bit register low byte first, longer values as their registers in
// ascending address order. Pure functions; plcpoll uses them too.
#ifndef PLCHOST_VALUE_CODEC_H
#define PLCHOST_VALUE_CODEC_H

#include <cstdint>
#include <vector>

namespace plchost {

// Number of values a read of `count` units of `kind` yields: bits for 0, 1, 5;
// bytes for 6..8; words for 2..4; 32-bit values (count+1)/2 for 9..11;
// 64-bit values (count+3)/4 for 12..14.
int value_count(int kind, int count);
// Turns GetRegisterData's bytes into values (bits 0/1, bytes, words, dwords, qwords).
std::vector<uint64_t> decode_values(int kind, int count, const std::vector<uint8_t> &bytes);
// Builds SetRegisterData's input for the given values and the count (in the
// unit of the kind) that covers them. False for read-only or unknown kinds.
bool encode_values(int kind, const std::vector<uint64_t> &values, std::vector<uint8_t> *bytes, int *count);
// True for the kinds the driver can write (1, 3, 4, 5, 7, 8, 10, 11, 13, 14).
bool kind_writable(int kind);
// Width of one value of a kind in bits (1, 8, 16, 32 or 64); 0 if unknown.
int value_bits(int kind);
// Human name of a kind, e.g. "holding register".
const char *kind_name(int kind);

} // namespace plchost

#endif // PLCHOST_VALUE_CODEC_H
