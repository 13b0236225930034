#pragma once
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "tarnwickclient/interface.h"

using namespace tarnwick::wire;

// The record of what the camera last reported, one process-wide instance.
//
// Settings are kept as the display texts the status line sends and the step
// commands compare against the value tables; fields ending in _code or _raw
// keep the number a report carried beside the text made from it. Texts are
// fixed-capacity, always NUL-terminated, and only ever replaced whole.
//
// Threads and locking: the camera receive thread (telemetry decoder) writes
// the reported fields; the status thread reads the record and clears
// histogram_time; the command thread writes gimbal_lock_requested, zoom_set
// and wb_temp_set; the remote-control thread reads several fields and writes
// gimbal_lock_requested, zoom_set and tracking_time. Every one of them holds
// camera_state_lock for each access, reader or writer. The decoder holds it
// while it applies one whole report, and the status thread while it copies
// the record (CopyCameraState) before formatting, so a status line never shows
// half of one text and half of another, and a binary message never mixes two
// reports. Holders do nothing else under the lock: no sending, no logging, no
// calls into other modules (TrackingStart runs after the lock is released),
// and the lock is never taken twice by one thread.
//
// The record is a plain record (start-up clears it with memset); the lock
// lives beside it, not in it.
//
// Two texts are one byte wider than their reported values strictly need:
// camera_model holds "Unknown camera (255)" (21 bytes with the terminator)
// and shutter_set holds the longest 24-bit shutter text "1/32767.255"
// (12 bytes). Every writer also formats with the field's size, so no text
// can run into the next field.

constexpr size_t kCameraModelCapacity = 21;
constexpr size_t kShutterSetCapacity = 12;

struct CameraState {
    int16_t gimbal_attitude[3];      // tenths of a degree
    int16_t gimbal_limits[4];        // 73, -232, 52, -102 once an attitude report came
    uint8_t camera_detected;         // 1 once a camera information report came; never reset
    char camera_model[kCameraModelCapacity];
    uint8_t mode_code;               // 0 photo, 1 video, 7 playback
    char camera_mode[10];
    uint8_t gimbal_lock_requested;   // written by commands and the remote control
    uint8_t gimbal_mode_flag;
    uint32_t sd_free_mb;
    char sd[20];
    uint32_t shots_left;
    uint32_t rec_time_s;
    char rec_time[20];
    uint32_t rec_time_left_s;
    char rec_time_left[20];
    int16_t voltage;                 // no report sets it
    int8_t battery_level;
    uint8_t focus_reported;
    uint8_t focus_param_21;
    uint8_t focus_mode_code;         // 0x84 MF, 0x85 AFS, 0x86 AFC
    char focus_mode[10];
    uint16_t focus_param_1;
    uint16_t focus_param_3;
    float focus_point_x;
    float focus_point_y;
    uint8_t focus_param_31;
    uint8_t camera_flags;            // bits 7..6 == 2: recording
    uint8_t camera_aux_1;
    uint8_t camera_aux_2;
    uint32_t histogram_time;         // NowMs of the latest histogram; 0: none or stale
    uint8_t histogram_bins[kHistogramBinCount];
    char shot_mode[10];
    char resolution[10];
    char framerate[10];
    char image_mode[10];
    uint8_t ae;
    uint8_t ae_aux;
    char aperture[12];
    uint32_t shutter_raw;
    char shutter[12];
    uint32_t shutter_set_raw;
    char shutter_set[kShutterSetCapacity];
    uint16_t iso;
    char iso_set[10];
    char ev[10];
    char color_mode[20];
    char wb[20];
    float wb_temp;                   // kelvin, as reported
    float wb_temp_set;               // kelvin, last commanded; written by commands
    char ratio[10];
    uint8_t sensor;                  // megapixels: 16 or 64; 0 until reported
    char video_std[10];
    char antiflicker[10];
    uint16_t zoom;
    uint16_t zoom_max;               // hundredths: 200, 300, 400 or 800; 0 until known
    uint16_t zoom_set;               // hundredths, last commanded; written by commands
    uint8_t gimbal_bit1;
    uint8_t gimbal_bit5;
    uint8_t gimbal_bit4;
    float tracking_x;
    float tracking_y;
    float tracking_w;
    float tracking_h;
    uint32_t tracking_time;          // NowMs of the latest tracking report; 0: none or lost
    uint8_t tracking_active;
    uint8_t battery_charging;
    char pl_state[20];
    uint16_t pl_id;
    uint32_t pl_dur_ms;
    char pl_dur[20];
    uint32_t pl_time_ms;
    char pl_time[20];
};

// The one record. Never fails, no side effects.
CameraState* GetCameraState();

// Guards every access to the record (see above).
extern std::mutex camera_state_lock;
using CameraStateGuard = std::lock_guard<std::mutex>;

// A consistent copy of the record, taken under camera_state_lock.
void CopyCameraState(const CameraState* state, CameraState* copy);

// The gimbal attitude is also published to other processes, in the
// "/shared_camstate" region of tarnwickclient/interface.h.

// Back to the record of a fresh start: all zero. (Harnesses and tests that
// reuse one process for many runs.)
void ResetCameraState();
