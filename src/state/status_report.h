#pragma once
#include <cstddef>
#include <cstdint>

#include "state/camera_state.h"
#include "tarnwickclient/interface.h"

// The status report to the main application, sent from command_endpoint.
//
// Every datagram begins with a type byte: 7 for the status line (text of
// "key=value," items, no terminator), 6 for a binary message, whose second
// byte is its kind. Binary numbers are little-endian. The recording notice
// ("rec_active" / "rec_inactive") goes to 127.0.0.1:5255 as bare text.
// The layouts are in tarnwickclient/interface.h.
//
// The status thread takes one copy of CameraState per 100 ms tick (under
// camera_state_lock) and builds every message of that tick from the copy.
// The ticks keep a fixed schedule (SleepUntilNextTick), so the rates hold
// when a tick starts late.
// It is never stopped: the process ends with exit(), which ends it too.

constexpr uint32_t kStatusTickMs = 100;
constexpr uint32_t kStatusLineTicks = 10;        // also the peer check
constexpr uint32_t kBinaryMessageTicks = 2;
constexpr uint32_t kRecordingNoticeTicks = 5;
constexpr uint32_t kReportStaleMs = 3000;        // histogram (and tracking) age limit

// A scaled real as sent: the single product truncated toward zero into an
// unsigned 32-bit integer (negative and NaN give 0, too large saturates),
// of which the low 16 bits go out.
uint16_t ScaledField(float value, float scale);

// The status line of a record: type byte and text. Returns its length.
size_t BuildStatusLine(const CameraState& state, uint8_t* out, size_t capacity);
// The binary messages; `out` holds the message's kSize bytes.
void BuildStateMessage(const CameraState& state, uint8_t* out);
void BuildTrackingMessage(const CameraState& state, uint8_t* out);
void BuildHistogramMessage(const CameraState& state, uint8_t* out);
// "rec_active" when bits 7..6 of the camera flags are 2, else "rec_inactive".
const char* RecordingNotice(uint8_t camera_flags);

// Where the report goes. The main-application link sits above this layer:
// it attaches its send operations here before it starts the thread.
struct StatusReportOutputs {
    int (*send_to_app)(const void* data, size_t length) = nullptr;   // SendToMainApp
    int (*send_notice)(const char* text) = nullptr;                  // SendLocalNotice
    void (*check_app_peer)() = nullptr;                              // the command endpoint's peer check
};
void AttachStatusReportOutputs(const StatusReportOutputs& outputs);

// Builds the status line of `state` and sends it with SendToMainApp. The
// record must not change meanwhile: the status thread passes its copy.
void FormatStatusLine(const CameraState* state);

// The status thread (argument: the CameraState record; null for the
// process-wide one), started after the outputs are attached. Never returns.
void* StatusThreadMain(void* camera_state);
