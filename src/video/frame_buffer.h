#pragma once
// The live video path: every video payload from the camera goes, unchanged
// and as one part, into the shared-memory ring "tarnwickrelay_framebuffer"
// (layout in frame_ring.h) for the main application, and a change of the live
// resolution, read from a sequence parameter set at the start of a payload,
// is announced in /run/tarnwickrelay/video_width and video_height. Start-up
// also creates "tarnwickrelay_framebuffer_transcoding" (13003624 bytes, byte
// 0 set to 1, the rest 0) for other programs of the board; nothing else is
// written into it.
//
// Threads: InitFrameBuffers runs on the main thread before the camera link
// starts (whose thread creation orders it before every QueueVideoPart);
// QueueVideoPart runs on the camera receive thread only. The stream state is
// touched by nobody else. Other processes read the ring at the same time, and
// may set clear_request; see frame_ring.h for the order of the stores.
//
// Decisions:
// - A region that cannot be opened or created, sized or mapped makes
//   InitFrameBuffers return -1 (start-up then exits with 2). Sizing also
//   reserves the region's memory (posix_fallocate): a /dev/shm too small for
//   60 MB fails here, instead of killing the process with SIGBUS on its first
//   write into the mapping. Without a mapping, QueueVideoPart writes nothing.
// - A payload shorter than a start code and a NAL header is never taken for a
//   parameter set, and one of exactly five bytes gives the reader no data
//   (no size): nothing is read past a payload's end.
// - A next_slot out of 0..199 (only another process can store one) is taken
//   as 0, so the writer never writes outside the region.
// - InitFrameBuffers may be called again (tests do): it releases its earlier
//   mappings and starts as a fresh process would, size unknown, part 0.
#include <cstdint>

// Creates (or re-opens) and clears both regions and removes the resolution
// files. Returns 0, or -1 when a region cannot be made.
int InitFrameBuffers();

// Copies one video payload into the ring as one part (chunks of at most
// 300000 bytes in consecutive slots), after honouring a clear request, and
// announces a new resolution when the payload starts with a parameter set.
void QueueVideoPart(const uint8_t* data, uint32_t length);

// The writer back to a fresh start (no resolution announced, part 0) without
// touching the regions or their mappings.
void ResetVideoStream();
