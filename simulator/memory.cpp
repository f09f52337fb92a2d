#include "memory.h"

#include <new>

namespace plcsim {

Stations::Stations(const std::vector<int> &unit_ids, Fill fill, bool frozen)
{
    for (int id : unit_ids) {
        if (id == 0 || maps_.count(id))
            continue;
        modbus_mapping_t *m = modbus_mapping_new(kTableSize, kTableSize, kTableSize, kTableSize);
        if (!m) {
            for (auto &entry : maps_)
                modbus_mapping_free(entry.second);
            maps_.clear();
            throw std::bad_alloc();
        }
        if (fill == Fill::Address)
            fill_with_addresses(m);
        if (fill == Fill::Zero || !frozen)
            set_moving_values(m, 0);
        maps_[id] = m;
    }
}

Stations::~Stations()
{
    for (auto &entry : maps_)
        modbus_mapping_free(entry.second);
}

modbus_mapping_t *Stations::find(int unit) const
{
    auto it = maps_.find(unit);
    return it == maps_.end() ? nullptr : it->second;
}

std::vector<int> Stations::ids() const
{
    std::vector<int> out;
    for (auto &entry : maps_)
        out.push_back(entry.first);
    return out;
}

std::vector<modbus_mapping_t *> Stations::all() const
{
    std::vector<modbus_mapping_t *> out;
    for (auto &entry : maps_)
        out.push_back(entry.second);
    return out;
}

uint8_t address_parity(int address)
{
    unsigned v = static_cast<unsigned>(address) & 0xFFFF;
    uint8_t parity = 0;
    for (; v; v &= v - 1)
        parity ^= 1;
    return parity;
}

void fill_with_addresses(modbus_mapping_t *map)
{
    for (int a = 0; a < kTableSize; ++a) {
        map->tab_registers[a] = static_cast<uint16_t>(a);
        map->tab_input_registers[a] = static_cast<uint16_t>(a);
        map->tab_bits[a] = address_parity(a);
        map->tab_input_bits[a] = address_parity(a);
    }
}

void set_moving_values(modbus_mapping_t *map, uint64_t ticks)
{
    uint16_t *ir = map->tab_input_registers;
    ir[kCounterFast] = static_cast<uint16_t>(ticks);
    ir[kCounterSecond] = static_cast<uint16_t>(ticks / 10);
    ir[kCounterStep5] = static_cast<uint16_t>(ticks * 5);
    ir[kCounterSlow] = static_cast<uint16_t>(ticks / 100);
    ir[kRamp] = static_cast<uint16_t>((ticks % 101) * 10);
    uint32_t c32 = static_cast<uint32_t>(ticks * kCounter32Step);
    ir[kCounter32Low] = static_cast<uint16_t>(c32 & 0xFFFF);
    ir[kCounter32High] = static_cast<uint16_t>(c32 >> 16);
    for (int i = 0; i < 8; ++i)
        map->tab_input_bits[kRotatingBits + i] = (ticks % 8) == static_cast<uint64_t>(i) ? 1 : 0;
}

} // namespace plcsim
