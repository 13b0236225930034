#pragma once
// Named network namespaces for system tests that need real routing and NAT
// between several hosts (a phone, the board, a camera): made with `ip netns
// add` inside the test's private mount namespace, so their /run/netns entries
// are the test's own, and deleted again when the object goes, also when the
// test fails. A veth end and every iptables rule live in their namespace and
// go with it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Full path of a system program, looked up in the sbin and bin folders first
// (a test's PATH may lack the sbin ones); empty when there is none.
std::string FindProgram(const std::string& name);

// Runs a program with its arguments (command[0] is looked up with
// FindProgram) and waits for it. Standard output and error go to *output when
// given. Returns the exit code, 127 when the program is missing, -1 when it
// cannot be started.
int RunProgram(const std::vector<std::string>& command, std::string* output = nullptr);

class NetworkNamespace {
public:
    // Adds the namespace and brings its loopback up; ok() tells whether it worked.
    explicit NetworkNamespace(const std::string& name);
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    bool ok() const { return ok_; }
    const std::string& name() const { return name_; }
    // Runs a program inside the namespace (see RunProgram).
    int Run(const std::vector<std::string>& command, std::string* output = nullptr) const;
    // The command line that starts `command` inside the namespace, for a
    // ChildProcess: {path of ip, "netns", "exec", name, command...}.
    std::vector<std::string> ExecPrefix() const;

private:
    std::string name_;
    bool added_ = false;
    bool ok_ = false;
};

// Joins two namespaces with a veth pair: end `name_a` in `a` with `address_a`
// (CIDR, e.g. "192.168.3.1/24"), end `name_b` in `b` with `address_b`, both up.
// Returns false (and says why in *error) when a step fails.
bool AddVethPair(const NetworkNamespace& a, const std::string& name_a, const std::string& address_a,
                 const NetworkNamespace& b, const std::string& name_b, const std::string& address_b,
                 std::string* error);

// The iptables program that can change the NAT table inside `ns`: "iptables"
// when it can, else "iptables-legacy" (a kernel with the old tables only).
// Probes with a rule that it removes again. Empty, with iptables' own words
// in *why, when neither can: the kernel offers no NAT to iptables here.
std::string IptablesWithNat(const NetworkNamespace& ns, std::string* why);

// An IPv4 UDP socket created inside a namespace (null: the test's own) and
// bound to host:port there (port 0: any free port). Fails the test when it
// cannot be made.
class NamespaceUdpSocket {
public:
    NamespaceUdpSocket(const NetworkNamespace* ns, const char* host, uint16_t port);
    ~NamespaceUdpSocket();
    NamespaceUdpSocket(const NamespaceUdpSocket&) = delete;
    NamespaceUdpSocket& operator=(const NamespaceUdpSocket&) = delete;

    bool ok() const { return fd_ >= 0; }
    uint16_t port() const { return port_; }
    int SendTo(const char* host, uint16_t port, const void* data, size_t length);
    int SendTo(const char* host, uint16_t port, const std::vector<uint8_t>& data)
    {
        return SendTo(host, port, data.data(), data.size());
    }
    // One datagram, or an empty vector after the time-out; the sender's
    // address goes to *from_host and *from_port when given.
    std::vector<uint8_t> Receive(int timeout_ms, std::string* from_host = nullptr, uint16_t* from_port = nullptr);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};
