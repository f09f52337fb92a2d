// Today's read-list rebuild with its radix sort switchable (else
// std::stable_sort of the same items), for measuring what it buys beside
// the earlier rebuild (legacy_read_list.h). A copy of the driver's code;
// benchmark code only.
#ifndef PLCDRIVER_CURRENT_READ_LIST_H
#define PLCDRIVER_CURRENT_READ_LIST_H

#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <QList>
#include <QVector>

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>
#include <vector>

namespace current {

namespace detail {
// What merging needs of one record of a group: its group, the units it asks
// for, and where the whole record is found (a position in the caller's list).
struct ReadItem {
    qint32 station;
    qint32 reg_kind;
    qint32 start_addr;
    qint32 count;
    int index;
};

// Appends copies of proto to out, covering `units` units from start in
// pieces of at most limit units. Starts wrap at the top of the 32-bit range.
template <typename List>
void append_pieces(List &out, const typename List::value_type &proto, qint64 start, qint64 units, qint64 limit)
{
    for (; units > 0; start += limit, units -= limit) {
        out.append(proto);
        out.last().start_addr = qint32(quint32(start));
        out.last().count = qint32(std::min(units, limit));
    }
}

// A limit of 1: records are neither merged nor split. Of records at the same
// address the first opens the request and the largest count is read.
template <typename List, typename RecordOf>
void keep_largest_per_address(const ReadItem *group, int size, List &out, const RecordOf &record_of)
{
    out.append(record_of(group[0]));
    for (int i = 1; i < size; ++i) {
        if (group[i].start_addr != out.last().start_addr)
            out.append(record_of(group[i]));
        else if (group[i].count > out.last().count)
            out.last().count = group[i].count;
    }
}

// The grouping rule: merges and splits one group, in address order, into
// requests appended to out, whose last entry is the current request. The
// requests are records (RW_VAR) or, while the rebuild plans, items; every
// request is made from record_of(item), the record an item stands for. A
// record that starts less than limit units after the current request's
// start joins it (the units between are read along) and the request grows
// to cover it; what grows past the limit goes as copies of the request. Any
// other record opens a request of its own, split into pieces of at most
// limit units.
template <typename List, typename RecordOf>
void merge_group(const ReadItem *group, int size, int block_limit, List &out, const RecordOf &record_of)
{
    if (size <= 0)
        return;
    const qint64 limit = std::max(block_limit, 1);
    if (limit == 1) {
        keep_largest_per_address(group, size, out, record_of);
        return;
    }
    // Start and length of the current request, in 64 bits so that sums near
    // the top of the range do not overflow.
    qint64 S = 0, L = 0;
    for (int i = 0; i < size; ++i) {
        const qint64 A = group[i].start_addr;
        const qint64 C = group[i].count;
        // With no request at all to grow (a first record of count 0 in an
        // empty list), a record opens its own.
        if (i == 0 || A >= S + limit || out.isEmpty()) {
            append_pieces(out, record_of(group[i]), A, C, limit);
        } else if (A + C > S + L) {
            const qint64 needed = A + C - S;
            out.last().count = qint32(std::min(needed, limit));
            if (needed > limit) {
                const typename List::value_type request = out.last(); // a copy: appending may move the entry
                append_pieces(out, request, S + limit, needed - limit, limit);
            }
        }
        // A group whose first record asks for nothing goes on from the last
        // request of the list, which may be another group's.
        if (!out.isEmpty()) {
            S = out.last().start_addr;
            L = out.last().count;
        }
    }
}

// The record every request of a rebuild starts from: fields the runtime's
// descriptors do not carry.
RW_VAR rebuild_prototype(const ComInfo &info)
{
    RW_VAR proto;
    proto.source_type = 0;
    proto.source_id = -1;
    proto.rw_flag = 0;
    proto.link_mode = info.link_mode;
    proto.link_id = info.local_link_id;
    proto.status = 0;
    proto.ext_param1 = 0;
    proto.ext_param2 = 0;
    return proto;
}

// Every descriptor whose address parses, converted to the units of its kind
// and to the kind the request uses, in the runtime's order.
std::vector<ReadItem> converted_items(const QList<HostReadVar> &descriptors, const ComInfo &info)
{
    std::vector<ReadItem> items;
    items.reserve(size_t(descriptors.size()));
    RW_VAR r;
    for (int i = 0; i < descriptors.size(); ++i) {
        const HostReadVar &h = descriptors.at(i);
        const int addr = StringAddressToInt(h.reg_kind, h.address_text);
        if (addr < 0)
            continue;
        r.station = info.station_from_address == 0 ? info.default_station : h.station;
        r.start_addr = addr;
        r.count = h.count;
        r.reg_kind = h.reg_kind;
        Communication_Protocol::update_rw_var(&r);
        items.push_back({r.station, r.reg_kind, r.start_addr, r.count, i});
    }
    return items;
}

// Byte b (0: the lowest) of an item's sort key: its station, kind and start
// address, most significant first, each a 32-bit number ordered as the
// signed field is.
inline quint32 key_byte(const ReadItem &item, int b)
{
    const qint32 fields[3] = {item.start_addr, item.reg_kind, item.station};
    return ((quint32(fields[b / 4]) ^ 0x80000000u) >> (8 * (b % 4))) & 0xFFu;
}

// Sorts the items by station, kind and start address; equal keys keep their
// order. A least-significant-digit radix sort: one stable counting pass per
// key byte, skipping the bytes every item has alike. It takes time in
// proportion to the items, where a comparison sort of long lists is slowed
// by one branch per comparison that no predictor can guess.
void sort_items(std::vector<ReadItem> &items)
{
    if (items.size() < 2)
        return;
    const int key_bytes = 12;
    std::vector<std::array<quint32, 256>> counts(key_bytes); // zeroed
    for (const ReadItem &item : items)
        for (int b = 0; b < key_bytes; ++b)
            ++counts[size_t(b)][key_byte(item, b)];
    std::vector<ReadItem> sorted(items.size());
    for (int b = 0; b < key_bytes; ++b) {
        std::array<quint32, 256> &at = counts[size_t(b)];
        if (at[key_byte(items[0], b)] == items.size())
            continue; // every item has this byte alike: the pass would move nothing
        quint32 offset = 0;
        for (quint32 &c : at)
            offset += std::exchange(c, offset);
        for (const ReadItem &item : items)
            sorted[at[key_byte(item, b)]++] = item;
        items.swap(sorted);
    }
}

bool same_group(const ReadItem &a, const ReadItem &b)
{
    return a.station == b.station && a.reg_kind == b.reg_kind;
}

// The planned requests as records, each a copy of the descriptor's record
// it stands for.
QList<RW_VAR> records_of(const QVector<ReadItem> &plan, const QList<HostReadVar> &descriptors, const RW_VAR &proto)
{
    QList<RW_VAR> records;
    records.reserve(plan.size());
    for (const ReadItem &p : plan) {
        const HostReadVar &h = descriptors.at(p.index);
        records.append(proto);
        RW_VAR &r = records.last();
        r.name_text = h.name_text;
        r.address_text = h.address_text;
        r.station = p.station;
        r.reg_kind = p.reg_kind;
        r.start_addr = p.start_addr;
        r.count = p.count;
    }
    return records;
}
} // namespace detail
using namespace detail;

inline int rebuild_with(QList<HostReadVar> *descriptors, bool radix)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        d.read_list = QList<RW_VAR>();
        ComInfo *info = d.com_info;
        // Nothing to read, or no communication-info record to read it with:
        // the list is left empty.
        if (!descriptors || descriptors->isEmpty() || !info)
            return 0;
        d.cycle_count = 0;
        info->cycle_done = 0;

        // One stable sort by station, kind and address puts the items in the
        // order of grouping them per station and kind in the runtime's order
        // and sorting each group with Bubble_Sort: groups ascending, equal
        // addresses in the runtime's order.
        std::vector<ReadItem> items = converted_items(*descriptors, *info);
        if (radix)
            sort_items(items);
        else
            std::stable_sort(items.begin(), items.end(), [](const ReadItem &a, const ReadItem &b) {
                return std::tie(a.station, a.reg_kind, a.start_addr) < std::tie(b.station, b.reg_kind, b.start_addr);
            });

        // Merge and split each group into planned requests, then make each
        // request a record once: merging whole records would copy them and
        // their texts' share counts at every step.
        QVector<ReadItem> plan;
        const int n = effective_max_units();
        for (size_t first = 0, end = 0; first < items.size(); first = end) {
            for (end = first + 1; end < items.size() && same_group(items[end], items[first]);)
                ++end;
            merge_group(&items[first], int(end - first), BlockLimitForKind(items[first].reg_kind, n), plan,
                        [](const ReadItem &item) { return item; });
        }
        d.read_list = records_of(plan, *descriptors, rebuild_prototype(*info));
    }
    DriverLock lock(d.list_mutex);
    return d.read_list.size();
}

} // namespace current

#endif
