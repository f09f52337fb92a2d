// A small PLC for the exchange tests: answers the driver's Modbus TCP and
// remote-frame requests from its own register tables, as the device at the
// other end of the runtime's socket would.
#ifndef PLCDRIVER_PLC_MODEL_H
#define PLCDRIVER_PLC_MODEL_H

#include <QByteArray>
#include <QHash>

#include <utility>
#include <vector>

// Registers are kept per station and register class; requests seen are
// recorded for the tests to inspect.
class Plc {
public:
    quint16 &word(int station, int cls, int addr) { return words_[key(station, cls, addr)]; }
    quint8 &bit(int station, int cls, int addr) { return bits_[key(station, cls, addr)]; }
    quint16 word_value(int station, int cls, int addr) const { return words_.value(key(station, cls, addr), 0); }

    // Requests seen, in order, as (function code or remote rw_flag, start),
    // and their frames.
    std::vector<std::pair<int, int>> seen;
    std::vector<QByteArray> frames;

    QByteArray modbus_reply(const QByteArray &req)
    {
        if (req.size() < 12)
            return QByteArray();
        frames.push_back(req);
        const int unit = u8(req, 6);
        const int fc = u8(req, 7);
        const int wire = be16(req, 8);
        const int qty = be16(req, 10);
        seen.emplace_back(fc, wire);
        QByteArray pdu;
        pdu.append(char(fc));
        if (fc == 1 || fc == 2) {
            const int cls = fc == 2 ? 0 : 1;
            const int start = wire - (fc == 2 ? 0x6000 : 0xA000);
            QByteArray data((qty + 7) / 8, 0);
            for (int i = 0; i < qty; ++i)
                if (bits_.value(key(unit, cls, start + i), 0))
                    data[i / 8] = char(data[i / 8] | (1 << (i % 8)));
            pdu.append(char(data.size()));
            pdu.append(data);
        } else if (fc == 3 || fc == 4) {
            int cls = 4;
            int start = wire;
            if (fc == 4) {
                cls = 2;
                start = wire - 0x8000;
            } else if (wire >= 0xA000) {
                cls = 3;
                start = wire - 0xA000;
            }
            pdu.append(char(2 * qty));
            for (int i = 0; i < qty; ++i) {
                const quint16 v = words_.value(key(unit, cls, start + i), 0);
                pdu.append(char(v >> 8));
                pdu.append(char(v & 0xFF));
            }
        } else if (fc == 16) {
            const int cls = wire >= 0xA000 ? 3 : 4;
            const int start = wire >= 0xA000 ? wire - 0xA000 : wire;
            for (int i = 0; i < qty; ++i)
                words_[key(unit, cls, start + i)] = quint16(be16(req, 13 + 2 * i));
            pdu.append(req.mid(8, 4));
        } else if (fc == 15) {
            for (int i = 0; i < qty; ++i)
                bits_[key(unit, 1, wire - 0xA000 + i)] = (u8(req, 13 + i / 8) >> (i % 8)) & 1;
            pdu.append(req.mid(8, 4));
        } else {
            pdu[0] = char(fc | 0x80);
            pdu.append(char(1)); // illegal function
        }
        QByteArray r = req.left(4);
        r.append(char(((pdu.size() + 1) >> 8) & 0xFF));
        r.append(char((pdu.size() + 1) & 0xFF));
        r.append(char(unit));
        r.append(pdu);
        return r;
    }

    // Remote reply: [byte0, byte1, status, data..., 2 trailing bytes]; a
    // write is acknowledged with 8 bytes.
    QByteArray remote_reply(const QByteArray &req)
    {
        if (req.size() < 22)
            return QByteArray();
        frames.push_back(req);
        const int station = u8(req, 4);
        const int rw = u8(req, 2);
        const int kind = be16(req, 5);
        const int start = int(be32(req, 7));
        const int count = be16(req, 11);
        seen.emplace_back(rw, start);
        QByteArray r;
        r.append(req.at(0));
        r.append(req.at(1));
        r.append(char(0));
        if (rw) {
            // The remote write carries the runtime's bytes as they are
            // (each register low byte first).
            if (kind >= 2 && kind <= 4)
                for (int i = 0; 21 + 2 * i + 1 < req.size() - 1; ++i)
                    words_[key(station, kind, start + i)] = quint16(u8(req, 21 + 2 * i) | (u8(req, 22 + 2 * i) << 8));
            r.append(QByteArray(5, 0));
            return r;
        }
        if (kind == 0 || kind == 1) {
            QByteArray data((count + 7) / 8, 0);
            for (int i = 0; i < count; ++i)
                if (bits_.value(key(station, kind, start + i), 0))
                    data[i / 8] = char(data[i / 8] | (1 << (i % 8)));
            r.append(data);
        } else {
            for (int i = 0; i < count; ++i) {
                const quint16 v = words_.value(key(station, kind, start + i), 0);
                r.append(char(v >> 8));
                r.append(char(v & 0xFF));
            }
        }
        r.append(char(0x0D));
        r.append(char(0x0A));
        return r;
    }

    static int u8(const QByteArray &a, int i) { return i < a.size() ? uchar(a.at(i)) : 0; }
    static int be16(const QByteArray &a, int i) { return (u8(a, i) << 8) | u8(a, i + 1); }
    static quint32 be32(const QByteArray &a, int i) { return (quint32(be16(a, i)) << 16) | quint32(be16(a, i + 2)); }

private:
    static quint64 key(int station, int cls, int addr)
    {
        return (quint64(quint32(station)) << 40) | (quint64(quint32(cls)) << 32) | quint32(addr);
    }
    QHash<quint64, quint16> words_;
    QHash<quint64, quint8> bits_;
};

// Sum check of a remote frame: low byte of the sum of all bytes before it.
inline bool remote_sum_ok(const QByteArray &f)
{
    unsigned sum = 0;
    for (int i = 0; i + 1 < f.size(); ++i)
        sum += uchar(f.at(i));
    return !f.isEmpty() && uchar(f.at(f.size() - 1)) == (sum & 0xFF);
}

#endif
