#include "render_text.h"

#include <cstdarg>
#include <cstdio>

namespace plcpoll {

std::string format(const char *pattern, ...)
{
    va_list args;
    va_start(args, pattern);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string text(size_t(length > 0 ? length : 0) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), pattern, again);
    va_end(again);
    text.pop_back();
    return text;
}

std::string dump(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace plcpoll
