#include "support/netns.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

// A socket belongs to the namespace that its thread is in when it is made:
// the thread steps in for that moment and back out.
int SocketInNamespace(const std::string& name)
{
    std::string target_path = "/run/netns/" + name;
    int target = open(target_path.c_str(), O_RDONLY | O_CLOEXEC);
    int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int fd = -1;
    if (target >= 0 && own >= 0 && setns(target, CLONE_NEWNET) == 0) {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (setns(own, CLONE_NEWNET) != 0) {
            // Going on in the wrong namespace would make every later step lie.
            fprintf(stderr, "cannot return from namespace %s: %s\n", name.c_str(), strerror(errno));
            abort();
        }
    }
    int saved_errno = errno;
    if (target >= 0)
        close(target);
    if (own >= 0)
        close(own);
    errno = saved_errno;
    return fd;
}

}  // namespace

std::string FindProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), X_OK) == 0 ? name : std::string();
    std::string folders = "/usr/sbin:/usr/bin:/sbin:/bin";
    if (const char* path = getenv("PATH"))
        folders += std::string(":") + path;
    std::stringstream list(folders);
    std::string folder;
    while (std::getline(list, folder, ':')) {
        if (folder.empty())
            continue;
        std::string candidate = folder + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::string();
}

int RunProgram(const std::vector<std::string>& command, std::string* output)
{
    if (command.empty())
        return -1;
    std::string path = FindProgram(command[0]);
    if (path.empty()) {
        if (output != nullptr)
            *output = command[0] + ": not found";
        return 127;
    }
    // Everything the child needs is prepared before fork: the test process
    // has other threads, so the child only redirects and execs.
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (size_t i = 1; i < command.size(); ++i)
        argv.push_back(const_cast<char*>(command[i].c_str()));
    argv.push_back(nullptr);
    int out_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0)
        return -1;
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);

    pid_t pid = fork();
    if (pid < 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        if (null_fd >= 0)
            close(null_fd);
        return -1;
    }
    if (pid == 0) {
        if (null_fd >= 0)
            dup2(null_fd, 0);
        dup2(out_pipe[1], 1);
        dup2(out_pipe[1], 2);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    if (null_fd >= 0)
        close(null_fd);
    std::string collected;
    char chunk[4096];
    for (;;) {
        ssize_t count = read(out_pipe[0], chunk, sizeof chunk);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        collected.append(chunk, static_cast<size_t>(count));
    }
    close(out_pipe[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output != nullptr)
        *output = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

NetworkNamespace::NetworkNamespace(const std::string& name) : name_(name)
{
    std::string output;
    if (RunProgram({"ip", "netns", "add", name_}, &output) != 0) {
        ADD_FAILURE() << "ip netns add " << name_ << ": " << output;
        return;
    }
    added_ = true;
    ok_ = true;
    if (Run({"ip", "link", "set", "lo", "up"}, &output) != 0) {
        ADD_FAILURE() << "loopback of " << name_ << ": " << output;
        ok_ = false;
    }
}

NetworkNamespace::~NetworkNamespace()
{
    // Its veth ends and rules go with it; a process still inside keeps the
    // namespace itself alive, so owners end theirs first.
    std::string output;
    if (added_ && RunProgram({"ip", "netns", "del", name_}, &output) != 0)
        ADD_FAILURE() << "ip netns del " << name_ << ": " << output;
}

int NetworkNamespace::Run(const std::vector<std::string>& command, std::string* output) const
{
    if (command.empty())
        return -1;
    std::vector<std::string> full = ExecPrefix();
    std::string path = FindProgram(command[0]);
    full.push_back(path.empty() ? command[0] : path);
    full.insert(full.end(), command.begin() + 1, command.end());
    return RunProgram(full, output);
}

std::vector<std::string> NetworkNamespace::ExecPrefix() const
{
    return {FindProgram("ip"), "netns", "exec", name_};
}

bool AddVethPair(const NetworkNamespace& a, const std::string& name_a, const std::string& address_a,
                 const NetworkNamespace& b, const std::string& name_b, const std::string& address_b,
                 std::string* error)
{
    std::string output;
    const std::vector<std::vector<std::string>> steps = {
        {"ip", "link", "add", name_a, "netns", a.name(), "type", "veth", "peer", "name", name_b, "netns", b.name()},
        {"ip", "-n", a.name(), "address", "add", address_a, "dev", name_a},
        {"ip", "-n", b.name(), "address", "add", address_b, "dev", name_b},
        {"ip", "-n", a.name(), "link", "set", name_a, "up"},
        {"ip", "-n", b.name(), "link", "set", name_b, "up"},
    };
    for (const std::vector<std::string>& step : steps) {
        if (RunProgram(step, &output) != 0) {
            if (error != nullptr) {
                *error = "";
                for (const std::string& word : step)
                    *error += word + " ";
                *error += ": " + output;
            }
            return false;
        }
    }
    return true;
}

std::string IptablesWithNat(const NetworkNamespace& ns, std::string* why)
{
    const std::vector<std::string> probe_rule = {"PREROUTING", "-i", "probe0", "-p", "udp", "--dport", "9",
                                                 "-j", "REDIRECT", "--to-ports", "9"};
    std::string reasons;
    for (const char* program : {"iptables", "iptables-legacy"}) {
        if (FindProgram(program).empty()) {
            reasons += std::string(program) + ": not installed\n";
            continue;
        }
        std::vector<std::string> add = {program, "-t", "nat", "-A"};
        add.insert(add.end(), probe_rule.begin(), probe_rule.end());
        std::string output;
        if (ns.Run(add, &output) == 0) {
            std::vector<std::string> remove = {program, "-t", "nat", "-D"};
            remove.insert(remove.end(), probe_rule.begin(), probe_rule.end());
            ns.Run(remove, &output);
            return program;
        }
        reasons += std::string(program) + ": " + output;
    }
    if (why != nullptr)
        *why = reasons;
    return std::string();
}

NamespaceUdpSocket::NamespaceUdpSocket(const NetworkNamespace* ns, const char* host, uint16_t port)
{
    std::string where = ns != nullptr ? ns->name() : std::string("the test's namespace");
    if (ns == nullptr)
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    else
        fd_ = SocketInNamespace(ns->name());
    if (fd_ < 0) {
        ADD_FAILURE() << "cannot make a socket in " << where << ": " << strerror(errno);
        return;
    }

    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (inet_aton(host, &local.sin_addr) == 0 || bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        ADD_FAILURE() << "cannot bind " << host << ":" << port << " in " << where << ": " << strerror(errno);
        close(fd_);
        fd_ = -1;
        return;
    }
    socklen_t length = sizeof local;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
    port_ = ntohs(local.sin_port);
}

NamespaceUdpSocket::~NamespaceUdpSocket()
{
    if (fd_ >= 0)
        close(fd_);
}

int NamespaceUdpSocket::SendTo(const char* host, uint16_t port, const void* data, size_t length)
{
    struct sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    if (fd_ < 0 || inet_aton(host, &destination.sin_addr) == 0)
        return -1;
    return static_cast<int>(
        sendto(fd_, data, length, 0, reinterpret_cast<sockaddr*>(&destination), sizeof destination));
}

std::vector<uint8_t> NamespaceUdpSocket::Receive(int timeout_ms, std::string* from_host, uint16_t* from_port)
{
    if (fd_ < 0)
        return {};
    struct pollfd waiting = {fd_, POLLIN, 0};
    if (poll(&waiting, 1, timeout_ms) <= 0)
        return {};
    std::vector<uint8_t> datagram(65536);
    struct sockaddr_in source = {};
    socklen_t source_length = sizeof source;
    ssize_t count = recvfrom(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&source),
                             &source_length);
    if (count < 0)
        return {};
    datagram.resize(static_cast<size_t>(count));
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &source.sin_addr, text, sizeof text);
    if (from_host != nullptr)
        *from_host = text;
    if (from_port != nullptr)
        *from_port = ntohs(source.sin_port);
    return datagram;
}
