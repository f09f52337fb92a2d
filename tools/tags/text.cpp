#include "text.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace plctags {

bool is_hex_text(const std::string &text)
{
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

namespace {

const char *const kBlanks = " \t\r\n";

// The largest value `bits` wide, for widths under 64.
uint64_t width_mask(int bits)
{
    return (uint64_t(1) << bits) - 1;
}

std::optional<uint64_t> parse_unsigned(const std::string &text, int base, size_t from)
{
    errno = 0;
    char *end = nullptr;
    const uint64_t v = std::strtoull(text.c_str() + from, &end, base);
    if (errno != 0 || *end != '\0')
        return std::nullopt;
    return v;
}

// A negative decimal as the two's complement of the value's width.
std::optional<uint64_t> parse_negative(const std::string &text, int bits)
{
    const auto v = parse_integer(text, std::numeric_limits<long long>::min(), 0);
    if (!v || bits == 1 || (bits < 64 && *v < -(1LL << (bits - 1))))
        return std::nullopt;
    const uint64_t twos = uint64_t(*v);
    return bits < 64 ? twos & width_mask(bits) : twos;
}

} // namespace

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> fields(1);
    for (char c : text) {
        if (c == separator)
            fields.emplace_back();
        else
            fields.back() += c;
    }
    return fields;
}

std::string trim(const std::string &text)
{
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<long long> parse_integer(const std::string &text, long long min, long long max)
{
    if (text.empty())
        return std::nullopt;
    errno = 0;
    char *end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return std::nullopt;
    return v;
}

std::optional<double> parse_non_negative(const std::string &text, double max)
{
    const auto v = parse_real(text);
    // Written so that NaN fails the range test too.
    if (!v || !(*v >= 0) || *v > max)
        return std::nullopt;
    return v;
}

std::optional<double> parse_real(const std::string &text)
{
    if (text.empty() || text != trim(text) || text.find_first_of("xX") != std::string::npos)
        return std::nullopt;
    char *end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (*end != '\0')
        return std::nullopt;
    return v;
}

std::optional<uint64_t> parse_value(const std::string &text, int bits)
{
    if (text.empty())
        return std::nullopt;
    if (text[0] == '-')
        return parse_negative(text, bits);
    std::optional<uint64_t> v;
    if (is_hex_text(text))
        v = parse_unsigned(text, 16, 2);
    else if (std::isdigit(static_cast<unsigned char>(text[0])))
        v = parse_unsigned(text, 10, 0);
    if (v && bits < 64 && *v > width_mask(bits))
        return std::nullopt;
    return v;
}

} // namespace plctags
