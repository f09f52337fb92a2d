// The pieces plcpoll's renderers share: printf-style text, JSON objects in
// the order their keys were written, and the statistics as JSON.
#ifndef PLCPOLL_RENDER_TEXT_H
#define PLCPOLL_RENDER_TEXT_H

#include "plchost.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace plcpoll {

// Objects keep their keys in the order written, which is the order scripts
// and tests have always seen.
using Json = nlohmann::ordered_json;

__attribute__((format(printf, 1, 2))) std::string format(const char *pattern, ...);

// A JSON object as one line. A tag name in a file need not be UTF-8; such
// bytes are shown as U+FFFD rather than failing the whole output.
std::string dump(const Json &json);

inline unsigned long long count(uint64_t n)
{
    return static_cast<unsigned long long>(n);
}

Json stats_json(const plchost::Stats &stats);

} // namespace plcpoll

#endif // PLCPOLL_RENDER_TEXT_H
