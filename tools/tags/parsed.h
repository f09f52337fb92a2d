// How the tags library reports input it cannot take: a value, or the one
// line that says why not. The tools put that line in front of the user as
// it is (plcpoll as a usage error), so it names what was wrong and what
// would be accepted.
#ifndef PLCTAGS_PARSED_H
#define PLCTAGS_PARSED_H

#include <string>
#include <utility>
#include <variant>

namespace plctags {

struct Refusal {
    std::string why;
};

inline Refusal refuse(std::string why)
{
    return Refusal{std::move(why)};
}

// A value, or the Refusal that stands in its place.
template <typename T> class Parsed {
public:
    Parsed(T value) : state_(std::move(value)) {}
    Parsed(Refusal refusal) : state_(std::move(refusal)) {}

    bool ok() const { return std::holds_alternative<T>(state_); }
    const T &value() const & { return std::get<T>(state_); }
    T &&value() && { return std::get<T>(std::move(state_)); }
    const std::string &why() const { return std::get<Refusal>(state_).why; }

private:
    std::variant<T, Refusal> state_;
};

} // namespace plctags

#endif // PLCTAGS_PARSED_H
