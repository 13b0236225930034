#include "bridge/mimo_bridge.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "camera/camera_link.h"

UdpEndpoint bridge_endpoint;

namespace {

constexpr const char* kNatRuleFormat =
    "iptables -t nat -I PREROUTING -i %s --src 0/0 --dst %s -p udp --dport %d -j REDIRECT --to-ports %d";

// Written by bridge_endpoint's found / lost callbacks, read by the camera
// thread (keep-alives) and the camera receive thread (acks, forwarding).
std::atomic<bool> mimo_connected{false};

uint8_t receive_buffer[kMimoReceiveBufferSize];

// Characters of interface names ("wlan0", "ap+", "br-lan") and dotted
// addresses, and the blank that stands for a line end of the name file:
// none of them means anything to the shell.
bool IsShellInert(const char* text)
{
    for (const char* c = text; *c != '\0'; ++c) {
        bool inert = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9') ||
                     strchr("._-+ ", *c) != nullptr;
        if (!inert)
            return false;
    }
    return true;
}

// Both run under bridge_endpoint's peer_lock: they touch only the flag and
// standard error.
void OnPhoneFound()
{
    mimo_connected.store(true);
    fputs("DJI MIMO connection found\n", stderr);
}

void OnPhoneLost()
{
    mimo_connected.store(false);
    fputs("DJI MIMO connection lost\n", stderr);
}

}  // namespace

int FormatNatRuleCommand(char* out, size_t capacity, const char* ap_iface, const char* camera_host,
                         int32_t camera_port)
{
    if (capacity == 0)
        return -1;
    memset(out, 0, capacity);
    if (!IsShellInert(ap_iface) || !IsShellInert(camera_host))
        return -1;
    snprintf(out, capacity, kNatRuleFormat, ap_iface, camera_host, camera_port, kMimoBridgePort);
    return 0;
}

int MimoBridgeInit(const char* camera_host, int32_t camera_port, const char* ap_iface)
{
    static char command[kNatCommandCapacity];
    if (FormatNatRuleCommand(command, sizeof command, ap_iface, camera_host, camera_port) == 0) {
        // The rule's fate is not looked at: without privilege, without an
        // interface name or without NAT support the bridge port still opens,
        // it only sees no phone traffic through the access point.
        int ignored = system(command);
        (void)ignored;
    }
    if (bridge_endpoint.Open(kMimoBridgePort) != 0)
        return -1;
    bridge_endpoint.on_receive = OnPhoneDatagram;
    bridge_endpoint.on_found = OnPhoneFound;
    bridge_endpoint.on_lost = OnPhoneLost;
    bridge_endpoint.clear_before_receive = false;
    bridge_endpoint.AttachBuffer(receive_buffer, sizeof receive_buffer);
    return 0;
}

bool IsMimoConnected()
{
    return mimo_connected.load();
}

void ForwardToPhone(const uint8_t* data, size_t length)
{
    // The flag spares the peer lock on every video datagram while no phone
    // is there; the address itself is read as one consistent copy.
    if (!mimo_connected.load() || data == nullptr || length == 0 || length > UINT16_MAX)
        return;
    char phone_ip[kPeerIpCapacity];
    uint16_t phone_port = bridge_endpoint.GetPeer(phone_ip);
    if (phone_port == 0)
        return;
    bridge_endpoint.SendTo(data, static_cast<uint16_t>(length), phone_ip, phone_port);
}

void OnPhoneDatagram(uint8_t* buffer, uint16_t length, const char*, uint16_t)
{
    SendToCamera(buffer, length);
}
