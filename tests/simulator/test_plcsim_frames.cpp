// The simulator's remote frame handling in-process: framing in a byte stream,
// the sum check, station routing, and every read and write kind against the
// libmodbus tables it shares with the Modbus side.
#include "memory.h"
#include "remote_frame.h"
#include "remote_frame_builder.h"

#include <gtest/gtest.h>

#include <vector>

using namespace plcsim;
using remote::Framing;

namespace {

remote::Outcome run(const Stations &s, const std::vector<uint8_t> &frame)
{
    remote::Boundary b = remote::find_frame(frame.data(), frame.size());
    EXPECT_EQ(b.status, Framing::Frame);
    EXPECT_EQ(b.length, frame.size());
    return remote::handle_frame(frame.data(), frame.size(), s);
}

} // namespace

TEST(PlcsimFrames, ClassOffsetsAndLengths)
{
    EXPECT_EQ(remote::class_offset(0), 0x6000u);
    EXPECT_EQ(remote::class_offset(1), 0xA000u);
    EXPECT_EQ(remote::class_offset(2), 0x8000u);
    EXPECT_EQ(remote::class_offset(3), 0xA000u);
    EXPECT_EQ(remote::class_offset(4), 0u);
    EXPECT_EQ(remote::write_data_length(1, 9), 2);
    EXPECT_EQ(remote::write_data_length(3, 5), 10);
    EXPECT_EQ(remote::write_data_length(11, 3), 12);
    EXPECT_EQ(remote::write_data_length(13, 2), 16);
    EXPECT_EQ(remote::write_data_length(5, 40), 1);
    EXPECT_EQ(remote::write_data_length(8, 1), 1);
    EXPECT_EQ(remote::write_data_length(0, 1), -1);
    EXPECT_EQ(remote::write_data_length(2, 1), -1);
    EXPECT_EQ(remote::write_data_length(15, 1), -1);
    EXPECT_EQ(remote::read_data_length(0, 17), 3u);
    EXPECT_EQ(remote::read_data_length(1, 0), 0u);
    EXPECT_EQ(remote::read_data_length(4, 10), 20u);
    EXPECT_EQ(remote::read_data_length(9, 10), 0u);
}

TEST(PlcsimFrames, FramingWaitsForWholeFrames)
{
    std::vector<uint8_t> read = build_frame(read_of(1, 4, 0, 2));
    ASSERT_EQ(read.size(), 22u);
    for (size_t n = 0; n < read.size(); ++n) {
        EXPECT_EQ(remote::find_frame(read.data(), n).status, Framing::NeedMore) << n;
    }
    std::vector<uint8_t> write = build_frame(write_of(1, 4, 0, 3, {1, 2, 3, 4, 5, 6}));
    ASSERT_EQ(write.size(), 28u);
    for (size_t n = 0; n < write.size(); ++n) {
        EXPECT_EQ(remote::find_frame(write.data(), n).status, Framing::NeedMore) << n;
    }
    // Two frames back to back: the first is delimited on its own.
    std::vector<uint8_t> both = write;
    both.insert(both.end(), read.begin(), read.end());
    remote::Boundary b = remote::find_frame(both.data(), both.size());
    EXPECT_EQ(b.status, Framing::Frame);
    EXPECT_EQ(b.length, 28u);
}

TEST(PlcsimFrames, WrappedLengthByteIsResolvedFromKindAndCount)
{
    // 117 words: 22 + 234 = 256 bytes, length byte 0.
    std::vector<uint8_t> data(234, 0x5A);
    std::vector<uint8_t> f = build_frame(write_of(1, 3, 0, 117, data));
    ASSERT_EQ(f.size(), 256u);
    ASSERT_EQ(f[0], 0);
    remote::Boundary b = remote::find_frame(f.data(), f.size());
    EXPECT_EQ(b.status, Framing::Frame);
    EXPECT_EQ(b.length, 256u);
    // 40 qwords of kind 14: 22 + 320 = 342, length byte 86 (>= 22 but not the length).
    std::vector<uint8_t> q = build_frame(write_of(1, 14, 0, 40, std::vector<uint8_t>(320, 1)));
    ASSERT_EQ(q[0], 86);
    b = remote::find_frame(q.data(), q.size());
    EXPECT_EQ(b.status, Framing::Frame);
    EXPECT_EQ(b.length, 342u);
}

TEST(PlcsimFrames, MalformedStarts)
{
    std::vector<uint8_t> read = build_frame(read_of(1, 4, 0, 2));
    read[0] = 30; // a read says 22
    EXPECT_EQ(remote::find_frame(read.data(), read.size()).status, Framing::Malformed);
    // A write of an unknown kind whose length byte cannot be a length.
    std::vector<uint8_t> w = build_frame(write_of(1, 99, 0, 1, {}));
    w[0] = 5;
    EXPECT_EQ(remote::find_frame(w.data(), w.size()).status, Framing::Malformed);
}

TEST(PlcsimFrames, BadSumIsRefusedWithoutReply)
{
    Stations s({1});
    std::vector<uint8_t> f = build_frame(write_of(1, 4, 3, 1, {0x34, 0x12}));
    f.back() ^= 0x01;
    remote::Outcome o = run(s, f);
    EXPECT_FALSE(o.send_reply);
    EXPECT_TRUE(o.problem);
    EXPECT_TRUE(o.resync);
    EXPECT_EQ(s.find(1)->tab_registers[3], 0) << "a frame with a bad sum must not write";
}

TEST(PlcsimFrames, UnknownStationAndBroadcastRead)
{
    Stations s({1});
    remote::Outcome o = run(s, build_frame(read_of(9, 4, 0, 1)));
    EXPECT_FALSE(o.send_reply);
    EXPECT_TRUE(o.problem);
    o = run(s, build_frame(read_of(0, 4, 0, 1)));
    EXPECT_FALSE(o.send_reply);
    o = run(s, build_frame(write_of(9, 4, 0, 1, {1, 0})));
    EXPECT_FALSE(o.send_reply);
    EXPECT_EQ(s.find(1)->tab_registers[0], 0);
}

TEST(PlcsimFrames, ReadRepliesCarryDataLikeModbus)
{
    Stations s({1});
    modbus_mapping_t *m = s.find(1);
    m->tab_registers[0xA007] = 0x1234;
    m->tab_registers[0xA008] = 0xABCD;
    m->tab_registers[7] = 0x0102;
    m->tab_input_registers[0x8005] = 0xBEEF;
    for (int i : {3, 5, 12})
        m->tab_bits[0xA000 + i] = 1;
    m->tab_input_bits[0x6000 + 9] = 1;

    FrameFields f = read_of(1, 3, 7, 2);
    f.source_type = 0x42;
    remote::Outcome o = run(s, build_frame(f));
    ASSERT_TRUE(o.send_reply);
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 0x42, 0, 0x12, 0x34, 0xAB, 0xCD, 0, 0}));

    o = run(s, build_frame(read_of(1, 4, 7, 1)));
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 7, 0, 0x01, 0x02, 0, 0}));

    o = run(s, build_frame(read_of(1, 2, 5, 1)));
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 7, 0, 0xBE, 0xEF, 0, 0}));

    // Coils 3, 5 and 12 from bit 3, 10 bits: bits 0, 2, 9.
    o = run(s, build_frame(read_of(1, 1, 3, 10)));
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 7, 0, 0x05, 0x02, 0, 0}));

    // Discrete inputs: bit 0 is set by the motion pattern at tick 0, bit 9 by the test.
    o = run(s, build_frame(read_of(1, 0, 0, 12)));
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 7, 0, 0x01, 0x02, 0, 0}));

    // Kinds above 4 are not read: a reply without data.
    o = run(s, build_frame(read_of(1, 11, 0, 4)));
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{22, 7, 0, 0, 0}));
}

TEST(PlcsimFrames, WritesLandInTheSharedTables)
{
    Stations s({1, 2});
    modbus_mapping_t *m = s.find(1);
    modbus_mapping_t *other = s.find(2);

    remote::Outcome o = run(s, build_frame(write_of(1, 4, 3, 1, {0x34, 0x12})));
    ASSERT_TRUE(o.send_reply);
    EXPECT_EQ(o.reply, (std::vector<uint8_t>{24, 7, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(m->tab_registers[3], 0x1234);
    EXPECT_EQ(other->tab_registers[3], 0);

    run(s, build_frame(write_of(1, 3, 3, 1, {0x78, 0x56})));
    EXPECT_EQ(m->tab_registers[0xA003], 0x5678);

    run(s, build_frame(write_of(1, 1, 6, 10, {0x05, 0x02})));
    std::vector<int> coils;
    for (int i = 0; i < 20; ++i)
        coils.push_back(m->tab_bits[0xA000 + i]);
    EXPECT_EQ(coils, (std::vector<int>{0, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));

    run(s, build_frame(write_of(1, 5, 17, 1, {1})));
    EXPECT_EQ(m->tab_registers[1], 0x0002);
    run(s, build_frame(write_of(1, 5, 0x31, 1, {0xFF})));
    EXPECT_EQ(m->tab_registers[3], 0x1236);
    run(s, build_frame(write_of(1, 5, 0x34, 1, {0})));
    EXPECT_EQ(m->tab_registers[3], 0x1226);

    m->tab_registers[2] = 0x1234;
    run(s, build_frame(write_of(1, 8, 5, 1, {0xAB})));
    EXPECT_EQ(m->tab_registers[2], 0xAB34);
    run(s, build_frame(write_of(1, 8, 4, 1, {0xCD})));
    EXPECT_EQ(m->tab_registers[2], 0xABCD);
    run(s, build_frame(write_of(1, 7, 4, 1, {0xEF})));
    EXPECT_EQ(m->tab_registers[0xA002], 0x00EF);

    run(s, build_frame(write_of(1, 11, 10, 1, {1, 2, 3, 4})));
    EXPECT_EQ(m->tab_registers[20], 0x0201);
    EXPECT_EQ(m->tab_registers[21], 0x0403);
    run(s, build_frame(write_of(1, 10, 5, 1, {0x78, 0x56, 0x34, 0x12})));
    EXPECT_EQ(m->tab_registers[0xA00A], 0x5678);
    EXPECT_EQ(m->tab_registers[0xA00B], 0x1234);

    run(s, build_frame(write_of(1, 14, 2, 1, {1, 2, 3, 4, 5, 6, 7, 8})));
    EXPECT_EQ(m->tab_registers[8], 0x0201);
    EXPECT_EQ(m->tab_registers[11], 0x0807);
    run(s, build_frame(write_of(1, 13, 2, 1, {8, 7, 6, 5, 4, 3, 2, 1})));
    EXPECT_EQ(m->tab_registers[0xA008], 0x0708);
    EXPECT_EQ(m->tab_registers[0xA00B], 0x0102);
}

TEST(PlcsimFrames, BroadcastWriteReachesEveryStationWithoutReply)
{
    Stations s({1, 2, 5});
    remote::Outcome o = run(s, build_frame(write_of(0, 4, 40, 1, {0xEF, 0xBE})));
    EXPECT_FALSE(o.send_reply);
    EXPECT_FALSE(o.problem);
    for (int id : {1, 2, 5}) {
        EXPECT_EQ(s.find(id)->tab_registers[40], 0xBEEF) << id;
    }
}

TEST(PlcsimFrames, UnwritableKindsAreRefused)
{
    Stations s({1});
    for (int kind : {0, 2, 6, 9, 12}) {
        std::vector<uint8_t> f = build_frame(write_of(1, kind, 0, 1, {1, 2}));
        remote::Outcome o = remote::handle_frame(f.data(), f.size(), s);
        EXPECT_FALSE(o.send_reply) << kind;
        EXPECT_TRUE(o.problem) << kind;
    }
}

TEST(PlcsimFrames, AddressesWrapAtSixteenBits)
{
    Stations s({1});
    // Class 3 word 0x6001 is table address 0x10001 -> 0x0001.
    run(s, build_frame(write_of(1, 3, 0x6001, 1, {0x22, 0x11})));
    EXPECT_EQ(s.find(1)->tab_registers[1], 0x1122);
}

TEST(PlcsimFrames, MotionIsAFunctionOfTheTickCount)
{
    Stations s({1});
    modbus_mapping_t *m = s.find(1);
    set_moving_values(m, 123);
    EXPECT_EQ(m->tab_input_registers[0x8000], 123);
    EXPECT_EQ(m->tab_input_registers[0x8001], 12);
    EXPECT_EQ(m->tab_input_registers[0x8002], 615);
    EXPECT_EQ(m->tab_input_registers[0x8003], 1);
    EXPECT_EQ(m->tab_input_registers[0x8004], 220); // (123 % 101) * 10
    uint32_t c = 123u * 0x1001u;
    EXPECT_EQ(m->tab_input_registers[0x8010], c & 0xFFFF);
    EXPECT_EQ(m->tab_input_registers[0x8011], c >> 16);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(m->tab_input_bits[0x6000 + i], i == 3 ? 1 : 0) << i;
    }
    set_moving_values(m, 100);
    EXPECT_EQ(m->tab_input_registers[0x8004], 1000);
    set_moving_values(m, 101);
    EXPECT_EQ(m->tab_input_registers[0x8004], 0);
}
