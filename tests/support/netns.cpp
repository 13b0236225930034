#include "support/netns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

std::string FindProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), X_OK) == 0 ? name : std::string();
    const char* path = getenv("PATH");
    std::stringstream folders(std::string("/usr/sbin:/usr/bin:/sbin:/bin:") + (path != nullptr ? path : ""));
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && access((folder + "/" + name).c_str(), X_OK) == 0)
            return folder + "/" + name;
    return std::string();
}

int RunProgram(const std::vector<std::string>& command, std::string* output)
{
    std::string path = command.empty() ? std::string() : FindProgram(command[0]);
    if (path.empty()) {
        if (output != nullptr)
            *output = (command.empty() ? std::string() : command[0]) + ": not found";
        return 127;
    }
    // Prepared before fork: the test process has other threads, so the child only redirects and execs.
    std::vector<char*> argv = {const_cast<char*>(path.c_str())};
    for (size_t i = 1; i < command.size(); ++i)
        argv.push_back(const_cast<char*>(command[i].c_str()));
    argv.push_back(nullptr);
    int out_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        dup2(out_pipe[1], 1);
        dup2(out_pipe[1], 2);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    std::string collected;
    char chunk[4096];
    for (ssize_t count; (count = read(out_pipe[0], chunk, sizeof chunk)) != 0;) {
        if (count > 0)
            collected.append(chunk, static_cast<size_t>(count));
        else if (errno != EINTR)
            break;
    }
    close(out_pipe[0]);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output != nullptr)
        *output = collected;
    return pid < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

NetworkNamespace::NetworkNamespace(const std::string& name) : name_(name)
{
    std::string output;
    if (RunProgram({"ip", "netns", "add", name_}, &output) != 0 || Run({"ip", "link", "set", "lo", "up"}, &output))
        ADD_FAILURE() << "namespace " << name_ << ": " << output;
}

NetworkNamespace::~NetworkNamespace()
{
    // Its veth ends and rules go with it; owners end the processes inside first.
    RunProgram({"ip", "netns", "del", name_});
}

std::vector<std::string> NetworkNamespace::ExecPrefix() const { return {FindProgram("ip"), "netns", "exec", name_}; }

int NetworkNamespace::Run(const std::vector<std::string>& command, std::string* output) const
{
    std::vector<std::string> full = ExecPrefix();
    full.push_back(FindProgram(command[0]));
    full.insert(full.end(), command.begin() + 1, command.end());
    return RunProgram(full, output);
}

std::unique_ptr<UdpPeer> NetworkNamespace::NewPeer(const char* host, uint16_t port) const
{
    // A socket belongs to the namespace its thread is in when it is made: step in for that moment.
    int target = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    bool entered = target >= 0 && own >= 0 && setns(target, CLONE_NEWNET) == 0;
    EXPECT_TRUE(entered) << "cannot enter namespace " << name_;
    std::unique_ptr<UdpPeer> peer(new UdpPeer(host, port));
    if (entered && setns(own, CLONE_NEWNET) != 0)
        abort();  // going on in the wrong namespace would make every later step lie
    close(target);
    close(own);
    return peer;
}

bool AddVethPair(const NetworkNamespace& a, const std::string& name_a, const std::string& address_a,
                 const NetworkNamespace& b, const std::string& name_b, const std::string& address_b,
                 std::string* error)
{
    const std::vector<std::vector<std::string>> steps = {
        {"ip", "link", "add", name_a, "netns", a.name(), "type", "veth", "peer", "name", name_b, "netns", b.name()},
        {"ip", "-n", a.name(), "address", "add", address_a, "dev", name_a},
        {"ip", "-n", b.name(), "address", "add", address_b, "dev", name_b},
        {"ip", "-n", a.name(), "link", "set", name_a, "up"},
        {"ip", "-n", b.name(), "link", "set", name_b, "up"},
    };
    for (const std::vector<std::string>& step : steps)
        if (RunProgram(step, error) != 0)
            return false;
    return true;
}

std::string IptablesWithNat(const NetworkNamespace& ns, std::string* why)
{
    for (const char* program : {"iptables", "iptables-legacy"}) {
        std::vector<std::string> rule = {program, "-t", "nat", "-A", "PREROUTING", "-i", "probe0", "-j", "RETURN"};
        std::string output;
        if (ns.Run(rule, &output) == 0) {
            rule[3] = "-D";
            ns.Run(rule);
            return program;
        }
        *why += std::string(program) + ": " + output;
    }
    return std::string();
}
