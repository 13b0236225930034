#pragma once
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <netinet/in.h>

#include "net/udp_endpoint.h"

constexpr uint32_t kCameraSilenceLimitMs = 5000;
constexpr uint32_t kCameraThreadPeriodMs = 1000;
constexpr uint16_t kCameraReceiveBufferSize = 10000;
// Datagrams one receive takes at most: at the camera's thousands a second a
// wake-up usually finds one or two, at bursts up to this many.
constexpr uint16_t kCameraReceiveBatch = 16;
constexpr size_t kCameraHostCapacity = 32;

// The connection with the camera: one process-wide record.
//
// Threads: the camera endpoint's receive thread handles every datagram from
// the camera; the camera thread sends keep-alives and watches for silence;
// any thread may send a camera command, the main application's even before
// the link is initialised. host, port and address are written before
// address_valid is set and only read after it is seen set.
struct CameraLink {
    UdpEndpoint endpoint;
    std::atomic<uint32_t> last_datagram_ms{0};  // receive thread writes, camera thread reads
    int32_t port = 0;                           // 0: not set
    char host[kCameraHostCapacity] = {};        // empty: not set
    struct sockaddr_in address{};               // host:port converted once at initialisation
    // Set (release) once host, port, address and the endpoint's socket are
    // there; false: not yet, or port 0, host empty or not dotted IPv4.
    std::atomic<bool> address_valid{false};
    pthread_t thread{};
    uint8_t receive_buffers[kCameraReceiveBatch][kCameraReceiveBufferSize] = {};
};
extern CameraLink camera_link;

// Sequence counters of the link.
//
// tx_sequence numbers every datagram we send that carries or advances it (a
// command frame, the ping, the connect request, a video acknowledgement). Each
// sender reserves its number with one atomic increment (ReserveTxSequence) and
// sends without any lock, on a socket that never blocks: no two datagrams
// carry one number, and no sender ever waits for another. The camera receive
// thread sends an ack for every video datagram, so it must not queue behind a
// command or the 50 Hz gimbal stream. The price: two datagrams sent by two
// threads in the same microseconds may reach the wire in the other order than
// their numbers.
//
// rx_sequence is written only by the camera endpoint's receive thread and read
// by every sender: a single atomic value.
extern std::atomic<uint16_t> tx_sequence;
extern std::atomic<uint16_t> rx_sequence;

// The number for the next datagram that carries or advances tx_sequence.
uint16_t ReserveTxSequence();

// Where the camera's datagrams go beyond the connection, on the floors above
// (reassembly, the phone bridge): attached once at start-up, before the
// link opens, and read by its threads only after that. A route left null
// is skipped.
struct CameraRoutes {
    void (*handle_datagram)(const uint8_t* buffer, size_t length) = nullptr;  // reassembly
    bool (*phone_connected)() = nullptr;       // the phone app keeps the connection alive itself
    void (*forward_to_phone)(const uint8_t* data, size_t length) = nullptr;
};
void AttachCameraRoutes(const CameraRoutes& routes);
// True while the phone app is connected through the bridge (its route).
bool IsPhoneConnected();

// True from the first data-stream datagram on (MarkCameraStreamSeen, by
// reassembly); never cleared but by ResetCameraSequences.
bool IsCameraStreamSeen();
void MarkCameraStreamSeen();

// Opens the camera endpoint and starts the camera thread. Returns 0 or -1.
int CameraLinkInit(const char* host, int32_t port);

// Stores the camera's address (initialisation's first step; tests that send
// through an endpoint of their own use it alone).
void CameraLinkSetAddress(const char* host, int32_t port);

// Sends one datagram to the camera from the camera endpoint; nothing when the
// camera's address is not set.
void SendToCamera(const void* data, size_t length);

// Seals a complete frame (13 to 255 bytes, header checksum already right) with
// the next tx_sequence and its CRC16, and sends it in a type 4 datagram. The
// frame buffer is written (sequence and checksum). Every camera command leaves
// through here.
void SendCameraPacket(uint8_t* frame, size_t length);

// One keep-alive step: nothing while the phone app is connected, the connect
// request until the camera's data stream has started, the ping after that.
void SendKeepAlive();

// Acknowledges a video datagram with the current rx_sequence (unless the phone
// app is connected, see the caller). On the receive thread the ack leaves with
// the others of its batch, right after the batch is handled.
void SendVideoAck();

// The camera endpoint's on_receive.
void OnCameraDatagram(uint8_t* buffer, uint16_t length, const char* peer_ip, uint16_t peer_port);

// The camera thread's loop; never returns.
void* CameraThread(void*);

// Both sequence counters back to 0 and no stream seen, as at start.
void ResetCameraSequences();
