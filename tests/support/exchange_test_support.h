// Helpers for the exchange-loop tests (cycle, reply handling, reply storage
// and scenarios): variable records, replies echoing a request, and callback
// recording.
#ifndef PLCDRIVER_EXCHANGE_TEST_SUPPORT_H
#define PLCDRIVER_EXCHANGE_TEST_SUPPORT_H

#include "driver_test_support.h"

#include <QByteArray>
#include <QList>

#include <cstddef>
#include <vector>

// A reply that passes every check for the request: as long as the request
// expects, its first two bytes echoing the request's, the rest filled with
// fill. A request that expects no reply (reply_len 0) gets an 8-byte answer.
inline QByteArray echo_reply(const Protocol *p, char fill = 0)
{
    const int len = p->reply_len > 0 ? p->reply_len : 8;
    QByteArray r(len, fill);
    r[0] = p->frame.at(0);
    r[1] = p->frame.at(1);
    return r;
}

// Hands the echo reply of the request in flight to DataCom.
inline RW_VAR *answer(const Protocol *p, char fill = 0)
{
    QByteArray r = echo_reply(p, fill);
    return DataCom(&r, r.size());
}

// Builds a request by hand (frame, expected reply) and queues it.
inline Protocol make_request(const RW_VAR &var, const QByteArray &frame, int reply_len, int header_len, int data_len)
{
    Protocol p;
    p.frame = frame;
    p.frame_len = frame.size();
    p.reply_len = reply_len;
    p.reply_header_len = header_len;
    p.data_len = data_len;
    p.var = var;
    return p;
}

// Every callback made by the driver, in order.
struct CallbackEvent {
    enum Kind { WriteDone, ReadDone } kind;
    int a = 0; // host_handle, or the list's size at the time of the call
    int source_type = 0;
    int source_id = 0; // write_done_cb only
    int result = 0;    // result of write_done_cb, flag of read_done_cb
    bool list_given = false;
};

inline std::vector<CallbackEvent> &callback_events()
{
    static std::vector<CallbackEvent> events;
    return events;
}

inline void record_write_done(int host_handle, int source_type, int source_id, int result)
{
    CallbackEvent e{CallbackEvent::WriteDone};
    e.a = host_handle;
    e.source_type = source_type;
    e.source_id = source_id;
    e.result = result;
    callback_events().push_back(e);
}

inline void record_read_done(QList<RW_VAR> *list, int source_type, int flag)
{
    CallbackEvent e{CallbackEvent::ReadDone};
    e.list_given = list != nullptr;
    e.a = list ? int(list->size()) : -1;
    e.source_type = source_type;
    e.result = flag;
    // Whatever the runtime puts into the list is discarded by the driver.
    if (list)
        list->append(RW_VAR());
    callback_events().push_back(e);
}

// Resets the driver and registers the recording callbacks.
inline void reset_with_callbacks(ComInfo *info)
{
    reset_driver(info);
    callback_events().clear();
    RegistCallBackFuncIntf(record_write_done, record_read_done);
}

inline std::size_t write_done_count(int result)
{
    std::size_t n = 0;
    for (const CallbackEvent &e : callback_events())
        n += e.kind == CallbackEvent::WriteDone && e.result == result;
    return n;
}

#endif
