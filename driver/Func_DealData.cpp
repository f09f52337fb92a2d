// Storing the data of a checked read reply into the mirror, and completing
// the read-modify-write of a bit or a byte inside a register.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

namespace {

// Beyond this many units, a run of values that read as zero is stored by
// zeroing the entries the mirror already holds instead of inserting one
// entry per unit.
const quint64 kZeroRunInsertLimit = 65536;

// Stores the value 0 for the n consecutive keys from first (64-bit wrap).
// Only a reply that claims more data than arrived gets here; its length
// argument may claim up to 2^31 bytes, so for a long run the entries already
// in the mirror are zeroed and the absent ones stay absent: every reader
// takes an absent entry as 0, so the values read are the same either way.
template <typename Hash> void store_zero_run(Hash &mirror, quint64 first, quint64 n)
{
    if (n <= kZeroRunInsertLimit || n <= quint64(mirror.size())) {
        for (quint64 i = 0; i < n; ++i)
            mirror.insert(first + i, 0);
        return;
    }
    for (auto it = mirror.begin(); it != mirror.end(); ++it)
        if (it.key() - first < n)
            it.value() = 0;
}

} // namespace

void save_to_local_data_erea(QByteArray *reply)
{
    Communication_Protocol &d = PLC_driver;
    if (!reply || d.request_queue.isEmpty())
        return;
    const Protocol &head = d.request_queue.first();
    const RW_VAR &v = head.var;
    if (v.ext_param1 == kRmwBitRead) {
        SpecialRegisterSave(reply);
        return;
    }
    if (v.ext_param1 == kRmwByteRead) {
        SpecialRegisterSaveByte(reply);
        return;
    }

    reply->detach();
    const QByteArray &r = *reply;
    const int cls = Communication_Protocol::get_plc_reg(v.reg_kind);
    quint64 key = mirror_key(v.station, cls, v.start_addr);
    const int data_at = head.reply_header_len;

    // Bytes past the reply read as zero. The stores walk only the bytes that
    // arrived; the units past them are stored as one run of zeros.
    if (plckinds::is_bit_kind(v.reg_kind)) {
        const int whole = v.count >> 3;
        const int rest = v.count & 7;
        int pos = data_at;
        int i = 0;
        for (; i < whole && pos < r.size(); ++i, ++pos) {
            const uchar byte = byte_at(r, pos);
            for (int b = 0; b < 8; ++b)
                d.bit_mirror.insert(key++, uchar((byte >> b) & 1));
        }
        quint64 missing = i < whole ? quint64(whole - i) * 8u : 0u;
        if (rest != 0) {
            if (missing == 0 && pos < r.size()) {
                const uchar byte = byte_at(r, pos);
                for (int b = 0; b < rest; ++b)
                    d.bit_mirror.insert(key++, uchar((byte >> b) & 1));
            } else {
                missing += quint64(rest);
            }
        }
        store_zero_run(d.bit_mirror, key, missing);
    } else if (plckinds::is_class_kind(v.reg_kind)) {
        // Registers arrive big-endian.
        const qint64 end = qint64(data_at) + head.data_len;
        qint64 pos = data_at;
        for (; pos < end && pos < r.size(); pos += 2)
            d.word_mirror.insert(key++, ushort((byte_at(r, int(pos)) << 8) | byte_at(r, int(pos) + 1)));
        if (pos < end)
            store_zero_run(d.word_mirror, key, quint64((end - pos + 1) / 2));
    }
}

namespace {

// The head of the write list, copied under the list lock; false when empty.
bool write_head(RW_VAR &out)
{
    DriverLock lock(PLC_driver.list_mutex);
    if (PLC_driver.write_list.isEmpty())
        return false;
    out = PLC_driver.write_list.first();
    return true;
}

// Writes a register value, high byte first, into the waiting write frame at
// bytes 10/11 (function 6) or 13/14 (any other function).
void patch_write_frame(uchar high, uchar low)
{
    Protocol &write = PLC_driver.request_queue[1];
    QByteArray &f = write.frame;
    const int at = byte_at(f, 7) == 6 ? 10 : 13;
    // Grow a short frame just enough; QByteArray::resize leaves new bytes
    // uninitialised, so the gap is filled with zeros explicitly.
    if (f.size() < at + 2)
        f.append(QByteArray(at + 2 - f.size(), '\0'));
    f[at] = char(high);
    f[at + 1] = char(low);
}

bool guards_pass(const QByteArray *reply, RW_VAR &head)
{
    if (!reply || reply->size() < 11)
        return false;
    if (PLC_driver.request_queue.size() < 2)
        return false;
    return write_head(head);
}

} // namespace

void SpecialRegisterSave(QByteArray *reply)
{
    RW_VAR head;
    if (!guards_pass(reply, head))
        return;
    quint32 value = (byte_at(*reply, 9) << 8) | byte_at(*reply, 10);
    const int n = head.start_addr % 16; // sign of the dividend
    // A negative remainder is a shift of 32 or more in its low 8 bits: no bit.
    const quint32 shift = quint32(n) & 0xFFu;
    const quint16 mask = shift < 16 ? quint16(1u << shift) : quint16(0);
    if (byte_at(head.data, 0) != 0)
        value |= mask;
    else
        value &= ~quint32(mask);
    patch_write_frame(uchar((value >> 8) & 0xFF), uchar(value & 0xFF));
}

void SpecialRegisterSaveByte(QByteArray *reply)
{
    RW_VAR head;
    if (!guards_pass(reply, head))
        return;
    const uchar h = byte_at(*reply, 9);
    const uchar l = byte_at(*reply, 10);
    const uchar b = byte_at(head.data, 0);
    if (head.start_addr & 1)
        patch_write_frame(b, l);
    else
        patch_write_frame(h, b);
}
