// Concurrent use of the register mirror: runtime threads reading and writing
// values while the communication thread stores replies. Every multi-word
// value a reader sees must be one that a single writer wrote whole, and the
// read-modify-write of a bit or a byte must never lose another thread's update.
#include <gtest/gtest.h>

#include "Driver_Lock.h"
#include "driver_fixture.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

// Eight groups of four class-4 words (words 0..31 of station 1). Every write
// to this region covers whole groups and gives all four words of a group the
// same value: (writer id << 12) | sequence, writer ids 1 to 5.
constexpr int kGroups = 8;
constexpr int kWords = 4 * kGroups;
constexpr int kStation = 1;
constexpr int kWriterIterations = 2500;
constexpr int kMinReads = 500;

ushort tag(int writer, int seq)
{
    return ushort((writer << 12) | (seq & 0xFFF));
}

// Four little-endian copies of one word.
QByteArray group_bytes(ushort v)
{
    QByteArray out;
    for (int j = 0; j < 4; ++j) {
        out.append(char(v & 0xFF));
        out.append(char(v >> 8));
    }
    return out;
}

struct Findings {
    std::atomic<int> torn{0};
    std::atomic<int> foreign{0};
    std::atomic<long> nonzero_groups{0};
    std::mutex m;
    std::string first;

    void report(const std::string &what)
    {
        std::lock_guard<std::mutex> g(m);
        if (first.empty())
            first = what;
    }
};

ushort le_word(const QByteArray &b, int i)
{
    return ushort(uchar(b[2 * i]) | (uchar(b[2 * i + 1]) << 8));
}

// Checks a buffer holding the region's 32 words in ascending order.
void check_groups(const QByteArray &buf, const char *reader, Findings &f)
{
    if (buf.size() != 2 * kWords) {
        f.torn.fetch_add(1);
        f.report(std::string(reader) + ": wrong buffer size");
        return;
    }
    for (int g = 0; g < kGroups; ++g) {
        const ushort first = le_word(buf, 4 * g);
        for (int j = 1; j < 4; ++j) {
            if (le_word(buf, 4 * g + j) != first) {
                f.torn.fetch_add(1);
                f.report(std::string(reader) + ": group " + std::to_string(g) + " mixes two writes");
            }
        }
        const int writer = first >> 12;
        if (first != 0 && (writer < 1 || writer > 5)) {
            f.foreign.fetch_add(1);
            f.report(std::string(reader) + ": value no writer wrote");
        }
        if (first != 0)
            f.nonzero_groups.fetch_add(1);
    }
}

class MirrorThreads : public DriverTest {
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        info.write_mode = 1; // host writes go straight into the mirror
        info.station_from_address = 1;
    }
};

} // namespace

TEST_F(MirrorThreads, MultiWordValuesAreNeverTorn)
{
    std::atomic<bool> go{false};
    std::atomic<int> writers_left{5};
    Findings f;
    std::vector<std::thread> threads;

    auto wait_go = [&go] {
        while (!go.load())
            std::this_thread::yield();
    };
    auto writer_done = [&writers_left] { writers_left.fetch_sub(1); };

    // 1: quad words through SetRegisterData (kind 14, one quad word per group).
    threads.emplace_back([&] {
        wait_go();
        for (int i = 0; i < kWriterIterations; ++i) {
            QByteArray v = group_bytes(tag(1, i));
            SetRegisterData("q", 14, QString::number(i % kGroups), kStation, &v, 4, 1, 1);
        }
        writer_done();
    });
    // 2: word blocks of two groups through SetRegisterData (kind 4).
    threads.emplace_back([&] {
        wait_go();
        for (int i = 0; i < kWriterIterations; ++i) {
            const int g = i % (kGroups - 1);
            QByteArray v = group_bytes(tag(2, i)) + group_bytes(tag(2, i + 1));
            SetRegisterData("w", 4, QString::number(4 * g), kStation, &v, 8, 2, 2);
        }
        writer_done();
    });
    // 3: two double words straight through write_data_to_local (kind 11).
    threads.emplace_back([&] {
        wait_go();
        for (int i = 0; i < kWriterIterations; ++i) {
            RW_VAR var;
            var.reg_kind = 11;
            var.station = kStation;
            var.start_addr = 2 * ((i * 3) % kGroups);
            var.count = 4;
            var.data = group_bytes(tag(3, i));
            write_data_to_local(&var);
        }
        writer_done();
    });
    // 4: double words through SetRegisterData (kind 11, count in words).
    threads.emplace_back([&] {
        wait_go();
        for (int i = 0; i < kWriterIterations; ++i) {
            QByteArray v = group_bytes(tag(4, i));
            SetRegisterData("d", 11, QString::number(2 * ((i * 5) % kGroups)), kStation, &v, 4, 4, 4);
        }
        writer_done();
    });
    // 5: the communication thread storing read replies of one group each,
    // as the local-area reply handling does: the request at the head of the
    // queue, the store under area_mutex. Only this thread touches the queue.
    threads.emplace_back([&] {
        wait_go();
        for (int i = 0; i < kWriterIterations; ++i) {
            const int g = (i * 7) % kGroups;
            Protocol p;
            p.var.reg_kind = 4;
            p.var.station = kStation;
            p.var.start_addr = 4 * g;
            p.var.count = 4;
            p.reply_header_len = 9;
            p.data_len = 8;
            p.reply_len = 17;
            PLC_driver.request_queue.append(p);
            const ushort v = tag(5, i);
            QByteArray reply(9, '\0');
            for (int j = 0; j < 4; ++j) { // registers arrive big-endian
                reply.append(char(v >> 8));
                reply.append(char(v & 0xFF));
            }
            {
                DriverLock lock(PLC_driver.area_mutex);
                save_to_local_data_erea(&reply);
            }
            PLC_driver.request_queue.removeFirst();
        }
        writer_done();
    });

    // Readers through three views of the same words; they keep reading until
    // every writer has finished.
    struct View {
        int kind;
        int count;
        const char *name;
    };
    for (const View view : {View{14, kWords, "quad-word reader"}, View{4, kWords, "word reader"},
                            View{11, kWords, "double-word reader"}}) {
        threads.emplace_back([&, view] {
            wait_go();
            QByteArray out;
            for (int i = 0; i < kMinReads || writers_left.load() > 0; ++i) {
                if (GetRegisterData(nullptr, view.kind, "0", kStation, &out, view.count) != 1) {
                    f.torn.fetch_add(1);
                    f.report(std::string(view.name) + ": result not 1");
                }
                check_groups(out, view.name, f);
            }
        });
    }

    go.store(true);
    for (std::thread &t : threads)
        t.join();

    EXPECT_EQ(f.torn.load(), 0) << f.first;
    EXPECT_EQ(f.foreign.load(), 0) << f.first;
    EXPECT_GT(f.nonzero_groups.load(), 0);

    // After all writers: every group holds one writer's value, whole.
    QByteArray out;
    ASSERT_EQ(GetRegisterData(nullptr, 4, "0", kStation, &out, kWords), 1);
    Findings last;
    check_groups(out, "final", last);
    EXPECT_EQ(last.torn.load(), 0) << last.first;
    EXPECT_EQ(last.nonzero_groups.load(), kGroups);
    EXPECT_EQ(PLC_driver.word_mirror.size(), kWords);
    EXPECT_TRUE(PLC_driver.request_queue.isEmpty());
}

TEST_F(MirrorThreads, BitAndByteUpdatesOfOneWordAreNeverLost)
{
    // Two threads share class-4 word 100 (one owns bits 0..7, the other bits
    // 8..15, written one bit at a time through kind 5) and word 101 (one owns
    // the low byte, the other the high byte, through kind 8 and straight
    // through write_data_to_local). A lost read-modify-write would leave a
    // stale bit or byte behind.
    constexpr int kRounds = 1500;
    const uchar final_bits[2] = {0xA5, 0x3C};
    std::atomic<bool> go{false};
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 2; ++k) {
        threads.emplace_back([&, k] {
            while (!go.load())
                std::this_thread::yield();
            const QString bit_address = QString("%1.0").arg(200 + k); // bit 1600 + 8k
            const QString byte_address = QString::number(202 + k);
            for (int r = 0; r <= kRounds; ++r) {
                const uchar bits = r == kRounds ? final_bits[k] : uchar(r & 1 ? 0xFF : 0x00);
                QByteArray in(8, '\0');
                for (int b = 0; b < 8; ++b)
                    in[b] = char((bits >> b) & 1);
                SetRegisterData("b", 5, bit_address, kStation, &in, 8, 1, k);

                QByteArray byte(2, '\0');
                byte[0] = char(uchar(r + 17 * k));
                if (r % 2 == 0) {
                    SetRegisterData("y", 8, byte_address, kStation, &byte, 1, 1, k);
                } else {
                    RW_VAR var;
                    var.reg_kind = 8;
                    var.station = kStation;
                    var.start_addr = 202 + k;
                    var.count = 1;
                    var.data = byte.left(1);
                    write_data_to_local(&var);
                }

                // The other thread never writes these bits or this byte, so
                // they must read back as just written.
                QByteArray back;
                GetRegisterData(nullptr, 5, bit_address, kStation, &back, 8);
                if (back != in)
                    lost.fetch_add(1);
                GetRegisterData(nullptr, 8, byte_address, kStation, &back, 1);
                if (back.size() != 2 || back[0] != byte[0])
                    lost.fetch_add(1);
            }
        });
    }
    go.store(true);
    for (std::thread &t : threads)
        t.join();

    EXPECT_EQ(lost.load(), 0);
    QByteArray out;
    ASSERT_EQ(GetRegisterData(nullptr, 4, "100", kStation, &out, 2), 1);
    EXPECT_EQ(le_word(out, 0), 0x3CA5);
    EXPECT_EQ(le_word(out, 1), ushort(((kRounds + 17) & 0xFF) << 8 | (kRounds & 0xFF)));
    EXPECT_EQ(PLC_driver.word_mirror.size(), 2);
}
