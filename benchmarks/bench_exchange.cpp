// Cost of one full exchange of the communication loop: ComCommunication
// builds (or for a write, takes) the next request, the reply comes back
// through DataCom, is checked, its data stored into the mirror and the list
// entry finished. Cases: a 100-register block read, a 1,000-bit read and a
// 100-register write, each with Modbus TCP frames (link_mode 0) and with
// remote frames (link_mode 1).
//
// Besides the Google Benchmark runs, the program has a fixed-count mode for
// instruction counting under callgrind:
//   bench_exchange --exchange_case=read_words --exchange_link_mode=0 --exchange_iterations=10000
// runs the warmed-up exchanges inside run_exchanges(), so that
//   valgrind --tool=callgrind --toggle-collect=run_exchanges bench_exchange ...
// counts exactly those exchanges; divide the total by the iteration count.
#include <benchmark/benchmark.h>

#include "driver_test_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

enum class Case { ReadWords, ReadBits, WriteWords };

ComInfo g_info;
long g_writes_done = 0;

void count_write_done(int, int, int, int result)
{
    g_writes_done += result == 1;
}

void ignore_read_done(QList<RW_VAR> *, int, int) {}

// One exchange loop set up for a case: the variable, and a reply buffer in
// the PLC's format whose first two bytes are refreshed per request (the
// Modbus transaction identifier changes with every request).
class Loop {
public:
    Loop(Case c, int link_mode) : case_(c), link_mode_(link_mode)
    {
        g_info = make_com_info();
        g_info.link_mode = link_mode;
        g_info.retry_limit = 0;
        reset_driver(&g_info);
        RegistCallBackFuncIntf(count_write_done, ignore_read_done);
        g_writes_done = 0;

        var_.station = 1;
        var_.link_mode = link_mode;
        var_.link_id = g_info.local_link_id;
        var_.source_type = 1;
        var_.source_id = 1;
        var_.name_text = QStringLiteral("block");
        var_.address_text = QStringLiteral("0");
        switch (c) {
        case Case::ReadWords:
            var_.reg_kind = 4;
            var_.count = 100;
            data_len_ = 200;
            break;
        case Case::ReadBits:
            var_.reg_kind = 1;
            var_.count = 1000;
            data_len_ = 125;
            break;
        case Case::WriteWords:
            var_.reg_kind = 4;
            var_.count = 100;
            var_.rw_flag = 1;
            var_.data = QByteArray(200, char(0x5A));
            break;
        }
        if (c != Case::WriteWords) {
            AddListReadVar(&var_);
            QByteArray data(data_len_, '\0');
            for (int i = 0; i < data_len_; ++i)
                data[i] = char(i * 7 + 1);
            if (link_mode == 0) {
                // MBAP header, unit, function, byte count, data.
                reply_ = QByteArray(9, '\0');
                reply_[5] = char(3 + data_len_);
                reply_[6] = char(1);
                reply_[7] = char(c == Case::ReadWords ? 3 : 1);
                reply_[8] = char(data_len_);
                reply_ += data;
            } else {
                // [byte0, byte1, status, data..., 2 trailing bytes]
                reply_ = QByteArray(3, '\0') + data + QByteArray(2, '\0');
            }
        } else {
            reply_ = link_mode == 0 ? QByteArray(12, '\0') : QByteArray(8, '\0');
        }
        reply_.detach();
    }

    // One full exchange; false when the driver did not accept it as good.
    bool once()
    {
        if (case_ == Case::WriteWords)
            AddListWriteVar(&var_);
        Protocol *p = ComCommunication();
        // After five writes in a row with nothing else to read, one call
        // sends nothing and resets the burst; the runtime simply calls again.
        if (!p && case_ == Case::WriteWords)
            p = ComCommunication();
        if (!p)
            return false;
        const char *f = p->frame.constData();
        char *r = reply_.data();
        r[0] = f[0];
        r[1] = f[1];
        return DataCom(&reply_, reply_.size())->status == 1;
    }

    // What the mirror must hold after one good exchange.
    bool stored_correctly() const
    {
        const Communication_Protocol &d = PLC_driver;
        switch (case_) {
        case Case::ReadWords:
            return d.word_mirror.size() == 100 && d.word_mirror.value(mirror_key(1, 4, 0)) == 0x0108 &&
                   d.word_mirror.value(mirror_key(1, 4, 99)) ==
                       ushort(((198 * 7 + 1) & 0xFF) << 8 | ((199 * 7 + 1) & 0xFF));
        case Case::ReadBits:
            return d.bit_mirror.size() == 1000 && d.bit_mirror.value(mirror_key(1, 1, 0)) == 1 &&
                   d.bit_mirror.value(mirror_key(1, 1, 9)) == 0 && d.bit_mirror.value(mirror_key(1, 1, 11)) == 1;
        case Case::WriteWords:
            return d.word_mirror.size() == 100 && d.word_mirror.value(mirror_key(1, 4, 50)) == 0x5A5A &&
                   d.write_list.isEmpty() && g_writes_done > 0;
        }
        return false;
    }

private:
    Case case_;
    int link_mode_;
    int data_len_ = 0;
    RW_VAR var_;
    QByteArray reply_;
};

void run_case(benchmark::State &state, Case c)
{
    const int link_mode = int(state.range(0));
    Loop loop(c, link_mode);
    if (!loop.once() || !loop.stored_correctly()) {
        state.SkipWithError("the exchange was not accepted or stored the wrong data");
        return;
    }
    for (auto _ : state) {
        if (!loop.once()) {
            state.SkipWithError("an exchange failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(link_mode == 0 ? "modbus" : "remote");
    reset_driver(nullptr);
}

void BM_Exchange_Read100Registers(benchmark::State &state)
{
    run_case(state, Case::ReadWords);
}
BENCHMARK(BM_Exchange_Read100Registers)->Arg(0)->Arg(1);

void BM_Exchange_Read1000Bits(benchmark::State &state)
{
    run_case(state, Case::ReadBits);
}
BENCHMARK(BM_Exchange_Read1000Bits)->Arg(0)->Arg(1);

void BM_Exchange_Write100Registers(benchmark::State &state)
{
    run_case(state, Case::WriteWords);
}
BENCHMARK(BM_Exchange_Write100Registers)->Arg(0)->Arg(1);

// The instructions callgrind counts are those executed inside this function.
__attribute__((noinline)) long run_exchanges(Loop &loop, long iterations)
{
    long good = 0;
    for (long i = 0; i < iterations; ++i)
        good += loop.once();
    return good;
}

bool option(const char *arg, const char *name, std::string &value)
{
    const size_t n = std::strlen(name);
    if (std::strncmp(arg, name, n) != 0 || arg[n] != '=')
        return false;
    value = arg + n + 1;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    std::string case_name;
    std::string mode = "0";
    std::string iterations;
    for (int i = 1; i < argc; ++i) {
        option(argv[i], "--exchange_case", case_name) || option(argv[i], "--exchange_link_mode", mode) ||
            option(argv[i], "--exchange_iterations", iterations);
    }
    if (!iterations.empty()) {
        Case c;
        if (case_name == "read_words")
            c = Case::ReadWords;
        else if (case_name == "read_bits")
            c = Case::ReadBits;
        else if (case_name == "write_words")
            c = Case::WriteWords;
        else {
            std::fprintf(stderr, "--exchange_case must be read_words, read_bits or write_words\n");
            return 2;
        }
        const long n = std::atol(iterations.c_str());
        Loop loop(c, std::atoi(mode.c_str()));
        // Warm up: the mirror entries exist after the first exchange.
        if (!loop.once() || !loop.stored_correctly()) {
            std::fprintf(stderr, "the exchange was not accepted or stored the wrong data\n");
            return 1;
        }
        const long good = run_exchanges(loop, n);
        std::printf("%s link_mode %s: %ld of %ld exchanges good\n", case_name.c_str(), mode.c_str(), good, n);
        reset_driver(nullptr);
        return good == n ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
