// The driver's Modbus TCP requests on the wire: a libmodbus server runs in a
// thread on 127.0.0.1 (ephemeral port), every request the builders make is
// sent to it over a real socket, and the responses are checked the way the
// driver checks them. What a write did is read back from the server's own
// memory, independently of the driver.
#include <gtest/gtest.h>

#include "driver_test_support.h"

#include <modbus.h>

#include <QByteArray>
#include <QString>

#include <arpa/inet.h>
#include <cerrno>
#include <initializer_list>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kSpan = 0x10000; // every register address the driver can produce

// A Modbus TCP server on 127.0.0.1 with 65536 entries in each table. One
// client connection is served at a time.
class ModbusPeer {
public:
    ModbusPeer()
    {
        map_ = modbus_mapping_new(kSpan, kSpan, kSpan, kSpan);
        listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = 0;
        socklen_t len = sizeof a;
        if (!map_ || listen_fd_ < 0 || ::bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
            ::listen(listen_fd_, 4) != 0 || ::getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
            return;
        port_ = ntohs(a.sin_port);
        ctx_ = modbus_new_tcp("127.0.0.1", port_);
        if (!ctx_)
            return;
        // libmodbus waits one response timeout before it sends an exception
        // that discards input; keep that wait short.
        modbus_set_response_timeout(ctx_, 0, 20000);
        thread_ = std::thread(&ModbusPeer::serve, this);
    }

    ~ModbusPeer()
    {
        if (listen_fd_ >= 0)
            ::shutdown(listen_fd_, SHUT_RDWR); // wakes the blocked accept
        if (thread_.joinable())
            thread_.join();
        if (listen_fd_ >= 0)
            ::close(listen_fd_);
        if (ctx_)
            modbus_free(ctx_);
        if (map_)
            modbus_mapping_free(map_);
    }

    bool running() const { return thread_.joinable(); }
    int port() const { return port_; }

    // Runs f on the server's tables while no request is being answered.
    template <class F> void with_memory(F f)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        f(*map_);
    }

private:
    void serve()
    {
        for (;;) {
            const int fd = ::accept(listen_fd_, nullptr, nullptr);
            if (fd < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            modbus_set_socket(ctx_, fd);
            uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
            for (;;) {
                const int rc = modbus_receive(ctx_, query);
                if (rc < 0)
                    break; // connection closed (or a request libmodbus cannot parse)
                if (rc > 0) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    modbus_reply(ctx_, query, rc, map_);
                }
            }
            modbus_set_socket(ctx_, -1);
            ::close(fd);
        }
    }

    modbus_mapping_t *map_ = nullptr;
    modbus_t *ctx_ = nullptr;
    int listen_fd_ = -1;
    int port_ = 0;
    std::mutex mutex_;
    std::thread thread_;
};

ModbusPeer *g_peer = nullptr;

ushort reg_pattern(int i)
{
    return ushort(i * 31 + 7);
}
ushort input_reg_pattern(int i)
{
    return ushort((i * 17) ^ 0x5A5A);
}
uint8_t coil_pattern(int i)
{
    return uint8_t(i % 3 == 0);
}
uint8_t input_bit_pattern(int i)
{
    return uint8_t(i % 5 < 2);
}

// A write record as SetRegisterData queues it: rw_flag 1.
QByteArray pattern_bytes(int n, int seed)
{
    QByteArray d(n, '\0');
    for (int i = 0; i < n; ++i)
        d[i] = char(i * 13 + seed);
    return d;
}

class ModbusWire : public ::testing::Test {
protected:
    static void SetUpTestSuite() { g_peer = new ModbusPeer; }
    static void TearDownTestSuite()
    {
        delete g_peer;
        g_peer = nullptr;
    }

    void SetUp() override
    {
        ASSERT_TRUE(g_peer && g_peer->running()) << "the Modbus server did not start";
        info_ = make_com_info();
        reset_driver(&info_);
        g_peer->with_memory([](modbus_mapping_t &m) {
            for (int i = 0; i < kSpan; ++i) {
                m.tab_registers[i] = reg_pattern(i);
                m.tab_input_registers[i] = input_reg_pattern(i);
                m.tab_bits[i] = coil_pattern(i);
                m.tab_input_bits[i] = input_bit_pattern(i);
            }
        });
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd_, 0);
        timeval tv{5, 0}; // a lost response fails the test instead of hanging it
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(uint16_t(g_peer->port()));
        ASSERT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    }

    void TearDown() override
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    bool read_exact(char *dst, int n)
    {
        int got = 0;
        while (got < n) {
            const ssize_t r = ::recv(fd_, dst + got, size_t(n - got), 0);
            if (r <= 0) {
                if (r < 0 && errno == EINTR)
                    continue;
                return false;
            }
            got += int(r);
        }
        return true;
    }

    // Sends a frame and reads one whole response, framed by the MBAP length field.
    QByteArray exchange(const QByteArray &frame)
    {
        EXPECT_EQ(::send(fd_, frame.constData(), size_t(frame.size()), MSG_NOSIGNAL), frame.size());
        QByteArray head(7, '\0');
        if (!read_exact(head.data(), 7))
            return QByteArray();
        const int rest = (uchar(head[4]) << 8 | uchar(head[5])) - 1;
        if (rest < 0 || rest > 300)
            return head;
        QByteArray body(rest, '\0');
        if (!read_exact(body.data(), rest))
            return head;
        return head + body;
    }

    // Sends the head of the request queue and checks the response as the
    // driver would: a normal response of the expected length that passes
    // CheckGetData with the given verdict. The request stays at the head.
    QByteArray transact_head(int verdict)
    {
        const Protocol req = PLC_driver.request_queue.first();
        EXPECT_EQ(req.frame.size(), req.frame_len);
        QByteArray resp = exchange(req.frame);
        EXPECT_GE(resp.size(), 8);
        if (resp.size() < 8)
            return resp;
        EXPECT_EQ(uchar(resp[7]) & 0x80, 0) << "exception response " << resp.toHex().constData();
        EXPECT_EQ(uchar(resp[7]), uchar(req.frame[7]));
        EXPECT_EQ(resp.left(2), req.frame.left(2)); // transaction identifier echoed
        EXPECT_EQ(uchar(resp[6]), uchar(req.var.station));
        if (req.var.station != 0) {
            EXPECT_EQ(resp.size(), req.reply_len);
        }
        EXPECT_EQ(CheckGetData(&resp, resp.size()), verdict);
        return resp;
    }

    // Sends the head request, checks the response and retires the request.
    QByteArray transact_and_retire(int verdict)
    {
        QByteArray resp = transact_head(verdict);
        PLC_driver.request_queue.removeFirst();
        return resp;
    }

    std::vector<ushort> registers(int fc, int address, int n)
    {
        std::vector<ushort> out;
        g_peer->with_memory([&](modbus_mapping_t &m) {
            const uint16_t *t = fc == 4 ? m.tab_input_registers : m.tab_registers;
            for (int i = 0; i < n; ++i)
                out.push_back(t[(address + i) & 0xFFFF]);
        });
        return out;
    }

    std::vector<uint8_t> bits(int fc, int address, int n)
    {
        std::vector<uint8_t> out;
        g_peer->with_memory([&](modbus_mapping_t &m) {
            const uint8_t *t = fc == 2 ? m.tab_input_bits : m.tab_bits;
            for (int i = 0; i < n; ++i)
                out.push_back(t[(address + i) & 0xFFFF]);
        });
        return out;
    }

    // The data a read response must carry, straight from the server's tables.
    QByteArray expected_read_data(int fc, int address, int count)
    {
        QByteArray d;
        if (fc == 1 || fc == 2) {
            const std::vector<uint8_t> b = bits(fc, address, count);
            d = QByteArray((count + 7) / 8, '\0');
            for (int i = 0; i < count; ++i)
                if (b[size_t(i)])
                    d[i / 8] = char(uchar(d[i / 8]) | (1u << (i % 8)));
        } else {
            for (ushort r : registers(fc, address, count)) {
                d.append(char(r >> 8));
                d.append(char(r & 0xFF));
            }
        }
        return d;
    }

    // The same registers as the host buffer would hold them: low byte first.
    QByteArray host_words(int fc, int address, int count)
    {
        QByteArray d;
        for (ushort r : registers(fc, address, count)) {
            d.append(char(r & 0xFF));
            d.append(char(r >> 8));
        }
        return d;
    }

    ComInfo info_;
    int fd_ = -1;
};

struct ReadCase {
    int kind, station, start, count, fc, wire_address;
};

} // namespace

TEST_F(ModbusWire, ReadsOfEveryFunctionCodeMatchServerMemory)
{
    const ReadCase cases[] = {
        {0, 1, 0, 1, 2, 0x6000},        {0, 17, 13, 10, 2, 0x600D},     {0, 255, 100, 2000, 2, 0x6064},
        {1, 1, 0, 2000, 1, 0xA000},     {1, 17, 5, 9, 1, 0xA005},       {1, 3, 0x5000, 16, 1, 0xF000},
        {2, 1, 0, 1, 4, 0x8000},        {2, 17, 0x7FF0, 16, 4, 0xFFF0}, {2, 255, 300, 125, 4, 0x812C},
        {3, 1, 0x5F00, 125, 3, 0xFF00}, {3, 17, 10, 3, 3, 0xA00A},      {4, 1, 0xFF83, 125, 3, 0xFF83},
        {4, 200, 42, 1, 3, 42},         {4, 2, 0, 120, 3, 0},
    };
    for (const ReadCase &c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " station " << c.station << " start " << c.start
                                        << " count " << c.count);
        reset_driver(&info_);
        RW_VAR v = make_var(c.kind, c.start, c.count, c.station);
        read_register(&v);
        ASSERT_EQ(PLC_driver.request_queue.size(), 1);
        EXPECT_EQ(uchar(PLC_driver.request_queue.first().frame[7]), c.fc);
        QByteArray resp = transact_head(1);
        const QByteArray data = expected_read_data(c.fc, c.wire_address, c.count);
        EXPECT_EQ(uchar(resp.size() > 8 ? resp[8] : 0), uchar(data.size()));
        EXPECT_EQ(resp.mid(9), data);

        // Stored into the mirror, the reply reads back as the server's values.
        save_to_local_data_erea(&resp);
        PLC_driver.request_queue.removeFirst();
        QByteArray out;
        if (c.kind <= 1) {
            const QString text = QStringLiteral("%1.%2").arg(c.start / 8).arg(c.start % 8);
            ASSERT_EQ(GetRegisterData(nullptr, c.kind, text, c.station, &out, c.count), 1);
            const std::vector<uint8_t> b = bits(c.fc, c.wire_address, c.count);
            EXPECT_EQ(out, QByteArray(reinterpret_cast<const char *>(b.data()), int(b.size())));
        } else {
            ASSERT_EQ(GetRegisterData(nullptr, c.kind, QString::number(c.start), c.station, &out, c.count), 1);
            EXPECT_EQ(out, host_words(c.fc, c.wire_address, c.count));
        }
    }
}

TEST_F(ModbusWire, ReadsOfConvertedKindsReachTheirClass)
{
    const struct {
        int kind, start, count, fc, wire_address, words;
    } cases[] = {
        {5, 35, 20, 3, 2, 2},     {6, 3, 4, 4, 0x8001, 3},       {7, 3, 2, 3, 0xA001, 2},   {8, 200, 250, 3, 100, 125},
        {9, 5, 3, 4, 0x800A, 4},  {10, 5, 3, 3, 0xA00A, 4},      {11, 10, 100, 3, 20, 100}, {12, 2, 1, 4, 0x8008, 4},
        {13, 2, 8, 3, 0xA008, 8}, {14, 1000, 120, 3, 4000, 120},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind);
        reset_driver(&info_);
        RW_VAR v = make_var(c.kind, c.start, c.count, 9);
        Communication_Protocol::update_rw_var(&v);
        ASSERT_EQ(v.count, c.words);
        read_register(&v);
        ASSERT_EQ(PLC_driver.request_queue.size(), 1);
        QByteArray resp = transact_head(1);
        EXPECT_EQ(resp.mid(9), expected_read_data(c.fc, c.wire_address, c.words));
        save_to_local_data_erea(&resp);
        PLC_driver.request_queue.removeFirst();
        QByteArray out;
        ASSERT_EQ(GetRegisterData(nullptr, v.reg_kind, QString::number(v.start_addr), 9, &out, v.count), 1);
        EXPECT_EQ(out, host_words(c.fc, c.wire_address, c.words));
    }
}

TEST_F(ModbusWire, StoredReadsServeTheWiderViews)
{
    // A 32-bit value of class 4 at double-word address 10 is words 20 and 21.
    RW_VAR v = make_var(11, 10, 2, 4);
    Communication_Protocol::update_rw_var(&v);
    read_register(&v);
    QByteArray resp = transact_head(1);
    save_to_local_data_erea(&resp);
    PLC_driver.request_queue.removeFirst();
    QByteArray out;
    ASSERT_EQ(GetRegisterData(nullptr, 11, QStringLiteral("10"), 4, &out, 2), 1);
    EXPECT_EQ(out, host_words(3, 20, 2));

    // Byte 3 of class 3 is the high byte of register 0xA001.
    RW_VAR b = make_var(7, 3, 2, 4);
    Communication_Protocol::update_rw_var(&b);
    read_register(&b);
    resp = transact_head(1);
    save_to_local_data_erea(&resp);
    PLC_driver.request_queue.removeFirst();
    ASSERT_EQ(GetRegisterData(nullptr, 7, QStringLiteral("3"), 4, &out, 2), 1);
    const std::vector<ushort> r = registers(3, 0xA001, 2);
    EXPECT_EQ(out, bytes({r[0] >> 8, r[1] & 0xFF, 0, 0}));

    // Bit 35 of class 4 is bit 3 of register 2.
    RW_VAR t = make_var(5, 35, 1, 4);
    Communication_Protocol::update_rw_var(&t);
    read_register(&t);
    resp = transact_head(1);
    save_to_local_data_erea(&resp);
    PLC_driver.request_queue.removeFirst();
    ASSERT_EQ(GetRegisterData(nullptr, 5, QStringLiteral("4.3"), 4, &out, 1), 1);
    EXPECT_EQ(out, QByteArray(1, char((registers(3, 2, 1)[0] >> 3) & 1)));
}

TEST_F(ModbusWire, RegisterWritesLandInServerMemory)
{
    // Kind 4: class-4 registers at their own address.
    RW_VAR a = make_write(4, 10, 2, 1, hex("01020304"));
    write_register(&a);
    transact_and_retire(2);
    EXPECT_EQ(registers(3, 10, 2), (std::vector<ushort>{0x0201, 0x0403}));
    EXPECT_EQ(registers(3, 9, 1)[0], reg_pattern(9));
    EXPECT_EQ(registers(3, 12, 1)[0], reg_pattern(12));

    // Kind 3: class-3 registers, 0xA000 further up.
    RW_VAR b = make_write(3, 10, 1, 17, hex("CDAB"));
    write_register(&b);
    transact_and_retire(2);
    EXPECT_EQ(registers(3, 0xA00A, 1)[0], 0xABCD);
    EXPECT_EQ(registers(3, 10, 1)[0], 0x0201);

    // The most registers one request may write, and the mirror agrees.
    const QByteArray big = pattern_bytes(246, 5);
    RW_VAR c = make_write(4, 0x100, 123, 255, big);
    write_register(&c);
    transact_and_retire(2);
    EXPECT_EQ(host_words(3, 0x100, 123), big);
    EXPECT_EQ(registers(3, 0x100 + 123, 1)[0], reg_pattern(0x100 + 123));
    QByteArray mirror;
    ASSERT_EQ(GetRegisterData(nullptr, 4, QStringLiteral("256"), 255, &mirror, 123), 1);
    EXPECT_EQ(mirror, big);

    // A full chunk of 120 class-3 registers.
    const QByteArray chunk = pattern_bytes(240, 77);
    RW_VAR d = make_write(3, 0x5F00, 120, 2, chunk);
    write_register(&d);
    transact_and_retire(2);
    EXPECT_EQ(host_words(3, 0xFF00, 120), chunk);
}

TEST_F(ModbusWire, LongValueWritesLandWithoutOffset)
{
    // Kind 10 at double word 7: registers 14 and 15, not 0xA00E.
    RW_VAR a = make_write(10, 7, 1, 1, hex("78563412"));
    write_register(&a);
    transact_and_retire(2);
    EXPECT_EQ(registers(3, 14, 2), (std::vector<ushort>{0x5678, 0x1234}));
    EXPECT_EQ(registers(3, 0xA00E, 2), (std::vector<ushort>{reg_pattern(0xA00E), reg_pattern(0xA00F)}));

    // Kind 11, a chunk of 50 double words: 100 registers from 2 * 300.
    const QByteArray dwords = pattern_bytes(200, 3);
    RW_VAR b = make_write(11, 300, 50, 7, dwords);
    write_register(&b);
    transact_and_retire(2);
    EXPECT_EQ(host_words(3, 600, 100), dwords);

    // Kind 13 at quad word 3: registers 12 to 15.
    RW_VAR c = make_write(13, 3, 1, 1, hex("0102030405060708"));
    write_register(&c);
    transact_and_retire(2);
    EXPECT_EQ(registers(3, 12, 4), (std::vector<ushort>{0x0201, 0x0403, 0x0605, 0x0807}));

    // Kind 14, a chunk of 25 quad words: 100 registers from 4 * 1000.
    const QByteArray qwords = pattern_bytes(200, 9);
    RW_VAR d = make_write(14, 1000, 25, 200, qwords);
    write_register(&d);
    transact_and_retire(2);
    EXPECT_EQ(host_words(3, 4000, 100), qwords);
    QByteArray mirror;
    ASSERT_EQ(GetRegisterData(nullptr, 14, QStringLiteral("1000"), 200, &mirror, 100), 1);
    EXPECT_EQ(mirror, qwords);
}

TEST_F(ModbusWire, CoilWritesLandInServerMemory)
{
    RW_VAR a = make_write(1, 5, 10, 3, hex("A503"));
    write_register(&a);
    transact_and_retire(2);
    EXPECT_EQ(bits(1, 0xA005, 10), (std::vector<uint8_t>{1, 0, 1, 0, 0, 1, 0, 1, 1, 1}));
    EXPECT_EQ(bits(1, 0xA004, 1)[0], coil_pattern(0xA004));
    EXPECT_EQ(bits(1, 0xA00F, 1)[0], coil_pattern(0xA00F));

    // The most coils one request may write.
    const QByteArray packed = pattern_bytes(246, 1);
    RW_VAR b = make_write(1, 0x100, 1968, 255, packed);
    write_register(&b);
    transact_and_retire(2);
    const std::vector<uint8_t> got = bits(1, 0xA100, 1968);
    int wrong = 0;
    for (int i = 0; i < 1968; ++i)
        wrong += got[size_t(i)] != ((uchar(packed[i / 8]) >> (i % 8)) & 1);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(bits(1, 0xA100 + 1968, 1)[0], coil_pattern(0xA100 + 1968));
}

TEST_F(ModbusWire, WriteToStationZeroIsAnsweredButNotAwaited)
{
    RW_VAR a = make_write(4, 500, 1, 0, hex("3412"));
    write_register(&a);
    ASSERT_EQ(PLC_driver.request_queue.first().reply_len, 0);
    // A TCP server still answers unit 0; the driver takes any reply for it.
    transact_and_retire(2);
    EXPECT_EQ(registers(3, 500, 1)[0], 0x1234);
}

TEST_F(ModbusWire, BitAndByteWritesChangeOnlyTheirPart)
{
    // Registers far enough apart that no case touches another's neighbours.
    const struct {
        int kind, start, station;
        uchar value;
        int wire_address;
        ushort result;
    } cases[] = {
        {5, 40 * 16 + 3, 1, 1, 40, 0x123C},   // set bit 3
        {5, 50 * 16 + 4, 1, 0, 50, 0x1224},   // clear bit 4
        {5, 60 * 16 + 15, 17, 7, 60, 0x9234}, // any non-zero byte sets the bit
        {8, 2 * 70 + 1, 1, 0xAB, 70, 0xAB34}, // odd byte: high byte
        {8, 2 * 80, 255, 0xAB, 80, 0x12AB},   // even byte: low byte
        {7, 2 * 90, 1, 0xAB, 0xA000 + 90, 0x12AB}, {7, 2 * 100 + 1, 2, 0xCD, 0xA000 + 100, 0xCD34},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " start " << c.start);
        reset_driver(&info_);
        g_peer->with_memory([&](modbus_mapping_t &m) { m.tab_registers[c.wire_address] = 0x1234; });
        RW_VAR v = make_var(c.kind, c.start, 1, c.station, QByteArray(1, char(c.value)));
        v.rw_flag = 1;
        // The write list's head is the variable whose bit or byte is merged in.
        PLC_driver.write_list.append(v);
        write_register(&v);
        ASSERT_EQ(PLC_driver.request_queue.size(), 2);
        EXPECT_EQ(info_.replies_expected, 2);

        QByteArray resp = transact_head(1);
        EXPECT_EQ(resp.mid(9), hex("1234"));
        save_to_local_data_erea(&resp);
        EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
        PLC_driver.request_queue.removeFirst();
        EXPECT_EQ(uchar(PLC_driver.request_queue.first().frame[13]), c.result >> 8);
        EXPECT_EQ(uchar(PLC_driver.request_queue.first().frame[14]), c.result & 0xFF);

        transact_and_retire(2);
        EXPECT_EQ(registers(3, c.wire_address, 1)[0], c.result);
        EXPECT_EQ(registers(3, c.wire_address - 1, 1)[0], reg_pattern(c.wire_address - 1));
        EXPECT_EQ(registers(3, c.wire_address + 1, 1)[0], reg_pattern(c.wire_address + 1));
        // A byte of class 3 leaves the class-4 register of the same number alone.
        if (c.kind == 7) {
            EXPECT_EQ(registers(3, c.wire_address - 0xA000, 1)[0], reg_pattern(c.wire_address - 0xA000));
        }
        EXPECT_TRUE(PLC_driver.word_mirror.isEmpty());
    }
}

TEST_F(ModbusWire, CountsAboveTheProtocolLimitsDrawExceptions)
{
    // The builders encode any count; the server refuses what Modbus does not
    // allow, and the short exception response fails the reply length check.
    RW_VAR regs = make_var(4, 0, 126, 1);
    read_register(&regs);
    const Protocol req = PLC_driver.request_queue.first();
    QByteArray resp = exchange(req.frame);
    ASSERT_EQ(resp.size(), 9);
    EXPECT_EQ(uchar(resp[7]), 0x83);
    EXPECT_EQ(uchar(resp[8]), 3); // illegal data value
    EXPECT_NE(resp.size(), req.reply_len);
    PLC_driver.request_queue.removeFirst();

    RW_VAR coils = make_var(1, 0, 2001, 1);
    read_register(&coils);
    resp = exchange(PLC_driver.request_queue.first().frame);
    ASSERT_EQ(resp.size(), 9);
    EXPECT_EQ(uchar(resp[7]), 0x81);
    EXPECT_NE(resp.size(), PLC_driver.request_queue.first().reply_len);
}

TEST_F(ModbusWire, TransactionIdentifiersRunOnAcrossRequests)
{
    PLC_driver.transaction_ids[6] = 0xFFFE;
    for (int i = 0; i < 4; ++i) {
        RW_VAR v = make_write(4, i, 1, 6, hex("0100"));
        write_register(&v);
        const QByteArray resp = transact_and_retire(2);
        const int expected = (0xFFFE + i) & 0xFFFF;
        EXPECT_EQ(resp.left(2), bytes({expected >> 8, expected & 0xFF}));
    }
    EXPECT_EQ(PLC_driver.transaction_ids[6], 2);
}
