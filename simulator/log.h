// Time-stamped log lines: the traffic log asked for with --log, and reports of
// refused input, which go to the traffic log when there is one and to stderr otherwise.
#ifndef PLCSIM_LOG_H
#define PLCSIM_LOG_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace plcsim {

class Log {
public:
    Log() = default;
    ~Log();
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    // path "" keeps the traffic log off, "-" sends it to stderr, anything else
    // is a file opened for appending. Returns false with a message on failure.
    bool open(const std::string &path, std::string &error);

    bool traffic_enabled() const { return out_ != nullptr; }
    // A traffic line (dropped when the traffic log is off).
    void traffic(const std::string &text);
    // A refused request or another irregularity: always written somewhere.
    void problem(const std::string &text);

    static std::string hex(const uint8_t *data, size_t size);

private:
    void write_line(std::FILE *f, const std::string &text);
    std::FILE *out_ = nullptr;
    bool owned_ = false;
};

} // namespace plcsim

#endif
