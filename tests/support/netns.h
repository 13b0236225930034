#pragma once
// Programs run from tests, and named network namespaces for tests that need real routing and NAT between
// several hosts: made with `ip netns add` inside the test's private mount namespace and deleted with their
// links and rules when the object goes, also when the test fails.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/udp_peer.h"

// Full path of a program, looked up in the sbin and bin folders first; empty when there is none.
std::string FindProgram(const std::string& name);
// Runs command[0] (looked up in the sbin and bin folders too) and waits; stdout and stderr go to *output.
// Returns the exit code, 127 when the program is missing, -1 when it cannot be started.
int RunProgram(const std::vector<std::string>& command, std::string* output = nullptr);

class NetworkNamespace {
public:
    explicit NetworkNamespace(const std::string& name);  // loopback up; fails the test on error
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    const std::string& name() const { return name_; }
    int Run(const std::vector<std::string>& command, std::string* output = nullptr) const;
    // A UDP peer whose socket lives in this namespace, bound to host:port (0: any).
    std::unique_ptr<UdpPeer> NewPeer(const char* host, uint16_t port) const;

private:
    std::string name_;
};

// Joins `a` and `b` with a veth pair (addresses in CIDR form), both ends up; false with the reason in *error.
bool AddVethPair(const NetworkNamespace& a, const std::string& name_a, const std::string& address_a,
                 const NetworkNamespace& b, const std::string& name_b, const std::string& address_b,
                 std::string* error);

// "iptables", else "iptables-legacy", whichever can add a NAT rule in `ns` (probed with a rule removed
// again); empty, with iptables' own words in *why, when the kernel offers no NAT here.
std::string IptablesWithNat(const NetworkNamespace& ns, std::string* why);
