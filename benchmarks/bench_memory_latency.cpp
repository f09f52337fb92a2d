// Time of one dependent random read from working sets of 256 KiB to 64 MiB:
// a chase through a random cycle of 64-byte lines, so that each read waits
// for the one before and no prefetcher can guess the next. Not the driver:
// the machine under it. The read-list rebuild's growth from 10,000 to
// 100,000 descriptors is read against this curve (about 1.7 MB and 17 MB of
// descriptors and their texts): where the step from cache to memory lies on
// this machine tells how much of that growth the memory adds.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <numeric>
#include <random>
#include <vector>

namespace {

void BM_RandomRead(benchmark::State &state)
{
    const size_t bytes = size_t(state.range(0)) * 1024;
    const size_t lines = bytes / 64;
    const size_t stride = 64 / sizeof(size_t);
    std::vector<size_t> order(lines);
    std::iota(order.begin(), order.end(), size_t(0));
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    // next[line * stride] is where the read after this line goes: one cycle
    // through every line, in random order.
    std::vector<size_t> next(lines * stride);
    for (size_t i = 0; i < lines; ++i)
        next[order[i] * stride] = order[(i + 1) % lines] * stride;

    size_t at = 0;
    const int kReads = 1 << 16;
    for (auto _ : state) {
        for (int i = 0; i < kReads; ++i)
            at = next[at];
        benchmark::DoNotOptimize(at);
    }
    state.SetItemsProcessed(state.iterations() * kReads);
    state.counters["s_per_read"] = benchmark::Counter(double(state.iterations()) * kReads,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_RandomRead)->RangeMultiplier(2)->Range(256, 64 * 1024)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
