// Helpers shared by the libFuzzer targets: a forward reader over the fuzz
// input, address texts from a small grammar, replies to the request in
// flight (valid or raw), reply lengths that may lie, and the checks of the
// driver return codes and host callbacks.
//
// The input is read front to back, one field after the other, so a seed can
// be written by hand (see make_seeds.py). Reading past the end yields zeros.
#ifndef PLCDRIVER_FUZZ_COMMON_H
#define PLCDRIVER_FUZZ_COMMON_H

#include "driver_test_support.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// An invariant of the driver; a failure aborts, which libFuzzer reports as a
// crash together with the input that caused it.
#define FUZZ_CHECK(cond)                                                                                               \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            std::fprintf(stderr, "invariant failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__);                         \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

// With PLCDRIVER_FUZZ_TRACE set in the environment, the targets print what
// they do (for reading a seed or a reproducer); otherwise nothing.
inline bool fuzz_tracing()
{
    static const bool on = std::getenv("PLCDRIVER_FUZZ_TRACE") != nullptr;
    return on;
}
#define FUZZ_TRACE(...)                                                                                                \
    do {                                                                                                               \
        if (fuzz_tracing())                                                                                            \
            std::fprintf(stderr, __VA_ARGS__);                                                                         \
    } while (0)

class FuzzInput {
public:
    FuzzInput(const uint8_t *data, size_t size) : p_(data), n_(size) {}

    bool empty() const { return pos_ >= n_; }
    size_t remaining() const { return pos_ < n_ ? n_ - pos_ : 0; }

    uint8_t u8() { return pos_ < n_ ? p_[pos_++] : 0; }
    int8_t i8() { return int8_t(u8()); }
    bool flag() { return (u8() & 1) != 0; }
    uint16_t u16()
    {
        const uint16_t lo = u8();
        return uint16_t(lo | (uint16_t(u8()) << 8));
    }
    int16_t i16() { return int16_t(u16()); }
    int32_t i32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= uint32_t(u8()) << (8 * i);
        return int32_t(v);
    }
    // Up to len bytes (fewer when the input ends).
    QByteArray bytes(size_t len)
    {
        if (len > remaining())
            len = remaining();
        QByteArray out(reinterpret_cast<const char *>(p_ + pos_), int(len));
        pos_ += len;
        return out;
    }

private:
    const uint8_t *p_;
    size_t n_;
    size_t pos_ = 0;
};

// An address text. The first byte picks the form:
//   0 decimal word address      "100"
//   1 byte.bit                  "12.5"
//   2 raw bytes as Latin-1      (length byte, then the bytes)
//   3 raw bytes as UTF-8
//   4 negative number           "-7"
//   5 any 32-bit number         "2147483647"
//   6 decorated number          " 12", "+12", "0x10", "12.", ".5", "1.2.3", "12 "
//   7 empty text
inline QString fuzz_address_text(FuzzInput &in)
{
    const uint8_t form = in.u8() % 8;
    switch (form) {
    case 0: return QString::number(in.u16());
    case 1: {
        const int byte = in.u16();
        const int bit = in.u8();
        return QString::number(byte) + QLatin1Char('.') + QString::number(bit);
    }
    case 2: return QString::fromLatin1(in.bytes(in.u8() % 17));
    case 3: return QString::fromUtf8(in.bytes(in.u8() % 17));
    case 4: return QString::number(-int(in.u16()) - 1);
    case 5: return QString::number(in.i32());
    case 6: {
        static const char *const patterns[] = {" %1", "+%1", "0x%1", "%1.", ".%1", "%1.2.3", "%1 ", "%1.-3"};
        const uint8_t which = in.u8() % 8;
        return QString::fromLatin1(patterns[which]).arg(in.u16());
    }
    default: return QString();
    }
}

// A valid address text for a kind (byte.bit for the bit kinds 0, 1, 5, a
// decimal number otherwise), or, when the first byte is odd, a text of the
// grammar above.
inline QString fuzz_address_for_kind(FuzzInput &in, int kind)
{
    const uint8_t mode = in.u8();
    if (mode & 1)
        return fuzz_address_text(in);
    const int value = in.u16();
    if (kind == 0 || kind == 1 || kind == 5)
        return QString::number(value >> 3) + QLatin1Char('.') + QString::number(value & 7);
    return QString::number(value);
}

// Driver return codes DataCom may report: 0 (retry), 1 and 100 (good), the
// six error families of 12 codes each, and 200 (unknown outcome).
inline bool is_driver_status(int s)
{
    if (s == 0 || s == 1 || s == 100 || s == 200)
        return true;
    static const int bases[] = {10, 40, 70, 110, 140, 170};
    for (int b : bases)
        if (s >= b + 1 && s <= b + 12)
            return true;
    return false;
}

// Base of the error family of a code, or -1 for 0, 1, 100 and 200.
inline int error_family_base(int s)
{
    static const int bases[] = {10, 40, 70, 110, 140, 170};
    for (int b : bases)
        if (s >= b + 1 && s <= b + 12)
            return b;
    return -1;
}

// The last digits of an error code name the requester kind of the request
// that failed: base + 1 + source_type for kinds 1..11, base + 1 otherwise.
inline int expected_error_code(int base, int source_type)
{
    return base + 1 + ((source_type >= 1 && source_type <= 11) ? source_type : 0);
}

// A reply that passes the driver's checks for the request: as long as the
// request expects (a request expecting no reply or an absurd length gets 12
// bytes), its first two bytes echoing the request's, a Modbus-style header
// for a Modbus read, and the rest from the input (zeros once the input
// ends). It takes len - max(2, reply_header_len) bytes of input.
inline QByteArray fuzz_valid_reply(const Protocol &p, FuzzInput &in)
{
    const int len = (p.reply_len > 0 && p.reply_len <= 4096) ? p.reply_len : 12;
    QByteArray r(len, '\0');
    for (int i = 0; i < 2 && i < p.frame.size(); ++i)
        r[i] = p.frame.at(i);
    if (p.reply_header_len == 9 && len >= 9) { // Modbus TCP read response
        r[4] = char(((len - 6) >> 8) & 0xFF);
        r[5] = char((len - 6) & 0xFF);
        r[6] = p.frame.size() > 6 ? p.frame.at(6) : '\0';
        r[7] = p.frame.size() > 7 ? p.frame.at(7) : '\0';
        r[8] = char(p.data_len & 0xFF);
    }
    // Data from the header's end on (write acknowledgements have no data:
    // their bytes after the echoed two come from the input as well).
    const int header = p.reply_header_len > 2 ? p.reply_header_len : 2;
    const int from = header < len ? header : len;
    const QByteArray data = in.bytes(size_t(len - from));
    for (int i = 0; i < data.size(); ++i)
        r[from + i] = data.at(i);
    return r;
}

// The length argument handed to DataCom with a reply. It may tell the truth
// or not: the array's size, the length the request expects, 0, a negative
// or a huge value, or the array's size off by a little.
inline int fuzz_reply_length(FuzzInput &in, const QByteArray &reply, const Protocol *head)
{
    switch (in.u8() % 8) {
    case 0:
    case 1: return reply.size();
    case 2: return head ? head->reply_len : 0;
    case 3: return 0;
    case 4: return -int(in.u8()) - 1;
    case 5: return INT_MAX - int(in.u8());
    case 6: return reply.size() + int(in.i8());
    default: return in.i32();
    }
}

// Host callbacks that check what the driver reports: write_done_cb only with
// results 1 (done) and 2 (communication failed) and the record's host handle;
// read_done_cb only with an empty list and the constant 1.
struct CallbackLog {
    int write_done = 0;
    int read_done = 0;
    int expected_handle = 0;
};

inline CallbackLog &callback_log()
{
    static CallbackLog log;
    return log;
}

inline void fuzz_write_done(int host_handle, int source_type, int source_id, int result)
{
    (void)source_type;
    (void)source_id;
    FUZZ_CHECK(result == 1 || result == 2);
    FUZZ_CHECK(host_handle == callback_log().expected_handle);
    ++callback_log().write_done;
}

inline void fuzz_read_done(QList<RW_VAR> *list, int source_type, int flag)
{
    (void)source_type;
    FUZZ_CHECK(list != nullptr);
    FUZZ_CHECK(list->isEmpty());
    FUZZ_CHECK(flag == 1);
    list->append(RW_VAR()); // whatever the host puts in is discarded by the driver
    ++callback_log().read_done;
}

inline void fuzz_register_callbacks(int host_handle)
{
    callback_log() = CallbackLog();
    callback_log().expected_handle = host_handle;
    RegistCallBackFuncIntf(fuzz_write_done, fuzz_read_done);
}

#endif // PLCDRIVER_FUZZ_COMMON_H
