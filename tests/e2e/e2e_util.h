// Small helpers shared by the end-to-end tests.
#ifndef PLCDRIVER_E2E_UTIL_H
#define PLCDRIVER_E2E_UTIL_H

#include "plchost.h"

#include <cerrno>
#include <fcntl.h>
#include <chrono>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace e2e {

using namespace std::chrono_literals;

// Polls `pred` every 10 ms until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()> &pred, std::chrono::milliseconds timeout = 5000ms)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return pred();
}

inline plchost::HostConfig config_for(int port, plchost::LinkMode mode = plchost::LinkMode::Modbus)
{
    plchost::HostConfig c;
    plchost::Endpoint e;
    e.host = "127.0.0.1";
    e.port = uint16_t(port);
    c.endpoints.push_back(e);
    c.link_mode = mode;
    c.timeout = 300ms;
    c.poll_interval = 20ms;
    c.retry_limit = 2;
    c.reconnect_min = 50ms;
    c.reconnect_max = 400ms;
    return c;
}

inline plchost::Tag tag(int kind, const std::string &address, int count, int station = 1, const std::string &name = "")
{
    plchost::Tag t;
    t.name = name.empty() ? "k" + std::to_string(kind) + "@" + address : name;
    t.kind = kind;
    t.address = address;
    t.station = station;
    t.count = count;
    return t;
}

// The values the host's mirror holds for a tag.
inline std::vector<uint64_t> values_of(const plchost::Host &host, const plchost::Tag &t)
{
    std::vector<uint8_t> bytes;
    host.read(t, &bytes);
    return plchost::decode_values(t.kind, t.count, bytes);
}

// Writes values through the host and waits for the driver's completion.
inline plchost::DoneResult write_values(plchost::Host &host, const plchost::Tag &where,
                                        const std::vector<uint64_t> &values, std::chrono::milliseconds timeout = 5000ms)
{
    std::vector<uint8_t> bytes;
    plchost::Tag t = where;
    if (!plchost::encode_values(t.kind, values, &bytes, &t.count))
        return plchost::DoneResult::Failed;
    int id = 0;
    if (host.write(t, bytes, 1, &id) == 0)
        return plchost::DoneResult::Failed;
    return host.wait_done(1, id, timeout);
}

// A child process whose standard input and output are pipes to the test
// (standard error goes to /dev/null). Used for peers that report their port
// on their first output line. SIGTERM and a wait on destruction.
class Child {
public:
    explicit Child(const std::vector<std::string> &argv)
    {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_adddup2(&fa, in[0], 0);
        posix_spawn_file_actions_adddup2(&fa, out[1], 1);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
        std::vector<char *> args;
        for (const std::string &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawn(&pid_, args[0], &fa, nullptr, args.data(), ::environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&fa);
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
    }
    ~Child()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            int status = 0;
            for (int i = 0; i < 300 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (::waitpid(pid_, &status, WNOHANG) == 0) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
            }
        }
        if (stdin_ >= 0)
            ::close(stdin_);
        if (stdout_ >= 0)
            ::close(stdout_);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    bool started() const { return pid_ > 0; }

    // One line of the child's output, or "" after `timeout`.
    std::string read_line(std::chrono::milliseconds timeout)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        std::string line;
        while (std::chrono::steady_clock::now() < end) {
            pollfd p{stdout_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0)
                continue;
            char c;
            if (::read(stdout_, &c, 1) != 1)
                return "";
            if (c == '\n')
                return line;
            line += c;
        }
        return "";
    }

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
};

} // namespace e2e

#endif // PLCDRIVER_E2E_UTIL_H
