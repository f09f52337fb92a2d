// The typed codec: a tag's values as its type shows them, from the values
// the host's codec decodes out of the driver's buffers (plchost::
// decode_values), and the way back for writes (to plchost::encode_values).
// The registers are those of the driver's little-endian layout: a 32- or
// 64-bit value of kinds 9..14 is its registers in ascending address order,
// lowest first. A typed value reads its registers in ascending address order
// and places their bytes by the tag's ByteOrder. Pure functions.
#ifndef PLCTAGS_CODEC_H
#define PLCTAGS_CODEC_H

#include "parsed.h"
#include "tag.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace plctags {

// One value as shown: an unsigned or signed integer, a real number (for a
// float32 the double of the shortest text that reads back to the same float
// bits; a scaled value rounded to 15 significant digits) or a text (hex,
// bits, ascii).
using Value = std::variant<uint64_t, int64_t, double, std::string>;

// Whether the tag's type, order, scale and offset fit its kind, ignoring the
// count: the reason when they do not.
std::optional<std::string> check_type(const Tag &tag);

// check_type, and whether the tag's count covers whole values of its type:
// the reason, starting with "tag 'NAME': ", when not.
std::optional<std::string> check_fit(const Tag &tag);

// The units a tag's values cover in ascending address order: 16-bit
// registers for the register kinds, bytes for the byte kinds, bits for the
// bit kinds; and back to the host codec's values of the kind.
std::vector<uint16_t> units_of(int kind, const std::vector<uint64_t> &values);
std::vector<uint64_t> values_of(int kind, const std::vector<uint16_t> &units);

// The tag's values as its type shows them, from the host codec's values of
// a read of the tag (the tag fits: check_fit).
std::vector<Value> decode(const Tag &tag, const std::vector<uint64_t> &values);
// The same from the bytes the host's mirror holds for the tag
// (plchost::Reading::bytes).
std::vector<Value> decode_bytes(const Tag &tag, const std::vector<uint8_t> &bytes);
// How many values decode() shows for the tag: one text for ascii, else one
// per value of its type.
size_t shown_count(const Tag &tag);

// The host codec's values of the kind that write `texts` (one per value,
// one text for ascii) as the tag's type, or why one cannot be written:
// a number out of the type's range, a text that is no number, a count of
// registers that is not whole values of the kind.
Parsed<std::vector<uint64_t>> encode(const Tag &tag, const std::vector<std::string> &texts);

// A value as text: integers in decimal, reals in their shortest round-trip
// form ("nan", "inf", "-inf" as such), texts as they are.
std::string value_text(const Value &value);

// The numeric value of a Value (its number, NaN for a text), for trends.
double value_number(const Value &value);

// A tag's values as a person reads them. The raw view: bits "1 0 1", bytes
// and words in decimal and hex ("4660 (0x1234)"), 32- and 64-bit values as
// unsigned decimals; typed values in their text, separated by ", ", and the
// unit after them.
std::string values_text(const Tag &tag, const std::vector<Value> &values);

} // namespace plctags

#endif // PLCTAGS_CODEC_H
