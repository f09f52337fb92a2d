// Bubble_Sort must put a group in exactly the order of the exchange sort the
// read-list grouping relies on: passes i = 0 .. size-2, each walking j from
// the end down to i + 1 and swapping neighbours only when entry j has a
// strictly smaller start_addr than entry j - 1. Equal addresses keep their
// order, which decides which record opens a merged request.
#include <gtest/gtest.h>

#include "driver_test_support.h"

#include <climits>
#include <random>

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

} // namespace
