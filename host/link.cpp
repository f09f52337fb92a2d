#include "link.h"

#include "reply_framing.h"

#include <algorithm>

namespace plchost {

// How reading a reply ended.
struct Link::Received {
    ReadStatus status = ReadStatus::Complete;
    // The byte stream can no longer be paired with the requests (a reply cut
    // off, one that may still come, bytes with no frame boundary).
    bool out_of_step = false;
};

// A Modbus TCP frame being read: the bytes so far, and, once a further read
// was needed, how many the first read brought (0 while one read was enough).
struct Link::FrameInProgress {
    std::vector<uint8_t> bytes;
    size_t first_piece = 0;

    void note_read()
    {
        if (first_piece == 0 && !bytes.empty())
            first_piece = bytes.size();
    }
    bool pieced() const { return first_piece != 0; }
    void skip(size_t n)
    {
        bytes.erase(bytes.begin(), bytes.begin() + long(n));
        first_piece = 0;
    }
};

Link::Link(const Endpoint &endpoint, LinkMode mode, ConnectTimings timings, std::chrono::milliseconds timeout,
           LinkCounters *counters)
    : endpoint_(endpoint), mode_(mode), timeout_(timeout), connection_(endpoint.host, endpoint.port, timings),
      counters_(counters)
{
}

bool Link::open(std::string *error)
{
    if (connection_.connect(error))
        return true;
    ++counters_->connect_failures;
    return false;
}

bool Link::connect_counted()
{
    switch (connection_.ensure_connected()) {
    case ConnectOutcome::AlreadyUp:
    case ConnectOutcome::Connected: return true;
    case ConnectOutcome::Reconnected: ++counters_->reconnects; return true;
    case ConnectOutcome::Failed: ++counters_->connect_failures; return false;
    case ConnectOutcome::Waiting: return false;
    }
    return false;
}

// Closes a connection whose byte stream can no longer be paired with the
// requests; the next request opens a new one at once. TCP never delivers
// what the peer still sends on the old connection to the new one.
void Link::resynchronise()
{
    if (!connection_.connected())
        return;
    connection_.close(true);
    ++counters_->resyncs;
}

bool Link::prepare()
{
    if (!connect_counted())
        return false;
    // Bytes waiting belong to an earlier request (a late or over-long
    // reply): thrown away so they cannot be taken for the next reply. On the
    // remote frame they also mean the peer sent what was not asked for,
    // which the frame cannot pair: the connection is not trusted any more.
    const size_t stale = connection_.drain();
    if (stale > 0)
        counters_->stale_bytes += stale;
    if (stale > 0 && mode_ == LinkMode::Remote)
        resynchronise();
    // The peer closed the idle connection (the drain saw the end) or it was
    // just closed above: the request has not gone out, so connect again at
    // once and send it rather than fail it after a time-out.
    if (!connection_.connected() && connect_counted())
        counters_->stale_bytes += connection_.drain();
    return connection_.connected();
}

WireOutcome Link::transact(const std::vector<uint8_t> &frame, int reply_len)
{
    WireOutcome o;
    const auto started = Clock::now();
    if (trace_)
        trace_(FrameDirection::Sent, frame.data(), frame.size());
    if (!connection_.send(frame.data(), frame.size())) {
        connection_.close(true);
        o.timed_out = reply_len != 0;
        return o;
    }
    o.sent = true;
    if (reply_len == 0)
        return o; // a broadcast write: nobody answers

    const auto deadline = started + timeout_;
    Received r;
    if (mode_ == LinkMode::Modbus)
        r = receive_modbus(frame, size_t(std::max(reply_len, 0)), deadline, &o.reply);
    else if (reply_len > 0)
        r = receive_remote(size_t(reply_len), deadline, &o.reply);
    else
        r = receive_unframed(deadline, &o.reply);
    if (r.status == ReadStatus::Closed)
        connection_.close(true);
    o.out_of_step = r.out_of_step;
    o.timed_out = o.reply.empty();
    if (!o.reply.empty()) {
        if (trace_)
            trace_(FrameDirection::Received, o.reply.data(), o.reply.size());
        o.rtt_ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    }
    return o;
}

// The remote frame carries no transaction number: a reply is the answer to
// the request in flight only because nothing else can be on its way on the
// connection. That holds while every request got its whole reply before the
// next was sent. A request that timed out (its reply may still come) or a
// reply that failed the driver's checks (the stream may be out of step)
// breaks it, so the connection is opened afresh before the next request:
// the cheapest rule that is safe, since a connection on which every reply
// came in time and passed costs nothing. Modbus TCP needs none of this:
// receive_modbus() pairs by transaction identifier.
void Link::settle(const WireOutcome &outcome, bool accepted)
{
    const bool awaited = outcome.sent && (outcome.timed_out || !outcome.reply.empty());
    if (outcome.out_of_step || (mode_ == LinkMode::Remote && awaited && !accepted))
        resynchronise();
}

// Reads the reply to `request` on a Modbus TCP connection until `deadline`.
// A frame that answers another request (a late reply, one sent twice) is
// skipped and counted, and reading goes on for the right one; bytes behind
// the right one that came in the same read are counted as stale.
//
// One case the header cannot settle: a reply cut short by the peer whose
// missing bytes are then supplied by the next frame on the line (a late
// reply, say). Its length field is satisfied by bytes that belong to another
// frame. A reply whose bytes came in more than one piece is therefore not
// taken when more bytes follow right behind it, or when the pieces after the
// first hold a whole frame header that ends where the reply ends. (A peer
// that answers one request at a time sends nothing behind a whole reply, so
// a reply that merely arrived in pieces still passes.)
Link::Received Link::receive_modbus(const std::vector<uint8_t> &request, size_t expected, Clock::time_point deadline,
                                    std::vector<uint8_t> *reply)
{
    FrameInProgress f;
    // The first read may take as much as the driver expects in all, so a
    // whole reply costs one recv; the MBAP length decides where it ends.
    size_t room = std::min(std::max(expected, kMbapHeaderSize), kModbusMaxFrame);
    for (;;) {
        const Scan s = scan_modbus_reply(request.data(), request.size(), f.bytes.data(), f.bytes.size());
        switch (s.kind) {
        case ReplyScan::NeedMore: {
            f.note_read();
            Received r;
            r.status = connection_.read_exact(s.size - f.bytes.size(), deadline, &f.bytes, !f.bytes.empty(), room);
            room = 0;
            if (r.status != ReadStatus::Complete)
                return cut_off(request, &f, reply, r);
            continue;
        }
        case ReplyScan::Foreign:
            ++counters_->foreign_replies;
            f.skip(s.size);
            continue;
        case ReplyScan::Reply: return take_reply(&f, s.size, reply);
        case ReplyScan::OutOfStep: return take_unframed(&f, s.ours, deadline, reply);
        }
    }
}

// Cut off by the deadline or a close. What arrived is handed over when it
// can be the start of this request's reply (the driver fails it on its
// length); the rest of that frame may still come, so the connection is out
// of step either way.
Link::Received Link::cut_off(const std::vector<uint8_t> &request, FrameInProgress *f, std::vector<uint8_t> *reply,
                             Received r)
{
    if (modbus_prefix_matches(request.data(), request.size(), f->bytes.data(), f->bytes.size()))
        reply->swap(f->bytes);
    else if (!f->bytes.empty())
        ++counters_->foreign_replies;
    r.out_of_step = !reply->empty() || !f->bytes.empty();
    return r;
}

// The whole reply to the request, unless it came in pieces and another
// frame may have supplied its end (see receive_modbus()).
Link::Received Link::take_reply(FrameInProgress *f, size_t size, std::vector<uint8_t> *reply)
{
    Received r;
    if (f->pieced() && (f->bytes.size() > size || connection_.bytes_waiting() ||
                        modbus_tail_is_a_frame(f->bytes.data(), size, f->first_piece))) {
        ++counters_->foreign_replies;
        r.out_of_step = true;
        return r;
    }
    if (f->bytes.size() > size)
        counters_->stale_bytes += f->bytes.size() - size;
    f->bytes.resize(size);
    reply->swap(f->bytes);
    return r;
}

// No frame boundary: a header that echoes the request is handed over with
// whatever else comes (up to 1024 bytes after the header) for the driver to
// judge; anything else is discarded.
Link::Received Link::take_unframed(FrameInProgress *f, bool ours, Clock::time_point deadline,
                                   std::vector<uint8_t> *reply)
{
    Received r;
    if (ours) {
        r.status = connection_.read_until_idle(std::chrono::milliseconds(20),
                                               1024 - (f->bytes.size() - kMbapHeaderSize), deadline, &f->bytes);
        reply->swap(f->bytes);
    } else {
        ++counters_->foreign_replies;
    }
    r.out_of_step = true;
    return r;
}

// Reads the reply to a remote frame: exactly `expected` bytes, and nothing
// right behind them (bytes there mean the peer sent more than one reply's
// worth, and which part answers this request cannot be told).
Link::Received Link::receive_remote(size_t expected, Clock::time_point deadline, std::vector<uint8_t> *reply)
{
    Received r;
    r.status = connection_.read_exact(expected, deadline, reply);
    if (r.status != ReadStatus::Complete) {
        r.out_of_step = true; // a reply (or the rest of one) may still be on its way
        return r;
    }
    const size_t seen = reply->size() + (connection_.bytes_waiting() ? 1 : 0);
    if (scan_remote_reply(expected, seen).kind == ReplyScan::OutOfStep) {
        ++counters_->foreign_replies;
        reply->clear();
        r.out_of_step = true;
    }
    return r;
}

// A reply of no fixed length: whatever arrives until the line is quiet.
Link::Received Link::receive_unframed(Clock::time_point deadline, std::vector<uint8_t> *reply)
{
    Received r;
    r.status = connection_.read_exact(1, deadline, reply);
    if (r.status == ReadStatus::Complete)
        r.status = connection_.read_until_idle(std::chrono::milliseconds(50), 4096, deadline, reply);
    return r;
}

} // namespace plchost
