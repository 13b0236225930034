#include "support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

ChildProcess::~ChildProcess()
{
    Kill();
    if (stdout_reader_.joinable())
        stdout_reader_.join();
    if (stderr_reader_.joinable())
        stderr_reader_.join();
    if (stdin_fd_ >= 0)
        close(stdin_fd_);
    CheckSanitizerReports();
}

bool ChildProcess::Start(const std::string& path, const std::vector<std::string>& arguments)
{
    int out_pipe[2], err_pipe[2], in_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0 || pipe2(in_pipe, O_CLOEXEC) != 0)
        return false;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_ = fork();
    if (pid_ < 0)
        return false;
    if (pid_ == 0) {
        dup2(in_pipe[0], 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        setpgid(0, 0);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(in_pipe[0]);
    close(out_pipe[1]);
    close(err_pipe[1]);
    stdin_fd_ = in_pipe[1];
    stdout_reader_ = std::thread(&ChildProcess::Collect, this, out_pipe[0], &stdout_);
    stderr_reader_ = std::thread(&ChildProcess::Collect, this, err_pipe[0], &stderr_);
    return true;
}

void ChildProcess::Collect(int fd, std::string* into)
{
    char chunk[4096];
    for (;;) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count <= 0)
            break;
        std::lock_guard<std::mutex> guard(lock_);
        into->append(chunk, static_cast<size_t>(count));
        if (into->size() > output_limit_)
            into->erase(0, into->size() - output_limit_ / 2);
    }
    close(fd);
}

bool ChildProcess::WaitFor(const std::string* stream, const std::string& text, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (stream->find(text) != std::string::npos)
                return true;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        usleep(10000);
    }
}

bool ChildProcess::WaitForStderr(const std::string& text, int timeout_ms)
{
    return WaitFor(&stderr_, text, timeout_ms);
}

bool ChildProcess::WaitForStdout(const std::string& text, int timeout_ms)
{
    return WaitFor(&stdout_, text, timeout_ms);
}

std::string ChildProcess::Stderr()
{
    std::lock_guard<std::mutex> guard(lock_);
    return stderr_;
}

std::string ChildProcess::Stdout()
{
    std::lock_guard<std::mutex> guard(lock_);
    return stdout_;
}

int ChildProcess::WaitExit(int timeout_ms)
{
    if (pid_ <= 0)
        return exit_code_;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int status = 0;
        pid_t done = waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            // Nothing of its group may outlive it or hold its pipes open; then
            // collect every byte it wrote before its exit is reported.
            kill(-pid_, SIGKILL);
            pid_ = -1;
            if (stdout_reader_.joinable())
                stdout_reader_.join();
            if (stderr_reader_.joinable())
                stderr_reader_.join();
            return exit_code_;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        usleep(10000);
    }
}

void ChildProcess::WriteLine(const std::string& line)
{
    std::string text = line + "\n";
    if (stdin_fd_ >= 0 && write(stdin_fd_, text.data(), text.size()) < 0)
        ADD_FAILURE() << "cannot write to the child's standard input";
}

void ChildProcess::CloseInput()
{
    if (stdin_fd_ >= 0)
        close(stdin_fd_);
    stdin_fd_ = -1;
}

void ChildProcess::Kill()
{
    if (pid_ <= 0)
        return;
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    WaitExit(10000);
}

void ChildProcess::CheckSanitizerReports()
{
    static const char* const kMarkers[] = {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer",
                                           "ERROR: LeakSanitizer", "runtime error:",
                                           "ERROR: ThreadSanitizer"};
    std::string output = Stderr();
    for (const char* marker : kMarkers)
        if (output.find(marker) != std::string::npos)
            ADD_FAILURE() << "sanitizer report in a child process:\n" << output;
}

std::string DaemonPath()
{
    return TARNWICK_DAEMON_PATH;
}

std::string CamsimPath()
{
    return TARNWICK_CAMSIM_PATH;
}

std::string ToolPath(const std::string& name)
{
    return std::string(TARNWICK_BUILD_DIR) + "/tarnwick-" + name;
}
