// The exchange loop on its communication thread while runtime threads queue
// writes and one-shot reads, read values, switch a station on and off and
// rebuild the cyclic read list: no deadlock, no lost or doubled write, the
// bit read-modify-writes never lose a bit, and a value only ever moves forward.
#include <gtest/gtest.h>

#include "exchange_test_support.h"
#include "plc_model.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

constexpr int kCounterWrites = 300; // word 10 of station 1 counts 1..300
constexpr int kBits = 16;           // bits 0..15 of word 20, set one by one

HostReadVar descriptor(int kind, int station, const char *address, int count)
{
    HostReadVar h;
    h.reg_kind = quint8(kind);
    h.station = quint8(station);
    h.address_text = QString::fromLatin1(address);
    h.count = count;
    return h;
}

// Completions, counted from the communication thread and read by others.
std::atomic<int> g_done_ok{0};
std::atomic<int> g_done_failed{0};

void count_write_done(int, int, int, int result)
{
    (result == 1 ? g_done_ok : g_done_failed).fetch_add(1);
}

void ignore_read_done(QList<RW_VAR> *, int, int) {}

ushort read_word(int station, int addr)
{
    QByteArray out;
    GetRegisterData(nullptr, 4, QString::number(addr), station, &out, 1);
    return ushort(uchar(out.at(0)) | (uchar(out.at(1)) << 8));
}

TEST(ExchangeThreads, RuntimeThreadsAndTheCommunicationThread)
{
    ComInfo info = make_com_info();
    reset_driver(&info);
    g_done_ok = 0;
    g_done_failed = 0;
    RegistCallBackFuncIntf(count_write_done, ignore_read_done);
    QList<HostReadVar> host;
    host << descriptor(4, 1, "0", 30) << descriptor(4, 3, "0", 4);
    ASSERT_EQ(ReCreatReadVarList(&host), 2);

    std::atomic<bool> writers_done{false};
    std::atomic<bool> stop{false};
    std::atomic<int> queued{0};
    std::atomic<int> backwards{0};
    Plc plc;
    long exchanges = 0;

    // The communication thread: send, answer from the PLC, hand back. The
    // cyclic list always has a request to make, so it runs until stopped.
    std::thread comm([&] {
        while (!stop.load()) {
            Protocol *p = ComCommunication();
            if (!p) {
                std::this_thread::yield();
                continue;
            }
            QByteArray reply = plc.modbus_reply(p->frame.left(p->frame_len));
            const int status = DataCom(&reply, reply.size())->status;
            EXPECT_TRUE(status == 1) << status;
            ++exchanges;
        }
    });

    // Counter writes, bit writes and one-shot reads, each with its own
    // requester so that every write reports its own completion.
    std::thread writer([&] {
        for (int i = 1; i <= kCounterWrites; ++i) {
            // Keep only a few writes ahead of the loop, so that queueing and
            // sending overlap all along.
            while (queued.load() - g_done_ok.load() > 8 && !stop.load())
                std::this_thread::yield();
            QByteArray v = bytes({i & 0xFF, i >> 8});
            SetRegisterData(QStringLiteral("counter"), 4, QStringLiteral("10"), 1, &v, 1, 1, i);
            queued.fetch_add(1);
            if (i % 18 == 0 && i / 18 <= kBits) {
                QByteArray one = bytes({1});
                const QString bit = QString::fromLatin1("40.%1").arg(i / 18 - 1); // bits of word 20
                SetRegisterData(QStringLiteral("bit"), 5, bit, 1, &one, 1, 2, i);
                queued.fetch_add(1);
            }
            if (i % 50 == 0) {
                RW_VAR once = make_var(4, 0, 2, 1, 3, i);
                once.address_text = QStringLiteral("100");
                AddListOnceReadVar(&once, 0); // reported through write_done_cb too
                queued.fetch_add(1);
            }
        }
        writers_done.store(true);
    });

    // A reader that never sees the counter go backwards, and a thread that
    // switches station 3 and rebuilds the cyclic list.
    std::thread reader([&] {
        ushort last = 0;
        while (!writers_done.load()) {
            const ushort now = read_word(1, 10);
            if (now < last)
                backwards.fetch_add(1);
            last = now;
        }
    });
    std::thread station_switch([&] {
        for (int i = 0; !writers_done.load(); ++i) {
            EnCommStation(3, i & 1);
            if (i % 64 == 0) {
                QList<HostReadVar> again = host;
                ReCreatReadVarList(&again);
            }
            std::this_thread::yield();
        }
        EnCommStation(3, 1);
    });

    writer.join();
    reader.join();
    station_switch.join();
    // Give the loop ample time to drain; a deadlock or a lost write shows as
    // the loop still running here.
    for (int i = 0; i < 2000 && g_done_ok.load() != queued.load(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stop.store(true);
    comm.join();

    EXPECT_EQ(queued.load(), kCounterWrites + kBits + kCounterWrites / 50);
    EXPECT_EQ(g_done_ok.load(), queued.load());
    EXPECT_EQ(g_done_failed.load(), 0);
    EXPECT_EQ(backwards.load(), 0);
    EXPECT_EQ(plc.word_value(1, 4, 10), kCounterWrites);
    EXPECT_EQ(plc.word_value(1, 4, 20), 0xFFFF); // no bit lost
    EXPECT_GT(exchanges, kCounterWrites);

    // A few more exchanges (one-shot reads may still be pending) bring the
    // PLC's values into the mirror.
    for (int i = 0; i < 12; ++i) {
        Protocol *p = ComCommunication();
        ASSERT_NE(p, nullptr);
        QByteArray reply = plc.modbus_reply(p->frame.left(p->frame_len));
        EXPECT_EQ(DataCom(&reply, reply.size())->status, 1);
    }
    EXPECT_EQ(read_word(1, 10), kCounterWrites);
    EXPECT_EQ(read_word(1, 20), 0xFFFF);
    reset_driver(nullptr);
}

} // namespace
