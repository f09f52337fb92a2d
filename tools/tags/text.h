// The small readers that options, tag lines and typed values share: splitting
// and trimming CSV fields, and numbers in the notations the tools accept.
#ifndef PLCTAGS_TEXT_H
#define PLCTAGS_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plctags {

// The fields between separators; "a,,b" has three, "" has one.
std::vector<std::string> split(const std::string &text, char separator);

// The text without leading and trailing blanks, tabs and line ends.
std::string trim(const std::string &text);

// A decimal integer from min to max, with nothing after it.
std::optional<long long> parse_integer(const std::string &text, long long min, long long max);

// A decimal number from 0 to max, with nothing after it.
std::optional<double> parse_non_negative(const std::string &text, double max);

// A decimal real number (strtod's notation without hexadecimal; also nan,
// inf, infinity) with nothing around it.
std::optional<double> parse_real(const std::string &text);

// A value `bits` wide (1 to 64): decimal, negative decimal (stored as the
// two's complement of that width; not for single bits) or hexadecimal with 0x.
std::optional<uint64_t> parse_value(const std::string &text, int bits);

// "0x" or "0X" and at least one more character: a hexadecimal text.
bool is_hex_text(const std::string &text);

} // namespace plctags

#endif // PLCTAGS_TEXT_H
