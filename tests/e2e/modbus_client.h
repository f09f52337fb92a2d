// An independent Modbus TCP client (libmodbus) for the end-to-end tests: it
// looks into a peer's memory without going through the driver, and computes
// what the driver should report for a tag from the raw registers, following
// the documented layout of the fifteen register kinds.
#ifndef PLCDRIVER_E2E_MODBUS_CLIENT_H
#define PLCDRIVER_E2E_MODBUS_CLIENT_H

#include <modbus/modbus.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class ModbusClient {
public:
    explicit ModbusClient(int port, int unit = 1)
    {
        ctx_ = modbus_new_tcp("127.0.0.1", port);
        if (!ctx_)
            throw std::runtime_error("modbus_new_tcp failed");
        modbus_set_slave(ctx_, unit);
        modbus_set_response_timeout(ctx_, 2, 0);
        if (modbus_connect(ctx_) != 0) {
            const std::string why = modbus_strerror(errno);
            modbus_free(ctx_);
            throw std::runtime_error("modbus_connect: " + why);
        }
    }
    ~ModbusClient()
    {
        modbus_close(ctx_);
        modbus_free(ctx_);
    }
    ModbusClient(const ModbusClient &) = delete;
    ModbusClient &operator=(const ModbusClient &) = delete;

    void set_unit(int unit) { modbus_set_slave(ctx_, unit); }

    std::vector<uint16_t> holding(int address, int count)
    {
        std::vector<uint16_t> v(static_cast<size_t>(count));
        check(modbus_read_registers(ctx_, address, count, v.data()), "read holding");
        return v;
    }
    std::vector<uint16_t> input(int address, int count)
    {
        std::vector<uint16_t> v(static_cast<size_t>(count));
        check(modbus_read_input_registers(ctx_, address, count, v.data()), "read input");
        return v;
    }
    std::vector<uint8_t> coils(int address, int count)
    {
        std::vector<uint8_t> v(static_cast<size_t>(count));
        check(modbus_read_bits(ctx_, address, count, v.data()), "read coils");
        return v;
    }
    std::vector<uint8_t> discrete(int address, int count)
    {
        std::vector<uint8_t> v(static_cast<size_t>(count));
        check(modbus_read_input_bits(ctx_, address, count, v.data()), "read discrete inputs");
        return v;
    }
    void write_holding(int address, const std::vector<uint16_t> &values)
    {
        check(modbus_write_registers(ctx_, address, int(values.size()), values.data()), "write holding");
    }
    void write_coils(int address, const std::vector<uint8_t> &values)
    {
        check(modbus_write_bits(ctx_, address, int(values.size()), values.data()), "write coils");
    }

    // One 16-bit register of a class, at its Modbus address.
    uint16_t word(int cls, int w)
    {
        switch (cls) {
        case 2: return input(0x8000 + w, 1)[0];
        case 3: return holding(0xA000 + w, 1)[0];
        default: return holding(w, 1)[0];
        }
    }

    // What a read of `count` units of `kind` at unit address `a` yields,
    // taken from the peer's registers (bits 0/1, bytes, words, dwords, qwords).
    std::vector<uint64_t> expected(int kind, int a, int count)
    {
        std::vector<uint64_t> out;
        auto cls = [](int k) {
            if (k == 2 || k == 6 || k == 9 || k == 12)
                return 2;
            if (k == 3 || k == 7 || k == 10 || k == 13)
                return 3;
            return 4;
        };
        switch (kind) {
        case 0:
            for (uint8_t b : discrete(0x6000 + a, count))
                out.push_back(b);
            break;
        case 1:
            for (uint8_t b : coils(0xA000 + a, count))
                out.push_back(b);
            break;
        case 2:
        case 3:
        case 4:
            for (int i = 0; i < count; ++i)
                out.push_back(word(cls(kind), a + i));
            break;
        case 5:
            for (int i = 0; i < count; ++i)
                out.push_back((word(4, (a + i) >> 4) >> ((a + i) & 15)) & 1);
            break;
        case 6:
        case 7:
        case 8:
            for (int i = 0; i < count; ++i) {
                const int b = a + i;
                const uint16_t w = word(cls(kind), b >> 1);
                out.push_back(b & 1 ? w >> 8 : w & 0xFF);
            }
            break;
        case 9:
        case 10:
        case 11:
            for (int e = 0; e < (count + 1) / 2; ++e)
                out.push_back(uint64_t(word(cls(kind), 2 * (a + e))) | uint64_t(word(cls(kind), 2 * (a + e) + 1))
                                                                           << 16);
            break;
        case 12:
        case 13:
        case 14:
            for (int e = 0; e < (count + 3) / 4; ++e) {
                uint64_t v = 0;
                for (int j = 3; j >= 0; --j)
                    v = (v << 16) | word(cls(kind), 4 * (a + e) + j);
                out.push_back(v);
            }
            break;
        default: break;
        }
        return out;
    }

private:
    static void check(int rc, const char *what)
    {
        if (rc < 0)
            throw std::runtime_error(std::string(what) + ": " + modbus_strerror(errno));
    }
    modbus_t *ctx_ = nullptr;
};

#endif // PLCDRIVER_E2E_MODBUS_CLIENT_H
