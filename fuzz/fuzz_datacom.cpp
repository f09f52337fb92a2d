// Fuzz target: replies handed to DataCom for every kind of request in flight.
//
// Input layout (front to back; see make_seeds.py):
//   setup byte   bits 0-1 list (0 cyclic via ReCreatReadVarList, 1 one-shot
//                via AddListOnceReadVar, 2 write via SetRegisterData, 3 also
//                one-shot), bit 2 link_mode, bit 3 remote area (the record's
//                local_link_id changes after registration), bit 4 one-shot
//                record taken as prepared (flag 1), bit 5 comm_failed set
//                before, bit 6 station_from_address, bit 7 count read as a
//                full 32-bit value (absurd counts reach the one-shot and
//                one-shot path as they are)
//   kind (mod 15), station, count (i16, or i32 with bit 7), retry_limit (i8), max_read_units (byte - 8),
//   source_type (i8), source_id (i8), ext_param1 selector, ext_param2 (i8),
//   address text (valid for the kind or from the grammar), write data
//   (length byte, bytes; for a read it is first written into the mirror)
//   then per reply: control byte (bit 0 valid reply, bit 1 null reply
//   pointer when bits 1-3 are all set), the reply (valid: data bytes; raw:
//   length byte and bytes), the length argument (fuzz_reply_length).
//
// Invariants after every DataCom:
//   - it returns &PLC_driver.ret_var;
//   - status is 0, 1, 100, 200 or a code of the error families, and an error
//     code carries the failed request's source_type in its last digits;
//   - status 1 when nothing was in flight, with nothing changed;
//   - status 0 (retry): the request stays queued at the same address,
//     1 <= retry_count <= retry_limit;
//   - an error code (request given up): the queue is empty, comm_failed set,
//     retry_count 0, read_done_cb called once;
//   - retry_count is 0 or at most retry_limit;
//   - the queue is empty or its head is what ComCommunication returns next;
//   - callbacks only report results 1 and 2 (fuzz_common.h);
//   - after a good local-area reply to a read whose bytes all arrived, the
//     mirror holds the reply's data under the request's keys.
#include "fuzz_common.h"

#include <QList>

namespace {

ComInfo g_info;

int ext_param1_of(uint8_t selector, FuzzInput &in)
{
    switch (selector % 4) {
    case 0: return 0;
    case 1: return -1;
    case 2: return -2;
    default: return in.i32();
    }
}

// The request ComCommunication returns is the head of the queue, or null
// when the queue stays empty; a queued head is returned again unchanged.
Protocol *next_request()
{
    Communication_Protocol &d = PLC_driver;
    Protocol *before = d.request_queue.isEmpty() ? nullptr : &d.request_queue.first();
    const int size_before = d.request_queue.size();
    Protocol *p = ComCommunication();
    if (before) {
        FUZZ_CHECK(p == before);
        FUZZ_CHECK(d.request_queue.size() == size_before);
    } else {
        FUZZ_CHECK(p == (d.request_queue.isEmpty() ? nullptr : &d.request_queue.first()));
    }
    return p;
}

// After a good local-area reply to a read whose bytes all arrived (array,
// length argument and expected length agree), the mirror holds the reply's
// data under the request's keys: registers big-endian on the wire, bits
// least significant first.
void check_stored(const Protocol &p, const QByteArray &reply, int length)
{
    const RW_VAR &v = p.var;
    if (v.rw_flag != 0 || v.station == 0 || v.ext_param1 == -1 || v.ext_param1 == -2)
        return;
    if (reply.size() != length || length != p.reply_len || p.data_len < 0 || p.data_len > 4096 ||
        reply.size() < p.reply_header_len + p.data_len)
        return;
    const Communication_Protocol &d = PLC_driver;
    const int cls = Communication_Protocol::get_plc_reg(v.reg_kind);
    const quint64 first =
        (quint64((quint32(v.station) << 24) | (quint32(cls) << 16)) << 32) | quint64(qint64(v.start_addr));
    auto at = [&reply](int i) { return uchar(reply.at(i)); };
    if (v.reg_kind >= 2 && v.reg_kind <= 4) {
        for (int i = 0; 2 * i + 1 < p.data_len; ++i) {
            const ushort expected = ushort((at(p.reply_header_len + 2 * i) << 8) | at(p.reply_header_len + 2 * i + 1));
            FUZZ_CHECK(d.word_mirror.contains(first + quint64(i)));
            FUZZ_CHECK(d.word_mirror.value(first + quint64(i)) == expected);
        }
    } else if ((v.reg_kind == 0 || v.reg_kind == 1) && v.count >= 0 && v.count <= 8 * p.data_len) {
        for (int i = 0; i < v.count; ++i) {
            const int expected = (at(p.reply_header_len + (i >> 3)) >> (i & 7)) & 1;
            FUZZ_CHECK(d.bit_mirror.contains(first + quint64(i)));
            FUZZ_CHECK(d.bit_mirror.value(first + quint64(i)) == expected);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    Communication_Protocol &d = PLC_driver;

    const uint8_t setup = in.u8();
    const int list = setup & 3;
    const int kind = in.u8() % 15;
    const int station = in.u8();
    // Full 32-bit counts go to the one-shot list only: the cyclic list and
    // the write path cut a count into count / max_read_units requests, so a
    // huge count there costs time in proportion, which is not a defect.
    const int raw_count = (setup & 0x80) ? in.i32() : in.i16();
    const int count = (list == 1 || list == 3) ? raw_count : raw_count % 5001;

    g_info = make_com_info();
    g_info.link_mode = (setup >> 2) & 1;
    g_info.station_from_address = (setup >> 6) & 1;
    g_info.default_station = station;
    g_info.retry_limit = in.i8();
    // max_read_units from -8 to 247 (SetComInfo turns values above 120 into
    // 100): 0 and negative values occur, but rarely, since they make every
    // one-shot chunk a single unit and the duplicate scan of a filling
    // one-shot list is quadratic (up to 2048 x 2048 comparisons).
    g_info.max_read_units = int(in.u8()) - 8;
    g_info.write_mode = 2;
    reset_driver(&g_info);
    fuzz_register_callbacks(g_info.host_handle);

    const int source_type = in.i8();
    const int source_id = in.i8();
    const int ext1 = ext_param1_of(in.u8(), in);
    const int ext2 = in.i8();
    const QString address = fuzz_address_for_kind(in, kind);
    QByteArray write_data = in.bytes(in.u8() % 64);

    // Register the variable in the list the request will come from.
    if (list == 0) {
        QList<HostReadVar> descriptors;
        HostReadVar h;
        h.reg_kind = quint8(kind);
        h.station = quint8(station);
        h.address_text = address;
        h.name_text = QStringLiteral("v");
        h.count = count;
        descriptors.append(h);
        const int n = ReCreatReadVarList(&descriptors);
        FUZZ_CHECK(n == d.read_list.size());
    } else if (list == 2) {
        const int n =
            SetRegisterData(QStringLiteral("w"), kind, address, station, &write_data, count, source_type, source_id);
        FUZZ_CHECK(n == 0 || n == d.write_list.size());
    } else {
        RW_VAR var;
        var.source_type = source_type;
        var.source_id = source_id;
        var.link_mode = g_info.link_mode;
        var.link_id = g_info.local_link_id;
        var.address_text = address;
        var.reg_kind = kind;
        var.station = station;
        var.count = count;
        const bool prepared = (setup >> 4) & 1;
        if (prepared) {
            // A record the host prepared itself: any start, kind, count and
            // both extra parameters go to the builders as they are.
            var.start_addr = StringAddressToInt(kind, address);
            var.ext_param1 = ext1;
            var.ext_param2 = ext2;
        }
        AddListOnceReadVar(&var, prepared ? 1 : 0);
    }
    if (list != 2 && !write_data.isEmpty()) {
        // Values already in the mirror where the read will store (the write
        // data as a mirror-only write of the same variable), so that stores
        // overwrite and zero runs meet existing entries.
        g_info.write_mode = 1;
        SetRegisterData(QStringLiteral("m"), kind, address, station, &write_data, write_data.size(), 0, 0);
        g_info.write_mode = 2;
    }
    if ((setup >> 3) & 1)
        g_info.local_link_id += 1; // every queued variable becomes a remote-area variable
    comm_failed_set((setup >> 5) & 1);

    for (int round = 0; round < 24 && !in.empty(); ++round) {
        Protocol *p = next_request();
        const uint8_t control = in.u8();
        const bool valid = control & 1;
        const bool null_reply = ((control >> 1) & 7) == 7;

        QByteArray reply;
        if (p && valid)
            reply = fuzz_valid_reply(*p, in);
        else
            reply = in.bytes(in.u8());
        const int length = fuzz_reply_length(in, reply, p);

        const bool pending = !d.request_queue.isEmpty();
        const int queued = d.request_queue.size();
        Protocol *head = pending ? &d.request_queue.first() : nullptr;
        const int head_source_type = pending ? head->var.source_type : 0;
        const int head_kind = pending ? head->var.reg_kind : -1;
        const int head_reply_len = pending ? head->reply_len : -1;
        const int read_done_before = callback_log().read_done;
        const Protocol head_copy = pending ? *head : Protocol();
        const bool local = pending && head_copy.var.link_id == g_info.local_link_id;

        RW_VAR *ret = DataCom(null_reply ? nullptr : &reply, length);

        FUZZ_CHECK(ret == &d.ret_var);
        const int status = ret->status;
        FUZZ_TRACE("round %d: %s reply of %d bytes, length %d, request kind %d reply_len %d -> status %d\n", round,
                   valid ? "valid" : "raw", int(reply.size()), length, head_kind, head_reply_len, status);
        FUZZ_CHECK(is_driver_status(status));
        if (!pending) {
            FUZZ_CHECK(status == 1);
            FUZZ_CHECK(d.request_queue.isEmpty());
        } else if (status == 0) {
            FUZZ_CHECK(d.request_queue.size() == queued);
            FUZZ_CHECK(&d.request_queue.first() == head);
            FUZZ_CHECK(g_info.retry_count >= 1 && g_info.retry_count <= g_info.retry_limit);
        } else if (const int base = error_family_base(status); base >= 0) {
            FUZZ_CHECK(status == expected_error_code(base, head_source_type));
            FUZZ_CHECK(d.request_queue.isEmpty());
            FUZZ_CHECK(comm_failed_get());
            FUZZ_CHECK(g_info.retry_count == 0);
            FUZZ_CHECK(callback_log().read_done == read_done_before + 1);
        } else {
            // A good reply retires exactly the request in flight.
            FUZZ_CHECK(status == 1 || status == 100);
            FUZZ_CHECK(d.request_queue.size() == queued - 1);
            FUZZ_CHECK(!comm_failed_get());
        }
        if (status == 1 && local && !null_reply)
            check_stored(head_copy, reply, length);
        FUZZ_CHECK(g_info.retry_count == 0 || g_info.retry_count <= g_info.retry_limit);
        if (!d.request_queue.isEmpty())
            FUZZ_CHECK(ComCommunication() == &d.request_queue.first());
    }
    return 0;
}
