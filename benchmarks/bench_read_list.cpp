// Time of one ReCreatReadVarList call, for 100 to 100,000 descriptors:
//   OneGroup   - every descriptor in the same station and kind (one big sort
//                and merge pass);
//   Spread     - descriptors over 16 stations and all 15 kinds, each
//                variable carrying its own station.
// Addresses are shuffled with many duplicates so that the sort, the merges
// and the splits all do real work. The goal on the reference machine is
// 10,000 descriptors in under 5 ms, with 10x the descriptors costing at
// most about 12x the time.
//
// The plain cases rebuild from the same list on every call, as a runtime
// does when it registers the same screen again: the previous records share
// the new texts, and up to about 10,000 descriptors the list, its texts and
// the whole pattern of the merge decisions stay in the caches and the
// branch predictor from one call to the next. The FreshLists cases take
// the next of eight different lists of the same size and shape on every
// call, as on a screen change: nothing of the previous call helps.
//
// Every list is made before the first benchmark runs, in one go, so that
// each sits in memory the same way whichever benchmarks run and in
// whatever order: made in a heap full of the holes earlier benchmarks left,
// a list's descriptors and texts would be strewn about, and at 100,000 that
// alone moves the time by a third from one run to the next.
//
// TouchingDescriptorsOnly is the floor under any rebuild: it reads each
// descriptor of a OneGroup list once (its kind, station and count, and the
// first character of its address text: the memory a rebuild cannot do
// without), asking ahead as the rebuild does, and does nothing else. Its
// growth from one size to the next is what the machine's caches and memory
// alone add once a list no longer fits in them.
#include <benchmark/benchmark.h>

#include "benchmark_read_lists.h"
#include "driver_test_support.h"
#include "legacy_read_list.h"
#include "read_list_reference.h"
#include "current_read_list.h"

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

const int kFreshLists = 8;
const int kSizes[] = {100, 1000, 10000, 100000};

// The lists of every size and shape, kFreshLists of each, made by
// make_all_descriptors() before any benchmark runs.
std::map<std::pair<int, bool>, std::vector<QList<HostReadVar>>> &all_descriptors()
{
    static std::map<std::pair<int, bool>, std::vector<QList<HostReadVar>>> lists;
    return lists;
}

void make_all_descriptors()
{
    for (const bool spread : {false, true})
        for (const int n : kSizes)
            for (int k = 0; k < kFreshLists; ++k)
                all_descriptors()[{n, spread}].push_back(make_benchmark_descriptors(n, spread, unsigned(k)));
}

// The first `lists` lists of n descriptors of one shape.
std::vector<QList<HostReadVar>> &descriptors_of(int n, bool spread, int lists, benchmark::State &state)
{
    std::vector<QList<HostReadVar>> &made = all_descriptors()[{n, spread}];
    if (int(made.size()) < lists)
        state.SkipWithError("no descriptor lists of this size were made");
    return made;
}

void run(benchmark::State &state, bool spread, int lists)
{
    ComInfo info = make_com_info();
    info.station_from_address = spread ? 1 : 0;
    reset_driver(&info);
    const int n = int(state.range(0));
    std::vector<QList<HostReadVar>> &descriptors = descriptors_of(n, spread, lists, state);
    int entries = 0;
    int next = 0;
    for (auto _ : state) {
        entries = ReCreatReadVarList(&descriptors[size_t(next)]);
        benchmark::DoNotOptimize(entries);
        next = (next + 1) % lists;
    }
    state.SetItemsProcessed(state.iterations() * n);
    state.counters["read_list"] = entries;
    reset_driver(nullptr);
}

// One pass over the descriptors, touching what a rebuild must read.
quint64 touch_descriptors(const QList<HostReadVar> &list)
{
    quint64 sum = 0;
    const int n = list.size();
    for (int i = 0; i < n; ++i) {
        if (i + 64 < n)
            __builtin_prefetch(&list.at(i + 64));
        if (i + 32 < n)
            __builtin_prefetch(list.at(i + 32).address_text.constData());
        const HostReadVar &h = list.at(i);
        sum += quint64(h.reg_kind) + h.station + quint64(h.count) + h.address_text.constData()->unicode();
    }
    return sum;
}

void touch_only(benchmark::State &state, int lists)
{
    const int n = int(state.range(0));
    const std::vector<QList<HostReadVar>> &descriptors = descriptors_of(n, false, lists, state);
    int next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(touch_descriptors(descriptors[size_t(next)]));
        next = (next + 1) % lists;
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_TouchingDescriptorsOnly(benchmark::State &state)
{
    touch_only(state, 1);
}

void BM_TouchingDescriptorsOnly_FreshLists(benchmark::State &state)
{
    touch_only(state, kFreshLists);
}

void BM_ReCreatReadVarList_OneGroup(benchmark::State &state)
{
    run(state, false, 1);
}

void BM_ReCreatReadVarList_Spread(benchmark::State &state)
{
    run(state, true, 1);
}

void BM_ReCreatReadVarList_OneGroup_FreshLists(benchmark::State &state)
{
    run(state, false, kFreshLists);
}

void BM_ReCreatReadVarList_Spread_FreshLists(benchmark::State &state)
{
    run(state, true, kFreshLists);
}

BENCHMARK(BM_ReCreatReadVarList_OneGroup)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReCreatReadVarList_Spread)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReCreatReadVarList_OneGroup_FreshLists)
    ->RangeMultiplier(10)
    ->Range(100, 100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReCreatReadVarList_Spread_FreshLists)
    ->RangeMultiplier(10)
    ->Range(100, 100000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TouchingDescriptorsOnly)->RangeMultiplier(10)->Range(100, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TouchingDescriptorsOnly_FreshLists)
    ->RangeMultiplier(10)
    ->Range(100, 100000)
    ->Unit(benchmark::kMicrosecond);

// What each device of the earlier rebuild buys: that rebuild with all its
// devices, with each one switched off alone and with all switched off, side
// by side with today's ReCreatReadVarList and with the named routines
// (plain_read_list), on the same lists in one run.
using Rebuild = std::function<int(QList<HostReadVar> *)>;

void run_rebuild(benchmark::State &state, const Rebuild &rebuild, bool spread, int lists)
{
    ComInfo info = make_com_info();
    info.station_from_address = spread ? 1 : 0;
    reset_driver(&info);
    const int n = int(state.range(0));
    std::vector<QList<HostReadVar>> &descriptors = descriptors_of(n, spread, lists, state);
    int entries = 0;
    int next = 0;
    for (auto _ : state) {
        entries = rebuild(&descriptors[size_t(next)]);
        benchmark::DoNotOptimize(entries);
        next = (next + 1) % lists;
    }
    state.SetItemsProcessed(state.iterations() * n);
    state.counters["read_list"] = entries;
    reset_driver(nullptr);
}

void register_devices()
{
    std::vector<std::pair<std::string, Rebuild>> variants;
    const auto legacy_with = [](const legacy::Devices &devices) {
        return [devices](QList<HostReadVar> *list) { return legacy::rebuild_with(list, devices); };
    };
    legacy::Devices all;
    variants.push_back({"earlier", legacy_with(all)});
    const std::pair<const char *, bool legacy::Devices::*> devices[] = {
        {"radix", &legacy::Devices::radix},
        {"prefetch", &legacy::Devices::prefetch},
        {"branch_free", &legacy::Devices::branch_free},
        {"pooled", &legacy::Devices::pooled},
        {"in_place", &legacy::Devices::in_place},
        {"layout_read", &legacy::Devices::layout_read},
        {"texts_in_runtime_order", &legacy::Devices::texts_in_runtime_order},
    };
    legacy::Devices none;
    for (const auto &d : devices) {
        legacy::Devices without = all;
        without.*(d.second) = false;
        none.*(d.second) = false;
        variants.push_back({std::string("earlier_without_") + d.first, legacy_with(without)});
    }
    variants.push_back({"earlier_without_any", legacy_with(none)});
    variants.push_back(
        {"now_without_radix", [](QList<HostReadVar> *list) { return current::rebuild_with(list, false); }});
    variants.push_back({"now", [](QList<HostReadVar> *list) { return ReCreatReadVarList(list); }});
    variants.push_back(
        {"named_routines", [](QList<HostReadVar> *list) { return plain_read_list(*list, *PLC_driver.com_info); }});
    for (const bool spread : {false, true}) {
        for (const int lists : {1, kFreshLists}) {
            for (const auto &v : variants) {
                const std::string name = std::string("Devices_") + (spread ? "Spread" : "OneGroup") +
                                         (lists > 1 ? "_FreshLists/" : "/") + v.first;
                const Rebuild rebuild = v.second;
                benchmark::RegisterBenchmark(
                    name.c_str(),
                    [rebuild, spread, lists](benchmark::State &state) { run_rebuild(state, rebuild, spread, lists); })
                    ->Arg(100)
                    ->Arg(1000)
                    ->Arg(10000)
                    ->Arg(100000)
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    make_all_descriptors();
    register_devices();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
