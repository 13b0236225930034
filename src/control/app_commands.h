#pragma once
#include <cstdint>

// command_endpoint's on_receive: one command datagram from the main application.
void HandleAppDatagram(uint8_t* buffer, uint16_t length, const char* peer_ip, uint16_t peer_port);
