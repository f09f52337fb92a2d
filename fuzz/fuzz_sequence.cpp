// Fuzz target: a series of exported calls, as a runtime might make them in
// any order, with the driver's state checked after every step.
//
// Input layout: settings of the first record (max_read_units i8, retry_limit
// i8, bit 0 of the next byte link_mode, bit 1 station_from_address, bit 2
// write_mode 2 (else 1), default station), then steps until the input ends
// (at most 128), each an op byte (mod 12) and its arguments:
//    0 ReCreatReadVarList    descriptor count (mod 5), per descriptor kind
//                            (mod 16), station (mod 4), address, count
//    1 AddListReadVar        a ready-made record (raw kind, start, count,
//                            status, link id)
//    2 AddListOnceReadVar    flag 0: a record prepared by the driver
//    3 AddListOnceReadVar    flag 1: a record taken as it is
//    4 SetRegisterData       kind (mod 16), address, station (mod 4), data,
//                            count, requester
//    5 GetRegisterData       kind, address, station, count
//    6 ComCommunication
//    7 DataCom               a valid reply to the request in flight or raw
//                            bytes, with a length that may lie
//    8 EnCommStation         station (mod 4, or -1) and enable (mod 3)
//    9 EnableEthernet        the same
//   10 SetComInfo            a second record with new settings (link_mode,
//                            local_link_id, max_read_units, stations,
//                            retry_limit, write_mode); the counters the driver
//                            keeps in the record (retry_count, replies,
//                            cycle_done) are carried over, as a runtime that
//                            hands over a new record would do
//   11 AddListWriteVar       a ready-made write record
// Stations are taken from a set of four so that writes, reads, disabled
// stations and purges meet. Counts are 12-bit signed (-2048..2047): the
// sequence is about the order of calls, and bounded counts keep every step
// short.
//
// Invariants after every step:
//   - write_list never holds more than 2048 entries; once_read_list neither,
//     unless AddListOnceReadVar with flag 1 (no cap) was used;
//   - the queue holds at most 2 requests, 2 only for the read-modify-write
//     pair of a write;
//   - while the queue is not empty, its head is consistent with the list the
//     request came from (last_list):
//       1 (write list): write_list is not empty and its head has the queued
//         variable's source_type, source_id and station (a bit or byte write
//         queues a read and a write of the containing register, so kind,
//         address and count differ);
//       2 (one-shot list): once_read_list is not empty and its head equals
//         the queued variable (the builders take the entry as it is);
//       0 (cyclic list): read_list's head has status -1 and equals the queued
//         variable apart from status -- unless ReCreatReadVarList replaced
//         the whole list after the request was built, the one legitimate
//         removal of an entry in flight (a write or one-shot entry leaves its
//         list only when DataCom retires its request or gives it up, and a
//         give-up empties the queue);
//   - ComCommunication returns the queued head again (same address) while one
//     is queued, else the new head or null;
//   - DataCom returns &ret_var with a driver return code (fuzz_common.h),
//     an error code carrying the failed request's source_type;
//   - callbacks report only results 1 and 2, with the current host handle.
#include "fuzz_common.h"

#include <QList>

namespace {

ComInfo g_records[2];
int g_current = 0;
bool g_once_uncapped = false;     // AddListOnceReadVar with flag 1 was used
bool g_read_list_rebuilt = false; // ReCreatReadVarList ran while a request was queued

ComInfo &info()
{
    return g_records[g_current];
}

int small_count(FuzzInput &in)
{
    return int16_t(in.u16() << 4) >> 4;
}

int station_of(FuzzInput &in)
{
    return in.u8() % 4;
}

RW_VAR raw_record(FuzzInput &in)
{
    RW_VAR v;
    v.source_type = in.i8() % 13;
    v.source_id = in.u8() % 4;
    v.link_mode = info().link_mode;
    v.link_id = (in.u8() & 1) ? info().local_link_id : info().local_link_id + 1;
    v.status = in.i8() % 2; // -1, 0 or 1
    v.reg_kind = in.u8() % 16;
    v.start_addr = in.i16();
    v.count = small_count(in);
    v.station = station_of(in);
    v.ext_param1 = int(in.u8() % 4) - 2; // -2..1
    v.ext_param2 = in.i8();
    v.address_text = fuzz_address_for_kind(in, v.reg_kind);
    v.data = in.bytes(in.u8() % 32);
    return v;
}

bool same_request_fields(const RW_VAR &a, const RW_VAR &b)
{
    return a.source_type == b.source_type && a.source_id == b.source_id && a.rw_flag == b.rw_flag &&
           a.link_mode == b.link_mode && a.link_id == b.link_id && a.reg_kind == b.reg_kind &&
           a.start_addr == b.start_addr && a.station == b.station && a.count == b.count &&
           a.ext_param1 == b.ext_param1 && a.ext_param2 == b.ext_param2 && a.address_text == b.address_text;
}

void check_state()
{
    Communication_Protocol &d = PLC_driver;
    FUZZ_CHECK(d.write_list.size() <= 2048);
    if (!g_once_uncapped)
        FUZZ_CHECK(d.once_read_list.size() <= 2048);
    FUZZ_CHECK(d.request_queue.size() <= 2);
    if (d.request_queue.isEmpty())
        return;
    if (d.request_queue.size() == 2)
        FUZZ_CHECK(d.last_list == 1);
    const RW_VAR &q = d.request_queue.first().var;
    switch (d.last_list) {
    case 1: {
        FUZZ_CHECK(!d.write_list.isEmpty());
        const RW_VAR &w = d.write_list.first();
        FUZZ_CHECK(w.source_type == q.source_type && w.source_id == q.source_id && w.station == q.station);
        break;
    }
    case 2:
        FUZZ_CHECK(!d.once_read_list.isEmpty());
        FUZZ_CHECK(same_request_fields(d.once_read_list.first(), q));
        break;
    case 0:
        if (!g_read_list_rebuilt) {
            FUZZ_CHECK(!d.read_list.isEmpty());
            FUZZ_CHECK(d.read_list.first().status == -1);
            FUZZ_CHECK(same_request_fields(d.read_list.first(), q));
        }
        break;
    default: FUZZ_CHECK(false && "a request is queued but last_list names no list");
    }
}

void step_recreate(FuzzInput &in)
{
    QList<HostReadVar> descriptors;
    const int n = in.u8() % 5;
    for (int i = 0; i < n; ++i) {
        HostReadVar h;
        h.reg_kind = in.u8() % 16;
        h.station = quint8(station_of(in));
        h.address_text = fuzz_address_for_kind(in, h.reg_kind);
        h.count = small_count(in);
        descriptors.append(h);
    }
    if (!PLC_driver.request_queue.isEmpty())
        g_read_list_rebuilt = true;
    FUZZ_CHECK(ReCreatReadVarList(&descriptors) == PLC_driver.read_list.size());
}

void step_once(FuzzInput &in, int flag)
{
    RW_VAR v = raw_record(in);
    if (flag == 1)
        g_once_uncapped = true;
    const int r = AddListOnceReadVar(&v, flag);
    FUZZ_CHECK(r == 0 || r == PLC_driver.once_read_list.size());
}

void step_set(FuzzInput &in)
{
    const int kind = in.u8() % 16;
    const QString text = fuzz_address_for_kind(in, kind);
    const int station = station_of(in);
    QByteArray data = in.bytes(in.u8() % 64);
    const int count = small_count(in);
    const int source_type = in.i8() % 13;
    const int source_id = in.u8() % 4;
    const int r = SetRegisterData(QStringLiteral("s"), kind, text, station, &data, count, source_type, source_id);
    FUZZ_CHECK(r >= 0 && r <= 2048);
}

void step_get(FuzzInput &in)
{
    const int kind = in.i8() % 16;
    const QString text = fuzz_address_for_kind(in, kind);
    const int station = station_of(in);
    const int count = small_count(in);
    QByteArray out;
    const int bits = PLC_driver.bit_mirror.size();
    const int words = PLC_driver.word_mirror.size();
    GetRegisterData(nullptr, kind, text, station, &out, count);
    FUZZ_CHECK(PLC_driver.bit_mirror.size() == bits && PLC_driver.word_mirror.size() == words);
}

void step_cycle()
{
    Communication_Protocol &d = PLC_driver;
    Protocol *before = d.request_queue.isEmpty() ? nullptr : &d.request_queue.first();
    Protocol *p = ComCommunication();
    if (before) {
        FUZZ_CHECK(p == before);
    } else {
        FUZZ_CHECK(p == (d.request_queue.isEmpty() ? nullptr : &d.request_queue.first()));
        g_read_list_rebuilt = false; // a newly built request
    }
}

void step_reply(FuzzInput &in)
{
    Communication_Protocol &d = PLC_driver;
    const bool pending = !d.request_queue.isEmpty();
    const Protocol *head = pending ? &d.request_queue.first() : nullptr;
    const int head_source_type = pending ? head->var.source_type : 0;
    const bool valid = in.u8() & 1;
    QByteArray reply = (head && valid) ? fuzz_valid_reply(*head, in) : in.bytes(in.u8());
    const int length = fuzz_reply_length(in, reply, head);

    RW_VAR *r = DataCom(&reply, length);
    FUZZ_TRACE("  DataCom(%d bytes, length %d) -> status %d\n", int(reply.size()), length, r->status);
    FUZZ_CHECK(r == &d.ret_var);
    FUZZ_CHECK(is_driver_status(r->status));
    if (!pending)
        FUZZ_CHECK(r->status == 1);
    if (const int base = error_family_base(r->status); base >= 0) {
        FUZZ_CHECK(r->status == expected_error_code(base, head_source_type));
        FUZZ_CHECK(d.request_queue.isEmpty());
    }
}

void step_com_info(FuzzInput &in)
{
    const ComInfo &old = info();
    ComInfo &next = g_records[1 - g_current];
    next = old;
    next.max_read_units = in.i8();
    next.retry_limit = in.i8() % 4;
    const uint8_t settings = in.u8();
    next.link_mode = settings & 1;
    next.station_from_address = (settings >> 1) & 1;
    next.write_mode = (settings & 4) ? 2 : 1;
    next.local_link_id = (settings >> 3) & 1;
    next.default_station = station_of(in);
    next.host_handle = in.i8();
    g_current = 1 - g_current;
    SetComInfo(&next);
    callback_log().expected_handle = next.host_handle;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    g_current = 0;
    g_once_uncapped = false;
    g_read_list_rebuilt = false;
    ComInfo &first = g_records[0];
    first = make_com_info();
    first.max_read_units = in.i8();
    first.retry_limit = in.i8() % 4;
    const uint8_t settings = in.u8();
    first.link_mode = settings & 1;
    first.station_from_address = (settings >> 1) & 1;
    first.write_mode = (settings & 4) ? 2 : 1;
    first.default_station = station_of(in);
    reset_driver(&first);
    fuzz_register_callbacks(first.host_handle);

    for (int step = 0; step < 128 && !in.empty(); ++step) {
        const int op = in.u8() % 12;
        FUZZ_TRACE("step %d: op %d (queue %d, lists r%d w%d o%d)\n", step, op, int(PLC_driver.request_queue.size()),
                   int(PLC_driver.read_list.size()), int(PLC_driver.write_list.size()),
                   int(PLC_driver.once_read_list.size()));
        switch (op) {
        case 0: step_recreate(in); break;
        case 1: {
            RW_VAR v = raw_record(in);
            FUZZ_CHECK(AddListReadVar(&v) == PLC_driver.read_list.size());
            break;
        }
        case 2: step_once(in, 0); break;
        case 3: step_once(in, 1); break;
        case 4: step_set(in); break;
        case 5: step_get(in); break;
        case 6: step_cycle(); break;
        case 7: step_reply(in); break;
        case 8: {
            const int station = (in.u8() % 5) - 1;
            EnCommStation(station, in.u8() % 3);
            break;
        }
        case 9: {
            const int station = (in.u8() % 5) - 1;
            EnableEthernet(station, in.u8() % 3);
            break;
        }
        case 10: step_com_info(in); break;
        default: {
            RW_VAR v = raw_record(in);
            v.rw_flag = 1;
            const int before = PLC_driver.write_list.size();
            const int r = AddListWriteVar(&v);
            FUZZ_CHECK(r == (before < 2048 ? before + 1 : 2048));
            break;
        }
        }
        check_state();
    }
    return 0;
}
