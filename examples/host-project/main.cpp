// A minimal host of the installed plcdriver library: sets the driver up for
// Modbus TCP, registers one cyclic read (two holding registers of station 1
// from address 100) and prints the request frame the driver wants sent.
// No network is used: a real runtime would send the frame on its socket and
// hand the reply to DataCom().
#include <plcdriver/Communication_Protocol.h>

#include <cstdio>

int main()
{
    static ComInfo info = {};
    info.max_read_units = 100;
    info.default_station = 1;
    info.retry_limit = 3;
    info.station_from_address = 1;
    info.link_mode = 0; // Modbus TCP
    info.local_link_id = 0;
    info.write_mode = 2;
    info.host_handle = 1;
    SetComInfo(&info);

    QList<HostReadVar> reads;
    HostReadVar var;
    var.reg_kind = REG_KIND_HOLDING_REGISTER;
    var.station = 1;
    var.address_text = QStringLiteral("100");
    var.name_text = QStringLiteral("tank_level");
    var.count = 2;
    reads.append(var);
    const int entries = ReCreatReadVarList(&reads);
    std::printf("read list entries: %d\n", entries);

    const Protocol *request = ComCommunication();
    if (request == nullptr) {
        std::printf("no request\n");
        return 1;
    }
    std::printf("frame (%d bytes): %s\n", request->frame_len, request->frame.toHex(' ').toUpper().constData());
    std::printf("expected reply length: %d\n", request->reply_len);
    return 0;
}
