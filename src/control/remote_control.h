#pragma once
// Remote-control input.
//
// Another process on the board reads a hand-held remote control and writes
// the state of its sticks, buttons and switches into the POSIX shared-memory
// object "/shared_rc_raw" (RcRawState), without any lock. One thread,
// RemoteControlLoop, waits for the camera's data stream and then polls the
// record: every 20 ms once the main application has chosen a movement mode,
// every second before. Each cycle it turns changes of buttons, rockers and
// switches into camera commands, applies the gimbal sticks as speed or angle
// commands, drives continuous digital zoom (ZoomRate) and clears a tracking
// stamp that has gone stale ("Tracking lost").
//
// Threads and shared state:
//  - RcRawState: written by the remote-control process, read here only (the
//    relay creates it when it is missing). Every value is read once per cycle,
//    when its slot is served, with a volatile load; the three sticks are read
//    together at the start of the cycle.
//  - RcControlState (in the .cpp): written by StartRemoteControl before the
//    thread starts, then owned by the remote-control thread alone.
//  - CameraState: read (mode_code, focus_mode, ae, gimbal_mode_flag) and
//    written (gimbal_lock_requested, zoom_set, tracking_time) under
//    camera_state_lock, never held across a command call or a log line.
//  - MovementMode and ZoomRate (control/app_commands.h): atomics; read once
//    per cycle, ZoomRate also written by the zoom slots.
//
// When "/shared_rc_raw" can be neither opened nor created, or cannot be
// mapped (or sized), the relay goes on without remote control: it writes
// "Shared raw RC unavailable, retrying\n" once, the cycle skips the slots
// (the sticks stay centred), while ZoomRate, the orientation-lock speed
// command and the tracking watchdog go on as usual, and the thread tries to
// open the object again once a second, quietly; the usual "Creating new
// shared raw RC" / "Shared raw RC mem opened" line is written when a retry
// succeeds. The record pointer is only ever null or a complete 1504-byte
// mapping, so the cycle never reads through an invalid mapping. A failed
// attempt closes its descriptor, so retries leak nothing. A writer that later
// shrinks or replaces the object cannot make a read fault (see
// net/shared_memory.h): the cycle copies the slots once per cycle and reads
// neutral input (sticks centred, nothing pressed) while the mapping does not
// show the object and for one cycle after it shows it again, so that every
// edge re-arms; the service's watch restores it within about a second.
// A thread that cannot be started is reported as
// "Remote control thread not started\n"; the relay runs on without it.
#include <cstddef>
#include <cstdint>

#include "tarnwickclient/interface.h"

using namespace tarnwick::wire;

// ---------------------------------------------------------------------------
// RcRawState: "/shared_rc_raw", its layout and slots in
// tarnwickclient/interface.h.

struct RcRawState {
    uint8_t writer_area[kRcSlotValueOffset];
    double slot_value[kRcSlotCount];
    uint8_t unused_after_values[kRcSlotFlagOffset - kRcSlotValueOffset - kRcSlotCount * sizeof(double)];
    uint16_t slot_flag[kRcSlotCount];
    uint8_t unused_after_flags[kRcRawStateSize - kRcSlotFlagOffset - kRcSlotCount * sizeof(uint16_t)];
};
static_assert(sizeof(RcRawState) == kRcRawStateSize, "RcRawState is 1504 bytes");
static_assert(offsetof(RcRawState, slot_value) == kRcSlotValueOffset, "slot values at byte 1056");
static_assert(offsetof(RcRawState, slot_flag) == kRcSlotFlagOffset, "slot flags at byte 1412");

// Cycle periods.
constexpr uint32_t kRcStreamPollMs = 100;           // waiting for the camera's stream
constexpr uint32_t kRcReopenIntervalMs = 1000;      // retrying an object that could not be mapped
constexpr uint32_t kRcTrackingLostMs = 3000;        // a tracking stamp older than this is lost

// ---------------------------------------------------------------------------
// Operations.

// Starts the remote-control thread (called once, by the main-application
// link, before it opens its endpoints): keeps the CameraState pointer,
// centres the sticks, maps the record when not yet mapped, clears every
// edge state and starts RemoteControlLoop. Always returns 0.
int StartRemoteControl();

// Opens "/shared_rc_raw" (creating it when missing, with "Creating new shared
// raw RC", else "Shared raw RC mem opened"), sizes it to 1504 bytes and maps
// it. Returns the mapping, kept for the life of the process, or null (see the
// failure rule above).
RcRawState* OpenRcRawState();

// The remote-control thread: waits for the camera's stream, then cycles for
// ever. Never returns.
void* RemoteControlLoop(void*);

// Opens or creates the object `name` (mode 0600), sets its size to 1504 bytes
// and maps it readable, writable and shared. On success returns the mapping
// and stores the open descriptor in *fd; returns null on failure, closing
// anything it opened. *missing tells whether the object could not be opened
// as it stood, so that creating it was tried. Writes nothing. Used by
// OpenRcRawState and by the remote-control writer tool.
RcRawState* MapRcRawState(const char* name, int* fd, bool* missing);

// Whole-value reads and writes of a record that another process changes at
// the same time.
double LoadRcSlotValue(const RcRawState* record, size_t slot);
uint16_t LoadRcSlotFlag(const RcRawState* record, size_t slot);
void StoreRcSlotValue(RcRawState* record, size_t slot, double value);
void StoreRcSlotFlag(RcRawState* record, size_t slot, uint16_t flag);

// ---------------------------------------------------------------------------
// The handling rules, one step of one slot. `edge` is the slot's edge state:
// the sign that last acted (-1, 0 or +1).

// +1 above zero, -1 below, 0 for zero and for a value that is not a number.
int RcSign(double value);

// Button: true when its action fires. Holding fires once; a direct swing
// from +1 to -1 (or back) fires again; sign 0 re-arms it.
bool RcButtonStep(int32_t* edge, int sign);

// Rocker: +1 when the up action fires, -1 for the down action, 0 for none.
int RcRockerStep(int32_t* edge, int sign);

// Level and zoom slots: true when the sign differs from the edge state (the
// edge state then takes it), including the change back to 0.
bool RcChangeStep(int32_t* edge, int sign);

// EV axis: the EvNames index of an axis value, 9.5 v + 9.5 truncated toward
// zero and limited to 0 .. 18; -1 for a value that is not a number (the axis
// is then left alone).
int RcEvAxisIndex(double value);

// One remote-control cycle, as the thread runs it once the camera's stream
// has been seen; returns the time to sleep before the next. For harnesses
// that drive the cycle themselves, without the thread.
uint32_t RunRemoteControlCycle();

// Every edge state, the stick copies and the last EV index back to a fresh
// start, the camera state pointer taken again; the record's mapping stays.
void ResetRemoteControl();
