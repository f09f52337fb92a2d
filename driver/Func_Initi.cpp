// Host set-up, PLC address parsing, variable registration and the grouping
// of the runtime's cyclic read list into block reads.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <QStringList>

#include <algorithm>
#include <climits>
#include <utility>

void *LB = nullptr;
void *LW = nullptr;
void *RWI = nullptr;

namespace {
const int kListCap = 2048;

int locked_size(const QList<RW_VAR> &list)
{
    DriverLock lock(PLC_driver.list_mutex);
    return list.size();
}
} // namespace

// ---------------------------------------------------------------- set-up

extern "C" void SetComInfo(ComInfo *info)
{
    const qint32 max_units = info->max_read_units;
    PLC_driver.com_info = info;
    if (max_units > 120)
        info->max_read_units = 100; // the replacement is 100, not the bound 120
    info->field52 = 0;
    info->field40 = 0;
}

extern "C" void FlashLocalRegister(void *bit_area, void *word_area, void *third_area)
{
    LB = bit_area;
    LW = word_area;
    RWI = third_area;
}

extern "C" void RegistCallBackFuncIntf(WriteDoneCallback write_done, ReadDoneCallback read_done)
{
    PLC_driver.write_done_cb = write_done;
    PLC_driver.read_done_cb = read_done;
}

// ---------------------------------------------------------------- addresses

int StringAddressToInt(int reg_kind, const QString &address_text)
{
    bool ok = false;
    if (reg_kind == 0 || reg_kind == 1 || reg_kind == 5) {
        // Bit kinds: "byte.bit"; the bit part is not range-checked.
        const QStringList parts = address_text.split(QLatin1Char('.'));
        if (parts.size() != 2)
            return -1;
        const int byte = parts.at(0).toInt(&ok, 10);
        if (!ok)
            return -1;
        const int bit = parts.at(1).toInt(&ok, 10);
        if (!ok)
            return -1;
        return qint32(quint32(byte) * 8u + quint32(bit));
    }
    const int value = address_text.toInt(&ok, 10);
    return ok ? value : -1;
}

extern "C" int PLCAddressChangeIntef(int reg_kind, const QString &address_text)
{
    return StringAddressToInt(reg_kind, address_text);
}

// ---------------------------------------------------------------- registration

int BlockLimitForKind(int reg_kind, int max_read_units)
{
    const int n = max_read_units;
    if (quint32(reg_kind) < 2u) // bit kinds count bytes: twice the units, never past INT_MAX
        return int(std::min<qint64>(2 * qint64(n), INT_MAX));
    if (reg_kind >= 9 && reg_kind <= 11)
        return n > 50 ? 50 : n;
    if (quint32(reg_kind) - 12u <= 2u) // unsigned: every kind outside 12..14 lands above 2
        return n > 25 ? 25 : n;
    return n;
}

extern "C" int AddListReadVar(RW_VAR *var)
{
    PLC_driver.read_list.append(*var);
    return PLC_driver.read_list.size();
}

extern "C" int AddListWriteVar(RW_VAR *var)
{
    {
        DriverLock lock(PLC_driver.list_mutex);
        if (PLC_driver.write_list.size() < kListCap)
            PLC_driver.write_list.append(*var);
    }
    return locked_size(PLC_driver.write_list);
}

extern "C" int AddListOnceReadVar(RW_VAR *var, int flag)
{
    Communication_Protocol &d = PLC_driver;
    if (flag == 1) {
        {
            DriverLock lock(d.list_mutex);
            d.once_read_list.append(*var);
        }
        return locked_size(d.once_read_list);
    }

    // Without a communication-info record there is no station or unit limit
    // to prepare the read with: refuse it like an unparsable address.
    if (!d.com_info)
        return 0;
    const int addr = StringAddressToInt(var->reg_kind, var->address_text);
    if (addr < 0)
        return 0;
    const int station = d.com_info->station_from_address == 0 ? d.com_info->default_station : var->station;
    var->start_addr = addr;
    var->station = station;
    var->ext_param1 = 0;
    var->ext_param2 = 0;
    Communication_Protocol::update_rw_var(var);
    const int block_limit = BlockLimitForKind(var->reg_kind, effective_max_units());

    {
        DriverLock lock(d.list_mutex);
        int remaining = var->count;
        while (remaining > 0) {
            if (d.once_read_list.size() >= kListCap) {
                // The list is full, so no further chunk can be added: leave
                // the record as the remaining chunks would (start past the
                // last one, count the last one's size) without walking them.
                // An absurd count cannot keep the loop going this way.
                var->count = (remaining - 1) % block_limit + 1;
                var->start_addr = qint32(quint32(var->start_addr) + quint32(remaining));
                break;
            }
            const int chunk = std::min(remaining, block_limit);
            var->count = chunk;
            bool duplicate = false;
            for (const RW_VAR &e : std::as_const(d.once_read_list)) {
                if (e.source_type == var->source_type && e.source_id == var->source_id && e.station == var->station &&
                    e.reg_kind == var->reg_kind && e.start_addr == var->start_addr && e.count == var->count &&
                    e.link_id == var->link_id) {
                    duplicate = true;
                    break;
                }
            }
            if (!duplicate && d.once_read_list.size() < kListCap)
                d.once_read_list.append(*var);
            remaining -= chunk;
            // Addresses wrap at the top of the 32-bit range instead of overflowing.
            var->start_addr = qint32(quint32(var->start_addr) + quint32(chunk));
        }
    }
    return locked_size(d.once_read_list);
}

// ---------------------------------------------------------------- grouping

void Bubble_Sort(QList<RW_VAR> *list)
{
    // The order of the specified exchange sort (ascending, equal addresses
    // keep their order) is exactly that of a stable sort, which does it in
    // n log n instead of n squared.
    if (!list || list->size() < 2)
        return;
    std::stable_sort(list->begin(), list->end(),
                     [](const RW_VAR &a, const RW_VAR &b) { return a.start_addr < b.start_addr; });
}

void BitVarReCreat(QList<RW_VAR> *group, int block_limit)
{
    if (!group || group->isEmpty())
        return;
    QList<RW_VAR> &out = PLC_driver.read_list;
    const int limit = block_limit < 1 ? 1 : block_limit;

    if (limit == 1) {
        // Neither merged nor split; of equal addresses the largest count wins.
        out.append(group->first());
        qint32 addr = group->first().start_addr;
        qint32 count = group->first().count;
        for (int i = 1; i < group->size(); ++i) {
            const RW_VAR &r = group->at(i);
            if (r.start_addr != addr) {
                out.append(r);
                addr = r.start_addr;
                count = r.count;
            } else if (r.count > count) {
                out.last().count = r.count;
                count = r.count;
            }
        }
        return;
    }

    // Appends copies of proto covering [start, start + length) in pieces of
    // at most limit units.
    auto append_pieces = [&, limit](const RW_VAR &proto, qint64 start, qint64 length) {
        while (length > 0) {
            const qint64 piece = std::min<qint64>(length, limit);
            RW_VAR copy = proto;
            copy.start_addr = qint32(start);
            copy.count = qint32(piece);
            out.append(copy);
            start += piece;
            length -= piece;
        }
    };

    qint64 S = 0, L = 0;
    for (int i = 0; i < group->size(); ++i) {
        const RW_VAR &r = group->at(i);
        const qint64 A = r.start_addr, C = r.count;
        // A merge needs a request to extend; with none (an empty read_list
        // after a count-0 first record) the record opens its own.
        if (i == 0 || A >= S + limit || out.isEmpty()) {
            append_pieces(r, A, C);
        } else if (A + C > S + L) {
            const qint64 E = A + C - S; // length needed from the request's start
            out.last().count = qint32(std::min<qint64>(E, limit));
            if (E > limit) {
                const RW_VAR last = out.last();
                append_pieces(last, S + limit, E - limit);
            }
        }
        if (!out.isEmpty()) {
            S = out.last().start_addr;
            L = out.last().count;
        }
    }
}

void WhetherGroup(int total, int limit, RW_VAR *var, QList<RW_VAR> *list)
{
    if (total <= limit || limit < 1) {
        list->append(*var);
        return;
    }
    const int pieces = total / limit + (total % limit ? 1 : 0);
    const int remainder = total % limit;
    const qint32 start = var->start_addr;
    for (int k = 0; k < pieces; ++k) {
        var->start_addr = qint32(quint32(start) + quint32(k) * quint32(limit));
        var->count = (k == pieces - 1 && remainder != 0) ? remainder : limit;
        list->append(*var);
    }
}

extern "C" int ReCreatReadVarList(QList<HostReadVar> *descriptors)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        d.read_list = QList<RW_VAR>();
        ComInfo *info = d.com_info;
        // Nothing to read, or no communication-info record to read it with:
        // the list stays empty.
        if (!descriptors || descriptors->isEmpty() || !info)
            return 0;

        const int n = effective_max_units();
        d.cycle_count = 0;
        info->cycle_done = 0;

        RW_VAR work;
        work.source_type = 0;
        work.source_id = -1;
        work.rw_flag = 0;
        work.link_mode = info->link_mode;
        work.link_id = info->local_link_id;
        work.status = 0;
        work.ext_param1 = 0;
        work.ext_param2 = 0;

        QMap<int, QMap<int, QList<RW_VAR>>> groups;
        for (const HostReadVar &h : std::as_const(*descriptors)) {
            const int addr = StringAddressToInt(h.reg_kind, h.address_text);
            if (addr < 0)
                continue;
            work.name_text = h.name_text;
            work.address_text = h.address_text;
            work.station = info->station_from_address == 0 ? info->default_station : h.station;
            work.start_addr = addr;
            work.count = h.count;
            work.reg_kind = h.reg_kind;
            Communication_Protocol::update_rw_var(&work);
            groups[work.station][work.reg_kind].append(work);
        }

        for (auto st = groups.begin(); st != groups.end(); ++st) {
            for (auto kind = st->begin(); kind != st->end(); ++kind) {
                QList<RW_VAR> &group = kind.value(); // the map is ours: sort it in place
                Bubble_Sort(&group);
                if (group.isEmpty())
                    continue;
                BitVarReCreat(&group, BlockLimitForKind(group.first().reg_kind, n));
            }
        }
    }
    return locked_size(d.read_list);
}
