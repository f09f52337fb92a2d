// Fuzz target: GetRegisterData and SetRegisterData with any arguments.
//
// Input layout: max_read_units (i8: 0, negative and above 120 occur),
// settings byte (bit 0 write_mode 2 (else 1), bit 1 comm_failed, bit 2
// station_from_address), default station, then operations until the input
// ends (at most 64):
//   op byte (mod 3: 0 read, 1 write, 2 write then read back),
//   kind (i8: negative kinds and kinds above 14 occur), address text
//   (fuzz_common.h grammar), station (i16), count (i16 folded into
//   -5000..5000: the point is argument handling, not size, and a bound keeps
//   a single input from spending seconds in one call), buffer length byte
//   and bytes (the write data, or the read buffer's previous contents).
//
// Invariants:
//   GetRegisterData
//   - returns 0 exactly when StringAddressToInt rejects the text;
//   - out has the documented size: a negative count keeps out's length; an
//     invalid text or a kind outside 0..14 gives 2 x count; kinds 0, 1, 5
//     count; 2..4 and 6..8 2 x count; 9..11 4 x ((count + 1) >> 1);
//     12..14 8 x ((count + 3) >> 2);
//   - out is all zeros for an invalid text, a kind outside 0..14 or a
//     negative count; for kinds 6..8 its second half is zero; for kinds 0..4
//     its bytes are the mirror's values under the documented keys;
//   - the mirror tables keep their sizes (a read never inserts entries).
//   SetRegisterData
//   - returns 0 for an invalid address text and changes nothing; otherwise
//     returns write_list's size, which never exceeds 2048;
//   - write_list only grows when write_mode is 2; kinds without a write
//     (0, 2, 6, 9, 12, negative, above 14) change nothing;
//   - write then read back (mirror written: write_mode not 2, or comm_failed)
//     of kinds 1 (one chunk), 3, 4, 5, 7, 8, 10, 11, 13, 14, away from 32-bit
//     address wrap-around: the read returns the written value, zero-padded.
#include "fuzz_common.h"

#include <algorithm>

namespace {

ComInfo g_info;

// Size of out after a read with a valid address text.
qint64 documented_size(int kind, int count, int previous)
{
    if (count < 0)
        return previous;
    if (kind < 0 || kind > 14)
        return 2 * qint64(count);
    if (kind <= 1 || kind == 5)
        return count;
    if (kind <= 8)
        return 2 * qint64(count);
    if (kind <= 11)
        return 4 * ((qint64(count) + 1) >> 1);
    return 8 * ((qint64(count) + 3) >> 2);
}

int class_of(int kind)
{
    return Communication_Protocol::get_plc_reg(kind);
}

// Mirror key as documented: station's low byte in bits 63..56, class in
// 55..48, the address sign-extended into the low 48.. bits.
quint64 key_of(int station, int cls, qint32 address)
{
    const quint32 upper = (quint32(station) << 24) | (quint32(cls) << 16);
    return (quint64(upper) << 32) | quint64(qint64(address));
}

int resolved_station(int station)
{
    return g_info.station_from_address == 0 ? g_info.default_station : station;
}

void check_read(int kind, const QString &text, int station, int count, QByteArray &out)
{
    Communication_Protocol &d = PLC_driver;
    const int bits_before = d.bit_mirror.size();
    const int words_before = d.word_mirror.size();
    const int previous = out.size();
    const int a = StringAddressToInt(kind, text);

    const int r = GetRegisterData(nullptr, kind, text, station, &out, count);

    FUZZ_CHECK(r == (a < 0 ? 0 : 1));
    FUZZ_CHECK(d.bit_mirror.size() == bits_before);
    FUZZ_CHECK(d.word_mirror.size() == words_before);
    const qint64 expected = a < 0 ? (count < 0 ? previous : 2 * qint64(count)) : documented_size(kind, count, previous);
    FUZZ_CHECK(out.size() == expected);
    const bool all_zero = a < 0 || kind < 0 || kind > 14 || count < 0;
    if (all_zero) {
        FUZZ_CHECK(out.count('\0') == out.size());
        return;
    }
    if (kind >= 6 && kind <= 8)
        for (int i = count; i < out.size(); ++i)
            FUZZ_CHECK(out.at(i) == 0);
    const int st = resolved_station(station);
    if (kind <= 1) {
        for (int i = 0; i < count; ++i) {
            const quint64 key = key_of(st, class_of(kind), a) + quint64(i);
            FUZZ_CHECK(out.at(i) == (d.bit_mirror.value(key, 0) != 0 ? 1 : 0));
        }
    } else if (kind <= 4) {
        for (int i = 0; i < count; ++i) {
            const ushort w = d.word_mirror.value(key_of(st, class_of(kind), a) + quint64(i), 0);
            FUZZ_CHECK(uchar(out.at(2 * i)) == (w & 0xFF));
            FUZZ_CHECK(uchar(out.at(2 * i + 1)) == (w >> 8));
        }
    }
}

// The value a write of count units leaves readable, as the read of the same
// kind and count returns it (see the table in check_round_trip).
QByteArray expected_read_back(int kind, const QByteArray &input, int count, qint64 read_size)
{
    auto in_at = [&input](qint64 i) { return i < input.size() ? input.at(int(i)) : '\0'; };
    QByteArray exp(int(read_size), '\0');
    switch (kind) {
    case 1:
    case 5: // one byte per bit: 1 when the input byte is non-zero
        for (int i = 0; i < count; ++i)
            exp[i] = in_at(i) != 0 ? 1 : 0;
        break;
    case 7:
    case 8: // the low byte of each 16-bit input element, packed one per address
        for (int i = 0; i < count; ++i)
            exp[i] = in_at(2 * qint64(i));
        break;
    default: // words, double and quad words: the input bytes as they are
        for (qint64 i = 0; i < read_size; ++i)
            exp[int(i)] = in_at(i);
        break;
    }
    return exp;
}

void check_round_trip(int kind, const QString &text, int station, int count, const QByteArray &input)
{
    const int a = StringAddressToInt(kind, text);
    SetRegisterData(QStringLiteral("rt"), kind, text, station, const_cast<QByteArray *>(&input), count, 3, 4);
    const bool mirrored = g_info.write_mode != 2 || comm_failed_get();
    const int n = std::max(1, g_info.max_read_units);
    bool eligible = mirrored && a >= 0 && count > 0;
    switch (kind) {
    case 1: eligible = eligible && count <= 8 * n; break; // later bit chunks carry zero bits
    case 3:
    case 4:
    case 5:
    case 7:
    case 8: break;
    case 10:
    case 11: eligible = eligible && qint64(a) * 2 + count + 8 < INT32_MAX; break;
    case 13:
    case 14: eligible = eligible && qint64(a) * 4 + count + 8 < INT32_MAX; break;
    default: eligible = false; break;
    }
    eligible = eligible && qint64(a) + count + 8 < INT32_MAX;
    QByteArray out;
    check_read(kind, text, station, count, out);
    if (!eligible)
        return;
    const QByteArray exp = expected_read_back(kind, input, count, out.size());
    FUZZ_CHECK(out == exp);
}

void check_write(int kind, const QString &text, int station, int count, QByteArray &input)
{
    Communication_Protocol &d = PLC_driver;
    const int list_before = d.write_list.size();
    const int bits_before = d.bit_mirror.size();
    const int words_before = d.word_mirror.size();
    const QByteArray input_before = input;
    const int a = StringAddressToInt(kind, text);

    const int r = SetRegisterData(QStringLiteral("w"), kind, text, station, &input, count, 5, 6);

    FUZZ_CHECK(input == input_before);
    FUZZ_CHECK(d.write_list.size() <= 2048);
    const bool writes = kind == 1 || kind == 3 || kind == 4 || kind == 5 || kind == 7 || kind == 8 || kind == 10 ||
                        kind == 11 || kind == 13 || kind == 14;
    if (a < 0 || !writes) {
        FUZZ_CHECK(r == (a < 0 ? 0 : d.write_list.size()));
        FUZZ_CHECK(d.write_list.size() == list_before);
        FUZZ_CHECK(d.bit_mirror.size() == bits_before);
        FUZZ_CHECK(d.word_mirror.size() == words_before);
        return;
    }
    FUZZ_CHECK(r == d.write_list.size());
    if (g_info.write_mode != 2)
        FUZZ_CHECK(d.write_list.size() == list_before);
    if (count <= 0) {
        FUZZ_CHECK(d.write_list.size() == list_before);
        FUZZ_CHECK(d.bit_mirror.size() == bits_before);
        FUZZ_CHECK(d.word_mirror.size() == words_before);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    g_info = make_com_info();
    g_info.max_read_units = in.i8();
    const uint8_t settings = in.u8();
    g_info.write_mode = (settings & 1) ? 2 : 1;
    g_info.station_from_address = (settings >> 2) & 1;
    g_info.default_station = in.u8();
    reset_driver(&g_info);
    comm_failed_set((settings >> 1) & 1);

    for (int op = 0; op < 64 && !in.empty(); ++op) {
        const int which = in.u8() % 3;
        const int kind = in.i8();
        const QString text = fuzz_address_text(in);
        const int station = in.i16();
        const int count = in.i16() % 5001;
        QByteArray buffer = in.bytes(in.u8());
        switch (which) {
        case 0: check_read(kind, text, station, count, buffer); break;
        case 1: check_write(kind, text, station, count, buffer); break;
        default: check_round_trip(kind, text, station, count, buffer); break;
        }
    }
    return 0;
}
