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
    using plckinds::Layout;
    Communication_Protocol &d = PLC_driver;
    const int kind = var->reg_kind;
    const int cls = Communication_Protocol::get_plc_reg(kind);
    const qint32 a = var->start_addr;
    const QByteArray &data = var->data;

    DriverLock lock(d.area_mutex);
    switch (plckinds::layout(kind)) {
    case Layout::Bits: {
        const quint64 key = mirror_key(var->station, cls, a);
        for (qint64 i = 0; i < var->count; ++i)
            d.bit_mirror.insert(key + quint64(i), uchar((byte_at(data, int(i >> 3)) >> (i & 7)) & 1));
        break;
    }
    case Layout::Words: store_words(mirror_key(var->station, cls, a), data, 1); break;
    case Layout::BitInWord: {
        ushort &w = d.word_mirror[mirror_key(var->station, cls, a >> 4)];
        const ushort mask = ushort(1u << (a & 15));
        if (byte_at(data, 0) != 0)
            w = ushort(w | mask);
        else
            w = ushort(w & ~mask);
        break;
    }
    case Layout::ByteInWord: {
        ushort &w = d.word_mirror[mirror_key(var->station, cls, a >> 1)];
        const ushort b = byte_at(data, 0);
        w = (a & 1) ? ushort((w & 0x00FF) | (b << 8)) : ushort((w & 0xFF00) | b);
        break;
    }
    case Layout::Values: {
        const int per = plckinds::words_per_value(kind);
        store_words(mirror_key(var->station, cls, scaled(a, quint32(per))), data, per);
        break;
    }
    case Layout::None: break;
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

namespace {

// Bytes of the runtime's buffer for count units of a kind, -1 for a negative
// count: a byte per bit; two per byte (packed at the start, the rest zero)
// and per register; whole values for the 32- and 64-bit kinds. Kinds outside
// the table get two per unit.
qint64 host_buffer_size(int kind, int count)
{
    if (count < 0)
        return -1;
    if (!plckinds::is_known_kind(kind))
        return 2 * qint64(count);
    switch (plckinds::kind_info(kind).count_unit) {
    case plckinds::Unit::Bit: return count;
    case plckinds::Unit::Byte: return 2 * qint64(count);
    default: break;
    }
    const int per = plckinds::words_per_value(kind);
    return 2 * per * ((qint64(count) + per - 1) / per);
}

ushort mirror_word(quint64 key)
{
    return PLC_driver.word_mirror.value(key, 0);
}

void put_word_le(char *o, qint64 index, ushort w)
{
    o[2 * index] = char(w & 0xFF);
    o[2 * index + 1] = char(w >> 8);
}

// The 32- and 64-bit values: each register is looked up on its own.
void read_values(char *o, int kind, int station, qint32 a, qint64 size)
{
    const int cls = plckinds::class_of(kind);
    const int per = plckinds::words_per_value(kind);
    const qint64 elements = size / (2 * per);
    for (qint64 e = 0; e < elements; ++e) {
        const qint32 first = scaled(qint32(quint32(a) + quint32(e)), quint32(per));
        const quint64 key = mirror_key(station, cls, first);
        for (int j = 0; j < per; ++j)
            put_word_le(o, e * per + j, mirror_word(key + quint64(j)));
    }
}

// Fills o (already zeroed, size bytes) with count units of a kind from the mirror.
void read_mirror(char *o, int kind, int station, qint32 a, int count, qint64 size)
{
    using plckinds::Layout;
    const int cls = plckinds::class_of(kind);
    switch (plckinds::layout(kind)) {
    case Layout::Bits: {
        const quint64 key = mirror_key(station, cls, a);
        for (int i = 0; i < count; ++i)
            o[i] = PLC_driver.bit_mirror.value(key + quint64(i), 0) != 0 ? 1 : 0;
        break;
    }
    case Layout::Words: {
        const quint64 key = mirror_key(station, cls, a);
        for (int i = 0; i < count; ++i)
            put_word_le(o, i, mirror_word(key + quint64(i)));
        break;
    }
    case Layout::BitInWord:
        for (int i = 0; i < count; ++i) {
            const qint32 bit = qint32(quint32(a) + quint32(i));
            o[i] = char((mirror_word(mirror_key(station, cls, bit >> 4)) >> (bit & 15)) & 1);
        }
        break;
    case Layout::ByteInWord:
        for (int i = 0; i < count; ++i) {
            const qint32 byte = qint32(quint32(a) + quint32(i));
            const ushort w = mirror_word(mirror_key(station, cls, byte >> 1));
            o[i] = char((byte & 1) ? (w >> 8) : (w & 0xFF));
        }
        break;
    case Layout::Values: read_values(o, kind, station, a, size); break;
    case Layout::None: break;
    }
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
    if (!out)
        return 1;

    // A negative count keeps out at its length, zero-filled, for every kind
    // (the rounded-up sizes of the 32- and 64-bit kinds would otherwise turn
    // small negative counts into an empty buffer).
    const qint64 size = host_buffer_size(reg_kind, count);
    const bool valid_size = size >= 0 && size <= kMaxHostBuffer;

    DriverLock lock(d.area_mutex);
    zero_out(out, size);
    if (valid_size && plckinds::is_known_kind(reg_kind))
        read_mirror(out->data(), reg_kind, station, a, count, size);
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

// write_mode that sends writes to the PLC; any other keeps them in the mirror.
const qint32 kWriteToPlc = 2;

// One write as the runtime asked for it: the record its chunks are made
// from, where they go, and the input they take their bytes from.
// Counts and the input cursor are kept in 64 bits so that no count the
// runtime can pass overflows them.
struct WriteJob {
    RW_VAR rec;
    bool to_plc;
    QByteArray in;
    qint64 max_units; // max_read_units, at least 1
};

// Coils, one input byte per bit, packed into chunks of 8 x max_read_units bits.
void write_coils(WriteJob &job, int count)
{
    RW_VAR &rec = job.rec;
    qint64 cursor = 0;
    qint64 left = count;
    while (left > 0) {
        const qint64 chunk = std::min(8 * job.max_units, left);
        const int bytes = int((chunk + 7) / 8);
        QByteArray packed(bytes, '\0');
        // The walk covers every bit still left; only the chunk's own
        // bytes are written, so later chunks carry zero bits.
        for (qint64 k = 0; k < left && (k >> 3) < bytes; ++k)
            if (input_at(job.in, cursor + k) != 0)
                packed[int(k >> 3)] = char(uchar(packed[int(k >> 3)]) | (1u << (k & 7)));
        cursor = std::min<qint64>(cursor + left, job.in.size());
        rec.data = packed;
        rec.count = int(chunk);
        hand_on(rec, job.to_plc);
        advance(rec, chunk);
        left -= chunk;
    }
}

// Whole registers and 32- or 64-bit values, in chunks of the kind's block
// limit (counted in values).
void write_registers(WriteJob &job, int count)
{
    RW_VAR &rec = job.rec;
    const int per = plckinds::words_per_value(rec.reg_kind);
    const qint64 cap = plckinds::block_limit(rec.reg_kind, int(job.max_units));
    qint64 left = (qint64(count) + per - 1) / per;
    qint64 cursor = 0;
    while (left > 0) {
        const qint64 chunk = std::min(cap, left);
        const int bytes = int(2 * per * chunk);
        rec.data = take_bytes(job.in, cursor, bytes);
        cursor += std::max<qint64>(0, std::min<qint64>(bytes, job.in.size() - cursor));
        rec.count = int(chunk);
        hand_on(rec, job.to_plc);
        advance(rec, chunk);
        left -= chunk;
    }
}

// A bit or a byte inside a register: one record per unit. A bit takes one
// input byte (zero or not); a byte takes the low byte of a 16-bit element.
void write_parts(WriteJob &job, int count, bool bits)
{
    RW_VAR &rec = job.rec;
    qint64 cursor = 0;
    for (int i = 0; i < count; ++i) {
        const uchar v = input_at(job.in, cursor);
        rec.data = QByteArray(1, char(bits ? (v != 0 ? 1 : 0) : v));
        rec.count = 1;
        hand_on(rec, job.to_plc);
        cursor += bits ? 1 : 2;
        advance(rec, 1);
    }
}

RW_VAR write_record(const ComInfo &info, const QString &name_text, const QString &address_text, int reg_kind, int start,
                    int station, int source_type, int source_id)
{
    RW_VAR rec;
    rec.source_type = source_type;
    rec.source_id = source_id;
    rec.rw_flag = 1;
    rec.link_mode = info.link_mode;
    rec.link_id = info.local_link_id;
    rec.status = 0;
    rec.name_text = name_text;
    rec.address_text = address_text;
    rec.reg_kind = reg_kind;
    rec.start_addr = start;
    rec.station = info.station_from_address == 0 ? info.default_station : station;
    rec.count = 1;
    rec.ext_param1 = kRmwNone;
    rec.ext_param2 = 0;
    return rec;
}

} // namespace

extern "C" int SetRegisterData(const QString &name_text, int reg_kind, const QString &address_text, int station,
                               QByteArray *data, int count, int source_type, int source_id)
{
    using plckinds::WriteMethod;
    Communication_Protocol &d = PLC_driver;
    const int a = StringAddressToInt(reg_kind, address_text);
    const ComInfo *info = d.com_info;
    if (a < 0 || !info) // without the runtime's record there is no write to make
        return 0;
    WriteJob job{write_record(*info, name_text, address_text, reg_kind, a, station, source_type, source_id),
                 info->write_mode == kWriteToPlc, data ? *data : QByteArray(),
                 // A max_read_units of 0 or below would never finish a chunk: taken as 1.
                 effective_max_units()};

    switch (plckinds::write_method(reg_kind)) {
    case WriteMethod::Coils: write_coils(job, count); break;
    case WriteMethod::Registers: write_registers(job, count); break;
    case WriteMethod::BitInRegister: write_parts(job, count, true); break;
    case WriteMethod::ByteInRegister: write_parts(job, count, false); break;
    case WriteMethod::None: break; // read-only or unknown kinds: nothing is written
    }

    DriverLock lock(d.list_mutex);
    return d.write_list.size();
}
