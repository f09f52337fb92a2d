// Fuzz target: ReCreatReadVarList on arbitrary descriptor lists.
//
// Input layout: max_read_units (i16: 0, negative and above 120 occur),
// settings byte (bit 0 station_from_address, bit 1 link_mode), default
// station, local_link_id (i8), then descriptors until the input ends (at
// most 1024): kind (raw byte 0..254), station, address text (fuzz_common.h
// grammar, raw bytes included), count (12-bit signed, -2048..2047: the
// target checks argument handling and grouping, not sheer size, and a few
// thousand units per descriptor keep one input short); or a run: 0xFF, kind,
// station, base address (u16), step (u8), copies (u8), count (i8), order
// (bit 0: descending), which makes copies descriptors at base + i x step
// (bit kinds as byte.bit of that bit number).
//
// Invariants:
//   - the result equals read_list's size; an empty list gives 0;
//   - entries are ordered by station, then kind (non-decreasing);
//   - every entry has status 0, a converted kind (never 5..14) and, when
//     station_from_address is 0, the default station;
//   - for a group whose block limit is not 1, every entry's count is at
//     least 1 and at most the limit of its kind (2N for kinds 0 and 1, N for
//     the others, N = max_read_units taken as at least 1). One documented
//     exception: a group whose first record (after sorting) has a count of
//     0 or less merges its next records into the last entry of read_list,
//     which belongs to the previous group; such an entry is then bounded by
//     the larger limit of the two groups;
//   - the list equals the one a step-by-step rendering of the documented
//     rebuild gives (groups in the runtime's order, exchange sort, merge and
//     split; reference_read_list in read_list_reference.h), field by field;
//   - without that exception and away from 32-bit address wrap-around: the
//     entries of one station and kind have strictly ascending start
//     addresses, and every unit a record asks for is read by an entry of its
//     station and kind (limit 1: an entry at the record's address whose
//     count is at least the record's).
#include "fuzz_common.h"
#include "read_list_reference.h"

#include <QList>

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace {

ComInfo g_info;

// Block limit of a converted kind, as the driver documents it.
int limit_of(int kind, int n)
{
    if (kind == 0 || kind == 1)
        return 2 * n;
    return n;
}

struct Record {
    int64_t start;
    int64_t count;
};

bool same_entry(const RW_VAR &a, const RW_VAR &b)
{
    return a.source_type == b.source_type && a.source_id == b.source_id && a.rw_flag == b.rw_flag &&
           a.link_mode == b.link_mode && a.link_id == b.link_id && a.status == b.status && a.name_text == b.name_text &&
           a.address_text == b.address_text && a.reg_kind == b.reg_kind && a.start_addr == b.start_addr &&
           a.station == b.station && a.count == b.count && a.ext_param1 == b.ext_param1 &&
           a.ext_param2 == b.ext_param2 && a.data == b.data;
}

bool same_list(const QList<RW_VAR> &a, const QList<RW_VAR> &b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i)
        if (!same_entry(a.at(i), b.at(i)))
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in(data, size);
    Communication_Protocol &d = PLC_driver;

    g_info = make_com_info();
    g_info.max_read_units = in.i16();
    const uint8_t settings = in.u8();
    g_info.station_from_address = settings & 1;
    g_info.link_mode = (settings >> 1) & 1;
    g_info.default_station = in.u8();
    g_info.local_link_id = in.i8();
    reset_driver(&g_info);
    const int n = std::max(1, g_info.max_read_units); // after SetComInfo's clamp

    QList<HostReadVar> descriptors;
    while (!in.empty() && descriptors.size() < 1024) {
        const uint8_t first = in.u8();
        if (first == 0xFF) {
            // A run: copies of one descriptor at evenly spaced addresses,
            // ascending or descending, so that a short input makes long
            // lists (up to 1024 descriptors) for the sort and the merge.
            const uint8_t kind = in.u8();
            const uint8_t station = in.u8();
            const int base = in.u16();
            const int step = in.u8();
            const int copies = in.u8();
            const int count = in.i8();
            const bool descending = in.flag();
            const bool bit_kind = kind == 0 || kind == 1 || kind == 5;
            for (int i = 0; i < copies && descriptors.size() < 1024; ++i) {
                const int value = base + step * (descending ? copies - 1 - i : i);
                HostReadVar h;
                h.reg_kind = kind;
                h.station = station;
                h.address_text =
                    bit_kind ? QStringLiteral("%1.%2").arg(value >> 3).arg(value & 7) : QString::number(value);
                h.name_text = QStringLiteral("d%1").arg(descriptors.size());
                h.count = count;
                descriptors.append(h);
            }
            continue;
        }
        HostReadVar h;
        h.reg_kind = first;
        h.station = in.u8();
        h.address_text = fuzz_address_text(in);
        h.name_text = QStringLiteral("d%1").arg(descriptors.size());
        h.count = int16_t(in.u16() << 4) >> 4;
        descriptors.append(h);
    }

    const int result = ReCreatReadVarList(&descriptors);
    const QList<RW_VAR> &list = d.read_list;
    FUZZ_CHECK(result == list.size());

    const QList<RW_VAR> expected = reference_read_list(descriptors, g_info, n);
    FUZZ_CHECK(same_list(list, expected));
    if (descriptors.isEmpty())
        FUZZ_CHECK(result == 0);

    // Rebuilt over the list just made, from the same descriptors and from a
    // part of them with fresh texts, the list is what a rebuild from
    // nothing gives.
    FUZZ_CHECK(ReCreatReadVarList(&descriptors) == expected.size());
    FUZZ_CHECK(same_list(list, expected));
    QList<HostReadVar> part = descriptors.mid(descriptors.size() / 3);
    for (HostReadVar &h : part)
        h.name_text = QStringLiteral("p") + h.name_text;
    const QList<RW_VAR> expected_part = reference_read_list(part, g_info, n);
    FUZZ_CHECK(ReCreatReadVarList(&part) == expected_part.size());
    FUZZ_CHECK(same_list(list, expected_part));
    ReCreatReadVarList(&descriptors);

    // The converted records per (station, kind) group, in the host's order,
    // as the driver's documented conversion makes them.
    std::map<std::pair<int, int>, std::vector<Record>> groups;
    bool wraps = false;
    for (const auto &station : group_descriptors(descriptors, g_info)) {
        for (const auto &kind : station.second) {
            for (const RW_VAR &v : kind.second) {
                groups[{v.station, v.reg_kind}].push_back({v.start_addr, v.count});
                if (int64_t(v.start_addr) + v.count + 2 * int64_t(limit_of(v.reg_kind, n)) > INT32_MAX)
                    wraps = true;
            }
        }
    }
    if (groups.empty())
        FUZZ_CHECK(result == 0);

    // A later group whose first record after the (stable) sort asks for no
    // units extends the previous group's last entry.
    bool cross_group = false;
    int max_limit = 0;
    bool first_group = true;
    for (auto &g : groups) {
        std::stable_sort(g.second.begin(), g.second.end(),
                         [](const Record &a, const Record &b) { return a.start < b.start; });
        max_limit = std::max(max_limit, limit_of(g.first.second, n));
        if (!first_group && g.second.front().count <= 0)
            cross_group = true;
        first_group = false;
    }

    for (int i = 0; i < list.size(); ++i) {
        const RW_VAR &e = list.at(i);
        FUZZ_CHECK(e.status == 0);
        FUZZ_CHECK(e.reg_kind < 5 || e.reg_kind > 14);
        if (g_info.station_from_address == 0)
            FUZZ_CHECK(e.station == g_info.default_station);
        FUZZ_CHECK(groups.count({e.station, e.reg_kind}) == 1);
        if (i > 0) {
            const RW_VAR &prev = list.at(i - 1);
            FUZZ_CHECK(prev.station < e.station || (prev.station == e.station && prev.reg_kind <= e.reg_kind));
            if (!cross_group && !wraps && prev.station == e.station && prev.reg_kind == e.reg_kind)
                FUZZ_CHECK(prev.start_addr < e.start_addr);
        }
        const int limit = limit_of(e.reg_kind, n);
        if (limit != 1) {
            FUZZ_CHECK(e.count >= 1);
            FUZZ_CHECK(e.count <= (cross_group ? std::max(limit, max_limit) : limit));
        }
    }

    // Coverage: every unit a record asks for is read by an entry of its group
    // (walked for short lists; long ones rest on the reference comparison).
    if (!cross_group && !wraps && descriptors.size() <= 64) {
        for (const auto &g : groups) {
            const int limit = limit_of(g.first.second, n);
            std::vector<Record> entries;
            for (const RW_VAR &e : list)
                if (e.station == g.first.first && e.reg_kind == g.first.second)
                    entries.push_back({e.start_addr, e.count});
            for (const Record &r : g.second) {
                if (limit == 1) {
                    bool found = false;
                    for (const Record &e : entries)
                        found = found || (e.start == r.start && e.count >= r.count);
                    FUZZ_CHECK(found);
                    continue;
                }
                // Entries are ascending and disjoint: walk them from the
                // record's start.
                int64_t at = r.start;
                const int64_t end = r.start + r.count;
                for (const Record &e : entries)
                    if (e.start <= at && at < e.start + e.count)
                        at = e.start + e.count;
                FUZZ_CHECK(at >= end);
            }
        }
    }
    return 0;
}
