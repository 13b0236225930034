#pragma once
#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>

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
// read from further threads. They sit under peer_lock, which every holder
// keeps only for a few stores or loads: never across a system call, a
// callback or a log line, so the receive thread (for the camera: the hot
// video path) never waits behind another thread's slow work. peer_address
// mirrors the peer as one atomic value for readers on hot paths (the bridge
// forwards every camera datagram to its peer) that must take no lock at all.
//
// on_found and on_lost run outside peer_lock, in order, under event_lock:
// CheckPeerTimeout holds it from deciding a loss to the end of on_lost, and
// the receive thread takes it only for on_found, at the first datagram after
// a loss (it may then wait for that on_lost to end, once). So "found" never
// overtakes the "lost" before it. on_receive runs without any lock and gets
// its own copy of the sender's address.
//
// Sends never block: a datagram that the socket's buffer cannot take now is
// dropped and counted in send_drops (the network may drop it anyway), and the
// first drop of an endpoint is said once on standard error.
//
// Batched receive (AttachBuffers with more than one buffer; the camera's
// video path): one recvmmsg takes what is queued in the socket, up to one
// datagram per buffer, blocking only for the first (MSG_WAITFORONE: a batch
// is never waited for). Each datagram then goes through peer tracking and
// on_receive in arrival order, in its own buffer, exactly as a single receive
// would hand it on. Datagrams that callbacks send with QueueTo while a batch
// is handled leave after it, before the thread blocks again, so no reply
// waits longer than its batch's handling: one sendmmsg per socket, in which
// a run of datagrams of one length to one destination (the batch's acks) is
// one segmented send (UDP_SEGMENT) while the kernel takes it.
using UdpReceiveCallback = void (*)(uint8_t* buffer, uint16_t length, const char* peer_ip,
                                    uint16_t peer_port);
using UdpEventCallback = void (*)();

constexpr int kUdpSocketBufferBytes = 10000000;   // both directions; raised past net.core.rmem_max when root
constexpr uint32_t kUdpDefaultTimeoutMs = 1000;
constexpr int kPeerIpCapacity = 16;  // dotted IPv4, 15 characters and a terminator
constexpr uint16_t kUdpReceiveBatchLimit = 32;   // buffers one batched receive fills at most
// Queued datagrams up to this size are copied; longer ones are referenced and
// must stay unchanged until the batch is handled (a receive buffer does).
constexpr uint16_t kUdpQueuedCopyBytes = 64;
// Queued datagrams up to this size may leave segmented (see
// SendQueuedRun): it fits a 1500-byte MTU, so no path on the board refuses
// them for their size.
constexpr uint16_t kUdpSegmentMaxBytes = 1472;

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
    uint16_t buffer_count = 1;            // buffers of buffer_size each, back to back
    pthread_t thread{};
    int socket = -1;
    uint32_t last_receive_ms = 0;         // guarded by peer_lock; 0: no live peer
    std::mutex peer_lock;
    std::mutex event_lock;                // orders on_found / on_lost, see above
    std::atomic<uint64_t> peer_address{0};   // PackPeerAddress of the peer; 0: none
    std::atomic<uint32_t> send_drops{0};
    std::atomic<bool> segmenting{true};   // queued runs may leave as one segmented send
    // The source of the last datagram as the socket gave it, so that peer_ip
    // is formatted only when the sender changes (receive thread only).
    struct sockaddr_in last_source{};
    char last_source_text[kPeerIpCapacity] = {};   // last_source formatted (receive thread only)

    // Creates, configures and binds the socket and starts the receive thread.
    // Returns 0, or -1 when the socket cannot be created or bound.
    int Open(uint16_t port);
    // Publishes the owner's buffer; the receive thread starts receiving.
    void AttachBuffer(uint8_t* storage, uint16_t size);
    // The same with `count` buffers of `size` bytes back to back in storage
    // (1 to kUdpReceiveBatchLimit); more than one receives in batches.
    void AttachBuffers(uint8_t* storage, uint16_t size, uint16_t count);
    // The receive thread's body; never returns.
    void RunReceiveLoop();
    // Peer tracking and on_receive for one received datagram.
    void HandOn(uint8_t* storage, ssize_t received, const struct sockaddr_in& source);
    // The receive loop over buffer_count buffers; never returns.
    void RunBatchedReceiveLoop(uint8_t* storage);
    // Declares the peer lost after more than timeout_ms of silence.
    void CheckPeerTimeout();
    // One datagram from this socket to host:port (dotted IPv4 only).
    // Returns the bytes sent, or -1.
    int SendTo(const void* data, uint16_t length, const char* host, uint16_t port);
    // The same to an address already converted (hot paths convert it once).
    int SendTo(const void* data, uint16_t length, const struct sockaddr_in& destination);
    // On a receive thread handling a batch: queues the datagram for the
    // sendmmsg after the batch (see above) and returns length. Anywhere else
    // the same as SendTo. Data longer than kUdpQueuedCopyBytes must stay
    // unchanged until the batch is handled.
    int QueueTo(const void* data, uint16_t length, const struct sockaddr_in& destination);
    // A consistent copy of the peer's address; returns the port (0: no peer).
    uint16_t GetPeer(char ip_out[kPeerIpCapacity]);
    // The local port the socket is bound to, or 0 when not open.
    uint16_t LocalPort() const;
};

// A peer as one value: the address in network order and the port; 0 for none.
inline uint64_t PackPeerAddress(const struct sockaddr_in& address)
{
    return static_cast<uint64_t>(address.sin_addr.s_addr) << 16 | ntohs(address.sin_port);
}
// The socket address of a packed peer.
void UnpackPeerAddress(uint64_t packed, struct sockaddr_in* address);

// What a socket buffer request obtained: the kernel reports twice the size it
// grants (its bookkeeping share); this is the size in the request's terms.
int ObtainedSocketBuffer(int socket, int option);

// host:port as a socket address; returns -1 when host is not a dotted IPv4 text.
int MakeUdpAddress(const char* host, uint16_t port, struct sockaddr_in* address);
