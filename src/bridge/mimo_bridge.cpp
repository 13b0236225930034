#include "bridge/mimo_bridge.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "camera/camera_link.h"

UdpEndpoint bridge_endpoint;

namespace {

constexpr size_t kInterfaceNameLimit = 15;   // IFNAMSIZ less its terminator
constexpr const char* kNatRuleFormat =
    "iptables -t nat -I PREROUTING -i %s --src 0/0 --dst %s -p udp --dport %d -j REDIRECT --to-ports %d";

// Written by bridge_endpoint's found / lost callbacks, read by the camera
// thread (keep-alives) and the camera receive thread (acks, forwarding).
std::atomic<bool> mimo_connected{false};

uint8_t receive_buffer[kMimoReceiveBufferSize];

bool IsNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || strchr("._-+", c) != nullptr;
}

// An interface name that reaches the shell as one word and iptables as a
// name, not an option: 1 to 15 letters, digits and ". _ - +", not starting
// with "-". Blanks at its end stand for the line end of the name file and are
// not part of it; any other blank is refused.
bool IsInterfaceName(const char* text)
{
    size_t length = strlen(text);
    while (length > 0 && text[length - 1] == ' ')
        --length;
    if (length == 0 || length > kInterfaceNameLimit || text[0] == '-')
        return false;
    for (size_t i = 0; i < length; ++i)
        if (!IsNameCharacter(text[i]))
            return false;
    return true;
}

// A dotted address (inet_aton's forms): letters, digits and dots only.
bool IsHostText(const char* text)
{
    if (*text == '\0')
        return false;
    for (const char* c = text; *c != '\0'; ++c)
        if (!((*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9') || *c == '.'))
            return false;
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
    if (!IsInterfaceName(ap_iface) || !IsHostText(camera_host))
        return -1;
    snprintf(out, capacity, kNatRuleFormat, ap_iface, camera_host, camera_port, kMimoBridgePort);
    return 0;
}

int MimoBridgeInit(const char* camera_host, int32_t camera_port, const char* ap_iface)
{
    static char command[kNatCommandCapacity];
    if (FormatNatRuleCommand(command, sizeof command, ap_iface, camera_host, camera_port) == 0) {
        // The rule's fate is not looked at: without privilege or without NAT
        // support the bridge port still opens, it only sees no phone traffic
        // through the access point. Without a valid interface name nothing
        // runs at all.
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
    // On the camera receive thread, for every datagram: the flag spares even
    // the atomic peer load while no phone is there, and the peer is read as
    // one value, so no lock of the bridge is ever taken here.
    if (!mimo_connected.load() || data == nullptr || length == 0 || length > UINT16_MAX)
        return;
    uint64_t phone = bridge_endpoint.peer_address.load(std::memory_order_acquire);
    if (phone == 0)
        return;
    struct sockaddr_in destination;
    UnpackPeerAddress(phone, &destination);
    // Queued behind the batch: data is the camera's receive buffer, kept
    // until the batch is handled.
    bridge_endpoint.QueueTo(data, static_cast<uint16_t>(length), destination);
}

void OnPhoneDatagram(uint8_t* buffer, uint16_t length, const char*, uint16_t)
{
    SendToCamera(buffer, length);
}
