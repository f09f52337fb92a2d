// Driver object, communication cycle, reply handling, return codes, station
// enabling and the debug log.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <QDateTime>
#include <QFile>
#include <QTextStream>

#include <cstring>

namespace {

// The list whose head the request in flight was built for (last_list).
enum ServedList : qint32 {
    kServedCyclic = 0,
    kServedWrite = 1,
    kServedOnce = 2,
    kServedNone = 100, // nothing served yet
};

// status of a cyclic entry: its read in flight, or not.
const qint32 kInFlight = -1;
const qint32 kNotInFlight = 0;

} // namespace

// The one driver object: constructed when the library is loaded, destroyed
// when it is unloaded.
Communication_Protocol PLC_driver;

Communication_Protocol::Communication_Protocol()
    : com_info(nullptr), write_done_cb(nullptr), read_done_cb(nullptr), last_list(kServedNone), write_burst(0),
      once_burst(0), cycle_count(0), comm_failed(false), spare_flag(false)
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
    return plckinds::is_known_kind(kind) ? plckinds::class_of(kind) : kind;
}

void Communication_Protocol::update_rw_var(RW_VAR *var)
{
    using plckinds::Layout;
    // 64-bit intermediates so that extreme counts wrap instead of overflowing.
    const qint64 a = var->start_addr;
    const qint64 n = var->count;
    switch (plckinds::layout(var->reg_kind)) {
    case Layout::Bits: // to bytes of the bit class
        var->start_addr = qint32(a >> 3);
        var->count = qint32(((a & 7) + n + 7) >> 3);
        break;
    case Layout::BitInWord: // to the registers holding the bits
        var->start_addr = qint32(a >> 4);
        var->count = qint32(((a & 15) + n + 15) >> 4);
        break;
    case Layout::ByteInWord: // to the registers holding the bytes
        var->start_addr = qint32(a >> 1);
        var->count = qint32(((a & 1) + n + 1) / 2);
        break;
    case Layout::Values: { // the address is scaled to registers; the count,
        // already in registers, is only rounded up to whole values
        const int w = plckinds::words_per_value(var->reg_kind);
        var->start_addr = qint32(quint32(a) * quint32(w));
        var->count = qint32(((n + w - 1) / w) * w);
        break;
    }
    case Layout::Words:
    case Layout::None: break;
    }
    // Bit kinds keep their kind (now in bytes); the others become their class's own kind.
    var->reg_kind = plckinds::read_kind(var->reg_kind);
}

qint32 Communication_Protocol::get_offset_add(qint32 cls)
{
    return plckinds::class_offset(cls);
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
//
// ComCommunication and DataCom are the driver's half of the cycle the
// runtime drives; docs/exchange-cycle.md describes the whole cycle: a
// request's life, when a pass ends, the bursts, and who sets and resets each
// field of the communication-info record.

namespace {

// Writes, and one-shot reads, go at most this many in a row before a cyclic
// read gets its turn.
const int kMaxBurst = 5;

// Drops the disabled-station entries at the head of a write or one-shot list.
void drop_disabled_head(QList<RW_VAR> &list)
{
    while (!list.isEmpty() && Ethernetcontains(list.first().station))
        list.removeFirst();
}

// Queues the request of one entry on the current link.
void build_request(RW_VAR &var, bool write, bool modbus)
{
    if (write && modbus)
        write_register(&var);
    else if (write)
        Remote_WriteVar(&var);
    else if (modbus)
        read_register(&var);
    else
        Remote_ReadVar(&var);
}

// Serves the head of the write or the one-shot list unless its burst is
// used up; false when it served nothing.
bool serve_burst(QList<RW_VAR> &list, qint32 &burst, ServedList which, bool modbus)
{
    if (list.isEmpty() || burst >= kMaxBurst)
        return false;
    drop_disabled_head(list);
    if (list.isEmpty())
        return false;
    RW_VAR var = list.first();
    build_request(var, which == kServedWrite, modbus);
    PLC_driver.last_list = which;
    ++burst;
    return true;
}

// Serves the first cyclic entry of an enabled station, rotating the
// disabled ones to the end; a cyclic read ends both bursts.
void serve_cyclic(bool modbus)
{
    Communication_Protocol &d = PLC_driver;
    if (d.read_list.isEmpty())
        return;
    for (int n = d.read_list.size(); Ethernetcontains(d.read_list.first().station);) {
        d.read_list.append(d.read_list.takeFirst());
        if (--n == 0)
            return; // every station is off
    }
    RW_VAR var = d.read_list.first();
    d.read_list.first().status = kInFlight;
    build_request(var, false, modbus);
    d.last_list = kServedCyclic;
    d.write_burst = 0;
    d.once_burst = 0;
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
    if (!serve_burst(d.write_list, d.write_burst, kServedWrite, modbus) &&
        !serve_burst(d.once_read_list, d.once_burst, kServedOnce, modbus))
        serve_cyclic(modbus);

    if (d.request_queue.isEmpty()) {
        d.write_burst = 0;
        d.once_burst = 0;
        d.com_info->cycle_done = 1;
        return nullptr;
    }
    return &d.request_queue.first();
}

// ---------------------------------------------------------------- replies

namespace {

// What an area handler makes of a reply; GetDriverReturnValue turns it into
// the driver return code.
enum ReplyOutcome : int {
    kOutcomeGood = 0,
    kOutcomeLocalBadContent = 1,
    kOutcomeLocalNoReply = 2,
    kOutcomeLocalBadLength = 3,
    kOutcomeRemoteNotStored = 4, // good, but nothing stored (or a repeated reply)
    kOutcomeRemoteBadContent = 5,
    kOutcomeRemoteNoReply = 6,
    kOutcomeRemoteBadLength = 7,
};

// Return codes: the two that count as success, the one of an unknown
// outcome, and the base of each error family (the requester's kind is added).
const int kCodeGood = 1;
const int kCodeRemoteNotStored = 100;
const int kCodeUnknownOutcome = 200;
const int kErrorBase[] = {0, 10, 40, 70, 0, 110, 140, 170}; // by ReplyOutcome; 0 for the good ones
// Requester kinds 1..kRequesterKinds each have their own code in a family.
const int kRequesterKinds = 11;
// A reply_len that accepts a reply of any length.
const int kAnyLength = -1;

} // namespace

int GetDriverReturnValue(int outcome)
{
    switch (outcome) {
    case kOutcomeGood: return kCodeGood;
    case kOutcomeRemoteNotStored: return kCodeRemoteNotStored;
    case kOutcomeLocalBadContent:
    case kOutcomeLocalNoReply:
    case kOutcomeLocalBadLength:
    case kOutcomeRemoteBadContent:
    case kOutcomeRemoteNoReply:
    case kOutcomeRemoteBadLength: return SwitchErrorReturn(kErrorBase[outcome]);
    default: return kCodeUnknownOutcome;
    }
}

int SwitchErrorReturn(int base)
{
    const QList<Protocol> &q = PLC_driver.request_queue;
    const int type = q.isEmpty() ? 0 : q.first().var.source_type;
    if (type >= 1 && type <= kRequesterKinds)
        return base + type + 1;
    return base + 1;
}

namespace {

// The length check shared by both area handlers: kOutcomeGood when it
// passed, otherwise the handler's no-reply or bad-length outcome.
ReplyOutcome length_outcome(int length, ReplyOutcome no_reply, ReplyOutcome bad_length)
{
    const int expected = PLC_driver.request_queue.first().reply_len;
    if (length == 0 && expected != 0)
        return no_reply;
    if (length != 0 && length != expected && expected != kAnyLength)
        return bad_length;
    return kOutcomeGood;
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
        return GetDriverReturnValue(kOutcomeLocalNoReply);
    QByteArray none;
    reply = reply_or(reply, &none);
    if (const ReplyOutcome outcome = length_outcome(length, kOutcomeLocalNoReply, kOutcomeLocalBadLength))
        return GetDriverReturnValue(outcome);

    const int verdict = CheckGetData(reply, length);
    if (verdict == kReplyStore) {
        if (is_rmw_read(PLC_driver.request_queue.first().var.ext_param1)) {
            // The read of a read-modify-write patches the waiting write frame
            // and touches no mirror entry, so the mirror lock is not needed;
            // the completion takes list_mutex itself to read the write list.
            save_to_local_data_erea(reply);
        } else {
            DriverLock lock(PLC_driver.area_mutex);
            save_to_local_data_erea(reply);
        }
        return GetDriverReturnValue(kOutcomeGood);
    }
    if (verdict == kReplyNothingToStore)
        return GetDriverReturnValue(kOutcomeGood);
    return GetDriverReturnValue(kOutcomeLocalBadContent);
}

int DealDataOfRemoteArea(QByteArray *reply, int length)
{
    if (PLC_driver.request_queue.isEmpty())
        return GetDriverReturnValue(kOutcomeRemoteNoReply);
    QByteArray none;
    reply = reply_or(reply, &none);
    if (const ReplyOutcome outcome = length_outcome(length, kOutcomeRemoteNoReply, kOutcomeRemoteBadLength))
        return GetDriverReturnValue(outcome);

    const int verdict = CheckGetData(reply, length);
    if (verdict != kReplyStore && verdict != kReplyNothingToStore)
        return GetDriverReturnValue(kOutcomeRemoteBadContent);
    if (PLC_driver.request_queue.first().var.ext_param1 != kRmwBitRead)
        return GetDriverReturnValue(kOutcomeRemoteNotStored);
    // Only the marked read of a bit write gets here; its store patches the
    // waiting write frame and leaves the mirror alone.
    save_to_local_data_erea(reply);
    if (PLC_driver.com_info && PLC_driver.com_info->replies_received == 1)
        return GetDriverReturnValue(kOutcomeRemoteNotStored);
    return GetDriverReturnValue(kOutcomeGood);
}

namespace {

// Results reported through write_done_cb, and the flag of read_done_cb
// after a give-up.
const int kWriteDone = 1;
const int kWriteFailed = 2;
const int kReadFailedFlag = 1;

bool is_success(int code)
{
    return code == kCodeGood || code == kCodeRemoteNotStored;
}

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
            d.write_done_cb(d.com_info->host_handle, head.source_type, head.source_id, kWriteFailed);
        } else {
            bool later = false;
            for (int i = 1; i < list.size() && !later; ++i) {
                const RW_VAR &e = list.at(i);
                later = e.source_type == head.source_type && e.source_id == head.source_id &&
                        e.link_id == d.com_info->local_link_id;
            }
            if (!later)
                d.write_done_cb(d.com_info->host_handle, head.source_type, head.source_id, kWriteDone);
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

// A failed reply: counts it; past the retry limit gives the request up, with
// every other queued request. True when it gave up.
bool give_up_after_retries(ComInfo *info)
{
    Communication_Protocol &d = PLC_driver;
    // Counters wrap instead of overflowing whatever the runtime left in them.
    info->retry_count = qint32(quint32(info->retry_count) + 1u);
    if (info->retry_count <= info->retry_limit)
        return false;
    d.cycle_count = 0;
    comm_failed_set(true);
    info->cycle_done = 0;
    info->retry_count = 0;
    d.request_queue.clear();
    return true;
}

// A good reply: retires the request and counts the pass. True when the entry
// it was built for has all the replies it needs.
bool retire_request(ComInfo *info, bool local)
{
    Communication_Protocol &d = PLC_driver;
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
    return complete;
}

// Finishes the entry the request was built for: a write or one-shot entry
// leaves its list, a cyclic one goes to the end of the read list.
void finish_served_entry(bool local)
{
    Communication_Protocol &d = PLC_driver;
    switch (d.last_list) {
    case kServedWrite: finish_head(d.write_list, true); break;
    case kServedOnce: finish_head(d.once_read_list, local); break;
    case kServedCyclic:
        if (!d.read_list.isEmpty() && d.read_list.first().status == kInFlight) {
            d.read_list.first().status = kNotInFlight;
            passRetValue(d.read_list.first(), d.ret_var);
            d.read_list.append(d.read_list.takeFirst());
        }
        break;
    default: break;
    }
}

// After a give-up: tells the runtime, and drops the requester's other entries.
void report_give_up()
{
    Communication_Protocol &d = PLC_driver;
    QList<RW_VAR> *failed = new QList<RW_VAR>();
    if (d.read_done_cb)
        d.read_done_cb(failed, d.ret_var.source_type, kReadFailedFlag);
    if (d.last_list == kServedWrite)
        purge_requester(d.write_list);
    else if (d.last_list == kServedOnce)
        purge_requester(d.once_read_list);
    delete failed;
}

} // namespace

extern "C" RW_VAR *DataCom(QByteArray *reply, int length)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        d.ret_var.status = kCodeGood; // unless a reply says otherwise
    }
    ComInfo *info = d.com_info;
    // No request in flight, or no runtime record to count against: nothing
    // to judge.
    if (d.request_queue.isEmpty() || !info)
        return &d.ret_var;

    const bool local = d.request_queue.first().var.link_id == info->local_link_id;
    const int code = local ? DealDataOfLocalArea(reply, length) : DealDataOfRemoteArea(reply, length);

    DriverLock lock(d.list_mutex);
    if (!is_success(code)) {
        if (!give_up_after_retries(info)) {
            d.ret_var.status = 0; // to be retried
            return &d.ret_var;
        }
    } else if (!retire_request(info, local)) {
        d.ret_var.status = code; // the second reply of a pair is still to come
        return &d.ret_var;
    }
    finish_served_entry(local);
    if (comm_failed_get())
        report_give_up();
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
