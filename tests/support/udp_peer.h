#pragma once
// A plain UDP socket on loopback that plays a peer of the daemon in tests.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class UdpPeer {
public:
    // Binds 127.0.0.1:port (0: any free port). Fails the test on error.
    explicit UdpPeer(uint16_t port = 0) : UdpPeer("127.0.0.1", port) {}
    // Binds host:port, for addresses a test added to its own namespace.
    UdpPeer(const char* host, uint16_t port);
    ~UdpPeer();
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    uint16_t port() const { return port_; }
    // Enlarges the socket's receive buffer (beyond the system limit as root).
    void SetReceiveBuffer(int bytes);
    // One datagram, or an empty vector after the time-out. The sender's port
    // goes to *from_port, its address to *from_host, when given.
    std::vector<uint8_t> Receive(int timeout_ms, uint16_t* from_port = nullptr, std::string* from_host = nullptr);
    // Skips datagrams until one of `length` bytes arrives (0: any length).
    std::vector<uint8_t> ReceiveOfLength(size_t length, int timeout_ms, uint16_t* from_port = nullptr);
    // To 127.0.0.1:port.
    int SendTo(uint16_t port, const void* data, size_t length);
    int SendTo(uint16_t port, const std::vector<uint8_t>& data) { return SendTo(port, data.data(), data.size()); }
    // To host:port, for peers beyond loopback (another network namespace).
    int SendTo(const char* host, uint16_t port, const std::vector<uint8_t>& data);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// Waits until some socket holds UDP `port` on every address (a bind to it
// fails). The daemon binds its bridge port last in its start-up, so this
// tells that start-up, with the iptables command it runs, is over.
bool WaitUntilPortTaken(uint16_t port, int timeout_ms);
