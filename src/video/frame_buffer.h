#pragma once
#include <cstdint>

// Creates the shared-memory frame buffers. Returns 0 or -1.
int InitFrameBuffers();

// Copies one video payload into the shared ring as one part.
void QueueVideoPart(const uint8_t* data, uint32_t length);
