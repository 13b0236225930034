#pragma once
// The camera simulator: plays the camera's side of the Wi-Fi protocol on a
// UDP port, for development without a camera and as the peer of the system
// tests. Received datagrams are logged on standard output, one line each.
#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

struct SimOptions {
    const char* bind_host = "127.0.0.1";
    uint16_t port = 9004;
    const char* video_path = nullptr;   // H.264 Annex B file; generated stream when null
    int fps = 30;                       // else the file's own rate, when it tells one
    bool fps_given = false;             // --fps was given: it wins over the file
    size_t video_payload = 1400;        // video bytes per datagram
    bool send_video = true;
    bool long_video_header = false;     // 32-byte header with 00 00 01 ff at 20
    bool never_answer = false;          // log, but never start the stream
    int silent_after_ms = -1;           // fall silent this long after the stream starts
    int report_period_ms = 100;         // data-stream datagram period
    bool log_acks = false;              // one line per ack instead of a summary each second
    bool stamp = false;                 // a counter-stamp datagram before each access unit
    bool log_video = false;             // "tx video LENGTH FNV1A64" for every video datagram sent
};

struct Simulator {
    SimOptions options;
    int socket = -1;
    std::mutex peer_lock;
    struct sockaddr_in peer{};           // guarded by peer_lock
    std::atomic<bool> peer_known{false};
    std::atomic<bool> streaming{false};
    std::atomic<bool> silent{false};
    std::atomic<uint32_t> acks_received{0};
    std::mutex send_lock;
    uint16_t camera_sequence = 0;        // guarded by send_lock
};
extern Simulator sim;

// Sends a camera datagram of `type` with the camera's next sequence number;
// `payload` follows the 20-byte header (or `header_size` when larger).
void SimSendDatagram(uint8_t type, const uint8_t* payload, size_t length, size_t header_size = 20,
                     const uint8_t* header_extra = nullptr, size_t extra_length = 0);

// --stamp: before each access unit the simulator sends one video datagram
// holding only an SEI NAL unit (user data unregistered, payload type 5) whose
// 16-byte UUID is the text of kStampUuid, followed by the number of access
// units sent before it as 16 hexadecimal digits. Decoders ignore it; a
// reader of the relay's ring finds from it in which order the pictures left
// the camera (no zero byte, so no emulation prevention is needed).
constexpr char kStampUuid[] = "tarnwick-counter";

// Logs one datagram received from the service.
void SimLogReceived(const uint8_t* data, size_t length);
// Applies a command frame whose checksums are right to the simulated camera
// (commands.cpp): settings become "set" lines of the telemetry model, each
// logged as "applied: set <key> <value>". Frames with a bad checksum never
// get here.
void SimApplyCommand(const uint8_t* frame, size_t length);

// The data stream: fills `out` with the report frames for the next
// data-stream datagram. Per datagram (one per --report-period): gimbal
// attitude, and tracking while it is on; every 2nd: histogram while on;
// every 5th: camera information, settings, focus, gimbal state, and playback
// in playback mode; every 10th: battery.
size_t SimBuildReports(uint8_t* out, size_t capacity);

// A report setting: "set <key> <value>", the value being the rest of the line.
// Returns false for a line that is not a "set" line; a set line with an
// unknown key or a bad value prints "bad setting: <line>" and changes nothing.
// Thread-safe: any thread may call it (stdin, decoded commands).
//
// Keys of the status line, with values as the status line shows them:
//   camera_model   "DJI Pocket 2", "DJI Pocket Osmo" or a model code 0-255
//   camera_mode    photo | video | playback | a mode code
//   sd             free space in GB, "29.7" or "29.7G"; empty or 0: none
//   shots_left     number
//   rec_time_left  "hh:mm:ss" or seconds (counts down while recording)
//   rec_time       "hh:mm:ss" or seconds (counts on while recording)
//   battery_level  -128..127 (also "battery"); drifts 1 per minute
//   battery_charging 0 | 1
//   shot_mode      RAW | JPG | JPG+RAW
//   resolution     1280x720, 1920x1080, 3840x2160, 4096x2160, 2704x1520,
//                  2720x1530, 4000x3000, 2720x2040
//   framerate      24 | 25 | 30 | 48 | 50 | 60 | 120
//   format         <resolution>@<framerate>
//   ae             0 | 1 (auto exposure locked)
//   aperture       f-number, "2.8"
//   shutter, shutter_set  a shutter text: "8\"", "3.2\"", "1/240", "1/12.5"
//   iso            number in use
//   iso_set        auto | 100 | 200 | 400 | 800 | 1600 | 3200 | 6400
//   ev             -3.0 ... +3.0 in thirds as shown ("-0.7", "0", "+1.3")
//   image_mode     auto | shutter | aperture | manual
//   color_mode     none | d-clike | art | black white | vivid | d-cinelike |
//                  portrait | beach | dream | classic | nostalgia | d-log
//   wb             auto | sunny | cloudy | incandescent | neon | custom
//   wb_temp        kelvin, in steps of 100
//   ratio          16:9 | 4:3
//   sensor         16 | 64
//   video_std      NTSC | PAL
//   antiflicker    "50 Hz" | "60 Hz" | auto (also 50, 60)
//   histogram      0 | 1 (histogram reports off / on)
//   pl_state       playing | paused | stopped (position runs while playing)
//   pl_id          clip number
//   pl_dur, pl_time  "hh:mm:ss" or seconds
// Keys of the binary messages:
//   recording      0 | 1 (camera flags bits 7..6 = 2; rec_time counts)
//   zoom           digital zoom as reported (100 = 1x)
//   attitude       "<a0> <a1> <a2>" gimbal attitude in tenths of a degree
//                  as the service shows it (the sweep moves around it)
//   gimbal_sweep   0 | 1 (slow automatic motion, on at start)
//   gimbal_mode_flag 0 | 1
//   focus_mode     MF | AFS | AFC
//   focus_point    "<x> <y>", normalised
//   tracking       off | lost | "<x> <y> <w> <h>" (a tracked subject)
bool SimHandleReportCommand(const char* line);

// The video source: the next access unit of the stream, looping.
int SimOpenVideo(const char* path);
size_t SimNextVideoFrame(const uint8_t** data);
