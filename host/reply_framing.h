// Reply framing of both link modes as pure functions over received bytes:
// where a reply ends in a receive buffer, and whether it answers the request
// in flight. No socket is involved, so every rule here is tested with tables
// of bytes.
//
// Pairing is the host's job, not the driver's: the driver checks a reply
// against the request at the head of its queue, but only by length and its
// first two bytes. A reply that arrives after its request timed out matches
// any later request of the same shape, so the host must make sure that the
// bytes it hands to DataCom are the reply to the request it sent last.
// docs/integrating.md states the rule for every runtime.
#ifndef PLCHOST_REPLY_FRAMING_H
#define PLCHOST_REPLY_FRAMING_H

#include <cstddef>
#include <cstdint>

namespace plchost {

// Modbus TCP application header (MBAP): transaction identifier (2 bytes),
// protocol identifier (2, always 0 for Modbus), length of what follows (2),
// unit identifier (1).
constexpr size_t kMbapHeaderSize = 7;
// The length field counts the unit identifier and the PDU: at least a
// function code, at most the largest PDU (253 bytes).
constexpr unsigned kMbapMinLength = 2;
constexpr unsigned kMbapMaxLength = 254;
constexpr size_t kModbusMaxFrame = 6 + kMbapMaxLength;

// What the bytes at the start of a receive buffer are.
enum class ReplyScan {
    NeedMore,  // too few bytes to decide: `size` is how many are needed in all
    Reply,     // the reply to the request in flight: its first `size` bytes
    Foreign,   // a whole frame that answers another request: `size` bytes to skip
    OutOfStep, // no frame boundary can be trusted: the connection is out of step
};

struct Scan {
    ReplyScan kind = ReplyScan::NeedMore;
    size_t size = 0;
    // OutOfStep only: the header echoes the request (transaction, protocol 0,
    // unit), so what arrived is handed to the driver, which will refuse it.
    bool ours = false;
};

// Modbus TCP. A reply belongs to the request when it echoes the request's
// transaction identifier and unit identifier and carries protocol identifier
// 0; anything else is a confirmation of another request and is discarded (a
// late reply, or one sent twice). A header whose length field is out of range
// gives no frame boundary: the rest of the stream cannot be cut into frames.
Scan scan_modbus_reply(const uint8_t *request, size_t request_size, const uint8_t *data, size_t size);

// Whether `size` received bytes (fewer than a whole reply) can be the start
// of the reply to `request`: every header byte that arrived echoes the
// request's. Decides whether a reply cut off by a time-out or a close is
// handed to the driver (which fails it on its length) or discarded.
bool modbus_prefix_matches(const uint8_t *request, size_t request_size, const uint8_t *data, size_t size);

// Whether the bytes of a frame from `from` on hold the whole of another
// Modbus TCP frame that ends exactly where this one ends: a header with
// protocol identifier 0 and a length that reaches the end. Used on a reply
// that came in pieces: when the peer cut a reply short and the next frame on
// the line (a late reply) supplied exactly the missing bytes, the reply's own
// header cannot tell, but the other frame's header is there to see.
bool modbus_tail_is_a_frame(const uint8_t *data, size_t size, size_t from);

// The remote frame: the reply carries no transaction number, only the
// request's first two bytes, so it is exactly the `expected` bytes the
// driver asks for, and more bytes behind them mean the peer sent something
// that was not asked for (a reply twice, or a late one): OutOfStep, since
// which of the two is the answer cannot be told.
Scan scan_remote_reply(size_t expected, size_t size);

} // namespace plchost

#endif // PLCHOST_REPLY_FRAMING_H
