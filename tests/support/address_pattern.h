// The memory pattern of `plcsim --fill address` and a watch that checks the
// host's mirror against it on every refresh.
//
// In that pattern every register holds its own table address and every bit
// the parity of its address, so a value tells where it was read: a reply
// taken for the answer to another request puts values of other addresses
// into the mirror. The watch knows, per register, the pattern value and every
// value a test has written into it (allow() before the write goes out), and
// counts each value in the mirror that is neither.
#ifndef PLCDRIVER_TEST_ADDRESS_PATTERN_H
#define PLCDRIVER_TEST_ADDRESS_PATTERN_H

#include "plchost.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace pattern {

// One bit or 16-bit register of a station, by Modbus table and table address.
enum class Table { DiscreteInputs, Coils, InputRegisters, HoldingRegisters };

struct Cell {
    int station = 1;
    Table table = Table::HoldingRegisters;
    int address = 0;
    bool operator<(const Cell &o) const
    {
        return std::tie(station, table, address) < std::tie(o.station, o.table, o.address);
    }
};

inline uint16_t register_value(int address)
{
    return uint16_t(address);
}

inline uint8_t bit_value(int address)
{
    return uint8_t(__builtin_parity(unsigned(address) & 0xFFFF));
}

// Where a register class lives in the Modbus tables (as plcsim places it):
// class 0 discrete inputs from 0x6000, class 1 coils from 0xA000, class 2
// input registers from 0x8000, class 3 holding registers from 0xA000, class
// 4 holding registers from 0.
inline Cell cell_of_class(int station, int cls, int address)
{
    static const Table tables[5] = {Table::DiscreteInputs, Table::Coils, Table::InputRegisters, Table::HoldingRegisters,
                                    Table::HoldingRegisters};
    static const int offsets[5] = {0x6000, 0xA000, 0x8000, 0xA000, 0};
    Cell c;
    c.station = station;
    c.table = tables[cls];
    c.address = (offsets[cls] + address) & 0xFFFF;
    return c;
}

// Register class of a kind: 0 and 1 their own; 2, 6, 9, 12 class 2; 3, 7,
// 10, 13 class 3; 4, 5, 8, 11, 14 class 4.
inline int class_of_kind(int kind)
{
    static const int classes[15] = {0, 1, 2, 3, 4, 4, 2, 3, 4, 2, 3, 4, 2, 3, 4};
    return kind >= 0 && kind < 15 ? classes[kind] : 4;
}

inline std::string describe(const Cell &c)
{
    static const char *const names[] = {"discrete input", "coil", "input register", "holding register"};
    std::ostringstream s;
    s << names[int(c.table)] << " " << c.address << " of station " << c.station;
    return s.str();
}

class Watch {
public:
    // A value a test is about to write into a register or bit.
    void allow(const Cell &c, uint16_t value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        written_[c].insert(value);
    }

    // Checks every value of `tags` in the host's mirror (kinds 0..5 and
    // 9..14; bytes are left out). Returns the number of wrong values found.
    // It checks nothing until arm() is called, which is once every tag has
    // been read in this run: the mirror belongs to the driver, which
    // outlives a host, and holds what earlier runs read (or 0) until then.
    int check(const plchost::Host &host, const std::vector<plchost::Tag> &tags)
    {
        if (!armed_.load())
            return 0;
        int wrong_now = 0;
        for (const plchost::Tag &t : tags) {
            std::vector<uint8_t> bytes;
            host.read(t, &bytes);
            const auto values = plchost::decode_values(t.kind, t.count, bytes);
            std::lock_guard<std::mutex> lock(mutex_);
            wrong_now += check_tag(t, values);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        ++checks_;
        return wrong_now;
    }

    void arm() { armed_.store(true); }

    uint64_t checks() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return checks_;
    }
    uint64_t wrong() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return wrong_;
    }
    std::string first_wrong() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return first_wrong_;
    }

private:
    bool register_allowed(const Cell &c, uint16_t v) const
    {
        if (v == register_value(c.address))
            return true;
        auto it = written_.find(c);
        return it != written_.end() && it->second.count(v);
    }
    // A bit of a register (kind 5): allowed when the pattern or a written
    // value of that register has it.
    bool register_bit_allowed(const Cell &c, int bit, uint64_t v) const
    {
        if (((register_value(c.address) >> bit) & 1) == v)
            return true;
        auto it = written_.find(c);
        if (it == written_.end())
            return false;
        for (uint16_t w : it->second)
            if (((w >> bit) & 1) == v)
                return true;
        return false;
    }
    bool bit_allowed(const Cell &c, uint64_t v) const
    {
        if (v == bit_value(c.address))
            return true;
        auto it = written_.find(c);
        return it != written_.end() && it->second.count(uint16_t(v));
    }

    void report(const plchost::Tag &t, size_t index, uint64_t value, const Cell &c)
    {
        ++wrong_;
        if (first_wrong_.empty()) {
            std::ostringstream s;
            s << "tag " << t.name << " value " << index << " is " << value << " where " << describe(c) << " holds "
              << (c.table == Table::Coils || c.table == Table::DiscreteInputs ? bit_value(c.address)
                                                                              : register_value(c.address))
              << " or a value written there (";
            auto it = written_.find(c);
            if (it != written_.end())
                for (uint16_t w : it->second)
                    s << " " << w;
            s << " )";
            first_wrong_ = s.str();
        }
    }

    int check_tag(const plchost::Tag &t, const std::vector<uint64_t> &values)
    {
        const int a = plchost::Host::parse_address(t.kind, t.address);
        const int bits = plchost::value_bits(t.kind);
        const int cls = class_of_kind(t.kind);
        int wrong = 0;
        for (size_t i = 0; i < values.size(); ++i) {
            const uint64_t v = values[i];
            const int at = a + int(i);
            bool ok = true;
            Cell c;
            if (t.kind == 0 || t.kind == 1) {
                c = cell_of_class(t.station, cls, at);
                ok = bit_allowed(c, v);
            } else if (t.kind == 5) {
                c = cell_of_class(t.station, 4, at >> 4);
                ok = register_bit_allowed(c, at & 15, v);
            } else if (bits >= 16) {
                const int words = bits / 16;
                for (int w = 0; w < words && ok; ++w) {
                    c = cell_of_class(t.station, cls, words * at + w);
                    ok = register_allowed(c, uint16_t(v >> (16 * w)));
                }
            } else {
                continue; // bytes: not watched
            }
            if (!ok) {
                ++wrong;
                report(t, i, v, c);
            }
        }
        return wrong;
    }

    std::atomic<bool> armed_{false};
    mutable std::mutex mutex_;
    std::map<Cell, std::set<uint16_t>> written_;
    uint64_t checks_ = 0;
    uint64_t wrong_ = 0;
    std::string first_wrong_;
};

} // namespace pattern

#endif // PLCDRIVER_TEST_ADDRESS_PATTERN_H
