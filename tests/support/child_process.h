#pragma once
// A program of the project run as a child process: its standard output and
// error are collected, its standard input can be written, and it is killed
// and reaped when the object goes. Any sanitizer report in its output fails
// the current test.
#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Start(const std::string& path, const std::vector<std::string>& arguments);
    // Waits until standard error (or output) contains `text`.
    bool WaitForStderr(const std::string& text, int timeout_ms);
    bool WaitForStdout(const std::string& text, int timeout_ms);
    std::string Stderr();
    std::string Stdout();
    // Exit code, 128 + signal for a signal, or -1 when still running at the time-out.
    int WaitExit(int timeout_ms);
    void WriteLine(const std::string& line);
    // Ends the child's standard input (it reads end of file).
    void CloseInput();
    // Keeps only about the last `bytes` of each stream (a program that logs a flood); before Start.
    void LimitOutput(size_t bytes) { output_limit_ = bytes; }
    void Kill();
    pid_t pid() const { return pid_; }

private:
    void Collect(int fd, std::string* into);
    bool WaitFor(const std::string* stream, const std::string& text, int timeout_ms);
    void CheckSanitizerReports();

    pid_t pid_ = -1;
    int stdin_fd_ = -1;
    int exit_code_ = -1;
    size_t output_limit_ = SIZE_MAX;
    std::mutex lock_;
    std::string stdout_, stderr_;
    std::thread stdout_reader_, stderr_reader_;
};

// Paths of the programs under test.
std::string DaemonPath();
std::string CamsimPath();
std::string ToolPath(const std::string& name);
