// Bubble_Sort must put a group in exactly the order of the exchange sort the
// read-list grouping relies on: passes i = 0 .. size-2, each walking j from
// the end down to i + 1 and swapping neighbours only when entry j has a
// strictly smaller start_addr than entry j - 1. Equal addresses keep their
// order, which decides which record opens a merged request.
#include <gtest/gtest.h>

#include "driver_test_support.h"

#include <climits>
#include <map>
#include <random>
#include <vector>

namespace {

void reference_exchange_sort(QList<RW_VAR> *list)
{
    const int size = list->size();
    if (size < 2)
        return;
    for (int i = 0; i <= size - 2; ++i) {
        for (int j = size - 1; j >= i + 1; --j) {
            if ((*list)[j].start_addr < (*list)[j - 1].start_addr)
                list->swapItemsAt(j, j - 1);
        }
    }
}

QList<RW_VAR> random_list(std::mt19937 &rng, int size, int distinct_addresses, bool wide)
{
    std::uniform_int_distribution<int> pick(0, distinct_addresses - 1);
    std::uniform_int_distribution<int> any(INT_MIN, INT_MAX);
    QList<RW_VAR> list;
    for (int k = 0; k < size; ++k) {
        RW_VAR r;
        // A few addresses drawn from the whole signed range, the rest from a
        // small set so that duplicates are frequent.
        r.start_addr = wide && k % 4 == 0 ? any(rng) : pick(rng) - distinct_addresses / 3;
        r.count = k;
        r.source_id = k; // identity of the entry
        list.append(r);
    }
    return list;
}

void expect_same_order(const QList<RW_VAR> &got, const QList<RW_VAR> &want, const std::string &what)
{
    ASSERT_EQ(got.size(), want.size()) << what;
    for (int k = 0; k < got.size(); ++k) {
        ASSERT_EQ(got.at(k).source_id, want.at(k).source_id) << what << " position " << k;
        ASSERT_EQ(got.at(k).start_addr, want.at(k).start_addr) << what << " position " << k;
    }
}

TEST(SortEquivalence, EmptyAndSingleEntryLists)
{
    QList<RW_VAR> empty;
    Bubble_Sort(&empty);
    EXPECT_TRUE(empty.isEmpty());

    RW_VAR r;
    r.start_addr = -4;
    r.source_id = 17;
    QList<RW_VAR> one = {r};
    Bubble_Sort(&one);
    ASSERT_EQ(one.size(), 1);
    EXPECT_EQ(one.at(0).source_id, 17);
    EXPECT_EQ(one.at(0).start_addr, -4);
}

TEST(SortEquivalence, SameOrderAsTheExchangeSortOnRandomLists)
{
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<int> size_of(0, 60);
    int checked = 0;
    for (int round = 0; round < 2000; ++round) {
        const int size = round < 3 ? round : size_of(rng); // 0, 1 and 2 entries first
        const int distinct = 1 + round % 12;
        const bool wide = round % 5 == 0;
        const QList<RW_VAR> input = random_list(rng, size, distinct, wide);
        QList<RW_VAR> got = input;
        QList<RW_VAR> want = input;
        Bubble_Sort(&got);
        reference_exchange_sort(&want);
        expect_same_order(got, want, "round " + std::to_string(round));
        if (HasFatalFailure())
            return;
        ++checked;
    }
    EXPECT_EQ(checked, 2000);
}

TEST(SortEquivalence, AlreadySortedReversedAndAllEqual)
{
    for (int size : {2, 3, 17, 64}) {
        QList<RW_VAR> ascending, descending, equal;
        for (int k = 0; k < size; ++k) {
            RW_VAR r;
            r.source_id = k;
            r.start_addr = k;
            ascending.append(r);
            r.start_addr = size - k;
            descending.append(r);
            r.start_addr = 5;
            equal.append(r);
        }
        for (QList<RW_VAR> *input : {&ascending, &descending, &equal}) {
            QList<RW_VAR> got = *input;
            QList<RW_VAR> want = *input;
            Bubble_Sort(&got);
            reference_exchange_sort(&want);
            expect_same_order(got, want, "size " + std::to_string(size));
        }
        // All equal: nothing moves.
        QList<RW_VAR> got = equal;
        Bubble_Sort(&got);
        for (int k = 0; k < size; ++k)
            EXPECT_EQ(got.at(k).source_id, k);
    }
}

// The rebuild of the cyclic read list must order each station-and-kind
// group exactly as the exchange sort does. With one unit per request (word
// kinds get a limit of 1) no record is merged or split: the list holds one
// entry per distinct address, opened by the first record of that address
// in sorted order and carrying the largest count among them. The record's
// name tells which descriptor opened an entry, so a different order of
// equal addresses shows up.
std::vector<RW_VAR> expected_limit_one_list(const QList<HostReadVar> &hosts, const ComInfo &info)
{
    std::map<int, std::map<int, QList<RW_VAR>>> groups;
    for (const HostReadVar &h : hosts) {
        RW_VAR r;
        r.start_addr = StringAddressToInt(h.reg_kind, h.address_text);
        if (r.start_addr < 0)
            continue;
        r.reg_kind = h.reg_kind;
        r.count = h.count;
        r.station = info.station_from_address == 0 ? info.default_station : h.station;
        r.name_text = h.name_text;
        Communication_Protocol::update_rw_var(&r);
        groups[r.station][r.reg_kind].append(r);
    }
    std::vector<RW_VAR> out;
    for (auto &station : groups) {
        for (auto &kind : station.second) {
            QList<RW_VAR> group = kind.second;
            reference_exchange_sort(&group);
            for (int k = 0; k < group.size(); ++k) {
                if (k > 0 && group.at(k).start_addr == out.back().start_addr) {
                    out.back().count = std::max(out.back().count, group.at(k).count);
                    continue;
                }
                out.push_back(group.at(k));
            }
        }
    }
    return out;
}

QList<HostReadVar> random_descriptors(std::mt19937 &rng, int size, int distinct)
{
    // Word kinds only (bit kinds would get a limit of 2); kinds 9..14 scale
    // their address, and addresses past 2^29 wrap to negative words.
    static const int kinds[] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 20};
    std::uniform_int_distribution<int> kind_of(0, int(sizeof kinds / sizeof kinds[0]) - 1);
    std::uniform_int_distribution<int> station_of(0, 3);
    std::uniform_int_distribution<int> pick(0, distinct - 1);
    std::uniform_int_distribution<int> count_of(-1, 6);
    QList<HostReadVar> hosts;
    for (int k = 0; k < size; ++k) {
        HostReadVar h;
        h.reg_kind = quint8(kinds[kind_of(rng)]);
        h.station = quint8(station_of(rng) * 60);
        const int address = pick(rng) % 4 == 3 ? 1000000000 + pick(rng) : pick(rng);
        if (h.reg_kind == 5)
            h.address_text = QString::number(address / 8) + QLatin1Char('.') + QString::number(address % 8);
        else
            h.address_text = QString::number(address);
        h.name_text = QString::number(k);
        h.count = count_of(rng);
        hosts.append(h);
    }
    return hosts;
}

TEST(SortEquivalence, ReadListRebuildOrdersGroupsLikeTheExchangeSort)
{
    ComInfo info = make_com_info();
    std::mt19937 rng(777u);
    std::uniform_int_distribution<int> size_of(0, 700);
    for (int round = 0; round < 120; ++round) {
        info.max_read_units = 1;
        info.station_from_address = round % 3 == 0 ? 0 : 1;
        info.default_station = 9;
        reset_driver(&info);
        const int size = round < 2 ? round : size_of(rng);
        QList<HostReadVar> hosts = random_descriptors(rng, size, 1 + round % 40);
        const std::vector<RW_VAR> want = expected_limit_one_list(hosts, info);
        ASSERT_EQ(ReCreatReadVarList(&hosts), int(want.size())) << "round " << round;
        const QList<RW_VAR> &got = PLC_driver.read_list;
        for (int k = 0; k < got.size(); ++k) {
            const RW_VAR &w = want[size_t(k)];
            ASSERT_EQ(got.at(k).name_text, w.name_text) << "round " << round << " entry " << k;
            ASSERT_EQ(got.at(k).station, w.station) << "round " << round << " entry " << k;
            ASSERT_EQ(got.at(k).reg_kind, w.reg_kind) << "round " << round << " entry " << k;
            ASSERT_EQ(got.at(k).start_addr, w.start_addr) << "round " << round << " entry " << k;
            ASSERT_EQ(got.at(k).count, w.count) << "round " << round << " entry " << k;
        }
    }
    reset_driver(nullptr);
}

} // namespace
