#pragma once
#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

// One IPv4 UDP socket on a local port with its own receive thread.
//
// Set-up: the owner calls Open(), then sets the callbacks, timeout_ms,
// clear_before_receive and buffer_size, and last calls AttachBuffer(). The
// receive thread idles until the buffer is attached; the buffer pointer is an
// atomic stored last, so attaching it publishes every field set before it.
// Nothing but the peer fields changes after that.
//
// Peer fields (peer_ip, peer_port, last_receive_ms) are written by the receive
// thread for every datagram and by CheckPeerTimeout on another thread, and are
// read from further threads (the bridge forwards to its peer from the camera's
// receive thread). All of them, and the on_found / on_lost calls, sit under
// peer_lock: a reader never sees half an address, and a loss cannot be
// declared in the middle of a datagram being recorded (nor a datagram recorded
// between a loss and its on_lost). on_found and on_lost therefore run with
// peer_lock held and must not call back into the endpoint. on_receive runs
// without the lock and gets its own copy of the sender's address.
using UdpReceiveCallback = void (*)(uint8_t* buffer, uint16_t length, const char* peer_ip,
                                    uint16_t peer_port);
using UdpEventCallback = void (*)();

constexpr int kUdpSocketBufferBytes = 10000000;
constexpr uint32_t kUdpDefaultTimeoutMs = 1000;
constexpr int kPeerIpCapacity = 16;  // dotted IPv4, 15 characters and a terminator

struct UdpEndpoint {
    UdpReceiveCallback on_receive = nullptr;
    UdpEventCallback on_lost = nullptr;
    UdpEventCallback on_found = nullptr;
    uint32_t timeout_ms = kUdpDefaultTimeoutMs;
    bool clear_before_receive = false;
    char peer_ip[kPeerIpCapacity] = {};   // guarded by peer_lock
    uint16_t peer_port = 0;               // guarded by peer_lock
    std::atomic<uint8_t*> buffer{nullptr};
    uint16_t buffer_size = 0;
    pthread_t thread{};
    int socket = -1;
    uint32_t last_receive_ms = 0;         // guarded by peer_lock; 0: no live peer
    std::mutex peer_lock;
    // The source of the last datagram as the socket gave it, so that peer_ip
    // is formatted only when the sender changes (receive thread only).
    struct sockaddr_in last_source{};

    // Creates, configures and binds the socket and starts the receive thread.
    // Returns 0, or -1 when the socket cannot be created or bound.
    int Open(uint16_t port);
    // Publishes the owner's buffer; the receive thread starts receiving.
    void AttachBuffer(uint8_t* storage, uint16_t size);
    // The receive thread's body; never returns.
    void RunReceiveLoop();
    // Declares the peer lost after more than timeout_ms of silence.
    void CheckPeerTimeout();
    // One datagram from this socket to host:port (dotted IPv4 only).
    // Returns the bytes sent, or -1.
    int SendTo(const void* data, uint16_t length, const char* host, uint16_t port);
    // The same to an address already converted (hot paths convert it once).
    int SendTo(const void* data, uint16_t length, const struct sockaddr_in& destination);
    // A consistent copy of the peer's address; returns the port (0: no peer).
    uint16_t GetPeer(char ip_out[kPeerIpCapacity]);
    // The local port the socket is bound to, or 0 when not open.
    uint16_t LocalPort() const;
};

// host:port as a socket address; returns -1 when host is not a dotted IPv4 text.
int MakeUdpAddress(const char* host, uint16_t port, struct sockaddr_in* address);
