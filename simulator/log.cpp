#include "log.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace plcsim {

Log::~Log()
{
    if (owned_ && out_)
        std::fclose(out_);
}

bool Log::open(const std::string &path, std::string &error)
{
    if (path.empty())
        return true;
    if (path == "-") {
        out_ = stderr;
        owned_ = false;
        return true;
    }
    out_ = std::fopen(path.c_str(), "a");
    if (!out_) {
        error = "cannot open log file '" + path + "': " + std::strerror(errno);
        return false;
    }
    owned_ = true;
    return true;
}

void Log::traffic(const std::string &text)
{
    if (out_)
        write_line(out_, text);
}

void Log::problem(const std::string &text)
{
    write_line(out_ ? out_ : stderr, "warning: " + text);
}

void Log::write_line(std::FILE *f, const std::string &text)
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    std::tm tm{};
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    char stamp[64];
    size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    std::snprintf(stamp + n, sizeof stamp - n, ".%03ld", static_cast<long>(tv.tv_usec / 1000));
    std::fprintf(f, "%s %s\n", stamp, text.c_str());
    std::fflush(f);
}

std::string Log::hex(const uint8_t *data, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(size * 3);
    for (size_t i = 0; i < size; ++i) {
        if (i)
            s += ' ';
        s += digits[data[i] >> 4];
        s += digits[data[i] & 0xF];
    }
    return s;
}

} // namespace plcsim
