// Modbus TCP read requests (function codes 1, 2, 3 and 4).
#include "Communication_Protocol.h"
#include "Driver_Internal.h"

namespace {
// A read request: MBAP header, function code, starting address, quantity.
const int kReadRequestLen = 12;
// Its reply: MBAP header, function code and byte count, then the data.
const int kReadReplyHeaderLen = 9;
} // namespace

void queue_modbus_request(int frame_len, int reply_len, int reply_header_len, int data_len, const RW_VAR &var)
{
    Communication_Protocol &d = PLC_driver;
    Protocol p;
    p.frame = QByteArray(reinterpret_cast<const char *>(d.frame_buf), frame_len);
    p.frame_len = frame_len;
    p.reply_len = reply_len;
    p.reply_header_len = reply_header_len;
    p.data_len = data_len;
    p.var = var;
    d.request_queue.append(p);
    if (ComInfo *info = d.com_info) {
        info->replies_received = 0;
        info->replies_expected = 1;
    }
    // The station indexes a 256-entry table: use its low byte.
    quint16 &tid = d.transaction_ids[var.station & 0xFF];
    tid = quint16(tid + 1);
}

void write_mbap(int station, int length_field, quint32 address)
{
    Communication_Protocol &d = PLC_driver;
    unsigned char *b = d.frame_buf;
    const quint16 tid = d.transaction_ids[station & 0xFF];
    b[0] = uchar(tid >> 8);
    b[1] = uchar(tid & 0xFF);
    b[2] = 0;
    b[3] = 0;
    b[4] = uchar((length_field >> 8) & 0xFF);
    b[5] = uchar(length_field & 0xFF);
    b[6] = uchar(station & 0xFF);
    b[8] = uchar((address >> 8) & 0xFF);
    b[9] = uchar(address & 0xFF);
}

quint32 read_data_len(int reg_kind, quint32 count)
{
    if (plckinds::is_bit_kind(reg_kind))
        return quint32(qint32(count + 7u) >> 3);
    if (plckinds::is_class_kind(reg_kind))
        return count * 2u;
    return 0;
}

void read_register(const RW_VAR *var)
{
    const int kind = var->reg_kind;
    // Other kinds are converted to their class's own kind before they get here.
    if (!plckinds::is_class_kind(kind))
        return;
    // Lengths wrap around in 32 bits rather than overflow for absurd counts.
    const quint32 data_len = read_data_len(kind, quint32(var->count));
    unsigned char *b = PLC_driver.frame_buf;
    write_mbap(var->station, kReadRequestLen - kMbapLengthCounted,
               quint32(var->start_addr) + quint32(plckinds::modbus_offset(kind)));
    b[7] = uchar(plckinds::read_function(kind));
    b[10] = uchar((quint32(var->count) >> 8) & 0xFF);
    b[11] = uchar(quint32(var->count) & 0xFF);
    queue_modbus_request(kReadRequestLen, int(quint32(kReadReplyHeaderLen) + data_len), kReadReplyHeaderLen,
                         int(data_len), *var);
}
