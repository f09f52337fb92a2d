// The simulated PLC memory: one libmodbus mapping per unit id, every table
// covering addresses 0..0xFFFF, and the values that move with time.
#ifndef PLCSIM_MEMORY_H
#define PLCSIM_MEMORY_H

#include <modbus.h>

#include <cstdint>
#include <map>
#include <vector>

namespace plcsim {

// Table sizes: every table spans the whole 16-bit address space.
constexpr int kTableSize = 0x10000;

// Addresses of the moving values (Modbus table addresses).
constexpr int kCounterFast = 0x8000;   // input register, +1 every tick
constexpr int kCounterSecond = 0x8001; // input register, +1 every 10 ticks
constexpr int kCounterStep5 = 0x8002;  // input register, +5 every tick
constexpr int kCounterSlow = 0x8003;   // input register, +1 every 100 ticks
constexpr int kRamp = 0x8004;          // input register, 0, 10, ..., 1000, 0, ... one step per tick
constexpr int kCounter32Low = 0x8010;  // input registers 0x8010 (low word) and 0x8011 (high word)
constexpr int kCounter32High = 0x8011;
constexpr uint32_t kCounter32Step = 0x1001; // added every tick
constexpr int kRotatingBits = 0x6000;       // discrete inputs 0x6000..0x6007, one bit set, moves every tick
constexpr int kTickMilliseconds = 100;

// What the memory holds at start (--fill): zeros, or in every register its own
// table address and in every bit the parity of its address, so a reader can
// tell from a value where it was read.
enum class Fill { Zero, Address };

class Stations {
public:
    // Allocates one mapping per unit id, filled as `fill` says, with the
    // moving values at their first tick (over an address fill only when they
    // will move: frozen, they leave the pattern alone). Unit 0 (broadcast)
    // never gets memory of its own, so it is skipped when listed. Throws
    // std::bad_alloc when a mapping cannot be allocated.
    explicit Stations(const std::vector<int> &unit_ids, Fill fill = Fill::Zero, bool frozen = false);
    ~Stations();
    Stations(const Stations &) = delete;
    Stations &operator=(const Stations &) = delete;

    // The mapping of a unit id, or nullptr when it is not served.
    modbus_mapping_t *find(int unit) const;
    // Unit ids with memory, ascending.
    std::vector<int> ids() const;
    std::vector<modbus_mapping_t *> all() const;

private:
    std::map<int, modbus_mapping_t *> maps_;
};

// Fills every table with a pattern that tells an address from its value:
// each register holds its own table address, each bit the parity of the
// number of ones in its address.
void fill_with_addresses(modbus_mapping_t *map);
uint8_t address_parity(int address);

// Writes the moving values as they stand after `ticks` ticks into one mapping.
// All of them are a function of the tick count alone, so a client can check
// one snapshot for consistency.
void set_moving_values(modbus_mapping_t *map, uint64_t ticks);

} // namespace plcsim

#endif
