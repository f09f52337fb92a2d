// A Modbus TCP server for end-to-end tests, built on libmodbus: one memory
// map (all four tables 0..0xFFFF) served on an ephemeral loopback port from a
// thread of the test. Its memory is reached under a lock, so a test can
// check exactly what a write left in the peer and change values the host
// must then read.
#ifndef PLCDRIVER_E2E_MODBUS_PEER_H
#define PLCDRIVER_E2E_MODBUS_PEER_H

#include <modbus/modbus.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

class ModbusPeer {
public:
    // port 0 picks a free port; a fixed port lets a test restart a peer
    // where the host expects it.
    explicit ModbusPeer(int port = 0)
    {
        ctx_ = modbus_new_tcp("127.0.0.1", port);
        if (!ctx_)
            throw std::runtime_error("modbus_new_tcp failed");
        map_ = modbus_mapping_new(0x10000, 0x10000, 0x10000, 0x10000);
        if (!map_)
            throw std::runtime_error("modbus_mapping_new failed");
        listen_fd_ = modbus_tcp_listen(ctx_, 8);
        if (listen_fd_ < 0)
            throw std::runtime_error(std::string("modbus_tcp_listen: ") + modbus_strerror(errno));
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&addr), &len);
        port_ = ntohs(addr.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~ModbusPeer() { stop(); }

    void stop()
    {
        if (stopping_.exchange(true))
            return;
        thread_.join();
        for (int fd : clients_)
            ::close(fd);
        clients_.clear();
        ::close(listen_fd_);
        modbus_mapping_free(map_);
        modbus_free(ctx_);
    }

    int port() const { return port_; }
    uint64_t requests() const { return requests_.load(); }
    uint64_t requests_for_unit(int unit) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return unit >= 0 && unit < 256 ? per_unit_[unit] : 0;
    }

    uint16_t holding(int address) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return map_->tab_registers[address & 0xFFFF];
    }
    void set_holding(int address, uint16_t value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        map_->tab_registers[address & 0xFFFF] = value;
    }
    uint16_t input(int address) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return map_->tab_input_registers[address & 0xFFFF];
    }
    void set_input(int address, uint16_t value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        map_->tab_input_registers[address & 0xFFFF] = value;
    }
    uint8_t coil(int address) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return map_->tab_bits[address & 0xFFFF];
    }
    void set_coil(int address, bool value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        map_->tab_bits[address & 0xFFFF] = value ? 1 : 0;
    }
    void set_discrete(int address, bool value)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        map_->tab_input_bits[address & 0xFFFF] = value ? 1 : 0;
    }

private:
    void serve()
    {
        uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
        while (!stopping_.load()) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(listen_fd_, &set);
            int top = listen_fd_;
            for (int fd : clients_) {
                FD_SET(fd, &set);
                top = std::max(top, fd);
            }
            timeval tv{0, 20000};
            if (::select(top + 1, &set, nullptr, nullptr, &tv) <= 0)
                continue;
            if (FD_ISSET(listen_fd_, &set)) {
                const int fd = ::accept(listen_fd_, nullptr, nullptr);
                if (fd >= 0)
                    clients_.push_back(fd);
            }
            for (size_t i = 0; i < clients_.size();) {
                const int fd = clients_[i];
                if (!FD_ISSET(fd, &set)) {
                    ++i;
                    continue;
                }
                modbus_set_socket(ctx_, fd);
                const int rc = modbus_receive(ctx_, query);
                if (rc > 0) {
                    ++requests_;
                    std::lock_guard<std::mutex> lock(mutex_);
                    ++per_unit_[query[6]];
                    if (query[6] != 0) // unit 0 is the broadcast: no answer
                        modbus_reply(ctx_, query, rc, map_);
                    else
                        apply_broadcast(query, rc);
                    ++i;
                } else if (rc == -1) {
                    ::close(fd);
                    clients_.erase(clients_.begin() + long(i));
                } else {
                    ++i;
                }
            }
        }
    }

    // libmodbus's reply path also answers unit 0; a broadcast must be applied
    // silently, so the write is done here by hand (functions 15 and 16).
    void apply_broadcast(const uint8_t *q, int len)
    {
        if (len < 13)
            return;
        const int fc = q[7];
        const int addr = (q[8] << 8) | q[9];
        const int qty = (q[10] << 8) | q[11];
        if (fc == 16) {
            for (int i = 0; i < qty && 13 + 2 * i + 1 < len; ++i)
                map_->tab_registers[(addr + i) & 0xFFFF] = uint16_t((q[13 + 2 * i] << 8) | q[14 + 2 * i]);
        } else if (fc == 15) {
            for (int i = 0; i < qty && 13 + i / 8 < len; ++i)
                map_->tab_bits[(addr + i) & 0xFFFF] = (q[13 + i / 8] >> (i % 8)) & 1;
        }
    }

    modbus_t *ctx_ = nullptr;
    modbus_mapping_t *map_ = nullptr;
    int listen_fd_ = -1;
    int port_ = 0;
    std::vector<int> clients_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<uint64_t> requests_{0};
    mutable std::mutex mutex_;
    uint64_t per_unit_[256] = {};
};

#endif // PLCDRIVER_E2E_MODBUS_PEER_H
