// How plcpoll's parts report that a run cannot go on: the exit status it calls
// for and the one line the user is shown. The parts return these instead of
// exiting; only main turns them into output and a status.
#ifndef PLCPOLL_RESULT_H
#define PLCPOLL_RESULT_H

#include "parsed.h"

#include <string>
#include <utility>

namespace plcpoll {

// A bad option, tag or value is a usage error; an exchange with the PLC that
// did not work out is a failure.
enum class ExitStatus { Ok = 0, Failed = 1, Usage = 2 };

// How a run ends. A message, when there is one, goes to stderr after
// "plcpoll: "; a failure may have nothing more to say than its status.
struct Exit {
    ExitStatus status = ExitStatus::Ok;
    std::string message;
};

inline Exit usage_error(std::string message)
{
    return {ExitStatus::Usage, std::move(message)};
}

inline Exit failure(std::string message = {})
{
    return {ExitStatus::Failed, std::move(message)};
}

// A value, or the Exit that stands in its place.
template <typename T> class Result : public plctags::Outcome<T, Exit> {
public:
    using plctags::Outcome<T, Exit>::Outcome;
    const Exit &exit() const { return this->error(); }
};

} // namespace plcpoll

#endif // PLCPOLL_RESULT_H
