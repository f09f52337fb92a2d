// Modbus TCP write requests (function codes 15 and 16) and the
// read-modify-write pair for a bit or a byte inside a register.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"

namespace {

// A write request: MBAP header, function code, starting address, quantity,
// byte count, then the data.
const int kWriteHeaderLen = 13;
// The reply to a write.
const int kWriteReplyLen = 12;
// Replies a read-modify-write pair completes after.
const int kPairReplies = 2;

int write_reply_len(const RW_VAR &var)
{
    return var.station != 0 ? kWriteReplyLen : 0; // no reply to a broadcast
}

// How a writable kind's data goes into the frame.
struct WriteShape {
    int function;
    quint32 scale; // registers per unit of start_addr and count
    int group;     // bytes of one value: their byte pairs are swapped, whole groups are sent
};

WriteShape write_shape(int kind)
{
    const int function = plckinds::write_function(kind);
    if (plckinds::write_method(kind) == plckinds::WriteMethod::Coils)
        return {function, 1, 1}; // coils: bytes go as they are
    // Registers travel high byte first.
    const int words = plckinds::words_per_value(kind);
    return {function, quint32(words), 2 * words};
}

// A kind that is not written whole: only the first 10 bytes are built, the
// function code and what follows stay as the previous request left them.
void queue_header_only(const RW_VAR &var)
{
    const quint32 address = quint32(var.start_addr) + quint32(plckinds::modbus_offset(var.reg_kind));
    const int frame_len = 10;
    write_mbap(var.station, frame_len - kMbapLengthCounted, address);
    queue_modbus_request(frame_len, write_reply_len(var), 0, 0, var);
}

} // namespace

void write_analog(RW_VAR *var)
{
    Communication_Protocol &d = PLC_driver;
    var->data.detach();
    const plckinds::WriteMethod method = plckinds::write_method(var->reg_kind);
    if (method != plckinds::WriteMethod::Coils && method != plckinds::WriteMethod::Registers) {
        queue_header_only(*var);
        return;
    }
    const WriteShape shape = write_shape(var->reg_kind);
    const QByteArray &data = var->data;
    const int n = data.size();
    unsigned char *b = d.frame_buf;

    // Whole groups; bytes past the end of the data count as zero. The frame
    // never grows past the scratch buffer.
    const int group = shape.group;
    const int max_payload = (int(sizeof d.frame_buf) - kWriteHeaderLen) / group * group;
    int payload = (n + group - 1) / group * group;
    if (payload > max_payload)
        payload = max_payload;
    for (int j = 0; j < payload; ++j)
        b[kWriteHeaderLen + j] = byte_at(data, group == 1 ? j : (j ^ 1));
    const int frame_len = kWriteHeaderLen + payload;
    const quint32 address = quint32(var->start_addr) * shape.scale + quint32(plckinds::modbus_offset(var->reg_kind));
    const quint32 quantity = quint32(var->count) * shape.scale;
    write_mbap(var->station, frame_len - kMbapLengthCounted, address);
    b[7] = uchar(shape.function);
    b[10] = uchar((quantity >> 8) & 0xFF);
    b[11] = uchar(quantity & 0xFF);
    b[12] = uchar(n & 0xFF);
    queue_modbus_request(frame_len, write_reply_len(*var), 0, 0, *var);
}

void write_register(RW_VAR *var)
{
    const int kind = var->reg_kind;
    if (plckinds::is_read_modify_write(kind)) {
        // Read the containing register first; its reply fills in the value of
        // the one-register write queued right behind it.
        const bool bit = plckinds::write_method(kind) == plckinds::WriteMethod::BitInRegister;
        RW_VAR pair = *var;
        pair.reg_kind = plckinds::read_kind(kind);
        pair.count = 1;
        pair.start_addr = var->start_addr >> (bit ? 4 : 1); // 16 bits or 2 bytes to a register
        pair.data = QByteArray(2, '\0');
        pair.rw_flag = 0;
        pair.ext_param1 = bit ? kRmwBitRead : kRmwByteRead;
        read_register(&pair);
        pair.rw_flag = 1;
        pair.ext_param1 = kRmwNone;
        write_analog(&pair);
        if (ComInfo *info = PLC_driver.com_info) {
            info->replies_expected = kPairReplies;
            info->replies_received = 0;
        }
        return;
    }
    write_analog(var);
    if (!comm_failed_get())
        write_data_to_local(var);
}
