// The reference host against an independent Modbus implementation: a
// pymodbus server (tests/e2e/pymodbus_server.py, run by /usr/bin/python3 on a
// free loopback port) whose memory is read back with mbpoll.
#include "e2e_util.h"
#include "plcsim_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

using namespace e2e;
using plchost::DoneResult;
using plchost::Host;

namespace {

const char *const kMbpoll = "/usr/bin/mbpoll";

// The pattern the server starts with.
uint64_t hr(int a)
{
    return uint64_t((0x1000 + a) & 0xFFFF);
}
uint64_t ir(int a)
{
    return uint64_t((0x2000 + a) & 0xFFFF);
}
uint64_t co(int a)
{
    return a % 3 == 0 ? 1 : 0;
}
uint64_t di(int a)
{
    return a % 5 == 0 ? 1 : 0;
}

struct PymodbusServer {
    Child child{{PLCDRIVER_PYTHON, std::string(PLCDRIVER_E2E_DIR) + "/pymodbus_server.py"}};
    int port = 0;
    PymodbusServer()
    {
        const std::string line = child.read_line(20000ms);
        if (std::sscanf(line.c_str(), "port=%d", &port) != 1)
            port = 0;
    }
};

// mbpoll's reading of `count` values of a table (-t 0 coils, 1 discrete
// inputs, 3 input registers, 4 holding registers) from PDU address `start`.
std::vector<uint64_t> mbpoll(int port, const std::string &type, int start, int count, int unit = 1)
{
    const auto r = PlcsimProcess::run_to_exit(kMbpoll, {"-m", "tcp", "-a", std::to_string(unit), "-0", "-1", "-t", type,
                                                        "-r", std::to_string(start), "-c", std::to_string(count), "-p",
                                                        std::to_string(port), "127.0.0.1"});
    // Lines look like "[100]: \t0x04D2".
    std::vector<uint64_t> values;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        const auto at = line.find("]:");
        if (line.empty() || line[0] != '[' || at == std::string::npos)
            continue;
        values.push_back(uint64_t(std::stoll(line.substr(at + 2), nullptr, 0)) & 0xFFFF);
    }
    return values;
}

} // namespace

TEST(HostPymodbus, CyclicReadsMatchTheServer)
{
    PymodbusServer server;
    ASSERT_GT(server.port, 0) << "pymodbus server did not report its port";
    Host host(config_for(server.port));
    const auto t0 = tag(0, "1.2", 8), t1 = tag(1, "0.1", 10), t2 = tag(2, "3", 3), t3 = tag(3, "7", 2),
               t4 = tag(4, "100", 3), t11 = tag(11, "60", 2);
    host.set_tags({t0, t1, t2, t3, t4, t11});
    std::string error;
    ASSERT_TRUE(host.start(true, &error)) << error;
    ASSERT_TRUE(host.wait_passes(2, 10000ms));

    std::vector<uint64_t> want;
    for (int i = 0; i < 8; ++i)
        want.push_back(di(0x6000 + 10 + i));
    EXPECT_EQ(values_of(host, t0), want);
    want.clear();
    for (int i = 0; i < 10; ++i)
        want.push_back(co(0xA000 + 1 + i));
    EXPECT_EQ(values_of(host, t1), want);
    EXPECT_EQ(values_of(host, t2), (std::vector<uint64_t>{ir(0x8003), ir(0x8004), ir(0x8005)}));
    EXPECT_EQ(values_of(host, t3), (std::vector<uint64_t>{hr(0xA007), hr(0xA008)}));
    EXPECT_EQ(values_of(host, t4), (std::vector<uint64_t>{hr(100), hr(101), hr(102)}));
    EXPECT_EQ(values_of(host, t11), (std::vector<uint64_t>{hr(120) | hr(121) << 16}));
    // mbpoll sees the same memory.
    EXPECT_EQ(mbpoll(server.port, "4:hex", 100, 3), (std::vector<uint64_t>{hr(100), hr(101), hr(102)}));
    EXPECT_EQ(host.stats().failed_replies, 0u);
}

TEST(HostPymodbus, WritesCheckedWithMbpoll)
{
    PymodbusServer server;
    ASSERT_GT(server.port, 0) << "pymodbus server did not report its port";
    Host host(config_for(server.port));
    std::string error;
    ASSERT_TRUE(host.start(true, &error)) << error;

    ASSERT_EQ(write_values(host, tag(4, "200", 0), {0xBEEF, 7}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "4:hex", 199, 4), (std::vector<uint64_t>{hr(199), 0xBEEF, 7, hr(202)}));

    ASSERT_EQ(write_values(host, tag(3, "20", 0), {0x0A0B}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "4:hex", 0xA014, 1), (std::vector<uint64_t>{0x0A0B}));

    // Coils 0xA000 + 12..14 are written; 11 and 15 keep their values.
    ASSERT_EQ(write_values(host, tag(1, "1.4", 0), {0, 1, 1}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "0", 0xA00B, 5), (std::vector<uint64_t>{co(0xA00B), 0, 1, 1, co(0xA00F)}));

    // Bit 3 of class-4 word 300 (bit address 4803 = 600.3): read-modify-write.
    ASSERT_EQ(write_values(host, tag(5, "600.3", 0), {1}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "4:hex", 300, 1), (std::vector<uint64_t>{hr(300) | 0x8}));

    // The high byte of class-4 word 310 (byte 621).
    ASSERT_EQ(write_values(host, tag(8, "621", 0), {0x77}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "4:hex", 310, 1), (std::vector<uint64_t>{0x7700 | (hr(310) & 0xFF)}));

    // A 64-bit value at quad word 100 (words 400..403), low word first.
    ASSERT_EQ(write_values(host, tag(14, "100", 0), {0x0001000200030004ull}), DoneResult::Ok);
    EXPECT_EQ(mbpoll(server.port, "4:hex", 400, 4), (std::vector<uint64_t>{4, 3, 2, 1}));
    EXPECT_EQ(host.stats().failed_replies, 0u);
}
