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

// A value, or the error that stands in its place (the tools' results share
// this shape; each names its error type).
template <typename T, typename Error> class Outcome {
public:
    Outcome(T value) : state_(std::move(value)) {}
    Outcome(Error error) : state_(std::move(error)) {}

    bool ok() const { return std::holds_alternative<T>(state_); }
    const T &value() const & { return std::get<T>(state_); }
    T &&value() && { return std::get<T>(std::move(state_)); }
    const Error &error() const { return std::get<Error>(state_); }

private:
    std::variant<T, Error> state_;
};

// A value, or the Refusal that stands in its place.
template <typename T> class Parsed : public Outcome<T, Refusal> {
public:
    using Outcome<T, Refusal>::Outcome;
    const std::string &why() const { return this->error().why; }
};

} // namespace plctags

#endif // PLCTAGS_PARSED_H
