// Building the cyclic read list: ReCreatReadVarList groups the runtime's
// descriptors by station and kind, Bubble_Sort orders a group by address,
// BitVarReCreat merges and splits it into requests; WhetherGroup is the
// stand-alone splitting helper.
#include <gtest/gtest.h>

#include "benchmark_read_lists.h"
#include "driver_test_support.h"
#include "read_list_reference.h"
#include "record_expectations.h"

#include <climits>
#include <map>
#include <random>
#include <vector>

namespace {

HostReadVar host(int kind, int station, const char *address, int count, const char *name)
{
    HostReadVar h;
    h.host_flag = 0xAA;
    h.reg_kind = quint8(kind);
    h.station = quint8(station);
    h.host_byte = 0x55;
    h.host_value = 1234;
    h.address_text = QString::fromLatin1(address);
    h.name_text = QString::fromLatin1(name);
    h.count = count;
    return h;
}

// What one read_list entry must hold.
struct Entry {
    int station;
    int kind;
    int start;
    int count;
    const char *name;    // name_text of the record that opened the request
    const char *address; // its address text
};

class ReadListGrouping : public ::testing::Test {
protected:
    void SetUp() override
    {
        info_ = make_com_info();
        info_.link_mode = 1;
        info_.local_link_id = 7;
        reset_driver(&info_);
    }

    int rebuild(QList<HostReadVar> hosts) { return ReCreatReadVarList(&hosts); }

    // Rebuilds from hosts and compares every field of every entry with the
    // plain procedure (group the records per station and kind in the
    // runtime's order, order each group with Bubble_Sort and merge it with
    // BitVarReCreat) and with the reference rendering of the same rules.
    void expect_rebuild_matches_plain_procedure(const QList<HostReadVar> &hosts, const std::string &label)
    {
        plain_read_list(hosts, info_);
        const QList<RW_VAR> plain = PLC_driver.read_list;
        const QList<RW_VAR> reference = reference_read_list(hosts, info_, effective_max_units());

        ASSERT_EQ(rebuild(hosts), plain.size()) << label;
        expect_same_entries(PLC_driver.read_list, plain, label + " against the named routines");
        expect_same_entries(PLC_driver.read_list, reference, label + " against the reference");
    }

    static void expect_same_entries(const QList<RW_VAR> &got, const QList<RW_VAR> &want, const std::string &label)
    {
        ASSERT_EQ(got.size(), want.size()) << label;
        for (int i = 0; i < got.size(); ++i) {
            const RW_VAR &g = got.at(i);
            const RW_VAR &w = want.at(i);
            const std::string where = label + " entry " + std::to_string(i);
            ASSERT_EQ(g.name_text, w.name_text) << where;
            ASSERT_EQ(g.address_text, w.address_text) << where;
            ASSERT_EQ(g.station, w.station) << where;
            ASSERT_EQ(g.reg_kind, w.reg_kind) << where;
            ASSERT_EQ(g.start_addr, w.start_addr) << where;
            ASSERT_EQ(g.count, w.count) << where;
            ASSERT_EQ(g.source_type, w.source_type) << where;
            ASSERT_EQ(g.source_id, w.source_id) << where;
            ASSERT_EQ(g.link_mode, w.link_mode) << where;
            ASSERT_EQ(g.link_id, w.link_id) << where;
            ASSERT_EQ(g.rw_flag, 0) << where;
            ASSERT_EQ(g.status, 0) << where;
            ASSERT_EQ(g.ext_param1, 0) << where;
            ASSERT_EQ(g.ext_param2, 0) << where;
        }
    }

    // Checks the whole read_list, entry by entry, including the fields the
    // rebuild sets on every record.
    void expect_read_list(const std::vector<Entry> &expected)
    {
        const QList<RW_VAR> &list = PLC_driver.read_list;
        ASSERT_EQ(list.size(), int(expected.size()));
        for (int i = 0; i < list.size(); ++i) {
            const RW_VAR &r = list.at(i);
            const Entry &e = expected[size_t(i)];
            EXPECT_EQ(r.station, e.station) << "entry " << i;
            EXPECT_EQ(r.reg_kind, e.kind) << "entry " << i;
            EXPECT_EQ(r.start_addr, e.start) << "entry " << i;
            EXPECT_EQ(r.count, e.count) << "entry " << i;
            EXPECT_EQ(r.name_text, QString::fromLatin1(e.name)) << "entry " << i;
            EXPECT_EQ(r.address_text, QString::fromLatin1(e.address)) << "entry " << i;
            EXPECT_EQ(r.source_type, 0) << "entry " << i;
            EXPECT_EQ(r.source_id, -1) << "entry " << i;
            EXPECT_EQ(r.rw_flag, 0) << "entry " << i;
            EXPECT_EQ(r.link_mode, 1) << "entry " << i;
            EXPECT_EQ(r.link_id, 7) << "entry " << i;
            EXPECT_EQ(r.status, 0) << "entry " << i;
            EXPECT_EQ(r.ext_param1, 0) << "entry " << i;
            EXPECT_EQ(r.ext_param2, 0) << "entry " << i;
            EXPECT_TRUE(r.data.isEmpty()) << "entry " << i;
        }
    }

    ComInfo info_;
};

RW_VAR rec(int start, int count, int id)
{
    RW_VAR r;
    r.reg_kind = 2;
    r.station = 1;
    r.start_addr = start;
    r.count = count;
    r.source_id = id;
    return r;
}

// Descriptors of every kind over a few stations, with duplicate addresses
// and counts that make merges and splits; a few unparsable addresses.
QList<HostReadVar> random_hosts(std::mt19937 &rng, int n)
{
    std::uniform_int_distribution<int> kind(0, 14), station(1, 4), address(0, 300), count(-1, 70), odd(0, 19);
    QList<HostReadVar> hosts;
    for (int i = 0; i < n; ++i) {
        const int k = kind(rng);
        const int a = address(rng);
        QString text = address_text_for(k, a);
        if (odd(rng) == 0)
            text = QStringLiteral("x") + text;
        HostReadVar h = host(k, station(rng), "", count(rng), "");
        h.address_text = text;
        h.name_text = QStringLiteral("tag") + QString::number(i);
        hosts.append(h);
    }
    return hosts;
}

// The read list a rebuild makes when there is no list before it.
QList<RW_VAR> fresh_rebuild(QList<HostReadVar> hosts)
{
    const QList<RW_VAR> kept = PLC_driver.read_list;
    PLC_driver.read_list = QList<RW_VAR>();
    ReCreatReadVarList(&hosts);
    QList<RW_VAR> fresh = PLC_driver.read_list;
    PLC_driver.read_list = kept;
    return fresh;
}

// ---------------------------------------------------------------- merging and splitting

TEST_F(ReadListGrouping, NeighboursWithinTheLimitMerge)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a"), host(2, 1, "90", 5, "b")}), 1);
    expect_read_list({{1, 2, 0, 95, "a", "0"}});
}

TEST_F(ReadListGrouping, RecordAtStartPlusLimitOpensANewRequest)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a"), host(2, 1, "100", 5, "b")}), 2);
    expect_read_list({{1, 2, 0, 2, "a", "0"}, {1, 2, 100, 5, "b", "100"}});
}

TEST_F(ReadListGrouping, MergePastTheLimitSplitsIntoCopiesOfTheRequest)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a"), host(2, 1, "99", 5, "b")}), 2);
    // The second request is a copy of the first request's record, not of "b".
    expect_read_list({{1, 2, 0, 100, "a", "0"}, {1, 2, 100, 4, "a", "0"}});
}

TEST_F(ReadListGrouping, LongRecordIsSplit)
{
    EXPECT_EQ(rebuild({host(2, 1, "10", 250, "a")}), 3);
    expect_read_list({{1, 2, 10, 100, "a", "10"}, {1, 2, 110, 100, "a", "10"}, {1, 2, 210, 50, "a", "10"}});
}

TEST_F(ReadListGrouping, CoveredRecordAddsNothing)
{
    EXPECT_EQ(rebuild({host(2, 1, "5", 3, "a"), host(2, 1, "6", 1, "b")}), 1);
    expect_read_list({{1, 2, 5, 3, "a", "5"}});
}

TEST_F(ReadListGrouping, SameAddressTwiceTakesTheLargerCount)
{
    EXPECT_EQ(rebuild({host(2, 1, "30", 2, "a"), host(2, 1, "30", 4, "b")}), 1);
    expect_read_list({{1, 2, 30, 4, "a", "30"}});

    // Equal addresses keep the runtime's order: the first one opens the request.
    EXPECT_EQ(rebuild({host(2, 1, "30", 4, "b"), host(2, 1, "30", 2, "a")}), 1);
    expect_read_list({{1, 2, 30, 4, "b", "30"}});

    info_.max_read_units = 1; // limit 1: no merging, no splitting
    EXPECT_EQ(rebuild({host(2, 1, "30", 2, "a"), host(2, 1, "30", 4, "b")}), 1);
    expect_read_list({{1, 2, 30, 4, "a", "30"}});
    EXPECT_EQ(rebuild({host(2, 1, "30", 4, "b"), host(2, 1, "30", 2, "a")}), 1);
    expect_read_list({{1, 2, 30, 4, "b", "30"}});
}

TEST_F(ReadListGrouping, MergeIsMeasuredFromTheRequestStart)
{
    // 60 lies 58 units past the end of the request at 0, but within 100 of its start.
    EXPECT_EQ(rebuild({host(2, 1, "60", 2, "b"), host(2, 1, "0", 2, "a")}), 1);
    expect_read_list({{1, 2, 0, 62, "a", "0"}});
}

TEST_F(ReadListGrouping, MergeChainAcrossSplits)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a"), host(2, 1, "50", 200, "b"), host(2, 1, "210", 5, "c"),
                       host(2, 1, "260", 50, "d"), host(2, 1, "400", 1, "e")}),
              5);
    expect_read_list({{1, 2, 0, 100, "a", "0"},
                      {1, 2, 100, 100, "a", "0"},
                      {1, 2, 200, 100, "a", "0"},
                      {1, 2, 300, 10, "a", "0"},
                      {1, 2, 400, 1, "e", "400"}});
}

TEST_F(ReadListGrouping, HostOrderDoesNotMatterForDistinctAddresses)
{
    EXPECT_EQ(rebuild({host(2, 1, "250", 1, "d"), host(2, 1, "120", 3, "c"), host(2, 1, "5", 1, "a"),
                       host(2, 1, "40", 10, "b")}),
              3);
    expect_read_list({{1, 2, 5, 45, "a", "5"}, {1, 2, 120, 3, "c", "120"}, {1, 2, 250, 1, "d", "250"}});
    // 219 lies within 100 units of 120 and stretches that request to 100;
    // 250 does not (250 >= 120 + 100) and opens its own.
    EXPECT_EQ(rebuild({host(2, 1, "250", 1, "d"), host(2, 1, "120", 3, "c"), host(2, 1, "219", 1, "x")}), 2);
    expect_read_list({{1, 2, 120, 100, "c", "120"}, {1, 2, 250, 1, "d", "250"}});
}

// ---------------------------------------------------------------- bit kinds

TEST_F(ReadListGrouping, BitKindMergesInBytesWithTwiceTheLimit)
{
    EXPECT_EQ(rebuild({host(0, 1, "0.0", 16, "a"), host(0, 1, "20.0", 8, "b")}), 1);
    expect_read_list({{1, 0, 0, 21, "a", "0.0"}});
}

TEST_F(ReadListGrouping, BitKindStaysInByteUnits)
{
    EXPECT_EQ(rebuild({host(0, 1, "2.5", 10, "a")}), 1);
    expect_read_list({{1, 0, 2, 2, "a", "2.5"}});
    EXPECT_EQ(rebuild({host(1, 1, "0.0", 3200, "c")}), 2); // 400 bytes, limit 200
    expect_read_list({{1, 1, 0, 200, "c", "0.0"}, {1, 1, 200, 200, "c", "0.0"}});
}

TEST_F(ReadListGrouping, ConvertedKindsGroupWithTheirClass)
{
    // Kind 6 bytes 10..13 are words 5..6 of class 2; kind 9 value 5 is word 10
    // (count 3 rounded up to 4); kind 5 bit 83 is word 5 of class 4; kind 13
    // value 2 is word 8 of class 3 (count 1 rounded up to 4).
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "w"), host(6, 1, "10", 4, "b"), host(9, 1, "5", 3, "d"),
                       host(5, 1, "10.3", 1, "x"), host(13, 1, "2", 1, "q")}),
              3);
    expect_read_list({{1, 2, 0, 14, "w", "0"}, {1, 3, 8, 4, "q", "2"}, {1, 4, 5, 1, "x", "10.3"}});
}

// ---------------------------------------------------------------- stations and kinds

TEST_F(ReadListGrouping, OrderedByStationThenKindThenAddress)
{
    EXPECT_EQ(rebuild({host(4, 5, "10", 1, "s5k4"), host(2, 2, "300", 1, "s2k2b"), host(0, 5, "1.0", 8, "s5k0"),
                       host(3, 2, "7", 1, "s2k3"), host(2, 2, "3", 1, "s2k2a"), host(1, 5, "0.0", 1, "s5k1")}),
              6);
    expect_read_list({{2, 2, 3, 1, "s2k2a", "3"},
                      {2, 2, 300, 1, "s2k2b", "300"},
                      {2, 3, 7, 1, "s2k3", "7"},
                      {5, 0, 1, 1, "s5k0", "1.0"},
                      {5, 1, 0, 1, "s5k1", "0.0"},
                      {5, 4, 10, 1, "s5k4", "10"}});
}

TEST_F(ReadListGrouping, StationsKeptApartEvenAtTheSameAddress)
{
    EXPECT_EQ(rebuild({host(3, 9, "0", 4, "b"), host(3, 8, "0", 4, "a")}), 2);
    expect_read_list({{8, 3, 0, 4, "a", "0"}, {9, 3, 0, 4, "b", "0"}});
}

TEST_F(ReadListGrouping, DefaultStationReplacesTheDescriptorsStation)
{
    info_.station_from_address = 0;
    info_.default_station = 42;
    EXPECT_EQ(rebuild({host(3, 9, "0", 4, "b"), host(3, 8, "2", 4, "a")}), 1);
    expect_read_list({{42, 3, 0, 6, "b", "0"}});
}

TEST_F(ReadListGrouping, GroupStartingWithCountZeroExtendsThePreviousGroup)
{
    // Kind 3's first record (count 0) adds nothing; its next record is then
    // compared with the last request, which is kind 2's, and extends it.
    EXPECT_EQ(rebuild({host(2, 1, "0", 10, "a"), host(3, 1, "5", 0, "z"), host(3, 1, "8", 5, "b")}), 1);
    expect_read_list({{1, 2, 0, 13, "a", "0"}});

    // A record that the previous group's request already covers is dropped.
    EXPECT_EQ(rebuild({host(2, 1, "0", 10, "a"), host(3, 1, "5", 0, "z"), host(3, 1, "6", 2, "b")}), 1);
    expect_read_list({{1, 2, 0, 10, "a", "0"}});

    // Far enough away, it opens its own request in its own group.
    EXPECT_EQ(rebuild({host(2, 1, "0", 10, "a"), host(3, 1, "5", 0, "z"), host(3, 1, "150", 2, "b")}), 2);
    expect_read_list({{1, 2, 0, 10, "a", "0"}, {1, 3, 150, 2, "b", "150"}});
}

TEST_F(ReadListGrouping, FirstGroupStartingWithCountZeroOpensItsNextRecord)
{
    // With no request yet there is nothing to extend: the next record opens one.
    EXPECT_EQ(rebuild({host(2, 1, "5", 0, "z"), host(2, 1, "8", 5, "b"), host(2, 1, "9", 1, "c")}), 1);
    expect_read_list({{1, 2, 8, 5, "b", "8"}});
}

TEST_F(ReadListGrouping, ZeroAndNegativeCountsYieldNoRequest)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 0, "z"), host(2, 1, "1", -5, "n")}), 0);
    expect_read_list({});
    EXPECT_EQ(rebuild({host(2, 1, "0", 4, "a"), host(2, 1, "2", -5, "n"), host(2, 1, "3", 0, "z")}), 1);
    expect_read_list({{1, 2, 0, 4, "a", "0"}});
}

// ---------------------------------------------------------------- bad input

TEST_F(ReadListGrouping, EmptyListGivesZeroAndClearsTheOldList)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a")}), 1);
    PLC_driver.cycle_count = 5;
    info_.cycle_done = 1;
    EXPECT_EQ(rebuild({}), 0);
    EXPECT_TRUE(PLC_driver.read_list.isEmpty());
    // An empty list resets nothing else.
    EXPECT_EQ(PLC_driver.cycle_count, 5);
    EXPECT_EQ(info_.cycle_done, 1);
    EXPECT_EQ(ReCreatReadVarList(nullptr), 0);
}

TEST_F(ReadListGrouping, UnparsableAddressesAreSkipped)
{
    EXPECT_EQ(rebuild({host(2, 1, "x", 2, "bad1"), host(2, 1, "40", 2, "good"), host(2, 1, "", 2, "bad2"),
                       host(2, 1, "-3", 2, "bad3"), host(0, 1, "5", 8, "bad4"), host(5, 1, "1.2.3", 1, "bad5"),
                       host(2, 1, "0x10", 2, "bad6"), host(0, 1, "268435456.0", 8, "bad7")}),
              1);
    expect_read_list({{1, 2, 40, 2, "good", "40"}});
}

TEST_F(ReadListGrouping, OnlyUnparsableAddressesStillRebuild)
{
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a")}), 1);
    PLC_driver.cycle_count = 3;
    info_.cycle_done = 1;
    EXPECT_EQ(rebuild({host(2, 1, "nope", 2, "bad"), host(3, 1, "-1", 1, "bad")}), 0);
    EXPECT_TRUE(PLC_driver.read_list.isEmpty());
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_EQ(info_.cycle_done, 0);
}

TEST_F(ReadListGrouping, RebuildResetsThePassCounters)
{
    PLC_driver.cycle_count = 9;
    info_.cycle_done = 1;
    EXPECT_EQ(rebuild({host(4, 1, "1", 1, "a")}), 1);
    EXPECT_EQ(PLC_driver.cycle_count, 0);
    EXPECT_EQ(info_.cycle_done, 0);
}

TEST_F(ReadListGrouping, KindsOutsideTheTableAreGroupedAsWords)
{
    EXPECT_EQ(rebuild({host(200, 1, "0", 250, "big"), host(15, 1, "12", 5, "k15"), host(2, 1, "12", 5, "k2"),
                       host(15, 1, "1.5", 5, "bad")}),
              5);
    expect_read_list({{1, 2, 12, 5, "k2", "12"},
                      {1, 15, 12, 5, "k15", "12"},
                      {1, 200, 0, 100, "big", "0"},
                      {1, 200, 100, 100, "big", "0"},
                      {1, 200, 200, 50, "big", "0"}});
}

TEST_F(ReadListGrouping, UnitLimitZeroOrNegativeIsTakenAsOne)
{
    for (int n : {0, -7}) {
        info_.max_read_units = n;
        // Word groups: limit 1, so records keep their own counts, unsplit.
        EXPECT_EQ(rebuild({host(2, 1, "0", 250, "a"), host(2, 1, "1", 3, "b"), host(2, 1, "1", 9, "c")}), 2) << n;
        expect_read_list({{1, 2, 0, 250, "a", "0"}, {1, 2, 1, 9, "b", "1"}});
        // Bit groups: limit 2, split into pieces of 2 bytes.
        EXPECT_EQ(rebuild({host(0, 1, "0.0", 40, "a")}), 3) << n;
        expect_read_list({{1, 0, 0, 2, "a", "0.0"}, {1, 0, 2, 2, "a", "0.0"}, {1, 0, 4, 1, "a", "0.0"}});
    }
}

TEST_F(ReadListGrouping, LimitOneKeepsZeroAndNegativeCounts)
{
    info_.max_read_units = 1;
    EXPECT_EQ(rebuild({host(3, 1, "4", 0, "z"), host(3, 1, "4", -2, "n"), host(3, 1, "5", -1, "m")}), 2);
    expect_read_list({{1, 3, 4, 0, "z", "4"}, {1, 3, 5, -1, "m", "5"}});
}

TEST_F(ReadListGrouping, UnitLimitOf120)
{
    info_.max_read_units = 120;
    EXPECT_EQ(rebuild({host(4, 1, "0", 250, "a"), host(0, 1, "0.0", 2000, "b")}), 5);
    expect_read_list({{1, 0, 0, 240, "b", "0.0"},
                      {1, 0, 240, 10, "b", "0.0"},
                      {1, 4, 0, 120, "a", "0"},
                      {1, 4, 120, 120, "a", "0"},
                      {1, 4, 240, 10, "a", "0"}});
}

TEST_F(ReadListGrouping, RebuildWithoutComInfoLeavesAnEmptyList)
{
    ASSERT_EQ(rebuild({host(2, 1, "0", 2, "a")}), 1);
    PLC_driver.com_info = nullptr;
    EXPECT_EQ(rebuild({host(2, 1, "0", 2, "a")}), 0);
    EXPECT_TRUE(PLC_driver.read_list.isEmpty());
}

// ---------------------------------------------------------------- the internal steps

TEST_F(ReadListGrouping, BubbleSortOrdersBySignedAddressAndIsStable)
{
    QList<RW_VAR> list = {rec(5, 1, 0),       rec(-3, 1, 1), rec(5, 1, 2),  rec(INT_MIN, 1, 3),
                          rec(INT_MAX, 1, 4), rec(0, 1, 5),  rec(-3, 1, 6), rec(5, 1, 7)};
    Bubble_Sort(&list);
    const int ids[] = {3, 1, 6, 5, 0, 2, 7, 4};
    ASSERT_EQ(list.size(), 8);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(list.at(i).source_id, ids[i]) << i;

    QList<RW_VAR> empty;
    Bubble_Sort(&empty);
    EXPECT_TRUE(empty.isEmpty());
    QList<RW_VAR> one = {rec(9, 1, 1)};
    Bubble_Sort(&one);
    ASSERT_EQ(one.size(), 1);
    EXPECT_EQ(one.at(0).source_id, 1);
}

TEST_F(ReadListGrouping, BitVarReCreatAppendsAfterWhatIsThere)
{
    QList<RW_VAR> group = {rec(0, 2, 1), rec(99, 5, 2)};
    RW_VAR before = rec(500, 1, 9);
    PLC_driver.read_list.append(before);
    BitVarReCreat(&group, 100);
    ASSERT_EQ(PLC_driver.read_list.size(), 3);
    EXPECT_EQ(PLC_driver.read_list.at(0).source_id, 9);
    EXPECT_EQ(PLC_driver.read_list.at(1).start_addr, 0);
    EXPECT_EQ(PLC_driver.read_list.at(1).count, 100);
    EXPECT_EQ(PLC_driver.read_list.at(2).start_addr, 100);
    EXPECT_EQ(PLC_driver.read_list.at(2).count, 4);
    EXPECT_EQ(PLC_driver.read_list.at(2).source_id, 1);

    QList<RW_VAR> empty;
    BitVarReCreat(&empty, 100);
    EXPECT_EQ(PLC_driver.read_list.size(), 3);
}

TEST_F(ReadListGrouping, BitVarReCreatLimitBelowOneBehavesAsOne)
{
    for (int limit : {1, 0, -5}) {
        PLC_driver.read_list.clear();
        QList<RW_VAR> group = {rec(0, 3, 1), rec(1, 5, 2), rec(1, 2, 3), rec(1, 7, 4), rec(2, 300, 5)};
        BitVarReCreat(&group, limit);
        const QList<RW_VAR> &out = PLC_driver.read_list;
        ASSERT_EQ(out.size(), 3) << limit;
        EXPECT_EQ(out.at(0).start_addr, 0);
        EXPECT_EQ(out.at(0).count, 3);
        EXPECT_EQ(out.at(1).start_addr, 1);
        EXPECT_EQ(out.at(1).count, 7);
        EXPECT_EQ(out.at(1).source_id, 2);
        EXPECT_EQ(out.at(2).start_addr, 2);
        EXPECT_EQ(out.at(2).count, 300);
    }
}

TEST_F(ReadListGrouping, BitVarReCreatWithGroupOpeningAtCountZeroAfterAnEntry)
{
    PLC_driver.read_list.append(rec(1000, 4, 9));
    QList<RW_VAR> group = {rec(3, 0, 1), rec(5, 2, 2)};
    // The record at 5 lies before the last request (1000..1003) and ends inside it.
    BitVarReCreat(&group, 100);
    ASSERT_EQ(PLC_driver.read_list.size(), 1);
    EXPECT_EQ(PLC_driver.read_list.at(0).count, 4);
}

TEST_F(ReadListGrouping, BitVarReCreatFarAddressesDoNotOverflow)
{
    QList<RW_VAR> group = {rec(INT_MAX - 10, 5, 1), rec(INT_MAX - 2, 3, 2)};
    BitVarReCreat(&group, 100);
    ASSERT_EQ(PLC_driver.read_list.size(), 1);
    EXPECT_EQ(PLC_driver.read_list.at(0).start_addr, INT_MAX - 10);
    EXPECT_EQ(PLC_driver.read_list.at(0).count, 11);
}

TEST_F(ReadListGrouping, WhetherGroupSplitsIntoPieces)
{
    QList<RW_VAR> out;
    RW_VAR v = rec(10, 250, 1);
    WhetherGroup(250, 100, &v, &out);
    ASSERT_EQ(out.size(), 3);
    EXPECT_EQ(out.at(0).start_addr, 10);
    EXPECT_EQ(out.at(0).count, 100);
    EXPECT_EQ(out.at(1).start_addr, 110);
    EXPECT_EQ(out.at(1).count, 100);
    EXPECT_EQ(out.at(2).start_addr, 210);
    EXPECT_EQ(out.at(2).count, 50);
    EXPECT_EQ(v.start_addr, 210); // left holding the last piece
    EXPECT_EQ(v.count, 50);
    EXPECT_TRUE(PLC_driver.read_list.isEmpty()); // only the given list is touched

    QList<RW_VAR> even;
    RW_VAR w = rec(0, 1, 2);
    WhetherGroup(200, 100, &w, &even);
    ASSERT_EQ(even.size(), 2);
    EXPECT_EQ(even.at(1).start_addr, 100);
    EXPECT_EQ(even.at(1).count, 100);
    EXPECT_EQ(w.count, 100);

    // At or under the limit the record goes in unchanged, whatever its count.
    QList<RW_VAR> small;
    RW_VAR s = rec(4, 7, 3);
    WhetherGroup(100, 100, &s, &small);
    WhetherGroup(-5, 100, &s, &small);
    ASSERT_EQ(small.size(), 2);
    EXPECT_EQ(small.at(0).start_addr, 4);
    EXPECT_EQ(small.at(0).count, 7);
    EXPECT_EQ(s.count, 7);
}

TEST_F(ReadListGrouping, WhetherGroupWithoutPositiveLimitAppendsUnchanged)
{
    QList<RW_VAR> out;
    RW_VAR v = rec(4, 7, 3);
    WhetherGroup(50, 0, &v, &out);
    WhetherGroup(50, -3, &v, &out);
    ASSERT_EQ(out.size(), 2);
    EXPECT_EQ(out.at(1).start_addr, 4);
    EXPECT_EQ(out.at(1).count, 7);
}

// The rebuild on large, mixed lists against the plain procedure and the
// reference. Every field of every entry must agree, whichever way the
// rebuild gets there.
TEST_F(ReadListGrouping, RebuildMatchesSortAndMergePerGroup)
{
    std::mt19937 rng(4242u);
    static const int kinds[] = {0, 1, 2, 3, 4, 5, 6, 8, 9, 11, 12, 14, 30};
    for (int round = 0; round < 24; ++round) {
        info_.max_read_units = round % 4 == 0 ? 1 : round % 4 == 1 ? 7 : round % 4 == 2 ? 100 : 120;
        info_.station_from_address = round % 3 == 0 ? 0 : 1;
        info_.default_station = 5;
        const int size = 100 + int(rng() % 900);
        const int spread = 1 + int(rng() % 3000);
        QList<HostReadVar> hosts;
        for (int k = 0; k < size; ++k) {
            const int kind = kinds[rng() % (sizeof kinds / sizeof kinds[0])];
            const int address = int(rng() % unsigned(spread));
            QByteArray text = kind == 0 || kind == 1 || kind == 5
                                  ? QByteArray::number(address / 8) + '.' + QByteArray::number(address % 8)
                                  : QByteArray::number(address);
            if (rng() % 50 == 0)
                text = "bad";
            const int count = int(rng() % 40) - 3; // a few zero and negative counts
            hosts.append(host(kind, int(rng() % 3) * 7, text.constData(), count, QByteArray::number(k).constData()));
        }

        expect_rebuild_matches_plain_procedure(hosts, "round " + std::to_string(round));
    }
}

// The same on lists whose keys stretch the sort: addresses up to the top of
// the 32-bit range, addresses that differ only in high bits, every station
// and kind code, all keys the same, and sizes of 255 to 1,755 descriptors.
TEST_F(ReadListGrouping, RebuildMatchesSortAndMergePerGroupOnExtremeKeys)
{
    std::mt19937 rng(777u);
    for (int round = 0; round < 30; ++round) {
        info_.max_read_units = round % 3 == 0 ? 1 : round % 3 == 1 ? 9 : 120;
        info_.station_from_address = round % 2;
        info_.default_station = 3;
        const int size = round % 5 == 0 ? 255 + int(rng() % 3) : 256 + int(rng() % 1500);
        const int shape = round % 6;
        QList<HostReadVar> hosts;
        for (int k = 0; k < size; ++k) {
            int kind = 3;
            int station = 1;
            qint64 address = 0;
            switch (shape) {
            case 0: // anywhere in the 32-bit range, word kinds (9..11 double the address)
                kind = 2 + int(rng() % 10);
                address = qint64(rng() % 2147483648u);
                break;
            case 1: // a few values far apart: only high bits differ
                kind = int(rng() % 2) ? 3 : 4;
                address = qint64(1 + rng() % 4) << 27;
                break;
            case 2: // every station and kind code
                kind = int(rng() % 256);
                station = int(rng() % 256);
                address = qint64(rng() % 5000);
                break;
            case 3: // one key for all
                address = 4242;
                break;
            case 4: // bit kinds at addresses near the top of the range
                kind = int(rng() % 2) ? 0 : 5;
                address = 268435000 + qint64(rng() % 455);
                break;
            default: // a dense run over a wide group part and many addresses
                kind = int(rng() % 15);
                station = int(rng() % 64);
                address = qint64(rng() % 400000);
                break;
            }
            const bool bit_kind = kind == 0 || kind == 1 || kind == 5;
            const QByteArray text = bit_kind ? QByteArray::number(address) + '.' + QByteArray::number(int(rng() % 8))
                                             : QByteArray::number(address);
            const int count = int(rng() % 200) - 2;
            hosts.append(host(kind, station, text.constData(), count, QByteArray::number(k).constData()));
        }
        expect_rebuild_matches_plain_procedure(hosts, "round " + std::to_string(round));
    }
}

// The lists the benchmark rebuilds, at its largest size: what it times is
// the right list.
TEST_F(ReadListGrouping, RebuildMatchesSortAndMergePerGroupOnTheBenchmarkLists)
{
    info_.max_read_units = 100;
    for (const bool spread : {false, true}) {
        info_.station_from_address = spread ? 1 : 0;
        expect_rebuild_matches_plain_procedure(make_benchmark_descriptors(100000, spread, 0),
                                               spread ? "spread" : "one group");
    }
}

// ---------------------------------------------------------------- rebuilding over an earlier list

TEST_F(ReadListGrouping, RebuildOverAnEarlierListEqualsARebuildFromNothing)
{
    // Longer, shorter, equal and empty lists after each other, the same list
    // again, and records the cycle has marked in between: every rebuild
    // must give exactly what a rebuild from an empty list gives.
    std::mt19937 rng(4242);
    std::uniform_int_distribution<int> size(0, 400);
    QList<HostReadVar> previous;
    for (int round = 0; round < 60; ++round) {
        QList<HostReadVar> hosts = (round % 5 == 4) ? previous : random_hosts(rng, size(rng));
        const QList<RW_VAR> want = fresh_rebuild(hosts);
        for (RW_VAR &r : PLC_driver.read_list) {
            r.status = -1;
            r.source_type = 3;
            r.source_id = 9;
            r.rw_flag = 1;
            r.ext_param1 = -2;
            r.ext_param2 = 5;
            r.data = QByteArray("\x01\x02", 2);
        }
        ASSERT_EQ(ReCreatReadVarList(&hosts), want.size()) << "round " << round;
        const QList<RW_VAR> &got = PLC_driver.read_list;
        ASSERT_EQ(got.size(), want.size()) << "round " << round;
        for (int i = 0; i < got.size(); ++i) {
            SCOPED_TRACE("round " + std::to_string(round) + " entry " + std::to_string(i));
            expect_same_var(got.at(i), want.at(i));
        }
        previous = hosts;
    }
}

TEST_F(ReadListGrouping, RebuildFromTheSameDescriptorsKeepsSharingTheirTexts)
{
    QList<HostReadVar> hosts = {host(2, 1, "10", 2, "a"), host(2, 1, "40", 2, "b"), host(3, 2, "7", 1, "c")};
    ASSERT_EQ(ReCreatReadVarList(&hosts), 2);
    ASSERT_EQ(ReCreatReadVarList(&hosts), 2);
    const QList<RW_VAR> &list = PLC_driver.read_list;
    EXPECT_EQ(list.at(0).name_text, QStringLiteral("a"));
    EXPECT_TRUE(list.at(0).name_text.isSharedWith(hosts.at(0).name_text));
    EXPECT_TRUE(list.at(0).address_text.isSharedWith(hosts.at(0).address_text));
    EXPECT_EQ(list.at(1).name_text, QStringLiteral("c"));
    EXPECT_TRUE(list.at(1).name_text.isSharedWith(hosts.at(2).name_text));
}

TEST_F(ReadListGrouping, RebuildTakesTextsTheRuntimeChanged)
{
    QList<HostReadVar> hosts = {host(2, 1, "10", 2, "a"), host(2, 1, "40", 2, "b")};
    ASSERT_EQ(ReCreatReadVarList(&hosts), 1);

    // Only the address, then only the name.
    hosts[0].address_text = QStringLiteral("12");
    ASSERT_EQ(ReCreatReadVarList(&hosts), 1);
    const RW_VAR &r = PLC_driver.read_list.at(0);
    EXPECT_EQ(r.name_text, QStringLiteral("a"));
    EXPECT_EQ(r.address_text, QStringLiteral("12"));
    EXPECT_EQ(r.start_addr, 12);
    EXPECT_EQ(r.count, 30);

    hosts[0].name_text = QStringLiteral("renamed");
    ASSERT_EQ(ReCreatReadVarList(&hosts), 1);
    EXPECT_EQ(PLC_driver.read_list.at(0).name_text, QStringLiteral("renamed"));
    EXPECT_EQ(PLC_driver.read_list.at(0).address_text, QStringLiteral("12"));
}

TEST_F(ReadListGrouping, RebuildLeavesACopyOfTheOldListAlone)
{
    QList<HostReadVar> first = {host(2, 1, "10", 2, "a"), host(3, 1, "5", 1, "b")};
    ASSERT_EQ(ReCreatReadVarList(&first), 2);
    const QList<RW_VAR> copy = PLC_driver.read_list; // shares the list
    QList<RW_VAR> deep;
    for (const RW_VAR &r : copy)
        deep.append(r);
    QList<HostReadVar> second = {host(2, 4, "99", 3, "z")};
    ASSERT_EQ(ReCreatReadVarList(&second), 1);
    EXPECT_EQ(PLC_driver.read_list.at(0).name_text, QStringLiteral("z"));
    ASSERT_EQ(copy.size(), 2);
    for (int i = 0; i < copy.size(); ++i) {
        SCOPED_TRACE("entry " + std::to_string(i));
        expect_same_var(copy.at(i), deep.at(i));
    }
}

} // namespace
