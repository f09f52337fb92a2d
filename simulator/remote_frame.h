// The driver's own request frame ("remote frame") as the simulated PLC sees it:
// finding frame boundaries in a byte stream, decoding, and answering from the
// same memory the Modbus side serves.
//
// Request: [0] total length incl. check byte (mod 256), [1] source_type, [2] rw_flag,
// [3] link_id, [4] station, [5-6] reg_kind BE, [7-10] start_addr BE, [11-12] count BE,
// [13-16] ext_param1 BE, [17-20] ext_param2 BE, then the data bytes of a write,
// then one check byte = low 8 bits of the sum of all bytes before it.
#ifndef PLCSIM_REMOTE_FRAME_H
#define PLCSIM_REMOTE_FRAME_H

#include "memory.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace plcsim {
namespace remote {

constexpr size_t kHeaderLength = 21;    // bytes 0..20
constexpr size_t kReadFrameLength = 22; // header + check byte

// Modbus table offset of a register class: an address a of class c lives at
// table address a + offset(c) (classes 0..3: 0x6000, 0xA000, 0x8000, 0xA000; class 4: 0).
uint32_t class_offset(int register_class);

// Data bytes a write of this kind and count carries, or -1 for kinds that cannot be written.
long write_data_length(int kind, uint32_t count);

// Data bytes in the reply to a read of this kind and count (0 for kinds other than 0..4).
size_t read_data_length(int kind, uint32_t count);

enum class Framing { NeedMore, Frame, Malformed };

struct Boundary {
    Framing status = Framing::NeedMore;
    size_t length = 0;   // frame length when status is Frame
    std::string problem; // why, when status is Malformed
};

// Looks at the start of a receive buffer. A read frame is always 22 bytes and
// must say so in byte 0. For a write, the length byte is used when it agrees
// with the data length the kind and count call for (the byte holds the length
// mod 256, so big writes wrap); otherwise a length byte >= 22 is taken as it stands.
Boundary find_frame(const uint8_t *data, size_t size);

struct Request {
    uint8_t length_byte = 0;
    uint8_t source_type = 0;
    uint8_t rw_flag = 0;
    uint8_t link_id = 0;
    uint8_t station = 0;
    uint16_t kind = 0;
    uint32_t start = 0;
    uint16_t count = 0;
    uint32_t ext_param1 = 0;
    uint32_t ext_param2 = 0;
    std::vector<uint8_t> data;
};

// Decodes a whole frame (as delimited by find_frame). Returns false when it is
// shorter than a read frame.
bool decode(const uint8_t *frame, size_t length, Request &out);

struct Outcome {
    bool send_reply = false;
    std::vector<uint8_t> reply;
    bool problem = false; // the frame was refused (bad sum, unknown station, unwritable kind)
    bool resync = false;  // the frame boundary is in doubt (bad sum): drop what else was received
    std::string note;     // one line for the log
};

// Checks and executes one frame against the stations' memory.
Outcome handle_frame(const uint8_t *frame, size_t length, const Stations &stations);

// Applies a write request to one station's memory (exposed for tests).
void apply_write(const Request &request, modbus_mapping_t *map);

} // namespace remote
} // namespace plcsim

#endif
