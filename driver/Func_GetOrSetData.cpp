// The local register mirror and the runtime's reads and writes of values.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <algorithm>

quint32 mirror_key_upper(int station, int cls)
{
    return (quint32(station) << 24) | (quint32(cls) << 16);
}

quint64 mirror_key(int station, int cls, qint32 address)
{
    // The address is sign-extended: a negative one fills the upper word.
    return (quint64(mirror_key_upper(station, cls)) << 32) | quint64(qint64(address));
}

namespace {

// Element address arithmetic wraps in 32 bits, as the key's low word does.
qint32 scaled(qint32 a, quint32 factor)
{
    return qint32(quint32(a) * factor);
}

ushort word_of(const QByteArray &data, int low_index)
{
    return ushort(byte_at(data, low_index) | (byte_at(data, low_index + 1) << 8));
}

// Stores words of data (low byte first), words_per_element at a time, from
// the key of the first element's first word.
void store_words(quint64 key, const QByteArray &data, int words_per_element)
{
    QHash<quint64, ushort> &m = PLC_driver.word_mirror;
    const int element_bytes = 2 * words_per_element;
    for (int e = 0; e * element_bytes < data.size(); ++e)
        for (int j = 0; j < words_per_element; ++j)
            m.insert(key + quint64(e * words_per_element + j), word_of(data, e * element_bytes + 2 * j));
}

} // namespace

void write_data_to_local(const RW_VAR *var)
{
    Communication_Protocol &d = PLC_driver;
    const int kind = var->reg_kind;
    const int cls = Communication_Protocol::get_plc_reg(kind);
    const qint32 a = var->start_addr;
    const QByteArray &data = var->data;

    DriverLock lock(d.area_mutex);
    if (quint32(kind) > 14u)
        return;
    switch (kind) {
    case 0:
    case 1: {
        const quint64 key = mirror_key(var->station, cls, a);
        for (qint64 i = 0; i < var->count; ++i)
            d.bit_mirror.insert(key + quint64(i), uchar((byte_at(data, int(i >> 3)) >> (i & 7)) & 1));
        break;
    }
    case 2:
    case 3:
    case 4: store_words(mirror_key(var->station, cls, a), data, 1); break;
    case 5: {
        ushort &w = d.word_mirror[mirror_key(var->station, cls, a >> 4)];
        const ushort mask = ushort(1u << (a & 15));
        if (byte_at(data, 0) != 0)
            w = ushort(w | mask);
        else
            w = ushort(w & ~mask);
        break;
    }
    case 6:
    case 7:
    case 8: {
        ushort &w = d.word_mirror[mirror_key(var->station, cls, a >> 1)];
        const ushort b = byte_at(data, 0);
        w = (a & 1) ? ushort((w & 0x00FF) | (b << 8)) : ushort((w & 0xFF00) | b);
        break;
    }
    case 9:
    case 10:
    case 11: store_words(mirror_key(var->station, cls, scaled(a, 2)), data, 2); break;
    default: // 12, 13, 14
        store_words(mirror_key(var->station, cls, scaled(a, 4)), data, 4);
        break;
    }
}

namespace {

const qint64 kMaxHostBuffer = 64 * 1024 * 1024;

// Resizes out to size zero bytes; a negative or oversized size keeps the
// current length and only zero-fills.
void zero_out(QByteArray *out, qint64 size)
{
    if (size >= 0 && size <= kMaxHostBuffer)
        out->resize(int(size));
    out->fill('\0');
}

} // namespace

extern "C" int GetRegisterData(const void *unused, int reg_kind, const QString &address_text, int station,
                               QByteArray *out, int count)
{
    Q_UNUSED(unused);
    Communication_Protocol &d = PLC_driver;
    const int a = StringAddressToInt(reg_kind, address_text);
    if (a < 0) {
        if (out)
            zero_out(out, 2 * qint64(count));
        return 0;
    }
    if (d.com_info && d.com_info->station_from_address == 0)
        station = d.com_info->default_station;
    const int cls = Communication_Protocol::get_plc_reg(reg_kind);
    if (!out)
        return 1;

    // A negative count keeps out at its length, zero-filled, for every kind
    // (the rounded-up sizes of kinds 9 to 14 would otherwise turn small
    // negative counts into an empty buffer).
    qint64 size;
    if (count < 0)
        size = -1;
    else if (quint32(reg_kind) > 14u)
        size = 2 * qint64(count);
    else if (reg_kind <= 1 || reg_kind == 5)
        size = count;
    else if (reg_kind <= 8)
        size = 2 * qint64(count);
    else if (reg_kind <= 11)
        size = 4 * ((qint64(count) + 1) >> 1);
    else
        size = 8 * ((qint64(count) + 3) >> 2);
    const bool valid_size = size >= 0 && size <= kMaxHostBuffer;

    DriverLock lock(d.area_mutex);
    zero_out(out, size);
    if (quint32(reg_kind) > 14u || !valid_size)
        return 1;

    char *o = out->data();
    const QHash<quint64, uchar> &bits = d.bit_mirror;
    const QHash<quint64, ushort> &words = d.word_mirror;
    auto word = [&](quint64 key) { return words.value(key, 0); };

    switch (reg_kind) {
    case 0:
    case 1: {
        const quint64 key = mirror_key(station, cls, a);
        for (int i = 0; i < count; ++i)
            o[i] = bits.value(key + quint64(i), 0) != 0 ? 1 : 0;
        break;
    }
    case 2:
    case 3:
    case 4: {
        const quint64 key = mirror_key(station, cls, a);
        for (int i = 0; i < count; ++i) {
            const ushort w = word(key + quint64(i));
            o[2 * i] = char(w & 0xFF);
            o[2 * i + 1] = char(w >> 8);
        }
        break;
    }
    case 5:
        for (int i = 0; i < count; ++i) {
            const qint32 bit = qint32(quint32(a) + quint32(i));
            o[i] = char((word(mirror_key(station, cls, bit >> 4)) >> (bit & 15)) & 1);
        }
        break;
    case 6:
    case 7:
    case 8:
        for (int i = 0; i < count; ++i) {
            const qint32 byte = qint32(quint32(a) + quint32(i));
            const ushort w = word(mirror_key(station, cls, byte >> 1));
            o[i] = char((byte & 1) ? (w >> 8) : (w & 0xFF));
        }
        break;
    default: { // 9..14: double or quad words, each word looked up on its own
        const int per = reg_kind <= 11 ? 2 : 4;
        const qint64 elements = size / (2 * per);
        for (qint64 e = 0; e < elements; ++e) {
            const qint32 first = scaled(qint32(quint32(a) + quint32(e)), quint32(per));
            const quint64 key = mirror_key(station, cls, first);
            for (int j = 0; j < per; ++j) {
                const ushort w = word(key + quint64(j));
                o[(e * per + j) * 2] = char(w & 0xFF);
                o[(e * per + j) * 2 + 1] = char(w >> 8);
            }
        }
        break;
    }
    }
    return 1;
}

extern "C" int QueryFinishFlag()
{
    return 1;
}

namespace {

// Hands one chunk on: to the write list and/or straight into the mirror.
void hand_on(RW_VAR &rec, bool to_plc)
{
    if (to_plc) {
        AddListWriteVar(&rec);
        if (comm_failed_get())
            write_data_to_local(&rec);
    } else {
        write_data_to_local(&rec);
    }
}

// Byte of the input at a 64-bit cursor, 0 outside it.
uchar input_at(const QByteArray &in, qint64 pos)
{
    return (pos >= 0 && pos < in.size()) ? uchar(in.constData()[pos]) : uchar(0);
}

// Copies len bytes from the input at the cursor; missing bytes are zero.
QByteArray take_bytes(const QByteArray &in, qint64 cursor, int len)
{
    QByteArray out(len, '\0');
    for (int i = 0; i < len; ++i)
        out[i] = char(input_at(in, cursor + i));
    return out;
}

// Advances a start address by a number of elements; wraps in 32 bits
// instead of overflowing.
void advance(RW_VAR &rec, qint64 elements)
{
    rec.start_addr = qint32(quint32(rec.start_addr) + quint32(elements));
}

} // namespace

extern "C" int SetRegisterData(const QString &name_text, int reg_kind, const QString &address_text, int station,
                               QByteArray *data, int count, int source_type, int source_id)
{
    Communication_Protocol &d = PLC_driver;
    const int a = StringAddressToInt(reg_kind, address_text);
    const ComInfo *info = d.com_info;
    if (a < 0 || !info) // without the runtime's record there is no write to make
        return 0;
    const QByteArray in = data ? *data : QByteArray();
    // A max_read_units of 0 or below would never finish a chunk: taken as 1.
    const qint64 n = effective_max_units();
    const bool to_plc = info->write_mode == 2;

    RW_VAR rec;
    rec.source_type = source_type;
    rec.source_id = source_id;
    rec.rw_flag = 1;
    rec.link_mode = info->link_mode;
    rec.link_id = info->local_link_id;
    rec.status = 0;
    rec.name_text = name_text;
    rec.address_text = address_text;
    rec.reg_kind = reg_kind;
    rec.start_addr = a;
    rec.station = info->station_from_address == 0 ? info->default_station : station;
    rec.count = 1;
    rec.ext_param1 = 0;
    rec.ext_param2 = 0;

    // Counts and the input cursor are kept in 64 bits so that no count the
    // runtime can pass overflows them.
    qint64 cursor = 0;
    switch (reg_kind) {
    case 1: {
        qint64 left = count;
        while (left > 0) {
            const qint64 chunk = std::min(8 * n, left);
            const int bytes = int((chunk + 7) / 8);
            QByteArray packed(bytes, '\0');
            // The walk covers every bit still left; only the chunk's own
            // bytes are written, so later chunks carry zero bits.
            for (qint64 k = 0; k < left && (k >> 3) < bytes; ++k)
                if (input_at(in, cursor + k) != 0)
                    packed[int(k >> 3)] = char(uchar(packed[int(k >> 3)]) | (1u << (k & 7)));
            cursor = std::min<qint64>(cursor + left, in.size());
            rec.data = packed;
            rec.count = int(chunk);
            hand_on(rec, to_plc);
            advance(rec, chunk);
            left -= chunk;
        }
        break;
    }
    case 3:
    case 4:
    case 10:
    case 11:
    case 13:
    case 14: {
        const int words_per = (reg_kind <= 4) ? 1 : (reg_kind <= 11 ? 2 : 4);
        const qint64 cap = words_per == 1 ? n : std::min<qint64>(n, words_per == 2 ? 50 : 25);
        qint64 left = words_per == 1 ? count : (words_per == 2 ? (qint64(count) + 1) >> 1 : (qint64(count) + 3) >> 2);
        while (left > 0) {
            const qint64 chunk = std::min(cap, left);
            const int bytes = int(2 * words_per * chunk);
            rec.data = take_bytes(in, cursor, bytes);
            cursor += std::max<qint64>(0, std::min<qint64>(bytes, in.size() - cursor));
            rec.count = int(chunk);
            hand_on(rec, to_plc);
            advance(rec, chunk);
            left -= chunk;
        }
        break;
    }
    case 5:
        for (int i = 0; i < count; ++i) {
            rec.data = QByteArray(1, char(input_at(in, cursor) != 0 ? 1 : 0));
            rec.count = 1;
            hand_on(rec, to_plc);
            ++cursor;
            advance(rec, 1);
        }
        break;
    case 7:
    case 8:
        // One 16-bit element per byte in the input; its low byte is written.
        for (int i = 0; i < count; ++i) {
            rec.data = QByteArray(1, char(input_at(in, cursor)));
            rec.count = 1;
            hand_on(rec, to_plc);
            cursor += 2;
            advance(rec, 1);
        }
        break;
    default: // read-only or unknown kinds: nothing is written
        break;
    }

    DriverLock lock(d.list_mutex);
    return d.write_list.size();
}
