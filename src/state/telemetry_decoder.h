#pragma once
#include <cstddef>
#include <cstdint>

#include "state/camera_state.h"
#include "state/report_layout.h"

// The telemetry decoder: finds the camera's report frames in a block of its
// data stream, checks them, tells the report kinds apart by frame length
// (and, for some, command set / id / type) and writes what they carry into
// CameraState as display texts. Runs on the camera endpoint's receive thread.
//
// Each report is applied under camera_state_lock as one unit. The gimbal
// attitude is also published in the shared region "/shared_camstate", opened
// on the first frame that reaches the decoder; when it can be neither opened
// nor created, or not mapped, the decoder says so once and goes on without
// publishing (it never tries again and never writes through a failed mapping).

constexpr size_t kDecodableMinimumLength = 10;

// Gimbal limits stored with every attitude report.
constexpr int16_t kGimbalLimits[4] = {73, -232, 52, -102};
// TrackingRestore: a subject lost for longer than this is tracked again.
constexpr uint32_t kTrackingRestoreDelayMs = 2000;
constexpr float kTrackingRestoreWidth = 0.1f;
constexpr float kTrackingRestoreHeight = 0.2f;

// Decodes every valid frame of the block into `state` (the process-wide
// record when null). Invalid bytes are skipped one at a time; a frame that
// runs past the block's end is lost.
void ScanTelemetryBuffer(CameraState* state, const uint8_t* block, uint32_t length);

// Decodes one checked frame of `length` bytes (the frame's length byte).
// Frames under 10 bytes and frames of no report kind change nothing.
void DecodeTelemetryFrame(CameraState* state, const uint8_t* frame, size_t length);

// "hh:mm:ss" of a number of seconds. Below 100 hours the hours take two
// digits; from 100 hours on they take as many as they need (at most 7), so
// the text needs at most 14 bytes with its terminator. `capacity` bounds it.
void FormatTimeText(uint32_t seconds, char* out, size_t capacity);

// The shutter text of a 24-bit shutter code: "8\"", "3.2\"", "1/8000",
// "1/12.5". Returns false, writing nothing, for a code the camera does not
// use (middle byte non-zero with bit 7 clear): the old text then stays.
bool FormatShutterText(uint32_t code, char* out, size_t capacity);

// The re-arming of lost subject tracking, one step per tracking report.
// Owned by the camera receive thread.
struct TrackingRestoreState {
    bool pending = false;     // a subject has been tracked at least once
    uint32_t since_ms = 0;    // NowMs of the latest report of a tracked subject
    double x = 0.0;           // its position
    double y = 0.0;
};
// Applies one report (tracking_active, position) at time `now_ms`; writes the
// waiting and restore messages. Returns true when tracking must be started
// again at restore->x, restore->y.
bool TrackingRestoreStep(TrackingRestoreState* restore, uint8_t tracking_active, float x, float y,
                         uint32_t now_ms);

// How the restore starts tracking again (TrackingStart of the camera
// commands, which sit a layer above the decoder): attached once at start-up,
// before the camera link opens. Without one the restore is decided and said
// but nothing is sent.
using TrackingRestarter = void (*)(float x, float y, float w, float h);
void AttachTrackingRestarter(TrackingRestarter restart);

// The name of the shared attitude region, "/shared_camstate" unless changed
// before the first frame is decoded (unit tests use a private name).
void SetSharedAttitudeName(const char* name);

// Forgets the tracked subject (the tracking restore starts afresh); the
// attitude region stays mapped.
void ResetTelemetryDecoder();
