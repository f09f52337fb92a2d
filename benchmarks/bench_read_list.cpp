// Time of one rebuild of the cyclic read list, for 100 to 100,000
// descriptors:
//   OneGroup   - every descriptor in the same station and kind (one big sort
//                and merge pass);
//   Spread     - descriptors over 16 stations and all 15 kinds, each
//                variable carrying its own station.
// Addresses are shuffled with many duplicates so that the sort, the merges
// and the splits all do real work. The budget on the reference machine:
// 10,000 descriptors in under 2 ms and 100,000 in under 50 ms, the time
// growing in proportion to the descriptors.
//
// ReCreatReadVarList is the driver's rebuild. NamedRoutines makes the same
// list with the driver's named routines step by step (plain_read_list: a
// record per descriptor in lists per station and kind, Bubble_Sort,
// BitVarReCreat), as the rebuild would be without its compact items; the
// two side by side in one run show what the items buy.
//
// The plain cases rebuild from the same list on every call, as a runtime
// does when it registers the same screen again: up to about 10,000
// descriptors the list, its texts and the pattern of the merge decisions
// stay in the caches and the branch predictor from one call to the next.
// The FreshLists cases take the next of eight different lists of the same
// size and shape on every call, as on a screen change: nothing of the
// previous call helps.
//
// Every list is made before the first benchmark runs, in one go, so that
// each sits in memory the same way whichever benchmarks run and in
// whatever order: made in a heap full of the holes earlier benchmarks left,
// a list's descriptors and texts would be strewn about, and the largest
// lists would be timed differently from one run to the next.
//
// TouchingDescriptorsOnly is the floor under any rebuild: it reads each
// descriptor of a OneGroup list once, in order, as the rebuild does (its
// kind, station and count, and the first character of its address text:
// the memory a rebuild cannot do without), and does nothing else. Its
// growth from one size to the next is what the machine's caches and memory
// alone add once a list no longer fits in them.
#include <benchmark/benchmark.h>

#include "benchmark_read_lists.h"
#include "driver_test_support.h"
#include "read_list_reference.h"

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

using Rebuild = int (*)(QList<HostReadVar> *);

int named_routines(QList<HostReadVar> *descriptors)
{
    return plain_read_list(*descriptors, *PLC_driver.com_info);
}

void run(benchmark::State &state, Rebuild rebuild, bool spread, int lists)
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

// One pass over the descriptors, touching what a rebuild must read.
quint64 touch_descriptors(const QList<HostReadVar> &list)
{
    quint64 sum = 0;
    for (const HostReadVar &h : list)
        sum += quint64(h.reg_kind) + h.station + quint64(h.count) + h.address_text.constData()->unicode();
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

void sizes(benchmark::internal::Benchmark *b)
{
    b->RangeMultiplier(10)->Range(kSizes[0], kSizes[3])->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_TouchingDescriptorsOnly)->Apply(sizes);
BENCHMARK(BM_TouchingDescriptorsOnly_FreshLists)->Apply(sizes);

// BM_ReCreatReadVarList_* and BM_NamedRoutines_*, each _OneGroup or _Spread,
// from the same list or (_FreshLists) from the next of eight.
void register_rebuilds()
{
    const std::pair<const char *, Rebuild> rebuilds[] = {{"BM_ReCreatReadVarList", ReCreatReadVarList},
                                                         {"BM_NamedRoutines", named_routines}};
    for (const auto &r : rebuilds) {
        for (const bool spread : {false, true}) {
            for (const int lists : {1, kFreshLists}) {
                const std::string name =
                    std::string(r.first) + (spread ? "_Spread" : "_OneGroup") + (lists > 1 ? "_FreshLists" : "");
                const Rebuild rebuild = r.second;
                sizes(benchmark::RegisterBenchmark(name.c_str(), [rebuild, spread, lists](benchmark::State &state) {
                    run(state, rebuild, spread, lists);
                }));
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
    register_rebuilds();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
