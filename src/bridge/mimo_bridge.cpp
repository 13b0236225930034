#include "bridge/mimo_bridge.h"

// The bridge is not built yet: no phone is ever connected.
UdpEndpoint bridge_endpoint;

int MimoBridgeInit(const char*, int32_t, const char*)
{
    return -1;
}

bool IsMimoConnected()
{
    return false;
}

void ForwardToPhone(const uint8_t*, size_t) {}
