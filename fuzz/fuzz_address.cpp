// Fuzz target: StringAddressToInt (and PLCAddressChangeIntef) on any kind
// and any text.
//
// Input layout: kind (i8, so negative kinds and kinds above 14 occur),
// encoding byte (0 Latin-1, 1 UTF-8, 2 UTF-16 little-endian), then the text.
//
// Invariants:
//   - PLCAddressChangeIntef gives the same result as StringAddressToInt;
//   - word kinds (every kind but 0, 1 and 5): the result equals
//     QString::toInt(base 10) of the whole text, or -1 when that fails;
//   - bit kinds 0, 1, 5: -1 unless the text splits at "." into exactly two
//     parts that both parse as decimal integers; then first * 8 + second
//     (32-bit wrap-around);
//   - independently of Qt's parser: a text of 1 to 9 ASCII digits gives its
//     value for a word kind, and "digits.digits" (1 to 8 and 1 to 9 digits)
//     gives first * 8 + second for a bit kind.
#include "fuzz_common.h"

#include <QStringList>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

// Value of a text of ASCII digits only, or -1 when it is not one (or too long).
int64_t ascii_digits(const QString &s, int max_digits)
{
    if (s.isEmpty() || s.size() > max_digits)
        return -1;
    int64_t v = 0;
    for (QChar c : s) {
        if (c.unicode() < '0' || c.unicode() > '9')
            return -1;
        v = v * 10 + (c.unicode() - '0');
    }
    return v;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    const int kind = in.i8();
    const uint8_t encoding = in.u8() % 3;
    const QByteArray raw = in.bytes(in.remaining());
    QString text;
    if (encoding == 0)
        text = QString::fromLatin1(raw);
    else if (encoding == 1)
        text = QString::fromUtf8(raw);
    else {
        std::vector<char16_t> units(size_t(raw.size() / 2));
        if (!units.empty())
            std::memcpy(units.data(), raw.constData(), units.size() * sizeof(char16_t));
        text = QString::fromUtf16(units.data(), int(units.size()));
    }

    const int result = StringAddressToInt(kind, text);
    FUZZ_CHECK(PLCAddressChangeIntef(kind, text) == result);

    const bool bit_kind = kind == 0 || kind == 1 || kind == 5;
    if (!bit_kind) {
        bool ok = false;
        const int value = text.toInt(&ok, 10);
        FUZZ_CHECK(result == (ok ? value : -1));
        const int64_t digits = ascii_digits(text, 9);
        if (digits >= 0)
            FUZZ_CHECK(result == digits);
    } else {
        const QStringList parts = text.split(QLatin1Char('.'));
        int expected = -1;
        if (parts.size() == 2) {
            bool ok_first = false, ok_second = false;
            const int first = parts.at(0).toInt(&ok_first, 10);
            const int second = parts.at(1).toInt(&ok_second, 10);
            // An address past 32 bits is no address rather than a wrapped one.
            const int64_t address = int64_t(first) * 8 + second;
            if (ok_first && ok_second && address >= INT32_MIN && address <= INT32_MAX)
                expected = int32_t(address);
            const int64_t a = ascii_digits(parts.at(0), 8);
            const int64_t b = ascii_digits(parts.at(1), 9);
            if (a >= 0 && b >= 0)
                FUZZ_CHECK(int64_t(result) == a * 8 + b);
        }
        FUZZ_CHECK(result == expected);
    }
    return 0;
}
