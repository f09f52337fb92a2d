// Time of one ReCreatReadVarList call, for 100 to 100,000 descriptors:
//   OneGroup   - every descriptor in the same station and kind (one big sort
//                and merge pass);
//   Spread     - descriptors over 16 stations and all 15 kinds, each
//                variable carrying its own station.
// Addresses are shuffled with many duplicates so that the sort, the merges
// and the splits all do real work. The goal on the reference machine is
// 10,000 descriptors in under 5 ms, with 10x the descriptors costing at
// most about 12x the time.
#include <benchmark/benchmark.h>

#include "driver_test_support.h"

#include <random>

namespace {

QString address_text(int kind, int address)
{
    // Bit kinds take "byte.bit"; the others one decimal number.
    if (kind == 0 || kind == 1 || kind == 5)
        return QString::number(address / 8) + QLatin1Char('.') + QString::number(address % 8);
    return QString::number(address);
}

QList<HostReadVar> make_descriptors(int n, bool spread)
{
    std::mt19937 rng(12345u + unsigned(n));
    std::uniform_int_distribution<int> address(0, 2 * n);
    std::uniform_int_distribution<int> count(1, 8);
    QList<HostReadVar> list;
    list.reserve(n);
    for (int i = 0; i < n; ++i) {
        HostReadVar h;
        h.reg_kind = quint8(spread ? i % 15 : 3);
        h.station = quint8(spread ? 1 + (i / 15) % 16 : 1);
        h.address_text = address_text(h.reg_kind, address(rng));
        h.name_text = QStringLiteral("var") + QString::number(i);
        h.count = count(rng);
        list.append(h);
    }
    return list;
}

void run(benchmark::State &state, bool spread)
{
    ComInfo info = make_com_info();
    info.station_from_address = spread ? 1 : 0;
    reset_driver(&info);
    const int n = int(state.range(0));
    QList<HostReadVar> descriptors = make_descriptors(n, spread);
    int entries = 0;
    for (auto _ : state) {
        entries = ReCreatReadVarList(&descriptors);
        benchmark::DoNotOptimize(entries);
    }
    state.SetItemsProcessed(state.iterations() * n);
    state.counters["read_list"] = entries;
    reset_driver(nullptr);
}

void BM_ReCreatReadVarList_OneGroup(benchmark::State &state)
{
    run(state, false);
}

void BM_ReCreatReadVarList_Spread(benchmark::State &state)
{
    run(state, true);
}

BENCHMARK(BM_ReCreatReadVarList_OneGroup)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReCreatReadVarList_Spread)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
