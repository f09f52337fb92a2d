// Two renderings of the read-list rebuild that the tests, the fuzz target and
// the benchmark check the driver's ReCreatReadVarList against:
//   - plain_read_list: the rebuild done by the driver's named routines, step
//     by step: group the records per station and kind in the runtime's
//     order, order each group with Bubble_Sort, merge it with BitVarReCreat;
//   - reference_read_list: the same rules written out here once more,
//     independently of the driver's merge code (an exchange sort, then the
//     merge and split of each group).
#ifndef PLCDRIVER_READ_LIST_REFERENCE_H
#define PLCDRIVER_READ_LIST_REFERENCE_H

#include "Communication_Protocol.h"
#include "Driver_Internal.h"

#include <QList>

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

// groups[station][kind]: the records of one station and kind.
using ReadGroups = std::map<int, std::map<int, QList<RW_VAR>>>;

// Every descriptor with a parsable address as a record in the units of its
// kind, grouped per station and kind, each group in the runtime's order.
inline ReadGroups group_descriptors(const QList<HostReadVar> &hosts, const ComInfo &info)
{
    ReadGroups groups;
    for (const HostReadVar &h : hosts) {
        const int addr = StringAddressToInt(h.reg_kind, h.address_text);
        if (addr < 0)
            continue;
        RW_VAR r;
        r.source_id = -1;
        r.link_mode = info.link_mode;
        r.link_id = info.local_link_id;
        r.name_text = h.name_text;
        r.address_text = h.address_text;
        r.station = info.station_from_address == 0 ? info.default_station : h.station;
        r.start_addr = addr;
        r.count = h.count;
        r.reg_kind = h.reg_kind;
        Communication_Protocol::update_rw_var(&r);
        groups[r.station][r.reg_kind].append(r);
    }
    return groups;
}

// The rebuild by the named routines, into PLC_driver.read_list (replaced);
// info must be the driver's communication-info record. Returns the size.
inline int plain_read_list(const QList<HostReadVar> &hosts, const ComInfo &info)
{
    PLC_driver.read_list = QList<RW_VAR>();
    for (auto &station : group_descriptors(hosts, info)) {
        for (auto &kind : station.second) {
            QList<RW_VAR> &group = kind.second;
            Bubble_Sort(&group);
            BitVarReCreat(&group, BlockLimitForKind(group.first().reg_kind, effective_max_units()));
        }
    }
    return PLC_driver.read_list.size();
}

// The per-request limit of a converted kind (n: max_read_units, at least 1).
inline int reference_block_limit(int kind, int n)
{
    return (kind == 0 || kind == 1)     ? 2 * n
           : (kind >= 9 && kind <= 11)  ? std::min(n, 50)
           : (kind >= 12 && kind <= 14) ? std::min(n, 25)
                                        : n;
}

// Exchange sort: ascending start_addr, equal addresses keep their order.
// Long groups take a stable sort, which orders exactly alike, so that a
// large list is checked in reasonable time.
inline void reference_sort(QList<RW_VAR> &g)
{
    if (g.size() > 64) {
        std::stable_sort(g.begin(), g.end(),
                         [](const RW_VAR &a, const RW_VAR &b) { return a.start_addr < b.start_addr; });
        return;
    }
    for (int i = 0; i + 1 < g.size(); ++i)
        for (int j = g.size() - 1; j > i; --j)
            if (g[j].start_addr < g[j - 1].start_addr)
                std::swap(g[j], g[j - 1]);
}

// Limit 1: no merging or splitting; the first record of an address opens
// its entry and the largest count of that address is read.
inline void reference_limit_one(const QList<RW_VAR> &g, QList<RW_VAR> &out)
{
    out.append(g.front());
    int addr = g.front().start_addr, count = g.front().count;
    for (int i = 1; i < g.size(); ++i) {
        if (g[i].start_addr != addr) {
            out.append(g[i]);
            addr = g[i].start_addr;
            count = g[i].count;
        } else if (g[i].count > count) {
            out.last().count = g[i].count;
            count = g[i].count;
        }
    }
}

// Other limits: a record starting less than limit units after the current
// request's start grows it (past the limit: copies of the request), any
// other opens its own request in pieces of at most limit units.
inline void reference_merge(const QList<RW_VAR> &g, int limit, QList<RW_VAR> &out)
{
    auto pieces = [&out, limit](RW_VAR proto, int64_t start, int64_t left) {
        for (; left > 0; start += limit, left -= limit) {
            proto.start_addr = int32_t(start);
            proto.count = int32_t(std::min<int64_t>(left, limit));
            out.append(proto);
        }
    };
    int64_t S = 0, L = 0;
    for (int i = 0; i < g.size(); ++i) {
        const int64_t A = g[i].start_addr, C = g[i].count;
        // With no entry at all to extend, a record opens its own request.
        if (i == 0 || A >= S + limit || out.isEmpty()) {
            pieces(g[i], A, C);
        } else if (A + C > S + L) {
            const int64_t E = A + C - S;
            out.last().count = int32_t(std::min<int64_t>(E, limit));
            if (E > limit)
                pieces(out.last(), S + limit, E - limit);
        }
        if (!out.isEmpty()) {
            S = out.last().start_addr;
            L = out.last().count;
        }
    }
}

// The rebuilt list as the documented rules give it, for descriptors handed
// to a driver with the communication-info record info; n is max_read_units
// as the driver takes it (at least 1).
inline QList<RW_VAR> reference_read_list(const QList<HostReadVar> &descriptors, const ComInfo &info, int n)
{
    ReadGroups groups = group_descriptors(descriptors, info);
    QList<RW_VAR> out;
    for (auto &station : groups) {
        for (auto &kind : station.second) {
            QList<RW_VAR> &g = kind.second;
            reference_sort(g);
            const int limit = reference_block_limit(g.front().reg_kind, n);
            if (limit == 1)
                reference_limit_one(g, out);
            else
                reference_merge(g, limit, out);
        }
    }
    return out;
}

#endif
