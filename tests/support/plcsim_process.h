// Runs the plcsim PLC simulator as a child process for tests: starts it on
// ephemeral ports, waits until it has written its port file, and stops it with
// SIGTERM when the object goes away. POSIX and the C++ standard library only.
//
//   PlcsimProcess sim(PLCSIM_BINARY, {"--stations", "1,2", "--static"});
//   std::string error;
//   ASSERT_TRUE(sim.start(&error)) << error;
//   connect to 127.0.0.1:sim.modbus_port() / sim.remote_port() ...
//
// The path of the binary comes from the caller, e.g. a compile definition
// PLCSIM_BINARY="$<TARGET_FILE:plcsim>".
#ifndef PLCSIM_PROCESS_H
#define PLCSIM_PROCESS_H

#include "spawn_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

class PlcsimProcess {
public:
    // extra_args follow "--port 0 --remote-port 0 --port-file FILE"; a later
    // --port or --remote-port in extra_args wins.
    explicit PlcsimProcess(std::string binary, std::vector<std::string> extra_args = {})
        : binary_(std::move(binary)), extra_args_(std::move(extra_args))
    {
    }

    ~PlcsimProcess()
    {
        stop();
        remove_files();
    }

    PlcsimProcess(const PlcsimProcess &) = delete;
    PlcsimProcess &operator=(const PlcsimProcess &) = delete;

    // Starts the simulator and waits (up to timeout_ms) for its port file.
    // On failure returns false and, when error is given, says why.
    bool start(std::string *error = nullptr, int timeout_ms = 10000)
    {
        if (pid_ > 0)
            return fail(error, "already started");
        if (!make_dir())
            return fail(error, std::string("cannot create a temporary directory: ") + std::strerror(errno));
        std::vector<std::string> args = {binary_, "--port", "0", "--remote-port", "0", "--port-file", port_file()};
        args.insert(args.end(), extra_args_.begin(), extra_args_.end());
        std::string spawn_error;
        pid_ = spawn(args, dir_ + "/stdout", dir_ + "/stderr", spawn_error);
        if (pid_ <= 0)
            return fail(error, spawn_error);

        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < deadline) {
            if (read_port_file())
                return true;
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                exit_status_ = decode_status(status);
                return fail(error, "plcsim exited with status " + std::to_string(exit_status_) +
                                       " before it was ready: " + stderr_text());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        stop();
        return fail(error, "plcsim did not write its port file within " + std::to_string(timeout_ms) + " ms");
    }

    int modbus_port() const { return modbus_port_; }
    int remote_port() const { return remote_port_; }
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }

    // Sends the signal (SIGTERM by default) and waits up to timeout_ms; kills
    // it with SIGKILL after that. Returns the exit code, 128 + signal number
    // when it died of a signal, or the code seen earlier when it was no longer running.
    int stop(int signal_number = SIGTERM, int timeout_ms = 5000)
    {
        if (pid_ <= 0)
            return exit_status_;
        kill(pid_, signal_number);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        int status = 0;
        while (true) {
            pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_)
                break;
            if (r < 0 && errno != EINTR) {
                status = -1;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        pid_ = -1;
        exit_status_ = decode_status(status);
        return exit_status_;
    }

    std::string stdout_text() const { return slurp(dir_ + "/stdout"); }
    std::string stderr_text() const { return slurp(dir_ + "/stderr"); }
    // A directory that lives as long as this object (for log files and the like).
    std::string work_dir() const { return dir_; }

    struct Result {
        int exit_status = -1;
        std::string out;
        std::string err;
    };

    // Runs plcsim with exactly these arguments until it exits (killed after
    // timeout_ms) and returns its exit status and output.
    static Result run_to_exit(const std::string &binary, const std::vector<std::string> &args, int timeout_ms = 10000)
    {
        Result result;
        char tmpl[] = "/tmp/plcsim-run-XXXXXX";
        char *dir = mkdtemp(tmpl);
        if (!dir) {
            result.err = std::string("mkdtemp: ") + std::strerror(errno);
            return result;
        }
        const std::string d = dir;
        std::vector<std::string> argv = {binary};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string spawn_error;
        pid_t pid = spawn(argv, d + "/stdout", d + "/stderr", spawn_error);
        if (pid > 0) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
            int status = 0;
            while (true) {
                pid_t r = waitpid(pid, &status, WNOHANG);
                if (r == pid)
                    break;
                if (std::chrono::steady_clock::now() >= deadline) {
                    kill(pid, SIGKILL);
                    waitpid(pid, &status, 0);
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            result.exit_status = decode_status(status);
            result.out = slurp(d + "/stdout");
            result.err = slurp(d + "/stderr");
        } else {
            result.err = spawn_error;
        }
        unlink((d + "/stdout").c_str());
        unlink((d + "/stderr").c_str());
        rmdir(d.c_str());
        return result;
    }

private:
    static bool fail(std::string *error, const std::string &message)
    {
        if (error)
            *error = message;
        return false;
    }

    static int decode_status(int status)
    {
        if (status == -1)
            return -1;
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        if (WIFSIGNALED(status))
            return 128 + WTERMSIG(status);
        return -1;
    }

    static std::string slurp(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }

    static pid_t spawn(const std::vector<std::string> &args, const std::string &out_path, const std::string &err_path,
                       std::string &error)
    {
        int rc = 0;
        const pid_t pid = testsupport::spawn_process(args, out_path, err_path, testsupport::OutputFiles::Truncate, &rc);
        if (pid < 0)
            error = "cannot start " + args[0] + ": " + std::strerror(rc);
        return pid;
    }

    bool make_dir()
    {
        if (!dir_.empty())
            return true;
        char tmpl[] = "/tmp/plcsim-test-XXXXXX";
        char *d = mkdtemp(tmpl);
        if (!d)
            return false;
        dir_ = d;
        return true;
    }

    std::string port_file() const { return dir_ + "/ports"; }

    bool read_port_file()
    {
        std::ifstream in(port_file());
        if (!in)
            return false;
        int modbus = -1;
        int remote = -1;
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("modbus=", 0) == 0)
                modbus = std::atoi(line.c_str() + 7);
            else if (line.rfind("remote=", 0) == 0)
                remote = std::atoi(line.c_str() + 7);
        }
        if (modbus <= 0 || remote <= 0)
            return false;
        modbus_port_ = modbus;
        remote_port_ = remote;
        return true;
    }

    void remove_files()
    {
        if (dir_.empty())
            return;
        // The directory is ours: remove whatever the run and the test left in it.
        if (DIR *d = opendir(dir_.c_str())) {
            while (dirent *e = readdir(d)) {
                std::string name = e->d_name;
                if (name != "." && name != "..")
                    unlink((dir_ + "/" + name).c_str());
            }
            closedir(d);
        }
        rmdir(dir_.c_str());
    }

    std::string binary_;
    std::vector<std::string> extra_args_;
    std::string dir_;
    pid_t pid_ = -1;
    int exit_status_ = -1;
    int modbus_port_ = -1;
    int remote_port_ = -1;
};

#endif
