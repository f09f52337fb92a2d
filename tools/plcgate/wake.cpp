#include "wake.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace plcgate {

Wake::Wake()
{
    if (::pipe2(fds_, O_NONBLOCK | O_CLOEXEC) != 0)
        fds_[0] = fds_[1] = -1;
}

Wake::~Wake()
{
    for (int fd : fds_)
        if (fd >= 0)
            ::close(fd);
}

void Wake::notify()
{
    if (pending_.exchange(true))
        return;
    const char byte = 1;
    // A full pipe already holds a wake-up.
    [[maybe_unused]] const ssize_t written = ::write(fds_[1], &byte, 1);
}

void Wake::wait(std::chrono::milliseconds timeout)
{
    pollfd p{fds_[0], POLLIN, 0};
    ::poll(&p, 1, int(timeout.count()));
    char buffer[64];
    while (::read(fds_[0], buffer, sizeof buffer) > 0) {
    }
    // Only now: a notify() between the two would otherwise find the flag
    // set and write nothing, with its byte already read, and the next wait
    // would sleep its whole timeout. A notify() skipped before this line
    // is seen all the same, as the caller looks at what changed after
    // wait() returns.
    pending_.store(false);
}

} // namespace plcgate
