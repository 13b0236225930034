#include "support/udp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

UdpPeer::UdpPeer(const char* host, uint16_t port)
{
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in local = {};
    local.sin_family = AF_INET;
    inet_aton(host, &local.sin_addr);
    local.sin_port = htons(port);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        ADD_FAILURE() << "cannot bind test peer on " << host << ":" << port;
        return;
    }
    socklen_t length = sizeof local;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length);
    port_ = ntohs(local.sin_port);
}

UdpPeer::~UdpPeer()
{
    if (fd_ >= 0)
        close(fd_);
}

std::vector<uint8_t> UdpPeer::Receive(int timeout_ms, uint16_t* from_port, std::string* from_host)
{
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
    if (from_host != nullptr)
        *from_host = inet_ntoa(source.sin_addr);
    if (from_port != nullptr)
        *from_port = ntohs(source.sin_port);
    return datagram;
}

std::vector<uint8_t> UdpPeer::ReceiveOfLength(size_t length, int timeout_ms, uint16_t* from_port)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return {};
        std::vector<uint8_t> datagram = Receive(static_cast<int>(left.count()), from_port);
        if (!datagram.empty() && (length == 0 || datagram.size() == length))
            return datagram;
    }
}

int UdpPeer::SendTo(uint16_t port, const void* data, size_t length)
{
    struct sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    destination.sin_port = htons(port);
    return static_cast<int>(
        sendto(fd_, data, length, 0, reinterpret_cast<sockaddr*>(&destination), sizeof destination));
}

int UdpPeer::SendTo(const char* host, uint16_t port, const std::vector<uint8_t>& data)
{
    struct sockaddr_in destination = {};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(port);
    if (inet_aton(host, &destination.sin_addr) == 0)
        return -1;
    return static_cast<int>(sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&destination),
                                   sizeof destination));
}

void UdpPeer::SetReceiveBuffer(int bytes)
{
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

bool WaitUntilPortTaken(uint16_t port, int timeout_ms)
{
    for (int waited = 0; waited <= timeout_ms; waited += 20) {
        int probe = socket(AF_INET, SOCK_DGRAM, 0);
        struct sockaddr_in local = {};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_ANY);
        local.sin_port = htons(port);
        bool taken = bind(probe, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0;
        close(probe);
        if (taken)
            return true;
        usleep(20000);
    }
    return false;
}
