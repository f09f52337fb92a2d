// Modbus TCP write requests (function codes 15 and 16) and the
// read-modify-write pair for a bit or a byte inside a register.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"

void write_analog(RW_VAR *var)
{
    Communication_Protocol &d = PLC_driver;
    var->data.detach();
    const QByteArray &data = var->data;
    const int n = data.size();
    unsigned char *b = d.frame_buf;

    int function = 16;
    quint32 quantity = quint32(var->count);
    quint32 scale = 1;
    int group = 2; // registers travel high byte first: every byte pair is swapped
    switch (var->reg_kind) {
    case 1:
        function = 15;
        group = 1; // coils: bytes go as they are
        break;
    case 3:
    case 4: break;
    case 10:
    case 11:
        quantity *= 2;
        scale = 2;
        group = 4;
        break;
    case 13:
    case 14:
        quantity *= 4;
        scale = 4;
        group = 8;
        break;
    default: {
        // Not a writable kind: only the first 10 bytes, the function code and
        // what follows stay as the previous request left them.
        const quint32 address =
            quint32(var->start_addr) + quint32(Communication_Protocol::get_offset_add(var->reg_kind));
        write_mbap(var->station, 4, address);
        queue_modbus_request(10, var->station != 0 ? 12 : 0, 0, 0, *var);
        return;
    }
    }

    // Whole groups; bytes past the end of the data count as zero. The frame
    // never grows past the scratch buffer.
    const int max_payload = (int(sizeof d.frame_buf) - 13) / group * group;
    int payload = (n + group - 1) / group * group;
    if (payload > max_payload)
        payload = max_payload;
    for (int j = 0; j < payload; ++j) {
        const int src = group == 1 ? j : (j ^ 1);
        b[13 + j] = byte_at(data, src);
    }
    const int frame_len = 13 + payload;
    const quint32 address =
        quint32(var->start_addr) * scale + quint32(Communication_Protocol::get_offset_add(var->reg_kind));
    write_mbap(var->station, frame_len - 6, address);
    b[7] = uchar(function);
    b[10] = uchar((quantity >> 8) & 0xFF);
    b[11] = uchar(quantity & 0xFF);
    b[12] = uchar(n & 0xFF);
    queue_modbus_request(frame_len, var->station != 0 ? 12 : 0, 0, 0, *var);
}

void write_register(RW_VAR *var)
{
    const int kind = var->reg_kind;
    if (kind == 5 || kind == 7 || kind == 8) {
        // Read the containing register first; its reply fills in the value of
        // the one-register write queued right behind it.
        RW_VAR pair = *var;
        pair.reg_kind = Communication_Protocol::get_plc_reg(kind);
        pair.count = 1;
        pair.start_addr = kind == 5 ? (var->start_addr >> 4) : (var->start_addr >> 1);
        pair.data = QByteArray(2, '\0');
        pair.rw_flag = 0;
        pair.ext_param1 = kind == 5 ? -1 : -2;
        read_register(&pair);
        pair.rw_flag = 1;
        pair.ext_param1 = 0;
        write_analog(&pair);
        if (ComInfo *info = PLC_driver.com_info) {
            info->replies_expected = 2;
            info->replies_received = 0;
        }
        return;
    }
    write_analog(var);
    if (!comm_failed_get())
        write_data_to_local(var);
}
