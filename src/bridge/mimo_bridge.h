#pragma once
#include <cstddef>
#include <cstdint>

#include "net/udp_endpoint.h"

extern UdpEndpoint bridge_endpoint;

// Sets up the phone app's bridge. Returns 0 or -1 (the caller goes on either way).
int MimoBridgeInit(const char* camera_host, int32_t camera_port, const char* ap_iface);

// True while the phone app's traffic is live.
bool IsMimoConnected();

// Passes a camera datagram, unchanged, to the phone app when it is connected.
void ForwardToPhone(const uint8_t* data, size_t length);
