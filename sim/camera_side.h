#pragma once
// The camera's side of the link: how the camera frames what it sends. The
// service itself never builds these; the camera simulator and the tests do,
// from the same layout the service reads.
#include <cstddef>
#include <cstdint>

// Writes the header of a camera datagram (type 1 or 2) of `total` bytes:
// size, link word, type, header check and the camera's sequence number at
// bytes 10 and 11; the rest of the `header_size` bytes are zero.
void BuildCameraDatagramHeader(uint8_t* out, size_t header_size, size_t total, uint8_t type,
                               uint16_t camera_sequence);

// Builds a report frame as the camera sends it (sender 0x01, receiver 0x02):
// header checksum, payload, sequence and frame checksum. Returns its length,
// or 0 when it does not fit in `capacity` or in one frame.
size_t BuildReportFrame(uint8_t* out, size_t capacity, uint8_t command_set, uint8_t command_id,
                        const uint8_t* payload, size_t payload_length, uint16_t sequence);
