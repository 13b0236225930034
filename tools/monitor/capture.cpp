// Watching the status port without binding it: a packet socket sees a copy of every UDP datagram that arrives at
// this machine for the status or notice port, while the main application keeps the port itself and receives
// every datagram as before (a second socket bound beside it with SO_REUSEPORT would take half of them away).
// The kernel filters: only whole IPv4 UDP datagrams to one of the two ports reach the monitor, so the video on
// the camera's interface costs it nothing. Needs root (CAP_NET_RAW).
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "monitor.h"

namespace {

constexpr size_t kIpv4MinimumHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr uint8_t kUdpProtocol = 17;

}  // namespace

int OpenCapture(uint16_t status_port, uint16_t notice_port)
{
    int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP));
    if (fd < 0)
        return -1;
    // The packet starts at its IPv4 header: protocol byte 9, fragment field 6, header length in byte 0's low
    // nibble; the UDP destination port follows the IPv4 header at +2.
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kUdpProtocol, 0, 7),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x3fff, 5, 0),   // a fragment, or more to come: not whole
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, status_port, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, notice_port != 0 ? notice_port : status_port, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xffff),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    struct sock_fprog program = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

ssize_t ReceiveCaptured(int fd, uint8_t* out, size_t capacity, int flags, struct sockaddr_in* source,
                        uint16_t* to_port)
{
    static uint8_t packet[65536];
    struct sockaddr_ll link;
    socklen_t link_length = sizeof link;
    ssize_t length = recvfrom(fd, packet, sizeof packet, flags, reinterpret_cast<struct sockaddr*>(&link),
                              &link_length);
    if (length < 0)
        return -1;
    // On loopback a datagram passes twice, leaving and arriving: the arriving copy counts.
    if (link.sll_pkttype == PACKET_OUTGOING)
        return -2;
    size_t header = static_cast<size_t>(packet[0] & 0x0f) * 4;
    if (static_cast<size_t>(length) < kIpv4MinimumHeader || (packet[0] >> 4) != 4 || header < kIpv4MinimumHeader ||
        static_cast<size_t>(length) < header + kUdpHeader || packet[9] != kUdpProtocol)
        return -2;
    size_t total = static_cast<size_t>(packet[2]) << 8 | packet[3];
    size_t udp_length = static_cast<size_t>(packet[header + 4]) << 8 | packet[header + 5];
    if (total > static_cast<size_t>(length) || header + udp_length > total || udp_length < kUdpHeader)
        return -2;
    size_t payload = udp_length - kUdpHeader;
    if (payload > capacity)
        payload = capacity;
    memset(source, 0, sizeof *source);
    source->sin_family = AF_INET;
    memcpy(&source->sin_addr, packet + 12, 4);
    memcpy(&source->sin_port, packet + header, 2);
    *to_port = static_cast<uint16_t>(packet[header + 2] << 8 | packet[header + 3]);
    memcpy(out, packet + header + kUdpHeader, payload);
    return static_cast<ssize_t>(payload);
}
