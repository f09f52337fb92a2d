// Reply framing of the host, on bytes alone: where a reply ends and whether
// it answers the request in flight, for Modbus TCP (paired by transaction
// identifier, protocol identifier and unit) and the remote frame (paired by
// length only). Each table gives the good case first and its bad twins after.
#include "reply_framing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using plchost::ReplyScan;

namespace {

std::vector<uint8_t> hex(const std::string &text)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        out.push_back(uint8_t(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

// Read two holding registers from 0, transaction 5, unit 1.
const std::vector<uint8_t> kRequest = hex("0005 0000 0006 01 03 0000 0002");

struct ModbusCase {
    const char *what;
    const char *bytes;
    ReplyScan kind;
    size_t size;
    bool ours;
};

const char *name(ReplyScan k)
{
    switch (k) {
    case ReplyScan::NeedMore: return "NeedMore";
    case ReplyScan::Reply: return "Reply";
    case ReplyScan::Foreign: return "Foreign";
    case ReplyScan::OutOfStep: return "OutOfStep";
    }
    return "?";
}

} // namespace

class ModbusReplyScan : public ::testing::TestWithParam<ModbusCase> {};

TEST_P(ModbusReplyScan, Table)
{
    const ModbusCase &c = GetParam();
    const auto data = hex(c.bytes);
    const auto s = plchost::scan_modbus_reply(kRequest.data(), kRequest.size(), data.data(), data.size());
    EXPECT_STREQ(name(s.kind), name(c.kind)) << c.what;
    EXPECT_EQ(s.size, c.size) << c.what;
    if (c.kind == ReplyScan::OutOfStep) {
        EXPECT_EQ(s.ours, c.ours) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Frames, ModbusReplyScan,
    ::testing::Values(
        ModbusCase{"nothing yet", "", ReplyScan::NeedMore, 7, false},
        ModbusCase{"part of the header", "0005 0000 00", ReplyScan::NeedMore, 7, false},
        ModbusCase{"header: the length asks for 6 more", "0005 0000 0007 01", ReplyScan::NeedMore, 13, false},
        ModbusCase{"the reply", "0005 0000 0007 01 03 04 0100 0101", ReplyScan::Reply, 13, false},
        ModbusCase{"the reply and more behind it", "0005 0000 0007 01 03 04 0100 0101 EEEE", ReplyScan::Reply, 13,
                   false},
        ModbusCase{"an exception reply is ours too", "0005 0000 0003 01 83 02", ReplyScan::Reply, 9, false},
        ModbusCase{"another transaction", "0004 0000 0007 01 03 04 0100 0101", ReplyScan::Foreign, 13, false},
        ModbusCase{"another transaction, high byte", "0105 0000 0007 01 03 04 0100 0101", ReplyScan::Foreign, 13,
                   false},
        ModbusCase{"another unit", "0005 0000 0007 02 03 04 0100 0101", ReplyScan::Foreign, 13, false},
        ModbusCase{"protocol identifier 1", "0005 0001 0007 01 03 04 0100 0101", ReplyScan::Foreign, 13, false},
        ModbusCase{"protocol identifier 0x100", "0005 0100 0007 01 03 04 0100 0101", ReplyScan::Foreign, 13, false},
        ModbusCase{"a foreign frame needs its whole length first", "0004 0000 0007 01 03", ReplyScan::NeedMore, 13,
                   false},
        ModbusCase{"the largest length", "0005 0000 00FE 01", ReplyScan::NeedMore, 260, false},
        ModbusCase{"the smallest length", "0005 0000 0002 01 03", ReplyScan::Reply, 8, false},
        ModbusCase{"length 1: no frame", "0005 0000 0001 01 03", ReplyScan::OutOfStep, 8, true},
        ModbusCase{"length 255: no frame", "0005 0000 00FF 01 03", ReplyScan::OutOfStep, 8, true},
        ModbusCase{"length 0 from another transaction", "0009 0000 0000 01", ReplyScan::OutOfStep, 7, false},
        ModbusCase{"text", "68656C6C6F2067617262616765", ReplyScan::OutOfStep, 13, false}));

TEST(ModbusReplyScan, ARequestShorterThanAHeaderOwnsNoReply)
{
    const auto request = hex("0005 0000 00");
    const auto data = hex("0005 0000 0007 01 03 04 0100 0101");
    const auto s = plchost::scan_modbus_reply(request.data(), request.size(), data.data(), data.size());
    EXPECT_EQ(s.kind, ReplyScan::Foreign);
}

struct PrefixCase {
    const char *bytes;
    bool matches;
};

class ModbusReplyPrefix : public ::testing::TestWithParam<PrefixCase> {};

TEST_P(ModbusReplyPrefix, Table)
{
    const auto data = hex(GetParam().bytes);
    EXPECT_EQ(plchost::modbus_prefix_matches(kRequest.data(), kRequest.size(), data.data(), data.size()),
              GetParam().matches)
        << GetParam().bytes;
}

INSTANTIATE_TEST_SUITE_P(Cuts, ModbusReplyPrefix,
                         ::testing::Values(PrefixCase{"00", true}, PrefixCase{"01", false}, PrefixCase{"0005", true},
                                           PrefixCase{"0006", false}, PrefixCase{"0005 00", true},
                                           PrefixCase{"0005 01", false}, PrefixCase{"0005 0000 0007", true},
                                           PrefixCase{"0005 0000 0007 01 03 04 01", true},
                                           PrefixCase{"0005 0000 0007 02 03 04 01", false}, PrefixCase{"", false}));

struct RemoteCase {
    size_t expected;
    size_t size;
    ReplyScan kind;
    size_t scan_size;
};

class RemoteReplyScan : public ::testing::TestWithParam<RemoteCase> {};

TEST_P(RemoteReplyScan, Table)
{
    const RemoteCase &c = GetParam();
    const auto s = plchost::scan_remote_reply(c.expected, c.size);
    EXPECT_STREQ(name(s.kind), name(c.kind)) << c.expected << " expected, " << c.size << " arrived";
    EXPECT_EQ(s.size, c.scan_size);
}

INSTANTIATE_TEST_SUITE_P(Lengths, RemoteReplyScan,
                         ::testing::Values(RemoteCase{9, 9, ReplyScan::Reply, 9},
                                           RemoteCase{9, 0, ReplyScan::NeedMore, 9},
                                           RemoteCase{9, 8, ReplyScan::NeedMore, 9},
                                           RemoteCase{9, 10, ReplyScan::OutOfStep, 10},
                                           RemoteCase{8, 16, ReplyScan::OutOfStep, 16}));

struct TailCase {
    const char *what;
    const char *bytes;
    size_t from;
    bool frame;
};

class ModbusTail : public ::testing::TestWithParam<TailCase> {};

TEST_P(ModbusTail, Table)
{
    const auto data = hex(GetParam().bytes);
    EXPECT_EQ(plchost::modbus_tail_is_a_frame(data.data(), data.size(), GetParam().from), GetParam().frame)
        << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(Pieces, ModbusTail,
                         ::testing::Values(
                             // A read of eight registers cut after 13 bytes, completed by a whole
                             // write reply of 12 bytes (another transaction).
                             TailCase{"a write reply fills the rest exactly",
                                      "0005 0000 0013 02 03 10 A000 A001 0077 0000 0006 02 10 A002 0001", 13, true},
                             TailCase{"the same reply whole: no frame inside",
                                      "0005 0000 0013 02 03 10 A000 A001 A002 A003 A004 A005 A006 A007", 13, false},
                             TailCase{"a header inside that ends before the end",
                                      "0005 0000 000B 01 03 08 0009 0000 0003 01 03 00 00", 9, false},
                             TailCase{"a frame that starts before the second piece is not looked for",
                                      "0005 0000 0007 01 03 04 0000 0000", 5, false},
                             TailCase{"the smallest frame inside", "0005 0000 000A 01 03 07 00 0009 0000 0002 01 03", 9,
                                      true}));
