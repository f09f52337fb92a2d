// Starting a helper program for a test: standard input from /dev/null,
// standard output and error into files the test reads afterwards.
#ifndef PLCDRIVER_TEST_SPAWN_PROCESS_H
#define PLCDRIVER_TEST_SPAWN_PROCESS_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <unistd.h> // environ (g++ defines _GNU_SOURCE)

#include <string>
#include <vector>

namespace testsupport {

// Truncate for a fresh log per start; Append keeps what earlier starts of
// the same program wrote (a broker restarted within one test).
enum class OutputFiles { Truncate, Append };

// Starts args[0] (looked up in PATH when it has no slash). The child's
// process id, or -1 with the spawn error in *error.
inline pid_t spawn_process(const std::vector<std::string> &args, const std::string &out_path,
                           const std::string &err_path, OutputFiles mode, int *error)
{
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    const int flags = O_WRONLY | O_CREAT | (mode == OutputFiles::Append ? O_APPEND : O_TRUNC);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, out_path.c_str(), flags, 0644);
    posix_spawn_file_actions_addopen(&files, 2, err_path.c_str(), flags, 0644);
    pid_t pid = -1;
    *error = ::posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    return *error == 0 ? pid : -1;
}

} // namespace testsupport

#endif // PLCDRIVER_TEST_SPAWN_PROCESS_H
