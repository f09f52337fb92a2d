// Builds the driver's remote request frames for the simulator tests, written
// independently of the simulator's own decoder.
#ifndef PLCSIM_TEST_REMOTE_FRAME_BUILDER_H
#define PLCSIM_TEST_REMOTE_FRAME_BUILDER_H

#include <cstdint>
#include <vector>

struct FrameFields {
    int station = 1;
    int kind = 4;
    uint32_t start = 0;
    int count = 1;
    bool write = false;
    uint8_t source_type = 7;
    uint8_t link_id = 3;
    uint32_t ext1 = 0x11223344;
    uint32_t ext2 = 0xFFFFFFFF;
    std::vector<uint8_t> data;
};

inline std::vector<uint8_t> build_frame(const FrameFields &f)
{
    std::vector<uint8_t> b;
    auto put32 = [&b](uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8)
            b.push_back(static_cast<uint8_t>(v >> shift));
    };
    b.push_back(0);
    b.push_back(f.source_type);
    b.push_back(f.write ? 1 : 0);
    b.push_back(f.link_id);
    b.push_back(static_cast<uint8_t>(f.station));
    b.push_back(static_cast<uint8_t>(f.kind >> 8));
    b.push_back(static_cast<uint8_t>(f.kind));
    put32(f.start);
    b.push_back(static_cast<uint8_t>(f.count >> 8));
    b.push_back(static_cast<uint8_t>(f.count));
    put32(f.ext1);
    put32(f.ext2);
    b.insert(b.end(), f.data.begin(), f.data.end());
    b[0] = static_cast<uint8_t>(b.size() + 1);
    unsigned sum = 0;
    for (uint8_t v : b)
        sum += v;
    b.push_back(static_cast<uint8_t>(sum));
    return b;
}

inline FrameFields read_of(int station, int kind, uint32_t start, int count)
{
    FrameFields f;
    f.station = station;
    f.kind = kind;
    f.start = start;
    f.count = count;
    return f;
}

inline FrameFields write_of(int station, int kind, uint32_t start, int count, std::vector<uint8_t> data)
{
    FrameFields f = read_of(station, kind, start, count);
    f.write = true;
    f.data = std::move(data);
    return f;
}

#endif
