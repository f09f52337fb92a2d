#include "remote_frame.h"

#include <string>

namespace plcsim {
namespace remote {

namespace {

uint16_t be16(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

uint32_t be32(const uint8_t *p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

uint8_t sum8(const uint8_t *p, size_t n)
{
    unsigned total = 0;
    for (size_t i = 0; i < n; ++i)
        total += p[i];
    return static_cast<uint8_t>(total & 0xFF);
}

// Table addresses wrap at 16 bits, as the driver's own Modbus addresses do.
inline uint16_t table_address(uint32_t a)
{
    return static_cast<uint16_t>(a & 0xFFFF);
}

uint8_t data_byte(const std::vector<uint8_t> &data, size_t i)
{
    return i < data.size() ? data[i] : 0;
}

// The register kinds are described here on their own, on purpose: the
// simulator is a second opinion on the wire, so it does not read the driver's
// kind table (driver/Register_Kinds.h); a mistake in that table then shows up
// as a disagreement instead of being shared by both sides.
//
// Word classes 3 and 4 are writable (holding registers); classes 0 and 2 are inputs.
// Kinds: 3/7/10/13 -> class 3, 4/5/8/11/14 -> class 4.
int word_class_of(int kind)
{
    switch (kind) {
    case 3:
    case 7:
    case 10:
    case 13: return 3;
    case 4:
    case 5:
    case 8:
    case 11:
    case 14: return 4;
    default: return -1;
    }
}

// Writes data as consecutive little-endian words from word address `first`
// (a class address) of the given class; a trailing odd byte is a low byte with high byte 0.
void write_words(modbus_mapping_t *map, int cls, uint32_t first, const std::vector<uint8_t> &data)
{
    size_t words = (data.size() + 1) / 2;
    uint32_t base = first + class_offset(cls);
    for (size_t i = 0; i < words; ++i) {
        uint16_t v = static_cast<uint16_t>(data_byte(data, 2 * i) | (data_byte(data, 2 * i + 1) << 8));
        map->tab_registers[table_address(base + static_cast<uint32_t>(i))] = v;
    }
}

std::string hex_byte(unsigned v)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s = "0x";
    s += digits[(v >> 4) & 0xF];
    s += digits[v & 0xF];
    return s;
}

} // namespace

uint32_t class_offset(int register_class)
{
    switch (register_class) {
    case 0: return 0x6000;
    case 1: return 0xA000;
    case 2: return 0x8000;
    case 3: return 0xA000;
    default: return 0;
    }
}

long write_data_length(int kind, uint32_t count)
{
    switch (kind) {
    case 1: return static_cast<long>((count + 7) / 8);
    case 3:
    case 4: return 2L * count;
    case 10:
    case 11: return 4L * count;
    case 13:
    case 14: return 8L * count;
    case 5:
    case 7:
    case 8: return 1;
    default: return -1;
    }
}

size_t read_data_length(int kind, uint32_t count)
{
    if (kind == 0 || kind == 1)
        return (static_cast<size_t>(count) + 7) >> 3;
    if (kind >= 2 && kind <= 4)
        return 2 * static_cast<size_t>(count);
    return 0;
}

Boundary find_frame(const uint8_t *data, size_t size)
{
    Boundary b;
    if (size < 3)
        return b;
    uint8_t length_byte = data[0];
    if (data[2] == 0) {
        if (length_byte != kReadFrameLength) {
            b.status = Framing::Malformed;
            b.problem = "read frame with length byte " + std::to_string(length_byte) + " (a read is 22 bytes)";
            return b;
        }
        if (size >= kReadFrameLength) {
            b.status = Framing::Frame;
            b.length = kReadFrameLength;
        }
        return b;
    }
    if (size < kHeaderLength)
        return b;
    int kind = be16(data + 5);
    uint32_t count = be16(data + 11);
    long expected = write_data_length(kind, count);
    size_t length = 0;
    if (expected >= 0 && ((kReadFrameLength + static_cast<size_t>(expected)) & 0xFF) == length_byte) {
        length = kReadFrameLength + static_cast<size_t>(expected);
    } else if (length_byte >= kReadFrameLength) {
        length = length_byte;
    } else {
        b.status = Framing::Malformed;
        b.problem = "write frame with length byte " + std::to_string(length_byte) + " that fits neither kind " +
                    std::to_string(kind) + " with count " + std::to_string(count) + " nor a plain length";
        return b;
    }
    if (size >= length) {
        b.status = Framing::Frame;
        b.length = length;
    }
    return b;
}

bool decode(const uint8_t *frame, size_t length, Request &out)
{
    if (length < kReadFrameLength)
        return false;
    out.length_byte = frame[0];
    out.source_type = frame[1];
    out.rw_flag = frame[2];
    out.link_id = frame[3];
    out.station = frame[4];
    out.kind = be16(frame + 5);
    out.start = be32(frame + 7);
    out.count = be16(frame + 11);
    out.ext_param1 = be32(frame + 13);
    out.ext_param2 = be32(frame + 17);
    out.data.assign(frame + kHeaderLength, frame + length - 1);
    return true;
}

void apply_write(const Request &r, modbus_mapping_t *map)
{
    const uint32_t a = r.start;
    switch (r.kind) {
    case 1: {
        // Coil bits, least significant bit of each data byte first.
        size_t bits = r.count;
        if (bits > 8 * r.data.size())
            bits = 8 * r.data.size();
        uint32_t base = a + class_offset(1);
        for (size_t i = 0; i < bits; ++i)
            map->tab_bits[table_address(base + static_cast<uint32_t>(i))] = (r.data[i >> 3] >> (i & 7)) & 1;
        break;
    }
    case 3:
    case 4: write_words(map, r.kind, a, r.data); break;
    case 5: {
        // One bit (a & 15) of class-4 word a >> 4.
        uint16_t &w = map->tab_registers[table_address((a >> 4) + class_offset(4))];
        uint16_t mask = static_cast<uint16_t>(1u << (a & 15));
        if (data_byte(r.data, 0))
            w = static_cast<uint16_t>(w | mask);
        else
            w = static_cast<uint16_t>(w & ~mask);
        break;
    }
    case 7:
    case 8: {
        // One byte of word a >> 1: even a is the low byte, odd a the high byte.
        int cls = word_class_of(r.kind);
        uint16_t &w = map->tab_registers[table_address((a >> 1) + class_offset(cls))];
        uint16_t b = data_byte(r.data, 0);
        if (a & 1)
            w = static_cast<uint16_t>((w & 0x00FF) | (b << 8));
        else
            w = static_cast<uint16_t>((w & 0xFF00) | b);
        break;
    }
    case 10:
    case 11: write_words(map, word_class_of(r.kind), a * 2, r.data); break;
    case 13:
    case 14: write_words(map, word_class_of(r.kind), a * 4, r.data); break;
    default: break;
    }
}

namespace {

std::vector<uint8_t> read_reply(const uint8_t *frame, const Request &r, const modbus_mapping_t *map)
{
    size_t n = read_data_length(r.kind, r.count);
    std::vector<uint8_t> reply;
    reply.reserve(n + 5);
    reply.push_back(frame[0]);
    reply.push_back(frame[1]);
    reply.push_back(0x00);
    if (r.kind == 0 || r.kind == 1) {
        const uint8_t *bits = r.kind == 0 ? map->tab_input_bits : map->tab_bits;
        uint32_t base = r.start + class_offset(r.kind);
        for (size_t byte = 0; byte < n; ++byte) {
            uint8_t v = 0;
            for (size_t bit = 0; bit < 8; ++bit) {
                size_t i = byte * 8 + bit;
                if (i < r.count && bits[table_address(base + static_cast<uint32_t>(i))])
                    v = static_cast<uint8_t>(v | (1u << bit));
            }
            reply.push_back(v);
        }
    } else if (r.kind >= 2 && r.kind <= 4) {
        const uint16_t *words = r.kind == 2 ? map->tab_input_registers : map->tab_registers;
        uint32_t base = r.start + class_offset(r.kind);
        for (size_t i = 0; i < r.count; ++i) {
            uint16_t v = words[table_address(base + static_cast<uint32_t>(i))];
            reply.push_back(static_cast<uint8_t>(v >> 8));
            reply.push_back(static_cast<uint8_t>(v & 0xFF));
        }
    }
    reply.push_back(0x00);
    reply.push_back(0x00);
    return reply;
}

std::string describe(const Request &r)
{
    return std::string(r.rw_flag ? "write" : "read") + " station " + std::to_string(r.station) + " kind " +
           std::to_string(r.kind) + " start " + std::to_string(r.start) + " count " + std::to_string(r.count);
}

} // namespace

Outcome handle_frame(const uint8_t *frame, size_t length, const Stations &stations)
{
    Outcome out;
    Request r;
    if (!decode(frame, length, r)) {
        out.problem = true;
        out.note = "frame of " + std::to_string(length) + " bytes is too short";
        return out;
    }
    uint8_t expected = sum8(frame, length - 1);
    if (expected != frame[length - 1]) {
        out.problem = true;
        out.resync = true;
        out.note = "bad sum check: frame carries " + hex_byte(frame[length - 1]) + ", bytes add up to " +
                   hex_byte(expected) + "; no reply";
        return out;
    }
    const bool is_write = r.rw_flag != 0;
    if (is_write && write_data_length(r.kind, r.count) < 0) {
        out.problem = true;
        out.note = describe(r) + ": kind " + std::to_string(r.kind) + " cannot be written; no reply";
        return out;
    }
    if (r.station == 0) {
        if (!is_write) {
            out.problem = true;
            out.note = describe(r) + ": station 0 is the broadcast address and is not read; no reply";
            return out;
        }
        for (modbus_mapping_t *m : stations.all())
            apply_write(r, m);
        out.note = describe(r) + ": broadcast to " + std::to_string(stations.all().size()) + " station(s), no reply";
        return out;
    }
    modbus_mapping_t *map = stations.find(r.station);
    if (!map) {
        out.problem = true;
        out.note = describe(r) + ": station not served; no reply";
        return out;
    }
    if (is_write) {
        apply_write(r, map);
        out.send_reply = true;
        out.reply = {frame[0], frame[1], 0, 0, 0, 0, 0, 0};
        out.note = describe(r) + ": " + std::to_string(r.data.size()) + " data byte(s) written";
        return out;
    }
    out.send_reply = true;
    out.reply = read_reply(frame, r, map);
    out.note = describe(r) + ": " + std::to_string(out.reply.size() - 5) + " data byte(s) read";
    return out;
}

} // namespace remote
} // namespace plcsim
