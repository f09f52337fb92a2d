// Speed of the runtime's reads and writes of values through the register
// mirror, and the mirror's memory per stored word and per stored bit.
#include <benchmark/benchmark.h>

#include "driver_test_support.h"

#include <malloc.h>

namespace {

ComInfo g_info;

// A driver with words 0..1999 (class 4) and bits 0..1999 (class 1) of
// station 1 in the mirror.
void prepare(int write_mode)
{
    g_info = make_com_info();
    g_info.write_mode = write_mode;
    reset_driver(&g_info);
    RW_VAR words;
    words.reg_kind = 4;
    words.station = 1;
    words.data = QByteArray(4000, char(0x5A));
    write_data_to_local(&words);
    RW_VAR bits;
    bits.reg_kind = 1;
    bits.station = 1;
    bits.count = 2000;
    bits.data = QByteArray(250, char(0x69));
    write_data_to_local(&bits);
}

void BM_GetRegisterData_Words(benchmark::State &state)
{
    prepare(2);
    const int count = int(state.range(0));
    const QString address("0");
    QByteArray out;
    for (auto _ : state) {
        GetRegisterData(nullptr, 4, address, 1, &out, count);
        benchmark::DoNotOptimize(out.constData());
    }
    if (out.size() != 2 * count || uchar(out[0]) != 0x5A)
        state.SkipWithError("read returned the wrong data");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_GetRegisterData_Words)->Arg(1)->Arg(100)->Arg(1000);

void BM_GetRegisterData_Bits(benchmark::State &state)
{
    prepare(2);
    const int count = int(state.range(0));
    const QString address("0.0");
    QByteArray out;
    for (auto _ : state) {
        GetRegisterData(nullptr, 1, address, 1, &out, count);
        benchmark::DoNotOptimize(out.constData());
    }
    if (out.size() != count || out.at(0) != char(1) || out.at(1) != char(0))
        state.SkipWithError("read returned the wrong data");
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_GetRegisterData_Bits)->Arg(1000);

// write_mode 1: 100 words straight into the mirror.
void BM_SetRegisterData_100Words_Mirror(benchmark::State &state)
{
    prepare(1);
    QByteArray value(200, char(0x33));
    const QString name("v"), address("500");
    for (auto _ : state)
        benchmark::DoNotOptimize(SetRegisterData(name, 4, address, 1, &value, 100, 1, 1));
    if (!PLC_driver.write_list.isEmpty() || PLC_driver.word_mirror.value(mirror_key(1, 4, 599)) != 0x3333)
        state.SkipWithError("write did not reach the mirror only");
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(BM_SetRegisterData_100Words_Mirror);

// write_mode 2: 100 words queued as one write record. The write list is
// emptied (outside the timing) every 1000 writes so that it never reaches
// its 2048-entry cap, where a write would be dropped instead of queued.
void BM_SetRegisterData_100Words_Queue(benchmark::State &state)
{
    prepare(2);
    QByteArray value(200, char(0x33));
    const QString name("v"), address("500");
    qint64 queued = 0;
    int since_clear = 0;
    for (auto _ : state) {
        if (since_clear == 1000) {
            state.PauseTiming();
            queued += PLC_driver.write_list.size();
            PLC_driver.write_list.clear();
            since_clear = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(SetRegisterData(name, 4, address, 1, &value, 100, 1, 1));
        ++since_clear;
    }
    queued += PLC_driver.write_list.size();
    if (queued != qint64(state.iterations()))
        state.SkipWithError("not every write was queued");
    state.counters["queued"] = double(queued);
    state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(BM_SetRegisterData_100Words_Queue);

constexpr int kEntries = 100000;

size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

// Heap bytes the mirror holds per stored word: 100,000 words written into an
// empty mirror, heap in use measured before and after (the value buffer
// exists before the first measurement).
void BM_MirrorMemory_PerWord(benchmark::State &state)
{
    prepare(1);
    RW_VAR words;
    words.reg_kind = 4;
    words.station = 2;
    words.data = QByteArray(2 * kEntries, char(0x11));
    double per_entry = 0;
    for (auto _ : state) {
        state.PauseTiming();
        PLC_driver.word_mirror.clear();
        PLC_driver.word_mirror.squeeze();
        const size_t before = heap_in_use();
        state.ResumeTiming();
        write_data_to_local(&words);
        state.PauseTiming();
        const size_t after = heap_in_use();
        if (PLC_driver.word_mirror.size() != kEntries)
            state.SkipWithError("wrong number of entries");
        per_entry = double(after - before) / kEntries;
        state.ResumeTiming();
    }
    state.counters["bytes_per_word"] = per_entry;
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_MirrorMemory_PerWord)->Unit(benchmark::kMillisecond);

void BM_MirrorMemory_PerBit(benchmark::State &state)
{
    prepare(1);
    RW_VAR bits;
    bits.reg_kind = 0;
    bits.station = 2;
    bits.count = kEntries;
    bits.data = QByteArray(kEntries / 8, char(0x0F));
    double per_entry = 0;
    for (auto _ : state) {
        state.PauseTiming();
        PLC_driver.bit_mirror.clear();
        PLC_driver.bit_mirror.squeeze();
        const size_t before = heap_in_use();
        state.ResumeTiming();
        write_data_to_local(&bits);
        state.PauseTiming();
        const size_t after = heap_in_use();
        if (PLC_driver.bit_mirror.size() != kEntries)
            state.SkipWithError("wrong number of entries");
        per_entry = double(after - before) / kEntries;
        state.ResumeTiming();
    }
    state.counters["bytes_per_bit"] = per_entry;
    state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_MirrorMemory_PerBit)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
