#include "reply_framing.h"

namespace plchost {

namespace {

unsigned word_at(const uint8_t *p)
{
    return (unsigned(p[0]) << 8) | p[1];
}

// Byte offsets in the MBAP header.
constexpr size_t kTransaction = 0;
constexpr size_t kProtocol = 2;
constexpr size_t kLength = 4;
constexpr size_t kUnit = 6;

// The header bytes a reply must echo, as far as `size` bytes reach: the
// transaction identifier (bytes 0-1), protocol identifier 0 (2-3) and the
// unit identifier (6). The length (4-5) is the reply's own.
bool header_echoes(const uint8_t *request, size_t request_size, const uint8_t *data, size_t size)
{
    if (request_size < kMbapHeaderSize)
        return false;
    for (size_t i = 0; i < size && i < kMbapHeaderSize; ++i) {
        if (i >= kTransaction && i < kProtocol && data[i] != request[i])
            return false;
        if (i >= kProtocol && i < kLength && data[i] != 0)
            return false;
        if (i == kUnit && data[i] != request[i])
            return false;
    }
    return true;
}

Scan scan(ReplyScan kind, size_t size, bool ours = false)
{
    Scan s;
    s.kind = kind;
    s.size = size;
    s.ours = ours;
    return s;
}

} // namespace

Scan scan_modbus_reply(const uint8_t *request, size_t request_size, const uint8_t *data, size_t size)
{
    if (size < kMbapHeaderSize)
        return scan(ReplyScan::NeedMore, kMbapHeaderSize);
    const bool ours = header_echoes(request, request_size, data, kMbapHeaderSize);
    const unsigned length = word_at(data + kLength);
    if (length < kMbapMinLength || length > kMbapMaxLength)
        return scan(ReplyScan::OutOfStep, size, ours);
    const size_t frame = 6 + size_t(length);
    if (size < frame)
        return scan(ReplyScan::NeedMore, frame);
    return scan(ours ? ReplyScan::Reply : ReplyScan::Foreign, frame);
}

bool modbus_prefix_matches(const uint8_t *request, size_t request_size, const uint8_t *data, size_t size)
{
    return size > 0 && header_echoes(request, request_size, data, size);
}

bool modbus_tail_is_a_frame(const uint8_t *data, size_t size, size_t from)
{
    for (size_t at = from; at + 6 + kMbapMinLength <= size; ++at) {
        const uint8_t *h = data + at;
        const unsigned length = word_at(h + kLength);
        if (word_at(h + kProtocol) == 0 && length >= kMbapMinLength && length <= kMbapMaxLength &&
            at + 6 + length == size)
            return true;
    }
    return false;
}

Scan scan_remote_reply(size_t expected, size_t size)
{
    if (size < expected)
        return scan(ReplyScan::NeedMore, expected);
    if (size > expected)
        return scan(ReplyScan::OutOfStep, size);
    return scan(ReplyScan::Reply, expected);
}

} // namespace plchost
