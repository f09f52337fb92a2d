// Driver object, communication cycle, reply handling, return codes, station
// enabling and the debug log.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <QDateTime>
#include <QFile>
#include <QTextStream>

#include <cstring>

// The one driver object: constructed when the library is loaded, destroyed
// when it is unloaded.
Communication_Protocol PLC_driver;

Communication_Protocol::Communication_Protocol()
    : com_info(nullptr), write_done_cb(nullptr), read_done_cb(nullptr), last_list(100), write_burst(0), once_burst(0),
      cycle_count(0), comm_failed(false), spare_flag(false)
{
    spare_list.clear();
    // The scratch buffer starts zeroed so that a frame which keeps bytes of
    // "the previous request" is deterministic even for the first request.
    std::memset(frame_buf, 0, sizeof frame_buf);
    std::memset(transaction_ids, 0, sizeof transaction_ids);
}

// Members are released in reverse order of declaration by the compiler;
// nothing is sent and no callback is made.
Communication_Protocol::~Communication_Protocol() = default;

qint32 Communication_Protocol::get_plc_reg(qint32 kind)
{
    switch (kind) {
    case 2:
    case 6:
    case 9:
    case 12: return 2;
    case 3:
    case 7:
    case 10:
    case 13: return 3;
    case 4:
    case 5:
    case 8:
    case 11:
    case 14: return 4;
    default: return kind;
    }
}

void Communication_Protocol::update_rw_var(RW_VAR *var)
{
    // 64-bit intermediates so that extreme counts wrap instead of overflowing.
    const qint64 a = var->start_addr;
    const qint64 n = var->count;
    switch (var->reg_kind) {
    case 0:
    case 1: // bits to bytes, kind kept
        var->start_addr = qint32(a >> 3);
        var->count = qint32(((a & 7) + n + 7) >> 3);
        break;
    case 5: // bits to class-4 words
        var->reg_kind = 4;
        var->start_addr = qint32(a >> 4);
        var->count = qint32(((a & 15) + n + 15) >> 4);
        break;
    case 6:
    case 7:
    case 8: // bytes to words
        var->reg_kind = get_plc_reg(var->reg_kind);
        var->start_addr = qint32(a >> 1);
        var->count = qint32(((a & 1) + n + 1) / 2);
        break;
    case 9:
    case 10:
    case 11: // 32-bit values: address doubled, count only made even
        var->reg_kind = get_plc_reg(var->reg_kind);
        var->start_addr = qint32(quint32(a) * 2u);
        var->count = qint32(((n + 1) / 2) * 2);
        break;
    case 12:
    case 13:
    case 14: // 64-bit values: address times 4, count a multiple of 4
        var->reg_kind = get_plc_reg(var->reg_kind);
        var->start_addr = qint32(quint32(a) * 4u);
        var->count = qint32(((n + 3) / 4) * 4);
        break;
    default: break;
    }
}

qint32 Communication_Protocol::get_offset_add(qint32 cls)
{
    static const qint32 offsets[4] = {0x6000, 0xA000, 0x8000, 0xA000};
    return quint32(cls) < 4u ? offsets[cls] : 0;
}

namespace {

// dst = src for an implicitly shared Qt value, by copy construction and swap.
// The effect is that of operator=, but the reference counting runs in Qt's
// inline code: QtCore's out-of-line operator= may free a text whose last
// other reference a runtime thread has just dropped, and ThreadSanitizer,
// which does not see into QtCore, would report that ordering as a race.
template <typename T> void assign_shared(T &dst, const T &src)
{
    T copy(src);
    dst.swap(copy);
}

} // namespace

void passRetValue(const RW_VAR &src, RW_VAR &dst)
{
    dst.source_type = src.source_type;
    dst.source_id = src.source_id;
    dst.rw_flag = src.rw_flag;
    dst.link_mode = src.link_mode;
    dst.link_id = src.link_id;
    dst.status = src.status;
    assign_shared(dst.name_text, src.name_text);
    assign_shared(dst.address_text, src.address_text);
    dst.reg_kind = src.reg_kind;
    dst.start_addr = src.start_addr;
    dst.station = src.station;
    dst.count = src.count;
    dst.ext_param1 = src.ext_param1;
    dst.ext_param2 = src.ext_param2;
    assign_shared(dst.data, QByteArray()); // cleared
}

// ---------------------------------------------------------------- stations

extern "C" void EnCommStation(int station, int enable)
{
    DriverLock lock(PLC_driver.station_mutex);
    if (station < 0)
        PLC_driver.disabled_stations.clear();
    else if (enable == 0)
        PLC_driver.disabled_stations.insert(station, 0);
    else if (enable == 1)
        PLC_driver.disabled_stations.remove(station);
}

extern "C" void EnableEthernet(int station, int enable)
{
    EnCommStation(station, enable);
}

bool Ethernetcontains(int station)
{
    DriverLock lock(PLC_driver.station_mutex);
    return PLC_driver.disabled_stations.contains(station);
}

// ---------------------------------------------------------------- cycle

namespace {

// Drops the disabled-station entries at the head of a write or one-shot list.
void drop_disabled_head(QList<RW_VAR> &list)
{
    while (!list.isEmpty() && Ethernetcontains(list.first().station))
        list.removeFirst();
}

} // namespace

extern "C" Protocol *ComCommunication()
{
    Communication_Protocol &d = PLC_driver;
    if (!d.request_queue.isEmpty())
        return &d.request_queue.first();
    // Without the runtime's record there is nothing to build a request for.
    if (!d.com_info)
        return nullptr;

    DriverLock lock(d.list_mutex);
    const bool modbus = d.com_info->link_mode == 0;

    bool chosen = false;
    if (!d.write_list.isEmpty() && d.write_burst <= 4) {
        drop_disabled_head(d.write_list);
        if (!d.write_list.isEmpty()) {
            RW_VAR var = d.write_list.first();
            if (modbus)
                write_register(&var);
            else
                Remote_WriteVar(&var);
            d.last_list = 1;
            ++d.write_burst;
            chosen = true;
        }
    }
    if (!chosen && !d.once_read_list.isEmpty() && d.once_burst <= 4) {
        drop_disabled_head(d.once_read_list);
        if (!d.once_read_list.isEmpty()) {
            RW_VAR var = d.once_read_list.first();
            if (modbus)
                read_register(&var);
            else
                Remote_ReadVar(&var);
            d.last_list = 2;
            ++d.once_burst;
            chosen = true;
        }
    }
    if (!chosen && !d.read_list.isEmpty()) {
        int n = d.read_list.size();
        bool all_disabled = false;
        while (Ethernetcontains(d.read_list.first().station)) {
            d.read_list.append(d.read_list.takeFirst());
            if (--n == 0) {
                all_disabled = true;
                break;
            }
        }
        if (!all_disabled) {
            RW_VAR var = d.read_list.first();
            d.read_list.first().status = -1;
            if (modbus)
                read_register(&var);
            else
                Remote_ReadVar(&var);
            d.last_list = 0;
            d.write_burst = 0;
            d.once_burst = 0;
        }
    }

    if (d.request_queue.isEmpty()) {
        d.write_burst = 0;
        d.once_burst = 0;
        d.com_info->cycle_done = 1;
        return nullptr;
    }
    return &d.request_queue.first();
}

// ---------------------------------------------------------------- replies

int GetDriverReturnValue(int outcome)
{
    switch (outcome) {
    case 0: return 1;
    case 1: return SwitchErrorReturn(10);
    case 2: return SwitchErrorReturn(40);
    case 3: return SwitchErrorReturn(70);
    case 4: return 100;
    case 5: return SwitchErrorReturn(110);
    case 6: return SwitchErrorReturn(140);
    case 7: return SwitchErrorReturn(170);
    default: return 200;
    }
}

int SwitchErrorReturn(int base)
{
    const QList<Protocol> &q = PLC_driver.request_queue;
    const int type = q.isEmpty() ? 0 : q.first().var.source_type;
    if (type >= 1 && type <= 11)
        return base + type + 1;
    return base + 1;
}

namespace {

// Outcome of the length check shared by both area handlers: 0 passed,
// otherwise the no-reply or the length outcome given.
int length_outcome(int length, int no_reply_outcome, int length_error_outcome)
{
    const int expected = PLC_driver.request_queue.first().reply_len;
    if (length == 0 && expected != 0)
        return no_reply_outcome;
    if (length != 0 && length != expected && expected != -1)
        return length_error_outcome;
    return 0;
}

// The reply to judge: a missing one is judged as an empty one, none, which
// the caller keeps on its stack. (Not a thread_local: an object with a
// destructor in thread storage keeps the library from being unloaded by
// dlclose while the thread lives.)
QByteArray *reply_or(QByteArray *reply, QByteArray *none)
{
    return reply ? reply : none;
}

} // namespace

int DealDataOfLocalArea(QByteArray *reply, int length)
{
    if (PLC_driver.request_queue.isEmpty())
        return GetDriverReturnValue(2);
    QByteArray none;
    reply = reply_or(reply, &none);
    if (const int outcome = length_outcome(length, 2, 3))
        return GetDriverReturnValue(outcome);

    const int verdict = CheckGetData(reply, length);
    if (verdict == 1) {
        const int marker = PLC_driver.request_queue.first().var.ext_param1;
        if (marker == -1 || marker == -2) {
            // The read of a read-modify-write patches the waiting write frame
            // and touches no mirror entry, so the mirror lock is not needed;
            // the completion takes list_mutex itself to read the write list.
            save_to_local_data_erea(reply);
        } else {
            DriverLock lock(PLC_driver.area_mutex);
            save_to_local_data_erea(reply);
        }
        return GetDriverReturnValue(0);
    }
    if (verdict == 2)
        return GetDriverReturnValue(0);
    return GetDriverReturnValue(1);
}

int DealDataOfRemoteArea(QByteArray *reply, int length)
{
    if (PLC_driver.request_queue.isEmpty())
        return GetDriverReturnValue(6);
    QByteArray none;
    reply = reply_or(reply, &none);
    if (const int outcome = length_outcome(length, 6, 7))
        return GetDriverReturnValue(outcome);

    const int verdict = CheckGetData(reply, length);
    if (verdict != 1 && verdict != 2)
        return GetDriverReturnValue(5);
    if (PLC_driver.request_queue.first().var.ext_param1 != -1)
        return GetDriverReturnValue(4);
    // Only the marked read of a bit write gets here; its store patches the
    // waiting write frame and leaves the mirror alone.
    save_to_local_data_erea(reply);
    if (PLC_driver.com_info && PLC_driver.com_info->replies_received == 1)
        return GetDriverReturnValue(4);
    return GetDriverReturnValue(0);
}

namespace {

// Finishes the head of a write or one-shot list: reports to the runtime and
// moves the head into ret_var.
void finish_head(QList<RW_VAR> &list, bool callback)
{
    Communication_Protocol &d = PLC_driver;
    if (list.isEmpty())
        return;
    const RW_VAR &head = list.first();
    if (callback && d.write_done_cb) {
        if (comm_failed_get()) {
            d.write_done_cb(d.com_info->host_handle, head.source_type, head.source_id, 2);
        } else {
            bool later = false;
            for (int i = 1; i < list.size() && !later; ++i) {
                const RW_VAR &e = list.at(i);
                later = e.source_type == head.source_type && e.source_id == head.source_id &&
                        e.link_id == d.com_info->local_link_id;
            }
            if (!later)
                d.write_done_cb(d.com_info->host_handle, head.source_type, head.source_id, 1);
        }
    }
    passRetValue(list.first(), d.ret_var);
    list.removeFirst();
}

// After a give-up: drops the other pending requests of the same requester.
void purge_requester(QList<RW_VAR> &list)
{
    Communication_Protocol &d = PLC_driver;
    const bool by_station = d.com_info->station_from_address != 0;
    for (int i = list.size() - 1; i >= 0; --i) {
        const RW_VAR &e = list.at(i);
        if (e.source_type == d.ret_var.source_type && e.source_id == d.ret_var.source_id &&
            (!by_station || e.station == d.ret_var.station))
            list.removeAt(i);
    }
}

} // namespace

extern "C" RW_VAR *DataCom(QByteArray *reply, int length)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        d.ret_var.status = 1;
    }
    ComInfo *info = d.com_info;
    // No request in flight, or no runtime record to count against: nothing
    // to judge.
    if (d.request_queue.isEmpty() || !info)
        return &d.ret_var;

    const bool local = d.request_queue.first().var.link_id == info->local_link_id;
    const int code = local ? DealDataOfLocalArea(reply, length) : DealDataOfRemoteArea(reply, length);

    DriverLock lock(d.list_mutex);
    if (code != 1 && code != 100) {
        // Counters wrap instead of overflowing whatever the runtime left in them.
        info->retry_count = qint32(quint32(info->retry_count) + 1u);
        if (info->retry_count <= info->retry_limit) {
            d.ret_var.status = 0;
            return &d.ret_var;
        }
        // Give up: every queued request goes, the entry is finished as failed.
        d.cycle_count = 0;
        comm_failed_set(true);
        info->cycle_done = 0;
        info->retry_count = 0;
        d.request_queue.clear();
    } else {
        comm_failed_set(false);
        info->replies_received = qint32(quint32(info->replies_received) + 1u);
        const bool complete = info->replies_received >= info->replies_expected;
        if (complete && local && info->cycle_done == 0) {
            ++d.cycle_count;
            if (d.cycle_count > d.read_list.size()) {
                d.cycle_count = 0;
                info->cycle_done = 1;
            }
        }
        d.request_queue.removeFirst();
        if (!complete) {
            d.ret_var.status = code;
            return &d.ret_var;
        }
    }

    switch (d.last_list) {
    case 1: finish_head(d.write_list, true); break;
    case 2: finish_head(d.once_read_list, local); break;
    case 0:
        if (!d.read_list.isEmpty() && d.read_list.first().status == -1) {
            d.read_list.first().status = 0;
            passRetValue(d.read_list.first(), d.ret_var);
            d.read_list.append(d.read_list.takeFirst());
        }
        break;
    default: break;
    }

    if (comm_failed_get()) {
        QList<RW_VAR> *failed = new QList<RW_VAR>();
        if (d.read_done_cb)
            d.read_done_cb(failed, d.ret_var.source_type, 1);
        if (d.last_list == 1)
            purge_requester(d.write_list);
        else if (d.last_list == 2)
            purge_requester(d.once_read_list);
        delete failed;
    }

    d.ret_var.status = code;
    return &d.ret_var;
}

// ---------------------------------------------------------------- debug log

QString debug_log_line(const QDateTime &when, const QString &message)
{
    // Milliseconds without leading zeros: 45 ms prints as "45".
    return when.toString(QStringLiteral("yyyy.MM.dd.hh:mm:ss.")) + QString::number(when.time().msec()) +
           QLatin1Char(':') + message;
}

extern "C" void customMessageHandler(QtMsgType type, const char *message)
{
    Q_UNUSED(type);
    const QString text = QString::fromLatin1(message ? message : "");
    QFile file(QStringLiteral("/tmp/debug.log"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        return;
    QTextStream out(&file);
    out << debug_log_line(QDateTime::currentDateTime(), text) << '\n';
    out.flush();
    file.close();
}
