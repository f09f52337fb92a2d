// A typed tag: where a PLC variable lives (the host's Tag: kind, address,
// station, count) and how its registers are read as a value: the value type,
// the order of its bytes when it is wider than one register, a scale and an
// offset (shown = raw x scale + offset) and a unit text. The tools
// (plcpoll, and gateways built on the same tags) share this record, its
// tag-line parser (tag_file.h) and its codec (codec.h).
#ifndef PLCTAGS_TAG_H
#define PLCTAGS_TAG_H

#include "plchost.h"

#include <optional>
#include <string>

namespace plctags {

// How a tag's registers are read. Raw is the view of the kind as the host's
// codec decodes it (bits, bytes, words, 32- and 64-bit values, unsigned).
// The numbers read one to four 16-bit registers each; Hex and Bits show
// each unit (register or byte) as digits; Ascii reads all the tag's bytes as
// one text.
enum class ValueType {
    Raw,
    Int16,
    Uint16,
    Int32,
    Uint32,
    Int64,
    Uint64,
    Float32,
    Float64,
    Hex,
    Bits,
    Ascii,
};

// Where the bytes of a value wider than one register are, A being the most
// significant byte: ABCD is big-endian words in big-endian order, as most
// PLCs send them; CDAB the same words least significant first (word swap);
// BADC each word's bytes swapped; DCBA both. For 64-bit values the letters
// stand for the words' order and the bytes' order in the same way (CDAB:
// GH EF CD AB).
enum class ByteOrder { ABCD, CDAB, BADC, DCBA };

struct Tag {
    plchost::Tag plc;
    ValueType type = ValueType::Raw;
    ByteOrder order = ByteOrder::ABCD;
    double scale = 1;
    double offset = 0;
    std::string unit;
};

// The names tag lines and options use ("float32", "CDAB"), and back.
const char *type_name(ValueType type);
std::optional<ValueType> type_from_name(const std::string &name);
const char *order_name(ByteOrder order);
std::optional<ByteOrder> order_from_name(const std::string &name);

// Every type and order name, for messages and completion: "raw int16 ...".
std::string type_names();
std::string order_names();

// 16-bit registers one value of a numeric type spans (1, 2 or 4); 0 for the
// types that are not numbers (Raw, Hex, Bits, Ascii).
int type_registers(ValueType type);

// The typed numbers: the types a scale and an offset apply to.
bool is_numeric(ValueType type);
// The types shown as numbers: the typed ones and the raw view (trends and
// deadbands apply to them; a set gives them as JSON numbers).
bool shows_numbers(ValueType type);
bool is_float(ValueType type);

// Whether a tag shows its numbers scaled (a scale other than 1 or an offset
// other than 0).
bool is_scaled(const Tag &tag);

} // namespace plctags

#endif // PLCTAGS_TAG_H
