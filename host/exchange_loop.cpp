// The host's communication thread: the exchange loop. One call of
// exchange_once() is one request's life on the host's side, one short step
// each: take the request (ComCommunication), send it to its endpoint and
// read its reply (route, link.h), hand the reply to the driver (DataCom),
// count the outcome, deliver the driver's callbacks, pace the loop.
//
// docs/exchange-cycle.md describes the cycle the driver and the host run
// together: when a pass ends, and who sets and resets each shared field
// (cycle_done, retry_count, the reply counters).
#include "Communication_Protocol.h"
#include "Register_Kinds.h"
#include "link.h"
#include "read_times.h"
#include "plchost.h"

#include <QByteArray>

#include <algorithm>

namespace plchost {

// The request in flight, copied out of the driver's queue: the record
// belongs to the driver and goes away inside DataCom.
struct Host::Request {
    std::vector<uint8_t> frame;
    int reply_len = 0;
    ReplyEvent ev;
};

void Host::run()
{
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_)
                return;
        }
        if (!exchange_once())
            return;
    }
}

// The driver's next request, or null when nothing is left. A null also ends
// a burst of five writes or one-shot reads when no cyclic read follows; the
// driver has then reset its burst counters, so a second call tells whether
// anything is left.
::Protocol *Host::take_request()
{
    Protocol *p = ComCommunication();
    return p ? p : ComCommunication();
}

// One request: take, send, hand to the driver, count, deliver, pace. False
// when stopping.
bool Host::exchange_once()
{
    apply_tags_locked();
    Protocol *p = take_request();
    if (!p) {
        // Nothing to send (empty lists, or every station switched off).
        return pause_after_pass();
    }
    Request r;
    r.frame.assign(p->frame.constData(), p->frame.constData() + std::min(std::max(p->frame_len, 0), p->frame.size()));
    r.reply_len = p->reply_len;
    r.ev.station = p->var.station;
    r.ev.reg_kind = p->var.reg_kind;
    r.ev.start_addr = p->var.start_addr;
    r.ev.count = p->var.count;
    r.ev.write = p->var.rw_flag != 0;
    r.ev.to_mirror = !r.ev.write && !is_rmw_read(p->var.ext_param1);
    r.ev.endpoint = route(r.ev.station);

    const bool to_all = r.reply_len == 0 && r.ev.station == 0;
    const WireOutcome wire = to_all ? broadcast(r) : send_request(r);
    if (!wire.sent && !to_all && stopping())
        return false;
    ReplyEvent ev = r.ev;
    ev.status = hand_to_driver(wire);
    ev.bytes = int(wire.reply.size());
    ev.timed_out = wire.timed_out;
    if (!to_all)
        links_[size_t(ev.endpoint)]->settle(wire, ReplyEvent::is_good(ev.status));
    // The driver clears retry_count only when it gives a request up; the
    // host clears it after a good reply (docs/exchange-cycle.md).
    if (ReplyEvent::is_good(ev.status))
        com_info_->retry_count = 0;
    const bool pass_done = count_outcome(ev, wire);
    deliver_callbacks(true);
    if (reply_hook_)
        reply_hook_(ev);
    return pace(ev, pass_done);
}

// To the endpoint that serves the request's station. Without a link the
// request fails like one that got no answer, after the same wait, so the
// driver's retry and give-up logic runs.
WireOutcome Host::send_request(const Request &r)
{
    Link &link = *links_[size_t(r.ev.endpoint)];
    if (link.prepare())
        return link.transact(r.frame, r.reply_len);
    WireOutcome none;
    if (sleep_for(config_.timeout, false))
        none.timed_out = r.reply_len != 0;
    return none;
}

// A broadcast write: to every endpoint that is up; no reply is awaited.
WireOutcome Host::broadcast(const Request &r)
{
    WireOutcome all;
    for (auto &link : links_) {
        if (link->prepare() && link->transact(r.frame, 0).sent)
            all.sent = true;
    }
    all.timed_out = !all.sent;
    return all;
}

int Host::hand_to_driver(const WireOutcome &wire)
{
    QByteArray reply(reinterpret_cast<const char *>(wire.reply.data()), int(wire.reply.size()));
    return DataCom(&reply, reply.size())->status;
}

// Adds one outcome to a set of figures (the totals or one station's).
template <typename Figures> void tally(Figures &f, int status, const WireOutcome &wire)
{
    if (wire.sent)
        ++f.requests;
    if (wire.timed_out)
        ++f.timeouts;
    if (wire.rtt_ms >= 0) {
        if (f.rtt_samples == 0 || wire.rtt_ms < f.rtt_min_ms)
            f.rtt_min_ms = wire.rtt_ms;
        f.rtt_max_ms = std::max(f.rtt_max_ms, wire.rtt_ms);
        f.rtt_sum_ms += wire.rtt_ms;
        ++f.rtt_samples;
    }
    if (ReplyEvent::is_good(status)) {
        ++f.good_replies;
        return;
    }
    ++f.failed_replies;
    if (status == 0)
        ++f.retries; // the driver sends it again
    else
        ++f.give_ups;
}

// Counts one outcome, and notes when a good read stored its block in the
// mirror. True when it ended a full pass over the cyclic list.
bool Host::count_outcome(const ReplyEvent &ev, const WireOutcome &wire)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (ev.good() && ev.to_mirror)
        read_times_->note(ev.station, class_range(ev), std::chrono::system_clock::now());
    tally(stats_, ev.status, wire);
    StationStats &station = stats_.stations[ev.station];
    tally(station, ev.status, wire);
    if (ReplyEvent::is_good(ev.status))
        station.failing = false;
    else if (ev.status != 0)
        station.failing = true;
    ++stats_.codes[ev.status];
    if (!ReplyEvent::is_good(ev.status) || com_info_->cycle_done != 1)
        return false;
    if (cyclic_entries_.load() == 0) {
        // Without a cyclic list every good reply "completes a pass"; that is
        // no reason to pause.
        com_info_->cycle_done = 0;
        return false;
    }
    ++stats_.passes;
    done_cv_.notify_all();
    return true;
}

// Delivers the callbacks the driver made inside DataCom. With `hooks`, the
// user's hooks run too (on the communication thread).
void Host::deliver_callbacks(bool hooks)
{
    std::vector<CallbackEvent> events;
    events.swap(events_);
    for (const CallbackEvent &e : events) {
        if (e.write_done) {
            // The hook first: whoever waits in wait_done() then also finds
            // the hook's effects.
            if (hooks && write_done_hook_)
                write_done_hook_(e.handle, e.source_type, e.source_id, e.result);
            notify_done(e.source_type, e.source_id, e.result);
            continue;
        }
        if (!hooks)
            continue;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++stats_.read_done;
        }
        if (read_done_hook_)
            read_done_hook_(e.source_type, e.result);
    }
}

// After a full pass: pause, unless a write or one-shot read arrives, then
// start counting anew. After a give-up too: a pass that contains a failing
// request never completes, and a peer that keeps failing is not hammered.
// The pause between passes; then the next pass may begin. False when
// stopping.
bool Host::pause_after_pass()
{
    const bool go_on = sleep_for(config_.poll_interval, true);
    com_info_->cycle_done = 0;
    return go_on;
}

bool Host::pace(const ReplyEvent &ev, bool pass_done)
{
    if (pass_done)
        return pause_after_pass();
    if (!ReplyEvent::is_good(ev.status) && ev.status != 0)
        return sleep_for(config_.poll_interval, true);
    return true;
}

// Leaves the driver idle for a later host: every request still pending is
// given up at once (retry limit 0), so writes and one-shot reads that never
// went out are reported as failed. Called with the thread stopped.
void Host::give_up_pending()
{
    const int limit = com_info_->retry_limit;
    com_info_->retry_limit = 0;
    com_info_->retry_count = 0;
    for (int guard = 0; guard < 100000; ++guard) {
        Protocol *p = take_request();
        if (!p)
            break;
        // A request that expects no reply would pass with an empty one; a
        // one-byte answer fails its length check, so it too is given up
        // rather than reported as sent.
        QByteArray nothing = p->reply_len == 0 ? QByteArray(1, '\0') : QByteArray();
        DataCom(&nothing, nothing.size());
        deliver_callbacks(false);
    }
    com_info_->retry_limit = limit;
    com_info_->retry_count = 0;
    com_info_->cycle_done = 0;
}

} // namespace plchost
