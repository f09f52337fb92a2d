// The numeric types of typed tags on their own: a value's registers put
// together in a byte order and taken apart again, a value's bits read as
// its type (with scale and offset) and a text read into those bits, and
// real numbers written as the shortest text that reads back to them.
#ifndef PLCTAGS_NUMBERS_H
#define PLCTAGS_NUMBERS_H

#include "parsed.h"
#include "tag.h"

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace plctags {

// The bits of one value from its registers (ascending address order, 1 to
// 4 of them) in the given order, and the registers back from the bits.
uint64_t assemble(const uint16_t *registers, int count, ByteOrder order);
std::vector<uint16_t> spread(uint64_t bits, int count, ByteOrder order);

// A numeric type's value of `bits` (the low 16, 32 or 64 of them), scaled
// when the tag asks for it.
std::variant<uint64_t, int64_t, double> number_of(const Tag &tag, uint64_t bits);

// The bits that show `text` as the tag's numeric type, or why there are
// none: not a number of the type, or out of its range.
Parsed<uint64_t> bits_of(const Tag &tag, const std::string &text);

// The shortest text that reads back to the same double ("nan", "inf",
// "-inf" for those), and the same for a float.
std::string real_text(double value);
std::string float_text(float value);

} // namespace plctags

#endif // PLCTAGS_NUMBERS_H
