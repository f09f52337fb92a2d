// Helpers shared by the driver's tests: a clean driver state per test and a
// communication-info record with usual settings.
#ifndef PLCDRIVER_TEST_SUPPORT_H
#define PLCDRIVER_TEST_SUPPORT_H

#include "Communication_Protocol.h"
#include "Driver_Internal.h"

#include <QByteArray>

#include <cstring>
#include <initializer_list>

// Puts the global driver back into its freshly constructed state and hands
// it the given record (SetComInfo applies its clamp and clears).
inline void reset_driver(ComInfo *info)
{
    Communication_Protocol &d = PLC_driver;
    d.read_list.clear();
    d.write_list.clear();
    d.once_read_list.clear();
    d.spare_list.clear();
    d.request_queue.clear();
    d.extend_list.clear();
    d.write_done_cb = nullptr;
    d.read_done_cb = nullptr;
    d.disabled_stations.clear();
    d.ret_var = RW_VAR();
    d.last_list = 100;
    d.write_burst = 0;
    d.once_burst = 0;
    d.cycle_count = 0;
    d.comm_failed = false;
    d.spare_flag = false;
    std::memset(d.frame_buf, 0, sizeof d.frame_buf);
    std::memset(d.transaction_ids, 0, sizeof d.transaction_ids);
    d.bit_mirror.clear();
    d.word_mirror.clear();
    d.com_info = nullptr;
    if (info)
        SetComInfo(info);
}

// A record as a runtime would fill it: 100 units per request, station 1,
// three retries, stations taken from the variables, Modbus TCP, writes to the PLC.
inline ComInfo make_com_info()
{
    ComInfo info;
    std::memset(&info, 0, sizeof info);
    info.max_read_units = 100;
    info.default_station = 1;
    info.retry_limit = 3;
    info.station_from_address = 1;
    info.link_mode = 0;
    info.local_link_id = 0;
    info.write_mode = 2;
    info.host_handle = 77;
    return info;
}

// A variable record with the fields the request builders, the cycle and the
// reply handling use.
inline RW_VAR make_var(int kind, int start, int count, int station, int source_type = 0, int source_id = 0,
                       int link_id = 0)
{
    RW_VAR v;
    v.source_type = source_type;
    v.source_id = source_id;
    v.reg_kind = kind;
    v.start_addr = start;
    v.count = count;
    v.station = station;
    v.link_id = link_id;
    return v;
}

// The same, carrying bytes to write.
inline RW_VAR make_var(int kind, int start, int count, int station, const QByteArray &data)
{
    RW_VAR v = make_var(kind, start, count, station);
    v.data = data;
    return v;
}

// A write record as SetRegisterData makes it.
inline RW_VAR make_write(int kind, int start, int count, int station, const QByteArray &data, int source_type = 0,
                         int source_id = 0, int link_id = 0)
{
    RW_VAR v = make_var(kind, start, count, station, source_type, source_id, link_id);
    v.rw_flag = 1;
    v.data = data;
    return v;
}

inline QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray a;
    for (int v : values)
        a.append(char(v & 0xFF));
    return a;
}

inline QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text));
}

// Word of the mirror, or -1 when the entry does not exist.
inline int word_entry(int station, int cls, qint32 addr)
{
    const quint64 key = mirror_key(station, cls, addr);
    return PLC_driver.word_mirror.contains(key) ? int(PLC_driver.word_mirror.value(key)) : -1;
}

// Bit of the mirror, or -1 when the entry does not exist.
inline int bit_entry(int station, int cls, qint32 addr)
{
    const quint64 key = mirror_key(station, cls, addr);
    return PLC_driver.bit_mirror.contains(key) ? int(PLC_driver.bit_mirror.value(key)) : -1;
}

// Puts a word into the mirror as reply storage would.
inline void put_word(int station, int cls, qint32 addr, ushort value)
{
    PLC_driver.word_mirror.insert(mirror_key(station, cls, addr), value);
}

#endif
