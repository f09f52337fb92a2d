// The real plcsim binary on ephemeral loopback ports: Modbus TCP through a
// libmodbus client, remote frames through a plain socket, the command line's
// errors and a clean stop on SIGTERM/SIGINT.
#include "plcsim_process.h"
#include "memory.h"
#include "remote_frame_builder.h"

#include <modbus.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// How long "no reply" is waited for.
constexpr int kSilenceMs = 300;

class Sim {
public:
    explicit Sim(std::vector<std::string> args) : process_(PLCSIM_BINARY, std::move(args)) {}
    bool start(std::string *error) { return process_.start(error); }
    PlcsimProcess &process() { return process_; }

private:
    PlcsimProcess process_;
};

struct ModbusDeleter {
    void operator()(modbus_t *ctx) const
    {
        modbus_close(ctx);
        modbus_free(ctx);
    }
};
using ModbusClient = std::unique_ptr<modbus_t, ModbusDeleter>;

ModbusClient modbus_client(int port, int unit)
{
    modbus_t *ctx = modbus_new_tcp("127.0.0.1", port);
    if (!ctx)
        return nullptr;
    modbus_set_response_timeout(ctx, 3, 0);
    if (modbus_connect(ctx) != 0) {
        modbus_free(ctx);
        return nullptr;
    }
    modbus_set_slave(ctx, unit);
    return ModbusClient(ctx);
}

// A plain TCP connection for raw frames.
class RawSocket {
public:
    explicit RawSocket(int port)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ >= 0 && connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
            close(fd_);
            fd_ = -1;
        }
        int on = 1;
        if (fd_ >= 0)
            setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~RawSocket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool ok() const { return fd_ >= 0; }

    bool send_bytes(const Bytes &b)
    {
        size_t off = 0;
        while (off < b.size()) {
            ssize_t n = send(fd_, b.data() + off, b.size() - off, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            off += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads exactly n bytes, giving up after timeout_ms.
    bool receive(size_t n, Bytes &out, int timeout_ms = 3000)
    {
        out.clear();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (out.size() < n) {
            int left = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                    .count());
            if (left <= 0)
                return false;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, left) <= 0)
                return false;
            uint8_t buf[4096];
            size_t want = std::min(sizeof buf, n - out.size());
            ssize_t got = recv(fd_, buf, want, 0);
            if (got <= 0)
                return false;
            out.insert(out.end(), buf, buf + got);
        }
        return true;
    }

    // True when nothing arrives (and the peer does not close) within ms.
    bool silent_for(int ms)
    {
        pollfd p{fd_, POLLIN, 0};
        return poll(&p, 1, ms) == 0;
    }

private:
    int fd_ = -1;
};

// Sends a remote frame and reads a reply of the given length.
Bytes remote_exchange(RawSocket &s, const FrameFields &f, size_t reply_length)
{
    Bytes reply;
    EXPECT_TRUE(s.send_bytes(build_frame(f)));
    EXPECT_TRUE(s.receive(reply_length, reply)) << "no reply of " << reply_length << " bytes";
    return reply;
}

std::vector<uint16_t> read_holding(modbus_t *ctx, int addr, int n)
{
    std::vector<uint16_t> v(static_cast<size_t>(n));
    EXPECT_EQ(modbus_read_registers(ctx, addr, n, v.data()), n) << modbus_strerror(errno);
    return v;
}

std::vector<uint8_t> read_coils(modbus_t *ctx, int addr, int n)
{
    std::vector<uint8_t> v(static_cast<size_t>(n));
    EXPECT_EQ(modbus_read_bits(ctx, addr, n, v.data()), n) << modbus_strerror(errno);
    return v;
}

// One consistent snapshot of the moving input registers, checked against the
// tick count t it shows. Returns t.
uint16_t check_motion_snapshot(modbus_t *ctx)
{
    uint16_t ir[0x12] = {0};
    EXPECT_EQ(modbus_read_input_registers(ctx, 0x8000, 0x12, ir), 0x12) << modbus_strerror(errno);
    const uint32_t t = ir[0];
    EXPECT_EQ(ir[1], static_cast<uint16_t>(t / 10));
    EXPECT_EQ(ir[2], static_cast<uint16_t>(t * 5));
    EXPECT_EQ(ir[3], static_cast<uint16_t>(t / 100));
    EXPECT_EQ(ir[4], static_cast<uint16_t>((t % 101) * 10));
    EXPECT_LE(ir[4], 1000);
    const uint32_t c32 = t * 0x1001u;
    EXPECT_EQ(ir[0x10], static_cast<uint16_t>(c32 & 0xFFFF)) << "0x8010 is the low word";
    EXPECT_EQ(ir[0x11], static_cast<uint16_t>(c32 >> 16)) << "0x8011 is the high word";
    for (int i = 5; i < 0x10; ++i) {
        EXPECT_EQ(ir[i], 0) << "input register " << std::hex << 0x8000 + i << " does not move";
    }
    return static_cast<uint16_t>(t);
}

class PlcsimStatic : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim_ = std::make_unique<Sim>(std::vector<std::string>{"--stations", "1,2", "--static"});
        std::string error;
        ASSERT_TRUE(sim_->start(&error)) << error;
        station1_ = modbus_client(modbus_port(), 1);
        station2_ = modbus_client(modbus_port(), 2);
        ASSERT_TRUE(station1_ && station2_);
    }
    void TearDown() override
    {
        station1_.reset();
        station2_.reset();
        if (sim_) {
            EXPECT_EQ(sim_->process().stop(), 0) << sim_->process().stderr_text();
        }
    }
    int modbus_port() { return sim_->process().modbus_port(); }
    int remote_port() { return sim_->process().remote_port(); }

    std::unique_ptr<Sim> sim_;
    ModbusClient station1_;
    ModbusClient station2_;
};

} // namespace

TEST_F(PlcsimStatic, PrintsItsPortsAndReady)
{
    const std::string out = sim_->process().stdout_text();
    EXPECT_NE(out.find("plcsim: modbus tcp on 127.0.0.1:" + std::to_string(modbus_port()) + "\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("plcsim: remote frame on 127.0.0.1:" + std::to_string(remote_port()) + "\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("plcsim: ready\n"), std::string::npos) << out;
}

TEST_F(PlcsimStatic, ModbusReadsAndWritesEveryTable)
{
    modbus_t *c = station1_.get();
    // Holding registers, low and high.
    const uint16_t regs[3] = {0x1234, 0xABCD, 0x0001};
    ASSERT_EQ(modbus_write_registers(c, 10, 3, regs), 3);
    EXPECT_EQ(read_holding(c, 9, 5), (std::vector<uint16_t>{0, 0x1234, 0xABCD, 0x0001, 0}));
    ASSERT_EQ(modbus_write_register(c, 0xFFFF, 0x7777), 1);
    EXPECT_EQ(read_holding(c, 0xFFFF, 1), std::vector<uint16_t>{0x7777});
    // Coils.
    const uint8_t bits[5] = {1, 0, 1, 1, 0};
    ASSERT_EQ(modbus_write_bits(c, 0xA000, 5, bits), 5);
    ASSERT_EQ(modbus_write_bit(c, 0xA010, 1), 1);
    EXPECT_EQ(read_coils(c, 0xA000, 6), (std::vector<uint8_t>{1, 0, 1, 1, 0, 0}));
    EXPECT_EQ(read_coils(c, 0xA010, 1), std::vector<uint8_t>{1});
    // Discrete inputs: frozen at tick 0, only 0x6000 of the rotating bits is set.
    uint8_t di[10] = {0};
    ASSERT_EQ(modbus_read_input_bits(c, 0x6000, 10, di), 10);
    EXPECT_EQ(std::vector<uint8_t>(di, di + 10), (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    // Input registers: all moving values at their tick-0 values.
    EXPECT_EQ(check_motion_snapshot(c), 0);
    // A request past the end of the protocol's limits is an exception, not a crash.
    uint16_t too_many[200];
    EXPECT_EQ(modbus_read_registers(c, 0, 200, too_many), -1);
    EXPECT_EQ(read_holding(c, 10, 1), std::vector<uint16_t>{0x1234}) << "still serving afterwards";
}

TEST_F(PlcsimStatic, StationsHaveSeparateMemory)
{
    ASSERT_EQ(modbus_write_register(station1_.get(), 100, 0x1111), 1);
    ASSERT_EQ(modbus_write_register(station2_.get(), 100, 0x2222), 1);
    EXPECT_EQ(read_holding(station1_.get(), 100, 1), std::vector<uint16_t>{0x1111});
    EXPECT_EQ(read_holding(station2_.get(), 100, 1), std::vector<uint16_t>{0x2222});
}

TEST_F(PlcsimStatic, UnknownUnitGetsGatewayException)
{
    ModbusClient c = modbus_client(modbus_port(), 9);
    ASSERT_TRUE(c);
    uint16_t v = 0;
    EXPECT_EQ(modbus_read_registers(c.get(), 0, 1, &v), -1);
    EXPECT_EQ(errno, EMBXGTAR);
    EXPECT_EQ(modbus_write_register(c.get(), 0, 5), -1);
    EXPECT_EQ(errno, EMBXGTAR);
    EXPECT_EQ(read_holding(station1_.get(), 0, 1), std::vector<uint16_t>{0});
}

TEST_F(PlcsimStatic, BroadcastWriteIsAppliedAndNotAnswered)
{
    RawSocket s(modbus_port());
    ASSERT_TRUE(s.ok());
    // Write single register 200 = 0xBEEF on unit 0, transaction 0x0102.
    ASSERT_TRUE(s.send_bytes({0x01, 0x02, 0, 0, 0, 6, 0x00, 0x06, 0x00, 0xC8, 0xBE, 0xEF}));
    EXPECT_TRUE(s.silent_for(kSilenceMs)) << "unit 0 must not be answered";
    // Write multiple registers 201..202 on unit 0.
    ASSERT_TRUE(s.send_bytes({0x01, 0x03, 0, 0, 0, 11, 0x00, 0x10, 0x00, 0xC9, 0x00, 0x02, 4, 0x11, 0x22, 0x33, 0x44}));
    EXPECT_TRUE(s.silent_for(kSilenceMs));
    for (modbus_t *c : {station1_.get(), station2_.get()}) {
        EXPECT_EQ(read_holding(c, 200, 3), (std::vector<uint16_t>{0xBEEF, 0x1122, 0x3344}));
    }
    // The same connection still gets exactly the answer to its next request.
    ASSERT_TRUE(s.send_bytes({0x01, 0x04, 0, 0, 0, 6, 0x01, 0x03, 0x00, 0xC8, 0x00, 0x01}));
    Bytes reply;
    ASSERT_TRUE(s.receive(11, reply));
    EXPECT_EQ(reply, (Bytes{0x01, 0x04, 0, 0, 0, 5, 0x01, 0x03, 0x02, 0xBE, 0xEF}));
    EXPECT_TRUE(s.silent_for(50));
}

TEST_F(PlcsimStatic, ValuesStayStill)
{
    uint16_t first[0x12];
    uint16_t second[0x12];
    ASSERT_EQ(modbus_read_input_registers(station1_.get(), 0x8000, 0x12, first), 0x12);
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    ASSERT_EQ(modbus_read_input_registers(station1_.get(), 0x8000, 0x12, second), 0x12);
    EXPECT_EQ(std::vector<uint16_t>(first, first + 0x12), std::vector<uint16_t>(second, second + 0x12));
    EXPECT_EQ(first[0], 0);
}

// --fill address: every register holds its own table address and every bit
// the parity of its address, in all four tables and on every station; with
// --static the moving values do not overwrite the pattern.
TEST(PlcsimFill, EveryValueTellsItsAddress)
{
    Sim sim({"--stations", "1,2", "--static", "--fill", "address"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    for (int unit : {1, 2}) {
        ModbusClient c = modbus_client(sim.process().modbus_port(), unit);
        ASSERT_TRUE(c);
        for (int base : {0, 0x1234, 0x8000, 0xA000, 0xFFF0}) {
            uint16_t input[16] = {0};
            ASSERT_EQ(modbus_read_input_registers(c.get(), base, 16, input), 16);
            const auto holding = read_holding(c.get(), base, 16);
            uint8_t discrete[16] = {0};
            ASSERT_EQ(modbus_read_input_bits(c.get(), base, 16, discrete), 16);
            const auto coils = read_coils(c.get(), base, 16);
            for (int i = 0; i < 16; ++i) {
                const int a = base + i;
                EXPECT_EQ(input[i], a) << "input register " << a;
                EXPECT_EQ(holding[size_t(i)], a) << "holding register " << a;
                EXPECT_EQ(discrete[i], plcsim::address_parity(a)) << "discrete input " << a;
                EXPECT_EQ(coils[size_t(i)], plcsim::address_parity(a)) << "coil " << a;
            }
        }
    }
    EXPECT_EQ(plcsim::address_parity(0), 0);
    EXPECT_EQ(plcsim::address_parity(7), 1);
    EXPECT_EQ(plcsim::address_parity(0xA000), 0);
    EXPECT_EQ(plcsim::address_parity(0x8001), 0);
    EXPECT_EQ(plcsim::address_parity(0xFFFE), 1);
    EXPECT_EQ(sim.process().stop(), 0);
}

// Without --static the moving values still move over the pattern.
TEST(PlcsimFill, MovingValuesMoveOverThePattern)
{
    Sim sim({"--fill", "address"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient c = modbus_client(sim.process().modbus_port(), 1);
    ASSERT_TRUE(c);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    uint16_t ir[0x12] = {0};
    ASSERT_EQ(modbus_read_input_registers(c.get(), 0x8000, 0x12, ir), 0x12);
    EXPECT_GE(ir[0], 2) << "the tick counter moves";
    EXPECT_EQ(ir[2], static_cast<uint16_t>(ir[0] * 5));
    EXPECT_EQ(ir[5], 0x8005) << "a register that does not move keeps its address";
    EXPECT_EQ(read_holding(c.get(), 100, 2), (std::vector<uint16_t>{100, 101}));
    EXPECT_EQ(sim.process().stop(), 0);
}

TEST_F(PlcsimStatic, SeveralClientsAtOnce)
{
    std::vector<ModbusClient> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(modbus_client(modbus_port(), 1 + (i % 2)));
        ASSERT_TRUE(clients.back());
    }
    RawSocket remote(remote_port());
    ASSERT_TRUE(remote.ok());
    for (int round = 0; round < 5; ++round) {
        for (int i = 0; i < 4; ++i) {
            uint16_t v = static_cast<uint16_t>(round * 16 + i);
            ASSERT_EQ(modbus_write_register(clients[static_cast<size_t>(i)].get(), 300 + i, v), 1);
        }
        Bytes reply = remote_exchange(remote, read_of(1, 4, 300, 4), 13);
        const int r = round * 16;
        EXPECT_EQ(reply, (Bytes{22, 7, 0, 0, uint8_t(r), 0, 0, 0, uint8_t(r + 2), 0, 0, 0, 0}));
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(read_holding(clients[static_cast<size_t>(i)].get(), 300 + i, 1),
                      std::vector<uint16_t>{uint16_t(r + i)});
        }
    }
}

TEST_F(PlcsimStatic, RemoteReadsOfKindsZeroToFour)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    modbus_t *c = station1_.get();
    const uint8_t coils[12] = {1, 0, 1, 0, 0, 0, 0, 0, 0, 1, 1, 1};
    ASSERT_EQ(modbus_write_bits(c, 0xA003, 12, coils), 12);
    const uint16_t class3[2] = {0x1234, 0xABCD};
    ASSERT_EQ(modbus_write_registers(c, 0xA007, 2, class3), 2);
    const uint16_t class4[2] = {0x0102, 0xFEDC};
    ASSERT_EQ(modbus_write_registers(c, 7, 2, class4), 2);

    FrameFields kind0 = read_of(1, 0, 0, 8);
    kind0.source_type = 0x21;
    EXPECT_EQ(remote_exchange(s, kind0, 6), (Bytes{22, 0x21, 0, 0x01, 0, 0}));
    EXPECT_EQ(remote_exchange(s, read_of(1, 0, 1, 7), 6), (Bytes{22, 7, 0, 0x00, 0, 0}));
    // Kind 1: coil bits from 0xA003, least significant bit first; count 12 -> 2 bytes.
    EXPECT_EQ(remote_exchange(s, read_of(1, 1, 3, 12), 7), (Bytes{22, 7, 0, 0x05, 0x0E, 0, 0}));
    EXPECT_EQ(remote_exchange(s, read_of(1, 1, 3, 1), 6), (Bytes{22, 7, 0, 0x01, 0, 0}));
    // Kind 2 reads input registers from 0x8000 (all 0 while static).
    EXPECT_EQ(remote_exchange(s, read_of(1, 2, 0, 2), 9), (Bytes{22, 7, 0, 0, 0, 0, 0, 0, 0}));
    // Kind 3 from 0xA007, kind 4 from 7; words big-endian.
    EXPECT_EQ(remote_exchange(s, read_of(1, 3, 7, 2), 9), (Bytes{22, 7, 0, 0x12, 0x34, 0xAB, 0xCD, 0, 0}));
    EXPECT_EQ(remote_exchange(s, read_of(1, 4, 7, 2), 9), (Bytes{22, 7, 0, 0x01, 0x02, 0xFE, 0xDC, 0, 0}));
    // Other kinds carry no data.
    EXPECT_EQ(remote_exchange(s, read_of(1, 10, 7, 2), 5), (Bytes{22, 7, 0, 0, 0}));
    // Station 2 has its own memory.
    EXPECT_EQ(remote_exchange(s, read_of(2, 4, 7, 1), 7), (Bytes{22, 7, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(s.silent_for(50)) << "exactly one reply per request";
}

namespace {

// Expected contents of the regions the write test touches, compared as a whole
// after every write so that a write into a neighbour shows up.
struct Model {
    std::map<int, uint16_t> regs; // table address -> value
    std::map<int, uint8_t> coils;
};

void fill(modbus_t *c, Model &m)
{
    for (int base : {0x0000, 0xA000}) {
        std::vector<uint16_t> v(64);
        for (int i = 0; i < 64; ++i) {
            v[static_cast<size_t>(i)] = static_cast<uint16_t>(base == 0 ? 0xA5A5 : 0x5A5A);
            m.regs[base + i] = v[static_cast<size_t>(i)];
        }
        ASSERT_EQ(modbus_write_registers(c, base, 64, v.data()), 64);
    }
    std::vector<uint8_t> bits(64);
    for (int i = 0; i < 64; ++i) {
        bits[static_cast<size_t>(i)] = static_cast<uint8_t>((i % 3) == 0);
        m.coils[0xA000 + i] = bits[static_cast<size_t>(i)];
    }
    ASSERT_EQ(modbus_write_bits(c, 0xA000, 64, bits.data()), 64);
}

void compare(modbus_t *c, const Model &m, const std::string &after)
{
    for (int base : {0x0000, 0xA000}) {
        std::vector<uint16_t> got = read_holding(c, base, 64);
        for (int i = 0; i < 64; ++i) {
            EXPECT_EQ(got[static_cast<size_t>(i)], m.regs.at(base + i))
                << "holding register 0x" << std::hex << base + i << " after " << after;
        }
    }
    std::vector<uint8_t> bits = read_coils(c, 0xA000, 64);
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(bits[static_cast<size_t>(i)], m.coils.at(0xA000 + i))
            << "coil 0x" << std::hex << 0xA000 + i << " after " << after;
    }
}

} // namespace

TEST_F(PlcsimStatic, RemoteWritesOfEveryWritableKind)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    modbus_t *c = station1_.get();
    Model m;
    fill(c, m);
    Model other;
    fill(station2_.get(), other);

    auto write = [&](int kind, uint32_t start, int count, Bytes data, const std::string &what) {
        FrameFields f = write_of(1, kind, start, count, std::move(data));
        Bytes frame = build_frame(f);
        Bytes ack = remote_exchange(s, f, 8);
        EXPECT_EQ(ack, (Bytes{frame[0], frame[1], 0, 0, 0, 0, 0, 0})) << what;
        compare(c, m, what);
    };

    // Kind 1: 10 coils from bit 5 (0xA005), data 0x05 0x02 = bits 0, 2, 9.
    for (int i = 0; i < 10; ++i)
        m.coils[0xA005 + i] = (i == 0 || i == 2 || i == 9) ? 1 : 0;
    write(1, 5, 10, {0x05, 0x02}, "kind 1");
    // Kinds 3 and 4: words little-endian in the frame.
    m.regs[0xA002] = 0x1234;
    m.regs[0xA003] = 0x5678;
    write(3, 2, 2, {0x34, 0x12, 0x78, 0x56}, "kind 3");
    m.regs[0x0002] = 0x1234;
    m.regs[0x0003] = 0x5678;
    write(4, 2, 2, {0x34, 0x12, 0x78, 0x56}, "kind 4");
    // Kind 5: bit 17 = word 1 bit 1 set, then bit 16 = word 1 bit 0 cleared.
    m.regs[1] = 0xA5A7;
    write(5, 17, 1, {0x01}, "kind 5 set");
    m.regs[1] = 0xA5A6;
    write(5, 16, 1, {0x00}, "kind 5 clear");
    // Kind 7: byte 9 = high byte of class-3 word 4, byte 10 = low byte of word 5.
    m.regs[0xA004] = 0xAB5A;
    write(7, 9, 1, {0xAB}, "kind 7 high byte");
    m.regs[0xA005] = 0x5ACD;
    write(7, 10, 1, {0xCD}, "kind 7 low byte");
    // Kind 8: the same in class 4.
    m.regs[0x0004] = 0xABA5;
    write(8, 9, 1, {0xAB}, "kind 8");
    // Kinds 10 and 11: double word 5 = words 10 and 11, low word first.
    m.regs[0xA00A] = 0x5678;
    m.regs[0xA00B] = 0x1234;
    write(10, 5, 1, {0x78, 0x56, 0x34, 0x12}, "kind 10");
    m.regs[0x000A] = 0x5678;
    m.regs[0x000B] = 0x1234;
    m.regs[0x000C] = 0xDEF0;
    m.regs[0x000D] = 0x9ABC;
    write(11, 5, 2, {0x78, 0x56, 0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A}, "kind 11");
    // Kinds 13 and 14: quad word 4 = words 16..19.
    m.regs[0xA010] = 0x0201;
    m.regs[0xA011] = 0x0403;
    m.regs[0xA012] = 0x0605;
    m.regs[0xA013] = 0x0807;
    write(13, 4, 1, {1, 2, 3, 4, 5, 6, 7, 8}, "kind 13");
    m.regs[0x0010] = 0x1211;
    m.regs[0x0011] = 0x1413;
    m.regs[0x0012] = 0x1615;
    m.regs[0x0013] = 0x1817;
    write(14, 4, 1, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}, "kind 14");

    compare(station2_.get(), other, "writes to station 1");
}

TEST_F(PlcsimStatic, RemoteBroadcastWriteHasNoReply)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    ASSERT_TRUE(s.send_bytes(build_frame(write_of(0, 4, 40, 1, {0xEF, 0xBE}))));
    EXPECT_TRUE(s.silent_for(kSilenceMs));
    EXPECT_EQ(read_holding(station1_.get(), 40, 1), std::vector<uint16_t>{0xBEEF});
    EXPECT_EQ(read_holding(station2_.get(), 40, 1), std::vector<uint16_t>{0xBEEF});
}

TEST_F(PlcsimStatic, RemoteBadSumAndUnknownStationGetNoReply)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    Bytes bad = build_frame(write_of(1, 4, 50, 1, {0x11, 0x11}));
    bad.back() = static_cast<uint8_t>(bad.back() + 1);
    ASSERT_TRUE(s.send_bytes(bad));
    EXPECT_TRUE(s.silent_for(kSilenceMs));
    EXPECT_EQ(read_holding(station1_.get(), 50, 1), std::vector<uint16_t>{0});

    ASSERT_TRUE(s.send_bytes(build_frame(read_of(9, 4, 0, 1))));
    EXPECT_TRUE(s.silent_for(kSilenceMs));
    ASSERT_TRUE(s.send_bytes(build_frame(write_of(1, 2, 0, 1, {1, 2}))));
    EXPECT_TRUE(s.silent_for(kSilenceMs)) << "input registers are not writable";

    // The connection is still usable.
    EXPECT_EQ(remote_exchange(s, write_of(1, 4, 50, 1, {0x22, 0x11}), 8), (Bytes{24, 7, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(read_holding(station1_.get(), 50, 1), std::vector<uint16_t>{0x1122});
}

TEST_F(PlcsimStatic, RemoteBigWritesWithWrappedLengthByte)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    // 120 words: 22 + 240 = 262 bytes, length byte 6.
    Bytes data;
    std::vector<uint16_t> expected;
    for (int i = 0; i < 120; ++i) {
        uint16_t v = static_cast<uint16_t>(0x0100 * (i + 1) + i);
        expected.push_back(v);
        data.push_back(static_cast<uint8_t>(v & 0xFF));
        data.push_back(static_cast<uint8_t>(v >> 8));
    }
    Bytes frame = build_frame(write_of(1, 4, 0x200, 120, data));
    ASSERT_EQ(frame.size(), 262u);
    ASSERT_EQ(frame[0], 6);
    Bytes ack;
    ASSERT_TRUE(s.send_bytes(frame));
    ASSERT_TRUE(s.receive(8, ack));
    EXPECT_EQ(ack, (Bytes{6, 7, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(read_holding(station1_.get(), 0x200, 120), expected);
    EXPECT_EQ(read_holding(station1_.get(), 0x200 + 120, 1), std::vector<uint16_t>{0});

    // 117 class-3 words: exactly 256 bytes, length byte 0; sent in two pieces.
    Bytes data3(data.begin(), data.begin() + 234);
    frame = build_frame(write_of(1, 3, 0x300, 117, data3));
    ASSERT_EQ(frame[0], 0);
    ASSERT_TRUE(s.send_bytes(Bytes(frame.begin(), frame.begin() + 15)));
    EXPECT_TRUE(s.silent_for(30));
    ASSERT_TRUE(s.send_bytes(Bytes(frame.begin() + 15, frame.end())));
    ASSERT_TRUE(s.receive(8, ack));
    EXPECT_EQ(ack, (Bytes{0, 7, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(read_holding(station1_.get(), 0xA300, 117),
              std::vector<uint16_t>(expected.begin(), expected.begin() + 117));

    // A big read of the same words through the remote frame: 234 data bytes.
    Bytes reply = remote_exchange(s, read_of(1, 3, 0x300, 117), 5 + 234);
    ASSERT_EQ(reply.size(), 239u);
    for (int i = 0; i < 117; ++i) {
        EXPECT_EQ(reply[3 + 2 * i], expected[static_cast<size_t>(i)] >> 8);
        EXPECT_EQ(reply[4 + 2 * i], expected[static_cast<size_t>(i)] & 0xFF);
    }
}

TEST_F(PlcsimStatic, RemoteFramesBackToBackInOneSegment)
{
    RawSocket s(remote_port());
    ASSERT_TRUE(s.ok());
    Bytes both = build_frame(write_of(1, 4, 60, 1, {0x01, 0x00}));
    Bytes second = build_frame(read_of(1, 4, 60, 1));
    both.insert(both.end(), second.begin(), second.end());
    ASSERT_TRUE(s.send_bytes(both));
    Bytes reply;
    ASSERT_TRUE(s.receive(8 + 7, reply));
    EXPECT_EQ(reply, (Bytes{24, 7, 0, 0, 0, 0, 0, 0, 22, 7, 0, 0x00, 0x01, 0, 0}));
}

TEST(PlcsimMotion, ValuesMoveEveryTick)
{
    PlcsimProcess sim(PLCSIM_BINARY, {"--stations", "3"});
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient c = modbus_client(sim.modbus_port(), 3);
    ASSERT_TRUE(c);
    uint16_t t0 = check_motion_snapshot(c.get());
    uint16_t t1 = t0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (t1 < t0 + 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        t1 = check_motion_snapshot(c.get());
    }
    EXPECT_GE(t1, t0 + 3) << "the tick counter did not move";

    // The rotating discrete input shows tick % 8, checked between two equal counter readings.
    bool checked = false;
    for (int attempt = 0; attempt < 20 && !checked; ++attempt) {
        uint16_t before = 0;
        uint16_t after = 0;
        uint8_t di[8] = {0};
        ASSERT_EQ(modbus_read_input_registers(c.get(), 0x8000, 1, &before), 1);
        ASSERT_EQ(modbus_read_input_bits(c.get(), 0x6000, 8, di), 8);
        ASSERT_EQ(modbus_read_input_registers(c.get(), 0x8000, 1, &after), 1);
        if (before != after)
            continue;
        for (int i = 0; i < 8; ++i) {
            EXPECT_EQ(di[i], i == before % 8 ? 1 : 0) << "bit " << i << " at tick " << before;
        }
        checked = true;
    }
    EXPECT_TRUE(checked);

    // The remote frame reads the same moving registers (kind 2 from 0x8000, kind 0 from 0x6000).
    RawSocket s(sim.remote_port());
    ASSERT_TRUE(s.ok());
    Bytes reply = remote_exchange(s, read_of(3, 2, 0, 0x12), 5 + 0x24);
    ASSERT_EQ(reply.size(), 5u + 0x24);
    auto word = [&reply](int i) { return static_cast<uint16_t>((reply[3 + 2 * i] << 8) | reply[4 + 2 * i]); };
    const uint32_t t = word(0);
    EXPECT_GT(t, 0u);
    EXPECT_EQ(word(2), static_cast<uint16_t>(5 * t));
    EXPECT_EQ(word(4), static_cast<uint16_t>((t % 101) * 10));
    EXPECT_EQ(static_cast<uint32_t>(word(0x10) | (word(0x11) << 16)), t * 0x1001u);
    Bytes bits = remote_exchange(s, read_of(3, 0, 0, 8), 6);
    int set = 0;
    for (int i = 0; i < 8; ++i)
        set += (bits[3] >> i) & 1;
    EXPECT_EQ(set, 1) << "exactly one rotating bit is set";

    EXPECT_EQ(sim.stop(), 0);
}

TEST(PlcsimLifecycle, SigtermAndSigintExitZero)
{
    for (int sig : {SIGTERM, SIGINT}) {
        PlcsimProcess sim(PLCSIM_BINARY, {"--stations", "1-4"});
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        // With clients connected, too.
        ModbusClient c = modbus_client(sim.modbus_port(), 1);
        RawSocket s(sim.remote_port());
        ASSERT_TRUE(c && s.ok());
        EXPECT_EQ(read_holding(c.get(), 0, 1), std::vector<uint16_t>{0});
        EXPECT_EQ(sim.stop(sig), 0) << sim.stderr_text();
        EXPECT_EQ(sim.stderr_text(), "");
    }
}

TEST(PlcsimLifecycle, PortFileAndTrafficLog)
{
    PlcsimProcess probe(PLCSIM_BINARY);
    std::string error;
    ASSERT_TRUE(probe.start(&error)) << error;
    const std::string log = probe.work_dir() + "/traffic.log";
    PlcsimProcess sim(PLCSIM_BINARY, {"--log", log, "--static"});
    ASSERT_TRUE(sim.start(&error)) << error;
    ModbusClient c = modbus_client(sim.modbus_port(), 1);
    ASSERT_TRUE(c);
    EXPECT_EQ(read_holding(c.get(), 0x10, 2), (std::vector<uint16_t>{0, 0}));
    RawSocket s(sim.remote_port());
    ASSERT_TRUE(s.ok());
    Bytes bad = build_frame(read_of(1, 4, 0, 1));
    bad.back() ^= 0xFF;
    ASSERT_TRUE(s.send_bytes(bad));
    EXPECT_TRUE(s.silent_for(100));
    c.reset();
    EXPECT_EQ(sim.stop(), 0);

    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    const std::string t = text.str();
    EXPECT_NE(t.find(" rx 00 01 00 00 00 06 01 03 00 10 00 02\n"), std::string::npos) << t;
    EXPECT_NE(t.find(" tx 00 01 00 00 00 07 01 03 04 00 00 00 00\n"), std::string::npos) << t;
    EXPECT_NE(t.find("bad sum check"), std::string::npos) << t;
    // Lines start with a date and a time with milliseconds.
    ASSERT_GE(t.size(), 24u);
    EXPECT_EQ(t[4], '-');
    EXPECT_EQ(t[10], ' ');
    EXPECT_EQ(t[19], '.');
    EXPECT_EQ(sim.stderr_text(), "") << "with --log FILE nothing goes to stderr";
}

TEST(PlcsimCommandLine, UsageErrorsExitTwoWithOneLine)
{
    const std::vector<std::vector<std::string>> cases = {
        {"--bogus"},     {"--stations", "1-300"},  {"--stations", "3-1"},
        {"--port", "x"}, {"--address", "nowhere"}, {"extra"},
    };
    for (const auto &args : cases) {
        PlcsimProcess::Result r = PlcsimProcess::run_to_exit(PLCSIM_BINARY, args);
        EXPECT_EQ(r.exit_status, 2) << args[0];
        EXPECT_EQ(r.err.rfind("plcsim: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST(PlcsimCommandLine, HelpShowsUsageWithExamples)
{
    PlcsimProcess::Result r = PlcsimProcess::run_to_exit(PLCSIM_BINARY, {"--help"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out.rfind("Usage: plcsim", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("Examples:"), std::string::npos);
    EXPECT_EQ(r.err, "");
}

TEST(PlcsimCommandLine, PortInUseIsARuntimeError)
{
    PlcsimProcess first(PLCSIM_BINARY);
    std::string error;
    ASSERT_TRUE(first.start(&error)) << error;
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--port", std::to_string(first.modbus_port()), "--remote-port", "0"},
          std::vector<std::string>{"--port", "0", "--remote-port", std::to_string(first.remote_port())}}) {
        PlcsimProcess::Result r = PlcsimProcess::run_to_exit(PLCSIM_BINARY, args);
        EXPECT_EQ(r.exit_status, 1) << r.err;
        EXPECT_NE(r.err.find("in use"), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    PlcsimProcess::Result r =
        PlcsimProcess::run_to_exit(PLCSIM_BINARY, {"--port", "0", "--remote-port", "0", "--log", "/nonexistent/dir/x"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("cannot open log file"), std::string::npos) << r.err;
    EXPECT_EQ(first.stop(), 0);
}
