#include "support/netns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

std::string FindProgram(const std::string& name)
{
    const char* path = getenv("PATH");
    std::stringstream folders(std::string("/usr/sbin:/usr/bin:/sbin:/bin:") + (path != nullptr ? path : ""));
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && access((folder + "/" + name).c_str(), X_OK) == 0)
            return folder + "/" + name;
    return std::string();
}

int RunProgram(const std::vector<std::string>& command, std::string* output)
{
    // Through popen (safe in a process with threads), every word quoted for the shell.
    std::string line = "export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH; exec";
    for (const std::string& word : command) {
        line += " '";
        for (char c : word)
            line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        line += "'";
    }
    FILE* pipe = popen((line + " </dev/null 2>&1").c_str(), "re");
    if (pipe == nullptr)
        return -1;
    std::string collected;
    char chunk[4096];
    for (size_t count; (count = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        collected.append(chunk, count);
    int status = pclose(pipe);
    if (output != nullptr)
        *output = collected;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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

int NetworkNamespace::Run(const std::vector<std::string>& command, std::string* output) const
{
    std::vector<std::string> full = {"ip", "netns", "exec", name_};
    full.insert(full.end(), command.begin(), command.end());
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
