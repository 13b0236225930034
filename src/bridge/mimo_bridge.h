#pragma once
// The data bridge for the phone app DJI MIMO.
//
// The phone joins the board's access point and sends its camera traffic to
// the camera's own address and port. A NAT rule on the access-point interface
// redirects that traffic to bridge_endpoint (local port 9004); each phone
// datagram goes on to the camera unchanged, and each camera datagram comes
// back to the phone unchanged from port 9004, so the reply passes back through
// the same NAT mapping and the phone sees it coming from the camera. While the
// phone talks, the camera link leaves keep-alives and video acknowledgements
// to it (IsMimoConnected).
//
// Threads: OnPhoneDatagram runs on bridge_endpoint's receive thread,
// ForwardToPhone on the camera endpoint's receive thread, the peer check on
// the main thread. The phone's address is bridge_endpoint's peer, read as one
// consistent copy under its peer_lock (GetPeer). mimo_connected is an atomic
// flag written by the found / lost callbacks (receive thread and main thread,
// both under peer_lock) and read by the camera thread and the camera receive
// thread.
//
// Decisions:
// - The rule is run through the shell as one command built from the host and
//   the interface name (a file that another program maintains). Texts holding
//   anything but the characters of interface names and dotted addresses are
//   not handed to the shell: the rule is then simply not inserted, as when
//   iptables fails.
// - The flag is set before "DJI MIMO connection found\n" is written and
//   cleared before "DJI MIMO connection lost\n", so whoever reads the line
//   finds the camera link already behaving accordingly.
#include <cstddef>
#include <cstdint>

#include "net/udp_endpoint.h"

constexpr uint16_t kMimoBridgePort = 9004;
constexpr uint16_t kMimoReceiveBufferSize = 10000;
constexpr size_t kNatCommandCapacity = 256;

extern UdpEndpoint bridge_endpoint;

// Sets up the phone app's bridge: inserts the NAT rule (result not looked at)
// and opens bridge_endpoint on port 9004. Returns 0, or -1 when the port
// cannot be bound (the caller goes on either way; no phone is ever seen then).
int MimoBridgeInit(const char* camera_host, int32_t camera_port, const char* ap_iface);

// Formats the iptables command that redirects the phone's traffic for
// camera_host:camera_port arriving on ap_iface to the bridge port, into a
// zeroed buffer of `capacity` bytes. Returns 0, or -1 (the buffer then left
// empty) unless ap_iface is an interface name (1 to 15 letters, digits and
// ". _ - +", not starting with "-"; blanks at its end, which stand for the
// name file's line end, are allowed and kept) and camera_host a dotted
// address of letters, digits and dots: nothing else may reach the shell, and
// an empty or option-like name would only make iptables complain.
int FormatNatRuleCommand(char* out, size_t capacity, const char* ap_iface, const char* camera_host,
                         int32_t camera_port);

// True while the phone app's traffic is live.
bool IsMimoConnected();

// Passes a camera datagram, unchanged, to the phone app when it is connected.
// On the camera's receive thread the copy leaves after the batch is handled,
// so data must stay unchanged until then (the receive buffer does).
void ForwardToPhone(const uint8_t* data, size_t length);

// bridge_endpoint's on_receive: the phone's datagram goes to the camera unchanged.
void OnPhoneDatagram(uint8_t* buffer, uint16_t length, const char* peer_ip, uint16_t peer_port);
