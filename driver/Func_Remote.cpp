// The driver's own remote frame: a 21-byte header, optional write data and a
// one-byte sum check.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"

namespace {

// A request: a 21-byte header, the data of a write, a check byte.
const int kHeaderLen = 21;
// A reply to a read: a 3-byte header, the data, 2 trailing bytes.
const int kReadReplyHeaderLen = 3;
const int kReadReplyTrailerLen = 2;
// The reply to a write.
const int kWriteReplyLen = 8;

void put_be16(QByteArray &f, int at, quint32 v)
{
    f[at] = char((v >> 8) & 0xFF);
    f[at + 1] = char(v & 0xFF);
}

void put_be32(QByteArray &f, int at, quint32 v)
{
    f[at] = char((v >> 24) & 0xFF);
    f[at + 1] = char((v >> 16) & 0xFF);
    f[at + 2] = char((v >> 8) & 0xFF);
    f[at + 3] = char(v & 0xFF);
}

// Bytes 0..20 of a remote request; byte 0 is left as the placeholder 0.
QByteArray remote_header(const RW_VAR &v)
{
    QByteArray f(kHeaderLen, '\0');
    f[1] = char(v.source_type & 0xFF);
    f[2] = char(v.rw_flag & 0xFF);
    f[3] = char(v.link_id & 0xFF);
    f[4] = char(v.station & 0xFF);
    put_be16(f, 5, quint32(v.reg_kind));
    put_be32(f, 7, quint32(v.start_addr));
    put_be16(f, 11, quint32(v.count));
    put_be32(f, 13, quint32(v.ext_param1));
    put_be32(f, 17, quint32(v.ext_param2));
    return f;
}

// Low byte of the sum over the first n bytes of the frame.
char sum_byte(QByteArray &f, int n)
{
    return char(CalSUM(reinterpret_cast<unsigned char *>(f.data()), quint16(n)) & 0xFF);
}

void queue_request(const QByteArray &frame, int reply_len, int header_len, int data_len, const RW_VAR &v)
{
    Protocol p;
    p.frame = frame;
    p.frame_len = frame.size();
    p.reply_len = reply_len;
    p.reply_header_len = header_len;
    p.data_len = data_len;
    p.var = v;
    PLC_driver.request_queue.append(p);
    if (ComInfo *info = PLC_driver.com_info) {
        info->replies_received = 0;
        info->replies_expected = 1;
    }
}

} // namespace

void Remote_ReadVar(RW_VAR *var)
{
    QByteArray f = remote_header(*var);
    f[0] = char(kHeaderLen + 1); // the frame's length
    f.append(sum_byte(f, kHeaderLen));

    // Lengths are computed with 32-bit wrap-around: an absurd count gives a
    // defined (if useless) length instead of an overflow.
    const quint32 data_len = read_data_len(var->reg_kind, quint32(var->count));
    const quint32 reply_len = quint32(kReadReplyHeaderLen + kReadReplyTrailerLen) + data_len;
    queue_request(f, int(reply_len), kReadReplyHeaderLen, int(data_len), *var);
}

void Remote_WriteVar(RW_VAR *var)
{
    QByteArray f = remote_header(*var);
    f.append(var->data);
    const int n = f.size();
    f[0] = char((n + 1) & 0xFF); // the frame's length; wraps for frames over 255 bytes
    f.append(sum_byte(f, n));
    queue_request(f, var->station != 0 ? kWriteReplyLen : 0, 0, 0, *var); // no reply to a broadcast
    write_data_to_local(var);
}
